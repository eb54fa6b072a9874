// The per-round scan over the candidate experts, on several threads, with
// results identical to a single-threaded scan in array order.
//
// Real AdaBoost.MH (not abstaining). Each term expert's per-label sums A
// (the weight of the examples in which it occurs, by label sign) depend
// only on its occurrence list, so they are computed in parallel, once per
// distinct list in a block of experts. The scan's totals T then go through
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
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <immintrin.h>

#include <sys/mman.h>

#include "die.h"
#include "parallel.h"

namespace {

constexpr int kBlock = 8192;
// Threshold sweeps over fewer (example, label) pairs than this run on one
// thread.
constexpr long kSmallSweep = 1 << 16;
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
// The labels of each example as bit masks of 64 labels: bit b of word w of
// example i is set in absent_words when the example lacks label 64w + b, in
// carried_words when it carries it (bits beyond the last label are clear in
// both).
std::vector<uint64_t> absent_words, carried_words;
int mask_words = 0;
// Per round: the weights of the labels an example does not carry.
// Per round: a copy of the weights. Rows are read at random, so the copy
// sits on huge pages where the system offers them, and a row rarely misses
// the TLB.
double* weight_rows = nullptr;
size_t weight_capacity = 0;
// For each expert, the previous expert with an identical training list
// (-1 if none, or if the expert is not a term expert).
std::vector<int> prev_twin;

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
  long prefix_base; // first entry in work_prefix_all (nslots + 1 entries)
};
std::vector<Scan_Step> scan_steps;
std::vector<Term_Block> term_blocks;
std::vector<int> slot_of_all;        // expert -> slot within its block
std::vector<int> slot_expert_all;    // slot -> representative expert
std::vector<long> work_prefix_all;   // per block: slot -> cumulative list length
// The current block's views of the arrays above.
const int* slot_of = nullptr;
// What the sums need of each slot's list, kept apart from the expert records.
struct Slot_List {
  const int* list;
  int length;
  int seg_begin, seg_end;  // band segments (long lists), see seg_first
};
std::vector<Slot_List> slot_list_all;
const Slot_List* slot_list = nullptr;
const long* work_prefix = nullptr;
std::vector<double> sums;        // slot -> 2k sums [A0 | A1]
std::vector<double> bound;       // slot -> lower bound of the score
std::vector<double> state;       // expert in block -> 2k replayed [U0 | U1]
std::vector<uint8_t> candidate;  // expert in block -> needs an exact score
std::vector<long double> scores; // expert in block -> exact score
std::vector<int> copy_of;        // expert in block -> earlier expert with same score, or -1

// The rows and label bytes of a threshold expert's examples in value order.
std::vector<double> sorted_rows;
std::vector<uint8_t> sorted_labels;

// Per-thread working tables for scoring functions called from threads.
struct Thread_Table {
  double* w[3][2];
  double* c[3];
};
std::vector<Thread_Table> thread_tables;

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

void ensure_block_storage(int k) {
  const size_t two_k = 2 * static_cast<size_t>(k);
  sums.resize(kBlock * two_k);
  bound.resize(kBlock);
  state.resize(kBlock * two_k);
  candidate.resize(kBlock);
  scores.resize(kBlock);
  copy_of.resize(kBlock);
}

// Adds the weight rows of `list` into a0 (labels the example does not
// carry) and a1 (labels it carries), lane by lane in list order, exactly as
// the sequential scoring adds each weight into the sum of its sign. The
// vector version adds under the label masks: a lane that is masked off is
// left untouched, so both versions give the same bits.
void add_split_plain(double* __restrict a0, double* __restrict a1, const double* __restrict rows,
                     const int* __restrict list, int n, int /*avail*/, int k, bool fresh) {
  if (fresh)
    for (int l = 0; l < k; ++l) a0[l] = a1[l] = 0.0;
  const uint8_t* y = label_rows.data();
  for (int j = 0; j < n; ++j) {
    const size_t i = static_cast<size_t>(list[j]);
    const double* row = rows + i * k;
    const uint8_t* yr = y + i * k;
    for (int l = 0; l < k; ++l) {
      if (yr[l])
        a1[l] += row[l];
      else
        a0[l] += row[l];
    }
  }
}

