// Closed-form circles, ellipses and spheres on dense scans: one pass over the points plus
// small decompositions. Items are points; the 3-D circle and ellipse also find the plane
// of the points (two more passes) and map them into it.
#include <benchmark/benchmark.h>

#include "bench/sampling.h"

namespace {

using gfit::bench::scramble;

giPoint2coDynArr ellipse_scan(int n) {
  giPoint2coDynArr pts(n, 1024);
  const double c = std::cos(0.4), s = std::sin(0.4);
  for (int i = 0; i < n; ++i) {
    double t = 2 * giPi * i / n, u = 40 * std::cos(t), v = 25 * std::sin(t) + 1e-3 * scramble(i);
    pts.append(giPoint2(12 + c * u - s * v, -7 + s * u + c * v));
  }
  return pts;
}

// A 2-D scan placed in a tilted plane through (100, 50, 20).
giPoint3coDynArr in_space(giPoint2coDynArr const& flat) {
  giWorkplane3 frame(giPoint3(100, 50, 20), giUnitVec3(0.3, -0.5, 0.8), giVector3(1, 0, 0));
  giPoint3coDynArr pts(flat.count(), 1024);
  for (int i = 0; i < flat.count(); ++i)
    pts.append(frame.to_world(giPoint3(flat[i].x(), flat[i].y(), 1e-3 * scramble(7 * i + 3))));
  return pts;
}

giPoint3coDynArr sphere_scan(int n) {
  giPoint3coDynArr pts(n, 1024);
  for (int i = 0; i < n; ++i) {
    double z = scramble(3 * i), phi = giPi * scramble(3 * i + 1), q = std::sqrt(1 - z * z);
    double r = 25 + 1e-3 * scramble(3 * i + 2);
    pts.append(giPoint3(30 + r * q * std::cos(phi), -20 + r * q * std::sin(phi), 10 + r * z));
  }
  return pts;
}

template <class Fit, class Points>
void run(benchmark::State& state, Points const& pts) {
  for (auto _ : state) {
    Fit fit(pts);
    benchmark::DoNotOptimize(fit.status());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_DirectCircle2(benchmark::State& state) {
  run<gfDirectCircle2>(state, gfit::bench::circle_scan(static_cast<int>(state.range(0)), 12, -7, 40));
}
void BM_DirectCircle3(benchmark::State& state) {
  run<gfDirectCircle3>(state, in_space(gfit::bench::circle_scan(static_cast<int>(state.range(0)), 0, 0, 40)));
}
void BM_DirectEllipse2(benchmark::State& state) {
  run<gfDirectEllipse2>(state, ellipse_scan(static_cast<int>(state.range(0))));
}
void BM_DirectEllipse3(benchmark::State& state) {
  run<gfDirectEllipse3>(state, in_space(ellipse_scan(static_cast<int>(state.range(0)))));
}
void BM_SphereFit(benchmark::State& state) { run<gfSphereFit>(state, sphere_scan(static_cast<int>(state.range(0)))); }

BENCHMARK(BM_DirectCircle2)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DirectCircle3)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DirectEllipse2)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DirectEllipse3)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SphereFit)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond);

}  // namespace
