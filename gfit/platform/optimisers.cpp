#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "gfit/platform/brent.h"
#include "gfit/platform/simplex.h"

// ---- downhill simplex -------------------------------------------------------------------

mlFunctionN1::~mlFunctionN1() = default;

void mlFunctionN1::gradient(mlSlice const& x, mlVector& g) {
  const int n = x.size();
  g.resize(n);
  mlVector p(n);
  for (int i = 0; i < n; ++i) p[i] = x[i];
  for (int i = 0; i < n; ++i) {
    double h = 1e-6 * std::max(1.0, std::fabs(p[i]));
    double xi = p[i];
    p[i] = xi + h;
    double fp = function(p);
    p[i] = xi - h;
    double fm = function(p);
    p[i] = xi;
    g[i] = (fp - fm) / (2.0 * h);
  }
}

mlDownHillSimplex::mlDownHillSimplex(int n_variables) : n_(n_variables), best_(n_variables) {}

namespace {
double evaluate(mlFunctionN1& f, double const* x, int n, int& counter) {
  ++counter;
  double v = f.function(mlSlice(x, n));
  return std::isnan(v) ? std::numeric_limits<double>::infinity() : v;
}
}  // namespace

double mlDownHillSimplex::run(mlFunctionN1& f, mlVector& x, double ftol, double xtol, double relative_step,
                              int max_evaluations) {
  const int n = n_, nv = n_ + 1;
  std::vector<double> v(static_cast<size_t>(nv) * n), fv(nv), c(n), xr(n), xe(n), xc(n);
  auto vertex = [&](int k) { return v.data() + static_cast<size_t>(k) * n; };
  for (int k = 0; k < nv; ++k)
    for (int i = 0; i < n; ++i) vertex(k)[i] = x[i];
  for (int i = 0; i < n; ++i) {
    double step = steps_.size() == n ? steps_[i] : (x[i] != 0.0 ? relative_step * x[i] : 0.00025);
    vertex(i + 1)[i] += step;
  }
  for (int k = 0; k < nv; ++k) fv[k] = evaluate(f, vertex(k), n, evaluations_);
  const int limit = evaluations_ + max_evaluations;

  int best = 0;
  for (;;) {
    best = 0;
    int worst = 0;
    for (int k = 1; k < nv; ++k) {
      if (fv[k] < fv[best]) best = k;
      if (fv[k] > fv[worst]) worst = k;
    }
    if (worst == best) worst = best == 0 ? 1 : 0;  // all equal: any other vertex
    int second = best;
    for (int k = 0; k < nv; ++k)
      if (k != worst && (second == best || fv[k] > fv[second])) second = k;

    double spread = std::fabs(fv[worst] - fv[best]);
    bool flat = spread <= ftol * (std::fabs(fv[worst]) + std::fabs(fv[best])) + 1e-300;
    bool small = true;
    for (int k = 0; k < nv && small; ++k)
      for (int i = 0; i < n; ++i)
        if (std::fabs(vertex(k)[i] - vertex(best)[i]) > xtol * (std::fabs(vertex(best)[i]) + 1e-300)) {
          small = false;
          break;
        }
    if ((flat && small) || evaluations_ >= limit) break;

    for (int i = 0; i < n; ++i) {
      double s = 0.0;
      for (int k = 0; k < nv; ++k)
        if (k != worst) s += vertex(k)[i];
      c[i] = s / n;
    }
    double* w = vertex(worst);
    for (int i = 0; i < n; ++i) xr[i] = c[i] + (c[i] - w[i]);
    double fr = evaluate(f, xr.data(), n, evaluations_);
    if (fr < fv[best]) {
      for (int i = 0; i < n; ++i) xe[i] = c[i] + 2.0 * (c[i] - w[i]);
      double fe = evaluate(f, xe.data(), n, evaluations_);
      if (fe < fr) {
        std::copy(xe.begin(), xe.end(), w);
        fv[worst] = fe;
      } else {
        std::copy(xr.begin(), xr.end(), w);
        fv[worst] = fr;
      }
      continue;
    }
    if (fr < fv[second]) {
      std::copy(xr.begin(), xr.end(), w);
      fv[worst] = fr;
      continue;
    }
    // Contract towards the better of the reflected and the worst point.
    bool outside = fr < fv[worst];
    for (int i = 0; i < n; ++i) xc[i] = outside ? c[i] + 0.5 * (xr[i] - c[i]) : c[i] + 0.5 * (w[i] - c[i]);
    double fc = evaluate(f, xc.data(), n, evaluations_);
    if (outside ? fc <= fr : fc < fv[worst]) {
      std::copy(xc.begin(), xc.end(), w);
      fv[worst] = fc;
      continue;
    }
    // Shrink every vertex half-way towards the best.
    for (int k = 0; k < nv; ++k) {
      if (k == best) continue;
      for (int i = 0; i < n; ++i) vertex(k)[i] = vertex(best)[i] + 0.5 * (vertex(k)[i] - vertex(best)[i]);
      fv[k] = evaluate(f, vertex(k), n, evaluations_);
    }
  }
  for (int i = 0; i < n; ++i) x[i] = vertex(best)[i];
  return fv[best];
}

