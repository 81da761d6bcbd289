// Streaming thin QR: the triangular factor of a tall matrix, one block of rows at a time.
//
// For an n x c matrix A (n large, c small) this keeps only the c x c upper-triangular R
// with R^T R = A^T A, computed by Householder reflections of [R; block] as each block of
// rows arrives. It never stores A, never forms A^T A (which would square the condition
// number), and allocates nothing after construction. The singular values and right
// singular vectors of R are those of A, so small SVDs of R replace the n x c decomposition;
// the least-squares fits and the Levenberg-Marquardt solver stream their points through it.
//
// Rows are written into a column-major buffer of `block_rows` rows (column j starts at
// buffer() + j * block_rows) and folded in with `absorb`; `add_row` does both for one row.
#pragma once

#include <vector>

#include "gfit/gfit_export.h"

namespace gfit::detail {

class GFIT_EXPORT TriangularAccumulator {
 public:
  static constexpr int block_rows = 64;

  explicit TriangularAccumulator(int cols = 0) { reset(cols); }

  // Empties the factor for matrices of `cols` columns.
  void reset(int cols);
  int cols() const { return cols_; }

  double* buffer() { return buffer_.data(); }
  // Folds the first `rows` rows of the buffer into the factor.
  void absorb(int rows);

  // Appends one row of `cols` values; rows are folded in a block at a time.
  void add_row(double const* row) {
    double* b = buffer_.data() + pending_;
    for (int j = 0; j < cols_; ++j) b[j * block_rows] = row[j];
    if (++pending_ == block_rows) flush();
  }
  // Folds in the rows that `add_row` still holds.
  void flush() {
    if (pending_ > 0) absorb(pending_);
    pending_ = 0;
  }

  // Element (i, j) of R, i <= j (row-major c x c; the strict lower part is zero).
  double r(int i, int j) const { return r_[i * cols_ + j]; }
  double const* r_data() const { return r_.data(); }

 private:
  int cols_ = 0;
  int pending_ = 0;
  std::vector<double> r_;
  std::vector<double> buffer_;
};

}  // namespace gfit::detail
