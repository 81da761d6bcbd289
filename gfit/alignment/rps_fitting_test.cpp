// RPS alignment: 3-2-1 interpolation, least squares over redundant locks (checked by the
// gradient and by perturbation, not by the solver's own steps), weights, order, far from the
// origin, under-constrained sets named, bad input.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <string>
#include <vector>

#include "gfit/gfit.h"

namespace {

giXform3 motion(double degrees, giUnitVec3 const& axis, giPoint3 const& about, giVector3 const& shift) {
  return giXform3(giXformTranslate{}, shift) * giXform3(giXformRotate{}, about, axis, giAngle::from_degrees(degrees));
}

// An RPS point of a car body: nominal position (mm, vehicle frame) and locked axes.
struct Spot {
  double x, y, z;
  int lx, ly, lz;
};
// 3-2-1: three floor points lock Z, two holes lock Y (one also X).
std::vector<Spot> const body_321 = {{500, -600, 200, 0, 0, 1},  {3500, -650, 250, 0, 0, 1}, {2000, 700, 180, 0, 0, 1},
                                    {800, 550, 400, 1, 1, 0},   {3200, 500, 420, 0, 1, 0}};
// Twelve locks.
std::vector<Spot> const body_12 = {{500, -600, 200, 0, 0, 1},  {3500, -650, 250, 0, 0, 1}, {2000, 700, 180, 0, 0, 1},
                                   {800, 550, 400, 1, 1, 0},   {3200, 500, 420, 0, 1, 1},  {1500, -700, 900, 1, 1, 1},
                                   {3900, 0, 700, 1, 0, 1},    {100, 20, 650, 1, 0, 0}};

// Measured points: the nominal ones slid by `slide` along unlocked axes (which the fit must
// ignore), offset by `noise` along locked ones, then moved by the inverse of `truth`.
gfRPSDatacoDynArr make(std::vector<Spot> const& spots, giXform3 const& truth, giVector3 const& offset, double noise,
                       double slide = 3.0) {
  giXform3 back(giXformInverse{}, truth);
  mlRandom rng(1);
  gfRPSDatacoDynArr data;
  giWorkplane3 world;
  for (Spot const& s : spots) {
    giPoint3 q = giPoint3(s.x, s.y, s.z) + offset;
    int locks[3] = {s.lx, s.ly, s.lz};
    giVector3 d(0, 0, 0);
    for (int k = 0; k < 3; ++k) {
      double u = 2 * rng.next_unit() - 1;
      double e = locks[k] ? noise * u : slide * u;
      d += giVector3(k == 0 ? e : 0, k == 1 ? e : 0, k == 2 ? e : 0);
    }
    data.append(gfRPSData(back * (q + d), q, world, s.lx, s.ly, s.lz, 1.0));
  }
  return data;
}

double pose_error(giXform3 const& a, giXform3 const& b, gfRPSDatacoDynArr const& data) {
  double e = 0.0;
  for (gfRPSData const& r : data) e = std::max(e, static_cast<double>((a * r.measured_point()).distance(b * r.measured_point())));
  return e;
}

// sum w (d.(x m - q))^2 and its gradient over the motions (rotation about c, translation).
double objective(gfRPSDatacoDynArr const& data, giXform3 const& x, giPoint3 const& c, double grad[6]) {
  double f = 0.0;
  for (int k = 0; k < 6; ++k) grad[k] = 0.0;
  for (gfRPSData const& r : data)
    for (int k = 0; k < 3; ++k) {
      if (!r.locked(k)) continue;
      giVector3 d = r.direction(k);
      giPoint3 m = x * r.measured_point();
      double res = d.dot(m - r.nominal_point());
      f += r.weight() * res * res;
      giVector3 j = (m - c).cross(d);
      double row[6] = {j.x(), j.y(), j.z(), d.x(), d.y(), d.z()};
      for (int i = 0; i < 6; ++i) grad[i] += 2 * r.weight() * res * row[i];
    }
  return f;
}

TEST(RPSFitting, RecoversKnownMotions) {
  struct Case {
    char const* name;
    std::vector<Spot> const* spots;
    giVector3 offset;
    double noise;
    double tolerance;  // on the pose
  };
  Case const cases[] = {
      {"3-2-1", &body_321, {0, 0, 0}, 0.0, 1e-9},
      {"3-2-1 far from the origin", &body_321, {1e5, -2e5, 5e4}, 0.0, 1e-9},
      {"12 locks, exact", &body_12, {0, 0, 0}, 0.0, 1e-9},
  };
  giXform3 truth = motion(0.7, giUnitVec3(0.3, -0.2, 1), {2000, 0, 300}, {1.5, -2.0, 0.8});
  for (Case const& c : cases) {
    SCOPED_TRACE(c.name);
    gfRPSDatacoDynArr data = make(*c.spots, truth, c.offset, c.noise);
    giXform3 fitted;
    double rms = -1, worst = -1;
    ASSERT_EQ(gfRPSFitting(data, fitted, rms, worst), 1) << gfLastReasonText();
    EXPECT_EQ(gfLastReason(), gfReason::none);
    EXPECT_LE(pose_error(fitted, truth, data), c.tolerance);
    EXPECT_LE(worst, 1e-9);
  }
}

TEST(RPSFitting, LeastSquaresOverRedundantLocks) {
  giXform3 truth = motion(0.4, giUnitVec3(1, 0.5, 0.2), {1000, 100, 0}, {-0.5, 2.0, 1.0});
  for (giVector3 offset : {giVector3(0, 0, 0), giVector3(-3e4, 8e4, 1e4)}) {
    gfRPSDatacoDynArr data = make(body_12, truth, offset, 0.2);
    giXform3 fitted;
    double rms, worst;
    ASSERT_EQ(gfRPSFitting(data, fitted, rms, worst), 1) << gfLastReasonText();
    EXPECT_GT(rms, 1e-3);  // the noise is not interpolated
    giPoint3 c = giPoint3(2000, 0, 400) + offset;
    double g[6], g2[6];
    double f = objective(data, fitted, c, g);
    for (int k = 0; k < 6; ++k) EXPECT_LE(std::fabs(g[k]), 1e-8 * (k < 3 ? 4000.0 : 1.0)) << k;
    // No nearby motion does better.
    mlRandom rng(7);
    for (int trial = 0; trial < 200; ++trial) {
      double h = 1e-4;
      giVector3 axis(rng.next_unit() - 0.5, rng.next_unit() - 0.5, rng.next_unit() - 0.5);
      giXform3 p = motion(h * (rng.next_unit() - 0.5), axis.unit(), c,
                          giVector3(rng.next_unit() - 0.5, rng.next_unit() - 0.5, rng.next_unit() - 0.5) * h) * fitted;
      EXPECT_GE(objective(data, p, c, g2), f * (1 - 1e-12));
    }
    // The order of the records does not matter.
    gfRPSDatacoDynArr reversed;
    for (int i = data.count() - 1; i >= 0; --i) reversed.append(data[i]);
    giXform3 again;
    ASSERT_EQ(gfRPSFitting(reversed, again), 1);
    EXPECT_LE(pose_error(again, fitted, data), 1e-9);
    // Bit for bit on a second run.
    giXform3 twice;
    ASSERT_EQ(gfRPSFitting(data, twice), 1);
    for (int r = 0; r < 3; ++r)
      for (int k = 0; k < 4; ++k) EXPECT_EQ(twice(r, k), fitted(r, k));
  }
}

TEST(RPSFitting, WeightsMultiplyTheSquaredDeviation) {
  giXform3 truth = motion(0.2, giUnitVec3(0, 0, 1), {0, 0, 0}, {1, 1, 1});
  gfRPSDatacoDynArr data = make(body_12, truth, {0, 0, 0}, 0.3);
  // Weight 3 on record 5 is three copies of it.
  gfRPSDatacoDynArr weighted = data, copies = data;
  gfRPSData const& r = data[5];
  weighted[5] = gfRPSData(r.measured_point(), r.nominal_point(), r.frame(), 1, 1, 1, 3.0);
  copies.append(r);
  copies.append(r);
  giXform3 a, b, plain;
  ASSERT_EQ(gfRPSFitting(weighted, a), 1);
  ASSERT_EQ(gfRPSFitting(copies, b), 1);
  ASSERT_EQ(gfRPSFitting(data, plain), 1);
  EXPECT_LE(pose_error(a, b, data), 1e-9);
  EXPECT_GT(pose_error(a, plain, data), 1e-3);
  // Scaling every weight changes nothing; weight 0 removes a record.
  gfRPSDatacoDynArr scaled, dropped = data;
  for (gfRPSData const& s : data)
    scaled.append(gfRPSData(s.measured_point(), s.nominal_point(), s.frame(), s.locked(0), s.locked(1), s.locked(2), 7.5));
  ASSERT_EQ(gfRPSFitting(scaled, a), 1);
  EXPECT_LE(pose_error(a, plain, data), 1e-9);
  dropped.append(gfRPSData(giPoint3(9, 9, 9), giPoint3(0, 0, 0), giWorkplane3(), 1, 1, 1, 0.0));
  ASSERT_EQ(gfRPSFitting(dropped, a), 1);
  EXPECT_LE(pose_error(a, plain, data), 1e-12);
}

TEST(RPSFitting, RefusesAndNamesFreeMotions) {
  struct Case {
    char const* name;
    std::vector<Spot> spots;
    std::vector<char const*> named;
  };
  Case const cases[] = {
      {"only Z locks", {{500, -600, 200, 0, 0, 1}, {3500, -650, 250, 0, 0, 1}, {2000, 700, 180, 0, 0, 1}},
       {"translations normal to (0, 0, 1)", "rotation about (0, 0, 1)"}},
      {"3-2 without X", {body_321[0], body_321[1], body_321[2], {800, 550, 400, 0, 1, 0}, body_321[4]},
       {"translation along (1, 0, 0)"}},
      {"Y locks on one line", {body_321[0], body_321[1], body_321[2], {800, 550, 400, 1, 1, 0}, {800, 550, 900, 0, 1, 0}},
       {"rotation about (0, 0, 1) through (800, 550, "}},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.name);
    // Unmoved and not slid, so that the free axis passes through the nominal points.
    gfRPSDatacoDynArr data = make(c.spots, giXform3(giXformIdentity{}), {0, 0, 0}, 0.0, 0.0);
    giXform3 fitted(giXformTranslate{}, giVector3(5, 5, 5));
    double rms = -1, worst = -1;
    EXPECT_EQ(gfRPSFitting(data, fitted, rms, worst), 0);
    EXPECT_EQ(gfLastReason(), gfReason::not_determined);
    std::string text = gfLastReasonText();
    for (char const* part : c.named) EXPECT_NE(text.find(part), std::string::npos) << text;
    EXPECT_EQ(fitted(0, 3), 5.0);
    EXPECT_EQ(rms, -1.0);
  }
}

