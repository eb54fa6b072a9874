// Scoring of experts for discrete boosting (discrete AdaBoost.MH and
// AdaBoost.MR). Each region of an expert votes 1, 0 or 0.5 per label, and the
// expert is scored by the signed weight of the regions that vote 1.
//
// The caller hands in signed weights: s(i,l) is D(i,l) when example i lacks
// label l and -D(i,l) when it carries it, and S[l] is their total over all
// training examples. A negative region sum therefore means the examples that
// carry the label outweigh the others in that region.
#include <cmath>
#include <cstddef>

#include <immintrin.h>

#include "loss.h"

namespace {

// Contribution of a voting region to the score: only regions voting 1
// (negative sum) count. A NaN sum counts as nothing, like a vote of 0.5.
inline double Negative_Part(double r) { return r < 0 ? r : 0.0; }

inline const double* Row(const double* s, int i, int k) {
  return s + static_cast<std::size_t>(i) * static_cast<std::size_t>(k);
}

// The same sums with AVX2, the k <= 4V labels in V vectors kept in
// registers; the last vector loads and stores only the lanes below k.
template <int V>
__attribute__((target("avx2"))) void occurrence_sums_avx2(const double* s, const text_expert_rec* e,
                                                          int k, double* r1) {
  const int left = k - 4 * (V - 1);
  const __m256i tail = _mm256_cmpgt_epi64(_mm256_set1_epi64x(left), _mm256_setr_epi64x(0, 1, 2, 3));
  __m256d acc[V];
  for (int v = 0; v < V; v++) acc[v] = _mm256_setzero_pd();
  const int* list = e->train_index;
  for (int j = 0; j < e->num_train; j++) {
    const double* row = Row(s, list[j], k);
#pragma GCC unroll 16
    for (int v = 0; v < V - 1; v++) acc[v] = _mm256_add_pd(acc[v], _mm256_loadu_pd(row + 4 * v));
    acc[V - 1] = _mm256_add_pd(acc[V - 1], _mm256_maskload_pd(row + 4 * (V - 1), tail));
  }
  for (int v = 0; v < V - 1; v++) _mm256_storeu_pd(r1 + 4 * v, acc[v]);
  _mm256_maskstore_pd(r1 + 4 * (V - 1), tail, acc[V - 1]);
}

const bool has_avx2 = [] {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") != 0;
}();

// r1[l] = sum of s(i,l) over the expert's occurrence list, in list order
// from zero (every label on its own, so vectors across labels add the
// same numbers in the same order).
void Occurrence_Sums(const double* s, const text_expert_rec* e, int k,
                     double* r1) {
  if (has_avx2 && k >= 1 && k <= 64) {
    switch ((k + 3) / 4) {
#define MHB_SUMS(V)                          \
  case V:                                    \
    occurrence_sums_avx2<V>(s, e, k, r1);    \
    return;
      MHB_SUMS(1) MHB_SUMS(2) MHB_SUMS(3) MHB_SUMS(4) MHB_SUMS(5) MHB_SUMS(6) MHB_SUMS(7)
      MHB_SUMS(8) MHB_SUMS(9) MHB_SUMS(10) MHB_SUMS(11) MHB_SUMS(12) MHB_SUMS(13) MHB_SUMS(14)
      MHB_SUMS(15) MHB_SUMS(16)
#undef MHB_SUMS
    }
  }
  for (int l = 0; l < k; l++) r1[l] = 0.0;
  for (int j = 0; j < e->num_train; j++) {
    const double* row = Row(s, e->train_index[j], k);
    for (int l = 0; l < k; l++) r1[l] += row[l];
  }
}

// Shared sweep of the two threshold members. Region sums live in the output
// vectors (c1 below the split, c2 at or above it, c0 unknown values) until
// they are turned into votes at the end; `abstain` selects the scoring of
// region 0 and its fixed vote of 0.5.
double Threshold_Sweep(const double* s, text_expert_rec* e, int k,
                       const double* S, double* c0, double* c1, double* c2,
                       bool abstain) {
  const int n = e->num_train;
  const int* index = e->sorted_index;
  const double* v = e->sorted_values;
  double* r0 = c0;
  double* r1 = c1;
  double* r2 = c2;

  for (int l = 0; l < k; l++) {
    r1[l] = 0.0;
    r2[l] = 0.0;
  }
  for (int j = 0; j < n; j++) {
    const double* row = Row(s, index[j], k);
    for (int l = 0; l < k; l++) r2[l] += row[l];
  }
  for (int l = 0; l < k; l++) r0[l] = S[l] - r2[l];

  double best_score = 1.7976931348623157e+308;
  int best_pos = -1;
  for (int p = -1; p < n; p++) {
    if (p >= 0) {
      const double* row = Row(s, index[p], k);
      for (int l = 0; l < k; l++) {
        r1[l] += row[l];
        r2[l] -= row[l];
      }
    }
    // No threshold between equal values; the last position always counts.
    // Testing p == n - 1 first keeps v[p + 1] inside the array.
    if (!(p == -1 || p == n - 1 || v[p + 1] != v[p])) continue;
    double score = 0.0;
    for (int l = 0; l < k; l++) {
      double rest = abstain ? 0.5 * r0[l] : Negative_Part(r0[l]);
      score += Negative_Part(r2[l]) + Negative_Part(r1[l]) + rest;
    }
    if (score < best_score) {
      best_score = score;
      best_pos = p;
    }
  }

  // The sweep's running sums drift by rounding; the votes come from sums
  // taken afresh for the chosen split.
  for (int l = 0; l < k; l++) {
    r1[l] = 0.0;
    r2[l] = 0.0;
  }
  for (int j = 0; j < n; j++) {
    const double* row = Row(s, index[j], k);
    double* r = j <= best_pos ? r1 : r2;
    for (int l = 0; l < k; l++) r[l] += row[l];
  }
  for (int l = 0; l < k; l++) {
    c2[l] = Region_Vote(r2[l]);
    c1[l] = Region_Vote(r1[l]);
    c0[l] = abstain ? 0.5 : Region_Vote(r0[l]);
  }

  e->threshold = Threshold_At(v, n, best_pos);
  return best_score;
}

// The terms of a term expert's score, lane by lane: the negative part of
// the sum where the term occurs, and of the sum where it does not (half of
// that sum, whatever its sign, when the expert abstains there). A NaN sum
// gives the term 0, as the score's "below zero" tests do.
__attribute__((target("avx2"))) double estimate_avx2(const double* r1, const double* S, int k,
                                                     bool abstain, double* magnitude) {
  const __m256d zero = _mm256_setzero_pd(), half = _mm256_set1_pd(0.5);
  const __m256d no_sign = _mm256_castsi256_pd(_mm256_set1_epi64x(0x7fffffffffffffffLL));
  __m256d sum = zero, mag = zero;
  for (int l = 0; l < k; l += 4) {
    const __m256i lanes = _mm256_cmpgt_epi64(_mm256_set1_epi64x(k - l), _mm256_setr_epi64x(0, 1, 2, 3));
    const __m256d a1 = _mm256_maskload_pd(r1 + l, lanes);
    const __m256d a0 = _mm256_sub_pd(_mm256_maskload_pd(S + l, lanes), a1);
    const __m256d t1 = _mm256_and_pd(_mm256_cmp_pd(a1, zero, _CMP_LT_OQ), a1);
    const __m256d t0 = abstain ? _mm256_mul_pd(half, a0) : _mm256_and_pd(_mm256_cmp_pd(a0, zero, _CMP_LT_OQ), a0);
    sum = _mm256_add_pd(sum, _mm256_add_pd(t1, t0));
    mag = _mm256_add_pd(mag, _mm256_add_pd(_mm256_and_pd(t1, no_sign), _mm256_and_pd(t0, no_sign)));
  }
  double s4[4], m4[4];
  _mm256_storeu_pd(s4, sum);
  _mm256_storeu_pd(m4, mag);
  *magnitude = (m4[0] + m4[1]) + (m4[2] + m4[3]);
  return (s4[0] + s4[1]) + (s4[2] + s4[3]);
}

}  // namespace

