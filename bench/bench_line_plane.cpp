// Closed-form plane and line fits on dense scans, next to their peers in the same run:
//  - the floor: one plain summing loop over the points (the least any fit must do);
//  - Eigen's streamed two-pass covariance (the mean, then the scatter about it, then a 3 x 3
//    symmetric eigen-decomposition), the usual way to get a plane's normal.
// The "...VsPeers" benchmarks time the fit and its peers in every iteration, on the calling
// thread's clock, and report each and their ratios as counters; the benchmark's own time is
// the fit's.
#include <benchmark/benchmark.h>

#include <Eigen/Dense>
#include <chrono>
#include <ctime>

#include "bench/sampling.h"

namespace {

double thread_seconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// The floor: sums of x, y and z over the points.
double plain_sum(giPoint3coDynArr const& pts) {
  double x = 0.0, y = 0.0, z = 0.0;
  for (giPoint3 const& p : pts) {
    x += p.x();
    y += p.y();
    z += p.z();
  }
  return x + y + z;
}

// Eigen's streamed two-pass covariance and the normal of its smallest eigenvalue.
double eigen_plane(giPoint3coDynArr const& pts) {
  static_assert(sizeof(giPoint3) == 3 * sizeof(double), "points are three packed doubles");
  Eigen::Map<const Eigen::Matrix3Xd> p(reinterpret_cast<double const*>(pts.data()), 3, pts.count());
  const Eigen::Vector3d mean = p.rowwise().mean();
  Eigen::Matrix3d cov = Eigen::Matrix3d::Zero();
  for (Eigen::Index i = 0; i < p.cols(); ++i) {
    const Eigen::Vector3d d = p.col(i) - mean;
    cov.noalias() += d * d.transpose();
  }
  Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> eigen(cov);
  return eigen.eigenvectors()(2, 0) + mean[0];
}

double gfit_plane(giPoint3coDynArr const& pts) {
  giPoint3 point;
  giUnitVec3 normal;
  double residual = 0.0;
  gfLeastSquareEvaluator::evaluate_plane(pts, point, normal, residual);
  return normal.z() + residual;
}

double gfit_line(giPoint3coDynArr const& pts) {
  giPoint3 point;
  giUnitVec3 direction;
  double residual = 0.0;
  gfLeastSquareEvaluator::evaluate_line3(pts, point, direction, residual);
  return direction.z() + residual;
}

void BM_Plane(benchmark::State& state) {
  giPoint3coDynArr pts = gfit::bench::plane_scan(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(gfit_plane(pts));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Plane)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void BM_Line3(benchmark::State& state) {
  giPoint3coDynArr pts = gfit::bench::line_scan(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(gfit_line(pts));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Line3)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

// One fit against the floor and Eigen's covariance, interleaved in every iteration.
template <class Fit>
void versus_peers(benchmark::State& state, giPoint3coDynArr const& pts, Fit fit) {
  double fit_time = 0.0, floor_time = 0.0, eigen_time = 0.0;
  for (auto _ : state) {
    double t0 = thread_seconds();
    benchmark::DoNotOptimize(plain_sum(pts));
    double t1 = thread_seconds();
    benchmark::DoNotOptimize(eigen_plane(pts));
    double t2 = thread_seconds();
    benchmark::DoNotOptimize(fit(pts));
    double t3 = thread_seconds();
    floor_time += t1 - t0;
    eigen_time += t2 - t1;
    fit_time += t3 - t2;
    state.SetIterationTime(t3 - t2);
  }
  const double runs = static_cast<double>(state.iterations());
  state.counters["fit_ms"] = 1e3 * fit_time / runs;
  state.counters["floor_ms"] = 1e3 * floor_time / runs;
  state.counters["eigen_cov_ms"] = 1e3 * eigen_time / runs;
  state.counters["x_floor"] = fit_time / floor_time;
  state.counters["x_eigen_cov"] = fit_time / eigen_time;
}

void BM_PlaneVsPeers(benchmark::State& state) {
  giPoint3coDynArr pts = gfit::bench::plane_scan(static_cast<int>(state.range(0)));
  versus_peers(state, pts, gfit_plane);
}
BENCHMARK(BM_PlaneVsPeers)->Arg(1000000)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_Line3VsPeers(benchmark::State& state) {
  giPoint3coDynArr pts = gfit::bench::line_scan(static_cast<int>(state.range(0)));
  versus_peers(state, pts, gfit_line);
}
BENCHMARK(BM_Line3VsPeers)->Arg(1000000)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
