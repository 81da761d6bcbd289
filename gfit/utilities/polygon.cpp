#include "gfit/utilities/polygon.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace {

// Duplicates in the angular order of the hull.
constexpr double duplicate_tolerance = 1e-12;
// The on-edge test of the relative position.
constexpr double edge_tolerance = 1e-10;

// Orientation of p2 seen from p0 relative to p1: 1 for a left turn (or p2 beyond p1 on
// their line), -1 for a right turn (or p0 between p1 and p2), 0 for p2 on the segment p0 p1.
int ccw(giPoint2 const& p0, giPoint2 const& p1, giPoint2 const& p2, double tau) {
  giVector2 d1 = p1 - p0, d2 = p2 - p0;
  double c = d1.cross(d2);
  if (c > tau) return 1;
  if (c < -tau || d1.x() * d2.x() < -tau || d1.y() * d2.y() < -tau) return -1;
  return d1.squared_length() - d2.squared_length() < -tau ? 1 : 0;
}

// A pseudo-angle of p about `anchor` in degrees on [0, 360), monotonic in the true angle.
double pseudo_angle(giPoint2 const& anchor, giPoint2 const& p) {
  giVector2 d = p - anchor;
  double s = std::fabs(d.x()) + std::fabs(d.y());
  double t = s == 0.0 ? 0.0 : d.y() / s;
  if (d.x() < 0.0) return 90.0 * (2.0 - t);
  if (d.y() < 0.0) return 90.0 * (4.0 + t);
  return 90.0 * t;
}

// The smallest y; among equal y the larger x; the first index wins a complete tie.
int lowest_point(giPoint2 const* p, int n) {
  int low = 0;
  for (int i = 1; i < n; ++i)
    if (p[i].y() < p[low].y() || (p[i].y() == p[low].y() && p[i].x() > p[low].x())) low = i;
  return low;
}

bool finite(giPoint2coDynArr const& points) {
  for (giPoint2 const& p : points)
    if (!p.finite()) return false;
  return true;
}

// Removes items whose point coincides with the last item kept; returns the new count.
template <class T, class PointOf>
int drop_consecutive_duplicates(T* items, int n, PointOf point_of) {
  int kept = n > 0 ? 1 : 0;
  for (int i = 1; i < n; ++i)
    if (!point_of(items[i]).coincident(point_of(items[kept - 1]), duplicate_tolerance)) items[kept++] = items[i];
  return kept;
}

// The Graham scan over items in angular order about items[0]; returns the hull's count.
// Fewer than four items are the hull as they are. Backing up, the scan reaches the anchor
// only when equal angles keep an order other than nearer first (the index form). There the
// predecessor is taken cyclically (indices below 0 wrap by adding n: the last item), so the
// anchor is tested like any other stack entry; but even when that test would back over it
// (items[i] on the closing edge between the anchor and the last item) the anchor stays,
// since the lowest point is always a hull vertex and backing over it would leave a stack
// without its start.
template <class T, class PointOf>
int graham_scan(T* items, int n, PointOf point_of) {
  if (n < 4) return n;
  int m = 2;
  for (int i = 3; i < n; ++i) {
    while (ccw(point_of(items[m]), point_of(items[m > 0 ? m - 1 : m - 1 + n]), point_of(items[i]), 0.0) >= 0 &&
           m > 0)
      --m;
    items[++m] = items[i];
  }
  return m + 1;
}

// Points strictly inside the quadrilateral of the extreme points (lowest, rightmost,
// highest, leftmost) are strictly inside the hull: they are dropped before the sort. The
// orientation test carries its rounding bound, so a point on the quadrilateral's boundary
// (possibly on a hull edge) is always kept.
struct Quadrilateral {
  giPoint2 corner[4];
  bool strictly_inside(giPoint2 const& p) const {
    for (int k = 0; k < 4; ++k) {
      giPoint2 const& a = corner[k];
      giPoint2 const& b = corner[(k + 1) % 4];
      double ex = b.x() - a.x(), ey = b.y() - a.y(), dx = p.x() - a.x(), dy = p.y() - a.y();
      double l = ex * dy, r = ey * dx;
      if (!(l - r > 8.0 * DBL_EPSILON * (std::fabs(l) + std::fabs(r)))) return false;
    }
    return true;
  }
};

