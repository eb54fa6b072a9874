// Tests of the indexing of a stored model: the key table over its rules and
// the occurrence lists it fills from examples, alone and through the model
// reader of a continued run.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "die.h"
#include "hash.h"
#include "optscan.h"
#include "read_data.h"
#include "sgram_expert.h"
#include "sgram_shyp.h"
#include "weak_learn.h"

namespace {

void Spit(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

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

class SgramShypTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/sgram_shyp_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    stem_ = dir_ + "/task";
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  void Start(const std::string& names, std::vector<std::string> args) {
    Spit(stem_ + ".names", names);
    args.insert(args.begin(), {"mhboost", "-S", stem_});
    char** argv = new char*[args.size()];  // the learner keeps the stem
    for (size_t i = 0; i < args.size(); ++i) argv[i] = strdup(args[i].c_str());
    Reset_Scanner(&g_opt);
    InitializeWeakLearner(static_cast<int>(args.size()), argv);
  }

  // Indexes the rules (term, type) against the examples, numbered from
  // `first` so that the lists show which number is stored.
  hash_table* Index(const std::string& examples, int first, int W,
                    std::vector<std::pair<const char*, int>> rules) {
    Spit(dir_ + "/examples", examples);
    int n = 0;
    example** ex = Read_DataSet(Weak_Dsi(), (dir_ + "/examples").c_str(), &n);
    for (int i = 0; i < n; ++i) ex[i]->index = first + i;
    whs_ = Allocate_Weak_Hyp(static_cast<int>(rules.size()));
    for (size_t j = 0; j < rules.size(); ++j) {
      auto* e = static_cast<text_expert_rec*>(Malloc(sizeof(text_expert_rec)));
      e->term = strdup(rules[j].first);
      e->type = rules[j].second;
      e->test_index = static_cast<int*>(Malloc(n * sizeof(int)));
      e->test_count = static_cast<int*>(Malloc(n * sizeof(int)));
      if (e->type == kTypeThreshold || e->type == kTypeLinear)
        e->test_values = static_cast<double*>(Malloc(n * sizeof(double)));
      whs_[j].hyp = e;
    }
    hash_table* t = Index_Weak_Hyp(Weak_Expander(), W, whs_, static_cast<int>(rules.size()));
    Index_New_Test_Instances(ex, n, Weak_Dsi());
    examples_ = ex;
    return t;
  }

  std::string Test(int j) {
    const text_expert_rec* e = whs_[j].hyp;
    return Lists(e->num_test, e->test_index, e->test_count, e->test_values);
  }

  std::string dir_, stem_;
  weak_hyp* whs_ = nullptr;
  example** examples_ = nullptr;
};

TEST_F(SgramShypTest, ThresholdRulesOnOneAttributeShareAKey) {
  Start("a, b.\nage: continuous.\ntitle: text.\n", {"-C", "-N", "sgram"});
  hash_table* table = Index("5, x y, a.\n?, x, b.\n30, y, a.\n", 100, 1,
                            {{"age:", kTypeThreshold}, {"title:x ", kTypeSgram},
                             {"age:", kTypeThreshold}});
  EXPECT_EQ(table->num_entries, 2);
  EXPECT_EQ(Test(0), "100:1@5 102:1@30");
  EXPECT_EQ(Test(2), "100:1@5 102:1@30");
  EXPECT_EQ(Test(1), "100:1 101:1");

  Index_New_Test_Instances(examples_, 0, Weak_Dsi());  // an empty set
  EXPECT_EQ(whs_[0].hyp->num_test, 0);
}

TEST_F(SgramShypTest, RepeatedTermsCountInOneEntry) {
  Start("a, b.\ntext: text.\n", {"-C", "-N", "ngram"});
  Index("a a a a b, a.\nb, b.\nb a, a.\n", 0, 2,
        {{"a", kTypeSgram}, {"a a", kTypeSgram}, {"b a", kTypeSgram}});
  EXPECT_EQ(Test(0), "0:4 2:1");
  EXPECT_EQ(Test(1), "0:3");
  EXPECT_EQ(Test(2), "2:1");
}

TEST_F(SgramShypTest, DiscreteKeysEndInABlankUnderSparseGrams) {
  const char* names = "a, b.\ncolor: red, green, blue.\nt: text.\n";
  const char* examples = "green, x, a.\nblue, x, b.\n?, x, a.\n";
  Start(names, {"-C", "-N", "sgram"});
  Index(examples, 0, 1, {{"color:1 ", kTypeSgram}, {"color:1", kTypeSgram},
                         {"t:x ", kTypeSgram}});
  EXPECT_EQ(Test(0), "0:1");
  EXPECT_EQ(Test(1), "");
  EXPECT_EQ(Test(2), "0:1 1:1 2:1");

  Start(names, {"-C", "-N", "fgram"});
  Index(examples, 0, 1, {{"color:1 ", kTypeSgram}, {"color:2", kTypeSgram}});
  EXPECT_EQ(Test(0), "");
  EXPECT_EQ(Test(1), "1:1");
}

TEST_F(SgramShypTest, ScoredTermsCombineTheirScores) {
  // By default a term's word scores add up and repeats keep the maximum; a
  // scored term also reaches a rule without values, as a plain occurrence.
  Start("a, b.\nw: scoredtext.\n", {"-C", "-N", "ngram"});
  Index("good 2 bad 1 good 3, a.\nbad 4 news 0.5, b.\n", 0, 2,
        {{"good", kTypeThreshold}, {"bad news", kTypeLinear}, {"bad", kTypeSgram}});
  EXPECT_EQ(Test(0), "0:2@3");
  EXPECT_EQ(Test(1), "1:1@4.5");
  EXPECT_EQ(Test(2), "0:1 1:1");

  Start("a, b.\nw: scoredtext.\n", {"-C", "-N", "sgram", "-M", "+", "-F", "max"});
  Index("good 2 bad 1 good 3, a.\nbad 4 x 9 news 0.5, b.\n", 0, 3,
        {{"good ", kTypeThreshold}, {"bad ? news ", kTypeThreshold}});
  EXPECT_EQ(Test(0), "0:2@5");
  EXPECT_EQ(Test(1), "1:1@4");  // the wildcard's score does not count
}

// A continued run reads the model, indexes it against the training and the
// test set, and evaluates its rules from those lists. It runs in a process
// of its own so that the learner starts from a clean state.
TEST_F(SgramShypTest, StoredModelIsIndexedForAContinuedRun) {
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
                        Lists(e->num_train, e->train_index, e->train_count, e->values) +
                        " test " +
                        Lists(e->num_test, e->test_index, e->test_count, e->test_values) +
                        " eval";
      for (int x = 0; x < d->num_train + d->num_test; ++x) {
        example* ex = x < d->num_train ? d->train_examples[x]
                                       : d->test_examples[x - d->num_train];
        out += " " + std::to_string(static_cast<int>(EvalWeakHypothesis(e, ex)[0]));
      }
      fprintf(stderr, "%s\n", out.c_str());
    }
    Exit_Run(0);
  };
  EXPECT_EXIT(run(), ::testing::ExitedWithCode(0),
              ::testing::StrEq("'title:good ' train 0:1 2:2 test 4:1 eval -1 1 -1 1 -1\n"
                               "'age:' train 0:1@5 2:1@30 test 3:1@15 4:1@40"
                               " eval 2 1 3 2 3\n"));
  GTEST_FLAG_SET(death_test_style, "fast");
}

}  // namespace
