// The booster: its options, the rounds of boosting, the weights over
// (example, label) pairs, evaluation of the strong hypothesis with progress
// reports, long-form predictions, and classification of standard input with
// a stored model.
#include "boost.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <immintrin.h>

#include "die.h"
#include "optscan.h"
#include "score_pool.h"
#include "vec_exp.h"
#include "weak_learn.h"

int num_trials = 10;
int display_hyp_freq = 1;
int soft_threshold = 0;
int modify_dist_mode = 1;
int diff_wts_mode = 0;
int resample_mode = 0;
int loss_mode = 3;
int ecoc_mode = 0;
double reject_threshold = 0.0;
int output_pred_mode = 0;
int classify_new_test_mode = 0;
int load_model = 0;
int utility_mode = 0;
double utility[4];

example_data* data = nullptr;
struct weak_hyp* weak_hyp = nullptr;
int num_weak_hyps = 0;

namespace {

double total_wh_wt = 0.0;
int first_nonzero_wt = -1;

// Per-example score sums: written out from the groups below when training
// ends, and used directly when classifying standard input.
double** train_sum_wh = nullptr;
double** test_sum_wh = nullptr;

const bool has_avx512 = [] {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx512f") != 0;
}();
const bool has_avx2 = __builtin_cpu_supports("avx2") != 0;

double* distribution = nullptr;
double* log_dist = nullptr;
double* virtual_dist = nullptr;

// Examples that carry the same labels and to which every weak hypothesis so
// far has answered with the same prediction vector have, bit for bit, the
// same score sums, errors and (real AdaBoost.MH) log weights, since each is
// made by the same operations on the same operands. Such examples form a
// group, and every per-label quantity is computed once per group; sums whose
// order matters (the normaliser Z, the error totals) still run over the
// examples in order. Groups are numbered by their first example, so a group
// never numbers below the group it was split from.
//
// A group's per-label values live in a row of k doubles. When a group
// splits, the part holding its first example (its heir) keeps the row and
// is updated in place; every other part gets a new row, filled from the old
// row before the heirs overwrite theirs. There are always as many rows as
// groups.
struct example_groups {
  int n = 0;                           // examples of the set
  int count = 0;                       // groups (and rows)
  std::vector<int> of;                 // group of each example
  std::vector<unsigned char> labels;   // each example's k label bytes, in one block
  std::vector<int> first;              // first example of each group
  std::vector<int> row;                // row of each group
  std::vector<int> from_row;           // row it was split from (its own for heirs)
  std::vector<int> new_rows;           // groups with a new row at the last split
  std::vector<int> heirs;              // groups that kept their row, in order
  std::vector<const double*> pred;     // the last hypothesis's answer per group
  std::vector<const double*> pred_of;  // the last hypothesis's answer per example
  std::vector<double> linear_rows;     // answers of a LINEAR hypothesis, n rows
  std::vector<double> sums;            // score sums, one row per group
  std::vector<double> wrong, margin;   // error and margin per group (reports)
  std::vector<int> slot;               // split work: 4 slots per old group
  std::vector<int> next_row;           // split work
};

example_groups train_groups, test_groups;

// Runs fn(h, from, to) for every group of the last split, on all threads:
// first the groups with new rows, then the heirs (from == to), so that an
// old row is read before it is overwritten.
template <typename Fn>
void for_each_split_group(const example_groups& g, const Fn& fn) {
  Run_Parallel(static_cast<int>(g.new_rows.size()), [&](int j0, int j1, int) {
    for (int j = j0; j < j1; ++j) {
      const int h = g.new_rows[j];
      fn(h, g.from_row[h], g.row[h]);
    }
  });
  Run_Parallel(static_cast<int>(g.heirs.size()), [&](int j0, int j1, int) {
    for (int j = j0; j < j1; ++j) {
      const int h = g.heirs[j];
      fn(h, g.row[h], g.row[h]);
    }
  });
}

// Real AdaBoost.MH: log weights and their exponentials per training group.
// The subtraction of ln Z that ends a round is carried to the next round's
// update, which then does both roundings in the original order.
std::vector<double> group_log, group_exp;
double pending_log_z = 0.0;
bool log_z_pending = false;

const char kHelpText[] =
    "Version 2.1 (4/12/2001)\n"
    "\n"
    "Options are:\n"
    "  -f              : frequency of displaying hypotheses (0 = never; def. = 1)\n"
    "  -l              : use 'discrete AdaBoost.MR' (rather than 'real AdaBoost.MH')\n"
    "  -z              : use 'discrete AdaBoost.MH' (rather than 'real AdaBoost.MH')\n"
    "  -n <num>        : specify number of rounds\n"
    "  -o              : output predictions in long form on train/test data\n"
    "  -p              : load the model stored currently in <stem>.shyp\n"
    "                     (unimplemented with -l and -z options)\n"
    "  -r <num>        : specify random seed\n";

// The option parser's own fatal style: on standard output, status 255.
[[noreturn]] void crash_option(const char* message) {
  printf("FATAL ERROR: %s\n", message);
  Exit_Run(255);
}

// m rows of k zeroed doubles in one block.
double** alloc_rows(int rows, int k) {
  double** p = static_cast<double**>(Malloc(sizeof(double*) * (rows > 0 ? rows : 1)));
  double* block = static_cast<double*>(
      Malloc(sizeof(double) * (static_cast<size_t>(rows) * k + 1)));
  for (int i = 0; i < rows; ++i) p[i] = block + static_cast<size_t>(i) * k;
  return p;
}

double normaliser() {
  return first_nonzero_wt < 0 ? static_cast<double>(num_weak_hyps) : total_wh_wt;
}

// Whether example i carries class 1 (the second class) in utility mode.
int carries_class1(const unsigned char* y, int k) { return k > 1 && y[1] != 0; }

// a + b and a * b, except that when both operands are not numbers the
// result is the first one (its sign and payload). Where two NaNs can meet,
// which one a result carries (and so whether it prints as "nan" or "-nan")
// is fixed here rather than left to how the compiler orders the operands.
inline double add_nan_first(double a, double b) { return a != a ? a : a + b; }
inline double mul_nan_first(double a, double b) { return a != a ? a : a * b; }

// add_nan_first and mul_nan_first on four lanes: a NaN first operand is
// the result as it is; otherwise the plain operation, which passes on a
// NaN second operand as the scalar one does.
__attribute__((target("avx2"), always_inline)) inline __m256d add_nan_first4(__m256d a, __m256d b) {
  return _mm256_blendv_pd(_mm256_add_pd(a, b), a, _mm256_cmp_pd(a, a, _CMP_UNORD_Q));
}
__attribute__((target("avx2"), always_inline)) inline __m256d mul_nan_first4(__m256d a, __m256d b) {
  return _mm256_blendv_pd(_mm256_mul_pd(a, b), a, _mm256_cmp_pd(a, a, _CMP_UNORD_Q));
}

// Mask of the lanes [l, l + 4) below k.
__attribute__((target("avx2"), always_inline)) inline __m256i lanes_below(int k, int l) {
  return _mm256_cmpgt_epi64(_mm256_set1_epi64x(k - l), _mm256_setr_epi64x(0, 1, 2, 3));
}

// add_prediction's weighted branch with AVX2.
__attribute__((target("avx2"))) void add_weighted_avx2(double w, const double* old_sums, bool reset,
                                                       const double* preds, double* sums, int k) {
  const __m256d wv = _mm256_set1_pd(w);
  // Whole vectors with plain loads and stores (a masked store is slow on
  // some processors), the last labels under a mask.
  int l = 0;
  for (; l + 4 <= k; l += 4) {
    const __m256d old = reset ? _mm256_setzero_pd() : _mm256_loadu_pd(old_sums + l);
    _mm256_storeu_pd(sums + l, add_nan_first4(mul_nan_first4(wv, _mm256_loadu_pd(preds + l)), old));
  }
  if (l < k) {
    const __m256i lanes = lanes_below(k, l);
    const __m256d p = _mm256_maskload_pd(preds + l, lanes);
    const __m256d old = reset ? _mm256_setzero_pd() : _mm256_maskload_pd(old_sums + l, lanes);
    _mm256_maskstore_pd(sums + l, lanes, add_nan_first4(mul_nan_first4(wv, p), old));
  }
}

// sums += the weighted prediction of the newest hypothesis; the sums start
// again from zero at the first hypothesis with a non-zero weight.
void add_prediction(const struct weak_hyp* entry, const double* old_sums,
                    const double* preds, double* sums, int k) {
  const bool reset = num_weak_hyps - 1 <= first_nonzero_wt;
  if (first_nonzero_wt >= 0 && has_avx2) {
    add_weighted_avx2(entry->weight, old_sums, reset, preds, sums, k);
  } else if (first_nonzero_wt < 0) {
    for (int l = 0; l < k; ++l) sums[l] = add_nan_first(reset ? 0.0 : old_sums[l], preds[l]);
  } else {
    const double w = entry->weight;
    for (int l = 0; l < k; ++l)
      sums[l] = add_nan_first(mul_nan_first(w, preds[l]), reset ? 0.0 : old_sums[l]);
  }
}

void call_weak_learner(struct weak_hyp* entry) {
  entry->hyp = GetWeakHypothesis(distribution, loss_mode == 3 ? 3 : 1, data);
}

// Sizes a buffer of group rows to `size` doubles. Groups only ever split,
// up to one per example (`limit` doubles), so the buffer is given room for
// that many at once: the rows are never copied as the groups multiply, and
// the pages beyond the rows in use are never touched.
void size_rows(std::vector<double>* v, size_t size, size_t limit) {
  if (v->capacity() < limit) v->reserve(limit);
  v->resize(size);
}

// One group per distinct label vector, with zero score sums.
void init_groups(example_groups* g, int n, unsigned char** labels, int k) {
  g->n = n;
  g->of.assign(n, 0);
  g->pred_of.assign(n, nullptr);
  // The examples' own label vectors lie scattered between their texts; the
  // per-group loops read them in example order from one block instead.
  g->labels.resize(static_cast<size_t>(n) * k);
  for (int i = 0; i < n; ++i)
    if (k > 0) memcpy(&g->labels[static_cast<size_t>(i) * k], labels[i], k);
  g->first.clear();
  std::unordered_map<std::string, int> seen;
  for (int i = 0; i < n; ++i) {
    auto found = seen.emplace(std::string(reinterpret_cast<const char*>(labels[i]), k),
                              static_cast<int>(g->first.size()));
    if (found.second) g->first.push_back(i);
    g->of[i] = found.first->second;
  }
  g->count = static_cast<int>(g->first.size());
  g->row.resize(g->count);
  for (int h = 0; h < g->count; ++h) g->row[h] = h;
  g->sums.assign(static_cast<size_t>(g->count) * k, 0.0);
}

// Evaluates the hypothesis on the whole set (examples have indices first,
// first + 1, ...) and splits every group by the answer its examples got.
// Answers that are not one of the hypothesis's three vectors (LINEAR) are
// particular to their example, which then starts a group of its own.
void split_groups(example_groups* g, text_expert_rec* h, example** examples, int first,
                  int k) {
  double* store = nullptr;
  if (h->type == kTypeLinear) {
    g->linear_rows.resize(static_cast<size_t>(g->n) * k);
    store = g->linear_rows.data();
  }
  Eval_Weak_Hypothesis_Block(h, examples, g->n, first, store, g->pred_of.data());
  const int old_count = g->count;
  // slot[4 * old + r]: the new group of old group `old` for answer r; the
  // fourth slot marks that the heir is taken.
  g->slot.assign(4 * static_cast<size_t>(old_count), -1);
  g->first.clear();
  g->pred.clear();
  g->next_row.clear();
  g->from_row.clear();
  g->new_rows.clear();
  g->heirs.clear();
  int count = 0;
  for (int i = 0; i < g->n; ++i) {
    const double* p = g->pred_of[i];
    const int r = p == h->c0 ? 0 : p == h->c1 ? 1 : p == h->c2 ? 2 : 3;
    const int old = g->of[i];
    int* slots = &g->slot[4 * static_cast<size_t>(old)];
    int id = r < 3 ? slots[r] : -1;
    if (id < 0) {
      id = count++;
      g->first.push_back(i);
      g->pred.push_back(p);
      g->from_row.push_back(g->row[old]);
      if (slots[3] < 0) {  // the part holding the old group's first example
        slots[3] = id;
        g->next_row.push_back(g->row[old]);
        g->heirs.push_back(id);
      } else {
        g->next_row.push_back(old_count + static_cast<int>(g->new_rows.size()));
        g->new_rows.push_back(id);
      }
      if (r < 3) slots[r] = id;
    }
    g->of[i] = id;
  }
  g->count = count;
  g->row.swap(g->next_row);
}

// The per-example score sums, one row per example.
double** expand_sums(const example_groups& g, int k) {
  double** rows = alloc_rows(g.n, k);
  for (int i = 0; i < g.n; ++i)
    if (k > 0)
      memcpy(rows[i], &g.sums[static_cast<size_t>(g.row[g.of[i]]) * k], sizeof(double) * k);
  return rows;
}

}  // namespace

