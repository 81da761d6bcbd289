#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "gfit/gfit.h"
#include "test/support/profiles.h"

namespace {

using gfit::testing::lobed_profile;
using gfit::testing::Rng;
using Points = std::vector<giPoint2>;

// The smallest of all circles on two points as diameter and through three points that hold
// every point (within 1e-12 relative): the definition, at quartic cost.
giCircle2 brute_force_circle(Points const& p) {
  double scale = 0.0;
  for (giPoint2 const& q : p) scale = std::max(scale, q.distance(p[0]));
  auto holds_all = [&](giCircle2 const& c) {
    for (giPoint2 const& q : p)
      if (q.distance(c.centre()) > c.radius() + 1e-12 * (1.0 + scale + std::fabs(p[0].x()))) return false;
    return true;
  };
  giCircle2 best;
  for (size_t i = 0; i < p.size(); ++i)
    for (size_t j = i + 1; j < p.size(); ++j) {
      giPoint2 mid(0.5 * (p[i].x() + p[j].x()), 0.5 * (p[i].y() + p[j].y()));
      giCircle2 c(mid, p[i].distance(mid));
      if (c.radius() < best.radius() && holds_all(c)) best = c;
      for (size_t k = j + 1; k < p.size(); ++k)
        if (c.become(p[i], p[j], p[k]) && c.radius() < best.radius() && holds_all(c)) best = c;
    }
  return best;
}

// Every point inside (to rounding) and at least two on the circle.
void expect_enclosing_with_support(Points const& p, giCircle2 const& c, double tol) {
  int on_circle = 0;
  for (giPoint2 const& q : p) {
    double d = q.distance(c.centre());
    EXPECT_LE(d, c.radius() + tol);
    if (d >= c.radius() - tol) ++on_circle;
  }
  EXPECT_GE(on_circle, 2);
}

TEST(MinimumCircumscribedCircle, SmallCases) {
  auto mcc = [](Points const& p) { return gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(p); };
  EXPECT_TRUE(mcc({}).invalid());
  EXPECT_TRUE(mcc({giPoint2(0, 0), giPoint2(NAN, 1)}).invalid());
  EXPECT_EQ(mcc({giPoint2(2, 3)}).radius(), 0.0);
  EXPECT_EQ(mcc({giPoint2(2, 3)}).centre(), giPoint2(2, 3));
  EXPECT_EQ(mcc({giPoint2(0, 0), giPoint2(4, 0)}).centre(), giPoint2(2, 0));
  EXPECT_EQ(mcc({giPoint2(0, 0), giPoint2(4, 0)}).radius(), 2.0);
  // Obtuse triangle: the circle on the longest side. Acute: the circumcircle.
  EXPECT_NEAR(mcc({giPoint2(0, 0), giPoint2(1, 0.5), giPoint2(4, 0)}).radius(), 2.0, 1e-15);
  giCircle2 acute = mcc({giPoint2(0, 0), giPoint2(2, 3), giPoint2(4, 0)});
  EXPECT_NEAR(acute.centre().y(), 5.0 / 6.0, 1e-15);
  EXPECT_NEAR(acute.radius(), std::hypot(2.0, 5.0 / 6.0), 1e-15);
  // Collinear points with duplicates: the two extreme points.
  Points line{giPoint2(1, 1), giPoint2(3, 3), giPoint2(2, 2), giPoint2(3, 3), giPoint2(0, 0), giPoint2(2, 2)};
  EXPECT_NEAR(mcc(line).radius(), std::sqrt(4.5), 1e-15);
  EXPECT_TRUE(
      gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle_probed({giPoint2(0, 0), giPoint2(1, 1)}, {1.0}, true)
          .invalid());
}

TEST(MinimumCircumscribedCircle, KnownProfiles) {
  const giPoint2 centre(1234.5, -678.25);
  // A regular heptagon: every vertex on the circumcircle. Three lobes of amplitude 2 um on
  // a 10 mm radius: the peaks. Two lobes: the two peaks as diameter. Exact inputs, so the
  // tolerance is rounding at the size of the coordinates.
  struct Case {
    int lobes, n;
    double amplitude;
  } cases[] = {{0, 7, 0.0}, {3, 360, 0.002}, {2, 400, 0.002}, {5, 1000, 0.01}};
  for (Case const& k : cases) {
    Points p = lobed_profile(centre, 10.0, k.lobes, k.amplitude, k.n, 0.3);
    giCircle2 c = gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(p);
    EXPECT_NEAR(c.radius(), 10.0 + k.amplitude, 1e-11);
    EXPECT_NEAR(c.centre().distance(centre), 0.0, 1e-11);
    expect_enclosing_with_support(p, c, 1e-11);
  }
}

TEST(MinimumCircumscribedCircle, AgreesWithBruteForceOnNoisyArcsDuplicatesAndCollinearPoints) {
  Rng rng(11);
  for (int trial = 0; trial < 40; ++trial) {
    double span = rng.uniform(0.3, 2.0 * giPi);
    Points p = gfit::testing::noisy_arc(rng, giPoint2(500 * trial, -20), 25.0, rng.uniform(0, 6), span, 30, 0.01);
    // Duplicates, and points on a chord between two others (collinear triples).
    p.push_back(p[3]);
    p.insert(p.begin() + 5, p[7]);
    p.push_back(giPoint2(0.5 * (p[1].x() + p[2].x()), 0.5 * (p[1].y() + p[2].y())));
    giCircle2 c = gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(p);
    giCircle2 reference = brute_force_circle(p);
    EXPECT_NEAR(c.radius(), reference.radius(), 1e-10) << "trial " << trial;
    EXPECT_NEAR(c.centre().distance(reference.centre()), 0.0, 1e-9) << "trial " << trial;
    expect_enclosing_with_support(p, c, 1e-10);
    // The circle is unique, so the input order changes at most the rounding.
    std::reverse(p.begin(), p.end());
    EXPECT_NEAR(gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(p).radius(), c.radius(), 1e-10);
  }
}

TEST(MinimumCircumscribedCircle, ProbedFormsMatchThePlainOne) {
  Rng rng(5);
  for (int trial = 0; trial < 20; ++trial) {
    Points p = gfit::testing::noisy_arc(rng, giPoint2(-300, 40 * trial), 12.0, 0.0, 2 * giPi, 50, 0.02);
    giCircle2 plain = gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(p);
    giCircle2 zero =
        gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle_probed(p, std::vector<double>(p.size(), 0.0), true);
    EXPECT_NEAR(zero.radius(), plain.radius(), 1e-11);
    EXPECT_NEAR(zero.centre().distance(plain.centre()), 0.0, 1e-10);
    // A ball of radius r at every point: the circle grows (outer) or shrinks by r.
    for (bool outer : {true, false}) {
      giCircle2 c = gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle_probed(
          p, std::vector<double>(p.size(), 1.5), outer);
      EXPECT_NEAR(c.radius(), plain.radius() + (outer ? 1.5 : -1.5), 1e-10);
      EXPECT_NEAR(c.centre().distance(plain.centre()), 0.0, 1e-9);
    }
  }
  std::vector<giPoint2> same(4, giPoint2(3, 4));
  EXPECT_EQ(gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle_probed(same, {1, 2, 3, 4}, true).radius(), 0.0);
}

TEST(MinimumCircumscribedCircle, ProbedWithUnequalRadiiEnclosesTheBallsMinimally) {
  Rng rng(8);
  for (int trial = 0; trial < 20; ++trial) {
    Points p = gfit::testing::noisy_arc(rng, giPoint2(100, 200), 20.0, 0.0, 2 * giPi, 25, 0.5);
    std::vector<double> r(p.size());
    for (double& v : r) v = rng.uniform(0.5, 2.0);
    // A second, larger ball at the place of an earlier one: no circle touches both.
    p.insert(p.begin() + 6, p[2]);
    r.insert(r.begin() + 6, r[2] + 0.5);
    for (bool outer : {true, false}) {
      const double s = outer ? 1.0 : -1.0;
      giCircle2 c = gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle_probed(p, r, outer);
      // Every extended distance within the radius, and the balls on it surround the centre
      // (no gap over a half-turn), so no other centre does better.
      std::vector<giPoint2> touching;
      for (size_t i = 0; i < p.size(); ++i) {
        double e = p[i].distance(c.centre()) + s * r[i];
        EXPECT_LE(e, c.radius() + 1e-9);
        if (e > c.radius() - 1e-9) touching.push_back(p[i]);
      }
      EXPECT_GE(touching.size(), 2u);
      EXPECT_LE(gfit::testing::widest_gap(c.centre(), touching), giPi + 1e-9) << "trial " << trial;
    }
  }
}

}  // namespace

