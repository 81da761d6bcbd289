#include "gfit/extremal/minimum_zone_fits.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "test/support/samplers.h"

namespace {

using gfit::testing::Rng;

enum class Kind { plane, line, sphere, cylinder };
constexpr double kPi = 3.14159265358979323846;

int run(Kind kind, giPoint3coDynArr const& pts, gfMinimumZone& zone) {
  switch (kind) {
    case Kind::plane: return gfMinimumZoneFit::plane(pts, zone);
    case Kind::line: return gfMinimumZoneFit::line3(pts, zone);
    case Kind::sphere: return gfMinimumZoneFit::sphere(pts, zone);
    default: return gfMinimumZoneFit::cylinder(pts, zone);
  }
}

// A pose: an orthonormal frame and an origin; points are built in local (x, y, z).
struct Pose {
  giVector3 ex, ey, ez;
  giPoint3 origin;
  giPoint3 operator()(double x, double y, double z) const {
    return origin + giVector3(x * ex.x() + y * ey.x() + z * ez.x(), x * ex.y() + y * ey.y() + z * ez.y(),
                              x * ex.z() + y * ey.z() + z * ez.z());
  }
};
Pose random_pose(Rng& rng, giPoint3 origin) {
  giUnitVec3 z = rng.direction();
  giUnitVec3 x = z.any_normal();
  return {giVector3(x), z.cross(x), giVector3(z), origin};
}

// Points with a known minimum zone of width t: contacts on the two surfaces placed so that
// no move narrows the zone, the rest strictly inside. Local frame, unit size.
giPoint3coDynArr known_zone(Kind kind, Rng& rng, Pose const& pose, double t, int n, std::vector<int>& contact) {
  giPoint3coDynArr pts;
  auto add = [&](double x, double y, double z, bool is_contact) {
    if (is_contact) contact.push_back(pts.count());
    pts.append(pose(x, y, z));
  };
  const double R = 10.0, L = 20.0;
  switch (kind) {
    case Kind::plane:  // 2+2 crossing
      add(20, 0, t / 2, true), add(-20, 0, t / 2, true), add(0, 20, -t / 2, true), add(0, -20, -t / 2, true);
      for (int i = 0; i < n; ++i) add(rng.uniform(-18, 18), rng.uniform(-18, 18), rng.uniform(-0.45, 0.45) * t, false);
      break;
    case Kind::line:  // three contacts at each end, turned by 60 degrees
      for (int k = 0; k < 3; ++k) {
        double a = 2 * kPi * k / 3, b = a + kPi / 3;
        add(t / 2 * std::cos(a), t / 2 * std::sin(a), L, true);
        add(t / 2 * std::cos(b), t / 2 * std::sin(b), -L, true);
      }
      for (int i = 0; i < n; ++i) {
        double a = rng.uniform(0, 2 * kPi), r = rng.uniform(0, 0.45) * t;
        add(r * std::cos(a), r * std::sin(a), rng.uniform(-L, L), false);
      }
      break;
    case Kind::sphere: {  // outer contacts on a tetrahedron's vertices, inner on the opposite ones
      const double s = 1 / std::sqrt(3.0);
      const double v[4][3] = {{s, s, s}, {s, -s, -s}, {-s, s, -s}, {-s, -s, s}};
      for (auto const& d : v) add((R + t / 2) * d[0], (R + t / 2) * d[1], (R + t / 2) * d[2], true);
      for (auto const& d : v) add(-(R - t / 2) * d[0], -(R - t / 2) * d[1], -(R - t / 2) * d[2], true);
      for (int i = 0; i < n; ++i) {
        giUnitVec3 d = rng.direction();
        double r = R + rng.uniform(-0.45, 0.45) * t;
        add(r * d.x(), r * d.y(), r * d.z(), false);
      }
      break;
    }
    case Kind::cylinder:  // at each end: outer at 0, 120, 240 degrees, inner between them
      for (double h : {-L, L})
        for (int k = 0; k < 3; ++k) {
          double a = 2 * kPi * k / 3 + (h > 0 ? 0.3 : 0.0), b = a + kPi / 3;
          add((R + t / 2) * std::cos(a), (R + t / 2) * std::sin(a), h, true);
          add((R - t / 2) * std::cos(b), (R - t / 2) * std::sin(b), h, true);
        }
      for (int i = 0; i < n; ++i) {
        double a = rng.uniform(0, 2 * kPi), r = R + rng.uniform(-0.45, 0.45) * t;
        add(r * std::cos(a), r * std::sin(a), rng.uniform(-L, L), false);
      }
      break;
  }
  return pts;
}

TEST(MinimumZoneFit, KnownZonesAreRecovered) {
  struct Case {
    Kind kind;
    double t;
    giPoint3 origin;
  };
  const Case cases[] = {
      {Kind::plane, 0.01, {0, 0, 0}},      {Kind::plane, 1e-4, {1500, -2500, 800}},
      {Kind::line, 0.02, {0, 0, 0}},       {Kind::line, 1e-3, {-900, 400, 3000}},
      {Kind::sphere, 0.05, {0, 0, 0}},     {Kind::sphere, 2e-3, {2000, 1000, -1000}},
      {Kind::cylinder, 0.05, {0, 0, 0}},   {Kind::cylinder, 2e-3, {1000, -700, 1200}},
  };
  Rng rng(7);
  for (Case const& c : cases) {
    std::vector<int> contact;
    giPoint3coDynArr pts = known_zone(c.kind, rng, random_pose(rng, c.origin), c.t, 300, contact);
    gfMinimumZone zone;
    const int status = run(c.kind, pts, zone);
    SCOPED_TRACE(static_cast<int>(c.kind));
    EXPECT_EQ(status, gfMinimumZoneFit::certified);
    EXPECT_EQ(zone.status, status);
    EXPECT_NEAR(zone.width, c.t, 1e-9 * c.t);
    EXPECT_LE(zone.width, zone.least_squares_width);
    EXPECT_LE(zone.certificate, 1e-7);
    // Every placed contact is found, and nothing else.
    std::vector<int> found;
    for (int i : zone.outer) found.push_back(i);
    for (int i : zone.inner) found.push_back(i);
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, contact);
  }
}

