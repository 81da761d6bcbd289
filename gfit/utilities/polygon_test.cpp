#include <gtest/gtest.h>

#include <algorithm>
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

std::vector<giPoint2> to_vector(giPoint2coDynArr const& p) { return std::vector<giPoint2>(p.begin(), p.end()); }

TEST(ConvexHull, SquareWithItsCentreAndSmallSets) {
  giPoint2coDynArr points{giPoint2(0, 0), giPoint2(1, 1), giPoint2(0.5, 0.5), giPoint2(1, 0), giPoint2(0, 1)}, hull;
  gf_calculate_convex_hull(points, hull);
  EXPECT_EQ(to_vector(hull), (std::vector<giPoint2>{giPoint2(1, 0), giPoint2(1, 1), giPoint2(0, 1), giPoint2(0, 0)}));
  intcoDynArr indices;
  gf_calculate_convex_hull(points, indices);
  EXPECT_EQ(std::vector<int>(indices.begin(), indices.end()), (std::vector<int>{3, 1, 4, 0}));
  // Three distinct points after duplicates are removed: path order, no scan; (0, 2) at 146
  // degrees from (3, 0) comes before (1, 1) at 153.
  giPoint2coDynArr three{giPoint2(0, 2), giPoint2(3, 0), giPoint2(0, 2), giPoint2(3, 0), giPoint2(1, 1)};
  gf_calculate_convex_hull(three, hull);
  EXPECT_EQ(to_vector(hull), (std::vector<giPoint2>{giPoint2(3, 0), giPoint2(0, 2), giPoint2(1, 1)}));
  // Empty input leaves the output alone.
  gf_calculate_convex_hull(giPoint2coDynArr(), hull);
  EXPECT_EQ(hull.count(), 3);
}

TEST(ConvexHull, AgreesWithBruteForceOnGridPointsAndInGeneralPosition) {
  Rng rng(9);
  for (int trial = 0; trial < 250; ++trial) {
    // Points of a small grid (many on the hull's edges, many repeated), and every fifth trial
    // points in general position with two duplicates.
    std::vector<giPoint2> p;
    const bool grid = trial % 5 != 4;
    const int n = grid ? 3 + trial % 40 : 5 + trial / 5, size = 2 + trial % 7;
    for (int i = 0; i < n; ++i)
      p.push_back(grid ? giPoint2(std::floor(rng.uniform(0, size)), std::floor(rng.uniform(0, size)))
                       : giPoint2(rng.uniform(-1e3, 1e3), rng.uniform(-1e3, 1e3)));
    if (!grid) p.insert(p.end(), {p[2], p[4]});
    std::vector<giPoint2> corners = brute_force_corners(p);
    giPoint2coDynArr points = to_array(p), hull;
    intcoDynArr indices;
    gf_calculate_convex_hull(points, hull);
    gf_calculate_convex_hull(points, indices);
    // The corners appear in order, starting at the lowest; every other point returned lies
    // on the hull edge between its neighbouring corners; no right turns. In general
    // position the index form names the same points.
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
    if (grid) continue;  // the index form breaks ties of angle differently: compare in general position
    ASSERT_EQ(indices.count(), hull.count());
    for (int i = 0; i < hull.count(); ++i) EXPECT_EQ(points[indices[i]], hull[i]);
  }
}

// Even-odd rule with a half-open test on y: exact for integer coordinates.
// Points crowded inside the extreme points' quadrilateral (dropped before the sort) and a
// rim of points on a circle, some exactly on the quadrilateral's edges: the corners are the
// brute-force ones, in order, whichever form.
TEST(ConvexHull, InteriorPointsDroppedFirstKeepTheHull) {
  Rng rng(5);
  for (int trial = 0; trial < 20; ++trial) {
    std::vector<giPoint2> p;
    for (int i = 0; i < 300; ++i) {
      double a = rng.uniform(0, 2 * giPi), r = i % 10 == 0 ? 50.0 : rng.uniform(0, 50.0);
      p.push_back(giPoint2(std::round(r * std::cos(a)) + 1e4 * trial, std::round(r * std::sin(a))));
    }
    p.push_back(giPoint2(1e4 * trial, -60));  // lowest
    p.push_back(giPoint2(1e4 * trial + 60, 0));  // rightmost
    p.push_back(giPoint2(1e4 * trial + 30, -30));  // on the quadrilateral's edge between them
    std::vector<giPoint2> corners = brute_force_corners(p);
    giPoint2coDynArr points = to_array(p), hull;
    intcoDynArr indices;
    gf_calculate_convex_hull(points, hull);
    gf_calculate_convex_hull(points, indices);
    std::vector<giPoint2> from_hull, from_indices;
    for (int i = 0; i < hull.count(); ++i)
      if (std::find(corners.begin(), corners.end(), hull[i]) != corners.end()) from_hull.push_back(hull[i]);
    for (int i = 0; i < indices.count(); ++i)
      if (std::find(corners.begin(), corners.end(), points[indices[i]]) != corners.end())
        from_indices.push_back(points[indices[i]]);
    EXPECT_EQ(from_hull, corners) << trial;
    EXPECT_EQ(from_indices, corners) << trial;
  }
}

// Equal angles in index order, the far point first: the scan backs up to the anchor, tests
// it against its cyclic predecessor (the last point) and keeps it; the hull is still right.
TEST(ConvexHull, ScanBacksUpToTheAnchorInTheIndexForm) {
  // Anchor, then on the ray at 45 degrees: 2, 3, 1 (backs up to the anchor), 4; then a
  // point up left.
  std::vector<giPoint2> p{giPoint2(0, 0), giPoint2(2, 2), giPoint2(3, 3), giPoint2(1, 1), giPoint2(4, 4),
                          giPoint2(-1, 5)};
  giPoint2coDynArr points = to_array(p);
  intcoDynArr indices;
  gf_calculate_convex_hull(points, indices);
  ASSERT_EQ(indices.count(), 4);
  EXPECT_EQ(indices[0], 0);
  EXPECT_EQ(indices[1], 3);  // on the edge from the anchor to (4, 4)
  EXPECT_EQ(indices[2], 4);
  EXPECT_EQ(indices[3], 5);
}

gfRelativePosition brute_force_position(giPoint2 const& q, std::vector<giPoint2> const& v) {
  for (giPoint2 const& a : v)
    if (a == q) return gf_on_vertex;
  bool inside = false;
  for (size_t k = 0; k < v.size(); ++k) {
    giPoint2 const& a = v[k];
    giPoint2 const& b = v[(k + 1) % v.size()];
    if (on_segment(q, a, b)) return gf_on_edge;
    if ((a.y() > q.y()) != (b.y() > q.y()) && q.x() < a.x() + (q.y() - a.y()) * (b.x() - a.x()) / (b.y() - a.y()))
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
      double t = 2 * giPi * (k + rng.uniform(0.0, 0.8)) / n, r = rng.uniform(2.0, 8.0);
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
  giPoint2coDynArr p{giPoint2(0, 2), giPoint2(-1, -1), giPoint2(2, 0), giPoint2(0, 1), giPoint2(1, 0), giPoint2(-3, 0)};
  gfCompareForSimplestClosedPath path(p, giPoint2(0, 0));
  path.sort(p.count());
  EXPECT_EQ(to_vector(p), (std::vector<giPoint2>{giPoint2(1, 0), giPoint2(2, 0), giPoint2(0, 1), giPoint2(0, 2),
                                                 giPoint2(-3, 0), giPoint2(-1, -1)}));
}

}  // namespace