double* Distribution() { return distribution; }
double** Train_Sums() { return train_sum_wh; }

void parse_options(int argc, char** argv) {
  num_trials = 10;
  display_hyp_freq = 1;
  soft_threshold = 0;
  modify_dist_mode = 1;
  diff_wts_mode = 0;
  resample_mode = 0;
  loss_mode = 3;
  ecoc_mode = 0;
  reject_threshold = 0.0;
  output_pred_mode = 0;
  classify_new_test_mode = 0;
  load_model = 0;

  option_scanner* s = &g_opt;
  Reset_Scanner(s);
  // Every capital letter is listed so that the weak learner's options are
  // accepted here; their arguments are passed over by the skip below.
  const char* const kOptions = "n:r:f:m:sexudcbht:lozpABCDEFGHIJKLMNOPQRSTUVWXYZ";
  for (;;) {
    while (s->nextchar == 0 && s->optind < argc && argv[s->optind][0] != '-')
      s->optind++;
    int c = Scan_Option(s, argc, argv, kOptions);
    if (c == -1) break;
    switch (c) {
      case 'n':
        num_trials = atoi(s->optarg);
        break;
      case 'r':
        srandom(atoi(s->optarg));
        break;
      case 'f':
        display_hyp_freq = atoi(s->optarg);
        break;
      case 'm':
        utility_mode = 1;
        utility[0] = atof(s->optarg);
        for (int u = 1; u < 4; ++u) {
          if (s->optind >= argc) {
            fprintf(stderr, "mhboost: -m needs four utility values\n");
            Exit_Run(1);
          }
          utility[u] = atof(argv[s->optind++]);
        }
        printf("utility = %lf %lf %lf %lf \n", utility[0], utility[1], utility[2],
               utility[3]);
        break;
      case 's':
        soft_threshold = 1;
        break;
      case 't':
        reject_threshold = atof(s->optarg);
        break;
      case 'l':
        loss_mode = 2;
        break;
      case 'z':
        loss_mode = 1;
        diff_wts_mode = 1;
        break;
      case 'u':
        modify_dist_mode = 0;
        diff_wts_mode = 0;
        break;
      case 'o':
        output_pred_mode = 1;
        break;
      case 'p':
        load_model = 1;
        break;
      case 'C':
        classify_new_test_mode = 1;
        break;
      case 'e':
        loss_mode = 0;
        crash_option("Error mode unimplemented");
      case 'x':
        modify_dist_mode = 2;
        diff_wts_mode = 0;
        crash_option("Arc-x4 unimplemented");
      case 'd':
        resample_mode = 1;
        crash_option("Resampling unimplemented");
      case 'c':
        ecoc_mode = 1;
        crash_option("ECOC unimplemented");
      case 'b':
        ecoc_mode = 2;
        crash_option("ECOC unimplemented");
      case 'h':
        fputs(kHelpText, stdout);
        argv[1] = const_cast<char*>("-h");
        Reset_Scanner(s);
        InitializeWeakLearner(2, argv);
        Exit_Run(1);  // not reached: the weak learner's help ends the run
      case '?':
        fprintf(stderr, "bad parameter received -- %d\n", '?');
        Exit_Run(255);
      default:
        break;  // the weak learner's letters
    }
  }
  Reset_Scanner(s);
  if (load_model && loss_mode != 3) {
    fprintf(stderr, "-p option unimplemented with -z or -l options.\n");
    Exit_Run(255);
  }
}

