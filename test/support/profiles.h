// Roundness profiles with known extremal circles, for the tests of the extremal fits.
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "gfit/gfit.h"
#include "test/support/samplers.h"

namespace gfit::testing {

// n points at r(theta) = radius + amplitude cos(lobes theta) about `centre`, at the angles
// phase + 2 pi i / n. With amplitude 0 (or lobes 0) they are the vertices of a regular n-gon.
// For lobes >= 2 and n a multiple of 2 lobes, the peaks and troughs are sampled exactly: the
// minimum circumscribed circle is (centre, radius + amplitude), the maximum inscribed one
// (centre, radius - amplitude) and the minimum zone has width 2 amplitude about `centre`.
inline std::vector<giPoint2> lobed_profile(giPoint2 const& centre, double radius, int lobes, double amplitude, int n,
                                           double phase = 0.0) {
  std::vector<giPoint2> out;
  out.reserve(n);
  for (int i = 0; i < n; ++i) {
    double t = 2.0 * giPi * i / n;
    double r = radius + amplitude * std::cos(lobes * t);
    out.push_back(centre + giVector2(r * std::cos(t + phase), r * std::sin(t + phase)));
  }
  return out;
}

inline std::vector<giPoint2> to_vector(giPoint2coDynArr const& points) {
  return std::vector<giPoint2>(points.begin(), points.end());
}

// A noisy arc: n points at random angles of [start, start + span], radial Gaussian noise.
inline std::vector<giPoint2> noisy_arc(Rng& rng, giPoint2 const& centre, double radius, double start, double span, int n,
                                       double noise) {
  return to_vector(sample_circle2(rng, centre, radius, start, span, n, noise));
}

// The widest angular gap, in radians, between the directions from `centre` to `points`. A
// circle whose contact points leave no gap wider than pi cannot be improved by moving its
// centre (the optimality condition of the smallest enclosing and largest empty circles).
inline double widest_gap(giPoint2 const& centre, std::vector<giPoint2> const& points) {
  std::vector<double> angles;
  for (giPoint2 const& p : points) angles.push_back(std::atan2(p.y() - centre.y(), p.x() - centre.x()));
  std::sort(angles.begin(), angles.end());
  double widest = angles.empty() ? 2.0 * giPi : angles.front() + 2.0 * giPi - angles.back();
  for (size_t i = 1; i < angles.size(); ++i) widest = std::max(widest, angles[i] - angles[i - 1]);
  return widest;
}

}  // namespace gfit::testing
