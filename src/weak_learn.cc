// The weak learner: start-up, the per-round search for the expert with the
// lowest score under the current weights, and the prediction of a chosen
// expert on an example.
#include "weak_learn.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstdint>
#include <cstring>
#include <vector>

#include "die.h"
#include "loss.h"
#include "score_pool.h"
#include "sgram_shyp.h"

namespace {

text_expert_info info;
const char* file_stem = nullptr;
int verbose_wh = 0;
dataset_info* dsi = nullptr;
example_data* mem_data = nullptr;
term_expander Text_Expert_Expand = nullptr;
text_expert_rec* text_experts = nullptr;
int classification_mode = 0;
int lasti = 0;
// The positions i * k + l in the weights of the labels every training
// example carries, in example order; listed by the discrete learners on
// first use and emptied whenever another training set is taken up.
std::vector<size_t> carried;
bool carried_listed = false;

// Indexes the stored model against each example read in classification mode.
void index_streamed_instance(example_data* d) {
  Index_New_Test_Instances(d->test_examples, 1, dsi);
}

double* new_vector(int k) { return static_cast<double*>(Malloc(sizeof(double) * k)); }

// Six zeroed k-vectors W[r][b].
void alloc_table(weight_table W, int k) {
  for (int r = 0; r < 3; ++r)
    for (int b = 0; b < 2; ++b) W[r][b] = new_vector(k);
}

[[noreturn]] void no_experts() {
  fprintf(stderr,
          "mhboost: %s: no candidate rules to choose from (the training data "
          "yields no terms or attribute values%s)\n",
          file_stem, info.class_index >= 0 ? " for the class given with -I" : "");
  Exit_Run(1);
}

// Turns the winner's weight sums into its prediction vectors (smoothed
// log-odds per region and label).
void predictions_from_table(weight_table W, int k, int m, int abstaining) {
  const double eps = info.smoothing / (static_cast<double>(m) * k);
  if (!abstaining) {
    for (int b = 0; b < 2; ++b)
      for (int l = 0; l < k; ++l) {
        double w = (W[0][b][l] - W[1][b][l]) - W[2][b][l];
        W[0][b][l] = w < 0 ? 0.0 : w;
      }
    for (int r = 0; r < 3; ++r)
      for (int l = 0; l < k; ++l)
        W[r][0][l] = 0.5 * log((W[r][1][l] + eps) / (W[r][0][l] + eps));
  } else {
    for (int r = 1; r < 3; ++r)
      for (int l = 0; l < k; ++l)
        W[r][1][l] = 0.5 * log((W[r][1][l] + eps) / (W[r][0][l] + eps));
  }
}

void print_values(const double* v, int k, const char* format) {
  for (int l = 0; l < k; ++l) printf(format, v[l]);
}

// The hypothesis's name line: a discrete key "attr:index" is shown with the
// value's name.
void print_name(const char* term) {
  const char* colon = strchr(term, ':');
  if (colon != nullptr && dsi != nullptr) {
    size_t len = static_cast<size_t>(colon - term);
    for (int a = 0; a < dsi->num_attributes; ++a) {
      const attribute_info& at = dsi->attributes[a];
      if (strlen(at.name) != len || strncmp(at.name, term, len) != 0) continue;
      if (at.num_values > 0) {
        int v = atoi(colon + 1);
        if (v >= 0 && v < at.num_values && at.values[v] != nullptr) {
          printf("\n%s:%s\n", at.name, at.values[v]);
          return;
        }
      }
      break;
    }
  }
  printf("\n%s\n", term);
}

}  // namespace

const char* Weak_File_Stem() { return file_stem; }
term_expander Weak_Expander() { return Text_Expert_Expand; }
int Weak_Classification_Mode() { return classification_mode; }
example_data* Weak_Data() { return mem_data; }
dataset_info* Weak_Dsi() { return dsi; }
text_expert_info* Get_Text_Expert_Info() { return &info; }

