// Linear experts on continuous attributes: for every label a slope alpha and
// an intercept beta, fitted by Newton steps on the exponential loss over the
// examples with a known value, and the score (a full Z) the search driver
// compares against the other experts' scores.
//
// The fit's stopping rules look odd but are kept as they are because the
// chosen experts, and so the written models, depend on them:
//   - the "previous Z" of the loops starts at 0 and is only replaced inside
//     the joint loop, so the alpha loop always takes exactly one step and the
//     first joint step always measures its gain against 0;
//   - ComputeZ is handed the flat weight array D, not the weights of the
//     listed examples;
//   - only large positive alpha or beta undo a joint step.
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdlib>

#include "loss.h"
#include "read_data.h"

namespace {

// Sum over j of f(j) * q[j] in index order: ExpectedValue of the vector
// f(0..n-1) without storing it. Each f(j) is rounded to double before the
// product, exactly as if it had been stored.
template <typename F>
double Expect(const double* q, int n, F f) {
  double sum = 0.0;
  for (int j = 0; j < n; j++) {
    double a = f(j);
    sum += a * q[j];
  }
  return sum;
}

inline std::size_t At(int i, int k, int l) {
  return static_cast<std::size_t>(i) * static_cast<std::size_t>(k) +
         static_cast<std::size_t>(l);
}

// Exponent of the exponential loss at one example: -s (alpha x + beta).
inline double Margin_Exponent(int s, double alpha, double x, double beta) {
  return -s * (alpha * x + beta);
}

}  // namespace

double ExpectedValue(const double* a, const double* q, int n) {
  double sum = 0.0;
  for (int j = 0; j < n; j++) sum += a[j] * q[j];
  return sum;
}

void ComputeNewAlpha(double* alpha, const double* q, const double* x,
                     const int* s, int n) {
  double xs = Expect(q, n, [&](int j) { return x[j] * s[j]; });
  double xxss =
      Expect(q, n, [&](int j) { return x[j] * x[j] * s[j] * s[j]; });
  *alpha = *alpha + xs / xxss;
}

void ComputeNewAlphaBeta(double* alpha, double* beta, const double* q,
                         const double* x, const int* s, int n) {
  double A = Expect(q, n, [&](int j) { return x[j] * x[j]; });
  double B = Expect(q, n, [&](int j) { return x[j] * s[j]; });
  double C = Expect(q, n, [&](int j) { return static_cast<double>(s[j]); });
  double X = Expect(q, n, [&](int j) { return x[j]; });
  double P = A - B * B;
  double R = X - B * C;
  double T = 1 - C * C;
  // A singular system gives inf or NaN steps; the caller's checks decide.
  double det = P * T - R * R;
  *alpha = *alpha + (T / det) * B + (-R / det) * C;
  *beta = *beta + (-R / det) * B + (P / det) * C;
}

void ComputeNewVirtDist(double* q, const double* D, double alpha, double beta,
                        const double* x, const int* s, int k, int n, int l,
                        const int* list) {
  // Shifting every exponent by the largest keeps exp() from overflowing;
  // the shift cancels in the normalisation.
  double M = -DBL_MAX;
  for (int j = 0; j < n; j++) {
    q[j] = Margin_Exponent(s[j], alpha, x[j], beta);
    if (q[j] > M) M = q[j];
  }
  double sum = 0.0;
  for (int j = 0; j < n; j++) {
    q[j] = std::exp(q[j] - M) * D[At(list[j], k, l)];
    sum += q[j];
  }
  for (int j = 0; j < n; j++) q[j] = q[j] / sum;
}

double ComputeZ(int n, const double* w, const int* s, double alpha,
                const double* x, double beta) {
  double z = 0.0;
  for (int j = 0; j < n; j++) {
    if (w[j] != 0)
      z += w[j] * std::exp(Margin_Exponent(s[j], alpha, x[j], beta));
  }
  return z;
}

