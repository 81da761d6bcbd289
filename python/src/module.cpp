// gfit._core: the library's fits for Python.
//
// Each function takes numpy arrays, checks them (a ValueError names the argument at fault),
// releases the interpreter lock for the library call and returns a dict of the result's
// fields, which the Python package turns into typed result objects. A refused or failed fit
// raises ValueError with the reason the library recorded for this thread.
//
// Points arrive as (n, 2) or (n, 3) arrays. A C-contiguous float64 array is lent to the
// library as it is: its rows already have the memory layout of giPoint2 / giPoint3, so the
// library's array is pointed at numpy's buffer (see BorrowedPoints) and nothing is copied.
// Any other layout or real dtype is first converted by numpy.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <chrono>
#include <cmath>
#include <string>
#include <type_traits>
#include <vector>

#include "gfit/gfit.h"
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

// The block fields of the library's dynamic array. The array keeps them private and has no
// way to adopt a block it did not allocate; lending it numpy's buffer for one call needs
// them. Naming a private member in an explicit instantiation is allowed (access is not
// checked there), which gives member pointers without depending on the field layout: a
// renamed field fails to compile instead of misbehaving.
template <class Tag, typename Tag::type Member>
struct ExposeMember {
  friend typename Tag::type member(Tag) { return Member; }
};
// One tag per field and element type: the member pointer's type and the friend through which
// the instantiation below hands it out.
struct Block2 {
  using type = giPoint2* coDynArr<giPoint2>::*;
  friend type member(Block2);
};
struct Capacity2 {
  using type = int coDynArr<giPoint2>::*;
  friend type member(Capacity2);
};
struct Count2 {
  using type = int coDynArr<giPoint2>::*;
  friend type member(Count2);
};
struct Block3 {
  using type = giPoint3* coDynArr<giPoint3>::*;
  friend type member(Block3);
};
struct Capacity3 {
  using type = int coDynArr<giPoint3>::*;
  friend type member(Capacity3);
};
struct Count3 {
  using type = int coDynArr<giPoint3>::*;
  friend type member(Count3);
};
template struct ExposeMember<Block2, &coDynArr<giPoint2>::data_>;
template struct ExposeMember<Capacity2, &coDynArr<giPoint2>::capacity_>;
template struct ExposeMember<Count2, &coDynArr<giPoint2>::count_>;
template struct ExposeMember<Block3, &coDynArr<giPoint3>::data_>;
template struct ExposeMember<Capacity3, &coDynArr<giPoint3>::capacity_>;
template struct ExposeMember<Count3, &coDynArr<giPoint3>::count_>;

template <class P>
struct FieldsOf;
template <>
struct FieldsOf<giPoint2> {
  using Block = Block2;
  using Capacity = Capacity2;
  using Count = Count2;
};
template <>
struct FieldsOf<giPoint3> {
  using Block = Block3;
  using Capacity = Capacity3;
  using Count = Count3;
};

// Row i of a C-contiguous (n, D) float64 array is exactly the object representation of a
// giPoint2 / giPoint3: standard-layout classes of D doubles with no padding, trivially
// copyable and destructible (implicit-lifetime), so the buffer can serve as their block.
static_assert(std::is_standard_layout<giPoint3>::value && sizeof(giPoint3) == 3 * sizeof(double));
static_assert(std::is_standard_layout<giPoint2>::value && sizeof(giPoint2) == 2 * sizeof(double));
static_assert(std::is_trivially_copyable<giPoint3>::value && std::is_trivially_destructible<giPoint3>::value);
static_assert(std::is_trivially_copyable<giPoint2>::value && std::is_trivially_destructible<giPoint2>::value);

