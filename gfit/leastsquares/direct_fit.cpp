// Closed-form circles and ellipses (see direct_fit.h for the methods and their sources).
//
// Implementation notes
//
// Streaming. The algebraic circle needs only the singular values S and right singular
// vectors V of the n x 4 design matrix Z. Its rows stream through the triangular
// accumulator into the 4 x 4 factor R with R^T R = Z^T Z (Householder reflections, so the
// accuracy is that of a backward-stable QR of Z, as in the QR-preconditioned decomposition
// of Z itself); the decomposition of R gives the same S and V without storing Z. The
// ellipse's scatter blocks S1 = D1^T D1, S2 = D1^T D2, S3 = D2^T D2 are accumulated point by
// point as the 6 x 6 scatter matrix of the rows (x^2, xy, y^2, x, y, 1) / n: the same sums of
// products in another order. The test DirectCircleStreaming compares the streamed circle
// with the decomposition of the whole design matrix.
//
// Order of the eigenpairs. Both eigen-solvers return ascending eigenvalues; the direct fits
// read them in descending order (their index k is the solver's index size - 1 - k), which
// is the order the selection rules are written for:
//  - circle: M = Y^T K Y with Y = V S is congruent to K, which has one negative and three
//    positive eigenvalues, so M has too. Its eigenvalues are the generalised eigenvalues of
//    (Z^T Z, K^-1), i.e. the algebraic residual of each stationary circle; the fit is the
//    smallest non-negative one. In descending order, "index 3 if non-negative, else the
//    highest index below 3 that is" selects exactly that one (index 3 is the negative
//    eigenvalue, index 2 the smallest positive). In ascending order the same rule would take
//    the largest eigenvalue, the worst of the stationary circles.
//  - ellipse: M = C^-1 R has, for noisy points (R positive definite), one positive and two
//    negative eigenvalues; only the positive one is an ellipse (4ac - b^2 has the sign of the
//    eigenvalue). For points exactly on an ellipse R is singular and the ellipse belongs to
//    the eigenvalue 0, while another eigenvalue may be positive and give a different,
//    spurious ellipse. Trying index 2, 1, 0 in descending order meets the negative ones
//    first (rejected as hyperbolas) and then the smallest non-negative one: the exact
//    ellipse for exact points, the positive eigenvalue for noisy ones. In ascending order an
//    exact ellipse on a partial arc could lose to the spurious one.
//  - the normalised quadratic form: lambda0 >= lambda1, so a = 1/sqrt(lambda1) is the major
//    semi-axis.
//
// Conditioning. The coordinates are used as given, so the algebraic forms lose accuracy as
// the element moves away from the origin relative to its size (d/r) and as the coordinates
// grow (the quadratic coefficient shrinks like 1/|p|^2 against the constant one). Measured
// on exact points (40 per element, worst of 8 poses), relative error of centre and size:
//  - circle, full: 1e-9 up to 100 radii for radii up to 100 (1e-9 at 50 to 100 radii for
//    radius 4000), 5e-8 at 300, 1e-5 at 1000; with coordinates of about 1e6 the result is
//    meaningless. Partial arcs of radius up to 100 do better (1e-9 at 1000 radii); a
//    quarter arc of radius 4000 gets 3e-8 even at the origin.
//  - ellipse (a = 2b): full, 1e-9 up to 3 sizes for sizes 0.01 to 10 (3e-8 at 10 sizes);
//    half arcs up to 1 size; quarter arcs 5e-10 at the origin only. The unscaled scatter of
//    (x, y, 1) is declared singular (relative 1e-6), and the ellipse falls back to the
//    circle, from about 10 sizes away for size 10, 30 for size 1 or less, 1 to 3 for sizes
//    of hundreds, and everywhere for sizes below about 0.005.
// The tests check the stated 1e-9 domain.

#include "gfit/leastsquares/direct_fit.h"

#include <cfloat>
#include <cmath>

#include "gfit/leastsquares/evaluator.h"
#include "gfit/leastsquares/refusal.h"
#include "gfit/platform/eigen_solvers.h"
#include "gfit/platform/matrix.h"
#include "gfit/platform/qr_accumulator.h"
#include "gfit/platform/svd.h"

