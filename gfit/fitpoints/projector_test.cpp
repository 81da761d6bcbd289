// Batch projection and the double dispatch between fit points and projectors.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <vector>

#include "gfit/gfit.h"

namespace {

// Projects onto the plane z = 0 and logs every call, to check order and arguments.
struct PlaneProjector : gfProjectorForFitting3 {
  void rotate_and_project(giXform3 const& xform, gfProbedPoint3 const* probed, gfProjectedPoint3& out) override {
    giPoint3 p = xform.transform(probed->measured_point());
    log.push_back(p.x());
    out = gfProjectedPoint3(p, giPoint3(p.x(), p.y(), 0.0), giUnitVec3(0, 0, 1));
  }
  std::vector<double> log;
};

struct Batch {
  explicit Batch(int n) : records(n) {
    for (int i = 0; i < n; ++i) points.emplace_back(giPoint3(i, 0, 2), giUnitVec3(0, 0, 1), 0.0);
  }
  std::function<gfFitPoint3 const&(int)> point() {
    return [this](int i) -> gfFitPoint3 const& { return points[i]; };
  }
  std::function<gfProjectedPoint3&(int)> record() {
    return [this](int i) -> gfProjectedPoint3& { return records[i]; };
  }
  std::vector<gfProbedPoint3> points;
  std::vector<gfProjectedPoint3> records;
};

TEST(ProjectBatch, ProjectsInIndexOrderUnderTheTransform) {
  PlaneProjector projector;
  Batch batch(4);
  giXform3 shift(giXformTranslate{}, giVector3(10, 0, 1));
  projector.project_batch(batch.point(), batch.record(), 4, 0, shift);
  EXPECT_EQ(projector.log, (std::vector<double>{10, 11, 12, 13}));
  EXPECT_DOUBLE_EQ(batch.records[3].signed_distance(), 3.0);

  // The initial projection ignores the transform.
  projector.log.clear();
  projector.project_batch(batch.point(), batch.record(), 2, 1, shift);
  EXPECT_EQ(projector.log, (std::vector<double>{0, 1}));
  EXPECT_DOUBLE_EQ(batch.records[0].signed_distance(), 2.0);
}

TEST(ProjectBatch, NoCountTouchesNothingAndEmptyAccessorsThrow) {
  PlaneProjector projector;
  Batch batch(2);
  giXform3 identity(giXformIdentity{});
  projector.project_batch(batch.point(), batch.record(), 0, 0, identity);
  projector.project_batch(batch.point(), batch.record(), -3, 1, identity);
  projector.project_batch({}, {}, 0, 0, identity);
  EXPECT_TRUE(projector.log.empty());
  EXPECT_TRUE(batch.records[0].invalid());
  EXPECT_THROW(projector.project_batch({}, batch.record(), 1, 0, identity), std::bad_function_call);
}

TEST(ObjectForFitting, TheEmptyObjectLeavesRecordsAlone) {
  gfObjectForFitting object;
  std::unique_ptr<gfObjectForFitting> copy(object.copy());
  ASSERT_NE(copy, nullptr);
  copy->transform(giXform3(giXformScale{}, 2, 2, 2));
  gfProjectorForFitting3coPrf projector = copy->create_projector();
  ASSERT_TRUE(projector);
  EXPECT_EQ(gfit::detail::coPrfInspector::external(projector), 0);

  gfProbedPoint3 point(giPoint3(1, 2, 3), giUnitVec3(0, 0, 1), 1.0);
  gfProjectedPoint3 record(giPoint3(7, 7, 7), giPoint3(7, 7, 6), giUnitVec3(0, 0, 1));
  point.initial_projection(record, projector.get());
  EXPECT_EQ(record.measured_point(), giPoint3(7, 7, 7));
  // A projector that is not one of probed points cannot take them: the record stays too.
  gfFitPointProjector3 plain;
  point.project_from_position(giXform3(giXformIdentity{}), record, &plain);
  point.project_from_position(giXform3(giXformIdentity{}), record, nullptr);
  EXPECT_EQ(record.nominal_point(), giPoint3(7, 7, 6));
}

TEST(ProjectedRecords, MaximumMovementSkipsInvalidRecords) {
  gfProjectedPoint3coDynArr records;
  EXPECT_EQ(get_maximum_movement(records, giXform3(giXformTranslate{}, giVector3(1, 1, 1))), 0.0);
  records.append(gfProjectedPoint3(giPoint3(0, 0, 0), giPoint3(0, 0, 1), giUnitVec3(0, 0, 1)));
  records.append(gfProjectedPoint3(giPoint3(5, 0, 0), giPoint3(5, 0, 1), giUnitVec3(0, 0, 1)));
  gfProjectedPoint3 invalid(giPoint3(1e6, 0, 0), giPoint3(0, 0, 0), giUnitVec3(0, 0, 1));
  invalid.set_invalid();
  records.append(invalid);
  records.append(gfProjectedPoint3());
  EXPECT_EQ(get_maximum_movement(records, giXform3(giXformIdentity{})), 0.0);
  giXform3 turn(giXformRotate{}, giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), giAngle(giPi / 2));
  EXPECT_NEAR(get_maximum_movement(records, turn), 5.0 * std::sqrt(2.0), 1e-13);

  gfProjectedPoint2coDynArr flat{gfProjectedPoint2(giPoint2(3, 4), giPoint2(3, 4), giUnitVec2(0, 1)),
                                 gfProjectedPoint2()};
  EXPECT_NEAR(get_maximum_movement(flat, giXform2(giXformTranslate{}, giVector2(0, 2))), 2.0, 0.0);
}

}  // namespace
