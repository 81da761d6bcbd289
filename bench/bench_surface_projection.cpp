// Projection of probed points onto CAD surfaces through gfSurfProjectorForFitting3, 1e4 points
// per batch; the per-point time is the batch time / 1e4 (items per second in the report).
// The points lie within 0.05 mm of the surface with the nominal normal as approximate normal,
// as a touch probe measures them. "Kernel" rows list every foot point without pruning.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/sampling.h"
#include "gfit/cad.h"
#include "test/support/cad_shapes.h"

namespace {

using namespace gfit::testing;
constexpr int kPoints = 10000;

enum Shape { kPlane, kCylinder, kTorus, kBSpline, kPart, kScaledCylinderAndPlane };

tskSurfPtr make(Shape s) {
  switch (s) {
    case kPlane: return plane_face(giPoint3(10, 20, 30), giUnitVec3(0.2, 0.3, 1), 50);
    case kCylinder: return cylinder_face(giPoint3(10, 20, 30), giUnitVec3(0.2, 0.3, 1), 20, 80);
    case kTorus: return torus_face(giPoint3(10, 20, 30), giUnitVec3(0.2, 0.3, 1), 30, 8);
    case kBSpline: return bspline_face();
    case kPart: return holed_plate(14);  // 202 faces
    case kScaledCylinderAndPlane: {
      tskSurfPtr part = compound({cylinder_face(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 20, 80),
                               plane_face(giPoint3(0, 0, 100), giUnitVec3(1, 0, 1), 40)});
      tskSurf::transform(part, giXform3(giXformScale{}, 1.01, 0.98, 1.0));
      return part;
    }
  }
  return nullptr;
}

// Points of the surface's box moved onto the surface (by the kernel, once), then 0.05 mm off it.
std::vector<gfProbedPoint3> probed_points(tskSurf const& surface) {
  giBox3 box = surface.box();
  std::vector<gfProbedPoint3> out;
  tskSurfPointList feet;
  for (std::uint64_t i = 0; static_cast<int>(out.size()) < kPoints; ++i) {
    giPoint3 p(box.min().x() + (box.max().x() - box.min().x()) * 0.5 * (1 + gfit::bench::scramble(3 * i)),
               box.min().y() + (box.max().y() - box.min().y()) * 0.5 * (1 + gfit::bench::scramble(3 * i + 1)),
               box.min().z() + (box.max().z() - box.min().z()) * 0.5 * (1 + gfit::bench::scramble(3 * i + 2)));
    surface.project(p, feet, [](tskSurfPoint const& f) { return f.distance; });  // the nearest is enough
    giUnitVec3 n;
    if (feet.empty() || !surface.normal(feet[0], 1e-5, 1e-5, n) || n.cross(p - feet[0].point).length() > 1e-3 * (1 + feet[0].distance))
      continue;
    out.emplace_back(feet[0].point + n * (0.05 * gfit::bench::scramble(7 * i)), n, 0.0);
  }
  return out;
}

void BM_Projector(benchmark::State& state) {
  tskSurfPtr surface = make(static_cast<Shape>(state.range(0)));
  std::vector<gfProbedPoint3> points = probed_points(*surface);
  std::vector<gfProjectedPoint3> records(points.size());
  gfSurfProjectorForFitting3 projector(*surface);
  giXform3 identity(giXformIdentity{});
  for (auto _ : state) {
    projector.project_batch([&](int i) -> gfFitPoint3 const& { return points[i]; },
                            [&](int i) -> gfProjectedPoint3& { return records[i]; }, kPoints, 0, identity);
    benchmark::ClobberMemory();
  }
  int invalid = 0;
  for (gfProjectedPoint3 const& r : records) invalid += r.invalid();
  state.counters["invalid"] = invalid;
  state.counters["faces"] = surface->n_faces();
  state.SetItemsProcessed(state.iterations() * kPoints);
}

void BM_Kernel(benchmark::State& state) {
  tskSurfPtr surface = make(static_cast<Shape>(state.range(0)));
  std::vector<gfProbedPoint3> points = probed_points(*surface);
  tskSurfPointList feet;
  for (auto _ : state) {
    for (gfProbedPoint3 const& p : points) surface->project(p.measured_point(), feet);
    benchmark::DoNotOptimize(feet.count());
  }
  state.SetItemsProcessed(state.iterations() * kPoints);
}

// What the scaled alignment pays per pass: a deep copy of the part scaled by (sx, sy, 1).
void BM_ScaledCopy(benchmark::State& state) {
  tskSurfPtr surface = make(static_cast<Shape>(state.range(0)));
  for (auto _ : state) {
    tskSurfPtr copy = surface->copy();
    tskSurf::transform(copy, giXform3(giXformScale{}, 1.01, 0.98, 1.0));
    benchmark::DoNotOptimize(copy->n_faces());
  }
}
BENCHMARK(BM_ScaledCopy)->Arg(kCylinder)->Arg(kPart)->Unit(benchmark::kMillisecond);

void shapes(benchmark::internal::Benchmark* b) {
  b->ArgName("shape");
  for (int s = kPlane; s <= kScaledCylinderAndPlane; ++s) b->Arg(s);
  b->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_Projector)->Apply(shapes);
BENCHMARK(BM_Kernel)->Apply(shapes);

}  // namespace
