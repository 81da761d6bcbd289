#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <complex>

#include "gfit/platform/eigen_solvers.h"
#include "gfit/platform/matrix.h"
#include "gfit/platform/qr_accumulator.h"
#include "gfit/platform/svd.h"

namespace {
using RowMatrix = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
using ConstMap = Eigen::Map<const RowMatrix>;
using Map = Eigen::Map<RowMatrix>;

ConstMap view(mlMatrix const& m) { return ConstMap(m.data(), m.rows(), m.cols()); }
Map view(mlMatrix& m) { return Map(m.data(), m.rows(), m.cols()); }

mlMatrix from(Eigen::Ref<const Eigen::MatrixXd> const& e) {
  mlMatrix m(static_cast<int>(e.rows()), static_cast<int>(e.cols()));
  view(m) = e;
  return m;
}
}  // namespace

// ---- vectors and matrices ---------------------------------------------------------------

double mlVector::dot(mlVector const& o) const {
  double s = 0.0;
  for (size_t i = 0; i < v_.size(); ++i) s += v_[i] * o.v_[i];
  return s;
}

double mlVector::norm() const {
  return Eigen::Map<const Eigen::VectorXd>(v_.data(), static_cast<Eigen::Index>(v_.size())).norm();
}

mlMatrix::mlMatrix(utConvert, double const* values, int rows, int cols) : mlMatrix(rows, cols) {
  std::copy(values, values + static_cast<size_t>(rows) * cols, a_.begin());
}

mlMatrix::mlMatrix(mlMatrixTranspose, mlMatrix const& m) : mlMatrix(m.cols(), m.rows()) {
  view(*this) = view(m).transpose();
}

mlMatrix::mlMatrix(mlMatrixProduct, mlMatrix const& a, mlMatrix const& b) : mlMatrix(a.rows(), b.cols()) {
  view(*this).noalias() = view(a) * view(b);
}

mlMatrix mlMatrix::identity(int n) {
  mlMatrix m(n, n);
  for (int i = 0; i < n; ++i) m(i, i) = 1.0;
  return m;
}

void mlMatrix::resize(int rows, int cols) {
  rows_ = rows;
  cols_ = cols;
  a_.assign(static_cast<size_t>(rows) * cols, 0.0);
}

mlVector mlMatrix::column(int j) const {
  mlVector v(rows_);
  for (int i = 0; i < rows_; ++i) v[i] = (*this)(i, j);
  return v;
}

mlVector mlMatrix::row(int i) const {
  mlVector v(cols_);
  for (int j = 0; j < cols_; ++j) v[j] = (*this)(i, j);
  return v;
}

double mlMatrix::determinant() const { return rows_ == 0 ? 1.0 : view(*this).determinant(); }

mlVector operator*(mlMatrix const& a, mlVector const& x) {
  mlVector y(a.rows());
  Eigen::Map<Eigen::VectorXd>(y.data(), y.size()).noalias() =
      view(a) * Eigen::Map<const Eigen::VectorXd>(x.data(), x.size());
  return y;
}

mlMatrix operator*(mlMatrix const& a, mlMatrix const& b) { return mlMatrix(mlMatrixProduct{}, a, b); }

// ---- singular value decomposition -------------------------------------------------------

mlSingularValueDecomposition::mlSingularValueDecomposition(mlMatrix const& a, int job_u, int job_v) {
  const int m = a.rows(), n = a.cols();
  const int k = std::min(m, n);
  if (k == 0) {
    if (job_u) u_.resize(m, 0);
    if (job_v) v_.resize(n, 0);
    return;
  }
  Eigen::VectorXd s;
  if (!job_u && m > n) {
    // Tall and no U wanted: reduce to the n x n triangular factor and decompose that.
    gfit::detail::TriangularAccumulator acc(n);
    for (int i = 0; i < m; ++i) acc.add_row(a.data() + static_cast<size_t>(i) * n);
    acc.flush();
    Eigen::Map<const RowMatrix> r(acc.r_data(), n, n);
    Eigen::JacobiSVD<Eigen::MatrixXd> svd(r, job_v ? Eigen::ComputeFullV : 0);
    s = svd.singularValues();
    if (job_v) v_ = from(svd.matrixV());
  } else {
    int opts = (job_u ? Eigen::ComputeThinU : 0) | (job_v ? Eigen::ComputeThinV : 0);
    Eigen::JacobiSVD<Eigen::MatrixXd> svd(view(a), opts);
    s = svd.singularValues();
    if (job_u) u_ = from(svd.matrixU());
    if (job_v) v_ = from(svd.matrixV());
  }
  s_.resize(k);
  for (int i = 0; i < k; ++i) s_[i] = s[i];
}

