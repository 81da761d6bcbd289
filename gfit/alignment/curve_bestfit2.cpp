#include "gfit/alignment/curve_bestfit2.h"

#include <cmath>

#include "gfit/platform/angle.h"
#include "gfit/platform/report.h"
#include "gfit/fitpoints/projector.h"

gfFitPointProjector2::~gfFitPointProjector2() = default;

void gfMeasuredPoint2::initial_projection(gfProjectedPoint2& out, gfFitPointProjector2 const* projector) const {
  if (projector) projector->project(measured_, out);
}

void gfMeasuredPoint2::project_from_position(giXform2 const& xform, gfProjectedPoint2& out,
                                             gfFitPointProjector2 const* projector) const {
  if (projector) projector->project(xform * measured_, out);
}

bool gfNominalProfile2::add_segment(giPoint2 const& from, giPoint2 const& to) {
  if (!from.finite() || !to.finite() || from.invalid() || to.invalid() || !((to - from).length() > 0.0)) return false;
  kinds_.append(0);
  for (double v : {from.x(), from.y(), to.x(), to.y(), 0.0, 0.0}) values_.append(v);
  return true;
}

bool gfNominalProfile2::add_arc(giPoint2 const& centre, double radius, double start, double sweep) {
  if (!centre.finite() || centre.invalid() || !std::isfinite(radius) || !(radius > 0.0) || !std::isfinite(start) ||
      !std::isfinite(sweep) || sweep == 0.0 || std::fabs(sweep) > 2.0 * giPi + 1e-12)
    return false;
  kinds_.append(1);
  for (double v : {centre.x(), centre.y(), radius, 0.0, start, sweep}) values_.append(v);
  return true;
}

void gfNominalProfile2::project(giPoint2 const& p, gfProjectedPoint2& out) const {
  double best = INFINITY;
  giPoint2 foot;
  giVector2 normal;
  bool at_end = false;
  for (int e = 0; e < count(); ++e) {
    double const* v = values_.begin() + 6 * e;
    giPoint2 f;
    giVector2 nrm;  // the element's right-hand normal at f
    bool end = false;
    if (kinds_[e] == 0) {
      giPoint2 a(v[0], v[1]), b(v[2], v[3]);
      giVector2 d = b - a;
      double u = d.dot(p - a) / d.squared_length();
      end = !(u > 0.0 && u < 1.0);
      u = u < 0.0 ? 0.0 : (u > 1.0 ? 1.0 : u);
      f = a + d * u;
      nrm = giVector2(d.y(), -d.x()) / d.length();
    } else {
      giPoint2 c(v[0], v[1]);
      double r = v[2], start = v[4], sweep = v[5];
      giVector2 q = p - c;
      // The angle of q measured from the start, in the sweep's sense, within [0, 2 pi).
      double a = std::atan2(q.y(), q.x()) - start;
      if (sweep < 0) a = -a;
      a = std::fmod(a, 2.0 * giPi);
      if (a < 0) a += 2.0 * giPi;
      double s = std::fabs(sweep);
      if (a > s) {  // off the arc: the nearer end
        end = true;
        a = (a - s < 2.0 * giPi - a) ? s : 0.0;
      }
      double angle = start + (sweep < 0 ? -a : a);
      giVector2 radial(std::cos(angle), std::sin(angle));
      f = c + radial * r;
      nrm = sweep > 0 ? radial : -radial;
      if (!end && q.length() == 0.0) end = true;  // the centre: every foot is as near
    }
    double dist = (p - f).length();
    if (dist < best) {
      best = dist;
      foot = f;
      normal = nrm;
      at_end = end;
    }
  }
  if (!(best < INFINITY) || !p.finite()) {
    out.set_invalid();
    return;
  }
  giUnitVec2 n = normal.unit();
  if (at_end && best > 0.0) {
    giUnitVec2 g = (p - foot).unit();
    n = g.dot(normal) < 0.0 ? -g : g;
  }
  out = gfProjectedPoint2(p, foot, n);
}

gfCurveBestfit2::gfCurveBestfit2() : cloud_(0, 256) {}

void gfCurveBestfit2::add_point(gfFitPoint2coPrf const& point, double weight) {
  if (weight == 0.0) return;
  points_.append(point);
  weights_.append(weight);
}

void gfCurveBestfit2::reproject_all_points() {
  const int n = points_.count();
  cloud_.clear(0);
  cloud_.expand(n);
  const bool initial = transformation_.is_identity();
  for (int i = 0; i < n; ++i) {
    cloud_[i] = gfProjectedPoint2();
    if (initial)
      points_[i]->initial_projection(cloud_[i], projector_);
    else
      points_[i]->project_from_position(transformation_, cloud_[i], projector_);
  }
}

