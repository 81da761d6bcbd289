// The algebraic sphere (see sphere_fit.h).
#include "gfit/leastsquares/sphere_fit.h"

#include <cfloat>
#include <cmath>
#include <utility>

#include "gfit/leastsquares/distance.h"
#include "gfit/leastsquares/refusal.h"

using gfit::detail::refuse;

gfSphereFit::gfSphereFit(giPoint3coDynArr const& points) : points_(points) {
  do_fit();
  if (status_ == gfDirectFitStatus::fitted) gfit::detail::succeed();
}

int gfSphereFit::fit(giPoint3coDynArr const& points, giPoint3& centre, double& radius) {
  gfSphereFit sphere(points);
  if (sphere.status() != gfDirectFitStatus::fitted) return 0;
  centre = sphere.centre();
  radius = sphere.radius();
  return 1;
}

void gfSphereFit::do_fit() {
  const int n = points_.count();
  if (n < 4) {
    refuse(gfReason::too_few_points);
    status_ = gfDirectFitStatus::too_few_points;
    return;
  }
  // Coincident, collinear or coplanar points determine no sphere: their normal equations
  // are singular (see leastsquares/refusal.h).
  if (!gfit::detail::all_finite(points_)) {
    refuse(gfReason::non_finite_input, "a coordinate is not finite");
    status_ = gfDirectFitStatus::degenerate;
    return;
  }
  const gfit::detail::PointSpread spread = gfit::detail::point_spread(points_);
  if (!spread.spans(gfit::detail::Span::space)) {
    refuse(gfReason::not_determined, spread.spans(gfit::detail::Span::plane)
                                         ? "the points do not determine the sphere: they lie in a plane"
                                         : "the points do not determine the sphere: they lie on a line");
    status_ = gfDirectFitStatus::singular;
    return;
  }
  // The sums of the normal equations; q = x^2 + y^2 + z^2.
  double sx = 0, sy = 0, sz = 0, sxx = 0, syy = 0, szz = 0, sxy = 0, sxz = 0, syz = 0;
  double sqx = 0, sqy = 0, sqz = 0, sq = 0;
  for (giPoint3 const& p : points_) {
    const double x = p.x(), y = p.y(), z = p.z();
    const double xx = x * x, yy = y * y, zz = z * z, q = xx + yy + zz;
    sx += x;
    sy += y;
    sz += z;
    sxx += xx;
    syy += yy;
    szz += zz;
    sxy += x * y;
    sxz += x * z;
    syz += y * z;
    sqx += q * x;
    sqy += q * y;
    sqz += q * z;
    sq += q;
  }
  if (!std::isfinite(sq + sqx + sqy + sqz)) {
    refuse(gfReason::out_of_range);
    status_ = gfDirectFitStatus::degenerate;
    return;
  }
  double m[4][5] = {{sxx, sxy, sxz, sx, -sqx},
                    {sxy, syy, syz, sy, -sqy},
                    {sxz, syz, szz, sz, -sqz},
                    {sx, sy, sz, static_cast<double>(n), -sq}};
  matrix_rowred(&m[0][0], 4, 5);
  const double d = m[0][4], e = m[1][4], f = m[2][4], g = m[3][4];
  const giPoint3 centre(-0.5 * d, -0.5 * e, -0.5 * f);
  const double radius = std::sqrt(centre.vector().squared_length() - g);  // NaN when negative
  // A sphere beyond 1e6 times the points' extent is a plane in disguise.
  if (!(centre.finite() && std::isfinite(radius)) || !gfit::detail::within_size_bound(radius, spread.extent)) {
    refuse(gfReason::not_determined, "the points do not determine the sphere: its size is beyond any measured feature");
    status_ = gfDirectFitStatus::degenerate;
    return;
  }
  centre_ = centre;
  radius_ = radius;
  status_ = gfDirectFitStatus::fitted;
}

void gfSphereFit::matrix_rowred(double* const matrix, int rows, int columns) {
  constexpr double tiny = 1e-20;
  auto at = [&](int i, int j) -> double& { return matrix[i * columns + j]; };
  for (int k = 0; k < rows; ++k) {
    int pivot_row = k;
    for (int r = k + 1; r < rows; ++r)
      if (std::fabs(at(r, k)) > std::fabs(at(pivot_row, k))) pivot_row = r;
    if (pivot_row != k)
      for (int j = 0; j < columns; ++j) std::swap(at(k, j), at(pivot_row, j));
    const double pivot = at(k, k);
    if (!(std::fabs(pivot) > tiny)) continue;
    for (int i = 0; i < rows; ++i) {
      if (i == k || !(std::fabs(at(i, k)) > tiny)) continue;
      const double factor = at(i, k) / pivot;
      for (int j = 0; j < columns; ++j) at(i, j) -= factor * at(k, j);
    }
  }
  for (int i = 0; i < rows; ++i) {
    const double diagonal = at(i, i);
    if (std::fabs(diagonal) > tiny)
      for (int j = 0; j < columns; ++j) at(i, j) /= diagonal;
  }
}

double gfSphereFit::chi() const {
  const int n = points_.count();
  if (n == 0) return DBL_MAX;
  double sum = 0.0;
  for (giPoint3 const& p : points_) {
    double e = p.distance(centre_) - radius_;
    sum += e * e;
  }
  return std::sqrt(sum / n);
}
