#include "gfit/leastsquares/distribution_quality.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <vector>

#include "gfit/gfit.h"
#include "test/support/checks.h"
#include "test/support/samplers.h"

namespace {

using gfit::testing::constant;
using gfit::testing::reversed;
using gfit::testing::Rng;
using Q = gfLeastSquareDistributionQuality;
constexpr double kPi = 3.14159265358979323846;

// ---- exact samplings --------------------------------------------------------------------

giPoint2coDynArr arc(double span_degrees, int n) {
  giPoint2coDynArr p(n, 16);
  const bool full = span_degrees >= 360.0;
  for (int i = 0; i < n; ++i) {
    const double a = span_degrees * kPi / 180.0 * i / (full ? n : n - 1);
    p.append(giPoint2(3.0 + 2.0 * std::cos(a), -1.0 + 2.0 * std::sin(a)));
  }
  return p;
}

// Fibonacci points on the unit sphere with z >= z_min.
giPoint3coDynArr cap(double z_min, int n) {
  giPoint3coDynArr p(n, 16);
  const double turn = kPi * (3.0 - std::sqrt(5.0));
  for (int i = 0; i < n; ++i) {
    const double z = 1.0 - (1.0 - z_min) * (i + 0.5) / n, r = std::sqrt(1.0 - z * z);
    p.append(giPoint3(r * std::cos(turn * i), r * std::sin(turn * i), z));
  }
  return p;
}

// Rings of 36 points about the z axis at the given heights with the given radii.
giPoint3coDynArr rings(std::vector<double> const& heights, std::function<double(double)> radius) {
  giPoint3coDynArr p;
  for (double z : heights)
    for (int i = 0; i < 36; ++i) {
      const double a = i * kPi / 18;
      p.append(giPoint3(radius(z) * std::cos(a), radius(z) * std::sin(a), z));
    }
  return p;
}

// A cone with apex at the origin and axis +z towards it, on 11 rings at slant distances
// evenly spaced over [near, far].
giPoint3coDynArr cone_rings(double half_angle, double near, double far) {
  std::vector<double> heights;
  for (int i = 0; i <= 10; ++i) heights.push_back(-(near + (far - near) * i / 10) * std::cos(half_angle));
  return rings(heights, [&](double z) { return -z * std::tan(half_angle); });
}

giPoint3coDynArr torus_grid(double r1, double r2) {
  giPoint3coDynArr p(72 * 72, 16);
  for (int k = 0; k < 72; ++k)
    for (int i = 0; i < 72; ++i) {
      const double u = k * kPi / 36, v = i * kPi / 36, g = r1 + r2 * std::cos(v);
      p.append(giPoint3(g * std::cos(u), g * std::sin(u), r2 * std::sin(v)));
    }
  return p;
}

// ---- lines and planes -------------------------------------------------------------------

TEST(DistributionQuality, LinesAndPlanesReproduceHandComputedValues) {
  const giPoint3coDynArr spread{giPoint3(0, 0, 0), giPoint3(10, 0, 0), giPoint3(5, 0.5, 0)};
  const giPoint3coDynArr lifted{giPoint3(0, 0, 5), giPoint3(10, 0, -3), giPoint3(5, 0.5, 1)};
  const giPoint3coDynArr on_line{giPoint3(1, 2, 3), giPoint3(4, 6, 3), giPoint3(7, 10, 3)};
  const giPoint2coDynArr spread2{giPoint2(0, 0), giPoint2(10, 0), giPoint2(5, -0.5)};
  const giPoint2coDynArr same{giPoint2(1, 1), giPoint2(1, 1), giPoint2(1, 1)};
  // A 10 x 6 grid, and a 10 x 1 strip 0.2 thick (every (x, y) at z = +-0.1, so the
  // principal axes stay x, y, z), both moved by a rigid motion far from the origin.
  const giXform3 pose = giXform3(giXformTranslate{}, giVector3(800, -300, 1200)) *
                        giXform3(giXformRotate{}, giPoint3(0, 0, 0), giUnitVec3(1, 2, 3), giAngle(0.7));
  giPoint3coDynArr rectangle, strip;
  for (int i = 0; i <= 10; ++i)
    for (int j = 0; j <= 6; ++j) rectangle.append(pose.transform(giPoint3(i, j, 0)));
  for (int i = 0; i <= 10; ++i)
    for (double y : {0.0, 1.0})
      for (double z : {-0.1, 0.1}) strip.append(pose.transform(giPoint3(i, y, z)));
  const giPoint3 o(0, 0, 0);
  const giUnitVec3 x(1, 0, 0), z(0, 0, 1);
  struct Case {
    char const* name;
    double value, expected;
  } cases[] = {
      {"line3 spread", Q::distribution_quality_line3(spread, o, x), 10.0 / (999 * 0.5 + 10)},
      {"line3 exactly on the line", Q::distribution_quality_line3(on_line, giPoint3(1, 2, 3), giUnitVec3(3, 4, 0)),
       10.0 / (999 * 1e-4 + 10)},
      {"line2 drops the heights", Q::distribution_quality_line2(o, z, lifted, o, x), 10.0 / (999 * 0.5 + 10)},
      {"line in the plane", Q::distribution_quality_line(spread2, giPoint2(0, 0), giUnitVec2(1, 0)),
       10.0 / (9 * 0.5 + 10)},
      {"coincident points", Q::distribution_quality_line(same, giPoint2(1, 1), giUnitVec2(0, 1)), 0.0},
      {"plane rectangle", Q::distribution_quality_plane(rectangle, o, z),
       std::sqrt(6 / 10.0001) * 60 / (999 * 1e-8 + 60)},
      {"plane strip", Q::distribution_quality_plane(strip, o, z), std::sqrt(1 / 10.0001) * 10 / (999 * 0.04 + 10)},
  };
  for (Case const& c : cases) EXPECT_NEAR(c.value, c.expected, 1e-12 * (1 + c.expected)) << c.name;
}

// ---- the curved elements' calibration ---------------------------------------------------

TEST(DistributionQuality, CalibrationPointsAndCoverage) {
  const giPoint3 origin(0, 0, 0);
  const giUnitVec3 z(0, 0, 1);
  const giPoint3coDynArr three_rings = rings({-1, 0, 1}, [](double) { return 1.0; });
  const double cylinder = Q::distribution_quality_cylinder(three_rings, giPoint3(0, 0, -7), z, 1.0);
  const double probed = Q::distribution_quality_probed_cylinder(three_rings, constant(three_rings.count(), 0.5), 1,
                                                                giPoint3(0, 0, 7), z, 1.0);
  const double frustum_full = Q::distribution_quality_cone(cone_rings(kPi / 6, 0.1, 1), origin, z, kPi / 6);
  struct Case {
    char const* name;
    double value, expected, tolerance;  // relative
  } cases[] = {
      // Divided values: a full circle and sphere come to 1 within 1e-3.
      {"full circle", Q::distribution_quality_circle(arc(360, 360), giPoint2(3, -1), 2), 0.7071 / 0.708, 1e-3},
      {"full sphere", Q::distribution_quality_sphere(cap(-1, 2000), origin, 1), 0.5774 / 0.578, 1e-3},
      // Coverage of a circle: arcs of 180, 120, 90 and 45 degrees.
      {"arc 180", Q::distribution_quality_circle(arc(180, 360), giPoint2(3, -1), 2), 0.365, 0.02},
      {"arc 120", Q::distribution_quality_circle(arc(120, 360), giPoint2(3, -1), 2), 0.165, 0.02},
      {"arc 90", Q::distribution_quality_circle(arc(90, 360), giPoint2(3, -1), 2), 0.093, 0.02},
      {"arc 45", Q::distribution_quality_circle(arc(45, 360), giPoint2(3, -1), 2), 0.023, 0.02},
      // Sphere caps, undivided.
      {"hemisphere", 0.578 * Q::distribution_quality_sphere(cap(0, 2000), origin, 1), 0.256, 0.02},
      {"cap z >= 0.5", 0.578 * Q::distribution_quality_sphere(cap(0.5, 2000), origin, 1), 0.115, 0.02},
      // Calibration elements.
      {"cylinder, 3 rings over 2R", cylinder, 0.258 / 0.26, 2e-3},
      {"90 degree cone, apex to base", Q::distribution_quality_cone(cone_rings(kPi / 4, 0, 1), origin, z, kPi / 4),
       0.150 / 0.15, 5e-3},
      {"torus 2, 1", Q::distribution_quality_torus(torus_grid(2, 1), origin, z, 2, 1), 0.500 / 0.51, 1e-3},
      {"torus 5, 1", Q::distribution_quality_torus(torus_grid(5, 1), origin, z, 5, 1), 0.500 / 0.51, 1e-3},
      // The probed cylinder has the plain one's Jacobian and its own divisor.
      {"probed cylinder", probed, cylinder * 0.26 / 0.177, 1e-12},
      // A frustum far from its apex scores about half the nearly full flank.
      {"cone frustum 0.5-1", Q::distribution_quality_cone(cone_rings(kPi / 6, 0.5, 1), origin, z, kPi / 6),
       0.5 * frustum_full, 0.02},
  };
  for (Case const& c : cases) EXPECT_NEAR(c.value, c.expected, c.tolerance * c.expected) << c.name;

  // The arcs' closed form: rows (-cos a, -sin a, -1) over a half-angle w give the smallest
  // eigenvalue of diag block (1/2 - sin 2w / 4w) and [[1/2 + sin 2w / 4w, sin w / w], [., 1]].
  for (double span : {20.0, 60.0, 150.0, 270.0}) {
    const double w = span * kPi / 360, s = std::sin(2 * w) / (4 * w), b = std::sin(w) / w;
    const double a = 0.5 + s, lower = 0.5 * (a + 1) - std::sqrt(0.25 * (a - 1) * (a - 1) + b * b);
    const double expected = std::sqrt(std::fmin(0.5 - s, lower)) / 0.708;
    EXPECT_NEAR(Q::distribution_quality_circle(arc(span, 20001), giPoint2(3, -1), 2), expected, 1e-3 * expected)
        << span;
  }
}

// ---- against an independent route ------------------------------------------------------

// sqrt of the k-th largest eigenvalue of D^-1 J^T J D^-1 / n, with J by central differences
// of the distances (not the analytic gradients, not the streamed factor) and the scales D
// given by the test.
double reference(mlDistanceLeastSquares& problem, mlVector const& x, mlVector const& scales, int k) {
  const int m = x.size(), n = problem.n_points();
  std::vector<double> jac(n * m);
  for (int j = 0; j < m; ++j) {
    const double h = 1e-6 * std::fmax(1.0, std::fabs(x[j]));
    mlVector xp = x, xm = x;
    xp[j] += h;
    xm[j] -= h;
    for (int i = 0; i < n; ++i) {
      double dp = 0, dm = 0;
      problem.set_parameters(xp);
      problem.get_distance(dp, i);
      problem.set_parameters(xm);
      problem.get_distance(dm, i);
      jac[i * m + j] = (dp - dm) / (2 * h) / scales[j];
    }
  }
  mlMatrix normal(m, m);
  for (int i = 0; i < n; ++i)
    for (int a = 0; a < m; ++a)
      for (int b = 0; b < m; ++b) normal(a, b) += jac[i * m + a] * jac[i * m + b] / n;
  return std::sqrt(mlSymEigenVecs(normal).eigenvalue(m - k));
}

TEST(DistributionQuality, AgreesWithFiniteDifferenceReference) {
  Rng rng(11);
  const giPoint3 far(400, -250, 900);
  const giUnitVec3 u(1, -2, 2);
  // Noisy partial cylinder, cone flank and torus far from the origin, and an ellipse arc.
  const giPoint3coDynArr cyl = gfit::testing::sample_cylinder(rng, far, u, 12, 20, 0.3, 3.5, 400, 1e-3);
  const giPoint3coDynArr cone = gfit::testing::sample_cone(rng, far, u, 0.4, 5, 30, 0, 4, 400, 1e-3);
  const giPoint3coDynArr tor = gfit::testing::sample_torus(rng, far, u, 30, 6, 0, 4, -1, 3, 400, 1e-3);
  const giPoint2coDynArr ell = gfit::testing::sample_ellipse2(&rng, giPoint2(50, -20), 9, 4, 0.3, 0.2, 4, 300, 1e-3);
  // The scales: the cylinder's extent along the axis and radius, the cone's reach from the
  // apex. The cylinder's axis point at the centroid's foot, where the measure puts it.
  double lo = 1e300, hi = -1e300, reach = 0;
  for (giPoint3 const& q : cyl) lo = std::fmin(lo, u.dot(q - far)), hi = std::fmax(hi, u.dot(q - far));
  for (giPoint3 const& q : cone) reach = std::fmax(reach, q.distance(far));
  const double lc = std::sqrt((hi - lo) * (hi - lo) + 144), lk = reach;
  const giPoint3 foot = far + u * u.dot(gfit::detail::mean_of(cyl.data(), cyl.count()) - far);
  gfLeastSquareCylinder pc(cyl);
  gfLeastSquareCone pk(cone);
  gfLeastSquareTorus pt(tor);
  gfLeastSquareEllipse pe(ell);
  struct Case {
    char const* name;
    double value, expected;
  } cases[] = {
      {"cylinder", 0.26 * Q::distribution_quality_cylinder(cyl, far + u * 55.0, u, 12),
       reference(pc, {foot.x(), foot.y(), foot.z(), u.x(), u.y(), u.z(), 12}, {1, 1, 1, lc, lc, lc, 1}, 5)},
      {"cone", 0.15 * Q::distribution_quality_cone(cone, far, u, 0.4),
       reference(pk, {far.x(), far.y(), far.z(), u.x(), u.y(), u.z(), 0, 0.4},
                 {1, 1, 1, lk, lk, lk, 1 / std::sin(0.4), lk}, 6)},
      {"torus", 0.51 * Q::distribution_quality_torus(tor, far, u, 30, 6),
       reference(pt, {far.x(), far.y(), far.z(), u.x(), u.y(), u.z(), 30, 6}, {1, 1, 1, 30, 30, 30, 1, 1}, 7)},
      {"ellipse", Q::distribution_quality_ellipse(ell, giPoint2(50, -20), 9, 4, 0.3),
       reference(pe, {9, 4, 50, -20, 0.3}, {1, 1, 1, 1, std::sqrt(97.0)}, 5)},
  };
  for (Case const& k : cases) {
    EXPECT_GT(k.expected, 1e-3) << k.name;
    EXPECT_NEAR(k.value, k.expected, 1e-6 * k.expected) << k.name;
  }
}

// ---- invariance, reproducibility, degenerate data and refusals --------------------------

TEST(DistributionQuality, InvariantToScaleRigidMotionAndPointOrder) {
  Rng rng(5);
  const giPoint3 p(1, 2, 3);
  const giUnitVec3 u(0.3, -0.4, 1);
  // (points, apex or axis point, axis, unit of length) -> measure
  using Measure = std::function<double(giPoint3coDynArr const&, giPoint3 const&, giUnitVec3 const&, double)>;
  struct Case {
    char const* name;
    giPoint3coDynArr points;
    Measure measure;
  } cases[] = {
      {"cylinder", gfit::testing::sample_cylinder(rng, p, u, 4, 6, 0.5, 4, 300, 1e-3),
       [](auto& q, auto& a, auto& d, double s) { return Q::distribution_quality_cylinder(q, a, d, 4 * s); }},
      {"cone", gfit::testing::sample_cone(rng, p, u, 0.5, 1, 8, 0, 5, 300, 1e-3),
       [](auto& q, auto& a, auto& d, double) { return Q::distribution_quality_cone(q, a, d, 0.5); }},
      {"torus", gfit::testing::sample_torus(rng, p, u, 7, 2, 0, 5, 0, 4, 300, 1e-3),
       [](auto& q, auto& a, auto& d, double s) { return Q::distribution_quality_torus(q, a, d, 7 * s, 2 * s); }},
  };
  const giXform3 motion = giXform3(giXformTranslate{}, giVector3(1000, -2000, 500)) *
                          giXform3(giXformRotate{}, giPoint3(0, 0, 0), giUnitVec3(2, 1, -1), giAngle(2.1));
  const giXform3 scale(giXformScale{}, 1000, 1000, 1000);
  for (Case const& c : cases) {
    const double q = c.measure(c.points, p, u, 1.0);
    EXPECT_GT(q, 0.05) << c.name;
    EXPECT_EQ(q, c.measure(c.points, p, u, 1.0)) << c.name << ": same input, same bits";
    EXPECT_NEAR(c.measure(reversed(c.points), p, u, 1.0), q, 1e-9 * q) << c.name << ": order";
    giPoint3coDynArr moved, scaled;
    for (giPoint3 const& x : c.points) {
      moved.append(motion.transform(x));
      scaled.append(scale.transform(x));
    }
    const giUnitVec3 turned(motion.transform(giVector3(u)));
    EXPECT_NEAR(c.measure(moved, motion.transform(p), turned, 1.0), q, 1e-9 * q) << c.name << ": rigid motion";
    EXPECT_NEAR(c.measure(scaled, scale.transform(p), u, 1000.0), q, 1e-9 * q) << c.name << ": scale";
  }
  // Where the caller's point lies on the cylinder's axis does not matter.
  const double q = Q::distribution_quality_cylinder(cases[0].points, p, u, 4);
  EXPECT_NEAR(Q::distribution_quality_cylinder(cases[0].points, p + u * 1000.0, u, 4), q, 1e-9 * q);
}

// A measure and the reason recorded right after it.
struct Outcome {
  double value;
  gfReason reason;
};
Outcome outcome(double value) { return {value, gfLastReason()}; }

TEST(DistributionQuality, DegenerateDataAndBadInputGiveZeroWithAReason) {
  const giPoint3coDynArr good = rings({0, 1}, [](double) { return 1.0; }), two{giPoint3(1, 0, 0), giPoint3(0, 1, 0)};
  const giPoint3coDynArr four{giPoint3(1, 0, 0), giPoint3(0, 1, 0), giPoint3(-1, 0, 1), giPoint3(0, -1, 2)};
  giPoint3coDynArr nan = good;
  nan[3] = giPoint3(0, std::numeric_limits<double>::quiet_NaN(), 0);
  const giPoint3 o(0, 0, 0);
  const giUnitVec3 z(0, 0, 1), unset;
  const doublecoDynArr radii = constant(good.count(), 0.1);
  struct Case {
    char const* name;
    Outcome got;
    gfReason reason;
  } cases[] = {
      {"two points, sphere", outcome(Q::distribution_quality_sphere(two, o, 1)), gfReason::too_few_points},
      {"four points, cylinder", outcome(Q::distribution_quality_cylinder(four, o, z, 1)), gfReason::none},
      {"NaN point", outcome(Q::distribution_quality_torus(nan, o, z, 2, 1)), gfReason::non_finite_input},
      {"infinite radius", outcome(Q::distribution_quality_cylinder(good, o, z, HUGE_VAL)), gfReason::non_finite_input},
      {"unset axis", outcome(Q::distribution_quality_cylinder(good, o, unset, 1)), gfReason::invalid_argument},
      {"flat cone", outcome(Q::distribution_quality_cone(good, o, z, kPi / 2)), gfReason::invalid_argument},
      {"zero semi-axis", outcome(Q::distribution_quality_ellipse(arc(90, 5), giPoint2(3, -1), 2, 0, 0)),
       gfReason::invalid_argument},
      {"radii short", outcome(Q::distribution_quality_probed_cylinder(good, constant(5, 0.1), 0, o, z, 1)),
       gfReason::bad_companion_array},
      {"negative radius", outcome(Q::distribution_quality_probed_cone(good, constant(good.count(), -0.1), 0, good, o,
                                                                      z, 0.5)),
       gfReason::bad_probe_radius},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(c.got.value, 0.0) << c.name;
    EXPECT_EQ(c.got.reason, c.reason) << c.name;
  }
  // One ring leaves the axis's tilt free; a usable call clears an earlier reason.
  EXPECT_LT(Q::distribution_quality_probed_cylinder(rings({3}, [](double) { return 2.0; }), constant(36, 0.1), 1, o, z,
                                                    2),
            1e-6);
  EXPECT_EQ(gfLastReason(), gfReason::none);
  EXPECT_GT(Q::distribution_quality_probed_cone(good, radii, 0, good, o, z, 0.5), 0.0);
}

}  // namespace
