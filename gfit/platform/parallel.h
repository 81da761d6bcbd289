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

// Calls body(i, worker) for every i in [0, n), spread over `threads` threads (the calling
// thread included); `worker` in [0, threads) names the thread, for its own scratch space.
// Returns when all are done.
GFIT_EXPORT void parallel_for(int n, int threads, std::function<void(int, int)> const& body);

}  // namespace gfit::detail
