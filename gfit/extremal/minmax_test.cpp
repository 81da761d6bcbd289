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
        double t = 0.5 * giPi * i / 40.0, r = 10.0 + a * std::cos(lobes * t);
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
    Points p = gfit::testing::noisy_arc(rng, giPoint2(-50.0 * trial, 75.0), 6.0, 0.0, 2 * giPi, 20, 0.003);
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

// A profile for the minimum-zone table: lobes of amplitude `lobe` sampled over `span` at even
// or random angles, with radial noise, about a centre away from the origin.
struct ZoneCase {
  char const* name;
  int n, lobes;
  double lobe, noise, span;
  bool even;
};

Points zone_profile(ZoneCase const& z, Rng& rng, giPoint2 const& centre) {
  Points p;
  for (int i = 0; i < z.n; ++i) {
    double t = z.even ? z.span * i / (z.span >= 2 * giPi ? z.n : z.n - 1) : rng.uniform(0.0, z.span);
    if (!z.even && i % 3 == 0) t *= 0.3;  // uneven: a third of the points crowd the first part
    double r = 12.5 + z.lobe * std::cos(z.lobes * t) + z.noise * rng.normal();
    p.push_back(centre + giVector2(r * std::cos(t + 0.4), r * std::sin(t + 0.4)));
  }
  return p;
}

// The directions from c to the points within `tol` of the largest and of the smallest
// compensated distance alternate around c: the zone cannot be narrowed by moving c.
bool contacts_alternate(Points const& p, std::vector<double> const& rho, giPoint2 const& c, double tol) {
  double lo = DBL_MAX, hi = -DBL_MAX;
  for (size_t i = 0; i < p.size(); ++i) {
    lo = std::min(lo, p[i].distance(c) - rho[i]);
    hi = std::max(hi, p[i].distance(c) - rho[i]);
  }
  std::vector<std::pair<double, int>> around;
  for (size_t i = 0; i < p.size(); ++i) {
    double d = p[i].distance(c) - rho[i], a = std::atan2(p[i].y() - c.y(), p[i].x() - c.x());
    if (d >= hi - tol) around.emplace_back(a, 1);
    if (d <= lo + tol) around.emplace_back(a, -1);
  }
  std::sort(around.begin(), around.end());
  int changes = 0;
  for (size_t k = 0; k < around.size(); ++k) changes += around[k].second != around[(k + 1) % around.size()].second;
  return changes >= 4;
}

