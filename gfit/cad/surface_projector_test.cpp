// Projection of probed points onto CAD surfaces: the scoring rules, the probe radius, the
// nominal object's copy and transform.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "gfit/cad.h"
#include "test/support/cad_shapes.h"

namespace {

using namespace gfit::testing;

gfProjectedPoint3 project(tskSurf const& surface, giPoint3 const& p, giUnitVec3 const& approximate, double r) {
  gfSurfProjectorForFitting3 projector(surface);
  gfProbedPoint3 probed(p, approximate, r);
  gfProjectedPoint3 out;
  probed.initial_projection(out, &projector);
  return out;
}

void expect_near(giVector3 const& a, giVector3 const& b, double tol = 1e-12) {
  EXPECT_LT((a - b).length(), tol) << a.x() << " " << a.y() << " " << a.z();
}

TEST(SurfaceProjector, OnTheSurfaceTheFootIsKeptAndOrientedByTheApproximateNormal) {
  tskSurfPtr plane = plane_face(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 50.0);
  gfProjectedPoint3 up = project(*plane, giPoint3(1, 2, 0), giUnitVec3(0.1, 0, 1), 0.0);
  ASSERT_FALSE(up.invalid());
  EXPECT_EQ(up.nominal_point(), giPoint3(1, 2, 0));
  expect_near(up.nominal_normal(), giVector3(0, 0, 1));
  gfProjectedPoint3 down = project(*plane, giPoint3(1, 2, 0), giUnitVec3(0, 0, -1), 0.0);
  expect_near(down.nominal_normal(), giVector3(0, 0, -1));
  // An approximate normal across the surface: on it the normal is kept, off it it flips.
  expect_near(project(*plane, giPoint3(1, 2, 0), giUnitVec3(1, 0, 0), 0.0).nominal_normal(), giVector3(0, 0, 1));
  expect_near(project(*plane, giPoint3(1, 2, 1), giUnitVec3(1, 0, 0), 0.0).nominal_normal(), giVector3(0, 0, -1));
}

TEST(SurfaceProjector, TheProbeRadiusIsCompensatedOnTheProbingSide) {
  // A ball of radius 2 touching a sphere of radius 20 from outside, 0.01 too far out.
  tskSurfPtr sphere = sphere_face(giPoint3(10, 20, 30), 20.0);
  giUnitVec3 dir(0.3, -0.4, 0.5);
  giPoint3 centre = giPoint3(10, 20, 30) + dir * 22.01;
  gfProjectedPoint3 out = project(*sphere, centre, dir, 2.0);
  ASSERT_FALSE(out.invalid());
  expect_near(out.nominal_point() - giPoint3(10, 20, 30), dir * 22.0, 1e-9);
  EXPECT_NEAR(out.signed_distance(), 0.01, 1e-9);

  // The same ball inside the plate's hole (radius 8), probing the wall at x = 38 from the axis.
  tskSurfPtr plate = plate_with_hole();
  out = project(*plate, giPoint3(35.997, 30, 5), giUnitVec3(-1, 0, 0), 2.0);
  ASSERT_FALSE(out.invalid());
  expect_near(out.nominal_point() - giPoint3(36, 30, 5), giVector3(0, 0, 0), 1e-9);
  expect_near(out.nominal_normal(), giVector3(-1, 0, 0), 1e-9);
  EXPECT_NEAR(out.signed_distance(), 0.003, 1e-9);
}

TEST(SurfaceProjector, BeyondABoundaryOnlyAlmostNormalViewsAreAccepted) {
  tskSurfPtr plane = plane_face(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 10.0);
  // 5 mm beyond the edge, 1 mm above: the boundary point sees it at 79 degrees.
  EXPECT_TRUE(project(*plane, giPoint3(15, 0, 1), giUnitVec3(0, 0, 1), 0.0).invalid());
  // 5 micrometres beyond: 0.005 rad off the normal, within the 0.01 limit.
  gfProjectedPoint3 out = project(*plane, giPoint3(10.005, 0, 1), giUnitVec3(0, 0, 1), 0.0);
  ASSERT_FALSE(out.invalid());
  EXPECT_EQ(out.nominal_point(), giPoint3(10, 0, 0));
  // Nothing there at all, or no finite point: invalid records too.
  EXPECT_TRUE(project(*no_faces(), giPoint3(0, 0, 1), giUnitVec3(0, 0, 1), 0.0).invalid());
  EXPECT_TRUE(project(*plane, giPoint3(INFINITY, 0, 1), giUnitVec3(0, 0, 1), 0.0).invalid());
}

TEST(SurfaceProjector, EqualScoresKeepTheFirstFootPoint) {
  // Two planes at the same distance, seen with an approximate normal across both: both score 1.
  tskSurfPtr above = plane_face(giPoint3(0, 0, 1), giUnitVec3(0, 0, 1), 5.0);
  tskSurfPtr below = plane_face(giPoint3(0, 0, -1), giUnitVec3(0, 0, 1), 5.0);
  giUnitVec3 across(1, 0, 0);
  EXPECT_EQ(project(*compound({above, below}), giPoint3(0, 0, 0), across, 0.0).nominal_point(), giPoint3(0, 0, 1));
  EXPECT_EQ(project(*compound({below, above}), giPoint3(0, 0, 0), across, 0.0).nominal_point(), giPoint3(0, 0, -1));
}

TEST(SurfaceProjector, RoundingNeverBreaksATieAgainstTheNearWall) {
  // A point 2 micrometres inside the material behind the hole's wall: the near and the far
  // wall both score exactly 1 (r = 0), and the near one, first in the list, must win. Scoring
  // n'.u as a product made |u|^2 = 1 - 1 ulp hand some of these points to the far wall.
  tskSurfPtr plate = plate_with_hole();
  for (double angle = 0.0; angle < 6.28; angle += 0.1) {
    giUnitVec3 radial(std::cos(angle), std::sin(angle), 0.0);
    giPoint3 p = giPoint3(30, 30, 5) + radial * 8.002;
    gfProjectedPoint3 out = project(*plate, p, -radial, 0.0);
    ASSERT_FALSE(out.invalid());
    EXPECT_NEAR(out.distance(), 0.002, 1e-9) << angle;
    EXPECT_NEAR(out.signed_distance(), -0.002, 1e-9) << angle;
  }
}

TEST(SurfaceProjector, TheProbingSideBeatsANearerFootPoint) {
  // With a ball of radius 0.5 the probing-side foot scores 0.5 and the other one 1.5.
  tskSurfPtr two = compound({plane_face(giPoint3(0, 0, 1), giUnitVec3(0, 0, 1), 5.0),
                             plane_face(giPoint3(0, 0, -2), giUnitVec3(0, 0, 1), 5.0)});
  gfProjectedPoint3 out = project(*two, giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 0.5);
  EXPECT_EQ(out.nominal_point(), giPoint3(0, 0, -1.5));
  expect_near(out.nominal_normal(), giVector3(0, 0, 1));
}

TEST(SurfaceForFitting, CopyThenTransformLeavesTheSourceAlone) {
  gfSurfaceForFitting source(box(giPoint3(0, 0, 0), 10, 10, 10));
  std::unique_ptr<gfObjectForFitting> copy(source.copy());
  giXform3 shift(giXformTranslate{}, giVector3(0, 0, 5));
  copy->transform(shift);

  gfProbedPoint3 probed(giPoint3(5, 5, 11), giUnitVec3(0, 0, 1), 0.0);
  gfProjectedPoint3 before, after;
  gfProjectorForFitting3coPrf p = source.create_projector();
  gfProjectorForFitting3coPrf q = copy->create_projector();
  probed.initial_projection(before, p.get());
  probed.initial_projection(after, q.get());
  EXPECT_EQ(before.nominal_point(), giPoint3(5, 5, 10));
  EXPECT_EQ(after.nominal_point(), giPoint3(5, 5, 15));

  // Transforming the object itself moves what its handle holders see.
  tskSurfPtr held = source.get_surface();
  source.transform(shift);
  tskSurfPointList feet;
  held->project(giPoint3(5, 5, 20), feet);
  EXPECT_NEAR(feet[0].distance, 5.0, 1e-12);

  // A batch under a transform moves the measured points before projecting them.
  gfProjectedPoint3 moved;
  p->project_batch([&](int) -> gfFitPoint3 const& { return probed; }, [&](int) -> gfProjectedPoint3& { return moved; },
                   1, 0, shift);
  EXPECT_EQ(moved.measured_point(), giPoint3(5, 5, 16));
  EXPECT_NEAR(moved.signed_distance(), 1.0, 1e-12);

  gfSurfaceForFitting nothing(nullptr);
  EXPECT_TRUE(nothing.create_projector());
}

// One projector shared by eight threads gives every thread the serial answer, bit for bit:
// the projector keeps no working state of its own.
TEST(SurfaceProjector, OneProjectorServesManyThreads) {
  tskSurfPtr part = demo_bracket();
  gfSurfProjectorForFitting3 projector(*part);
  mlRandom rng(1);
  std::vector<gfProbedPoint3> points;
  for (int i = 0; i < 600; ++i)
    points.emplace_back(giPoint3(-5 + 90 * rng.next_unit(), -5 + 60 * rng.next_unit(), -5 + 30 * rng.next_unit()),
                        giUnitVec3(rng.next_unit() - 0.5, rng.next_unit() - 0.5, 1.0), 0.5 * rng.next_unit());
  giXform3 shift = giXform3(giXformRotate{}, giPoint3(40, 25, 10), giUnitVec3(0, 0, 1), giAngle(0.01));
  auto run = [&](std::vector<gfProjectedPoint3>& out) {
    out.assign(points.size(), gfProjectedPoint3());
    projector.project_batch([&](int i) -> gfFitPoint3 const& { return points[i]; },
                            [&](int i) -> gfProjectedPoint3& { return out[i]; }, static_cast<int>(points.size()), 0,
                            shift);
  };
  std::vector<gfProjectedPoint3> serial;
  run(serial);
  std::vector<std::vector<gfProjectedPoint3>> parallel(8);
  std::vector<std::thread> threads;
  for (auto& out : parallel) threads.emplace_back([&run, &out] { run(out); });
  for (auto& t : threads) t.join();
  int valid = 0;
  for (gfProjectedPoint3 const& r : serial) valid += r.invalid() ? 0 : 1;
  EXPECT_GT(valid, 300);
  for (auto const& out : parallel)
    EXPECT_EQ(std::memcmp(out.data(), serial.data(), serial.size() * sizeof(gfProjectedPoint3)), 0);
}

}  // namespace