// One pass over up to 8 * V lanes starting at lane c (a multiple of 8).
// Both sums of each lane stay in registers: a row is loaded once and added
// into the absent sums under the example's absent-label mask and into the
// carried sums under the complementary mask. A masked-off lane keeps its
// value, so every lane of each sum receives exactly the adds of the plain
// loop, in the same order.
template <int V>
__attribute__((target("avx512f"), always_inline)) inline void add_split_avx512_pass(
    double* __restrict a0, double* __restrict a1, const double* __restrict rows,
    const uint64_t* __restrict absent, const uint64_t* __restrict carried, int groups,
    const int* __restrict list, int n, int avail,
    int k, int c, int c1, bool fresh) {
  __mmask8 lanes[V];
  __m512d s0[V], s1[V];
#pragma GCC unroll 16
  for (int v = 0; v < V; ++v) {
    const int left = c1 - (c + 8 * v);
    lanes[v] = left >= 8 ? 0xFF : left <= 0 ? 0 : static_cast<__mmask8>((1u << left) - 1);
    s0[v] = fresh ? _mm512_setzero_pd() : _mm512_maskz_loadu_pd(lanes[v], a0 + c + 8 * v);
    s1[v] = fresh ? _mm512_setzero_pd() : _mm512_maskz_loadu_pd(lanes[v], a1 + c + 8 * v);
  }
  const int w = c / 64;
  for (int j = 0; j < n; ++j) {
    const size_t i = static_cast<size_t>(list[j]);
    if (j + 8 < avail) {
      // Rows are scattered: ask for the row a few occurrences ahead.
      const char* ahead = reinterpret_cast<const char*>(rows + static_cast<size_t>(list[j + 8]) * k + c);
      for (int line = 0; line < V * 64; line += 64) _mm_prefetch(ahead + line, _MM_HINT_T0);
    }
    const double* row = rows + i * k;
    const uint64_t am = absent[i * groups + w];
    const uint64_t pm = carried[i * groups + w];
#pragma GCC unroll 16
    for (int v = 0; v < V; ++v) {
      const __m512d r = _mm512_maskz_loadu_pd(lanes[v], row + c + 8 * v);
      const __mmask8 neg = static_cast<__mmask8>(am >> (8 * v));
      const __mmask8 pos = static_cast<__mmask8>(pm >> (8 * v));
      s0[v] = _mm512_mask_add_pd(s0[v], neg, s0[v], r);
      s1[v] = _mm512_mask_add_pd(s1[v], pos, s1[v], r);
    }
  }
#pragma GCC unroll 16
  for (int v = 0; v < V; ++v) {
    _mm512_mask_storeu_pd(a0 + c + 8 * v, lanes[v], s0[v]);
    _mm512_mask_storeu_pd(a1 + c + 8 * v, lanes[v], s1[v]);
  }
}

__attribute__((target("avx512f"))) void add_split_avx512(double* __restrict a0,
                                                        double* __restrict a1,
                                                        const double* __restrict rows,
                                                        const int* __restrict list, int n,
                                                        int avail, int k, bool fresh) {
  const uint64_t* absent = absent_words.data();
  const uint64_t* carried = carried_words.data();
  // Passes of at most 64 lanes, each with exactly as many vectors as it
  // has groups of eight lanes.
  for (int c = 0; c < k; c += 64) {
    const int end = k - c <= 64 ? k : c + 64;
    switch ((end - c + 7) / 8) {
#define MHB_PASS(V) \
  case V:           \
    add_split_avx512_pass<V>(a0, a1, rows, absent, carried, mask_words, list, n, avail, k, c, end, \
                             fresh);                                                             \
    break;
      MHB_PASS(1) MHB_PASS(2) MHB_PASS(3) MHB_PASS(4) MHB_PASS(5) MHB_PASS(6) MHB_PASS(7)
      MHB_PASS(8)
#undef MHB_PASS
    }
  }
}