namespace {

using Status = gfDirectFitStatus;
using gfit::detail::refuse;

constexpr char const* kCollinear = "the points do not determine the element: they lie on a line";
constexpr char const* kTooLarge = "the points do not determine the element: its size is beyond any measured feature";

// Records the outcome of a direct fit for this thread: success, or (unless a more precise
// reason was recorded where the fit failed) the reason its status stands for.
void record(Status status) {
  if (status == Status::fitted) {
    gfit::detail::succeed();
    return;
  }
  if (gfLastReason() != gfReason::none) return;
  refuse(status == Status::too_few_points ? gfReason::too_few_points : gfReason::not_determined);
}

template <class Array>
bool all_finite(Array const& points) {
  for (auto const& p : points)
    if (!p.finite()) return false;
  return true;
}

// The eigenpair of descending index k (see the notes above).
double descending_value(mlSymEigenVecs const& eig, int k) { return eig.eigenvalue(eig.size() - 1 - k); }
mlVector descending_vector(mlSymEigenVecs const& eig, int k) { return eig.eigenvector(eig.size() - 1 - k); }
mlVector descending_vector(mlAsymEigenVecs3 const& eig, int k) { return eig.eigenvector(2 - k); }

// The circle through three points from the normal equations of two chords. The tolerances
// are relative to the largest singular value of the 2 x 2 normal matrix.
Status circle_through_three(giPoint2coDynArr const& p, double tolerance, giPoint2& centre, double& radius) {
  const double x0 = p[0].x(), y0 = p[0].y();
  double n[4] = {0, 0, 0, 0}, rhs[2] = {0, 0};
  for (int i = 1; i <= 2; ++i) {
    double a = 2.0 * (p[i].x() - x0), b = 2.0 * (p[i].y() - y0);
    double r = (p[i].x() * p[i].x() + p[i].y() * p[i].y()) - (x0 * x0 + y0 * y0);
    n[0] += a * a;
    n[1] += a * b;
    n[3] += b * b;
    rhs[0] += r * a;
    rhs[1] += r * b;
  }
  n[2] = n[1];
  const double singular_tolerance = tolerance * 0.01;
  mlSingularValueDecomposition svd(mlMatrix(utConvert{}, n, 2, 2));
  if (svd.is_singular(singular_tolerance)) return Status::singular;
  mlVector c = svd.pseudo_inverse(singular_tolerance) * mlVector{rhs[0], rhs[1]};
  giPoint2 m(c[0], c[1]);
  radius = (m.distance(p[0]) + m.distance(p[1]) + m.distance(p[2])) / 3.0;
  centre = m;
  return Status::fitted;
}

// The algebraic circle of n >= 4 points: the design matrix streamed into its triangular
// factor, whose decomposition has the design matrix's S and V.
Status algebraic_circle(giPoint2coDynArr const& p, giPoint2& centre, double& radius) {
  using gfit::detail::TriangularAccumulator;
  constexpr int B = TriangularAccumulator::block_rows;
  const int n = p.count();
  const double w = 1.0 / n;
  TriangularAccumulator acc(4);
  double* col = acc.buffer();
  int k = 0;
  for (giPoint2 const& q : p) {
    const double x = q.x(), y = q.y();
    col[k] = (x * x + y * y) * w;
    col[B + k] = x * w;
    col[2 * B + k] = y * w;
    col[3 * B + k] = w;
    if (++k == B) {
      acc.absorb(k);
      k = 0;
    }
  }
  if (k > 0) acc.absorb(k);
  mlSingularValueDecomposition svd(mlMatrix(utConvert{}, acc.r_data(), 4, 4), 0, 1);
  return gfit::detail::circle_from_design_svd(svd, centre, radius);
}

// The direct circle of 2-D points; the status says which results were written.
// Coincident or collinear points (and, from three points on, collinear ones) determine no
// circle: singular for three points, as their chords' system is, degenerate otherwise, as the
// algebraic circle's leading coefficient is; so is a circle beyond 1e6 times the points'
// extent (see leastsquares/refusal.h).
Status direct_circle(giPoint2coDynArr const& p, double tolerance, giPoint2& centre, double& radius) {
  const int n = p.count();
  if (n < 2) return Status::too_few_points;
  if (!all_finite(p)) {
    refuse(gfReason::non_finite_input, "a coordinate is not finite");
    return Status::degenerate;
  }
  const gfit::detail::PointSpread spread = gfit::detail::point_spread(p);
  if (!spread.spans(n == 2 ? gfit::detail::Span::line : gfit::detail::Span::plane)) {
    refuse(gfReason::not_determined, n == 2 ? "the points do not determine the element: they coincide" : kCollinear);
    return n == 3 ? Status::singular : Status::degenerate;
  }
  giPoint2 c;
  double r = 0.0;
  Status status = Status::fitted;
  if (n == 2) {
    c = giPoint2(0.5 * (p[0].x() + p[1].x()), 0.5 * (p[0].y() + p[1].y()));
    r = 0.5 * p[0].distance(p[1]);
  } else {
    status = n == 3 ? circle_through_three(p, tolerance, c, r) : algebraic_circle(p, c, r);
  }
  if (status != Status::fitted) return status;
  if (!(c.finite() && std::isfinite(r)) || !gfit::detail::within_size_bound(r, spread.extent)) {
    refuse(gfReason::not_determined, kTooLarge);
    return Status::degenerate;
  }
  centre = c;
  radius = r;
  return Status::fitted;
}

// Squared distance from (u, v) to the point of the ellipse u^2/a^2 + v^2/b^2 = 1 on the ray
// from its centre through (u, v); a point at the centre counts b^2.
double ray_distance_squared(double u, double v, double a, double b, double tolerance) {
  if (std::fabs(u) < tolerance && std::fabs(v) < tolerance) return b * b;
  double s = a * b / std::sqrt(v * v * a * a + u * u * b * b);
  double du = u - s * u, dv = v - s * v;
  return du * du + dv * dv;
}

}  // namespace

