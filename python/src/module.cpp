// gfit._core: the library's fits for Python.
//
// Each function takes numpy arrays, checks them (a ValueError names the argument at fault),
// releases the interpreter lock for the library call and returns a dict of the result's
// fields, which the Python package turns into typed result objects. A refused or failed fit
// raises ValueError with the reason the library recorded for this thread.
//
// Points arrive as (n, 2) or (n, 3) arrays. A C-contiguous float64 array is lent to the
// library as it is: its rows already have the memory layout of giPoint2 / giPoint3, so the
// library's array is pointed at numpy's buffer (see lent_array.h) and nothing is copied.
// Any other layout or real dtype is first converted by numpy.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cfloat>
#include <chrono>
#include <cmath>
#include <string>
#include <vector>

#include "gfit/gfit.h"
#include "lent_array.h"
#ifdef GFIT_PYTHON_CAD
#include "gfit/cad.h"
#endif

namespace py = pybind11;

namespace {

// ---- argument checks and conversions ----------------------------------------------------

[[noreturn]] void refuse_argument(std::string const& name, std::string const& why) {
  throw py::value_error(name + ": " + why);
}

std::string shape_text(py::array const& a) {
  std::string s = "(";
  for (py::ssize_t i = 0; i < a.ndim(); ++i) s += (i ? ", " : "") + std::to_string(a.shape(i));
  return s + (a.ndim() == 1 ? ",)" : ")");
}

// A C-contiguous float64 array with the given number of columns (0: 2 or 3; -1: a vector of
// any length), converted from any array-like of real numbers. Rows: at least `min_rows`.
using Doubles = py::array_t<double, py::array::c_style | py::array::forcecast>;

Doubles as_doubles(py::handle obj, std::string const& name, int columns, int min_rows) {
  if (obj.is_none()) refuse_argument(name, "an array is required, got None");
  py::array a;
  try {
    a = py::array::ensure(obj);
  } catch (py::error_already_set&) {
    a = py::array();
  }
  if (!a) refuse_argument(name, "expected an array of numbers");
  const char kind = a.dtype().kind();
  if (kind != 'f' && kind != 'i' && kind != 'u')
    refuse_argument(name, "expected real numbers, got dtype " + std::string(py::str(a.dtype())));
  if (columns == -1) {
    if (a.ndim() != 1) refuse_argument(name, "expected a 1-D array, got shape " + shape_text(a));
  } else {
    const bool ok = a.ndim() == 2 && (columns == 0 ? (a.shape(1) == 2 || a.shape(1) == 3) : a.shape(1) == columns);
    if (!ok)
      refuse_argument(name, "expected shape (n, " + (columns == 0 ? std::string("2 or 3") : std::to_string(columns)) +
                                "), got " + shape_text(a));
  }
  if (a.ndim() > 0 && a.shape(0) > 0x7fffffff) refuse_argument(name, "too many rows for the library's arrays");
  if (a.ndim() > 0 && a.shape(0) < min_rows)
    refuse_argument(name, a.shape(0) == 0 ? std::string("the array is empty")
                                          : "at least " + std::to_string(min_rows) + " rows are needed, got " +
                                                std::to_string(a.shape(0)));
  Doubles d = Doubles::ensure(a);
  if (!d) refuse_argument(name, "cannot be read as float64");
  return d;
}

void require_finite(double const* v, py::ssize_t count, int per_row, std::string const& name) {
  for (py::ssize_t i = 0; i < count; ++i)
    if (!std::isfinite(v[i])) refuse_argument(name, "row " + std::to_string(i / per_row) + " is not finite");
}

// Points of an (n, D) array as the library's array, for the duration of one call. A
// C-contiguous float64 array is lent as it is (no copy, see lent_array.h); anything else is
// converted by numpy first. The library reads its point arrays through `const&` only, so it
// never writes, grows or frees the lent block.
//
// Non-finite coordinates are not scanned for up front: every entry refuses them itself, and
// a scan of a dense cloud costs a tenth of a plane fit. `check` names the argument when an
// entry has failed (or up front where `check_finite` asks for it).
template <class P, int D>
class Points {
 public:
  Points() = default;
  Points(py::handle obj, std::string name, int min_rows, bool check_finite = false)
      : name_(std::move(name)), source_(as_doubles(obj, name_, D, min_rows)) {
    if (check_finite) check();
    lent_.lend(source_.data(), static_cast<int>(source_.shape(0)));
  }
  Points(Points const&) = delete;
  Points& operator=(Points const&) = delete;
  Points& operator=(Points&& o) noexcept {
    o.lent_.lend(nullptr, 0);
    name_ = std::move(o.name_);
    source_ = std::move(o.source_);
    if (source_) lent_.lend(source_.data(), static_cast<int>(source_.shape(0)));
    return *this;
  }

  coDynArr<P> const& array() const { return lent_.array(); }
  int count() const { return lent_.array().count(); }

  // Raises ValueError naming the argument when a coordinate is not finite.
  void check() const {
    if (source_) require_finite(source_.data(), source_.size(), D, name_);
  }