double mlDownHillSimplex::solve(mlFunctionN1& f, mlVector const& start, mlDownHillSimplexSpeed speed) {
  struct Setting {
    double step, tol;
    int evaluations_per_variable, restarts;
  };
  static constexpr Setting settings[4] = {
      {0.1, 1e-15, 20000, 2}, {0.05, 1e-13, 10000, 1}, {0.05, 1e-11, 5000, 1}, {0.05, 1e-7, 1000, 0}};
  Setting const& s = settings[std::clamp(static_cast<int>(speed), 0, 3)];
  evaluations_ = 0;
  mlVector x(n_);
  for (int i = 0; i < n_ && i < start.size(); ++i) x[i] = start[i];
  const int budget = s.evaluations_per_variable * std::max(1, n_);
  double fbest = run(f, x, s.tol, s.tol, s.step, budget);
  best_ = x;
  for (int k = 0; k < s.restarts && evaluations_ < budget; ++k) {
    double fx = run(f, x, s.tol, s.tol, s.step, budget);
    if (!(fx < fbest)) break;  // no progress: the first run had found the minimum
    fbest = fx;
    best_ = x;
  }
  return fbest;
}

// ---- Brent ------------------------------------------------------------------------------

mlFunction::~mlFunction() = default;

double ml_brent_minimum_search(mlFunction& f, double lower, double upper, double tolerance, double& x_min,
                               int max_iterations) {
  const double golden = 0.3819660112501051;  // (3 - sqrt(5)) / 2
  const double tiny = 1e-21;
  double a = std::min(lower, upper), b = std::max(lower, upper);
  double x = a + golden * (b - a), w = x, v = x;
  double fx = f.function(x), fw = fx, fv = fx;
  double d = 0.0, e = 0.0;
  for (int it = 0; it < max_iterations; ++it) {
    double m = 0.5 * (a + b);
    double tol1 = tolerance * std::fabs(x) + tiny, tol2 = 2.0 * tol1;
    if (std::fabs(x - m) <= tol2 - 0.5 * (b - a)) break;
    bool golden_step = true;
    if (std::fabs(e) > tol1) {
      // Try a parabola through x, w and v.
      double r = (x - w) * (fx - fv);
      double q = (x - v) * (fx - fw);
      double p = (x - v) * q - (x - w) * r;
      q = 2.0 * (q - r);
      if (q > 0.0) p = -p;
      q = std::fabs(q);
      double etemp = e;
      e = d;
      if (std::fabs(p) < std::fabs(0.5 * q * etemp) && p > q * (a - x) && p < q * (b - x)) {
        d = p / q;
        double u = x + d;
        if (u - a < tol2 || b - u < tol2) d = m >= x ? tol1 : -tol1;
        golden_step = false;
      }
    }
    if (golden_step) {
      e = (x >= m ? a : b) - x;
      d = golden * e;
    }
    double u = std::fabs(d) >= tol1 ? x + d : x + (d >= 0.0 ? tol1 : -tol1);
    double fu = f.function(u);
    if (fu <= fx) {
      if (u >= x) a = x; else b = x;
      v = w; fv = fw;
      w = x; fw = fx;
      x = u; fx = fu;
    } else {
      if (u < x) a = u; else b = u;
      if (fu <= fw || w == x) {
        v = w; fv = fw;
        w = u; fw = fu;
      } else if (fu <= fv || v == x || v == w) {
        v = u; fv = fu;
      }
    }
  }
  x_min = x;
  return fx;
}
