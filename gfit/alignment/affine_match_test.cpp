#include "gfit/alignment/affine_match.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "gfit/gfit.h"
#include "test/support/samplers.h"

namespace {

using gfit::testing::Rng;

// A random map p -> M p + t: entries of M in [-2, 2] (mirror images when det M < 0), t in
// [-500, 500]; `dim` 2 leaves the third row and column zero.
struct Map {
  double m[3][3] = {}, t[3] = {};
  Map(Rng& rng, int dim) {
    for (int i = 0; i < dim; ++i) {
      t[i] = rng.uniform(-500, 500);
      for (int j = 0; j < dim; ++j) m[i][j] = rng.uniform(-2, 2);
    }
  }
  giPoint3 operator()(giPoint3 const& p) const {
    double o[3];
    for (int i = 0; i < 3; ++i) o[i] = m[i][0] * p.x() + m[i][1] * p.y() + m[i][2] * p.z() + t[i];
    return {o[0], o[1], o[2]};
  }
};

// M within 1e-12; t within 1e-12 of the largest target coordinate (t = b - M a carries the
// rounding of b and of M a).
template <class Xform>
void expect_map(Xform const& x, Map const& a, int dim, double largest) {
  for (int i = 0; i < dim; ++i) {
    for (int j = 0; j < dim; ++j) EXPECT_NEAR(x(i, j), a.m[i][j], 1e-12);
    EXPECT_NEAR(x(i, dim), a.t[i], 1e-12 * largest);
  }
}

TEST(PointsAffineMatch, RecoversRandomMapsAndTheirInverses) {
  Rng rng(3);
  int mirrored = 0;
  for (int trial = 0; trial < 100; ++trial) {
    const Map a3(rng, 3), a2(rng, 2);
    const double away = trial % 2 ? 3000 : 0;  // half the trials far from the origin
    const giVector3 far(rng.uniform(-away, away), rng.uniform(-away, away), rng.uniform(-away, away));
    giPoint3coDynArr from3, to3;
    giPoint2coDynArr from2, to2;
    double largest = 0;
    for (int i = 0; i < 10; ++i) {
      const giPoint3 p = rng.point_in_box(50) + far, q(p.x(), p.y(), 0), b3 = a3(p), b2 = a2(q);
      from3.append(p), to3.append(b3), from2.append(giPoint2(q.x(), q.y())), to2.append(giPoint2(b2.x(), b2.y()));
      for (int j = 0; j < 3; ++j) largest = std::fmax(largest, std::fmax(std::fabs(b3[j]), std::fabs(b2[j])));
    }
    giXform3 x3, back;
    giXform2 x2;
    double rms3 = -1, rms2 = -1, rms = -1;
    ASSERT_TRUE(gfPointsAffineMatch::match(from3, to3, x3, rms3)) << trial;
    ASSERT_TRUE(gfPointsAffineMatch::match(from2, to2, x2, rms2)) << trial;
    expect_map(x3, a3, 3, largest);
    expect_map(x2, a2, 2, largest);
    EXPECT_LT(std::fmax(rms2, rms3), 1e-12 * largest);
    // Swapping the roles gives the inverse map.
    ASSERT_TRUE(gfPointsAffineMatch::match(to3, from3, back, rms)) << trial;
    const giXform3 round_trip = back * x3;
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 4; ++j) EXPECT_NEAR(round_trip(i, j), i == j, 1e-9 * (j == 3 ? largest : 1)) << trial;
    mirrored += mlMatrix(utConvert{}, &a3.m[0][0], 3, 3).determinant() < 0;
  }
  EXPECT_GT(mirrored, 10);
  // A pure translation comes back as one.
  giPoint3coDynArr from, moved;
  for (int i = 0; i < 12; ++i) {
    from.append(rng.point_in_box(20));
    moved.append(from[i] + giVector3(12.5, -3.25, 1000));
  }
  giXform3 t;
  double rms = 0;
  ASSERT_TRUE(gfPointsAffineMatch::match(from, moved, t, rms));
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 4; ++j) EXPECT_NEAR(t(i, j), j == 3 ? giVector3(12.5, -3.25, 1000)[i] : i == j, 1e-12);
}

