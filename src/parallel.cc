// Fork-join pool. Workers spin on a generation counter before sleeping,
// because one round of boosting runs hundreds of short parallel loops
// separated by short serial steps, and a sleep/wake per loop would cost more
// than the loop itself. With no more threads than cores a worker spins
// for a few milliseconds, long enough to outlast a round's serial steps;
// with more, briefly, so that spinning threads do not take the cores of
// working ones.
#include "parallel.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

struct Fork_Join_Pool::State {
  std::vector<std::thread> workers;
  std::mutex mutex;
  std::condition_variable wake;
  std::atomic<unsigned> generation{0};
  std::atomic<int> pending{0};
  std::atomic<bool> stop{false};
  const std::function<void(int, int, int)>* fn = nullptr;
  int n = 0;
  int threads = 1;
  int spin_limit = 20000;
};

namespace {

void run_share(int n, int threads, int t, const std::function<void(int, int, int)>& fn) {
  const long begin = static_cast<long>(n) * t / threads;
  const long end = static_cast<long>(n) * (t + 1) / threads;
  if (begin < end) fn(static_cast<int>(begin), static_cast<int>(end), t);
}

}  // namespace

Fork_Join_Pool::Fork_Join_Pool(int threads) : state_(new State), num_threads_(threads < 1 ? 1 : threads) {
  state_->threads = num_threads_;
  const unsigned cores = std::thread::hardware_concurrency();
  state_->spin_limit = cores > 0 && static_cast<unsigned>(num_threads_) <= cores ? 1 << 20 : 20000;
  for (int t = 1; t < num_threads_; ++t) {
    state_->workers.emplace_back([this, t] {
      State* s = state_;
      unsigned seen = 0;
      for (;;) {
        int spins = 0;
        while (s->generation.load(std::memory_order_acquire) == seen &&
               !s->stop.load(std::memory_order_acquire)) {
          if (++spins < s->spin_limit) continue;
          std::unique_lock<std::mutex> lock(s->mutex);
          s->wake.wait(lock, [&] {
            return s->generation.load(std::memory_order_acquire) != seen ||
                   s->stop.load(std::memory_order_acquire);
          });
        }
        if (s->stop.load(std::memory_order_acquire)) return;
        seen = s->generation.load(std::memory_order_acquire);
        run_share(s->n, s->threads, t, *s->fn);
        s->pending.fetch_sub(1, std::memory_order_acq_rel);
      }
    });
  }
}

Fork_Join_Pool::~Fork_Join_Pool() {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->stop.store(true, std::memory_order_release);
  }
  state_->wake.notify_all();
  for (auto& w : state_->workers) w.join();
  delete state_;
}

void Fork_Join_Pool::Run(int n, const std::function<void(int, int, int)>& fn) {
  if (num_threads_ == 1 || n < 2) {
    if (n > 0) fn(0, n, 0);
    return;
  }
  State* s = state_;
  s->fn = &fn;
  s->n = n;
  s->pending.store(num_threads_ - 1, std::memory_order_release);
  {
    std::lock_guard<std::mutex> lock(s->mutex);
    s->generation.fetch_add(1, std::memory_order_acq_rel);
  }
  s->wake.notify_all();
  run_share(n, num_threads_, 0, fn);
  while (s->pending.load(std::memory_order_acquire) != 0) {
  }
}

int Resolve_Thread_Count(int requested) {
  if (requested > 0) return requested;
  unsigned hw = std::thread::hardware_concurrency();
  return hw == 0 ? 1 : static_cast<int>(hw);
}
