// The per-round scan over the candidate experts, on several threads, with
// results identical to a single-threaded scan in array order.
//
// Real AdaBoost.MH (not abstaining). Each term expert's per-label sums A
// (the weight of the examples in which it occurs, by label sign) depend
// only on its occurrence list, so they are computed in parallel, once per
// distinct list in a block of experts, from weight rows laid out for them
// (see absent_rows). The scan's totals T then go through
// every expert in array order, T := max(T - A, 0) + A: this replay is what
// makes the totals drift by last bits exactly as the sequential scan does,
// and it runs in parallel across labels (each label's totals evolve on
// their own). Scores are computed in parallel from the replayed state.
//
// Most experts cannot win: a lower bound of the score (below) lets the scan
// skip the square roots of any expert whose bound is clearly above the best
// score found before its block. The winner must score strictly below every
// earlier expert, so skipping experts that cannot do so changes nothing.
//
// For a term expert with sums A under totals T, each label contributes
// sqrt(U0 U1) + sqrt(A0 A1) with U = max(T - A, 0), and
//   sqrt(U0 U1) >= sqrt(T0 T1) (1 - A0/T0 - A1/T1),
// so the score is at least sum_l G_l - sum_l (r0_l A0_l + r1_l A1_l), with
// G = sqrt(T0 T1), r0 = G / T0, r1 = G / T1 taken at the start of the block.
// Within a block T moves by a few units in the last place only, far inside
// the safety margin used below.
//
// The abstaining and discrete scans carry no totals from expert to expert:
// every expert's score depends on its own list, so experts are scored in
// parallel, once per distinct list, with the scoring functions themselves.
#include "score_pool.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdio>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <immintrin.h>

#include "die.h"
#include "parallel.h"

namespace {

constexpr int kBlock = 8192;
// How far ahead the kernels that read rows at random ask for them: into the
// first-level cache, and (for rows not read band by band) into the second.
constexpr int kNearAhead = 8;
constexpr int kFarAhead = 48;
// Lanes per pass of the AVX2 kernel that adds rows (at most 64).
constexpr int kAvx2Lanes = 64;
// Threshold sweeps over fewer (example, label) pairs than this run on one
// thread. Larger ones already pay for the hand-off: numeric-digits' sweeps
// of 13,500 pairs take a third less time per round on two threads.
constexpr long kSmallSweep = 1 << 13;
// Blocks with fewer candidates than this score them on one thread.
constexpr int kFewCandidates = 64;
// Relative safety margin of the lower bound (rounding and the drift of the
// totals within one block are many orders of magnitude smaller).
constexpr double kMargin = 1e-7;

text_expert_rec* experts = nullptr;
example_data* data_set = nullptr;
int num_labels = 0;
int num_experts = 0;
Fork_Join_Pool* pool = nullptr;

// Label bytes of all training examples, m rows of k, 0 or 1.
std::vector<uint8_t> label_rows;
// For each expert, the previous expert with an identical training list
// (-1 if none, or if the expert is not a term expert).
std::vector<int> prev_twin;

// The chunks of every block of kBlock experts of the discrete scan
// (kDiscreteChunks per thread, each starting at its entry; one more entry
// per block, the block's end). Threads take chunks as they finish the
// last: the lists of early experts are the longer as a rule (a word that
// occurs often is met early), so equal shares of experts left one thread
// most of the work, and a cost estimate alone leaves some behind.
std::vector<int> discrete_cuts;

// Block working storage.
// The blocks of the scan and their slots never change during a run, so
// they are laid out once: the scan is a sequence of steps, each a single
// expert of another type or a block of up to kBlock consecutive term
// experts; a block gives each distinct list among its experts a slot.
struct Scan_Step {
  int b, e;         // experts [b, e)
  int block;        // index into term_blocks, or -1 for a single expert
};
struct Term_Block {
  int slot_base;    // first slot in slot_expert_all
  int nslots;
  int group_base;   // first of its slot_groups (`groups` of them)
  int groups;       // slot groups, each split into
  int parts;        // this many lane parts (see groups_per_block)
};
std::vector<Scan_Step> scan_steps;
std::vector<Term_Block> term_blocks;
std::vector<int> slot_of_all;        // expert -> slot within its block
std::vector<int> slot_expert_all;    // slot -> representative expert
// The current block's view of slot_of_all.
const int* slot_of = nullptr;
// A buffer of doubles on 64-byte lines, so that threads that write
// different vectors of eight lanes of a row never share a cache line.
class Line_Buffer {
 public:
  ~Line_Buffer() { free(data_); }
  void resize(size_t n) {
    if (n <= size_) return;
    free(data_);
    data_ = static_cast<double*>(aligned_alloc(64, (n * sizeof(double) + 63) / 64 * 64));
    if (data_ == nullptr) {
      perror("Malloc");
      Exit_Run(1);
    }
    size_ = n;
  }
  double* data() { return data_; }
  double& operator[](size_t i) { return data_[i]; }

