// Scoring of term and threshold experts for discrete boosting on hand-built
// weightings. Weights are multiples of 1/64 so every sum below is exact.
#include <cfloat>
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "loss.h"

namespace {

constexpr double kU = 1.0 / 64;
using Vec = std::vector<double>;
using Ints = std::vector<int>;

// Signed weights of five examples and two labels, in 1/64:
//   ex0 {-8, 4}  ex1 {16, -8}  ex2 {-4, 8}  ex3 {8, 8}  ex4 {-16, 0}
// with totals {-4, 12}.
Vec Signed() {
  Vec s = {-8, 4, 16, -8, -4, 8, 8, 8, -16, 0};
  for (double& v : s) v *= kU;
  return s;
}
const Vec kTotals = {-4 * kU, 12 * kU};

TEST(RegionVote, SignDecidesAndZeroOrNanAbstains) {
  const std::pair<double, double> cases[] = {
      {-1e-300, 1.0}, {-INFINITY, 1.0}, {1e-300, 0.0},
      {0.0, 0.5},     {-0.0, 0.5},      {std::nan(""), 0.5}};
  for (auto [sum, vote] : cases) EXPECT_EQ(Region_Vote(sum), vote) << sum;
}

TEST(PLoss, TermExpertVotesAndScores) {
  struct Case {
    Ints list;
    bool abstain;
    double score;
    Vec c1, c0;
  };
  const Case cases[] = {
      // In 0, 2, 3: r1 = {-4, 20}, r0 = {0, -8}; an exact zero sum abstains.
      {{0, 2, 3}, false, -12, {1, 0}, {0.5, 1}},
      // Abstaining on absence counts half of region 0: -4 + 0.5 * (0 - 8).
      {{0, 2, 3}, true, -8, {1, 0}, {0.5, 0.5}},
      // In 4 only: r1 = {-16, 0}, r0 = {12, 12}.
      {{4}, false, -16, {1, 0.5}, {0, 0}},
      // Positive absent-region sums count too: -16 + 0.5 * 12 + 0.5 * 12.
      {{4}, true, -4, {1, 0.5}, {0.5, 0.5}},
      // Occurring nowhere: everything is region 0.
      {{}, false, -4, {0.5, 0.5}, {1, 0}},
  };
  for (const Case& t : cases) {
    Vec s = Signed(), S = kTotals;
    Ints list = t.list;
    text_expert_rec e{};
    e.type = kTypeFgram;
    e.num_train = static_cast<int>(list.size());
    e.train_index = list.data();
    double c0[2], c1[2];
    auto score = t.abstain ? Text_Expert_PLoss_Randomized : Text_Expert_PLoss;
    EXPECT_EQ(score(s.data(), &e, 2, S.data(), c0, c1), t.score * kU);
    EXPECT_EQ(Vec(c1, c1 + 2), t.c1);
    EXPECT_EQ(Vec(c0, c0 + 2), t.c0);
    EXPECT_EQ(s, Signed());
  }
}

TEST(PLossThreshold, SweepTiesAndEqualValues) {
  struct Case {
    Vec s, S;
    Ints index;
    Vec values;
    bool abstain;
    double score, threshold;
    Vec c0, c1, c2;
  };
  // On the five examples: known values sorted ex4 = 1, ex0 = 2, ex2 = 2,
  // ex3 = 5; ex1 is unknown, so r0 = {16, -8}. Split scores (in 1/64) after
  // position p = -1: -28, 0: -28, 1: none (2 == 2; it would be -32), 2: -36,
  // 3: -28. Abstaining adds 0.5 r0 = {8, -4}: -16, -16, -24, -16.
  const Case cases[] = {
      {Signed(), kTotals, {4, 0, 2, 3}, {1, 2, 2, 5}, false, -36 * kU, 3.5,
       {0, 1}, {1, 0}, {0, 0}},
      {Signed(), kTotals, {4, 0, 2, 3}, {1, 2, 2, 5}, true, -24 * kU, 3.5,
       {0.5, 0.5}, {1, 0}, {0, 0}},
      // Every split scores -2/8: the lowest position, -1, wins.
      {{-0.125, 0, -0.125}, {-0.25}, {0, 1, 2}, {1, 2, 3}, false, -0.25,
       -DBL_MAX, {0.5}, {0.5}, {1}},
      // Inner positions 0 and 3 tie at -1/8; the lower one is kept.
      {{-0.125, 0.25, -0.125, 0.25, -0.125}, {0.125}, {0, 1, 2, 3, 4},
       {1, 2, 3, 4, 5}, false, -0.125, 1.5, {0.5}, {1}, {0}},
      // One value everywhere: the split after the first example (-1/8) is
      // not allowed, only the ends are.
      {{-0.125, 0.125}, {0}, {0, 1}, {7, 7}, false, 0, -DBL_MAX, {0.5}, {0.5},
       {0.5}},
      // No known value at all.
      {{-0.25, 0.125}, {-0.125}, {}, {}, false, -0.125, -DBL_MAX, {1}, {0.5},
       {0.5}},
  };
  for (const Case& t : cases) {
    SCOPED_TRACE(t.score);
    const int k = static_cast<int>(t.S.size());
    Vec s = t.s, S = t.S, values = t.values;
    Ints index = t.index;
    text_expert_rec e{};
    e.type = kTypeThreshold;
    e.num_train = static_cast<int>(index.size());
    e.train_index = e.sorted_index = index.data();
    e.sorted_values = values.data();
    double c0[2], c1[2], c2[2];
    auto score = t.abstain ? Text_Expert_PLoss_Threshold_Randomized
                           : Text_Expert_PLoss_Threshold;
    EXPECT_EQ(score(s.data(), &e, k, S.data(), c0, c1, c2), t.score);
    EXPECT_EQ(e.threshold, t.threshold);
    EXPECT_EQ(Vec(c0, c0 + k), t.c0);
    EXPECT_EQ(Vec(c1, c1 + k), t.c1);
    EXPECT_EQ(Vec(c2, c2 + k), t.c2);
  }
}

}  // namespace
