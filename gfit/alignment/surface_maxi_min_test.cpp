// Maxi-min placement: a box casting and a sphere with known allowance, a brute-force search
// of nearby placements that must not beat the fit, unbounded sets refused, bad input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "gfit/gfit.h"

namespace {

// Nominal shapes projected exactly: an axis-aligned box and a sphere, outward normals.
class BoxProjector : public gfProjectorForFitting3 {
 public:
  BoxProjector(giPoint3 const& lo, giPoint3 const& hi) : lo_(lo), hi_(hi) {}
  void rotate_and_project(giXform3 const& xform, gfProbedPoint3 const* probed, gfProjectedPoint3& out) override {
    giPoint3 m = xform * probed->measured_point();
    if (!m.finite()) return;
    // The face whose plane the point is farthest outside (least inside).
    int best = 0;
    double best_d = -INFINITY;
    for (int f = 0; f < 6; ++f) {
      int k = f / 2;
      double d = f % 2 ? m[k] - hi_[k] : lo_[k] - m[k];
      if (d > best_d) best_d = d, best = f;
    }
    int k = best / 2;
    double q[3], n[3] = {0, 0, 0};
    for (int i = 0; i < 3; ++i) q[i] = std::min(std::max(m[i], lo_[i]), hi_[i]);
    q[k] = best % 2 ? hi_[k] : lo_[k];
    n[k] = best % 2 ? 1.0 : -1.0;
    out = gfProjectedPoint3(m, giPoint3(q[0], q[1], q[2]), giUnitVec3(n[0], n[1], n[2]));
  }

 private:
  giPoint3 lo_, hi_;
};

class SphereProjector : public gfProjectorForFitting3 {
 public:
  SphereProjector(giPoint3 const& c, double r) : c_(c), r_(r) {}
  void rotate_and_project(giXform3 const& xform, gfProbedPoint3 const* probed, gfProjectedPoint3& out) override {
    giPoint3 m = xform * probed->measured_point();
    giUnitVec3 n = (m - c_).unit();
    if (!m.finite() || n.invalid()) return;
    out = gfProjectedPoint3(m, c_ + n * r_, n);
  }

