// Tests of the indexing of a stored model: the key table over its rules and
// the occurrence lists it fills from examples, alone and through the model
// reader of a continued run.
#include <gtest/gtest.h>
#include <gmock/gmock.h>

#include <cstdio>
#include <cstdlib>
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
  std::ofstream out(path, std::ios::binary);
  out << text;
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

  void Start(const std::string& names, std::vector<std::string> extra) {
    Spit(stem_ + ".names", names);
    std::vector<std::string> args = {"mhboost", "-S", stem_};
    args.insert(args.end(), extra.begin(), extra.end());
    // The learner keeps pointers into argv.
    char** argv = new char*[args.size() + 1];
    for (size_t i = 0; i < args.size(); ++i) argv[i] = strdup(args[i].c_str());
    argv[args.size()] = nullptr;
    Reset_Scanner(&g_opt);
    InitializeWeakLearner(static_cast<int>(args.size()), argv);
  }

  // Examples numbered from `first`, so that the lists show which number
  // the indexer stores.
  void Examples(const std::string& text, int first) {
    std::string path = dir_ + "/examples";
    Spit(path, text);
    examples_ = Read_DataSet(Weak_Dsi(), path.c_str(), &num_examples_);
    for (int i = 0; i < num_examples_; ++i) examples_[i]->index = first + i;
  }

  // A model of the given rules, with test arrays for the examples.
  void Model(std::vector<std::pair<const char*, int>> rules) {
    num_rules_ = static_cast<int>(rules.size());
    rules_ = Allocate_Weak_Hyp(num_rules_);
    for (int i = 0; i < num_rules_; ++i) {
      auto* e = static_cast<text_expert_rec*>(Malloc(sizeof(text_expert_rec)));
      e->term = strdup(rules[i].first);
      e->type = rules[i].second;
      int cap = num_examples_ > 0 ? num_examples_ : 1;
      e->test_index = static_cast<int*>(Malloc(cap * sizeof(int)));
      e->test_count = static_cast<int*>(Malloc(cap * sizeof(int)));
      if (e->type == kTypeThreshold || e->type == kTypeLinear)
        e->test_values = static_cast<double*>(Malloc(cap * sizeof(double)));
      rules_[i].hyp = e;
      rules_[i].weight = 1;
    }
  }

  hash_table* Index(int W) {
    hash_table* t = Index_Weak_Hyp(Weak_Expander(), W, rules_, num_rules_);
    Index_New_Test_Instances(examples_, num_examples_, Weak_Dsi());
    return t;
  }

  // "index:count" per entry, with "@value" for valued rules.
  std::string Lists(int rule) {
    const text_expert_rec* e = rules_[rule].hyp;
    std::string s;
    for (int i = 0; i < e->num_test; ++i) {
      if (i) s += ' ';
      s += std::to_string(e->test_index[i]) + ":" + std::to_string(e->test_count[i]);
      if (e->test_values != nullptr) {
        char v[32];
        snprintf(v, sizeof v, "@%g", e->test_values[i]);
        s += v;
      }
    }
    return s;
  }

  std::string dir_, stem_;
  example** examples_ = nullptr;
  int num_examples_ = 0;
  weak_hyp* rules_ = nullptr;
  int num_rules_ = 0;
};

TEST_F(SgramShypTest, ThresholdRulesOnOneAttributeShareAKey) {
  Start("a, b.\nage: continuous.\ntitle: text.\n", {"-C", "-N", "sgram"});
  Examples("5, x y, a.\n?, x, b.\n30, y, a.\n", 100);
  Model({{"age:", kTypeThreshold}, {"title:x ", kTypeSgram},
         {"age:", kTypeThreshold}});
  hash_table* table = Index(1);
  EXPECT_EQ(table->num_entries, 2);
  EXPECT_EQ(Lists(0), "100:1@5 102:1@30");
  EXPECT_EQ(Lists(2), "100:1@5 102:1@30");
  EXPECT_EQ(Lists(1), "100:1 101:1");
}

TEST_F(SgramShypTest, RepeatedTermsCountInOneEntry) {
  Start("a, b.\ntext: text.\n", {"-C", "-N", "ngram"});
  Examples("a a a a b, a.\nb, b.\nb a, a.\n", 0);
  Model({{"a", kTypeSgram}, {"a a", kTypeSgram}, {"b a", kTypeSgram}});
  Index(2);
  EXPECT_EQ(Lists(0), "0:4 2:1");
  EXPECT_EQ(Lists(1), "0:3");
  EXPECT_EQ(Lists(2), "2:1");

  // The same under sparse grams, where terms carry a trailing blank and may
  // hold wildcards.
  Start("a, b.\ntext: text.\n", {"-C", "-N", "sgram"});
  Examples("a a a a b, a.\nb c a, b.\n", 0);
  Model({{"a ", kTypeSgram}, {"b ? a ", kTypeSgram}, {"a", kTypeSgram}});
  Index(3);
  EXPECT_EQ(Lists(0), "0:4 1:1");
  EXPECT_EQ(Lists(1), "1:1");
  EXPECT_EQ(Lists(2), "");
}

