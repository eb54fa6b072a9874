// The multi-threaded scan must choose exactly what a plain sequential scan in
// array order chooses, and leave the totals in exactly the same state, for
// every thread count. The sequential scan here is the oracle: one call of the
// scoring function per expert, in order, on one shared table.
#include "score_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

struct Synthetic {
  int m = 0, k = 0;
  std::vector<std::vector<unsigned char>> label_store;
  std::vector<unsigned char*> labels;
  std::vector<text_expert_rec> experts;
  std::vector<std::vector<int>> lists;
  std::vector<std::vector<double>> values;
  std::vector<std::vector<int>> sorted_index;
  std::vector<std::string> terms;
  example_data data{};
  std::vector<double> D;
};

// Many experts share lists (twins, adjacent and not), some occur nowhere,
// a few are thresholds with tied values; weights span many magnitudes so
// that the totals drift by last bits from expert to expert. Examples carry
// one label, sometimes two, plus `extra_labels` more; thresholds take
// `values` distinct values.
void build(Synthetic* s, unsigned seed, int m, int k, int n_experts, int extra_labels = 0,
           int values = 7) {
  std::mt19937 rng(seed);
  s->m = m;
  s->k = k;
  s->label_store.assign(m, std::vector<unsigned char>(k, 0));
  for (int i = 0; i < m; ++i) {
    s->label_store[i][rng() % k] = 1;
    if (rng() % 4 == 0) s->label_store[i][rng() % k] = 1;
    for (int x = 0; x < extra_labels; ++x) s->label_store[i][rng() % k] = 1;
  }
  for (auto& v : s->label_store) s->labels.push_back(v.data());
  s->D.resize(static_cast<size_t>(m) * k);
  double total = 0;
  for (auto& d : s->D) {
    d = std::ldexp(1.0 + (rng() % 1000) / 997.0, -static_cast<int>(rng() % 30));
    total += d;
  }
  for (auto& d : s->D) d /= total;

  s->lists.resize(n_experts);
  s->values.resize(n_experts);
  s->sorted_index.resize(n_experts);
  s->terms.resize(n_experts);
  s->experts.assign(n_experts + 1, text_expert_rec{});
  for (int e = 0; e < n_experts; ++e) {
    text_expert_rec& x = s->experts[e];
    s->terms[e] = "t" + std::to_string(e);
    x.term = s->terms[e].data();
    const unsigned kind = rng() % 20;
    if (kind == 0) {  // threshold over a few repeated values
      x.type = kTypeThreshold;
      std::vector<std::pair<double, int>> pairs;
      for (int i = 0; i < m; ++i)
        if (rng() % 3) pairs.push_back({static_cast<double>(rng() % values), i});
      std::sort(pairs.begin(), pairs.end());
      for (auto& p : pairs) {
        s->values[e].push_back(p.first);
        s->sorted_index[e].push_back(p.second);
      }
      x.num_train = static_cast<int>(pairs.size());
      x.sorted_values = s->values[e].data();
      x.sorted_index = s->sorted_index[e].data();
      x.values = s->values[e].data();
      x.train_index = s->sorted_index[e].data();
    } else {
      x.type = kTypeFgram;
      if (e > 0 && kind < 8) {
        int twin = e - 1 - static_cast<int>(rng() % std::min(e, 5));
        if (s->experts[twin].type == kTypeFgram) s->lists[e] = s->lists[twin];
      }
      if (s->lists[e].empty() && kind != 19) {
        const int len = 1 + static_cast<int>(rng() % (kind < 12 ? 3 : m / 2));
        for (int i = 0; i < m; ++i)
          if (static_cast<int>(rng() % m) < len) s->lists[e].push_back(i);
      }
      x.num_train = static_cast<int>(s->lists[e].size());
      x.train_index = s->lists[e].data();
    }
  }
  s->data.num_classes = k;
  s->data.num_train = m;
  s->data.train_labels = s->labels.data();
}

struct Table {
  weight_table W;
  explicit Table(int k) {
    for (auto& r : W)
      for (auto& v : r) v = new double[k]();
  }
  ~Table() {
    for (auto& r : W)
      for (auto& v : r) delete[] v;
  }
};

