#include "test/support/checks.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <random>
#include <utility>

namespace gfit::testing {

double direction_angle(giVector3 const& a, giVector3 const& b) { return std::atan2(a.cross(b).length(), a.dot(b)); }

giPoint3coDynArr reversed(giPoint3coDynArr const& points) {
  giPoint3coDynArr out(points.count(), 16);
  for (int i = points.count() - 1; i >= 0; --i) out.append(points[i]);
  return out;
}

giPoint3coDynArr shifted(giPoint3coDynArr const& points, giVector3 const& offset) {
  giPoint3coDynArr out(points.count(), 16);
  for (giPoint3 const& p : points) out.append(p + offset);
  return out;
}

giPoint3coDynArr shuffled(giPoint3coDynArr const& points, unsigned seed) {
  giPoint3coDynArr out = points;
  std::mt19937 engine(seed);  // the exact engine: the same order on every platform
  for (int i = out.count() - 1; i > 0; --i) std::swap(out[i], out[static_cast<int>(engine() % (i + 1u))]);
  return out;
}

void expect_refused(int status, giUnitVec3& direction) {
  EXPECT_EQ(status, 0);
  EXPECT_EQ(direction.x(), -DBL_MAX);
  EXPECT_EQ(direction.z(), 1.0);  // only x carries the mark
  direction = giUnitVec3(0, 0, 1);
}

void expect_refused_untouched(int status, giUnitVec3 const& direction, gfReason reason) {
  EXPECT_EQ(status, 0);
  EXPECT_EQ(direction.x(), 0.0);
  EXPECT_EQ(direction.z(), 1.0);
  EXPECT_EQ(gfLastReason(), reason) << gfLastReasonText();
}

void expect_thread_independent(std::function<Bits()> const& fit) {
  const int previous = gfSetMaxThreads(1);
  const Bits one = fit(), again = fit();
  gfSetMaxThreads(previous);
  // Several threads even on a one-CPU machine, and proof that they did some of the work.
  for (int threads : {2, 3}) {
    const int before_forcing = gfit::detail::force_threads_for_testing(threads);
    const long long before = gfit::detail::work_done_by_workers();
    const Bits many = fit();
    const long long by_workers = gfit::detail::work_done_by_workers() - before;
    gfit::detail::force_threads_for_testing(before_forcing);
    EXPECT_EQ(many, one) << threads << " threads";
    EXPECT_GT(by_workers, 0) << "with " << threads << " threads forced, no work ran off the calling thread";
  }
  EXPECT_EQ(again, one);
}

}  // namespace gfit::testing
