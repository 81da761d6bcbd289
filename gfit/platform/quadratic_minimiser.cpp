#include "gfit/platform/quadratic_minimiser.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {
constexpr double inf = std::numeric_limits<double>::infinity();
constexpr double satisfied_tolerance = 1e-12;  // relative slack below which a constraint holds
constexpr double dependent_tolerance = 1e-10;  // relative part of a normal outside the active span
constexpr double certificate_tolerance = 1e-7; // coefficients below this are not in a certificate
constexpr double equality_tolerance = 1e-9;    // a redundant equality must hold to this

bool all_finite(double const* v, size_t n) {
  for (size_t i = 0; i < n; ++i)
    if (!std::isfinite(v[i])) return false;
  return true;
}
}  // namespace

void mlConstrainedQuadraticMinimiser::reserve(int n, int m) {
  if (n < 0) n = 0;
  if (m < 0) m = 0;
  size_t nn = static_cast<size_t>(n) * n;
  h_.reserve(nn);
  g_.reserve(n);
  j_.reserve(nn);
  r_.reserve(nn);
  x_.reserve(n);
  d_.reserve(n);
  z_.reserve(n);
  rr_.reserve(n);
  tmp_.reserve(n);
  active_.reserve(n);
  u_.reserve(n);
  c_.reserve(static_cast<size_t>(m) * n);
  b_.reserve(m);
  c_norm_.reserve(m);
  ids_.reserve(m);
  is_equality_.reserve(m);
  is_active_.reserve(m);
  contradictory_.reserve(m + 1);
}

void mlConstrainedQuadraticMinimiser::set_problem(int n, double const* h, double const* g) {
  n_ = n > 0 ? n : 0;
  m_ = 0;
  n_active_ = n_eq_ = 0;
  iterations_ = 0;
  objective_ = 0.0;
  have_problem_ = n_ > 0 && h && g;
  size_t nn = static_cast<size_t>(n_) * n_;
  h_.assign(nn, 0.0);
  g_.assign(n_, 0.0);
  if (have_problem_) {
    std::copy(h, h + nn, h_.begin());
    std::copy(g, g + n_, g_.begin());
  }
  c_.clear();
  b_.clear();
  c_norm_.clear();
  ids_.clear();
  is_equality_.clear();
  is_active_.clear();
  contradictory_.clear(0);
}

void mlConstrainedQuadraticMinimiser::set_problem(mlMatrix const& h, mlVector const& g) {
  if (h.rows() != h.cols() || h.rows() != g.size()) {
    set_problem(0, nullptr, nullptr);
    return;
  }
  set_problem(g.size(), h.data(), g.data());
}

void mlConstrainedQuadraticMinimiser::add_equality(double const* a, double b, int id) {
  if (!have_problem_ || !a) return;
  c_.insert(c_.end(), a, a + n_);
  b_.push_back(b);
  double s = 0.0;
  for (int i = 0; i < n_; ++i) s += a[i] * a[i];
  c_norm_.push_back(std::sqrt(s));
  ids_.push_back(id);
  is_equality_.push_back(1);
  is_active_.push_back(0);
  ++m_;
}

void mlConstrainedQuadraticMinimiser::add_inequality(double const* c, double b, int id) {
  if (!have_problem_ || !c) return;
  add_equality(c, b, id);
  is_equality_.back() = 0;
}

mlConstrainedQuadraticMinimiser::Status mlConstrainedQuadraticMinimiser::solve(mlVector& x) {
  if (x.size() != n_) x.resize(n_);
  return solve(x.data());
}

