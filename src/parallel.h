// A small fork-join pool for the scoring scan: a fixed set of worker threads
// that run one parallel loop at a time. Work is split into contiguous chunks
// by index, so which thread computes what never changes a result; callers
// write each result to its own slot and combine them in index order.
#ifndef MHBOOST_PARALLEL_H_
#define MHBOOST_PARALLEL_H_

#include <functional>

class Fork_Join_Pool {
 public:
  /// `threads` workers in all, counting the calling thread (at least 1).
  explicit Fork_Join_Pool(int threads);
  ~Fork_Join_Pool();
  Fork_Join_Pool(const Fork_Join_Pool&) = delete;
  Fork_Join_Pool& operator=(const Fork_Join_Pool&) = delete;

  int Size() const { return num_threads_; }

  /// Runs fn(begin, end, thread) over [0, n) split into one contiguous
  /// range per thread; returns when all ranges are done.
  void Run(int n, const std::function<void(int begin, int end, int thread)>& fn);

 private:
  struct State;
  State* state_;
  int num_threads_;
};

/// Number of threads for -T value `requested` (0 = every available core).
int Resolve_Thread_Count(int requested);

#endif  // MHBOOST_PARALLEL_H_