// Points of an (n, D) array as the library's array, for the duration of one call. A
// C-contiguous float64 array is lent as it is (no copy); anything else is converted by numpy
// first. The library reads its point arrays through `const&` only, so it never writes, grows
// or frees the lent block; the block is taken back before the array's destructor runs.
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
    const int n = static_cast<int>(source_.shape(0));
    if (check_finite) check();
    array_.*member(typename FieldsOf<P>::Block{}) = reinterpret_cast<P*>(const_cast<double*>(source_.data()));
    array_.*member(typename FieldsOf<P>::Capacity{}) = n;
    array_.*member(typename FieldsOf<P>::Count{}) = n;
  }
  Points(Points const&) = delete;
  Points& operator=(Points const&) = delete;
  Points& operator=(Points&& o) noexcept {
    take_back();
    name_ = std::move(o.name_);
    source_ = std::move(o.source_);
    array_.*member(typename FieldsOf<P>::Block{}) = o.array_.*member(typename FieldsOf<P>::Block{});
    array_.*member(typename FieldsOf<P>::Capacity{}) = o.array_.*member(typename FieldsOf<P>::Capacity{});
    array_.*member(typename FieldsOf<P>::Count{}) = o.array_.*member(typename FieldsOf<P>::Count{});
    o.take_back();
    return *this;
  }
  ~Points() { take_back(); }

  coDynArr<P> const& array() const { return array_; }
  int count() const { return array_.count(); }

  // Raises ValueError naming the argument when a coordinate is not finite.
  void check() const {
    if (source_) require_finite(source_.data(), source_.size(), D, name_);
  }

 private:
  void take_back() {
    array_.*member(typename FieldsOf<P>::Block{}) = nullptr;
    array_.*member(typename FieldsOf<P>::Capacity{}) = 0;
    array_.*member(typename FieldsOf<P>::Count{}) = 0;
  }

  std::string name_;
  Doubles source_;
  coDynArr<P> array_;
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
    if (!std::isfinite(r) || r < 0.0) refuse_argument(name, "radius " + std::to_string(i) + " is negative or not finite");
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

// Clears this thread's reason record before an entry runs, so that an entry that fails
// without recording one is not reported with an earlier call's reason.
void clear_reason() { gfit::detail::succeed(); }

// A failed entry: a non-finite coordinate in one of `arrays` is named as the cause;
// otherwise the reason the library recorded.
template <class... Arrays>
[[noreturn]] void fit_failed(char const* entry, Arrays const&... arrays) {
  (arrays.check(), ...);
  std::string why = gfLastReason() == gfReason::none ? std::string("the fit failed") : std::string(gfLastReasonText());
  throw py::value_error(std::string(entry) + ": " + why);
}

// Runs `call` without the interpreter lock, with this thread's reason record cleared.
template <class F>
auto unlocked(F&& call) {
  py::gil_scoped_release release;
  clear_reason();
  return call();
}

// ---- least-squares fits ---------------------------------------------------------------------

py::dict fit_line(py::handle pts) {
  py::dict out;
  if (columns_of(pts, "points") == 2) {
    Points2 p(pts, "points", 2);
    giPoint2 point;
    giUnitVec2 direction;
    double residual = 0.0;
    if (!unlocked([&] { return gfLeastSquareEvaluator::evaluate_line(p.array(), point, direction, residual); }))
      fit_failed("fit_line", p);
    out["point"] = vec(point);
    out["direction"] = vec(direction);
    out["residual"] = residual;
    return out;
  }
  Points3 p(pts, "points", 2);
  giPoint3 point;
  giUnitVec3 direction;
  double residual = 0.0;
  if (!unlocked([&] { return gfLeastSquareEvaluator::evaluate_line3(p.array(), point, direction, residual); }))
    fit_failed("fit_line", p);
  out["point"] = vec(point);
  out["direction"] = vec(direction);
  out["residual"] = residual;
  return out;
}

py::dict fit_line_in_plane(py::handle pts, py::handle origin_obj, py::handle normal_obj) {
  Points3 p(pts, "points", 2);
  const giPoint3 origin = point3_arg(origin_obj, "origin");
  const giUnitVec3 normal = direction3_arg(normal_obj, "normal");
  giPoint3 point;
  giUnitVec3 direction;
  double residual = 0.0;
  if (!unlocked([&] {
        return gfLeastSquareEvaluator::evaluate_line2(origin, normal, p.array(), point, direction, residual);
      }))
    fit_failed("fit_line", p);
  py::dict out;
  out["point"] = vec(point);
  out["direction"] = vec(direction);
  out["residual"] = residual;
  return out;
}