 private:
  double* data_ = nullptr;
  size_t size_ = 0;
};
Line_Buffer sums;                // slot -> 2k sums [A0 | A1]
std::vector<double> bound;       // slot (discrete scan: expert) -> lower bound of the score
std::vector<double> upper;       // discrete scan: expert in block -> upper bound
std::vector<double> state;       // expert in block -> 2k replayed [U0 | U1]
std::vector<uint8_t> candidate;  // expert in block -> needs an exact score
std::vector<int> candidate_list; // the experts in block that do, in order
std::vector<long double> scores; // expert in block -> exact score
std::vector<int> copy_of;        // expert in block -> earlier expert with same score, or -1


// Per-thread working tables for scoring functions called from threads.
struct Thread_Table {
  double* w[3][2];
  double* c[3];
};
std::vector<Thread_Table> thread_tables;

// The last term expert that became the best in a block of the real
// AdaBoost.MH scan, and its sums [A0 | A1].
int winner_expert = -1;
std::vector<double> winner_sums;

// Sums of the last expert scored by the abstaining scan (for a winner of a
// type that scan does not score).
int last_scored = -1;
[[maybe_unused]] double* last_D = nullptr;

double* zeroed(int k) { return static_cast<double*>(calloc(k > 0 ? k : 1, sizeof(double))); }

uint64_t list_hash(const int* list, int n) {
  uint64_t h = 1469598103934665603ull ^ static_cast<uint64_t>(n);
  for (int j = 0; j < n; ++j) {
    h ^= static_cast<uint32_t>(list[j]);
    h *= 1099511628211ull;
  }
  return h ^ (h >> 29);
}

bool same_list(const text_expert_rec& a, const text_expert_rec& b) {
  return a.num_train == b.num_train &&
         (a.num_train == 0 || memcmp(a.train_index, b.train_index, sizeof(int) * a.num_train) == 0);
}

// Links every term expert to the previous expert with the same list.
void find_twins() {
  prev_twin.assign(num_experts, -1);
  size_t cap = 16;
  while (cap < static_cast<size_t>(num_experts) * 2) cap <<= 1;
  std::vector<int> table(cap, -1);  // open addressing: latest expert per list
  for (int e = 0; e < num_experts; ++e) {
    text_expert_rec& x = experts[e];
    x.list_id = e;
    if (x.type != kTypeFgram) continue;
    size_t pos = list_hash(x.train_index, x.num_train) & (cap - 1);
    while (table[pos] >= 0 && !same_list(experts[table[pos]], x)) pos = (pos + 1) & (cap - 1);
    if (table[pos] >= 0) {
      prev_twin[e] = table[pos];
      x.list_id = experts[table[pos]].list_id;
    }
    table[pos] = e;
  }
}

// An expert's cost in the discrete scan, in rows of signed weights added:
// its list, once more for a threshold's sweep and twice for the sums the
// winner's votes are taken from, and a fixed part for scoring its labels.
// A twin just copies its twin's score.
constexpr long kDiscreteScoreCost = 8;
constexpr int kDiscreteChunks = 8;
// Relative margin between a discrete score's estimate and its bounds.
constexpr double kDiscreteMargin = 1e-9;

void lay_out_discrete_cuts() {
  const int chunks = kDiscreteChunks * pool->Size();
  discrete_cuts.clear();
  std::vector<long> work;
  for (int b = 0; b < num_experts; b += kBlock) {
    const int e = std::min(num_experts, b + kBlock);
    work.assign(static_cast<size_t>(e - b) + 1, 0);
    for (int j = b; j < e; ++j) {
      const text_expert_rec& x = experts[j];
      long w = x.num_train + kDiscreteScoreCost;
      if (x.type == kTypeThreshold)
        w += 2L * x.num_train;
      else if (prev_twin[j] >= b)
        w = 1;
      work[j - b + 1] = work[j - b] + w;
    }
    for (int c = 0; c < chunks; ++c) {
      const long target = work.back() * c / chunks;
      discrete_cuts.push_back(b + static_cast<int>(std::lower_bound(work.begin(), work.end(), target) -
                                                   work.begin()));
    }
    discrete_cuts.push_back(e);
  }
}

void ensure_block_storage(int k) {
  const size_t two_k = 2 * static_cast<size_t>(k);
  sums.resize(kBlock * two_k);
  bound.resize(kBlock);
  upper.resize(kBlock);
  state.resize(kBlock * two_k);
  candidate.resize(kBlock);
  scores.resize(kBlock);
  copy_of.resize(kBlock);
}

// The weights of a round as the sums read them. Every sum of a slot is a
// chain of additions that starts at +0.0, and such a chain never holds
// -0.0, so adding +0.0 to it changes no bit. The weights of the labels an
// example does not carry are therefore kept in full rows (row_stride lanes,
// a multiple of eight) with +0.0 in place of the labels it carries and in
// the padding: every lane of a row can be added without a mask, and each
// absent-label sum still receives exactly its own weights in list order.
// The labels an example carries are few as a rule; their weights are kept
// in a short list per example (carried_first / carried_label /
// carried_weight) and added one by one. When examples carry many labels,
// the carried weights get full rows of their own (carried_rows) instead.
size_t row_stride = 0;
double* absent_rows = nullptr;
// Examples whose weights are the same in every label (the boosting loop
// keeps such groups) can share one row: then row_map[i] is example i's row
// and rows hold one row per group; otherwise row_map is null and row i is
// example i's. A sum adds the same values in the same order either way.
const int* row_map = nullptr;
std::vector<int> group_of_example, group_first;
bool groups_pending = false;
double* carried_rows = nullptr;
size_t rows_capacity = 0;
bool carried_dense = false;
// absent_units bytes per example: bit b of byte v is set when the example
// does not carry label 8v + b (bits beyond the last label are clear).
std::vector<uint8_t> absent_bytes;
// The kernels that fill the weight rows and sweep thresholds: AVX-512, or
// else AVX2, or else plain loops.
bool sweep_vectors = false;
bool sweep_avx2 = false;
std::vector<int> carried_first, carried_label;
std::vector<double> carried_weight;

// One list, or one band's segment of a long list, to add into a slot's sums.
// A group's pieces have their row indices one after the other (`flat`
// below), so that the kernel can fetch rows ahead across piece ends.
struct Piece {
  int slot, length;
  int offset;   // of its first row index in its group's piece_rows
  bool fresh;   // the first piece of its list: the sums start at zero
  uint8_t carried_part;  // the lane part that adds its carried labels
};

void add_carried(double* __restrict out, size_t two_k, const Piece* pieces, size_t npieces,
                 const int* __restrict flat, int part, int k);

// Adds rows of `rows` (row_stride lanes) into lanes [c0, c1) of the sums
// at `out` + slot * two_k, piece after piece; c0 is a multiple of eight.
// With carried_out, also the carried labels' sums (see add_carried).
void add_rows_plain(double* __restrict out, size_t two_k, const double* __restrict rows,
                    const Piece* pieces, size_t npieces, size_t /*far_end*/, const int* flat,
                    int c1, int c0, double* carried_out, int carried_part, int k) {
  if (carried_out != nullptr) add_carried(carried_out, two_k, pieces, npieces, flat, carried_part, k);
  for (size_t q = 0; q < npieces; ++q) {
    const Piece& p = pieces[q];
    double* a = out + p.slot * two_k;
    if (p.fresh)
      for (int l = c0; l < c1; ++l) a[l] = 0.0;
    for (int j = 0; j < p.length; ++j) {
      const int i = flat[p.offset + j];
      const double* row = rows + static_cast<size_t>(row_map != nullptr ? row_map[i] : i) * row_stride;
      for (int l = c0; l < c1; ++l) a[l] += row[l];
    }
  }
}

// Lanes [c, min(c + 8V, c1)) of every piece, the sums kept in registers
// while a piece is added.
template <int V, bool Carried, bool Mapped>
__attribute__((target("avx512f"), always_inline)) inline void add_rows_avx512_pass(
    double* __restrict out, size_t two_k, const double* __restrict rows, const Piece* pieces,
    size_t npieces, size_t far_end, const int* __restrict flat, int total, int c1, int c,
    double* __restrict carried_out, int carried_part, int k) {
  const int* map = row_map;
  auto row_of = [map](int i) { return static_cast<size_t>(Mapped ? map[i] : i); };
  const int* first = carried_first.data();
  const int* label = carried_label.data();
  const double* weight = carried_weight.data();
  __mmask8 lanes[V];
#pragma GCC unroll 8
  for (int v = 0; v < V; ++v) {
    const int left = c1 - (c + 8 * v);
    lanes[v] = left >= 8 ? 0xFF : static_cast<__mmask8>((1u << left) - 1);
  }
  const size_t stride = row_stride;
  for (size_t q = 0; q < npieces; ++q) {
    const Piece p = pieces[q];
    double* a = out + p.slot * two_k + c;
    __m512d s[V];
#pragma GCC unroll 8
    for (int v = 0; v < V; ++v)
      s[v] = p.fresh ? _mm512_setzero_pd() : _mm512_maskz_loadu_pd(lanes[v], a + 8 * v);
    const bool carried = Carried && p.carried_part == carried_part;
    double* a1 = carried ? carried_out + p.slot * two_k : nullptr;
    if (carried && p.fresh)
      for (int l = 0; l < k; ++l) a1[l] = 0.0;
    const int* list = flat + p.offset;
    const int ahead_end = total - p.offset;
    const bool far = q < far_end;
    for (int j = 0; j < p.length; ++j) {
      // Rows shared by groups are few and stay in the caches; looking up
      // the rows ahead would cost more than fetching them saves.
      if (!Mapped && j + kNearAhead < ahead_end) {
        // Rows are scattered: ask for the row a few occurrences ahead.
        const double* next = rows + static_cast<size_t>(list[j + kNearAhead]) * stride + c;
#pragma GCC unroll 8
        for (int v = 0; v < V; ++v)
          _mm_prefetch(reinterpret_cast<const char*>(next + 8 * v), _MM_HINT_T0);
      }
      if (!Mapped && far && j + kFarAhead < ahead_end) {
        // Short lists read rows from memory: ask for them earlier still.
        const double* next = rows + static_cast<size_t>(list[j + kFarAhead]) * stride + c;
#pragma GCC unroll 8
        for (int v = 0; v < V; ++v)
          _mm_prefetch(reinterpret_cast<const char*>(next + 8 * v), _MM_HINT_T1);
      }
      const double* row = rows + row_of(list[j]) * stride + c;
#pragma GCC unroll 8
      for (int v = 0; v < V; ++v) s[v] = _mm512_add_pd(s[v], _mm512_load_pd(row + 8 * v));
      if (carried) {
        const int i = list[j];
        for (int r = first[i]; r < first[i + 1]; ++r) a1[label[r]] += weight[r];
      }
    }
#pragma GCC unroll 8
    for (int v = 0; v < V; ++v) _mm512_mask_storeu_pd(a + 8 * v, lanes[v], s[v]);
  }
}

__attribute__((target("avx512f"))) void add_rows_avx512(double* __restrict out, size_t two_k,
                                                       const double* __restrict rows,
                                                       const Piece* pieces, size_t npieces,
                                                       size_t far_end, const int* flat, int c1,
                                                       int c0, double* carried_out,
                                                       int carried_part, int k) {
  const int total = npieces == 0 ? 0 : pieces[npieces - 1].offset + pieces[npieces - 1].length;
  // Passes of at most 64 lanes, each with as many vectors as it has groups
  // of eight lanes.
  // The carried labels' sums go with the first pass.
  for (int c = c0; c < c1; c += 64) {
    const bool carried = carried_out != nullptr && c == c0;
    switch ((std::min(c1, c + 64) - c + 7) / 8 + (carried ? 8 : 0) + (row_map != nullptr ? 16 : 0)) {
#define MHB_PASS_AS(V, C, M)                                                                 \
  case V + (C ? 8 : 0) + (M ? 16 : 0):                                                       \
    add_rows_avx512_pass<V, C, M>(out, two_k, rows, pieces, npieces, far_end, flat, total, c1, c, \
                                  carried_out, carried_part, k);                             \
    break;
#define MHB_PASS(V) \
  MHB_PASS_AS(V, false, false) MHB_PASS_AS(V, true, false) MHB_PASS_AS(V, false, true) MHB_PASS_AS(V, true, true)
      MHB_PASS(1) MHB_PASS(2) MHB_PASS(3) MHB_PASS(4) MHB_PASS(5) MHB_PASS(6) MHB_PASS(7)
      MHB_PASS(8)
#undef MHB_PASS
#undef MHB_PASS_AS
    }
  }
}

// Four lanes at p, or only the lanes of `tail` (the others zero) when the
// vector is partial.
__attribute__((target("avx2"), always_inline)) inline __m256d load_lanes_avx2(const double* p,
                                                                              bool partial,
                                                                              __m256i tail) {
  return partial ? _mm256_maskload_pd(p, tail) : _mm256_loadu_pd(p);
}

__attribute__((target("avx2"), always_inline)) inline void store_lanes_avx2(double* p, bool partial,
                                                                            __m256i tail,
                                                                            __m256d x) {
  if (partial)
    _mm256_maskstore_pd(p, tail, x);
  else
    _mm256_storeu_pd(p, x);
}

// max(x, 0) lane by lane, as "if (x < 0) x = 0": a NaN stays NaN.
__attribute__((target("avx2"), always_inline)) inline __m256d clamp_below_zero_avx2(__m256d x) {
  return _mm256_andnot_pd(_mm256_cmp_pd(x, _mm256_setzero_pd(), _CMP_LT_OQ), x);
}

// The AVX2 counterpart for processors without AVX-512: vectors of four
// lanes. Lanes [c, min(c + 4V, c1)) of every piece, the sums kept in
// registers while a piece is added. Only the last vector of a pass can be
// partial; it is loaded and stored under a lane mask, and the sums' lanes
// beyond c1 (the other sign's sums) are never written.
template <int V, bool Carried, bool Mapped>
__attribute__((target("avx2"), always_inline)) inline void add_rows_avx2_pass(
    double* __restrict out, size_t two_k, const double* __restrict rows, const Piece* pieces,
    size_t npieces, size_t far_end, const int* __restrict flat, int total, int c1, int c,
    double* __restrict carried_out, int carried_part, int k) {
  const int* map = row_map;
  auto row_of = [map](int i) { return static_cast<size_t>(Mapped ? map[i] : i); };
  const int* first = carried_first.data();
  const int* label = carried_label.data();
  const double* weight = carried_weight.data();
  const int left = c1 - (c + 4 * (V - 1));
  const __m256i tail = _mm256_cmpgt_epi64(_mm256_set1_epi64x(left), _mm256_setr_epi64x(0, 1, 2, 3));
  const bool partial = left < 4;
  const size_t stride = row_stride;
  for (size_t q = 0; q < npieces; ++q) {
    const Piece p = pieces[q];
    double* a = out + p.slot * two_k + c;
    __m256d s[V];
#pragma GCC unroll 16
    for (int v = 0; v < V - 1; ++v) s[v] = p.fresh ? _mm256_setzero_pd() : _mm256_loadu_pd(a + 4 * v);
    s[V - 1] = p.fresh ? _mm256_setzero_pd() : _mm256_maskload_pd(a + 4 * (V - 1), tail);
    const bool carried = Carried && p.carried_part == carried_part;
    double* a1 = carried ? carried_out + p.slot * two_k : nullptr;
    if (carried && p.fresh)
      for (int l = 0; l < k; ++l) a1[l] = 0.0;
    const int* list = flat + p.offset;
    const int ahead_end = total - p.offset;
    const bool far = q < far_end;
    for (int j = 0; j < p.length; ++j) {
      // As in the AVX-512 kernel: rows shared by groups stay in the caches,
      // scattered rows are asked for a few occurrences ahead, and earlier
      // still for short lists.
      if (!Mapped && j + kNearAhead < ahead_end) {
        const double* next = rows + static_cast<size_t>(list[j + kNearAhead]) * stride + c;
#pragma GCC unroll 8
        for (int v = 0; v < V; v += 2)
          _mm_prefetch(reinterpret_cast<const char*>(next + 4 * v), _MM_HINT_T0);
      }
      if (!Mapped && far && j + kFarAhead < ahead_end) {
        const double* next = rows + static_cast<size_t>(list[j + kFarAhead]) * stride + c;
#pragma GCC unroll 8
        for (int v = 0; v < V; v += 2)
          _mm_prefetch(reinterpret_cast<const char*>(next + 4 * v), _MM_HINT_T1);
      }
      const double* row = rows + row_of(list[j]) * stride + c;
#pragma GCC unroll 16
      for (int v = 0; v < V; ++v) s[v] = _mm256_add_pd(s[v], _mm256_load_pd(row + 4 * v));
      if (carried) {
        const int i = list[j];
        for (int r = first[i]; r < first[i + 1]; ++r) a1[label[r]] += weight[r];
      }
    }
#pragma GCC unroll 16
    for (int v = 0; v < V - 1; ++v) _mm256_storeu_pd(a + 4 * v, s[v]);
    if (partial)
      _mm256_maskstore_pd(a + 4 * (V - 1), tail, s[V - 1]);
    else
      _mm256_storeu_pd(a + 4 * (V - 1), s[V - 1]);
  }
}

__attribute__((target("avx2"))) void add_rows_avx2(double* __restrict out, size_t two_k,
                                                   const double* __restrict rows,
                                                   const Piece* pieces, size_t npieces,
                                                   size_t far_end, const int* flat, int c1, int c0,
                                                   double* carried_out, int carried_part, int k) {
  const int total = npieces == 0 ? 0 : pieces[npieces - 1].offset + pieces[npieces - 1].length;
  // Passes of at most kAvx2Lanes lanes, each with as many vectors as it has
  // groups of four lanes; the carried labels' sums go with the first pass.
  for (int c = c0; c < c1; c += kAvx2Lanes) {
    const bool carried = carried_out != nullptr && c == c0;
    switch ((std::min(c1, c + kAvx2Lanes) - c + 3) / 4 + (carried ? 16 : 0) +
            (row_map != nullptr ? 32 : 0)) {
#define MHB_PASS_AS(V, C, M)                                                                    \
  case V + (C ? 16 : 0) + (M ? 32 : 0):                                                         \
    add_rows_avx2_pass<V, C, M>(out, two_k, rows, pieces, npieces, far_end, flat, total, c1, c, \
                                carried_out, carried_part, k);                                  \
    break;
#define MHB_PASS(V) \
  MHB_PASS_AS(V, false, false) MHB_PASS_AS(V, true, false) MHB_PASS_AS(V, false, true) MHB_PASS_AS(V, true, true)
      MHB_PASS(1) MHB_PASS(2) MHB_PASS(3) MHB_PASS(4) MHB_PASS(5) MHB_PASS(6) MHB_PASS(7)
      MHB_PASS(8) MHB_PASS(9) MHB_PASS(10) MHB_PASS(11) MHB_PASS(12) MHB_PASS(13) MHB_PASS(14)
      MHB_PASS(15) MHB_PASS(16)
#undef MHB_PASS
#undef MHB_PASS_AS
    }
  }
}

using add_rows_fn = void (*)(double* __restrict, size_t, const double* __restrict, const Piece*,
                             size_t, size_t, const int*, int, int, double*, int, int);
add_rows_fn add_rows = add_rows_plain;

// The carried-label sums, from the per-example lists of carried labels, of
// the pieces whose carried labels lane part `part` adds.
void add_carried(double* __restrict out, size_t two_k, const Piece* pieces, size_t npieces,
                 const int* __restrict flat, int part, int k) {
  const int* first = carried_first.data();
  const int* label = carried_label.data();
  const double* weight = carried_weight.data();
  for (size_t q = 0; q < npieces; ++q) {
    const Piece& p = pieces[q];
    if (p.carried_part != part) continue;
    double* a = out + p.slot * two_k;
    if (p.fresh)
      for (int l = 0; l < k; ++l) a[l] = 0.0;
    const int* list = flat + p.offset;
    for (int j = 0; j < p.length; ++j) {
      const int i = list[j];
      for (int r = first[i]; r < first[i + 1]; ++r) a[label[r]] += weight[r];
    }
  }
}

// The totals' walk through a block: for every expert j in order and every
// lane c in [c0, c1) of the 2k-vector [negative | positive],
//   u = max(t - a, 0) (a NaN stays NaN), t = u + a, U[j][c] = u,
// where a is the expert's sums. Lanes are independent.
void replay_plain(double* __restrict t, const double* __restrict sums, const int* __restrict slot,
                  const uint8_t* __restrict keep, int n, double* __restrict U, int two_k, int c0,
                  int c1) {
  for (int j = 0; j < n; ++j) {
    const double* a = sums + static_cast<size_t>(slot[j]) * two_k;
    double* u = U + static_cast<size_t>(j) * two_k;
    for (int c = c0; c < c1; ++c) {
      double v = t[c] - a[c];
      if (v < 0) v = 0.0;
      t[c] = v + a[c];
      if (keep[j]) u[c] = v;
    }
  }
}

// Keeps up to 128 lanes of totals in registers while it walks the block,
// so each expert's sums are read once. The clamp is an ordered "below zero"
// test, so a NaN stays NaN as in the plain loop.
template <int V>
__attribute__((target("avx512f"), always_inline)) inline void replay_avx512_pass(
    double* __restrict t, const double* __restrict sums, const int* __restrict slot,
    const uint8_t* __restrict keep, int n, double* __restrict U, int two_k, int c, int c1) {
  const __m512d zero = _mm512_setzero_pd();
  __mmask8 mask[V];
  __m512d tv[V];
#pragma GCC unroll 16
  for (int v = 0; v < V; ++v) {
    const int left = c1 - (c + 8 * v);
    mask[v] = left >= 8 ? 0xFF : left <= 0 ? 0 : static_cast<__mmask8>((1u << left) - 1);
    tv[v] = _mm512_maskz_loadu_pd(mask[v], t + c + 8 * v);
  }
  for (int j = 0; j < n; ++j) {
    const double* a = sums + static_cast<size_t>(slot[j]) * two_k + c;
    double* u = U + static_cast<size_t>(j) * two_k + c;
    // Only candidates keep their state: most experts are passed over.
    const __mmask8 store = keep[j] ? 0xFF : 0;
#pragma GCC unroll 16
    for (int v = 0; v < V; ++v) {
      const __m512d av = _mm512_maskz_loadu_pd(mask[v], a + 8 * v);
      const __m512d dv = _mm512_sub_pd(tv[v], av);
      const __m512d uv = _mm512_mask_mov_pd(dv, _mm512_cmp_pd_mask(dv, zero, _CMP_LT_OQ), zero);
      tv[v] = _mm512_add_pd(uv, av);
      _mm512_mask_storeu_pd(u + 8 * v, mask[v] & store, uv);
    }
  }
#pragma GCC unroll 16
  for (int v = 0; v < V; ++v) _mm512_mask_storeu_pd(t + c + 8 * v, mask[v], tv[v]);
}

__attribute__((target("avx512f"))) void replay_avx512(double* __restrict t,
                                                     const double* __restrict sums,
                                                     const int* __restrict slot,
                                                     const uint8_t* __restrict keep, int n,
                                                     double* __restrict U, int two_k, int c0,
                                                     int c1) {
  // Passes of at most 128 lanes, each with exactly as many vectors as it
  // has groups of eight lanes.
  for (int c = c0; c < c1; c += 128) {
    const int end = c1 - c <= 128 ? c1 : c + 128;
    switch ((end - c + 7) / 8) {
#define MHB_PASS(V) \
  case V:           \
    replay_avx512_pass<V>(t, sums, slot, keep, n, U, two_k, c, end); \
    break;
      MHB_PASS(1) MHB_PASS(2) MHB_PASS(3) MHB_PASS(4) MHB_PASS(5) MHB_PASS(6) MHB_PASS(7)
      MHB_PASS(8) MHB_PASS(9) MHB_PASS(10) MHB_PASS(11) MHB_PASS(12) MHB_PASS(13) MHB_PASS(14)
      MHB_PASS(15) MHB_PASS(16)
#undef MHB_PASS
    }
  }
}

// The AVX2 replay: up to twelve vectors of totals in registers per pass;
// the last vector of the lanes [c0, c1) may be partial, and lanes past c1
// are neither read nor written.
template <int V>
__attribute__((target("avx2"), always_inline)) inline void replay_avx2_pass(
    double* __restrict t, const double* __restrict sums, const int* __restrict slot,
    const uint8_t* __restrict keep, int n, double* __restrict U, int two_k, int c, int c1) {
  const int left = c1 - (c + 4 * (V - 1));
  const bool partial = left < 4;
  const __m256i tail = _mm256_cmpgt_epi64(_mm256_set1_epi64x(left), _mm256_setr_epi64x(0, 1, 2, 3));
  __m256d tv[V];
#pragma GCC unroll 16
  for (int v = 0; v < V; ++v) tv[v] = load_lanes_avx2(t + c + 4 * v, v == V - 1 && partial, tail);
  for (int j = 0; j < n; ++j) {
    const double* a = sums + static_cast<size_t>(slot[j]) * two_k + c;
    double* u = U + static_cast<size_t>(j) * two_k + c;
    // Only candidates keep their state: most experts are passed over.
    if (keep[j]) {
#pragma GCC unroll 16
      for (int v = 0; v < V; ++v) {
        const __m256d av = load_lanes_avx2(a + 4 * v, v == V - 1 && partial, tail);
        const __m256d uv = clamp_below_zero_avx2(_mm256_sub_pd(tv[v], av));
        tv[v] = _mm256_add_pd(uv, av);
        store_lanes_avx2(u + 4 * v, v == V - 1 && partial, tail, uv);
      }
    } else {
#pragma GCC unroll 16
      for (int v = 0; v < V; ++v) {
        const __m256d av = load_lanes_avx2(a + 4 * v, v == V - 1 && partial, tail);
        tv[v] = _mm256_add_pd(clamp_below_zero_avx2(_mm256_sub_pd(tv[v], av)), av);
      }
    }
  }
#pragma GCC unroll 16
  for (int v = 0; v < V; ++v) store_lanes_avx2(t + c + 4 * v, v == V - 1 && partial, tail, tv[v]);
}

__attribute__((target("avx2"))) void replay_avx2(double* __restrict t,
                                                 const double* __restrict sums,
                                                 const int* __restrict slot,
                                                 const uint8_t* __restrict keep, int n,
                                                 double* __restrict U, int two_k, int c0, int c1) {
  for (int c = c0; c < c1; c += 48) {
    const int end = c1 - c <= 48 ? c1 : c + 48;
    switch ((end - c + 3) / 4) {
#define MHB_PASS(V)                                                 \
  case V:                                                           \
    replay_avx2_pass<V>(t, sums, slot, keep, n, U, two_k, c, end);  \
    break;
      MHB_PASS(1) MHB_PASS(2) MHB_PASS(3) MHB_PASS(4) MHB_PASS(5) MHB_PASS(6) MHB_PASS(7)
      MHB_PASS(8) MHB_PASS(9) MHB_PASS(10) MHB_PASS(11) MHB_PASS(12)
#undef MHB_PASS
    }
  }
}

using replay_fn = void (*)(double* __restrict, const double* __restrict, const int* __restrict,
                           const uint8_t* __restrict, int, double* __restrict, int, int, int);
replay_fn replay = replay_plain;

// For one slot's sums a (2k lanes [A0 | A1]): returns sum_c r[c] a[c], the
// linear part of the slot's lower bound (in any order: the bound carries a
// margin far above rounding), and flags in mv[g] every group g of eight
// lanes where max(t - a, 0) + a differs from t in any bit.
double bound_and_moved_plain(const double* __restrict a, const double* __restrict r,
                             const double* __restrict t, int two_k, uint8_t* __restrict mv) {
  double lin = 0.0;
  for (int c = 0; c < two_k; ++c) {
    lin += r[c] * a[c];
    double v = t[c] - a[c];
    if (v < 0) v = 0.0;
    if (std::bit_cast<uint64_t>(v + a[c]) != std::bit_cast<uint64_t>(t[c])) mv[c / 8] = 1;
  }
  return lin;
}

__attribute__((target("avx512f"))) double bound_and_moved_avx512(const double* __restrict a,
                                                                const double* __restrict r,
                                                                const double* __restrict t,
                                                                int two_k,
                                                                uint8_t* __restrict mv) {
  const __m512d zero = _mm512_setzero_pd();
  __m512d acc = zero;
  for (int c = 0; c < two_k; c += 8) {
    const int left = two_k - c;
    const __mmask8 m = left >= 8 ? 0xFF : static_cast<__mmask8>((1u << left) - 1);
    const __m512d av = _mm512_maskz_loadu_pd(m, a + c);
    acc = _mm512_add_pd(acc, _mm512_mul_pd(_mm512_maskz_loadu_pd(m, r + c), av));
    const __m512d tv = _mm512_maskz_loadu_pd(m, t + c);
    const __m512d dv = _mm512_sub_pd(tv, av);
    const __m512d uv = _mm512_mask_mov_pd(dv, _mm512_cmp_pd_mask(dv, zero, _CMP_LT_OQ), zero);
    const __m512i back = _mm512_castpd_si512(_mm512_add_pd(uv, av));
    if (_mm512_mask_cmpneq_epi64_mask(m, back, _mm512_castpd_si512(tv)) != 0) mv[c / 8] = 1;
  }
  alignas(64) double part[8];
  _mm512_store_pd(part, acc);
  return ((part[0] + part[1]) + (part[2] + part[3])) + ((part[4] + part[5]) + (part[6] + part[7]));
}

__attribute__((target("avx2"))) double bound_and_moved_avx2(const double* __restrict a,
                                                           const double* __restrict r,
                                                           const double* __restrict t, int two_k,
                                                           uint8_t* __restrict mv) {
  const __m256d zero = _mm256_setzero_pd();
  const __m256i lane = _mm256_setr_epi64x(0, 1, 2, 3);
  __m256d acc = zero;
  for (int c = 0; c < two_k; c += 4) {
    const int left = two_k - c;
    const bool partial = left < 4;
    const __m256i tail = _mm256_cmpgt_epi64(_mm256_set1_epi64x(left), lane);
    const __m256d av = load_lanes_avx2(a + c, partial, tail);
    acc = _mm256_add_pd(acc, _mm256_mul_pd(load_lanes_avx2(r + c, partial, tail), av));
    const __m256d tv = load_lanes_avx2(t + c, partial, tail);
    const __m256d uv = clamp_below_zero_avx2(_mm256_sub_pd(tv, av));
    // Lanes past the end load as zero on both sides and compare equal.
    const __m256i back = _mm256_castpd_si256(_mm256_add_pd(uv, av));
    const __m256i same = _mm256_cmpeq_epi64(back, _mm256_castpd_si256(tv));
    if (_mm256_movemask_pd(_mm256_castsi256_pd(same)) != 0xF) mv[c / 8] = 1;
  }
  alignas(32) double part[4];
  _mm256_store_pd(part, acc);
  return (part[0] + part[1]) + (part[2] + part[3]);
}

using bound_and_moved_fn = double (*)(const double* __restrict, const double* __restrict,
                                      const double* __restrict, int, uint8_t* __restrict);
bound_and_moved_fn bound_and_moved = bound_and_moved_plain;

int forced_kernel = -1;

void choose_kernels() {
  __builtin_cpu_init();
  const bool plain = forced_kernel == 0 || forced_kernel == 1;
  const bool has512 = __builtin_cpu_supports("avx512f") && !plain && forced_kernel != 2;
  const bool has256 = __builtin_cpu_supports("avx2") && !plain;
  add_rows = has512 ? add_rows_avx512 : has256 ? add_rows_avx2 : add_rows_plain;
  sweep_vectors = has512;
  sweep_avx2 = !has512 && has256;
  replay = has512 ? replay_avx512 : has256 ? replay_avx2 : replay_plain;
  bound_and_moved = has512 ? bound_and_moved_avx512 : has256 ? bound_and_moved_avx2 : bound_and_moved_plain;
}

// The sums of a block are split among the threads two ways: its slots
// into groups of about equal numbers of occurrences, and the lanes of the
// sums into parts (vectors of eight absent-label lanes, and the carried
// labels as one more part, or as vectors of their own when they have
// rows). Each thread adds whole lists, on its share of the lanes, so every
// lane still receives its additions in list order. Blocks whose
// occurrences lie mostly in long lists split lanes (lane_parts parts,
// groups_per_block groups): the threads share the band of rows they read,
// and a few lists that hold most of the occurrences do not leave a thread
// idle. Other blocks split only their slots, one group per thread: rows of
// short lists come from memory one at a time, and a thread that adds
// whole rows spends less per row than two that add half a row each.
int groups_per_block = 1;
int lane_parts = 1;
int lane_units = 1;    // vectors of absent lanes, and of carried rows if dense
// Carried labels added one by one are shared among the parts by slot, so
// that parts with fewer vectors take more of them: the part of a slot is
// the first p with carried_share[p] > the slot's hash fraction.
std::vector<double> carried_share;
int absent_units = 1;  // vectors of absent lanes

// Lists at least long_list long are summed a band of band_rows rows at a
// time, all of a group's long lists together, so that a band read once from
// memory serves every list that has entries in it. Each list still adds its
// rows in its own order, band after band. A band is as many rows as make
// kBandBytes of one thread's lanes (its share stays in a second-level cache
// of 1 MiB beside the sums it adds into), and a list is long when it has
// about four rows per band: shorter ones would add one or two rows per band,
// and the sums they load and store again at every band would cost more than
// their rows (measured on debpkg with one and two threads).
constexpr size_t kBandBytes = size_t{448} << 10;
int band_rows = 1024;
int long_list = 48;
int forced_band_rows = 0;  // set by tests

// The pieces of each group in the order they are added: first the short
// lists whole, then the long lists' band segments, band after band. The
// row indices of a group's pieces are copied one after the other into
// piece_rows, so that the kernel can fetch rows ahead across the ends of
// pieces. All of this depends only on the lists, so it is laid out once.
struct Slot_Group {
  size_t piece_begin, piece_end;  // in all_pieces
  size_t banded_begin;            // the first piece of a long list
  size_t rows_base;               // in piece_rows
  int s0, s1;                     // its slots in the block
};
std::vector<Slot_Group> slot_groups;
std::vector<Piece> all_pieces;
std::vector<int> piece_rows;

// The lane part that adds slot s's carried labels when a block splits its
// lanes (see carried_share); with one part, that part.
uint8_t carried_part_of(int s, int parts) {
  if (parts == 1) return 0;
  const double golden = 0.6180339887498949;
  const double x = static_cast<double>(s + 1) * golden;
  const double frac = x - std::floor(x);
  int p = 0;
  while (p + 1 < lane_parts && !(carried_share[p] > frac)) ++p;
  return static_cast<uint8_t>(p);
}

// Lays out the pieces of the slots [s0, s1) of the block starting at slot
// `base` as one group, to be summed in `parts` lane parts.
void lay_out_group(int base, int s0, int s1, int parts) {
  Slot_Group g{all_pieces.size(), 0, 0, piece_rows.size(), s0, s1};
  auto add_piece = [&](int slot, const int* list, int length, bool fresh) {
    const size_t offset = piece_rows.size() - g.rows_base;
    if (offset + static_cast<size_t>(length) > static_cast<size_t>(INT32_MAX))
    {
      fprintf(stderr, "Too many occurrences in one block of rules\n");
      Exit_Run(1);
    }
    all_pieces.push_back(Piece{slot, length, static_cast<int>(offset), fresh, carried_part_of(slot, parts)});
    piece_rows.insert(piece_rows.end(), list, list + length);
  };
  std::vector<int> longs;
  for (int s = s0; s < s1; ++s) {
    const text_expert_rec& x = experts[slot_expert_all[base + s]];
    if (x.num_train >= long_list)
      longs.push_back(s);
    else
      add_piece(s, x.train_index, x.num_train, true);
  }
  g.banded_begin = all_pieces.size();
  if (!longs.empty()) {
    // Each long list's segments, one per band it has rows in, ordered by
    // band; a list's segments keep their order.
    const int nbands = (data_set->num_train + band_rows - 1) / band_rows;
    std::vector<std::vector<std::pair<int, int>>> by_band(nbands);  // (slot, list position)
    for (int s : longs) {
      const text_expert_rec& x = experts[slot_expert_all[base + s]];
      int last = -1;
      for (int j = 0; j < x.num_train; ++j) {
        const int band = x.train_index[j] / band_rows;
        if (band != last) by_band[band].emplace_back(s, j);
        last = band;
      }
    }
    for (const auto& band : by_band)
      for (const auto& [s, j] : band) {
        const text_expert_rec& x = experts[slot_expert_all[base + s]];
        const int b = x.train_index[j] / band_rows;
        int end = j;
        while (end < x.num_train && x.train_index[end] / band_rows == b) ++end;
        add_piece(s, x.train_index + j, end - j, j == 0);
      }
  }
  g.piece_end = all_pieces.size();
  slot_groups.push_back(g);
}

// Sums A0/A1 of the slots of the block's group q / parts, in lane part
// q % parts.
void sum_group_part(const Term_Block& blk, int q, int k) {
  const size_t two_k = 2 * static_cast<size_t>(k);
  const int parts = blk.parts;
  const Slot_Group& g = slot_groups[blk.group_base + q / parts];
  const int part = q % parts;
  const int u0 = lane_units * part / parts, u1 = lane_units * (part + 1) / parts;
  const Piece* pieces = &all_pieces[g.piece_begin];
  const size_t npieces = g.piece_end - g.piece_begin;
  const size_t far_end = g.banded_begin - g.piece_begin;
  const int* rows = &piece_rows[g.rows_base];
  // Absent-label vectors [u0, u1), beyond them the carried rows' vectors
  // (dense), or the carried labels of the pieces this part takes.
  const int a0 = std::min(u0, absent_units), a1 = std::min(u1, absent_units);
  double* carried_out = carried_dense ? nullptr : sums.data() + k;
  if (a0 < a1)
    add_rows(sums.data(), two_k, absent_rows, pieces, npieces, far_end, rows, std::min(k, 8 * a1),
             8 * a0, carried_out, part, k);
  else if (carried_out != nullptr)
    add_carried(carried_out, two_k, pieces, npieces, rows, part, k);
  if (carried_dense && u1 > absent_units) {
    const int c0 = std::max(u0, absent_units) - absent_units, c1 = u1 - absent_units;
    add_rows(sums.data() + k, two_k, carried_rows, pieces, npieces, far_end, rows,
             std::min(k, 8 * c1), 8 * c0, nullptr, -1, k);
  }
}

// Sums A0/A1 of every slot of the block.
void sum_block(const Term_Block& blk, int k) {
  pool->Run(blk.groups * blk.parts, [&](int q0, int q1, int) {
    for (int q = q0; q < q1; ++q) sum_group_part(blk, q, k);
  });
}

// Weight rows [r0, r1) in the layout the sums read (see absent_rows):
// row r from example src[r], or from example r when src is null.
void fill_rows_plain(const double* D, size_t r0, size_t r1, const int* src) {
  const size_t k = static_cast<size_t>(num_labels);
  const uint8_t* y = label_rows.data();
  for (size_t r = r0; r < r1; ++r) {
    const size_t i = src != nullptr ? static_cast<size_t>(src[r]) : r;
    const double* d = D + i * k;
    const uint8_t* yi = y + i * k;
    double* out = absent_rows + r * row_stride;
    for (size_t l = 0; l < k; ++l) out[l] = yi[l] ? 0.0 : d[l];
    for (size_t l = k; l < row_stride; ++l) out[l] = 0.0;
    if (carried_dense) {
      double* in = carried_rows + r * row_stride;
      for (size_t l = 0; l < k; ++l) in[l] = yi[l] ? d[l] : 0.0;
      for (size_t l = k; l < row_stride; ++l) in[l] = 0.0;
    }
  }
}

__attribute__((target("avx512f"))) void fill_rows_avx512(const double* D, size_t r0, size_t r1,
                                                         const int* src) {
  const int k = num_labels;
  const size_t ku = static_cast<size_t>(k);
  const int nvec = absent_units;
  for (size_t r = r0; r < r1; ++r) {
    const size_t i = src != nullptr ? static_cast<size_t>(src[r]) : r;
    const double* row = D + i * ku;
    const uint8_t* ab = absent_bytes.data() + i * nvec;
    double* out = absent_rows + r * row_stride;
    for (int v = 0; v < nvec; ++v) {
      const int left = k - 8 * v;
      const __mmask8 lanes = left >= 8 ? 0xFF : static_cast<__mmask8>((1u << left) - 1);
      const __m512d d = _mm512_maskz_loadu_pd(lanes, row + 8 * v);
      _mm512_store_pd(out + 8 * v, _mm512_maskz_mov_pd(ab[v], d));
      if (carried_dense)
        _mm512_store_pd(carried_rows + r * row_stride + 8 * v,
                        _mm512_maskz_mov_pd(static_cast<__mmask8>(~ab[v] & lanes), d));
    }
  }
}

// Lanes [c0, c1) of the absent-label totals, summed over the rows in
// example order from zero.
// The rows hold +0.0 where the sequential totals add +0.0, so every total
// gets the same additions in the same order.
void totals_plain(double* t, int c0, int c1) {
  const size_t m = static_cast<size_t>(data_set->num_train);
  for (int c = c0; c < c1; ++c) t[c] = 0.0;
  for (size_t i = 0; i < m; ++i) {
    const size_t r = row_map != nullptr ? static_cast<size_t>(row_map[i]) : i;
    const double* row = absent_rows + r * row_stride;
    for (int c = c0; c < c1; ++c) t[c] += row[c];
  }
}

// The carried-label totals t1, summed the same way.
void carried_totals(double* t1) {
  const size_t m = static_cast<size_t>(data_set->num_train);
  for (int l = 0; l < num_labels; ++l) t1[l] = 0.0;
  if (carried_dense) {
    for (size_t i = 0; i < m; ++i) {
      const double* row = carried_rows + i * row_stride;
      for (int l = 0; l < num_labels; ++l) t1[l] += row[l];
    }
    return;
  }
  for (size_t i = 0; i < m; ++i)
    for (int r = carried_first[i]; r < carried_first[i + 1]; ++r)
      t1[carried_label[r]] += carried_weight[r];
}

template <int V>
__attribute__((target("avx512f"))) void totals_avx512_pass(double* t, int c) {
  const size_t m = static_cast<size_t>(data_set->num_train);
  __m512d s[V];
  for (int v = 0; v < V; ++v) s[v] = _mm512_setzero_pd();
  for (size_t i = 0; i < m; ++i) {
    const size_t r = row_map != nullptr ? static_cast<size_t>(row_map[i]) : i;
    const double* row = absent_rows + r * row_stride + c;
#pragma GCC unroll 8
    for (int v = 0; v < V; ++v) s[v] = _mm512_add_pd(s[v], _mm512_load_pd(row + 8 * v));
  }
  for (int v = 0; v < V; ++v) _mm512_storeu_pd(t + c + 8 * v, s[v]);
}

void totals_avx512(double* t, int c0, int c1) {
  for (int c = c0; c < c1; c += 64) {
    switch ((std::min(c1, c + 64) - c) / 8) {
#define MHB_PASS(V)                \
  case V:                          \
    totals_avx512_pass<V>(t, c);   \
    break;
      MHB_PASS(1) MHB_PASS(2) MHB_PASS(3) MHB_PASS(4) MHB_PASS(5) MHB_PASS(6) MHB_PASS(7)
      MHB_PASS(8)
#undef MHB_PASS
    }
  }
}

// Lanes [c, c + 8V) of every example's weight row from D, and their
// totals: each lane summed over the rows in example order from zero, as
// totals_avx512 sums them. The rows are written past the caches: a round's
// rows outgrow them, and a plain store would first read each line in.
template <int V>
__attribute__((target("avx512f"))) void fill_totals_avx512_pass(const double* D, double* t, int c) {
  const size_t m = static_cast<size_t>(data_set->num_train);
  const int k = num_labels;
  const size_t ku = static_cast<size_t>(k);
  const size_t nvec = static_cast<size_t>(absent_units);
  __mmask8 lanes[V];
  __m512d s[V];
#pragma GCC unroll 8
  for (int v = 0; v < V; ++v) {
    const int left = k - (c + 8 * v);
    lanes[v] = left >= 8 ? 0xFF : static_cast<__mmask8>(left > 0 ? (1u << left) - 1 : 0);
    s[v] = _mm512_setzero_pd();
  }
  const uint8_t* ab = absent_bytes.data() + c / 8;
  for (size_t i = 0; i < m; ++i) {
    const double* row = D + i * ku + c;
    double* out = absent_rows + i * row_stride + c;
#pragma GCC unroll 8
    for (int v = 0; v < V; ++v) {
      const __m512d d = _mm512_maskz_loadu_pd(lanes[v], row + 8 * v);
      const __m512d x = _mm512_maskz_mov_pd(ab[i * nvec + v], d);
      _mm512_stream_pd(out + 8 * v, x);
      s[v] = _mm512_add_pd(s[v], x);
    }
  }
  // The streamed rows reach memory before the threads that read them start.
  _mm_sfence();
#pragma GCC unroll 8
  for (int v = 0; v < V; ++v) _mm512_storeu_pd(t + c + 8 * v, s[v]);
}

void fill_totals_avx512(const double* D, double* t, int c0, int c1) {
  for (int c = c0; c < c1; c += 64) {
    switch ((std::min(c1, c + 64) - c) / 8) {
#define MHB_PASS(V)                      \
  case V:                                \
    fill_totals_avx512_pass<V>(D, t, c); \
    break;
      MHB_PASS(1) MHB_PASS(2) MHB_PASS(3) MHB_PASS(4) MHB_PASS(5) MHB_PASS(6) MHB_PASS(7)
      MHB_PASS(8)
#undef MHB_PASS
    }
  }
}

// The AVX2 forms of the three kernels above, four lanes at a time.
__attribute__((target("avx2"), always_inline)) inline __m256d absent_lanes_avx2(uint8_t byte,
                                                                                int half) {
  const __m256i bit = _mm256_setr_epi64x(1, 2, 4, 8);
  const __m256i bits = _mm256_set1_epi64x((byte >> (4 * half)) & 0xF);
  return _mm256_castsi256_pd(_mm256_cmpeq_epi64(_mm256_and_si256(bits, bit), bit));
}

// Mask of the lanes [l, l + 4) below k.
__attribute__((target("avx2"), always_inline)) inline __m256i lanes_below_avx2(int k, int l) {
  return _mm256_cmpgt_epi64(_mm256_set1_epi64x(k - l), _mm256_setr_epi64x(0, 1, 2, 3));
}

__attribute__((target("avx2"))) void fill_rows_avx2(const double* D, size_t r0, size_t r1,
                                                    const int* src) {
  const int k = num_labels;
  const size_t ku = static_cast<size_t>(k);
  const int nvec = absent_units;
  for (size_t r = r0; r < r1; ++r) {
    const size_t i = src != nullptr ? static_cast<size_t>(src[r]) : r;
    const double* row = D + i * ku;
    const uint8_t* ab = absent_bytes.data() + i * nvec;
    double* out = absent_rows + r * row_stride;
    for (int v = 0; v < 2 * nvec; ++v) {
      const int l = 4 * v;
      const __m256d d = load_lanes_avx2(row + l, l + 4 > k, lanes_below_avx2(k, l));
      const __m256d absent = absent_lanes_avx2(ab[v / 2], v % 2);
      _mm256_store_pd(out + l, _mm256_and_pd(absent, d));
      if (carried_dense)
        _mm256_store_pd(carried_rows + r * row_stride + l, _mm256_andnot_pd(absent, d));
    }
  }
}

template <int V>
__attribute__((target("avx2"))) void totals_avx2_pass(double* t, int c) {
  const size_t m = static_cast<size_t>(data_set->num_train);
  __m256d s[V];
  for (int v = 0; v < V; ++v) s[v] = _mm256_setzero_pd();
  for (size_t i = 0; i < m; ++i) {
    const size_t r = row_map != nullptr ? static_cast<size_t>(row_map[i]) : i;
    const double* row = absent_rows + r * row_stride + c;
#pragma GCC unroll 16
    for (int v = 0; v < V; ++v) s[v] = _mm256_add_pd(s[v], _mm256_load_pd(row + 4 * v));
  }
  for (int v = 0; v < V; ++v) _mm256_storeu_pd(t + c + 4 * v, s[v]);
}

// Lanes [c0, c1) of the totals, c0 and c1 multiples of eight, in passes of
// at most 48 lanes (twelve vectors in registers).
void totals_avx2(double* t, int c0, int c1) {
  for (int c = c0; c < c1; c += 48) {
    switch ((std::min(c1, c + 48) - c) / 8) {
#define MHB_PASS(V)                 \
  case V:                           \
    totals_avx2_pass<2 * V>(t, c);  \
    break;
      MHB_PASS(1) MHB_PASS(2) MHB_PASS(3) MHB_PASS(4) MHB_PASS(5) MHB_PASS(6)
#undef MHB_PASS
    }
  }
}

template <int V>
__attribute__((target("avx2"))) void fill_totals_avx2_pass(const double* D, double* t, int c) {
  const size_t m = static_cast<size_t>(data_set->num_train);
  const int k = num_labels;
  const size_t ku = static_cast<size_t>(k);
  const size_t nvec = static_cast<size_t>(absent_units);
  __m256i lanes[V];
  __m256d s[V];
  bool partial[V];
#pragma GCC unroll 16
  for (int v = 0; v < V; ++v) {
    lanes[v] = lanes_below_avx2(k, c + 4 * v);
    partial[v] = c + 4 * v + 4 > k;
    s[v] = _mm256_setzero_pd();
  }
  const uint8_t* ab = absent_bytes.data() + c / 8;
  for (size_t i = 0; i < m; ++i) {
    const double* row = D + i * ku + c;
    double* out = absent_rows + i * row_stride + c;
#pragma GCC unroll 16
    for (int v = 0; v < V; ++v) {
      const __m256d d = load_lanes_avx2(row + 4 * v, partial[v], lanes[v]);
      const __m256d x = _mm256_and_pd(absent_lanes_avx2(ab[i * nvec + v / 2], v % 2), d);
      _mm256_stream_pd(out + 4 * v, x);
      s[v] = _mm256_add_pd(s[v], x);
    }
  }
  // The streamed rows reach memory before the threads that read them start.
  _mm_sfence();
#pragma GCC unroll 16
  for (int v = 0; v < V; ++v) _mm256_storeu_pd(t + c + 4 * v, s[v]);
}

void fill_totals_avx2(const double* D, double* t, int c0, int c1) {
  for (int c = c0; c < c1; c += 48) {
    switch ((std::min(c1, c + 48) - c) / 8) {
#define MHB_PASS(V)                          \
  case V:                                    \
    fill_totals_avx2_pass<2 * V>(D, t, c);   \
    break;
      MHB_PASS(1) MHB_PASS(2) MHB_PASS(3) MHB_PASS(4) MHB_PASS(5) MHB_PASS(6)
#undef MHB_PASS
    }
  }
}

// The carried weights of every example from D, and their totals t1 summed
// in example order from zero, as carried_totals sums them.
void fill_carried_totals(const double* D, double* t1) {
  const size_t m = static_cast<size_t>(data_set->num_train);
  const size_t k = static_cast<size_t>(num_labels);
  for (size_t l = 0; l < k; ++l) t1[l] = 0.0;
  for (size_t i = 0; i < m; ++i)
    for (int r = carried_first[i]; r < carried_first[i + 1]; ++r) {
      const double w = D[i * k + carried_label[r]];
      carried_weight[r] = w;
      t1[carried_label[r]] += w;
    }
}

// Fills the weight rows of the round from D on all threads, and with
// t0 != nullptr also the totals.
void fill_weight_rows(const double* D, double* t0, double* t1) {
  const size_t m = static_cast<size_t>(data_set->num_train);
  const int k = num_labels;
  const size_t cells = m * row_stride + 8;  // 8: room for a prefetch past the end
  if (rows_capacity < cells) {
    free(absent_rows);
    free(carried_rows);
    carried_rows = nullptr;
    // Rows are read at random, so they sit on huge pages, and a row rarely
    // misses the TLB.
    absent_rows = static_cast<double*>(Malloc_Huge(cells * sizeof(double)));
    if (carried_dense) carried_rows = static_cast<double*>(Malloc_Huge(cells * sizeof(double)));
    memset(absent_rows + m * row_stride, 0, 8 * sizeof(double));
    rows_capacity = cells;
  }
  // One row per group when groups were given for this round.
  row_map = nullptr;
  const int* src = nullptr;
  size_t nrows = m;
  if (groups_pending) {
    row_map = group_of_example.data();
    src = group_first.data();
    nrows = group_first.size();
  }
  groups_pending = false;
  auto fill_rows = [&](size_t r0, size_t r1, const int* from) {
    if (sweep_vectors)
      fill_rows_avx512(D, r0, r1, from);
    else if (sweep_avx2)
      fill_rows_avx2(D, r0, r1, from);
    else
      fill_rows_plain(D, r0, r1, from);
  };
  auto fill_group_rows = [&] {
    pool->Run(static_cast<int>(nrows), [&](int r0, int r1, int) {
      fill_rows(static_cast<size_t>(r0), static_cast<size_t>(r1), src);
    });
  };
  if (t0 != nullptr && (sweep_vectors || sweep_avx2) && !carried_dense) {
    // Rows and totals split by lanes; the carried labels go with the first
    // part, which has the fewest vectors. Rows per example and their
    // totals come from one pass over D; group rows are written first, and
    // the totals then read them (a few MB) rather than D.
    if (row_map != nullptr) fill_group_rows();
    std::vector<double> t(row_stride);
    pool->Run(lane_parts, [&](int p0, int p1, int) {
      for (int part = p0; part < p1; ++part) {
        const int u0 = lane_units * part / lane_parts, u1 = lane_units * (part + 1) / lane_parts;
        if (row_map != nullptr)
          (sweep_vectors ? totals_avx512 : totals_avx2)(t.data(), 8 * u0, 8 * u1);
        else
          (sweep_vectors ? fill_totals_avx512 : fill_totals_avx2)(D, t.data(), 8 * u0, 8 * u1);
        if (part == 0) fill_carried_totals(D, t1);
      }
    });
    for (int l = 0; l < k; ++l) t0[l] = t[l];
    return;
  }
  // Otherwise the rows, then the totals split by lanes.
  if (row_map != nullptr) fill_group_rows();
  pool->Run(static_cast<int>(m), [&](int i0, int i1, int) {
    if (row_map == nullptr) fill_rows(static_cast<size_t>(i0), static_cast<size_t>(i1), nullptr);
    if (!carried_dense)
      for (int i = i0; i < i1; ++i)
        for (int r = carried_first[i]; r < carried_first[i + 1]; ++r)
          carried_weight[r] = D[static_cast<size_t>(i) * k + carried_label[r]];
  });
  if (t0 == nullptr) return;
  // The totals: the absent-label vectors split among the threads as the
  // sums split them, the carried labels with the last part.
  std::vector<double> t(row_stride);
  pool->Run(lane_parts, [&](int p0, int p1, int) {
    for (int part = p0; part < p1; ++part) {
      const int u0 = lane_units * part / lane_parts, u1 = lane_units * (part + 1) / lane_parts;
      const int a0 = std::min(u0, absent_units), a1 = std::min(u1, absent_units);
      if (sweep_vectors)
        totals_avx512(t.data(), 8 * a0, 8 * a1);
      else if (sweep_avx2)
        totals_avx2(t.data(), 8 * a0, 8 * a1);
      else
        totals_plain(t.data(), 8 * a0, 8 * a1);
      if (part == lane_parts - 1) carried_totals(t1);
    }
  });
  for (int l = 0; l < k; ++l) t0[l] = t[l];
}

// Set when Score_Pool_Totals has filled the rows for the coming search.
bool rows_filled = false;

// Lays out the scan's steps, blocks, slots and slot groups (see Scan_Step
// and Slot_Group).
void lay_out_blocks() {
  scan_steps.clear();
  term_blocks.clear();
  slot_of_all.assign(num_experts, 0);
  slot_expert_all.clear();
  slot_groups.clear();
  all_pieces.clear();
  piece_rows.clear();
  int e = 0;
  while (e < num_experts) {
    if (experts[e].type != kTypeFgram) {
      scan_steps.push_back(Scan_Step{e, e + 1, -1});
      ++e;
      continue;
    }
    int end = e;
    while (end < num_experts && end - e < kBlock && experts[end].type == kTypeFgram) ++end;
    Term_Block blk{static_cast<int>(slot_expert_all.size()), 0,
                   static_cast<int>(slot_groups.size()), 1, 1};
    for (int j = e; j < end; ++j) {
      const int twin = prev_twin[j];
      if (twin >= e) {
        slot_of_all[j] = slot_of_all[twin];
      } else {
        slot_of_all[j] = blk.nslots++;
        slot_expert_all.push_back(j);
      }
    }
    // Lanes split when most occurrences lie in long lists (see
    // groups_per_block); then groups of consecutive slots with about the
    // same number of occurrences.
    std::vector<long> work(blk.nslots + 1, 0);
    long in_long = 0;
    for (int q = 0; q < blk.nslots; ++q) {
      const int n = experts[slot_expert_all[blk.slot_base + q]].num_train;
      work[q + 1] = work[q] + n + 1;
      if (n >= long_list) in_long += n;
    }
    if (2 * in_long >= work[blk.nslots] - blk.nslots) {
      blk.groups = groups_per_block;
      blk.parts = lane_parts;
    } else {
      blk.groups = pool->Size();
      blk.parts = 1;
    }
    int s0 = 0;
    for (int g = 0; g < blk.groups; ++g) {
      const long hi = work[blk.nslots] * (g + 1) / blk.groups;
      int s1 = static_cast<int>(std::lower_bound(work.begin(), work.end() - 1, hi) - work.begin());
      if (g == blk.groups - 1) s1 = blk.nslots;
      lay_out_group(blk.slot_base, s0, std::max(s0, s1), blk.parts);
      s0 = std::max(s0, s1);
    }
    scan_steps.push_back(Scan_Step{e, end, static_cast<int>(term_blocks.size())});
    term_blocks.push_back(blk);
    e = end;
  }
  all_pieces.shrink_to_fit();
  piece_rows.shrink_to_fit();
}

// The threshold sweep of the real AdaBoost.MH scan, on all threads. Every
// label's totals and region sums go through the sweep on their own, so the
// labels are split among the threads in chunks of up to four vectors of
// eight, each chunk doing exactly the sequential sweep's operations for its
// labels. The per-label terms of every candidate position are kept, with
// each chunk's sum of its terms (in any order). Those rough sums pick out
// the few positions that can hold the smallest score; only their terms are
// added in label order in extended precision, as the sequential sweep adds
// them, and the first smallest of those is the sweep's choice. A position
// whose rough sum exceeds the smallest rough sum by more than the margin
// scores strictly more: the terms are never negative, so both sums are
// within a relative k * 2^-52 of the true sum of the terms (a far smaller
// error than the margin; the absolute slack covers subnormal sums).
struct Sweep_Chunk {
  int v0, v1;  // label vectors [v0, v1)
};

// Labels [8 v0, min(k, 8 v1)) of the sweep, one label at a time.
void sweep_chunk_plain(const double* D, const int* order, int n, const int* cand, size_t nc, int k,
                       int v0, int v1, double* t0, double* t1, double* terms, double* partial,
                       int chunk, int nchunks) {
  const int l0 = 8 * v0, l1 = std::min(k, 8 * v1), w = l1 - l0;
  const uint8_t* y = label_rows.data();
  std::vector<double> a0(w, 0.0), a1(w, 0.0), b0(w, 0.0), b1(w, 0.0);
  // Label l0 + l's weight in the row at sorted position j, by sign (the
  // other sign gets +0.0).
  auto split = [&](int j, int l, double* d0, double* d1) {
    const size_t at = static_cast<size_t>(order[j]) * k + l0 + l;
    *d1 = y[at] ? D[at] : 0.0;
    *d0 = y[at] ? 0.0 : D[at];
  };
  double d0, d1;
  for (int j = 0; j < n; ++j)
    for (int l = 0; l < w; ++l) {
      split(j, l, &d0, &d1);
      b1[l] += d1;
      b0[l] += d0;
    }
  size_t ci = 0;
  for (int p = -1; p < n && ci < nc; ++p) {
    for (int l = 0; p >= 0 && l < w; ++l) {
      split(p, l, &d0, &d1);
      a1[l] += d1;
      a0[l] += d0;
      b1[l] -= d1;
      b0[l] -= d0;
    }
    if (cand[ci] != p) continue;
    double* out = terms + ci * k + l0;
    double sum = 0.0;
    for (int l = 0; l < w; ++l) {
      double u0 = (t0[l0 + l] - a0[l]) - b0[l];
      double u1 = (t1[l0 + l] - a1[l]) - b1[l];
      if (u0 < 0) u0 = 0.0;
      if (u1 < 0) u1 = 0.0;
      if (b0[l] < 0) b0[l] = 0.0;
      if (b1[l] < 0) b1[l] = 0.0;
      out[l] = sqrt(u0 * u1) + sqrt(a0[l] * a1[l]) + sqrt(b0[l] * b1[l]);
      sum += out[l];
      t0[l0 + l] = (u0 + a0[l]) + b0[l];
      t1[l0 + l] = (u1 + a1[l]) + b1[l];
    }
    partial[ci * nchunks + chunk] = sum;
    ++ci;
  }
}

// max(x, 0) lane by lane, as "if (x < 0) x = 0": a NaN stays NaN.
__attribute__((target("avx512f"), always_inline)) inline __m512d clamp_below_zero(__m512d x) {
  const __m512d zero = _mm512_setzero_pd();
  return _mm512_mask_mov_pd(x, _mm512_cmp_pd_mask(x, zero, _CMP_LT_OQ), zero);
}

// The weights of the chunk's labels in the row of sorted position j, split
// by label sign (zero in the lanes of the other sign).
template <int V>
__attribute__((target("avx512f"), always_inline)) inline void split_row(
    const double* D, const int* order, int j, int n, int k, int v0, const __mmask8* lanes,
    __m512d* d0, __m512d* d1) {
  const size_t ku = static_cast<size_t>(k);
  const int l0 = 8 * v0;
  // Rows are read in value order, at random in memory: ask for one a few
  // positions ahead into the first-level cache, and one further ahead into
  // the second, so that the first request finds its row there.
  if (j + kNearAhead < n) {
    const char* ahead = reinterpret_cast<const char*>(D + static_cast<size_t>(order[j + kNearAhead]) * ku + l0);
    for (int line = 0; line <= 64 * V; line += 64) _mm_prefetch(ahead + line, _MM_HINT_T0);
  }
  if (j + kFarAhead < n) {
    const char* ahead = reinterpret_cast<const char*>(D + static_cast<size_t>(order[j + kFarAhead]) * ku + l0);
    for (int line = 0; line <= 64 * V; line += 64) _mm_prefetch(ahead + line, _MM_HINT_T1);
  }
  const size_t i = static_cast<size_t>(order[j]);
  const double* row = D + i * ku + l0;
  const uint8_t* ab = absent_bytes.data() + i * static_cast<size_t>(absent_units) + v0;
#pragma GCC unroll 4
  for (int v = 0; v < V; ++v) {
    const __m512d d = _mm512_maskz_loadu_pd(lanes[v], row + 8 * v);
    const __mmask8 m0 = ab[v];
    d0[v] = _mm512_maskz_mov_pd(m0, d);
    d1[v] = _mm512_maskz_mov_pd(static_cast<__mmask8>(~m0 & lanes[v]), d);
  }
}

// GCC 12 warns that its own header's sqrt and reduction intrinsics use an
// uninitialised vector (their undefined pass-through operand).
#pragma GCC diagnostic push
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
template <int V>
__attribute__((target("avx512f"))) void sweep_chunk_avx512(const double* D, const int* order, int n,
                                                           const int* cand, size_t nc, int k,
                                                           int v0, double* t0, double* t1,
                                                           double* terms, double* partial,
                                                           int chunk, int nchunks) {
  const int l0 = 8 * v0;
  const size_t ku = static_cast<size_t>(k);
  const __m512d zero = _mm512_setzero_pd();
  __mmask8 lanes[V];
  __m512d a0[V], a1[V], b0[V], b1[V], tv0[V], tv1[V];
  for (int v = 0; v < V; ++v) {
    const int left = k - (l0 + 8 * v);
    lanes[v] = left >= 8 ? 0xFF : left <= 0 ? 0 : static_cast<__mmask8>((1u << left) - 1);
    a0[v] = a1[v] = b0[v] = b1[v] = zero;
    tv0[v] = _mm512_maskz_loadu_pd(lanes[v], t0 + l0 + 8 * v);
    tv1[v] = _mm512_maskz_loadu_pd(lanes[v], t1 + l0 + 8 * v);
  }
  for (int j = 0; j < n; ++j) {
    __m512d d0[V], d1[V];
    split_row<V>(D, order, j, n, k, v0, lanes, d0, d1);
#pragma GCC unroll 4
    for (int v = 0; v < V; ++v) {
      b1[v] = _mm512_add_pd(b1[v], d1[v]);
      b0[v] = _mm512_add_pd(b0[v], d0[v]);
    }
  }
  size_t ci = 0;
  for (int p = -1; p < n && ci < nc; ++p) {
    if (p >= 0) {
      __m512d d0[V], d1[V];
      split_row<V>(D, order, p, n, k, v0, lanes, d0, d1);
#pragma GCC unroll 4
      for (int v = 0; v < V; ++v) {
        a1[v] = _mm512_add_pd(a1[v], d1[v]);
        a0[v] = _mm512_add_pd(a0[v], d0[v]);
        b1[v] = _mm512_sub_pd(b1[v], d1[v]);
        b0[v] = _mm512_sub_pd(b0[v], d0[v]);
      }
    }
    if (cand[ci] != p) continue;
    double* out = terms + ci * ku + l0;
    __m512d sum = zero;
#pragma GCC unroll 4
    for (int v = 0; v < V; ++v) {
      const __m512d u0 = clamp_below_zero(_mm512_sub_pd(_mm512_sub_pd(tv0[v], a0[v]), b0[v]));
      const __m512d u1 = clamp_below_zero(_mm512_sub_pd(_mm512_sub_pd(tv1[v], a1[v]), b1[v]));
      b0[v] = clamp_below_zero(b0[v]);
      b1[v] = clamp_below_zero(b1[v]);
      __m512d term = _mm512_add_pd(_mm512_sqrt_pd(_mm512_mul_pd(u0, u1)),
                                   _mm512_sqrt_pd(_mm512_mul_pd(a0[v], a1[v])));
      term = _mm512_add_pd(term, _mm512_sqrt_pd(_mm512_mul_pd(b0[v], b1[v])));
      _mm512_mask_storeu_pd(out + 8 * v, lanes[v], term);
      sum = _mm512_add_pd(sum, _mm512_maskz_mov_pd(lanes[v], term));
      tv0[v] = _mm512_add_pd(_mm512_add_pd(u0, a0[v]), b0[v]);
      tv1[v] = _mm512_add_pd(_mm512_add_pd(u1, a1[v]), b1[v]);
    }
    partial[ci * nchunks + chunk] = _mm512_reduce_add_pd(sum);
    ++ci;
  }
  for (int v = 0; v < V; ++v) {
    _mm512_mask_storeu_pd(t0 + l0 + 8 * v, lanes[v], tv0[v]);
    _mm512_mask_storeu_pd(t1 + l0 + 8 * v, lanes[v], tv1[v]);
  }
}
#pragma GCC diagnostic pop

// The AVX2 sweep, for processors without AVX-512: the chunk's labels in
// vectors of four, the last one partial when the chunk ends at label k.
// Lanes beyond k load as zero and so add nothing; they are never stored.
template <int V>
__attribute__((target("avx2"), always_inline)) inline void split_row_avx2(
    const double* D, const int* order, int j, int n, size_t ku, int l0, __m256i tail, bool partial,
    __m256d* d0, __m256d* d1) {
  if (j + kNearAhead < n) {
    const char* ahead = reinterpret_cast<const char*>(D + static_cast<size_t>(order[j + kNearAhead]) * ku + l0);
    for (int line = 0; line <= 32 * V; line += 64) _mm_prefetch(ahead + line, _MM_HINT_T0);
  }
  if (j + kFarAhead < n) {
    const char* ahead = reinterpret_cast<const char*>(D + static_cast<size_t>(order[j + kFarAhead]) * ku + l0);
    for (int line = 0; line <= 32 * V; line += 64) _mm_prefetch(ahead + line, _MM_HINT_T1);
  }
  const size_t i = static_cast<size_t>(order[j]);
  const double* row = D + i * ku + l0;
  const uint8_t* ab = absent_bytes.data() + i * static_cast<size_t>(absent_units) + l0 / 8;
  const __m256i bit = _mm256_setr_epi64x(1, 2, 4, 8);
#pragma GCC unroll 8
  for (int v = 0; v < V; ++v) {
    const __m256d d = load_lanes_avx2(row + 4 * v, v == V - 1 && partial, tail);
    const __m256i bits = _mm256_set1_epi64x((ab[v / 2] >> (4 * (v % 2))) & 0xF);
    const __m256d absent = _mm256_castsi256_pd(_mm256_cmpeq_epi64(_mm256_and_si256(bits, bit), bit));
    d0[v] = _mm256_and_pd(absent, d);
    d1[v] = _mm256_andnot_pd(absent, d);
  }
}

template <int V>
__attribute__((target("avx2"))) void sweep_chunk_avx2(const double* D, const int* order, int n,
                                                      const int* cand, size_t nc, int k, int l0,
                                                      int l1, double* t0, double* t1,
                                                      double* terms, double* partial_sums,
                                                      int chunk, int nchunks) {
  const size_t ku = static_cast<size_t>(k);
  const __m256d zero = _mm256_setzero_pd();
  const int left = l1 - (l0 + 4 * (V - 1));
  const __m256i tail = _mm256_cmpgt_epi64(_mm256_set1_epi64x(left), _mm256_setr_epi64x(0, 1, 2, 3));
  const bool partial = left < 4;
  __m256d a0[V], a1[V], b0[V], b1[V], tv0[V], tv1[V];
  for (int v = 0; v < V; ++v) {
    a0[v] = a1[v] = b0[v] = b1[v] = zero;
    tv0[v] = load_lanes_avx2(t0 + l0 + 4 * v, v == V - 1 && partial, tail);
    tv1[v] = load_lanes_avx2(t1 + l0 + 4 * v, v == V - 1 && partial, tail);
  }
  for (int j = 0; j < n; ++j) {
    __m256d d0[V], d1[V];
    split_row_avx2<V>(D, order, j, n, ku, l0, tail, partial, d0, d1);
#pragma GCC unroll 8
    for (int v = 0; v < V; ++v) {
      b1[v] = _mm256_add_pd(b1[v], d1[v]);
      b0[v] = _mm256_add_pd(b0[v], d0[v]);
    }
  }
  size_t ci = 0;
  for (int p = -1; p < n && ci < nc; ++p) {
    if (p >= 0) {
      __m256d d0[V], d1[V];
      split_row_avx2<V>(D, order, p, n, ku, l0, tail, partial, d0, d1);
#pragma GCC unroll 8
      for (int v = 0; v < V; ++v) {
        a1[v] = _mm256_add_pd(a1[v], d1[v]);
        a0[v] = _mm256_add_pd(a0[v], d0[v]);
        b1[v] = _mm256_sub_pd(b1[v], d1[v]);
        b0[v] = _mm256_sub_pd(b0[v], d0[v]);
      }
    }
    if (cand[ci] != p) continue;
    double* out = terms + ci * ku + l0;
    __m256d sum = zero;
#pragma GCC unroll 8
    for (int v = 0; v < V; ++v) {
      const __m256d u0 = clamp_below_zero_avx2(_mm256_sub_pd(_mm256_sub_pd(tv0[v], a0[v]), b0[v]));
      const __m256d u1 = clamp_below_zero_avx2(_mm256_sub_pd(_mm256_sub_pd(tv1[v], a1[v]), b1[v]));
      b0[v] = clamp_below_zero_avx2(b0[v]);
      b1[v] = clamp_below_zero_avx2(b1[v]);
      __m256d term = _mm256_add_pd(_mm256_sqrt_pd(_mm256_mul_pd(u0, u1)),
                                   _mm256_sqrt_pd(_mm256_mul_pd(a0[v], a1[v])));
      term = _mm256_add_pd(term, _mm256_sqrt_pd(_mm256_mul_pd(b0[v], b1[v])));
      store_lanes_avx2(out + 4 * v, v == V - 1 && partial, tail, term);
      sum = _mm256_add_pd(sum, term);
      tv0[v] = _mm256_add_pd(_mm256_add_pd(u0, a0[v]), b0[v]);
      tv1[v] = _mm256_add_pd(_mm256_add_pd(u1, a1[v]), b1[v]);
    }
    alignas(32) double part[4];
    _mm256_store_pd(part, sum);
    partial_sums[ci * nchunks + chunk] = (part[0] + part[1]) + (part[2] + part[3]);
    ++ci;
  }
  for (int v = 0; v < V; ++v) {
    store_lanes_avx2(t0 + l0 + 4 * v, v == V - 1 && partial, tail, tv0[v]);
    store_lanes_avx2(t1 + l0 + 4 * v, v == V - 1 && partial, tail, tv1[v]);
  }
}

std::vector<int> sweep_cand;
std::vector<double> sweep_terms, sweep_partial;

[[maybe_unused]] long double threshold_by_labels(const double* D, text_expert_rec* e, int k,
                                                 weight_table W, bool parallel) {
  const int n = e->num_train;
  const double* v = e->sorted_values;
  const int* order = e->sorted_index;
  std::vector<int>& cand = sweep_cand;
  cand.clear();
  for (int p = -1; p < n; ++p)
    if (p == -1 || p == n - 1 || v[p + 1] != v[p]) cand.push_back(p);
  const size_t nc = cand.size();
  // Chunks of at most four label vectors, at least one per thread where
  // there are enough vectors.
  const int nvec = (k + 7) / 8;
  const int nchunks =
      parallel ? std::max((nvec + 3) / 4, std::min(pool->Size(), nvec)) : (nvec + 3) / 4;
  const size_t ku = static_cast<size_t>(k);
  if (sweep_terms.size() < nc * ku) sweep_terms.resize(nc * ku);
  if (sweep_partial.size() < nc * nchunks) sweep_partial.resize(nc * nchunks);
  double* terms = sweep_terms.data();
  double* partial = sweep_partial.data();
  auto sweep_chunks = [&](int c0, int c1, int) {
    for (int c = c0; c < c1; ++c) {
      const int v0 = nvec * c / nchunks, v1 = nvec * (c + 1) / nchunks;
      if (sweep_avx2) {
        const int l0 = 8 * v0, l1 = std::min(k, 8 * v1);
        switch ((l1 - l0 + 3) / 4) {
#define MHB_CHUNK(V)                                                                            \
  case V:                                                                                       \
    sweep_chunk_avx2<V>(D, order, n, cand.data(), nc, k, l0, l1, W[0][0], W[0][1], terms, partial, \
                        c, nchunks);                                                            \
    break;
          MHB_CHUNK(1) MHB_CHUNK(2) MHB_CHUNK(3) MHB_CHUNK(4) MHB_CHUNK(5) MHB_CHUNK(6)
          MHB_CHUNK(7) MHB_CHUNK(8)
#undef MHB_CHUNK
        }
        continue;
      }
      if (!sweep_vectors) {
        sweep_chunk_plain(D, order, n, cand.data(), nc, k, v0, v1, W[0][0], W[0][1], terms,
                          partial, c, nchunks);
        continue;
      }
      switch (v1 - v0) {
#define MHB_CHUNK(V)                                                                          \
  case V:                                                                                     \
    sweep_chunk_avx512<V>(D, order, n, cand.data(), nc, k, v0, W[0][0], W[0][1], terms, partial, \
                          c, nchunks);                                                        \
    break;
        MHB_CHUNK(1) MHB_CHUNK(2) MHB_CHUNK(3) MHB_CHUNK(4)
#undef MHB_CHUNK
      }
    }
  };
  if (parallel)
    pool->Run(nchunks, sweep_chunks);
  else
    sweep_chunks(0, nchunks, 0);
  // The rough sums, and the smallest of them.
  double least = HUGE_VAL;
  for (size_t ci = 0; ci < nc; ++ci) {
    double sum = 0.0;
    for (int c = 0; c < nchunks; ++c) sum += partial[ci * nchunks + c];
    partial[ci * nchunks] = sum;
    if (sum < least) least = sum;
  }
  const double limit = least + kMargin * least + 1e-300;
  long double best = DBL_MAX;
  int best_p = -1;
  for (size_t ci = 0; ci < nc; ++ci) {
    const double rough = partial[ci * nchunks];
    // Positions with a rough sum that is not finite are scored exactly too.
    if (rough > limit && rough < HUGE_VAL) continue;
    long double score = 0;
    for (int l = 0; l < k; ++l) score += terms[ci * ku + l];
    if (score < best) {
      best = score;
      best_p = cand[ci];
    }
  }
  e->threshold = Threshold_At(v, n, best_p);
  return best;
}

// The abstaining score of a term expert from its sums, computed as the
// abstaining scoring function computes it.
[[maybe_unused]] long double abstaining_score(const double* a0, const double* a1, int k) {
  long double score = 0;
  long double total = 0;
  for (int l = 0; l < k; ++l) {
    score += sqrt(a0[l] * a1[l]);
    total += a0[l] + a1[l];
  }
  return score + 0.5 * (1 - total);
}

[[maybe_unused]] void scan_term_block(int b, int e, int block, weight_table W, double* best,
                     int* best_index) {
  const int k = num_labels;
  const size_t two_k = 2 * static_cast<size_t>(k);
  double* t0 = W[0][0];
  double* t1 = W[0][1];

  // Bound coefficients from the totals at the start of the block.
  std::vector<double> r0(k), r1(k);
  double g_total = 0.0;
  for (int l = 0; l < k; ++l) {
    const double g = sqrt(t0[l] * t1[l]);
    g_total += g;
    r0[l] = t0[l] > 0 ? g / t0[l] : 0.0;
    r1[l] = t1[l] > 0 ? g / t1[l] : 0.0;
  }
  double limit = *best + kMargin * (g_total + *best) + 1e-300;
  // Totals that are not finite give no usable bound: score every expert.
  if (!std::isfinite(limit)) limit = HUGE_VAL;

  const Term_Block& blk = term_blocks[block];
  slot_of = &slot_of_all[b];
  const int nslots = blk.nslots;

  // The totals at the start of the block, as one 2k-vector [T0 | T1].
  std::vector<double> totals(two_k);
  memcpy(totals.data(), t0, sizeof(double) * k);
  memcpy(totals.data() + k, t1, sizeof(double) * k);

  // Sums and bounds, and the lanes that any slot of the block would move: a
  // lane where max(T - A, 0) + A gives back T for every slot keeps its total
  // through the whole block, so only the other lanes need the replay. When
  // every thread sums whole slots, it bounds its own slots straight after.
  const int lane_groups = static_cast<int>((two_k + 7) / 8);
  std::vector<uint8_t> moved(static_cast<size_t>(pool->Size()) * lane_groups, 0);
  std::vector<double> r(two_k);
  memcpy(r.data(), r0.data(), sizeof(double) * k);
  memcpy(r.data() + k, r1.data(), sizeof(double) * k);
  auto bound_slots = [&](int s0, int s1, int thread) {
    uint8_t* mv = &moved[static_cast<size_t>(thread) * lane_groups];
    for (int s = s0; s < s1; ++s)
      bound[s] = g_total - bound_and_moved(&sums[s * two_k], r.data(), totals.data(),
                                           static_cast<int>(two_k), mv);
  };
  if (blk.parts == 1) {
    pool->Run(blk.groups, [&](int q0, int q1, int thread) {
      for (int q = q0; q < q1; ++q) {
        sum_group_part(blk, q, k);
        const Slot_Group& g = slot_groups[blk.group_base + q];
        bound_slots(g.s0, g.s1, thread);
      }
    });
  } else {
    sum_block(blk, k);
    pool->Run(nslots, bound_slots);
  }
  for (int t = 1; t < pool->Size(); ++t)
    for (int g = 0; g < lane_groups; ++g) moved[g] |= moved[static_cast<size_t>(t) * lane_groups + g];
  std::vector<int> busy;
  for (int g = 0; g < lane_groups; ++g)
    if (moved[g]) busy.push_back(g);

  const int n = e - b;
  std::vector<int>& cands = candidate_list;
  cands.clear();
  for (int j = 0; j < n; ++j) {
    candidate[j] = limit == HUGE_VAL || bound[slot_of[j]] < limit;
    if (candidate[j]) cands.push_back(j);
  }
  // Candidates are few as a rule: a handful of them cost less on this
  // thread than handing them to the others.
  const int ncand = static_cast<int>(cands.size());
  auto for_candidates = [&](const std::function<void(int, int, int)>& fn) {
    if (ncand < kFewCandidates)
      fn(0, ncand, 0);
    else
      pool->Run(ncand, fn);
  };

  // Replay of the totals in array order for the lanes that move, split
  // among the threads; consecutive lane groups go to the kernel together.
  const std::vector<double> start_totals = totals;
  pool->Run(static_cast<int>(busy.size()), [&](int q0, int q1, int) {
    for (int q = q0; q < q1;) {
      int r = q + 1;
      while (r < q1 && busy[r] == busy[r - 1] + 1) ++r;
      const int c0 = busy[q] * 8;
      const int c1 = std::min(static_cast<int>(two_k), busy[r - 1] * 8 + 8);
      replay(totals.data(), sums.data(), slot_of, candidate.data(), n, state.data(),
             static_cast<int>(two_k), c0, c1);
      q = r;
    }
  });
  memcpy(t0, totals.data(), sizeof(double) * k);
  memcpy(t1, totals.data() + k, sizeof(double) * k);
  // The candidates' states in the lanes that did not move.
  if (static_cast<int>(busy.size()) < lane_groups) {
    for_candidates([&](int q0, int q1, int) {
      for (int q = q0; q < q1; ++q) {
        const int j = cands[q];
        const double* a = &sums[slot_of[j] * two_k];
        double* u = &state[j * two_k];
        for (int g = 0; g < lane_groups; ++g) {
          if (moved[g]) continue;
          const int c1 = std::min(static_cast<int>(two_k), 8 * g + 8);
          for (int c = 8 * g; c < c1; ++c) {
            double v = start_totals[c] - a[c];
            if (v < 0) v = 0.0;
            u[c] = v;
          }
        }
      }
    });
  }

  // Exact scores of the candidates; an expert whose twin just before it saw
  // the same totals has the same score.
  for_candidates([&](int q0, int q1, int) {
    for (int q = q0; q < q1; ++q) {
      const int j = cands[q];
      copy_of[j] = -1;
      const double* u0 = &state[j * two_k];
      const int twin = prev_twin[b + j];
      if (twin >= b && candidate[twin - b] &&
          memcmp(u0, &state[(twin - b) * two_k], sizeof(double) * two_k) == 0) {
        copy_of[j] = twin - b;
        continue;
      }
      const double* u1 = u0 + k;
      const double* a0 = &sums[slot_of[j] * two_k];
      const double* a1 = a0 + k;
      // The per-label terms in double (vectorised), then their sum in
      // extended precision in label order.
      thread_local std::vector<double> term;
      term.resize(k);
      double* tm = term.data();
      for (int l = 0; l < k; ++l) tm[l] = sqrt(u0[l] * u1[l]) + sqrt(a0[l] * a1[l]);
      long double score = 0;
      for (int l = 0; l < k; ++l) score += tm[l];
      scores[j] = score;
    }
  });

  int won = -1;
  for (const int j : cands) {
    if (copy_of[j] >= 0) scores[j] = scores[copy_of[j]];
    const double s = static_cast<double>(scores[j]);
    if (s < *best) {
      *best = s;
      *best_index = b + j;
      won = j;
    }
  }
  // The sums of this block's winner, for the winner's table.
  if (won >= 0) {
    winner_expert = b + won;
    winner_sums.assign(&sums[slot_of[won] * two_k], &sums[slot_of[won] * two_k] + two_k);
  }
}

}  // namespace

