#include "test/support/samplers.h"

#include <cmath>

namespace gfit::testing {

double Rng::normal() {
  if (has_spare_) {
    has_spare_ = false;
    return spare_;
  }
  double u = 1.0 - uniform();  // (0, 1]
  double v = uniform();
  double r = std::sqrt(-2.0 * std::log(u));
  spare_ = r * std::sin(2.0 * giPi * v);
  has_spare_ = true;
  return r * std::cos(2.0 * giPi * v);
}

giUnitVec3 Rng::direction() {
  double z = uniform(-1.0, 1.0), phi = uniform(0.0, 2.0 * giPi);
  double s = std::sqrt(1.0 - z * z);
  return giUnitVec3(s * std::cos(phi), s * std::sin(phi), z);
}

giPoint3 Rng::point_in_box(double h) { return {uniform(-h, h), uniform(-h, h), uniform(-h, h)}; }

giPoint3coDynArr sample_line3(Rng& rng, giPoint3 const& point, giUnitVec3 const& direction, double half_length, int n,
                              double noise) {
  giUnitVec3 e1 = direction.any_normal();
  giUnitVec3 e2 = direction.cross(e1).unit();
  giPoint3coDynArr out(n, 16);
  for (int i = 0; i < n; ++i) {
    double t = rng.uniform(-half_length, half_length);
    out.append(point + direction * t + e1 * (noise * rng.normal()) + e2 * (noise * rng.normal()));
  }
  return out;
}

giPoint2coDynArr sample_line2(Rng& rng, giPoint2 const& point, giUnitVec2 const& direction, double half_length, int n,
                              double noise) {
  giUnitVec2 across = direction.perpendicular();
  giPoint2coDynArr out(n, 16);
  for (int i = 0; i < n; ++i) {
    double t = rng.uniform(-half_length, half_length);
    out.append(point + direction * t + across * (noise * rng.normal()));
  }
  return out;
}

giPoint3coDynArr sample_plane(Rng& rng, giPoint3 const& origin, giUnitVec3 const& normal, double a, double b, int n,
                              double noise) {
  giUnitVec3 e1 = normal.any_normal();
  giUnitVec3 e2 = normal.cross(e1).unit();
  giPoint3coDynArr out(n, 16);
  for (int i = 0; i < n; ++i)
    out.append(origin + e1 * rng.uniform(-a, a) + e2 * rng.uniform(-b, b) + normal * (noise * rng.normal()));
  return out;
}

giPoint2coDynArr sample_circle2(Rng& rng, giPoint2 const& centre, double radius, double start, double span, int n,
                                double noise) {
  giPoint2coDynArr out(n, 16);
  for (int i = 0; i < n; ++i) {
    double t = start + span * rng.uniform();
    double r = radius + noise * rng.normal();
    out.append(centre + giVector2(r * std::cos(t), r * std::sin(t)));
  }
  return out;
}

giPoint3coDynArr sample_sphere(Rng& rng, giPoint3 const& centre, double radius, giUnitVec3 const& axis, double cap,
                               int n, double noise) {
  giUnitVec3 e1 = axis.any_normal();
  giUnitVec3 e2 = axis.cross(e1).unit();
  giPoint3coDynArr out(n, 16);
  const double cmin = std::cos(cap);
  for (int i = 0; i < n; ++i) {
    double c = rng.uniform(cmin, 1.0), s = std::sqrt(1.0 - c * c), phi = rng.uniform(0.0, 2.0 * giPi);
    double r = radius + noise * rng.normal();
    giVector3 d = axis * c + e1 * (s * std::cos(phi)) + e2 * (s * std::sin(phi));
    out.append(centre + d * r);
  }
  return out;
}

giPoint3coDynArr sample_cylinder(Rng& rng, giPoint3 const& point, giUnitVec3 const& axis, double radius,
                                 double half_length, double start, double span, int n, double noise,
                                 giUnitVec3coDynArr* normals) {
  giUnitVec3 e1 = axis.any_normal();
  giUnitVec3 e2 = axis.cross(e1).unit();
  giPoint3coDynArr out(n, 16);
  if (normals) normals->clear(0);
  for (int i = 0; i < n; ++i) {
    double t = start + span * rng.uniform(), h = rng.uniform(-half_length, half_length);
    giVector3 radial = e1 * std::cos(t) + e2 * std::sin(t);
    out.append(point + axis * h + radial * (radius + noise * rng.normal()));
    if (normals) normals->append(radial.unit());
  }
  return out;
}

giPoint3coDynArr sample_torus(Rng& rng, giPoint3 const& centre, giUnitVec3 const& axis, double r1, double r2,
                              double u0, double u_span, double v0, double v_span, int n, double noise,
                              giUnitVec3coDynArr* normals) {
  giUnitVec3 e1 = axis.any_normal();
  giUnitVec3 e2 = axis.cross(e1).unit();
  giPoint3coDynArr out(n, 16);
  if (normals) normals->clear(0);
  for (int i = 0; i < n; ++i) {
    double u = u0 + u_span * rng.uniform(), v = v0 + v_span * rng.uniform();
    giVector3 radial = e1 * std::cos(u) + e2 * std::sin(u);
    giVector3 normal = radial * std::cos(v) + axis * std::sin(v);
    out.append(centre + radial * r1 + normal * (r2 + noise * rng.normal()));
    if (normals) normals->append(normal.unit());
  }
  return out;
}

giPoint2coDynArr sample_ellipse2(Rng* rng, giPoint2 const& centre, double a, double b, double angle, double start,
                                 double span, int n, double noise) {
  const double c = std::cos(angle), s = std::sin(angle);
  giPoint2coDynArr out(n, 16);
  for (int i = 0; i < n; ++i) {
    double t = start + span * (rng ? rng->uniform() : static_cast<double>(i) / n);
    double u = a * std::cos(t), v = b * std::sin(t);
    if (rng) {
      giUnitVec2 normal(b * std::cos(t), a * std::sin(t));
      double e = noise * rng->normal();
      u += e * normal.x();
      v += e * normal.y();
    }
    out.append(centre + giVector2(c * u - s * v, s * u + c * v));
  }
  return out;
}

double distance_from_axis(giPoint3 const& q, giPoint3 const& p, giVector3 const& d) {
  return d.unit().cross(q - p).length();
}

double line_angle(giVector3 const& a, giVector3 const& b) {
  return std::atan2(a.cross(b).length(), std::fabs(a.dot(b)));
}

double line_angle(giVector2 const& a, giVector2 const& b) {
  return std::atan2(std::fabs(a.cross(b)), std::fabs(a.dot(b)));
}

giPoint3coDynArr sample_cone(Rng& rng, giPoint3 const& apex, giUnitVec3 const& axis, double half_angle, double near,
                             double far, double start, double span, int n, double noise, giUnitVec3coDynArr* normals) {
  giUnitVec3 e1 = axis.any_normal();
  giUnitVec3 e2 = axis.cross(e1).unit();
  const double s = std::sin(half_angle), c = std::cos(half_angle);
  giPoint3coDynArr out(n, 16);
  if (normals) normals->clear(0);
  for (int i = 0; i < n; ++i) {
    double t = start + span * rng.uniform(), h = rng.uniform(near, far);
    giVector3 radial = e1 * std::cos(t) + e2 * std::sin(t);
    giVector3 normal = axis * s + radial * c;
    out.append(apex - axis * h + radial * (h * std::tan(half_angle)) + normal * (noise * rng.normal()));
    if (normals) normals->append(normal.unit());
  }
  return out;
}

}  // namespace gfit::testing