// fresh: the sums start from zero rather than from what a0/a1 hold.
using add_split_fn = void (*)(double* __restrict, double* __restrict, const double* __restrict,
                              const int* __restrict, int, int, int, bool);
add_split_fn add_split = add_split_plain;

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

using bound_and_moved_fn = double (*)(const double* __restrict, const double* __restrict,
                                      const double* __restrict, int, uint8_t* __restrict);
bound_and_moved_fn bound_and_moved = bound_and_moved_plain;

int forced_kernel = -1;

void choose_kernels() {
  __builtin_cpu_init();
  const bool has512 = __builtin_cpu_supports("avx512f") && forced_kernel != 0 && forced_kernel != 1;
  add_split = has512 ? add_split_avx512 : add_split_plain;
  replay = has512 ? replay_avx512 : replay_plain;
  bound_and_moved = has512 ? bound_and_moved_avx512 : bound_and_moved_plain;
}

// A0/A1: the expert's weight by label sign, summed in list order exactly as
// the sequential scoring does.
// Lists at least this long are summed a band of rows at a time, all of a
// thread's long lists together, so that a band read once from memory
// serves every list that has entries in it. Each list still adds its rows
// in its own order, band after band.
constexpr int kLongList = 48;
constexpr int kBandRows = 1024;

// Where each long list crosses into a new band of rows, found once at
// start-up: the segments of expert e are seg_band/seg_pos[seg_first[e] ..
// seg_first[e + 1]) for a long list (empty otherwise); segment q covers list
// positions seg_pos[q] up to the next segment's start, or the list's end.
std::vector<int> seg_first;
std::vector<int> seg_band;
std::vector<int> seg_pos;

void find_band_segments() {
  seg_first.assign(static_cast<size_t>(num_experts) + 1, 0);
  seg_band.clear();
  seg_pos.clear();
  for (int e = 0; e < num_experts; ++e) {
    seg_first[e] = static_cast<int>(seg_band.size());
    const text_expert_rec& x = experts[e];
    if (x.type != kTypeFgram || x.num_train < kLongList || prev_twin[e] >= 0) continue;
    int last = -1;
    for (int j = 0; j < x.num_train; ++j) {
      const int band = x.train_index[j] / kBandRows;
      if (band != last) {
        seg_band.push_back(band);
        seg_pos.push_back(j);
        last = band;
      }
    }
  }
  seg_first[num_experts] = static_cast<int>(seg_band.size());
}

// One list, or one band's segment of a long list, to add into a slot's sums;
// its row indices are copied to `flat` at `offset`, so that the kernel can
// fetch rows ahead across the ends of pieces.
struct Piece {
  int slot, offset, length;
};

// Sums A0/A1 of slots [s0, s1).
void sum_slots(int s0, int s1, int k) {
  const size_t two_k = 2 * static_cast<size_t>(k);
  thread_local std::vector<int> flat;
  thread_local std::vector<Piece> pieces;
  thread_local std::vector<int> longs;
  flat.clear();
  pieces.clear();
  longs.clear();
  size_t long_pieces = 0;
  for (int s = s0; s < s1; ++s) {
    const Slot_List& sl = slot_list[s];
    if (sl.seg_end > sl.seg_begin) {
      double* a0 = &sums[s * two_k];
      for (size_t c = 0; c < two_k; ++c) a0[c] = 0.0;
      longs.push_back(s);
      long_pieces += sl.seg_end - sl.seg_begin;
    } else {
      // A short list is one piece: its sums start from zero in the kernel.
      pieces.push_back(Piece{s, static_cast<int>(flat.size()), sl.length});
      flat.insert(flat.end(), sl.list, sl.list + sl.length);
    }
  }
  if (!longs.empty()) {
    // The segments of all long lists ordered by band (each list's segments
    // keep their order), so that a band of rows read once serves them all.
    const int nbands = (data_set->num_train + kBandRows - 1) / kBandRows;
    thread_local std::vector<int> start;
    thread_local std::vector<Piece> by_band;
    start.assign(nbands + 1, 0);
    for (int s : longs)
      for (int q = slot_list[s].seg_begin; q < slot_list[s].seg_end; ++q) ++start[seg_band[q] + 1];
    for (int b = 0; b < nbands; ++b) start[b + 1] += start[b];
    by_band.resize(long_pieces);
    for (int s : longs) {
      const Slot_List& sl = slot_list[s];
      const int last = sl.seg_end - 1;
      for (int q = sl.seg_begin; q <= last; ++q) {
        const int end = q < last ? seg_pos[q + 1] : sl.length;
        // offset holds the list position until the copy below.
        by_band[start[seg_band[q]]++] = Piece{s, seg_pos[q], end - seg_pos[q]};
      }
    }
    for (Piece p : by_band) {
      const int* list = slot_list[p.slot].list + p.offset;
      p.offset = static_cast<int>(flat.size());
      pieces.push_back(p);
      flat.insert(flat.end(), list, list + p.length);
    }
  }
  const int total = static_cast<int>(flat.size());
  const size_t shorts = pieces.size() - long_pieces;
  for (size_t q = 0; q < pieces.size(); ++q) {
    const Piece& p = pieces[q];
    double* a0 = &sums[p.slot * two_k];
    add_split(a0, a0 + k, weight_rows, flat.data() + p.offset, p.length, total - p.offset, k,
              q < shorts);
  }
}