void Score_Pool_Totals(const double* D, weight_table W) {
  // The weight rows of the coming search are filled in the same pass.
  fill_weight_rows(D, W[0][0], W[0][1]);
  rows_filled = true;
}

void Run_Parallel(int n, const std::function<void(int, int, int)>& fn) {
  if (pool != nullptr)
    pool->Run(n, fn);
  else if (n > 0)
    fn(0, n, 0);
}

void Score_Pool_Band_Rows(int rows) { forced_band_rows = rows; }

void Score_Pool_Row_Groups(const int* group_of, const int* first, int count) {
  // Rows are kept per group only where the groups save half the rows or
  // more: with more groups, the rows outgrow the caches and the extra passes
  // of the fill cost more than they save (measured on debpkg's words).
  const int m = data_set != nullptr ? data_set->num_train : 0;
  groups_pending = false;
  if (count < 1 || 2 * count > m || carried_dense) return;
  group_of_example.assign(group_of, group_of + m);
  group_first.assign(first, first + count);
  groups_pending = true;
}

void Score_Pool_Use_Kernel(int level) {
  forced_kernel = level;
  choose_kernels();
}

void Score_Pool_Init(text_expert_rec* e, example_data* d, int num_threads) {
  experts = e;
  data_set = d;
  // Groups given for another set of examples mean nothing here.
  groups_pending = false;
  row_map = nullptr;
  num_labels = d->num_classes;
  num_experts = 0;
  while (experts[num_experts].term != nullptr) ++num_experts;
  const int k = num_labels;
  const int m = d->num_train;
  label_rows.assign(static_cast<size_t>(m) * k, 0);
  for (int i = 0; i < m; ++i)
    for (int l = 0; l < k; ++l) label_rows[static_cast<size_t>(i) * k + l] = d->train_labels[i][l] ? 1 : 0;
  row_stride = (static_cast<size_t>(k) + 7) / 8 * 8;
  // The weight rows are laid out anew for this data set.
  free(absent_rows);
  free(carried_rows);
  absent_rows = carried_rows = nullptr;
  rows_capacity = 0;
  rows_filled = false;
  carried_first.assign(static_cast<size_t>(m) + 1, 0);
  carried_label.clear();
  for (int i = 0; i < m; ++i) {
    for (int l = 0; l < k; ++l)
      if (d->train_labels[i][l]) carried_label.push_back(l);
    carried_first[i + 1] = static_cast<int>(carried_label.size());
  }
  // One by one, the carried weights cost a few operations each; as rows,
  // a vector add per eight labels, whether the example carries them or not.
  carried_dense = carried_label.size() > static_cast<size_t>(m) * (row_stride / 8);
  if (carried_dense) {
    carried_first.clear();
    carried_label.clear();
  }
  carried_weight.assign(carried_label.size(), 0.0);
  delete pool;
  pool = new Fork_Join_Pool(Resolve_Thread_Count(num_threads));
  absent_units = static_cast<int>(row_stride / 8);
  absent_bytes.assign(static_cast<size_t>(m) * absent_units, 0);
  for (int i = 0; i < m; ++i)
    for (int l = 0; l < k; ++l)
      if (!d->train_labels[i][l])
        absent_bytes[static_cast<size_t>(i) * absent_units + l / 8] |= static_cast<uint8_t>(1u << (l % 8));
  lane_units = absent_units * (carried_dense ? 2 : 1);
  lane_parts = std::max(1, std::min(pool->Size(), lane_units));
  groups_per_block = std::max(1, pool->Size() / lane_parts);
  {
    const size_t part_bytes = 64 * static_cast<size_t>((lane_units + lane_parts - 1) / lane_parts);
    band_rows = forced_band_rows > 0 ? forced_band_rows
                                     : static_cast<int>(std::max<size_t>(256, kBandBytes / part_bytes));
    long_list = std::max(16, 4 * ((m + band_rows - 1) / band_rows));
  }
  // A carried label added one by one costs about two vectors' adds for
  // each label an example carries (measured on single-label corpora).
  {
    const double carried_cost = m > 0 ? 2.0 * static_cast<double>(carried_label.size()) / m : 0.0;
    const double target = (absent_units + carried_cost) / lane_parts;
    std::vector<double> need(lane_parts);
    double total = 0.0;
    for (int p = 0; p < lane_parts; ++p) {
      const int u0 = lane_units * p / lane_parts, u1 = lane_units * (p + 1) / lane_parts;
      need[p] = std::max(0.0, target - (std::min(u1, absent_units) - std::min(u0, absent_units)));
      total += need[p];
    }
    carried_share.assign(lane_parts, 1.0);
    double sum = 0.0;
    for (int p = 0; p + 1 < lane_parts; ++p) {
      sum += need[p];
      carried_share[p] = total > 0 ? sum / total : (p + 1.0) / lane_parts;
    }
  }
  find_twins();
  lay_out_discrete_cuts();
  lay_out_blocks();
  ensure_block_storage(k);
  choose_kernels();
  thread_tables.resize(pool->Size());
  for (auto& t : thread_tables) {
    for (auto& r : t.w)
      for (auto& v : r) v = zeroed(k);
    for (auto& c : t.c) c = zeroed(k);
  }
}

