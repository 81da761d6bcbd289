#include <gtest/gtest.h>

#include <cmath>

#include "gfit/cad.h"
#include "test/support/cad_shapes.h"

namespace {

using namespace gfit::testing;

// Points on the faces of a box scaled by (sx, sy, 1) about the origin, kept 2 mm from its edges.
giPoint3coPageArr scaled_box_cloud(giPoint3 const& corner, giVector3 const& size, double sx, double sy) {
  mlRandom rng(1);
  giPoint3coPageArr cloud;
  for (int axis = 0; axis < 3; ++axis)
    for (int side = 0; side < 2; ++side)
      for (int i = 0; i < 40; ++i) {
        double p[3];
        for (int k = 0; k < 3; ++k)
          p[k] = corner[k] + (k == axis ? side * size[k] : 2 + (size[k] - 4) * rng.next_unit());
        cloud.append(giPoint3(sx * p[0], sy * p[1], p[2]));
      }
  return cloud;
}

struct Outcome {
  giXform3 rough{giXformIdentity{}}, result;
  double sx = 0, sy = 0;
};

Outcome align(tskSurfPtr& surface, giPoint3coPageArr const& cloud, int passes) {
  Outcome o;
  giPoint3coPageArr none;
  gfBestfitAlignmentWithScale::get_alignment(surface, none, none, cloud, 1e-12, 20, o.rough, o.result, o.sx, o.sy, passes);
  return o;
}

// Each pass sees only part of the scale (points on faces across x carry no x residual and
// still count in the estimate's denominator), so the passes converge geometrically; the part
// is centred on the origin, about which the copies are scaled.
TEST(ScaledAlignment, RecoversShrinkageInXAndY) {
  tskSurfPtr part = box({-30, -20, -10}, 60, 40, 20), original = part;
  giPoint3coPageArr cloud = scaled_box_cloud({-30, -20, -10}, {60, 40, 20}, 0.995, 1.003);
  Outcome o = align(part, cloud, 40);
  EXPECT_NEAR(o.sx, 0.995, 1e-6);
  EXPECT_NEAR(o.sy, 1.003, 1e-6);
  EXPECT_NE(part.get(), original.get());  // a scaled copy replaced the caller's surface
  // The cloud lies on the returned surface after the returned transform.
  gfSurfProjectorForFitting3 projector(*part);
  double worst = 0.0;
  for (int i = 0; i < cloud.count(); ++i) {
    gfProbedPoint3 p(cloud[i], giUnitVec3(1, 0, 0), 0.0);
    gfProjectedPoint3 r;
    p.project_from_position(o.result, r, &projector);
    ASSERT_FALSE(r.invalid());
    worst = std::max(worst, r.distance().value());
  }
  EXPECT_LT(worst, 1e-5);
}

TEST(ScaledAlignment, CloudOnThePartKeepsTheCallersObject) {
  tskSurfPtr part = box({10, 20, 0}, 60, 40, 20), original = part;
  Outcome o = align(part, scaled_box_cloud({10, 20, 0}, {60, 40, 20}, 1.0, 1.0), 5);
  EXPECT_EQ(part.get(), original.get());
  EXPECT_EQ(o.sx, 1.0);
  EXPECT_EQ(o.sy, 1.0);

  // No passes: the rough transform and unit scales.
  Outcome none = align(part, scaled_box_cloud({10, 20, 0}, {60, 40, 20}, 1.0, 1.0), 0);
  EXPECT_TRUE(none.result.is_identity());
  EXPECT_EQ(none.sx, 1.0);
}

TEST(ScaledAlignment, RoughAlignmentFromPairs) {
  giPoint3coPageArr nominal, measured;
  giXform3 move = giXform3(giXformTranslate{}, giVector3(5, -3, 2)) *
                  giXform3(giXformRotate{}, giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), giAngle(0.3));
  giXform3 back(giXformInverse{}, move);
  for (giPoint3 p : {giPoint3(0, 0, 0), giPoint3(10, 0, 0), giPoint3(0, 10, 0), giPoint3(0, 0, 10)}) {
    nominal.append(p);
    measured.append(back * p);
  }
  giXform3 rough;
  ASSERT_TRUE(gfBestfitAlignmentWithScale::find_rough_alignment(nominal, measured, rough));
  for (int i = 0; i < 4; ++i) EXPECT_LT((rough * measured[i]).distance(nominal[i]), 1e-12);
  giPoint3coPageArr shorter;
  shorter.append(giPoint3(0, 0, 0));
  EXPECT_FALSE(gfBestfitAlignmentWithScale::find_rough_alignment(nominal, shorter, rough));

  gfObjectForFitting* nothing = nullptr;
  giXform3 result(giXformTranslate{}, giVector3(1, 2, 3));
  double sx = 7, sy = 7;
  gfBestfitAlignmentWithScale::get_alignment(&nothing, nominal, measured, measured, 1e-9, 5, rough, result, sx, sy, 1);
  EXPECT_EQ(sx, 7.0);
  EXPECT_EQ(result(0, 3), 1.0);
}

}  // namespace
