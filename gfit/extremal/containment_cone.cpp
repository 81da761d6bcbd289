#include "gfit/extremal/containment_cone.h"

#include <cfloat>
#include <cmath>
#include <utility>

#include "gfit/platform/random.h"
#include "gfit/platform/report.h"

namespace {

constexpr double full_turn = 6.283185307179586;
constexpr double duplicate_squared_distance = 1e-05;
constexpr double length_tolerance = 1e-7;
constexpr double excess_tolerance = 1e-7;

// The cone through two directions: axis along their sum. False for opposite directions.
bool cone_through_two(giUnitVec3 const& a, giUnitVec3 const& b, giUnitVec3& axis, double& angle) {
  giVector3 s = giVector3(a) + giVector3(b);
  if (s.squared_length() <= length_tolerance * length_tolerance) return false;
  axis = s.unit();
  angle = unsigned_angle(a, axis).radians();
  return true;
}

// The cone through three directions: axis normal to the plane through their tips, on the
// side of the directions. 1 for a cone, 0 when two tips (nearly) coincide and nothing is
// built, -1 for tips in a line or a cone wider than a hemisphere.
int cone_through_three(giUnitVec3 const& a, giUnitVec3 const& b, giUnitVec3 const& c, giUnitVec3& axis,
                       double& angle) {
  giVector3 u = giVector3(b) - giVector3(a), v = giVector3(c) - giVector3(a);
  if (u.length() < length_tolerance || v.length() < length_tolerance) return 0;
  giVector3 n = giVector3(u.unit()).cross(v.unit());
  if (n.length() < length_tolerance) return -1;
  if (n.dot(a) < 0.0) n = -n;
  axis = n.unit();
  angle = unsigned_angle(a, axis).radians();
  return angle + length_tolerance > 0.5 * giPi ? -1 : 1;
}

}  // namespace

gfContainmentCone::Cone gfContainmentCone::exact_cone1(giUnitVec3 const& a) const {
  Cone cone;
  cone.axis = a;
  cone.angle = 0.0;
  return cone;
}

gfContainmentCone::Cone gfContainmentCone::exact_cone2(giUnitVec3 const& a, giUnitVec3 const& b) {
  Cone cone;
  if (!cone_through_two(a, b, cone.axis, cone.angle)) {
    success_ = 0;
    return Cone();
  }
  return cone;
}

gfContainmentCone::Cone gfContainmentCone::exact_cone3(giUnitVec3 const& a, giUnitVec3 const& b,
                                                      giUnitVec3 const& c) {
  Cone cone;
  if (cone_through_three(a, b, c, cone.axis, cone.angle) < 0) success_ = 0;
  return cone;
}

bool gfContainmentCone::inside_cone(giUnitVec3 const& direction, Cone const& cone, double& excess) {
  excess = unsigned_angle(direction, cone.axis).radians() - cone.angle;
  return excess <= 0.0;
}

bool gfContainmentCone::in_support(int i) const {
  for (int k = 0; k < support_count_; ++k)
    if ((giVector3(dir(i)) - giVector3(dir(support_[k]))).squared_length() <= duplicate_squared_distance)
      return true;
  return false;
}

gfContainmentCone::Candidate gfContainmentCone::update_support1(int i) {
  Candidate out;
  out.cone = exact_cone2(dir(support_[0]), dir(i));
  out.support_count = 2;
  out.support[0] = support_[0];
  out.support[1] = i;
  return out;
}

gfContainmentCone::Candidate gfContainmentCone::update_support2(int i) {
  const int s0 = support_[0], s1 = support_[1];
  Candidate out;
  double excess;
  Cone c1 = exact_cone2(dir(s0), dir(i));
  if (!success_) return out;
  bool s1_inside = inside_cone(dir(s1), c1, excess);
  if (s1_inside) out.cone = c1;
  Cone c2 = exact_cone2(dir(s1), dir(i));
  if (!success_) return out;
  if (out.cone.angle > c2.angle && inside_cone(dir(s0), c2, excess)) {
    out.cone = c2;
    out.support_count = 2;
    out.support[0] = i;
    out.support[1] = s1;
    return out;
  }
  if (!s1_inside) {
    out.cone = exact_cone3(dir(s0), dir(s1), dir(i));
    if (success_) {
      out.support_count = 3;
      out.support[0] = s0;
      out.support[1] = s1;
      out.support[2] = i;
      return out;
    }
  }
  out.support_count = 2;
  out.support[0] = s0;
  out.support[1] = i;
  return out;
}

