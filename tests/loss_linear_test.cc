// Linear experts: the Newton-step helpers on hand-worked values, and the fit
// and score of whole experts checked against a plain re-derivation of the
// fitting rules written out in this file.
#include <cmath>
#include <cstdlib>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "loss.h"

namespace {

// A training set restricted to what a linear expert reads: weights D (m rows
// of k), label bytes, the listed (known-valued) examples and their values.
struct LinearCase {
  int m = 0;
  int k = 0;
  std::vector<double> D;
  std::vector<std::vector<unsigned char>> labels;
  std::vector<int> list;
  std::vector<double> x;

  std::vector<unsigned char*> label_rows;
  std::vector<double> w_store;  // six k-vectors of the weight table
  double* W[3][2];
  text_expert_rec e{};

  // The line vectors belong to the expert, which outlives nothing here.
  ~LinearCase() {
    std::free(e.linear_a);
    std::free(e.linear_b);
  }

  // Points the weight table, label rows and expert at this object's data;
  // call again after the data changes or the object is copied.
  void Prepare() {
    label_rows.clear();
    for (auto& row : labels) label_rows.push_back(row.data());
    w_store.assign(6 * static_cast<size_t>(k), 0.0);
    for (int r = 0; r < 3; r++)
      for (int b = 0; b < 2; b++) W[r][b] = &w_store[(r * 2 + b) * k];
    // Totals over all training examples, as the search driver fills them.
    for (int i = 0; i < m; i++)
      for (int l = 0; l < k; l++) W[0][labels[i][l]][l] += D[i * k + l];
    e.type = kTypeLinear;
    e.num_train = static_cast<int>(list.size());
    e.train_index = list.data();
    e.values = x.data();
  }

  long double Score() {
    return Text_Expert_Table_Exp_Loss_Linear(D.data(), &e, label_rows.data(),
                                             k, W);
  }

