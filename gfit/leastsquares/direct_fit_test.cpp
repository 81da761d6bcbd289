#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "gfit/gfit.h"
#include "test/support/checks.h"
#include "test/support/samplers.h"

namespace {

using namespace gfit::testing;
using S = gfDirectFitStatus;

// Exact points: evenly spaced, no noise.
giPoint2coDynArr exact_circle(giPoint2 const& c, double r, double span, int n) {
  return sample_ellipse2(nullptr, c, r, r, 0.0, 0.3, span, n, 0.0);
}

// The 2-D points placed in the plane (origin, x axis e1, y axis e2) of space.
giPoint3coDynArr lift(giPoint2coDynArr const& p, giWorkplane3 const& frame) {
  giPoint3coDynArr out(p.count(), 16);
  for (giPoint2 const& q : p) out.append(frame.to_world(giPoint3(q.x(), q.y(), 0.0)));
  return out;
}

giWorkplane3 random_frame(Rng& rng, double distance) {
  giUnitVec3 normal = rng.direction(), towards = rng.direction();
  return giWorkplane3(giPoint3(0, 0, 0) + towards * distance, normal, normal.any_normal());
}

// Fitted, with centre, radius and chi within `tolerance` of (centre, r) relative to r.
void expect_circle(gfDirectCircle2 const& fit, giPoint2 const& centre, double r, double tolerance) {
  ASSERT_EQ(fit.status(), S::fitted);
  EXPECT_LT(std::fmax(fit.centre().distance(centre), std::fabs(fit.radius() - r)) / r, tolerance);
  EXPECT_LT(fit.chi(), tolerance * r);
}

// Exposes the base's state straight after its constructor (before any fit).
struct EmbeddingProbe : gfDirectFit {
  explicit EmbeddingProbe(giPoint3coDynArr const& p) : gfDirectFit(p) {}
  giPoint2coDynArr const& in_plane() const { return points2d_; }
};

// ---- circles ----------------------------------------------------------------------------

TEST(DirectCircle, FewPointsAndTheirStatuses) {
  gfDirectCircle2 two({giPoint2(1, 1), giPoint2(5, 4)});  // the circle on the segment as diameter
  ASSERT_EQ(two.status(), S::fitted);
  EXPECT_EQ(two.centre(), giPoint2(3, 2.5));
  EXPECT_EQ(two.radius(), 2.5);
  expect_circle(gfDirectCircle2({giPoint2(0, 0), giPoint2(6, 8), giPoint2(-1, 7)}), giPoint2(3, 4), 5, 1e-14);
  // No circle: one point, three on a line, four or more on a line (the null vector of the
  // design matrix has no quadratic term), a NaN.
  gfDirectCircle2 none(giPoint2coDynArr{giPoint2(1, 1)}), collinear({giPoint2(0, 0), giPoint2(1, 1), giPoint2(3, 3)});
  EXPECT_EQ(none.status(), S::too_few_points);
  EXPECT_EQ(collinear.status(), S::singular);
  EXPECT_EQ(none.chi(), DBL_MAX);
  EXPECT_EQ(collinear.chi(), DBL_MAX);
  EXPECT_EQ(gfDirectCircle2({giPoint2(0, 0), giPoint2(1, 0), giPoint2(2, 0), giPoint2(4, 0)}).status(), S::degenerate);
  EXPECT_EQ(gfDirectCircle2({giPoint2(0, 0), giPoint2(NAN, 1), giPoint2(2, 0), giPoint2(4, 1)}).status(),
            S::degenerate);
  EXPECT_STREQ(gf_direct_fit_status_name(S::no_plane), "no_plane");
}

TEST(DirectCircle, ExactCirclesUpToAHundredRadiiFromTheOrigin) {
  // Coordinates are used as given, so the design matrix loses accuracy with the distance d
  // from the origin relative to the radius r and with the size of the coordinates (the
  // coefficient of x^2 + y^2 shrinks like 1/|p|^2 against the constant). Measured: 5e-10 at
  // d/r = 100 for radii up to 100, 1e-9 for radius 4000, 5e-8 at 300 radii; a quarter arc
  // of radius 4000 at the origin gets only 3e-8, of radius 250 1e-10.
  Rng rng(5);
  for (double r : {1e-3, 1.0, 80.0, 250.0, 4000.0})
    for (double distance : {0.0, 1.0, 10.0, 50.0, 100.0})
      for (double span : {2 * giPi, 0.5 * giPi}) {
        if ((r > 100 && distance > 50) || (r > 1000 && span < 6)) continue;
        giUnitVec3 d = rng.direction();
        giPoint2 c(distance * r * d.x(), distance * r * d.y());
        SCOPED_TRACE(::testing::Message() << r << " " << distance << " " << span);
        expect_circle(gfDirectCircle2(exact_circle(c, r, span, 40)), c, r, 1e-9);
      }
}

TEST(DirectCircle, NoisyCirclesComeBackWithinTheirStatisticalError) {
  // Noise sigma, n points: the least-squares centre and radius scatter by about
  // sigma * sqrt(2/n) on a full circle, a few times more on a half circle. The algebraic
  // circle's bias is of order sigma^2 / r, negligible here. A wrong eigenvector choice gives
  // errors of the order of the radius.
  Rng rng(7);
  const int n = 200;
  for (double distance : {0.0, 10.0, 200.0})
    for (double span : {2 * giPi, giPi}) {
      const double r = 30.0, sigma = 0.01;
      giPoint2 c(distance * r, -0.5 * distance * r);
      gfDirectCircle2 fit(sample_circle2(rng, c, r, 1.0, span, n, sigma));
      ASSERT_EQ(fit.status(), S::fitted);
      const double tolerance = (span < 4 ? 25.0 : 5.0) * sigma * std::sqrt(2.0 / n);
      EXPECT_LT(std::fmax(fit.centre().distance(c), std::fabs(fit.radius() - r)), tolerance) << distance << " " << span;
      EXPECT_NEAR(fit.chi(), sigma, 0.15 * sigma);
    }
}

TEST(DirectCircle, StreamedFactorGivesTheDecompositionOfTheWholeDesignMatrix) {
  // The fit streams the design matrix into its triangular factor; decomposing the n x 4
  // matrix itself (with U) must give the same circle, on both branches: noisy points
  // (eigenvector branch) and exact ones (null-vector branch), near and far from the origin.
  Rng rng(9);
  for (double noise : {1e-3, 0.0})
    for (double distance : {0.0, 50.0}) {
      giPoint2 c(distance * 2.0, 3.0);
      giPoint2coDynArr p =
          noise > 0 ? sample_circle2(rng, c, 2.0, 0.0, 5.0, 300, noise) : exact_circle(c, 2.0, 5.0, 300);
      const int n = p.count();
      mlMatrix z(n, 4);
      for (int i = 0; i < n; ++i) {
        const double x = p[i].x(), y = p[i].y(), row[] = {x * x + y * y, x, y, 1.0};
        for (int j = 0; j < 4; ++j) z(i, j) = row[j] / n;
      }
      mlSingularValueDecomposition whole(z);
      EXPECT_TRUE(distance > 0 || whole.is_singular(1e-8) == (noise == 0.0));  // near the origin: both branches
      giPoint2 centre;
      double radius = 0.0;
      ASSERT_EQ(gfit::detail::circle_from_design_svd(whole, centre, radius), S::fitted);
      gfDirectCircle2 streamed(p);
      const double agreement = (distance > 0 ? 1e-9 : 1e-12) * radius;
      EXPECT_LT(std::fmax(streamed.centre().distance(centre), std::fabs(streamed.radius() - radius)), agreement)
          << noise << " " << distance;
    }
}

TEST(DirectCircle, InSpace) {
  Rng rng(11);
  for (double distance : {0.0, 500.0}) {
    giWorkplane3 frame = random_frame(rng, distance);
    giPoint3coDynArr p = lift(exact_circle(giPoint2(3, -2), 7.5, 4.0, 30), frame);
    gfDirectCircle3 fit(p);
    ASSERT_EQ(fit.status(), S::fitted);
    giPoint3 c = frame.to_world(giPoint3(3, -2, 0));
    EXPECT_LT(fit.centre().distance(c), 1e-9 * 7.5) << distance;
    EXPECT_NEAR(fit.radius(), 7.5, 1e-9 * 7.5);
    EXPECT_EQ(fit.workplane().origin(), fit.centre());
    EXPECT_LT(line_angle(fit.workplane().normal(), frame.normal()), 1e-10);
    EXPECT_LT(fit.chi(), 1e-9);
  }
  // Two points: the circle on their segment, in a plane through it.
  giPoint3coDynArr pair{giPoint3(1, 2, 3), giPoint3(1, 2, 7)};
  gfDirectCircle3 two(pair);
  ASSERT_EQ(two.status(), S::fitted);
  EXPECT_LT(two.centre().distance(giPoint3(1, 2, 5)), 1e-15);
  EXPECT_DOUBLE_EQ(two.radius(), 2.0);
  EXPECT_NEAR(two.workplane().normal().dot(giVector3(0, 0, 1)), 0.0, 1e-15);

  giPoint3coDynArr same{giPoint3(1, 2, 3), giPoint3(1, 2, 3)};
  EXPECT_EQ(gfDirectCircle3(same).status(), S::no_plane);
  giPoint3coDynArr bad{giPoint3(0, 0, 0), giPoint3(1, 0, INFINITY), giPoint3(0, 1, 0), giPoint3(1, 1, 0)};
  EXPECT_EQ(gfDirectCircle3(bad).status(), S::no_plane);

  // The base alone: the plane is found, the points mapped, no fit has run.
  giPoint3coDynArr p = lift(sample_circle2(rng, giPoint2(1, 1), 4, 0, 6, 12, 0.0), random_frame(rng, 80.0));
  EmbeddingProbe probe(p);
  EXPECT_EQ(probe.status(), S::not_fitted);
  ASSERT_EQ(probe.in_plane().count(), p.count());
  for (int i = 1; i < p.count(); ++i)  // an isometry: distances are kept
    EXPECT_NEAR(probe.in_plane()[i].distance(probe.in_plane()[0]), p[i].distance(p[0]), 1e-12);
}

// ---- ellipses ---------------------------------------------------------------------------

struct EllipseCase {
  giPoint2 centre;
  double a, b, angle;
};

// Largest error of centre and semi-axes relative to a; the turn of the axes counts by the
// displacement it causes, (a - b) times the angle.
double ellipse_error(gfDirectEllipse2 const& e, EllipseCase const& t) {
  double turn = line_angle(e.a_axis(), giVector2(std::cos(t.angle), std::sin(t.angle))) * (t.a - t.b);
  double axes = std::fmax(std::fabs(e.a_length() - t.a), std::fabs(e.b_length() - t.b));
  return std::fmax(std::fmax(e.centre().distance(t.centre), axes), turn) / t.a;
}

TEST(DirectEllipse, ExactEllipsesNearTheOrigin) {
  // The scatter of (x, y, 1) is used unscaled, so the ellipse is far more sensitive to its
  // position and size than the circle. Measured (a = 2b): 1e-9 is kept for full ellipses
  // of size 0.01 to 10 up to 3 sizes from the origin and for half ellipses up to 1 size;
  // quarter arcs give 1e-10 only at the origin. Sizes of hundreds work only near the
  // origin; beyond these limits the scatter becomes singular and the fit falls back to the
  // circle (see FallsBackToTheCircle).
  struct Case {
    double a, distance, span;
  };
  const Case cases[] = {{0.01, 0, 2 * giPi}, {0.01, 3, 2 * giPi}, {1, 3, 2 * giPi},   {10, 3, 2 * giPi}, {1, 1, giPi},
                        {10, 1, giPi},       {1, 0, 0.5 * giPi},  {600, 0, 2 * giPi}, {600, 0, giPi}};
  Rng rng(17);
  for (Case const& k : cases) {
    double direction = rng.uniform(0, 2 * giPi);
    EllipseCase t{giPoint2(k.distance * k.a * std::cos(direction), k.distance * k.a * std::sin(direction)), k.a,
                  0.5 * k.a, rng.uniform(0, giPi)};
    gfDirectEllipse2 e(sample_ellipse2(nullptr, t.centre, t.a, t.b, t.angle, rng.uniform(0, 6), k.span, 40, 0.0));
    ASSERT_EQ(e.status(), S::fitted);
    EXPECT_LT(ellipse_error(e, t), 1e-9) << k.a << " " << k.distance << " " << k.span;
    EXPECT_LT(e.chi(), 1e-9 * k.a);
    EXPECT_NEAR(std::fabs(e.a_axis().cross(e.b_axis())), 1.0, 1e-12);
    EXPECT_NEAR(std::cos(e.angle().radians()) * e.a_axis().x() + std::sin(e.angle().radians()) * e.a_axis().y(), 1.0,
                1e-12);
    EXPECT_EQ(e.workplane().origin(), e.centre());
  }
}

TEST(DirectEllipse, NoisyEllipsesComeBackWithinTheirStatisticalError) {
  // Full ellipses evenly covered make two eigenvalues of the reduced scatter coincide:
  // rounding may split them into a complex pair, which must still count as real. The
  // candidate kept is the only ellipse among the three (the positive eigenvalue). Noise
  // sigma on n points: parameters scatter by about sigma * sqrt(2/n) (full) and several
  // times that on a partial arc; the direct ellipse's bias is of order sigma^2 / b.
  Rng rng(19);
  const int n = 400;
  const double sigma = 0.002;
  for (double span : {2 * giPi, 0.75 * 2 * giPi})
    for (int trial = 0; trial < 4; ++trial) {
      EllipseCase t{giPoint2(rng.uniform(-20, 20), rng.uniform(-20, 20)), 12.0, 7.0, rng.uniform(0, giPi)};
      gfDirectEllipse2 e(sample_ellipse2(&rng, t.centre, t.a, t.b, t.angle, rng.uniform(0, 6), span, n, sigma));
      ASSERT_EQ(e.status(), S::fitted);
      ASSERT_GT(e.a_length() - e.b_length(), 1.0) << "fell back to a circle";
      const double tolerance = (span < 6 ? 12.0 : 5.0) * sigma * std::sqrt(2.0 / n);
      EXPECT_LT(ellipse_error(e, t) * t.a, tolerance) << span << " " << trial;
      // chi measures along the ray from the centre, which exceeds the normal offset of the
      // noise on an eccentric ellipse (by about 10 to 20 percent here).
      EXPECT_GT(e.chi(), 0.9 * sigma);
      EXPECT_LT(e.chi(), 1.4 * sigma);
    }
}

TEST(DirectEllipse, FallsBackToTheCircle) {
  auto expect_circle = [](gfDirectEllipse2 const& e, giPoint2 const& c, double r, double tolerance) {
    ASSERT_EQ(e.status(), S::fitted);
    EXPECT_LT(e.centre().distance(c), tolerance);
    EXPECT_NEAR(e.a_length(), r, tolerance);
    EXPECT_EQ(e.a_length(), e.b_length());
    EXPECT_EQ(e.a_axis().x(), 1.0);
    EXPECT_EQ(e.b_axis().y(), 1.0);
    EXPECT_EQ(e.angle().radians(), 0.0);
  };
  // Three points: the circle through them.
  expect_circle(gfDirectEllipse2({giPoint2(0, 0), giPoint2(6, 8), giPoint2(-1, 7)}), giPoint2(3, 4), 5, 1e-13);
  // A semi-axis beyond 1000 fails the eigenvalue test (1 / a^2 < 1e-6): the circle instead.
  giPoint2coDynArr wide = sample_ellipse2(nullptr, giPoint2(0, 0), 1100, 700, 0.3, 0.0, 2 * giPi, 40, 0.0);
  ASSERT_EQ(gfDirectCircle2(wide).status(), S::fitted);
  expect_circle(gfDirectEllipse2(wide), gfDirectCircle2(wide).centre(), gfDirectCircle2(wide).radius(), 1e-9);
  // Far from the origin (30 sizes) the unscaled scatter of (x, y, 1) is singular.
  giPoint2coDynArr far = sample_ellipse2(nullptr, giPoint2(300, -40), 10, 6, 0.5, 0.0, 2 * giPi, 40, 0.0);
  expect_circle(gfDirectEllipse2(far), gfDirectCircle2(far).centre(), gfDirectCircle2(far).radius(), 1e-9);

  EXPECT_EQ(gfDirectEllipse2({giPoint2(0, 0), giPoint2(1, 1), giPoint2(2, 2)}).status(), S::singular);
  EXPECT_EQ(gfDirectEllipse2({giPoint2(0, 0), giPoint2(1, 0), giPoint2(2, 0), giPoint2(5, 0)}).status(), S::degenerate);
  EXPECT_EQ(gfDirectEllipse2(giPoint2coDynArr{giPoint2(0, 0)}).status(), S::too_few_points);
  EXPECT_EQ(gfDirectEllipse2(giPoint2coDynArr{giPoint2(0, 0)}).chi(), DBL_MAX);
}

TEST(DirectEllipse, InSpaceWithTheWorkplaneAlongTheMinorAxis) {
  Rng rng(23);
  giWorkplane3 frame = random_frame(rng, 100.0);
  EllipseCase t{giPoint2(2, -1), 9.0, 4.0, 0.7};
  giPoint2coDynArr flat = sample_ellipse2(nullptr, t.centre, t.a, t.b, t.angle, 0.0, 2 * giPi, 36, 0.0);
  giPoint3coDynArr p = lift(flat, frame);
  gfDirectEllipse3 e(p);
  ASSERT_EQ(e.status(), S::fitted);
  EXPECT_LT(e.centre().distance(frame.to_world(giPoint3(2, -1, 0))), 1e-9 * t.a);
  EXPECT_NEAR(e.a_length(), t.a, 1e-9 * t.a);
  EXPECT_NEAR(e.b_length(), t.b, 1e-9 * t.a);
  giVector3 major = frame.to_world(giVector3(std::cos(t.angle), std::sin(t.angle), 0));
  EXPECT_LT(line_angle(e.a_axis(), major), 1e-9);
  EXPECT_LT(line_angle(e.workplane().x_axis(), e.b_axis()), 1e-12);
  EXPECT_LT(line_angle(e.workplane().normal(), frame.normal()), 1e-10);
  // chi is the residual of the fitted ellipse itself (its workplane's x axis runs along the
  // minor axis): for exact points as small as the 2-D class's on the same ellipse.
  EXPECT_LT(gfDirectEllipse2(flat).chi(), 1e-9);
  EXPECT_LT(e.chi(), 1e-9);
  // Lifted off the plane by h, every point adds h to it.
  giPoint3coDynArr lifted = p;
  for (giPoint3& q : lifted) q = q + giVector3(frame.normal()) * 0.25;
  for (int i = 0; i < lifted.count(); i += 2) lifted[i] = lifted[i] - giVector3(frame.normal()) * 0.5;
  EXPECT_NEAR(gfDirectEllipse3(lifted).chi(), 0.25, 1e-9);

  giPoint3coDynArr same{giPoint3(4, 4, 4), giPoint3(4, 4, 4)};
  EXPECT_EQ(gfDirectEllipse3(same).status(), S::no_plane);
  EXPECT_EQ(gfDirectEllipse3(same).chi(), DBL_MAX);
}

TEST(DirectFit, ReproducibleBitForBit) {
  Rng rng(29);
  giPoint2coDynArr p = sample_ellipse2(&rng, giPoint2(1, 2), 5, 3, 0.3, 0, 6, 500, 0.01), copy(utCopy{}, p);
  gfDirectEllipse2 e1(p), e2(copy);
  EXPECT_TRUE(e1.centre() == e2.centre() && e1.a_length() == e2.a_length() && e1.chi() == e2.chi());
}

}  // namespace