py::dict fit_plane(py::handle pts) {
  Points3 p(pts, "points", 3);
  giPoint3 point;
  giUnitVec3 normal;
  double residual = 0.0;
  if (!unlocked([&] { return gfLeastSquareEvaluator::evaluate_plane(p.array(), point, normal, residual); }))
    fit_failed("fit_plane", p);
  py::dict out;
  out["point"] = vec(point);
  out["normal"] = vec(normal);
  out["residual"] = residual;
  return out;
}

py::dict fit_circle(py::handle pts) {
  py::dict out;
  double radius = 0.0, residual = 0.0;
  if (columns_of(pts, "points") == 2) {
    Points2 p(pts, "points", 3);
    giPoint2 centre;
    if (!unlocked([&] { return gfLeastSquareEvaluator::evaluate_circle(p.array(), centre, radius, residual); }))
      fit_failed("fit_circle", p);
    out["centre"] = vec(centre);
  } else {
    Points3 p(pts, "points", 3);
    giPoint3 centre;
    giUnitVec3 normal;
    if (!unlocked(
            [&] { return gfLeastSquareEvaluator::evaluate_circle3(p.array(), centre, normal, radius, residual); }))
      fit_failed("fit_circle", p);
    out["centre"] = vec(centre);
    out["normal"] = vec(normal);
  }
  out["radius"] = radius;
  out["residual"] = residual;
  return out;
}

py::dict fit_circle_in_plane(py::handle pts, py::handle origin_obj, py::handle normal_obj) {
  Points3 p(pts, "points", 3);
  const giPoint3 origin = point3_arg(origin_obj, "origin");
  const giUnitVec3 normal = direction3_arg(normal_obj, "normal");
  giPoint3 centre;
  double radius = 0.0, residual = 0.0;
  if (!unlocked([&] {
        return gfLeastSquareEvaluator::evaluate_circle2(origin, normal, p.array(), centre, radius, residual);
      }))
    fit_failed("fit_circle", p);
  py::dict out;
  out["centre"] = vec(centre);
  out["normal"] = vec(normal);
  out["radius"] = radius;
  out["residual"] = residual;
  return out;
}

py::dict fit_sphere(py::handle pts) {
  Points3 p(pts, "points", 4);
  giPoint3 centre;
  double radius = 0.0, residual = 0.0;
  if (!unlocked([&] { return gfLeastSquareEvaluator::evaluate_sphere(p.array(), centre, radius, residual); }))
    fit_failed("fit_sphere", p);
  py::dict out;
  out["centre"] = vec(centre);
  out["radius"] = radius;
  out["residual"] = residual;
  return out;
}

py::dict axis_result(giPoint3 const& point, giUnitVec3 const& direction, double radius, double residual) {
  py::dict out;
  out["point"] = vec(point);
  out["direction"] = vec(direction);
  out["radius"] = radius;
  out["residual"] = residual;
  return out;
}

