// Extremal circles on a noisy roundness profile (as a scan delivers it, in angular order),
// the convex hull of scattered points and the containment cone of a cap of directions.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/sampling.h"

namespace {

using gfit::bench::scramble;

// A 25 mm bore at (120, -45): three 4 um lobes and 1 um noise, n points in angular order
// over `span` degrees (a full profile, or an interrupted one whose centroid is off centre).
std::vector<giPoint2> roundness_profile(int n, double span) {
  std::vector<giPoint2> p;
  p.reserve(n);
  for (int i = 0; i < n; ++i) {
    double t = span * giPi / 180 * i / n, r = 25.0 + 0.004 * std::cos(3 * t) + 0.001 * scramble(i);
    p.emplace_back(120 + r * std::cos(t), -45 + r * std::sin(t));
  }
  return p;
}

template <class Fit>
void run_profile(benchmark::State& state, Fit fit) {
  std::vector<giPoint2> p = roundness_profile(static_cast<int>(state.range(0)), static_cast<double>(state.range(1)));
  std::vector<double> radii(p.size(), 1.5);
  for (auto _ : state) benchmark::DoNotOptimize(fit(p, radii));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_MinCircle(benchmark::State& state) {
  run_profile(state, [](auto const& p, auto const&) { return gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(p); });
}
void BM_MinCircleProbed(benchmark::State& state) {
  run_profile(state, [](auto const& p, auto const& r) {
    return gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle_probed(p, r, true);
  });
}
void BM_MaxCircle(benchmark::State& state) {
  run_profile(state, [](auto const& p, auto const&) { return gfMaximumInscribedCircle::calculate_maximum_inscribed_circle(p); });
}
void BM_MaxCircleProbed(benchmark::State& state) {
  run_profile(state, [](auto const& p, auto const& r) {
    return gfMaximumInscribedCircle::calculate_maximum_inscribed_circle_probed(p, r, true);
  });
}
void BM_MinMaxCircle(benchmark::State& state) {
  double width;
  run_profile(state, [&width](auto const& p, auto const&) { return gfMinMaxCircleFit::fit(p, width); });
}
void BM_MinMaxCircleProbed(benchmark::State& state) {
  double width;
  run_profile(state, [&width](auto const& p, auto const& r) { return gfMinMaxCircleFit::fit_probed(p, r, true, width); });
}
// Arguments: points, degrees of the profile.
#define PROFILE_SIZES \
  ArgsProduct({{100, 1000, 10000}, {360, 270}})->ArgNames({"n", "deg"})->Unit(benchmark::kMillisecond)
BENCHMARK(BM_MinCircle)->PROFILE_SIZES;
BENCHMARK(BM_MinCircleProbed)->PROFILE_SIZES;
BENCHMARK(BM_MaxCircle)->PROFILE_SIZES;
BENCHMARK(BM_MaxCircleProbed)->PROFILE_SIZES;
BENCHMARK(BM_MinMaxCircle)->PROFILE_SIZES;
BENCHMARK(BM_MinMaxCircleProbed)->PROFILE_SIZES;

void BM_ConvexHull(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  giPoint2coDynArr points(n, 1024), hull;
  for (int i = 0; i < n; ++i) points.append(giPoint2(500 + 100 * scramble(2 * i), -200 + 100 * scramble(2 * i + 1)));
  for (auto _ : state) {
    gf_calculate_convex_hull(points, hull);
    benchmark::DoNotOptimize(hull.data());
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_ConvexHull)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void BM_ContainmentCone(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  giUnitVec3coDynArr directions(n, 1024);
  for (int i = 0; i < n; ++i)  // within about 35 degrees of (1, 2, 3)
    directions.append(giUnitVec3(1 + 2.5 * scramble(3 * i), 2 + 2.5 * scramble(3 * i + 1), 3 + 2.5 * scramble(3 * i + 2)));
  giUnitVec3 axis;
  giAngle angle;
  for (auto _ : state) {
    gfContainmentCone cone(directions);
    benchmark::DoNotOptimize(cone.solve(axis, angle));
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_ContainmentCone)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