// ---- independent references ------------------------------------------------------------

double width_along(giPoint3coDynArr const& p, giVector3 n) {
  n = giVector3(n.unit());
  double hi = -DBL_MAX, lo = DBL_MAX;
  for (giPoint3 const& q : p) {
    double d = n.dot(q - p[0]);
    hi = std::max(hi, d), lo = std::min(lo, d);
  }
  return hi - lo;
}

// Flatness by exhaustive search: the narrowest slab has a face through three points (3+1)
// or two edges through pairs on opposite planes (2+2); try the normal of every such set.
double brute_force_flatness(giPoint3coDynArr const& p) {
  const int n = p.count();
  double best = DBL_MAX;
  auto consider = [&](giVector3 const& v) {
    if (v.length() > 1e-12) best = std::min(best, width_along(p, v));
  };
  for (int a = 0; a < n; ++a)
    for (int b = a + 1; b < n; ++b) {
      giVector3 ab = p[b] - p[a];
      for (int c = b + 1; c < n; ++c) consider(ab.cross(p[c] - p[a]));
      for (int c = 0; c < n; ++c)
        for (int d = c + 1; d < n; ++d) consider(ab.cross(p[d] - p[c]));
    }
  return best;
}

// The smallest circle around 2-D points by trying every pair and triple.
double brute_force_circle(std::vector<double> const& x, std::vector<double> const& y) {
  const int n = static_cast<int>(x.size());
  double best = DBL_MAX;
  auto consider = [&](double cx, double cy) {
    double r = 0.0;
    for (int i = 0; i < n; ++i) r = std::max(r, std::hypot(x[i] - cx, y[i] - cy));
    best = std::min(best, r);
  };
  for (int a = 0; a < n; ++a)
    for (int b = a + 1; b < n; ++b) {
      consider(0.5 * (x[a] + x[b]), 0.5 * (y[a] + y[b]));
      for (int c = b + 1; c < n; ++c) {
        double bx = x[b] - x[a], by = y[b] - y[a], cx = x[c] - x[a], cy = y[c] - y[a];
        double d = 2 * (bx * cy - by * cx);
        if (std::fabs(d) < 1e-300) continue;
        double b2 = bx * bx + by * by, c2 = cx * cx + cy * cy;
        consider(x[a] + (cy * b2 - by * c2) / d, y[a] + (bx * c2 - cx * b2) / d);
      }
    }
  return best;
}

