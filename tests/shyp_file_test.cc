// Tests of the strong hypothesis file: exact layout, merging of repeated
// rules, round trips, refusals, and every truncation.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "optscan.h"
#include "read_data.h"
#include "sgram_expert.h"
#include "weak_learn.h"

namespace {

using ::testing::ExitedWithCode;

std::string Slurp(const std::string& path) {
  std::stringstream ss;
  ss << std::ifstream(path, std::ios::binary).rdbuf();
  return ss.str();
}

void Spit(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

class ShypFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/shyp_file_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    model_ = dir_ + "/task.shyp";
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // Classification mode on k classes; the learner keeps the strings.
  void Start(int k, const char* mode = "sgram") {
    std::string names = "c0";
    for (int l = 1; l < k; ++l) names += ", c" + std::to_string(l);
    Spit(dir_ + "/task.names", names + ".\ntext: text.\n");
    std::string stem = dir_ + "/task";
    const char* args[] = {"mhboost", "-S", stem.c_str(), "-N", mode, "-C"};
    char** argv = new char*[6];
    for (int i = 0; i < 6; ++i) argv[i] = strdup(args[i]);
    Reset_Scanner(&g_opt);
    InitializeWeakLearner(6, argv);
    k_ = k;
  }

  // A vector of k values, the last given one repeated.
  double* Vec(std::vector<double> v) {
    v.resize(k_, v.empty() ? 0 : v.back());
    auto* p = static_cast<double*>(Malloc(sizeof(double) * k_));
    std::copy(v.begin(), v.end(), p);
    return p;
  }

  weak_hyp Rule(const char* term, int type, double weight, std::vector<double> c0 = {},
                std::vector<double> c1 = {}, std::vector<double> c2 = {}) {
    auto* e = static_cast<text_expert_rec*>(Malloc(sizeof(text_expert_rec)));
    e->term = strdup(term);
    e->type = type;
    e->c0 = Vec(c0);
    e->c1 = Vec(c1);
    e->c2 = Vec(c2);
    return weak_hyp{e, weight, nullptr};
  }

  std::string dir_, model_;
  int k_ = 0;
};

TEST_F(ShypFileTest, LayoutOfEveryRuleKind) {
  // Six values to a line, for 5, 6 and 7 classes.
  const std::string v = "0.1000000000 ", six = v + v + v + v + v + v;
  for (int k : {5, 6, 7}) {
    Start(k);
    weak_hyp wh = Rule("good news ", kTypeFgram, 0.5, {0.1}, {0.1});
    std::string vec = k == 5 ? v + v + v + v + v + "\n\n" : k == 6 ? six + "\n\n" : six + "\n" + v + "\n\n";
    int count = 1;
    WriteStrongHypothesis(&wh, &count, 0);
    EXPECT_EQ(Slurp(model_), "1\n\n   0.500000000000000 Text:SGRAM:good#news\n\n" + vec + vec + "\n") << k;
  }
  Start(2);
  weak_hyp whs[2] = {Rule("age:", kTypeThreshold, 1.25, {1, -1}, {0.25, 0}, {-2, 3}),
                     Rule("len:", kTypeLinear, -0.5, {0.5})};
  whs[0].hyp->threshold = 17.5;
  whs[1].hyp->linear_a = Vec({1, 2});
  whs[1].hyp->linear_b = Vec({-3, -4});
  int count = 2;
  WriteStrongHypothesis(whs, &count, 0);
  EXPECT_EQ(Slurp(model_),
            "2\n\n   1.250000000000000 Text:THRESHOLD:age:\n\n"
            "1.0000000000 -1.0000000000 \n\n0.2500000000 0.0000000000 \n\n"
            "-2.0000000000 3.0000000000 \n\n17.5000000000\n\n\n"
            "  -0.500000000000000 Text:LINEAR:len:\n\n"
            "0.5000000000 0.5000000000 \n\n1.0000000000 2.0000000000 \n\n"
            "-3.0000000000 -4.0000000000 \n\n\n");
  count = 0;
  WriteStrongHypothesis(nullptr, &count, 0);
  EXPECT_EQ(Slurp(model_), "0\n\n");
}

TEST_F(ShypFileTest, RepeatedRulesAreMergedBeforeWriting) {
  Start(2);
  weak_hyp twice[2] = {Rule("x ", kTypeSgram, 0.5, {1, -1}, {1, -1}),
                       Rule("x ", kTypeSgram, 0.25, {-1, 1}, {-1, 1})};
  int count = 2;
  WriteStrongHypothesis(twice, &count, 0);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(Slurp(model_),
            "1\n\n   0.750000000000000 Text:SGRAM:x\n\n"
            "0.3333333333 -0.3333333333 \n\n0.3333333333 -0.3333333333 \n\n\n");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_), {}), 2)
      << "the temporary file is left behind";

  // Thresholds must match exactly unless the first rule is a fresh term
  // rule (type 2); a linear rule is never a target.
  Start(1);
  std::vector<weak_hyp> all = {
      Rule("a:", kTypeThreshold, 1, {0}, {2}), Rule("t ", kTypeFgram, 1, {0}, {4}),
      Rule("a:", kTypeThreshold, 1, {0}, {8}), Rule("t ", kTypeFgram, 3, {0}, {8}),
      Rule("l:", kTypeLinear, 1), Rule("l:", kTypeLinear, 1),
      Rule("a:", kTypeThreshold, 1, {0}, {4})};
  const double thresholds[7] = {1.5, 0, 2.5, 9, 0, 0, 1.5};
  for (int i = 0; i < 7; ++i) all[i].hyp->threshold = thresholds[i];
  text_expert_rec* linear[2] = {all[4].hyp, all[5].hyp};
  count = 7;
  CompileStrongTextHypothesis(all.data(), &count);
  ASSERT_EQ(count, 5);
  EXPECT_EQ(all[3].hyp, linear[0]);
  EXPECT_EQ(all[4].hyp, linear[1]);
  EXPECT_DOUBLE_EQ(all[0].weight, 2);
  EXPECT_DOUBLE_EQ(all[0].hyp->c1[0], 3);  // (2 + 4) / 2
  EXPECT_DOUBLE_EQ(all[1].weight, 4);
  EXPECT_DOUBLE_EQ(all[1].hyp->c1[0], 7);  // (4 + 3 * 8) / 4
  EXPECT_DOUBLE_EQ(all[2].hyp->c1[0], 8);
}