double Text_Expert_PLoss_Estimate(const double* s, const text_expert_rec* e, int k,
                                  const double* S, bool abstain, double* r1,
                                  double* magnitude) {
  Occurrence_Sums(s, e, k, r1);
  if (has_avx2) return estimate_avx2(r1, S, k, abstain, magnitude);
  double sum = 0.0, mag = 0.0;
  for (int l = 0; l < k; l++) {
    const double t1 = Negative_Part(r1[l]);
    const double r0 = S[l] - r1[l];
    const double t0 = abstain ? 0.5 * r0 : Negative_Part(r0);
    sum += t1 + t0;
    mag += std::fabs(t1) + std::fabs(t0);
  }
  *magnitude = mag;
  return sum;
}

double Region_Vote(double r) {
  if (r < 0) return 1.0;
  if (r > 0) return 0.0;
  return 0.5;
}

double Text_Expert_PLoss(double* s, text_expert_rec* e, int k, double* S,
                         double* c0, double* c1) {
  // c1 holds the occurrence sums until each label's vote replaces them.
  Occurrence_Sums(s, e, k, c1);
  double score = 0.0;
  for (int l = 0; l < k; l++) {
    double r1 = c1[l];
    double r0 = S[l] - r1;
    if (r1 < 0) score += r1;
    c1[l] = Region_Vote(r1);
    if (r0 < 0) score += r0;
    c0[l] = Region_Vote(r0);
  }
  return score;
}

double Text_Expert_PLoss_Randomized(double* s, text_expert_rec* e, int k,
                                    double* S, double* c0, double* c1) {
  Occurrence_Sums(s, e, k, c1);
  double score = 0.0;
  for (int l = 0; l < k; l++) {
    double r1 = c1[l];
    double r0 = S[l] - r1;
    if (r1 < 0) score += r1;
    c1[l] = Region_Vote(r1);
    // Where the term is absent the expert abstains: half the weight there
    // counts whatever its sign.
    score += 0.5 * r0;
    c0[l] = 0.5;
  }
  return score;
}

double Text_Expert_PLoss_Threshold(double* s, text_expert_rec* e, int k,
                                   double* S, double* c0, double* c1,
                                   double* c2) {
  return Threshold_Sweep(s, e, k, S, c0, c1, c2, false);
}

double Text_Expert_PLoss_Threshold_Randomized(double* s, text_expert_rec* e,
                                              int k, double* S, double* c0,
                                              double* c1, double* c2) {
  return Threshold_Sweep(s, e, k, S, c0, c1, c2, true);
}
