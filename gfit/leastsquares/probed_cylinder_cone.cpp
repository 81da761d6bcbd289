#include "gfit/leastsquares/probed_cylinder_cone.h"

#include <cmath>

#include "gfit/leastsquares/evaluator.h"
#include "gfit/leastsquares/probed.h"
#include "gfit/leastsquares/refusal.h"
#include "gfit/platform/levenberg_marquardt.h"

using gfit::detail::check_radii;
using gfit::detail::refuse;
using gfit::detail::signed_radii;

// ---- cylinder ---------------------------------------------------------------------------

gfLeastSquareProbedCylinder::gfLeastSquareProbedCylinder(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                                         int inside)
    : Probed(points, signed_radii(radii, points.count(), inside)) {}
gfLeastSquareProbedCylinder::~gfLeastSquareProbedCylinder() = default;

// ---- cone -------------------------------------------------------------------------------

namespace {
doublecoDynArr signed_radii_per_point(doublecoDynArr const& radii, int n, intcoDynArr const& inside) {
  doublecoDynArr rho(n, 16);
  for (int i = 0; i < n; ++i) rho.append(i < inside.count() && inside[i] ? radii[i] : -radii[i]);
  return rho;
}
}  // namespace

gfLeastSquareProbedCone::gfLeastSquareProbedCone(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                                 int inside)
    : Probed(points, signed_radii(radii, points.count(), inside)) {}
gfLeastSquareProbedCone::gfLeastSquareProbedCone(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                                 intcoDynArr const& inside)
    : Probed(points, signed_radii_per_point(radii, points.count(), inside)) {}
gfLeastSquareProbedCone::~gfLeastSquareProbedCone() = default;

// ---- evaluator entries ------------------------------------------------------------------

namespace {

double mean_of(doublecoDynArr const& values) {
  double sum = 0.0;
  for (double v : values) sum += v;
  return values.count() > 0 ? sum / values.count() : 0.0;
}

// The plain cylinder of the ball centres, its radius shifted by the mean compensation (the
// compensated cylinder itself when all radii are equal), then one fit of the compensated
// problem.
int probed_cylinder(giPoint3coDynArr const& points, doublecoDynArr const& radii, int inside,
                    giUnitVec3coDynArr const& normals, giUnitVec3 const& guess, giAngle const& angle, int k,
                    giPoint3& point, giUnitVec3& direction, double& radius, double& residual) {
  const int n = points.count();
  if (n < 5) return refuse(gfReason::too_few_points);
  if (!check_radii(radii, n)) return 0;
  gfLeastSquareProbedCylinder problem(points, radii, inside);
  const double shift = mean_of(problem.compensation());
  giPoint3 p = point;
  giUnitVec3 u = direction;
  double r = radius - shift, rms = 0.0;  // a previous compensated cylinder as the centres' one
  if (!gfCalculateLeastSquareCylinder(points, p, u, r, rms, guess, angle, normals, k)) return 0;
  mlVector start{p.x(), p.y(), p.z(), u.x(), u.y(), u.z(), r + shift}, result(7);
  mlLevenbergMarquardt lm(problem);
  const double value = lm.fit(start, result);
  const giUnitVec3 fitted(result[3], result[4], result[5]);
  if (!std::isfinite(value) || fitted.invalid()) return refuse(gfReason::no_convergence);
  if (!(result[6] > 0.0))
    return refuse(gfReason::failed, "the compensated radius is not positive: no surface fits these balls");
  if (!gfit::detail::within_size_bound(result[6], problem.range()) ||
      !gfit::detail::determined(gfit::detail::axial_determination(problem, result)))
    return refuse(gfReason::not_determined);
  point = giPoint3(result[0], result[1], result[2]);
  direction = fitted;
  radius = result[6];
  residual = std::sqrt(value);
  return gfit::detail::succeed();
}

// Which side of the contacts' cone each centre lies on: inside (1) when the step from the
// contact to the centre runs against the cone's outward normal there, outside (0) when along
// it, the caller's flag when the centre is on its contact.
intcoDynArr sides_from_contacts(giPoint3coDynArr const& points, giPoint3coDynArr const& contacts, mlVector const& cone,
                                int inside) {
  const giPoint3 A(cone[0], cone[1], cone[2]);
  const giUnitVec3 u(cone[3], cone[4], cone[5]);
  const double s = std::sin(cone[7]), c = std::cos(cone[7]);
  intcoDynArr sides(points.count(), 16);
  for (int i = 0; i < points.count(); ++i) {
    const giVector3 d = contacts[i] - A;
    const giVector3 radial = d - u * u.dot(d);
    const double len = radial.length();
    const giVector3 normal = len > 0.0 ? u * s + radial * (c / len) : giVector3(u) * s;
    const double along = normal.dot(points[i] - contacts[i]);
    sides.append(along > 0.0 ? 0 : (along < 0.0 ? 1 : inside));
  }
  return sides;
}

// The plain cone of the ball centres with its offset shifted by the mean compensation, or
// the plain cone of the contact estimates, then one fit of the compensated problem.
int probed_cone(giPoint3coDynArr const& points, doublecoDynArr const& radii, int inside,
                giPoint3coDynArr const& contacts, giUnitVec3coDynArr const& normals, giUnitVec3 const& guess,
                giAngle const& angle, int k, giPoint3& apex, giUnitVec3& axis, double& half_angle,
                double& residual) {
  const int n = points.count();
  if (n < 6) return refuse(gfReason::too_few_points);
  if (!check_radii(radii, n) || !gfit::detail::check_points(points, 6, gfit::detail::Span::space)) return 0;
  // Contacts are optional: none, or one per ball centre.
  if (contacts.count() != 0 && contacts.count() != n)
    return refuse(gfReason::bad_companion_array, "contact estimates not one per point");
  if (!gfit::detail::all_finite(contacts)) return refuse(gfReason::non_finite_input, "a contact is not finite");
  const bool with_contacts = contacts.count() == n;
  const double shift = with_contacts ? 0.0 : mean_of(gfit::detail::signed_radii(radii, n, inside));
  // A previous compensated cone as the centres' one: the same axis and angle, the apex moved
  // along the axis by -shift / sin(theta).
  giPoint3 a = apex;
  giUnitVec3 u = axis;
  double theta = half_angle, rms = 0.0;
  if (!u.invalid() && std::fabs(std::sin(theta)) > 0.0) a = apex + u * (-shift / std::sin(theta));
  if (!gfCalculateLeastSquareCone(with_contacts ? contacts : points, a, u, theta, rms, guess, angle, normals, k))
    return 0;
  mlVector start{a.x(), a.y(), a.z(), u.x(), u.y(), u.z(), shift, theta}, result(8);
  gfLeastSquareProbedCone problem = with_contacts ? gfLeastSquareProbedCone(points, radii, sides_from_contacts(
                                                                                                points, contacts, start,
                                                                                                inside))
                                                  : gfLeastSquareProbedCone(points, radii, inside);
  mlLevenbergMarquardt lm(problem);
  lm.set_max_iterations(10000);
  lm.set_strict(true);
  const double value = lm.fit(start, result);
  if (!gfit::detail::cone_determined(problem, result, value, problem.range())) return 0;
  if (!gfit::detail::cone_outputs(result, value, apex, axis, half_angle, residual))
    return refuse(gfReason::not_determined);
  return gfit::detail::succeed();
}

}  // namespace