// The weights of the current round, copied next to their label masks.
[[maybe_unused]] void fill_weight_rows(const double* D) {
  const size_t mk = static_cast<size_t>(data_set->num_train) * num_labels;
  if (weight_capacity < mk) {
    free(weight_rows);
    constexpr size_t kHuge = size_t{2} << 20;
    const size_t bytes = ((mk * sizeof(double)) + kHuge - 1) / kHuge * kHuge;
    weight_rows = static_cast<double*>(aligned_alloc(kHuge, bytes));
    if (weight_rows == nullptr) {
      perror("Malloc");
      Exit_Run(1);
    }
    madvise(weight_rows, bytes, MADV_HUGEPAGE);
    weight_capacity = mk;
  }
  pool->Run(pool->Size(), [&](int t0, int t1, int) {
    const size_t threads = static_cast<size_t>(pool->Size());
    const size_t lo = mk * static_cast<size_t>(t0) / threads, hi = mk * static_cast<size_t>(t1) / threads;
    memcpy(weight_rows + lo, D + lo, sizeof(double) * (hi - lo));
  });
}

// Lays out the scan's steps, blocks and slots (see Scan_Step).
void lay_out_blocks() {
  scan_steps.clear();
  term_blocks.clear();
  slot_of_all.assign(num_experts, 0);
  slot_expert_all.clear();
  slot_list_all.clear();
  work_prefix_all.clear();
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
                   static_cast<long>(work_prefix_all.size())};
    for (int j = e; j < end; ++j) {
      const int twin = prev_twin[j];
      if (twin >= e) {
        slot_of_all[j] = slot_of_all[twin];
      } else {
        slot_of_all[j] = blk.nslots++;
        slot_expert_all.push_back(j);
        slot_list_all.push_back(
            Slot_List{experts[j].train_index, experts[j].num_train, seg_first[j], seg_first[j + 1]});
      }
    }
    long work = 0;
    work_prefix_all.push_back(0);
    for (int q = 0; q < blk.nslots; ++q) {
      work += experts[slot_expert_all[blk.slot_base + q]].num_train + 1;
      work_prefix_all.push_back(work);
    }
    scan_steps.push_back(Scan_Step{e, end, static_cast<int>(term_blocks.size())});
    term_blocks.push_back(blk);
    e = end;
  }
}

// Runs fn(s0, s1) over slots [0, nslots) split into one range per thread
// with about the same number of occurrences each.
template <typename Fn>
void for_slot_ranges(int nslots, const Fn& fn) {
  const int threads = pool->Size();
  const long total = work_prefix[nslots];
  pool->Run(threads, [&](int t0, int t1, int) {
    for (int t = t0; t < t1; ++t) {
      const long lo = total * t / threads, hi = total * (t + 1) / threads;
      // First slot whose work starts at or after lo.
      int s0 = static_cast<int>(std::lower_bound(work_prefix, work_prefix + nslots, lo) - work_prefix);
      int s1 = static_cast<int>(std::lower_bound(work_prefix, work_prefix + nslots, hi) - work_prefix);
      if (t == threads - 1) s1 = nslots;
      if (s0 < s1) fn(s0, s1);
    }
  });
}

