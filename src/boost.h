// The booster: its options, the boosting rounds, the weights over (example,
// label) pairs, evaluation and progress reports, prediction output, and
// classification of standard input with a stored model.
#ifndef MHBOOST_BOOST_H_
#define MHBOOST_BOOST_H_

#include "read_data.h"
#include "weak_learn.h"

// Run configuration, set by parse_options.
extern int num_trials;
extern int display_hyp_freq;
extern int soft_threshold;
extern int modify_dist_mode;
extern int diff_wts_mode;
extern int resample_mode;
extern int loss_mode;
extern int ecoc_mode;
extern double reject_threshold;
extern int output_pred_mode;
extern int classify_new_test_mode;
extern int load_model;
extern int utility_mode;
extern double utility[4];

// Training state.
extern example_data* data;
extern struct weak_hyp* weak_hyp;
extern int num_weak_hyps;

void parse_options(int argc, char** argv);
void boost();
void use_old_hyp();

// Evaluation and output of the strong hypothesis.
double* eval_strong_hyp(double* sums, double* out_margin);
void eval_error(int n, example** instances, unsigned char** labels,
                double** sums, double* out_err, double* out_rej_err,
                double* out_rej_frac);
void display_strong_hyp();
void output_all_preds();
void output_preds(int n, example** instances, unsigned char** labels,
                  double** sums);
/// The weights handed to the weak learner, and (once training has ended)
/// the training examples' score sums.
double* Distribution();
double** Train_Sums();

/// One example's error and margin as the report finds them (for tests).
void Example_Error(const double* sums, const unsigned char* y, double* wrong, double* margin);
/// For tests: rows' top scores are found at most `lanes` labels at a time
/// (8 with AVX-512, 4 with AVX2, 0 by the scalar loop), as far as the
/// processor allows; returns the width now in use.
int Limit_Top_Scan_Width(int lanes);

#endif  // MHBOOST_BOOST_H_
