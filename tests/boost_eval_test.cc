// The booster's shortcuts against the plain computations they replace: a
// hypothesis evaluated on a whole set in one walk of its occurrence list
// against one EvalWeakHypothesis call per example; the error of a single
// top score against the full strong prediction; and the weights and score
// sums kept once per group of alike examples against one update per
// (example, label) pair, replayed here from the hypotheses that were chosen.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "temp_dir.h"
#include "boost.h"
#include "optscan.h"
#include "weak_learn.h"

namespace {

class BoostEvalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = tmp_.path();
    stem_ = dir_ + "/task";
  }

  // Three classes, a text and a continuous attribute. Repeated texts and
  // values make examples that every hypothesis treats alike.
  void Write() {
    std::ofstream(stem_ + ".names") << "a, b, c.\ntext: text.\nv: continuous.\n";
    std::ofstream(stem_ + ".data")
        << "red apple pie, 1.5, a.\nred apple pie, 1.5, a.\nred apple pie, 1.5, b.\n"
           "green pear, 2, b.\ngreen pear, ?, b.\nblue sky red, 3, c.\n"
           "blue sky, 3, c.\nred sky, 0.5, a c.\nred apple, 2.5, a.\n"
           "pear pie, 2, b.\ngreen apple, 1, a b.\nblue pear, ?, c.\n";
    std::ofstream(stem_ + ".test")
        << "red pie, 1.5, a.\nblue sky, 3, c.\ngreen pear, 2, b.\n"
           "pear, ?, b.\nred sky, 3, c.\n";
  }

  // Parses the options of both parsers and reads the task.
  void Start(std::vector<std::string> args) {
    Write();
    args.insert(args.begin(), {"mhboost", "-S", stem_});
    char** argv = new char*[args.size() + 1];
    for (size_t i = 0; i < args.size(); ++i) argv[i] = strdup(args[i].c_str());
    argv[args.size()] = nullptr;
    const int argc = static_cast<int>(args.size());
    parse_options(argc, argv);
    data = InitializeWeakLearner(argc, argv);
  }

  Temp_Dir tmp_{"boost_eval_test"};
  std::string dir_, stem_;
};

bool SameBits(double a, double b) { return memcmp(&a, &b, sizeof a) == 0; }
double AddKeepingNan(double total, double x) { return total != total ? total : total + x; }

// A hand-made hypothesis over the loaded examples.
struct Rule {
  text_expert_rec rec{};
  std::vector<int> train, test;
  std::vector<double> train_values, test_values, vec[3], a, b;
  std::string term;

  Rule(int type, int k, const char* key) : term(key) {
    rec.term = term.data();
    rec.type = type;
    for (int r = 0; r < 3; ++r) {
      vec[r].assign(k, 0.25 * (r + 1));
      vec[r][0] = -r;
    }
    rec.c0 = vec[0].data();
    rec.c1 = vec[1].data();
    rec.c2 = vec[2].data();
    for (int l = 0; l < k; ++l) {
      a.push_back(l - 0.5);
      b.push_back(0.125 * l);
    }
    rec.linear_a = a.data();
    rec.linear_b = b.data();
  }
  void Lists(std::vector<int> tr, std::vector<int> te, bool valued) {
    train = tr;
    test = te;
    rec.num_train = static_cast<int>(train.size());
    rec.train_index = train.data();
    rec.num_test = static_cast<int>(test.size());
    rec.test_index = test.data();
    if (!valued) return;
    // Values around the threshold 2, one exactly on it, one not a number.
    const double vs[] = {1.0, 2.0, std::nan(""), 3.5, 1.999, 2.0, 0.0};
    for (size_t p = 0; p < train.size(); ++p) train_values.push_back(vs[p % 7]);
    for (size_t p = 0; p < test.size(); ++p) test_values.push_back(vs[(p + 3) % 7]);
    rec.values = train_values.data();
    rec.test_values = test_values.data();
    rec.threshold = 2.0;
  }
};