namespace {

void init_memos() {
  const int k = data->num_classes;
  init_groups(&train_groups, data->num_train, data->train_labels, k);
  init_groups(&test_groups, data->num_test, data->test_labels, k);
}

// Real AdaBoost.MH's weights, in a zeroed block of `count` doubles. Blocks
// of several MB sit on huge pages: threshold sweeps read their rows in the
// order of an attribute's values, at random in memory.
double* alloc_weights(size_t count) {
  const size_t bytes = sizeof(double) * count;
  if (bytes < size_t{4} << 20) return static_cast<double*>(Malloc(bytes));
  double* p = static_cast<double*>(Malloc_Huge(bytes));
  memset(p, 0, bytes);
  return p;
}

void init_distribution() {
  const int m = data->num_train;
  const int k = data->num_classes;
  unsigned char** y = data->train_labels;
  if (utility_mode && k > 2) {
    fprintf(stderr, "Utility mode limited to binary classification\n");
    Exit_Run(1);
  }
  const double w0 = utility[0] - utility[1];
  const double w1 = utility[3] - utility[2];
  const size_t mk = static_cast<size_t>(m) * k;
  switch (loss_mode) {
    case 3:
      distribution = alloc_weights(mk + 1);
      log_dist = static_cast<double*>(Malloc(sizeof(double) * (mk + 1)));
      if (!utility_mode) {
        const double w = 1.0 / (static_cast<double>(m) * k);
        const double lw = log(w);
        for (size_t j = 0; j < mk; ++j) {
          distribution[j] = w;
          log_dist[j] = lw;
        }
      } else {
        double sum = 0.0;
        for (int i = 0; i < m; ++i)
          for (int l = 0; l < k; ++l) {
            double w = carries_class1(y[i], k) ? w1 : w0;
            distribution[i * k + l] = w;
            log_dist[i * k + l] = log(w);
            sum += w;
          }
        const double s = 1.0 / sum;
        const double ls = log(s);
        for (size_t j = 0; j < mk; ++j) {
          distribution[j] *= s;
          log_dist[j] += ls;
        }
      }
      // The groups are made by label vector, which alone sets these values.
      group_log.clear();
      size_rows(&group_log, static_cast<size_t>(train_groups.count) * k, mk);
      for (int h = 0; h < train_groups.count; ++h)
        if (k > 0)
          memcpy(&group_log[static_cast<size_t>(h) * k],
                 log_dist + static_cast<size_t>(train_groups.first[h]) * k,
                 sizeof(double) * k);
      free(log_dist);
      log_dist = nullptr;
      log_z_pending = false;
      break;
    case 1:
      distribution = static_cast<double*>(Malloc(sizeof(double) * (mk + 1)));
      if (!utility_mode) {
        const double w = 1.0 / (static_cast<double>(m) * k);
        for (size_t j = 0; j < mk; ++j) distribution[j] = w;
      } else {
        double sum = 0.0;
        for (int i = 0; i < m; ++i)
          for (int l = 0; l < k; ++l) {
            double w = carries_class1(y[i], k) ? w1 : w0;
            distribution[i * k + l] = w;
            sum += w;
          }
        for (size_t j = 0; j < mk; ++j) distribution[j] /= sum;
      }
      break;
    case 2: {
      if (utility_mode) {
        fprintf(stderr, "Utility mode not implemented for pseudo loss\n");
        Exit_Run(1);
      }
      distribution = static_cast<double*>(Malloc(sizeof(double) * (mk + 1)));
      virtual_dist = static_cast<double*>(Malloc(sizeof(double) * (mk + 1)));
      const double c = sqrt(0.5 / m);
      for (int i = 0; i < m; ++i) {
        int absent = 0, present = 0;
        for (int l = 0; l < k; ++l) {
          if (y[i][l])
            present++;
          else
            absent++;
        }
        for (int l = 0; l < k; ++l) {
          double v = c / (y[i][l] ? present : absent);
          virtual_dist[i * k + l] = v;
          distribution[i * k + l] = c * v;
        }
      }
      break;
    }
    default:
      distribution = static_cast<double*>(Malloc(sizeof(double) * (m + 1)));
      for (int i = 0; i < m; ++i) distribution[i] = 1.0 / m;
      break;
  }
}

// Lines [c0, c1) of the distribution, line c being the eight weights that
// start at flat position head + 8c of `d` (a 64-byte boundary): each the
// exponential of its example's group row, times inv when `scale`, as
// mul_nan_first makes it. A line holds the end of one example's row and the
// start of the next where it crosses a row boundary (k >= 8, so never more
// than two). The lines are written past the caches: the weights of a round
// outgrow them, and a plain store would first read each line in.
__attribute__((target("avx512f"))) void stream_weight_lines(double* d, const double* e,
                                                          const int* of, const int* rows,
                                                          size_t k, double inv, bool scale,
                                                          size_t head, size_t c0, size_t c1) {
  const __m512d vinv = _mm512_set1_pd(inv);
  for (size_t c = c0; c < c1; ++c) {
    const size_t j = head + 8 * c;
    const size_t i = j / k, l = j - i * k;
    const double* row = e + static_cast<size_t>(rows[of[i]]) * k;
    __m512d v;
    if (l + 8 <= k) {
      v = _mm512_loadu_pd(row + l);
    } else {
      const __mmask8 own = static_cast<__mmask8>((1u << (k - l)) - 1);
      v = _mm512_maskz_loadu_pd(own, row + l);
      const double* next = e + static_cast<size_t>(rows[of[i + 1]]) * k;
      v = _mm512_mask_expandloadu_pd(v, static_cast<__mmask8>(~own), next);
    }
    if (scale) {
      const __mmask8 nan = _mm512_cmp_pd_mask(v, v, _CMP_UNORD_Q);
      v = _mm512_mask_mov_pd(_mm512_mul_pd(v, vinv), nan, v);
    }
    _mm512_stream_pd(d + j, v);
  }
  // The streamed lines reach memory before any thread reads them.
  _mm_sfence();
}

// The AVX2 form of stream_weight_lines, with vectors of four weights:
// vectors [c0, c1) of the distribution, vector c being the four weights
// that start at flat position head + 4c (a 32-byte boundary). A vector
// holds the end of one example's row and the start of the next where it
// crosses a row boundary (k >= 4, so never more than two).
__attribute__((target("avx2"))) void stream_weight_vectors(double* d, const double* e,
                                                           const int* of, const int* rows,
                                                           size_t k, double inv, bool scale,
                                                           size_t head, size_t c0, size_t c1) {
  const __m256d vinv = _mm256_set1_pd(inv);
  const __m256i lane = _mm256_setr_epi64x(0, 1, 2, 3);
  size_t i = (head + 4 * c0) / k, l = head + 4 * c0 - i * k;
  for (size_t c = c0; c < c1; ++c) {
    const double* row = e + static_cast<size_t>(rows[of[i]]) * k;
    __m256d v;
    if (l + 4 <= k) {
      v = _mm256_loadu_pd(row + l);
    } else {
      // Lanes below `own` from this row, the others from the next one.
      const __m256i own = _mm256_cmpgt_epi64(_mm256_set1_epi64x(static_cast<long long>(k - l)), lane);
      const double* next = e + static_cast<size_t>(rows[of[i + 1]]) * k;
      v = _mm256_or_pd(_mm256_maskload_pd(row + l, own),
                       _mm256_maskload_pd(next - (k - l), _mm256_xor_si256(own, _mm256_set1_epi64x(-1))));
    }
    if (scale) {
      const __m256d nan = _mm256_cmp_pd(v, v, _CMP_UNORD_Q);
      v = _mm256_blendv_pd(_mm256_mul_pd(v, vinv), v, nan);
    }
    _mm256_stream_pd(d + head + 4 * c, v);
    l += 4;
    if (l >= k) {
      l -= k;
      ++i;
    }
  }
  // The streamed vectors reach memory before any thread reads them.
  _mm_sfence();
}

// Real AdaBoost.MH: distribution = the exponentials of the log weights,
// divided by Z (`err`) unless -u keeps them as they are; ln Z is then taken
// off the log weights at the start of the next update.
void publish_distribution(double err) {
  const int m = data->num_train;
  const int k = data->num_classes;
  const bool scale = modify_dist_mode != 0;
  double inv = 1.0;
  if (scale) {
    pending_log_z = log(err);
    log_z_pending = true;
    inv = 1.0 / err;
  }
  const int* of = train_groups.of.data();
  const int* rows = train_groups.row.data();
  const double* e = group_exp.data();
  double* d = distribution;
  const size_t ku = static_cast<size_t>(k);
  auto weight = [&](size_t j) {
    const size_t i = j / ku;
    const double w = e[static_cast<size_t>(rows[of[i]]) * ku + (j - i * ku)];
    return scale ? mul_nan_first(w, inv) : w;
  };
  const size_t total = static_cast<size_t>(m) * ku;
  // Vectors of eight (AVX-512) or four (AVX2) weights.
  const size_t width = has_avx512 && k >= 8 ? 8 : has_avx2 && k >= 4 ? 4 : 0;
  if (width != 0 && total / width <= static_cast<size_t>(INT32_MAX)) {
    // Flat positions before the first aligned vector and after the last
    // whole one are written here, the vectors between on all threads.
    const size_t bytes = width * sizeof(double);
    const size_t misalign = reinterpret_cast<uintptr_t>(d) & (bytes - 1);
    const size_t head = std::min(total, misalign == 0 ? 0 : (bytes - misalign) / sizeof(double));
    const size_t vectors = (total - head) / width;
    for (size_t j = 0; j < head; ++j) d[j] = weight(j);
    for (size_t j = head + width * vectors; j < total; ++j) d[j] = weight(j);
    Run_Parallel(static_cast<int>(vectors), [&](int c0, int c1, int) {
      if (width == 8)
        stream_weight_lines(d, e, of, rows, ku, inv, scale, head, static_cast<size_t>(c0),
                            static_cast<size_t>(c1));
      else
        stream_weight_vectors(d, e, of, rows, ku, inv, scale, head, static_cast<size_t>(c0),
                              static_cast<size_t>(c1));
    });
  } else {
    Run_Parallel(m, [&](int i0, int i1, int) {
      for (int i = i0; i < i1; ++i) {
        const double* row = e + static_cast<size_t>(rows[of[i]]) * ku;
        double* out = d + static_cast<size_t>(i) * ku;
        if (scale) {
          for (int l = 0; l < k; ++l) out[l] = mul_nan_first(row[l], inv);
        } else {
          for (int l = 0; l < k; ++l) out[l] = row[l];
        }
      }
    });
  }
  // Every example of a group got the same weights (and has the same
  // labels), so the scan can keep one row of weights per group.
  Score_Pool_Row_Groups(of, train_groups.first.data(), train_groups.count);
}

void modify_distribution(struct weak_hyp* /*entry*/, double err, double abstain) {
  // Real AdaBoost.MH: the weights exp(log weight) that compute_loss found
  // are handed on even when -u stops the update (then without dividing by Z).
  if (loss_mode == 3) {
    publish_distribution(err);
    return;
  }
  if (modify_dist_mode == 0) return;
  const int m = data->num_train;
  const int k = data->num_classes;
  unsigned char** y = data->train_labels;
  const double* const* train_pred = train_groups.pred_of.data();
  const size_t ku = static_cast<size_t>(k);
  if (loss_mode == 1) {
    // Every weight gets its factor, and the new weights are summed in
    // order in the same pass; the division is shared among the threads.
    double sum = 0.0;
    if (abstain == 0.0) {
      const double beta = err / (1.0 - err);
      for (int i = 0; i < m; ++i) {
        const double* p = train_pred[i];
        const unsigned char* yi = y[i];
        double* row = distribution + static_cast<size_t>(i) * ku;
        for (int l = 0; l < k; ++l) {
          const double a = yi[l] ? p[l] : 1.0 - p[l];
          row[l] *= 1.0 - (1.0 - beta) * a;
          sum += row[l];
        }
      }
    } else {
      const double wm = err - abstain / 2;
      const double wp = 1.0 - err - abstain / 2;
      const double norm = 1.0 / (2 * sqrt(wp * wm) + abstain);
      for (int i = 0; i < m; ++i) {
        const double* p = train_pred[i];
        const unsigned char* yi = y[i];
        double* row = distribution + static_cast<size_t>(i) * ku;
        for (int l = 0; l < k; ++l) {
          const double label = yi[l] ? 1.0 : 0.0;
          if (p[l] == 0.5)
            row[l] *= norm;
          else if (p[l] == label)
            row[l] *= sqrt(wm / wp) * norm;
          else
            row[l] *= sqrt(wp / wm) * norm;
          sum += row[l];
        }
      }
    }
    // A copy for the threads: the sum itself stays in a register while it
    // is added (a variable the threads see would be kept in memory).
    const double total = sum;
    Run_Parallel(m, [&](int i0, int i1, int) {
      double* row = distribution + static_cast<size_t>(i0) * ku;
      for (size_t j = 0, n = static_cast<size_t>(i1 - i0) * ku; j < n; ++j) row[j] /= total;
    });
  } else if (loss_mode == 2) {
    // Each example's weights and its two sums on their own, shared among
    // the threads; the normaliser adds the examples' products in order.
    const double beta = sqrt(err / (1.0 - err));
    static std::vector<double> products;
    products.resize(m);
    Run_Parallel(m, [&](int i0, int i1, int) {
      for (int i = i0; i < i1; ++i) {
        const double* p = train_pred[i];
        const unsigned char* yi = y[i];
        double* v = virtual_dist + static_cast<size_t>(i) * ku;
        double* out = distribution + static_cast<size_t>(i) * ku;
        double s0 = 0.0, s1 = 0.0;
        for (int l = 0; l < k; ++l) {
          const double a = yi[l] ? p[l] : 1.0 - p[l];
          v[l] *= 1.0 - (1.0 - beta) * a;
          if (yi[l])
            s1 += v[l];
          else
            s0 += v[l];
        }
        products[i] = s0 * s1;
        for (int l = 0; l < k; ++l) out[l] = v[l] * (yi[l] ? s0 : s1);
      }
    });
    double z = 0.0;
    for (int i = 0; i < m; ++i) z += products[i];
    const double s = 0.5 / z;
    const double rs = sqrt(s);
    Run_Parallel(m, [&](int i0, int i1, int) {
      const size_t j0 = static_cast<size_t>(i0) * ku, j1 = static_cast<size_t>(i1) * ku;
      for (size_t j = j0; j < j1; ++j) {
        virtual_dist[j] *= rs;
        distribution[j] *= s;
      }
    });
  }
}

// Splits the groups of both sets by the new hypothesis's answers, the two
// sets side by side where evaluating the hypothesis touches nothing they
// share: a linear hypothesis leaves its last answer in c1 (the test set's
// must win), and other experts with values look terms up in a shared
// table.
void evaluate_hypothesis(struct weak_hyp* entry) {
  const int k = data->num_classes;
  text_expert_rec* h = entry->hyp;
  auto split = [&](int set) {
    if (set == 0)
      split_groups(&train_groups, h, data->train_examples, 0, k);
    else
      split_groups(&test_groups, h, data->test_examples, data->num_train, k);
  };
  const bool apart = h->type == kTypeThreshold ||
                     (h->type != kTypeLinear && h->values == nullptr && h->test_values == nullptr);
  if (!apart) {
    split(0);
    split(1);
    return;
  }
  Run_Parallel(2, [&](int s0, int s1, int) {
    for (int set = s0; set < s1; ++set) split(set);
  });
}

// The weighted error of the hypothesis just evaluated (discrete AdaBoost.MH
// and AdaBoost.MR; real AdaBoost.MH finds its loss in real_round).
double compute_loss(struct weak_hyp* /*entry*/, double* out_abstain) {
  const int m = data->num_train;
  const int k = data->num_classes;
  unsigned char** y = data->train_labels;
  const double* const* train_pred = train_groups.pred_of.data();
  // One pass adds the weighted error in order and, for discrete
  // AdaBoost.MH, the weight where the hypothesis abstains (0.5), which
  // counts only when every other prediction is 0 or 1.
  const bool abstaining = loss_mode == 1;
  double loss = 0.0;
  double abstain = 0.0;
  bool other = false;
  for (int i = 0; i < m; ++i) {
    const double* p = train_pred[i];
    const unsigned char* yi = y[i];
    const double* d = distribution + static_cast<size_t>(i) * static_cast<size_t>(k);
    for (int l = 0; l < k; ++l) {
      loss += yi[l] ? d[l] * (1.0 - p[l]) : d[l] * p[l];
      if (abstaining && !other && p[l] != 0.0 && p[l] != 1.0) {
        if (p[l] == 0.5)
          abstain += d[l];
        else
          other = true;
      }
    }
  }
  *out_abstain = 0.0;
  if (abstaining && !other) {
    abstain -= 1e-50;
    if (abstain < 0) abstain = 0.0;
    *out_abstain = abstain;
  }
  return loss;
}

// The prediction of the strong hypothesis from one example's score sums,
// into `result` (k doubles); reentrant, so examples can be evaluated on
// several threads.
void strong_prediction(const double* sums, double* out_margin, double* result) {
  const int k = data->num_classes;
  double largest = sums[0];
  double second = -10000.0;
  for (int l = 1; l < k; ++l) {
    if (sums[l] > largest) {
      second = largest;
      largest = sums[l];
    } else if (sums[l] > second) {
      second = sums[l];
    }
  }
  if (out_margin != nullptr) *out_margin = (largest - second) / normaliser();
  if (!soft_threshold) {
    int ties = 0;
    for (int l = 0; l < k; ++l) {
      result[l] = sums[l] == largest ? 1.0 : 0.0;
      if (sums[l] == largest) ties++;
    }
    for (int l = 0; l < k; ++l) result[l] /= ties;
  } else {
    double total = 0.0;
    for (int l = 0; l < k; ++l) {
      result[l] = exp(sums[l] - largest);
      total += result[l];
    }
    for (int l = 0; l < k; ++l) result[l] /= total;
  }
}

// What one left-to-right scan of a row of scores finds: the largest score,
// the first label holding it (`top`), how many scores equal it (`ties`, none
// when the first is not a number), and `second`. Second starts at -10000.0,
// takes the old largest whenever a new largest appears and any later score
// above it otherwise; so once the top is not the first label, the -10000.0
// floor is gone and second is simply the best of the other scores.
struct top_scan {
  double largest, second;
  int top, ties;
};

top_scan scan_top_plain(const double* sums, int k) {
  top_scan r{sums[0], -10000.0, 0, sums[0] == sums[0] ? 1 : 0};
  for (int l = 1; l < k; ++l) {
    const double v = sums[l];
    if (v > r.largest) {
      r.second = r.largest;
      r.largest = v;
      r.ties = 1;
      r.top = l;
    } else {
      if (v > r.second) r.second = v;
      if (v == r.largest) ++r.ties;
    }
  }
  return r;
}

// The largest of eight numbers. The full-mask forms of the intrinsics are
// used because the plain ones trip a false "may be used uninitialized"
// warning in GCC 12.
__attribute__((target("avx512f"), always_inline)) inline __m512d max8(__m512d a, __m512d b) {
  return _mm512_mask_max_pd(a, 0xFF, a, b);
}
__attribute__((target("avx512f"), always_inline)) inline double max_of_lanes(__m512d v) {
  v = max8(v, _mm512_mask_shuffle_f64x2(v, 0xFF, v, v, 0x4E));
  v = max8(v, _mm512_mask_shuffle_f64x2(v, 0xFF, v, v, 0xB1));
  v = max8(v, _mm512_mask_shuffle_pd(v, 0xFF, v, v, 0x55));
  return _mm512_cvtsd_f64(v);
}

// The same scan, eight labels at a time, for rows without a NaN (returns
// false for a row with one). When every score is a number, the scan's
// largest is the row's maximum at its first position, and when it is
// unique its second is the maximum of the other scores (with the -10000.0
// floor kept only for a top at label 0). Only a unique top's second is
// needed; for ties the full prediction is made. Maxima of numbers are exact,
// and a zero's sign never changes largest - second when the top is unique,
// so the results are the scan's to the bit.
__attribute__((target("avx512f"))) bool scan_top_avx512(const double* sums, int k,
                                                        top_scan* out) {
  const __m512d floor = _mm512_set1_pd(-std::numeric_limits<double>::infinity());
  const int full = k & ~7;
  const __mmask8 tail = static_cast<__mmask8>((1u << (k - full)) - 1);
  __m512d most = floor;
  __mmask8 nan = 0;
  for (int c = 0; c < full; c += 8) {
    const __m512d v = _mm512_loadu_pd(sums + c);
    nan |= _mm512_cmp_pd_mask(v, v, _CMP_UNORD_Q);
    most = max8(most, v);
  }
  if (tail) {
    const __m512d v = _mm512_mask_loadu_pd(floor, tail, sums + full);
    nan |= _mm512_cmp_pd_mask(v, v, _CMP_UNORD_Q);
    most = max8(most, v);
  }
  if (nan) return false;
  const __m512d largest = _mm512_set1_pd(max_of_lanes(most));
  // The first label equal to the maximum, how many are, and the maximum of
  // the rest.
  int top = k, ties = 0;
  __m512d rest = floor;
  for (int c = 0; c < full; c += 8) {
    const __m512d v = _mm512_loadu_pd(sums + c);
    const __mmask8 eq = _mm512_cmp_pd_mask(v, largest, _CMP_EQ_OQ);
    const int first = eq ? c + __builtin_ctz(eq) : k;
    top = first < top ? first : top;
    ties += __builtin_popcount(eq);
    rest = _mm512_mask_max_pd(rest, static_cast<__mmask8>(~eq), rest, v);
  }
  if (tail) {
    const __m512d v = _mm512_mask_loadu_pd(floor, tail, sums + full);
    const __mmask8 eq = _mm512_mask_cmp_pd_mask(tail, v, largest, _CMP_EQ_OQ);
    const int first = eq ? full + __builtin_ctz(eq) : k;
    top = first < top ? first : top;
    ties += __builtin_popcount(eq);
    rest = _mm512_mask_max_pd(rest, static_cast<__mmask8>(~eq & tail), rest, v);
  }
  out->top = top;
  out->ties = ties;
  out->largest = sums[top];
  if (ties == 1) {
    const double others = max_of_lanes(rest);
    out->second = top == 0 && !(others > -10000.0) ? -10000.0 : others;
  }
  return true;
}

// The largest of four numbers.
__attribute__((target("avx2"), always_inline)) inline double max_of_lanes(__m256d v) {
  v = _mm256_max_pd(v, _mm256_permute2f128_pd(v, v, 0x01));
  v = _mm256_max_pd(v, _mm256_permute_pd(v, 0x5));
  return _mm256_cvtsd_f64(v);
}

// The AVX-512 scan's steps four labels at a time, for processors without
// AVX-512; labels past the last load as -infinity and never count.
__attribute__((target("avx2"))) bool scan_top_avx2(const double* sums, int k, top_scan* out) {
  const __m256d floor = _mm256_set1_pd(-std::numeric_limits<double>::infinity());
  const int full = k & ~3;
  const __m256i tail = _mm256_cmpgt_epi64(_mm256_set1_epi64x(k - full), _mm256_setr_epi64x(0, 1, 2, 3));
  const __m256d tail_lanes = _mm256_castsi256_pd(tail);
  const __m256d last =
      full < k ? _mm256_blendv_pd(floor, _mm256_maskload_pd(sums + full, tail), tail_lanes) : floor;
  __m256d most = last;
  __m256d nan = _mm256_cmp_pd(last, last, _CMP_UNORD_Q);
  for (int c = 0; c < full; c += 4) {
    const __m256d v = _mm256_loadu_pd(sums + c);
    nan = _mm256_or_pd(nan, _mm256_cmp_pd(v, v, _CMP_UNORD_Q));
    most = _mm256_max_pd(most, v);
  }
  if (_mm256_movemask_pd(nan) != 0) return false;
  const __m256d largest = _mm256_set1_pd(max_of_lanes(most));
  // The first label equal to the maximum, how many are, and the maximum of
  // the rest.
  int top = k, ties = 0;
  __m256d rest = floor;
  auto take = [&](__m256d v, int c, int lanes) __attribute__((target("avx2"))) {
    const __m256d eq = _mm256_cmp_pd(v, largest, _CMP_EQ_OQ);
    const int bits = _mm256_movemask_pd(eq) & lanes;
    const int first = bits ? c + __builtin_ctz(bits) : k;
    top = first < top ? first : top;
    ties += __builtin_popcount(bits);
    rest = _mm256_blendv_pd(_mm256_max_pd(rest, v), rest, eq);
  };
  for (int c = 0; c < full; c += 4) take(_mm256_loadu_pd(sums + c), c, 0xF);
  if (full < k) take(last, full, _mm256_movemask_pd(tail_lanes));
  out->top = top;
  out->ties = ties;
  out->largest = sums[top];
  if (ties == 1) {
    const double others = max_of_lanes(rest);
    out->second = top == 0 && !(others > -10000.0) ? -10000.0 : others;
  }
  return true;
}

// Lanes of the vector scan in use: 8, 4, or 0 for the scalar loop.
const int widest_scan = has_avx512 ? 8 : has_avx2 ? 4 : 0;
int scan_width = widest_scan;

top_scan scan_top(const double* sums, int k) {
  top_scan r;
  if (scan_width == 8 && scan_top_avx512(sums, k, &r)) return r;
  if (scan_width == 4 && scan_top_avx2(sums, k, &r)) return r;
  return scan_top_plain(sums, k);
}

// One example's share of the error: `wrong`, the strong prediction's total
// on classes the example lacks (in utility mode its utility), and its
// margin.
void example_error(const double* sums, const unsigned char* y, double* wrong,
                   double* margin) {
  const int k = data->num_classes;
  // The prediction vector, where it is needed; one per thread.
  thread_local std::vector<double> work;
  if (utility_mode) {
    work.resize(k < 2 ? 2 : k);
    double* result = work.data();
    const int c = carries_class1(y, k);
    strong_prediction(sums, nullptr, result);
    *wrong = add_nan_first(mul_nan_first(utility[2 * c], result[0]),
                           mul_nan_first(utility[2 * c + 1], result[1]));
    *margin = 0.0;
    return;
  }
  if (!soft_threshold) {
    // A single top score gets the whole vote: the error is then exactly 1
    // or 0, with no need for the prediction vector.
    const top_scan r = scan_top(sums, k);
    if (r.ties == 1) {
      *wrong = y[r.top] ? 0.0 : 1.0;
      *margin = (r.largest - r.second) / normaliser();
      return;
    }
  }
  work.resize(k < 2 ? 2 : k);
  double* result = work.data();
  strong_prediction(sums, margin, result);
  double w = 0.0;
  for (int l = 0; l < k; ++l)
    if (!y[l]) w += result[l];
  *wrong = w;
}

// Sizes a set's rows of score sums (and with `errors` its errors and
// margins) for the groups of the last split.
void size_group_sums(example_groups* g, bool errors) {
  const int k = data->num_classes;
  size_rows(&g->sums, static_cast<size_t>(g->count) * k, static_cast<size_t>(g->n) * k);
  if (errors) {
    g->wrong.resize(g->count);
    g->margin.resize(g->count);
  }
}

// Adds the newest hypothesis's predictions into group h's score sums (row
// `from` into row `to`), and with `errors` finds its error and margin.
void update_sums_row(example_groups* g, const struct weak_hyp* entry, bool errors, int h,
                     int from, int to) {
  const int k = data->num_classes;
  double* sums = &g->sums[static_cast<size_t>(to) * k];
  add_prediction(entry, &g->sums[static_cast<size_t>(from) * k], g->pred[h], sums, k);
  if (errors)
    example_error(sums, &g->labels[static_cast<size_t>(g->first[h]) * k], &g->wrong[h],
                  &g->margin[h]);
}

// Adds the newest hypothesis's predictions into every group's score sums,
// and with `errors` finds each group's error and margin for the report.
void update_weak_hyp_sums(struct weak_hyp* entry, bool errors) {
  for (example_groups* g : {&train_groups, &test_groups}) {
    size_group_sums(g, errors);
    for_each_split_group(*g, [&](int h, int from, int to) {
      update_sums_row(g, entry, errors, h, from, to);
    });
  }
}

// Real AdaBoost.MH: training group h's log weights after the newest
// hypothesis (weighted alpha), from row `from` into row `to`, and their
// exponentials.
// update_log_row's loop with AVX2, four labels at a time.
__attribute__((target("avx2"))) void log_row_avx2(const double* old, double* ld, const double* p,
                                                  const unsigned char* yh, bool pending, double lz,
                                                  double alpha, int k) {
  const __m256d plus = _mm256_set1_pd(alpha), minus = _mm256_set1_pd(-alpha);
  const __m256d lzv = _mm256_set1_pd(lz);
  for (int l = 0; l < k; l += 4) {
    // Whole vectors with plain loads and stores, the last labels under a
    // mask.
    const bool whole = l + 4 <= k;
    const __m256i lanes = lanes_below(k, l);
    __m256d v = whole ? _mm256_loadu_pd(old + l) : _mm256_maskload_pd(old + l, lanes);
    if (pending) v = _mm256_sub_pd(v, lzv);
    // The labels the example carries, as lane masks (bytes past k read as 0).
    uint32_t bytes = 0;
    if (whole)
      memcpy(&bytes, yh + l, 4);
    else
      for (int b = 0; b < k - l; ++b) bytes |= static_cast<uint32_t>(yh[l + b]) << (8 * b);
    const __m256i carried = _mm256_cmpgt_epi64(_mm256_cvtepu8_epi64(_mm_cvtsi32_si128(static_cast<int>(bytes))),
                                               _mm256_setzero_si256());
    const __m256d factor = _mm256_blendv_pd(plus, minus, _mm256_castsi256_pd(carried));
    const __m256d pv = whole ? _mm256_loadu_pd(p + l) : _mm256_maskload_pd(p + l, lanes);
    const __m256d out = add_nan_first4(v, mul_nan_first4(pv, factor));
    if (whole)
      _mm256_storeu_pd(ld + l, out);
    else
      _mm256_maskstore_pd(ld + l, lanes, out);
  }
}

void update_log_row(int h, int from, int to, double alpha) {
  const example_groups& g = train_groups;
  const int k = data->num_classes;
  const double* old = &group_log[static_cast<size_t>(from) * k];
  double* ld = &group_log[static_cast<size_t>(to) * k];
  double* e = &group_exp[static_cast<size_t>(to) * k];
  const double* p = g.pred[h];
  const unsigned char* yh = &g.labels[static_cast<size_t>(g.first[h]) * k];
  const bool pending = log_z_pending;
  const double lz = pending_log_z;
  if (has_avx2) {
    log_row_avx2(old, ld, p, yh, pending, lz, alpha, k);
    Exp_Array(ld, e, static_cast<size_t>(k));
    return;
  }
  for (int l = 0; l < k; ++l) {
    double v = old[l];
    if (pending) v -= lz;
    ld[l] = add_nan_first(v, mul_nan_first(p[l], yh[l] ? -alpha : alpha));
  }
  Exp_Array(ld, e, static_cast<size_t>(k));
}

void set_error(const example_groups& g, double* out_err, double* out_rej_err,
               double* out_rej_frac);

// The error totals of the test set (0) and the training set (1) for the
// round's report, when real_round found them while a thread had nothing
// else to do.
struct set_errors {
  double err, rej_err, rej_frac;
};
set_errors report_errors[2];
bool report_ready = false;

// One round of real AdaBoost.MH after the split: every training group's
// log weights and their exponentials, the score sums of both sets (with
// errors and margins for a report), and the returned loss Z, the sum of
// the new weights exp(log weight) over the examples in order (handed on by
// modify_distribution).
//
// A real AdaBoost.MH hypothesis's weight never depends on its loss, so the
// score sums need not wait for Z, whose additions must run one after the
// other. The groups with new rows go first (they read rows that their
// heirs then overwrite). Then the thread that runs index 0 updates the
// heirs' log weights chunk by chunk from the front and adds each chunk's
// examples into Z straight after, while their rows are still in its cache
// (examples before the first one of group h belong to groups below h). The
// other threads update the heirs' score sums and then take log-weight
// chunks from the back; where the two ends meet, the Z thread waits for
// the chunks it did not take, then joins the score sums. For a report, the
// first of the other threads to run out of chunks finds both sets' error
// totals meanwhile. Every group's values are its own, so however the
// chunks fall, the results are the same to the bit.
double real_round(const struct weak_hyp* entry, double alpha, bool errors) {
  example_groups* train = &train_groups;
  example_groups* test = &test_groups;
  const int m = train->n;
  const int k = data->num_classes;
  const size_t limit = static_cast<size_t>(m) * k;
  size_rows(&group_log, static_cast<size_t>(train->count) * k, limit);
  size_rows(&group_exp, static_cast<size_t>(train->count) * k, limit);
  size_group_sums(train, errors);
  size_group_sums(test, errors);

  const int new_train = static_cast<int>(train->new_rows.size());
  const int new_test = static_cast<int>(test->new_rows.size());
  Run_Parallel(new_train + new_test, [&](int j0, int j1, int) {
    for (int j = j0; j < j1; ++j) {
      example_groups* g = j < new_train ? train : test;
      const int h = g->new_rows[j < new_train ? j : j - new_train];
      if (g == train) update_log_row(h, g->from_row[h], g->row[h], alpha);
      update_sums_row(g, entry, errors, h, g->from_row[h], g->row[h]);
    }
  });

  constexpr int kLogChunk = 64, kSumsChunk = 128;
  const int heirs = static_cast<int>(train->heirs.size());
  const int test_heirs = static_cast<int>(test->heirs.size());
  const int log_chunks = (heirs + kLogChunk - 1) / kLogChunk;
  const int sums_chunks = (heirs + test_heirs + kSumsChunk - 1) / kSumsChunk;
  // Each chunk of heirs' log weights: 0 free, 1 taken, 2 done.
  std::unique_ptr<std::atomic<int>[]> state(new std::atomic<int>[log_chunks + 1]);
  for (int c = 0; c < log_chunks; ++c) state[c].store(0, std::memory_order_relaxed);
  auto take = [&](int c) {
    int free = 0;
    return state[c].compare_exchange_strong(free, 1, std::memory_order_relaxed);
  };
  std::atomic<int> next_back{log_chunks}, next_sums{0};
  auto log_chunk = [&](int c) {
    const int end = std::min(heirs, (c + 1) * kLogChunk);
    for (int j = c * kLogChunk; j < end; ++j) {
      const int h = train->heirs[j];
      update_log_row(h, train->row[h], train->row[h], alpha);
    }
    state[c].store(2, std::memory_order_release);
  };
  std::atomic<int> sums_done{0};
  auto sums_chunks_left = [&] {
    for (int c; (c = next_sums.fetch_add(1, std::memory_order_relaxed)) < sums_chunks;) {
      const int end = std::min(heirs + test_heirs, (c + 1) * kSumsChunk);
      for (int j = c * kSumsChunk; j < end; ++j) {
        example_groups* g = j < heirs ? train : test;
        const int h = g->heirs[j < heirs ? j : j - heirs];
        update_sums_row(g, entry, errors, h, g->row[h], g->row[h]);
      }
      sums_done.fetch_add(1, std::memory_order_acq_rel);
    }
  };
  // The error totals need every group's error, so they wait for the last
  // chunk of score sums; a thread that finds one still running leaves them
  // to display_strong_hyp.
  report_ready = false;
  std::atomic<bool> report_taken{false};
  auto find_report_errors = [&] {
    if (!errors || sums_done.load(std::memory_order_acquire) != sums_chunks ||
        report_taken.exchange(true, std::memory_order_acq_rel))
      return;
    for (int set = 0; set < 2; ++set) {
      set_errors& e = report_errors[set];
      set_error(set == 0 ? *test : *train, &e.err, &e.rej_err, &e.rej_frac);
    }
    report_ready = true;
  };
  double z = 0.0;
  // Far more indices than threads, so that every thread gets a share and
  // one share starts at index 0.
  Run_Parallel(1 << 16, [&](int j0, int, int) {
    if (j0 != 0) {
      sums_chunks_left();
      for (int c; (c = next_back.fetch_sub(1, std::memory_order_relaxed) - 1) >= 0;) {
        if (!take(c)) break;
        log_chunk(c);
      }
      find_report_errors();
      return;
    }
    const int* of = train->of.data();
    const int* row_of = train->row.data();
    const double* exps = group_exp.data();
    double sum = 0.0;
    bool front = true;
    for (int c = 0, i = 0; c < log_chunks; ++c) {
      if (front && take(c)) {
        log_chunk(c);
      } else {
        front = false;
        for (int spins = 0; state[c].load(std::memory_order_acquire) != 2; ++spins)
          if (spins > 64) std::this_thread::yield();
      }
      const int to = c + 1 < log_chunks ? train->first[train->heirs[(c + 1) * kLogChunk]] : m;
      for (; i < to; ++i) {
        const double* row = exps + static_cast<size_t>(row_of[of[i]]) * k;
        for (int l = 0; l < k; ++l) sum += row[l];
      }
    }
    z = sum;
    sums_chunks_left();
  });
  log_z_pending = false;
  return z;
}

// The error totals of a set from its groups' errors, added in example
// order.
void set_error(const example_groups& g, double* out_err, double* out_rej_err,
               double* out_rej_frac) {
  const int n = g.n;
  *out_err = 0.0;
  *out_rej_err = 0.0;
  *out_rej_frac = 0.0;
  if (utility_mode) {
    for (int i = 0; i < n; ++i) *out_err = add_nan_first(g.wrong[g.of[i]], *out_err);
    return;
  }
  int rejected = 0;
  for (int i = 0; i < n; ++i) {
    const int h = g.of[i];
    *out_err += g.wrong[h];
    if (reject_threshold > g.margin[h])
      rejected++;
    else
      *out_rej_err += g.wrong[h];
  }
  *out_err /= n;
  *out_rej_err /= (n - rejected);
  *out_rej_frac = static_cast<double>(rejected) / n;
}

}  // namespace

