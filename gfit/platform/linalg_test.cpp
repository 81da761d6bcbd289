#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "gfit/gfit.h"
#include "test/support/samplers.h"

namespace {

mlMatrix random_matrix(gfit::testing::Rng& rng, int rows, int cols) {
  mlMatrix m(rows, cols);
  for (int i = 0; i < rows; ++i)
    for (int j = 0; j < cols; ++j) m(i, j) = rng.uniform(-1, 1);
  return m;
}

double max_abs_difference(mlMatrix const& a, mlMatrix const& b) {
  double d = 0.0;
  for (int i = 0; i < a.rows(); ++i)
    for (int j = 0; j < a.cols(); ++j) d = std::max(d, std::fabs(a(i, j) - b(i, j)));
  return d;
}

TEST(Matrix, StoredRowByRow) {
  double values[] = {1, 2, 3, 4, 5, 6};
  mlMatrix m(utConvert{}, values, 2, 3);
  EXPECT_EQ(m(0, 2), 3.0);
  EXPECT_EQ(m(1, 0), 4.0);
  EXPECT_EQ(m[4], 5.0);
  mlMatrix t(mlMatrixTranspose{}, m);
  EXPECT_EQ(t.rows(), 3);
  EXPECT_EQ(t(2, 1), 6.0);
  mlMatrix p(mlMatrixProduct{}, m, t);
  EXPECT_EQ(p(0, 0), 14.0);
  EXPECT_EQ(p(1, 0), 32.0);
  mlVector v{1, 1, 1};
  mlVector mv = m * v;
  EXPECT_EQ(mv[1], 15.0);
  EXPECT_NEAR(mlMatrix::identity(3).determinant(), 1.0, 0.0);
  mlVector r{1, 2};
  r.resize(4);
  EXPECT_EQ(r[1], 2.0);  // resizing keeps the leading elements
  EXPECT_EQ(r[3], 0.0);
}

TEST(SingularValues, DescendingThinAndReconstructing) {
  gfit::testing::Rng rng(5);
  for (auto [rows, cols] : {std::pair{7, 3}, std::pair{3, 5}, std::pair{4, 4}, std::pair{200, 4}}) {
    mlMatrix a = random_matrix(rng, rows, cols);
    mlSingularValueDecomposition svd(a);
    const int k = std::min(rows, cols);
    ASSERT_EQ(svd.diagonal().size(), k);
    EXPECT_EQ((std::vector<int>{svd.U().rows(), svd.U().cols(), svd.V().rows(), svd.V().cols()}),
              (std::vector<int>{rows, k, cols, k}));  // thin
    for (int i = 1; i < k; ++i) EXPECT_GE(svd.diagonal()[i - 1], svd.diagonal()[i]);
    mlMatrix s(k, k);
    for (int i = 0; i < k; ++i) s(i, i) = svd.diagonal()[i];
    mlMatrix back = svd.U() * s * mlMatrix(mlMatrixTranspose{}, svd.V());
    EXPECT_LT(max_abs_difference(back, a), 1e-13);
  }
}

TEST(SingularValues, TallMatrixWithoutUMatchesTheFullDecomposition) {
  gfit::testing::Rng rng(6);
  mlMatrix a = random_matrix(rng, 1000, 3);
  for (int i = 0; i < 1000; ++i) a(i, 0) += 1e4;  // far from the origin
  mlSingularValueDecomposition full(a), v_only(a, 0, 1);
  EXPECT_EQ(v_only.U().cols(), 0);
  for (int k = 0; k < 3; ++k) {
    EXPECT_NEAR(v_only.diagonal()[k], full.diagonal()[k], 1e-12 * full.diagonal()[0]);
    double dot = 0.0;
    for (int i = 0; i < 3; ++i) dot += full.V()(i, k) * v_only.V()(i, k);
    EXPECT_NEAR(std::fabs(dot), 1.0, 1e-10);  // same vector up to sign
  }
}

TEST(SingularValues, SingularityRankAndPseudoInverse) {
  double values[] = {1, 2, 2, 4, 3, 6};  // rank 1
  mlSingularValueDecomposition svd(mlMatrix(utConvert{}, values, 3, 2));
  EXPECT_TRUE(svd.is_singular(1e-8));
  EXPECT_EQ(svd.rank(1e-8), 1);
  double square[] = {4, 1, 2, 3};
  mlMatrix a(utConvert{}, square, 2, 2);
  mlSingularValueDecomposition regular(a);
  EXPECT_FALSE(regular.is_singular(1e-8));
  mlMatrix product = a * regular.pseudo_inverse(1e-12);
  EXPECT_LT(max_abs_difference(product, mlMatrix::identity(2)), 1e-14);
  EXPECT_TRUE(mlSingularValueDecomposition(mlMatrix(3, 3)).is_singular(1e-8));
}

TEST(EigenSolvers, SymmetricAscending) {
  double values[] = {2, 1, 0, 1, 2, 0, 0, 0, 5};
  mlSymEigenVecs eig(mlMatrix(utConvert{}, values, 3, 3), 1e-4);
  ASSERT_EQ(eig.size(), 3);
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(eig.eigenvalue(k), 1.0 + 2 * k, 1e-14);
  mlVector v = eig.eigenvector(0);  // (1, -1, 0)/sqrt(2) up to sign
  EXPECT_NEAR(std::fabs(v[0] - v[1]), std::sqrt(2.0), 1e-14);
  EXPECT_NEAR(v[2], 0.0, 1e-14);
}

TEST(EigenSolvers, NonSymmetricThreeByThree) {
  double real[] = {2, 1, 0, 0, 3, 1, 0, 0, -1};  // triangular: eigenvalues 2, 3, -1
  mlAsymEigenVecs3 e(mlMatrix(utConvert{}, real, 3, 3));
  ASSERT_EQ(e.n_real(), 3);
  const double ascending[] = {-1, 2, 3};
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(e.eigenvalue(k), ascending[k], 1e-14);
  mlVector v = e.eigenvector(1);  // (1, 0, 0)
  EXPECT_NEAR(std::fabs(v[0]), 1.0, 1e-14);
  double rotation[] = {0, -1, 0, 1, 0, 0, 0, 0, 2};  // eigenvalues +-i and 2
  mlAsymEigenVecs3 c(mlMatrix(utConvert{}, rotation, 3, 3));
  EXPECT_EQ(c.n_real(), 1);
  EXPECT_NEAR(c.eigenvalue(0), 2.0, 1e-14);
}

TEST(EigenSolvers, DoubleEigenvalueSplitByRoundingCountsAsReal) {
  // P diag(-1, -1, 2) P^-1 in floating point: the decomposition returns -1 +- 1.4e-15 i.
  double m[] = {0.047926150395634748, -0.40282387793345054, 0.34915506950040254,
                -18.691382466289742,  6.1849864288294638,   -6.2277202850717108,
                -15.705646039597106,  6.0372663099705015,   -6.2329125792250988};
  mlMatrix a(utConvert{}, m, 3, 3);
  mlAsymEigenVecs3 e(a);
  ASSERT_EQ(e.n_real(), 3);
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(e.eigenvalue(k), k < 2 ? -1.0 : 2.0, 1e-12);
  // Both vectors of the double eigenvalue are eigenvectors, and they are independent.
  mlVector v0 = e.eigenvector(0), v1 = e.eigenvector(1);
  for (mlVector const& v : {v0, v1}) {
    mlVector av = a * v;
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(av[i], -v[i], 1e-12);
  }
  EXPECT_LT(std::fabs(v0.dot(v1)), 0.999);
}

TEST(Random, FirstDrawsFollowTheRecurrence) {
  // state_1 = 1 * 214013 + 2531011 = 2745024, and 2745024 >> 16 = 41; the next states
  // follow the same recurrence modulo 2^32.
  mlRandom r;
  const int expected[] = {41, 18467, 6334, 26500, 19169, 15724, 11478, 29358, 26962, 24464};
  for (int e : expected) EXPECT_EQ(r.next(), e);
  mlRandom s(1);
  EXPECT_DOUBLE_EQ(s.next_unit(), 41 / 32767.0);
  s.seed(1);
  EXPECT_EQ(s.next(), 41);
}

}  // namespace