py::dict cone_result(giPoint3 const& apex, giUnitVec3 const& axis, double half_angle, double residual) {
  py::dict out;
  out["apex"] = vec(apex);
  out["axis"] = vec(axis);
  out["half_angle"] = half_angle;
  out["residual"] = residual;
  return out;
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
  const int status = unlocked([&] {
    return normals.empty() ? gfLeastSquareEvaluator::evaluate_cylinder(p.array(), point, direction, radius, residual,
                                                                       guess, angle, 0)
                           : gfLeastSquareEvaluator::evaluate_cylinder(p.array(), normals, angle, point, direction,
                                                                       radius, residual, 0);
  });
  if (!status) fit_failed("fit_cylinder", p);
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
  const int status = unlocked([&] {
    return normals.empty() ? gfLeastSquareEvaluator::evaluate_cone(p.array(), apex, axis, half_angle, residual, guess,
                                                                   angle, 0)
                           : gfLeastSquareEvaluator::evaluate_cone(p.array(), normals, angle, apex, axis, half_angle,
                                                                   residual, 0);
  });
  if (!status) fit_failed("fit_cone", p);
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
  if (!unlocked([&] {
        return gfLeastSquareEvaluator::evaluate_ellipse(p.array(), centre, major, minor, angle, residual);
      }))
    fit_failed("fit_ellipse", p);
  py::dict out;
  out["centre"] = vec(centre);
  out["major"] = major;
  out["minor"] = minor;
  out["angle"] = angle;
  out["residual"] = residual;
  return out;
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
  if (!unlocked([&] {
        return gfLeastSquareEvaluator::evaluate_ellipse2(origin, normal, direction, p.array(), centre, major, minor,
                                                         angle, residual);
      }))
    fit_failed("fit_ellipse", p);
  py::dict out;
  out["centre"] = vec(centre);
  out["normal"] = vec(normal);
  out["major_axis"] = vec(in_plane_direction(origin, normal, direction, angle));
  out["major"] = major;
  out["minor"] = minor;
  out["angle"] = angle;
  out["residual"] = residual;
  return out;
}

py::dict torus_result(giPoint3 const& centre, giUnitVec3 const& axis, double r1, double r2, double residual) {
  py::dict out;
  out["centre"] = vec(centre);
  out["axis"] = vec(axis);
  out["r1"] = r1;
  out["r2"] = r2;
  out["residual"] = residual;
  return out;
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
    status = unlocked([&] { return gfLeastSquareEvaluator::evaluate_torus(p.array(), centre, axis, r1, r2, residual); });
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
  if (!unlocked([&] {
        return gfLeastSquareEvaluator::evaluate_axis_rev(p.array(), normals, point, direction, residual);
      }))
    fit_failed("fit_axis_of_revolution", p);
  py::dict out;
  out["point"] = vec(point);
  out["direction"] = vec(direction);
  out["residual"] = residual;
  return out;
}

// ---- probe-compensated fits -------------------------------------------------------------------

py::dict fit_probed_circle(py::handle pts, py::handle radii_obj, bool inside) {
  Points2 p(pts, "points", 3);
  const doublecoDynArr radii = radii_array(radii_obj, p.count(), "radii");
  giPoint2 centre;
  double radius = 0, residual = 0;
  if (!unlocked([&] {
        return gfLeastSquareEvaluator::evaluate_probed_circle(p.array(), radii, inside, centre, radius, residual);
      }))
    fit_failed("fit_probed_circle", p);
  py::dict out;
  out["centre"] = vec(centre);
  out["radius"] = radius;
  out["residual"] = residual;
  return out;
}

