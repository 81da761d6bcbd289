// The surface kernel: foot points and outward normals against closed forms, parts read back
// from files, copies and transforms (rigid and non-uniform), bad input and threads.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "gfit/cad.h"
#include "test/support/cad_shapes.h"
#include "test/support/samplers.h"

#if defined(__SANITIZE_ADDRESS__)
#define GFIT_LEAK_CHECKS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define GFIT_LEAK_CHECKS 1
#endif
#endif
#if defined(GFIT_LEAK_CHECKS)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

// A file name of this run's own: test programs of several build trees may run at once.
std::string scratch_path(char const* name, char const* ext) {
  auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
  return ::testing::TempDir() + name + "_" + std::to_string(stamp) + ext;
}

using namespace gfit::testing;

// Allocations made while one of these lives are not reported as leaks (sanitizer builds).
#if defined(GFIT_LEAK_CHECKS)
using LeakCheckOff = __lsan::ScopedDisabler;
#else
struct LeakCheckOff {
  LeakCheckOff() {}  // user-provided: a scope guard that does nothing is still "used"
};
#endif

// Foot points of analytic faces come from closed-form extrema: 1e-9 mm holds on parts of
// a few hundred millimetres (rounding is ~1e-13 relative).
constexpr double kExact = 1e-9;

giPoint3 const kOrigin(120.0, -80.0, 45.0);
giUnitVec3 const kAxis(0.3, -0.5, 0.8);

struct ClosedForm {
  std::string name;
  tskSurfPtr surface;
  // The nearest foot point and the outward normal there.
  std::function<void(giPoint3 const&, giPoint3&, giUnitVec3&)> foot;
};

// p about the frame (kOrigin, kAxis): its height and its unit direction away from the axis.
void axial(giPoint3 const& p, double& z, giUnitVec3& radial) {
  z = kAxis.dot(p - kOrigin);
  radial = giUnitVec3(p - kOrigin - kAxis * z);
}

std::vector<ClosedForm> closed_forms() {
  double const R = 20.0, r = 6.0, alpha = 0.4;
  return {
      {"plane", plane_face(kOrigin, kAxis, 100.0),
       [](giPoint3 const& p, giPoint3& f, giUnitVec3& n) {
         f = p - kAxis * kAxis.dot(p - kOrigin);
         n = kAxis;
       }},
      {"cylinder", cylinder_face(kOrigin, kAxis, R, 200.0),
       [=](giPoint3 const& p, giPoint3& f, giUnitVec3& n) {
         double z;
         axial(p, z, n);
         f = kOrigin + kAxis * z + n * R;
       }},
      {"sphere", sphere_face(kOrigin, R),
       [=](giPoint3 const& p, giPoint3& f, giUnitVec3& n) {
         n = (p - kOrigin).unit();
         f = kOrigin + n * R;
       }},
      {"cone", cone_face(kOrigin, kAxis, R, alpha, 100.0),
       [=](giPoint3 const& p, giPoint3& f, giUnitVec3& n) {
         // In the half-plane of p: the generator (R + t sin a, t cos a), t along it.
         double z;
         giUnitVec3 radial;
         axial(p, z, radial);
         double t = (kAxis.cross(p - kOrigin).length() - R) * std::sin(alpha) + z * std::cos(alpha);
         f = kOrigin + kAxis * (t * std::cos(alpha)) + radial * (R + t * std::sin(alpha));
         n = (radial * std::cos(alpha) - kAxis * std::sin(alpha)).unit();
       }},
      {"torus", torus_face(kOrigin, kAxis, R, r),
       [=](giPoint3 const& p, giPoint3& f, giUnitVec3& n) {
         double z;
         giUnitVec3 radial;
         axial(p, z, radial);
         n = (p - (kOrigin + radial * R)).unit();
         f = kOrigin + radial * R + n * r;
       }},
  };
}