// The extreme points; the lowest is the scan's anchor (smallest y, then largest x).
Quadrilateral extreme_points(giPoint2 const* p, int n) {
  int low = lowest_point(p, n), right = 0, high = 0, left = 0;
  for (int i = 1; i < n; ++i) {
    if (p[i].x() > p[right].x()) right = i;
    if (p[i].y() > p[high].y()) high = i;
    if (p[i].x() < p[left].x()) left = i;
  }
  return {{p[low], p[right], p[high], p[left]}};
}

// Indices ordered by ascending non-negative double keys, equal keys in the order given: a
// stable least-significant-digit radix sort on the keys' bit patterns (monotonic for
// non-negative doubles), 11 bits per pass, passes whose digit is the same for every key
// skipped. Linear in n, with one buffer per array for the whole sort.
void radix_sort_by_key(std::vector<std::uint64_t>& keys, std::vector<int>& items) {
  const size_t n = keys.size();
  std::vector<std::uint64_t> key_buffer(n);
  std::vector<int> item_buffer(n);
  std::vector<size_t> count(2048);
  for (int shift = 0; shift < 64; shift += 11) {
    std::fill(count.begin(), count.end(), 0);
    for (std::uint64_t k : keys) ++count[(k >> shift) & 2047u];
    if (count[(keys[0] >> shift) & 2047u] == n) continue;
    size_t sum = 0;
    for (size_t& c : count) {
      size_t here = c;
      c = sum;
      sum += here;
    }
    for (size_t i = 0; i < n; ++i) {
      size_t to = count[(keys[i] >> shift) & 2047u]++;
      key_buffer[to] = keys[i];
      item_buffer[to] = items[i];
    }
    keys.swap(key_buffer);
    items.swap(item_buffer);
  }
}

std::uint64_t key_bits(double angle) {
  std::uint64_t bits;
  std::memcpy(&bits, &angle, sizeof bits);
  return bits;
}

bool segments_intersect(giPoint2 const& a, giPoint2 const& b, giPoint2 const& c, giPoint2 const& d) {
  return ccw(a, b, c, 0.0) * ccw(a, b, d, 0.0) <= 0 && ccw(c, d, a, 0.0) * ccw(c, d, b, 0.0) <= 0;
}

}  // namespace

int gfCompareForSimplestClosedPath::obj_compare(void* const a, void* const b) {
  giPoint2 const& p = *static_cast<giPoint2 const*>(a);
  giPoint2 const& q = *static_cast<giPoint2 const*>(b);
  double ta = pseudo_angle(anchor_, p), tb = pseudo_angle(anchor_, q);
  if (ta < tb) return -1;
  if (ta > tb) return 1;
  double nearer = anchor_.squared_distance(p) - anchor_.squared_distance(q);
  return nearer < 0.0 ? -1 : (nearer > 0.0 ? 1 : 0);
}

void gfCompareForSimplestClosedPath::arr_swap(int i, int j) { std::swap((*points_)[i], (*points_)[j]); }

void gf_calculate_convex_hull(giPoint2coDynArr const& points, giPoint2coDynArr& hull) {
  if (points.empty() || !finite(points)) return;
  const int n = points.count();
  giPoint2 const* p = points.data();
  const int low = lowest_point(p, n);
  const giPoint2 anchor = p[low];
  const Quadrilateral quad = extreme_points(p, n);
  // The simplest closed path about the anchor (the order of gfCompareForSimplestClosedPath):
  // by pseudo-angle, then nearer first among equal angles.
  std::vector<std::uint64_t> keys;
  std::vector<int> order;
  keys.reserve(static_cast<size_t>(n));
  order.reserve(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i)
    if (i != low && !quad.strictly_inside(p[i])) {
      keys.push_back(key_bits(pseudo_angle(anchor, p[i])));
      order.push_back(i);
    }
  std::vector<giPoint2> path;
  path.reserve(order.size() + 1);
  path.push_back(anchor);
  if (!order.empty()) {
    radix_sort_by_key(keys, order);
    for (size_t a = 0, b; a < order.size(); a = b) {
      for (b = a + 1; b < order.size() && keys[b] == keys[a];) ++b;
      if (b - a > 1)
        std::sort(order.begin() + a, order.begin() + b,
                  [&](int i, int j) { return anchor.squared_distance(p[i]) < anchor.squared_distance(p[j]); });
    }
    for (int i : order) path.push_back(p[i]);
  }
  auto same = [](giPoint2 const& q) -> giPoint2 const& { return q; };
  int kept = drop_consecutive_duplicates(path.data(), static_cast<int>(path.size()), same);
  int count = graham_scan(path.data(), kept, same);
  hull.clear(0);
  hull.reserve(count);
  for (int i = 0; i < count; ++i) hull.append(path[i]);
}