 private:
  std::string name_;
  Doubles source_;
  gfit_python::LentArray<P> lent_;  // declared last: gives the block back before source_ goes
};
using Points2 = Points<giPoint2, 2>;
using Points3 = Points<giPoint3, 3>;

// Points that may be 2-D or 3-D, decided by the array's shape.
int columns_of(py::handle obj, std::string const& name) {
  Doubles d = as_doubles(obj, name, 0, 0);
  return static_cast<int>(d.shape(1));
}

doublecoDynArr radii_array(py::handle obj, int n, std::string const& name) {
  doublecoDynArr out(n, 16);
  if (obj.is_none()) refuse_argument(name, "probe radii are required");
  if (py::isinstance<py::float_>(obj) || py::isinstance<py::int_>(obj)) {
    const double r = obj.cast<double>();
    if (!std::isfinite(r) || r < 0.0) refuse_argument(name, "a probe radius must be finite and non-negative");
    for (int i = 0; i < n; ++i) out.append(r);
    return out;
  }
  Doubles d = as_doubles(obj, name, -1, 0);
  if (d.shape(0) != n)
    refuse_argument(name, "one radius per point is needed: " + std::to_string(d.shape(0)) + " radii for " +
                              std::to_string(n) + " points");
  for (int i = 0; i < n; ++i) {
    const double r = d.data()[i];
    if (!std::isfinite(r) || r < 0.0)
      refuse_argument(name, "radius " + std::to_string(i) + " is negative or not finite");
    out.append(r);
  }
  return out;
}

giUnitVec3coDynArr normals_array(py::handle obj, int n, std::string const& name) {
  giUnitVec3coDynArr out;
  if (obj.is_none()) return out;
  Doubles d = as_doubles(obj, name, 3, 0);
  if (d.shape(0) != n)
    refuse_argument(name, "one normal per point is needed: " + std::to_string(d.shape(0)) + " normals for " +
                              std::to_string(n) + " points");
  out.reserve(n);
  for (int i = 0; i < n; ++i) {
    giUnitVec3 u(d.data()[3 * i], d.data()[3 * i + 1], d.data()[3 * i + 2]);
    if (u.invalid()) refuse_argument(name, "row " + std::to_string(i) + " is zero or not finite");
    out.append(u);
  }
  return out;
}

giUnitVec2coDynArr normals2_array(py::handle obj, int n, std::string const& name) {
  giUnitVec2coDynArr out;
  Doubles d = as_doubles(obj, name, 2, 0);
  if (d.shape(0) != n)
    refuse_argument(name, "one normal per point is needed: " + std::to_string(d.shape(0)) + " normals for " +
                              std::to_string(n) + " points");
  out.reserve(n);
  for (int i = 0; i < n; ++i) {
    giUnitVec2 u(d.data()[2 * i], d.data()[2 * i + 1]);
    if (u.invalid()) refuse_argument(name, "row " + std::to_string(i) + " is zero or not finite");
    out.append(u);
  }
  return out;
}

std::vector<double> small_vector(py::handle obj, std::string const& name, int size) {
  Doubles d = as_doubles(obj, name, -1, 0);
  if (d.shape(0) != size)
    refuse_argument(name, "expected " + std::to_string(size) + " numbers, got " + std::to_string(d.shape(0)));
  require_finite(d.data(), size, size, name);
  return std::vector<double>(d.data(), d.data() + size);
}

giPoint3 point3_arg(py::handle obj, std::string const& name) {
  auto v = small_vector(obj, name, 3);
  return {v[0], v[1], v[2]};
}

giUnitVec3 direction3_arg(py::handle obj, std::string const& name) {
  if (obj.is_none()) return giUnitVec3();
  auto v = small_vector(obj, name, 3);
  giUnitVec3 u(v[0], v[1], v[2]);
  if (u.invalid()) refuse_argument(name, "a direction must not be zero");
  return u;
}

giAngle angle_arg(double radians, std::string const& name) {
  if (!std::isfinite(radians) || radians < 0.0) refuse_argument(name, "an angle in radians, finite and >= 0");
  return giAngle(radians);
}

std::vector<giPoint2> profile_of(Points2 const& p) {
  return std::vector<giPoint2>(p.array().begin(), p.array().end());
}

std::vector<double> profile_radii(py::handle obj, int n, std::string const& name) {
  doublecoDynArr r = radii_array(obj, n, name);
  return std::vector<double>(r.begin(), r.end());
}

// ---- results ------------------------------------------------------------------------------

py::array_t<double> vec(std::initializer_list<double> values) {
  py::array_t<double> a(static_cast<py::ssize_t>(values.size()));
  double* out = a.mutable_data();
  for (double v : values) *out++ = v;
  return a;
}
py::array_t<double> vec(giPoint2 const& p) { return vec({p.x(), p.y()}); }
py::array_t<double> vec(giPoint3 const& p) { return vec({p.x(), p.y(), p.z()}); }
py::array_t<double> vec(giUnitVec2 const& v) { return vec({v.x(), v.y()}); }
py::array_t<double> vec(giUnitVec3 const& v) { return vec({v.x(), v.y(), v.z()}); }
py::array_t<double> vec(giVector2 const& v) { return vec({v.x(), v.y()}); }
py::array_t<double> vec(giVector3 const& v) { return vec({v.x(), v.y(), v.z()}); }

// A failed entry: a non-finite coordinate in one of `arrays` is named as the cause;
// otherwise the reason the library recorded. Every entry records a reason when it refuses
// or fails and sets it back to none when it succeeds (the record is per thread), so the
// reason read here is this call's; nothing needs clearing beforehand.
template <class... Arrays>
[[noreturn]] void fit_failed(char const* entry, Arrays const&... arrays) {
  (arrays.check(), ...);
  std::string why = gfLastReason() == gfReason::none ? std::string("the fit failed") : std::string(gfLastReasonText());
  throw py::value_error(std::string(entry) + ": " + why);
}

// Runs `call` without the interpreter lock.
template <class F>
auto unlocked(F&& call) {
  py::gil_scoped_release release;
  return call();
}

// The shape every binding shares: the library call without the lock, and a failed status
// (0) raised as ValueError with the reason, naming `arrays` when one of them is not finite.
// Returns the status.
template <class F, class... Arrays>
int run(char const* entry, F&& call, Arrays const&... arrays) {
  const int status = unlocked(std::forward<F>(call));
  if (!status) fit_failed(entry, arrays...);
  return status;
}

// A result's fields from name, value pairs: dict_of("centre", c, "radius", r). Points and
// directions become numpy vectors, numbers stay numbers.
py::object field(double v) { return py::float_(v); }
py::object field(int v) { return py::int_(v); }
py::object field(bool v) { return py::bool_(v); }
py::object field(py::object v) { return v; }
template <class V, class = decltype(vec(std::declval<V const&>()))>
py::object field(V const& v) {
  return vec(v);
}
inline void put(py::dict&) {}
template <class V, class... Rest>
void put(py::dict& d, char const* key, V const& value, Rest const&... rest) {
  d[key] = field(value);
  put(d, rest...);
}
template <class... Pairs>
py::dict dict_of(Pairs const&... pairs) {
  py::dict d;
  put(d, pairs...);
  return d;
}

// A matrix of the library as a 2-D numpy array.
py::array_t<double> matrix(mlMatrix const& m) {
  py::array_t<double> a({static_cast<py::ssize_t>(m.rows()), static_cast<py::ssize_t>(m.cols())});
  for (int i = 0; i < m.rows(); ++i)
    for (int j = 0; j < m.cols(); ++j) a.mutable_at(i, j) = m(i, j);
  return a;
}

// ---- least-squares fits ---------------------------------------------------------------------

py::dict fit_line(py::handle pts) {
  if (columns_of(pts, "points") == 2) {
    Points2 p(pts, "points", 2);
    giPoint2 point;
    giUnitVec2 direction;
    double residual = 0.0;
    run("fit_line", [&] { return gfLeastSquareEvaluator::evaluate_line(p.array(), point, direction, residual); }, p);
    return dict_of("point", point, "direction", direction, "residual", residual);
  }
  Points3 p(pts, "points", 2);
  giPoint3 point;
  giUnitVec3 direction;
  double residual = 0.0;
  run("fit_line", [&] { return gfLeastSquareEvaluator::evaluate_line3(p.array(), point, direction, residual); }, p);
  return dict_of("point", point, "direction", direction, "residual", residual);
}

py::dict fit_line_in_plane(py::handle pts, py::handle origin_obj, py::handle normal_obj) {
  Points3 p(pts, "points", 2);
  const giPoint3 origin = point3_arg(origin_obj, "origin");
  const giUnitVec3 normal = direction3_arg(normal_obj, "normal");
  giPoint3 point;
  giUnitVec3 direction;
  double residual = 0.0;
  run("fit_line", [&] {
        return gfLeastSquareEvaluator::evaluate_line2(origin, normal, p.array(), point, direction, residual);
      }, p);
  return dict_of("point", point, "direction", direction, "residual", residual);
}

py::dict fit_plane(py::handle pts) {
  Points3 p(pts, "points", 3);
  giPoint3 point;
  giUnitVec3 normal;
  double residual = 0.0;
  run("fit_plane", [&] { return gfLeastSquareEvaluator::evaluate_plane(p.array(), point, normal, residual); }, p);
  return dict_of("point", point, "normal", normal, "residual", residual);
}

py::dict fit_circle(py::handle pts) {
  double radius = 0.0, residual = 0.0;
  if (columns_of(pts, "points") == 2) {
    Points2 p(pts, "points", 3);
    giPoint2 centre;
    run("fit_circle", [&] { return gfLeastSquareEvaluator::evaluate_circle(p.array(), centre, radius, residual); }, p);
    return dict_of("centre", centre, "radius", radius, "residual", residual);
  }
  Points3 p(pts, "points", 3);
  giPoint3 centre;
  giUnitVec3 normal;
  run(
      "fit_circle",
      [&] { return gfLeastSquareEvaluator::evaluate_circle3(p.array(), centre, normal, radius, residual); }, p);
  return dict_of("centre", centre, "normal", normal, "radius", radius, "residual", residual);
}

py::dict fit_circle_in_plane(py::handle pts, py::handle origin_obj, py::handle normal_obj) {
  Points3 p(pts, "points", 3);
  const giPoint3 origin = point3_arg(origin_obj, "origin");
  const giUnitVec3 normal = direction3_arg(normal_obj, "normal");
  giPoint3 centre;
  double radius = 0.0, residual = 0.0;
  run("fit_circle", [&] {
        return gfLeastSquareEvaluator::evaluate_circle2(origin, normal, p.array(), centre, radius, residual);
      }, p);
  return dict_of("centre", centre, "normal", normal, "radius", radius, "residual", residual);
}

py::dict fit_sphere(py::handle pts) {
  Points3 p(pts, "points", 4);
  giPoint3 centre;
  double radius = 0.0, residual = 0.0;
  run("fit_sphere", [&] { return gfLeastSquareEvaluator::evaluate_sphere(p.array(), centre, radius, residual); }, p);
  return dict_of("centre", centre, "radius", radius, "residual", residual);
}

py::dict axis_result(giPoint3 const& point, giUnitVec3 const& direction, double radius, double residual) {
  return dict_of("point", point, "direction", direction, "radius", radius, "residual", residual);
}

py::dict cone_result(giPoint3 const& apex, giUnitVec3 const& axis, double half_angle, double residual) {
  return dict_of("apex", apex, "axis", axis, "half_angle", half_angle, "residual", residual);
}

py::dict fit_cylinder(py::handle pts, py::handle normals_obj, py::handle guess_obj, double angle_rad) {
  Points3 p(pts, "points", 5);
  const giUnitVec3coDynArr normals = normals_array(normals_obj, p.count(), "normals");
  const giUnitVec3 guess = direction3_arg(guess_obj, "guess");
  const giAngle angle = angle_arg(angle_rad, "angle");
  if (!normals.empty() && !guess.invalid()) refuse_argument("guess", "give normals or a guess axis, not both");
  giPoint3 point;
  giUnitVec3 direction;
  double radius = 0.0, residual = 0.0;
  run("fit_cylinder", [&] {
    return normals.empty() ? gfLeastSquareEvaluator::evaluate_cylinder(p.array(), point, direction, radius, residual,
                                                                       guess, angle, 0)
                           : gfLeastSquareEvaluator::evaluate_cylinder(p.array(), normals, angle, point, direction,
                                                                       radius, residual, 0);
  }, p);
  return axis_result(point, direction, radius, residual);
}

py::list fit_cylinders(py::handle pts, py::handle normals_obj, double tolerance, double angle_rad, int count) {
  Points3 p(pts, "points", 5);
  const giUnitVec3coDynArr normals = normals_array(normals_obj, p.count(), "normals");
  const giAngle angle = angle_arg(angle_rad, "angle");
  if (!std::isfinite(tolerance) || tolerance <= 0.0) refuse_argument("tolerance", "a positive RMS bound");
  if (count < 1) refuse_argument("count", "at least 1");
  gfFittedCylindercoDynArr found;
  const int n = unlocked([&] {
    return gfLeastSquareEvaluator::evaluate_multiple_cylinders(p.array(), normals, tolerance, angle, count, found);
  });
  py::list out;
  for (int i = 0; i < n && i < found.count(); ++i)
    out.append(axis_result(found[i].axis_point(), found[i].axis_dir(), found[i].radius(), found[i].deviation()));
  return out;
}

py::dict fit_cone(py::handle pts, py::handle normals_obj, py::handle guess_obj, double angle_rad) {
  Points3 p(pts, "points", 6);
  const giUnitVec3coDynArr normals = normals_array(normals_obj, p.count(), "normals");
  const giUnitVec3 guess = direction3_arg(guess_obj, "guess");
  const giAngle angle = angle_arg(angle_rad, "angle");
  if (!normals.empty() && !guess.invalid()) refuse_argument("guess", "give normals or a guess axis, not both");
  giPoint3 apex;
  giUnitVec3 axis;
  double half_angle = 0.0, residual = 0.0;
  run("fit_cone", [&] {
    return normals.empty() ? gfLeastSquareEvaluator::evaluate_cone(p.array(), apex, axis, half_angle, residual, guess,
                                                                   angle, 0)
                           : gfLeastSquareEvaluator::evaluate_cone(p.array(), normals, angle, apex, axis, half_angle,
                                                                   residual, 0);
  }, p);
  return cone_result(apex, axis, half_angle, residual);
}

py::list fit_cones(py::handle pts, py::handle normals_obj, double tolerance, double angle_rad, int count) {
  Points3 p(pts, "points", 6);
  const giUnitVec3coDynArr normals = normals_array(normals_obj, p.count(), "normals");
  const giAngle angle = angle_arg(angle_rad, "angle");
  if (!std::isfinite(tolerance) || tolerance <= 0.0) refuse_argument("tolerance", "a positive RMS bound");
  if (count < 1) refuse_argument("count", "at least 1");
  gfFittedConecoDynArr found;
  const int n = unlocked([&] {
    return gfLeastSquareEvaluator::evaluate_multiple_cones(p.array(), normals, tolerance, angle, count, found);
  });
  py::list out;
  for (int i = 0; i < n && i < found.count(); ++i)
    out.append(cone_result(found[i].apex(), found[i].axis_dir(), found[i].half_angle().radians(),
                           found[i].deviation()));
  return out;
}

py::dict fit_ellipse(py::handle pts) {
  Points2 p(pts, "points", 4);
  giPoint2 centre;
  double major = 0, minor = 0, angle = 0, residual = 0;
  run("fit_ellipse", [&] {
        return gfLeastSquareEvaluator::evaluate_ellipse(p.array(), centre, major, minor, angle, residual);
      }, p);
  return dict_of("centre", centre, "major", major, "minor", minor, "angle", angle, "residual", residual);
}

// The unit vector in space along the in-plane angle `angle` of the projection frame of the
// plane (origin, normal), measured from `direction` when it is set: the same frame and
// reference as evaluate_ellipse2 uses.
giVector3 in_plane_direction(giPoint3 const& origin, giUnitVec3 const& normal, giUnitVec3 const& direction,
                             double angle) {
  giPoint3coDynArr one{origin};
  giPoint2coDynArr ignored;
  giXform3 to_plane;
  gfUtils::ProjectPointsToPlane(one, origin, normal, ignored, &to_plane);
  double reference = 0.0;
  if (!direction.invalid()) {
    giVector3 d = to_plane.transform(giVector3(direction));
    reference = std::atan2(d.y(), d.x());
  }
  const double a = reference + angle;
  return giXform3(giXformInverse{}, to_plane).transform(giVector3(std::cos(a), std::sin(a), 0.0));
}

py::dict fit_ellipse_in_plane(py::handle pts, py::handle origin_obj, py::handle normal_obj, py::handle direction_obj) {
  Points3 p(pts, "points", 4);
  const giPoint3 origin = point3_arg(origin_obj, "origin");
  const giUnitVec3 normal = direction3_arg(normal_obj, "normal");
  const giUnitVec3 direction = direction3_arg(direction_obj, "direction");
  giPoint3 centre;
  double major = 0, minor = 0, angle = 0, residual = 0;
  run("fit_ellipse", [&] {
        return gfLeastSquareEvaluator::evaluate_ellipse2(origin, normal, direction, p.array(), centre, major, minor,
                                                         angle, residual);
      }, p);
  return dict_of("centre", centre, "normal", normal, "major_axis",
                 vec(in_plane_direction(origin, normal, direction, angle)), "major", major, "minor", minor, "angle",
                 angle, "residual", residual);
}

py::dict torus_result(giPoint3 const& centre, giUnitVec3 const& axis, double r1, double r2, double residual) {
  return dict_of("centre", centre, "axis", axis, "r1", r1, "r2", r2, "residual", residual);
}

py::dict fit_torus(py::handle pts, py::handle centre_obj, py::handle axis_obj) {
  Points3 p(pts, "points", 7);
  if (centre_obj.is_none() != axis_obj.is_none())
    refuse_argument(centre_obj.is_none() ? "centre" : "axis", "a guess needs both centre and axis");
  giPoint3 centre;
  giUnitVec3 axis;
  double r1 = 0, r2 = 0, residual = 0;
  int status = 0;
  if (!centre_obj.is_none()) {
    centre = point3_arg(centre_obj, "centre");
    axis = direction3_arg(axis_obj, "axis");
    status = unlocked([&] {
      return gfLeastSquareEvaluator::evaluate_torus_with_guess(p.array(), centre, axis, r1, r2, residual);
    });
  } else {
    status =
        unlocked([&] { return gfLeastSquareEvaluator::evaluate_torus(p.array(), centre, axis, r1, r2, residual); });
  }
  if (!status) fit_failed("fit_torus", p);
  return torus_result(centre, axis, r1, r2, residual);
}

py::dict fit_axis_of_revolution(py::handle pts, py::handle normals_obj) {
  Points3 p(pts, "points", 6);
  if (normals_obj.is_none()) refuse_argument("normals", "one surface normal per point is required");
  const giUnitVec3coDynArr normals = normals_array(normals_obj, p.count(), "normals");
  giPoint3 point;
  giUnitVec3 direction;
  double residual = 0.0;
  run("fit_axis_of_revolution", [&] {
        return gfLeastSquareEvaluator::evaluate_axis_rev(p.array(), normals, point, direction, residual);
      }, p);
  return dict_of("point", point, "direction", direction, "residual", residual);
}

// ---- probe-compensated fits -------------------------------------------------------------------

py::dict fit_probed_circle(py::handle pts, py::handle radii_obj, bool inside) {
  Points2 p(pts, "points", 3);
  const doublecoDynArr radii = radii_array(radii_obj, p.count(), "radii");
  giPoint2 centre;
  double radius = 0, residual = 0;
  run("fit_probed_circle", [&] {
        return gfLeastSquareEvaluator::evaluate_probed_circle(p.array(), radii, inside, centre, radius, residual);
      }, p);
  return dict_of("centre", centre, "radius", radius, "residual", residual);
}

py::dict fit_probed_sphere(py::handle pts, py::handle radii_obj, bool inside) {
  Points3 p(pts, "points", 4);
  const doublecoDynArr radii = radii_array(radii_obj, p.count(), "radii");
  giPoint3 centre;
  double radius = 0, residual = 0;
  run("fit_probed_sphere", [&] {
        return gfLeastSquareEvaluator::evaluate_probed_sphere(p.array(), radii, inside, centre, radius, residual);
      }, p);
  return dict_of("centre", centre, "radius", radius, "residual", residual);
}

py::dict fit_probed_plane(py::handle pts, py::handle radii_obj, py::handle normals_obj) {
  if (columns_of(pts, "points") == 2) {
    Points2 p(pts, "points", 2);
    const doublecoDynArr radii = radii_array(radii_obj, p.count(), "radii");
    if (normals_obj.is_none()) refuse_argument("normals", "approximate normals, one per point, are required");
    const giUnitVec2coDynArr normals = normals2_array(normals_obj, p.count(), "normals");
    giPoint2 point;
    giUnitVec2 normal;
    double residual = 0;
    run("fit_probed_line", [&] {
          return gfLeastSquareEvaluator::evaluate_probed_line2(p.array(), radii, normals, point, normal, residual);
        }, p);
    return dict_of("point", point, "normal", normal, "residual", residual);
  }
  Points3 p(pts, "points", 3);
  const doublecoDynArr radii = radii_array(radii_obj, p.count(), "radii");
  if (normals_obj.is_none()) refuse_argument("normals", "approximate normals, one per point, are required");
  const giUnitVec3coDynArr normals = normals_array(normals_obj, p.count(), "normals");
  giPoint3 point;
  giUnitVec3 normal;
  double residual = 0;
  run("fit_probed_plane", [&] {
        return gfLeastSquareEvaluator::evaluate_probed_plane(p.array(), radii, normals, point, normal, residual);
      }, p);
  return dict_of("point", point, "normal", normal, "residual", residual);
}

py::dict fit_probed_cylinder(py::handle pts, py::handle radii_obj, bool inside, py::handle normals_obj,
                             py::handle guess_obj, double angle_rad) {
  Points3 p(pts, "points", 5);
  const doublecoDynArr radii = radii_array(radii_obj, p.count(), "radii");
  const giUnitVec3coDynArr normals = normals_array(normals_obj, p.count(), "normals");
  const giUnitVec3 guess = direction3_arg(guess_obj, "guess");
  const giAngle angle = angle_arg(angle_rad, "angle");
  if (!normals.empty() && !guess.invalid()) refuse_argument("guess", "give normals or a guess axis, not both");
  giPoint3 point;
  giUnitVec3 direction;
  double radius = 0.0, residual = 0.0;
  run("fit_probed_cylinder", [&] {
    return normals.empty()
               ? gfLeastSquareEvaluator::evaluate_probed_cylinder(p.array(), radii, inside, point, direction, radius,
                                                                  residual, guess, angle, 0)
               : gfLeastSquareEvaluator::evaluate_probed_cylinder(p.array(), radii, inside, normals, angle, point,
                                                                  direction, radius, residual, 0);
  }, p);
  return axis_result(point, direction, radius, residual);
}

py::dict fit_probed_cone(py::handle pts, py::handle radii_obj, bool inside, py::handle contacts_obj,
                         py::handle normals_obj, py::handle guess_obj, double angle_rad) {
  Points3 p(pts, "points", 6);
  const doublecoDynArr radii = radii_array(radii_obj, p.count(), "radii");
  const giUnitVec3coDynArr normals = normals_array(normals_obj, p.count(), "normals");
  const giUnitVec3 guess = direction3_arg(guess_obj, "guess");
  const giAngle angle = angle_arg(angle_rad, "angle");
  if (!normals.empty() && !guess.invalid()) refuse_argument("guess", "give normals or a guess axis, not both");
  Points3 contacts;
  if (!contacts_obj.is_none()) {
    contacts = Points3(contacts_obj, "contacts", 0);
    if (contacts.count() != p.count())
      refuse_argument("contacts", "one contact estimate per point is needed: " + std::to_string(contacts.count()) +
                                      " for " + std::to_string(p.count()) + " points");
  }
  giPoint3 apex;
  giUnitVec3 axis;
  double half_angle = 0.0, residual = 0.0;
  run("fit_probed_cone", [&] {
    return normals.empty()
               ? gfLeastSquareEvaluator::evaluate_probed_cone(p.array(), radii, inside, contacts.array(), apex, axis,
                                                              half_angle, residual, guess, angle, 0)
               : gfLeastSquareEvaluator::evaluate_probed_cone(p.array(), radii, inside, contacts.array(), normals,
                                                              angle, apex, axis, half_angle, residual, 0);
  }, p, contacts);
  return cone_result(apex, axis, half_angle, residual);
}

py::dict fit_probed_torus(py::handle pts, py::handle radii_obj, bool inside) {
  Points3 p(pts, "points", 7);
  const doublecoDynArr radii = radii_array(radii_obj, p.count(), "radii");
  giPoint3 centre;
  giUnitVec3 axis;
  double r1 = 0, r2 = 0, residual = 0;
  run("fit_probed_torus", [&] {
        return gfLeastSquareEvaluator::evaluate_probed_torus(p.array(), radii, inside, centre, axis, r1, r2, residual);
      }, p);
  return torus_result(centre, axis, r1, r2, residual);
}

// ---- direct (closed-form) fits ----------------------------------------------------------------

template <class Array>
void direct_status(gfDirectFitStatus status, char const* entry, Array const& p) {
  if (status != gfDirectFitStatus::fitted) p.check();
  if (status != gfDirectFitStatus::fitted)
    throw py::value_error(std::string(entry) + ": " + gf_direct_fit_status_name(status));
}

py::dict direct_circle(py::handle pts) {
  if (columns_of(pts, "points") == 2) {
    Points2 p(pts, "points", 2);
    auto fit = unlocked([&] { return std::make_unique<gfDirectCircle2>(p.array()); });
    direct_status(fit->status(), "direct_circle", p);
    return dict_of("centre", fit->centre(), "radius", fit->radius(), "residual", fit->chi());
  }
  Points3 p(pts, "points", 2);
  auto fit = unlocked([&] { return std::make_unique<gfDirectCircle3>(p.array()); });
  direct_status(fit->status(), "direct_circle", p);
  return dict_of("centre", fit->centre(), "normal", fit->workplane().normal(), "radius", fit->radius(), "residual",
                 fit->chi());
}

py::dict direct_ellipse(py::handle pts) {
  if (columns_of(pts, "points") == 2) {
    Points2 p(pts, "points", 2);
    auto fit = unlocked([&] { return std::make_unique<gfDirectEllipse2>(p.array()); });
    direct_status(fit->status(), "direct_ellipse", p);
    return dict_of("centre", fit->centre(), "major", fit->a_length(), "minor", fit->b_length(), "major_axis",
                   fit->a_axis(), "angle", fit->angle().radians(), "residual", fit->chi());
  }
  Points3 p(pts, "points", 2);
  auto fit = unlocked([&] { return std::make_unique<gfDirectEllipse3>(p.array()); });
  direct_status(fit->status(), "direct_ellipse", p);
  return dict_of("centre", fit->centre(), "normal", fit->workplane().normal(), "major", fit->a_length(), "minor",
                 fit->b_length(), "major_axis", fit->a_axis(), "residual", fit->chi());
}

py::dict direct_sphere(py::handle pts) {
  Points3 p(pts, "points", 4);
  auto fit = unlocked([&] { return std::make_unique<gfSphereFit>(p.array()); });
  direct_status(fit->status(), "direct_sphere", p);
  return dict_of("centre", fit->centre(), "radius", fit->radius(), "residual", fit->chi());
}

// ---- extremal fits, hull, containment cone ----------------------------------------------------

py::dict circle_result(giCircle2 const& c, char const* entry, Points2 const& p) {
  if (c.invalid()) fit_failed(entry, p);
  return dict_of("centre", vec(c.centre()), "radius", c.radius());
}

py::dict min_circumscribed_circle(py::handle pts, py::handle radii_obj, bool outer) {
  Points2 p(pts, "points", 1);
  const std::vector<giPoint2> profile = profile_of(p);
  if (radii_obj.is_none())
    return circle_result(
        unlocked([&] { return gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(profile); }),
        "min_circumscribed_circle", p);
  const std::vector<double> radii = profile_radii(radii_obj, p.count(), "radii");
  return circle_result(unlocked([&] {
                         return gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle_probed(profile, radii,
                                                                                                   outer);
                       }),
                       "min_circumscribed_circle", p);
}

py::dict max_inscribed_circle(py::handle pts, py::handle radii_obj, bool inside, py::handle start_centre,
                              double start_radius) {
  Points2 p(pts, "points", 1);
  const std::vector<giPoint2> profile = profile_of(p);
  giCircle2 start;
  const bool has_start = !start_centre.is_none();
  if (has_start) {
    auto c = small_vector(start_centre, "start", 2);
    start = giCircle2(giPoint2(c[0], c[1]), start_radius);
  }
  std::vector<double> radii;
  if (!radii_obj.is_none()) radii = profile_radii(radii_obj, p.count(), "radii");
  giCircle2 c = unlocked([&] {
    utOptionalArg<giCircle2&> s = has_start ? utOptionalArg<giCircle2&>(start) : utOptionalArg<giCircle2&>();
    return radii_obj.is_none()
               ? gfMaximumInscribedCircle::calculate_maximum_inscribed_circle(profile, s)
               : gfMaximumInscribedCircle::calculate_maximum_inscribed_circle_probed(profile, radii, inside, s);
  });
  return circle_result(c, "max_inscribed_circle", p);
}

py::dict minmax_circle(py::handle pts, py::handle radii_obj, bool inside) {
  Points2 p(pts, "points", 1);
  const std::vector<giPoint2> profile = profile_of(p);
  std::vector<double> radii;
  if (!radii_obj.is_none()) radii = profile_radii(radii_obj, p.count(), "radii");
  double width = 0.0;
  giCircle2 c = unlocked([&] {
    return radii_obj.is_none() ? gfMinMaxCircleFit::fit(profile, width)
                               : gfMinMaxCircleFit::fit_probed(profile, radii, inside, width);
  });
  py::dict out = circle_result(c, "minmax_circle", p);
  out["width"] = width;
  return out;
}

py::array_t<double> convex_hull(py::handle pts) {
  Points2 p(pts, "points", 1);
  giPoint2coDynArr hull;
  {
    py::gil_scoped_release release;
    gf_calculate_convex_hull(p.array(), hull);
  }
  if (hull.count() == 0) {  // refused: only a non-finite coordinate empties the hull of points
    p.check();
    throw py::value_error("convex_hull: no hull");
  }
  py::array_t<double> out({static_cast<py::ssize_t>(hull.count()), static_cast<py::ssize_t>(2)});
  double* o = out.mutable_data();
  for (giPoint2 const& q : hull) {
    *o++ = q.x();
    *o++ = q.y();
  }
  return out;
}

py::array_t<int> convex_hull_indices(py::handle pts) {
  Points2 p(pts, "points", 1);
  intcoDynArr indices;
  {
    py::gil_scoped_release release;
    gf_calculate_convex_hull(p.array(), indices);
  }
  if (indices.count() == 0) {
    p.check();
    throw py::value_error("convex_hull_indices: no hull");
  }
  py::array_t<int> out(static_cast<py::ssize_t>(indices.count()));
  std::copy(indices.begin(), indices.end(), out.mutable_data());
  return out;
}

py::dict containment_cone(py::handle dirs) {
  Doubles d = as_doubles(dirs, "directions", 3, 1);
  const int n = static_cast<int>(d.shape(0));
  giUnitVec3coDynArr directions(n, 16);
  for (int i = 0; i < n; ++i) {
    giUnitVec3 u(d.data()[3 * i], d.data()[3 * i + 1], d.data()[3 * i + 2]);
    if (u.invalid()) refuse_argument("directions", "row " + std::to_string(i) + " is zero or not finite");
    directions.append(u);
  }
  giUnitVec3 axis;
  giAngle angle;
  run("containment_cone", [&] { return gfContainmentCone(directions).solve(axis, angle); });
  return dict_of("axis", axis, "half_angle", angle.radians());
}

// ---- affine match -------------------------------------------------------------------------------

py::dict affine_match(py::handle from_obj, py::handle to_obj) {
  const int dim = columns_of(from_obj, "source");
  if (dim == 3) {
    Points3 a(from_obj, "source", 1), b(to_obj, "target", 1);
    if (a.count() != b.count())
      refuse_argument("target", "one target per source point: " + std::to_string(b.count()) + " for " +
                                    std::to_string(a.count()));
    giXform3 x;
    double rms = 0.0;
    run("affine_match", [&] { return gfPointsAffineMatch::match(a.array(), b.array(), x, rms); }, a, b);
    py::array_t<double> m({3, 3});
    py::array_t<double> t(3);
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) m.mutable_at(r, c) = x(r, c);
      t.mutable_at(r) = x(r, 3);
    }
    return dict_of("matrix", m, "translation", t, "rms", rms);
  }
  Points2 a(from_obj, "source", 1), b(to_obj, "target", 1);
  if (a.count() != b.count())
    refuse_argument("target", "one target per source point: " + std::to_string(b.count()) + " for " +
                                  std::to_string(a.count()));
  giXform2 x;
  double rms = 0.0;
  run("affine_match", [&] { return gfPointsAffineMatch::match(a.array(), b.array(), x, rms); }, a, b);
  py::array_t<double> m({2, 2});
  py::array_t<double> t(2);
  for (int r = 0; r < 2; ++r) {
    for (int c = 0; c < 2; ++c) m.mutable_at(r, c) = x(r, c);
    t.mutable_at(r) = x(r, 2);
  }
  return dict_of("matrix", m, "translation", t, "rms", rms);
}

