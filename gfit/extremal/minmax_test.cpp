#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "gfit/gfit.h"
#include "test/support/profiles.h"

namespace {

using gfit::testing::lobed_profile;
using gfit::testing::Rng;
using Points = std::vector<giPoint2>;

double width_at(Points const& p, giPoint2 const& c) {
  double lo = DBL_MAX, hi = -DBL_MAX;
  for (giPoint2 const& q : p) {
    lo = std::min(lo, q.distance(c));
    hi = std::max(hi, q.distance(c));
  }
  return hi - lo;
}

// The minimum zone is met at a centre equidistant from two pairs of points (the crossing of
// their bisectors) or from three points: try every such centre (the definition's oracle).
double brute_force_width(Points const& p) {
  std::vector<std::pair<giPoint2, giVector2>> bisectors;
  for (size_t i = 0; i < p.size(); ++i)
    for (size_t j = i + 1; j < p.size(); ++j) {
      giVector2 d = p[j] - p[i];
      bisectors.push_back(
          {giPoint2(0.5 * (p[i].x() + p[j].x()), 0.5 * (p[i].y() + p[j].y())), giVector2(-d.y(), d.x())});
    }
  double best = DBL_MAX;
  for (size_t a = 0; a < bisectors.size(); ++a)
    for (size_t b = a + 1; b < bisectors.size(); ++b) {
      double t;
      if (gfUtils::intersect_lines(bisectors[a].first, bisectors[a].second, bisectors[b].first, bisectors[b].second, t))
        best = std::min(best, width_at(p, bisectors[a].first + bisectors[a].second * t));
    }
  return best;
}

TEST(MinMaxCircleFit, KnownProfiles) {
  const giPoint2 centre(4321.0, 987.0);
  double width = -1.0;
  // Points on a circle: the first width is at rounding level and the walk stops there.
  giCircle2 c = gfMinMaxCircleFit::fit(lobed_profile(centre, 10.0, 0, 0.0, 11, 0.4), width);
  EXPECT_LT(width, 1e-11);
  EXPECT_NEAR(c.radius(), 10.0, 1e-11);
  EXPECT_NEAR(c.centre().distance(centre), 0.0, 1e-11);
  // Lobes of amplitude a: the minimum zone has width 2a about the centre. Sampled evenly
  // (the centroid is the centre) the extremes interlace at once; with extra points on one
  // side (the centroid is off) the walk must travel to the centre, which it does for three
  // and five lobes.
  const double a = 0.004;
  for (int lobes : {2, 3, 5})
    for (bool off : {false, true}) {
      if (off && lobes == 2) continue;
      Points p = lobed_profile(centre, 10.0, lobes, a, 60 * lobes);
      giVector2 shift(0.0, 0.0);
      for (int i = 1; off && i < 40; ++i) {
        double t = 0.5 * M_PI * i / 40.0, r = 10.0 + a * std::cos(lobes * t);
        p.push_back(centre + giVector2(r * std::cos(t), r * std::sin(t)));
        shift += giVector2(r * std::cos(t), r * std::sin(t)) / static_cast<double>(p.size());
      }
      ASSERT_TRUE(!off || shift.length() > 0.1);
      c = gfMinMaxCircleFit::fit(p, width);
      EXPECT_NEAR(width, 2 * a, 1e-10) << lobes << " lobes, off " << off;
      EXPECT_NEAR(c.radius(), 10.0, 1e-10) << lobes << " lobes, off " << off;
      EXPECT_NEAR(c.centre().distance(centre), 0.0, 1e-9) << lobes << " lobes, off " << off;
    }
  // Two points: the centre is driven to the farther one's side until the width is 0.
  c = gfMinMaxCircleFit::fit({giPoint2(0, 0), giPoint2(2, 0)}, width);
  EXPECT_NEAR(width, 0.0, 1e-15);
  EXPECT_NEAR(c.radius(), c.centre().distance(giPoint2(0, 0)), 1e-15);
}

TEST(MinMaxCircleFit, NoisyProfiles) {
  Rng rng(21);
  for (int trial = 0; trial < 12; ++trial) {
    // 20 points at random angles of a 6 mm circle with 3 um noise (the oracle is of order
    // n^5), so the centroid is far from the centre.
    Points p = gfit::testing::noisy_arc(rng, giPoint2(-50.0 * trial, 75.0), 6.0, 0.0, 2 * M_PI, 20, 0.003);
    double reference = brute_force_width(p);
    double width = 0.0, probed_width = 0.0;
    // The walk only narrows the zone, never below the minimum; it stops at the first step
    // that would widen it, which on such profiles is above the minimum zone.
    giCircle2 c = gfMinMaxCircleFit::fit(p, width);
    EXPECT_NEAR(width, width_at(p, c.centre()), 1e-12);
    for (giPoint2 const& q : p) EXPECT_LE(std::fabs(q.distance(c.centre()) - c.radius()), 0.5 * width + 1e-12);
    EXPECT_GE(width, reference - 1e-12);
    double sum_x = 0.0, sum_y = 0.0;
    for (giPoint2 const& q : p) {
      sum_x += q.x() / p.size();
      sum_y += q.y() / p.size();
    }
    EXPECT_LT(width, 0.1 * width_at(p, giPoint2(sum_x, sum_y)));
    // The simplex minimises the same width and reaches the minimum zone.
    giCircle2 probed = gfMinMaxCircleFit::fit_probed(p, std::vector<double>(p.size(), 0.0), false, probed_width);
    EXPECT_NEAR(probed_width, reference, 1e-9) << "trial " << trial;
    EXPECT_NEAR(probed_width, width_at(p, probed.centre()), 1e-12);
  }
}

TEST(MinMaxCircleFit, ProbedWithEqualRadiiShiftsTheRadius) {
  Points p = lobed_profile(giPoint2(-700, 1200), 15.0, 3, 0.01, 180, 0.3);
  double plain_width = 0.0, width = 0.0;
  giCircle2 plain = gfMinMaxCircleFit::fit(p, plain_width);
  for (bool negate : {false, true}) {
    giCircle2 c = gfMinMaxCircleFit::fit_probed(p, std::vector<double>(p.size(), 1.5), negate, width);
    EXPECT_NEAR(width, plain_width, 1e-9);
    EXPECT_NEAR(c.radius(), plain.radius() + (negate ? 1.5 : -1.5), 1e-9);
    EXPECT_NEAR(c.centre().distance(plain.centre()), 0.0, 1e-6);
  }
}

TEST(MinMaxCircleFit, DegenerateInputsAndRefusals) {
  double width = 7.0;
  EXPECT_TRUE(gfMinMaxCircleFit::fit({}, width).invalid());
  EXPECT_EQ(width, 0.0);
  width = 7.0;
  giCircle2 one = gfMinMaxCircleFit::fit({giPoint2(1, 2)}, width);
  EXPECT_EQ(one.radius(), 0.0);
  EXPECT_EQ(width, 0.0);
  width = 7.0;
  EXPECT_TRUE(gfMinMaxCircleFit::fit({giPoint2(1, 2), giPoint2(NAN, 0)}, width).invalid());
  EXPECT_TRUE(gfMinMaxCircleFit::fit_probed({giPoint2(1, 2)}, {-1.0}, false, width).invalid());
  EXPECT_EQ(width, 7.0);
  // Coincident points only: the walk stops at once.
  giCircle2 same = gfMinMaxCircleFit::fit(std::vector<giPoint2>(5, giPoint2(3, 3)), width);
  EXPECT_EQ(width, 0.0);
  EXPECT_EQ(same.radius(), 0.0);
  gfProbedMinMaxCircleFunctionN1 empty({}, {});
  EXPECT_EQ(empty.function(mlVector{0.0, 0.0}), -INFINITY);
}

}  // namespace
