// Tests of the strong hypothesis file: the exact layout, the merging of
// repeated rules, round trips under each term enumerator, every refusal, and
// reads of every truncation of a valid model.
#include <gtest/gtest.h>
#include <gmock/gmock.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
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

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void Spit(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
}

// A scratch stem with a names file; the weak learner is started on it in
// classification mode (no experts are built, only the names are needed).
class ShypFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/shyp_file_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    stem_ = dir_ + "/task";
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // Starts the learner on a task of k classes and one text attribute.
  void Start(int k, const char* mode = "sgram") {
    std::string names;
    for (int l = 0; l < k; ++l) names += (l ? ", c" : "c") + std::to_string(l);
    names += ".\ntext: text.\n";
    Spit(stem_ + ".names", names);
    std::vector<std::string> args = {"mhboost", "-S", stem_, "-N", mode, "-C"};
    // The stem is kept by the learner, so the strings must outlive the call.
    char** argv = new char*[args.size() + 1];
    for (size_t i = 0; i < args.size(); ++i) argv[i] = strdup(args[i].c_str());
    argv[args.size()] = nullptr;
    Reset_Scanner(&g_opt);
    InitializeWeakLearner(static_cast<int>(args.size()), argv);
    k_ = k;
  }

  double* Vec(std::initializer_list<double> v) {
    auto* p = static_cast<double*>(Malloc(sizeof(double) * k_));
    int l = 0;
    for (double x : v) p[l++] = x;
    return p;
  }

  text_expert_rec* Rule(const char* term, int type) {
    auto* e = static_cast<text_expert_rec*>(Malloc(sizeof(text_expert_rec)));
    e->term = strdup(term);
    e->type = type;
    return e;
  }

  std::string Written(weak_hyp* whs, int count) {
    std::string path = dir_ + "/out";
    FILE* f = fopen(path.c_str(), "w");
    Write_Strong_Hypothesis_To(f, whs, count);
    fclose(f);
    return Slurp(path);
  }

  std::string Model() const { return stem_ + ".shyp"; }

  std::string dir_, stem_;
  int k_ = 0;
};

TEST_F(ShypFileTest, LayoutWrapsVectorsSixToALine) {
  const char* header = "   0.500000000000000 Text:SGRAM:good#news\n\n";
  struct Case {
    int k;
    const char* vector;  // c0 and c1 are written alike
  } cases[] = {
      {5, "0.1000000000 0.1000000000 0.1000000000 0.1000000000 0.1000000000 \n\n"},
      {6, "0.1000000000 0.1000000000 0.1000000000 0.1000000000 0.1000000000 "
          "0.1000000000 \n\n"},
      {7, "0.1000000000 0.1000000000 0.1000000000 0.1000000000 0.1000000000 "
          "0.1000000000 \n0.1000000000 \n\n"},
  };
  for (const Case& c : cases) {
    Start(c.k);
    weak_hyp wh{Rule("good news ", kTypeFgram), 0.5, nullptr};
    wh.hyp->c0 = Vec({});
    wh.hyp->c1 = Vec({});
    for (int l = 0; l < c.k; ++l) wh.hyp->c0[l] = wh.hyp->c1[l] = 0.1;
    EXPECT_EQ(Written(&wh, 1),
              std::string("1\n\n") + header + c.vector + c.vector + "\n")
        << c.k << " classes";
  }
}

TEST_F(ShypFileTest, LayoutOfThresholdAndLinearRules) {
  Start(2);
  weak_hyp whs[2] = {{Rule("age:", kTypeThreshold), 1.25, nullptr},
                     {Rule("len:", kTypeLinear), -0.5, nullptr}};
  whs[0].hyp->c0 = Vec({1, -1});
  whs[0].hyp->c1 = Vec({0.25, 0});
  whs[0].hyp->c2 = Vec({-2, 3});
  whs[0].hyp->threshold = 17.5;
  whs[1].hyp->c0 = Vec({0.5, 0.5});
  whs[1].hyp->linear_a = Vec({1, 2});
  whs[1].hyp->linear_b = Vec({-3, -4});
  EXPECT_EQ(Written(whs, 2),
            "2\n\n"
            "   1.250000000000000 Text:THRESHOLD:age:\n\n"
            "1.0000000000 -1.0000000000 \n\n"
            "0.2500000000 0.0000000000 \n\n"
            "-2.0000000000 3.0000000000 \n\n"
            "17.5000000000\n\n"
            "\n"
            "  -0.500000000000000 Text:LINEAR:len:\n\n"
            "0.5000000000 0.5000000000 \n\n"
            "1.0000000000 2.0000000000 \n\n"
            "-3.0000000000 -4.0000000000 \n\n"
            "\n");
}