// ---- rigid alignments -------------------------------------------------------------------------

// The rigid transform taking each source point onto its target (least squares), its matrix
// and translation, and the RMS of |X a - b| over the pairs.
template <class P, int D, class X>
py::dict rigid_pairs(py::handle from_obj, py::handle to_obj) {
  Points<P, D> a(from_obj, "source", 1, true), b(to_obj, "target", 1, true);
  if (a.count() != b.count())
    refuse_argument("target", "one target per source point: " + std::to_string(b.count()) + " for " +
                                  std::to_string(a.count()));
  X x;
  double rms = 0.0;
  run("points_to_points", [&] {
    gfPointsToPoints pp;
    for (int i = 0; i < a.count(); ++i) pp.add_pair(a.array()[i], b.array()[i]);
    if (!pp.get_xform(x)) return 0;
    double squares = 0.0;
    for (int i = 0; i < a.count(); ++i) squares += (x * a.array()[i] - b.array()[i]).squared_length();
    rms = std::sqrt(squares / a.count());
    return 1;
  });
  py::array_t<double> m({D, D});
  py::array_t<double> t(D);
  for (int r = 0; r < D; ++r) {
    for (int c = 0; c < D; ++c) m.mutable_at(r, c) = x(r, c);
    t.mutable_at(r) = x(r, D);
  }
  return dict_of("matrix", py::object(m), "translation", py::object(t), "rms", rms);
}