void fill_totals(const Synthetic& s, weight_table W) {
  for (int b = 0; b < 2; ++b)
    for (int l = 0; l < s.k; ++l) W[0][b][l] = 0.0;
  for (int i = 0; i < s.m; ++i)
    for (int l = 0; l < s.k; ++l) W[0][s.labels[i][l] ? 1 : 0][l] += s.D[i * s.k + l];
}

// The discrete learners' weights: negated where the example carries the
// label, with their per-label totals added in example order.
std::vector<double> signed_weights(const Synthetic& s, std::vector<double>* totals) {
  std::vector<double> w(s.D);
  totals->assign(s.k, 0.0);
  for (int i = 0; i < s.m; ++i)
    for (int l = 0; l < s.k; ++l) {
      double& v = w[static_cast<size_t>(i) * s.k + l];
      if (s.labels[i][l]) v = -v;
      (*totals)[l] += v;
    }
  return w;
}

int sequential_scan(Synthetic* s, weight_table W, int abstaining) {
  double best = 1.0;
  int best_index = 0;
  long double score = 0;
  for (int e = 0; s->experts[e].term != nullptr; ++e) {
    text_expert_rec* x = &s->experts[e];
    if (!abstaining)
      score = x->type == kTypeThreshold
                  ? Text_Expert_Table_Exp_Loss_Threshold(s->D.data(), x, s->labels.data(), s->k, W)
                  : Text_Expert_Table_Exp_Loss(s->D.data(), x, s->labels.data(), s->k, W);
    else
      score = x->type == kTypeThreshold
                  ? Text_Expert_Table_Exp_Loss_Threshold_Randomized(s->D.data(), x, s->labels.data(), s->k, W)
                  : Text_Expert_Table_Exp_Loss_Randomized(s->D.data(), x, s->labels.data(), s->k, W);
    if (static_cast<double>(score) < best) {
      best = static_cast<double>(score);
      best_index = e;
    }
  }
  return best_index;
}

TEST(ScorePool, RealScanMatchesSequentialForEveryThreadCount) {
  for (unsigned seed : {1u, 2u, 3u}) {
    Synthetic s;
    build(&s, seed, 200, 7, 12000);  // more experts than one block
    Table ref(s.k);
    fill_totals(s, ref.W);
    const int expected = sequential_scan(&s, ref.W, 0);
    for (int threads : {1, 2, 7}) {
      Score_Pool_Init(s.experts.data(), &s.data, threads);
      // Each thread count with another summing kernel.
      Score_Pool_Use_Kernel(threads == 1 ? 0 : threads == 2 ? 2 : -1);
      Table got(s.k);
      fill_totals(s, got.W);
      EXPECT_EQ(expected, Score_Pool_Search(s.D.data(), got.W, 0)) << "threads " << threads;
      for (int b = 0; b < 2; ++b)
        EXPECT_EQ(0, memcmp(ref.W[0][b], got.W[0][b], sizeof(double) * s.k))
            << "totals differ, threads " << threads << " seed " << seed;
    }
    Score_Pool_Use_Kernel(-1);
  }
}

// Experts ordered by falling score all pass the bound and each in turn
// becomes the best, so the winner is the last of them: every candidate of
// a block must be scored, whether a block has a few or very many.
TEST(ScorePool, EveryCandidateIsScored) {
  for (int n : {40, 3000}) {
    Synthetic s;
    build(&s, 11, 300, 9, n);
    std::vector<std::pair<double, int>> by_score;
    for (int e = 0; e < n; ++e) {
      if (s.experts[e].type != kTypeFgram) continue;
      Table t(s.k);
      fill_totals(s, t.W);
      const double score = static_cast<double>(
          Text_Expert_Table_Exp_Loss(s.D.data(), &s.experts[e], s.labels.data(), s.k, t.W));
      by_score.push_back({-score, e});
    }
    std::sort(by_score.begin(), by_score.end());
    std::vector<text_expert_rec> ordered;
    for (size_t q = 0; q < by_score.size(); ++q)
      if (q == 0 || by_score[q].first != by_score[q - 1].first)
        ordered.push_back(s.experts[by_score[q].second]);
    const int last = static_cast<int>(ordered.size()) - 1;
    ordered.push_back(text_expert_rec{});
    s.experts = ordered;
    Table ref(s.k);
    fill_totals(s, ref.W);
    const int expected = sequential_scan(&s, ref.W, 0);
    ASSERT_GT(expected, last - 3) << "the set no longer has its winner at the end";
    for (int threads : {1, 2, 7}) {
      Score_Pool_Init(s.experts.data(), &s.data, threads);
      Table got(s.k);
      fill_totals(s, got.W);
      EXPECT_EQ(expected, Score_Pool_Search(s.D.data(), got.W, 0)) << n << " experts, threads " << threads;
    }
  }
}