TEST_F(ShypFileTest, WritingMergesRepeatedRules) {
  Start(2);
  weak_hyp whs[2] = {{Rule("x ", kTypeSgram), 0.5, nullptr},
                     {Rule("x ", kTypeSgram), 0.25, nullptr}};
  whs[0].hyp->c0 = Vec({1, -1});
  whs[0].hyp->c1 = Vec({1, -1});
  whs[1].hyp->c0 = Vec({-1, 1});
  whs[1].hyp->c1 = Vec({-1, 1});
  int count = 2;
  WriteStrongHypothesis(whs, &count, 0);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(Slurp(Model()),
            "1\n\n   0.750000000000000 Text:SGRAM:x\n\n"
            "0.3333333333 -0.3333333333 \n\n"
            "0.3333333333 -0.3333333333 \n\n\n");
  // The temporary file is gone once the model is in place.
  int files = 0;
  for (auto& f : std::filesystem::directory_iterator(dir_)) files += !f.is_directory();
  EXPECT_EQ(files, 2);
}

TEST_F(ShypFileTest, CompileMergesOnlyMatchingRules) {
  Start(1);
  weak_hyp whs[7] = {
      {Rule("a:", kTypeThreshold), 1, nullptr},  // 0
      {Rule("t ", kTypeFgram), 1, nullptr},      // 1: merges 3 whatever the thresholds
      {Rule("a:", kTypeThreshold), 1, nullptr},  // 2: other threshold, kept
      {Rule("t ", kTypeFgram), 3, nullptr},      // 3
      {Rule("l:", kTypeLinear), 1, nullptr},     // 4: never a target
      {Rule("l:", kTypeLinear), 1, nullptr},     // 5
      {Rule("a:", kTypeThreshold), 1, nullptr},  // 6: same threshold as 0
  };
  double thresholds[7] = {1.5, 0, 2.5, 9, 0, 0, 1.5};
  double c1s[7] = {2, 4, 8, 8, 1, 1, 4};
  for (int i = 0; i < 7; ++i) {
    whs[i].hyp->threshold = thresholds[i];
    whs[i].hyp->c0 = Vec({0});
    whs[i].hyp->c1 = Vec({c1s[i]});
    whs[i].hyp->c2 = Vec({0});
  }
  text_expert_rec* kept[5] = {whs[0].hyp, whs[1].hyp, whs[2].hyp, whs[4].hyp,
                              whs[5].hyp};
  int count = 7;
  CompileStrongTextHypothesis(whs, &count);
  ASSERT_EQ(count, 5);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(whs[i].hyp, kept[i]) << i;
  EXPECT_DOUBLE_EQ(whs[0].weight, 2);
  EXPECT_DOUBLE_EQ(whs[0].hyp->c1[0], 3);  // (2 + 4) / 2
  EXPECT_DOUBLE_EQ(whs[1].weight, 4);
  EXPECT_DOUBLE_EQ(whs[1].hyp->c1[0], 7);  // (4 + 3 * 8) / 4
  EXPECT_DOUBLE_EQ(whs[2].hyp->c1[0], 8);
  EXPECT_DOUBLE_EQ(whs[3].weight, 1);
  EXPECT_DOUBLE_EQ(whs[4].weight, 1);
}

