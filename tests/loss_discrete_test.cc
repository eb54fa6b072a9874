// Scoring of term and threshold experts for discrete boosting: votes, scores
// and chosen thresholds on small hand-built weightings. Weights are multiples
// of 1/64 so every sum below is exact.
#include <cfloat>
#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "loss.h"

namespace {

constexpr double kU = 1.0 / 64;

// Signed weights s(i,l) of five examples and two labels, and their totals.
//   ex0 {-8, 4}  ex1 {16, -8}  ex2 {-4, 8}  ex3 {8, 8}  ex4 {-16, 0}
//   S = {-4, 12}
std::vector<double> Signed() {
  return {-8 * kU, 4 * kU, 16 * kU, -8 * kU, -4 * kU, 8 * kU,
          8 * kU,  8 * kU, -16 * kU, 0.0};
}
std::vector<double> Totals() { return {-4 * kU, 12 * kU}; }

using Vec = std::vector<double>;
Vec Votes(const double* c, int k) { return Vec(c, c + k); }

text_expert_rec TermExpert(std::vector<int>& list) {
  text_expert_rec e{};
  e.type = kTypeFgram;
  e.num_train = static_cast<int>(list.size());
  e.train_index = list.data();
  return e;
}

text_expert_rec ThresholdExpert(std::vector<int>& index,
                                std::vector<double>& values) {
  text_expert_rec e{};
  e.type = kTypeThreshold;
  e.num_train = static_cast<int>(index.size());
  e.train_index = index.data();  // not read by the sweep
  e.sorted_index = index.data();
  e.sorted_values = values.data();
  return e;
}

TEST(RegionVote, SignDecidesAndZeroOrNanAbstains) {
  EXPECT_EQ(Region_Vote(-1e-300), 1.0);
  EXPECT_EQ(Region_Vote(-INFINITY), 1.0);
  EXPECT_EQ(Region_Vote(1e-300), 0.0);
  EXPECT_EQ(Region_Vote(0.0), 0.5);
  EXPECT_EQ(Region_Vote(-0.0), 0.5);
  EXPECT_EQ(Region_Vote(std::numeric_limits<double>::quiet_NaN()), 0.5);
}

TEST(PLoss, TermExpertVotesAndScore) {
  std::vector<double> s = Signed(), S = Totals();
  const std::vector<double> s_before = s;
  double c0[2], c1[2];

  // Occurs in 0, 2, 3: r1 = {-4, 20}, r0 = {0, -8}.
  std::vector<int> list = {0, 2, 3};
  text_expert_rec e = TermExpert(list);
  EXPECT_EQ(Text_Expert_PLoss(s.data(), &e, 2, S.data(), c0, c1), -12 * kU);
  EXPECT_EQ(Votes(c1, 2), Vec({1.0, 0.0}));
  EXPECT_EQ(Votes(c0, 2), Vec({0.5, 1.0}));  // exact zero sum

  // Occurs in 4 only: r1 = {-16, 0}, r0 = {12, 12}.
  std::vector<int> list4 = {4};
  text_expert_rec e4 = TermExpert(list4);
  EXPECT_EQ(Text_Expert_PLoss(s.data(), &e4, 2, S.data(), c0, c1), -16 * kU);
  EXPECT_EQ(Votes(c1, 2), Vec({1.0, 0.5}));
  EXPECT_EQ(Votes(c0, 2), Vec({0.0, 0.0}));

  // An expert that occurs nowhere: everything is region 0.
  std::vector<int> none;
  text_expert_rec e0 = TermExpert(none);
  EXPECT_EQ(Text_Expert_PLoss(s.data(), &e0, 2, S.data(), c0, c1), -4 * kU);
  EXPECT_EQ(Votes(c1, 2), Vec({0.5, 0.5}));
  EXPECT_EQ(Votes(c0, 2), Vec({1.0, 0.0}));

  EXPECT_EQ(s, s_before);
}

TEST(PLoss, NonNegativeRegionsScoreZero) {
  std::vector<double> s = {kU, 2 * kU, 3 * kU, 0.0};
  std::vector<double> S = {4 * kU, 2 * kU};
  std::vector<int> list = {1};
  text_expert_rec e = TermExpert(list);
  double c0[2], c1[2];
  EXPECT_EQ(Text_Expert_PLoss(s.data(), &e, 2, S.data(), c0, c1), 0.0);
  EXPECT_EQ(Votes(c1, 2), Vec({0.0, 0.5}));
  EXPECT_EQ(Votes(c0, 2), Vec({0.0, 0.0}));
}

TEST(PLoss, AbstainingTermExpertCountsHalfOfAbsentRegion) {
  std::vector<double> s = Signed(), S = Totals();
  double c0[2], c1[2];

  std::vector<int> list = {0, 2, 3};
  text_expert_rec e = TermExpert(list);
  // -4 (region 1, label 0) + 0.5 * 0 + 0.5 * -8.
  EXPECT_EQ(Text_Expert_PLoss_Randomized(s.data(), &e, 2, S.data(), c0, c1),
            -8 * kU);
  EXPECT_EQ(Votes(c1, 2), Vec({1.0, 0.0}));
  EXPECT_EQ(Votes(c0, 2), Vec({0.5, 0.5}));

  // Positive absent-region sums count too: -16 + 0.5 * 12 + 0.5 * 12.
  std::vector<int> list4 = {4};
  text_expert_rec e4 = TermExpert(list4);
  EXPECT_EQ(Text_Expert_PLoss_Randomized(s.data(), &e4, 2, S.data(), c0, c1),
            -4 * kU);
  EXPECT_EQ(Votes(c1, 2), Vec({1.0, 0.5}));
  EXPECT_EQ(Votes(c0, 2), Vec({0.5, 0.5}));
}

// Known values sorted: ex4 = 1, ex0 = 2, ex2 = 2, ex3 = 5; ex1 is unknown,
// so r0 = s(1) = {16, -8}. Candidate scores (in 1/64):
//   p=-1: -28   p=0: -28   p=1: not a candidate (2 == 2; it would be -32)
//   p=2:  -36   p=3: -28
TEST(PLossThreshold, BestSplitVotesAndThreshold) {
  std::vector<double> s = Signed(), S = Totals();
  std::vector<int> index = {4, 0, 2, 3};
  std::vector<double> values = {1.0, 2.0, 2.0, 5.0};
  text_expert_rec e = ThresholdExpert(index, values);
  double c0[2], c1[2], c2[2];

  EXPECT_EQ(
      Text_Expert_PLoss_Threshold(s.data(), &e, 2, S.data(), c0, c1, c2),
      -36 * kU);
  EXPECT_EQ(e.threshold, 3.5);
  // r1 = {-28, 12}, r2 = {8, 8}, r0 = {16, -8}.
  EXPECT_EQ(Votes(c1, 2), Vec({1.0, 0.0}));
  EXPECT_EQ(Votes(c2, 2), Vec({0.0, 0.0}));
  EXPECT_EQ(Votes(c0, 2), Vec({0.0, 1.0}));
}

// Same sweep, region 0 contributing 0.5 * r0 = {8, -4} at every candidate:
//   p=-1: -16   p=0: -16   p=2: -24   p=3: -16
TEST(PLossThreshold, AbstainingSweep) {
  std::vector<double> s = Signed(), S = Totals();
  std::vector<int> index = {4, 0, 2, 3};
  std::vector<double> values = {1.0, 2.0, 2.0, 5.0};
  text_expert_rec e = ThresholdExpert(index, values);
  double c0[2], c1[2], c2[2];

  EXPECT_EQ(Text_Expert_PLoss_Threshold_Randomized(s.data(), &e, 2, S.data(),
                                                   c0, c1, c2),
            -24 * kU);
  EXPECT_EQ(e.threshold, 3.5);
  EXPECT_EQ(Votes(c1, 2), Vec({1.0, 0.0}));
  EXPECT_EQ(Votes(c2, 2), Vec({0.0, 0.0}));
  EXPECT_EQ(Votes(c0, 2), Vec({0.5, 0.5}));
}

TEST(PLossThreshold, TiesKeepLowestPosition) {
  // Every split scores -2/8: position -1 wins, all values in region 2.
  std::vector<double> s = {-0.125, 0.0, -0.125};
  std::vector<double> S = {-0.25};
  std::vector<int> index = {0, 1, 2};
  std::vector<double> values = {1.0, 2.0, 3.0};
  text_expert_rec e = ThresholdExpert(index, values);
  double c0[1], c1[1], c2[1];
  EXPECT_EQ(
      Text_Expert_PLoss_Threshold(s.data(), &e, 1, S.data(), c0, c1, c2),
      -0.25);
  EXPECT_EQ(e.threshold, -DBL_MAX);
  EXPECT_EQ(c2[0], 1.0);
  EXPECT_EQ(c1[0], 0.5);
  EXPECT_EQ(c0[0], 0.5);

  // Inner positions 0 and 3 tie at -1/8 (every other split scores 0); the
  // lower, threshold 1.5, is kept.
  std::vector<double> s2 = {-0.125, 0.25, -0.125, 0.25, -0.125};
  std::vector<double> S2 = {0.125};
  std::vector<int> index2 = {0, 1, 2, 3, 4};
  std::vector<double> values2 = {1.0, 2.0, 3.0, 4.0, 5.0};
  text_expert_rec e2 = ThresholdExpert(index2, values2);
  EXPECT_EQ(
      Text_Expert_PLoss_Threshold(s2.data(), &e2, 1, S2.data(), c0, c1, c2),
      -0.125);
  EXPECT_EQ(e2.threshold, 1.5);
  EXPECT_EQ(c1[0], 1.0);
  EXPECT_EQ(c2[0], 0.0);
  EXPECT_EQ(c0[0], 0.5);
}

TEST(PLossThreshold, EqualValuesGiveOnlyTheEnds) {
  // With one value everywhere the split after the first example (which
  // alone would score -1/8 better) is not allowed.
  std::vector<double> s = {-0.125, 0.125};
  std::vector<double> S = {0.0};
  std::vector<int> index = {0, 1};
  std::vector<double> values = {7.0, 7.0};
  text_expert_rec e = ThresholdExpert(index, values);
  double c0[1], c1[1], c2[1];
  EXPECT_EQ(
      Text_Expert_PLoss_Threshold(s.data(), &e, 1, S.data(), c0, c1, c2),
      0.0);
  EXPECT_EQ(e.threshold, -DBL_MAX);
  EXPECT_EQ(c2[0], 0.5);
}

TEST(PLossThreshold, NoKnownValues) {
  std::vector<double> s = {-0.25, 0.125};
  std::vector<double> S = {-0.125};
  text_expert_rec e{};
  e.type = kTypeThreshold;
  double c0[1], c1[1], c2[1];
  EXPECT_EQ(Text_Expert_PLoss_Threshold(s.data(), &e, 1, S.data(), c0, c1, c2),
            -0.125);
  EXPECT_EQ(e.threshold, -DBL_MAX);
  EXPECT_EQ(c0[0], 1.0);
  EXPECT_EQ(c1[0], 0.5);
  EXPECT_EQ(c2[0], 0.5);
}

}  // namespace