// With noise the map is the least-squares one: the pseudo-inverse of the stored n x 4
// design matrix [a 1] is a different route to the same solution.
TEST(PointsAffineMatch, NoisyPairsGiveTheLeastSquaresMapWhateverTheirOrder) {
  Rng rng(21);
  const Map a(rng, 3);
  const int n = 40;
  giPoint3coDynArr from, to, from_r, to_r;
  mlMatrix design(n, 4), target(n, 3);
  for (int i = 0; i < n; ++i) {
    const giPoint3 p = rng.point_in_box(30) + giVector3(100, 200, -50);
    const giPoint3 q = a(p) + giVector3(rng.normal(), rng.normal(), rng.normal()) * 0.01;
    from.append(p), to.append(q);
    for (int j = 0; j < 3; ++j) design(i, j) = p[j], target(i, j) = q[j];
    design(i, 3) = 1;
  }
  for (int i = n - 1; i >= 0; --i) from_r.append(from[i]), to_r.append(to[i]);
  const mlMatrix solution = mlSingularValueDecomposition(design).pseudo_inverse(1e-14) * target;  // 4 x 3
  giXform3 x, reordered, again;
  double rms = 0, rms_r = 0, sum = 0;
  ASSERT_TRUE(gfPointsAffineMatch::match(from, to, x, rms));
  ASSERT_TRUE(gfPointsAffineMatch::match(from_r, to_r, reordered, rms_r));
  ASSERT_TRUE(gfPointsAffineMatch::match(from, to, again, rms_r));
  for (int i = 0; i < n; ++i) sum += x.transform(from[i]).squared_distance(to[i]);
  EXPECT_NEAR(rms, std::sqrt(sum / n), 1e-12);
  EXPECT_GT(rms, 0.005);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 4; ++j) {
      EXPECT_NEAR(x(i, j), solution(j, i), j == 3 ? 1e-8 : 1e-10);
      EXPECT_NEAR(reordered(i, j), x(i, j), 1e-10);
      EXPECT_EQ(again(i, j), x(i, j));
    }
}

TEST(PointsAffineMatch, RefusesDegenerateAndBadInputLeavingTheMapUntouched) {
  giPoint3coDynArr flat, any3, with_nan;  // sources in a tilted plane far from the origin
  giPoint2coDynArr line, any2;
  for (int i = 0; i < 8; ++i) {
    const double u = i % 3, v = i / 3;
    flat.append(giPoint3(1000 + u, 2000 + v, 3000 + 0.5 * u - 2 * v));
    any3.append(giPoint3(i, i * i, 1.0 / (i + 1)));
    line.append(giPoint2(5 + 2.0 * i, -1 + 3.0 * i));
    any2.append(giPoint2(i * i, i));
  }
  const giPoint3coDynArr three = {giPoint3(0, 0, 0), giPoint3(1, 0, 0), giPoint3(0, 1, 0)};
  with_nan = any3;
  with_nan[4] = giPoint3(std::numeric_limits<double>::quiet_NaN(), 0, 0);
  struct Case {
    char const* name;
    giPoint3coDynArr const &from, &to;
    gfReason reason;
  } cases[] = {
      {"coplanar sources", flat, any3, gfReason::not_determined},
      {"three pairs", three, three, gfReason::too_few_points},
      {"lengths differ", any3, three, gfReason::bad_companion_array},
      {"NaN target", any3, with_nan, gfReason::non_finite_input},
  };
  for (Case const& c : cases) {
    giXform3 x(giXformIdentity{});
    double rms = -7;
    EXPECT_FALSE(gfPointsAffineMatch::match(c.from, c.to, x, rms)) << c.name;
    EXPECT_EQ(gfLastReason(), c.reason) << c.name;
    EXPECT_TRUE(x.is_identity() && rms == -7) << c.name;
  }
  giXform2 x2(giXformIdentity{});
  double rms = -7;
  EXPECT_FALSE(gfPointsAffineMatch::match(line, any2, x2, rms));  // collinear sources
  EXPECT_EQ(gfLastReason(), gfReason::not_determined);
  // Plane and space pairs do not mix; a 3-D accumulation has no plane map.
  gfPointsAffineMatch pairs;
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(pairs.add_pair(any3[i], any3[i]));
  EXPECT_FALSE(pairs.add_pair(giPoint2(0, 0), giPoint2(1, 1)));
  EXPECT_EQ(gfLastReason(), gfReason::invalid_argument);
  EXPECT_FALSE(pairs.add_pair(giPoint3(), giPoint3(0, 0, 0)));  // unset point
  EXPECT_FALSE(pairs.get_xform(x2));
  EXPECT_TRUE(x2.is_identity() && pairs.count() == 5);
  giXform3 x3;
  EXPECT_TRUE(pairs.get_xform(x3));
  EXPECT_EQ(gfLastReason(), gfReason::none);
}

}  // namespace
