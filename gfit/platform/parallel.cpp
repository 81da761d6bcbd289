#include "gfit/platform/parallel.h"

#include "gfit/platform/report.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

namespace {
std::atomic<int> max_threads{0};
std::atomic<int> forced_threads{0};
std::atomic<long long> worker_items{0};
}  // namespace

int gfSetMaxThreads(int n) { return max_threads.exchange(n < 0 ? 0 : n); }
int gfMaxThreads() { return max_threads.load(); }

namespace gfit::detail {

int force_threads_for_testing(int n) { return forced_threads.exchange(n < 0 ? 0 : n); }
long long work_done_by_workers() { return worker_items.load(); }

int threads_for(int items, double cost) {
  if (const int forced = forced_threads.load(); forced > 1) return std::max(1, std::min(forced, items));
  int limit = max_threads.load();
  int hardware = static_cast<int>(std::thread::hardware_concurrency());
  if (hardware < 1) hardware = 1;
  int threads = limit == 0 ? hardware : std::min(limit, hardware);
  threads = std::min(threads, items);
  // Starting a thread costs tens of microseconds: below about 2e5 operations in all, the
  // calling thread alone is faster.
  if (static_cast<double>(items) * cost < 2e5) threads = 1;
  return threads < 1 ? 1 : threads;
}

void parallel_for_on_threads(int n, int threads, std::function<void(int, int)> const& body) {
  if (threads <= 1 || n <= 1) {
    for (int i = 0; i < n; ++i) body(i, 0);
    return;
  }
  std::atomic<int> next{0};
  std::atomic<bool> const* flag = cancel_flag();
  // Forced for a test, the items are dealt out round-robin, so that every thread provably
  // does some (taking them first come first served, a fast calling thread can take them
  // all). Either way the answer is the same: the caller reduces the results in index order.
  const bool dealt = forced_threads.load() > 1;
  auto run_share = [&](int share, int worker) {
    long long done = 0;
    for (int i = share; i < n; i += threads, ++done) body(i, worker);
    return done;
  };
  auto run = [&](int worker) {
    // Workers poll the cancel flag of the thread whose fit started them.
    std::atomic<bool> const* previous = gfSetCancelFlag(flag);
    long long done = 0;
    if (dealt)
      done = run_share(worker, worker);
    else
      for (int i = next.fetch_add(1); i < n; i = next.fetch_add(1), ++done) body(i, worker);
    if (worker != 0) worker_items.fetch_add(done);
    gfSetCancelFlag(previous);
  };
  std::vector<std::thread> pool;
  try {
    pool.reserve(threads - 1);
    for (int t = 1; t < threads; ++t) pool.emplace_back(run, t);
  } catch (...) {
    // A host out of threads or memory: the threads that did start and the calling thread
    // share the work. The answer does not depend on how many there are.
  }
  run(0);
  // Dealt shares of threads that could not start fall to the calling thread.
  if (dealt)
    for (int share = static_cast<int>(pool.size()) + 1; share < threads; ++share) run_share(share, 0);
  for (std::thread& t : pool) t.join();
}

}  // namespace gfit::detail