TEST_F(ShypFileTest, RoundTripUnderEachEnumerator) {
  struct Case {
    const char* mode;
    const char* term;      // term as read back from 'a#b'
    const char* scored;    // threshold rule on a scored term 'w:x#y'
  } cases[] = {{"sgram", "a b ", "w:x y "},
               {"ngram", "a b", "w:x y"},
               {"fgram", "a b", "w:x y"}};
  for (const Case& c : cases) {
    Start(3, c.mode);
    weak_hyp whs[4] = {{Rule("a b ", kTypeNgram), 0.125, nullptr},
                       {Rule("age:", kTypeThreshold), -2.5, nullptr},
                       {Rule("w:x y ", kTypeThreshold), 1, nullptr},
                       {Rule("len:", kTypeLinear), 0.75, nullptr}};
    for (auto& wh : whs) {
      wh.hyp->c0 = Vec({0.1, -0.2, 0.3});
      wh.hyp->c1 = Vec({-1.5, 2.5, 0});
      wh.hyp->c2 = Vec({4, 5, -6});
    }
    whs[1].hyp->threshold = 42.125;
    whs[2].hyp->threshold = -0.5;
    whs[3].hyp->linear_a = Vec({1, 2, 3});
    whs[3].hyp->linear_b = Vec({-1, -2, -3});
    int count = 4;
    WriteStrongHypothesis(whs, &count, 0);

    int read_count = -1;
    weak_hyp* got = ReadStrongHypothesis(&read_count);
    ASSERT_EQ(read_count, 4) << c.mode;
    const char* terms[4] = {c.term, "age:", c.scored, "len:"};
    int types[4] = {kTypeSgram, kTypeThreshold, kTypeThreshold, kTypeLinear};
    for (int i = 0; i < 4; ++i) {
      text_expert_rec* e = got[i].hyp;
      SCOPED_TRACE(std::string(c.mode) + " rule " + std::to_string(i));
      EXPECT_STREQ(e->term, terms[i]);
      EXPECT_EQ(e->type, types[i]);
      EXPECT_EQ(got[i].label_map, nullptr);
      EXPECT_DOUBLE_EQ(got[i].weight, whs[i].weight);
      EXPECT_NEAR(e->c0[0], 0.1, 1e-10);
      EXPECT_NEAR(e->c0[2], 0.3, 1e-10);
      // Only the vectors a rule owns are read; the rest stay zero.
      EXPECT_EQ(e->c1[1], i == 3 ? 0.0 : 2.5);
      EXPECT_EQ(e->c2[2], i == 1 || i == 2 ? -6.0 : 0.0);
    }
    EXPECT_EQ(got[1].hyp->threshold, 42.125);
    EXPECT_EQ(got[2].hyp->threshold, -0.5);
    EXPECT_EQ(got[3].hyp->linear_a[2], 3);
    EXPECT_EQ(got[3].hyp->linear_b[1], -2);
    EXPECT_EQ(got[3].hyp->linear_a[0], 1);
  }
}

TEST_F(ShypFileTest, EmptyModels) {
  Start(2);
  int count = -1;
  EXPECT_EQ(ReadStrongHypothesis(&count), nullptr);  // no file at all
  EXPECT_EQ(count, 0);
  count = 0;
  WriteStrongHypothesis(nullptr, &count, 0);
  EXPECT_EQ(Slurp(Model()), "0\n\n");
  count = -1;
  EXPECT_NE(ReadStrongHypothesis(&count), nullptr);
  EXPECT_EQ(count, 0);
}

TEST_F(ShypFileTest, ReadingMergesDuplicatesOfTheFile) {
  Start(1);
  Spit(Model(),
       "2\n 0.5 Text:NGRAM:a#b 1 1\n 0.5 Text:FGRAM:a#b 3 3\n");
  int count = 0;
  weak_hyp* got = ReadStrongHypothesis(&count);
  ASSERT_EQ(count, 1);
  EXPECT_DOUBLE_EQ(got[0].weight, 1);
  EXPECT_DOUBLE_EQ(got[0].hyp->c0[0], 2);
}

TEST_F(ShypFileTest, UnwritableModelIsReported) {
  Start(1);
  std::filesystem::create_directory(Model());  // the target cannot be replaced
  int count = 0;
  EXPECT_EXIT(WriteStrongHypothesis(nullptr, &count, 0),
              ::testing::ExitedWithCode(1),
              ::testing::HasSubstr(Model() + ": cannot write the model file"));
  EXPECT_TRUE(std::filesystem::is_directory(Model()));
  count = 0;
  EXPECT_EXIT(
      {
        std::filesystem::remove_all(dir_);
        WriteStrongHypothesis(nullptr, &count, 0);
      },
      ::testing::ExitedWithCode(1), ::testing::StartsWith(Model() + ": "));
}

