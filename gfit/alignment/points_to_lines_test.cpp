// Points-to-lines step: recovery on fixed lines, free motions refused and named without
// attraction and held still with it, bad input.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "gfit/gfit.h"

namespace {

struct Line {
  giPoint2 point;
  giVector2 normal;
};

// Points on the four sides of a square [0, 40]^2 (shifted by `at`), with their side lines.
std::vector<Line> square(giVector2 const& at) {
  std::vector<Line> out;
  for (int side = 0; side < 4; ++side)
    for (int i = 1; i < 8; ++i) {
      double u = 5.0 * i;
      giPoint2 p = side == 0 ? giPoint2(u, 0) : side == 1 ? giPoint2(40, u) : side == 2 ? giPoint2(u, 40) : giPoint2(0, u);
      giVector2 n = side == 0 ? giVector2(0, -1) : side == 1 ? giVector2(1, 0) : side == 2 ? giVector2(0, 1) : giVector2(-1, 0);
      out.push_back({p + at, n});
    }
  return out;
}

int step(std::vector<Line> const& lines, giXform2 const& moved, double attraction, giXform2& s) {
  gfPointsToLines solver;
  solver.set_fitting_points_attraction(attraction);
  for (Line const& l : lines) solver.add(moved * l.point, l.point, l.normal, 1.0);
  return solver.single_linear_step(s);
}

TEST(PointsToLines, IteratedStepsRecoverAMotionOnFixedLines) {
  for (giVector2 at : {giVector2(0, 0), giVector2(2e4, -3e4)}) {
    giXform2 truth = giXform2(giXformTranslate{}, giVector2(0.3, -0.2)) *
                     giXform2(giXformRotate{}, giPoint2(at.x() + 10, at.y() + 5), giAngle::from_degrees(1.5));
    std::vector<Line> lines = square(at);
    giXform2 x(giXformInverse{}, truth), s;
    giPoint2 probe = lines[3].point;
    ASSERT_EQ(step(lines, x, 0.0, s), 1);
    x = s * x;
    EXPECT_LE((x * probe).distance(probe), 1e-3);  // one step: second order in the angle
    for (int k = 0; k < 4; ++k) {
      ASSERT_EQ(step(lines, x, 0.0, s), 1);
      x = s * x;
    }
    for (Line const& l : lines) EXPECT_LE((x * l.point).distance(l.point), 1e-10);
  }
}

TEST(PointsToLines, FreeMotions) {
  std::vector<Line> flat, round;
  for (int i = 0; i < 10; ++i) {
    flat.push_back({giPoint2(3.0 * i, 7), giVector2(0, 1)});
    double a = 0.2 * giPi * i;  // a full circle
    round.push_back({giPoint2(5 + 10 * std::cos(a), -2 + 10 * std::sin(a)), giVector2(std::cos(a), std::sin(a))});
  }
  giXform2 moved = giXform2(giXformTranslate{}, giVector2(0.1, 0.05)), s(giXformTranslate{}, giVector2(9, 9));
  EXPECT_EQ(step(flat, moved, 0.0, s), 0);
  EXPECT_EQ(gfLastReason(), gfReason::not_determined);
  EXPECT_NE(std::string(gfLastReasonText()).find("translation along (1, 0)"), std::string::npos) << gfLastReasonText();
  EXPECT_EQ(step(round, moved, 0.0, s), 0);  // about the measured circle's centre
  EXPECT_NE(std::string(gfLastReasonText()).find("rotation about (5.1, -1.95)"), std::string::npos) << gfLastReasonText();
  EXPECT_EQ(s(0, 2), 9.0);

  // With the attraction the free motions stay still: no slide along the line, no turn
  // about the centre.
  ASSERT_EQ(step(flat, moved, 0.01, s), 1);
  EXPECT_LE(std::fabs(s(0, 2)), 1e-12);
  EXPECT_NEAR(s(1, 2), -0.05, 1e-3);  // the attraction holds back a little
  ASSERT_EQ(step(round, moved, 0.01, s), 1);
  EXPECT_LE(std::fabs(s(1, 0)), 1e-12);
}

TEST(PointsToLines, BadInput) {
  giXform2 s(giXformTranslate{}, giVector2(9, 9));
  gfPointsToLines none;
  EXPECT_EQ(none.single_linear_step(s), 0);
  EXPECT_EQ(gfLastReason(), gfReason::too_few_points);
  gfPointsToLines nan;
  for (Line const& l : square({0, 0})) nan.add(l.point, l.point, l.normal, 1.0);
  nan.add(giPoint2(NAN, 1), giPoint2(0, 0), giVector2(0, 1), 1.0);
  EXPECT_EQ(nan.single_linear_step(s), 0);
  EXPECT_EQ(gfLastReason(), gfReason::non_finite_input);
  gfPointsToLines zero;
  for (Line const& l : square({0, 0})) zero.add(l.point, l.point, l.normal, 1.0);
  zero.add(giPoint2(1, 1), giPoint2(0, 0), giVector2(0, 0), 1.0);
  EXPECT_EQ(zero.single_linear_step(s), 0);
  EXPECT_EQ(s(0, 2), 9.0);
}

}  // namespace