// Straightness: the thinnest cylinder around the points, by a search over directions (the
// smallest circle of the points projected along each, exhaustively), from a grid about u0
// down to a pattern search of 12 directions at ever smaller angles.
double brute_force_straightness(giPoint3coDynArr const& p, giUnitVec3 u0) {
  giVector3 e1(u0.any_normal()), e2 = giVector3(u0).cross(e1);
  std::vector<double> x(p.count()), y(p.count());
  auto radius = [&](double a, double b) {
    giVector3 u = (giVector3(u0) + a * e1 + b * e2).unit();
    giVector3 f1(u.unit().any_normal()), f2 = u.cross(f1);
    for (int i = 0; i < p.count(); ++i) x[i] = f1.dot(p[i] - p[0]), y[i] = f2.dot(p[i] - p[0]);
    return brute_force_circle(x, y);
  };
  double ba = 0, bb = 0, best = radius(0, 0);
  for (int i = -5; i <= 5; ++i)
    for (int j = -5; j <= 5; ++j) {
      double r = radius(i * 2e-3, j * 2e-3);
      if (r < best) best = r, ba = i * 2e-3, bb = j * 2e-3;
    }
  for (double step = 1e-3; step > 1e-12; step *= 0.5)
    for (int moves = 0; moves < 20; ++moves) {
      bool moved = false;
      for (int k = 0; k < 12 && !moved; ++k) {
        double a = ba + step * std::cos(kPi * k / 6), b = bb + step * std::sin(kPi * k / 6);
        double r = radius(a, b);
        if (r < best) best = r, ba = a, bb = b, moved = true;
      }
      if (!moved) break;
    }
  return 2 * best;
}

TEST(MinimumZoneFit, PlaneAndLineAgreeWithExhaustiveSearch) {
  Rng rng(11);
  double worst_plane = 0, worst_line = 0;
  for (int set = 0; set < 100; ++set) {
    Pose pose = random_pose(rng, giPoint3(rng.uniform(-100, 100), rng.uniform(-100, 100), rng.uniform(-100, 100)));
    giPoint3coDynArr plane, line;
    for (int i = 0; i < 14; ++i) plane.append(pose(rng.uniform(-5, 5), rng.uniform(-5, 5), 0.01 * rng.normal()));
    for (int i = 0; i < 9; ++i) line.append(pose(0.02 * rng.normal(), 0.02 * rng.normal(), rng.uniform(-5, 5)));
    gfMinimumZone zp, zl;
    ASSERT_NE(gfMinimumZoneFit::plane(plane, zp), gfMinimumZoneFit::refused);
    ASSERT_NE(gfMinimumZoneFit::line3(line, zl), gfMinimumZoneFit::refused);
    double ref_plane = brute_force_flatness(plane);
    double ref_line = brute_force_straightness(line, zl.least_squares_direction);
    worst_plane = std::max(worst_plane, std::fabs(zp.width - ref_plane) / ref_plane);
    worst_line = std::max(worst_line, (zl.width - ref_line) / ref_line);
    EXPECT_EQ(zp.status, gfMinimumZoneFit::certified) << set;
    EXPECT_EQ(zl.status, gfMinimumZoneFit::certified) << set;
    EXPECT_LE(zp.width, zp.least_squares_width);
    EXPECT_LE(zl.width, zl.least_squares_width);
    // The zone's own figure is its element's: recompute the plane's width along its normal.
    EXPECT_NEAR(width_along(plane, giVector3(zp.direction)), zp.width, 1e-12 * 10);
  }
  EXPECT_LE(worst_plane, 1e-9);
  EXPECT_LE(worst_line, 1e-9);  // never wider than the reference's search finds
}

