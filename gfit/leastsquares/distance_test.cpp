#include <gtest/gtest.h>

#include <cmath>

#include "gfit/gfit.h"
#include "test/support/checks.h"
#include "test/support/samplers.h"

namespace {

// Exposes the frame's axis helper and checks it against central differences.
class AxisProbe : public gfLeastSquareDistance3 {
 public:
  using gfLeastSquareDistance3::F_G_and_derivatives;
  explicit AxisProbe(giPoint3coDynArr const& p) : gfLeastSquareDistance3(6, p) {}
  void normalize_parameters(mlVector&) const override {}
  void get_distance(double& d, int) const override { d = 0; }
  void get_distance_and_gradient(double& d, mlVector&, int) const override { d = 0; }
};

TEST(LeastSquareFrame, CentroidRangeAndGuessDirections) {
  giPoint3coDynArr pts{giPoint3(0, 0, 0), giPoint3(2, 0, 0), giPoint3(2, 3, 0), giPoint3(0, 3, 6)};
  AxisProbe frame(pts);
  giPoint3 c = frame.centroid();
  EXPECT_DOUBLE_EQ(c.x(), 1.0);
  EXPECT_DOUBLE_EQ(c.y(), 1.5);
  EXPECT_DOUBLE_EQ(c.z(), 1.5);
  EXPECT_DOUBLE_EQ(frame.range(), 7.0);  // diagonal of 2 x 3 x 6
  EXPECT_EQ(frame.n_points(), 4);

  giPoint3coDynArr same{giPoint3(0.1, 0.1, 0.1), giPoint3(0.1, 0.1, 0.1), giPoint3(0.1, 0.1, 0.1)};
  AxisProbe coincident(same);
  EXPECT_EQ(coincident.range(), 0.0);
  EXPECT_EQ(coincident.centroid().x(), 0.1);  // exactly, despite 0.1 not being representable

  giPoint3coDynArr none;
  EXPECT_TRUE(std::isnan(AxisProbe(none).centroid().x()));

  giPoint2coDynArr flat{giPoint2(-1, 1), giPoint2(3, 4)};
  class Flat : public gfLeastSquareDistance2 {
   public:
    using gfLeastSquareDistance2::gfLeastSquareDistance2;
    void normalize_parameters(mlVector&) const override {}
    void get_distance(double& d, int) const override { d = 0; }
    void get_distance_and_gradient(double& d, mlVector&, int) const override { d = 0; }
  } frame2(2, flat);
  EXPECT_DOUBLE_EQ(frame2.centroid().x(), 1.0);
  EXPECT_DOUBLE_EQ(frame2.range(), 5.0);
  // The searches' fixed trial directions lie in the upper half-space (a line has one).
  ASSERT_EQ(gfLeastSquareDistance3::num_guess_directions(), 7);
  for (int i = 0; i < 7; ++i) EXPECT_GE(gfLeastSquareDistance3::guess_direction(i).z(), 0.0);
}

TEST(LeastSquareFrame, HeightAndRadiusAboutAnAxis) {
  mlVector dF, dG;
  double F = 0, G = 0;
  AxisProbe::F_G_and_derivatives(giPoint3(1, 1, 1), giUnitVec3(0, 0, 1), giPoint3(4, 5, 3), F, dF, G, dG);
  EXPECT_DOUBLE_EQ(F, 2.0);
  EXPECT_DOUBLE_EQ(G, 5.0);
  ASSERT_EQ(dF.size(), 6);
  EXPECT_DOUBLE_EQ(dG[0], -0.6);  // minus the unit vector from the axis to Q
  EXPECT_DOUBLE_EQ(dG[1], -0.8);
  EXPECT_DOUBLE_EQ(dG[3], 2.0 * -0.6);
  // On the axis: the substitute gradient (1, 1, 0, F, F, 0).
  AxisProbe::F_G_and_derivatives(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), giPoint3(0, 0, 3), F, dF, G, dG);
  EXPECT_EQ(G, 0.0);
  EXPECT_EQ(gfit::testing::bits(dG), (gfit::testing::Bits{1, 1, 0, 3, 3, 0}));

  // Longer vectors keep their tail.
  mlVector long_dF(8, 9.0), long_dG(8, 9.0);
  AxisProbe::F_G_and_derivatives(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), giPoint3(1, 0, 0), F, long_dF, G, long_dG);
  EXPECT_EQ(long_dF.size(), 8);
  EXPECT_EQ(long_dG[7], 9.0);
}

TEST(LeastSquareFrame, AxisDerivativesMatchCentralDifferences) {
  gfit::testing::Rng rng(9);
  for (int trial = 0; trial < 50; ++trial) {
    giPoint3 A = rng.point_in_box(10), Q = rng.point_in_box(10);
    giUnitVec3 u = rng.direction();
    mlVector dF, dG, unused1, unused2;
    double F, G;
    AxisProbe::F_G_and_derivatives(A, u, Q, F, dF, G, dG);
    const double h = 1e-6;
    for (int k = 0; k < 6; ++k) {
      double a[6] = {A.x(), A.y(), A.z(), u.x(), u.y(), u.z()}, b[6] = {A.x(), A.y(), A.z(), u.x(), u.y(), u.z()};
      a[k] += h;
      b[k] -= h;
      // The direction enters as a unit vector, so perturbations along u have no effect.
      double Fp, Gp, Fm, Gm;
      AxisProbe::F_G_and_derivatives(giPoint3(a[0], a[1], a[2]), giUnitVec3(a[3], a[4], a[5]), Q, Fp, unused1, Gp,
                                     unused2);
      AxisProbe::F_G_and_derivatives(giPoint3(b[0], b[1], b[2]), giUnitVec3(b[3], b[4], b[5]), Q, Fm, unused1, Gm,
                                     unused2);
      EXPECT_NEAR((Fp - Fm) / (2 * h), dF[k], 1e-6);
      EXPECT_NEAR((Gp - Gm) / (2 * h), dG[k], 1e-6);
    }
  }
}

}  // namespace