int gfLeastSquareEvaluator::evaluate_probed_cylinder(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                                     int inside, giPoint3& point, giUnitVec3& direction,
                                                     double& radius, double& residual, giUnitVec3 const& guess,
                                                     giAngle const& angle, int k) {
  if (points.count() < 4) return refuse(gfReason::too_few_points);
  const giUnitVec3coDynArr no_normals;
  return probed_cylinder(points, radii, inside, no_normals, guess, angle, k, point, direction, radius, residual);
}

int gfLeastSquareEvaluator::evaluate_probed_cylinder(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                                     int inside, giUnitVec3coDynArr const& normals,
                                                     giAngle const& angle, giPoint3& point, giUnitVec3& direction,
                                                     double& radius, double& residual, int k) {
  if (points.count() < 4) return refuse(gfReason::too_few_points);
  return probed_cylinder(points, radii, inside, normals, giUnitVec3(), angle, k, point, direction, radius, residual);
}

int gfLeastSquareEvaluator::evaluate_probed_cone(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                                 int inside, giPoint3coDynArr const& contacts, giPoint3& apex,
                                                 giUnitVec3& axis, double& half_angle, double& residual,
                                                 giUnitVec3 const& guess, giAngle const& angle, int k) {
  if (points.count() < 4) return refuse(gfReason::too_few_points);
  const giUnitVec3coDynArr no_normals;
  return probed_cone(points, radii, inside, contacts, no_normals, guess, angle, k, apex, axis, half_angle, residual);
}

int gfLeastSquareEvaluator::evaluate_probed_cone(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                                 int inside, giPoint3coDynArr const& contacts,
                                                 giUnitVec3coDynArr const& normals, giAngle const& angle,
                                                 giPoint3& apex, giUnitVec3& axis, double& half_angle,
                                                 double& residual, int k) {
  if (points.count() < 4) return refuse(gfReason::too_few_points);
  return probed_cone(points, radii, inside, contacts, normals, giUnitVec3(), angle, k, apex, axis, half_angle,
                     residual);
}
