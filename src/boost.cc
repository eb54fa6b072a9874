// The booster: its options, the rounds of boosting, the weights over
// (example, label) pairs, evaluation of the strong hypothesis with progress
// reports, long-form predictions, and classification of standard input with
// a stored model.
#include "boost.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "die.h"
#include "optscan.h"
#include "score_pool.h"
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

double** train_pred = nullptr;
double** train_sum_wh = nullptr;
double** test_sum_wh = nullptr;

double* distribution = nullptr;
double* log_dist = nullptr;
double* virtual_dist = nullptr;
int dist_size = 0;

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

double* eval_weak_hyp(struct weak_hyp* entry, example* instance) {
  return EvalWeakHypothesis(entry->hyp, instance);
}

void update_weak_hyp_sum(struct weak_hyp* entry, double* sums, const double* preds) {
  const int k = data->num_classes;
  if (num_weak_hyps - 1 <= first_nonzero_wt)
    for (int l = 0; l < k; ++l) sums[l] = 0.0;
  if (first_nonzero_wt < 0) {
    for (int l = 0; l < k; ++l) sums[l] += preds[l];
  } else {
    for (int l = 0; l < k; ++l) sums[l] += entry->weight * preds[l];
  }
}

void update_weak_hyp_sums(struct weak_hyp* entry) {
  for (int i = 0; i < data->num_train; ++i)
    update_weak_hyp_sum(entry, train_sum_wh[i], train_pred[i]);
  for (int j = 0; j < data->num_test; ++j)
    update_weak_hyp_sum(entry, test_sum_wh[j],
                        eval_weak_hyp(entry, data->test_examples[j]));
}

void call_weak_learner(struct weak_hyp* entry) {
  entry->hyp = GetWeakHypothesis(distribution, loss_mode == 3 ? 3 : 1, data);
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

void init_memos() {
  const int k = data->num_classes;
  train_sum_wh = alloc_rows(data->num_train, k);
  test_sum_wh = alloc_rows(data->num_test, k);
  train_pred = alloc_rows(data->num_train, k);
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
      dist_size = m * k;
      distribution = static_cast<double*>(Malloc(sizeof(double) * (mk + 1)));
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
      break;
    case 1:
      dist_size = m * k;
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
      dist_size = m * k;
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
      dist_size = m;
      distribution = static_cast<double*>(Malloc(sizeof(double) * (m + 1)));
      for (int i = 0; i < m; ++i) distribution[i] = 1.0 / m;
      break;
  }
}

void modify_distribution(struct weak_hyp* /*entry*/, double err, double abstain) {
  if (modify_dist_mode == 0) return;
  const int m = data->num_train;
  const int k = data->num_classes;
  unsigned char** y = data->train_labels;
  if (loss_mode == 3) {
    const double lz = log(err);
    const double inv = 1.0 / err;
    for (int j = 0; j < dist_size; ++j) {
      log_dist[j] -= lz;
      distribution[j] *= inv;
    }
  } else if (loss_mode == 1) {
    if (abstain == 0.0) {
      const double beta = err / (1.0 - err);
      for (int i = 0; i < m; ++i)
        for (int l = 0; l < k; ++l) {
          const double p = train_pred[i][l];
          const double a = y[i][l] ? p : 1.0 - p;
          distribution[i * k + l] *= 1.0 - (1.0 - beta) * a;
        }
    } else {
      const double wm = err - abstain / 2;
      const double wp = 1.0 - err - abstain / 2;
      const double norm = 1.0 / (2 * sqrt(wp * wm) + abstain);
      for (int i = 0; i < m; ++i)
        for (int l = 0; l < k; ++l) {
          const double p = train_pred[i][l];
          const double label = y[i][l] ? 1.0 : 0.0;
          if (p == 0.5)
            distribution[i * k + l] *= norm;
          else if (p == label)
            distribution[i * k + l] *= sqrt(wm / wp) * norm;
          else
            distribution[i * k + l] *= sqrt(wp / wm) * norm;
        }
    }
    double sum = 0.0;
    for (int j = 0; j < dist_size; ++j) sum += distribution[j];
    for (int j = 0; j < dist_size; ++j) distribution[j] /= sum;
  } else if (loss_mode == 2) {
    const double beta = sqrt(err / (1.0 - err));
    double z = 0.0;
    for (int i = 0; i < m; ++i) {
      double s0 = 0.0, s1 = 0.0;
      for (int l = 0; l < k; ++l) {
        const double p = train_pred[i][l];
        const double a = y[i][l] ? p : 1.0 - p;
        virtual_dist[i * k + l] *= 1.0 - (1.0 - beta) * a;
        if (y[i][l])
          s1 += virtual_dist[i * k + l];
        else
          s0 += virtual_dist[i * k + l];
      }
      z += s0 * s1;
      for (int l = 0; l < k; ++l)
        distribution[i * k + l] = virtual_dist[i * k + l] * (y[i][l] ? s0 : s1);
    }
    const double s = 0.5 / z;
    const double rs = sqrt(s);
    for (int j = 0; j < dist_size; ++j) {
      virtual_dist[j] *= rs;
      distribution[j] *= s;
    }
  }
}