// d = J^T n_p; z = J2 d2 (the step in the primal space that keeps the active constraints);
// r = R^{-1} d1 (how the active multipliers change). outside_sq = |d2|^2 = z^T n_p.
void mlConstrainedQuadraticMinimiser::compute_directions(double const* np, double* z, double* r,
                                                         double& outside_sq, double& total_sq) {
  const int n = n_, na = n_active_;
  double* d = d_.data();
  for (int i = 0; i < n; ++i) {
    double s = 0.0;
    for (int k = 0; k < n; ++k) s += j_[k * n + i] * np[k];
    d[i] = s;
  }
  outside_sq = total_sq = 0.0;
  for (int i = 0; i < n; ++i) {
    total_sq += d[i] * d[i];
    if (i >= na) outside_sq += d[i] * d[i];
  }
  for (int k = 0; k < n; ++k) {
    double s = 0.0;
    for (int i = na; i < n; ++i) s += j_[k * n + i] * d[i];
    z[k] = s;
  }
  for (int i = na - 1; i >= 0; --i) {
    double s = d[i];
    for (int k = i + 1; k < na; ++k) s -= r_[i * n + k] * r[k];
    r[i] = s / r_[i * n + i];
  }
}

// Appends constraint `constraint` to the active set, d = J^T n_p on entry. Rotations zero d
// below position n_active; R gains the column d[0 .. n_active].
bool mlConstrainedQuadraticMinimiser::add_to_active(int constraint, double const* d_in) {
  const int n = n_;
  double* d = tmp_.data();
  std::copy(d_in, d_in + n, d);
  for (int j = n - 1; j > n_active_; --j) {
    double cc = d[j - 1], ss = d[j];
    double h = std::hypot(cc, ss);
    if (h == 0.0) continue;
    d[j] = 0.0;
    cc /= h;
    ss /= h;
    if (cc < 0.0) {
      cc = -cc;
      ss = -ss;
      d[j - 1] = -h;
    } else {
      d[j - 1] = h;
    }
    double xny = ss / (1.0 + cc);
    for (int k = 0; k < n; ++k) {
      double t1 = j_[k * n + j - 1], t2 = j_[k * n + j];
      j_[k * n + j - 1] = t1 * cc + t2 * ss;
      j_[k * n + j] = xny * (t1 + j_[k * n + j - 1]) - t2;
    }
  }
  const int na = n_active_;
  if (std::fabs(d[na]) <= std::numeric_limits<double>::epsilon() * r_norm_) return false;
  for (int i = 0; i <= na; ++i) r_[i * n + na] = d[i];
  r_norm_ = std::max(r_norm_, std::fabs(d[na]));
  active_[na] = constraint;
  is_active_[constraint] = 1;
  ++n_active_;
  return true;
}

// Removes the active constraint at `position` and restores R to upper triangular form.
void mlConstrainedQuadraticMinimiser::drop_from_active(int position) {
  const int n = n_;
  is_active_[active_[position]] = 0;
  for (int i = position; i < n_active_ - 1; ++i) {
    active_[i] = active_[i + 1];
    u_[i] = u_[i + 1];
    for (int k = 0; k < n; ++k) r_[k * n + i] = r_[k * n + i + 1];
  }
  for (int k = 0; k < n; ++k) r_[k * n + n_active_ - 1] = 0.0;
  --n_active_;
  for (int j = position; j < n_active_; ++j) {
    double cc = r_[j * n + j], ss = r_[(j + 1) * n + j];
    double h = std::hypot(cc, ss);
    if (h == 0.0) continue;
    cc /= h;
    ss /= h;
    r_[(j + 1) * n + j] = 0.0;
    if (cc < 0.0) {
      r_[j * n + j] = -h;
      cc = -cc;
      ss = -ss;
    } else {
      r_[j * n + j] = h;
    }
    double xny = ss / (1.0 + cc);
    for (int k = j + 1; k < n_active_; ++k) {
      double t1 = r_[j * n + k], t2 = r_[(j + 1) * n + k];
      r_[j * n + k] = t1 * cc + t2 * ss;
      r_[(j + 1) * n + k] = xny * (t1 + r_[j * n + k]) - t2;
    }
    for (int k = 0; k < n; ++k) {
      double t1 = j_[k * n + j], t2 = j_[k * n + j + 1];
      j_[k * n + j] = t1 * cc + t2 * ss;
      j_[k * n + j + 1] = xny * (j_[k * n + j] + t1) - t2;
    }
  }
}