  bool Listed(int i) const {
    for (int j : list)
      if (j == i) return true;
    return false;
  }
  int Sign(int i, int l) const { return labels[i][l] ? 1 : -1; }
  double Weight(int i, int l) const { return D[i * k + l]; }
};

struct Fit {
  double alpha;
  double beta;
  double joint_alpha;  // the joint Newton step, before any undoing
  double joint_beta;
};

// The fit of one label, re-derived: one alpha-only Newton step from 0 under
// the raw weights, beta at the overall log-odds, then one joint step under
// the virtual distribution. The joint step is measured against a previous Z
// of 0, so it survives only when its Z (over the first n flat weights) is 0
// and neither value exceeds 1000.
Fit ReferenceFit(const LinearCase& c, int l) {
  double pos = 0, neg = 0;
  for (int i = 0; i < c.m; i++) (c.labels[i][l] ? pos : neg) += c.Weight(i, l);
  if (pos == 0 && neg == 0) return {0, 0, 0, 0};
  const int n = static_cast<int>(c.list.size());
  double num = 0, den = 0;
  for (int j = 0; j < n; j++) {
    int i = c.list[j];
    double s = c.Sign(i, l);
    num += c.x[j] * s * c.Weight(i, l);
    den += c.x[j] * c.x[j] * s * s * c.Weight(i, l);
  }
  double alpha = num / den;
  double beta = 0.5 * std::log(pos / neg);

  std::vector<double> q(n);
  double total = 0;
  for (int j = 0; j < n; j++) {
    int i = c.list[j];
    q[j] = c.Weight(i, l) * std::exp(-c.Sign(i, l) * (alpha * c.x[j] + beta));
    total += q[j];
  }
  double A = 0, B = 0, C = 0, X = 0;
  for (int j = 0; j < n; j++) {
    double p = q[j] / total;
    double s = c.Sign(c.list[j], l);
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
  for (int j = 0; j < n; j++) {
    double w = c.D[j];
    if (w != 0)
      z += w * std::exp(-c.Sign(c.list[j], l) * (a2 * c.x[j] + b2));
  }
  bool keep = !(a2 > 1000 || b2 > 1000) && !(z > 0);
  return keep ? Fit{a2, b2, a2, b2} : Fit{alpha, beta, a2, b2};
}

// Twice the best-constant Z of the unlisted examples plus the exponential
// loss of every listed example under the fitted lines.
long double ReferenceScore(const LinearCase& c) {
  long double score = 0;
  for (int l = 0; l < c.k; l++) {
    double pos = 0, neg = 0;
    for (int i = 0; i < c.m; i++)
      if (!c.Listed(i)) (c.labels[i][l] ? pos : neg) += c.Weight(i, l);
    score += 2 * std::sqrt(pos * neg);
  }
  for (size_t j = 0; j < c.list.size(); j++) {
    int i = c.list[j];
    for (int l = 0; l < c.k; l++) {
      double margin = c.e.linear_a[l] * c.x[j] + c.e.linear_b[l];
      score += c.Weight(i, l) * std::exp(-c.Sign(i, l) * margin);
    }
  }
  return score;
}

void ExpectRelNear(double expected, double actual) {
  EXPECT_NEAR(expected, actual, 1e-12 * std::fabs(expected) + 1e-300);
}

// Six examples, two labels; examples 0 and 3 have no value.
LinearCase SmallCase() {
  LinearCase c;
  c.m = 6;
  c.k = 2;
  c.D = {0.05, 0.10, 0.08, 0.07, 0.12, 0.03,
         0.09, 0.06, 0.11, 0.04, 0.10, 0.15};
  c.labels = {{1, 0}, {1, 0}, {0, 1}, {0, 0}, {1, 1}, {0, 1}};
  c.list = {1, 2, 4, 5};
  c.x = {0.5, -1.0, 2.0, 1.5};
  return c;
}

TEST(LinearHelpers, HandWorkedSteps) {
  // q = {1/4, 1/4, 1/2}, x = {0, 1, 2}, s = {1, -1, 1}:
  // E[x x] = 2.25, E[x s] = 0.75, E[s] = 0.5, E[x] = 1.25, E[x x s s] = 2.25.
  const double q[] = {0.25, 0.25, 0.5};
  const double x[] = {0.0, 1.0, 2.0};
  const int s[] = {1, -1, 1};
  EXPECT_EQ(ExpectedValue(x, q, 3), 1.25);

  double alpha = 1.0;
  ComputeNewAlpha(&alpha, q, x, s, 3);
  EXPECT_DOUBLE_EQ(alpha, 1.0 + 0.75 / 2.25);

  // P = 1.6875, R = 0.875, T = 0.75, det = 0.5.
  alpha = 0.0;
  double beta = 0.0;
  ComputeNewAlphaBeta(&alpha, &beta, q, x, s, 3);
  EXPECT_EQ(alpha, 0.25);
  EXPECT_EQ(beta, 0.375);

  // q = {1/2, 1/2}, x = {1, 2}, s = {1, -1}: det = 2.25 - 1.5^2 = 0. No
  // guard, no crash; the step is not finite.
  const double q2[] = {0.5, 0.5};
  const double x2[] = {1.0, 2.0};
  alpha = beta = 0.0;
  ComputeNewAlphaBeta(&alpha, &beta, q2, x2, s, 2);
  EXPECT_FALSE(std::isfinite(alpha));
}

TEST(LinearHelpers, VirtualDistributionAndZ) {
  const double D[] = {0.0, 0.3, 0.5, 0.2};  // 2 rows of k = 2
  const int list[] = {0, 1};
  const double x[] = {1.0, 2.0};
  const int s[] = {1, -1};
  // Exponents -s (alpha x + beta) with alpha = 400, beta = 0: -400, 800.
  // Unshifted, exp(800) overflows.
  double q[2];
  ComputeNewVirtDist(q, D, 400.0, 0.0, x, s, 2, 2, 1, list);
  EXPECT_EQ(q[1], 1.0);
  EXPECT_EQ(q[0], 0.0);
  ComputeNewVirtDist(q, D, 0.0, 0.0, x, s, 2, 2, 1, list);
  ExpectRelNear(0.3 / 0.5, q[0]);
  ExpectRelNear(0.2 / 0.5, q[1]);

  // Zero weights are skipped, so an overflowing exponent there is harmless.
  const double w[] = {0.0, 0.5};
  EXPECT_EQ(ComputeZ(2, w, s, -800.0, x, 0.0), 0.0);
  EXPECT_DOUBLE_EQ(ComputeZ(2, w, s, 0.5, x, 0.25), 0.5 * std::exp(1.25));
}

TEST(LinearExpert, FitsOneAlphaStepAndScores) {
  LinearCase c = SmallCase();
  c.Prepare();
  std::vector<double> totals = c.w_store;
  long double score = c.Score();

  ASSERT_NE(c.e.linear_a, nullptr);
  ASSERT_NE(c.e.linear_b, nullptr);
  for (int l = 0; l < c.k; l++) {
    Fit f = ReferenceFit(c, l);
    // Z over the first flat weights is positive, so the joint step is undone.
    EXPECT_DOUBLE_EQ(c.e.linear_a[l], f.alpha) << "label " << l;
    EXPECT_DOUBLE_EQ(c.e.linear_b[l], f.beta) << "label " << l;
    EXPECT_NE(f.alpha, f.joint_alpha);
  }
  ExpectRelNear(static_cast<double>(ReferenceScore(c)),
                static_cast<double>(score));

  // W[0] holds the totals again, W[1] the listed examples, W[2] nothing.
  for (int b = 0; b < 2; b++) {
    for (int l = 0; l < c.k; l++) {
      ExpectRelNear(totals[b * c.k + l], c.W[0][b][l]);
      double listed = 0;
      for (int i : c.list)
        if (c.labels[i][l] == b) listed += c.Weight(i, l);
      ExpectRelNear(listed, c.W[1][b][l]);
      EXPECT_EQ(c.W[2][b][l], 0.0);
    }
  }
}

TEST(LinearExpert, JointStepKeptWhenFlatZIsZero) {
  // The first n = 4 doubles of D (examples 0 and 1) are zero, so the joint
  // step's Z is 0 and it is kept.
  LinearCase c;
  c.m = 8;
  c.k = 2;
  c.D = {0, 0, 0, 0, 0.10, 0.05, 0.12, 0.08,
         0.07, 0.11, 0.09, 0.06, 0.13, 0.04, 0.06, 0.09};
  c.labels = {{0, 0}, {0, 0}, {1, 0}, {1, 1}, {0, 1},
              {1, 0}, {0, 0}, {0, 1}};
  c.list = {3, 4, 5, 6};
  c.x = {0.3, 1.7, -0.4, 2.2};
  c.Prepare();
  long double score = c.Score();
  for (int l = 0; l < c.k; l++) {
    Fit f = ReferenceFit(c, l);
    ASSERT_EQ(f.alpha, f.joint_alpha);
    ExpectRelNear(f.alpha, c.e.linear_a[l]);
    ExpectRelNear(f.beta, c.e.linear_b[l]);
  }
  ExpectRelNear(static_cast<double>(ReferenceScore(c)),
                static_cast<double>(score));
}

// Three listed examples (3, 4, 5) whose joint step sends alpha to about
// +1200; examples 0..2 carry no weight so the step's Z is 0 and only the
// bound of 1000 can undo it. Negating the values mirrors alpha to about
// -1200, which the bound lets through.
LinearCase DivergingCase(double sign) {
  LinearCase c;
  c.m = 7;
  c.k = 1;
  c.D = {0, 0, 0, 4.0 / 64, 1.0 / 64, 4.0 / 64, 212.0 / 64};
  c.labels = {{0}, {0}, {0}, {0}, {0}, {1}, {0}};
  c.list = {3, 4, 5};
  c.x = {0.5 * sign, 0.25 * sign, 1.5 * sign};
  return c;
}

TEST(LinearExpert, UpwardDivergenceIsUndone) {
  LinearCase up = DivergingCase(1.0);
  up.Prepare();
  up.Score();
  Fit f = ReferenceFit(up, 0);
  ASSERT_GT(f.joint_alpha, 1000);
  ASSERT_LE(f.joint_beta, 1000);
  EXPECT_DOUBLE_EQ(up.e.linear_a[0], f.alpha);
  EXPECT_DOUBLE_EQ(up.e.linear_b[0], f.beta);

  LinearCase down = DivergingCase(-1.0);
  down.Prepare();
  down.Score();
  Fit g = ReferenceFit(down, 0);
  ASSERT_LT(g.joint_alpha, -1000);
  ExpectRelNear(g.joint_alpha, down.e.linear_a[0]);
  ExpectRelNear(g.joint_beta, down.e.linear_b[0]);
}

TEST(LinearExpert, LabelWithoutWeightGetsZeroLine) {
  LinearCase c = SmallCase();
  for (int i = 0; i < c.m; i++) c.D[i * c.k + 1] = 0.0;
  c.Prepare();
  // Stale values from an earlier scoring must not survive.
  double a[2] = {7.0, 7.0}, b[2] = {7.0, 7.0};
  c.e.linear_a = a;
  c.e.linear_b = b;
  long double score = c.Score();
  EXPECT_EQ(c.e.linear_a, a);
  EXPECT_EQ(a[1], 0.0);
  EXPECT_EQ(b[1], 0.0);
  Fit f = ReferenceFit(c, 0);
  EXPECT_DOUBLE_EQ(a[0], f.alpha);
  EXPECT_DOUBLE_EQ(b[0], f.beta);
  ExpectRelNear(static_cast<double>(ReferenceScore(c)),
                static_cast<double>(score));
  c.e.linear_a = c.e.linear_b = nullptr;
}

TEST(LinearExpert, RescoringReusesStorageAndStartsAfresh) {
  LinearCase c = SmallCase();
  c.Prepare();
  c.Score();
  double* a = c.e.linear_a;
  double* b = c.e.linear_b;

  // New weights: the second fit must equal that of a never-scored expert.
  LinearCase fresh = SmallCase();
  for (LinearCase* lc : {&c, &fresh}) {
    std::swap(lc->D[2], lc->D[9]);
    std::swap(lc->D[4], lc->D[7]);
    lc->Prepare();
  }
  long double again = c.Score();
  long double first = fresh.Score();
  EXPECT_EQ(c.e.linear_a, a);
  EXPECT_EQ(c.e.linear_b, b);
  EXPECT_EQ(again, first);
  for (int l = 0; l < c.k; l++) {
    EXPECT_EQ(a[l], fresh.e.linear_a[l]);
    EXPECT_EQ(b[l], fresh.e.linear_b[l]);
  }
}

TEST(LinearExpert, NoListedExamples) {
  LinearCase c = SmallCase();
  c.list.clear();
  c.x.clear();
  c.Prepare();
  long double score = c.Score();
  ExpectRelNear(static_cast<double>(ReferenceScore(c)),
                static_cast<double>(score));
}

}  // namespace
