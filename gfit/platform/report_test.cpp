// Refusal reasons stay with their thread; the cancel flag reaches the workers of a fit.
#include "gfit/platform/report.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "gfit/platform/parallel.h"

TEST(Report, ReasonIsPerThreadAndClearedBySuccess) {
  EXPECT_EQ(gfit::detail::refuse(gfReason::too_few_points), 0);
  EXPECT_EQ(gfLastReason(), gfReason::too_few_points);
  EXPECT_STREQ(gfLastReasonText(), "too few points");
  std::thread other([] { EXPECT_EQ(gfLastReason(), gfReason::none); });
  other.join();
  EXPECT_EQ(gfLastReason(), gfReason::too_few_points);
  EXPECT_EQ(gfit::detail::succeed(), 1);
  EXPECT_EQ(gfLastReason(), gfReason::none);
  gfit::detail::refuse(gfReason::failed, "the cylinder search found no candidate");
  EXPECT_STREQ(gfLastReasonText(), "the cylinder search found no candidate");
}

TEST(Report, CancelFlagReachesEveryWorker) {
  std::atomic<bool> flag{true};
  EXPECT_EQ(gfSetCancelFlag(&flag), nullptr);
  std::atomic<int> seen{0};
  std::atomic<int> workers_used{0};
  gfit::detail::parallel_for(64, 4, [&](int, int worker) {
    if (gfit::detail::cancelled()) seen.fetch_add(1);
    workers_used.fetch_or(1 << worker);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));  // room for the others to start
  });
  EXPECT_EQ(seen.load(), 64);
  EXPECT_NE(workers_used.load() & ~1, 0) << "parallel_for never left the calling thread";
  gfSetCancelFlag(nullptr);
  EXPECT_FALSE(gfit::detail::cancelled());
}
