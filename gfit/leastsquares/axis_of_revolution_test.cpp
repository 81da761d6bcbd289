#include <gtest/gtest.h>

#include <cmath>

#include "gfit/gfit.h"
#include "test/support/derivative_check.h"
#include "test/support/samplers.h"

namespace {

using namespace gfit::testing;

// Points and exact outward normals of a surface of revolution about (axis point, axis): the
// meridian is (radius(h), h) with derivative dradius/dh, sampled at heights in [h0, h1].
template <class Radius, class Slope>
void sample_revolution(Rng& rng, giPoint3 const& point, giUnitVec3 const& axis, double h0, double h1, Radius radius,
                       Slope slope, int n, giPoint3coDynArr& pts, giUnitVec3coDynArr& normals) {
  giUnitVec3 e1 = axis.any_normal(), e2(axis.cross(e1));
  for (int i = 0; i < n; ++i) {
    double h = rng.uniform(h0, h1), t = rng.uniform(0, 2 * giPi);
    giVector3 radial = e1 * std::cos(t) + e2 * std::sin(t);
    pts.append(point + axis * h + radial * radius(h));
    normals.append((radial - giVector3(axis) * slope(h)).unit());  // normal to (r'(h), 1) in the meridian
  }
}

TEST(AxisOfRevolution, ExactNormalsOnACylinderAConeAndATorus) {
  Rng rng(71);
  for (int shape = 0; shape < 3; ++shape) {
    const giPoint3 point = rng.point_in_box(500);
    const giUnitVec3 axis = rng.direction();
    giPoint3coDynArr pts;
    giUnitVec3coDynArr normals;
    if (shape == 0)
      sample_revolution(rng, point, axis, -20, 20, [](double) { return 7.0; }, [](double) { return 0.0; }, 60, pts,
                        normals);
    else if (shape == 1)
      sample_revolution(rng, point, axis, 2, 30, [](double h) { return 0.4 * h; }, [](double) { return 0.4; }, 60,
                        pts, normals);
    else  // a torus: tube of radius 3 about a ring of radius 15
      sample_revolution(rng, point, axis, -2.5, 2.5, [](double h) { return 15 + std::sqrt(9 - h * h); },
                        [](double h) { return -h / std::sqrt(9 - h * h); }, 60, pts, normals);
    giPoint3 p;
    giUnitVec3 u;
    double residual = -1;
    ASSERT_EQ(gfLeastSquareEvaluator::evaluate_axis_rev(pts, normals, p, u, residual), 1) << shape;
    EXPECT_LT(line_angle(u, axis), 1e-9) << shape;
    EXPECT_LT(distance_from_axis(point, p, u), 1e-9 * 500) << shape;
    EXPECT_LT(residual, 1e-9) << shape;
  }
}

TEST(AxisOfRevolution, AGivenDirectionStartsASingleFit) {
  Rng rng(72);
  giPoint3coDynArr pts;
  giUnitVec3coDynArr normals;
  const giUnitVec3 axis(0.1, 0.2, 1);
  sample_revolution(rng, giPoint3(1, 2, 3), axis, -5, 5, [](double) { return 4.0; }, [](double) { return 0.0; }, 30,
                    pts, normals);
  giPoint3 p(0, 0, 0);
  giUnitVec3 u(0.12, 0.18, 1);
  double residual;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_axis_rev(pts, normals, p, u, residual), 1);
  EXPECT_LT(line_angle(u, axis), 1e-9);
  gfLeastSquareAxisRev problem(pts, normals);
  EXPECT_LT(gradient_error(problem, mlVector{0.9, 2.1, 0.2, u.x(), u.y(), u.z()}), 1e-6);
  EXPECT_EQ(problem.n_independent_parameters(), 4);
}

TEST(AxisOfRevolution, Refusals) {
  giPoint3coDynArr five{giPoint3(1, 0, 0), giPoint3(0, 1, 0), giPoint3(-1, 0, 0), giPoint3(0, -1, 0),
                        giPoint3(1, 0, 1)};
  giUnitVec3coDynArr five_normals{giUnitVec3(1, 0, 0), giUnitVec3(0, 1, 0), giUnitVec3(-1, 0, 0),
                                  giUnitVec3(0, -1, 0), giUnitVec3(1, 0, 0)};
  giPoint3 p(9, 9, 9);
  giUnitVec3 u;
  double residual = -1;
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_axis_rev(five, five_normals, p, u, residual), 0);
  giPoint3coDynArr six = five;
  six.append(giPoint3(0, 1, 1));
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_axis_rev(six, five_normals, p, u, residual), 0);
  EXPECT_EQ(p.x(), 9.0);
  EXPECT_EQ(residual, -1.0);
}

}  // namespace