// In space only: the library's plane variant reads its cross sums with the stride of the
// space variant and is exact only for pairs centred on their first points.
py::dict points_to_points(py::handle from_obj, py::handle to_obj) {
  return rigid_pairs<giPoint3, 3, giXform3>(from_obj, to_obj);
}

// One linearised step of measured points onto the tangent planes at their nominal points.
giVector3 as_vector(giPoint3 const& p) { return {p.x(), p.y(), p.z()}; }

py::dict points_to_planes_step(py::handle measured_obj, py::handle nominal_obj, py::handle normals_obj,
                               py::handle lower_obj, py::handle upper_obj, py::handle weights_obj,
                               bool translations_only, double attraction) {
  Points3 m(measured_obj, "measured", 1, true);
  const int n = m.count();
  Points3 q(nominal_obj, "nominal", n, true);
  if (q.count() != n) refuse_argument("nominal", "one nominal point per measured point is needed");
  Points3 normals(normals_obj, "normals", n, true);
  if (normals.count() != n) refuse_argument("normals", "one normal per measured point is needed");
  auto column = [&](py::handle obj, char const* name, double fill) {
    std::vector<double> v(static_cast<size_t>(n), fill);
    if (obj.is_none()) return v;
    Doubles d = as_doubles(obj, name, -1, 0);
    if (d.shape(0) != n) refuse_argument(name, "one value per measured point is needed");
    for (int i = 0; i < n; ++i) {
      if (std::isnan(d.data()[i])) refuse_argument(name, "row " + std::to_string(i) + " is not a number");
      v[static_cast<size_t>(i)] = d.data()[i];
    }
    return v;
  };
  const std::vector<double> lower = column(lower_obj, "lower", -DBL_MAX), upper = column(upper_obj, "upper", DBL_MAX);
  const std::vector<double> weights = column(weights_obj, "weights", 1.0);
  if (!std::isfinite(attraction) || attraction < 0.0) refuse_argument("attraction", "finite and >= 0");
  giXform3 step;
  intcoDynArr left_out;
  run("points_to_planes_step", [&] {
    gfPointsToPlanes solver;
    solver.reserve_bestfit(n);
    for (int i = 0; i < n; ++i)
      solver.add_bestfit(m.array()[i], q.array()[i], as_vector(normals.array()[i]), std::max(lower[i], -DBL_MAX),
                         std::min(upper[i], DBL_MAX), weights[i]);
    if (translations_only)
      solver.lock_rotations(giVector3(1, 0, 0), giVector3(-DBL_MAX, 0, 0), giVector3(-DBL_MAX, 0, 0));
    solver.set_fitting_points_attraction(attraction);
    const int status = solver.single_linear_step(step);
    left_out = solver.overdetermined_constraints();
    return status;
  });
  py::array_t<double> mat({3, 3});
  py::array_t<double> t(3);
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) mat.mutable_at(r, c) = step(r, c);
    t.mutable_at(r) = step(r, 3);
  }
  py::array_t<int> contradictory(static_cast<py::ssize_t>(left_out.count()));
  std::copy(left_out.begin(), left_out.end(), contradictory.mutable_data());
  return dict_of("matrix", py::object(mat), "translation", py::object(t), "contradictory_limits",
                 py::object(contradictory));
}

// ---- RPS, 2-D curve, points-to-lines ----------------------------------------------------------

// A transform of the library as a (D+1) x (D+1) homogeneous numpy matrix.
py::array_t<double> homogeneous(giXform3 const& x) {
  py::array_t<double> a({4, 4});
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) a.mutable_at(r, c) = r < 3 ? x(r, c) : (c == 3 ? 1.0 : 0.0);
  return a;
}
py::array_t<double> homogeneous(giXform2 const& x) {
  py::array_t<double> a({3, 3});
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) a.mutable_at(r, c) = r < 2 ? x(r, c) : (c == 2 ? 1.0 : 0.0);
  return a;
}

// One value per row of an n-row argument (None: `fill`), each finite and >= 0 (weights).
std::vector<double> per_row(py::handle obj, char const* name, int n, double fill) {
  std::vector<double> v(static_cast<size_t>(n), fill);
  if (obj.is_none()) return v;
  Doubles d = as_doubles(obj, name, -1, 0);
  if (d.shape(0) != n)
    refuse_argument(name, "one value per point is needed: " + std::to_string(d.shape(0)) + " for " +
                              std::to_string(n) + " points");
  for (int i = 0; i < n; ++i) {
    const double w = d.data()[i];
    if (!std::isfinite(w) || w < 0.0) refuse_argument(name, "row " + std::to_string(i) + " is negative or not finite");
    v[static_cast<size_t>(i)] = w;
  }
  return v;
}

// A frame given as (normal, x direction) rows, as giWorkplane3 is built.
giWorkplane3 frame_of(double const* v, std::string const& name) {
  giUnitVec3 normal(v[0], v[1], v[2]);
  if (normal.invalid()) refuse_argument(name, "the frame's normal is zero or not finite");
  giVector3 x(v[3], v[4], v[5]);
  if (!std::isfinite(x.x()) || !std::isfinite(x.y()) || !std::isfinite(x.z()))
    refuse_argument(name, "the frame's x direction is not finite");
  return giWorkplane3(giPoint3(0, 0, 0), normal, x);
}

