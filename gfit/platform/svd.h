// Thin singular value decomposition, A = U diag(s) V^T.
//
// For an m x n matrix with k = min(m, n): U is m x k, V is n x k, and the singular values
// `diagonal()` come in descending order. No full m x m U is ever formed. A tall matrix
// whose U is not wanted (job code 0 for U) is reduced by the streaming triangular factor
// first, so the cost is linear in the rows and the memory that of V.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/matrix.h"

class GFIT_EXPORT mlSingularValueDecomposition {
 public:
  // job_u, job_v: 1 to compute U (V), 0 to skip it.
  explicit mlSingularValueDecomposition(mlMatrix const& a, int job_u = 1, int job_v = 1);

  mlMatrix const& U() const { return u_; }
  mlMatrix const& V() const { return v_; }
  mlVector const& diagonal() const { return s_; }

  // Singular at `tolerance`: the smallest singular value is at most tolerance times the
  // largest (an empty or all-zero matrix is singular).
  bool is_singular(double tolerance) const;
  // The number of singular values above tolerance times the largest.
  int rank(double tolerance) const;
  // V diag(1/s) U^T with the singular values at or below tolerance times the largest
  // taken as zero. Needs U and V.
  mlMatrix pseudo_inverse(double tolerance) const;

 private:
  mlMatrix u_, v_;
  mlVector s_;
};
