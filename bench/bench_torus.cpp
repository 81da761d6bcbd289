// Torus fits on noisy scans, single-threaded (threads = 1) and with every core (threads = 0):
// a complete ring, and a partial scan (a quarter of the ring, the outer half of the tube).
// The search ranks its trial axes on at most 1024 of the points, so its cost levels off;
// the final Levenberg-Marquardt fit runs on all of them. The probe-compensated torus adds
// the downhill simplex over all the points.
#include <benchmark/benchmark.h>

#include "bench/sampling.h"

namespace {

// A noisy torus (ring radius 30, tube radius 8) about an oblique axis away from the origin,
// covering `u_span` of the ring and `v_span` of the tube (from its outer equator).
giPoint3coDynArr torus_scan(int n, double u_span, double v_span) {
  const giUnitVec3 axis(0.3, -0.5, 0.81);
  const giUnitVec3 e1 = axis.any_normal(), e2(axis.cross(e1));
  const giPoint3 centre(420.0, -130.0, 75.0);
  giPoint3coDynArr pts(n, 1024);
  for (int i = 0; i < n; ++i) {
    double u = u_span * (0.5 + 0.5 * gfit::bench::scramble(4 * i));
    double v = v_span * gfit::bench::scramble(4 * i + 1) / 2;
    double r = 8.0 + 2e-3 * gfit::bench::scramble(4 * i + 2);
    giVector3 radial = e1 * std::cos(u) + e2 * std::sin(u);
    pts.append(centre + radial * (30.0 + r * std::cos(v)) + axis * (r * std::sin(v)));
  }
  return pts;
}

void torus(benchmark::State& state, double u_span, double v_span) {
  giPoint3coDynArr pts = torus_scan(static_cast<int>(state.range(0)), u_span, v_span);
  const int previous = gfSetMaxThreads(static_cast<int>(state.range(1)));
  giPoint3 centre;
  giUnitVec3 axis;
  double r1, r2, residual;
  for (auto _ : state)
    benchmark::DoNotOptimize(gfLeastSquareEvaluator::evaluate_torus(pts, centre, axis, r1, r2, residual));
  gfSetMaxThreads(previous);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_TorusFull(benchmark::State& state) { torus(state, 2 * giPi, 2 * giPi); }
void BM_TorusPartial(benchmark::State& state) { torus(state, giPi / 2, giPi); }

BENCHMARK(BM_TorusFull)
    ->ArgsProduct({{1000, 10000}, {1, 0}})
    ->ArgNames({"points", "threads"})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TorusPartial)
    ->ArgsProduct({{1000, 10000}, {1, 0}})
    ->ArgNames({"points", "threads"})
    ->Unit(benchmark::kMillisecond);

void BM_ProbedTorus(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  giPoint3coDynArr pts = torus_scan(n, 2 * giPi, 2 * giPi);
  doublecoDynArr radii(n, 1024);
  for (int i = 0; i < n; ++i) radii.append(1.0 + 0.5 * gfit::bench::scramble(4 * i + 3));
  const int previous = gfSetMaxThreads(1);
  giPoint3 centre;
  giUnitVec3 axis;
  double r1, r2, residual;
  for (auto _ : state)
    benchmark::DoNotOptimize(
        gfLeastSquareEvaluator::evaluate_probed_torus(pts, radii, 0, centre, axis, r1, r2, residual));
  gfSetMaxThreads(previous);
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_ProbedTorus)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
