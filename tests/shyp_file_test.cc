// Tests of the strong hypothesis file (exact layout, which repeated rules
// merge, round trips, refusals, every truncation) and of the indexing of a
// stored model: its key table, the occurrence lists it fills from examples,
// and its use by a continued run. Failed writes are the command-line case
// fuzz-model-write.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "temp_dir.h"
#include "die.h"
#include "optscan.h"
#include "read_data.h"
#include "sgram_expert.h"
#include "sgram_shyp.h"
#include "weak_learn.h"

namespace {

using ::testing::ExitedWithCode;

std::string Slurp(const std::string& path) {
  std::stringstream ss;
  ss << std::ifstream(path, std::ios::binary).rdbuf();
  return ss.str();
}

void Spit(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

// "index:count" per entry of one side, with "@value" where values are kept.
std::string Lists(int n, const int* index, const int* count, const double* values) {
  std::string s;
  for (int i = 0; i < n; ++i) {
    char v[32] = "";
    if (values != nullptr) snprintf(v, sizeof v, "@%g", values[i]);
    s += (i ? " " : "") + std::to_string(index[i]) + ":" + std::to_string(count[i]) + v;
  }
  return s;
}

class ShypFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = tmp_.path();
    stem_ = dir_ + "/task";
    model_ = stem_ + ".shyp";
  }

