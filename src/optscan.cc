// POSIX-style option scanning without argument permutation.
#include "optscan.h"

#include <cstring>

option_scanner g_opt;

void Reset_Scanner(option_scanner* s) {
  s->optind = 1;
  s->optarg = nullptr;
  s->optopt = 0;
  s->nextchar = 0;
}

int Scan_Option(option_scanner* s, int argc, char* const* argv,
                const char* optstring) {
  s->optarg = nullptr;
  if (s->nextchar == 0) {
    if (s->optind >= argc || argv[s->optind] == nullptr) return -1;
    const char* arg = argv[s->optind];
    if (arg[0] != '-' || arg[1] == '\0') return -1;
    if (strcmp(arg, "--") == 0) {
      s->optind++;
      return -1;
    }
    s->nextchar = 1;
  }
  const char* arg = argv[s->optind];
  const char c = arg[s->nextchar++];
  const bool last = arg[s->nextchar] == '\0';
  const char* entry = c == ':' ? nullptr : strchr(optstring, c);
  if (entry == nullptr) {
    s->optopt = static_cast<unsigned char>(c);
    if (last) {
      s->optind++;
      s->nextchar = 0;
    }
    return '?';
  }
  if (entry[1] == ':') {
    // The option's argument is the rest of this word, or the next word.
    if (!last) {
      s->optarg = arg + s->nextchar;
      s->optind++;
      s->nextchar = 0;
    } else {
      s->optind++;
      s->nextchar = 0;
      if (s->optind >= argc) {
        s->optopt = static_cast<unsigned char>(c);
        return '?';
      }
      s->optarg = argv[s->optind++];
    }
  } else if (last) {
    s->optind++;
    s->nextchar = 0;
  }
  return static_cast<unsigned char>(c);
}
