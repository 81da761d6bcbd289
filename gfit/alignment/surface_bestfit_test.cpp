// Surface best fit on CAD parts: recovery of known poses, locks, tolerance bands and
// contradictory limits, refusals.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <functional>
#include <vector>

#include "gfit/cad.h"
#include "test/support/cad_shapes.h"

namespace {

using namespace gfit::testing;

struct Nominal {
  giPoint3 point;
  giUnitVec3 normal;
};

// Random candidates snapped onto the surface: the nearest foot point and its normal. Feet
// on edges (candidate not seen along the normal) and feet within 2 mm of another face's
// foot are skipped: a probe is never placed on an edge, where a small motion carries it
// off its face.
std::vector<Nominal> sample(tskSurf const& surface, int n, std::function<giPoint3(mlRandom&)> const& candidate) {
  mlRandom rng(1);
  std::vector<Nominal> out;
  tskSurfPointList feet;
  while (static_cast<int>(out.size()) < n) {
    giPoint3 c = candidate(rng);
    surface.project(c, feet);
    giUnitVec3 normal;
    if (feet.empty() || !surface.normal(feet[0], 1e-5, 1e-5, normal)) continue;
    if (feet[0].distance > 1e-9 && normal.cross(c - feet[0].point).length() > 1e-9 * feet[0].distance) continue;
    if (feet.count() > 1 && feet[1].distance < feet[0].distance + 2.0) continue;
    out.push_back({feet[0].point, normal});
  }
  return out;
}

giXform3 motion(double degrees, giUnitVec3 const& axis, giPoint3 const& about, giVector3 const& shift) {
  return giXform3(giXformTranslate{}, shift) * giXform3(giXformRotate{}, about, axis, giAngle::from_degrees(degrees));
}

// The probed points: the nominal points moved off their surface by `noise` (uniform, along
// the normal) and then by the inverse of `truth`, so the fit should find `truth`.
struct Probe {
  std::vector<gfFitPoint3coPrf> points;
  std::vector<giPoint3> nominal;
};
Probe probe(std::vector<Nominal> const& nominal, giXform3 const& truth, double noise) {
  giXform3 back(giXformInverse{}, truth);
  mlRandom rng(3);
  Probe p;
  for (Nominal const& s : nominal) {
    giPoint3 m = s.point + s.normal * (noise * (2 * rng.next_unit() - 1));
    p.points.emplace_back(new gfProbedPoint3(back * m, (back * giVector3(s.normal)).unit(), 0.0));
    p.nominal.push_back(s.point);
  }
  return p;
}

double pose_error(giXform3 const& fitted, giXform3 const& truth, std::vector<giPoint3> const& at) {
  giXform3 back(giXformInverse{}, truth);
  double e = 0.0;
  for (giPoint3 const& p : at) e = std::max(e, (fitted * (back * p)).distance(p));
  return e;
}

struct Fitted {
  int status;
  giXform3 result;
  double dmax, smax, smin;
  int invalid;
};
Fitted run(gfSurfaceBestfit& bf, double tol = 1e-12) {
  Fitted f{};
  f.status = bf.fit(tol, f.result, f.dmax, f.smax, f.smin, f.invalid);
  return f;
}

TEST(SurfaceBestfit, RecoversKnownPoses) {
  struct Case {
    char const* name;
    tskSurfPtr surface;
    std::function<giPoint3(mlRandom&)> candidate;
    giXform3 truth;
    double noise;
    std::vector<giPoint3> pose_points;  // where the pose is checked (the part's determined points)
    double tolerance;
  };
  auto in_box = [](giPoint3 lo, giVector3 size) {
    return [=](mlRandom& r) {
      return giPoint3(lo.x() + size.x() * r.next_unit(), lo.y() + size.y() * r.next_unit(), lo.z() + size.z() * r.next_unit());
    };
  };
  std::vector<giPoint3> box_corners = {{0, 0, 0}, {40, 0, 0}, {0, 30, 0}, {0, 0, 20}, {40, 30, 20}};
  std::vector<giPoint3> axis_points = {{0, 0, 0}, {0, 0, 40}};  // the flanged shaft turns freely about z
  std::vector<giPoint3> patch = {{10, 10, 0}, {90, 10, 0}, {10, 90, 0}, {90, 90, 0}};
  giXform3 small = motion(0.5, giUnitVec3(1, 2, 3), {20, 15, 10}, {0.2, -0.1, 0.15});
  giXform3 tilt = motion(0.4, giUnitVec3(1, -1, 0), {0, 0, 20}, {0.1, 0.05, -0.1});
  std::vector<Case> cases = {
      {"box", box({0, 0, 0}, 40, 30, 20), in_box({-5, -5, -5}, {50, 40, 30}), small, 0.0, box_corners, 1e-9},
      {"box far from origin", box({1000, -2000, 500}, 40, 30, 20), in_box({995, -2005, 495}, {50, 40, 30}),
       motion(0.5, giUnitVec3(1, 2, 3), {1020, -1985, 510}, {0.2, -0.1, 0.15}),
       0.0, {{1000, -2000, 500}, {1040, -1970, 520}, {1040, -2000, 500}}, 1e-9},
      {"box with noise", box({0, 0, 0}, 40, 30, 20), in_box({-5, -5, -5}, {50, 40, 30}), small, 0.005, box_corners, 2e-3},
      {"flanged cylinder", flanged_cylinder(), in_box({-30, -30, -3}, {60, 60, 46}), tilt, 0.0, axis_points, 1e-9},
      {"B-spline face", bspline_face(), in_box({5, 5, -6}, {90, 90, 12}),
       motion(0.3, giUnitVec3(0.3, 1, 0.2), {50, 50, 0}, {0.1, 0.2, -0.05}), 0.0, patch, 1e-9},
  };
  for (Case const& c : cases) {
    std::vector<Nominal> nominal = sample(*c.surface, 300, c.candidate);
    Probe p = probe(nominal, c.truth, c.noise);
    gfSurfProjectorForFitting3 projector(*c.surface);
    gfSurfaceBestfit bf;
    bf.set_projector(&projector);
    bf.reserve_points(300);
    for (auto const& point : p.points) bf.add_point(point);
    Fitted f = run(bf, 1e-11);
    ASSERT_EQ(f.status, 1) << c.name << ": " << gfLastReasonText();
    EXPECT_EQ(f.invalid, 0) << c.name;
    EXPECT_LE(bf.steps_taken(), 10) << c.name;
    EXPECT_LT(pose_error(f.result, c.truth, c.pose_points), c.tolerance) << c.name;
    if (c.noise == 0.0) EXPECT_LT(f.dmax, 1e-9) << c.name;
    else EXPECT_LT(f.dmax, 1.2 * c.noise) << c.name;

    // Bit for bit the same on a second object.
    gfSurfaceBestfit again;
    again.set_projector(&projector);
    for (auto const& point : p.points) again.add_point(point);
    Fitted g = run(again, 1e-11);
    for (int r = 0; r < 3; ++r)
      for (int k = 0; k < 4; ++k) EXPECT_EQ(f.result(r, k), g.result(r, k)) << c.name;
  }
}

struct BoxFixture {
  tskSurfPtr surface = box({0, 0, 0}, 40, 30, 20);
  gfSurfProjectorForFitting3 projector{*surface};
  giXform3 truth = motion(0.5, giUnitVec3(1, 2, 3), {20, 15, 10}, {0.2, -0.1, 0.15});
  Probe p = probe(sample(*surface, 200, [](mlRandom& r) {
                    return giPoint3(-5 + 50 * r.next_unit(), -5 + 40 * r.next_unit(), -5 + 30 * r.next_unit());
                  }),
                  truth, 0.0);
  gfSurfaceBestfit bf;
  BoxFixture() {
    bf.set_projector(&projector);
    for (auto const& point : p.points) bf.add_point(point);
  }
};

TEST(SurfaceBestfit, LocksHold) {
  giXform3 back(giXformInverse{}, BoxFixture().truth);
  {  // origin lock on a point 0.05 off the true pose: held, whatever the data say
    BoxFixture b;
    giPoint3 measured = back * giPoint3(0, 0, 0), nominal(0.03, -0.04, 0.0);
    b.bf.lock_origin(measured, nominal);
    Fitted f = run(b.bf);
    ASSERT_EQ(f.status, 1) << gfLastReasonText();
    EXPECT_LT((f.result * measured).distance(nominal), 1e-9);
  }
  {  // rotations locked: the result is a translation
    BoxFixture b;
    b.bf.lock_rotations(giVector3(1, 0, 0), giVector3(0, 1, 0), giVector3());
    Fitted f = run(b.bf);
    ASSERT_EQ(f.status, 1);
    for (int r = 0; r < 3; ++r)
      for (int k = 0; k < 3; ++k) EXPECT_EQ(f.result(r, k), r == k ? 1.0 : 0.0);
  }
  {  // axis lock: the measured direction ends on the nominal one, the point on its line
    BoxFixture b;
    giVector3 d1 = back * giVector3(0, 0, 1), d2(0.001, 0, 1);
    giPoint3 m1 = back * giPoint3(20, 15, 0), m2(20, 15.01, 0);
    b.bf.lock_axis(gf_locked_axis_through_point, d1, d2, m1, m2);
    Fitted f = run(b.bf);
    ASSERT_EQ(f.status, 1) << gfLastReasonText();
    EXPECT_LT(((f.result * d1).unit().cross(d2.unit())).length(), 1e-12);
    EXPECT_LT(giInfLine3(m2, d2.unit()).distance_of_point(f.result * m1), 1e-9);
  }
}

TEST(SurfaceBestfit, BandsAndContradictoryLimits) {
  {  // a point 0.05 proud of the top, banded at +-0.01, ends inside its band
    BoxFixture b;
    giXform3 back(giXformInverse{}, b.truth);
    gfFitPoint3coPrf proud(new gfProbedPoint3(back * giPoint3(20, 15, 20.05), (back * giVector3(0, 0, 1)).unit(), 0.0));
    b.bf.add_point(proud, -0.01, 0.01, 1.0);
    Fitted f = run(b.bf);
    ASSERT_EQ(f.status, 1);
    double deviation = b.bf.get_pointcloud()[b.bf.nb_points() - 1].signed_distance();
    EXPECT_LE(deviation, 0.01 + 1e-9);
    EXPECT_GT(deviation, 0.009);
  }
  // A 10 mm plate measured 10.1 thick, both faces banded at +-0.02 under one point each. A
  // point that never projects comes first with limits 0 and 1: the solver never sees them,
  // so the contradictory pair must still be named 3 and 5 (both upper limits). The band
  // points lie beyond a corner of the plate (0.5 mm out in x and y, so that no face sees them
  // along its normal) until the first step has moved the part back; the contradiction
  // appears at the second step, which is undone once, and the fit then converges.
  tskSurfPtr plate = box({0, 0, 0}, 40, 30, 10);
  gfSurfProjectorForFitting3 projector(*plate);
  giXform3 truth(giXformTranslate{}, giVector3(-1.0, -1.0, 0)), back(giXformInverse{}, truth);
  Probe p = probe(sample(*plate, 150, [](mlRandom& r) {
                    return giPoint3(-5 + 50 * r.next_unit(), -5 + 40 * r.next_unit(), -5 + 20 * r.next_unit());
                  }),
                  truth, 0.0);
  gfSurfaceBestfit bf;
  bf.set_projector(&projector);
  bf.add_point(gfFitPoint3coPrf(new gfProbedPoint3(giPoint3(500, 500, 500), giUnitVec3(0, 0, 1), 0.0)), -1.0, 1.0, 1.0);
  bf.add_point(gfFitPoint3coPrf(new gfProbedPoint3(back * giPoint3(39.5, 29.5, -0.05), giUnitVec3(0, 0, -1), 0.0)), -0.02, 0.02, 1.0);
  bf.add_point(gfFitPoint3coPrf(new gfProbedPoint3(back * giPoint3(39.5, 29.5, 10.05), giUnitVec3(0, 0, 1), 0.0)), -0.02, 0.02, 1.0);
  for (auto const& point : p.points) bf.add_point(point);
  Fitted f = run(bf, 1e-10);
  ASSERT_EQ(f.status, 1) << gfLastReasonText();
  intcoDynArr const& named = bf.overdetermined_constraints();
  EXPECT_EQ(std::vector<int>(named.begin(), named.end()), (std::vector<int>{3, 5}));
  EXPECT_EQ(bf.steps_undone(), 1);
  EXPECT_LT(bf.steps_taken(), 15);
  EXPECT_EQ(f.invalid, 1);
}

TEST(SurfaceBestfit, RefusalsAndBookkeeping) {
  BoxFixture b;
  Fitted untouched{7, giXform3(giXformTranslate{}, giVector3(1, 1, 1)), 7, 7, 7, 7};
  auto expect_untouched = [&](gfSurfaceBestfit& bf, gfReason reason, char const* what) {
    Fitted f = untouched;
    EXPECT_EQ(bf.fit(1e-9, f.result, f.dmax, f.smax, f.smin, f.invalid), 0) << what;
    EXPECT_EQ(f.result(0, 3), 1.0) << what;
    EXPECT_EQ(f.dmax, 7.0) << what;
    EXPECT_EQ(gfLastReason(), reason) << what;
  };
  gfSurfaceBestfit no_projector;
  no_projector.add_point(b.p.points[0]);
  expect_untouched(no_projector, gfReason::invalid_argument, "no projector");
  gfSurfaceBestfit empty;
  empty.set_projector(&b.projector);
  expect_untouched(empty, gfReason::too_few_points, "no points");
  gfSurfaceBestfit nan_limit;
  nan_limit.set_projector(&b.projector);
  for (auto const& point : b.p.points) nan_limit.add_point(point, NAN, 1.0, 1.0);
  expect_untouched(nan_limit, gfReason::non_finite_input, "NaN limit");

  // Two valid projections and many invalid ones: refused after the first projection, with
  // the deviations of what projects and the identity reached so far.
  gfSurfaceBestfit two;
  two.set_projector(&b.projector);
  two.add_point(b.p.points[0]);
  two.add_point(b.p.points[1]);
  for (int i = 0; i < 5; ++i) two.add_point(gfFitPoint3coPrf(new gfProbedPoint3(giPoint3(NAN, 0, 0), giUnitVec3(0, 0, 1), 0.0)));
  Fitted f = run(two);
  EXPECT_EQ(f.status, 0);
  EXPECT_EQ(f.invalid, 5);
  EXPECT_TRUE(f.result.is_identity());
  EXPECT_EQ(gfLastReason(), gfReason::too_few_points);

  // Weight 0 drops the point; weights (1, 3) become (0.5, 1.5).
  gfSurfaceBestfit weights;
  weights.set_projector(&b.projector);
  weights.add_point(b.p.points[0], -DBL_MAX, DBL_MAX, 0.0);
  EXPECT_EQ(weights.nb_points(), 0);
  weights.add_point(b.p.points[0], -DBL_MAX, DBL_MAX, 1.0);
  weights.add_point(b.p.points[1], -DBL_MAX, DBL_MAX, 3.0);
  run(weights);
  EXPECT_EQ(weights.weight(0), 0.5);
  EXPECT_EQ(weights.weight(1), 1.5);

  // A tolerance no step can beat stops after the first step; at most 50 steps are taken.
  BoxFixture coarse, fine;
  run(coarse.bf, 1e6);
  EXPECT_EQ(coarse.bf.steps_taken(), 1);
  run(fine.bf, -1.0);
  EXPECT_EQ(fine.bf.steps_taken(), gfSurfaceBestfit::max_steps);

  double dmax, smax, smin;
  int n_invalid, n_valid;
  gfSurfaceBestfit::get_pointcloud_parameters(gfProjectedPoint3coDynArr{gfProjectedPoint3()}, dmax, smax, smin, n_invalid, n_valid);
  EXPECT_EQ(n_invalid, 1);
  EXPECT_EQ(smax, 0.0);
}

}  // namespace
