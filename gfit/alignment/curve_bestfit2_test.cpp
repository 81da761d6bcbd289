// 2-D curve best fit: recovery of known motions of points sampled on profiles of segments
// and arcs (noise, far from the origin), a full circle's free turn, invalid points counted,
// points on one straight line refused, reproducibility, bad input.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "gfit/gfit.h"

namespace {

// A slot: two straight sides joined by half circles (counter-clockwise), shifted by `at`.
gfNominalProfile2 slot(giVector2 const& at) {
  gfNominalProfile2 p;
  giPoint2 o = giPoint2(0, 0) + at;
  EXPECT_TRUE(p.add_segment(o + giVector2(0, -10), o + giVector2(60, -10)));
  EXPECT_TRUE(p.add_arc(o + giVector2(60, 0), 10, -0.5 * giPi, giPi));
  EXPECT_TRUE(p.add_segment(o + giVector2(60, 10), o + giVector2(0, 10)));
  EXPECT_TRUE(p.add_arc(o + giVector2(0, 0), 10, 0.5 * giPi, giPi));
  return p;
}

// An open profile: an L with a rounded corner.
gfNominalProfile2 step_profile(giVector2 const& at) {
  gfNominalProfile2 p;
  giPoint2 o = giPoint2(0, 0) + at;
  EXPECT_TRUE(p.add_segment(o + giVector2(0, 0), o + giVector2(30, 0)));
  EXPECT_TRUE(p.add_arc(o + giVector2(30, 5), 5, -0.5 * giPi, 0.5 * giPi));
  EXPECT_TRUE(p.add_segment(o + giVector2(35, 5), o + giVector2(35, 25)));
  return p;
}

// Points of a profile: the feet of candidates near it.
std::vector<gfProjectedPoint2> feet_of(gfNominalProfile2 const& p, std::vector<giPoint2> const& candidates) {
  std::vector<gfProjectedPoint2> out;
  for (giPoint2 const& c : candidates) {
    gfProjectedPoint2 r;
    p.project(c, r);
    out.push_back(r);
  }
  return out;
}

// The L above: candidates beside its straight legs and its corner, none near its ends.
std::vector<giPoint2> l_candidates(giVector2 const& at) {
  std::vector<giPoint2> c;
  for (int i = 0; i < 100; ++i) c.push_back(giPoint2(1 + 0.28 * i, -0.5) + at);
  for (int i = 0; i < 50; ++i) {
    double a = -0.5 * giPi + 0.5 * giPi * (i + 0.5) / 50;
    c.push_back(giPoint2(30 + 5.5 * std::cos(a), 5 + 5.5 * std::sin(a)) + at);
  }
  for (int i = 0; i < 100; ++i) c.push_back(giPoint2(35.5, 6 + 0.18 * i) + at);
  return c;
}

// n points of a closed profile: the feet of a ring of candidates around it.
std::vector<gfProjectedPoint2> sample(gfNominalProfile2 const& p, giPoint2 const& centre, double radius, int n) {
  std::vector<gfProjectedPoint2> out;
  for (int i = 0; i < n; ++i) {
    double a = 2 * giPi * (i + 0.5) / n;
    gfProjectedPoint2 r;
    p.project(centre + giVector2(std::cos(a), std::sin(a)) * radius, r);
    out.push_back(r);
  }
  return out;
}

struct Outcome {
  int status;
  giXform2 result;
  double dmax, smax, smin;
  int invalid;
};

Outcome run(gfNominalProfile2 const& profile, std::vector<gfProjectedPoint2> const& feet, giXform2 const& truth,
            double noise, std::vector<giPoint2> const& extra = {}) {
  giXform2 back(giXformInverse{}, truth);
  mlRandom rng(3);
  gfCurveBestfit2 fit;
  fit.set_projector(&profile);
  for (gfProjectedPoint2 const& f : feet) {
    giPoint2 m = f.nominal_point() + f.nominal_normal() * (noise * (2 * rng.next_unit() - 1));
    fit.add_point(gfFitPoint2coPrf(new gfMeasuredPoint2(back * m)));
  }
  for (giPoint2 const& e : extra) fit.add_point(gfFitPoint2coPrf(new gfMeasuredPoint2(e)));
  Outcome o{};
  o.status = fit.fit(1e-12, o.result, o.dmax, o.smax, o.smin, o.invalid);
  return o;
}

double pose_error(giXform2 const& fitted, giXform2 const& truth, std::vector<gfProjectedPoint2> const& at) {
  giXform2 back(giXformInverse{}, truth);
  double e = 0.0;
  for (gfProjectedPoint2 const& p : at) e = std::max(e, static_cast<double>((fitted * (back * p.nominal_point())).distance(p.nominal_point())));
  return e;
}

TEST(CurveBestfit2, RecoversKnownMotions) {
  struct Case {
    char const* name;
    bool open;
    giVector2 at;
    double degrees;
    double noise;
    double tolerance;
  };
  Case const cases[] = {
      {"slot", false, {0, 0}, 1.0, 0.0, 1e-9},
      {"slot, noise 0.005", false, {0, 0}, 1.0, 0.005, 2e-3},
      {"slot far from the origin", false, {4e4, -7e4}, 1.0, 0.0, 1e-8},
      {"open step with fillet", true, {0, 0}, 0.5, 0.0, 1e-9},
      {"open step, noise 0.005", true, {0, 0}, 0.5, 0.005, 2e-3},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.name);
    gfNominalProfile2 profile = c.open ? step_profile(c.at) : slot(c.at);
    giPoint2 centre = giPoint2(c.open ? 25 : 30, c.open ? 10 : 0) + c.at;
    std::vector<gfProjectedPoint2> feet = c.open ? feet_of(profile, l_candidates(c.at)) : sample(profile, centre, 40, 300);
    giXform2 truth = giXform2(giXformTranslate{}, giVector2(0.4, -0.3)) *
                     giXform2(giXformRotate{}, centre, giAngle::from_degrees(c.degrees));
    Outcome o = run(profile, feet, truth, c.noise);
    ASSERT_EQ(o.status, 1) << gfLastReasonText();
    EXPECT_LE(pose_error(o.result, truth, feet), c.tolerance);
    EXPECT_LE(o.dmax, c.noise + c.tolerance);
    EXPECT_EQ(o.invalid, 0);
    Outcome again = run(profile, feet, truth, c.noise);  // bit for bit
    for (int r = 0; r < 2; ++r)
      for (int k = 0; k < 3; ++k) EXPECT_EQ(again.result(r, k), o.result(r, k));
  }
}