void gf_calculate_convex_hull(giPoint2coDynArr const& points, intcoDynArr& indices) {
  if (points.empty() || !finite(points)) return;
  const int n = points.count();
  giPoint2 const* p = points.data();
  const int low = lowest_point(p, n);
  const Quadrilateral quad = extreme_points(p, n);
  // Keyed by pseudo-angle alone, equal keys in index order (the order of the stable index
  // sort over all points; dropping interior points does not change it).
  std::vector<std::uint64_t> keys;
  std::vector<int> kept_indices;
  keys.reserve(static_cast<size_t>(n));
  kept_indices.reserve(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i)
    if (i == low || !quad.strictly_inside(p[i])) {
      keys.push_back(key_bits(i == low ? 0.0 : pseudo_angle(p[low], p[i])));
      kept_indices.push_back(i);
    }
  radix_sort_by_key(keys, kept_indices);
  intcoDynArr order;
  order.reserve(static_cast<int>(kept_indices.size()));
  for (int i : kept_indices) order.append(i);
  auto point_of = [p](int i) -> giPoint2 const& { return p[i]; };
  int kept = drop_consecutive_duplicates(order.data(), order.count(), point_of);
  order.shrink(graham_scan(order.data(), kept, point_of), 0);
  indices = std::move(order);
}

gfRelativePosition gf_relative_position(giPoint2 const& point, giPoint2coDynArr const& polygon) {
  return gf_relative_position(point, polygon.data(), polygon.count());
}

gfRelativePosition gf_relative_position(giPoint2 const& point, giPoint2 const* v, int count) {
  if (count <= 0) return gf_outside;
  const bool closed = v[0] == v[count - 1];
  if (v[0] == point) return gf_on_vertex;
  const giPoint2 far_end(1e12, point.y());
  // Edges that the test segment from the point to the right cannot meet.
  auto out_of_reach = [&point](giPoint2 const& a, giPoint2 const& b) {
    return (point.y() > a.y() && point.y() > b.y()) || (point.y() < a.y() && point.y() < b.y()) ||
           (point.x() > a.x() && point.x() > b.x());
  };
  int crossings = 0;
  for (int k = 0; k + 1 < count; ++k) {
    giPoint2 const& a = v[k];
    giPoint2 const& b = v[k + 1];
    if (out_of_reach(a, b)) continue;
    if (b == point) return gf_on_vertex;
    if (ccw(a, b, point, edge_tolerance) == 0) return gf_on_edge;
    if (a.y() == b.y()) continue;
    // A crossing at the lower end does not count, so a ray through a vertex counts once.
    if (point.y() > std::fmin(a.y(), b.y()) && segments_intersect(a, b, point, far_end)) ++crossings;
  }
  const gfRelativePosition result = crossings % 2 ? gf_inside : gf_outside;
  if (closed) return result;
  // An open polygon: the closing edge, last vertex to first.
  giPoint2 const& a = v[count - 1];
  giPoint2 const& b = v[0];
  if (point == a) return gf_on_vertex;
  if (out_of_reach(a, b)) return result;
  if (ccw(a, b, point, edge_tolerance) == 0) return gf_on_edge;
  if (a.y() == b.y() || !(point.y() > std::fmin(a.y(), b.y()))) return result;
  if (segments_intersect(a, b, point, far_end)) return (crossings + 1) % 2 ? gf_inside : gf_outside;
  return result;
}