// Scores the term experts [b, e) of the non-abstaining scan (weights from
// fill_weight_rows) against the
// totals T (W[0]), updating best / best_index in array order.
// The threshold sweep of the real AdaBoost.MH scan, on all threads. Every
// label's totals and region sums go through the sweep on their own, so the
// labels are split among the threads, each doing exactly the sequential
// sweep's operations for its labels; the per-label terms of every candidate
// position are kept and summed in label order afterwards, as the sequential
// sweep sums them.
[[maybe_unused]] long double threshold_by_labels(const double* D, text_expert_rec* e, int k,
                                                 weight_table W) {
  const int n = e->num_train;
  const double* v = e->sorted_values;
  const int* order = e->sorted_index;
  std::vector<int> cand;
  for (int p = -1; p < n; ++p)
    if (p == -1 || p == n - 1 || v[p + 1] != v[p]) cand.push_back(p);
  const size_t nc = cand.size();
  std::vector<double> terms(nc * k);
  // The rows in value order, gathered once on all threads so that the
  // label sweeps below read them one after the other.
  const size_t ku = static_cast<size_t>(k);
  const size_t w = ku;
  if (sorted_rows.size() < static_cast<size_t>(n) * ku) {
    sorted_rows.resize(static_cast<size_t>(n) * ku);
    sorted_labels.resize(static_cast<size_t>(n) * ku);
  }
  pool->Run(n, [&](int j0, int j1, int) {
    for (int j = j0; j < j1; ++j) {
      if (j + 8 < j1) {
        const char* ahead = reinterpret_cast<const char*>(D + static_cast<size_t>(order[j + 8]) * ku);
        for (size_t q = 0; q < ku * sizeof(double); q += 64) _mm_prefetch(ahead + q, _MM_HINT_T0);
      }
      const size_t i = static_cast<size_t>(order[j]);
      memcpy(&sorted_rows[j * ku], D + i * ku, sizeof(double) * ku);
      memcpy(&sorted_labels[j * ku], &label_rows[i * ku], ku);
    }
  });
  const double* rows = sorted_rows.data();
  const uint8_t* ys = sorted_labels.data();
  pool->Run(k, [&](int l0, int l1, int) {
    double* t0 = W[0][0];
    double* t1 = W[0][1];
    double *a0 = W[1][0], *a1 = W[1][1], *b0 = W[2][0], *b1 = W[2][1];
    for (int l = l0; l < l1; ++l) a0[l] = a1[l] = b0[l] = b1[l] = 0.0;
    for (int j = 0; j < n; ++j) {
      const double* row = &rows[j * w];
      const uint8_t* yi = &ys[j * w];
      for (int l = l0; l < l1; ++l) {
        b1[l] += yi[l] ? row[l] : 0.0;
        b0[l] += yi[l] ? 0.0 : row[l];
      }
    }
    size_t ci = 0;
    for (int p = -1; p < n; ++p) {
      if (p >= 0) {
        const double* row = &rows[p * w];
        const uint8_t* yi = &ys[p * w];
        for (int l = l0; l < l1; ++l) {
          const double d = row[l];
          const uint8_t y = yi[l];
          a1[l] += y ? d : 0.0;
          a0[l] += y ? 0.0 : d;
          b1[l] -= y ? d : 0.0;
          b0[l] -= y ? 0.0 : d;
        }
      }
      if (ci >= nc || cand[ci] != p) continue;
      double* out = &terms[ci * k];
      for (int l = l0; l < l1; ++l) {
        double u0 = (t0[l] - a0[l]) - b0[l];
        double u1 = (t1[l] - a1[l]) - b1[l];
        if (u0 < 0) u0 = 0.0;
        if (u1 < 0) u1 = 0.0;
        if (b0[l] < 0) b0[l] = 0.0;
        if (b1[l] < 0) b1[l] = 0.0;
        out[l] = sqrt(u0 * u1) + sqrt(a0[l] * a1[l]) + sqrt(b0[l] * b1[l]);
        t0[l] = (u0 + a0[l]) + b0[l];
        t1[l] = (u1 + a1[l]) + b1[l];
      }
      ++ci;
    }
  });
  // Each candidate's terms summed in label order (candidates in parallel),
  // then the first smallest score in position order.
  std::vector<long double> score(nc);
  pool->Run(static_cast<int>(nc), [&](int c0, int c1, int) {
    for (int ci = c0; ci < c1; ++ci) {
      long double sum = 0;
      for (int l = 0; l < k; ++l) sum += terms[static_cast<size_t>(ci) * k + l];
      score[ci] = sum;
    }
  });
  long double best = DBL_MAX;
  int best_p = -1;
  for (size_t ci = 0; ci < nc; ++ci) {
    if (score[ci] < best) {
      best = score[ci];
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
  slot_list = &slot_list_all[blk.slot_base];
  work_prefix = &work_prefix_all[blk.prefix_base];
  const int nslots = blk.nslots;
  for_slot_ranges(nslots, [&](int s0, int s1) { sum_slots(s0, s1, k); });

  // The totals at the start of the block, as one 2k-vector [T0 | T1].
  std::vector<double> totals(two_k);
  memcpy(totals.data(), t0, sizeof(double) * k);
  memcpy(totals.data() + k, t1, sizeof(double) * k);

  // Bounds, and the lanes that any slot of the block would move: a lane
  // where max(T - A, 0) + A gives back T for every slot keeps its total
  // through the whole block, so only the other lanes need the replay.
  const int lane_groups = static_cast<int>((two_k + 7) / 8);
  std::vector<uint8_t> moved(static_cast<size_t>(pool->Size()) * lane_groups, 0);
  std::vector<double> r(two_k);
  memcpy(r.data(), r0.data(), sizeof(double) * k);
  memcpy(r.data() + k, r1.data(), sizeof(double) * k);
  pool->Run(nslots, [&](int s0, int s1, int thread) {
    uint8_t* mv = &moved[static_cast<size_t>(thread) * lane_groups];
    for (int s = s0; s < s1; ++s)
      bound[s] = g_total - bound_and_moved(&sums[s * two_k], r.data(), totals.data(),
                                           static_cast<int>(two_k), mv);
  });
  for (int t = 1; t < pool->Size(); ++t)
    for (int g = 0; g < lane_groups; ++g) moved[g] |= moved[static_cast<size_t>(t) * lane_groups + g];
  std::vector<int> busy;
  for (int g = 0; g < lane_groups; ++g)
    if (moved[g]) busy.push_back(g);

  const int n = e - b;
  for (int j = 0; j < n; ++j)
    candidate[j] = limit == HUGE_VAL || bound[slot_of[j]] < limit;

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
    pool->Run(n, [&](int j0, int j1, int) {
      for (int j = j0; j < j1; ++j) {
        if (!candidate[j]) continue;
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
  pool->Run(n, [&](int j0, int j1, int) {
    for (int j = j0; j < j1; ++j) {
      copy_of[j] = -1;
      if (!candidate[j]) continue;
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

  for (int j = 0; j < n; ++j) {
    if (!candidate[j]) continue;
    if (copy_of[j] >= 0) scores[j] = scores[copy_of[j]];
    const double s = static_cast<double>(scores[j]);
    if (s < *best) {
      *best = s;
      *best_index = b + j;
    }
  }
}

}  // namespace

void Score_Pool_Totals(const double* D, weight_table W) {
  const int k = num_labels;
  for (int l = 0; l < k; ++l) {
    W[0][0][l] = 0.0;
    W[0][1][l] = 0.0;
  }
  // Each label's totals are summed over the examples in order on their own,
  // so the labels are split among the threads.
  const size_t m = static_cast<size_t>(data_set->num_train);
  const size_t ku = static_cast<size_t>(k);
  const uint8_t* y = label_rows.data();
  Run_Parallel(k, [&](int l0, int l1, int) {
    double* t0 = W[0][0];
    double* t1 = W[0][1];
    for (size_t i = 0; i < m; ++i) {
      const double* row = D + i * ku;
      const uint8_t* yr = y + i * ku;
      for (int l = l0; l < l1; ++l) {
        t1[l] += yr[l] ? row[l] : 0.0;
        t0[l] += yr[l] ? 0.0 : row[l];
      }
    }
  });
}

void Run_Parallel(int n, const std::function<void(int, int, int)>& fn) {
  if (pool != nullptr)
    pool->Run(n, fn);
  else if (n > 0)
    fn(0, n, 0);
}

void Score_Pool_Use_Kernel(int level) {
  forced_kernel = level;
  choose_kernels();
}

void Score_Pool_Init(text_expert_rec* e, example_data* d, int num_threads) {
  experts = e;
  data_set = d;
  num_labels = d->num_classes;
  num_experts = 0;
  while (experts[num_experts].term != nullptr) ++num_experts;
  const int k = num_labels;
  const int m = d->num_train;
  label_rows.assign(static_cast<size_t>(m) * k, 0);
  for (int i = 0; i < m; ++i)
    for (int l = 0; l < k; ++l) label_rows[static_cast<size_t>(i) * k + l] = d->train_labels[i][l] ? 1 : 0;
  mask_words = (k + 63) / 64;
  absent_words.assign(static_cast<size_t>(m) * mask_words, 0);
  carried_words.assign(static_cast<size_t>(m) * mask_words, 0);
  for (int i = 0; i < m; ++i)
    for (int l = 0; l < k; ++l) {
      const uint64_t bit = uint64_t{1} << (l % 64);
      const size_t at = static_cast<size_t>(i) * mask_words + l / 64;
      if (d->train_labels[i][l])
        carried_words[at] |= bit;
      else
        absent_words[at] |= bit;
    }
  find_twins();
  find_band_segments();
  lay_out_blocks();
  ensure_block_storage(k);
  choose_kernels();
  delete pool;
  pool = new Fork_Join_Pool(Resolve_Thread_Count(num_threads));
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
    fill_weight_rows(D);
    for (const Scan_Step& step : scan_steps) {
      const int e = step.b;
      text_expert_rec* x = &experts[e];
      if (step.block < 0) {
        // Thresholds and linear experts sweep the shared totals themselves.
        long double score;
        if (x->type == kTypeThreshold)
          // A small sweep costs less than handing it to the threads.
          score = static_cast<long>(x->num_train) * k < kSmallSweep
                      ? Text_Expert_Table_Exp_Loss_Threshold(D, x, y, k, W)
                      : threshold_by_labels(D, x, k, W);
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
  fill_weight_rows(D);
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
      slot_list = &slot_list_all[blk.slot_base];
      work_prefix = &work_prefix_all[blk.prefix_base];
      for_slot_ranges(blk.nslots, [&](int s0, int s1) { sum_slots(s0, s1, k); });
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
  for (int b = 0; b < num_experts; b += kBlock) {
    const int e = b + kBlock < num_experts ? b + kBlock : num_experts;
    const int n = e - b;
    for (int j = 0; j < n; ++j) copy_of[j] = prev_twin[b + j] >= b ? prev_twin[b + j] - b : -1;
    pool->Run(n, [&](int j0, int j1, int t) {
      Thread_Table& tt = thread_tables[t];
      for (int j = j0; j < j1; ++j) {
        text_expert_rec* x = &experts[b + j];
        if (x->type == kTypeThreshold) {
          scores[j] = abstain ? Text_Expert_PLoss_Threshold_Randomized(s, x, k, S, tt.c[0], tt.c[1], tt.c[2])
                              : Text_Expert_PLoss_Threshold(s, x, k, S, tt.c[0], tt.c[1], tt.c[2]);
        } else if (copy_of[j] < 0) {
          scores[j] = abstain ? Text_Expert_PLoss_Randomized(s, x, k, S, tt.c[0], tt.c[1])
                              : Text_Expert_PLoss(s, x, k, S, tt.c[0], tt.c[1]);
        }
      }
    });
    for (int j = 0; j < n; ++j) {
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
