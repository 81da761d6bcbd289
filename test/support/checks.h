// Checks shared by the fitting tests: arrays of one value, the angle between directions,
// refusals that mark a direction, and results compared bit for bit.
#pragma once

#include <atomic>
#include <functional>
#include <vector>

#include "gfit/gfit.h"

namespace gfit::testing {

// n copies of `value` (probe radii, approximate normals).
template <class T>
coDynArr<T> constant(int n, T const& value) {
  coDynArr<T> out(n, 16);
  for (int i = 0; i < n; ++i) out.append(value);
  return out;
}

// The angle between two directions, sign included, accurate near 0.
double direction_angle(giVector3 const& a, giVector3 const& b);

giPoint3coDynArr reversed(giPoint3coDynArr const& points);
// The points moved by `offset`, and the same points in an order drawn from `seed`.
giPoint3coDynArr shifted(giPoint3coDynArr const& points, giVector3 const& offset);
giPoint3coDynArr shuffled(giPoint3coDynArr const& points, unsigned seed);

// A host's cancel flag handed to this thread for the life of the object.
struct CancelFlag {
  CancelFlag() : previous(gfSetCancelFlag(&flag)) {}
  ~CancelFlag() { gfSetCancelFlag(previous); }
  std::atomic<bool> flag{false};
  std::atomic<bool> const* previous;
};

// A refused fit returns 0 and marks the direction it was given as unset: x = -DBL_MAX, the
// other coordinates kept. `direction` must be +z before the call; it is +z again after.
void expect_refused(int status, giUnitVec3& direction);
// A refusal that leaves the direction it was given (+z) untouched and records `reason`.
void expect_refused_untouched(int status, giUnitVec3 const& direction, gfReason reason);

// The numbers a fit returns, to compare bit for bit.
using Bits = std::vector<double>;
inline Bits bits(mlVector const& v) { return Bits(v.data(), v.data() + v.size()); }
// `fit` gives the same bits twice with one thread and again with two and three threads
// forced (whatever the CPU count), and the forced threads really ran part of the work.
void expect_thread_independent(std::function<Bits()> const& fit);

}  // namespace gfit::testing
