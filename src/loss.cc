// Scoring of experts for real AdaBoost.MH. Every member returns half of the
// normaliser Z that the boosting update would reach if the expert were
// chosen with its best per-region predictions.
//
// Arithmetic order matters: the scan carries the per-label totals in W[0]
// from expert to expert, and each member subtracts its sums from them,
// clamps, and adds them back, so that the totals may drift by a last bit.
// Scores accumulate in long double, each label adding a term computed in
// double. Both rules decide near-ties and must not be rearranged.
#include "loss.h"

#include <cfloat>
#include <cmath>
#include <vector>

namespace {

// Adds example i's weights into W[r][y][l]. Written without branches so
// that it vectorises: the other sign's sum gets +0.0 added (or subtracted),
// which changes no bit of it (the sums are never -0.0).
inline void add_example(const double* __restrict row, const unsigned char* __restrict y, int k,
                        double* __restrict w0, double* __restrict w1) {
  for (int l = 0; l < k; ++l) {
    const double d = row[l];
    w1[l] += y[l] ? d : 0.0;
    w0[l] += y[l] ? 0.0 : d;
  }
}

inline void sub_example(const double* __restrict row, const unsigned char* __restrict y, int k,
                        double* __restrict w0, double* __restrict w1) {
  for (int l = 0; l < k; ++l) {
    const double d = row[l];
    w1[l] -= y[l] ? d : 0.0;
    w0[l] -= y[l] ? 0.0 : d;
  }
}

inline void zero(double* v, int k) {
  for (int l = 0; l < k; ++l) v[l] = 0.0;
}

inline void clamp(double* v, int k) {
  for (int l = 0; l < k; ++l)
    if (v[l] < 0) v[l] = 0.0;
}

// W[0] := (W[0] - W[1]) - W[2], for both signs.
inline void totals_minus(weight_table W, int k) {
  for (int b = 0; b < 2; ++b)
    for (int l = 0; l < k; ++l) W[0][b][l] = (W[0][b][l] - W[1][b][l]) - W[2][b][l];
}

// W[0] := (W[0] + W[1]) + W[2], for both signs.
inline void totals_plus(weight_table W, int k) {
  for (int b = 0; b < 2; ++b)
    for (int l = 0; l < k; ++l) W[0][b][l] = (W[0][b][l] + W[1][b][l]) + W[2][b][l];
}

// Last sorted position whose value lies below t (-1 if none).
int split_position(const double* v, int n, double t) {
  if (n == 0 || !(t > v[0])) return -1;
  if (t > v[n - 1]) return n - 1;
  int p = n - 1;
  while (p >= 0 && !(v[p] < t)) --p;
  return p;
}

// Refills W[1] and W[2] for split position p of a threshold expert.
void fill_split(const double* D, const text_expert_rec* e, unsigned char** labels, int k,
                weight_table W, int p) {
  for (int b = 0; b < 2; ++b) {
    zero(W[1][b], k);
    zero(W[2][b], k);
  }
  const int n = e->num_train;
  for (int j = 0; j < n; ++j) {
    const int i = e->sorted_index[j];
    const int r = j <= p ? 1 : 2;
    add_example(D + static_cast<size_t>(i) * k, labels[i], k, W[r][0], W[r][1]);
  }
}

// Abstaining score over regions 1 and 2.
long double abstaining_score(weight_table W, int k) {
  long double score = 0;
  long double total = 0;
  for (int l = 0; l < k; ++l) {
    score += sqrt(W[1][0][l] * W[1][1][l]) + sqrt(W[2][0][l] * W[2][1][l]);
    total += ((W[1][0][l] + W[1][1][l]) + W[2][0][l]) + W[2][1][l];
  }
  return score + 0.5 * (1 - total);
}

}  // namespace

double Threshold_At(const double* v, int n, int p) {
  if (p < 0) return -DBL_MAX;
  if (p >= n - 1) return DBL_MAX;
  return (v[p] + v[p + 1]) * 0.5;
}

long double Text_Expert_Table_Exp_Loss(double* D, text_expert_rec* e,
                                       unsigned char** labels, int k, weight_table W) {
  for (int b = 0; b < 2; ++b) {
    zero(W[1][b], k);
    zero(W[2][b], k);
  }
  for (int j = 0; j < e->num_train; ++j) {
    const int i = e->train_index[j];
    add_example(D + static_cast<size_t>(i) * k, labels[i], k, W[1][0], W[1][1]);
  }
  for (int b = 0; b < 2; ++b)
    for (int l = 0; l < k; ++l) W[0][b][l] = W[0][b][l] - W[1][b][l];
  long double score = 0;
  for (int l = 0; l < k; ++l) {
    if (W[0][0][l] < 0) W[0][0][l] = 0.0;
    if (W[0][1][l] < 0) W[0][1][l] = 0.0;
    score += sqrt(W[0][0][l] * W[0][1][l]) + sqrt(W[1][0][l] * W[1][1][l]);
  }
  for (int b = 0; b < 2; ++b)
    for (int l = 0; l < k; ++l) W[0][b][l] = W[0][b][l] + W[1][b][l];
  return score;
}