void Example_Error(const double* sums, const unsigned char* y, double* wrong, double* margin) {
  example_error(sums, y, wrong, margin);
}
int Limit_Top_Scan_Width(int lanes) {
  scan_width = lanes >= widest_scan ? widest_scan : lanes >= 4 && has_avx2 ? 4 : 0;
  return scan_width;
}

double* eval_strong_hyp(double* sums, double* out_margin) {
  static double* result = nullptr;
  const int k = data->num_classes;
  // At least two slots, so that the two-class utility arithmetic never reads
  // past the vector for a one-class task.
  if (result == nullptr) result = static_cast<double*>(Malloc(sizeof(double) * (k < 2 ? 2 : k)));
  strong_prediction(sums, out_margin, result);
  return result;
}

void eval_error(int n, example** /*instances*/, unsigned char** labels, double** sums,
                double* out_err, double* out_rej_err, double* out_rej_frac) {
  example_groups g;
  g.n = n;
  g.count = n;
  g.of.resize(n);
  g.wrong.resize(n);
  g.margin.resize(n);
  for (int i = 0; i < n; ++i) {
    g.of[i] = i;
    example_error(sums[i], labels[i], &g.wrong[i], &g.margin[i]);
  }
  set_error(g, out_err, out_rej_err, out_rej_frac);
}