char const* gf_direct_fit_status_name(gfDirectFitStatus status) {
  switch (status) {
    case Status::not_fitted: return "not_fitted";
    case Status::too_few_points: return "too_few_points";
    case Status::singular: return "singular";
    case Status::no_plane: return "no_plane";
    case Status::degenerate: return "degenerate";
    case Status::fitted: return "fitted";
  }
  return "unknown";
}

gfDirectFitStatus gfit::detail::circle_from_design_svd(mlSingularValueDecomposition const& svd, giPoint2& centre,
                                                       double& radius) {
  // The tolerances of the circle, relative to the largest singular value.
  constexpr double singular_tolerance = 1e-8, eigen_tolerance = 1e-4;
  mlMatrix const& v = svd.V();
  mlVector coef;
  if (svd.is_singular(singular_tolerance)) {
    coef = v.column(3);  // the points lie on a circle (or a line): the null vector
  } else {
    mlVector const& s = svd.diagonal();
    mlMatrix sdiag(4, 4);
    for (int i = 0; i < 4; ++i) sdiag(i, i) = s[i];
    // K: the inverse of the constraint matrix of B^2 + C^2 - 4AD.
    mlMatrix k = mlMatrix::identity(4);
    k(0, 0) = k(3, 3) = 0.0;
    k(0, 3) = k(3, 0) = -0.5;
    mlMatrix y = v * sdiag;
    mlSymEigenVecs eig(mlMatrix(mlMatrixTranspose{}, y) * k * y, eigen_tolerance);
    int chosen = 3;
    while (chosen > 0 && !(descending_value(eig, chosen) >= 0.0)) --chosen;
    mlMatrix s_inverse = mlSingularValueDecomposition(sdiag).pseudo_inverse(singular_tolerance);
    coef = v * (s_inverse * descending_vector(eig, chosen));
  }
  const double a = coef[0], b = coef[1], c = coef[2], d = coef[3];
  if (a == 0.0) return Status::degenerate;
  centre = giPoint2(-b / (2.0 * a), -c / (2.0 * a));
  radius = std::sqrt((b * b + c * c - 4.0 * a * d) / (4.0 * a * a));  // NaN for an imaginary circle
  return Status::fitted;
}