long double Text_Expert_Table_Exp_Loss_Randomized(double* D, text_expert_rec* e,
                                                  unsigned char** labels, int k,
                                                  weight_table W) {
  zero(W[1][0], k);
  zero(W[1][1], k);
  for (int j = 0; j < e->num_train; ++j) {
    const int i = e->train_index[j];
    add_example(D + static_cast<size_t>(i) * k, labels[i], k, W[1][0], W[1][1]);
  }
  long double score = 0;
  long double total = 0;
  for (int l = 0; l < k; ++l) {
    score += sqrt(W[1][0][l] * W[1][1][l]);
    total += W[1][0][l] + W[1][1][l];
  }
  return score + 0.5 * (1 - total);
}

namespace {

// The threshold sweep shared by both threshold members: every known-valued
// example starts at or above the threshold (region 2) and moves below it
// (region 1) in order of value; between two different values, and at both
// ends, score_at(W) scores the split. The lowest-scoring position wins (the
// first of equal scores) and its threshold is stored in the expert.
template <typename Score>
long double sweep_thresholds(const double* D, text_expert_rec* e, unsigned char** labels, int k,
                             weight_table W, const Score& score_at) {
  const int n = e->num_train;
  const double* v = e->sorted_values;
  long double best = DBL_MAX;
  int best_p = -1;
  for (int b = 0; b < 2; ++b) {
    zero(W[1][b], k);
    zero(W[2][b], k);
  }
  for (int j = 0; j < n; ++j) {
    const int i = e->sorted_index[j];
    add_example(D + static_cast<size_t>(i) * k, labels[i], k, W[2][0], W[2][1]);
  }
  for (int p = -1; p < n; ++p) {
    if (p >= 0) {
      const int i = e->sorted_index[p];
      const double* row = D + static_cast<size_t>(i) * k;
      add_example(row, labels[i], k, W[1][0], W[1][1]);
      sub_example(row, labels[i], k, W[2][0], W[2][1]);
    }
    if (!(p == -1 || p == n - 1 || v[p + 1] != v[p])) continue;
    const long double score = score_at(W);
    if (score < best) {
      best = score;
      best_p = p;
    }
  }
  e->threshold = Threshold_At(v, n, best_p);
  return best;
}

}  // namespace

long double Text_Expert_Table_Exp_Loss_Threshold(double* D, text_expert_rec* e,
                                                 unsigned char** labels, int k,
                                                 weight_table W) {
  std::vector<double> terms(k);
  return sweep_thresholds(D, e, labels, k, W, [&](weight_table w) {
    totals_minus(w, k);
    clamp(w[0][0], k);
    clamp(w[0][1], k);
    clamp(w[2][0], k);
    clamp(w[2][1], k);
    // Each label's term in double (vectorised across labels), then added
    // into the score in label order.
    for (int l = 0; l < k; ++l)
      terms[l] = sqrt(w[0][0][l] * w[0][1][l]) + sqrt(w[1][0][l] * w[1][1][l]) +
                 sqrt(w[2][0][l] * w[2][1][l]);
    long double score = 0;
    for (int l = 0; l < k; ++l) score += terms[l];
    totals_plus(w, k);
    return score;
  });
}

long double Text_Expert_Table_Exp_Loss_Threshold_Randomized(double* D, text_expert_rec* e,
                                                            unsigned char** labels, int k,
                                                            weight_table W) {
  // Unknown values abstain: the totals are not used.
  return sweep_thresholds(D, e, labels, k, W, [&](weight_table w) {
    clamp(w[2][0], k);
    clamp(w[2][1], k);
    return abstaining_score(w, k);
  });
}

void Text_Expert_Table_Exp_Loss_Threshold_Best(double* D, text_expert_rec* e,
                                               unsigned char** labels, int k,
                                               weight_table W) {
  const int p = split_position(e->sorted_values, e->num_train, e->threshold);
  fill_split(D, e, labels, k, W, p);
  totals_minus(W, k);
  clamp(W[0][0], k);
  clamp(W[0][1], k);
  totals_plus(W, k);
}

long double Text_Expert_Table_Exp_Loss_Threshold_Best_Randomized(double* D,
                                                                 text_expert_rec* e,
                                                                 unsigned char** labels,
                                                                 int k, weight_table W) {
  const int p = split_position(e->sorted_values, e->num_train, e->threshold);
  fill_split(D, e, labels, k, W, p);
  clamp(W[2][0], k);
  clamp(W[2][1], k);
  return abstaining_score(W, k);
}
