// Points sampled from known elements, for the recovery tests: seeded, with Gaussian noise
// along the element's normal, partial coverage and arbitrary poses.
#pragma once

#include <cstdint>
#include <random>

#include "gfit/gfit.h"

namespace gfit::testing {

// Deterministic on every platform: the Mersenne twister is specified exactly, and the
// conversions to uniform and normal numbers are our own (the standard distributions are
// not portable).
class Rng {
 public:
  explicit Rng(std::uint64_t seed = 12345) : engine_(seed) {}
  double uniform() { return (engine_() >> 11) * 0x1.0p-53; }  // [0, 1)
  double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
  double normal();  // standard normal, Box-Muller
  giUnitVec3 direction();  // uniform on the sphere
  giPoint3 point_in_box(double half_size);

 private:
  std::mt19937_64 engine_;
  bool has_spare_ = false;
  double spare_ = 0.0;
};

// n points on the segment point +- half_length * direction, each moved by noise * N(0,1)
// across the line.
giPoint3coDynArr sample_line3(Rng& rng, giPoint3 const& point, giUnitVec3 const& direction, double half_length, int n,
                              double noise);
giPoint2coDynArr sample_line2(Rng& rng, giPoint2 const& point, giUnitVec2 const& direction, double half_length, int n,
                              double noise);
// n points on the rectangle origin +- a e1 +- b e2 of the plane, noise along the normal.
giPoint3coDynArr sample_plane(Rng& rng, giPoint3 const& origin, giUnitVec3 const& normal, double a, double b, int n,
                              double noise);
// n points on the arc of angles [start, start + span] of a circle, noise radially.
giPoint2coDynArr sample_circle2(Rng& rng, giPoint2 const& centre, double radius, double start, double span, int n,
                                double noise);
// n points on the cap of polar angles [0, cap] about `axis` of a sphere, noise radially.
giPoint3coDynArr sample_sphere(Rng& rng, giPoint3 const& centre, double radius, giUnitVec3 const& axis, double cap,
                               int n, double noise);

// n points on a cylinder: heights uniform in [-half_length, half_length] along the axis from
// `point`, angles in [start, start + span] about the axis from axis.any_normal(), noise
// radially. `normals`, when given, receives the outward surface normals.
giPoint3coDynArr sample_cylinder(Rng& rng, giPoint3 const& point, giUnitVec3 const& axis, double radius,
                                 double half_length, double start, double span, int n, double noise,
                                 giUnitVec3coDynArr* normals = nullptr);

// n points on a torus (centre, axis, ring radius r1, tube radius r2): the angle about the
// axis uniform in [u0, u0 + u_span] from axis.any_normal(), the angle about the tube uniform
// in [v0, v0 + v_span] from the outward radial direction (v = pi/2 faces along the axis),
// noise along the tube's normal. `normals`, when given, receives the outward normals.
giPoint3coDynArr sample_torus(Rng& rng, giPoint3 const& centre, giUnitVec3 const& axis, double r1, double r2,
                              double u0, double u_span, double v0, double v_span, int n, double noise,
                              giUnitVec3coDynArr* normals = nullptr);

// The distance of point q from the line through p along d.
double distance_from_axis(giPoint3 const& q, giPoint3 const& p, giVector3 const& d);
// n points on the arc of parameters [start, start + span] of the ellipse with semi-axes a
// (along `angle` from the x axis) and b, noise along the ellipse's normal. With rng null the
// parameters are evenly spaced (t_i = start + span * i / n) and there is no noise.
giPoint2coDynArr sample_ellipse2(Rng* rng, giPoint2 const& centre, double a, double b, double angle, double start,
                                 double span, int n, double noise);

// The angle between two lines (directions up to sign), accurate near 0.
double line_angle(giVector3 const& a, giVector3 const& b);
double line_angle(giVector2 const& a, giVector2 const& b);

// n points on a cone with apex `apex`, unit axis `axis` pointing from the opening towards
// the apex and half-angle `half_angle`: distances along the axis from the apex uniform in
// [near, far] (positive: on the opening side), angles in [start, start + span] about the axis
// from axis.any_normal(), noise along the surface normal. `normals`, when given, receives
// the outward surface normals sin(theta) axis + cos(theta) radial.
giPoint3coDynArr sample_cone(Rng& rng, giPoint3 const& apex, giUnitVec3 const& axis, double half_angle, double near,
                             double far, double start, double span, int n, double noise,
                             giUnitVec3coDynArr* normals = nullptr);

}  // namespace gfit::testing