// The shapes the kernels treat apart: several vectors of labels, lists
// long enough to be summed band by band over one band of rows or many,
// threshold sweeps large enough to be split among the threads, and examples
// that carry few labels (summed one by one) or many (summed as rows). The
// chosen thresholds must match too.
TEST(ScorePool, WideShapesMatchSequential) {
  struct Shape {
    int m, k, experts, extra_labels, values;
  };
  for (const Shape& shape : {Shape{2600, 40, 1500, 0, 900}, Shape{2300, 12, 1200, 5, 300},
                             Shape{1500, 67, 800, 0, 1500}}) {
    Synthetic s;
    build(&s, static_cast<unsigned>(shape.k), shape.m, shape.k, shape.experts, shape.extra_labels,
          shape.values);
    Table ref(s.k), start(s.k);
    fill_totals(s, ref.W);
    fill_totals(s, start.W);
    const int expected = sequential_scan(&s, ref.W, 0);
    std::vector<double> thresholds;
    for (const auto& x : s.experts) thresholds.push_back(x.threshold);
    for (int threads : {1, 2, 7}) {
      for (int band : {0, 96}) {
        for (int kernel : {0, 2, -1}) {
          Score_Pool_Band_Rows(band);
          Score_Pool_Init(s.experts.data(), &s.data, threads);
          Score_Pool_Band_Rows(0);
          Score_Pool_Use_Kernel(kernel);
          for (auto& x : s.experts) x.threshold = -1.0;
          Table got(s.k);
          // The pool's totals (which also lay out the round's rows) must be
          // those of the sequential sum.
          Score_Pool_Totals(s.D.data(), got.W);
          const std::string what = "k " + std::to_string(s.k) + " threads " + std::to_string(threads) +
                                   " band " + std::to_string(band) + " kernel " + std::to_string(kernel);
          for (int b = 0; b < 2; ++b)
            ASSERT_EQ(0, memcmp(start.W[0][b], got.W[0][b], sizeof(double) * s.k)) << what;
          EXPECT_EQ(expected, Score_Pool_Search(s.D.data(), got.W, 0)) << what;
          for (int b = 0; b < 2; ++b)
            EXPECT_EQ(0, memcmp(ref.W[0][b], got.W[0][b], sizeof(double) * s.k)) << what;
          for (size_t e = 0; e + 1 < s.experts.size(); ++e)
            if (s.experts[e].type == kTypeThreshold) {
              EXPECT_EQ(thresholds[e], s.experts[e].threshold) << what << " expert " << e;
            }
        }
      }
    }
    Score_Pool_Use_Kernel(-1);
  }
}

