// The one way the program ends early. Every fatal path (the option parser's
// refusals, the readers' crash routines, fatal() of the symbol table) calls
// Exit_Run after printing its message, so that tests and fuzz harnesses can
// turn the end of the process into something they can observe.
#ifndef MHBOOST_DIE_H_
#define MHBOOST_DIE_H_

/// Flushes standard output and ends the process with `status`, or, when a
/// hook is installed, hands the status to the hook (which must not return).
[[noreturn]] void Exit_Run(int status);

/// Installs a replacement for the process exit (null restores exit()).
/// The hook must not return; a fuzz harness throws or longjmps from it.
using exit_hook_fn = void (*)(int status);
void Set_Exit_Hook(exit_hook_fn hook);

#endif  // MHBOOST_DIE_H_
