#include <gtest/gtest.h>

#include <cmath>

#include "gfit/gfit.h"

namespace {

// Central differences of v -> v / |v| against the analytic Jacobian, over lengths from tiny
// to large and directions near the axes.
TEST(UnitVectorDifferentiator, MatchesCentralDifferences) {
  giVector3 cases[] = {{1, 2, 3}, {1e-6, -2e-6, 5e-7}, {1e4, 3, -2}, {0, 0, 1}, {-0.3, 0.9, 1e-9}};
  for (giVector3 const& v : cases) {
    tskUnitVectorDifferentiator3 d(v);
    ASSERT_TRUE(d.valid());
    double j[3][3];
    d.jacobian(j);
    for (int c = 0; c < 3; ++c) {
      double h = 1e-6 * v.length();
      giVector3 e(c == 0 ? h : 0, c == 1 ? h : 0, c == 2 ? h : 0);
      giVector3 plus = giVector3((v + e).unit()), minus = giVector3((v - e).unit());
      giVector3 numeric = (plus - minus) / (2 * h);
      giVector3 analytic = d.derivative(e / h);
      for (int r = 0; r < 3; ++r) {
        EXPECT_NEAR(j[r][c], numeric[r], 1e-8 / v.length()) << r << c;
        EXPECT_NEAR(analytic[r], j[r][c], 1e-14 / v.length());
      }
    }
    // Moving v along itself does not turn it.
    EXPECT_LT(d.derivative(v).length(), 1e-15);
  }
  tskUnitVectorDifferentiator3 zero(giVector3(0, 0, 0));
  EXPECT_FALSE(zero.valid());
  EXPECT_TRUE(zero.unit().invalid());
  EXPECT_EQ(zero.derivative(giVector3(1, 1, 1)).length(), 0.0);
}

}  // namespace
