// A small POSIX-style option scanner. Unlike GNU getopt it never permutes
// arguments and keeps all of its state in plain variables that callers may
// reset, which both option parsers rely on when they rescan one vector.
#ifndef MHBOOST_OPTSCAN_H_
#define MHBOOST_OPTSCAN_H_

struct option_scanner {
  int optind = 1;               // next argument to examine
  const char* optarg = nullptr; // argument of the last option
  int optopt = 0;               // the offending letter after '?'
  int nextchar = 0;             // position inside a group like "-sz"
};

/// Shared scanner, as both parsers read one argument vector in turn.
extern option_scanner g_opt;

/// Next option letter, '?' for an unknown letter or a missing argument,
/// -1 at the end of options ("--", "-", a non-option, or the end of argv).
int Scan_Option(option_scanner* s, int argc, char* const* argv,
                const char* optstring);

/// Resets the scanner to the start of the vector.
void Reset_Scanner(option_scanner* s);

#endif  // MHBOOST_OPTSCAN_H_
