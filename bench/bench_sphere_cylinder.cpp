// Sphere and cylinder fits on noisy scans, single-threaded (threads = 1) and with every core
// (threads = 0). The cylinder search ranks its candidate axes on at most 2000 of the points
// and refines its winner on all of them; the full cylinder is a complete scan, the patch a
// 90-degree arc of it.
//
// BM_CylinderVsRefinement puts the full search next to its peer in the same run: the
// project's own least-squares refinement alone, started from an axis 5 degrees off (what a
// fit from a good guess costs, and what scipy's least_squares from such a start measures),
// both on one thread and timed on its clock in every iteration; the counter x_refinement is
// the ratio. BM_CylinderMemory reports the peak memory of a fit beyond the points (Linux).
#include <benchmark/benchmark.h>

#include <ctime>
#if defined(__linux__)
#include <sys/resource.h>
#endif

#include "bench/sampling.h"

namespace {

double thread_seconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

void BM_Sphere(benchmark::State& state) {
  giPoint3coDynArr pts = gfit::bench::sphere_scan(static_cast<int>(state.range(0)));
  giPoint3 centre;
  double radius, residual;
  for (auto _ : state) benchmark::DoNotOptimize(gfLeastSquareEvaluator::evaluate_sphere(pts, centre, radius, residual));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Sphere)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

int fit_cylinder(giPoint3coDynArr const& pts) {
  giPoint3 point;
  giUnitVec3 direction;
  double radius, residual;
  return gfLeastSquareEvaluator::evaluate_cylinder(pts, point, direction, radius, residual, giUnitVec3(), giAngle(), 0);
}

void cylinder(benchmark::State& state, double span) {
  giPoint3coDynArr pts = gfit::bench::cylinder_scan(static_cast<int>(state.range(0)), span);
  const int previous = gfSetMaxThreads(static_cast<int>(state.range(1)));
  for (auto _ : state) benchmark::DoNotOptimize(fit_cylinder(pts));
  gfSetMaxThreads(previous);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_CylinderFull(benchmark::State& state) { cylinder(state, 2 * giPi); }
void BM_CylinderPatch90(benchmark::State& state) { cylinder(state, giPi / 2); }

BENCHMARK(BM_CylinderFull)
    ->ArgsProduct({{1000, 10000, 100000, 1000000}, {1, 0}})
    ->ArgNames({"points", "threads"})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CylinderPatch90)
    ->ArgsProduct({{1000, 10000, 100000, 1000000}, {1, 0}})
    ->ArgNames({"points", "threads"})
    ->Unit(benchmark::kMillisecond);

// The refinement alone: Levenberg-Marquardt on all the points from the scan's own cylinder
// with its axis tilted by 5 degrees.
double refine_from_5_degrees(giPoint3coDynArr const& pts) {
  const giUnitVec3 axis = gfit::bench::cylinder_scan_axis();
  const giUnitVec3 tilted(giVector3(axis) * std::cos(5 * giPi / 180) +
                          giVector3(axis.any_normal()) * std::sin(5 * giPi / 180));
  const giPoint3 origin = gfit::bench::cylinder_scan_origin();
  gfLeastSquareCylinder problem(pts);
  mlLevenbergMarquardt lm(problem);
  mlVector start{origin.x(), origin.y(), origin.z(), tilted.x(), tilted.y(), tilted.z(), 20.0}, result(7);
  return lm.fit(start, result);
}

void cylinder_vs_refinement(benchmark::State& state, double span) {
  giPoint3coDynArr pts = gfit::bench::cylinder_scan(static_cast<int>(state.range(0)), span);
  const int previous = gfSetMaxThreads(1);
  double fit_time = 0.0, refine_time = 0.0;
  for (auto _ : state) {
    const double t0 = thread_seconds();
    benchmark::DoNotOptimize(fit_cylinder(pts));
    const double t1 = thread_seconds();
    benchmark::DoNotOptimize(refine_from_5_degrees(pts));
    const double t2 = thread_seconds();
    fit_time += t1 - t0;
    refine_time += t2 - t1;
    state.SetIterationTime(t1 - t0);
  }
  gfSetMaxThreads(previous);
  const double runs = static_cast<double>(state.iterations());
  state.counters["fit_ms"] = 1e3 * fit_time / runs;
  state.counters["refinement_ms"] = 1e3 * refine_time / runs;
  state.counters["x_refinement"] = fit_time / refine_time;
}
void BM_CylinderVsRefinement(benchmark::State& state) { cylinder_vs_refinement(state, 2 * giPi); }
void BM_CylinderPatch90VsRefinement(benchmark::State& state) { cylinder_vs_refinement(state, giPi / 2); }
BENCHMARK(BM_CylinderVsRefinement)
    ->Arg(10000)->Arg(100000)->Arg(1000000)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CylinderPatch90VsRefinement)
    ->Arg(100000)->Arg(1000000)->UseManualTime()->Unit(benchmark::kMillisecond);

#if defined(__linux__)
double peak_bytes() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return 1024.0 * static_cast<double>(usage.ru_maxrss);
}

// The peak memory of one fit beyond the points themselves (24 bytes each), per point: the
// process's peak before the points are made, then after they are and after the fit. Run it
// alone (--benchmark_filter=Memory): the peak of earlier benchmarks would hide it.
void BM_CylinderMemory(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const double before = peak_bytes();
  giPoint3coDynArr pts = gfit::bench::cylinder_scan(n, 2 * giPi);
  const double with_points = peak_bytes();
  const int previous = gfSetMaxThreads(1);
  for (auto _ : state) benchmark::DoNotOptimize(fit_cylinder(pts));
  gfSetMaxThreads(previous);
  state.counters["points_bytes_per_point"] = (with_points - before) / n;
  state.counters["fit_bytes_per_point"] = (peak_bytes() - with_points) / n;
}
BENCHMARK(BM_CylinderMemory)->Arg(10000000)->Iterations(1)->Unit(benchmark::kMillisecond);
#endif

}  // namespace
