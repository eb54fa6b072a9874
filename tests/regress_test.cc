// Replays the inputs that fuzzing turned up (tests/regress/<target>/) and the
// fuzz targets' seed corpora (fuzz/corpus/<target>/) through the very code
// of the fuzz targets, built here without libFuzzer. Each target checks its
// own invariants and aborts when one fails; a fatal error of the program is
// turned into a status by the targets' exit hook. An input may come with a
// file <input>.status holding the exit status it must end with ("none" when
// it must be accepted).
#define MHBOOST_FUZZ_NO_MAIN 1

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "../fuzz/data_fuzz.cc"
#include "../fuzz/dict_fuzz.cc"
#include "../fuzz/model_fuzz.cc"
#include "../fuzz/names_fuzz.cc"
#include "../fuzz/options_fuzz.cc"
#include "../fuzz/terms_fuzz.cc"

namespace {

namespace fs = std::filesystem;
using one_input = int (*)(const uint8_t*, size_t);

std::string Slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Runs every kept input of `target`; returns how many were run.
size_t Replay(const std::string& target, one_input run) {
  size_t n = 0;
  for (const char* base : {"tests/regress/", "fuzz/corpus/"}) {
    fs::path d = fs::path(MHBOOST_SOURCE_DIR) / (base + target);
    std::vector<fs::path> inputs;
    if (fs::is_directory(d))
      for (const auto& e : fs::directory_iterator(d))
        if (e.is_regular_file() && e.path().extension() != ".status") inputs.push_back(e.path());
    std::sort(inputs.begin(), inputs.end());
    for (const fs::path& p : inputs) {
      SCOPED_TRACE(p.string());
      // Named before the run: a failed check aborts the whole process.
      fprintf(stderr, "replay %s\n", p.string().c_str());
      std::string bytes = Slurp(p);
      run(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      fs::path expect = p;
      expect += ".status";
      if (fs::exists(expect)) {
        std::string want = Slurp(expect);
        want.erase(want.find_last_not_of(" \n") + 1);
        int got = fuzz::Last_Status();
        EXPECT_EQ(want, got == -1 ? std::string("none") : std::to_string(got));
      }
      ++n;
    }
  }
  return n;
}

TEST(FuzzRegress, EveryKeptInputOfEveryTarget) {
  const std::pair<const char*, one_input> targets[] = {
      {"names", names_target::One_Input}, {"data", data_target::One_Input},
      {"dict", dict_target::One_Input},   {"model", model_target::One_Input},
      {"options", options_target::One_Input}, {"terms", terms_target::One_Input}};
  for (const auto& [name, run] : targets) EXPECT_GT(Replay(name, run), 0u) << name;
}

#if defined(__SANITIZE_ADDRESS__)
#define SKIP_UNDER_ASAN() GTEST_SKIP() << "AddressSanitizer reserves more address space than the limits leave"
#else
#define SKIP_UNDER_ASAN() (void)0
#endif

// Runs the program in `dir` under an address-space limit of `kib` KiB;
// returns its exit status (or 128 + signal), the last line of its standard
// error and, when asked, its peak resident size in KiB.
int Run_Limited(const std::string& dir, long kib, std::vector<std::string> args,
                std::string* last_line, long* peak_kib) {
  std::string err = dir + "/stderr.txt";
  pid_t pid = fork();
  if (pid == 0) {
    if (chdir(dir.c_str()) != 0) _exit(120);
    rlimit lim{static_cast<rlim_t>(kib) * 1024, static_cast<rlim_t>(kib) * 1024};
    setrlimit(RLIMIT_AS, &lim);
    if (!freopen(err.c_str(), "w", stderr) || !freopen("/dev/null", "w", stdout)) _exit(121);
    std::vector<char*> argv;
    args.insert(args.begin(), MHBOOST_BINARY);
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(MHBOOST_BINARY, argv.data());
    _exit(122);
  }
  int ws = 0;
  rusage usage{};
  wait4(pid, &ws, 0, &usage);
  if (peak_kib != nullptr) *peak_kib = usage.ru_maxrss;
  std::string text = Slurp(err);
  text.erase(text.find_last_not_of('\n') + 1);
  *last_line = text.substr(text.find_last_of('\n') + 1);
  return WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws);
}

// Whatever allocation fails first, the run ends with the message and status
// of the allocator that failed.
TEST(MemoryLimit, ExhaustionAnywhereEndsWithTheAllocatorsMessage) {
  SKIP_UNDER_ASAN();
  std::string dir = fuzz::Scratch_Dir() + "/memory";
  fs::create_directories(dir);
  fuzz::Write_File(dir + "/m.names", "a, b, c.\nt: text.\nx: continuous.\n");
  std::string data;
  for (int i = 0; i < 60000; ++i)
    data += "w" + std::to_string(i) + " v" + std::to_string(i % 997) + " u" +
            std::to_string(i % 7) + ", " + std::to_string(i % 13) + ", " +
            (i % 3 == 0 ? "a" : i % 3 == 1 ? "b" : "a c") + ".\n";
  fuzz::Write_File(dir + "/m.data", data);
  // From well below what reading needs to a little above the unlimited peak.
  std::string last;
  const std::vector<std::string> args = {"-n", "2", "-W", "2", "-T", "1", "-S", "m"};
  long peak = 0;
  ASSERT_EQ(0, Run_Limited(dir, 1L << 22, args, &last, &peak)) << last;
  int refused = 0;
  for (int step = 0; step <= 24; ++step) {
    long kib = 16000 + peak * step / 20;
    SCOPED_TRACE("limit " + std::to_string(kib) + " KiB");
    int status = Run_Limited(dir, kib, args, &last, nullptr);
    if (status == 0) continue;
    ++refused;
    if (status == 1) {
      EXPECT_TRUE(last == "Malloc: Cannot allocate memory" || last == "fatal: out of memory")
          << last;
    } else {
      EXPECT_EQ(255, status) << last;
      EXPECT_EQ("Could not copy set", last);
    }
  }
  EXPECT_GT(refused, 0);
}

// A 22 MB dictionary that does not fit ends the run with the allocator's
// message rather than an uncaught exception.
TEST(MemoryLimit, DictionaryTooLargeForMemory) {
  SKIP_UNDER_ASAN();
  std::string dir = fuzz::Scratch_Dir() + "/dictionary";
  fs::create_directories(dir);
  fuzz::Write_File(dir + "/d.names", "a, b.\nt: text.\n");
  fuzz::Write_File(dir + "/d.data", "the word1 cat, a.\n");
  std::string words;
  for (int i = 0; i < 2000000; ++i) words += "word" + std::to_string(i) + "\n";
  fuzz::Write_File(dir + "/d.dict", words);
  std::string last;
  EXPECT_EQ(1, Run_Limited(dir, 40000, {"-n", "1", "-D", "1", "-S", "d"}, &last, nullptr));
  EXPECT_EQ("Malloc: Cannot allocate memory", last);
}

}  // namespace
