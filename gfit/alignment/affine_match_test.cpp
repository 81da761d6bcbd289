#include "gfit/alignment/affine_match.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "gfit/gfit.h"
#include "test/support/samplers.h"

namespace {

using gfit::testing::Rng;

// A random map p -> M p + t in `dim` dimensions: entries of M in [-2, 2] (reflections
// included when det M < 0), t in [-500, 500].
struct Map {
  double m[3][3] = {};
  double t[3] = {};
  int dim = 3;
  giPoint3 apply(giPoint3 const& p) const {
    double out[3];
    for (int i = 0; i < 3; ++i) out[i] = m[i][0] * p.x() + m[i][1] * p.y() + m[i][2] * p.z() + t[i];
    return {out[0], out[1], out[2]};
  }
};

Map random_map(Rng& rng, int dim) {
  Map a;
  a.dim = dim;
  for (int i = 0; i < dim; ++i) {
    a.t[i] = rng.uniform(-500, 500);
    for (int j = 0; j < dim; ++j) a.m[i][j] = rng.uniform(-2, 2);
  }
  return a;
}

// Whether the fitted [M | t] is the map's: M within 1e-12, t within 1e-12 of the largest
// target coordinate (t = b - M a carries the rounding of b and of M a).
template <class Xform>
void expect_recovered(Xform const& x, Map const& a, double largest, int trial) {
  for (int i = 0; i < a.dim; ++i) {
    for (int j = 0; j < a.dim; ++j) EXPECT_NEAR(x(i, j), a.m[i][j], 1e-12) << trial;
    EXPECT_NEAR(x(i, a.dim), a.t[i], 1e-12 * largest) << trial;
  }
}

TEST(PointsAffineMatch, RecoversRandomMapsFromTenPairs) {
  Rng rng(3);
  int reflections = 0;
  for (int trial = 0; trial < 100; ++trial) {
    const Map a3 = random_map(rng, 3), a2 = random_map(rng, 2);
    giPoint3coDynArr from3, to3;
    giPoint2coDynArr from2, to2;
    // Half the trials near the origin, half up to 3000 away from it.
    const double away = trial % 2 ? 3000 : 0;
    const giVector3 far(rng.uniform(-away, away), rng.uniform(-away, away), rng.uniform(-away, away));
    double largest = 0;
    for (int i = 0; i < 10; ++i) {
      const giPoint3 p = rng.point_in_box(50) + far, b3 = a3.apply(p);
      from3.append(p);
      to3.append(b3);
      const giPoint3 q(p.x(), p.y(), 0), b2 = a2.apply(q);
      from2.append(giPoint2(q.x(), q.y()));
      to2.append(giPoint2(b2.x(), b2.y()));
      for (int j = 0; j < 3; ++j) largest = std::fmax(largest, std::fmax(std::fabs(b3[j]), std::fabs(b2[j])));
    }
    giXform3 x3;
    giXform2 x2;
    double rms3 = -1, rms2 = -1;
    ASSERT_TRUE(gfPointsAffineMatch::match(from3, to3, x3, rms3)) << trial;
    ASSERT_TRUE(gfPointsAffineMatch::match(from2, to2, x2, rms2)) << trial;
    expect_recovered(x3, a3, largest, trial);
    expect_recovered(x2, a2, largest, trial);
    EXPECT_LT(rms3, 1e-12 * largest);
    EXPECT_LT(rms2, 1e-12 * largest);
    mlMatrix m(3, 3);
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) m(i, j) = a3.m[i][j];
    reflections += m.determinant() < 0;
  }
  EXPECT_GT(reflections, 10);  // mirror-image maps are among those recovered
}

TEST(PointsAffineMatch, TranslationAndSwappedRolesGiveTranslationAndInverse) {
  Rng rng(8);
  const giVector3 shift(12.5, -3.25, 1000);
  const Map a = random_map(rng, 3);
  giPoint3coDynArr from, moved, mapped;
  for (int i = 0; i < 12; ++i) {
    const giPoint3 p = rng.point_in_box(20);
    from.append(p);
    moved.append(p + shift);
    mapped.append(a.apply(p));
  }
  giXform3 t, forward, back;
  double rms = 0;
  ASSERT_TRUE(gfPointsAffineMatch::match(from, moved, t, rms));
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) EXPECT_NEAR(t(i, j), i == j ? 1.0 : 0.0, 1e-14);
    EXPECT_NEAR(t(i, 3), shift[i], 1e-12);
  }
  ASSERT_TRUE(gfPointsAffineMatch::match(from, mapped, forward, rms));
  ASSERT_TRUE(gfPointsAffineMatch::match(mapped, from, back, rms));
  const giXform3 round_trip = back * forward;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 4; ++j) EXPECT_NEAR(round_trip(i, j), i == j ? 1.0 : 0.0, 1e-11) << i << j;
}

