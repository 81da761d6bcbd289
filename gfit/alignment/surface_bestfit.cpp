#include "gfit/alignment/surface_bestfit.h"

#include <cfloat>
#include <cmath>

#include "gfit/platform/quadratic_minimiser.h"
#include "gfit/platform/report.h"
#include "gfit/platform/workplane.h"
#include "gfit/utilities/vector_utils.h"

namespace {
bool point_set(giPoint3 const& p) {
  for (int i = 0; i < 3; ++i)
    if (p[i] == DBL_MAX || p[i] == -DBL_MAX) return false;
  return true;
}
bool limit_ok(double v) { return v == -DBL_MAX || v == DBL_MAX || std::isfinite(v); }
}  // namespace

gfSurfaceBestfit::gfSurfaceBestfit() : cloud_(0, 256) {}

void gfSurfaceBestfit::add_point(gfFitPoint3coPrf const& point) { add_point(point, -DBL_MAX, DBL_MAX, 1.0); }

void gfSurfaceBestfit::add_point(gfFitPoint3coPrf const& point, double lower, double upper, double weight) {
  if (weight == 0.0) return;
  points_.append(point);
  lower_.append(lower);
  upper_.append(upper);
  weights_.append(weight);
}

void gfSurfaceBestfit::reserve_points(int n) {
  if (n > 0) cloud_.reserve(n);
}

void gfSurfaceBestfit::lock_origin(giPoint3 const& measured, giPoint3 const& nominal) {
  lock_point1_ = measured;
  lock_point2_ = nominal;
  locked_ = 1;
}

void gfSurfaceBestfit::lock_axis(gfSurfaceBestfitLockedAxisType type, giVector3 const& measured_direction,
                                 giVector3 const& nominal_direction, giPoint3 const& measured_point,
                                 giPoint3 const& nominal_point) {
  lock_axis_type_ = type;
  lock_direction1_ = measured_direction;
  lock_direction2_ = nominal_direction;
  lock_point1_ = measured_point;
  lock_point2_ = nominal_point;
  locked_ = 1;
}

void gfSurfaceBestfit::lock_rotations(giVector3 const& a, giVector3 const& b, giVector3 const& c) {
  for (giVector3 const* v : {&a, &b, &c})
    if (v->x() != -DBL_MAX) rotation_locks_.append(*v);
  locked_ = 1;
}

void gfSurfaceBestfit::reproject_all_points(giXform3 const& xform) {
  const int n = points_.count();
  cloud_.clear(0);
  cloud_.expand(n);
  for (int i = 0; i < n; ++i) cloud_[i] = gfProjectedPoint3();
  projector_->project_batch([this](int i) -> gfFitPoint3 const& { return *points_[i]; },
                            [this](int i) -> gfProjectedPoint3& { return cloud_[i]; }, n, initial_projection_, xform);
  initial_projection_ = 0;
}

bool gfSurfaceBestfit::inputs_finite() const {
  for (int i = 0; i < points_.count(); ++i)
    if (!std::isfinite(weights_[i]) || !limit_ok(lower_[i]) || !limit_ok(upper_[i]) || !points_[i]) return false;
  return true;
}