// Points within 3 mm of a face, on both sides, away from its boundary.
giPoint3 near_point(Rng& rng, ClosedForm const& c) {
  giVector3 across = kAxis.cross(rng.direction());
  giPoint3 seed = kOrigin + kAxis * rng.uniform(5.0, 60.0) + across.unit() * rng.uniform(5.0, 45.0);
  giPoint3 f;
  giUnitVec3 n;
  c.foot(seed, f, n);
  return f + n * rng.uniform(-3.0, 3.0);
}

// n points near each closed-form face projected onto `surface` (the face, or an image of it):
// the nearest foot point within `tolerance` of the closed form, the normal there within
// `normal_tolerance`, every foot point listed by increasing distance.
void expect_closed_forms(Rng& rng, int n, double tolerance, double normal_tolerance,
                         std::function<tskSurfPtr(tskSurfPtr const&)> const& surface) {
  tskSurfPointList feet;
  for (ClosedForm const& c : closed_forms()) {
    tskSurfPtr s = surface(c.surface);
    ASSERT_TRUE(s) << c.name;
    for (int i = 0; i < n; ++i) {
      giPoint3 p = near_point(rng, c), f;
      giUnitVec3 expected_normal, normal;
      c.foot(p, f, expected_normal);
      s->project(p, feet);
      ASSERT_GE(feet.count(), 1) << c.name;
      EXPECT_LT(feet[0].point.distance(f), tolerance) << c.name << " point " << i;
      EXPECT_NEAR(feet[0].distance, p.distance(f), tolerance) << c.name;
      for (int k = 1; k < feet.count(); ++k) EXPECT_LE(feet[k - 1].distance, feet[k].distance);
      ASSERT_TRUE(s->normal(feet[0], 1e-5, 1e-5, normal)) << c.name;
      EXPECT_LT((normal - expected_normal).length(), normal_tolerance) << c.name;
    }
  }
}

TEST(SurfaceKernel, FootPointsAndNormalsOfAnalyticFacesAreClosedForm) {
  Rng rng(7);
  expect_closed_forms(rng, 200, kExact, 1e-12, [](tskSurfPtr const& face) { return face; });
}

TEST(SurfaceKernel, EveryFootPointOfAnAnalyticFaceIsListed) {
  tskSurfPointList feet;
  giPoint3 p = kOrigin + kAxis * 30.0 + giVector3(kAxis.any_normal()) * 35.0;  // outside, off the axis
  cylinder_face(kOrigin, kAxis, 20.0, 200.0)->project(p, feet);
  ASSERT_EQ(feet.count(), 2);  // the near and the far side
  EXPECT_NEAR(feet[0].distance, 15.0, kExact);
  EXPECT_NEAR(feet[1].distance, 55.0, kExact);
  torus_face(kOrigin, kAxis, 20.0, 6.0)->project(p, feet);
  EXPECT_EQ(feet.count(), 4);
  sphere_face(kOrigin, 20.0)->project(p, feet);
  EXPECT_EQ(feet.count(), 2);
}

TEST(SurfaceKernel, TrimmedFacesOnlyHoldTheirOwnFootPoints) {
  tskSurfPointList feet;
  // The plate's top face ends at x = 100: beyond it no foot point lies on the top face.
  tskSurfPtr plate = plate_with_hole();
  plate->project(giPoint3(105, 30, 12), feet);
  for (int i = 0; i < feet.count(); ++i) EXPECT_LE(feet[i].point.x(), 100.0 + 1e-7);
  // Over the hole, the top face has no interior foot point: the nearest is on the hole's wall,
  // then the hole's rim.
  plate->project(giPoint3(33, 30, 9), feet);
  ASSERT_GE(feet.count(), 2);
  EXPECT_NEAR(feet[0].distance, 5.0, kExact);
  EXPECT_NEAR(feet[1].distance, std::sqrt(26.0), kExact);
  // The half cylinder holds the x >= 0 half only: from x = -15, the far side (x = 10) and
  // the nearest point of the boundary (x = 0) are foot points, the near side is not.
  tskSurfPtr half = half_cylinder_face(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 10.0, 20.0);
  half->project(giPoint3(-15, 0.5, 5), feet);
  ASSERT_EQ(feet.count(), 2);
  EXPECT_LT(feet[0].point.distance(giPoint3(0, 10, 5)), kExact);
  EXPECT_NEAR(feet[1].point.x(), 10.0 * 15 / std::hypot(15.0, 0.5), kExact);
}