// Evenly and unevenly sampled, noisy and noise-free, full and partial profiles (the walk
// alone stops well above the minimum zone on several of them): the width equals the
// exhaustive search over contact sets, the contacts alternate, and the probed form with
// zero radii and with equal radii gives the same zone.
TEST(MinMaxCircleFit, MinimumZoneEqualsExhaustiveSearch) {
  const ZoneCase cases[] = {
      {"36 even, 5 lobes", 36, 5, 0.01, 0.0, 2 * giPi, true},
      {"36 even, 7 lobes", 36, 7, 0.01, 0.0, 2 * giPi, true},
      {"36 even, 3 lobes, noisy", 36, 3, 0.01, 0.002, 2 * giPi, true},
      {"30 uneven, noisy", 30, 0, 0.0, 0.003, 2 * giPi, false},
      {"30 uneven, 4 lobes", 30, 4, 0.005, 0.001, 2 * giPi, false},
      {"36 even, 3 lobes, 270 degrees", 36, 3, 0.01, 0.0, 1.5 * giPi, true},
      {"30 uneven, 270 degrees, noisy", 30, 2, 0.004, 0.002, 1.5 * giPi, false},
      {"30 even, 180 degrees, noisy", 30, 0, 0.0, 0.003, giPi, true},
      {"30 uneven, 180 degrees, noisy", 30, 3, 0.002, 0.003, giPi, false},
  };
  Rng rng(7);
  for (ZoneCase const& z : cases)
    for (giPoint2 centre : {giPoint2(0.0, 0.0), giPoint2(3000.0, -2000.0)}) {
      Points p = zone_profile(z, rng, centre);
      const double reference = brute_force_width(p);
      double width = -1.0, zero_width = -1.0, equal_width = -1.0;
      giCircle2 c = gfMinMaxCircleFit::fit(p, width);
      EXPECT_NEAR(width, reference, 1e-9 * reference) << z.name;
      double again = -1.0;
      giCircle2 second = gfMinMaxCircleFit::fit(p, again);  // the same bits on every run
      EXPECT_TRUE(again == width && second.centre() == c.centre() && second.radius() == c.radius()) << z.name;
      EXPECT_NEAR(width, width_at(p, c.centre()), 1e-12) << z.name;
      EXPECT_TRUE(contacts_alternate(p, std::vector<double>(p.size(), 0.0), c.centre(), 1e-11)) << z.name;
      gfMinMaxCircleFit::fit_probed(p, std::vector<double>(p.size(), 0.0), false, zero_width);
      EXPECT_NEAR(zero_width, reference, 1e-9 * reference) << z.name;
      giCircle2 equal = gfMinMaxCircleFit::fit_probed(p, std::vector<double>(p.size(), 0.75), true, equal_width);
      EXPECT_NEAR(equal_width, reference, 1e-9 * reference) << z.name;
      EXPECT_NEAR(equal.radius(), c.radius() + 0.75, 1e-9) << z.name;
    }
}

// A million units from the origin the centre itself rounds to 1.2e-10, so the width can
// only follow the exhaustive search (made on the points moved next to the origin) to a
// few times that.
TEST(MinMaxCircleFit, MinimumZoneFarFromTheOrigin) {
  Rng rng(17);
  for (double span : {2 * giPi, giPi}) {
    Points near = zone_profile({"", 30, 3, 0.004, 0.002, span, false}, rng, giPoint2(0.0, 0.0));
    Points far;
    for (giPoint2 const& q : near) far.push_back(giPoint2(q.x() + 1e6, q.y() - 2e6));
    double width = -1.0;
    gfMinMaxCircleFit::fit(far, width);
    EXPECT_NEAR(width, brute_force_width(near), 1e-9) << span;
  }
}

// Probe radii that differ point to point: no move of the centre on a fine pattern narrows
// the compensated zone, and its contacts alternate.
TEST(MinMaxCircleFit, ProbedMinimumZoneWithUnequalRadii) {
  Rng rng(3);
  for (double span : {2 * giPi, giPi}) {
    Points p = zone_profile({"", 40, 3, 0.01, 0.002, span, false}, rng, giPoint2(-40.0, 25.0));
    std::vector<double> radii;
    for (size_t i = 0; i < p.size(); ++i) radii.push_back(rng.uniform(0.5, 1.5));
    double width = 0.0;
    giCircle2 c = gfMinMaxCircleFit::fit_probed(p, radii, false, width);
    auto compensated = [&](giPoint2 const& q) {
      double lo = DBL_MAX, hi = -DBL_MAX;
      for (size_t i = 0; i < p.size(); ++i) {
        lo = std::min(lo, p[i].distance(q) - radii[i]);
        hi = std::max(hi, p[i].distance(q) - radii[i]);
      }
      return hi - lo;
    };
    EXPECT_NEAR(width, compensated(c.centre()), 1e-12);
    for (double h = 1e-3; h > 1e-9; h *= 0.1)
      for (int k = 0; k < 16; ++k) {
        giPoint2 q = c.centre() + giVector2(h * std::cos(k * giPi / 8), h * std::sin(k * giPi / 8));
        EXPECT_GE(compensated(q), width * (1.0 - 1e-9)) << span << " " << h;
      }
    EXPECT_TRUE(contacts_alternate(p, radii, c.centre(), 1e-11));
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