example_data* InitializeWeakLearner(int argc, char** argv) {
  classification_mode = 0;
  file_stem = Weak_Parm(argc, argv, &info);
  verbose_wh = info.verbose;
  if (file_stem == nullptr) {
    fprintf(stderr, "mhboost: no file stem given: name the data with -S <stem>\n");
    Usage(stderr, argv[0]);
    Exit_Run(1);
  }
  mem_data = Read_Data(file_stem, &dsi, info.classify_only, info.dict_mode);
  switch (info.expert_kind) {
    case 1:
      Text_Expert_Expand = Next_Ngram;
      break;
    case 2:
      Text_Expert_Expand = Next_Ngram_Full;
      break;
    default:
      Text_Expert_Expand = Next_Sparse_Ngram;
      break;
  }
  if (!info.classify_only) {
    text_experts = Create_Ngram_Experts(mem_data, Text_Expert_Expand, dsi, &info);
    Score_Pool_Init(text_experts, mem_data, info.num_threads);
    carried.clear();
    carried_listed = false;
  } else {
    classification_mode = 1;
    Set_New_Instance_Hook(index_streamed_instance);
  }
  return mem_data;
}

text_expert_rec* GetWeakHypothesis(double* distribution, int loss_mode,
                                   example_data* d) {
  switch (static_cast<unsigned>(loss_mode)) {
    case 0:
      GetWeakHypothesis_Error();
    case 1:
    case 2:
      return GetWeakHypothesis_PLoss(distribution, d);
    case 3:
      return info.abstain ? GetWeakHypothesis_Table_Exp_Loss_Randomized(distribution, d)
                          : GetWeakHypothesis_Table_Exp_Loss(distribution, d);
    default:
      fprintf(stderr, "Uknown loss mode (%d)\n", loss_mode);
      Exit_Run(1);
  }
}

text_expert_rec* GetWeakHypothesis_Table_Exp_Loss(double* D, example_data* d) {
  if (text_experts == nullptr || text_experts[0].term == nullptr) no_experts();
  const int k = d->num_classes;
  const int m = d->num_train;
  unsigned char** y = d->train_labels;
  weight_table W;
  alloc_table(W, k);
  Score_Pool_Totals(D, W);

  int best_index = Score_Pool_Search(D, W, /*abstaining=*/0);
  text_expert_rec* best = &text_experts[best_index];
  switch (best->type) {
    case kTypeFgram:
      // The scan kept the winner's sums; otherwise score it again.
      if (!Score_Pool_Winner_Table(best_index, W)) Text_Expert_Table_Exp_Loss(D, best, y, k, W);
      break;
    case kTypeThreshold:
      Text_Expert_Table_Exp_Loss_Threshold_Best(D, best, y, k, W);
      break;
    default:
      Text_Expert_Table_Exp_Loss_Linear(D, best, y, k, W);
      break;
  }
  predictions_from_table(W, k, m, 0);
  free(W[0][1]);
  free(W[1][1]);
  free(W[2][1]);
  text_expert_rec* h = Copy_Text_Expert(best, k);
  h->c0 = W[0][0];
  h->c1 = W[1][0];
  h->c2 = W[2][0];
  if (verbose_wh) Print_Weak_Hypothesis(h, 0);
  return h;
}

text_expert_rec* GetWeakHypothesis_Table_Exp_Loss_Randomized(double* D, example_data* d) {
  if (text_experts == nullptr || text_experts[0].term == nullptr) no_experts();
  const int k = d->num_classes;
  const int m = d->num_train;
  unsigned char** y = d->train_labels;
  weight_table W;
  alloc_table(W, k);
  int best_index = Score_Pool_Search(D, W, /*abstaining=*/1);
  text_expert_rec* best = &text_experts[best_index];
  switch (best->type) {
    case kTypeFgram:
      Text_Expert_Table_Exp_Loss_Randomized(D, best, y, k, W);
      break;
    case kTypeThreshold:
      Text_Expert_Table_Exp_Loss_Threshold_Best_Randomized(D, best, y, k, W);
      break;
    default:
      // Other types are never scored here; the table keeps the sums of the
      // last expert that was.
      Score_Pool_Last_Table(W, k);
      break;
  }
  predictions_from_table(W, k, m, 1);
  double* c0 = new_vector(k);  // abstains where the term does not occur
  free(W[0][0]);
  free(W[0][1]);
  free(W[1][0]);
  free(W[2][0]);
  text_expert_rec* h = Copy_Text_Expert(best, k);
  h->c0 = c0;
  h->c1 = W[1][1];
  h->c2 = W[2][1];
  if (verbose_wh) {
    printf("\n%s\n", h->term);
    printf("C1: ");
    print_values(h->c1, k, "%7.3f ");
    printf("\n");
  }
  return h;
}