 private:
  giPoint3 c_;
  double r_;
};

giXform3 motion(double degrees, giUnitVec3 const& axis, giPoint3 const& about, giVector3 const& shift) {
  return giXform3(giXformTranslate{}, shift) * giXform3(giXformRotate{}, about, axis, giAngle::from_degrees(degrees));
}

// Points on the faces of the box [0,100]x[0,60]x[0,40] (a 5 x 5 grid per face, 10% in from
// the edges) lifted by `allowance` plus a random part of `extra` (except at the grid's four
// corners when `exact_corners`), on the faces listed in `faces`.
std::vector<giPoint3> casting(double allowance, double extra, std::vector<int> const& faces = {0, 1, 2, 3, 4, 5},
                              bool exact_corners = true) {
  double size[3] = {100, 60, 40};
  mlRandom rng(1);
  std::vector<giPoint3> out;
  for (int f : faces) {
    int k = f / 2, a = (k + 1) % 3, b = (k + 2) % 3;
    for (int i = 0; i < 5; ++i)
      for (int j = 0; j < 5; ++j) {
        double p[3];
        p[a] = size[a] * (0.1 + 0.2 * i);
        p[b] = size[b] * (0.1 + 0.2 * j);
        bool corner = (i == 0 || i == 4) && (j == 0 || j == 4);
        double lift = allowance + (corner && exact_corners ? 0.0 : extra * rng.next_unit());
        p[k] = f % 2 ? size[k] + lift : -lift;
        out.push_back(giPoint3(p[0], p[1], p[2]));
      }
  }
  return out;
}

struct Outcome {
  int status;
  giXform3 result;
  double lowest, highest;
  int invalid;
};

Outcome run(gfFitPointProjector3 const& projector, std::vector<giPoint3> const& nominal_side, giXform3 const& truth) {
  giXform3 back(giXformInverse{}, truth);
  gfSurfaceMaxiMinFit fit;
  fit.set_projector(&projector);
  for (giPoint3 const& p : nominal_side) fit.add_point(gfFitPoint3coPrf(new gfProbedPoint3(back * p, giUnitVec3(0, 0, 1), 0.0)));
  Outcome o{};
  o.status = fit.fit(o.result, o.lowest, o.highest, o.invalid);
  return o;
}

double pose_error(giXform3 const& fitted, giXform3 const& truth, std::vector<giPoint3> const& at) {
  giXform3 back(giXformInverse{}, truth);
  double e = 0.0;
  for (giPoint3 const& p : at) e = std::max(e, static_cast<double>((fitted * (back * p)).distance(p)));
  return e;
}

// The smallest signed deviation of the points `at` moved by `x`.
double lowest(gfProjectorForFitting3& projector, std::vector<giPoint3> const& at, giXform3 const& x) {
  double s = INFINITY;
  for (giPoint3 const& p : at) {
    gfProbedPoint3 probe(p, giUnitVec3(0, 0, 1), 0.0);
    gfProjectedPoint3 r;
    projector.rotate_and_project(x, &probe, r);
    s = std::min(s, r.signed_distance());
  }
  return s;
}

TEST(SurfaceMaxiMin, RecoversAKnownAllowance) {
  BoxProjector box({0, 0, 0}, {100, 60, 40});
  giXform3 truth = motion(0.8, giUnitVec3(0.3, -0.5, 1), {50, 30, 20}, {0.7, -0.4, 0.3});
  for (double extra : {0.0, 1.5}) {
    SCOPED_TRACE(extra);
    std::vector<giPoint3> points = casting(2.0, extra);
    Outcome o = run(box, points, truth);
    ASSERT_EQ(o.status, 1) << gfLastReasonText();
    EXPECT_NEAR(o.lowest, 2.0, 1e-9);
    EXPECT_LE(pose_error(o.result, truth, points), 1e-8);
    EXPECT_GE(o.highest, o.lowest);
    EXPECT_EQ(o.invalid, 0);
    Outcome again = run(box, points, truth);
    for (int r = 0; r < 3; ++r)
      for (int k = 0; k < 4; ++k) EXPECT_EQ(again.result(r, k), o.result(r, k));
  }

  // A sphere: the concentric placement, every turn left alone.
  SphereProjector sphere({5, -3, 2}, 20);
  std::vector<giPoint3> points;
  for (int i = 0; i < 200; ++i) {  // a Fibonacci sphere of radius 21.5
    double z = 1 - (2 * i + 1) / 200.0, r = std::sqrt(1 - z * z), a = i * 2.399963229728653;
    points.push_back(giPoint3(5, -3, 2) + giVector3(r * std::cos(a), r * std::sin(a), z) * 21.5);
  }
  Outcome o = run(sphere, points, giXform3(giXformTranslate{}, giVector3(0.6, 0.2, -0.9)));
  ASSERT_EQ(o.status, 1) << gfLastReasonText();
  EXPECT_NEAR(o.lowest, 1.5, 1e-9);
  EXPECT_NEAR(o.highest, 1.5, 1e-9);
}

TEST(SurfaceMaxiMin, AgreesWithABruteForceSearch) {
  // Random allowances, no designed optimum. Independent answer: for a box the best
  // translation under a given rotation is closed-form (axis k: half the sum of the smallest
  // deviations of its two faces, the value the smaller of the three), so only the rotation
  // is searched: a grid about the fit's placement, then a shrinking pattern search.
  BoxProjector box({0, 0, 0}, {100, 60, 40});
  double const hi[3] = {100, 60, 40};
  std::vector<giPoint3> points = casting(1.0, 3.0, {0, 1, 2, 3, 4, 5}, false);
  giXform3 start = motion(0.5, giUnitVec3(1, 1, 0), {0, 0, 0}, {0.2, 0.1, 0.0});
  Outcome o = run(box, points, start);
  ASSERT_EQ(o.status, 1) << gfLastReasonText();
  giXform3 back(giXformInverse{}, start);
  std::vector<giPoint3> measured;
  for (giPoint3 const& p : points) measured.push_back(back * p);
  EXPECT_NEAR(lowest(box, measured, o.result), o.lowest, 1e-12);

  auto value = [&](double const w[3]) {
    giVector3 v(w[0], w[1], w[2]);
    giXform3 x = o.result;
    if (v.length() > 0) x = giXform3(giXformRotate{}, {50, 30, 20}, v.unit(), giAngle(v.length())) * x;
    double face_min[6] = {INFINITY, INFINITY, INFINITY, INFINITY, INFINITY, INFINITY};
    for (size_t i = 0; i < measured.size(); ++i) {
      int f = static_cast<int>(i / 25), k = f / 2;  // 25 points per face, in face order
      giPoint3 p = x * measured[i];
      face_min[f] = std::min(face_min[f], f % 2 ? p[k] - hi[k] : -p[k]);
    }
    return std::min({face_min[0] + face_min[1], face_min[2] + face_min[3], face_min[4] + face_min[5]}) / 2;
  };
  double best[3] = {0, 0, 0}, best_value = value(best);
  for (int i = -10; i <= 10; ++i)
    for (int j = -10; j <= 10; ++j)
      for (int k = -10; k <= 10; ++k) {
        double w[3] = {1e-3 * i, 1e-3 * j, 1e-3 * k};
        double v = value(w);
        if (v > best_value) best_value = v, std::copy(w, w + 3, best);
      }
  for (double h = 1e-3; h > 1e-13; h *= 0.5)
    for (bool better = true; better;) {
      better = false;
      for (int k = 0; k < 6; ++k) {
        double w[3] = {best[0], best[1], best[2]};
        w[k / 2] += k % 2 ? h : -h;
        double v = value(w);
        if (v > best_value) best_value = v, std::copy(w, w + 3, best), better = true;
      }
    }
  EXPECT_NEAR(best_value, o.lowest, 1e-9);
  EXPECT_GT(o.lowest, 1.0 - 1e-9);  // no worse than the placement the points were made for
}

TEST(SurfaceMaxiMin, UnboundedAndBadInputRefused) {
  BoxProjector box({0, 0, 0}, {100, 60, 40});
  struct Case {
    char const* name;
    std::vector<int> faces;
  };
  Case const cases[] = {{"one face", {5}}, {"three faces round a corner", {1, 3, 5}}, {"box without a bottom", {0, 1, 2, 3, 5}}};
  for (Case const& c : cases) {
    SCOPED_TRACE(c.name);
    Outcome o = run(box, casting(1.0, 0.5, c.faces), giXform3(giXformIdentity{}));
    if (c.faces.size() < 5) {
      EXPECT_EQ(o.status, 0);
      EXPECT_EQ(gfLastReason(), gfReason::not_determined);
    } else {
      EXPECT_EQ(o.status, 1) << gfLastReasonText();  // opposite faces bound it: +z is held by x and y
    }
  }

  giXform3 result(giXformTranslate{}, giVector3(5, 5, 5));
  double lo = -1, hi = -1;
  int n = -1;
  gfSurfaceMaxiMinFit none;
  none.add_point(gfFitPoint3coPrf(new gfProbedPoint3(giPoint3(1, 1, 1), giUnitVec3(0, 0, 1), 0.0)));
  EXPECT_EQ(none.fit(result, lo, hi, n), 0);
  EXPECT_EQ(gfLastReason(), gfReason::invalid_argument);
  gfSurfaceMaxiMinFit few;
  few.set_projector(&box);
  for (int i = 0; i < 3; ++i) few.add_point(gfFitPoint3coPrf(new gfProbedPoint3(giPoint3(i, -1, 5), giUnitVec3(0, 0, 1), 0.0)));
  few.add_point(gfFitPoint3coPrf(new gfProbedPoint3(giPoint3(NAN, -1, 5), giUnitVec3(0, 0, 1), 0.0)));
  EXPECT_EQ(few.fit(result, lo, hi, n), 0);
  EXPECT_EQ(gfLastReason(), gfReason::too_few_points);
  gfSurfaceMaxiMinFit missing;
  missing.set_projector(&box);
  missing.add_point(gfFitPoint3coPrf());
  EXPECT_EQ(missing.fit(result, lo, hi, n), 0);
  EXPECT_EQ(gfLastReason(), gfReason::non_finite_input);
  EXPECT_EQ(result(0, 3), 5.0);
  EXPECT_EQ(lo, -1.0);
  EXPECT_EQ(n, -1);
}

}  // namespace
