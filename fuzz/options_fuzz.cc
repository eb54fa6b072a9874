// Fuzz target: both option parsers over one argument vector. The input is
// split at NUL bytes into arguments (argv[0] is the program name); the
// booster's parser runs first, then the weak learner's, exactly as at
// start-up. No stem is read: the run stops after parsing.
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "boost.h"
#include "fuzz_common.h"
#include "optscan.h"
#include "weak_parm.h"

namespace options_target {

constexpr size_t kMaxArgs = 64;

inline int One_Input(const uint8_t* data, size_t size) {
  std::vector<std::string> words{"mhboost"};
  std::string cur;
  for (size_t i = 0; i < size && words.size() < kMaxArgs; ++i) {
    if (data[i] == 0) {
      words.push_back(cur);
      cur.clear();
    } else {
      cur += static_cast<char>(data[i]);
    }
  }
  if (!cur.empty() && words.size() < kMaxArgs) words.push_back(cur);
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  int argc = static_cast<int>(words.size());

  // Start-up state: a fresh scanner, and no utility mode (which the parser
  // only ever sets).
  Reset_Scanner(&g_opt);
  utility_mode = 0;
  text_expert_info info{};
  char* stem = nullptr;
  int status = fuzz::Guarded([&] {
    parse_options(argc, argv.data());
    stem = Weak_Parm(argc, argv.data(), &info);
  });
  if (status != -1) return 0;

  FUZZ_CHECK(loss_mode == 1 || loss_mode == 2 || loss_mode == 3);
  FUZZ_CHECK(!load_model || loss_mode == 3);
  FUZZ_CHECK(info.dict_mode >= 0 && info.dict_mode <= 2);
  FUZZ_CHECK(info.expert_kind >= 0 && info.expert_kind <= 2);
  // Predictions are smoothed log-odds: the smoothing must be a finite,
  // non-negative number or every prediction is NaN.
  FUZZ_CHECK(std::isfinite(info.smoothing) && info.smoothing >= 0);
  FUZZ_CHECK(info.num_threads >= 0);
  FUZZ_CHECK(info.fand != nullptr && info.fscore != nullptr &&
             info.fmultiple != nullptr);
  if (stem != nullptr) {
    bool inside = false;
    for (int i = 1; i < argc; ++i) {
      size_t len = words[i].size();
      inside = inside || (stem >= argv[i] && stem <= argv[i] + len);
    }
    FUZZ_CHECK(inside);
  }
  return 0;
}

}  // namespace options_target

#ifndef MHBOOST_FUZZ_NO_MAIN
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return options_target::One_Input(data, size);
}
#endif
