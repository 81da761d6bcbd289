// The ellipse fit (twenty passes, the random ones scoring 100 candidate ellipses each by
// Newton foot-point distances) and the probe-compensated sphere.
#include <benchmark/benchmark.h>

#include "bench/sampling.h"

namespace {

giPoint2coDynArr ellipse_scan(int n) {
  giPoint2coDynArr pts(n, 1024);
  const double c = std::cos(0.6), s = std::sin(0.6);
  for (int i = 0; i < n; ++i) {
    double t = 2 * giPi * i / n, x = 35 * std::cos(t), y = 12 * std::sin(t) + 1e-3 * gfit::bench::scramble(i);
    pts.append(giPoint2(250 + c * x - s * y, -80 + s * x + c * y));
  }
  return pts;
}

void BM_Ellipse(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  giPoint2coDynArr pts = ellipse_scan(n);
  const int previous = gfSetMaxThreads(static_cast<int>(state.range(1)));
  giPoint2 centre;
  double major, minor, angle, residual;
  for (auto _ : state)
    benchmark::DoNotOptimize(gfLeastSquareEvaluator::evaluate_ellipse(pts, centre, major, minor, angle, residual));
  gfSetMaxThreads(previous);
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_Ellipse)
    ->ArgsProduct({{1000, 10000}, {1, 0}})
    ->ArgNames({"points", "threads"})
    ->Unit(benchmark::kMillisecond);

void BM_ProbedSphere(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  giPoint3coDynArr pts = gfit::bench::sphere_scan(n);
  doublecoDynArr radii(n, 1024);
  for (int i = 0; i < n; ++i) radii.append(1.5);
  giPoint3 centre;
  double radius, residual;
  for (auto _ : state)
    benchmark::DoNotOptimize(gfLeastSquareEvaluator::evaluate_probed_sphere(pts, radii, 0, centre, radius, residual));
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_ProbedSphere)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