#ifdef MHBOOST_REFERENCE_SCAN
// The scan read literally: one scoring call per expert, in array order, on
// one shared table. Built only into the reference binary that the tests
// compare the fast scan with.
int Score_Pool_Search(double* D, weight_table W, int abstaining) {
  const int k = num_labels;
  unsigned char** y = data_set->train_labels;
  double best = 1.0;
  int best_index = 0;
  long double score = 0;
  for (int e = 0; e < num_experts; ++e) {
    text_expert_rec* x = &experts[e];
    if (!abstaining) {
      if (x->type == kTypeFgram)
        score = Text_Expert_Table_Exp_Loss(D, x, y, k, W);
      else if (x->type == kTypeThreshold)
        score = Text_Expert_Table_Exp_Loss_Threshold(D, x, y, k, W);
      else
        score = Text_Expert_Table_Exp_Loss_Linear(D, x, y, k, W);
    } else if (x->type == kTypeFgram) {
      score = Text_Expert_Table_Exp_Loss_Randomized(D, x, y, k, W);
    } else if (x->type == kTypeThreshold) {
      score = Text_Expert_Table_Exp_Loss_Threshold_Randomized(D, x, y, k, W);
    }
    if (static_cast<double>(score) < best) {
      best = static_cast<double>(score);
      best_index = e;
    }
  }
  last_scored = -1;  // the table already holds the last scored expert's sums
  return best_index;
}

