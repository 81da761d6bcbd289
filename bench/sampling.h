// Dense synthetic scans for the benchmarks (not accuracy tests: the noise is a plain
// deterministic scramble).
#pragma once

#include <cmath>
#include <cstdint>

#include "gfit/gfit.h"

namespace gfit::bench {

// A reproducible uniform number in [-1, 1) from an index.
inline double scramble(std::uint64_t i) {
  i = (i + 0x9E3779B97F4A7C15ull) * 0xBF58476D1CE4E5B9ull;
  i = (i ^ (i >> 31)) * 0x94D049BB133111EBull;
  return ((i >> 11) * 0x1.0p-53) * 2.0 - 1.0;
}

inline giPoint3coDynArr plane_scan(int n) {
  giPoint3coDynArr pts(n, 1024);
  for (int i = 0; i < n; ++i)
    pts.append(giPoint3(500 + 100 * scramble(3 * i), -300 + 80 * scramble(3 * i + 1), 250 + 1e-3 * scramble(3 * i + 2)));
  return pts;
}

inline giPoint3coDynArr line_scan(int n) {
  giPoint3coDynArr pts(n, 1024);
  for (int i = 0; i < n; ++i) {
    double t = 200 * scramble(3 * i);
    pts.append(giPoint3(100 + 0.6 * t + 1e-3 * scramble(3 * i + 1), 50 + 0.8 * t, 20 + 1e-3 * scramble(3 * i + 2)));
  }
  return pts;
}

inline giPoint2coDynArr circle_scan(int n, double cx, double cy, double r) {
  giPoint2coDynArr pts(n, 1024);
  for (int i = 0; i < n; ++i) {
    double t = 2 * giPi * i / n, rr = r + 1e-3 * scramble(i);
    pts.append(giPoint2(cx + rr * std::cos(t), cy + rr * std::sin(t)));
  }
  return pts;
}

}  // namespace gfit::bench

namespace gfit::bench {

// A noisy cylinder (radius 20, length 80) about an oblique axis away from the origin,
// covering `span` radians of its circumference.
inline giUnitVec3 cylinder_scan_axis() { return giUnitVec3(0.3, -0.5, 0.81); }
inline giPoint3 cylinder_scan_origin() { return giPoint3(420.0, -130.0, 75.0); }
inline giPoint3coDynArr cylinder_scan(int n, double span) {
  const giUnitVec3 axis = cylinder_scan_axis();
  const giUnitVec3 e1 = axis.any_normal(), e2(axis.cross(e1));
  const giPoint3 origin = cylinder_scan_origin();
  giPoint3coDynArr pts(n, 1024);
  for (int i = 0; i < n; ++i) {
    double t = span * (0.5 + 0.5 * scramble(4 * i)), h = 40.0 * scramble(4 * i + 1);
    double r = 20.0 + 2e-3 * scramble(4 * i + 2);
    pts.append(origin + axis * h + e1 * (r * std::cos(t)) + e2 * (r * std::sin(t)));
  }
  return pts;
}

inline giPoint3coDynArr sphere_scan(int n) {
  giPoint3coDynArr pts(n, 1024);
  for (int i = 0; i < n; ++i) {
    double z = scramble(4 * i), phi = giPi * scramble(4 * i + 1), s = std::sqrt(1 - z * z);
    double r = 12.5 + 2e-3 * scramble(4 * i + 2);
    pts.append(giPoint3(-310.0 + r * s * std::cos(phi), 95.0 + r * s * std::sin(phi), 60.0 + r * z));
  }
  return pts;
}

}  // namespace gfit::bench
