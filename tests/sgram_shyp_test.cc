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
    stem_ = std::string(tmpl) + "/task";
  }
  void TearDown() override { std::filesystem::remove_all(std::filesystem::path(stem_).parent_path()); }

  void Start(const std::string& names, std::vector<std::string> args) {
    Spit(stem_ + ".names", names);
    args.insert(args.begin(), {"mhboost", "-S", stem_});
    char** argv = new char*[args.size()];  // the learner keeps the stem
    for (size_t i = 0; i < args.size(); ++i) argv[i] = strdup(args[i].c_str());
    Reset_Scanner(&g_opt);
    InitializeWeakLearner(static_cast<int>(args.size()), argv);
  }

  std::string stem_;
};

struct IndexCase {
  const char* names;
  std::vector<std::string> options;
  const char* examples;
  int W;
  std::vector<std::pair<const char*, int>> rules;
  std::vector<std::string> want;  // test lists of each rule
};

// Examples are numbered from 100 so that the lists show which number is kept.
TEST_F(SgramShypTest, RulesFindTheirOccurrences) {
  const char* colour = "a, b.\ncolor: red, green, blue.\nt: text.\n";
  const char* colours = "green, x, a.\nblue, x, b.\n?, x, a.\n";
  const IndexCase cases[] = {
      // Two thresholds on one attribute share one key.
      {"a, b.\nage: continuous.\ntitle: text.\n", {"-N", "sgram"}, "5, x y, a.\n?, x, b.\n30, y, a.\n", 1,
       {{"age:", kTypeThreshold}, {"title:x ", kTypeSgram}, {"age:", kTypeThreshold}},
       {"100:1@5 102:1@30", "100:1 101:1", "100:1@5 102:1@30"}},
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
    hash_table* table = Index_Weak_Hyp(Weak_Expander(), c.W, whs, count);
    if (&c == cases) {
      EXPECT_EQ(table->num_entries, 2);
    }
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
