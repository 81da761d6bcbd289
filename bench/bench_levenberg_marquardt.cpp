// The Levenberg-Marquardt solver on a toy circle problem: the cost per point and iteration
// of streaming the Jacobian through the triangular factor (the per-point virtual calls of
// the default batch evaluation included).
#include <benchmark/benchmark.h>

#include <cmath>

#include "bench/sampling.h"

namespace {

class Circle : public mlDistanceLeastSquares {
 public:
  explicit Circle(giPoint2coDynArr const& p) : mlDistanceLeastSquares(3, p.count()), p_(p) {}
  void normalize_parameters(mlVector&) const override {}
  void get_distance(double& d, int i) const override {
    d = std::hypot(p_[i].x() - parameters()[0], p_[i].y() - parameters()[1]) - parameters()[2];
  }
  void get_distance_and_gradient(double& d, mlVector& g, int i) const override {
    double dx = p_[i].x() - parameters()[0], dy = p_[i].y() - parameters()[1];
    double rho = std::sqrt(dx * dx + dy * dy);
    d = rho - parameters()[2];
    g[0] = -dx / rho;
    g[1] = -dy / rho;
    g[2] = -1.0;
  }

 private:
  giPoint2coDynArr const& p_;
};

void BM_LevenbergMarquardtCircle(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  giPoint2coDynArr pts = gfit::bench::circle_scan(n, 120.0, -40.0, 25.0);
  Circle problem(pts);
  mlVector start{121.0, -41.0, 24.0}, result(3);
  long long point_iterations = 0;
  for (auto _ : state) {
    mlLevenbergMarquardt lm(problem);
    benchmark::DoNotOptimize(lm.fit(start, result));
    point_iterations += static_cast<long long>(n) * (lm.iterations() + 1);  // + the start evaluation
  }
  state.counters["points_per_s_per_iteration"] =
      benchmark::Counter(static_cast<double>(point_iterations), benchmark::Counter::kIsRate);
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_LevenbergMarquardtCircle)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
