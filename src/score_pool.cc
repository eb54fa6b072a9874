// Sequential scan over the candidate experts.
#include "score_pool.h"

#include <cstdlib>
#include <cstring>

namespace {

text_expert_rec* experts = nullptr;
example_data* data_set = nullptr;
int num_labels = 0;
// Sums of the last expert scored by the abstaining scan.
double* last_w[2][2] = {{nullptr, nullptr}, {nullptr, nullptr}};

double* zeroed(int k) { return static_cast<double*>(calloc(k > 0 ? k : 1, sizeof(double))); }

}  // namespace

void Score_Pool_Init(text_expert_rec* e, example_data* d, int /*num_threads*/) {
  experts = e;
  data_set = d;
  num_labels = d->num_classes;
  for (auto& r : last_w)
    for (auto& v : r) v = zeroed(num_labels);
}

int Score_Pool_Search(double* D, weight_table W, int abstaining) {
  const int k = num_labels;
  unsigned char** y = data_set->train_labels;
  double best = 1.0;
  int best_index = 0;
  long double score = 0;
  for (int e = 0; experts[e].term != nullptr; ++e) {
    text_expert_rec* x = &experts[e];
    if (!abstaining) {
      if (x->type == kTypeFgram)
        score = Text_Expert_Table_Exp_Loss(D, x, y, k, W);
      else if (x->type == kTypeThreshold)
        score = Text_Expert_Table_Exp_Loss_Threshold(D, x, y, k, W);
      else
        score = Text_Expert_Table_Exp_Loss_Linear(D, x, y, k, W);
    } else {
      // Experts of other types are not scored here: the previous score
      // stands for them.
      if (x->type == kTypeFgram)
        score = Text_Expert_Table_Exp_Loss_Randomized(D, x, y, k, W);
      else if (x->type == kTypeThreshold)
        score = Text_Expert_Table_Exp_Loss_Threshold_Randomized(D, x, y, k, W);
    }
    const double s = static_cast<double>(score);
    if (s < best) {
      best = s;
      best_index = e;
    }
  }
  if (abstaining)
    for (int r = 0; r < 2; ++r)
      for (int b = 0; b < 2; ++b) memcpy(last_w[r][b], W[r + 1][b], sizeof(double) * k);
  return best_index;
}

void Score_Pool_Last_Table(weight_table W, int k) {
  for (int r = 0; r < 2; ++r)
    for (int b = 0; b < 2; ++b) memcpy(W[r + 1][b], last_w[r][b], sizeof(double) * k);
}

int Score_Pool_Search_Discrete(double* s, double* S, int abstain, double* result[3]) {
  const int k = num_labels;
  double* c[3] = {zeroed(k), zeroed(k), zeroed(k)};
  double best = 1.0;
  int best_index = 0;
  for (int e = 0; experts[e].term != nullptr; ++e) {
    text_expert_rec* x = &experts[e];
    double score;
    if (x->type == kTypeThreshold)
      score = abstain ? Text_Expert_PLoss_Threshold_Randomized(s, x, k, S, c[0], c[1], c[2])
                      : Text_Expert_PLoss_Threshold(s, x, k, S, c[0], c[1], c[2]);
    else
      score = abstain ? Text_Expert_PLoss_Randomized(s, x, k, S, c[0], c[1])
                      : Text_Expert_PLoss(s, x, k, S, c[0], c[1]);
    if (score < best) {
      best = score;
      best_index = e;
      for (int r = 0; r < 3; ++r) memcpy(result[r], c[r], sizeof(double) * k);
    }
  }
  for (double* v : c) free(v);
  return best_index;
}