TEST(CurveBestfit2, CircleLeavesTheTurnAlone) {
  gfNominalProfile2 circle;
  ASSERT_TRUE(circle.add_arc(giPoint2(3, 4), 12, 0.0, 2 * giPi));
  std::vector<gfProjectedPoint2> feet = sample(circle, giPoint2(3, 4), 20, 64);
  giXform2 truth(giXformTranslate{}, giVector2(0.5, 0.2));
  // A point that cannot be placed (not finite) is skipped and counted.
  Outcome o = run(circle, feet, truth, 0.0, {giPoint2(NAN, 0)});
  ASSERT_EQ(o.status, 1) << gfLastReasonText();
  EXPECT_EQ(o.invalid, 1);
  EXPECT_LE(std::fabs(o.result(1, 0)), 1e-12);  // no turn
  EXPECT_NEAR(o.result(0, 2), 0.5, 1e-10);
  EXPECT_NEAR(o.result(1, 2), 0.2, 1e-10);
}

TEST(CurveBestfit2, Refusals) {
  gfNominalProfile2 profile = step_profile({0, 0});
  // Points on the first straight leg only: the motion along it is free.
  std::vector<gfProjectedPoint2> leg;
  for (int i = 0; i < 20; ++i) {
    gfProjectedPoint2 r;
    profile.project(giPoint2(1.0 + i, 0.0), r);
    leg.push_back(r);
  }
  Outcome o = run(profile, leg, giXform2(giXformTranslate{}, giVector2(0.1, 0.1)), 0.0);
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(gfLastReason(), gfReason::not_determined);

  giXform2 result(giXformTranslate{}, giVector2(9, 9));
  double a = -1, b = -1, c = -1;
  int n = -1;
  gfCurveBestfit2 none;  // no projector
  none.add_point(gfFitPoint2coPrf(new gfMeasuredPoint2(giPoint2(0, 0))));
  EXPECT_EQ(none.fit(1e-9, result, a, b, c, n), 0);
  EXPECT_EQ(gfLastReason(), gfReason::invalid_argument);
  gfCurveBestfit2 few;
  few.set_projector(&profile);
  few.add_point(gfFitPoint2coPrf(new gfMeasuredPoint2(giPoint2(0, 1))));
  few.add_point(gfFitPoint2coPrf(new gfMeasuredPoint2(giPoint2(1, 1))));
  EXPECT_EQ(few.fit(1e-9, result, a, b, c, n), 0);
  EXPECT_EQ(gfLastReason(), gfReason::too_few_points);
  few.add_point(gfFitPoint2coPrf(new gfMeasuredPoint2(giPoint2(30, 1))), INFINITY);
  EXPECT_EQ(few.fit(1e-9, result, a, b, c, n), 0);
  EXPECT_EQ(gfLastReason(), gfReason::non_finite_input);
  EXPECT_EQ(result(0, 2), 9.0);
  EXPECT_EQ(a, -1.0);
  EXPECT_EQ(n, -1);

  gfNominalProfile2 bad;
  EXPECT_FALSE(bad.add_segment(giPoint2(1, 1), giPoint2(1, 1)));
  EXPECT_FALSE(bad.add_arc(giPoint2(0, 0), -1, 0, 1));
  EXPECT_FALSE(bad.add_arc(giPoint2(0, 0), 1, 0, NAN));
  EXPECT_EQ(bad.count(), 0);
}

}  // namespace