namespace {

void list_carried(const example_data* d) {
  const size_t k = static_cast<size_t>(d->num_classes);
  carried.clear();
  for (int i = 0; i < d->num_train; ++i)
    for (size_t l = 0; l < k; ++l)
      if (d->train_labels[i][l]) carried.push_back(static_cast<size_t>(i) * k + l);
  if (carried.size() > static_cast<size_t>(INT32_MAX)) {
    fprintf(stderr, "Too many labels carried by the training examples\n");
    Exit_Run(1);
  }
  carried_listed = true;
}

}  // namespace

text_expert_rec* GetWeakHypothesis_PLoss(double* D, example_data* d) {
  if (text_experts == nullptr || text_experts[0].term == nullptr) no_experts();
  const int k = d->num_classes;
  const int m = d->num_train;
  double* S = new_vector(k);
  // The weights of the labels an example carries change sign for the scan
  // (and back after it); then S[l] sums label l's signed weights in
  // example order, a chain of its own for each label, so the labels are
  // shared among the threads (in vectors of eight, so that no two threads
  // read the same cache line as a rule).
  if (!carried_listed) list_carried(d);
  auto flip_carried = [&](int p0, int p1, int) {
    for (int p = p0; p < p1; ++p) D[carried[p]] = -D[carried[p]];
  };
  Run_Parallel(static_cast<int>(carried.size()), flip_carried);
  const size_t ku = static_cast<size_t>(k);
  Run_Parallel((k + 7) / 8, [&](int g0, int g1, int) {
    const int l0 = 8 * g0, l1 = std::min(k, 8 * g1);
    for (int i = 0; i < m; ++i) {
      const double* row = D + static_cast<size_t>(i) * ku;
      for (int l = l0; l < l1; ++l) S[l] += row[l];
    }
  });
  double* rc[3] = {new_vector(k), new_vector(k), new_vector(k)};
  int best_index = Score_Pool_Search_Discrete(D, S, info.abstain, rc);
  Run_Parallel(static_cast<int>(carried.size()), flip_carried);
  free(S);
  text_expert_rec* h = Copy_Text_Expert(&text_experts[best_index], k);
  h->c0 = rc[0];
  h->c1 = rc[1];
  h->c2 = rc[2];
  if (verbose_wh) Print_Weak_Hypothesis(h, 1);
  return h;
}

void Print_Weak_Hypothesis(text_expert_rec* h, int discrete) {
  const int k = mem_data->num_classes;
  print_name(h->term);
  if (discrete) {
    if (h->type == kTypeThreshold) printf("Threshold: %7.3g\n", h->threshold);
    printf("C0: ");
    print_values(h->c0, k, "%1.0f");
    printf("    C1: ");
    print_values(h->c1, k, "%1.0f");
    if (h->type == kTypeThreshold) {
      printf("    C2: ");
      print_values(h->c2, k, "%1.0f");
    }
    printf("\n");
    return;
  }
  if (h->type == kTypeThreshold) printf("Threshold: %7.3g\n", h->threshold);
  if (h->type == kTypeLinear) {
    printf("Alpha: ");
    print_values(h->linear_a, k, "%7.3f ");
    printf("\nBeta: ");
    print_values(h->linear_b, k, "%7.3f ");
    printf("\n");
  }
  printf("C0: ");
  print_values(h->c0, k, "%7.3f ");
  if (h->type != kTypeLinear) {
    printf("\nC1: ");
    print_values(h->c1, k, "%7.3f ");
  }
  if (h->type == kTypeThreshold) {
    printf("\nC2: ");
    print_values(h->c2, k, "%7.3f ");
  }
  printf("\n");
}