// Points just outside (or inside) a part and the outward normal there.
struct Probe {
  giPoint3 point;
  giPoint3 foot;
  giUnitVec3 outward;
};

void expect_outward(tskSurf const& part, std::vector<Probe> const& probes, char const* what) {
  tskSurfPointList feet;
  for (Probe const& probe : probes) {
    part.project(probe.point, feet);
    ASSERT_GE(feet.count(), 1) << what;
    EXPECT_LT(feet[0].point.distance(probe.foot), kExact) << what;
    giUnitVec3 n;
    ASSERT_TRUE(part.normal(feet[0], 1e-5, 1e-5, n)) << what;
    EXPECT_LT((n - probe.outward).length(), 1e-9)
        << what << " at " << probe.point.x() << " " << probe.point.y() << " " << probe.point.z();
  }
}

std::vector<std::pair<tskSurfPtr, std::vector<Probe>>> parts_with_probes() {
  double const s = std::sqrt(0.5);
  return {
      {box(giPoint3(0, 0, 0), 10, 20, 30),
       {{{5, 10, 31}, {5, 10, 30}, {0, 0, 1}},
        {{5, 10, -1}, {5, 10, 0}, {0, 0, -1}},
        {{-2, 10, 15}, {0, 10, 15}, {-1, 0, 0}},
        {{11, 10, 15}, {10, 10, 15}, {1, 0, 0}},
        {{5, -3, 15}, {5, 0, 15}, {0, -1, 0}},
        {{5, 21, 15}, {5, 20, 15}, {0, 1, 0}}}},
      {plate_with_hole(),
       {{{60, 30, 10.5}, {60, 30, 10}, {0, 0, 1}},
        {{60, 30, -0.5}, {60, 30, 0}, {0, 0, -1}},
        // in the hole: the material is outside the wall, so outward points to the axis
        {{35, 30, 5}, {38, 30, 5}, {-1, 0, 0}},
        {{30, 25, 5}, {30, 22, 5}, {0, 1, 0}}}},
      {filleted_block(),
       {{{30, 20, 31}, {30, 20, 30}, {0, 0, 1}},
        // the fillet along x at y = 0, z = 0 has its axis at y = 5, z = 5
        {{30, 5 - 7 * s, 5 - 7 * s}, {30, 5 - 5 * s, 5 - 5 * s}, {0, -s, -s}},
        // the spherical corner at the origin: centre (5, 5, 5)
        {{0, 0, 0}, {5 - 5 / std::sqrt(3.0), 5 - 5 / std::sqrt(3.0), 5 - 5 / std::sqrt(3.0)}, giUnitVec3(-1, -1, -1)}}},
  };
}

TEST(SurfaceKernel, NormalsPointOutOfTheSolidAlsoAfterAFileRoundTrip) {
  for (auto const& [part, probes] : parts_with_probes()) {
    ASSERT_TRUE(part);
    expect_outward(*part, probes, "as made");
    for (char const* ext : {".step", ".iges", ".brep"}) {
      std::string path = scratch_path("gfit_part", ext);
      std::string error;
      ASSERT_TRUE(part->write(path, error)) << error;
      tskSurfPtr back = tskSurf::read(path, error);
      ASSERT_TRUE(back) << error;
      EXPECT_EQ(back->n_faces(), part->n_faces()) << ext;
      expect_outward(*back, probes, ext);
      std::remove(path.c_str());
    }
  }
}