double compute_loss(struct weak_hyp* entry, double* out_abstain, double alpha) {
  const int m = data->num_train;
  const int k = data->num_classes;
  unsigned char** y = data->train_labels;
  double* d = distribution;
  for (int i = 0; i < m; ++i)
    memcpy(train_pred[i], eval_weak_hyp(entry, data->train_examples[i]),
           sizeof(double) * k);
  double loss = 0.0;
  if (loss_mode != 3) {
    for (int i = 0; i < m; ++i)
      for (int l = 0; l < k; ++l) {
        const double p = train_pred[i][l];
        loss += y[i][l] ? d[i * k + l] * (1.0 - p) : d[i * k + l] * p;
      }
  } else {
    // Each weight is updated on its own (on all threads); Z is then summed
    // in example order.
    Run_Parallel(m, [&](int i0, int i1, int) {
      for (int i = i0; i < i1; ++i)
        for (int l = 0; l < k; ++l) {
          const double p = train_pred[i][l];
          log_dist[i * k + l] += y[i][l] ? -alpha * p : alpha * p;
          d[i * k + l] = exp(log_dist[i * k + l]);
        }
    });
    for (int j = 0; j < m * k; ++j) loss += d[j];
  }
  *out_abstain = 0.0;
  if (loss_mode == 1) {
    double abstain = 0.0;
    for (int i = 0; i < m; ++i)
      for (int l = 0; l < k; ++l) {
        const double p = train_pred[i][l];
        if (p == 0.0 || p == 1.0) continue;
        if (p == 0.5) {
          abstain += d[i * k + l];
        } else {
          *out_abstain = 0.0;
          return loss;
        }
      }
    abstain -= 1e-50;
    if (abstain < 0) abstain = 0.0;
    *out_abstain = abstain;
  }
  return loss;
}

namespace {

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

}  // namespace

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
  const int k = data->num_classes;
  *out_err = 0.0;
  *out_rej_err = 0.0;
  *out_rej_frac = 0.0;
  if (utility_mode) {
    for (int i = 0; i < n; ++i) {
      const int c = carries_class1(labels[i], k);
      double* result = eval_strong_hyp(sums[i], nullptr);
      *out_err += utility[2 * c] * result[0] + utility[2 * c + 1] * result[1];
    }
    return;
  }
  // Each example's error and margin on all threads; the totals are then
  // summed in example order.
  static std::vector<double> wrongs, margins;
  wrongs.resize(n > 0 ? n : 1);
  margins.resize(n > 0 ? n : 1);
  Run_Parallel(n, [&](int i0, int i1, int) {
    std::vector<double> result(k < 2 ? 2 : k);
    for (int i = i0; i < i1; ++i) {
      strong_prediction(sums[i], &margins[i], result.data());
      double wrong = 0.0;
      for (int l = 0; l < k; ++l)
        if (!labels[i][l]) wrong += result[l];
      wrongs[i] = wrong;
    }
  });
  int rejected = 0;
  for (int i = 0; i < n; ++i) {
    *out_err += wrongs[i];
    if (reject_threshold > margins[i])
      rejected++;
    else
      *out_rej_err += wrongs[i];
  }
  *out_err /= n;
  *out_rej_err /= (n - rejected);
  *out_rej_frac = static_cast<double>(rejected) / n;
}

void display_strong_hyp() {
  FILE* out = classify_new_test_mode ? stderr : stdout;
  double err, rej_err, rej_frac;
  eval_error(data->num_test, data->test_examples, data->test_labels, test_sum_wh, &err,
             &rej_err, &rej_frac);
  fprintf(out, "test= %9.7f ", err);
  if (reject_threshold > 0) fprintf(out, "(%lf, %lf)", rej_err, rej_frac);
  if (classify_new_test_mode) {
    fprintf(out, "\n");
    return;
  }
  fprintf(out, " ");
  eval_error(data->num_train, data->train_examples, data->train_labels, train_sum_wh, &err,
             &rej_err, &rej_frac);
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
  if (num_trials <= 0) {
    if (output_pred_mode) output_all_preds();
    return;
  }

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
    double abstain = 0.0;
    const double err = compute_loss(entry, &abstain, alpha);
    if (t >= n_stored) {
      if (diff_wts_mode && err == 0.0) {
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
    if (loss_mode == 3)
      bound = bound * err;
    else
      bound = bound * (abstain + 2 * sqrt((1.0 - err - abstain / 2) * (err - abstain / 2)));
    num_weak_hyps = t + 1;
    total_wh_wt += entry->weight;
    update_weak_hyp_sums(entry);

    const int r = t - (n_stored - 1);
    if (t == num_trials - 1 || (display_hyp_freq != 0 && r % display_hyp_freq == 0)) {
      printf("rnd %4d: wh-err= %lf  th-err= %lf  ", r, err, bound);
      display_strong_hyp();
      fflush(stdout);
    }
    modify_distribution(entry, err, abstain);
  }
  if (output_pred_mode) output_all_preds();
}

void use_old_hyp() {
  const int k = data->num_classes;
  test_sum_wh = alloc_rows(1, k);
  train_sum_wh = alloc_rows(0, k);
  train_pred = alloc_rows(0, k);
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
      update_weak_hyp_sums(&weak_hyp[t]);
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