// ---- the common base --------------------------------------------------------------------

gfDirectFit::gfDirectFit(giPoint2coDynArr const& points)
    : points2d_(utCopy{}, points), status_(Status::not_fitted), tolerance_(1e-6) {
  gfit::detail::succeed();  // a fresh record: the fit's own reasons only
  if (points.count() < 2) {
    status_ = Status::too_few_points;
  } else if (!all_finite(points)) {
    refuse(gfReason::non_finite_input, "a coordinate is not finite");
    status_ = Status::degenerate;
  }
}

gfDirectFit::gfDirectFit(giPoint3coDynArr const& points) : status_(Status::not_fitted), tolerance_(1e-6) {
  gfit::detail::succeed();  // a fresh record: the fit's own reasons only
  if (points.count() < 2)
    status_ = Status::too_few_points;
  else
    find_embedding_plane(points);
}

void gfDirectFit::find_embedding_plane(giPoint3coDynArr const& points) {
  const int n = points.count();
  if (n < 2) {
    status_ = Status::too_few_points;
    return;
  }
  bool made = false;
  if (!all_finite(points)) {
    refuse(gfReason::non_finite_input, "a coordinate is not finite");
  } else {
    if (n == 2) {
      giVector3 u = points[0] - points[1];
      if (u.squared_length() > tolerance_ * tolerance_) {
        giPoint3 mid = points[1] + 0.5 * u;
        plane_ = giWorkplane3(mid, u.unit().any_normal(), u);
        made = true;
      } else {
        refuse(gfReason::not_determined, "the points do not determine the element: they coincide");
      }
    } else if (!gfit::detail::point_spread(points, gfit::detail::Span::plane).spans(gfit::detail::Span::plane)) {
      // Coincident or collinear points lie in no one plane.
      refuse(gfReason::not_determined, "the points do not determine the element: they lie on a line");
    } else {
      giPoint3 origin;
      giUnitVec3 normal;
      double residual = 0.0;
      if (gfLeastSquareEvaluator::evaluate_plane(points, origin, normal, residual) == 1 && !normal.invalid()) {
        plane_ = giWorkplane3(origin, normal, normal.any_normal());
        made = true;
      }
    }
  }
  if (!made) {
    status_ = Status::no_plane;
    return;
  }
  points2d_ = giPoint2coDynArr(n, 1024);
  for (giPoint3 const& p : points) {
    giPoint3 w = plane_.to_work(p);
    points2d_.append(giPoint2(w.x(), w.y()));
  }
}

// ---- circles ----------------------------------------------------------------------------

gfDirectCircle2::gfDirectCircle2(giPoint2coDynArr const& points) : gfDirectFit(points) {
  if (status_ == Status::not_fitted) fit();
  record(status_);
}

void gfDirectCircle2::fit() {
  if (points2d_.count() == 3)
    three_points_fit();
  else
    status_ = direct_circle(points2d_, tolerance_, centre_, radius_);
}

void gfDirectCircle2::three_points_fit() { status_ = direct_circle(points2d_, tolerance_, centre_, radius_); }

double gfDirectCircle2::chi() const {
  if (status_ != Status::fitted) return DBL_MAX;
  double sum = 0.0;
  for (giPoint2 const& p : points2d_) {
    double e = radius_ - p.distance(centre_);
    sum += e * e;
  }
  return std::sqrt(sum / points2d_.count());
}

gfDirectCircle3::gfDirectCircle3(giPoint3coDynArr const& points) : gfDirectFit(points), points3d_(points) {
  if (status_ == Status::not_fitted) fit();
  record(status_);
}

void gfDirectCircle3::fit() {
  giPoint2 c;
  double r = 0.0;
  status_ = direct_circle(points2d_, tolerance_, c, r);
  if (status_ != Status::fitted) return;
  radius_ = r;
  centre_ = plane_.to_world(giPoint3(c.x(), c.y(), 0.0));
  plane_ = giWorkplane3(centre_, plane_.normal(), plane_.x_axis());
}