gfContainmentCone::Candidate gfContainmentCone::update_support3(int i) {
  const int s0 = support_[0], s1 = support_[1], s2 = support_[2];
  // The six candidates: the directions of the cone, the support directions it must also
  // hold, and the support it takes.
  struct Row {
    int through[3];  // -1: a two-direction cone
    int required[2];
    int support[3];
  };
  const Row rows[6] = {
      {{s0, i, -1}, {s1, s2}, {s0, i, -1}},   {{s1, i, -1}, {s0, s2}, {i, s1, -1}},
      {{s2, i, -1}, {s0, s1}, {s2, i, -1}},   {{s0, s1, i}, {s2, -1}, {s0, s1, i}},
      {{s0, s2, i}, {s1, -1}, {s0, i, s2}},   {{s1, s2, i}, {s0, -1}, {i, s1, s2}},
  };
  Cone best, fallback;
  int best_row = -1, fallback_row = -1;
  double smallest_excess = DBL_MAX;
  for (int k = 0; k < 6; ++k) {
    Row const& row = rows[k];
    Cone cone = row.through[2] < 0 ? exact_cone2(dir(row.through[0]), dir(row.through[1]))
                                   : exact_cone3(dir(row.through[0]), dir(row.through[1]), dir(row.through[2]));
    if (!success_) return Candidate();
    if (!(cone.angle < best.angle)) continue;
    double violation = 0.0;
    bool holds = true;
    for (int r : row.required) {
      double excess;
      if (r >= 0 && !inside_cone(dir(r), cone, excess)) {
        violation = excess;
        holds = false;
        break;
      }
    }
    if (holds) {
      best = cone;
      best_row = k;
    } else if (violation < smallest_excess) {
      smallest_excess = violation;
      fallback = cone;
      fallback_row = k;
    }
  }
  if (best_row < 0) {
    // A violation within the tolerance is rounding on the boundary of a cone.
    if (fallback_row < 0 || smallest_excess > excess_tolerance) {
      success_ = 0;
      return Candidate();
    }
    best = fallback;
    best_row = fallback_row;
  }
  Candidate out;
  out.cone = best;
  out.support_count = best_row < 3 ? 2 : 3;
  for (int k = 0; k < out.support_count; ++k) out.support[k] = rows[best_row].support[k];
  return out;
}

gfContainmentCone::Candidate gfContainmentCone::update_support(int i) {
  if (support_count_ == 1) return update_support1(i);
  if (support_count_ == 2) return update_support2(i);
  return update_support3(i);
}

bool gfContainmentCone::valid_directions() const {
  for (giUnitVec3 const& d : directions_)
    if (d.invalid() || !std::isfinite(d.x() + d.y() + d.z())) return false;
  return true;
}

int gfContainmentCone::solve(giUnitVec3& axis, giAngle& angle) {
  success_ = 1;
  mlRandom random(1);
  angle = giAngle(full_turn);
  const int n = directions_.count();
  if (n == 0) return gfit::detail::refuse(gfReason::too_few_points, "no directions");
  if (!valid_directions())
    return gfit::detail::refuse(gfReason::non_finite_input, "a direction is unset or not finite");
  for (int i = n - 1; i >= 1; --i) {
    int j = random.next() % (i + 1);
    if (j != i) std::swap(directions_[i], directions_[j]);
  }
  Cone current = exact_cone1(dir(0));
  support_count_ = 1;
  support_[0] = 0;
  int i = 1;
  while (i < n) {
    double excess;
    if (in_support(i) || inside_cone(dir(i), current, excess)) {
      ++i;
      continue;
    }
    Candidate candidate = update_support(i);
    if (!success_) break;
    if (candidate.cone.angle > current.angle) {
      current = candidate.cone;
      support_count_ = candidate.support_count;
      for (int k = 0; k < 3; ++k) support_[k] = candidate.support[k];
      i = 0;
    } else {
      ++i;  // deliberately discarded: a cone that did not grow is rounding, not progress
    }
  }
  axis = current.axis;
  angle = giAngle(current.angle);
  if (!success_)
    return gfit::detail::refuse(gfReason::not_determined,
                                "the directions fill more than a hemisphere: no cone of half-angle below 90 degrees");
  return gfit::detail::succeed(success_);
}

int gfContainmentCone::solve_slow_and_simple_for_utest(giUnitVec3& axis, giAngle& angle) {
  const int n = directions_.count();
  angle = giAngle(full_turn);
  if (n == 0 || !valid_directions()) return 0;
  auto holds_all = [&](giUnitVec3 const& a, double half_angle) {
    for (int k = 0; k < n; ++k)
      if (unsigned_angle(dir(k), a).radians() - half_angle > 1e-12) return false;
    return true;
  };
  giUnitVec3 best_axis = dir(0), a;
  double best = holds_all(dir(0), 0.0) ? 0.0 : full_turn, half_angle;
  for (int i = 0; i < n; ++i)
    for (int j = i + 1; j < n; ++j) {
      if (cone_through_two(dir(i), dir(j), a, half_angle) && half_angle < best && holds_all(a, half_angle)) {
        best = half_angle;
        best_axis = a;
      }
      for (int k = j + 1; k < n; ++k)
        if (cone_through_three(dir(i), dir(j), dir(k), a, half_angle) == 1 && half_angle < best &&
            holds_all(a, half_angle)) {
          best = half_angle;
          best_axis = a;
        }
    }
  if (best == full_turn) return 0;
  axis = best_axis;
  angle = giAngle(best);
  return 1;
}