// With noise the map is the least-squares one: compare with the pseudo-inverse of the
// stored n x 4 design matrix [a 1], a different route to the same solution.
TEST(PointsAffineMatch, NoisyPairsGiveTheLeastSquaresMap) {
  Rng rng(21);
  const Map a = random_map(rng, 3);
  const int n = 40;
  giPoint3coDynArr from, to;
  mlMatrix design(n, 4), target(n, 3);
  for (int i = 0; i < n; ++i) {
    const giPoint3 p = rng.point_in_box(30) + giVector3(100, 200, -50);
    giPoint3 q = a.apply(p);
    q = giPoint3(q.x() + 0.01 * rng.normal(), q.y() + 0.01 * rng.normal(), q.z() + 0.01 * rng.normal());
    from.append(p);
    to.append(q);
    for (int j = 0; j < 3; ++j) {
      design(i, j) = p[j];
      target(i, j) = q[j];
    }
    design(i, 3) = 1;
  }
  const mlMatrix solution = mlSingularValueDecomposition(design).pseudo_inverse(1e-14) * target;  // 4 x 3
  giXform3 x;
  double rms = 0;
  ASSERT_TRUE(gfPointsAffineMatch::match(from, to, x, rms));
  double sum = 0;
  for (int i = 0; i < n; ++i) sum += x.transform(from[i]).squared_distance(to[i]);
  EXPECT_NEAR(rms, std::sqrt(sum / n), 1e-12);
  EXPECT_GT(rms, 0.005);
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) EXPECT_NEAR(x(i, j), solution(j, i), 1e-10);
    EXPECT_NEAR(x(i, 3), solution(3, i), 1e-8);
  }
  // Order of the pairs changes only rounding; the same pairs give the same bits.
  giPoint3coDynArr from_r, to_r;
  for (int i = n - 1; i >= 0; --i) {
    from_r.append(from[i]);
    to_r.append(to[i]);
  }
  giXform3 reordered, again;
  ASSERT_TRUE(gfPointsAffineMatch::match(from_r, to_r, reordered, rms));
  ASSERT_TRUE(gfPointsAffineMatch::match(from, to, again, rms));
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 4; ++j) {
      EXPECT_NEAR(reordered(i, j), x(i, j), 1e-10);
      EXPECT_EQ(again(i, j), x(i, j));
    }
}

TEST(PointsAffineMatch, RefusesDegenerateAndBadInputLeavingTheMapUntouched) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  // Sources in a tilted plane (3-D) and on a line (2-D), targets anywhere.
  giPoint3coDynArr flat, any3;
  giPoint2coDynArr line, any2;
  for (int i = 0; i < 8; ++i) {
    const double u = i % 3, v = i / 3;
    flat.append(giPoint3(1000 + u, 2000 + v, 3000 + 0.5 * u - 2 * v));
    any3.append(giPoint3(i, i * i, 1.0 / (i + 1)));
    line.append(giPoint2(5 + 2.0 * i, -1 + 3.0 * i));
    any2.append(giPoint2(i * i, i));
  }
  giPoint3coDynArr three = {giPoint3(0, 0, 0), giPoint3(1, 0, 0), giPoint3(0, 1, 0)};
  giPoint3coDynArr with_nan = any3;
  with_nan[4] = giPoint3(nan, 0, 0);
  struct Case3 {
    char const* name;
    giPoint3coDynArr const &from, &to;
    gfReason reason;
  } cases[] = {
      {"coplanar sources", flat, any3, gfReason::not_determined},
      {"three pairs", three, three, gfReason::too_few_points},
      {"lengths differ", any3, three, gfReason::bad_companion_array},
      {"NaN target", any3, with_nan, gfReason::non_finite_input},
  };
  for (Case3 const& c : cases) {
    giXform3 x(giXformIdentity{});
    double rms = -7;
    EXPECT_FALSE(gfPointsAffineMatch::match(c.from, c.to, x, rms)) << c.name;
    EXPECT_EQ(gfLastReason(), c.reason) << c.name;
    EXPECT_TRUE(x.is_identity()) << c.name;
    EXPECT_EQ(rms, -7) << c.name;
  }
  giXform2 x2(giXformIdentity{});
  double rms = -7;
  EXPECT_FALSE(gfPointsAffineMatch::match(line, any2, x2, rms));
  EXPECT_EQ(gfLastReason(), gfReason::not_determined);
  EXPECT_TRUE(x2.is_identity());

  // Plane and space pairs do not mix, and a 3-D accumulation has no plane map.
  gfPointsAffineMatch pairs;
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(pairs.add_pair(any3[i], any3[i]));
  EXPECT_FALSE(pairs.add_pair(giPoint2(0, 0), giPoint2(1, 1)));
  EXPECT_EQ(gfLastReason(), gfReason::invalid_argument);
  EXPECT_FALSE(pairs.add_pair(giPoint3(), giPoint3(0, 0, 0)));  // unset point
  EXPECT_EQ(pairs.count(), 5);
  EXPECT_FALSE(pairs.get_xform(x2));
  EXPECT_TRUE(x2.is_identity());
  giXform3 x3;
  EXPECT_TRUE(pairs.get_xform(x3));
  EXPECT_EQ(gfLastReason(), gfReason::none);
}

}  // namespace
