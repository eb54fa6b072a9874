// Scoring of experts on hand-built weightings. Linear experts: fit and score
// checked against a plain re-derivation of the fitting rules written out
// here, and the overflow guards. Discrete boosting: votes and scores of term
// and threshold experts, with and without abstaining on absence; weights are
// multiples of 1/64 so every sum is exact.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <vector>

#include <gtest/gtest.h>

#include "loss.h"

namespace {

using Vec = std::vector<double>;
using Ints = std::vector<int>;

// What a linear expert reads: weights D (m rows of k), label bytes, the
// listed (known-valued) examples and their values.
struct LinearCase {
  using Labels = std::vector<std::vector<unsigned char>>;
  LinearCase(int m_, int k_, Vec D_, Labels labels_, Ints list_, Vec x_)
      : m(m_), k(k_), D(D_), labels(labels_), list(list_), x(x_) {}
  int m, k;  // examples, labels
  Vec D;
  Labels labels;
  Ints list;
  Vec x;

  std::vector<unsigned char*> label_rows;
  Vec w_store;  // six k-vectors of the weight table
  double* W[3][2];
  text_expert_rec e{};

  ~LinearCase() {
    std::free(e.linear_a);
    std::free(e.linear_b);
  }

  // Points the table, label rows and expert at this object's data, with W[0]
  // holding the totals over all examples as the search driver fills them.
  void Prepare() {
    for (auto& row : labels) label_rows.push_back(row.data());
    w_store.assign(6 * static_cast<size_t>(k), 0.0);
    for (int r = 0; r < 3; r++)
      for (int b = 0; b < 2; b++) W[r][b] = &w_store[(r * 2 + b) * k];
    for (int i = 0; i < m; i++)
      for (int l = 0; l < k; l++) W[0][labels[i][l]][l] += D[i * k + l];
    e.type = kTypeLinear;
    e.num_train = static_cast<int>(list.size());
    e.train_index = list.data();
    e.values = x.data();
  }
  double Score() {
    return static_cast<double>(Text_Expert_Table_Exp_Loss_Linear(D.data(), &e, label_rows.data(), k, W));
  }
  int Sign(int i, int l) const { return labels[i][l] ? 1 : -1; }
  double Weight(int i, int l) const { return D[i * k + l]; }
};

struct Fit {
  double alpha, beta;
  double joint_alpha, joint_beta;  // the joint Newton step, before any undoing
};

// The fit of one label, re-derived: one alpha-only Newton step from 0 under
// the raw weights, beta at the overall log-odds, then one joint step under
// the virtual distribution. That step is measured against a previous Z of 0,
// so it survives only when its Z (over the first n flat weights) is 0 and
// neither value exceeds 1000.
Fit ReferenceFit(const LinearCase& c, int l) {
  double pos = 0, neg = 0;
  for (int i = 0; i < c.m; i++) (c.labels[i][l] ? pos : neg) += c.Weight(i, l);
  if (pos == 0 && neg == 0) return {0, 0, 0, 0};
  const int n = static_cast<int>(c.list.size());
  double num = 0, den = 0;
  for (int j = 0; j < n; j++) {
    int i = c.list[j];
    num += c.x[j] * c.Sign(i, l) * c.Weight(i, l);
    den += c.x[j] * c.x[j] * c.Weight(i, l);
  }
  double alpha = num / den;
  double beta = 0.5 * std::log(pos / neg);

  Vec q(n);
  double total = 0;
  for (int j = 0; j < n; j++) {
    int i = c.list[j];
    q[j] = c.Weight(i, l) * std::exp(-c.Sign(i, l) * (alpha * c.x[j] + beta));
    total += q[j];
  }
  double A = 0, B = 0, C = 0, X = 0;
  for (int j = 0; j < n; j++) {
    double p = q[j] / total, s = c.Sign(c.list[j], l);
    A += c.x[j] * c.x[j] * p;
    B += c.x[j] * s * p;
    C += s * p;
    X += c.x[j] * p;
  }
  double P = A - B * B, R = X - B * C, T = 1 - C * C;
  double det = P * T - R * R;
  double a2 = alpha + (T * B - R * C) / det;
  double b2 = beta + (P * C - R * B) / det;

  double z = 0;
  for (int j = 0; j < n; j++)
    if (c.D[j] != 0) z += c.D[j] * std::exp(-c.Sign(c.list[j], l) * (a2 * c.x[j] + b2));
  bool keep = !(a2 > 1000 || b2 > 1000) && !(z > 0);
  return keep ? Fit{a2, b2, a2, b2} : Fit{alpha, beta, a2, b2};
}

// Twice the best-constant Z of the unlisted examples plus the exponential
// loss of every listed example under the fitted lines.
double ReferenceScore(const LinearCase& c) {
  long double score = 0;
  for (int l = 0; l < c.k; l++) {
    double pos = 0, neg = 0;
    for (int i = 0; i < c.m; i++)
      if (std::find(c.list.begin(), c.list.end(), i) == c.list.end())
        (c.labels[i][l] ? pos : neg) += c.Weight(i, l);
    score += 2 * std::sqrt(pos * neg);
  }
  for (size_t j = 0; j < c.list.size(); j++)
    for (int l = 0; l < c.k; l++) {
      int i = c.list[j];
      double margin = c.e.linear_a[l] * c.x[j] + c.e.linear_b[l];
      score += c.Weight(i, l) * std::exp(-c.Sign(i, l) * margin);
    }
  return static_cast<double>(score);
}

void ExpectRelNear(double expected, double actual) {
  EXPECT_NEAR(expected, actual, 1e-12 * std::fabs(expected) + 1e-300);
}

// An undone joint step leaves the alpha step's values, which the
// re-derivation computes in the same order; a kept one may differ in rounding.
// Returns whether the joint step was kept.
bool ExpectFit(const LinearCase& c, int l) {
  Fit f = ReferenceFit(c, l);
  if (f.alpha == f.joint_alpha) {
    ExpectRelNear(f.alpha, c.e.linear_a[l]);
    ExpectRelNear(f.beta, c.e.linear_b[l]);
  } else {
    EXPECT_DOUBLE_EQ(f.alpha, c.e.linear_a[l]);
    EXPECT_DOUBLE_EQ(f.beta, c.e.linear_b[l]);
  }
  return f.alpha == f.joint_alpha;
}

// Six examples, two labels; examples 0 and 3 have no value.
LinearCase SmallCase() {
  return {6, 2, {0.05, 0.10, 0.08, 0.07, 0.12, 0.03, 0.09, 0.06, 0.11, 0.04, 0.10, 0.15},
          {{1, 0}, {1, 0}, {0, 1}, {0, 0}, {1, 1}, {0, 1}}, {1, 2, 4, 5}, {0.5, -1.0, 2.0, 1.5}};
}

TEST(LinearExpert, FitScoreAndTableMatchReDerivation) {
  // In the second case the first n = 4 doubles of D (examples 0 and 1) are
  // zero, so the joint step's Z is 0 and it is kept.
  LinearCase cases[] = {
      SmallCase(),
      {8, 2, {0, 0, 0, 0, 0.10, 0.05, 0.12, 0.08, 0.07, 0.11, 0.09, 0.06, 0.13, 0.04, 0.06, 0.09},
       {{0, 0}, {0, 0}, {1, 0}, {1, 1}, {0, 1}, {1, 0}, {0, 0}, {0, 1}}, {3, 4, 5, 6}, {0.3, 1.7, -0.4, 2.2}},
      {6, 2, SmallCase().D, SmallCase().labels, {}, {}},  // nothing listed: the constant part only
  };
  for (int joint_kept = 0; joint_kept < 3; ++joint_kept) {
    LinearCase& c = cases[joint_kept];
    SCOPED_TRACE(joint_kept);
    c.Prepare();
    Vec totals = c.w_store;
    double score = c.Score();
    ExpectRelNear(ReferenceScore(c), score);
    if (joint_kept == 2) continue;
    for (int l = 0; l < c.k; l++) EXPECT_EQ(ExpectFit(c, l), joint_kept == 1);
    // W[0] holds the totals again, W[1] the listed examples, W[2] nothing.
    Vec listed(2 * c.k, 0.0);
    for (int i : c.list)
      for (int l = 0; l < c.k; l++) listed[c.labels[i][l] * c.k + l] += c.Weight(i, l);
    for (int j = 0; j < 2 * c.k; j++) {
      ExpectRelNear(totals[j], c.w_store[j]);
      ExpectRelNear(listed[j], c.w_store[2 * c.k + j]);
      EXPECT_EQ(c.w_store[4 * c.k + j], 0.0);
    }
  }
}

// Listed examples 3, 4, 5 whose joint step sends alpha to about +1200;
// examples 0..2 carry no weight so the step's Z is 0 and only the bound of
// 1000 can undo it. Negated values mirror alpha to about -1200, which the
// bound lets through.
TEST(LinearExpert, OnlyUpwardDivergenceIsUndone) {
  for (double sign : {1.0, -1.0}) {
    LinearCase c{7, 1, {0, 0, 0, 4.0 / 64, 1.0 / 64, 4.0 / 64, 212.0 / 64}, {{0}, {0}, {0}, {0}, {0}, {1}, {0}},
                 {3, 4, 5}, {0.5 * sign, 0.25 * sign, 1.5 * sign}};
    c.Prepare();
    c.Score();
    Fit f = ReferenceFit(c, 0);
    ASSERT_GT(std::fabs(f.joint_alpha), 1000);
    ASSERT_LE(f.joint_beta, 1000);
    EXPECT_EQ(ExpectFit(c, 0), sign < 0);
  }
}

TEST(LinearExpert, RescoredLabelWithoutWeightGetsZeroLine) {
  LinearCase c = SmallCase();
  for (int i = 0; i < c.m; i++) c.D[i * c.k + 1] = 0.0;
  c.Prepare();
  // Stale lines from an earlier scoring: the storage is reused, the values
  // are not.
  double a[2] = {7.0, 7.0}, b[2] = {7.0, 7.0};
  c.e.linear_a = a;
  c.e.linear_b = b;
  double score = c.Score();
  EXPECT_EQ(c.e.linear_a, a);
  EXPECT_EQ(a[1], 0.0);
  EXPECT_EQ(b[1], 0.0);
  ExpectFit(c, 0);
  ExpectRelNear(ReferenceScore(c), score);
  c.e.linear_a = c.e.linear_b = nullptr;
}

TEST(LinearHelpers, ShiftedExponentsAndSkippedZeroWeightsAvoidOverflow) {
  const double D[] = {0.0, 0.3, 0.5, 0.2}, x[] = {1.0, 2.0}, w[] = {0.0, 0.5};
  const int list[] = {0, 1}, s[] = {1, -1};
  double q[2];  // exponents -400 and 800
  ComputeNewVirtDist(q, D, 400.0, 0.0, x, s, 2, 2, 1, list);
  EXPECT_EQ(q[0], 0.0);
  EXPECT_EQ(q[1], 1.0);
  EXPECT_EQ(ComputeZ(2, w, s, -800.0, x, 0.0), 0.0);
  EXPECT_DOUBLE_EQ(ComputeZ(2, w, s, 0.5, x, 0.25), 0.5 * std::exp(1.25));
}

constexpr double kU = 1.0 / 64;

// Signed weights of five examples and two labels, in 1/64:
//   ex0 {-8, 4}  ex1 {16, -8}  ex2 {-4, 8}  ex3 {8, 8}  ex4 {-16, 0}
// with totals {-4, 12}.
Vec Signed() {
  Vec s = {-8, 4, 16, -8, -4, 8, 8, 8, -16, 0};
  for (double& v : s) v *= kU;
  return s;
}
const Vec kTotals = {-4 * kU, 12 * kU};

TEST(PLoss, TermExpertVotesAndScores) {
  const struct {
    Ints list;
    bool abstain;
    double score;
    Vec c1, c0;
  } cases[] = {
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
  for (const auto& t : cases) {
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
  const struct {
    Vec s, S;
    Ints index;
    Vec values;
    bool abstain;
    double score, threshold;
    Vec c0, c1, c2;
  } cases[] = {
      // On the five examples: known values sorted ex4 = 1, ex0 = 2, ex2 = 2,
      // ex3 = 5; ex1 is unknown, so r0 = {16, -8}. Split scores (in 1/64)
      // after position p = -1: -28, 0: -28, 1: none (2 == 2; it would be
      // -32), 2: -36, 3: -28. Abstaining adds 0.5 r0 = {8, -4}: -16, -16,
      // -24, -16.
      {Signed(), kTotals, {4, 0, 2, 3}, {1, 2, 2, 5}, false, -36 * kU, 3.5, {0, 1}, {1, 0}, {0, 0}},
      {Signed(), kTotals, {4, 0, 2, 3}, {1, 2, 2, 5}, true, -24 * kU, 3.5, {0.5, 0.5}, {1, 0}, {0, 0}},
      // Every split scores -2/8: the lowest position, -1, wins.
      {{-0.125, 0, -0.125}, {-0.25}, {0, 1, 2}, {1, 2, 3}, false, -0.25, -DBL_MAX, {0.5}, {0.5}, {1}},
      // Inner positions 0 and 3 tie at -1/8; the lower one is kept.
      {{-0.125, 0.25, -0.125, 0.25, -0.125}, {0.125}, {0, 1, 2, 3, 4}, {1, 2, 3, 4, 5}, false, -0.125, 1.5,
       {0.5}, {1}, {0}},
      // One value everywhere: the split after the first example (-1/8) is
      // not allowed, only the ends are.
      {{-0.125, 0.125}, {0}, {0, 1}, {7, 7}, false, 0, -DBL_MAX, {0.5}, {0.5}, {0.5}},
      // No known value at all.
      {{-0.25, 0.125}, {-0.125}, {}, {}, false, -0.125, -DBL_MAX, {1}, {0.5}, {0.5}},
  };
  for (const auto& t : cases) {
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
    auto score = t.abstain ? Text_Expert_PLoss_Threshold_Randomized : Text_Expert_PLoss_Threshold;
    EXPECT_EQ(score(s.data(), &e, k, S.data(), c0, c1, c2), t.score);
    EXPECT_EQ(e.threshold, t.threshold);
    EXPECT_EQ(Vec(c0, c0 + k), t.c0);
    EXPECT_EQ(Vec(c1, c1 + k), t.c1);
    EXPECT_EQ(Vec(c2, c2 + k), t.c2);
  }
}

}  // namespace
