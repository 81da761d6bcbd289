#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "gfit/gfit.h"
#include "test/support/profiles.h"

namespace {

using gfit::testing::lobed_profile;
using gfit::testing::Rng;
using Points = std::vector<giPoint2>;

double nearest_distance(Points const& p, giPoint2 const& c) {
  double m = DBL_MAX;
  for (giPoint2 const& q : p) m = std::min(m, q.distance(c));
  return m;
}

// The largest empty circle centred in the hull of the points: over all circumcircles of
// three points with no point inside, the definition's oracle at quartic cost.
double brute_force_radius(Points const& p) {
  giPoint2coDynArr all;
  for (giPoint2 const& q : p) all.append(q);
  giPoint2coDynArr hull;
  gf_calculate_convex_hull(all, hull);
  double best = 0.0;
  for (size_t i = 0; i < p.size(); ++i)
    for (size_t j = i + 1; j < p.size(); ++j)
      for (size_t k = j + 1; k < p.size(); ++k) {
        giCircle2 c;
        if (!c.become(p[i], p[j], p[k]) || c.radius() <= best) continue;
        if (gf_relative_position(c.centre(), hull) == gf_outside) continue;
        if (nearest_distance(p, c.centre()) >= c.radius() * (1 - 1e-12)) best = c.radius();
      }
  return best;
}

TEST(MaximumInscribedCircle, StopsAtOnceWhenTheNearestPointsSurroundTheStart) {
  // From the centroid, and from a start circle at the local maximum (its radius measured
  // again): the centre at once. From near a corner: one nearest point, so the centre first
  // moves straight away from it.
  Points square{giPoint2(0, 0), giPoint2(4, 0), giPoint2(4, 4), giPoint2(0, 4)};
  for (giCircle2 start : {giCircle2(), giCircle2(giPoint2(2, 2), 1.0), giCircle2(giPoint2(0.5, 1.0), 0.0)}) {
    const bool corner = start.centre().x() == 0.5;
    giCircle2 c = start.invalid() ? gfMaximumInscribedCircle::calculate_maximum_inscribed_circle(square)
                                  : gfMaximumInscribedCircle::calculate_maximum_inscribed_circle(square, start);
    EXPECT_NEAR(c.centre().distance(giPoint2(2, 2)), 0.0, corner ? 1e-14 : 0.0) << corner;
    EXPECT_NEAR(c.radius(), std::sqrt(8.0), corner ? 1e-14 : 1e-15);
  }
}

TEST(MaximumInscribedCircle, KnownProfiles) {
  const giPoint2 centre(-2500.0, 730.0);
  // Regular polygon: its circumcircle. Three and five lobes, started off centre: the circle
  // on the troughs. Exact inputs: rounding at the size of the coordinates.
  struct Case {
    int lobes, n;
    double amplitude;
  } cases[] = {{0, 9, 0.0}, {3, 360, 0.05}, {5, 500, 0.02}};
  for (Case const& k : cases) {
    Points p = lobed_profile(centre, 10.0, k.lobes, k.amplitude, k.n, 0.2);
    giCircle2 start(centre + giVector2(0.3 * k.amplitude, -0.2 * k.amplitude), 0.0);
    giCircle2 c = gfMaximumInscribedCircle::calculate_maximum_inscribed_circle(p, start);
    EXPECT_NEAR(c.radius(), 10.0 - k.amplitude, 1e-10) << k.lobes;
    EXPECT_NEAR(c.centre().distance(centre), 0.0, 1e-9) << k.lobes;
    EXPECT_NEAR(nearest_distance(p, c.centre()), c.radius(), 1e-10);  // empty, touching
  }
}

TEST(MaximumInscribedCircle, NoisyProfilesReachAnEmptyCircleNearTheLargest) {
  Rng rng(3);
  for (int trial = 0; trial < 12; ++trial) {
    // 60 points of a 5 mm circle with 5 um noise, duplicates among them.
    Points p = gfit::testing::noisy_arc(rng, giPoint2(80.0 * trial, 40.0), 5.0, 0.0, 2 * giPi, 60, 0.005);
    p.push_back(p[10]);
    p.push_back(p[20]);
    giCircle2 c = gfMaximumInscribedCircle::calculate_maximum_inscribed_circle(p);
    EXPECT_NEAR(nearest_distance(p, c.centre()), c.radius(), 1e-12);  // empty, touching
    // The walk climbs to a local maximum. On a profile whose noise is small against its
    // radius, the local maxima near the centre are few and the walk from the centroid
    // reaches the largest empty circle (rounding only: the oracle's circumcircles are
    // computed from three points, the walk's from bisector crossings).
    EXPECT_NEAR(c.radius(), brute_force_radius(p), 1e-9) << "trial " << trial;
  }
}

TEST(MaximumInscribedCircle, ProbedFormsMatchThePlainOne) {
  Rng rng(4);
  for (int trial = 0; trial < 12; ++trial) {
    Points p = lobed_profile(giPoint2(300, -100), 8.0, 3 + trial % 3, 0.01, 240, 0.1 * trial);
    for (giPoint2& q : p) q += giVector2(0.002 * rng.normal(), 0.002 * rng.normal());
    giCircle2 plain = gfMaximumInscribedCircle::calculate_maximum_inscribed_circle(p);
    giCircle2 zero = gfMaximumInscribedCircle::calculate_maximum_inscribed_circle_probed(
        p, std::vector<double>(p.size(), 0.0), false);
    EXPECT_NEAR(zero.radius(), plain.radius(), 1e-10) << "trial " << trial;
    EXPECT_NEAR(zero.centre().distance(plain.centre()), 0.0, 1e-9) << "trial " << trial;
    for (bool more : {false, true}) {
      giCircle2 c = gfMaximumInscribedCircle::calculate_maximum_inscribed_circle_probed(
          p, std::vector<double>(p.size(), 0.75), more);
      EXPECT_NEAR(c.radius(), plain.radius() + (more ? 0.75 : -0.75), 1e-10) << "trial " << trial;
      EXPECT_NEAR(c.centre().distance(plain.centre()), 0.0, 1e-9);
    }
  }
}

// Evenly sampled lobed profiles whose first point is a peak and whose centroid is the
// centre: the walk stops where it starts, and the radius must still be the distance to the
// nearest point (it was once the first point's, the circumscribed radius).
TEST(MaximumInscribedCircle, RadiusIsTheNearestDistanceWhenTheWalkStopsAtOnce) {
  for (int n : {9, 15, 21, 33}) {
    Points p = lobed_profile(giPoint2(40, -15), 12.5, 3, 0.004, n);
    double expected = nearest_distance(p, giPoint2(40, -15));
    giCircle2 plain = gfMaximumInscribedCircle::calculate_maximum_inscribed_circle(p);
    EXPECT_NEAR(plain.radius(), expected, 1e-12) << n;
    for (double r : {0.0, 0.5})
      for (bool more : {false, true}) {
        giCircle2 c = gfMaximumInscribedCircle::calculate_maximum_inscribed_circle_probed(
            p, std::vector<double>(p.size(), r), more);
        EXPECT_NEAR(c.radius(), expected + (more ? r : -r), 1e-12) << n << " " << r << " " << more;
      }
  }
}

// Unequal probe radii, added to the distances (balls touching a bore from inside): the walk
// ends where no small move of the centre enlarges the smallest compensated distance, and
// the radius is that distance.
TEST(MaximumInscribedCircle, ProbedWithUnequalAddedRadiiEndsAtALocalMaximum) {
  Rng rng(9);
  for (int trial = 0; trial < 4; ++trial) {
    Points p = lobed_profile(giPoint2(-20, 70), 10.0, 3 + trial, 0.02, 90, 0.2 * trial);
    std::vector<double> radii;
    for (size_t i = 0; i < p.size(); ++i) radii.push_back(rng.uniform(0.2, 0.6));
    auto smallest = [&](giPoint2 const& c) {
      double m = DBL_MAX;
      for (size_t i = 0; i < p.size(); ++i) m = std::min(m, p[i].distance(c) + radii[i]);
      return m;
    };
    giCircle2 c = gfMaximumInscribedCircle::calculate_maximum_inscribed_circle_probed(p, radii, true);
    EXPECT_NEAR(c.radius(), smallest(c.centre()), 1e-12) << trial;
    for (double h = 1e-2; h > 1e-7; h *= 0.1)
      for (int k = 0; k < 16; ++k)
        EXPECT_LE(smallest(c.centre() + giVector2(h * std::cos(k * giPi / 8), h * std::sin(k * giPi / 8))),
                  c.radius() + 1e-12)
            << trial << " " << h;
  }
}

TEST(MaximumInscribedCircle, RefusalsAndSharedUtilities) {
  EXPECT_TRUE(gfMaximumInscribedCircle::calculate_maximum_inscribed_circle({}).invalid());
  EXPECT_TRUE(gfMaximumInscribedCircle::calculate_maximum_inscribed_circle({giPoint2(INFINITY, 0)}).invalid());
  EXPECT_TRUE(
      gfMaximumInscribedCircle::calculate_maximum_inscribed_circle_probed({giPoint2(0, 0)}, {}, false).invalid());
  // Distances within the tolerance form one group, even when they creep up in steps
  // smaller than it; a larger gap does not.
  Points p{giPoint2(1, 0), giPoint2(0, 1 + 0.5e-7), giPoint2(-1 - 1.0e-7, 0), giPoint2(0, -1 - 1.5e-7)};
  gfDistanceList farthest{{9.0, 42}}, nearest;
  gfCircleFitUtils::calculate_distances(p, giPoint2(0, 0), farthest, nearest);
  ASSERT_EQ(nearest.size(), 3u);
  EXPECT_EQ(nearest[2].second, 2u);
  ASSERT_EQ(farthest.size(), 3u);  // the running maximum crept past point 0: trimmed
  EXPECT_EQ(farthest[0].second, 3u);
  EXPECT_EQ(farthest[2].second, 1u);
  // With radii every distance is compensated.
  std::vector<double> r{0.5, 0.0, 0.0, 0.0};
  gfCircleFitUtils::calculate_distances(p, giPoint2(0, 0), farthest, nearest, r);
  ASSERT_EQ(nearest.size(), 1u);
  EXPECT_EQ(nearest[0].first, 0.5);
  // step_distance: from the origin along +x, the bisector of (1,0) and (3,0) is met at 2.
  double step = 0.0;
  Points line{giPoint2(1, 0), giPoint2(3, 0)};
  EXPECT_TRUE(gfCircleFitUtils::step_distance(giPoint2(0, 0), giVector2(1, 0), line, {{1.0, 0}}, step));
  EXPECT_DOUBLE_EQ(step, 2.0);
  EXPECT_FALSE(gfCircleFitUtils::step_distance(giPoint2(0, 0), giVector2(-1, 0), line, {{1.0, 0}}, step));
  EXPECT_EQ(step, DBL_MAX);
}

}  // namespace