// The RPS alignment of reference points: locks (n, 3) of 0/1 flags on the frame's x, y and
// normal axes; one frame for all records ((2, 3): normal, x direction) or one per record
// ((n, 2, 3)); the world axes when none is given.
py::dict rps_fit(py::handle measured_obj, py::handle nominal_obj, py::handle locks_obj, py::handle weights_obj,
                 py::handle frame_obj) {
  Points3 m(measured_obj, "measured", 1, true);
  const int n = m.count();
  Points3 q(nominal_obj, "nominal", 1, true);
  if (q.count() != n)
    refuse_argument("nominal", "one nominal point per measured point is needed: " + std::to_string(q.count()) +
                                   " for " + std::to_string(n));
  Doubles locks = as_doubles(locks_obj, "locks", 3, 0);
  if (locks.shape(0) != n) refuse_argument("locks", "one (x, y, z) row of 0/1 flags per measured point is needed");
  for (py::ssize_t i = 0; i < locks.size(); ++i)
    if (locks.data()[i] != 0.0 && locks.data()[i] != 1.0)
      refuse_argument("locks", "row " + std::to_string(i / 3) + ": a lock flag is 0 or 1");
  const std::vector<double> weights = per_row(weights_obj, "weights", n, 1.0);
  std::vector<giWorkplane3> frames(1);
  if (!frame_obj.is_none()) {
    py::array a = py::array::ensure(frame_obj);
    if (a && a.ndim() == 3) {  // one frame per record
      Doubles f = Doubles::ensure(a);
      if (!f || f.shape(0) != n || f.shape(1) != 2 || f.shape(2) != 3)
        refuse_argument("frame", "expected shape (2, 3) or (n, 2, 3), got " + shape_text(a));
      frames.clear();
      for (int i = 0; i < n; ++i) frames.push_back(frame_of(f.data() + 6 * i, "frame"));
    } else {
      Doubles f = as_doubles(frame_obj, "frame", 3, 2);
      if (f.shape(0) != 2) refuse_argument("frame", "expected shape (2, 3) or (n, 2, 3), got " + shape_text(f));
      frames[0] = frame_of(f.data(), "frame");
    }
  }
  giXform3 x;
  double rms = 0.0, worst = 0.0;
  run("rps_fit", [&] {
    gfRPSDatacoDynArr data;
    data.reserve(n);
    for (int i = 0; i < n; ++i) {
      double const* l = locks.data() + 3 * i;
      data.append(gfRPSData(m.array()[i], q.array()[i], frames[frames.size() == 1 ? 0 : static_cast<size_t>(i)],
                            l[0] != 0.0, l[1] != 0.0, l[2] != 0.0, weights[static_cast<size_t>(i)]));
    }
    return gfRPSFitting(data, x, rms, worst);
  });
  return dict_of("transform", py::object(homogeneous(x)), "rms", rms, "max_deviation", worst);
}

// The nominal profile from a sequence of ("segment", (x0, y0), (x1, y1)) and
// ("arc", (cx, cy), r, start, sweep) items.
void read_profile(py::handle obj, gfNominalProfile2& profile) {
  if (obj.is_none() || !py::isinstance<py::sequence>(obj) || py::isinstance<py::str>(obj))
    refuse_argument("profile", "expected a list of (\"segment\", p0, p1) and (\"arc\", centre, r, start, sweep)");
  auto items = py::reinterpret_borrow<py::sequence>(obj);
  if (items.size() == 0) refuse_argument("profile", "the profile is empty");
  auto point = [](py::handle h) {
    auto v = small_vector(h, "profile", 2);
    return giPoint2(v[0], v[1]);
  };
  for (size_t k = 0; k < items.size(); ++k) {
    const std::string where = "element " + std::to_string(k);
    py::object item = items[k];
    if (!py::isinstance<py::sequence>(item) || py::isinstance<py::str>(item))
      refuse_argument("profile", where + " is not a tuple");
    auto e = py::reinterpret_borrow<py::sequence>(item);
    const std::string kind = e.size() > 0 && py::isinstance<py::str>(e[0]) ? e[0].cast<std::string>() : "";
    bool added = false;
    if (kind == "segment" && e.size() == 3) {
      added = profile.add_segment(point(e[1]), point(e[2]));
    } else if (kind == "arc" && e.size() == 5) {
      double r = 0.0, start = 0.0, sweep = 0.0;
      try {
        r = e[2].cast<double>(), start = e[3].cast<double>(), sweep = e[4].cast<double>();
      } catch (py::cast_error&) {
        refuse_argument("profile", where + ": radius, start and sweep are numbers");
      }
      added = profile.add_arc(point(e[1]), r, start, sweep);
    } else {
      refuse_argument("profile", where + ": expected (\"segment\", p0, p1) or (\"arc\", centre, r, start, sweep)");
    }
    if (!added) refuse_argument("profile", where + " is degenerate or not finite");
  }
}

// The least-squares alignment of section points to a nominal profile of segments and arcs.
py::dict curve_fit(py::handle profile_obj, py::handle pts, py::handle weights_obj, double tol) {
  gfNominalProfile2 profile;
  read_profile(profile_obj, profile);
  Points2 p(pts, "points", 3, true);
  const int n = p.count();
  const std::vector<double> weights = per_row(weights_obj, "weights", n, 1.0);
  if (!std::isfinite(tol) || tol < 0.0) refuse_argument("tol", "a finite tolerance >= 0");
  giXform2 x;
  double dmax = 0.0, smax = 0.0, smin = 0.0;
  int invalid = 0, steps = 0;
  run("curve_fit", [&] {
    gfCurveBestfit2 fit;
    fit.set_projector(&profile);
    for (int i = 0; i < n; ++i)
      fit.add_point(gfFitPoint2coPrf(new gfMeasuredPoint2(p.array()[i])), weights[static_cast<size_t>(i)]);
    const int status = fit.fit(tol, x, dmax, smax, smin, invalid);
    steps = fit.steps_taken();
    return status;
  });
  return dict_of("transform", py::object(homogeneous(x)), "max_distance", dmax, "max_signed", smax, "min_signed",
                 smin, "invalid", invalid, "steps", steps);
}

// One linearised step of measured points onto the lines through their nominal points.
py::dict points_to_lines_step(py::handle measured_obj, py::handle line_points_obj, py::handle normals_obj,
                              py::handle weights_obj, double attraction) {
  Points2 m(measured_obj, "measured", 1, true);
  const int n = m.count();
  Points2 q(line_points_obj, "line_points", 1, true);
  if (q.count() != n) refuse_argument("line_points", "one line point per measured point is needed");
  Points2 normals(normals_obj, "normals", 1, true);
  if (normals.count() != n) refuse_argument("normals", "one normal per measured point is needed");
  for (int i = 0; i < n; ++i)
    if (normals.array()[i].x() == 0.0 && normals.array()[i].y() == 0.0)
      refuse_argument("normals", "row " + std::to_string(i) + " is zero");
  const std::vector<double> weights = per_row(weights_obj, "weights", n, 1.0);
  if (!std::isfinite(attraction) || attraction < 0.0) refuse_argument("attraction", "finite and >= 0");
  giXform2 step;
  run("points_to_lines_step", [&] {
    gfPointsToLines solver;
    solver.reserve(n);
    for (int i = 0; i < n; ++i)
      solver.add(m.array()[i], q.array()[i], giVector2(normals.array()[i].x(), normals.array()[i].y()),
                 weights[static_cast<size_t>(i)]);
    solver.set_fitting_points_attraction(attraction);
    return solver.single_linear_step(step);
  });
  py::array_t<double> mat({2, 2});
  py::array_t<double> t(2);
  for (int r = 0; r < 2; ++r) {
    for (int c = 0; c < 2; ++c) mat.mutable_at(r, c) = step(r, c);
    t.mutable_at(r) = step(r, 2);
  }
  return dict_of("matrix", py::object(mat), "translation", py::object(t));
}

// ---- minimum-zone form ---------------------------------------------------------------------------

py::dict minimum_zone(std::string const& kind, py::handle pts) {
  int (*fit)(giPoint3coDynArr const&, gfMinimumZone&) = nullptr;
  if (kind == "plane") fit = gfMinimumZoneFit::plane;
  if (kind == "line") fit = gfMinimumZoneFit::line3;
  if (kind == "sphere") fit = gfMinimumZoneFit::sphere;
  if (kind == "cylinder") fit = gfMinimumZoneFit::cylinder;
  if (!fit) refuse_argument("element", "no minimum zone for a " + kind + " (plane, line, sphere, cylinder)");
  Points3 p(pts, "points", 1);
  gfMinimumZone z;
  const std::string entry = "minimum_zone_" + kind;
  run(entry.c_str(), [&] { return fit(p.array(), z); }, p);
  auto indices = [](intcoDynArr const& idx) {
    py::array_t<int> a(static_cast<py::ssize_t>(idx.count()));
    std::copy(idx.begin(), idx.end(), a.mutable_data());
    return py::object(a);
  };
  auto direction = [](giUnitVec3 const& u) { return u.invalid() ? py::object(py::none()) : py::object(vec(u)); };
  return dict_of("status", z.status, "certified", z.status == gfMinimumZoneFit::certified, "width", z.width,
                 "point", z.point, "direction", direction(z.direction), "radius", z.radius, "least_squares_width",
                 z.least_squares_width, "least_squares_point", z.least_squares_point, "least_squares_direction",
                 direction(z.least_squares_direction), "least_squares_radius", z.least_squares_radius, "outer",
                 indices(z.outer), "inner", indices(z.inner), "certificate", z.certificate, "iterations",
                 z.iterations);
}

// ---- per-point distances and distribution quality -----------------------------------------------

// The parameters of a result, by name, as the Python package hands them over.
struct Params {
  py::dict d;
  std::vector<double> get(char const* key, int size) const {
    if (!d.contains(key)) refuse_argument("result", std::string("missing field ") + key);
    return small_vector(d[key], key, size);
  }
  double num(char const* key) const {
    if (!d.contains(key)) refuse_argument("result", std::string("missing field ") + key);
    return d[key].cast<double>();
  }
  giPoint3 p3(char const* key) const {
    auto v = get(key, 3);
    return {v[0], v[1], v[2]};
  }
  giUnitVec3 u3(char const* key) const {
    auto v = get(key, 3);
    return {v[0], v[1], v[2]};
  }
  giPoint2 p2(char const* key) const {
    auto v = get(key, 2);
    return {v[0], v[1]};
  }
};

// Distances of all points through a problem class's batch evaluation.
template <class Problem>
py::array_t<double> problem_distances(Problem& problem, mlVector const& p, int n) {
  py::array_t<double> out(n);
  std::vector<double> squares(static_cast<size_t>(n));
  problem.set_parameters(p);
  problem.evaluate_distances(0, n, out.mutable_data(), squares.data());
  return out;
}

// Signed distance in space of point q from a planar curve whose in-plane signed distance is
// `in_plane` and which lies at height `h` off its plane: the radial error and the height
// together, with the in-plane sign.
double with_height(double in_plane, double h) { return std::copysign(std::hypot(in_plane, h), in_plane); }

