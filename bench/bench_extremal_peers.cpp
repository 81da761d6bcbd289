// The minimum circumscribed circle and the convex hull beside CGAL, measured in the same run
// on the same points: CGAL's Min_circle_2 (randomised, double kernel) on an angularly
// ordered roundness scan of 1e5 points, and CGAL's convex_hull_2 on 1e6 points (a filled
// disc, whose interior the extreme-point filter removes, and a noisy ring, all of whose
// points lie near the hull). Each benchmark times gfit and CGAL alternately in every
// iteration and reports both times per call and their ratio gfit / CGAL.
#include <benchmark/benchmark.h>

#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Min_circle_2.h>
#include <CGAL/Min_circle_2_traits_2.h>
#include <CGAL/Simple_cartesian.h>
#include <CGAL/convex_hull_2.h>

#include <chrono>
#include <cmath>
#include <iterator>
#include <vector>

#include "bench/sampling.h"

namespace {

using gfit::bench::scramble;
using Clock = std::chrono::steady_clock;
using DoubleKernel = CGAL::Simple_cartesian<double>;
using Epick = CGAL::Exact_predicates_inexact_constructions_kernel;

// A 25 mm bore, three 4 um lobes and 1 um noise, in angular order as a scan delivers it.
std::vector<giPoint2> ordered_profile(int n) {
  std::vector<giPoint2> p;
  p.reserve(n);
  for (int i = 0; i < n; ++i) {
    double t = 2 * giPi * i / n, r = 25.0 + 0.004 * std::cos(3 * t) + 0.001 * scramble(i);
    p.emplace_back(120 + r * std::cos(t), -45 + r * std::sin(t));
  }
  return p;
}

// Range 1: 0 a filled disc of radius 50, 1 a ring of radius 50 with 0.01 noise.
giPoint2coDynArr hull_points(int n, bool ring) {
  giPoint2coDynArr p(n, 1024);
  for (int i = 0; i < n; ++i) {
    double t = giPi * scramble(2 * i), u = 0.5 * (scramble(2 * i + 1) + 1.0);
    double r = ring ? 50.0 + 0.01 * (2 * u - 1) : 50.0 * std::sqrt(u);
    p.append(giPoint2(300 + r * std::cos(t), 200 + r * std::sin(t)));
  }
  return p;
}

// Times `ours` and `peer` alternately; reports milliseconds per call of each and the ratio.
template <class Ours, class Peer>
void side_by_side(benchmark::State& state, Ours ours, Peer peer) {
  double ours_s = 0.0, peer_s = 0.0;
  for (auto _ : state) {
    auto t0 = Clock::now();
    ours();
    auto t1 = Clock::now();
    peer();
    auto t2 = Clock::now();
    ours_s += std::chrono::duration<double>(t1 - t0).count();
    peer_s += std::chrono::duration<double>(t2 - t1).count();
  }
  double n = static_cast<double>(state.iterations());
  state.counters["gfit_ms"] = 1e3 * ours_s / n;
  state.counters["cgal_ms"] = 1e3 * peer_s / n;
  state.counters["ratio"] = ours_s / peer_s;
}

void BM_MinCircleOrderedVsCgal(benchmark::State& state) {
  std::vector<giPoint2> p = ordered_profile(static_cast<int>(state.range(0)));
  std::vector<DoubleKernel::Point_2> q;
  for (giPoint2 const& a : p) q.emplace_back(a.x(), a.y());
  double radius_ours = 0.0, radius_peer = 0.0;
  side_by_side(
      state, [&] { radius_ours = gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(p).radius(); },
      [&] {
        CGAL::Min_circle_2<CGAL::Min_circle_2_traits_2<DoubleKernel>> mc(q.begin(), q.end(), true);
        radius_peer = std::sqrt(mc.circle().squared_radius());
      });
  state.counters["radius_difference"] = std::fabs(radius_ours - radius_peer);
}

template <class Kernel>
void hull_vs_cgal(benchmark::State& state) {
  giPoint2coDynArr p = hull_points(static_cast<int>(state.range(0)), state.range(1) == 1);
  std::vector<typename Kernel::Point_2> q;
  for (giPoint2 const& a : p) q.emplace_back(a.x(), a.y());
  giPoint2coDynArr hull;
  std::vector<typename Kernel::Point_2> out;
  side_by_side(
      state, [&] { gf_calculate_convex_hull(p, hull); },
      [&] {
        out.clear();
        CGAL::convex_hull_2(q.begin(), q.end(), std::back_inserter(out));
      });
  state.counters["gfit_vertices"] = hull.count();
  state.counters["cgal_vertices"] = static_cast<double>(out.size());
}

void BM_HullVsCgalDoubleKernel(benchmark::State& state) { hull_vs_cgal<DoubleKernel>(state); }
void BM_HullVsCgalEpick(benchmark::State& state) { hull_vs_cgal<Epick>(state); }

}  // namespace

BENCHMARK(BM_MinCircleOrderedVsCgal)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HullVsCgalDoubleKernel)->Args({1000000, 0})->Args({1000000, 1})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HullVsCgalEpick)->Args({1000000, 0})->Args({1000000, 1})->Unit(benchmark::kMillisecond);
