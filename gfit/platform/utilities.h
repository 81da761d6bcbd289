// Small utilities: clamped and modular maths, tags for copying and converting constructors,
// a non-owning pointer and an optional argument.
#pragma once

#include <cmath>
#include <type_traits>

struct utMath {
  // acos with its argument clamped to [-1, 1], so that rounding just outside the range of a
  // dot product of unit vectors never gives NaN.
  static double acos(double x) { return std::acos(x < -1.0 ? -1.0 : (x > 1.0 ? 1.0 : x)); }

  // The remainder of x modulo m (m > 0) in [0, m). Negative x wraps around; a result that
  // rounds up to m is returned as 0.
  static double remd(double x, double m) {
    double r = std::fmod(x, m);
    if (r < 0.0) r += m;
    if (r >= m) r = 0.0;
    return r;
  }
};

// Tag of copying constructors and `become`: the copy is deep.
struct utCopy {};
// Tag of converting constructors (for example a matrix from a plain array read row by row).
struct utConvert {};

// -1, 0 or 1 as a is less than, equal to or greater than b.
template <class T>
int utCompare(T const& a, T const& b) {
  return (a < b) ? -1 : ((b < a) ? 1 : 0);
}

// A pointer that observes and never owns.
template <class T>
class utObserverPtr {
 public:
  utObserverPtr() : p_(nullptr) {}
  explicit utObserverPtr(T* p) : p_(p) {}
  T* get() const { return p_; }
  T& operator*() const { return *p_; }
  T* operator->() const { return p_; }
  explicit operator bool() const { return p_ != nullptr; }

 private:
  T* p_;
};

// An optional argument: absent when default-constructed, present when made from a value.
// `utOptionalArg<X&>` refers to the caller's object, so the callee can also write to it.
template <class T>
class utOptionalArg {
 public:
  utOptionalArg() : p_(nullptr) {}
  utOptionalArg(T& v) : p_(&v) {}  // NOLINT: implicit on purpose, as an argument
  bool present() const { return p_ != nullptr; }
  explicit operator bool() const { return present(); }
  T& value() const { return *p_; }
  T& operator*() const { return *p_; }
  T* operator->() const { return p_; }

 private:
  T* p_;
};

template <class T>
class utOptionalArg<T&> : public utOptionalArg<T> {
 public:
  using utOptionalArg<T>::utOptionalArg;
};