long double Text_Expert_Table_Exp_Loss_Linear(double* D, text_expert_rec* e,
                                              unsigned char** labels, int k,
                                              weight_table W) {
  const int n = e->num_train;
  const int* list = e->train_index;
  const double* x = e->values;

  // Weights of the listed examples, by label sign.
  for (int r = 1; r <= 2; r++)
    for (int b = 0; b < 2; b++)
      for (int l = 0; l < k; l++) W[r][b][l] = 0.0;
  for (int j = 0; j < n; j++) {
    int i = list[j];
    for (int l = 0; l < k; l++) W[1][labels[i][l] != 0][l] += D[At(i, k, l)];
  }

  // Score accumulation: each label's term is computed in double and added,
  // in label order, to a long double sum. First the examples without a
  // known value (each side at its best constant, half Z), then that sum is
  // doubled, then every listed example's loss under the fitted line is
  // added, examples in list order and labels in order within each.
  long double score = 0.0L;
  for (int b = 0; b < 2; b++)
    for (int l = 0; l < k; l++) W[0][b][l] -= W[1][b][l];
  for (int l = 0; l < k; l++) {
    double term = std::sqrt(W[0][0][l] * W[0][1][l]);
    score += term;
  }
  for (int b = 0; b < 2; b++)
    for (int l = 0; l < k; l++) W[0][b][l] += W[1][b][l];

  if (e->linear_a == nullptr)
    e->linear_a = static_cast<double*>(Malloc(sizeof(double) * k));
  if (e->linear_b == nullptr)
    e->linear_b = static_cast<double*>(Malloc(sizeof(double) * k));
  double* alpha = e->linear_a;
  double* beta = e->linear_b;
  for (int l = 0; l < k; l++) {
    alpha[l] = 0.0;
    beta[l] = 0.0;
  }

  // Working vectors shared by all labels (at least one slot so that an
  // expert with no listed example still gets a valid block).
  std::size_t slots = n > 0 ? static_cast<std::size_t>(n) : 1;
  double* q = static_cast<double*>(Malloc(sizeof(double) * slots));
  int* sign = static_cast<int*>(Malloc(sizeof(int) * slots));

  for (int l = 0; l < k; l++) {
    for (int j = 0; j < n; j++) {
      int i = list[j];
      q[j] = D[At(i, k, l)];
      sign[j] = 2 * (labels[i][l] != 0) - 1;
    }
    beta[l] = 0.5 * std::log(W[0][1][l] / W[0][0][l]);
    if (W[0][1][l] == 0 && W[0][0][l] == 0) {
      beta[l] = 0.0;
      continue;
    }

    double prev_z = 0.0;
    double z;
    double gain;
    // Alpha alone. prev_z stays 0 here, so the gain is -1 (or NaN) and the
    // loop body runs once.
    do {
      ComputeNewAlpha(&alpha[l], q, x, sign, n);
      ComputeNewVirtDist(q, D, alpha[l], beta[l], x, sign, k, n, l, list);
      z = ComputeZ(n, D, sign, alpha[l], x, beta[l]);
      gain = (prev_z - z) / z;
    } while (gain > 0.0001);

    // Alpha and beta together.
    double saved_alpha;
    double saved_beta;
    for (;;) {
      saved_alpha = alpha[l];
      saved_beta = beta[l];
      ComputeNewAlphaBeta(&alpha[l], &beta[l], q, x, sign, n);
      ComputeNewVirtDist(q, D, alpha[l], beta[l], x, sign, k, n, l, list);
      z = ComputeZ(n, D, sign, alpha[l], x, beta[l]);
      if (alpha[l] > 1000 || beta[l] > 1000) {
        alpha[l] = saved_alpha;
        beta[l] = saved_beta;
        break;
      }
      if (!(z > 1e-08)) break;
      gain = (prev_z - z) / z;
      if (!(gain > 0.0001)) break;
      prev_z = z;
    }
    if (z > prev_z) {
      alpha[l] = saved_alpha;
      beta[l] = saved_beta;
    }
  }

  score = score * 2;
  for (int j = 0; j < n; j++) {
    int i = list[j];
    for (int l = 0; l < k; l++) {
      double d = D[At(i, k, l)];
      if (d != 0) {
        int y = labels[i][l] != 0;
        double term = d * std::exp((alpha[l] * x[j] + beta[l]) * (1 - 2 * y));
        score += term;
      }
    }
  }

  std::free(q);
  std::free(sign);
  return score;
}
