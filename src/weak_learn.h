// The weak learner: start-up (options, data, experts), the per-round search
// for the best expert under the current weights, the prediction of a chosen
// expert on any example, and the strong hypothesis file.
#ifndef MHBOOST_WEAK_LEARN_H_
#define MHBOOST_WEAK_LEARN_H_

#include <cstdio>

#include "read_data.h"
#include "sgram_expert.h"
#include "weak_parm.h"

// One entry of the strong hypothesis.
struct weak_hyp {
  text_expert_rec* hyp;
  double weight;
  int* label_map;  // class map of the never-enabled error-correcting mode
};

example_data* InitializeWeakLearner(int argc, char** argv);
/// The best expert under `distribution` (m rows of k weights), copied, with
/// its prediction vectors attached. Loss codes: 3 real, 1 and 2 discrete.
text_expert_rec* GetWeakHypothesis(double* distribution, int loss_mode,
                                   example_data* data);
text_expert_rec* GetWeakHypothesis_Table_Exp_Loss(double* distribution,
                                                  example_data* data);
text_expert_rec* GetWeakHypothesis_Table_Exp_Loss_Randomized(
    double* distribution, example_data* data);
text_expert_rec* GetWeakHypothesis_PLoss(double* distribution,
                                         example_data* data);
/// Prediction vector (k doubles) of `h` for `x`; owned by `h`.
double* EvalWeakHypothesis(text_expert_rec* h, example* x);
/// The predictions of `h` for the `n` examples whose indices are first,
/// first + 1, ... (the whole training set from 0, or the test set from m):
/// out[i] = what EvalWeakHypothesis gives for examples[i], found in one walk
/// over the occurrence list. LINEAR answers are written to `store` (n rows
/// of k; may be null for other types).
void Eval_Weak_Hypothesis_Block(text_expert_rec* h, example** examples, int n,
                                int first, double* store, const double** out);
void WriteWeakHypothesis();
[[noreturn]] void Text_Expert_Error();
[[noreturn]] void GetWeakHypothesis_Error();
text_expert_info* Get_Text_Expert_Info();
/// Prints a chosen hypothesis (-V); `discrete` selects the vote layout.
void Print_Weak_Hypothesis(text_expert_rec* h, int discrete);

// Weak learner state read by the model file and the indexing of a model.
const char* Weak_File_Stem();
term_expander Weak_Expander();
int Weak_Classification_Mode();
example_data* Weak_Data();
dataset_info* Weak_Dsi();

// ---- strong hypothesis file ----
weak_hyp* Allocate_Weak_Hyp(int count);
void CompileStrongTextHypothesis(weak_hyp* whs, int* count);
void WriteStrongHypothesis(weak_hyp* whs, int* count, int ecoc_mode);
/// Writes the model to an open stream (the layout of <stem>.shyp).
void Write_Strong_Hypothesis_To(FILE* out, weak_hyp* whs, int count);
weak_hyp* ReadStrongHypothesis(int* count);
text_expert_rec* Read_Weak_Hyp(FILE* in, int* word_count);
[[noreturn]] void EarlyEOF();

#endif  // MHBOOST_WEAK_LEARN_H_