TEST_F(ShypFileTest, RefusalsOfTheReader) {
  Start(2);
  struct Case {
    const char* file;
    const char* message;
  } cases[] = {
      {"2\n 1 Text:SGRAM:a 1 2 3 4\n", "Strong Hypothesis file too short\n"},
      {"1\n 1 Text:SGRAM 1 2 3 4\n", "Illegal Weak Hypotheiss format (Text:SGRAM)\n"},
      {"1\n 1 Text:ORW:a 1 2\n", "Unknown/Unsupported type (ORW)\n"},
      {"1\n 1 Text:ANDW:a 1 2\n", "Unknown/Unsupported type (ANDW)\n"},
      {"1\n 1 Text::a 1 2\n", "Unknown/Unsupported type ()\n"},
      {"", "model file is truncated (the file is empty: no number of hypotheses)\n"},
      {"-1\n", "model file is malformed (negative number of hypotheses: -1)\n"},
      {"x\n", "model file is malformed (the number of hypotheses is not an integer: 'x')\n"},
      {"99999999999\n", "is larger than the file can hold)\n"},
      {"900\n 1 Text:SGRAM:a 1 2 3 4\n", "is larger than the file can hold)\n"},
      {"1\n 1 Text:SGRAM:a 1 2 3\n", "(the file ends before value 2 of 2 of vector c1 of rule 'Text:SGRAM:a')\n"},
      {"1\n 1 Text:SGRAM:a 1 2 3 z\n", "(value 2 of 2 of vector c1 of rule 'Text:SGRAM:a' is not a number: 'z')\n"},
      {"1\n 1 Text:THRESHOLD:a: 1 2 3 4 5 6\n", "(the file ends before the threshold of rule 'Text:THRESHOLD:a:')\n"},
      {"1\n 1 Text:LINEAR:a: 1 2 3 4 5\n", "(the file ends before value 2 of 2 of linear_b of rule 'Text:LINEAR:a:')\n"},
      {"1\n 1\n", "(a weight is not followed by its rule)\n"},
      {"1\n w Text:SGRAM:a 1 2 3 4\n", "(the weight of hypothesis 1 is not a number: 'w')\n"},
  };
  for (const Case& c : cases) {
    Spit(Model(), c.file);
    int count = 0;
    EXPECT_EXIT(ReadStrongHypothesis(&count), ::testing::ExitedWithCode(1),
                ::testing::EndsWith(c.message))
        << c.file;
  }
  // The message names the file and the line.
  Spit(Model(), "1\n\n 1 Text:SGRAM:a\n 1 2\n 3");
  int count = 0;
  EXPECT_EXIT(ReadStrongHypothesis(&count), ::testing::ExitedWithCode(1),
              ::testing::StrEq("mhboost: " + Model() +
                               ":5: model file is truncated (the file ends "
                               "inside value 1 of 2 of vector c1 of rule "
                               "'Text:SGRAM:a': '3')\n"));
}

TEST_F(ShypFileTest, OverlongHeaderIsRefusedWithoutOverflow) {
  Start(1);
  std::string term(5000, 'w');
  Spit(Model(), "1\n 1 Text:SGRAM:" + term + " 1 2\n");
  int count = 0;
  EXPECT_EXIT(ReadStrongHypothesis(&count), ::testing::ExitedWithCode(1),
              ::testing::HasSubstr("model file is malformed (rule header "
                                   "longer than 1023 characters"));
  // 1023 characters are still accepted.
  Spit(Model(), "1\n 1 Text:SGRAM:" + std::string(1023 - 11, 'w') + " 1 2\n");
  weak_hyp* got = ReadStrongHypothesis(&count);
  ASSERT_EQ(count, 1);
  EXPECT_EQ(strlen(got[0].hyp->term), 1023u - 11 + 1);  // sparse: one blank added
}

TEST_F(ShypFileTest, EveryTruncationIsReadOrReported) {
  Start(2);
  weak_hyp whs[3] = {{Rule("a b ", kTypeFgram), 0.5, nullptr},
                     {Rule("age:", kTypeThreshold), 0.25, nullptr},
                     {Rule("len:", kTypeLinear), 0.125, nullptr}};
  for (auto& wh : whs) {
    wh.hyp->c0 = Vec({0.5, -0.5});
    wh.hyp->c1 = Vec({1.5, -1.5});
    wh.hyp->c2 = Vec({2.5, -2.5});
  }
  whs[1].hyp->threshold = 3;
  whs[2].hyp->linear_a = Vec({7, 8});
  whs[2].hyp->linear_b = Vec({9, 10});
  int count = 3;
  WriteStrongHypothesis(whs, &count, 0);
  const std::string full = Slurp(Model());
  const size_t last = full.find_last_not_of(" \n") + 1;

  const char* reported =
      "(mhboost: .*: model file is (truncated|malformed) \\(.*\\)|"
      "Strong Hypothesis file too short)\n";
  for (size_t len = 0; len < full.size(); ++len) {
    Spit(Model(), full.substr(0, len));
    if (len > last) {
      // Only blank lines are missing: the model reads whole.
      int n = 0;
      weak_hyp* got = ReadStrongHypothesis(&n);
      ASSERT_EQ(n, 3) << len;
      EXPECT_EQ(got[2].hyp->linear_b[1], 10) << len;
      continue;
    }
    EXPECT_EXIT(
        {
          int n = 0;
          ReadStrongHypothesis(&n);
        },
        ::testing::ExitedWithCode(1), ::testing::MatchesRegex(reported))
        << "cut after " << len << " bytes";
  }
}

}  // namespace
