// The per-round scan over every candidate expert: scores each one against
// the current weights and returns the first with the strictly lowest score.
// The real AdaBoost.MH scan carries the per-label totals through every
// expert in array order (each expert's sums are subtracted from them,
// clamped, and added back), so the result is defined by that sequential
// reading; this module owns how the scan is carried out.
#ifndef MHBOOST_SCORE_POOL_H_
#define MHBOOST_SCORE_POOL_H_

#include <functional>

#include "loss.h"
#include "read_data.h"
#include "sgram_expert.h"

/// Prepares the scan over `experts` (null-term terminated) for `data`.
/// `num_threads` 0 means every available core.
void Score_Pool_Init(text_expert_rec* experts, example_data* data,
                     int num_threads);

/// W[0][b][l] = the weights D(i, l) of every example whose label byte for l
/// is b, summed in example order.
void Score_Pool_Totals(const double* D, weight_table W);

/// Runs fn(begin, end, thread) over [0, n) on the scan's threads (on the
/// calling thread alone before the scan is set up). Callers write results
/// per index and combine them in index order, so results never depend on
/// the number of threads.
void Run_Parallel(int n, const std::function<void(int, int, int)>& fn);

/// Real AdaBoost.MH scan. On entry W[0] holds the label totals (zero for
/// the abstaining scan); on return W[0] holds the totals as the sequential
/// scan leaves them. Returns the index of the winner (0 if no expert scores
/// below 1.0).
int Score_Pool_Search(double* D, weight_table W, int abstaining);

/// After a real AdaBoost.MH scan whose winner `best` is a term expert: sets
/// W exactly as scoring that expert on the scan's final totals would
/// (W[1] its sums, W[2] zero, W[0] the totals after the subtract, clamp and
/// add back) from the sums the scan kept, and returns true; returns false
/// when it has none (the caller then scores the expert itself).
bool Score_Pool_Winner_Table(int best, weight_table W);

/// After an abstaining scan: W[1] and W[2] as the last scored expert left
/// them (used when the winner is of a type the abstaining scan skips).
void Score_Pool_Last_Table(weight_table W, int k);

/// Discrete scan over signed weights `s` with totals `S`; fills result[0..2]
/// with the winner's votes. Returns the winner's index.
int Score_Pool_Search_Discrete(double* s, double* S, int abstain,
                               double* result[3]);

/// Tells the next Score_Pool_Totals (or search) that the training examples
/// fall into `count` groups whose rows of D are equal in every label (and
/// whose label bytes are equal): example i is in group group_of[i], and
/// first[g] is an example of group g. The scan may then keep one weight row
/// per group. Results never depend on it.
void Score_Pool_Row_Groups(const int* group_of, const int* first, int count);

/// For tests: 0 or 1 restricts the scan to its plain loops, 2 to its AVX2
/// kernels where the processor has AVX2 (even if it has AVX-512), -1
/// restores the automatic choice of vector kernels. Results never depend
/// on it.
void Score_Pool_Use_Kernel(int level);

/// For tests: from the next Score_Pool_Init, long lists are summed `rows`
/// rows at a time (0 restores the automatic size). Results never depend on it.
void Score_Pool_Band_Rows(int rows);

#endif  // MHBOOST_SCORE_POOL_H_
