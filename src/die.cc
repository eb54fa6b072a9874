#include "die.h"

#include <cstdio>
#include <cstdlib>

namespace {
exit_hook_fn g_exit_hook = nullptr;
}  // namespace

void Set_Exit_Hook(exit_hook_fn hook) { g_exit_hook = hook; }

void Exit_Run(int status) {
  fflush(stdout);
  fflush(stderr);
  if (g_exit_hook != nullptr) g_exit_hook(status);
  exit(status);
}