TEST_F(BoostEvalTest, BlockEvaluationAnswersAsOneExampleAtATime) {
  Start({"-n", "1"});
  const int m = data->num_train, n = data->num_test, k = data->num_classes;
  ASSERT_EQ(m, 12);
  struct Case {
    int type;
    const char* key;
    std::vector<int> train, test;
    bool valued;
  };
  // Lists hold example indices (test examples from m); one repeats an
  // entry, as only the first entry of an index may answer.
  const std::vector<Case> cases = {
      {kTypeFgram, "red ", {0, 1, 2, 5, 7, 8}, {12, 16}, false},
      {kTypeFgram, "pear ", {}, {}, false},
      {kTypeFgram, "sky ", {5, 6, 6, 7}, {13, 16}, false},
      {kTypeFgram, "red ", {0, 1, 2, 3, 5, 7, 8}, {12, 13, 16}, true},  // valued term
      {kTypeThreshold, "v:", {0, 1, 2, 3, 5, 6, 7, 8, 9, 10}, {12, 13, 14, 16}, true},
      {kTypeLinear, "v:", {0, 2, 3, 5, 6, 7, 8, 9, 11}, {12, 14, 15, 16}, true},
  };
  for (size_t c = 0; c < cases.size(); ++c) {
    for (int set = 0; set < 2; ++set) {
      Rule rule(cases[c].type, k, cases[c].key);
      rule.Lists(cases[c].train, cases[c].test, cases[c].valued);
      example** xs = set == 0 ? data->train_examples : data->test_examples;
      const int count = set == 0 ? m : n;
      std::vector<double> store(static_cast<size_t>(count) * k, -7.0);
      std::vector<const double*> got(count);
      Eval_Weak_Hypothesis_Block(&rule.rec, xs, count, set == 0 ? 0 : m, store.data(),
                                 got.data());
      const std::vector<double> c1_after_block = rule.vec[1];
      rule.vec[1].assign(k, 0.25 * 2);
      rule.vec[1][0] = -1;
      for (int i = 0; i < count; ++i) {
        const double* want = EvalWeakHypothesis(&rule.rec, xs[i]);
        if (cases[c].type != kTypeLinear) {
          EXPECT_EQ(got[i], want) << "case " << c << " set " << set << " example " << i;
          continue;
        }
        if (want != rule.rec.c1) {
          EXPECT_EQ(got[i], want) << "case " << c << " set " << set << " example " << i;
          continue;
        }
        EXPECT_EQ(got[i], store.data() + static_cast<size_t>(i) * k);
        for (int l = 0; l < k; ++l)
          EXPECT_TRUE(SameBits(got[i][l], want[l])) << "case " << c << " example " << i;
      }
      // A LINEAR hypothesis's c1 holds the last answer either way.
      if (cases[c].type == kTypeLinear) {
        for (int l = 0; l < k; ++l) EXPECT_TRUE(SameBits(c1_after_block[l], rule.vec[1][l]));
      }
    }
  }
}

// The shortcut for a single top score against the error taken from the full
// prediction vector, and the rejection count from the margin.
TEST_F(BoostEvalTest, ErrorOfATopScoreMatchesTheFullPrediction) {
  Start({"-n", "1"});
  num_weak_hyps = 2;  // the margins' normaliser, before any round
  const double nan = std::nan("");
  const double inf = std::numeric_limits<double>::infinity();
  const std::vector<std::vector<double>> rows = {
      {2, 2, 1},   {1, 3, 2},      {3, 1, 3},        {0.0, -0.0, -1}, {nan, 1, 2},
      {1, nan, 2}, {-20000, -20000, -30000}, {-20000, -15000, -30000}, {inf, inf, 0},
      {-inf, -inf, -inf}, {5, 4, 5},  {-1, -1, -2},
  };
  const std::vector<std::vector<unsigned char>> labels = {{1, 0, 0}, {0, 1, 1}, {0, 0, 0}};
  for (int soft = 0; soft < 2; ++soft) {
    soft_threshold = soft;
    for (double threshold : {0.0, 0.3}) {
      reject_threshold = threshold;
      for (const auto& y : labels) {
        std::vector<double*> sums;
        std::vector<unsigned char*> ys;
        std::vector<std::vector<double>> copies = rows;
        std::vector<std::vector<unsigned char>> lcopies(rows.size(), y);
        for (size_t i = 0; i < rows.size(); ++i) {
          sums.push_back(copies[i].data());
          ys.push_back(lcopies[i].data());
        }
        double err, rej_err, rej_frac;
        eval_error(static_cast<int>(rows.size()), nullptr, ys.data(), sums.data(), &err,
                   &rej_err, &rej_frac);
        double want = 0.0, want_rej = 0.0;
        int rejected = 0;
        for (size_t i = 0; i < rows.size(); ++i) {
          double margin;
          const double* result = eval_strong_hyp(sums[i], &margin);
          // Running totals keep the NaN they first meet.
          double wrong = 0.0;
          for (int l = 0; l < 3; ++l)
            if (!y[l]) wrong = AddKeepingNan(wrong, result[l]);
          want = AddKeepingNan(want, wrong);
          if (reject_threshold > margin)
            rejected++;
          else
            want_rej = AddKeepingNan(want_rej, wrong);
        }
        const int n = static_cast<int>(rows.size());
        EXPECT_TRUE(SameBits(err, want / n)) << soft << " " << err << " " << want / n;
        EXPECT_TRUE(SameBits(rej_err, want_rej / (n - rejected))) << soft << " " << threshold;
        EXPECT_TRUE(SameBits(rej_frac, static_cast<double>(rejected) / n));
      }
    }
  }
  soft_threshold = 0;
  reject_threshold = 0.0;
}