// A large sweep whose best score is tied exactly over a run of positions
// (the examples there weigh nothing): the first of them must be chosen.
TEST(ScorePool, LargeSweepTakesTheFirstOfTiedPositions) {
  Synthetic s;
  const int m = 2000, k = 40;
  build(&s, 3, m, k, 1);
  for (auto& row : s.label_store) std::fill(row.begin(), row.end(), 0);
  s.values.assign(1, {});
  s.sorted_index.assign(1, {});
  for (int i = 0; i < m; ++i) {
    const double v = i / 4;  // four examples per value
    s.label_store[i][v < 250 ? 0 : 1] = 1;
    s.label_store[i][2 + i % 7] = 1;
    s.values[0].push_back(v);
    s.sorted_index[0].push_back(i);
    if (v >= 240 && v < 260)
      for (int l = 0; l < k; ++l) s.D[static_cast<size_t>(i) * k + l] = 0.0;
  }
  text_expert_rec& x = s.experts[0];
  x.type = kTypeThreshold;
  x.num_train = m;
  x.sorted_values = x.values = s.values[0].data();
  x.sorted_index = x.train_index = s.sorted_index[0].data();
  Table ref(k);
  fill_totals(s, ref.W);
  const long double score = Text_Expert_Table_Exp_Loss_Threshold(s.D.data(), &x, s.labels.data(), k, ref.W);
  const double expected = x.threshold;
  ASSERT_LT(expected, 241.0);  // the tie starts at the first zero-weight value
  for (int threads : {1, 2}) {
    Score_Pool_Init(s.experts.data(), &s.data, threads);
    x.threshold = -1.0;
    Table got(k);
    fill_totals(s, got.W);
    EXPECT_EQ(0, Score_Pool_Search(s.D.data(), got.W, 0));
    EXPECT_EQ(expected, x.threshold) << "threads " << threads;
    for (int b = 0; b < 2; ++b) EXPECT_EQ(0, memcmp(ref.W[0][b], got.W[0][b], sizeof(double) * k));
  }
  EXPECT_GT(score, 0.0L);
}

TEST(ScorePool, TwinsShareTheirListId) {
  Synthetic s;
  build(&s, 9, 50, 3, 500);
  Score_Pool_Init(s.experts.data(), &s.data, 1);
  for (int e = 0; e < 500; ++e) {
    const text_expert_rec& x = s.experts[e];
    const text_expert_rec& first = s.experts[x.list_id];
    ASSERT_LE(x.list_id, e);
    if (x.type != kTypeFgram) continue;
    ASSERT_EQ(x.num_train, first.num_train);
    EXPECT_TRUE(std::equal(x.train_index, x.train_index + x.num_train, first.train_index));
  }
}

TEST(ScorePool, AbstainingScanMatchesSequential) {
  Synthetic s;
  build(&s, 5, 200, 5, 9000);
  Table ref(s.k);
  const int expected = sequential_scan(&s, ref.W, 1);
  for (int threads : {1, 3}) {
    Score_Pool_Init(s.experts.data(), &s.data, threads);
    Table got(s.k);
    EXPECT_EQ(expected, Score_Pool_Search(s.D.data(), got.W, 1));
  }
}

// Examples in groups with equal labels and equal weights, as the boosting
// loop keeps them: with one row per group the scans must still choose what
// the sequential scans choose and leave the same totals.
TEST(ScorePool, GroupsSharingRowsMatchSequential) {
  for (const int k : {7, 40}) {
    Synthetic s;
    build(&s, 21 + k, 1200, k, 2500);
    const int groups = 300;
    std::mt19937 rng(5);
    std::vector<int> group_of(s.m), first(groups);
    for (int i = 0; i < s.m; ++i) {
      // The first examples in a scrambled order, so that group g's first
      // example is not example g.
      const int g = i < groups ? i * 7 % groups : static_cast<int>(rng() % groups);
      group_of[i] = g;
      if (i < groups) {
        first[g] = i;
        continue;
      }
      s.label_store[i] = s.label_store[first[g]];
      std::copy_n(&s.D[static_cast<size_t>(first[g]) * k], k, &s.D[static_cast<size_t>(i) * k]);
    }
    Table ref(s.k);
    fill_totals(s, ref.W);
    const int expected = sequential_scan(&s, ref.W, 0);
    Table abstaining_ref(s.k);
    const int expected_abstaining = sequential_scan(&s, abstaining_ref.W, 1);
    for (int threads : {1, 2, 7}) {
      for (int band : {0, 96}) {
        for (int kernel : {0, 2, -1}) {
          const std::string what = "k " + std::to_string(k) + " threads " + std::to_string(threads) +
                                   " band " + std::to_string(band) + " kernel " + std::to_string(kernel);
          Score_Pool_Band_Rows(band);
          Score_Pool_Init(s.experts.data(), &s.data, threads);
          Score_Pool_Band_Rows(0);
          Score_Pool_Use_Kernel(kernel);
          Table got(s.k);
          Score_Pool_Row_Groups(group_of.data(), first.data(), groups);
          Score_Pool_Totals(s.D.data(), got.W);
          EXPECT_EQ(expected, Score_Pool_Search(s.D.data(), got.W, 0)) << what;
          for (int b = 0; b < 2; ++b)
            EXPECT_EQ(0, memcmp(ref.W[0][b], got.W[0][b], sizeof(double) * s.k)) << what;
          Table abstaining(s.k);
          Score_Pool_Row_Groups(group_of.data(), first.data(), groups);
          EXPECT_EQ(expected_abstaining, Score_Pool_Search(s.D.data(), abstaining.W, 1)) << what;
        }
      }
    }
    Score_Pool_Use_Kernel(-1);
  }
}

