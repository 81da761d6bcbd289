// Eigen-decompositions of small matrices.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/matrix.h"

// Symmetric eigenproblem: eigenvalues in ascending order, eigenvectors (unit) as the
// columns of `eigenvectors()`, column i belonging to eigenvalue i. Only the lower triangle
// of the input is read. The tolerance of the interface is accepted for compatibility with
// iterative solvers; the decomposition is always computed to full precision.
class GFIT_EXPORT mlSymEigenVecs {
 public:
  explicit mlSymEigenVecs(mlMatrix const& a, double tolerance = 0.0);

  int size() const { return values_.size(); }
  mlVector const& eigenvalues() const { return values_; }
  mlMatrix const& eigenvectors() const { return vectors_; }
  double eigenvalue(int i) const { return values_[i]; }
  mlVector eigenvector(int i) const { return vectors_.column(i); }

 private:
  mlVector values_;
  mlMatrix vectors_;
};

// Real non-symmetric 3 x 3 eigenproblem. The real eigenvalues come first, in ascending
// order (indices 0 .. n_real() - 1), then any complex pair (ordered by imaginary part).
// `eigenvector(i)` is the unit real eigenvector of a real eigenvalue (the real part of the
// complex one otherwise). A complex pair whose imaginary part is at most sqrt(eps) |A|
// (Frobenius norm) counts as a real double eigenvalue: rounding splits a double eigenvalue
// into such a pair. Its two eigenvectors then span the pair's invariant plane.
class GFIT_EXPORT mlAsymEigenVecs3 {
 public:
  explicit mlAsymEigenVecs3(mlMatrix const& a);

  int n_real() const { return n_real_; }
  double eigenvalue(int i) const { return re_[i]; }
  double eigenvalue_imag(int i) const { return im_[i]; }
  mlVector eigenvector(int i) const { return vectors_.column(i); }

 private:
  int n_real_ = 0;
  double re_[3] = {0, 0, 0};
  double im_[3] = {0, 0, 0};
  mlMatrix vectors_;
};