void display_strong_hyp() {
  FILE* out = classify_new_test_mode ? stderr : stdout;
  double err, rej_err, rej_frac;
  auto set_error_of = [&](int set) {
    if (report_ready) {
      err = report_errors[set].err;
      rej_err = report_errors[set].rej_err;
      rej_frac = report_errors[set].rej_frac;
    } else {
      set_error(set == 0 ? test_groups : train_groups, &err, &rej_err, &rej_frac);
    }
  };
  set_error_of(0);
  fprintf(out, "test= %9.7f ", err);
  if (reject_threshold > 0) fprintf(out, "(%lf, %lf)", rej_err, rej_frac);
  if (classify_new_test_mode) {
    fprintf(out, "\n");
    return;
  }
  fprintf(out, " ");
  set_error_of(1);
  fprintf(out, "train= %9.7f ", err);
  if (reject_threshold > 0) fprintf(out, "(%lf, %lf)", rej_err, rej_frac);
  fprintf(out, "\n");
}

void output_preds(int n, example** instances, unsigned char** labels, double** sums) {
  const int k = data->num_classes;
  for (int i = 0; i < n; ++i) {
    printf("\n");
    PrintInstance(instances[i]);
    printf("\ncorrect label = ");
    for (int l = 0; l < k; ++l)
      if (labels[i][l]) PrintLabel(l);
    printf("\n");
    double* result = eval_strong_hyp(sums[i], nullptr);
    for (int l = 0; l < k; ++l) {
      const char* marker;
      if (labels[i][l])
        marker = result[l] > 0 ? "*>" : "**";
      else
        marker = result[l] > 0 ? " >" : "  ";
      printf("%s %s%lf : ", marker, sums[i][l] < 0 ? "" : " ", sums[i][l] / normaliser());
      PrintLabel(l);
      printf("\n");
    }
  }
}

