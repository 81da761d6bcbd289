// The cone fit on noisy scans, single-threaded (threads = 1) and with every core (threads =
// 0): a complete scan of a 25-degree cone, and a 90-degree patch of it. The search makes a
// few dozen linear starts and Levenberg-Marquardt refinements; the linear starts of its
// random batches are what threads share. The probe-compensated cone adds one fit.
#include <benchmark/benchmark.h>

#include <ctime>

#include "bench/sampling.h"

namespace {

// A noisy cone (half-angle 25 degrees, radii about 9 to 28) about an oblique axis away from
// the origin, covering `span` radians about its axis.
giPoint3coDynArr cone_scan(int n, double span) {
  const giUnitVec3 axis(-0.4, 0.3, 0.87);
  const giUnitVec3 e1 = axis.any_normal(), e2(axis.cross(e1));
  const giPoint3 apex(-260.0, 140.0, 310.0);
  const double t = std::tan(25.0 * giPi / 180.0);
  giPoint3coDynArr pts(n, 1024);
  for (int i = 0; i < n; ++i) {
    double a = span * (0.5 + 0.5 * gfit::bench::scramble(4 * i)), h = 40.0 + 20.0 * gfit::bench::scramble(4 * i + 1);
    double r = h * t + 2e-3 * gfit::bench::scramble(4 * i + 2);
    pts.append(apex - axis * h + e1 * (r * std::cos(a)) + e2 * (r * std::sin(a)));
  }
  return pts;
}

void cone(benchmark::State& state, double span) {
  giPoint3coDynArr pts = cone_scan(static_cast<int>(state.range(0)), span);
  const int previous = gfSetMaxThreads(static_cast<int>(state.range(1)));
  giPoint3 apex;
  giUnitVec3 axis;
  double half_angle, residual;
  for (auto _ : state)
    benchmark::DoNotOptimize(
        gfLeastSquareEvaluator::evaluate_cone(pts, apex, axis, half_angle, residual, giUnitVec3(), giAngle(), 0));
  gfSetMaxThreads(previous);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_ConeFull(benchmark::State& state) { cone(state, 2 * giPi); }
void BM_ConePatch90(benchmark::State& state) { cone(state, giPi / 2); }

BENCHMARK(BM_ConeFull)
    ->ArgsProduct({{1000, 10000, 100000}, {1, 0}})
    ->ArgNames({"points", "threads"})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ConePatch90)
    ->ArgsProduct({{1000, 10000}, {1, 0}})
    ->ArgNames({"points", "threads"})
    ->Unit(benchmark::kMillisecond);

double thread_seconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

int fit_cone(giPoint3coDynArr const& pts) {
  giPoint3 apex;
  giUnitVec3 axis;
  double half_angle, residual;
  return gfLeastSquareEvaluator::evaluate_cone(pts, apex, axis, half_angle, residual, giUnitVec3(), giAngle(), 0);
}

// The cone search on points that hold no cone (a plane: its best "cone" lies at infinity)
// next to the same search on a real cone of as many points, one thread, timed on its clock
// in every iteration; x_cone is the ratio. The search's work budget bounds the first.
void BM_ConeOnAPlaneVsACone(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  giPoint3coDynArr plane = gfit::bench::plane_scan(n), cone = cone_scan(n, 2 * giPi);
  const int previous = gfSetMaxThreads(1);
  double plane_time = 0.0, cone_time = 0.0;
  for (auto _ : state) {
    const double t0 = thread_seconds();
    benchmark::DoNotOptimize(fit_cone(plane));
    const double t1 = thread_seconds();
    benchmark::DoNotOptimize(fit_cone(cone));
    const double t2 = thread_seconds();
    plane_time += t1 - t0;
    cone_time += t2 - t1;
    state.SetIterationTime(t1 - t0);
  }
  gfSetMaxThreads(previous);
  const double runs = static_cast<double>(state.iterations());
  state.counters["plane_ms"] = 1e3 * plane_time / runs;
  state.counters["cone_ms"] = 1e3 * cone_time / runs;
  state.counters["x_cone"] = plane_time / cone_time;
}
BENCHMARK(BM_ConeOnAPlaneVsACone)->Arg(16000)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_ProbedCone(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  giPoint3coDynArr pts = cone_scan(n, 2 * giPi);
  doublecoDynArr radii(n, 1024);
  for (int i = 0; i < n; ++i) radii.append(1.0);
  const int previous = gfSetMaxThreads(1);
  giPoint3 apex;
  giUnitVec3 axis;
  double half_angle, residual;
  for (auto _ : state)
    benchmark::DoNotOptimize(gfLeastSquareEvaluator::evaluate_probed_cone(
        pts, radii, 0, giPoint3coDynArr(), apex, axis, half_angle, residual, giUnitVec3(), giAngle(), 0));
  gfSetMaxThreads(previous);
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_ProbedCone)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
