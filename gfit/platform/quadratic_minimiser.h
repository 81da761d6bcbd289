// Strictly convex quadratic programming with linear equalities and inequalities:
//
//   minimise  1/2 x^T H x + g^T x   subject to  a_k^T x = b_k (equalities),  c_j^T x >= b_j.
//
// Method: the dual active-set method of Goldfarb and Idnani (Math. Programming 27, 1983,
// 1-33), with the factorisation updates of Powell's implementation as QuadProg++ and
// eiquadprog also use them. It starts from the unconstrained minimum -H^{-1} g (no phase 1),
// keeps at most n constraints active, and each step adds the most violated inequality
// (ties: the one added first) or drops the active one whose multiplier would turn negative.
// J = L^{-T} Q and the upper triangle R of the active normals are updated by Givens
// rotations, so a step costs O(n^2) plus O(n m) for the choice of the violated constraint.
//
// Infeasibility falls out of the method: when the violated constraint p is a combination
// n_p = sum r_j n_j of the active normals with every inequality coefficient r_j <= 0, no x
// satisfies p together with them (n_p^T x <= sum r_j b_j < b_p). The ids of p and of the
// active inequalities with r_j < -1e-7 are reported, sorted ascending, by
// `contradictory_constraints()`: a non-negative combination of those rows has a zero left
// side and a positive right side (a Farkas certificate). Equalities are never reported:
// they are the caller's fixed relations, and an inconsistent equality gives `infeasible`
// with an empty list.
//
// Tolerances: an inequality counts as satisfied when c^T x - b >= -1e-12 (1 + |b| +
// |c| |x|); a constraint is a combination of the active ones when the part of its normal
// outside their span, measured in the metric of H^{-1}, is below 1e-10 of the whole.
// Iterations are capped at 10 (n + m).
//
// Memory: `reserve` sizes every buffer for n variables and m constraints; `set_problem`,
// `add_*` and `solve` then allocate nothing as long as the problem stays within that size.
// One object per thread; the object keeps no state between problems beyond its buffers.
#pragma once

#include <vector>

#include "gfit/gfit_export.h"
#include "gfit/platform/arrays.h"
#include "gfit/platform/matrix.h"

class GFIT_EXPORT mlConstrainedQuadraticMinimiser {
 public:
  enum Status {
    ok = 0,           // the minimum, with every constraint satisfied
    infeasible,       // no point satisfies the constraints; see contradictory_constraints()
    not_convex,       // H is not positive definite (the caller must regularise it)
    iteration_limit,  // the iteration cap was reached (a numerical breakdown)
    bad_input,        // no problem set, or a non-finite number in H, g or a constraint
  };

  mlConstrainedQuadraticMinimiser() = default;

  void reserve(int n_variables, int n_constraints);

  // Starts a new problem of n variables: H (n x n, row by row; only its lower triangle is
  // read) and g. Clears the constraints.
  void set_problem(int n, double const* h, double const* g);
  void set_problem(mlMatrix const& h, mlVector const& g);
  // a^T x = b. `id` is the caller's name for the constraint.
  void add_equality(double const* a, double b, int id);
  // c^T x >= b.
  void add_inequality(double const* c, double b, int id);

  // Solves; x (n values) receives the solution when the status is ok, and the point reached
  // when the problem is infeasible or the iteration cap is hit. Untouched for not_convex
  // and bad_input.
  Status solve(double* x);
  Status solve(mlVector& x);

  // The ids of a contradictory set of inequalities after `infeasible`, sorted ascending.
  intcoDynArr const& contradictory_constraints() const { return contradictory_; }
  // The optimal value 1/2 x^T H x + g^T x after `ok`.
  double objective() const { return objective_; }
  // The active constraints after `ok`: their ids and Lagrange multipliers (>= 0 for
  // inequalities), so that H x + g = sum u_k a_k.
  int n_active() const { return n_active_; }
  int active_id(int k) const { return ids_[active_[k]]; }
  double active_multiplier(int k) const { return u_[k]; }
  int iterations() const { return iterations_; }

  // Merges `more` into `list`, both sorted ascending, keeping the result sorted and free of
  // duplicates.
  static void append_constraint_indices(intcoDynArr& list, intcoDynArr const& more);

 private:
  bool add_to_active(int constraint, double const* d);
  void drop_from_active(int position);
  double const* row(int k) const { return c_.data() + static_cast<size_t>(k) * n_; }
  void compute_directions(double const* np, double* z, double* r, double& outside_sq, double& total_sq);
  void report_contradiction(int p);

  int n_ = 0;
  int m_ = 0;          // constraints added
  int n_eq_ = 0;       // equalities among the active set (always first)
  int n_active_ = 0;
  int iterations_ = 0;
  bool have_problem_ = false;
  double objective_ = 0.0;
  double r_norm_ = 1.0;

  std::vector<double> h_, g_;            // n x n, n
  std::vector<double> c_, b_, c_norm_;   // m x n, m, m
  std::vector<int> ids_;
  std::vector<char> is_equality_, is_active_;
  std::vector<double> j_, r_;            // n x n each (row-major), R upper triangular
  std::vector<int> active_;              // constraint index of each active position
  std::vector<double> u_;                // multiplier of each active position
  std::vector<double> x_, d_, z_, rr_, tmp_;
  intcoDynArr contradictory_;
};
