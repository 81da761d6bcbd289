#include "gfit/leastsquares/ellipse.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>
#include <vector>

#include "gfit/leastsquares/evaluator.h"
#include "gfit/leastsquares/refusal.h"
#include "gfit/platform/levenberg_marquardt.h"
#include "gfit/platform/parallel.h"
#include "gfit/platform/random.h"
#include "gfit/platform/utilities.h"
#include "gfit/utilities/vector_utils.h"

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kTwoPi = 6.283185307179586;

struct Foot {
  double x = 0.0, y = 0.0;  // in the ellipse's frame
  double t = 0.0, derivative = 0.0;
};

// The signed distance of (u, v) from the ellipse of semi-axes a, b (non-negative) centred
// at the origin of its frame, with the foot point.
double frame_distance(double a, double b, double u, double v, Foot& foot) {
  const double a2 = a * a, b2 = b * b;
  // u^2/a^2 + v^2/b^2 >= 1, multiplied out so that a degenerate ellipse divides by nothing.
  const double sign = u * u * b2 + v * v * a2 >= a2 * b2 ? 1.0 : -1.0;
  foot.t = foot.derivative = 0.0;
  if (a2 == 0.0 || b2 == 0.0) {  // a flat ellipse is a segment along the other axis
    foot.x = a2 == 0.0 ? 0.0 : std::clamp(u, -a, a);
    foot.y = b2 == 0.0 ? 0.0 : std::clamp(v, -b, b);
    return sign * std::sqrt((foot.x - u) * (foot.x - u) + (foot.y - v) * (foot.y - v));
  }
  if (std::fabs(u) > 1e-10 && std::fabs(v) > 1e-10) {
    // The multiplier t of the foot point is the root beyond the pole -min(a^2, b^2) of
    //   F(t) = (t + a^2)^2 (t + b^2)^2 - a^2 u^2 (t + b^2)^2 - b^2 v^2 (t + a^2)^2,
    // that is of G(t) = F(t) / ((t + a^2)^2 (t + b^2)^2) = (a u / (t + a^2))^2 +
    // (b v / (t + b^2))^2 - 1, which is convex and decreasing there. Newton's method on G
    // from the left of the root rises monotonically to it; the left start
    // max(a |u| - a^2, b |v| - b^2) makes one of the two terms 1 (Eberly's bracket).
    const double au = a * std::fabs(u), bv = b * std::fabs(v);
    double t = std::max(au - a2, bv - b2);
    const double resolution = 2.0 * DBL_EPSILON * std::max(a2, b2);
    for (int step = 0; step < 64; ++step) {
      const double ia = 1.0 / (t + a2), ib = 1.0 / (t + b2);
      const double p = au * ia, q = bv * ib;
      const double G = p * p + q * q - 1.0;
      if (!(G > 0.0)) break;  // at the root (or rounding has crossed it)
      const double dG = -2.0 * (p * p * ia + q * q * ib);
      foot.derivative = dG;
      const double increase = -G / dG;
      if (!(increase > resolution)) break;  // converged to rounding
      t += increase;
    }
    foot.t = t;
    foot.x = a2 * u / (t + a2);
    foot.y = b2 * v / (t + b2);
    return sign * std::sqrt((foot.x - u) * (foot.x - u) + (foot.y - v) * (foot.y - v));
  }
  if (std::fabs(u) > 1e-10) {  // on the a-axis line
    if (a > b && std::fabs(u) < a - b2 / a) {
      foot.x = a2 * u / (a2 - b2);
      foot.y = b * std::sqrt(std::fabs(1.0 - (foot.x / a) * (foot.x / a)));
      return sign * std::hypot(foot.x - u, foot.y);
    }
    foot.x = u >= 0.0 ? a : -a;
    foot.y = 0.0;
    return sign * std::fabs(foot.x - u);
  }
  // on the b-axis line (the centre included)
  if (b > a && std::fabs(v) < b - a2 / b) {
    foot.y = b2 * v / (b2 - a2);
    foot.x = a * std::sqrt(std::fabs(1.0 - (foot.y / b) * (foot.y / b)));
    return sign * std::hypot(foot.x, foot.y - v);
  }
  foot.x = 0.0;
  foot.y = v >= 0.0 ? b : -b;
  return sign * std::fabs(foot.y - v);
}

// Frame coordinates of point q for parameters p.
void to_frame(mlVector const& p, giPoint2 const& q, double cos_t, double sin_t, double& u, double& v) {
  const double dx = q.x() - p[2], dy = q.y() - p[3];
  u = dx * cos_t + dy * sin_t;
  v = dy * cos_t - dx * sin_t;
}

}  // namespace

namespace gfit::detail {
double ellipse_frame_distance(double a, double b, double u, double v, double& fx, double& fy) {
  Foot foot;
  double d = frame_distance(std::fabs(a), std::fabs(b), u, v, foot);
  fx = foot.x;
  fy = foot.y;
  return d;
}
}  // namespace gfit::detail

// ---- the problem ------------------------------------------------------------------------