double* EvalWeakHypothesis(text_expert_rec* h, example* x) {
  const int index = x->index;
  if (index < 0) return Sgram_Expert_Prediction(h, x);
  const int m = mem_data->num_train;
  const int* list;
  int n;
  const double* vals;
  if (index < m) {
    list = h->train_index;
    n = h->num_train;
    vals = h->values;
  } else {
    list = h->test_index;
    n = h->num_test;
    vals = h->test_values;
  }
  if (n == 0) return h->c0;
  // Examples are evaluated in increasing order, so the search resumes where
  // the previous one stopped. The cursor is kept only while every entry
  // before it is below the sought index (it may come from another list);
  // otherwise the search starts again from 0.
  if (lasti < 0 || lasti > n || (lasti > 0 && list[lasti - 1] >= index)) lasti = 0;
  while (lasti < n && list[lasti] < index) lasti++;
  if (lasti >= n || list[lasti] != index) return h->c0;
  if (vals == nullptr) return h->c1;
  const double v = vals[lasti];
  switch (h->type) {
    case kTypeThreshold:
      return h->threshold > v ? h->c1 : h->c2;
    case kTypeLinear: {
      const int k = mem_data->num_classes;
      for (int l = 0; l < k; ++l) h->c1[l] = h->linear_a[l] * v + h->linear_b[l];
      return h->c1;
    }
    default:
      return Sgram_Expert_Prediction(h, x);
  }
}

void Eval_Weak_Hypothesis_Block(text_expert_rec* h, example** examples, int n,
                                int first, double* store, const double** out) {
  const int m = mem_data->num_train;
  const bool training = first < m;
  const int* list = training ? h->train_index : h->test_index;
  const int len = training ? h->num_train : h->num_test;
  const double* vals = training ? h->values : h->test_values;
  if (first < 0 || (training && first + n > m)) {
    // Not one whole run of indexed examples of one set: one at a time.
    for (int i = 0; i < n; ++i) out[i] = EvalWeakHypothesis(h, examples[i]);
    return;
  }
  for (int i = 0; i < n; ++i) out[i] = h->c0;
  if (len == 0) return;
  const int k = mem_data->num_classes;
  const double* last_linear = nullptr;
  // One walk over the occurrence list: every listed example of the block
  // gets the answer of its (first) entry, every other one keeps c0.
  for (int p = 0; p < len; ++p) {
    const int i = list[p] - first;
    if (i < 0 || i >= n || (p > 0 && list[p - 1] == list[p])) continue;
    if (vals == nullptr) {
      out[i] = h->c1;
      continue;
    }
    const double v = vals[p];
    switch (h->type) {
      case kTypeThreshold:
        out[i] = h->threshold > v ? h->c1 : h->c2;
        break;
      case kTypeLinear: {
        double* row = store + static_cast<size_t>(i) * k;
        for (int l = 0; l < k; ++l) row[l] = h->linear_a[l] * v + h->linear_b[l];
        out[i] = row;
        last_linear = row;
        break;
      }
      default:
        out[i] = Sgram_Expert_Prediction(h, examples[i]);
        break;
    }
  }
  // c1 of a LINEAR hypothesis is left holding the last answer, as after
  // calls one example at a time.
  if (last_linear != nullptr) memcpy(h->c1, last_linear, sizeof(double) * k);
}

void WriteWeakHypothesis() { fprintf(stderr, "Not implemented yet...\n"); }

void Text_Expert_Error() {
  fprintf(stderr, "Error mode not implemented for the overlpping labels setting\n");
  Exit_Run(1);
}

void GetWeakHypothesis_Error() {
  fprintf(stderr, "Error mode not implemented for the overlpping labels setting\n");
  Exit_Run(1);
}