void mlConstrainedQuadraticMinimiser::report_contradiction(int p) {
  contradictory_.clear(0);
  contradictory_.append(ids_[p]);
  double np_norm = c_norm_[p];
  for (int i = n_eq_; i < n_active_; ++i)
    if (rr_[i] * c_norm_[active_[i]] < -certificate_tolerance * np_norm) contradictory_.append(ids_[active_[i]]);
  std::sort(contradictory_.begin(), contradictory_.end());
  int kept = 0;
  for (int i = 0; i < contradictory_.count(); ++i)
    if (kept == 0 || contradictory_[i] != contradictory_[kept - 1]) contradictory_[kept++] = contradictory_[i];
  contradictory_.shrink(kept, 0);
}

mlConstrainedQuadraticMinimiser::Status mlConstrainedQuadraticMinimiser::solve(double* x_out) {
  contradictory_.clear(0);
  n_active_ = n_eq_ = 0;
  iterations_ = 0;
  if (!have_problem_ || !x_out) return bad_input;
  const int n = n_;
  const size_t nn = static_cast<size_t>(n) * n;
  if (!all_finite(h_.data(), nn) || !all_finite(g_.data(), n) || !all_finite(c_.data(), c_.size()) ||
      !all_finite(b_.data(), b_.size()))
    return bad_input;

  // H = L L^T (lower triangle of H), J = L^{-T}. r_ holds L while J is formed.
  j_.assign(nn, 0.0);
  r_.assign(nn, 0.0);
  double* l = r_.data();
  for (int i = 0; i < n; ++i)
    for (int k = 0; k <= i; ++k) {
      double s = h_[i * n + k];
      for (int q = 0; q < k; ++q) s -= l[i * n + q] * l[k * n + q];
      if (i == k) {
        if (!(s > 0.0)) return not_convex;
        l[i * n + i] = std::sqrt(s);
      } else {
        l[i * n + k] = s / l[k * n + k];
      }
    }
  // L^{-1} column by column (forward substitution), then J = (L^{-1})^T.
  for (int col = 0; col < n; ++col)
    for (int i = col; i < n; ++i) {
      double s = i == col ? 1.0 : 0.0;
      for (int q = col; q < i; ++q) s -= l[i * n + q] * j_[col * n + q];
      j_[col * n + i] = s / l[i * n + i];  // j_ row col = column col of L^{-1}
    }
  // j_ now holds (L^{-1})^T row by row: J = L^{-T} as wanted.
  std::fill(r_.begin(), r_.end(), 0.0);
  r_norm_ = 1.0;

  x_.assign(n, 0.0);
  d_.assign(n, 0.0);
  z_.assign(n, 0.0);
  rr_.assign(n, 0.0);
  tmp_.assign(n, 0.0);
  active_.assign(n, -1);
  u_.assign(n, 0.0);
  std::fill(is_active_.begin(), is_active_.end(), 0);

  // Unconstrained minimum x = -J J^T g.
  for (int i = 0; i < n; ++i) {
    double s = 0.0;
    for (int k = 0; k < n; ++k) s += j_[k * n + i] * g_[k];
    d_[i] = s;
  }
  for (int k = 0; k < n; ++k) {
    double s = 0.0;
    for (int i = 0; i < n; ++i) s += j_[k * n + i] * d_[i];
    x_[k] = -s;
  }

  auto slack = [&](int k) {
    double const* c = row(k);
    double s = -b_[k];
    for (int i = 0; i < n; ++i) s += c[i] * x_[i];
    return s;
  };
  auto x_norm = [&]() {
    double s = 0.0;
    for (int i = 0; i < n; ++i) s += x_[i] * x_[i];
    return std::sqrt(s);
  };
  auto finish = [&](Status status) {
    std::copy(x_.begin(), x_.end(), x_out);
    if (status == ok) {
      double f = 0.0;
      for (int i = 0; i < n; ++i) {
        double hx = 0.0;
        for (int k = 0; k < n; ++k) hx += (k <= i ? h_[i * n + k] : h_[k * n + i]) * x_[k];
        f += x_[i] * (0.5 * hx + g_[i]);
      }
      objective_ = f;
    }
    return status;
  };

  // Equalities first; they stay active.
  for (int k = 0; k < m_; ++k) {
    if (!is_equality_[k]) continue;
    double outside_sq, total_sq;
    compute_directions(row(k), z_.data(), rr_.data(), outside_sq, total_sq);
    double s = slack(k);
    if (outside_sq <= dependent_tolerance * dependent_tolerance * total_sq) {
      if (std::fabs(s) > equality_tolerance * (1.0 + std::fabs(b_[k]) + c_norm_[k] * x_norm()))
        return finish(infeasible);
      continue;  // a redundant equality that already holds
    }
    double t = -s / outside_sq;
    for (int i = 0; i < n; ++i) x_[i] += t * z_[i];
    for (int i = 0; i < n_active_; ++i) u_[i] -= t * rr_[i];
    if (!add_to_active(k, d_.data())) return finish(infeasible);
    u_[n_active_ - 1] = t;
  }
  n_eq_ = n_active_;

  const long long cap = 10LL * (n + m_);
  for (;;) {
    if (++iterations_ > cap) return finish(iteration_limit);
    // The most violated inequality; ties keep the one added first.
    int p = -1;
    double worst = 0.0;
    double xn = x_norm();
    for (int k = 0; k < m_; ++k) {
      if (is_equality_[k] || is_active_[k]) continue;
      double s = slack(k);
      if (s < -satisfied_tolerance * (1.0 + std::fabs(b_[k]) + c_norm_[k] * xn) && s < worst) {
        worst = s;
        p = k;
      }
    }
    if (p < 0) return finish(ok);

    double const* np = row(p);
    double sp = worst;
    double u_plus = 0.0;
    for (;;) {
      if (++iterations_ > cap) return finish(iteration_limit);
      double outside_sq, total_sq;
      compute_directions(np, z_.data(), rr_.data(), outside_sq, total_sq);
      double t2 = outside_sq > dependent_tolerance * dependent_tolerance * total_sq ? -sp / outside_sq : inf;
      double t1 = inf;
      int drop = -1;
      for (int i = n_eq_; i < n_active_; ++i)
        if (rr_[i] > 0.0) {
          double ratio = u_[i] / rr_[i];
          if (ratio < t1) {
            t1 = ratio;
            drop = i;
          }
        }
      if (t1 == inf && t2 == inf) {
        report_contradiction(p);
        return finish(infeasible);
      }
      if (t2 == inf) {  // only the multipliers move: drop the blocking constraint
        for (int i = 0; i < n_active_; ++i) u_[i] -= t1 * rr_[i];
        u_plus += t1;
        u_[drop] = 0.0;
        drop_from_active(drop);
        continue;
      }
      double t = std::min(t1, t2);
      for (int i = 0; i < n; ++i) x_[i] += t * z_[i];
      for (int i = 0; i < n_active_; ++i) u_[i] -= t * rr_[i];
      u_plus += t;
      if (t2 <= t1) {
        if (!add_to_active(p, d_.data())) {
          // Numerically dependent after all: the constraint holds at the new point anyway.
          break;
        }
        u_[n_active_ - 1] = u_plus;
        break;
      }
      u_[drop] = 0.0;
      drop_from_active(drop);
      sp = slack(p);
    }
  }
}

void mlConstrainedQuadraticMinimiser::append_constraint_indices(intcoDynArr& list, intcoDynArr const& more) {
  if (more.count() == 0) return;
  intcoDynArr merged(list.count() + more.count(), 16);
  int i = 0, k = 0;
  auto push = [&](int v) {
    if (merged.count() == 0 || merged[merged.count() - 1] != v) merged.append(v);
  };
  while (i < list.count() || k < more.count()) {
    if (k >= more.count() || (i < list.count() && list[i] <= more[k]))
      push(list[i++]);
    else
      push(more[k++]);
  }
  list = std::move(merged);
}
