#include "gfit/platform/qr_accumulator.h"

#include <cmath>

namespace gfit::detail {

void TriangularAccumulator::reset(int cols) {
  cols_ = cols;
  pending_ = 0;
  r_.assign(static_cast<size_t>(cols) * cols, 0.0);
  buffer_.assign(static_cast<size_t>(cols) * block_rows, 0.0);
}

namespace {
// Dot product with four partial sums in a fixed order: deterministic, and lets the compiler
// keep the multiplications in flight.
inline double dot(double const* a, double const* b, int n) {
  double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
  int i = 0;
  for (; i + 4 <= n; i += 4) {
    s0 += a[i] * b[i];
    s1 += a[i + 1] * b[i + 1];
    s2 += a[i + 2] * b[i + 2];
    s3 += a[i + 3] * b[i + 3];
  }
  for (; i < n; ++i) s0 += a[i] * b[i];
  return (s0 + s1) + (s2 + s3);
}
}  // namespace

void TriangularAccumulator::absorb(int rows) {
  // Householder QR of the stacked matrix [R; W], exploiting that column j of R is zero
  // below row j: the reflection of column j involves only R(j, .) and the block's rows.
  const int c = cols_;
  double* w = buffer_.data();
  for (int j = 0; j < c; ++j) {
    double* wj = w + j * block_rows;
    double s = dot(wj, wj, rows);
    if (s == 0.0) continue;  // the column is already reduced
    double x0 = r_[j * c + j];
    double norm = std::sqrt(x0 * x0 + s);
    double alpha = x0 >= 0.0 ? -norm : norm;  // new diagonal, sign chosen against cancellation
    double v0 = x0 - alpha;
    double tau = 2.0 / (v0 * v0 + s);
    for (int k = j + 1; k < c; ++k) {
      double* wk = w + k * block_rows;
      double f = tau * (v0 * r_[j * c + k] + dot(wj, wk, rows));
      r_[j * c + k] -= f * v0;
      for (int i = 0; i < rows; ++i) wk[i] -= f * wj[i];
    }
    r_[j * c + j] = alpha;
  }
}

}  // namespace gfit::detail