py::dict fit_probed_sphere(py::handle pts, py::handle radii_obj, bool inside) {
  Points3 p(pts, "points", 4);
  const doublecoDynArr radii = radii_array(radii_obj, p.count(), "radii");
  giPoint3 centre;
  double radius = 0, residual = 0;
  if (!unlocked([&] {
        return gfLeastSquareEvaluator::evaluate_probed_sphere(p.array(), radii, inside, centre, radius, residual);
      }))
    fit_failed("fit_probed_sphere", p);
  py::dict out;
  out["centre"] = vec(centre);
  out["radius"] = radius;
  out["residual"] = residual;
  return out;
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
    if (!unlocked([&] {
          return gfLeastSquareEvaluator::evaluate_probed_line2(p.array(), radii, normals, point, normal, residual);
        }))
      fit_failed("fit_probed_line", p);
    py::dict out;
    out["point"] = vec(point);
    out["normal"] = vec(normal);
    out["residual"] = residual;
    return out;
  }
  Points3 p(pts, "points", 3);
  const doublecoDynArr radii = radii_array(radii_obj, p.count(), "radii");
  if (normals_obj.is_none()) refuse_argument("normals", "approximate normals, one per point, are required");
  const giUnitVec3coDynArr normals = normals_array(normals_obj, p.count(), "normals");
  giPoint3 point;
  giUnitVec3 normal;
  double residual = 0;
  if (!unlocked([&] {
        return gfLeastSquareEvaluator::evaluate_probed_plane(p.array(), radii, normals, point, normal, residual);
      }))
    fit_failed("fit_probed_plane", p);
  py::dict out;
  out["point"] = vec(point);
  out["normal"] = vec(normal);
  out["residual"] = residual;
  return out;
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
  const int status = unlocked([&] {
    return normals.empty()
               ? gfLeastSquareEvaluator::evaluate_probed_cylinder(p.array(), radii, inside, point, direction, radius,
                                                                  residual, guess, angle, 0)
               : gfLeastSquareEvaluator::evaluate_probed_cylinder(p.array(), radii, inside, normals, angle, point,
                                                                  direction, radius, residual, 0);
  });
  if (!status) fit_failed("fit_probed_cylinder", p);
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
  const int status = unlocked([&] {
    return normals.empty()
               ? gfLeastSquareEvaluator::evaluate_probed_cone(p.array(), radii, inside, contacts.array(), apex, axis,
                                                              half_angle, residual, guess, angle, 0)
               : gfLeastSquareEvaluator::evaluate_probed_cone(p.array(), radii, inside, contacts.array(), normals,
                                                              angle, apex, axis, half_angle, residual, 0);
  });
  if (!status) fit_failed("fit_probed_cone", p, contacts);
  return cone_result(apex, axis, half_angle, residual);
}

py::dict fit_probed_torus(py::handle pts, py::handle radii_obj, bool inside) {
  Points3 p(pts, "points", 7);
  const doublecoDynArr radii = radii_array(radii_obj, p.count(), "radii");
  giPoint3 centre;
  giUnitVec3 axis;
  double r1 = 0, r2 = 0, residual = 0;
  if (!unlocked([&] {
        return gfLeastSquareEvaluator::evaluate_probed_torus(p.array(), radii, inside, centre, axis, r1, r2, residual);
      }))
    fit_failed("fit_probed_torus", p);
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
  py::dict out;
  if (columns_of(pts, "points") == 2) {
    Points2 p(pts, "points", 2);
    auto fit = unlocked([&] { return std::make_unique<gfDirectCircle2>(p.array()); });
    direct_status(fit->status(), "direct_circle", p);
    out["centre"] = vec(fit->centre());
    out["radius"] = fit->radius();
    out["residual"] = fit->chi();
    return out;
  }
  Points3 p(pts, "points", 2);
  auto fit = unlocked([&] { return std::make_unique<gfDirectCircle3>(p.array()); });
  direct_status(fit->status(), "direct_circle", p);
  out["centre"] = vec(fit->centre());
  out["normal"] = vec(fit->workplane().normal());
  out["radius"] = fit->radius();
  out["residual"] = fit->chi();
  return out;
}

py::dict direct_ellipse(py::handle pts) {
  py::dict out;
  if (columns_of(pts, "points") == 2) {
    Points2 p(pts, "points", 2);
    auto fit = unlocked([&] { return std::make_unique<gfDirectEllipse2>(p.array()); });
    direct_status(fit->status(), "direct_ellipse", p);
    out["centre"] = vec(fit->centre());
    out["major"] = fit->a_length();
    out["minor"] = fit->b_length();
    out["major_axis"] = vec(fit->a_axis());
    out["angle"] = fit->angle().radians();
    out["residual"] = fit->chi();
    return out;
  }
  Points3 p(pts, "points", 2);
  auto fit = unlocked([&] { return std::make_unique<gfDirectEllipse3>(p.array()); });
  direct_status(fit->status(), "direct_ellipse", p);
  out["centre"] = vec(fit->centre());
  out["normal"] = vec(fit->workplane().normal());
  out["major"] = fit->a_length();
  out["minor"] = fit->b_length();
  out["major_axis"] = vec(fit->a_axis());
  out["residual"] = fit->chi();
  return out;
}