  // Starts the weak learner on the names and options (the learner keeps the
  // strings).
  void Start(const std::string& names, std::vector<std::string> args) {
    Spit(stem_ + ".names", names);
    args.insert(args.begin(), {"mhboost", "-S", stem_});
    char** argv = new char*[args.size()];
    for (size_t i = 0; i < args.size(); ++i) argv[i] = strdup(args[i].c_str());
    Reset_Scanner(&g_opt);
    InitializeWeakLearner(static_cast<int>(args.size()), argv);
  }
  // Classification mode on k classes and one text.
  void Start(int k, const char* mode = "sgram") {
    std::string names = "c0";
    for (int l = 1; l < k; ++l) names += ", c" + std::to_string(l);
    Start(names + ".\ntext: text.\n", {"-N", mode, "-C"});
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

  Temp_Dir tmp_{"shyp_file_test"};
  std::string dir_, stem_, model_;
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
  // Term and threshold rules on two and three classes are compared byte for
  // byte by the training oracle; a linear rule keeps c0 and its two lines.
  Start(2);
  weak_hyp lin = Rule("len:", kTypeLinear, -0.5, {0.5});
  lin.hyp->linear_a = Vec({1, 2});
  lin.hyp->linear_b = Vec({-3, -4});
  int count = 1;
  WriteStrongHypothesis(&lin, &count, 0);
  EXPECT_EQ(Slurp(model_),
            "1\n\n  -0.500000000000000 Text:LINEAR:len:\n\n0.5000000000 0.5000000000 \n\n"
            "1.0000000000 2.0000000000 \n\n-3.0000000000 -4.0000000000 \n\n\n");
  count = 0;
  WriteStrongHypothesis(nullptr, &count, 0);
  EXPECT_EQ(Slurp(model_), "0\n\n");
}

// How merged rules are written is checked by the training oracle; here, which
// rules merge: thresholds must match exactly unless the first rule is a fresh
// term rule (type 2); a linear rule is never a target.
TEST_F(ShypFileTest, WhichRepeatedRulesMerge) {
  Start(1);
  std::vector<weak_hyp> all = {
      Rule("a:", kTypeThreshold, 1, {0}, {2}), Rule("t ", kTypeFgram, 1, {0}, {4}),
      Rule("a:", kTypeThreshold, 1, {0}, {8}), Rule("t ", kTypeFgram, 3, {0}, {8}),
      Rule("l:", kTypeLinear, 1), Rule("l:", kTypeLinear, 1),
      Rule("a:", kTypeThreshold, 1, {0}, {4})};
  const double thresholds[7] = {1.5, 0, 2.5, 9, 0, 0, 1.5};
  for (int i = 0; i < 7; ++i) all[i].hyp->threshold = thresholds[i];
  text_expert_rec* linear[2] = {all[4].hyp, all[5].hyp};
  int count = 7;
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
      {"900\n 1 Text:SGRAM:a 1 2 3 4\n", "Strong Hypothesis file too short\n"},
      {"4294967296\n 1 Text:SGRAM:a 1 2 3 4\n", "(number of hypotheses 4294967296 is out of range)\n"},
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

}

// One rule of each kind reads back whole (only the vectors a rule owns are
// read; terms and kinds under every enumerator are checked by the model fuzz
// target, scores end to end by roundtrip_test); cut at any byte, it is refused.
TEST_F(ShypFileTest, RoundTripAndEveryTruncation) {
  Start(2);
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
  EXPECT_STREQ(got[0].hyp->term, "w:x y ");
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

  const std::string full = Slurp(model_);
  const size_t last = full.find_last_not_of(" \n") + 1;
  for (size_t len = 0; len < full.size(); ++len) {
    Spit(model_, full.substr(0, len));
    if (len > last) {  // only newlines are missing
      got = ReadStrongHypothesis(&count);
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

struct IndexCase {
  const char* names;
  std::vector<std::string> options;
  const char* examples;
  int W;
  std::vector<std::pair<const char*, int>> rules;
  std::vector<std::string> want;  // test lists of each rule
};

// Examples are numbered from 100 so that the lists show which number is kept.
// Plain words, sparse terms and thresholds sharing a key are also covered
// end to end by roundtrip_test.
TEST_F(ShypFileTest, RulesFindTheirOccurrences) {
  const char* colour = "a, b.\ncolor: red, green, blue.\nt: text.\n";
  const char* colours = "green, x, a.\nblue, x, b.\n?, x, a.\n";
  const IndexCase cases[] = {
      {"a, b.\ntext: text.\n", {"-N", "ngram"}, "a a a a b, a.\nb, b.\nb a, a.\n", 2,
       {{"a", kTypeSgram}, {"a a", kTypeSgram}, {"b a", kTypeSgram}}, {"100:4 102:1", "100:3", "102:1"}},
      // Discrete keys end in a blank under sparse grams only.
      {colour, {"-N", "sgram"}, colours, 1,
       {{"color:1 ", kTypeSgram}, {"color:1", kTypeSgram}, {"t:x ", kTypeSgram}},
       {"100:1", "", "100:1 101:1 102:1"}},
      {colour, {"-N", "fgram"}, colours, 1, {{"color:1 ", kTypeSgram}, {"color:2", kTypeSgram}}, {"", "101:1"}},
      // Word scores add up, repeats keep the maximum; a rule without values
      // sees a plain occurrence.
      {"a, b.\nw: scoredtext.\n", {"-N", "ngram"}, "good 2 bad 1 good 3, a.\nbad 4 news 0.5, b.\n", 2,
       {{"good", kTypeThreshold}, {"bad news", kTypeLinear}, {"bad", kTypeSgram}},
       {"100:2@3", "101:1@4.5", "100:1 101:1"}},
      // The wildcard's score does not count.
      {"a, b.\nw: scoredtext.\n", {"-N", "sgram", "-M", "+", "-F", "max"},
       "good 2 bad 1 good 3, a.\nbad 4 x 9 news 0.5, b.\n", 3,
       {{"good ", kTypeThreshold}, {"bad ? news ", kTypeThreshold}}, {"100:2@5", "101:1@4"}},
  };
  for (const IndexCase& c : cases) {
    SCOPED_TRACE(c.examples);
    std::vector<std::string> options = c.options;
    options.push_back("-C");
    Start(c.names, options);
    Spit(stem_ + ".test", c.examples);
    int n = 0;
    example** ex = Read_DataSet(Weak_Dsi(), (stem_ + ".test").c_str(), &n);
    for (int i = 0; i < n; ++i) ex[i]->index = 100 + i;
    const int count = static_cast<int>(c.rules.size());
    weak_hyp* whs = Allocate_Weak_Hyp(count);
    for (int j = 0; j < count; ++j) {
      auto* e = static_cast<text_expert_rec*>(Malloc(sizeof(text_expert_rec)));
      e->term = strdup(c.rules[j].first);
      e->type = c.rules[j].second;
      e->test_index = static_cast<int*>(Malloc(n * sizeof(int)));
      e->test_count = static_cast<int*>(Malloc(n * sizeof(int)));
      if (e->type == kTypeThreshold || e->type == kTypeLinear)
        e->test_values = static_cast<double*>(Malloc(n * sizeof(double)));
      whs[j].hyp = e;
    }
    Index_Weak_Hyp(Weak_Expander(), c.W, whs, count);
    Index_New_Test_Instances(ex, n, Weak_Dsi());
    for (int j = 0; j < count; ++j) {
      const text_expert_rec* e = whs[j].hyp;
      EXPECT_EQ(Lists(e->num_test, e->test_index, e->test_count, e->test_values), c.want[j]) << j;
    }
    Index_New_Test_Instances(ex, 0, Weak_Dsi());  // an empty set clears the lists
    EXPECT_EQ(whs[0].hyp->num_test, 0);
  }
}

// A continued run reads the model, indexes it against the training and the
// test set, and evaluates its rules from those lists; in a process of its
// own so that the learner starts from a clean state.
TEST_F(ShypFileTest, StoredModelIsIndexedForAContinuedRun) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto run = [&] {
    Spit(stem_ + ".data", "5, good news, yes.\n?, bad news, no.\n30, good good, yes.\n");
    Spit(stem_ + ".test", "15, news, no.\n40, good, yes.\n");
    Spit(stem_ + ".shyp",
         "2\n\n 0.5 Text:SGRAM:title:good\n 1 -1\n -1 1\n\n"
         " 0.25 Text:THRESHOLD:age:\n 1 1\n 2 2\n 3 3\n 20\n");
    Start("yes, no.\nage: continuous.\ntitle: text.\n", {"-N", "sgram"});
    int count = 0;
    weak_hyp* whs = ReadStrongHypothesis(&count);
    example_data* d = Weak_Data();
    for (int i = 0; i < count; ++i) {
      text_expert_rec* e = whs[i].hyp;
      std::string out = std::string("'") + e->term + "' train " +
                        Lists(e->num_train, e->train_index, e->train_count, e->values) + " test " +
                        Lists(e->num_test, e->test_index, e->test_count, e->test_values) + " eval";
      for (int x = 0; x < d->num_train + d->num_test; ++x) {
        example* ex = x < d->num_train ? d->train_examples[x] : d->test_examples[x - d->num_train];
        out += " " + std::to_string(static_cast<int>(EvalWeakHypothesis(e, ex)[0]));
      }
      fprintf(stderr, "%s\n", out.c_str());
    }
    Exit_Run(0);
  };
  EXPECT_EXIT(run(), ::testing::ExitedWithCode(0),
              ::testing::StrEq("'title:good ' train 0:1 2:2 test 4:1 eval -1 1 -1 1 -1\n"
                               "'age:' train 0:1@5 2:1@30 test 3:1@15 4:1@40 eval 2 1 3 2 3\n"));
  GTEST_FLAG_SET(death_test_style, "fast");
}

}  // namespace
