// The smaller alignments, each on data with a known answer:
//  - RPS: four reference points of a 4000 x 1500 x 800 body, each locking x, y and z
//    (12 locks), measured after a small rigid motion with 5 um of noise;
//  - 2-D curve best fit: 1e4 points on a slot profile (two segments, two half circles),
//    moved by 0.5 deg and (0.2, -0.1), with 5 um of noise;
//  - maxi-min: 1e3 points probed on the faces of a CAD box (60 x 40 x 20), lifted 1 mm plus
//    up to 0.5 mm off the surface and moved by a small rigid motion.
// Counters: the steps taken; the time is to convergence.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "bench/sampling.h"
#include "gfit/gfit.h"
#ifdef GFIT_BENCH_CAD
#include "gfit/cad.h"
#include "test/support/cad_shapes.h"
#endif

namespace {

using gfit::bench::scramble;

void BM_RPSFitting12Locks(benchmark::State& state) {
  const giXform3 truth = giXform3(giXformTranslate{}, giVector3(0.4, -0.3, 0.2)) *
                         giXform3(giXformRotate{}, giPoint3(2000, 0, 400), giUnitVec3(1, 2, 3), giAngle::from_degrees(0.2));
  const giXform3 back(giXformInverse{}, truth);
  const giPoint3 spots[4] = {{100, -700, 50}, {3900, -700, 80}, {100, 700, 60}, {3900, 700, 750}};
  gfRPSDatacoDynArr data;
  giWorkplane3 world;
  for (int i = 0; i < 4; ++i) {
    giVector3 noise(0.005 * scramble(3 * i), 0.005 * scramble(3 * i + 1), 0.005 * scramble(3 * i + 2));
    data.append(gfRPSData(back * (spots[i] + noise), spots[i], world, 1, 1, 1, 1.0));
  }
  giXform3 result;
  double rms = 0.0, worst = 0.0;
  for (auto _ : state) {
    int status = gfRPSFitting(data, result, rms, worst);
    if (status != 1) state.SkipWithError("the RPS alignment failed");
    benchmark::DoNotOptimize(result);
  }
}
BENCHMARK(BM_RPSFitting12Locks)->Unit(benchmark::kMicrosecond);

void BM_CurveBestfit2(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  gfNominalProfile2 slot;
  slot.add_segment(giPoint2(0, -10), giPoint2(60, -10));
  slot.add_arc(giPoint2(60, 0), 10, -0.5 * giPi, giPi);
  slot.add_segment(giPoint2(60, 10), giPoint2(0, 10));
  slot.add_arc(giPoint2(0, 0), 10, 0.5 * giPi, giPi);
  const giXform2 truth = giXform2(giXformTranslate{}, giVector2(0.2, -0.1)) *
                         giXform2(giXformRotate{}, giPoint2(30, 0), giAngle::from_degrees(0.5));
  const giXform2 back(giXformInverse{}, truth);
  // Points spread around the slot, each snapped onto it, then put 5 um off along the normal.
  std::vector<giPoint2> measured;
  for (int i = 0; static_cast<int>(measured.size()) < n; ++i) {
    double a = 2 * giPi * (i + 0.5) / n;
    gfProjectedPoint2 foot;
    slot.project(giPoint2(30 + 45 * std::cos(a), 15 * std::sin(a)), foot);
    measured.push_back(back * (foot.nominal_point() + foot.nominal_normal() * (0.005 * scramble(i))));
  }
  int steps = 0;
  for (auto _ : state) {
    gfCurveBestfit2 fit;
    fit.set_projector(&slot);
    for (giPoint2 const& m : measured) fit.add_point(gfFitPoint2coPrf(new gfMeasuredPoint2(m)));
    giXform2 result;
    double dmax = 0, smax = 0, smin = 0;
    int invalid = 0;
    if (fit.fit(1e-9, result, dmax, smax, smin, invalid) != 1) state.SkipWithError("the curve best fit failed");
    steps = fit.steps_taken();
    benchmark::DoNotOptimize(result);
  }
  state.counters["steps"] = steps;
}
BENCHMARK(BM_CurveBestfit2)->Arg(10000)->Unit(benchmark::kMillisecond);

#ifdef GFIT_BENCH_CAD
void BM_SurfaceMaxiMinOnCad(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  tskSurfPtr part = gfit::testing::box(giPoint3(0, 0, 0), 60, 40, 20);
  const giXform3 truth = giXform3(giXformTranslate{}, giVector3(0.3, -0.2, 0.1)) *
                         giXform3(giXformRotate{}, giPoint3(30, 20, 10), giUnitVec3(1, 2, 3), giAngle::from_degrees(0.5));
  const giXform3 back(giXformInverse{}, truth);
  giBox3 box = part->box();
  tskSurfPointList feet;
  std::vector<gfFitPoint3coPrf> points;
  for (std::uint64_t i = 0; static_cast<int>(points.size()) < n; ++i) {
    giPoint3 p(box.min().x() + (box.max().x() - box.min().x()) * 0.5 * (1 + scramble(3 * i)),
               box.min().y() + (box.max().y() - box.min().y()) * 0.5 * (1 + scramble(3 * i + 1)),
               box.min().z() + (box.max().z() - box.min().z()) * 0.5 * (1 + scramble(3 * i + 2)));
    part->project(p, feet);
    giUnitVec3 normal;
    if (feet.empty() || !part->normal(feet[0], 1e-5, 1e-5, normal)) continue;
    if (feet.count() > 1 && feet[1].distance < feet[0].distance + 2.0) continue;  // 2 mm from edges
    giPoint3 m = feet[0].point + normal * (1.0 + 0.25 * (1 + scramble(7 * i)));
    points.emplace_back(new gfProbedPoint3(back * m, (back * giVector3(normal)).unit(), 0.0));
  }
  gfSurfProjectorForFitting3 projector(*part);
  int steps = 0;
  double allowance = 0.0;
  for (auto _ : state) {
    gfSurfaceMaxiMinFit fit;
    fit.set_projector(&projector);
    for (gfFitPoint3coPrf const& p : points) fit.add_point(p);
    giXform3 result;
    double lowest = 0, highest = 0;
    int invalid = 0;
    if (fit.fit(result, lowest, highest, invalid) != 1) state.SkipWithError("the maxi-min placement failed");
    steps = fit.steps_taken();
    allowance = lowest;
  }
  state.counters["steps"] = steps;
  state.counters["allowance"] = allowance;
}
BENCHMARK(BM_SurfaceMaxiMinOnCad)->Arg(1000)->Unit(benchmark::kMillisecond);
#endif

}  // namespace