void output_all_preds() {
  printf("\nSum of weights = %lf\n", normaliser());
  if (data->num_train > 0) {
    printf("\nTraining data:\n\n");
    output_preds(data->num_train, data->train_examples, data->train_labels, train_sum_wh);
  }
  if (data->num_test > 0) {
    printf("\nTest data:\n\n");
    output_preds(data->num_test, data->test_examples, data->test_labels, test_sum_wh);
  }
}

void boost() {
  double bound = loss_mode == 2 ? data->num_classes - 1 : 1.0;
  if (soft_threshold) bound /= 2;
  init_memos();
  init_distribution();

  int n_stored = 0;
  struct weak_hyp* stored = nullptr;
  if (load_model) {
    stored = ReadStrongHypothesis(&n_stored);
    num_trials += n_stored;
  }
  weak_hyp = Allocate_Weak_Hyp(num_trials > 0 ? num_trials : 0);
  first_nonzero_wt = -1;
  total_wh_wt = 0.0;

  for (int t = 0; t < num_trials; ++t) {
    struct weak_hyp* entry = &weak_hyp[t];
    double alpha;
    if (t < n_stored) {
      *entry = stored[t];
      alpha = entry->weight;
    } else {
      call_weak_learner(entry);
      alpha = 1.0;
    }
    evaluate_hypothesis(entry);
    // Real AdaBoost.MH weighs every new hypothesis 1 whatever its loss
    // (-z, which weighs by the loss, also selects the discrete loss), so it
    // finds its loss in the pass that updates the score sums.
    const bool real = loss_mode == 3;
    double abstain = 0.0;
    double err = real ? 0.0 : compute_loss(entry, &abstain);
    if (t >= n_stored) {
      if (real) {
        entry->weight = 1.0;
      } else if (diff_wts_mode && err == 0.0) {
        entry->weight = 1.0;
        num_trials = t + 1;
        first_nonzero_wt = t;
      } else if (diff_wts_mode && err == 1.0) {
        entry->weight = -1.0;
        num_trials = t + 1;
        first_nonzero_wt = t;
      } else if (diff_wts_mode) {
        entry->weight = log((1.0 - err - abstain / 2) / (err - abstain / 2));
      } else {
        entry->weight = 1.0;
      }
    }
    if (entry->weight != 0.0 && first_nonzero_wt < 0) first_nonzero_wt = t;
    num_weak_hyps = t + 1;
    total_wh_wt += entry->weight;

    const int r = t - (n_stored - 1);
    const bool report =
        t == num_trials - 1 || (display_hyp_freq != 0 && r % display_hyp_freq == 0);
    if (real)
      err = real_round(entry, alpha, report);
    else
      update_weak_hyp_sums(entry, report);
    if (loss_mode == 3)
      bound = bound * err;
    else
      bound = bound * (abstain + 2 * sqrt((1.0 - err - abstain / 2) * (err - abstain / 2)));
    if (report) {
      printf("rnd %4d: wh-err= %lf  th-err= %lf  ", r, err, bound);
      display_strong_hyp();
      fflush(stdout);
    }
    modify_distribution(entry, err, abstain);
  }
  // The per-example score sums, for the predictions and for callers; the
  // groups are not needed any more.
  group_log = std::vector<double>();
  group_exp = std::vector<double>();
  for (example_groups* g : {&train_groups, &test_groups}) g->linear_rows = std::vector<double>();
  train_sum_wh = expand_sums(train_groups, data->num_classes);
  test_sum_wh = expand_sums(test_groups, data->num_classes);
  train_groups = example_groups();
  test_groups = example_groups();
  if (output_pred_mode) output_all_preds();
}