py::dict direct_sphere(py::handle pts) {
  Points3 p(pts, "points", 4);
  auto fit = unlocked([&] { return std::make_unique<gfSphereFit>(p.array()); });
  direct_status(fit->status(), "direct_sphere", p);
  py::dict out;
  out["centre"] = vec(fit->centre());
  out["radius"] = fit->radius();
  out["residual"] = fit->chi();
  return out;
}

// ---- extremal fits, hull, containment cone ----------------------------------------------------

py::dict circle_result(giCircle2 const& c, char const* entry, Points2 const& p) {
  if (c.invalid()) fit_failed(entry, p);
  py::dict out;
  out["centre"] = vec(c.centre());
  out["radius"] = c.radius();
  return out;
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
  if (!unlocked([&] { return gfContainmentCone(directions).solve(axis, angle); })) fit_failed("containment_cone");
  py::dict out;
  out["axis"] = vec(axis);
  out["half_angle"] = angle.radians();
  return out;
}

// ---- affine match -------------------------------------------------------------------------------

py::dict affine_match(py::handle from_obj, py::handle to_obj) {
  const int dim = columns_of(from_obj, "source");
  py::dict out;
  if (dim == 3) {
    Points3 a(from_obj, "source", 1), b(to_obj, "target", 1);
    if (a.count() != b.count())
      refuse_argument("target", "one target per source point: " + std::to_string(b.count()) + " for " +
                                    std::to_string(a.count()));
    giXform3 x;
    double rms = 0.0;
    if (!unlocked([&] { return gfPointsAffineMatch::match(a.array(), b.array(), x, rms); }))
      fit_failed("affine_match", a, b);
    py::array_t<double> m({3, 3});
    py::array_t<double> t(3);
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) m.mutable_at(r, c) = x(r, c);
      t.mutable_at(r) = x(r, 3);
    }
    out["matrix"] = m;
    out["translation"] = t;
    out["rms"] = rms;
    return out;
  }
  Points2 a(from_obj, "source", 1), b(to_obj, "target", 1);
  if (a.count() != b.count())
    refuse_argument("target", "one target per source point: " + std::to_string(b.count()) + " for " +
                                  std::to_string(a.count()));
  giXform2 x;
  double rms = 0.0;
  if (!unlocked([&] { return gfPointsAffineMatch::match(a.array(), b.array(), x, rms); })) fit_failed("affine_match", a, b);
  py::array_t<double> m({2, 2});
  py::array_t<double> t(2);
  for (int r = 0; r < 2; ++r) {
    for (int c = 0; c < 2; ++c) m.mutable_at(r, c) = x(r, c);
    t.mutable_at(r) = x(r, 2);
  }
  out["matrix"] = m;
  out["translation"] = t;
  out["rms"] = rms;
  return out;
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
    py::array_t<double> out(p.count());
    double* o = out.mutable_data();
    for (int i = 0; i < p.count(); ++i) {
      const giVector3 d = p.array()[i] - c;
      const double h = nrm.dot(d);
      double in_plane;
      if (kind == "circle") {
        in_plane = nrm.cross(d).length() - a;
      } else {
        double fx, fy;
        in_plane = gfit::detail::ellipse_frame_distance(a, b, x_axis.dot(d), y_axis.dot(d), fx, fy);
      }
      o[i] = with_height(in_plane, h);
    }
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
        return kind == "cone" ? Q::distribution_quality_cone(p.array(), a, u, t)
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
      const bool seen = !feet.empty() && part.surface->normal(feet[0], 1e-5, 1e-5, outward) &&
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
  py::dict out;
  out["nominal"] = nominal;
  out["normal"] = normal;
  out["deviation"] = deviation;
  out["valid"] = valid;
  out["count"] = n;
  out["invalid"] = n - accepted;
  out["min"] = accepted ? lowest : NAN;
  out["max"] = accepted ? highest : NAN;
  out["rms"] = accepted ? std::sqrt(squares / accepted) : NAN;
  return out;
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
  m.attr("has_cad") = true;
#else
  m.attr("has_cad") = false;
#endif
}
