#include "gfit/platform/report.h"

namespace {

struct Record {
  gfReason reason = gfReason::none;
  char const* message = "";
};

thread_local Record last;
thread_local std::atomic<bool> const* flag_of_thread = nullptr;

}  // namespace

char const* gfReasonName(gfReason reason) {
  switch (reason) {
    case gfReason::none: return "";
    case gfReason::too_few_points: return "too few points";
    case gfReason::non_finite_input: return "non-finite input";
    case gfReason::bad_companion_array: return "companion array not one per point";
    case gfReason::bad_probe_radius: return "probe radius negative or not finite";
    case gfReason::not_determined: return "the points do not determine the element";
    case gfReason::out_of_range: return "coordinates too large";
    case gfReason::no_convergence: return "no convergence";
    case gfReason::cancelled: return "cancelled";
    case gfReason::invalid_argument: return "invalid argument";
    case gfReason::failed: return "failed";
  }
  return "failed";
}

gfReason gfLastReason() { return last.reason; }
char const* gfLastReasonText() { return last.message; }

std::atomic<bool> const* gfSetCancelFlag(std::atomic<bool> const* flag) {
  std::atomic<bool> const* previous = flag_of_thread;
  flag_of_thread = flag;
  return previous;
}

void gfSetLastReason(gfReason reason, char const* message) {
  last.reason = reason;
  last.message = message != nullptr ? message : gfReasonName(reason);
}

namespace gfit::detail {

bool cancelled() {
  std::atomic<bool> const* flag = flag_of_thread;
  return flag != nullptr && flag->load(std::memory_order_relaxed);
}

std::atomic<bool> const* cancel_flag() { return flag_of_thread; }

}  // namespace gfit::detail
