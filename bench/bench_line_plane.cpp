// Closed-form plane and line fits on dense scans: two passes over the points (the mean,
// then the streamed triangular factor).
#include <benchmark/benchmark.h>

#include "bench/sampling.h"

namespace {

void BM_Plane(benchmark::State& state) {
  giPoint3coDynArr pts = gfit::bench::plane_scan(static_cast<int>(state.range(0)));
  giPoint3 point;
  giUnitVec3 normal;
  double residual;
  for (auto _ : state) {
    benchmark::DoNotOptimize(gfLeastSquareEvaluator::evaluate_plane(pts, point, normal, residual));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Plane)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void BM_Line3(benchmark::State& state) {
  giPoint3coDynArr pts = gfit::bench::line_scan(static_cast<int>(state.range(0)));
  giPoint3 point;
  giUnitVec3 direction;
  double residual;
  for (auto _ : state) {
    benchmark::DoNotOptimize(gfLeastSquareEvaluator::evaluate_line3(pts, point, direction, residual));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Line3)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

}  // namespace