int gfCurveBestfit2::check_points() {
  using gfit::detail::refuse;
  if (!projector_) return refuse(gfReason::invalid_argument, "no projector was set");
  for (int i = 0; i < points_.count(); ++i)
    if (!points_[i] || !std::isfinite(weights_[i])) return refuse(gfReason::non_finite_input, "a weight is not finite, or a point is missing");
  return 1;
}

int gfCurveBestfit2::do_iteration(giXform2& step) {
  using gfit::detail::refuse;
  if (!check_points()) return 0;
  if (transformation_.is_unset()) {
    transformation_ = giXform2(giXformIdentity{});
    reproject_all_points();
  }
  gfPointsToLines solver;
  solver.reserve(cloud_.count());
  int n_valid = 0;
  for (int i = 0; i < cloud_.count(); ++i) {
    gfProjectedPoint2 const& r = cloud_[i];
    if (r.invalid() || !r.measured_point().finite()) continue;
    solver.add(r.measured_point(), r.nominal_point(), giVector2(r.nominal_normal()), weights_[i]);
    ++n_valid;
  }
  if (n_valid < 3) return refuse(gfReason::too_few_points, "fewer than three points project onto the nominal curve");
  solver.set_fitting_points_attraction(fitting_points_attraction);
  giXform2 s;
  if (solver.single_linear_step(s) == 0) return 0;  // the solver recorded its reason
  transformation_ = s * transformation_;
  reproject_all_points();
  step = s;
  return gfit::detail::succeed(1);
}

int gfCurveBestfit2::fit(double tol, giXform2& result, double& max_distance, double& max_signed, double& min_signed,
                         int& n_invalid) {
  using gfit::detail::refuse;
  steps_taken_ = 0;
  if (!check_points()) return 0;
  if (!std::isfinite(tol)) return refuse(gfReason::invalid_argument, "the tolerance is not finite");
  const int n = points_.count();
  if (n < 3) return refuse(gfReason::too_few_points, "fewer than three points to fit");
  transformation_ = giXform2(giXformIdentity{});
  reproject_all_points();

  // The valid points must span the plane (second moment about their centroid).
  double sx = 0, sy = 0;
  int n_valid = 0;
  for (gfProjectedPoint2 const& r : cloud_)
    if (!r.invalid() && r.measured_point().finite()) {
      sx += r.measured_point().x();
      sy += r.measured_point().y();
      ++n_valid;
    }
  if (n_valid < 3) return refuse(gfReason::too_few_points, "fewer than three points project onto the nominal curve");
  double cx = sx / n_valid, cy = sy / n_valid, a = 0, b = 0, c = 0;
  for (gfProjectedPoint2 const& r : cloud_)
    if (!r.invalid() && r.measured_point().finite()) {
      double dx = r.measured_point().x() - cx, dy = r.measured_point().y() - cy;
      a += dx * dx;
      b += dx * dy;
      c += dy * dy;
    }
  // Eigenvalues of [[a, b], [b, c]]: the squared singular values of the centred points.
  double mean = 0.5 * (a + c), radius = std::hypot(0.5 * (a - c), b);
  double small = mean - radius, large = mean + radius;
  if (!(large > 0.0) || small <= 1e-24 * large)
    return refuse(gfReason::not_determined, "the points lie on one straight line: the motion along it is not determined");

  double sum = 0.0;
  for (int i = 0; i < n; ++i) sum += std::fabs(weights_[i]);
  const double factor = n / sum;
  for (int i = 0; i < n; ++i) weights_[i] *= factor;

  int status = 1;
  for (int k = 0; k < max_steps; ++k) {
    giXform2 s(giXformIdentity{});
    int ok = do_iteration(s);
    ++steps_taken_;
    if (ok == 0) {
      status = 0;
      break;
    }
    if (tol > get_maximum_movement(cloud_, s)) break;
  }
  max_distance = max_signed = min_signed = 0.0;
  n_invalid = 0;
  for (gfProjectedPoint2 const& r : cloud_) {
    if (r.invalid()) {
      ++n_invalid;
      continue;
    }
    double d = r.distance(), sd = r.signed_distance();
    if (d > max_distance) max_distance = d;
    if (sd > max_signed) max_signed = sd;
    if (sd < min_signed) min_signed = sd;
  }
  result = transformation_;
  return status ? gfit::detail::succeed(1) : 0;
}