int gfSurfaceBestfit::do_iteration(giXform3& step) {
  using gfit::detail::refuse;
  last_step_undone_ = false;
  if (!projector_) return refuse(gfReason::invalid_argument, "no projector was set");
  if (!inputs_finite()) return refuse(gfReason::non_finite_input, "a weight or limit is not finite, or a point is missing");
  if (transformation_.is_unset()) {
    transformation_ = giXform3(giXformIdentity{});
    reproject_all_points(transformation_);
  }

  int n_valid = 0;
  for (int i = 0; i < cloud_.count(); ++i) n_valid += cloud_[i].invalid() ? 0 : 1;
  if (n_valid < 3) return refuse(gfReason::too_few_points, "fewer than three points project onto the nominal object");

  gfPointsToPlanes solver;
  solver.reserve_bestfit(n_valid);
  // The solver numbers the limits it is given; own_number[k] is the number of its k-th.
  intcoDynArr own_number(0, 64);
  int counter = 0, cursor = 0;
  for (int i = 0; i < points_.count(); ++i) {
    double lower = lower_[i], upper = upper_[i];
    bool const valid = !cloud_[i].invalid();
    auto take = [&](double& limit, double none) {
      if (limit == none) return;
      if (cursor < overdetermined_.count() && overdetermined_[cursor] == counter) {
        limit = none;
        ++cursor;
      } else if (valid) {
        own_number.append(counter);
      }
      ++counter;
    };
    take(lower, -DBL_MAX);
    take(upper, DBL_MAX);
    if (valid) {
      gfProjectedPoint3 const& r = cloud_[i];
      solver.add_bestfit(r.measured_point(), r.nominal_point(), giVector3(r.nominal_normal()), lower, upper,
                         weights_[i]);
    }
  }

  if (rotation_locks_.count() == 0 && lock_direction1_.x() == -DBL_MAX) {
    if (point_set(lock_point1_)) {
      giWorkplane3 world(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), giVector3(0, 1, 0));
      solver.add_positioning(lock_point1_, world, lock_point2_, 0, 0, 0, 0);
    }
  } else if (rotation_locks_.count() == 0) {
    solver.lock_direction(lock_direction1_, lock_direction2_, 0);
    if (point_set(lock_point1_))
      for (int k = 0; k < lock_axis_type_; ++k) solver.add_positioning(lock_point1_, lock_point2_, giVector3(1, 0, 0), 0);
  } else {
    giVector3 unset;
    solver.lock_rotations(rotation_locks_[0], rotation_locks_.count() > 1 ? rotation_locks_[1] : unset,
                          rotation_locks_.count() > 2 ? rotation_locks_[2] : unset);
  }

  solver.set_fitting_points_attraction(fitting_points_attraction);
  giXform3 s;
  if (solver.single_linear_step(s) == 0) return 0;  // the solver recorded its reason

  intcoDynArr found(0, 16);
  for (int k : solver.overdetermined_constraints()) found.append(own_number[k]);
  const int before = overdetermined_.count();
  mlConstrainedQuadraticMinimiser::append_constraint_indices(overdetermined_, found);
  const bool new_limits = overdetermined_.count() > before;

  if (!new_limits) {
    saved_transformation_ = transformation_;
    transformation_ = s * transformation_;
    reproject_all_points(transformation_);
  } else if (!saved_transformation_.is_unset()) {
    transformation_ = saved_transformation_;
    if (transformation_.state() == giXform3::identity) initial_projection_ = 1;
    reproject_all_points(transformation_);
    last_step_undone_ = true;
    return refuse(gfReason::failed, "the step met contradictory tolerance limits and was undone");
  } else {
    transformation_ = s * transformation_;
    reproject_all_points(transformation_);
  }

  if (point_set(lock_point1_) && point_set(lock_point2_)) lock_point1_ = lock_point2_;
  if (lock_direction1_.x() != -DBL_MAX && lock_direction2_.x() != -DBL_MAX) lock_direction1_ = lock_direction2_;
  step = s;
  return gfit::detail::succeed(1);
}

int gfSurfaceBestfit::fit(double tol, giXform3& result, double& max_distance, double& max_signed, double& min_signed,
                          int& n_invalid) {
  using gfit::detail::refuse;
  steps_taken_ = steps_undone_ = 0;
  if (!projector_) return refuse(gfReason::invalid_argument, "no projector was set");
  if (!inputs_finite()) return refuse(gfReason::non_finite_input, "a weight or limit is not finite, or a point is missing");
  if (!std::isfinite(tol)) return refuse(gfReason::invalid_argument, "the tolerance is not finite");
  if (!transformation_.is_identity()) {
    transformation_ = giXform3(giXformIdentity{});
    reproject_all_points(transformation_);
  }
  const int n = points_.count();
  if (n == 0) return refuse(gfReason::too_few_points, "no points to fit");

  double sum = 0.0;
  for (int i = 0; i < n; ++i) sum += std::fabs(weights_[i]);
  const double factor = n / sum;
  for (int i = 0; i < n; ++i) weights_[i] *= factor;

  int status = 1;
  for (int k = 0;;) {
    giXform3 s(giXformIdentity{});
    int ok = do_iteration(s);
    ++steps_taken_;
    int n_valid = 0;
    get_pointcloud_parameters(cloud_, max_distance, max_signed, min_signed, n_invalid, n_valid);
    if (ok == 0 && last_step_undone_) {
      ++steps_undone_;  // go on without the limits just recorded
    } else if (ok == 0) {
      status = 0;
      break;
    } else if (tol > get_maximum_movement(cloud_, s)) {
      break;
    }
    k = k + 1;
    if (k >= max_steps) break;
  }
  result = transformation_;
  return status ? gfit::detail::succeed(1) : 0;
}

void gfSurfaceBestfit::get_pointcloud_parameters(gfProjectedPoint3coDynArr const& cloud, double& max_distance,
                                                 double& max_signed, double& min_signed, int& n_invalid,
                                                 int& n_valid) {
  max_distance = max_signed = min_signed = 0.0;
  n_invalid = n_valid = 0;
  for (int i = 0; i < cloud.count(); ++i) {
    gfProjectedPoint3 const& r = cloud[i];
    if (r.invalid()) {
      ++n_invalid;
      continue;
    }
    ++n_valid;
    double d = r.distance(), s = r.signed_distance();
    if (d > max_distance) max_distance = d;
    if (s > max_signed) max_signed = s;
    if (s < min_signed) min_signed = s;
  }
}