// A part drawn in inches comes back in millimetres: a reader that took the file's numbers
// as millimetres would give a box 25.4 times too small.
TEST(SurfaceKernel, FilesInInchesAreReadInMillimetres) {
  tskSurfPtr part = box(giPoint3(1, 2, 3), 10, 20, 30);
  for (char const* ext : {".step", ".iges"}) {
    SCOPED_TRACE(ext);
    std::string path = scratch_path("gfit_inches", ext);
    ASSERT_TRUE(write_in_inches(part, path));
    if (std::string(ext) == ".step") {
      std::ifstream in(path);
      std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      EXPECT_NE(text.find("'INCH'"), std::string::npos) << "the file is not in inches";
    }
    std::string error;
    tskSurfPtr back = tskSurf::read(path, error);
    ASSERT_TRUE(back) << error;
    giBox3 const b = back->box();
    EXPECT_NEAR(b.min().x(), 1.0, 1e-4);
    EXPECT_NEAR(b.min().y(), 2.0, 1e-4);
    EXPECT_NEAR(b.min().z(), 3.0, 1e-4);
    EXPECT_NEAR(b.max().x(), 11.0, 1e-4);
    EXPECT_NEAR(b.max().y(), 22.0, 1e-4);
    EXPECT_NEAR(b.max().z(), 33.0, 1e-4);
    tskSurfPointList feet;
    back->project(giPoint3(6, 12, 40), feet);
    ASSERT_GT(feet.count(), 0);
    EXPECT_NEAR(feet[0].distance, 7.0, 1e-6);
    EXPECT_LT(feet[0].point.distance(giPoint3(6, 12, 33)), 1e-6);
    std::remove(path.c_str());
  }
}

TEST(SurfaceKernel, FreeFormFacesFindTheNearestFootPoint) {
  // The same faces converted to B-splines: foot points come from the sampled search and
  // Newton steps (converged to 1e-9 in parameter), normals from D1U x D1V.
  Rng rng(11);
  expect_closed_forms(rng, 40, 1e-6, 1e-6, as_bspline);
  tskSurfPointList feet;
  // A free-form face proper: P - F is along the normal at the nearest foot point.
  tskSurfPtr wavy = bspline_face();
  for (int i = 0; i < 50; ++i) {
    double x = rng.uniform(10, 90), y = rng.uniform(10, 90);
    giPoint3 p(x, y, bspline_height(x, y) + rng.uniform(-2, 2));
    wavy->project(p, feet);
    ASSERT_GE(feet.count(), 1);
    giUnitVec3 n;
    ASSERT_TRUE(wavy->normal(feet[0], 1e-5, 1e-5, n));
    if (feet[0].distance > 1e-3) {
      EXPECT_LT(n.cross(p - feet[0].point).length() / feet[0].distance, 1e-7);
    }
    EXPECT_LE(feet[0].distance, std::fabs(p.z() - bspline_height(x, y)) + 1e-3);
  }
}

TEST(SurfaceKernel, CopiesAreDeepAndRigidTransformsMoveFeetAndNormals) {
  tskSurfPtr source = filleted_block();
  tskSurfPtr moved = source->copy();
  giXform3 x = giXform3(giXformTranslate{}, giVector3(500, -20, 7)) *
               giXform3(giXformRotate{}, giPoint3(1, 2, 3), giUnitVec3(1, 1, 0.2), giAngle(0.7));
  ASSERT_TRUE(tskSurf::transform(moved, x));
  auto probes = parts_with_probes()[2].second;
  expect_outward(*source, probes, "source after the copy moved");
  std::vector<Probe> moved_probes;
  for (Probe const& p : probes)
    moved_probes.push_back({x * p.point, x * p.foot, x.transform(giVector3(p.outward)).unit()});
  expect_outward(*moved, moved_probes, "moved copy");
  EXPECT_FALSE(tskSurf::transform(moved, giXform3()));  // unset: nothing happens
  tskSurfPtr none;
  EXPECT_FALSE(tskSurf::transform(none, x));
}

