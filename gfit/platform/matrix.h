// Vectors, matrices and slices of the maths layer.
//
// Dense doubles in contiguous storage that the numerical code maps onto Eigen inside the
// library; no Eigen type appears in these headers, so hosts compile against gfit alone.
// `mlMatrix` stores its elements row by row (element (i, j) at data()[i * cols + j]); the
// converting constructor from a plain array reads it in the same order.
#pragma once

#include <initializer_list>
#include <vector>

#include "gfit/gfit_export.h"
#include "gfit/platform/utilities.h"

class GFIT_EXPORT mlVector {
 public:
  mlVector() = default;
  explicit mlVector(int n) : v_(n > 0 ? n : 0, 0.0) {}
  mlVector(int n, double value) : v_(n > 0 ? n : 0, value) {}
  mlVector(std::initializer_list<double> values) : v_(values) {}

  int size() const { return static_cast<int>(v_.size()); }
  // Keeps the leading elements; new elements are 0.
  void resize(int n) { v_.resize(n > 0 ? n : 0, 0.0); }
  void fill(double value) { v_.assign(v_.size(), value); }

  double& operator[](int i) { return v_[i]; }
  double operator[](int i) const { return v_[i]; }
  double& operator()(int i) { return v_[i]; }
  double operator()(int i) const { return v_[i]; }
  double* data() { return v_.data(); }
  double const* data() const { return v_.data(); }

  double dot(mlVector const& o) const;
  double norm() const;

 private:
  std::vector<double> v_;
};

struct mlMatrixTranspose {};
struct mlMatrixProduct {};

class GFIT_EXPORT mlMatrix {
 public:
  mlMatrix() : rows_(0), cols_(0) {}
  mlMatrix(int rows, int cols) : rows_(rows), cols_(cols), a_(static_cast<size_t>(rows) * cols, 0.0) {}
  // A rows x cols matrix read row by row from `values`.
  mlMatrix(utConvert, double const* values, int rows, int cols);
  mlMatrix(mlMatrixTranspose, mlMatrix const& m);
  mlMatrix(mlMatrixProduct, mlMatrix const& a, mlMatrix const& b);
  static mlMatrix identity(int n);

  template <class... Args>
  void become(Args&&... args) { *this = mlMatrix(static_cast<Args&&>(args)...); }

  int rows() const { return rows_; }
  int cols() const { return cols_; }
  // Resizes to rows x cols, all elements 0.
  void resize(int rows, int cols);

  double& operator()(int i, int j) { return a_[static_cast<size_t>(i) * cols_ + j]; }
  double operator()(int i, int j) const { return a_[static_cast<size_t>(i) * cols_ + j]; }
  // Element k in storage order (row by row).
  double operator[](int k) const { return a_[k]; }
  double* data() { return a_.data(); }
  double const* data() const { return a_.data(); }

  mlVector column(int j) const;
  mlVector row(int i) const;
  double determinant() const;  // square matrices

 private:
  int rows_, cols_;
  std::vector<double> a_;
};

GFIT_EXPORT mlVector operator*(mlMatrix const& a, mlVector const& x);
GFIT_EXPORT mlMatrix operator*(mlMatrix const& a, mlMatrix const& b);

// A read-only view of n doubles with a stride: a whole vector, or a row or column of a
// matrix. It does not own its data, which must outlive it.
class mlSlice {
 public:
  mlSlice(mlVector const& v) : p_(v.data()), n_(v.size()), stride_(1) {}  // NOLINT: implicit
  mlSlice(double const* p, int n, int stride = 1) : p_(p), n_(n), stride_(stride) {}
  static mlSlice row(mlMatrix const& m, int i) { return {m.data() + static_cast<size_t>(i) * m.cols(), m.cols(), 1}; }
  static mlSlice column(mlMatrix const& m, int j) { return {m.data() + j, m.rows(), m.cols()}; }

  int size() const { return n_; }
  double operator[](int i) const { return p_[static_cast<size_t>(i) * stride_]; }

 private:
  double const* p_;
  int n_;
  int stride_;
};
