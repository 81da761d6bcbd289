// Surface best fit of probed points on an analytic part (a 60 x 40 x 20 box) and on a
// B-spline face, 1e3 and 1e4 points moved by a small rigid motion (0.5 deg, 0.2 mm) with
// 5 um of noise: time to convergence (tolerance 1e-9 mm), with the steps taken and the time
// per step as counters. Also the constrained quadratic minimiser on 6 variables and 5000
// inequalities.
//
// With GFIT_BENCH_INPUTS=DIR in the environment, each surface best fit case also writes its
// exact inputs and result to DIR, for bench/icp_peer.py to run a peer on the same points:
//   <case>-points.xyz   the displaced measured points (x y z)
//   <case>-truth.txt    the true motion, 4 x 4, taking the measured points onto the surface
//   <case>-gfit.txt     the transform the timed fit reached, 4 x 4
//   <surface>-dense.xyzn  the nominal surface sampled on a 0.25 mm grid (x y z nx ny nz)
// where <case> is box-1000, bspline-10000, ... and <surface> is box or bspline.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "bench/sampling.h"
#include "gfit/cad.h"
#include "test/support/cad_shapes.h"

namespace {

using namespace gfit::testing;

// The motion the fit should find: it takes the measured points onto the surface.
giXform3 true_motion() {
  return giXform3(giXformTranslate{}, giVector3(0.2, -0.1, 0.15)) *
         giXform3(giXformRotate{}, giPoint3(30, 20, 0), giUnitVec3(1, 2, 3), giAngle::from_degrees(0.5));
}

std::vector<gfFitPoint3coPrf> probe(tskSurf const& surface, int n, std::vector<giPoint3>* measured = nullptr) {
  giXform3 back(giXformInverse{}, true_motion());
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
    if (measured) measured->push_back(back * m);
  }
  return out;
}

// Cell centres of a grid of `spacing` over the box's six faces, or over the B-spline face's
// [0, 100]^2 at its height, each snapped onto the surface with the surface's normal there.
void write_dense_sample(tskSurf const& surface, bool bspline, double spacing, std::string const& path) {
  std::vector<giPoint3> seeds;
  auto grid = [&](double a, double b, auto const& at) {
    for (int i = 0; (i + 0.5) * spacing < a; ++i)
      for (int j = 0; (j + 0.5) * spacing < b; ++j) seeds.push_back(at((i + 0.5) * spacing, (j + 0.5) * spacing));
  };
  if (bspline) {
    grid(100, 100, [](double x, double y) { return giPoint3(x, y, bspline_height(x, y)); });
  } else {
    for (double z : {0.0, 20.0}) grid(60, 40, [z](double x, double y) { return giPoint3(x, y, z); });
    for (double y : {0.0, 40.0}) grid(60, 20, [y](double x, double z) { return giPoint3(x, y, z); });
    for (double x : {0.0, 60.0}) grid(40, 20, [x](double y, double z) { return giPoint3(x, y, z); });
  }
  FILE* f = std::fopen(path.c_str(), "w");
  if (!f) return;
  tskSurfPointList feet;
  for (giPoint3 const& s : seeds) {
    surface.project(s, feet);
    giUnitVec3 n;
    if (feet.empty() || !surface.normal(feet[0], 1e-5, 1e-5, n)) continue;
    giPoint3 const& q = feet[0].point;
    std::fprintf(f, "%.17g %.17g %.17g %.17g %.17g %.17g\n", q.x(), q.y(), q.z(), n.x(), n.y(), n.z());
  }
  std::fclose(f);
}

void write_xform(giXform3 const& x, std::string const& path) {
  if (FILE* f = std::fopen(path.c_str(), "w")) {
    for (int r = 0; r < 3; ++r) std::fprintf(f, "%.17g %.17g %.17g %.17g\n", x(r, 0), x(r, 1), x(r, 2), x(r, 3));
    std::fprintf(f, "0 0 0 1\n");
    std::fclose(f);
  }
}

// Writes the case's inputs and result once per process (see the file comment).
void write_inputs(std::string const& dir, tskSurf const& surface, bool bspline, std::vector<giPoint3> const& measured,
                  giXform3 const& result) {
  static std::set<std::string> written;
  std::string name = std::string(bspline ? "bspline" : "box"), base = dir + "/" + name;
  if (written.insert(name).second) write_dense_sample(surface, bspline, 0.25, base + "-dense.xyzn");
  std::string tag = base + "-" + std::to_string(measured.size());
  if (!written.insert(tag).second) return;
  if (FILE* f = std::fopen((tag + "-points.xyz").c_str(), "w")) {
    for (giPoint3 const& p : measured) std::fprintf(f, "%.17g %.17g %.17g\n", p.x(), p.y(), p.z());
    std::fclose(f);
  }
  write_xform(true_motion(), tag + "-truth.txt");
  write_xform(result, tag + "-gfit.txt");
}

void BM_SurfaceBestfit(benchmark::State& state) {
  tskSurfPtr surface = state.range(1) == 0 ? box({0, 0, 0}, 60, 40, 20) : bspline_face();
  std::vector<giPoint3> measured;
  std::vector<gfFitPoint3coPrf> points = probe(*surface, static_cast<int>(state.range(0)), &measured);
  gfSurfProjectorForFitting3 projector(*surface);
  int steps = 0;
  giXform3 result;
  for (auto _ : state) {
    gfSurfaceBestfit bf;
    bf.set_projector(&projector);
    bf.reserve_points(static_cast<int>(points.size()));
    for (auto const& p : points) bf.add_point(p);
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
  if (char const* dir = std::getenv("GFIT_BENCH_INPUTS"))
    write_inputs(dir, *surface, state.range(1) != 0, measured, result);
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