bool mlSingularValueDecomposition::is_singular(double tolerance) const {
  if (s_.size() == 0 || s_[0] == 0.0) return true;
  return s_[s_.size() - 1] <= tolerance * s_[0];
}

int mlSingularValueDecomposition::rank(double tolerance) const {
  int r = 0;
  for (int i = 0; i < s_.size(); ++i)
    if (s_[i] > tolerance * s_[0]) ++r;
  return r;
}

mlMatrix mlSingularValueDecomposition::pseudo_inverse(double tolerance) const {
  const int k = s_.size();
  mlMatrix p(v_.rows(), u_.rows());
  if (k == 0 || u_.cols() != k || v_.cols() != k) return p;
  Eigen::VectorXd inv(k);
  for (int i = 0; i < k; ++i) inv[i] = (s_[i] > tolerance * s_[0] && s_[i] > 0.0) ? 1.0 / s_[i] : 0.0;
  view(p).noalias() = view(v_) * inv.asDiagonal() * view(u_).transpose();
  return p;
}

// ---- eigen-solvers ----------------------------------------------------------------------

mlSymEigenVecs::mlSymEigenVecs(mlMatrix const& a, double /*tolerance*/) {
  const int n = a.rows();
  Eigen::MatrixXd m = view(a);
  Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> es(m);  // ascending eigenvalues
  values_.resize(n);
  for (int i = 0; i < n; ++i) values_[i] = es.eigenvalues()[i];
  vectors_ = from(es.eigenvectors());
}

mlAsymEigenVecs3::mlAsymEigenVecs3(mlMatrix const& a) : vectors_(3, 3) {
  Eigen::Matrix3d m;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) m(i, j) = a(i, j);
  Eigen::EigenSolver<Eigen::Matrix3d> es(m);
  Eigen::Vector3cd values = es.eigenvalues();
  Eigen::Matrix3cd vectors = es.eigenvectors();
  // A double real eigenvalue often comes back as a complex pair whose imaginary parts are
  // rounding noise (of order sqrt(eps) |A| when the eigenvalue is defective). Such a pair is
  // real to working precision: both members take the real part, and as eigenvectors the real
  // and imaginary parts of the complex vector, which span the pair's invariant plane (the
  // real part twice when the imaginary part adds no direction of its own).
  const double real_tolerance = std::sqrt(Eigen::NumTraits<double>::epsilon()) * m.norm();
  Eigen::Matrix3d real_vectors;
  for (int c = 0; c < 3; ++c) real_vectors.col(c) = vectors.col(c).real();
  for (int c = 0; c < 3; ++c) {
    if (values[c].imag() <= 0.0 || values[c].imag() > real_tolerance) continue;
    int partner = -1;
    for (int d = 0; d < 3; ++d)
      if (d != c && values[d] == std::conj(values[c])) partner = d;
    if (partner < 0) continue;
    Eigen::Vector3d re = vectors.col(c).real(), im = vectors.col(c).imag();
    double re_norm = re.norm();
    if (re_norm > 0.0) im -= re * (re.dot(im) / (re_norm * re_norm));
    real_vectors.col(partner) = im.norm() > 1e-8 * re_norm ? im : re;
    values[c] = values[partner] = values[c].real();
  }
  int order[3] = {0, 1, 2};
  // Real eigenvalues first, ascending; then the complex ones by imaginary part.
  std::sort(order, order + 3, [&](int x, int y) {
    bool rx = values[x].imag() == 0.0, ry = values[y].imag() == 0.0;
    if (rx != ry) return rx;
    if (values[x].real() != values[y].real()) return values[x].real() < values[y].real();
    return values[x].imag() < values[y].imag();
  });
  for (int c = 0; c < 3; ++c) {
    int s = order[c];
    re_[c] = values[s].real();
    im_[c] = values[s].imag();
    if (im_[c] == 0.0) ++n_real_;
    Eigen::Vector3d v = real_vectors.col(s);
    double len = v.norm();
    if (len > 0.0) v /= len;
    for (int i = 0; i < 3; ++i) vectors_(i, c) = v[i];
  }
}