double gfDirectCircle3::chi() const {
  if (status_ != Status::fitted) return DBL_MAX;
  giUnitVec3 const& normal = plane_.normal();
  double sum = 0.0;
  for (giPoint3 const& p : points3d_) {
    giVector3 d = p - centre_;
    double h = normal.dot(d);
    double e = (d - h * normal).length() - radius_;
    sum += h * h + e * e;
  }
  return std::sqrt(sum / points3d_.count());
}

// ---- ellipses ---------------------------------------------------------------------------

gfDirectEllipse2::gfDirectEllipse2(giPoint2coDynArr const& points) : gfDirectFit(points) {
  const int n = points2d_.count();
  if (status_ == Status::not_fitted && n >= 4) fit();
  if (n >= 4 && status_ != Status::singular && status_ != Status::degenerate) {
    record(status_);
    return;
  }
  // Fewer than 4 points, or no ellipse: the circle of the same points (which records its
  // own outcome).
  gfDirectCircle2 circle(points2d_);
  status_ = circle.status();
  if (status_ != Status::fitted) return;
  centre_ = circle.centre();
  a_length_ = b_length_ = circle.radius();
  a_axis_ = giVector2(1.0, 0.0);
  b_axis_ = giVector2(0.0, 1.0);
  workplane_ = giWorkplane2(centre_, a_axis_);
}

void gfDirectEllipse2::fit() {
  // From the base tolerance: the singularity and pseudo-inverse tolerances are relative to
  // the largest singular value; the smallest eigenvalue of the normalised form is absolute
  // (1 / semi-axis^2, so semi-axes up to 1000).
  const double singular_tolerance = tolerance_, inverse_tolerance = tolerance_ * 0.1;
  const double min_eigenvalue = tolerance_;
  const int n = points2d_.count();
  const double w = 1.0 / n;
  // Collinear points determine no ellipse; an ellipse beyond 1e6 times their extent is a
  // line in disguise (see leastsquares/refusal.h).
  const gfit::detail::PointSpread spread = gfit::detail::point_spread(points2d_);
  if (!spread.spans(gfit::detail::Span::plane)) {
    status_ = Status::degenerate;
    return;
  }

  // Upper triangle of the scatter matrix of z = (x^2, xy, y^2, x, y, 1) / n.
  double scatter[6][6] = {};
  for (giPoint2 const& p : points2d_) {
    const double x = p.x(), y = p.y();
    const double z[6] = {x * x * w, x * y * w, y * y * w, x * w, y * w, w};
    for (int i = 0; i < 6; ++i)
      for (int j = i; j < 6; ++j) scatter[i][j] += z[i] * z[j];
  }
  mlMatrix s1(3, 3), s2(3, 3), s3(3, 3);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      s1(i, j) = i <= j ? scatter[i][j] : scatter[j][i];
      s2(i, j) = scatter[i][3 + j];
      s3(i, j) = i <= j ? scatter[3 + i][3 + j] : scatter[3 + j][3 + i];
    }

  mlSingularValueDecomposition s3_svd(s3);
  if (s3_svd.is_singular(singular_tolerance)) {
    status_ = Status::singular;
    return;
  }
  // The linear part of a conic follows from its quadratic part: (d, e, f) = t * (a, b, c).
  mlMatrix t = s3_svd.pseudo_inverse(inverse_tolerance) * mlMatrix(mlMatrixTranspose{}, s2);
  for (int i = 0; i < 9; ++i) t.data()[i] = -t.data()[i];
  mlMatrix r = s2 * t;  // then + s1: the reduced scatter of the quadratic part
  for (int i = 0; i < 9; ++i) r.data()[i] += s1[i];
  const double c_inverse[9] = {0.0, 0.0, 0.5, 0.0, -1.0, 0.0, 0.5, 0.0, 0.0};
  mlAsymEigenVecs3 eig(mlMatrix(utConvert{}, c_inverse, 3, 3) * r);
  if (eig.n_real() != 3) {
    status_ = Status::degenerate;
    return;
  }
  for (int k = 2; k >= 0; --k) {
    mlVector a1 = descending_vector(eig, k);
    mlVector a2 = t * a1;
    const double q_values[4] = {a1[0], 0.5 * a1[1], 0.5 * a1[1], a1[2]};
    mlMatrix q(utConvert{}, q_values, 2, 2);
    mlSingularValueDecomposition q_svd(q);
    if (q_svd.is_singular(singular_tolerance)) {
      status_ = Status::singular;
      continue;
    }
    const giVector2 g(a2[0], a2[1]);
    const double f = a2[2];
    mlVector c0 = q_svd.pseudo_inverse(inverse_tolerance) * mlVector{-0.5 * g.x(), -0.5 * g.y()};
    const giVector2 c(c0[0], c0[1]);
    const giVector2 qc(q(0, 0) * c.x() + q(0, 1) * c.y(), q(1, 0) * c.x() + q(1, 1) * c.y());
    // Scale so that points y relative to the centre satisfy y^T Q y = 1.
    const double scale = -(c.dot(qc) + g.dot(c) + f);
    if (!(std::isfinite(scale) && scale != 0.0)) {  // a conic through its own centre
      status_ = Status::degenerate;
      continue;
    }
    for (int i = 0; i < 4; ++i) q.data()[i] /= scale;
    mlSymEigenVecs q_eig(q);
    const double lambda0 = descending_value(q_eig, 0), lambda1 = descending_value(q_eig, 1);
    if (!(lambda0 >= min_eigenvalue && lambda1 >= min_eigenvalue) ||  // NaN too
        !gfit::detail::within_size_bound(std::sqrt(1.0 / lambda1), spread.extent)) {
      status_ = Status::degenerate;
      continue;
    }
    mlVector major = descending_vector(q_eig, 1), minor = descending_vector(q_eig, 0);
    centre_ = giPoint2(c.x(), c.y());
    a_length_ = std::sqrt(1.0 / lambda1);
    b_length_ = std::sqrt(1.0 / lambda0);
    a_axis_ = giVector2(major[0], major[1]);
    b_axis_ = giVector2(minor[0], minor[1]);
    angle_ = giAngle(std::atan2(a_axis_.y(), a_axis_.x()));
    workplane_ = giWorkplane2(centre_, a_axis_);
    status_ = Status::fitted;
    return;
  }
}

