// Sphere and cylinder fits on noisy scans, single-threaded (threads = 1) and with every core
// (threads = 0). The cylinder search makes thousands of candidate circle fits; the full
// cylinder is a complete scan, the patch a 90-degree arc of it.
#include <benchmark/benchmark.h>

#include "bench/sampling.h"

namespace {

void BM_Sphere(benchmark::State& state) {
  giPoint3coDynArr pts = gfit::bench::sphere_scan(static_cast<int>(state.range(0)));
  giPoint3 centre;
  double radius, residual;
  for (auto _ : state) benchmark::DoNotOptimize(gfLeastSquareEvaluator::evaluate_sphere(pts, centre, radius, residual));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Sphere)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void cylinder(benchmark::State& state, double span) {
  giPoint3coDynArr pts = gfit::bench::cylinder_scan(static_cast<int>(state.range(0)), span);
  const int previous = gfSetMaxThreads(static_cast<int>(state.range(1)));
  giPoint3 point;
  giUnitVec3 direction;
  double radius, residual;
  for (auto _ : state)
    benchmark::DoNotOptimize(
        gfLeastSquareEvaluator::evaluate_cylinder(pts, point, direction, radius, residual, giUnitVec3(), giAngle(), 0));
  gfSetMaxThreads(previous);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_CylinderFull(benchmark::State& state) { cylinder(state, 2 * M_PI); }
void BM_CylinderPatch90(benchmark::State& state) { cylinder(state, M_PI / 2); }

BENCHMARK(BM_CylinderFull)
    ->ArgsProduct({{1000, 10000, 100000}, {1, 0}})
    ->ArgNames({"points", "threads"})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CylinderPatch90)
    ->ArgsProduct({{1000, 10000, 100000}, {1, 0}})
    ->ArgNames({"points", "threads"})
    ->Unit(benchmark::kMillisecond);

}  // namespace
