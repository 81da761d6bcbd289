#include "gfit/platform/constructions.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace {

// Relative size below which the centres count as collinear, and the slack allowed on the
// conditions R >= 0 and R + t_i >= 0 (both in units of the configuration's size).
constexpr double collinear_tolerance = 1e-13;
constexpr double sign_tolerance = 1e-12;

// A candidate radius (in scaled units) is a solution when the solution circle's radius is
// not negative and every "distance" R + t_i is not negative either.
bool admissible(double R, double const t[3]) {
  if (!std::isfinite(R) || R < -sign_tolerance) return false;
  for (int i = 0; i < 3; ++i)
    if (R + t[i] < -sign_tolerance) return false;
  return true;
}

// Roots of A R^2 + 2 B R + C = 0, without cancellation; returns their number (0, 1 or 2),
// the smaller first.
int quadratic_roots(double A, double B, double C, double roots[2]) {
  if (A == 0.0) {
    if (B == 0.0) return 0;
    roots[0] = -C / (2.0 * B);
    return 1;
  }
  double disc = B * B - A * C;
  if (disc < 0.0) {
    // A tangency that rounding pushed just below zero is still one double root.
    if (disc < -1e-14 * (B * B + std::fabs(A * C))) return 0;
    disc = 0.0;
  }
  double q = -(B + std::copysign(std::sqrt(disc), B));
  if (q == 0.0) {
    roots[0] = 0.0;  // B = 0 and C = 0: R = 0 twice
    return 1;
  }
  roots[0] = q / A;
  roots[1] = C / q;
  if (roots[0] > roots[1]) std::swap(roots[0], roots[1]);
  return 2;
}

}  // namespace

bool cnxCircle2Constructor::construct(cnxCircle2& result, cnxTangent kind_a, cnxCircle2 const& a, cnxTangent kind_b,
                                      cnxCircle2 const& b, cnxTangent kind_c, cnxCircle2 const& c, int selector) {
  result = cnxCircle2(giPoint2(DBL_MAX, DBL_MAX), DBL_MAX);
  if (selector < 0 || selector > 15) return false;
  cnxCircle2 const* given[3] = {&a, &b, &c};
  cnxTangent const kinds[3] = {kind_a, kind_b, kind_c};
  double t[3];
  for (int i = 0; i < 3; ++i) {
    double r = given[i]->radius();
    if (!given[i]->centre().finite() || !std::isfinite(r) || r < 0.0) return false;
    bool enclosed = (selector >> (i + 1)) & 1;
    t[i] = kinds[i] == cnx_through_centre ? 0.0 : (enclosed ? -r : r);
  }
  const bool larger = selector & larger_solution;

  // Scaled coordinates relative to the first centre.
  giPoint2 const& origin = a.centre();
  giVector2 q2 = b.centre() - origin, q3 = c.centre() - origin;
  double scale = std::max({q2.length(), q3.length(), std::fabs(t[0]), std::fabs(t[1]), std::fabs(t[2])});
  if (!(scale > 0.0) || !std::isfinite(scale)) return false;
  q2 *= 1.0 / scale;
  q3 *= 1.0 / scale;
  for (double& ti : t) ti /= scale;
  // c' . q_i = a_i + b_i R  (i = 2, 3), from |c' - q_i|^2 - |c'|^2 = (R + t_i)^2 - (R + t_1)^2.
  double a2 = 0.5 * (q2.squared_length() - t[1] * t[1] + t[0] * t[0]);
  double a3 = 0.5 * (q3.squared_length() - t[2] * t[2] + t[0] * t[0]);
  double b2 = t[0] - t[1], b3 = t[0] - t[2];

  giVector2 offset;
  double R = 0.0;
  double det = q2.cross(q3);
  if (std::fabs(det) > collinear_tolerance * q2.length() * q3.length()) {
    giVector2 u((q3.y() * a2 - q2.y() * a3) / det, (q2.x() * a3 - q3.x() * a2) / det);
    giVector2 v((q3.y() * b2 - q2.y() * b3) / det, (q2.x() * b3 - q3.x() * b2) / det);
    // |u + v R|^2 = (R + t_1)^2
    double roots[2];
    int n = quadratic_roots(v.squared_length() - 1.0, u.dot(v) - t[0], u.squared_length() - t[0] * t[0], roots);
    int chosen = -1;
    for (int k = 0; k < n; ++k)
      if (admissible(roots[k], t) && (chosen < 0 || larger)) chosen = k;
    if (chosen < 0) return false;
    R = std::max(0.0, roots[chosen]);
    offset = u + v * R;
  } else {
    // Collinear centres: coordinates x along the line (towards the farther centre) and y
    // across it. x x_i + R (t_i - t_1) = (x_i^2 - t_i^2 + t_1^2) / 2, then y from the first.
    giUnitVec2 e = q2.squared_length() >= q3.squared_length() ? q2.unit() : q3.unit();
    if (e.invalid()) return false;  // the three centres coincide
    double x2 = e.dot(q2), x3 = e.dot(q3);
    double det2 = x2 * (t[2] - t[0]) - x3 * (t[1] - t[0]);
    if (std::fabs(det2) <= collinear_tolerance) return false;
    double x = (a2 * (t[2] - t[0]) - a3 * (t[1] - t[0])) / det2;
    R = (x2 * a3 - x3 * a2) / det2;
    if (!admissible(R, t)) return false;
    R = std::max(0.0, R);
    double y2 = (R + t[0]) * (R + t[0]) - x * x;
    if (y2 < -sign_tolerance) return false;
    double y = std::sqrt(std::max(0.0, y2));
    if (larger) y = -y;
    offset = giVector2(e) * x + giVector2(e.perpendicular()) * y;
  }
  giPoint2 centre = origin + offset * scale;
  if (!centre.finite()) return false;
  result = cnxCircle2(centre, R * scale);
  return true;
}