double gfDirectEllipse2::chi() const {
  if (status_ != Status::fitted) return DBL_MAX;
  double sum = 0.0;
  for (giPoint2 const& p : points2d_) {
    giPoint2 q = workplane_.to_work(p);
    sum += ray_distance_squared(q.x(), q.y(), a_length_, b_length_, tolerance_);
  }
  return std::sqrt(sum / points2d_.count());
}

gfDirectEllipse3::gfDirectEllipse3(giPoint3coDynArr const& points) : gfDirectFit(points), points3d_(points) {
  if (status_ == Status::not_fitted) fit();
  record(status_);
}

void gfDirectEllipse3::fit() {
  gfDirectEllipse2 e(points2d_);
  status_ = e.status();
  if (status_ != Status::fitted) return;
  a_length_ = e.a_length();
  b_length_ = e.b_length();
  centre_ = plane_.to_world(giPoint3(e.centre().x(), e.centre().y(), 0.0));
  a_axis_ = plane_.to_world(giVector3(e.a_axis().x(), e.a_axis().y(), 0.0));
  b_axis_ = plane_.to_world(giVector3(e.b_axis().x(), e.b_axis().y(), 0.0));
  plane_ = giWorkplane3(centre_, plane_.normal(), b_axis_);
}

double gfDirectEllipse3::chi() const {
  if (status_ != Status::fitted) return DBL_MAX;
  // The workplane's x axis runs along b_axis, so a point's coordinate along the major axis
  // is its y: the distance is that of (y, x) from the ellipse (a along the first, b along
  // the second), the real residual of the fitted ellipse.
  double sum = 0.0;
  for (giPoint3 const& p : points3d_) {
    giPoint3 q = plane_.to_work(p);
    sum += q.z() * q.z() + ray_distance_squared(q.y(), q.x(), a_length_, b_length_, tolerance_);
  }
  return std::sqrt(sum / points3d_.count());
}