void Score_Pool_Last_Table(weight_table, int) {}

bool Score_Pool_Winner_Table(int, weight_table) { return false; }

int Score_Pool_Search_Discrete(double* s, double* S, int abstain, double* result[3]) {
  const int k = num_labels;
  double* c[3] = {zeroed(k), zeroed(k), zeroed(k)};
  double best = 1.0;
  int best_index = 0;
  for (int e = 0; e < num_experts; ++e) {
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
#else
int Score_Pool_Search(double* D, weight_table W, int abstaining) {
  const int k = num_labels;
  unsigned char** y = data_set->train_labels;
  double best = 1.0;
  int best_index = 0;

  if (!abstaining) {
    if (!rows_filled) fill_weight_rows(D, nullptr, nullptr);
    rows_filled = false;
    winner_expert = -1;
    for (const Scan_Step& step : scan_steps) {
      const int e = step.b;
      text_expert_rec* x = &experts[e];
      if (step.block < 0) {
        // Thresholds and linear experts sweep the shared totals themselves.
        long double score;
        if (x->type == kTypeThreshold)
          // A small sweep costs less than handing it to the threads.
          score = threshold_by_labels(D, x, k, W, static_cast<long>(x->num_train) * k >= kSmallSweep);
        else
          score = Text_Expert_Table_Exp_Loss_Linear(D, x, y, k, W);
        const double s = static_cast<double>(score);
        if (s < best) {
          best = s;
          best_index = e;
        }
        continue;
      }
      scan_term_block(step.b, step.e, step.block, W, &best, &best_index);
    }
    return best_index;
  }

  // Abstaining scan: experts of types it does not score take the score of
  // the expert before them (0 before the first).
  last_scored = -1;
  last_D = D;
  long double previous = 0;
  if (!rows_filled) fill_weight_rows(D, nullptr, nullptr);
  rows_filled = false;
  const size_t two_k = 2 * static_cast<size_t>(k);
  auto take = [&](int j, bool scored, long double score) {
    if (scored) {
      previous = score;
      last_scored = j;
    }
    const double s = static_cast<double>(previous);
    if (s < best) {
      best = s;
      best_index = j;
    }
  };
  const int nsteps = static_cast<int>(scan_steps.size());
  for (int q = 0; q < nsteps;) {
    const Scan_Step& step = scan_steps[q];
    if (step.block >= 0) {
      // Term experts: each distinct list summed and scored once.
      const Term_Block& blk = term_blocks[step.block];
      slot_of = &slot_of_all[step.b];
      sum_block(blk, k);
      pool->Run(blk.nslots, [&](int s0, int s1, int) {
        for (int s = s0; s < s1; ++s) {
          const double* a0 = &sums[s * two_k];
          scores[s] = abstaining_score(a0, a0 + k, k);
        }
      });
      for (int j = step.b; j < step.e; ++j) take(j, true, scores[slot_of[j - step.b]]);
      ++q;
      continue;
    }
    // A run of single experts of other types, thresholds scored in parallel.
    int r = q;
    while (r < nsteps && scan_steps[r].block < 0 && r - q < kBlock) ++r;
    pool->Run(r - q, [&](int j0, int j1, int t) {
      Thread_Table& tt = thread_tables[t];
      for (int j = j0; j < j1; ++j) {
        text_expert_rec* x = &experts[scan_steps[q + j].b];
        if (x->type == kTypeThreshold)
          scores[j] = Text_Expert_Table_Exp_Loss_Threshold_Randomized(D, x, y, k, tt.w);
      }
    });
    for (int j = 0; j < r - q; ++j) {
      const int e = scan_steps[q + j].b;
      take(e, experts[e].type == kTypeThreshold, scores[j]);
    }
    q = r;
  }
  return best_index;
}

bool Score_Pool_Winner_Table(int best, weight_table W) {
  if (best != winner_expert || winner_expert < 0) return false;
  const int k = num_labels;
  // What scoring the expert does to the table: its sums into W[1], and the
  // totals W[0] := max(W[0] - W[1], 0) + W[1], label by label.
  for (int b = 0; b < 2; ++b)
    for (int l = 0; l < k; ++l) {
      W[1][b][l] = winner_sums[static_cast<size_t>(b) * k + l];
      W[2][b][l] = 0.0;
      double v = W[0][b][l] - W[1][b][l];
      if (v < 0) v = 0.0;
      W[0][b][l] = v + W[1][b][l];
    }
  return true;
}

void Score_Pool_Last_Table(weight_table W, int k) {
  for (int r = 1; r < 3; ++r)
    for (int b = 0; b < 2; ++b)
      for (int l = 0; l < k; ++l) W[r][b][l] = 0.0;
  if (last_scored < 0) return;
  // Scoring is deterministic: scoring the last scored expert again leaves
  // the table exactly as the scan left it.
  text_expert_rec* x = &experts[last_scored];
  unsigned char** y = data_set->train_labels;
  if (x->type == kTypeThreshold)
    Text_Expert_Table_Exp_Loss_Threshold_Randomized(last_D, x, y, k, W);
  else
    Text_Expert_Table_Exp_Loss_Randomized(last_D, x, y, k, W);
}

int Score_Pool_Search_Discrete(double* s, double* S, int abstain, double* result[3]) {
  const int k = num_labels;
  double best = 1.0;
  int best_index = 0;
  const int threads = pool->Size();
  const int chunks = kDiscreteChunks * threads;
  // An estimate adds the same 2k terms as the score in another order, so
  // the two differ by less than (2k - 1) DBL_EPSILON times the sum of the
  // terms' magnitudes: far inside this margin.
  const double margin = kDiscreteMargin + 4.0 * k * DBL_EPSILON;
  for (int b = 0, blk = 0; b < num_experts; b += kBlock, ++blk) {
    const int e = b + kBlock < num_experts ? b + kBlock : num_experts;
    const int n = e - b;
    for (int j = 0; j < n; ++j) copy_of[j] = prev_twin[b + j] >= b ? prev_twin[b + j] - b : -1;
    const int* cut = &discrete_cuts[static_cast<size_t>(blk) * (chunks + 1)];
    std::atomic<int> next_chunk{0};
    // Thresholds are scored exactly; the other experts' scores are first
    // estimated, with bounds on how far the exact score can be.
    pool->Run(threads, [&](int, int, int t) {
      Thread_Table& tt = thread_tables[t];
      for (int c; (c = next_chunk.fetch_add(1, std::memory_order_relaxed)) < chunks;) {
        for (int j = cut[c] - b; j < cut[c + 1] - b; ++j) {
          text_expert_rec* x = &experts[b + j];
          if (x->type == kTypeThreshold) {
            scores[j] = abstain ? Text_Expert_PLoss_Threshold_Randomized(s, x, k, S, tt.c[0], tt.c[1], tt.c[2])
                                : Text_Expert_PLoss_Threshold(s, x, k, S, tt.c[0], tt.c[1], tt.c[2]);
          } else if (copy_of[j] < 0) {
            double magnitude;
            const double estimate = Text_Expert_PLoss_Estimate(s, x, k, S, abstain != 0, tt.c[1], &magnitude);
            const double slack = margin * magnitude + 1e-300;
            bound[j] = estimate - slack;
            upper[j] = estimate + slack;
            // Sums out of range give no usable bounds: score such experts.
            if (!(magnitude < 1e300) || !std::isfinite(bound[j]) || !std::isfinite(upper[j])) {
              bound[j] = -HUGE_VAL;
              upper[j] = HUGE_VAL;
            }
          }
        }
      }
    });
    // The winner has the first smallest score. No expert whose score is
    // certainly above the best before this block, or above another
    // expert's score, can be it (nor change which one it is), so only the
    // others get exact scores.
    double limit = best;
    for (int j = 0; j < n; ++j) {
      if (experts[b + j].type == kTypeThreshold) {
        const double sc = static_cast<double>(scores[j]);
        if (sc < limit) limit = sc;
      } else if (copy_of[j] < 0 && upper[j] < limit) {
        limit = upper[j];
      }
    }
    std::vector<int>& cands = candidate_list;
    cands.clear();
    for (int j = 0; j < n; ++j) {
      if (experts[b + j].type == kTypeThreshold) {
        candidate[j] = 1;
      } else if (copy_of[j] >= 0) {
        candidate[j] = candidate[copy_of[j]];
      } else {
        candidate[j] = bound[j] <= limit;
        if (candidate[j]) cands.push_back(j);
      }
    }
    auto score_candidates = [&](int q0, int q1, int t) {
      Thread_Table& tt = thread_tables[t];
      for (int q = q0; q < q1; ++q) {
        const int j = cands[q];
        text_expert_rec* x = &experts[b + j];
        scores[j] = abstain ? Text_Expert_PLoss_Randomized(s, x, k, S, tt.c[0], tt.c[1])
                            : Text_Expert_PLoss(s, x, k, S, tt.c[0], tt.c[1]);
      }
    };
    const int ncand = static_cast<int>(cands.size());
    if (ncand < kFewCandidates)
      score_candidates(0, ncand, 0);
    else
      pool->Run(ncand, score_candidates);
    for (int j = 0; j < n; ++j) {
      if (!candidate[j]) continue;
      if (experts[b + j].type != kTypeThreshold && copy_of[j] >= 0) scores[j] = scores[copy_of[j]];
      const double sc = static_cast<double>(scores[j]);
      if (sc < best) {
        best = sc;
        best_index = b + j;
      }
    }
  }
  // The winner's votes, as its scoring left them.
  for (int r = 0; r < 3; ++r)
    for (int l = 0; l < k; ++l) result[r][l] = 0.0;
  if (best < 1.0) {
    text_expert_rec* x = &experts[best_index];
    if (x->type == kTypeThreshold) {
      if (abstain)
        Text_Expert_PLoss_Threshold_Randomized(s, x, k, S, result[0], result[1], result[2]);
      else
        Text_Expert_PLoss_Threshold(s, x, k, S, result[0], result[1], result[2]);
    } else if (abstain) {
      Text_Expert_PLoss_Randomized(s, x, k, S, result[0], result[1]);
    } else {
      Text_Expert_PLoss(s, x, k, S, result[0], result[1]);
    }
  }
  return best_index;
}
#endif  // MHBOOST_REFERENCE_SCAN