// The vector scan of a row's top scores against the sequential one, on rows
// drawn from a few values so that ties, equal values, zeros of both signs,
// infinities, NaNs and scores around and below the -10000 floor are common,
// for row lengths around the four- and eight-lane blocks.
TEST(TopScanTest, VectorScanGivesTheSequentialErrorAndMargin) {
  if (Limit_Top_Scan_Width(8) == 0) GTEST_SKIP() << "no vector scan on this processor";
  const double nan = std::nan(""), inf = std::numeric_limits<double>::infinity();
  const double pool[] = {-20000, -10000, -10000.5, -9999, -1, -0.0, 0.0, 0.5, 1, 2, inf, -inf};
  example_data fake{};
  example_data* saved = data;
  data = &fake;
  num_weak_hyps = 3;
  std::mt19937 rng(7);
  for (int k : {1, 2, 3, 7, 8, 9, 15, 16, 17, 52, 70}) {
    fake.num_classes = k;
    for (int trial = 0; trial < 3000; ++trial) {
      std::vector<double> row(k);
      std::vector<unsigned char> y(k);
      // Few distinct values in some rows (many ties), many in others.
      const int spread = 1 + trial % 12;
      for (int l = 0; l < k; ++l) {
        row[l] = pool[rng() % spread];
        y[l] = rng() % 3 == 0;
      }
      if (trial % 4 == 1) row[rng() % k] = 3.0 + trial;  // one clear top anywhere
      if (trial % 4 == 2) row[0] = 1e6;                   // the top first
      if (trial % 97 == 0) row[rng() % k] = nan;
      // Every width the processor has (8, 4) against the scalar loop (0).
      const int widths[] = {0, 4, 8};
      double wrong[3], margin[3];
      for (int w = 0; w < 3; ++w) {
        Limit_Top_Scan_Width(widths[w]);
        Example_Error(row.data(), y.data(), &wrong[w], &margin[w]);
      }
      std::string text;
      for (double v : row) text += std::to_string(v) + " ";
      for (int w = 1; w < 3; ++w) {
        EXPECT_TRUE(SameBits(wrong[0], wrong[w])) << "k " << k << " width " << widths[w] << ": " << text;
        EXPECT_TRUE(SameBits(margin[0], margin[w])) << "k " << k << " width " << widths[w] << ": " << text;
      }
    }
  }
  Limit_Top_Scan_Width(8);
  data = saved;
}

// Replays the chosen hypotheses one (example, label) pair at a time: the
// final weights of real AdaBoost.MH and every example's score sums must be
// the booster's to the bit.
void ExpectReplayMatches(bool check_weights) {
  const int m = data->num_train, k = data->num_classes;
  const size_t mk = static_cast<size_t>(m) * k;
  std::vector<double> ld(mk, log(1.0 / (static_cast<double>(m) * k))), d(mk);
  std::vector<double> sums(mk, 0.0);
  int first_nonzero = -1;
  for (int t = 0; t < num_weak_hyps; ++t) {
    if (weak_hyp[t].weight != 0.0 && first_nonzero < 0) first_nonzero = t;
    std::vector<double> p(mk);
    for (int i = 0; i < m; ++i) {
      const double* row = EvalWeakHypothesis(weak_hyp[t].hyp, data->train_examples[i]);
      std::copy(row, row + k, p.begin() + static_cast<size_t>(i) * k);
    }
    double z = 0.0;
    for (size_t j = 0; j < mk; ++j) {
      const bool y = data->train_labels[j / k][j % k];
      ld[j] += y ? -p[j] : p[j];
      d[j] = exp(ld[j]);
      z += d[j];
    }
    for (size_t j = 0; j < mk; ++j) {
      ld[j] -= log(z);
      d[j] *= 1.0 / z;
    }
    for (size_t j = 0; j < mk; ++j) {
      if (t == first_nonzero) sums[j] = 0.0;
      sums[j] += first_nonzero < 0 ? p[j] : weak_hyp[t].weight * p[j];
    }
  }
  double** got = Train_Sums();
  for (size_t j = 0; j < mk; ++j) {
    EXPECT_TRUE(SameBits(got[j / k][j % k], sums[j])) << "sum " << j;
    if (check_weights) {
      EXPECT_TRUE(SameBits(Distribution()[j], d[j])) << "weight " << j;
    }
  }
}

TEST_F(BoostEvalTest, GroupedRoundsMatchAPairByPairReplay) {
  const std::vector<std::vector<std::string>> runs = {
      {"-n", "8", "-f", "0", "-N", "ngram", "-W", "2"},
      {"-n", "6", "-f", "0", "-L"},  // linear rules answer per example
      {"-n", "6", "-f", "0", "-R"},
      {"-n", "6", "-f", "0", "-z"},
  };
  for (const auto& args : runs) {
    Start(args);
    testing::internal::CaptureStdout();
    boost();
    testing::internal::GetCapturedStdout();
    // Every round ran (a discrete round without error would stop early).
    ASSERT_EQ(num_weak_hyps, atoi(args[1].c_str()));
    ExpectReplayMatches(loss_mode == 3);
  }
}

}  // namespace