TEST(MinimumZoneFit, NoisyDataNeverExceedLeastSquaresAndRepeatBitForBit) {
  Rng rng(3);
  giPoint3 far(800, -600, 400);
  const giPoint3coDynArr sets[] = {
      gfit::testing::sample_plane(rng, far, rng.direction(), 30, 20, 2000, 0.002),
      gfit::testing::sample_line3(rng, far, rng.direction(), 40, 500, 0.003),
      gfit::testing::sample_sphere(rng, far, 12.5, rng.direction(), 2.0, 1500, 0.001),
      gfit::testing::sample_cylinder(rng, far, rng.direction(), 8, 15, 0, 2 * kPi, 2000, 0.001),
      gfit::testing::sample_cylinder(rng, far, rng.direction(), 8, 15, 0, 1.5, 800, 0.001),  // partial arc
  };
  const Kind kinds[] = {Kind::plane, Kind::line, Kind::sphere, Kind::cylinder, Kind::cylinder};
  for (int s = 0; s < 5; ++s) {
    gfMinimumZone a, b;
    int sa = run(kinds[s], sets[s], a), sb = run(kinds[s], sets[s], b);
    SCOPED_TRACE(s);
    EXPECT_EQ(sa, gfMinimumZoneFit::certified);
    EXPECT_EQ(sa, sb);
    EXPECT_LT(a.width, a.least_squares_width);
    EXPECT_EQ(std::memcmp(&a.width, &b.width, sizeof(double)), 0);
    EXPECT_EQ(a.point, b.point);
    EXPECT_EQ(a.outer.count(), b.outer.count());
  }
}

TEST(MinimumZoneFit, BadInputIsRefusedWithOutputsUntouched) {
  Rng rng(5);
  giPoint3coDynArr good = gfit::testing::sample_cylinder(rng, giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 5, 5, 0,
                                                          2 * kPi, 50, 0.01);
  giPoint3coDynArr nan = good, huge = good, same, collinear, coplanar;
  nan[7] = giPoint3(std::nan(""), 0, 0);
  huge[3] = giPoint3(1e200, 0, 0);
  for (int i = 0; i < 10; ++i) {
    same.append(giPoint3(1, 2, 3));
    collinear.append(giPoint3(i, 2 * i, 3));
    coplanar.append(giPoint3(std::cos(i), std::sin(i), 3));
  }
  struct Case {
    Kind kind;
    giPoint3coDynArr const* pts;
    int count;  // points used (-1: all)
    gfReason reason;
  };
  const Case cases[] = {
      {Kind::plane, &good, 2, gfReason::too_few_points},   {Kind::line, &good, 1, gfReason::too_few_points},
      {Kind::sphere, &good, 3, gfReason::too_few_points},  {Kind::cylinder, &good, 4, gfReason::too_few_points},
      {Kind::sphere, &nan, -1, gfReason::non_finite_input}, {Kind::plane, &huge, -1, gfReason::out_of_range},
      {Kind::line, &same, -1, gfReason::not_determined},    {Kind::plane, &collinear, -1, gfReason::not_determined},
      {Kind::sphere, &coplanar, -1, gfReason::not_determined},
      {Kind::cylinder, &coplanar, -1, gfReason::not_determined},
  };
  for (Case const& c : cases) {
    giPoint3coDynArr pts;
    for (int i = 0; i < (c.count < 0 ? c.pts->count() : c.count); ++i) pts.append((*c.pts)[i]);
    gfMinimumZone zone;
    zone.width = 42.0;
    EXPECT_EQ(run(c.kind, pts, zone), gfMinimumZoneFit::refused);
    EXPECT_EQ(gfLastReason(), c.reason) << static_cast<int>(c.kind);
    EXPECT_EQ(zone.width, 42.0);
    EXPECT_EQ(zone.outer.count(), 0);
  }
}

}  // namespace
