#include "gfit/platform/levenberg_marquardt.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "gfit/platform/qr_accumulator.h"
#include "gfit/platform/report.h"

using gfit::detail::TriangularAccumulator;

namespace {
constexpr int kBlock = TriangularAccumulator::block_rows;
// Singular values of the scaled factor at or below this fraction of the largest carry no
// information the data can support; the step leaves those directions alone.
constexpr double kRankTolerance = 1e-12;

// Folds the rows [J_i | d_i] of every point, at the problem's current parameters, into the
// factor (n_parameters + 1 columns). Returns the sum of the squared-distance terms, summed
// block by block.
double accumulate(mlDistanceLeastSquares const& problem, TriangularAccumulator& acc, double* squares) {
  const int m = problem.n_parameters(), n = problem.n_points();
  acc.reset(m + 1);
  double* buffer = acc.buffer();
  double sum = 0.0;
  for (int first = 0; first < n; first += kBlock) {
    // The host's cancel flag, every 64 blocks: a pass over millions of points takes tens of
    // milliseconds. A cancelled pass sums to NaN, which no caller takes for a solution.
    if (first % (64 * kBlock) == 0 && first > 0 && gfit::detail::cancelled())
      return std::numeric_limits<double>::quiet_NaN();
    const int count = std::min(kBlock, n - first);
    problem.evaluate_block(first, count, buffer + m * kBlock, squares, buffer, kBlock);
    double block_sum = 0.0;
    for (int k = 0; k < count; ++k) block_sum += squares[k];
    sum += block_sum;
    acc.absorb(count);
  }
  return sum;
}

// Whether every element of the factor (Jacobian and distances) is finite: a gradient that is
// not finite leaves a finite sum of squares but a factor the step cannot be formed from.
bool finite_factor(TriangularAccumulator const& acc) {
  const int c = acc.cols();
  for (int i = 0; i < c; ++i)
    for (int j = i; j < c; ++j)
      if (!std::isfinite(acc.r(i, j))) return false;
  return true;
}

// Root-mean-square of Jacobian column j, read off the factor (its columns have the norms
// of J's columns).
double column_rms(TriangularAccumulator const& acc, int j, int n) {
  double s = 0.0;
  for (int i = 0; i <= j; ++i) s += acc.r(i, j) * acc.r(i, j);
  return std::sqrt(s / n);
}
}  // namespace

// ---- the problem base -------------------------------------------------------------------

mlDistanceLeastSquares::mlDistanceLeastSquares(int n_parameters, int n_points)
    : parameters_(n_parameters), n_parameters_(n_parameters), n_points_(n_points),
      gradient_scratch_(n_parameters) {}

mlDistanceLeastSquares::~mlDistanceLeastSquares() = default;

void mlDistanceLeastSquares::set_parameters(mlVector const& p) { parameters_ = p; }

double mlDistanceLeastSquares::get_last_square_distance() const { return last_distance_ * last_distance_; }

int mlDistanceLeastSquares::n_independent_parameters() const { return n_parameters_; }

void mlDistanceLeastSquares::parameter_scales(mlVector& scales) const {
  scales.resize(n_parameters_);
  scales.fill(0.0);
}

void mlDistanceLeastSquares::evaluate_block(int first, int count, double* distances, double* squares,
                                            double* jacobian, int ld) const {
  mlVector& g = gradient_scratch_;
  if (g.size() < n_parameters_) g.resize(n_parameters_);
  for (int k = 0; k < count; ++k) {
    double d = 0.0;
    get_distance_and_gradient(d, g, first + k);
    last_distance_ = d;
    distances[k] = d;
    squares[k] = get_last_square_distance();
    if (jacobian)
      for (int j = 0; j < n_parameters_; ++j) jacobian[j * ld + k] = g[j];
  }
}

void mlDistanceLeastSquares::evaluate_distances(int first, int count, double* distances, double* squares) const {
  for (int k = 0; k < count; ++k) {
    double d = 0.0;
    get_distance(d, first + k);
    last_distance_ = d;
    distances[k] = d;
    squares[k] = get_last_square_distance();
  }
}

double mlDistanceLeastSquares::sum_of_squares() const {
  double distances[kBlock], squares[kBlock];
  double sum = 0.0;
  for (int first = 0; first < n_points_; first += kBlock) {
    const int count = std::min(kBlock, n_points_ - first);
    evaluate_distances(first, count, distances, squares);
    double block_sum = 0.0;
    for (int k = 0; k < count; ++k) block_sum += squares[k];
    sum += block_sum;
  }
  return sum;
}