TEST(RPSFitting, BadInputIsRefused) {
  gfRPSDatacoDynArr good = make(body_321, giXform3(giXformIdentity{}), {0, 0, 0}, 0.0);
  auto with = [&](int i, gfRPSData const& r) {
    gfRPSDatacoDynArr d = good;
    d[i] = r;
    return d;
  };
  gfRPSData const& r = good[1];
  struct Case {
    char const* name;
    gfRPSDatacoDynArr data;
    gfReason reason;
  };
  Case const cases[] = {
      {"empty", gfRPSDatacoDynArr(), gfReason::too_few_points},
      {"NaN point", with(1, gfRPSData(giPoint3(NAN, 0, 0), r.nominal_point(), r.frame(), 0, 0, 1)), gfReason::non_finite_input},
      {"unset nominal", with(1, gfRPSData(r.measured_point(), giPoint3(), r.frame(), 0, 0, 1)), gfReason::non_finite_input},
      {"infinite weight", with(1, gfRPSData(r.measured_point(), r.nominal_point(), r.frame(), 0, 0, 1, INFINITY)),
       gfReason::non_finite_input},
      {"negative weight", with(1, gfRPSData(r.measured_point(), r.nominal_point(), r.frame(), 0, 0, 1, -1.0)),
       gfReason::invalid_argument},
      {"nothing locked", with(1, gfRPSData(r.measured_point(), r.nominal_point(), r.frame(), 0, 0, 0)),
       gfReason::not_determined},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.name);
    giXform3 fitted(giXformTranslate{}, giVector3(5, 5, 5));
    EXPECT_EQ(gfRPSFitting(c.data, fitted), 0);
    EXPECT_EQ(gfLastReason(), c.reason);
    EXPECT_EQ(fitted(0, 3), 5.0);
  }
}

}  // namespace