TEST_F(SgramShypTest, DiscreteKeysEndInABlankUnderSparseGrams) {
  const char* names = "a, b.\ncolor: red, green, blue.\nt: text.\n";
  const char* examples = "green, x, a.\nblue, x, b.\n?, x, a.\n";
  Start(names, {"-C", "-N", "sgram"});
  Examples(examples, 0);
  Model({{"color:1 ", kTypeSgram}, {"color:1", kTypeSgram}, {"t:x ", kTypeSgram}});
  Index(1);
  EXPECT_EQ(Lists(0), "0:1");
  EXPECT_EQ(Lists(1), "");
  EXPECT_EQ(Lists(2), "0:1 1:1 2:1");

  Start(names, {"-C", "-N", "fgram"});
  Examples(examples, 0);
  Model({{"color:1 ", kTypeSgram}, {"color:1", kTypeSgram}, {"color:2", kTypeSgram}});
  Index(1);
  EXPECT_EQ(Lists(0), "");
  EXPECT_EQ(Lists(1), "0:1");
  EXPECT_EQ(Lists(2), "1:1");
}

TEST_F(SgramShypTest, ScoredTermsCombineTheirScores) {
  // Default combination: scores of a term's words added, repeats by maximum.
  Start("a, b.\nw: scoredtext.\n", {"-C", "-N", "ngram"});
  Examples("good 2 bad 1 good 3, a.\nbad 4 news 0.5, b.\n", 0);
  Model({{"good", kTypeThreshold}, {"bad news", kTypeLinear}, {"bad", kTypeSgram}});
  Index(2);
  EXPECT_EQ(Lists(0), "0:2@3");
  EXPECT_EQ(Lists(1), "1:1@4.5");
  EXPECT_EQ(Lists(2), "0:1 1:1");

  Start("a, b.\nw: scoredtext.\n", {"-C", "-N", "sgram", "-M", "+", "-F", "max"});
  Examples("good 2 bad 1 good 3, a.\nbad 4 x 9 news 0.5, b.\n", 0);
  Model({{"good ", kTypeThreshold}, {"bad ? news ", kTypeThreshold}});
  Index(3);
  EXPECT_EQ(Lists(0), "0:2@5");
  EXPECT_EQ(Lists(1), "1:1@4");  // the wildcard's score does not count
}

TEST_F(SgramShypTest, MissingValuesAndEmptySetsLeaveNoEntries) {
  Start("a, b.\nage: continuous.\ntitle: text.\n", {"-C", "-N", "ngram"});
  Examples("?, ?, a.\n", 0);
  Model({{"age:", kTypeThreshold}, {"title:x", kTypeSgram}});
  Index(1);
  EXPECT_EQ(rules_[0].hyp->num_test, 0);
  EXPECT_EQ(rules_[1].hyp->num_test, 0);

  rules_[0].hyp->num_test = 5;
  Index_New_Test_Instances(examples_, 0, Weak_Dsi());
  EXPECT_EQ(rules_[0].hyp->num_test, 0);
}

// A continued run: the stored model is indexed against the training and
// test sets, and the weak learner evaluates its rules from those lists. The
// run starts its own process so that the learner starts from a clean state.
TEST_F(SgramShypTest, StoredModelIsIndexedForAContinuedRun) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const char* mode : {"ngram", "sgram"}) {
    auto run = [&] {
      Spit(stem_ + ".data",
           "5, good news, yes.\n?, bad news, no.\n30, good good, yes.\n");
      Spit(stem_ + ".test", "15, news, no.\n40, good, yes.\n");
      Spit(stem_ + ".shyp",
           "2\n\n 0.5 Text:SGRAM:title:good\n 1 -1\n -1 1\n\n"
           " 0.25 Text:THRESHOLD:age:\n 1 1\n 2 2\n 3 3\n 20\n");
      Start("yes, no.\nage: continuous.\ntitle: text.\n", {"-N", mode});
      int count = 0;
      weak_hyp* whs = ReadStrongHypothesis(&count);
      example_data* d = Weak_Data();
      std::string out;
      for (int i = 0; i < count; ++i) {
        text_expert_rec* e = whs[i].hyp;
        out += std::string(e->term) + " train";
        for (int j = 0; j < e->num_train; ++j) {
          out += " " + std::to_string(e->train_index[j]) + ":" +
                 std::to_string(e->train_count[j]);
          if (e->values) out += "@" + std::to_string(static_cast<int>(e->values[j]));
        }
        out += " test";
        for (int j = 0; j < e->num_test; ++j) {
          out += " " + std::to_string(e->test_index[j]) + ":" +
                 std::to_string(e->test_count[j]);
          if (e->test_values)
            out += "@" + std::to_string(static_cast<int>(e->test_values[j]));
        }
        out += " eval";
        for (int x = 0; x < d->num_train + d->num_test; ++x) {
          example* ex = x < d->num_train ? d->train_examples[x]
                                         : d->test_examples[x - d->num_train];
          out += " " + std::to_string(static_cast<int>(EvalWeakHypothesis(e, ex)[0]));
        }
        out += "\n";
      }
      fputs(out.c_str(), stderr);
      Exit_Run(0);
    };
    std::string blank = std::string(mode) == "sgram" ? " " : "";
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0),
                ::testing::StrEq("title:good" + blank +
                                 " train 0:1 2:2 test 4:1 eval -1 1 -1 1 -1\n"
                                 "age: train 0:1@5 2:1@30 test 3:1@15 4:1@40"
                                 " eval 2 1 3 2 3\n"))
        << mode;
  }
  GTEST_FLAG_SET(death_test_style, "fast");
}

}  // namespace