namespace {

// A roundness scan arrives sorted by angle, the order that made the construction in input
// order quadratic. The drawn order gives the same circle as a scrambled copy of the same
// points (to rounding), the same bits on a second run, and a circle that holds every point
// with support on it.
TEST(MinimumCircumscribedCircle, OrderedScansAndReproducibility) {
  Rng rng(11);
  Points p = gfit::testing::noisy_arc(rng, giPoint2(2500, -700), 30.0, 0.0, 2 * giPi, 20000, 0.004);
  std::sort(p.begin(), p.end(), [](giPoint2 const& a, giPoint2 const& b) {
    return std::atan2(a.y() + 700, a.x() - 2500) < std::atan2(b.y() + 700, b.x() - 2500);
  });
  giCircle2 c = gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(p);
  giCircle2 again = gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(p);
  EXPECT_EQ(c.centre(), again.centre());
  EXPECT_EQ(c.radius(), again.radius());
  expect_enclosing_with_support(p, c, 1e-11);
  Points scrambled(p);
  for (size_t i = scrambled.size(); i-- > 1;) std::swap(scrambled[i], scrambled[static_cast<size_t>(rng.uniform() * (i + 1))]);
  giCircle2 s = gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(scrambled);
  EXPECT_NEAR(s.radius(), c.radius(), 1e-11);
  EXPECT_NEAR(s.centre().distance(c.centre()), 0.0, 1e-9);
  std::vector<double> radii(p.size(), 0.25);
  giCircle2 probed = gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle_probed(p, radii, true);
  EXPECT_NEAR(probed.radius(), c.radius() + 0.25, 1e-9);
}

}  // namespace
