#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <vector>

#include "gfit/gfit.h"

namespace {

using Vec = std::vector<double>;

// A quadratic programme held plainly, so that the tests can check answers independently.
struct Problem {
  int n = 0;
  Vec h, g;                 // n x n, n
  std::vector<Vec> rows;    // constraint normals
  Vec b;
  std::vector<bool> equality;

  void add(Vec c, double rhs, bool eq = false) {
    rows.push_back(std::move(c));
    b.push_back(rhs);
    equality.push_back(eq);
  }
  mlConstrainedQuadraticMinimiser::Status solve(mlConstrainedQuadraticMinimiser& qp, Vec& x) const {
    qp.set_problem(n, h.data(), g.data());
    for (size_t k = 0; k < rows.size(); ++k) {
      if (equality[k])
        qp.add_equality(rows[k].data(), b[k], static_cast<int>(k));
      else
        qp.add_inequality(rows[k].data(), b[k], static_cast<int>(k));
    }
    x.assign(n, 0.0);
    return qp.solve(x.data());
  }
  double objective(Vec const& x) const {
    double f = 0.0;
    for (int i = 0; i < n; ++i) {
      double hx = 0.0;
      for (int k = 0; k < n; ++k) hx += h[i * n + k] * x[k];
      f += x[i] * (0.5 * hx + g[i]);
    }
    return f;
  }
  double dot(size_t k, Vec const& x) const {
    double s = 0.0;
    for (int i = 0; i < n; ++i) s += rows[k][i] * x[i];
    return s;
  }
};

// Dense Gaussian elimination with partial pivoting; false when singular.
bool gauss(std::vector<Vec> a, Vec rhs, Vec& x) {
  const int m = static_cast<int>(rhs.size());
  for (int c = 0; c < m; ++c) {
    int p = c;
    for (int r = c + 1; r < m; ++r)
      if (std::fabs(a[r][c]) > std::fabs(a[p][c])) p = r;
    if (std::fabs(a[p][c]) < 1e-12) return false;
    std::swap(a[p], a[c]);
    std::swap(rhs[p], rhs[c]);
    for (int r = c + 1; r < m; ++r) {
      double f = a[r][c] / a[c][c];
      for (int k = c; k < m; ++k) a[r][k] -= f * a[c][k];
      rhs[r] -= f * rhs[c];
    }
  }
  x.assign(m, 0.0);
  for (int r = m - 1; r >= 0; --r) {
    double s = rhs[r];
    for (int k = r + 1; k < m; ++k) s -= a[r][k] * x[k];
    x[r] = s / a[r][r];
  }
  return true;
}

// The exact answer by enumerating every active set (equalities always in): solve the KKT
// system of each, keep the feasible point with non-negative multipliers. False: infeasible.
bool brute_force(Problem const& q, Vec& best) {
  const int m = static_cast<int>(q.rows.size());
  double best_f = HUGE_VAL;
  int equalities = 0;
  for (int k = 0; k < m; ++k)
    if (q.equality[k]) equalities |= 1 << k;
  for (int mask = 0; mask < (1 << m); ++mask) {
    if (mask & equalities) continue;
    std::vector<int> act;
    for (int k = 0; k < m; ++k)
      if (q.equality[k] || (mask >> k & 1)) act.push_back(k);
    if (static_cast<int>(act.size()) > q.n) continue;
    const int s = q.n + static_cast<int>(act.size());
    std::vector<Vec> a(s, Vec(s, 0.0));
    Vec rhs(s, 0.0), sol;
    for (int i = 0; i < q.n; ++i) {
      for (int k = 0; k < q.n; ++k) a[i][k] = q.h[i * q.n + k];
      rhs[i] = -q.g[i];
      for (size_t j = 0; j < act.size(); ++j) a[i][q.n + j] = -q.rows[act[j]][i];
    }
    for (size_t j = 0; j < act.size(); ++j) {
      for (int k = 0; k < q.n; ++k) a[q.n + j][k] = q.rows[act[j]][k];
      rhs[q.n + j] = q.b[act[j]];
    }
    if (!gauss(a, rhs, sol)) continue;
    Vec x(sol.begin(), sol.begin() + q.n);
    bool ok = true;
    for (size_t j = 0; j < act.size(); ++j)
      if (!q.equality[act[j]] && sol[q.n + j] < -1e-9) ok = false;
    for (int k = 0; k < m && ok; ++k)
      if (q.dot(k, x) - q.b[k] < -1e-9) ok = false;
    if (ok && q.objective(x) < best_f) {
      best_f = q.objective(x);
      best = x;
    }
  }
  return best_f < HUGE_VAL;
}

Problem random_problem(mlRandom& rng, int n, int m) {
  Problem q;
  q.n = n;
  std::vector<Vec> f(n, Vec(n));
  for (auto& r : f)
    for (double& v : r) v = 2 * rng.next_unit() - 1;
  q.h.assign(n * n, 0.0);
  for (int i = 0; i < n; ++i)
    for (int k = 0; k < n; ++k) {
      for (int j = 0; j < n; ++j) q.h[i * n + k] += f[j][i] * f[j][k];
      if (i == k) q.h[i * n + k] += 0.1;
    }
  for (int i = 0; i < n; ++i) q.g.push_back(4 * rng.next_unit() - 2);
  for (int k = 0; k < m; ++k) {
    Vec c(n);
    for (double& v : c) v = 2 * rng.next_unit() - 1;
    q.add(c, 2 * rng.next_unit() - 1.2);
  }
  return q;
}

// A non-negative combination of the reported rows (the violated one with coefficient 1)
// has a vanishing left side and a positive right side.
void expect_farkas(Problem const& q, intcoDynArr const& ids) {
  ASSERT_GE(ids.count(), 2);
  // Least squares for the coefficients of all reported rows but the first, the first fixed at 1.
  const int k = ids.count() - 1;
  std::vector<Vec> a(k, Vec(k, 0.0));
  Vec rhs(k, 0.0), y;
  for (int i = 0; i < k; ++i)
    for (int j = 0; j < k; ++j) {
      for (int d = 0; d < q.n; ++d) a[i][j] += q.rows[ids[i + 1]][d] * q.rows[ids[j + 1]][d];
    }
  for (int i = 0; i < k; ++i)
    for (int d = 0; d < q.n; ++d) rhs[i] -= q.rows[ids[i + 1]][d] * q.rows[ids[0]][d];
  ASSERT_TRUE(gauss(a, rhs, y));
  double right = q.b[ids[0]];
  for (int d = 0; d < q.n; ++d) {
    double left = q.rows[ids[0]][d];
    for (int i = 0; i < k; ++i) left += y[i] * q.rows[ids[i + 1]][d];
    EXPECT_NEAR(left, 0.0, 1e-9);
  }
  for (int i = 0; i < k; ++i) {
    EXPECT_GE(y[i], -1e-9);
    right += y[i] * q.b[ids[i + 1]];
  }
  EXPECT_GT(right, 1e-9);
}

TEST(ConstrainedQuadraticMinimiser, AgreesWithEnumerationOfActiveSets) {
  mlRandom rng(1);
  mlConstrainedQuadraticMinimiser qp;
  int feasible = 0, infeasible = 0;
  for (int seed = 0; seed < 1000; ++seed) {
    Problem q = random_problem(rng, 1 + seed % 4, 1 + seed % 8);
    if (seed % 5 == 0) q.equality[0] = true;
    Vec expected, x;
    bool exists = brute_force(q, expected);
    auto status = q.solve(qp, x);
    if (exists) {
      ++feasible;
      ASSERT_EQ(status, mlConstrainedQuadraticMinimiser::ok) << "seed " << seed;
      for (int i = 0; i < q.n; ++i) EXPECT_NEAR(x[i], expected[i], 1e-10 * (1 + std::fabs(expected[i]))) << seed;
      EXPECT_NEAR(qp.objective(), q.objective(x), 1e-12 * (1 + std::fabs(qp.objective())));
    } else {
      ++infeasible;
      ASSERT_EQ(status, mlConstrainedQuadraticMinimiser::infeasible) << "seed " << seed;
      if (qp.contradictory_constraints().count() > 0 && !q.equality[0]) expect_farkas(q, qp.contradictory_constraints());
    }
  }
  EXPECT_GT(feasible, 500);
  EXPECT_GT(infeasible, 20);
}

TEST(ConstrainedQuadraticMinimiser, MeetsKktOnSixVariablesAndFiveThousandConstraints) {
  mlRandom rng(1);
  Problem q = random_problem(rng, 6, 0);
  for (double& v : q.g) v *= 100;  // the unconstrained minimum lies far outside
  for (int k = 0; k < 5000; ++k) {
    Vec c(6);
    for (double& v : c) v = 2 * rng.next_unit() - 1;
    q.add(c, -rng.next_unit());  // the origin is feasible
  }
  mlConstrainedQuadraticMinimiser qp;
  qp.reserve(6, 5000);
  Vec x;
  double best = HUGE_VAL;
  for (int run = 0; run < 20; ++run) {
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(q.solve(qp, x), mlConstrainedQuadraticMinimiser::ok);
    best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
  }
  Vec stationarity(q.g);
  for (int i = 0; i < 6; ++i)
    for (int k = 0; k < 6; ++k) stationarity[i] += q.h[i * 6 + k] * x[k];
  for (int a = 0; a < qp.n_active(); ++a) {
    EXPECT_GE(qp.active_multiplier(a), -1e-12);
    EXPECT_LE(std::fabs(qp.active_multiplier(a) * (q.dot(qp.active_id(a), x) - q.b[qp.active_id(a)])), 1e-10);
    for (int i = 0; i < 6; ++i) stationarity[i] -= qp.active_multiplier(a) * q.rows[qp.active_id(a)][i];
  }
  double gnorm = 0.0;
  for (double v : q.g) gnorm = std::max(gnorm, std::fabs(v));
  for (double v : stationarity) EXPECT_LE(std::fabs(v), 1e-10 * gnorm);
  for (int k = 0; k < 5000; ++k) EXPECT_GE(q.dot(k, x) - q.b[k], -1e-10);
  EXPECT_GE(qp.n_active(), 3);
#ifdef NDEBUG
  EXPECT_LT(best, 1e-3) << "best of 20 solves (the best, so that a busy machine does not fail it)";
#endif
}

TEST(ConstrainedQuadraticMinimiser, NamesContradictoryConstraints) {
  mlConstrainedQuadraticMinimiser qp;
  Vec x;
  Problem line;  // x >= 1 and -x >= 0
  line.n = 1;
  line.h = {1.0};
  line.g = {0.0};
  line.add({1.0}, 1.0);
  line.add({-1.0}, 0.0);
  EXPECT_EQ(line.solve(qp, x), mlConstrainedQuadraticMinimiser::infeasible);
  ASSERT_EQ(qp.contradictory_constraints().count(), 2);
  expect_farkas(line, qp.contradictory_constraints());

  // Three half-planes of the plane with an empty intersection, among feasible ones.
  Problem tri;
  tri.n = 2;
  tri.h = {2.0, 0.3, 0.3, 1.0};
  tri.g = {0.5, -1.0};
  tri.add({0.0, 1.0}, -100.0);  // harmless
  tri.add({1.0, 0.0}, 1.0);     // x >= 1
  tri.add({-1.0, 0.2}, 0.0);    // x <= 0.2 y
  tri.add({0.0, -1.0}, -2.0);   // y <= 2
  tri.add({1.0, 1.0}, -50.0);   // harmless
  EXPECT_EQ(tri.solve(qp, x), mlConstrainedQuadraticMinimiser::infeasible);
  intcoDynArr const& ids = qp.contradictory_constraints();
  ASSERT_EQ(ids.count(), 3);
  EXPECT_EQ(ids[0], 1);
  EXPECT_EQ(ids[1], 2);
  EXPECT_EQ(ids[2], 3);
  expect_farkas(tri, ids);
}

TEST(ConstrainedQuadraticMinimiser, DegenerateConstraintSets) {
  struct Case {
    char const* name;
    std::vector<std::pair<Vec, double>> rows;
    bool first_is_equality;
    Vec expected;
  };
  // min 1/2 |x|^2 - (3, 3).x : the unconstrained minimum (3, 3).
  std::vector<Case> cases = {
      {"duplicated", {{{-1, 0}, -1}, {{-1, 0}, -1}, {{-2, 0}, -2}}, false, {1, 3}},
      {"equality and inequality on one row", {{{1, 1}, 2}, {{1, 1}, 2}, {{-1, -1}, -2}}, true, {1, 1}},
      {"no constraints", {}, false, {3, 3}},
  };
  Case fan{"ten through one vertex", {}, false, {1, 1}};
  for (int k = 0; k < 10; ++k) {
    double a = 0.1 + 1.3 * k / 9.0;  // directions pointing back towards the origin
    Vec c{-std::cos(a), -std::sin(a)};
    fan.rows.push_back({c, c[0] + c[1]});
  }
  cases.push_back(fan);
  for (Case const& c : cases) {
    Problem q;
    q.n = 2;
    q.h = {1, 0, 0, 1};
    q.g = {-3, -3};
    for (size_t k = 0; k < c.rows.size(); ++k) q.add(c.rows[k].first, c.rows[k].second, k == 0 && c.first_is_equality);
    mlConstrainedQuadraticMinimiser qp;
    Vec x, again;
    ASSERT_EQ(q.solve(qp, x), mlConstrainedQuadraticMinimiser::ok) << c.name;
    EXPECT_NEAR(x[0], c.expected[0], 1e-12) << c.name;
    EXPECT_NEAR(x[1], c.expected[1], 1e-12) << c.name;
    q.solve(qp, again);
    EXPECT_EQ(x, again) << c.name;
  }
}

TEST(ConstrainedQuadraticMinimiser, RefusesWhatItCannotSolve) {
  mlConstrainedQuadraticMinimiser qp;
  Vec x{7.0, 7.0};
  double h_indefinite[] = {1, 0, 0, -1}, g[] = {0, 0};
  qp.set_problem(2, h_indefinite, g);
  EXPECT_EQ(qp.solve(x.data()), mlConstrainedQuadraticMinimiser::not_convex);
  double h[] = {1, 0, 0, 1}, c[] = {NAN, 1};
  qp.set_problem(2, h, g);
  qp.add_inequality(c, 0.0, 0);
  EXPECT_EQ(qp.solve(x.data()), mlConstrainedQuadraticMinimiser::bad_input);
  EXPECT_EQ(x, (Vec{7.0, 7.0}));
  mlConstrainedQuadraticMinimiser empty;
  EXPECT_EQ(empty.solve(x.data()), mlConstrainedQuadraticMinimiser::bad_input);
}

TEST(ConstrainedQuadraticMinimiser, MergesConstraintIndices) {
  struct Case {
    intcoDynArr list, more, expected;
  };
  std::vector<Case> cases = {{{0, 4, 7}, {1, 4}, {0, 1, 4, 7}}, {{}, {2, 5}, {2, 5}}, {{3}, {}, {3}}, {{1, 2}, {0, 9}, {0, 1, 2, 9}}};
  for (Case& c : cases) {
    mlConstrainedQuadraticMinimiser::append_constraint_indices(c.list, c.more);
    ASSERT_EQ(c.list.count(), c.expected.count());
    for (int i = 0; i < c.list.count(); ++i) EXPECT_EQ(c.list[i], c.expected[i]);
  }
}

}  // namespace