TEST(ScorePool, DistantTwinsAndEmptyLists) {
  Synthetic s;
  build(&s, 11, 40, 2, 10);
  // Two identical lists far apart, and experts that occur nowhere.
  for (int e = 0; e < 10; ++e) {
    s.experts[e].type = kTypeFgram;
    s.lists[e].clear();
    s.experts[e].num_train = 0;
    s.experts[e].train_index = s.lists[e].data();
  }
  for (int i = 0; i < 40; i += 2) {
    s.lists[3].push_back(i);
    s.lists[8].push_back(i);
  }
  for (int e : {3, 8}) {
    s.experts[e].num_train = static_cast<int>(s.lists[e].size());
    s.experts[e].train_index = s.lists[e].data();
  }
  Table ref(s.k);
  fill_totals(s, ref.W);
  const int expected = sequential_scan(&s, ref.W, 0);
  Score_Pool_Init(s.experts.data(), &s.data, 2);
  Table got(s.k);
  fill_totals(s, got.W);
  EXPECT_EQ(expected, Score_Pool_Search(s.D.data(), got.W, 0));
}

// The discrete scan scores most experts by an estimate and only the few
// that could win exactly. Against one exact scoring call per expert in
// order: the same winner and the same votes, with the signed weights of a
// discrete round, for every thread count, with and without abstaining.
// Pairs of examples with equal labels and weights give experts that occur
// in one or the other exact ties (the first must win); experts ordered by
// falling score each become the best in turn.
TEST(ScorePool, DiscreteScanMatchesSequential) {
  for (const bool falling : {false, true}) {
    Synthetic s;
    build(&s, 31, 400, 9, falling ? 3000 : 12000);
    for (int i = 0; i + 1 < s.m; i += 2) {
      std::copy(s.label_store[i].begin(), s.label_store[i].end(), s.label_store[i + 1].begin());
      std::copy_n(&s.D[static_cast<size_t>(i) * s.k], s.k, &s.D[static_cast<size_t>(i + 1) * s.k]);
    }
    for (int e = 0; e + 1 < static_cast<int>(s.experts.size()) - 1; e += 40) {
      if (s.experts[e].type != kTypeFgram || s.experts[e + 1].type != kTypeFgram) continue;
      const int i = 2 * ((e / 40) % (s.m / 2));
      s.lists[e] = {i};
      s.lists[e + 1] = {i + 1};
      for (int x : {e, e + 1}) {
        s.experts[x].num_train = 1;
        s.experts[x].train_index = s.lists[x].data();
      }
    }
    std::vector<double> S;
    std::vector<double> signed_w = signed_weights(s, &S);
    for (const int abstain : {0, 1}) {
      std::vector<std::vector<double>> c(3, std::vector<double>(s.k));
      auto score = [&](text_expert_rec* x, std::vector<std::vector<double>>& out) {
        if (x->type == kTypeThreshold)
          return abstain ? Text_Expert_PLoss_Threshold_Randomized(signed_w.data(), x, s.k, S.data(),
                                                                  out[0].data(), out[1].data(), out[2].data())
                         : Text_Expert_PLoss_Threshold(signed_w.data(), x, s.k, S.data(), out[0].data(),
                                                       out[1].data(), out[2].data());
        return abstain ? Text_Expert_PLoss_Randomized(signed_w.data(), x, s.k, S.data(), out[0].data(), out[1].data())
                       : Text_Expert_PLoss(signed_w.data(), x, s.k, S.data(), out[0].data(), out[1].data());
      };
      if (falling) {
        // Term experts only, from the highest score to the lowest.
        std::vector<std::pair<double, int>> by_score;
        for (int e = 0; s.experts[e].term != nullptr; ++e)
          if (s.experts[e].type == kTypeFgram) by_score.push_back({-score(&s.experts[e], c), e});
        std::sort(by_score.begin(), by_score.end());
        std::vector<text_expert_rec> ordered;
        for (auto& p : by_score) ordered.push_back(s.experts[p.second]);
        ordered.push_back(text_expert_rec{});
        s.experts = ordered;
      }
      double best = 1.0;
      int expected = 0;
      std::vector<std::vector<double>> votes(3, std::vector<double>(s.k, 0.0));
      for (int e = 0; s.experts[e].term != nullptr; ++e) {
        const double sc = score(&s.experts[e], c);
        if (sc < best) {
          best = sc;
          expected = e;
          for (int t = 0; t < 3; ++t)
            if (s.experts[e].type == kTypeThreshold || t < 2) votes[t] = c[t];
        }
      }
      if (s.experts[expected].type != kTypeThreshold) votes[2].assign(s.k, 0.0);
      for (int threads : {1, 2, 7}) {
        Score_Pool_Init(s.experts.data(), &s.data, threads);
        std::vector<std::vector<double>> got(3, std::vector<double>(s.k, -1.0));
        double* out[3] = {got[0].data(), got[1].data(), got[2].data()};
        std::vector<double> w(signed_w);
        const std::string what = std::string(falling ? "falling" : "mixed") + ", abstain " +
                                 std::to_string(abstain) + ", threads " + std::to_string(threads);
        EXPECT_EQ(expected, Score_Pool_Search_Discrete(w.data(), S.data(), abstain, out)) << what;
        for (int t = 0; t < 3; ++t) EXPECT_EQ(votes[t], got[t]) << what << ", votes " << t;
      }
    }
  }
}