TEST_F(ShypFileTest, RefusalsNameTheProblem) {
  Start(2);
  const std::pair<std::string, std::string> cases[] = {
      {"2\n 1 Text:SGRAM:a 1 2 3 4\n", "Strong Hypothesis file too short\n"},
      {"1\n 1 Text:SGRAM 1 2 3 4\n", "Illegal Weak Hypotheiss format (Text:SGRAM)\n"},
      {"1\n 1 Text:ORW:a 1 2\n", "Unknown/Unsupported type (ORW)\n"},
      {"", "truncated (the file is empty: no number of hypotheses)\n"},
      {"-1\n", "malformed (negative number of hypotheses: -1)\n"},
      {"900\n 1 Text:SGRAM:a 1 2 3 4\n", "is larger than the file can hold)\n"},
      {"1\n 1 Text:THRESHOLD:a: 1 2 3 4 5 6\n",
       "(the file ends before the threshold of rule 'Text:THRESHOLD:a:')\n"},
      {"1\n 1 Text:SGRAM:a 1 2 3 z\n",
       "(value 2 of 2 of vector c1 of rule 'Text:SGRAM:a' is not a number: 'z')\n"},
      {"1\n 1 Text:SGRAM:" + std::string(1013, 'w') + " 1 2 3 4\n",
       "(rule header longer than 1023 characters: 'Text:SGRAM:wwwwwwwwwwwwwwwwwwwwwwwwwwwww...')\n"},
      {"1\n\n 1 Text:SGRAM:a\n 1 2\n 3", ":5: model file is truncated (the file ends inside "
       "value 1 of 2 of vector c1 of rule 'Text:SGRAM:a': '3')\n"},
  };
  int count = 0;
  for (const auto& [file, message] : cases) {
    Spit(model_, file);
    EXPECT_EXIT(ReadStrongHypothesis(&count), ExitedWithCode(1), ::testing::EndsWith(message));
  }
  // A header of 1023 characters is still read.
  Spit(model_, "1\n 1 Text:SGRAM:" + std::string(1012, 'w') + " 1 2 3 4\n");
  ASSERT_NE(ReadStrongHypothesis(&count), nullptr);
  EXPECT_EQ(count, 1);

  // A model that cannot replace its target leaves the target alone.
  std::filesystem::remove(model_);
  std::filesystem::create_directory(model_);
  count = 0;
  EXPECT_EXIT(WriteStrongHypothesis(nullptr, &count, 0), ExitedWithCode(1),
              ::testing::HasSubstr(model_ + ": cannot write the model file"));
  std::filesystem::remove(model_);
  EXPECT_EXIT(
      {
        std::filesystem::remove_all(dir_);
        WriteStrongHypothesis(nullptr, &count, 0);
      },
      ExitedWithCode(1), ::testing::StartsWith(model_ + ": "));
}

