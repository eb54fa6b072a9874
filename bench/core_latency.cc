// Prints the mean time, in nanoseconds, for a cache line to go from one
// thread to another and back, two threads passing a counter between them.
// A virtual machine's cores may sit close (sharing a cache) or far apart,
// and the host can move them while a benchmark runs; two-thread timings
// follow it, so the benchmark records this figure beside them.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

int main(int argc, char** argv) {
  const long passes = argc > 1 ? std::atol(argv[1]) : 200000;
  if (passes <= 0) {
    std::fprintf(stderr, "usage: core_latency [passes > 0]\n");
    return 2;
  }
  alignas(64) static std::atomic<long> counter{0};
  std::thread other([passes] {
    for (long i = 0; i < passes; ++i) {
      while (counter.load(std::memory_order_acquire) != 2 * i + 1) {
      }
      counter.store(2 * i + 2, std::memory_order_release);
    }
  });
  const auto start = std::chrono::steady_clock::now();
  for (long i = 0; i < passes; ++i) {
    counter.store(2 * i + 1, std::memory_order_release);
    while (counter.load(std::memory_order_acquire) != 2 * i + 2) {
    }
  }
  const auto end = std::chrono::steady_clock::now();
  other.join();
  std::printf("%.0f\n", std::chrono::duration<double, std::nano>(end - start).count() / passes);
  return 0;
}