// Three lists over the same three weight rows in rotated orders: their
// sums, and so their scores, differ in the last bits at most, and an
// estimate that adds the terms in another order can rank them the other
// way round. The scan must still take the first exactly smallest.
TEST(ScorePool, DiscreteScanKeepsNearTies) {
  int unequal = 0;
  for (unsigned seed = 0; seed < 200; ++seed) {
    Synthetic s;
    build(&s, 100 + seed, 9, 9, 3);
    std::mt19937 rng(seed);
    std::vector<std::vector<double>> rows(3, std::vector<double>(s.k));
    std::vector<std::vector<unsigned char>> labels(3, std::vector<unsigned char>(s.k));
    for (int r = 0; r < 3; ++r)
      for (int l = 0; l < s.k; ++l) {
        labels[r][l] = rng() % 2;
        rows[r][l] = std::ldexp(1.0 + (rng() % 100000) / 99991.0, -static_cast<int>(rng() % 40));
      }
    // Examples 0-2 hold rows A B C, 3-5 B C A, 6-8 C A B.
    for (int g = 0; g < 3; ++g) {
      for (int q = 0; q < 3; ++q) {
        const int i = 3 * g + q, r = (g + q) % 3;
        std::copy(labels[r].begin(), labels[r].end(), s.label_store[i].begin());
        std::copy(rows[r].begin(), rows[r].end(), &s.D[static_cast<size_t>(i) * s.k]);
      }
      s.experts[g].type = kTypeFgram;
      s.lists[g] = {3 * g, 3 * g + 1, 3 * g + 2};
      s.experts[g].num_train = 3;
      s.experts[g].train_index = s.lists[g].data();
    }
    std::vector<double> S;
    std::vector<double> w = signed_weights(s, &S);
    std::vector<double> c0(s.k), c1(s.k), c2(s.k);
    double best = 1.0;
    int expected = 0;
    double first = 0;
    for (int e = 0; e < 3; ++e) {
      const double sc = Text_Expert_PLoss(w.data(), &s.experts[e], s.k, S.data(), c0.data(), c1.data());
      if (e == 0) first = sc;
      if (sc != first) ++unequal;
      if (sc < best) {
        best = sc;
        expected = e;
      }
    }
    for (int threads : {1, 2}) {
      Score_Pool_Init(s.experts.data(), &s.data, threads);
      double* out[3] = {c0.data(), c1.data(), c2.data()};
      EXPECT_EQ(expected, Score_Pool_Search_Discrete(w.data(), S.data(), 0, out))
          << "seed " << seed << ", threads " << threads;
    }
  }
  EXPECT_GT(unequal, 20) << "too few near ties to test";
}

