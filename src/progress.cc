#include "progress.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace {

using clock_type = std::chrono::steady_clock;

int terminal = -1;  // unknown until the first update
bool shown = false;
const char* current = nullptr;
clock_type::time_point started;
clock_type::time_point last_draw;

bool on_terminal() {
  if (terminal < 0) terminal = isatty(STDERR_FILENO) ? 1 : 0;
  return terminal == 1;
}

}  // namespace

void Progress_Update(const char* what, long count, const char* unit) {
  if (!on_terminal()) return;
  const auto now = clock_type::now();
  if (what != current) {
    current = what;
    started = now;
    last_draw = now;
    return;  // short steps never show anything
  }
  if (now - last_draw < std::chrono::milliseconds(200)) return;
  last_draw = now;
  const double seconds = std::chrono::duration<double>(now - started).count();
  fprintf(stderr, "\r\033[K%s: %ld %s (%.0f/s)", what, count, unit,
          seconds > 0 ? count / seconds : 0.0);
  fflush(stderr);
  shown = true;
}

void Progress_Done() {
  current = nullptr;
  if (!shown) return;
  fprintf(stderr, "\r\033[K");
  fflush(stderr);
  shown = false;
}