void use_old_hyp() {
  const int k = data->num_classes;
  test_sum_wh = alloc_rows(1, k);
  train_sum_wh = alloc_rows(0, k);
  double total_err = 0.0;
  int count = 0;
  weak_hyp = ReadStrongHypothesis(&num_weak_hyps);
  while (GetNextTestInstance(data)) {
    for (int l = 0; l < k; ++l) test_sum_wh[0][l] = 0.0;
    first_nonzero_wt = -1;
    total_wh_wt = 0.0;
    for (int t = 0; t < num_weak_hyps; ++t) {
      if (weak_hyp[t].weight != 0.0 && first_nonzero_wt < 0) first_nonzero_wt = t;
      total_wh_wt += weak_hyp[t].weight;
      add_prediction(&weak_hyp[t], test_sum_wh[0],
                     EvalWeakHypothesis(weak_hyp[t].hyp, data->test_examples[0]),
                     test_sum_wh[0], k);
    }
    double err, rej_err, rej_frac;
    eval_error(1, data->test_examples, data->test_labels, test_sum_wh, &err, &rej_err,
               &rej_frac);
    count++;
    total_err += err;
    if (!output_pred_mode) {
      const unsigned char* y = data->test_labels[0];
      for (int l = 0; l < k; ++l) printf("%d ", y[l]);
      for (int l = 0; l < k; ++l)
        printf("%.12lf%c", test_sum_wh[0][l] / normaliser(), l == k - 1 ? '\n' : ' ');
    } else {
      output_preds(1, data->test_examples, data->test_labels, test_sum_wh);
    }
    fflush(stdout);
  }
  fprintf(stderr, "\n\nTest error = %lf / %d = %lf\n", total_err, count,
          total_err / count);
}