double mlDistanceLeastSquares::point_distribution_quality(mlVector const& parameters) {
  const int m = n_parameters_, n = n_points_;
  const int k = n_independent_parameters();
  set_parameters(parameters);
  // Fewer points than independent parameters leave some combination free: the k-th
  // singular value is zero in exact arithmetic, so say so rather than return rounding.
  if (k < 1 || k > m || n < k) return 0.0;
  TriangularAccumulator acc(m + 1);
  std::vector<double> squares(kBlock);
  accumulate(*this, acc, squares.data());
  mlVector scales;
  parameter_scales(scales);
  Eigen::MatrixXd a = Eigen::MatrixXd::Zero(m, m);
  for (int j = 0; j < m; ++j) {
    double s = j < scales.size() && scales[j] > 0.0 && std::isfinite(scales[j]) ? scales[j] : 1.0;
    for (int i = 0; i <= j; ++i) a(i, j) = acc.r(i, j) / s;
  }
  Eigen::JacobiSVD<Eigen::MatrixXd> svd(a);
  double q = svd.singularValues()[k - 1] / std::sqrt(static_cast<double>(n));
  return std::isfinite(q) ? q : 0.0;
}

// ---- the solver -------------------------------------------------------------------------

double mlLevenbergMarquardt::fit(mlVector const& start, mlVector& result) {
  const int m = problem_.n_parameters();
  const int n = problem_.n_points();
  const double tol = strict_ ? strict_tolerance : default_tolerance;
  const int polish_limit = strict_ ? 16 : 8;
  iterations_ = 0;
  factor_.reset(0);

  mlVector p(m);
  for (int j = 0; j < m && j < start.size(); ++j) p[j] = start[j];
  problem_.normalize_parameters(p);
  problem_.set_parameters(p);
  result = p;
  if (n == 0) {
    termination_ = no_points;
    return 0.0;
  }

  const int rank_limit = std::clamp(problem_.n_independent_parameters(), 0, m);
  TriangularAccumulator acc(m + 1), trial_acc(m + 1);
  std::vector<double> squares(kBlock);
  double ssr = accumulate(problem_, acc, squares.data());
  if (gfit::detail::cancelled()) {  // possibly within that pass
    termination_ = cancelled;
    return std::numeric_limits<double>::quiet_NaN();
  }
  if (!std::isfinite(ssr)) {
    termination_ = non_finite_start;
    return ssr / n;
  }
  if (!finite_factor(acc)) {
    termination_ = non_finite_gradient;
    return std::numeric_limits<double>::infinity();
  }

  // The damping diagonal: the problem's sensitivities, or the Jacobian's column RMS at the
  // start where the problem gives none.
  mlVector scales;
  problem_.parameter_scales(scales);
  Eigen::VectorXd D(m);
  for (int j = 0; j < m; ++j) {
    double s = j < scales.size() ? scales[j] : 0.0;
    if (!(s > 0.0) || !std::isfinite(s)) s = column_rms(acc, j, n);
    if (!(s > 0.0) || !std::isfinite(s)) s = 1.0;
    D[j] = s;
  }
  auto resolution = [&]() {
    double s = 0.0;
    for (int j = 0; j < m; ++j) s += (D[j] * p[j]) * (D[j] * p[j]);
    return tol * (std::sqrt(s) + tol);
  };

  // The factor's SVD is kept while the factor stands: a rejected trial only shrinks the trust
  // radius, so it needs no new one (and the storage is allocated once per fit).
  Eigen::MatrixXd a_mat(m, m);
  Eigen::JacobiSVD<Eigen::MatrixXd> svd(m, m, Eigen::ComputeFullU | Eigen::ComputeFullV);
  bool factor_changed = true;
  Eigen::VectorXd g(m), a(m), zc(m), z(m);
  mlVector trial(m);
  double delta = -1.0;  // trust radius; the first step is the Gauss-Newton step
  int polish_steps = 0;
  double last_polish = 0.0;

  for (;;) {
    if (gfit::detail::cancelled()) {
      termination_ = cancelled;
      result = p;
      return std::numeric_limits<double>::quiet_NaN();
    }
    if (ssr == 0.0) {
      termination_ = zero_residual;
      break;
    }
    if (iterations_ >= max_iterations_) {
      termination_ = iteration_limit;
      break;
    }
    // The scaled factor R D^-1 and the residual projected onto J's range (Q^T r).
    if (factor_changed) {
      for (int i = 0; i < m; ++i) {
        for (int j = 0; j < m; ++j) a_mat(i, j) = j >= i ? acc.r(i, j) / D[j] : 0.0;
        g[i] = acc.r(i, m);
      }
      svd.compute(a_mat, Eigen::ComputeFullU | Eigen::ComputeFullV);
      a.noalias() = svd.matrixU().transpose() * g;
      factor_changed = false;
    }
    Eigen::VectorXd const& sigma = svd.singularValues();
    int r = 0;
    while (r < rank_limit && sigma[r] > kRankTolerance * sigma[0]) ++r;
    double predicted_gn = 0.0;
    for (int i = 0; i < r; ++i) predicted_gn += a[i] * a[i];

    // |D d(lambda)| for the damped step; lambda = 0 is Gauss-Newton.
    auto step_norm = [&](double lambda) {
      double s = 0.0;
      for (int i = 0; i < r; ++i) {
        double c = sigma[i] * a[i] / (sigma[i] * sigma[i] + lambda);
        s += c * c;
      }
      return std::sqrt(s);
    };
    const double gn_norm = step_norm(0.0);
    if (r == 0 || gn_norm <= resolution()) {
      termination_ = small_step;
      break;
    }
    const bool polishing = predicted_gn <= 1e-8 * ssr;
    if (polishing && (polish_steps >= polish_limit || (polish_steps > 0 && gn_norm > 0.5 * last_polish))) {
      termination_ = stationary;
      break;
    }
    if (delta < 0.0) delta = gn_norm;
    double lambda = 0.0;
    if (!polishing && gn_norm > delta) {
      // Newton's method on 1/|z(lambda)| = 1/delta from lambda = 0 (Moré); it rises
      // monotonically to the root, which is accepted within 10%.
      double zn = gn_norm;
      for (int it = 0; it < 60 && std::fabs(zn - delta) > 0.1 * delta; ++it) {
        double s3 = 0.0;
        for (int i = 0; i < r; ++i) {
          double q = sigma[i] * sigma[i] + lambda;
          s3 += sigma[i] * sigma[i] * a[i] * a[i] / (q * q * q);
        }
        if (!(s3 > 0.0)) break;
        lambda += (zn - delta) * zn * zn / (delta * s3);
        zn = step_norm(lambda);
      }
    }
    double predicted = 0.0, znorm = 0.0;
    zc.setZero();
    for (int i = 0; i < r; ++i) {
      double q = sigma[i] * sigma[i] + lambda;
      zc[i] = -sigma[i] * a[i] / q;
      znorm += zc[i] * zc[i];
      double keep = lambda / q;
      predicted += a[i] * a[i] * (1.0 - keep * keep);
    }
    znorm = std::sqrt(znorm);
    z.noalias() = svd.matrixV() * zc;

    for (int j = 0; j < m; ++j) trial[j] = p[j] + z[j] / D[j];
    problem_.normalize_parameters(trial);
    problem_.set_parameters(trial);
    double ssr_trial = accumulate(problem_, trial_acc, squares.data());
    ++iterations_;
    // A trial whose gradient is not finite is rejected like one whose distances are not.
    if (!finite_factor(trial_acc)) ssr_trial = std::numeric_limits<double>::quiet_NaN();
    // A pass the host cancelled: back to the last accepted point, and out at the top.
    if (std::isnan(ssr_trial) && gfit::detail::cancelled()) {
      problem_.set_parameters(p);
      continue;
    }

    if (polishing) {
      // Judged by its size (above), and accepted unless the sum of squares clearly grows.
      if (!(ssr_trial <= ssr * (1.0 + 1e-10))) {
        problem_.set_parameters(p);
        termination_ = stationary;
        break;
      }
      p = trial;
      ssr = ssr_trial;
      std::swap(acc, trial_acc);
      factor_changed = true;
      last_polish = gn_norm;
      ++polish_steps;
      continue;
    }

    double reduction = ssr - ssr_trial;
    double rho = predicted > 0.0 ? reduction / predicted : -1.0;  // NaN when the trial is not finite
    if (!(rho >= 0.25))
      delta = 0.25 * std::min(delta, znorm);
    else if (rho >= 0.75 || lambda == 0.0)
      delta = std::max(delta, 2.0 * znorm);

    const bool accepted = rho >= 1e-4;
    if (accepted) {
      p = trial;
      ssr = ssr_trial;
      std::swap(acc, trial_acc);
      factor_changed = true;
    } else {
      problem_.set_parameters(p);
    }
    const double res = resolution();
    if (delta <= res || (accepted && znorm <= res)) {
      termination_ = small_step;
      break;
    }
  }
  result = p;
  factor_ = acc;
  return ssr / n;
}
