// Fit points, projected points, pairing records and the shared handles to fit points.
#include <gtest/gtest.h>

#include <cfloat>
#include <memory>

#include "gfit/gfit.h"

namespace {

using gfit::detail::coPrfInspector;

TEST(ProjectedPoint, InvalidMarksAndDistances) {
  gfProjectedPoint3 none;
  EXPECT_TRUE(none.invalid());

  gfProjectedPoint3 p(giPoint3(1, 2, 5), giPoint3(1, 2, 3), giUnitVec3(0, 0, 1));
  EXPECT_FALSE(p.invalid());
  EXPECT_DOUBLE_EQ(p.distance(), 2.0);
  EXPECT_DOUBLE_EQ(p.signed_distance(), 2.0);
  gfProjectedPoint3 flipped(p.measured_point(), p.nominal_point(), -p.nominal_normal());
  EXPECT_DOUBLE_EQ(flipped.signed_distance(), -2.0);
  EXPECT_DOUBLE_EQ(flipped.distance(), 2.0);

  gfProjectedPoint3 on(giPoint3(4, 4, 4), giPoint3(4, 4, 4), giUnitVec3(1, 0, 0));
  EXPECT_EQ(on.distance(), 0.0);
  EXPECT_EQ(on.signed_distance(), 0.0);

  p.set_invalid();  // only the measured x is marked
  EXPECT_TRUE(p.invalid());
  EXPECT_EQ(p.measured_point().x(), -DBL_MAX);
  EXPECT_EQ(p.nominal_point(), giPoint3(1, 2, 3));
  EXPECT_EQ(p.nominal_normal().z(), 1.0);
  // An unset coordinate (+DBL_MAX) anywhere in the measured point also counts as no projection.
  EXPECT_TRUE(gfProjectedPoint3(giPoint3(0, 0, DBL_MAX), giPoint3(0, 0, 0), giUnitVec3(0, 0, 1)).invalid());

  gfProjectedPoint2 q(giPoint2(0, 3), giPoint2(0, 1), giUnitVec2(0, -1));
  EXPECT_DOUBLE_EQ(q.signed_distance(), -2.0);
  EXPECT_TRUE(gfProjectedPoint2().invalid());
  q.set_invalid();
  EXPECT_TRUE(q.invalid());
}

TEST(PlaneAndPoint, StoresTheNormalTimesTheWeight) {
  gfPlaneAndPoint a(giPoint3(1, 1, 1), giPoint3(0, 0, 0), giVector3(0, 0.6, 0.8), 3, 0.5, -0.5, 2.0);
  EXPECT_DOUBLE_EQ(a.weighted_normal().length(), 2.0);
  gfPlaneAndPoint b(giPoint3(1, 1, 1), giPlane(giPoint3(0, 0, 7), giUnitVec3(1, 0, 0)), 0, 0, 0, 0.25);
  EXPECT_EQ(b.plane_point(), giPoint3(0, 0, 7));
  EXPECT_DOUBLE_EQ(b.weighted_normal().x(), 0.25);
}

// A fit point that counts its destructions.
struct Counted : gfProbedPoint3 {
  explicit Counted(int& deaths) : gfProbedPoint3(giPoint3(1, 2, 3), giUnitVec3(0, 0, 1), 0.5), deaths_(deaths) {}
  ~Counted() override { ++deaths_; }
  int& deaths_;
};

TEST(SharedHandle, OwningHandlesDeleteOnceExternalHandlesNever) {
  int deaths = 0;
  {
    gfFitPoint3coPrf a(new Counted(deaths));
    gfFitPoint3coPrf b = a;
    EXPECT_EQ(a.use_count(), 2);
    std::shared_ptr<gfFitPoint3> shared = b;  // the same control block
    EXPECT_EQ(a.use_count(), 3);
    a = b;  // self-assignment through another handle
    b = gfFitPoint3coPrf();
    EXPECT_EQ(coPrfInspector::external(a), 0);
    EXPECT_EQ(deaths, 0);
  }
  EXPECT_EQ(deaths, 1);

  Counted owned_by_caller(deaths);
  {
    gfFitPoint3coPrf a(coPrfExtern{}, &owned_by_caller);
    gfFitPoint3coPrf b(a);
    EXPECT_EQ(coPrfInspector::external(b), 1);
    std::shared_ptr<gfFitPoint3> shared = b;
    EXPECT_NE(std::get_deleter<coPrfExternalDeleter>(shared), nullptr);
  }
  EXPECT_EQ(deaths, 1);  // the last external release leaves it alive
  EXPECT_EQ(owned_by_caller.radius(), 0.5);
  EXPECT_EQ(coPrfInspector::external(gfFitPoint3coPrf()), 0);

  // Made from a std::shared_ptr: shares its counts and deletes through it.
  auto shared = std::make_shared<Counted>(deaths);
  gfFitPoint3coPrf from_shared(std::static_pointer_cast<gfFitPoint3>(shared));
  EXPECT_EQ(from_shared.use_count(), 2);
  shared.reset();
  from_shared = gfFitPoint3coPrf();
  EXPECT_EQ(deaths, 2);
}

}  // namespace