gfLeastSquareEllipse::gfLeastSquareEllipse(giPoint2coDynArr const& points) : gfLeastSquareDistance2(5, points) {}
gfLeastSquareEllipse::~gfLeastSquareEllipse() = default;

void gfLeastSquareEllipse::normalize_parameters(mlVector&) const {}

void gfLeastSquareEllipse::get_distance(double& d, int i) const {
  mlVector const& p = parameters();
  double u, v;
  to_frame(p, points()[i], std::cos(p[4]), std::sin(p[4]), u, v);
  Foot foot;
  d = frame_distance(std::fabs(p[0]), std::fabs(p[1]), u, v, foot);
  foot_x_ = foot.x;
  foot_y_ = foot.y;
  t_ = foot.t;
  ta_ = foot.t + p[0] * p[0];
  tb_ = foot.t + p[1] * p[1];
  ta2_ = ta_ * ta_;
  tb2_ = tb_ * tb_;
  derivative_ = foot.derivative;
}

namespace {
// The gradient of the signed distance with respect to (a, b, cx, cy, theta) at the foot point
// (x, y) of the frame: -n . df/dq, n the outward unit normal there and f the foot point moved
// by the parameter q with its curve parameter held.
void distance_gradient(mlVector const& p, double c, double s, double x, double y, double* g, int stride) {
  const double A = std::fabs(p[0]), B = std::fabs(p[1]);
  // The outward normal, (x / A^2, y / B^2) multiplied through by A^2 B^2.
  double nx = x * B * B, ny = y * A * A;
  const double len = std::sqrt(nx * nx + ny * ny);
  if (len > 0.0) {
    nx /= len;
    ny /= len;
  } else {
    nx = 1.0;
    ny = 0.0;
  }
  const double da = A > 0.0 ? -nx * x / A : 0.0;
  const double db = B > 0.0 ? -ny * y / B : 0.0;
  g[0] = p[0] < 0.0 ? -da : da;
  g[stride] = p[1] < 0.0 ? -db : db;
  g[2 * stride] = -(nx * c - ny * s);  // minus the world normal
  g[3 * stride] = -(nx * s + ny * c);
  g[4 * stride] = nx * y - ny * x;
}
}  // namespace

void gfLeastSquareEllipse::get_distance_and_gradient(double& d, mlVector& g, int i) const {
  get_distance(d, i);
  mlVector const& p = parameters();
  distance_gradient(p, std::cos(p[4]), std::sin(p[4]), foot_x_, foot_y_, g.data(), 1);
}

void gfLeastSquareEllipse::evaluate_block(int first, int count, double* distances, double* squares,
                                          double* jacobian, int ld) const {
  // The frame's cosine and sine once for the block, not per point.
  mlVector const& p = parameters();
  const double A = std::fabs(p[0]), B = std::fabs(p[1]), c = std::cos(p[4]), s = std::sin(p[4]);
  giPoint2 const* q = points().data() + first;
  Foot foot;
  for (int k = 0; k < count; ++k) {
    double u, v;
    to_frame(p, q[k], c, s, u, v);
    const double d = frame_distance(A, B, u, v, foot);
    distances[k] = d;
    squares[k] = d * d;
    if (jacobian) distance_gradient(p, c, s, foot.x, foot.y, jacobian + k, ld);
  }
  foot_x_ = foot.x;
  foot_y_ = foot.y;
}

void gfLeastSquareEllipse::evaluate_distances(int first, int count, double* distances, double* squares) const {
  evaluate_block(first, count, distances, squares, nullptr, 0);
}

void gfLeastSquareEllipse::parameter_scales(mlVector& s) const {
  mlVector const& p = parameters();
  s.resize(5);
  s[0] = s[1] = s[2] = s[3] = 1.0;
  s[4] = std::sqrt(p[0] * p[0] + p[1] * p[1]);
}

// ---- the search -------------------------------------------------------------------------

