// Fuzz target: the model file. A small task (names, training and test
// files) is set up once; the weak learner is started on it as the program
// starts it, with one of six settings picked by the first input byte
// (enumerator, window, training or classification mode), and the rest of
// the input is read as <stem>.shyp by ReadStrongHypothesis. A model that
// is read is evaluated on every example, written back with the program's
// own writer and read again: what the program writes it must read.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "optscan.h"
#include "read_data.h"
#include "sgram_expert.h"
#include "weak_learn.h"

namespace model_target {

const char kNames[] =
    "sports, politics, science.\n"
    "headline: text.\nscored: scoredtext.\nlength: continuous.\n"
    "source: wire, web, print.\n";
const char kData[] =
    "late goal wins the cup final, goal 2 cup 1, 12, wire, sports.\n"
    "striker signs for the champions, signs 0.5, 9, web, sports.\n"
    "parliament votes on the budget, budget 3 votes 1, 15, print, politics.\n"
    "new telescope finds a planet, planet 2, ?, web, science.\n"
    "the cup of the budget, cup 1 budget 1, 30, wire, sports politics.\n";
const char kTest[] =
    "the cup final, cup 1, 10, wire, sports.\n"
    "budget talks fail, budget 1.5, 20, print, politics.\n";

struct setting {
  const char* kind;
  const char* window;
  bool classify;
};
const setting kSettings[6] = {{"sgram", "2", false}, {"ngram", "2", false},
                              {"fgram", "2", false}, {"sgram", "3", true},
                              {"ngram", "1", true},  {"fgram", "1", true}};

inline const std::string& Stem() {
  static const std::string stem = [] {
    std::string s = fuzz::Scratch_Dir() + "/model";
    fuzz::Write_File(s + ".names", kNames);
    fuzz::Write_File(s + ".data", kData);
    fuzz::Write_File(s + ".test", kTest);
    return s;
  }();
  return stem;
}

// Starts the weak learner with setting `which` unless it already runs so.
inline void Start(int which) {
  static int current = -1;
  if (current == which) return;
  const setting& s = kSettings[which];
  // The weak learner keeps pointers into its argument vector (the stem), as
  // the program keeps argv: each setting's vector lives as long as we do.
  static std::vector<std::string> args[6];
  static std::vector<char*> argv[6];
  if (args[which].empty()) {
    args[which] = {"mhboost", "-S", Stem(), "-N", s.kind, "-W", s.window, "-T", "1"};
    if (s.classify) args[which].push_back("-C");
    for (std::string& a : args[which]) argv[which].push_back(a.data());
    argv[which].push_back(nullptr);
  }
  Reset_Scanner(&g_opt);
  int status = fuzz::Guarded([&] {
    InitializeWeakLearner(static_cast<int>(args[which].size()), argv[which].data());
  });
  FUZZ_CHECK(status == -1);
  current = which;
}

inline void Check_Lists(int n, const int* index, int lo, int hi) {
  for (int i = 0; i < n; ++i) {
    FUZZ_CHECK(index[i] >= lo && index[i] < hi);
    if (i > 0) FUZZ_CHECK(index[i] > index[i - 1]);
  }
}

inline int One_Input(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const int which = data[0] % 6;
  Start(which);
  const std::string path = Stem() + ".shyp";
  fuzz::Write_File(path, data + 1, size - 1);

  int n = 0;
  weak_hyp* whs = nullptr;
  int status = fuzz::Guarded([&] { whs = ReadStrongHypothesis(&n); });
  if (status != -1) return 0;
  FUZZ_CHECK(n >= 0 && (n == 0 || whs != nullptr));

  example_data* d = Weak_Data();
  const int m = d->num_train, t = d->num_test;
  for (int i = 0; i < n; ++i) {
    text_expert_rec* e = whs[i].hyp;
    FUZZ_CHECK(e != nullptr && e->term != nullptr);
    FUZZ_CHECK(e->type == kTypeSgram || e->type == kTypeThreshold ||
               e->type == kTypeLinear);
    if (kSettings[which].classify) continue;
    Check_Lists(e->num_train, e->train_index, 0, m);
    Check_Lists(e->num_test, e->test_index, m, m + t);
    for (int x = 0; x < m; ++x) FUZZ_CHECK(EvalWeakHypothesis(e, d->train_examples[x]) != nullptr);
    for (int x = 0; x < t; ++x) FUZZ_CHECK(EvalWeakHypothesis(e, d->test_examples[x]) != nullptr);
  }

  // Written by the program, read by the program.
  std::vector<std::string> terms;
  std::vector<int> types;
  for (int i = 0; i < n; ++i) {
    terms.push_back(whs[i].hyp->term);
    types.push_back(whs[i].hyp->type);
  }
  FILE* out = fopen(path.c_str(), "w");
  FUZZ_CHECK(out != nullptr);
  status = fuzz::Guarded([&] { Write_Strong_Hypothesis_To(out, whs, n); });
  fclose(out);
  FUZZ_CHECK(status == -1);
  int n2 = 0;
  weak_hyp* again = nullptr;
  status = fuzz::Guarded([&] { again = ReadStrongHypothesis(&n2); });
  FUZZ_CHECK(status == -1);
  // Thresholds are written with ten decimals, so two rules whose
  // thresholds differ only beyond them are merged on the second reading.
  FUZZ_CHECK(n2 <= n);
  // The writer drops a term's final blank ('a b ' is written 'a#b'), so a
  // term read as 'x ' under the contiguous enumerators comes back as 'x'
  // (neither can match a contiguous term, which never ends in a blank).
  auto trimmed = [](std::string t) {
    while (!t.empty() && t.back() == ' ') t.pop_back();
    return t;
  };
  if (n2 == n) {
    for (int i = 0; i < n; ++i) {
      FUZZ_CHECK(trimmed(terms[i]) == trimmed(again[i].hyp->term));
      FUZZ_CHECK(types[i] == again[i].hyp->type);
    }
  }
  return 0;
}

}  // namespace model_target

#ifndef MHBOOST_FUZZ_NO_MAIN
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return model_target::One_Input(data, size);
}
#endif