py::array_t<double> residuals(std::string const& kind, py::dict fields, py::handle pts, py::handle radii_obj,
                              bool inside, py::handle normals_obj) {
  const Params f{fields};
  const bool planar = columns_of(pts, "points") == 2;
  auto need = [&](bool want_planar) {
    if (want_planar != planar)
      refuse_argument("points", std::string("this ") + kind + " needs " + (want_planar ? "2-D" : "3-D") + " points");
  };
  if (kind == "line" || kind == "plane" || kind == "probed_line" || kind == "probed_plane") {
    // Closed forms: the line in the plane and the plane are signed (left of the direction,
    // along the normal); the line in space is the unsigned distance from it. The probed line
    // and plane subtract each ball radius: the centres lie one radius off the surface on
    // the normal's side.
    const bool probed = kind.rfind("probed", 0) == 0;
    const int dim = fields.contains("point") ? static_cast<int>(py::len(fields["point"])) : 3;
    need(dim == 2);
    Doubles d = as_doubles(pts, "points", dim, 0);
    const int n = static_cast<int>(d.shape(0));
    require_finite(d.data(), static_cast<py::ssize_t>(n) * dim, dim, "points");
    doublecoDynArr radii;
    if (probed) radii = radii_array(radii_obj, n, "radii");
    auto point = f.get("point", dim);
    auto dir = f.get(kind == "line" ? "direction" : "normal", dim);
    py::array_t<double> out(n);
    double* o = out.mutable_data();
    double const* q = d.data();
    for (int i = 0; i < n; ++i, q += dim) {
      double r = 0.0;
      if (kind == "line" && dim == 2) {
        r = dir[0] * (q[1] - point[1]) - dir[1] * (q[0] - point[0]);
      } else if (kind == "line") {
        giVector3 w = giVector3(dir[0], dir[1], dir[2]).cross({q[0] - point[0], q[1] - point[1], q[2] - point[2]});
        r = w.length();
      } else {
        for (int k = 0; k < dim; ++k) r += dir[k] * (q[k] - point[k]);
        if (probed) r -= radii[i];
      }
      o[i] = r;
    }
    return out;
  }
  if (kind == "circle" && planar) {
    Points2 p(pts, "points", 0, true);
    auto c = f.p2("centre");
    gfLeastSquareCircle2 problem(p.array());
    return problem_distances(problem, mlVector{c.x(), c.y(), f.num("radius")}, p.count());
  }
  if (kind == "probed_circle") {
    need(true);
    Points2 p(pts, "points", 0, true);
    auto c = f.p2("centre");
    gfLeastSquareProbedCircle2 problem(p.array(), radii_array(radii_obj, p.count(), "radii"), inside);
    return problem_distances(problem, mlVector{c.x(), c.y(), f.num("radius")}, p.count());
  }
  if (kind == "circle" || kind == "ellipse") {
    // A curve in space: its in-plane signed distance combined with the height off its plane.
    if (kind == "ellipse" && planar) {
      Points2 p(pts, "points", 0, true);
      auto c = f.p2("centre");
      gfLeastSquareEllipse problem(p.array());
      return problem_distances(
          problem, mlVector{f.num("major"), f.num("minor"), c.x(), c.y(), f.num("angle")}, p.count());
    }
    need(false);
    Points3 p(pts, "points", 0, true);
    const giPoint3 c = f.p3("centre");
    const giUnitVec3 nrm = f.u3("normal");
    giUnitVec3 x_axis;
    if (kind == "ellipse") x_axis = f.u3("major_axis");
    const giVector3 y_axis = nrm.cross(giVector3(x_axis));
    const double a = kind == "ellipse" ? f.num("major") : f.num("radius");
    const double b = kind == "ellipse" ? f.num("minor") : a;
    const int n = p.count();
    py::array_t<double> out(n);
    double* o = out.mutable_data();
    if (kind == "circle") {
      for (int i = 0; i < n; ++i) {
        const giVector3 d = p.array()[i] - c;
        o[i] = with_height(nrm.cross(d).length() - a, nrm.dot(d));
      }
      return out;
    }
    // The ellipse: the points in the frame of its axes, measured by the plane ellipse
    // problem placed at that frame's origin (angle 0), then their heights added.
    giPoint2coDynArr in_plane(n, 16);
    for (int i = 0; i < n; ++i) {
      const giVector3 d = p.array()[i] - c;
      in_plane.append(giPoint2(x_axis.dot(d), y_axis.dot(d)));
    }
    gfLeastSquareEllipse problem(in_plane);
    std::vector<double> squares(static_cast<size_t>(n));
    problem.set_parameters(mlVector{a, b, 0.0, 0.0, 0.0});
    problem.evaluate_distances(0, n, o, squares.data());
    for (int i = 0; i < n; ++i) o[i] = with_height(o[i], nrm.dot(p.array()[i] - c));
    return out;
  }
  need(false);
  Points3 p(pts, "points", 0, true);
  const int n = p.count();
  if (kind == "sphere" || kind == "probed_sphere") {
    auto c = f.p3("centre");
    mlVector v{c.x(), c.y(), c.z(), f.num("radius")};
    if (kind == "sphere") {
      gfLeastSquareSphere problem(p.array());
      return problem_distances(problem, v, n);
    }
    gfLeastSquareProbedSphere problem(p.array(), radii_array(radii_obj, n, "radii"), inside);
    return problem_distances(problem, v, n);
  }
  if (kind == "cylinder" || kind == "probed_cylinder") {
    auto a = f.p3("point");
    auto u = f.u3("direction");
    mlVector v{a.x(), a.y(), a.z(), u.x(), u.y(), u.z(), f.num("radius")};
    if (kind == "cylinder") {
      gfLeastSquareCylinder problem(p.array());
      return problem_distances(problem, v, n);
    }
    gfLeastSquareProbedCylinder problem(p.array(), radii_array(radii_obj, n, "radii"), inside);
    return problem_distances(problem, v, n);
  }
  if (kind == "cone" || kind == "probed_cone") {
    // The cone problem with its axis point at the apex (offset 0), axis towards the apex.
    auto a = f.p3("apex");
    auto u = f.u3("axis");
    mlVector v{a.x(), a.y(), a.z(), u.x(), u.y(), u.z(), 0.0, f.num("half_angle")};
    if (kind == "cone") {
      gfLeastSquareCone problem(p.array());
      return problem_distances(problem, v, n);
    }
    gfLeastSquareProbedCone problem(p.array(), radii_array(radii_obj, n, "radii"), inside);
    return problem_distances(problem, v, n);
  }
  if (kind == "torus" || kind == "probed_torus") {
    auto c = f.p3("centre");
    auto u = f.u3("axis");
    gfLeastSquareTorus problem(p.array());
    py::array_t<double> out =
        problem_distances(problem, mlVector{c.x(), c.y(), c.z(), u.x(), u.y(), u.z(), f.num("r1"), f.num("r2")}, n);
    if (kind == "probed_torus") {
      const doublecoDynArr radii = radii_array(radii_obj, n, "radii");
      double* o = out.mutable_data();
      for (int i = 0; i < n; ++i) o[i] += inside ? radii[i] : -radii[i];
    }
    return out;
  }
  if (kind == "axis") {
    if (normals_obj.is_none()) refuse_argument("normals", "the axis of revolution's distances need the normals");
    const giUnitVec3coDynArr normals = normals_array(normals_obj, n, "normals");
    auto a = f.p3("point");
    auto u = f.u3("direction");
    gfLeastSquareAxisRev problem(p.array(), normals);
    py::array_t<double> out(n);
    problem.set_parameters(mlVector{a.x(), a.y(), a.z(), u.x(), u.y(), u.z()});
    double* o = out.mutable_data();
    for (int i = 0; i < n; ++i) problem.get_distance(o[i], i);
    return out;
  }
  refuse_argument("kind", "no distances for a " + kind);
}

double distribution_quality(std::string const& kind, py::dict fields, py::handle pts, py::handle radii_obj,
                            bool inside, py::handle contacts_obj) {
  using Q = gfLeastSquareDistributionQuality;
  const Params f{fields};
  double q = 0.0;
  if (columns_of(pts, "points") == 2) {
    Points2 p(pts, "points", 1, true);
    // The field reads touch Python objects, so they are done before the lock is released.
    q = -1.0;
    if (kind == "line") {
      auto pt = f.p2("point");
      auto d = f.get("direction", 2);
      const giUnitVec2 u(d[0], d[1]);
      q = unlocked([&] { return Q::distribution_quality_line(p.array(), pt, u); });
    } else if (kind == "circle" || kind == "probed_circle") {
      auto c = f.p2("centre");
      const double r = f.num("radius");
      doublecoDynArr radii;
      if (kind == "probed_circle") radii = radii_array(radii_obj, p.count(), "radii");
      q = unlocked([&] {
        return kind == "circle" ? Q::distribution_quality_circle(p.array(), c, r)
                                : Q::distribution_quality_probed_circle(p.array(), radii, inside, c, r);
      });
    } else if (kind == "ellipse") {
      auto c = f.p2("centre");
      const double a = f.num("major"), b = f.num("minor"), angle = f.num("angle");
      q = unlocked([&] { return Q::distribution_quality_ellipse(p.array(), c, a, b, angle); });
    }
  } else {
    Points3 p(pts, "points", 1, true);
    doublecoDynArr radii;
    if (kind.rfind("probed", 0) == 0) radii = radii_array(radii_obj, p.count(), "radii");
    Points3 contacts;
    if (kind == "probed_cone" && !contacts_obj.is_none()) contacts = Points3(contacts_obj, "contacts", 0, true);
    q = -1.0;
    if (kind == "line") {
      auto pt = f.p3("point");
      auto u = f.u3("direction");
      q = unlocked([&] { return Q::distribution_quality_line3(p.array(), pt, u); });
    } else if (kind == "plane") {
      auto pt = f.p3("point");
      auto u = f.u3("normal");
      q = unlocked([&] { return Q::distribution_quality_plane(p.array(), pt, u); });
    } else if (kind == "circle") {
      auto c = f.p3("centre");
      auto u = f.u3("normal");
      double r = f.num("radius");
      q = unlocked([&] { return Q::distribution_quality_circle3(p.array(), c, u, r); });
    } else if (kind == "sphere") {
      auto c = f.p3("centre");
      double r = f.num("radius");
      q = unlocked([&] { return Q::distribution_quality_sphere(p.array(), c, r); });
    } else if (kind == "cylinder" || kind == "probed_cylinder") {
      auto a = f.p3("point");
      auto u = f.u3("direction");
      double r = f.num("radius");
      q = unlocked([&] {
        return kind == "cylinder" ? Q::distribution_quality_cylinder(p.array(), a, u, r)
                                  : Q::distribution_quality_probed_cylinder(p.array(), radii, inside, a, u, r);
      });
    } else if (kind == "cone" || kind == "probed_cone") {
      auto a = f.p3("apex");
      auto u = f.u3("axis");
      double t = f.num("half_angle");
      q = unlocked([&] {
        return kind == "cone"
                   ? Q::distribution_quality_cone(p.array(), a, u, t)
                   : Q::distribution_quality_probed_cone(p.array(), radii, inside, contacts.array(), a, u, t);
      });
    } else if (kind == "torus") {
      auto c = f.p3("centre");
      auto u = f.u3("axis");
      double r1 = f.num("r1"), r2 = f.num("r2");
      q = unlocked([&] { return Q::distribution_quality_torus(p.array(), c, u, r1, r2); });
    }
  }
  if (q < 0.0) refuse_argument("kind", "no distribution quality for a " + kind + " of these points");
  if (q == 0.0 && gfLastReason() != gfReason::none) fit_failed("distribution_quality");
  return q;
}

// ---- uncertainty of least-squares elements -----------------------------------------------------

