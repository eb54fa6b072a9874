// Shared pieces of the fuzz targets: turning the end of the process into an
// exception, scratch files, and the clean-up a target needs after a reader
// was cut short by a fatal error.
//
// Every target file defines its body as `namespace <name> { int One_Input(
// const uint8_t*, size_t); }`. Built as a fuzzer (the default), the file
// also defines LLVMFuzzerTestOneInput; with MHBOOST_FUZZ_NO_MAIN the bodies
// can be included side by side in the regression test, which replays the
// inputs kept in tests/regress/ through exactly the same code.
#ifndef MHBOOST_FUZZ_COMMON_H_
#define MHBOOST_FUZZ_COMMON_H_

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "die.h"

namespace fuzz {

// Thrown by the exit hook in place of ending the process.
struct Process_End {
  int status;
};

[[noreturn]] inline void Throw_On_Exit(int status) { throw Process_End{status}; }

// A fatal error ends the run with one of the statuses the program uses:
// 1 (most errors, allocation failure) or 255 (the readers' and the option
// parser's crash routines). Anything else is a fault of its own.
inline void Check_Status(int status) {
  if (status != 1 && status != 255) {
    fprintf(stderr, "fuzz: unexpected exit status %d\n", status);
    abort();
  }
}

// Fails loudly: an invariant of the code under test does not hold.
#define FUZZ_CHECK(cond)                                                   \
  do {                                                                     \
    if (!(cond)) {                                                         \
      fprintf(stderr, "fuzz: check failed at %s:%d: %s\n", __FILE__,       \
              __LINE__, #cond);                                            \
      abort();                                                             \
    }                                                                      \
  } while (0)

// Open descriptors of the process, to close what a reader left open when a
// fatal error cut it short (the process end would have closed them).
inline std::vector<int> Open_Fds() {
  std::vector<int> fds;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return fds;
  int own = dirfd(d);
  for (dirent* e; (e = readdir(d)) != nullptr;) {
    if (e->d_name[0] == '.') continue;
    int fd = atoi(e->d_name);
    if (fd != own) fds.push_back(fd);
  }
  closedir(d);
  return fds;
}

inline void Close_New_Fds(const std::vector<int>& before) {
  for (int fd : Open_Fds()) {
    bool old = false;
    for (int b : before) old = old || b == fd;
    if (!old) close(fd);
  }
}

// Outcome of the last guarded run whose status was not examined by the
// target itself, for the regression test: -1 when it returned normally.
inline int& Last_Status() {
  static int status = -1;
  return status;
}

// Runs `body` with the exit hook installed. Returns -1 when it returned
// normally, else the exit status it asked for (already checked).
template <typename F>
int Guarded(F&& body) {
  std::vector<int> before = Open_Fds();
  Set_Exit_Hook(Throw_On_Exit);
  int status = -1;
  try {
    body();
  } catch (const Process_End& end) {
    status = end.status;
  }
  Set_Exit_Hook(nullptr);
  if (status != -1) {
    Close_New_Fds(before);
    Check_Status(status);
  }
  Last_Status() = status;
  return status;
}

inline int Remove_Entry(const char* path, const struct stat*, int, FTW*) {
  return remove(path);
}

// A private scratch directory for the life of the process, removed at a
// normal end.
inline const std::string& Scratch_Dir() {
  static std::string dir = [] {
    const char* base = getenv("TMPDIR");
    std::string tmpl = std::string(base != nullptr ? base : "/tmp") +
                       "/mhboost-fuzz.XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) {
      perror("mkdtemp");
      abort();
    }
    // A plain array: the string is destroyed before this runs.
    static char removed_at_exit[4096];
    snprintf(removed_at_exit, sizeof removed_at_exit, "%s", buf.data());
    atexit([] { nftw(removed_at_exit, Remove_Entry, 16, FTW_DEPTH | FTW_PHYS); });
    return std::string(buf.data());
  }();
  return dir;
}

inline void Write_File(const std::string& path, const void* data, size_t n) {
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) {
    perror(path.c_str());
    abort();
  }
  if (n > 0 && fwrite(data, 1, n, f) != n) abort();
  fclose(f);
}

inline void Write_File(const std::string& path, const std::string& text) {
  Write_File(path, text.data(), text.size());
}

}  // namespace fuzz

#endif  // MHBOOST_FUZZ_COMMON_H_