int gfCalculateLeastSquareEllipse(giPoint2coDynArr const& points, giPoint2& centre, double& major, double& minor,
                                  double& angle, double& residual) {
  using gfit::detail::refuse;
  const int n = points.count();
  gfit::detail::PointSpread spread;
  // Five parameters, so five points at least: through four there runs a family of ellipses.
  if (!gfit::detail::check_points(points, 5, gfit::detail::Span::plane, &spread)) return 0;
  gfLeastSquareEllipse problem(points);
  const giPoint2 c = problem.centroid();
  const double s = problem.range();
  mlRandom random(1);
  double best = DBL_MAX;
  bool is_determined = false;
  mlVector kept(5), start(5), result(5);

  // The 100 random candidates of a pass are scored on the allowed threads, each worker with
  // its own problem object (the distance keeps its foot point in the object); the draws
  // are made first, in order, and the smallest sum wins, the first index on a tie.
  const int threads = gfit::detail::threads_for(100, 60.0 * n);
  std::vector<gfLeastSquareEllipse> scorers;
  scorers.reserve(threads);
  for (int t = 0; t < threads; ++t) scorers.emplace_back(points);
  std::vector<mlVector> candidates(100, mlVector(5));
  std::vector<double> sums(100);

  for (int pass = 0; pass < 20; ++pass) {
    if (gfit::detail::cancelled()) return refuse(gfReason::cancelled);
    if (pass == 0) {
      giPoint2 cc;
      double r = 0.0, rms = 0.0;
      if (gfLeastSquareEvaluator::evaluate_circle(points, cc, r, rms))
        start = mlVector{r, r, cc.x(), cc.y(), 0.0};
      else
        start = mlVector{s, s, c.x(), c.y(), 0.0};
    } else {
      const double e = 0.01 * s;
      for (int j = 0; j < 100; ++j) {
        const double h = (j / 50 + 1) * s - e;
        mlVector& q = candidates[j];
        q[0] = e + random.next_unit() * h;
        q[1] = e + random.next_unit() * h;
        q[4] = random.next_unit() * kTwoPi;
        q[2] = c.x();
        q[3] = c.y();
      }
      gfit::detail::parallel_for(100, threads, [&](int j, int worker) {
        scorers[worker].set_parameters(candidates[j]);
        sums[j] = scorers[worker].sum_of_squares();
      });
      double smallest = DBL_MAX;
      for (int j = 0; j < 100; ++j)
        if (sums[j] < smallest) {
          smallest = sums[j];
          start = candidates[j];
        }
    }
    mlLevenbergMarquardt lm(problem);
    const double value = lm.fit(start, result);
    if (value < best) {
      best = value;
      kept = result;
      // The angle of a circle means nothing: when it alone is free, the curve is determined.
      is_determined = gfit::detail::determined(gfit::detail::determination(lm, problem)) ||
                      gfit::detail::determined(gfit::detail::determination(lm, problem, 4, 4));
    }
  }
  // A flag set during the last pass: its fit was cut short, and the search with it.
  if (gfit::detail::cancelled()) return refuse(gfReason::cancelled);
  if (best == DBL_MAX) return refuse(gfReason::no_convergence);  // every fit ended without a finite sum
  double a = std::fabs(kept[0]), b = std::fabs(kept[1]), theta = kept[4];
  if (!gfit::detail::within_size_bound(std::fmax(a, b), spread.extent)) return refuse(gfReason::not_determined);
  if (!is_determined) return refuse(gfReason::not_determined);
  if (a > b) {
    major = a;
    minor = b;
  } else {
    major = b;
    minor = a;
    theta += 1.5707963267948966;
  }
  angle = utMath::remd(theta, kPi);
  centre = giPoint2(kept[2], kept[3]);
  residual = std::sqrt(best);
  return gfit::detail::succeed();
}

// ---- evaluator entries ------------------------------------------------------------------

int gfLeastSquareEvaluator::evaluate_ellipse(giPoint2coDynArr const& points, giPoint2& centre, double& major,
                                             double& minor, double& angle, double& residual) {
  return gfCalculateLeastSquareEllipse(points, centre, major, minor, angle, residual);
}

int gfLeastSquareEvaluator::evaluate_ellipse2(giPoint3 const& origin, giUnitVec3 const& normal,
                                              giUnitVec3 const& direction, giPoint3coDynArr const& points,
                                              giPoint3& centre, double& major, double& minor, double& angle,
                                              double& residual) {
  using gfit::detail::refuse;
  const int n = points.count();
  if (n < 5) return refuse(gfReason::too_few_points);
  if (normal.invalid()) return refuse(gfReason::invalid_argument, "the plane's normal is unset");
  if (!origin.finite()) return refuse(gfReason::non_finite_input, "the plane's origin is not finite");
  if (!gfit::detail::check_points(points, 5, gfit::detail::Span::points)) return 0;
  giPoint2coDynArr in_plane;
  giXform3 to_plane;
  gfUtils::ProjectPointsToPlane(points, origin, normal, in_plane, &to_plane);
  // The angle is measured from the given in-plane direction (from the projection frame's x
  // axis when none is given).
  double reference = 0.0;
  if (!direction.invalid()) {
    giVector3 d = to_plane.transform(giVector3(direction));
    if (std::hypot(d.x(), d.y()) <= 1e-12)
      return refuse(gfReason::invalid_argument, "the reference direction is along the plane's normal");
    reference = std::atan2(d.y(), d.x());
  }
  giPoint2 c2;
  double a = 0.0, b = 0.0, theta = 0.0, in_plane_rms = 0.0;
  if (!gfCalculateLeastSquareEllipse(in_plane, c2, a, b, theta, in_plane_rms)) return 0;
  double heights = 0.0;
  for (giPoint3 const& q : points) {
    double h = normal.dot(q - origin);
    heights += h * h;
  }
  centre = giXform3(giXformInverse{}, to_plane).transform(giPoint3(c2.x(), c2.y(), 0.0));
  major = a;
  minor = b;
  angle = utMath::remd(theta - reference, kPi);
  residual = std::sqrt(in_plane_rms * in_plane_rms + heights / n);
  return gfit::detail::succeed();
}