py::dict uncertainty(std::string const& kind, py::dict fields, py::handle pts) {
  using U = gfLeastSquareUncertainty;
  const Params f{fields};
  gfElementUncertainty u;
  auto no_figures = [&] { refuse_argument("kind", "no uncertainty for a " + kind + " of these points"); };
  if (columns_of(pts, "points") == 2) {
    Points2 p(pts, "points", 1);
    if (kind == "line") {
      const giPoint2 point = f.p2("point");
      const auto d = f.get("direction", 2);
      const giUnitVec2 direction(d[0], d[1]);
      run("uncertainty", [&] { return U::line(p.array(), point, direction, u); }, p);
    } else if (kind == "circle") {
      const giPoint2 c = f.p2("centre");
      const double r = f.num("radius");
      run("uncertainty", [&] { return U::circle(p.array(), c, r, u); }, p);
    } else if (kind == "ellipse" && !fields.contains("normal")) {
      const giPoint2 c = f.p2("centre");
      const double a = f.num("major"), b = f.num("minor"), angle = f.num("angle");
      run("uncertainty", [&] { return U::ellipse(p.array(), c, a, b, angle, u); }, p);
    } else {
      no_figures();
    }
  } else {
    Points3 p(pts, "points", 1);
    if (kind == "line") {
      const giPoint3 point = f.p3("point");
      const giUnitVec3 d = f.u3("direction");
      run("uncertainty", [&] { return U::line3(p.array(), point, d, u); }, p);
    } else if (kind == "plane") {
      const giPoint3 point = f.p3("point");
      const giUnitVec3 normal = f.u3("normal");
      run("uncertainty", [&] { return U::plane(p.array(), point, normal, u); }, p);
    } else if (kind == "circle" && fields.contains("normal")) {
      const giPoint3 c = f.p3("centre");
      const giUnitVec3 normal = f.u3("normal");
      const double r = f.num("radius");
      run("uncertainty", [&] { return U::circle3(p.array(), c, normal, r, u); }, p);
    } else if (kind == "sphere") {
      const giPoint3 c = f.p3("centre");
      const double r = f.num("radius");
      run("uncertainty", [&] { return U::sphere(p.array(), c, r, u); }, p);
    } else if (kind == "cylinder") {
      const giPoint3 a = f.p3("point");
      const giUnitVec3 d = f.u3("direction");
      const double r = f.num("radius");
      run("uncertainty", [&] { return U::cylinder(p.array(), a, d, r, u); }, p);
    } else if (kind == "cone") {
      const giPoint3 apex = f.p3("apex");
      const giUnitVec3 axis = f.u3("axis");
      const double t = f.num("half_angle");
      run("uncertainty", [&] { return U::cone(p.array(), apex, axis, t, u); }, p);
    } else if (kind == "torus") {
      const giPoint3 c = f.p3("centre");
      const giUnitVec3 axis = f.u3("axis");
      const double r1 = f.num("r1"), r2 = f.num("r2");
      run("uncertainty", [&] { return U::torus(p.array(), c, axis, r1, r2, u); }, p);
    } else {
      no_figures();
    }
  }
  return dict_of("sigma", u.sigma, "degrees_of_freedom", u.degrees_of_freedom, "position",
                 py::object(vec({u.position[0], u.position[1], u.position[2]})), "radius", u.radius, "diameter",
                 u.diameter, "second_radius", u.second_radius, "axis_angle", u.axis_angle, "half_angle",
                 u.half_angle, "offset", u.offset, "axis_point", u.axis_point, "independent",
                 py::object(matrix(u.independent)), "parameters", py::object(matrix(u.parameters)));
}

// ---- CAD deviations -------------------------------------------------------------------------------

#ifdef GFIT_PYTHON_CAD
struct CadPart {
  tskSurfPtr surface;
  std::string path;
};

CadPart read_cad(std::string const& path) {
  std::string error;
  tskSurfPtr s;
  {
    py::gil_scoped_release release;
    s = tskSurf::read(path, error);
  }
  if (!s) throw py::value_error("path: " + error);
  return CadPart{s, path};
}

// The deviation of every point from the part: each point is projected as a probed point
// whose approximate normal is the part's outward normal at its nearest foot point. A point
// is invalid when no foot point is found or the nearest one does not see it along the normal
// (beyond a face's edge). The same rule as `gfit deviations`, so the two agree bit for bit.
py::dict cad_deviations(CadPart const& part, py::handle pts, double radius) {
  if (!std::isfinite(radius) || radius < 0.0) refuse_argument("radius", "a probe radius, finite and >= 0");
  Points3 p(pts, "points", 1, true);
  const int n = p.count();
  py::array_t<double> nominal({n, 3}), normal({n, 3}), deviation(n);
  py::array_t<bool> valid(n);
  double* q = nominal.mutable_data();
  double* m = normal.mutable_data();
  double* dev = deviation.mutable_data();
  bool* ok = valid.mutable_data();
  double lowest = INFINITY, highest = -INFINITY, squares = 0.0;
  int accepted = 0;
  {
    py::gil_scoped_release release;
    gfSurfProjectorForFitting3 projector(*part.surface);
    tskSurfPointList feet;
    giXform3 const identity(giXformIdentity{});
    for (int i = 0; i < n; ++i) {
      giPoint3 const& pt = p.array()[i];
      giUnitVec3 outward;
      part.surface->project(pt, feet, [](tskSurfPoint const& foot) { return foot.distance; });
      const bool seen =
          !feet.empty() && part.surface->normal(feet[0], 1e-5, 1e-5, outward) &&
          (feet[0].distance < 1e-4 || outward.cross(pt - feet[0].point).length() <= 0.01 * feet[0].distance);
      gfProjectedPoint3 record;
      if (seen) gfProbedPoint3(pt, outward, radius).project_from_position(identity, record, &projector);
      ok[i] = !record.invalid();
      for (int k = 0; k < 3; ++k) {
        q[3 * i + k] = ok[i] ? record.nominal_point()[k] : NAN;
        m[3 * i + k] = ok[i] ? record.nominal_normal()[k] : NAN;
      }
      dev[i] = ok[i] ? record.signed_distance() : NAN;
      if (ok[i]) {  // the summary in the command-line program's order, for equal bits
        lowest = std::min(lowest, dev[i]);
        highest = std::max(highest, dev[i]);
        squares += dev[i] * dev[i];
        ++accepted;
      }
    }
  }
  return dict_of("nominal", nominal, "normal", normal, "deviation", deviation, "valid", valid, "count", n, "invalid",
                 n - accepted, "min", accepted ? lowest : NAN, "max", accepted ? highest : NAN, "rms",
                 accepted ? std::sqrt(squares / accepted) : NAN);
}

// The surface best fit of measured points to a CAD part, as `gfit align` does it: an optional
// rough alignment from corresponding points, approximate normals from each point's nearest
// foot (a point that no foot sees along its normal is left out and reported invalid), then
// the best fit under tolerance bands and locks, or the alignment with x and y scale factors
// when `scale_passes` > 0.
py::dict cad_align(CadPart const& part, py::handle pts, double tol, py::handle pairs_measured,
                   py::handle pairs_nominal, py::handle bands_obj, py::handle lock_origin_obj,
                   py::handle lock_rotations_obj, int scale_passes) {
  if (!(tol > 0.0) || !std::isfinite(tol)) refuse_argument("tol", "a positive tolerance");
  if (scale_passes < 0 || scale_passes > 1000) refuse_argument("scale_passes", "a count of passes from 0 to 1000");
  const bool locked = !bands_obj.is_none() || !lock_origin_obj.is_none() || !lock_rotations_obj.is_none();
  if (scale_passes > 0 && locked) refuse_argument("scale_passes", "the scaled alignment takes no locks or bands");
  Points3 measured(pts, "points", 3, true);
  const int n = measured.count();
  Points3 pm, pn;
  if (pairs_measured.is_none() != pairs_nominal.is_none())
    refuse_argument(pairs_measured.is_none() ? "pairs_measured" : "pairs_nominal", "rough pairs need both arrays");
  if (!pairs_measured.is_none()) {
    pm = Points3(pairs_measured, "pairs_measured", 3, true);
    pn = Points3(pairs_nominal, "pairs_nominal", 3, true);
    if (pm.count() != pn.count()) refuse_argument("pairs_nominal", "one nominal point per measured pair point");
  }
  std::vector<double> lower(static_cast<size_t>(n), -DBL_MAX), upper(static_cast<size_t>(n), DBL_MAX);
  if (!bands_obj.is_none()) {
    Doubles b = as_doubles(bands_obj, "bands", 2, 0);
    if (b.shape(0) != n) refuse_argument("bands", "one (lower, upper) row per point is needed");
    require_finite(b.data(), b.size(), 2, "bands");
    for (int i = 0; i < n; ++i) lower[i] = b.data()[2 * i], upper[i] = b.data()[2 * i + 1];
  }
  std::vector<giPoint3> origin_lock;
  if (!lock_origin_obj.is_none()) {
    Doubles o = as_doubles(lock_origin_obj, "lock_origin", 3, 2);
    if (o.shape(0) != 2) refuse_argument("lock_origin", "two rows: the measured point and the nominal point");
    require_finite(o.data(), 6, 3, "lock_origin");
    origin_lock = {giPoint3(o.data()[0], o.data()[1], o.data()[2]), giPoint3(o.data()[3], o.data()[4], o.data()[5])};
  }
  std::vector<giVector3> rotation_locks;
  if (!lock_rotations_obj.is_none()) {
    Doubles r = as_doubles(lock_rotations_obj, "lock_rotations", 3, 1);
    if (r.shape(0) > 3) refuse_argument("lock_rotations", "one to three axes");
    require_finite(r.data(), r.size(), 3, "lock_rotations");
    for (int i = 0; i < r.shape(0); ++i)
      rotation_locks.emplace_back(r.data()[3 * i], r.data()[3 * i + 1], r.data()[3 * i + 2]);
    rotation_locks.resize(3, giVector3());
  }

  giXform3 rough(giXformIdentity{}), result;
  double sx = 1.0, sy = 1.0;
  int status = 0, steps = 0;
  std::vector<int> fitted;
  gfProjectedPoint3coDynArr cloud;
  intcoDynArr contradictory;
  std::string failure;
  {
    py::gil_scoped_release release;
    auto& surface = *part.surface;
    [&] {
      if (pm.count() > 0) {
        gfPointsToPoints pp;
        for (int i = 0; i < pm.count(); ++i) pp.add_pair(pm.array()[i], pn.array()[i]);
        if (!pp.get_xform(rough)) {
          failure = std::string("pairs_measured: the pairs do not fix a transform: ") + gfLastReasonText();
          return;
        }
      }
      std::vector<gfFitPoint3coPrf> points;
      tskSurfPointList feet;
      for (int i = 0; i < n; ++i) {
        giPoint3 p = rough * measured.array()[i];
        giUnitVec3 outward;
        surface.project(p, feet, [](tskSurfPoint const& foot) { return foot.distance; });
        const bool seen =
            !feet.empty() && surface.normal(feet[0], 1e-5, 1e-5, outward) &&
            (feet[0].distance < 1e-4 || outward.cross(p - feet[0].point).length() <= 0.01 * feet[0].distance);
        if (!seen) continue;
        points.emplace_back(new gfProbedPoint3(p, outward, 0.0));
        fitted.push_back(i);
      }
      if (points.size() < 3) {
        failure = "points: fewer than 3 points lie over a face of the part";
        return;
      }
      gfSurfProjectorForFitting3 projector(surface);
      gfSurfaceBestfit bf;
      bf.set_projector(&projector);
      bf.reserve_points(n);
      for (size_t k = 0; k < points.size(); ++k) bf.add_point(points[k], lower[fitted[k]], upper[fitted[k]], 1.0);
      if (!origin_lock.empty()) bf.lock_origin(rough * origin_lock[0], origin_lock[1]);
      if (!rotation_locks.empty()) bf.lock_rotations(rotation_locks[0], rotation_locks[1], rotation_locks[2]);
      if (scale_passes > 0) {
        giPoint3coPageArr none, cloud_points;
        for (int i : fitted) cloud_points.append(measured.array()[i]);
        giXform3 start = rough;
        // The alignment may hand back the part scaled by the factors found; the deviations
        // are measured from that one, and the caller's part is left as it was.
        tskSurfPtr scaled_part = part.surface;
        gfBestfitAlignmentWithScale::get_alignment(scaled_part, none, none, cloud_points, tol,
                                                   gfSurfaceBestfit::max_steps, start, result, sx, sy, scale_passes);
        status = result.is_unset() ? 0 : 1;
        gfSurfProjectorForFitting3 scaled(*scaled_part);
        cloud.expand(static_cast<int>(points.size()));
        for (size_t k = 0; k < points.size(); ++k)
          points[k]->project_from_position(result * giXform3(giXformInverse{}, rough), cloud[static_cast<int>(k)],
                                           &scaled);
      } else {
        double dmax = 0, smax = 0, smin = 0;
        int n_invalid = 0;
        status = bf.fit(tol, result, dmax, smax, smin, n_invalid);
        if (!result.is_unset()) result = result * rough;
        cloud = bf.get_pointcloud();
        steps = bf.steps_taken();
      }
      contradictory = bf.overdetermined_constraints();
      if (status != 1 && result.is_unset()) failure = std::string("cad_align: ") + gfLastReasonText();
    }();
  }
  if (!failure.empty()) throw py::value_error(failure);

  py::array_t<double> deviation(n);
  double* dev = deviation.mutable_data();
  std::fill(dev, dev + n, NAN);
  double squares = 0, lowest = INFINITY, highest = -INFINITY;
  int valid = 0;
  for (int k = 0; k < cloud.count(); ++k) {
    if (cloud[k].invalid()) continue;
    const double s = cloud[k].signed_distance();
    dev[fitted[k]] = s;
    squares += s * s;
    lowest = std::min(lowest, s);
    highest = std::max(highest, s);
    ++valid;
  }
  py::array_t<double> transform({4, 4});
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) transform.mutable_at(r, c) = r < 3 ? result(r, c) : (c == 3 ? 1.0 : 0.0);
  py::array_t<int> left_out(static_cast<py::ssize_t>(contradictory.count()));
  std::copy(contradictory.begin(), contradictory.end(), left_out.mutable_data());
  return dict_of("status", status, "transform", py::object(transform), "deviation", py::object(deviation), "rms",
                 valid ? std::sqrt(squares / valid) : NAN, "min", valid ? lowest : NAN, "max",
                 valid ? highest : NAN, "invalid", n - valid, "steps", steps, "scale_x", sx, "scale_y", sy,
                 "contradictory_limits", py::object(left_out));
}
// The placement of points measured on a blank or casting over the CAD part that maximises the
// smallest signed deviation (the largest uniform allowance), as `gfit allowance` does it:
// approximate normals from each point's nearest foot, a point that no foot sees along its
// normal left out and counted invalid.
py::dict cad_allowance(CadPart const& part, py::handle pts) {
  Points3 measured(pts, "points", 4, true);
  const int n = measured.count();
  giXform3 result;
  double lowest = 0.0, highest = 0.0;
  int invalid = 0, left_out = 0, steps = 0;
  py::array_t<double> deviation(n);
  double* dev = deviation.mutable_data();
  std::fill(dev, dev + n, NAN);
  run("allowance_to_cad", [&] {
    auto& surface = *part.surface;
    gfSurfaceMaxiMinFit fit;
    fit.reserve_points(n);
    tskSurfPointList feet;
    std::vector<int> fitted;
    fitted.reserve(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
      giUnitVec3 outward;
      giPoint3 const& p = measured.array()[i];
      surface.project(p, feet, [](tskSurfPoint const& foot) { return foot.distance; });
      const bool seen =
          !feet.empty() && surface.normal(feet[0], 1e-5, 1e-5, outward) &&
          (feet[0].distance < 1e-4 || outward.cross(p - feet[0].point).length() <= 0.01 * feet[0].distance);
      if (!seen) {
        ++left_out;
        continue;
      }
      fit.add_point(gfFitPoint3coPrf(new gfProbedPoint3(p, outward, 0.0)));
      fitted.push_back(i);
    }
    gfSurfProjectorForFitting3 projector(surface);
    fit.set_projector(&projector);
    const int status = fit.fit(result, lowest, highest, invalid);
    steps = fit.steps_taken();
    if (status == 1) {
      gfProjectedPoint3coDynArr const& cloud = fit.get_pointcloud();
      for (int k = 0; k < cloud.count() && k < static_cast<int>(fitted.size()); ++k)
        if (!cloud[k].invalid()) dev[fitted[static_cast<size_t>(k)]] = cloud[k].signed_distance();
    }
    return status;
  });
  return dict_of("transform", py::object(homogeneous(result)), "allowance", lowest, "max_deviation", highest,
                 "deviation", py::object(deviation), "invalid", invalid + left_out, "steps", steps);
}
#endif