// Many experts over the same five weight rows in every order: their exact
// scores differ in the last bits at most, so every one of them is a
// candidate for the exact score, far more than a block scores on one
// thread. Ordered from the highest score to the lowest, the last one wins,
// and the scan must find it. The rows carry the first label only, and one
// more example, in no list and carrying no label, outweighs all others, so
// that an expert's score is its sum for the first label, with that sum's
// own rounding.
TEST(ScorePool, DiscreteScanScoresEveryNearTie) {
  constexpr int kRows = 5, kOrders = 120;  // 5! orders
  Synthetic s;
  build(&s, 7, kRows * kOrders + 1, 9, kOrders);
  std::mt19937_64 rng(2);
  std::vector<std::vector<double>> rows(kRows, std::vector<double>(s.k));
  for (auto& row : rows)
    for (double& v : row) v = std::ldexp(static_cast<double>(rng() >> 11), -53 - static_cast<int>(rng() % 3));
  std::vector<int> order(kRows);
  for (int r = 0; r < kRows; ++r) order[r] = r;
  for (int e = 0; e < kOrders; ++e) {
    for (int q = 0; q < kRows; ++q) {
      const int i = kRows * e + q;
      std::fill(s.label_store[i].begin(), s.label_store[i].end(), 0);
      s.label_store[i][0] = 1;
      std::copy(rows[order[q]].begin(), rows[order[q]].end(), &s.D[static_cast<size_t>(i) * s.k]);
    }
    s.lists[e].resize(kRows);
    for (int q = 0; q < kRows; ++q) s.lists[e][q] = kRows * e + q;
    s.experts[e] = text_expert_rec{};
    s.experts[e].term = s.terms[e].data();
    s.experts[e].type = kTypeFgram;
    s.experts[e].num_train = kRows;
    s.experts[e].train_index = s.lists[e].data();
    std::next_permutation(order.begin(), order.end());
  }
  const int heavy = kRows * kOrders;
  for (int l = 0; l < s.k; ++l) {
    s.label_store[heavy][l] = 0;
    s.D[static_cast<size_t>(heavy) * s.k + l] = 1000.0;
  }
  std::vector<double> S;
  std::vector<double> w = signed_weights(s, &S);
  std::vector<double> c0(s.k), c1(s.k), c2(s.k);
  // From the highest score to the lowest, with one expert of the lowest.
  std::vector<std::pair<double, int>> by_score;
  for (int e = 0; e < kOrders; ++e)
    by_score.push_back({-Text_Expert_PLoss(w.data(), &s.experts[e], s.k, S.data(), c0.data(), c1.data()), e});
  std::stable_sort(by_score.begin(), by_score.end());
  std::vector<text_expert_rec> ordered;
  for (const auto& [minus_score, e] : by_score)
    if (minus_score != by_score.back().first || e == by_score.back().second)
      ordered.push_back(s.experts[e]);
  const int last = static_cast<int>(ordered.size()) - 1;
  ASSERT_GT(last, 100) << "too few near ties";
  ordered.push_back(text_expert_rec{});
  s.experts = ordered;
  for (int threads : {1, 2, 7}) {
    Score_Pool_Init(s.experts.data(), &s.data, threads);
    double* out[3] = {c0.data(), c1.data(), c2.data()};
    std::vector<double> sw(w);
    EXPECT_EQ(last, Score_Pool_Search_Discrete(sw.data(), S.data(), 0, out)) << "threads " << threads;
  }
}

}  // namespace
