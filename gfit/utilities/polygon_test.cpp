#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "gfit/gfit.h"
#include "test/support/samplers.h"

namespace {

using gfit::testing::Rng;

double cross(giPoint2 const& o, giPoint2 const& a, giPoint2 const& b) { return (a - o).cross(b - o); }

bool on_segment(giPoint2 const& p, giPoint2 const& a, giPoint2 const& b) {
  return cross(a, b, p) == 0.0 && std::fmin(a.x(), b.x()) <= p.x() && p.x() <= std::fmax(a.x(), b.x()) &&
         std::fmin(a.y(), b.y()) <= p.y() && p.y() <= std::fmax(a.y(), b.y());
}

// The hull's corners (points not on a segment between two others and not inside), in
// counter-clockwise order from the lowest: a corner's successor is the corner c for which
// every point lies left of or on the line to c, nearer than c when on it. Exact for
// integer coordinates.
std::vector<giPoint2> brute_force_corners(std::vector<giPoint2> const& p) {
  auto is_next = [&](giPoint2 const& a, giPoint2 const& c) {
    if (a == c) return false;
    for (giPoint2 const& q : p) {
      double s = cross(a, c, q);
      if (s < 0.0 || (s == 0.0 && !on_segment(q, a, c) && (q - a).dot(c - a) > 0.0)) return false;
      if (s == 0.0 && (q - a).dot(c - a) < 0.0) return false;  // a between q and c: not a corner
    }
    return true;
  };
  size_t low = 0;
  for (size_t i = 1; i < p.size(); ++i)
    if (p[i].y() < p[low].y() || (p[i].y() == p[low].y() && p[i].x() > p[low].x())) low = i;
  std::vector<giPoint2> corners{p[low]};
  for (;;) {
    giPoint2 next;
    for (giPoint2 const& c : p)
      if (is_next(corners.back(), c)) next = c;
    if (next.invalid() || next == corners[0]) break;
    corners.push_back(next);
  }
  return corners;
}

giPoint2coDynArr to_array(std::vector<giPoint2> const& p) {
  giPoint2coDynArr out;
  for (giPoint2 const& q : p) out.append(q);
  return out;
}

TEST(ConvexHull, SquareWithItsCentreAndSmallSets) {
  giPoint2coDynArr points{giPoint2(0, 0), giPoint2(1, 1), giPoint2(0.5, 0.5), giPoint2(1, 0), giPoint2(0, 1)};
  giPoint2coDynArr hull;
  gf_calculate_convex_hull(points, hull);
  ASSERT_EQ(hull.count(), 4);
  EXPECT_EQ(hull[0], giPoint2(1, 0));
  EXPECT_EQ(hull[1], giPoint2(1, 1));
  EXPECT_EQ(hull[2], giPoint2(0, 1));
  EXPECT_EQ(hull[3], giPoint2(0, 0));
  intcoDynArr indices;
  gf_calculate_convex_hull(points, indices);
  ASSERT_EQ(indices.count(), 4);
  EXPECT_EQ(indices[0], 3);
  EXPECT_EQ(indices[3], 0);
  // Three distinct points after duplicates are removed: path order, no scan.
  giPoint2coDynArr three{giPoint2(0, 2), giPoint2(3, 0), giPoint2(0, 2), giPoint2(3, 0), giPoint2(1, 1)};
  gf_calculate_convex_hull(three, hull);
  ASSERT_EQ(hull.count(), 3);
  EXPECT_EQ(hull[0], giPoint2(3, 0));
  EXPECT_EQ(hull[1], giPoint2(0, 2));  // at 146 degrees from (3, 0), before (1, 1) at 153
  EXPECT_EQ(hull[2], giPoint2(1, 1));
  // Empty input leaves the output alone.
  giPoint2coDynArr none;
  gf_calculate_convex_hull(none, hull);
  EXPECT_EQ(hull.count(), 3);
}

TEST(ConvexHull, AgreesWithBruteForceOnGridPointsWithEdgePointsAndDuplicates) {
  Rng rng(9);
  for (int trial = 0; trial < 200; ++trial) {
    // Points of a small grid: many on the hull's edges, many repeated.
    int n = 3 + trial % 40, size = 2 + trial % 7;
    std::vector<giPoint2> p;
    for (int i = 0; i < n; ++i)
      p.push_back(giPoint2(std::floor(rng.uniform(0, size)), std::floor(rng.uniform(0, size))));
    std::vector<giPoint2> corners = brute_force_corners(p);
    giPoint2coDynArr hull;
    gf_calculate_convex_hull(to_array(p), hull);
    // The corners appear in order, starting at the lowest; every other point returned lies
    // on the hull edge between its neighbouring corners; no right turns.
    ASSERT_GE(hull.count(), static_cast<int>(std::min<size_t>(corners.size(), 3))) << "trial " << trial;
    size_t next = 0;
    for (int i = 0; i < hull.count(); ++i) {
      if (next < corners.size() && hull[i] == corners[next]) {
        ++next;
        continue;
      }
      ASSERT_GT(next, 0u);
      if (corners.size() < 2) continue;
      giPoint2 const& to = corners[next % corners.size()];
      EXPECT_TRUE(on_segment(hull[i], corners[next - 1], to)) << "trial " << trial << " point " << i;
    }
    EXPECT_EQ(next, corners.size()) << "trial " << trial;
    for (int i = 0; i < hull.count() && hull.count() >= 3; ++i)
      EXPECT_GE(cross(hull[i], hull[(i + 1) % hull.count()], hull[(i + 2) % hull.count()]), 0.0);
  }
}

TEST(ConvexHull, IndexFormMatchesThePointFormInGeneralPosition) {
  Rng rng(10);
  for (int trial = 0; trial < 50; ++trial) {
    std::vector<giPoint2> p;
    for (int i = 0; i < 5 + trial; ++i) p.push_back(giPoint2(rng.uniform(-1e3, 1e3), rng.uniform(-1e3, 1e3)));
    p.push_back(p[2]);  // duplicates are dropped by both
    p.push_back(p[4]);
    giPoint2coDynArr points = to_array(p), hull;
    intcoDynArr indices;
    gf_calculate_convex_hull(points, hull);
    gf_calculate_convex_hull(points, indices);
    ASSERT_EQ(indices.count(), hull.count());
    for (int i = 0; i < hull.count(); ++i) EXPECT_EQ(points[indices[i]], hull[i]);
    EXPECT_EQ(brute_force_corners(p).size(), static_cast<size_t>(hull.count()));
  }
}

// Even-odd rule with a half-open test on y: exact for integer coordinates.
gfRelativePosition brute_force_position(giPoint2 const& q, std::vector<giPoint2> const& v) {
  for (giPoint2 const& a : v)
    if (a == q) return gf_on_vertex;
  bool inside = false;
  for (size_t k = 0; k < v.size(); ++k) {
    giPoint2 const& a = v[k];
    giPoint2 const& b = v[(k + 1) % v.size()];
    if (on_segment(q, a, b)) return gf_on_edge;
    if ((a.y() > q.y()) != (b.y() > q.y()) &&
        q.x() < a.x() + (q.y() - a.y()) * (b.x() - a.x()) / (b.y() - a.y()))
      inside = !inside;
  }
  return inside ? gf_inside : gf_outside;
}

TEST(RelativePosition, AgreesWithBruteForceOpenAndClosed) {
  Rng rng(12);
  for (int trial = 0; trial < 100; ++trial) {
    // A star-shaped polygon with integer vertices; test points on the half-integer grid, so
    // that many are level with vertices, on edges or on vertices.
    int n = 3 + trial % 12;
    std::vector<giPoint2> v;
    for (int k = 0; k < n; ++k) {
      double t = 2 * M_PI * (k + rng.uniform(0.0, 0.8)) / n, r = rng.uniform(2.0, 8.0);
      v.push_back(giPoint2(std::round(r * std::cos(t)), std::round(r * std::sin(t))));
    }
    giPoint2coDynArr open = to_array(v), closed = to_array(v);
    closed.append(v[0]);
    int counts[4] = {0, 0, 0, 0};
    for (double x = -9; x <= 9; x += 0.5)
      for (double y = -9; y <= 9; y += 0.5) {
        giPoint2 q(x, y);
        gfRelativePosition want = brute_force_position(q, v);
        ASSERT_EQ(gf_relative_position(q, open), want) << "trial " << trial << " at " << x << ", " << y;
        ASSERT_EQ(gf_relative_position(q, closed), want) << "trial " << trial << " at " << x << ", " << y;
        ++counts[want];
      }
    EXPECT_GT(counts[gf_inside] * counts[gf_outside] * counts[gf_on_vertex] * counts[gf_on_edge], 0);
  }
}

TEST(SimplestClosedPath, OrdersByAngleThenDistance) {
  giPoint2coDynArr p{giPoint2(0, 2), giPoint2(-1, -1), giPoint2(2, 0), giPoint2(0, 1), giPoint2(1, 0),
                     giPoint2(-3, 0)};
  gfCompareForSimplestClosedPath path(p, giPoint2(0, 0));
  path.sort(p.count());
  giPoint2 want[] = {giPoint2(1, 0), giPoint2(2, 0), giPoint2(0, 1), giPoint2(0, 2), giPoint2(-3, 0), giPoint2(-1, -1)};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(p[i], want[i]) << i;
}

}  // namespace
