// Surface best fit of probed points on an analytic part (a 60 x 40 x 20 box) and on a
// B-spline face, 1e3 and 1e4 points moved by a small rigid motion (0.5 deg, 0.2 mm) with
// 5 um of noise: time to convergence (tolerance 1e-9 mm), with the steps taken and the time
// per step as counters. Also the constrained quadratic minimiser on 6 variables and 5000
// inequalities.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/sampling.h"
#include "gfit/cad.h"
#include "test/support/cad_shapes.h"

namespace {

using namespace gfit::testing;

std::vector<gfFitPoint3coPrf> probe(tskSurf const& surface, int n) {
  giXform3 truth = giXform3(giXformTranslate{}, giVector3(0.2, -0.1, 0.15)) *
                   giXform3(giXformRotate{}, giPoint3(30, 20, 0), giUnitVec3(1, 2, 3), giAngle::from_degrees(0.5));
  giXform3 back(giXformInverse{}, truth);
  giBox3 box = surface.box();
  std::vector<gfFitPoint3coPrf> out;
  tskSurfPointList feet;
  for (std::uint64_t i = 0; static_cast<int>(out.size()) < n; ++i) {
    giPoint3 p(box.min().x() + (box.max().x() - box.min().x()) * 0.5 * (1 + gfit::bench::scramble(3 * i)),
               box.min().y() + (box.max().y() - box.min().y()) * 0.5 * (1 + gfit::bench::scramble(3 * i + 1)),
               box.min().z() + (box.max().z() - box.min().z()) * 0.5 * (1 + gfit::bench::scramble(3 * i + 2)));
    surface.project(p, feet);
    giUnitVec3 nrm;
    if (feet.empty() || !surface.normal(feet[0], 1e-5, 1e-5, nrm)) continue;
    if (nrm.cross(p - feet[0].point).length() > 1e-9 * (1 + feet[0].distance)) continue;  // not on an edge
    if (feet.count() > 1 && feet[1].distance < feet[0].distance + 2.0) continue;          // 2 mm from edges
    giPoint3 m = feet[0].point + nrm * (0.005 * gfit::bench::scramble(7 * i));
    out.emplace_back(new gfProbedPoint3(back * m, (back * giVector3(nrm)).unit(), 0.0));
  }
  return out;
}

void BM_SurfaceBestfit(benchmark::State& state) {
  tskSurfPtr surface = state.range(1) == 0 ? box({0, 0, 0}, 60, 40, 20) : bspline_face();
  std::vector<gfFitPoint3coPrf> points = probe(*surface, static_cast<int>(state.range(0)));
  gfSurfProjectorForFitting3 projector(*surface);
  int steps = 0;
  for (auto _ : state) {
    gfSurfaceBestfit bf;
    bf.set_projector(&projector);
    bf.reserve_points(static_cast<int>(points.size()));
    for (auto const& p : points) bf.add_point(p);
    giXform3 result;
    double dmax, smax, smin;
    int invalid;
    bf.fit(1e-9, result, dmax, smax, smin, invalid);
    steps = bf.steps_taken();
    benchmark::DoNotOptimize(result);
  }
  state.counters["steps"] = steps;
  state.counters["s_per_step"] = benchmark::Counter(static_cast<double>(steps) * state.iterations(),
                                                     benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_SurfaceBestfit)->ArgsProduct({{1000, 10000}, {0, 1}})->ArgNames({"points", "bspline"})->Unit(benchmark::kMillisecond);

void BM_QuadraticMinimiser(benchmark::State& state) {
  mlRandom rng(1);
  const int n = 6, m = 5000;
  std::vector<double> h(n * n, 0.0), g(n), c(n * m), b(m);
  for (int i = 0; i < n; ++i) {
    h[i * n + i] = 1.0 + rng.next_unit();
    g[i] = 200 * (rng.next_unit() - 0.5);
  }
  for (int k = 0; k < m; ++k) {
    for (int i = 0; i < n; ++i) c[k * n + i] = 2 * rng.next_unit() - 1;
    b[k] = -rng.next_unit();
  }
  mlConstrainedQuadraticMinimiser qp;
  qp.reserve(n, m);
  std::vector<double> x(n);
  for (auto _ : state) {
    qp.set_problem(n, h.data(), g.data());
    for (int k = 0; k < m; ++k) qp.add_inequality(&c[k * n], b[k], k);
    benchmark::DoNotOptimize(qp.solve(x.data()));
  }
  state.counters["active"] = qp.n_active();
}
BENCHMARK(BM_QuadraticMinimiser)->Unit(benchmark::kMicrosecond);

}  // namespace