TEST(SurfaceKernel, NonUniformScalesKeepPlanesAndCylindersExact) {
  // A cylinder along z (radius 10, z 0..40) and the plane through it, scaled by (1.02, 0.97, 1):
  // an elliptic cylinder with semi-axes 10.2 and 9.7, and a plane with normal ~ (1/1.02, 0, 1/0.97)
  double const sx = 1.02, sy = 0.97, a = 10.0 * sx, b = 10.0 * sy;
  giUnitVec3 tilt(1, 0, 1);
  tskSurfPtr part = compound(
      {cylinder_face(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 10.0, 40.0), plane_face(giPoint3(0, 0, 100), tilt, 30.0)});
  tskSurfPtr scaled = part->copy();
  ASSERT_TRUE(tskSurf::transform(scaled, giXform3(giXformScale{}, sx, sy, 1.0)));
  tskSurfPtr reference = from_own_shape(scaled);  // OpenCASCADE's B-spline image

  Rng rng(5);
  tskSurfPointList feet, reference_feet;
  giUnitVec3 plane_normal(tilt.x() / sx, tilt.y() / sy, tilt.z());
  giPoint3 plane_point(0, 0, 100);
  for (int i = 0; i < 100; ++i) {
    double t = rng.uniform(0, 2 * giPi), h = rng.uniform(2, 38), off = rng.uniform(-3, 3);
    giPoint3 p(a * std::cos(t) * (1 + off / 10), b * std::sin(t) * (1 + off / 10), h);
    scaled->project(p, feet);
    ASSERT_GE(feet.count(), 1);
    giPoint3 const& f = feet[0].point;
    EXPECT_NEAR(f.x() * f.x() / (a * a) + f.y() * f.y() / (b * b), 1.0, kExact);  // on the ellipse
    giUnitVec3 n;
    ASSERT_TRUE(scaled->normal(feet[0], 1e-5, 1e-5, n));
    giUnitVec3 gradient(f.x() / (a * a), f.y() / (b * b), 0.0);  // outward: away from the axis
    EXPECT_LT((n - gradient).length(), 1e-12);
    if (feet[0].distance > 1e-6) {
      EXPECT_LT(n.cross(p - f).length() / feet[0].distance, 1e-9);
    }
    reference->project(p, reference_feet);
    ASSERT_GE(reference_feet.count(), 1);
    EXPECT_LT(reference_feet[0].point.distance(f), 1e-6);

    giPoint3 q = giPoint3(sx * rng.uniform(-15, 15), sy * rng.uniform(-20, 20), 100.0);
    q = q + giVector3(plane_normal) * rng.uniform(-5, 5);
    scaled->project(q, feet);
    ASSERT_GE(feet.count(), 1);
    EXPECT_NEAR(plane_normal.dot(feet[0].point - plane_point), 0.0, kExact);
    EXPECT_LT(plane_normal.cross(q - feet[0].point).length(), kExact);
  }
  // The source is untouched.
  part->project(giPoint3(12, 0, 5), feet);
  EXPECT_NEAR(feet[0].distance, 2.0, kExact);
}

TEST(SurfaceKernel, CutoffsPruneOnlyWhatCannotMatter) {
  tskSurfPtr part = holed_plate(6);
  ASSERT_EQ(part->n_faces(), 42);
  Rng rng(3);
  tskSurfPointList all, pruned;
  // A stand-in for the projector's rule: foot points beyond 1 mm settle everything behind them.
  auto cutoff = [](tskSurfPoint const& f) { return f.distance > 1.0 ? f.distance : DBL_MAX; };
  for (int i = 0; i < 200; ++i) {
    giPoint3 p(rng.uniform(-5, 65), rng.uniform(-5, 65), rng.uniform(-5, 13));
    part->project(p, all);
    part->project(p, pruned, cutoff);
    ASSERT_LE(pruned.count(), all.count());
    for (int k = 0; k < pruned.count(); ++k) {
      EXPECT_EQ(pruned[k].point, all[k].point);
      if (cutoff(all[k]) < DBL_MAX) break;  // the lists may differ beyond the first cut
    }
  }
}

