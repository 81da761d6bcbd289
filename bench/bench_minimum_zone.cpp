// Minimum-zone flatness and cylindricity on dense scans: the least-squares start plus the
// sequential programme, whose late steps see only the points near the two surfaces.
#include <benchmark/benchmark.h>

#include <cmath>

#include "bench/sampling.h"

namespace {

giPoint3coDynArr cylinder_scan(int n) {
  giPoint3coDynArr pts(n, 1024);
  for (int i = 0; i < n; ++i) {
    double a = giPi * (1 + gfit::bench::scramble(3 * i)), h = 30 * gfit::bench::scramble(3 * i + 1);
    double r = 12.5 + 2e-3 * gfit::bench::scramble(3 * i + 2) + 1e-3 * std::cos(3 * a);  // trilobed
    pts.append(giPoint3(200 + r * std::cos(a), -100 + r * std::sin(a), 50 + h));
  }
  return pts;
}

template <int (*Fit)(giPoint3coDynArr const&, gfMinimumZone&)>
void run(benchmark::State& state, giPoint3coDynArr const& pts) {
  gfMinimumZone zone;
  for (auto _ : state) {
    benchmark::DoNotOptimize(Fit(pts, zone));
    benchmark::ClobberMemory();
  }
  state.counters["width"] = zone.width;
  state.counters["ls_width"] = zone.least_squares_width;
  state.counters["certified"] = zone.status == gfMinimumZoneFit::certified;
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_MinimumZonePlane(benchmark::State& state) {
  run<gfMinimumZoneFit::plane>(state, gfit::bench::plane_scan(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_MinimumZonePlane)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_MinimumZoneCylinder(benchmark::State& state) {
  run<gfMinimumZoneFit::cylinder>(state, cylinder_scan(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_MinimumZoneCylinder)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
