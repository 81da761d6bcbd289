// Threads for the searches, without changing an answer.
//
// The searches that evaluate many independent candidates (the cylinder's trial axes, for
// example) may spread them over threads. Each candidate is computed by the same code from
// the same inputs whichever thread runs it, and the results are reduced afterwards in index
// order, so the answer is bit-identical for every thread count.
//
// A host caps the threads with gfSetMaxThreads: 1 keeps all work on the calling thread,
// 0 (the default) allows as many as the hardware has. The setting is process-wide and
// atomic; it only bounds the threads a call may start.
#pragma once

#include <functional>

#include "gfit/gfit_export.h"

// Sets the largest number of threads a fit may use (0: the hardware's concurrency) and
// returns the previous setting.
GFIT_EXPORT int gfSetMaxThreads(int n);
GFIT_EXPORT int gfMaxThreads();

namespace gfit::detail {

// The threads worth using for `items` independent pieces of work of about `cost` elementary
// operations each: 1 when the whole is too small to repay starting threads.
GFIT_EXPORT int threads_for(int items, double cost);

// For tests of thread independence: with n > 1 every search spreads its work over n threads
// (fewer only when it has fewer pieces), whatever the hardware and however small the work, so
// that such tests use threads on a one-CPU machine too; 0 restores the normal choice. Returns
// the previous value.
GFIT_EXPORT int force_threads_for_testing(int n);
// The pieces of work that threads other than the calling one have run since the process
// started: a test reads it before and after a fit to see that the threads really worked.
GFIT_EXPORT long long work_done_by_workers();

// parallel_for's threaded part: n > 1 items over threads > 1 threads.
GFIT_EXPORT void parallel_for_on_threads(int n, int threads, std::function<void(int, int)> const& body);

// Calls body(i, worker) for every i in [0, n), spread over `threads` threads (the calling
// thread included); `worker` in [0, threads) names the thread, for its own scratch space.
// Returns when all are done. On one thread the body is called in place: the searches call
// this once per candidate, and wrapping each call costs more than a small candidate.
template <class Body>
void parallel_for(int n, int threads, Body&& body) {
  if (threads <= 1 || n <= 1) {
    for (int i = 0; i < n; ++i) body(i, 0);
    return;
  }
  parallel_for_on_threads(n, threads, std::function<void(int, int)>(std::ref(body)));
}

}  // namespace gfit::detail