TEST(SurfaceKernel, BadInputIsRefusedWithoutACrash) {
  std::string error;
  EXPECT_FALSE(tskSurf::read("/no/such/part.step", error));
  EXPECT_NE(error.find("cannot read"), std::string::npos);
  std::string garbage = scratch_path("gfit_garbage", ".step");
  std::ofstream(garbage) << "ISO-10303-21;\nthis is not a step file\n";
  EXPECT_FALSE(tskSurf::read(garbage, error));
  EXPECT_FALSE(error.empty());
  std::string renamed = scratch_path("gfit_garbage", ".txt");
  std::rename(garbage.c_str(), renamed.c_str());
  EXPECT_FALSE(tskSurf::read(renamed, error));
  EXPECT_NE(error.find("unknown CAD format"), std::string::npos);
  std::remove(renamed.c_str());

  // No faces, a point with a NaN or unset (DBL_MAX): no foot points, no crash.
  tskSurfPtr empty = no_faces(), cube = box(giPoint3(0, 0, 0), 1, 1, 1);
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->n_faces(), 0);
  tskSurfPointList feet;
  for (auto [s, p] :
       {std::pair{empty, giPoint3(1, 2, 3)}, std::pair{cube, giPoint3(NAN, 0, 0)}, std::pair{cube, giPoint3()}}) {
    s->project(p, feet);
    EXPECT_TRUE(feet.empty());
  }
}

#if !defined(_WIN32)
void host_fault_handler(int) {}
#endif

// bracket.step with one entity broken, each of which made OpenCASCADE's reader dereference
// null (files named after the break): refused with a message, either by the entity checks
// before the transfer or by the fault guard during it; the host's own fault handler is in
// place afterwards, and good files still read.
TEST(SurfaceKernel, FilesThatFaultTheReaderAreRefused) {
  std::string const dir = GFIT_TEST_DATA_DIR "/malformed-step/";
#if !defined(_WIN32)
  struct sigaction host {}, saved {}, now {};
  host.sa_handler = host_fault_handler;
  sigemptyset(&host.sa_mask);
  ASSERT_EQ(sigaction(SIGSEGV, &host, &saved), 0);
#endif
  struct Case {
    char const* file;
    char const* reason;
  };
  for (Case c : {Case{"pcurve_without_items.step", "the reader faulted"},
                 Case{"surface_curve_without_pcurves.step", "the reader faulted"},
                 Case{"edge_loop_without_edges.step", "the reader faulted"},
                 Case{"vector_without_name.step", "entities fail their checks"},
                 Case{"face_bound_missing.step", "entities fail their checks"},
                 Case{"oriented_edge_renumbered.step", "entities fail their checks"}}) {
    std::string error;
    {
      // A fault abandons OpenCASCADE's frames and leaks what they held, by design.
      LeakCheckOff off;
      EXPECT_FALSE(tskSurf::read(dir + c.file, error)) << c.file;
    }
    EXPECT_NE(error.find("cannot parse " + dir + c.file + ": " + c.reason), std::string::npos) << error;
#if !defined(_WIN32)
    sigaction(SIGSEGV, nullptr, &now);
    EXPECT_EQ(now.sa_handler, &host_fault_handler) << c.file;
#endif
  }
#if !defined(_WIN32)
  sigaction(SIGSEGV, &saved, nullptr);
#endif
  std::string error;
  tskSurfPtr part = tskSurf::read(GFIT_TEST_DATA_DIR "/../../data/bracket.step", error);
  ASSERT_TRUE(part) << error;
  EXPECT_EQ(part->n_faces(), 19);
}

TEST(SurfaceKernel, ThreadsShareASurfaceAndGetTheSameBits) {
  tskSurfPtr part = filleted_block();
  Rng rng(9);
  std::vector<giPoint3> points;
  for (int i = 0; i < 2000; ++i)
    points.push_back(giPoint3(rng.uniform(-5, 65), rng.uniform(-5, 45), rng.uniform(-5, 35)));
  auto run = [&](std::vector<giPoint3>& out) {
    tskSurfPointList feet;
    for (giPoint3 const& p : points) {
      part->project(p, feet);
      out.push_back(feet.empty() ? giPoint3() : feet[0].point);
    }
  };
  std::vector<giPoint3> serial, first, second;
  run(serial);
  std::thread a([&] { run(first); }), b([&] { run(second); });
  a.join();
  b.join();
  EXPECT_EQ(first, serial);
  EXPECT_EQ(second, serial);
}

}  // namespace