// One rule of each kind reads back whole under each enumerator (only the
// vectors a rule owns are read); cut at any byte, it is refused.
TEST_F(ShypFileTest, RoundTripAndEveryTruncation) {
  for (const char* mode : {"ngram", "fgram", "sgram"}) {
    SCOPED_TRACE(mode);
    Start(2, mode);
    std::filesystem::remove(model_);
    int count = -1;
    EXPECT_EQ(ReadStrongHypothesis(&count), nullptr);  // no model yet
    EXPECT_EQ(count, 0);
    weak_hyp whs[3] = {Rule("w:x y ", kTypeNgram, 0.125, {0.1}, {2.5}, {-6}),
                       Rule("age:", kTypeThreshold, -2.5, {0.1}, {2.5}, {-6}),
                       Rule("len:", kTypeLinear, 0.75, {0.1}, {2.5}, {-6})};
    whs[1].hyp->threshold = 42.125;
    whs[2].hyp->linear_a = Vec({1, 2});
    whs[2].hyp->linear_b = Vec({-1, -2});
    count = 3;
    WriteStrongHypothesis(whs, &count, 0);
    weak_hyp* got = ReadStrongHypothesis(&count);
    ASSERT_EQ(count, 3);
    EXPECT_STREQ(got[0].hyp->term, strcmp(mode, "sgram") == 0 ? "w:x y " : "w:x y");
    const int types[3] = {kTypeSgram, kTypeThreshold, kTypeLinear};
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(got[i].hyp->type, types[i]);
      EXPECT_EQ(got[i].weight, whs[i].weight);
      EXPECT_NEAR(got[i].hyp->c0[1], 0.1, 1e-10);
      EXPECT_EQ(got[i].hyp->c1[1], i == 2 ? 0.0 : 2.5);
      EXPECT_EQ(got[i].hyp->c2[1], i == 1 ? -6.0 : 0.0);
    }
    EXPECT_EQ(got[1].hyp->threshold, 42.125);
    EXPECT_EQ(got[2].hyp->linear_a[1], 2);
    EXPECT_EQ(got[2].hyp->linear_b[1], -2);
  }
  const std::string full = Slurp(model_);
  const size_t last = full.find_last_not_of(" \n") + 1;
  for (size_t len = 0; len < full.size(); ++len) {
    Spit(model_, full.substr(0, len));
    int count = 0;
    if (len > last) {  // only newlines are missing
      weak_hyp* got = ReadStrongHypothesis(&count);
      ASSERT_EQ(count, 3);
      EXPECT_EQ(got[2].hyp->linear_b[1], -2);
      continue;
    }
    EXPECT_EXIT(ReadStrongHypothesis(&count), ExitedWithCode(1),
                ::testing::MatchesRegex("(mhboost: .*: model file is (truncated|malformed) \\(.*\\)|"
                                        "Strong Hypothesis file too short)\n"))
        << "cut after " << len << " bytes";
  }
}

}  // namespace
