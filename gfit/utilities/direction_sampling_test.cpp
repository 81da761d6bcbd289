#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "gfit/gfit.h"

namespace {

TEST(VectorGradient, ThreeRingsAtPointFourMakeTwentyOneDirections) {
  gfVectorGradient g(giVector3(0, 0, 2), 0.4, 3);
  EXPECT_DOUBLE_EQ(g.step_angle(), 0.1);
  EXPECT_DOUBLE_EQ(g.spot_radius(), std::tan(0.05));
  EXPECT_EQ((std::vector<int>{g.ring(0).steps, g.ring(1).steps, g.ring(2).steps, g.total_steps()}),
            (std::vector<int>{1, 7, 13, 21}));

  gfVectorGradientIterator it = g.iterator();
  ASSERT_EQ(it++, 1);
  EXPECT_NEAR(it.vector().z(), 1.0, 1e-15);  // the centre itself comes first
  int walked = 1;
  double last_polar = 0.0;
  while (it++) {
    ++walked;
    EXPECT_NEAR(it.vector().length(), 1.0, 1e-15);
    last_polar = std::acos(std::fmin(1.0, it.vector().z()));
    EXPECT_LE(last_polar, 0.2 + 1e-15);
  }
  EXPECT_EQ(walked, 21);
  EXPECT_NEAR(last_polar, 0.2, 1e-15);  // the outermost ring lies at half the angle
  EXPECT_EQ(it++, 0);                   // stays exhausted
}

TEST(VectorGradient, RingsCoverTheirConeEvenly) {
  gfVectorGradient g(giVector3(1, -2, 0.5), giPi, 20);  // a whole hemisphere, as the cylinder walks it
  const giVector3 centre = giVector3(1, -2, 0.5).unit();
  int directions = 0;
  for (gfVectorGradientIterator it = g.iterator(); it++;) {
    ++directions;
    EXPECT_GE(centre.dot(it.vector()), -1e-12);  // never beyond the equator
  }
  EXPECT_EQ(directions, g.total_steps());
  // Neighbours on the outer ring are no farther apart than about one step.
  gfVectorGradientRing const& outer = g.ring(19);
  EXPECT_LE(2 * giPi * outer.sin_theta / outer.steps, 2 * g.step_angle() + 1e-12);
}

TEST(RandomDirections, ReproducibleAndUnit) {
  gfRandDirGenerator a(5.0, giUnitVec3(0, 0, 1), giAngle(0.3), 0.9), b(5.0, giUnitVec3(0, 0, 1), giAngle(0.3), 0.9);
  for (int i = 0; i < 200; ++i) {
    giUnitVec3 da = a.direction(), db = b.direction();
    EXPECT_EQ(da.x(), db.x());
    EXPECT_EQ(da.z(), db.z());
    EXPECT_NEAR(giVector3(da).length(), 1.0, 1e-15);
  }
  EXPECT_EQ(gfRandDirGenerator().invalid(), 1);
  EXPECT_EQ(a.invalid(), 0);
}

TEST(RandomDirections, BiasFavoursTheCapAndDecays) {
  gfRandDirGenerator unbiased(1.0, giUnitVec3(0, 0, 1), giAngle(0.3), 0.5);
  EXPECT_NEAR(unbiased.probability_bias_region_only(), 0.0, 1e-15);
  gfRandDirGenerator biased(1000.0, giUnitVec3(1, 1, 0), giAngle(0.2), 1.0);  // no decay
  int in_cap = 0;
  for (int i = 0; i < 1000; ++i)
    if (biased.direction().dot(giUnitVec3(1, 1, 0)) >= std::cos(0.2) - 1e-12) ++in_cap;
  EXPECT_GT(in_cap, 870);  // expected share 1000 f / (1000 f + 1 - f) = 0.91, sd 0.009
  gfRandDirGenerator decaying(1000.0, giUnitVec3(1, 0, 0), giAngle(0.2), 0.5);
  for (int i = 0; i < 60; ++i) decaying.direction();
  EXPECT_NEAR(decaying.bias(), 1.0, 1e-12);
  // Cap draws stay in the cap, spread over its area.
  gfRandDirGenerator cap(2.0, giUnitVec3(0, 1, 0), giAngle(0.5), 0.9);
  double lowest = 1.0;
  for (int i = 0; i < 500; ++i) lowest = std::fmin(lowest, cap.rand_vec_bias_region().y());
  EXPECT_GE(lowest, std::cos(0.5) - 1e-12);
  EXPECT_LT(lowest, std::cos(0.5) + 0.01);
}

TEST(RandomDirections, MultiHandsOutItsPreferredDirectionsFirst) {
  giUnitVec3coDynArr preferred{giUnitVec3(1, 0, 0), giUnitVec3(0, 1, 1), giUnitVec3(-1, 2, 3)};
  gfRandDirGenMulti g(1000.0, preferred, giAngle(0.1), 0.9);
  for (int i = 0; i < 3; ++i) {
    giUnitVec3 d = g.direction();
    EXPECT_EQ(d.x(), preferred[i].x());
    EXPECT_EQ(d.z(), preferred[i].z());
  }
  EXPECT_NEAR(g.bias(), 1000.0, 0.0);  // no draw, no decay yet
  for (int i = 0; i < 50; ++i) {
    giUnitVec3 d = g.rand_vec_bias_region();
    double nearest = -1.0;
    for (giUnitVec3 const& p : preferred) nearest = std::fmax(nearest, p.dot(d));
    EXPECT_GE(nearest, std::cos(0.1) - 1e-12);
  }
  gfRandDirGenMulti none(1000.0, giUnitVec3coDynArr(), giAngle(0.1), 0.9);
  EXPECT_FALSE(none.direction().invalid());  // no preferred direction: uniform draws
}

}  // namespace