// ---- timing of the bare library call, for the comparison with the Python call ---------------

// Seconds per call of evaluate_plane on a library array built here (not through Python), the
// best of `repeats` calls.
double time_cpp_plane(py::handle pts, int repeats) {
  Doubles d = as_doubles(pts, "points", 3, 3);
  const int n = static_cast<int>(d.shape(0));
  giPoint3coDynArr arr(n, 16);
  for (int i = 0; i < n; ++i) arr.append(giPoint3(d.data()[3 * i], d.data()[3 * i + 1], d.data()[3 * i + 2]));
  py::gil_scoped_release release;
  double best = INFINITY;
  for (int r = 0; r < repeats; ++r) {
    giPoint3 point;
    giUnitVec3 normal;
    double residual;
    auto t0 = std::chrono::steady_clock::now();
    gfLeastSquareEvaluator::evaluate_plane(arr, point, normal, residual);
    auto t1 = std::chrono::steady_clock::now();
    best = std::min(best, std::chrono::duration<double>(t1 - t0).count());
  }
  return best;
}

}  // namespace

PYBIND11_MODULE(_core, m) {
  m.doc() = "The gfit library's fits (the gfit package wraps these in typed results).";
  using py::arg;
  auto none = py::none();
  const double ten_degrees = 10.0 * (giPi / 180.0);

  m.def("fit_line", &fit_line, arg("points"));
  m.def("fit_line_in_plane", &fit_line_in_plane, arg("points"), arg("origin"), arg("normal"));
  m.def("fit_plane", &fit_plane, arg("points"));
  m.def("fit_circle", &fit_circle, arg("points"));
  m.def("fit_circle_in_plane", &fit_circle_in_plane, arg("points"), arg("origin"), arg("normal"));
  m.def("fit_sphere", &fit_sphere, arg("points"));
  m.def("fit_cylinder", &fit_cylinder, arg("points"), arg("normals") = none, arg("guess") = none,
        arg("angle") = ten_degrees);
  m.def("fit_cylinders", &fit_cylinders, arg("points"), arg("normals"), arg("tolerance"), arg("angle"), arg("count"));
  m.def("fit_cone", &fit_cone, arg("points"), arg("normals") = none, arg("guess") = none, arg("angle") = ten_degrees);
  m.def("fit_cones", &fit_cones, arg("points"), arg("normals"), arg("tolerance"), arg("angle"), arg("count"));
  m.def("fit_ellipse", &fit_ellipse, arg("points"));
  m.def("fit_ellipse_in_plane", &fit_ellipse_in_plane, arg("points"), arg("origin"), arg("normal"),
        arg("direction") = none);
  m.def("fit_torus", &fit_torus, arg("points"), arg("centre") = none, arg("axis") = none);
  m.def("fit_axis_of_revolution", &fit_axis_of_revolution, arg("points"), arg("normals"));
  m.def("fit_probed_circle", &fit_probed_circle, arg("points"), arg("radii"), arg("inside"));
  m.def("fit_probed_sphere", &fit_probed_sphere, arg("points"), arg("radii"), arg("inside"));
  m.def("fit_probed_plane", &fit_probed_plane, arg("points"), arg("radii"), arg("normals"));
  m.def("fit_probed_cylinder", &fit_probed_cylinder, arg("points"), arg("radii"), arg("inside"),
        arg("normals") = none, arg("guess") = none, arg("angle") = ten_degrees);
  m.def("fit_probed_cone", &fit_probed_cone, arg("points"), arg("radii"), arg("inside"), arg("contacts") = none,
        arg("normals") = none, arg("guess") = none, arg("angle") = ten_degrees);
  m.def("fit_probed_torus", &fit_probed_torus, arg("points"), arg("radii"), arg("inside"));
  m.def("direct_circle", &direct_circle, arg("points"));
  m.def("direct_ellipse", &direct_ellipse, arg("points"));
  m.def("direct_sphere", &direct_sphere, arg("points"));
  m.def("min_circumscribed_circle", &min_circumscribed_circle, arg("points"), arg("radii") = none,
        arg("outer") = false);
  m.def("max_inscribed_circle", &max_inscribed_circle, arg("points"), arg("radii") = none, arg("inside") = false,
        arg("start") = none, arg("start_radius") = 0.0);
  m.def("minmax_circle", &minmax_circle, arg("points"), arg("radii") = none, arg("inside") = false);
  m.def("convex_hull", &convex_hull, arg("points"));
  m.def("convex_hull_indices", &convex_hull_indices, arg("points"));
  m.def("containment_cone", &containment_cone, arg("directions"));
  m.def("affine_match", &affine_match, arg("source"), arg("target"));
  m.def("points_to_points", &points_to_points, arg("source"), arg("target"));
  m.def("points_to_planes_step", &points_to_planes_step, arg("measured"), arg("nominal"), arg("normals"),
        arg("lower") = none, arg("upper") = none, arg("weights") = none, arg("translations_only") = false,
        arg("attraction") = 0.0);
  m.def("rps_fit", &rps_fit, arg("measured"), arg("nominal"), arg("locks"), arg("weights") = none,
        arg("frame") = none);
  m.def("curve_fit", &curve_fit, arg("profile"), arg("points"), arg("weights") = none, arg("tol") = 1e-9);
  m.def("points_to_lines_step", &points_to_lines_step, arg("measured"), arg("line_points"), arg("normals"),
        arg("weights") = none, arg("attraction") = 0.0);
  m.def("minimum_zone", &minimum_zone, arg("element"), arg("points"));
  m.def("uncertainty", &uncertainty, arg("kind"), arg("fields"), arg("points"));
  m.def("residuals", &residuals, arg("kind"), arg("fields"), arg("points"), arg("radii") = none,
        arg("inside") = false, arg("normals") = none);
  m.def("distribution_quality", &distribution_quality, arg("kind"), arg("fields"), arg("points"),
        arg("radii") = none, arg("inside") = false, arg("contacts") = none);
  m.def("set_max_threads", &gfSetMaxThreads, arg("n"));
  m.def("set_cone_non_physical_tolerance", &gfLeastSquareEvaluator::set_cone_non_physical_tolerance,
        arg("tolerance"));
  m.def("time_cpp_plane", &time_cpp_plane, arg("points"), arg("repeats"));
#ifdef GFIT_PYTHON_CAD
  py::class_<CadPart>(m, "CadPart")
      .def_property_readonly("path", [](CadPart const& c) { return c.path; })
      .def_property_readonly("n_faces", [](CadPart const& c) { return c.surface->n_faces(); })
      .def_property_readonly("box", [](CadPart const& c) {
        giBox3 b = c.surface->box();
        return py::make_tuple(vec(b.min()), vec(b.max()));
      });
  m.def("read_cad", &read_cad, arg("path"));
  m.def("cad_deviations", &cad_deviations, arg("part"), arg("points"), arg("radius") = 0.0);
  m.def("cad_align", &cad_align, arg("part"), arg("points"), arg("tol") = 1e-6, arg("pairs_measured") = none,
        arg("pairs_nominal") = none, arg("bands") = none, arg("lock_origin") = none, arg("lock_rotations") = none,
        arg("scale_passes") = 0);
  m.def("cad_allowance", &cad_allowance, arg("part"), arg("points"));
  m.attr("has_cad") = true;
#else
  m.attr("has_cad") = false;
#endif
}
