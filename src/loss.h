// Scoring of candidate experts against the current weights: the real
// AdaBoost.MH family (term, threshold, abstaining and refit members), the
// discrete family (votes 1, 0, 0.5), and linear experts on continuous
// attributes.
#ifndef MHBOOST_LOSS_H_
#define MHBOOST_LOSS_H_

#include "sgram_expert.h"

// W[r][b]: k weights of region r (0 absent/unknown, 1 occurs/below, 2 at or
// above the threshold) and label sign b (0 absent, 1 present).
using weight_table = double* [3][2];

// ---- real AdaBoost.MH ----
long double Text_Expert_Table_Exp_Loss(double* D, text_expert_rec* e,
                                       unsigned char** labels, int k,
                                       weight_table W);
long double Text_Expert_Table_Exp_Loss_Randomized(double* D, text_expert_rec* e,
                                                  unsigned char** labels, int k,
                                                  weight_table W);
long double Text_Expert_Table_Exp_Loss_Threshold(double* D, text_expert_rec* e,
                                                 unsigned char** labels, int k,
                                                 weight_table W);
long double Text_Expert_Table_Exp_Loss_Threshold_Randomized(
    double* D, text_expert_rec* e, unsigned char** labels, int k,
    weight_table W);
void Text_Expert_Table_Exp_Loss_Threshold_Best(double* D, text_expert_rec* e,
                                               unsigned char** labels, int k,
                                               weight_table W);
long double Text_Expert_Table_Exp_Loss_Threshold_Best_Randomized(
    double* D, text_expert_rec* e, unsigned char** labels, int k,
    weight_table W);
/// Stores the threshold of sorted split position p (-1 .. n-1).
double Threshold_At(const double* sorted_values, int n, int p);

// ---- linear experts ----
long double Text_Expert_Table_Exp_Loss_Linear(double* D, text_expert_rec* e,
                                              unsigned char** labels, int k,
                                              weight_table W);
double ExpectedValue(const double* a, const double* q, int n);
void ComputeNewAlpha(double* alpha, const double* q, const double* x,
                     const int* s, int n);
void ComputeNewAlphaBeta(double* alpha, double* beta, const double* q,
                         const double* x, const int* s, int n);
void ComputeNewVirtDist(double* q, const double* D, double alpha, double beta,
                        const double* x, const int* s, int k, int n, int l,
                        const int* list);
double ComputeZ(int n, const double* w, const int* s, double alpha,
                const double* x, double beta);

// ---- discrete boosting (signed weights s, totals S) ----
double Text_Expert_PLoss(double* s, text_expert_rec* e, int k, double* S,
                         double* c0, double* c1);
double Text_Expert_PLoss_Randomized(double* s, text_expert_rec* e, int k,
                                    double* S, double* c0, double* c1);
double Text_Expert_PLoss_Threshold(double* s, text_expert_rec* e, int k,
                                   double* S, double* c0, double* c1,
                                   double* c2);
double Text_Expert_PLoss_Threshold_Randomized(double* s, text_expert_rec* e,
                                              int k, double* S, double* c0,
                                              double* c1, double* c2);
/// A quick estimate of Text_Expert_PLoss (with `abstain`, of
/// Text_Expert_PLoss_Randomized): the same per-label terms, added in another
/// order. *magnitude receives the sum of their absolute values, which
/// bounds how far the estimate and the score can differ (by a few units in
/// the last place of it per label). `r1` is scratch space for k sums.
double Text_Expert_PLoss_Estimate(const double* s, const text_expert_rec* e, int k,
                                  const double* S, bool abstain, double* r1,
                                  double* magnitude);
/// Vote of a region from its signed sum: 1 below 0, 0 above, 0.5 at 0/NaN.
double Region_Vote(double r);

#endif  // MHBOOST_LOSS_H_
