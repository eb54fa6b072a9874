// Text experts: one candidate rule per distinct key of the training data (a
// term of a text value, a discrete value, or a continuous attribute), each
// with the lists of training and test examples in which its key occurs.
//
// Storage is laid out for scale: a training collection can yield tens of
// millions of keys, so the key table's records come from a chunked arena,
// the expert records from one block, and every occurrence list is carved out
// of a few contiguous pools sized from the document frequencies counted while
// the keys were collected. Lists are placed in expert order, so the weak
// learner's pass over all experts walks each pool front to back.
//
// Producing the keys of a text and looking each one up is the cost of
// creation. While the counting passes run for Create_Ngram_Experts they log,
// per example, the expert index (and value) of every key they find; the
// lists are then filled from the logs instead of producing every key twice.
#include "sgram_expert.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "die.h"
#include "hash.h"
#include "progress.h"
#include "text_util.h"
#include "weak_parm.h"

const char* const Text_Expert_Type_Name[7] = {
    "SGRAM", "NGRAM", "FGRAM", "ANDW", "ORW", "THRESHOLD", "LINEAR"};

namespace {

text_expert_rec* text_expert = nullptr;
int num_labels = 0;
int num_text_experts = 0;
long num_train_occurrences = 0;

// ---- key records ----

// The records of the last collection, in the order their keys were first
// inserted, which is also their expert index.
constexpr int kInfoChunk = 1 << 16;
std::vector<expert_hash_info*> info_chunks;
int info_count = 0;

// Bits of expert_hash_info::spare: the kinds of attribute a key was met
// with in the training set. Only a key met solely through continuous or
// scored-text values carries per-occurrence values.
constexpr int kSeenValued = 1;
constexpr int kSeenPlain = 2;

void reset_infos() {
  // Records of an earlier collection stay with the table that points at them.
  info_chunks.clear();
  info_count = 0;
}

expert_hash_info* info_at(int i) {
  return &info_chunks[static_cast<size_t>(i / kInfoChunk)][i % kInfoChunk];
}

// Expert indices are logged with a two-bit tag above them.
constexpr int kMaxExperts = 1 << 30;

expert_hash_info* new_info() {
  if (info_count == kMaxExperts) {
    fprintf(stderr, "Too many text experts (more than %d keys)\n", kMaxExperts);
    Exit_Run(1);
  }
  if (info_count == static_cast<int>(info_chunks.size()) * kInfoChunk)
    info_chunks.push_back(static_cast<expert_hash_info*>(
        Malloc(sizeof(expert_hash_info) * kInfoChunk)));
  expert_hash_info* info = info_at(info_count);
  info->expert_index = info_count++;
  return info;
}

inline expert_hash_info* info_of(hash_entry* e) {
  return reinterpret_cast<expert_hash_info*>(e->count);
}

// The key of a new entry gets the next record and expert index.
expert_hash_info* insert_key(const char* key, hash_table* table) {
  hash_entry* e = Hash_Insert(key, table);
  if (e->count == 0) e->count = reinterpret_cast<intptr_t>(new_info());
  return info_of(e);
}

// ---- producing the keys of one example ----

enum key_kind { kKeyDiscrete, kKeyContinuous, kKeyText, kKeyScored };

// ---- occurrence logs ----

// Append-only sequence in fixed blocks: no copying as it grows, and no
// doubling of the peak size.
template <class T>
class block_log {
 public:
  void push(T v) {
    if (size_ == blocks_.size() * kBlock)
      blocks_.push_back(static_cast<T*>(Malloc(sizeof(T) * kBlock)));
    blocks_[size_ >> kShift][size_ & (kBlock - 1)] = v;
    ++size_;
  }
  T at(size_t i) const { return blocks_[i >> kShift][i & (kBlock - 1)]; }
  size_t size() const { return size_; }
  void clear() {
    for (T* b : blocks_) free(b);
    blocks_.clear();
    size_ = 0;
  }

 private:
  static constexpr int kShift = 20;
  static constexpr size_t kBlock = size_t{1} << kShift;
  std::vector<T*> blocks_;
  size_t size_ = 0;
};

// The keys found in one set of examples, in the order the lists are filled:
// per key its expert index with the kind in the top two bits, and a value
// for every continuous or scored-text key.
struct occurrence_log {
  block_log<uint32_t> keys;
  block_log<double> values;
  std::vector<size_t> starts;  // per example, its first key; then the end
  void clear() {
    keys.clear();
    values.clear();
    starts.clear();
  }
};

constexpr int kTagShift = 30;
constexpr uint32_t kTagPlain = 0, kTagContinuous = 1, kTagScored = 2;
constexpr uint32_t kIndexMask = (uint32_t{1} << kTagShift) - 1;

// Set by Create_Ngram_Experts around the counting passes; fscore makes the
// passes ask for scores so that scored-text values can be logged.
bool logging = false;
score_combiner log_fscore = nullptr;
occurrence_log train_log;
occurrence_log test_log;

void log_key(occurrence_log& log, const expert_hash_info* info, key_kind kind, double v) {
  uint32_t tag = kind == kKeyContinuous ? kTagContinuous
                 : kind == kKeyScored   ? kTagScored
                                        : kTagPlain;
  log.keys.push(static_cast<uint32_t>(info->expert_index) | (tag << kTagShift));
  if (tag != kTagPlain) log.values.push(v);
}

inline bool is_valued(key_kind k) { return k == kKeyContinuous || k == kKeyScored; }

struct key_source {
  term_expander expand;
  int window;
  dataset_info* names;
  score_combiner fscore;  // null: the terms are produced without scores
};

// Reused across calls: the key being built and the score array handed to the
// enumerator (one entry per word of the longest term, plus the null).
std::string key_buf;
std::vector<char*> score_buf;

const char* attribute_key(const char* name, const char* tail) {
  key_buf.assign(name);
  key_buf.push_back(':');
  key_buf.append(tail);
  return key_buf.c_str();
}

// Calls f(key, kind, value) for every key of example x, attribute by
// attribute, as expert creation and test indexing see them. With
// class_first_pass, only a continuous first attribute gives its key (missing
// or not), alongside the discrete and text keys: the one-class collection
// numbers its keys this way.
template <class F>
void for_each_key(example* x, const key_source& src, bool class_first_pass, F&& f) {
  dataset_info* names = src.names;
  const bool prefix = names->num_attributes > 1;
  const bool sparse = src.expand == Next_Sparse_Ngram;
  for (int j = 0; j < names->num_attributes; ++j) {
    const attribute_info& a = names->attributes[j];
    const int nv = a.num_values;
    if (class_first_pass && nv == kContinuous) {
      if (j == 0) f(attribute_key(a.name, ""), kKeyContinuous, 0.0);
      continue;
    }
    if (x->is_unknown[j]) continue;
    if (nv > 0) {
      char digits[24];
      itostr(static_cast<int>(x->values[j].index), digits);
      f(attribute_key(a.name, digits), kKeyDiscrete, 0.0);
    } else if (nv == kContinuous) {
      f(attribute_key(a.name, ""), kKeyContinuous, x->values[j].real);
    } else if (nv == kText || nv == kScoredText) {
      char* value = x->values[j].text;
      if (value == nullptr) continue;
      const bool scored = nv == kScoredText;
      const bool want = scored && src.fscore != nullptr;
      char** scores = nullptr;
      if (want) {
        // A sparse window always has W positions (the enumerator refuses
        // windows of more than 62); a contiguous term has at most
        // min(W, words of the text) words.
        const size_t w = static_cast<size_t>(src.window);
        const size_t words = strlen(value) / 2 + 1;
        const size_t need = (sparse ? std::min<size_t>(w, 64) : std::min(w, words)) + 1;
        if (score_buf.size() < need) score_buf.resize(need);
        scores = score_buf.data();
        scores[0] = nullptr;
      }
      // Contiguous scored terms and their scores are fresh allocations that
      // belong to us; sparse ones live in the enumerator's buffers.
      const bool owned = scored && !sparse;
      const key_kind kind = scored ? kKeyScored : kKeyText;
      for (char* term; (term = src.expand(value, src.window, nv, scores, want)) != nullptr;) {
        double v = want ? static_cast<double>(src.fscore(scores)) : 0.0;
        f(prefix ? attribute_key(a.name, term) : term, kind, v);
        if (owned) {
          free(term);
          if (want) {
            for (char** s = scores; *s != nullptr; ++s) free(*s);
            scores[0] = nullptr;
          }
        }
      }
    }
    // ignore and set kinds give no keys
  }
}

// Counts one training occurrence of a key found or inserted for stamp.
inline void count_train(expert_hash_info* info, int stamp, key_kind kind) {
  if (info->last_example != stamp) {
    info->last_example = stamp;
    info->num_train_docs++;
  }
  info->spare |= is_valued(kind) ? kSeenValued : kSeenPlain;
}

// ---- records ----

// Scalar fields of one record; its lists were carved beforehand.
void Allocate_Ngram_Expert(char* key, intptr_t count) {
  expert_hash_info* info = reinterpret_cast<expert_hash_info*>(count);
  text_expert_rec* r = &text_expert[info->expert_index];
  r->term = key;
  r->type = kTypeFgram;
  r->num_train = 0;
  r->num_test = 0;
  r->threshold = 0;
  r->list_id = info->expert_index;
  info->last_example = -1;
}

// One block per list kind; each expert's lists are consecutive slices in
// expert order. Keys without values get no value storage at all.
void carve_lists(int n) {
  size_t train = 0, test = 0, vtrain = 0, vtest = 0;
  for (int i = 0; i < n; ++i) {
    const expert_hash_info* info = info_at(i);
    train += static_cast<size_t>(info->num_train_docs);
    test += static_cast<size_t>(info->num_test_docs);
    if (info->spare == kSeenValued) {
      vtrain += static_cast<size_t>(info->num_train_docs);
      vtest += static_cast<size_t>(info->num_test_docs);
    }
  }
  int* train_index = static_cast<int*>(Malloc(sizeof(int) * train));
  int* train_count = static_cast<int*>(Malloc(sizeof(int) * train));
  int* test_index = static_cast<int*>(Malloc(sizeof(int) * test));
  int* test_count = static_cast<int*>(Malloc(sizeof(int) * test));
  double* values = static_cast<double*>(Malloc(sizeof(double) * vtrain));
  double* sorted_values = static_cast<double*>(Malloc(sizeof(double) * vtrain));
  int* sorted_index = static_cast<int*>(Malloc(sizeof(int) * vtrain));
  double* test_values = static_cast<double*>(Malloc(sizeof(double) * vtest));
  for (int i = 0; i < n; ++i) {
    const expert_hash_info* info = info_at(i);
    text_expert_rec* r = &text_expert[i];
    r->train_index = train_index;
    r->train_count = train_count;
    r->test_index = test_index;
    r->test_count = test_count;
    train_index += info->num_train_docs;
    train_count += info->num_train_docs;
    test_index += info->num_test_docs;
    test_count += info->num_test_docs;
    if (info->spare == kSeenValued) {
      r->values = values;
      r->sorted_values = sorted_values;
      r->sorted_index = sorted_index;
      r->test_values = test_values;
      values += info->num_train_docs;
      sorted_values += info->num_train_docs;
      sorted_index += info->num_train_docs;
      test_values += info->num_test_docs;
    }
  }
}

inline void swap3(double* keys, int* a, int* b, int i, int j) {
  double k = keys[i];
  keys[i] = keys[j];
  keys[j] = k;
  int t = a[i];
  a[i] = a[j];
  a[j] = t;
  t = b[i];
  b[i] = b[j];
  b[j] = t;
}

}  // namespace

hash_table* Hash_Ngram_Experts(example_data* data, term_expander expand, int W,
                               int* num_experts, dataset_info* names) {
  hash_table* table = Init_Hash();
  reset_infos();
  key_source src{expand, W, names, logging ? log_fscore : nullptr};
  for (int e = 0; e < data->num_train; ++e) {
    const int stamp = e + 1;
    if ((e & 255) == 0) Progress_Update("collecting rules", info_count, "rules");
    if (logging) train_log.starts.push_back(train_log.keys.size());
    for_each_key(data->train_examples[e], src, false,
                 [&](const char* key, key_kind kind, double v) {
                   expert_hash_info* info = insert_key(key, table);
                   count_train(info, stamp, kind);
                   if (logging) log_key(train_log, info, kind, v);
                 });
  }
  if (logging) train_log.starts.push_back(train_log.keys.size());
  Progress_Done();
  *num_experts = info_count;
  Index_Test_Instances(table, data, expand, W, names);
  return table;
}

hash_table* Hash_Ngram_Experts_Class(example_data* data, term_expander expand,
                                     int W, int* num_experts, int class_index,
                                     dataset_info* names) {
  hash_table* table = Init_Hash();
  reset_infos();
  key_source src{expand, W, names, nullptr};
  // The experts are the keys of the class's examples...
  if (class_index >= 0 && class_index < data->num_classes) {
    for (int e = 0; e < data->num_train; ++e) {
      example* x = data->train_examples[e];
      if (!x->labels[class_index]) continue;
      for_each_key(x, src, true, [&](const char* key, key_kind, double) {
        insert_key(key, table);
      });
    }
  }
  // ...but their document frequencies cover the whole training set.
  src.fscore = logging ? log_fscore : nullptr;
  for (int e = 0; e < data->num_train; ++e) {
    const int stamp = e + 1;
    if ((e & 255) == 0) Progress_Update("collecting rules", info_count, "rules");
    if (logging) train_log.starts.push_back(train_log.keys.size());
    for_each_key(data->train_examples[e], src, false,
                 [&](const char* key, key_kind kind, double v) {
                   hash_entry* h = Hash_Find(key, table);
                   if (h == nullptr) return;
                   count_train(info_of(h), stamp, kind);
                   if (logging) log_key(train_log, info_of(h), kind, v);
                 });
  }
  if (logging) train_log.starts.push_back(train_log.keys.size());
  Progress_Done();
  *num_experts = info_count;
  Index_Test_Instances(table, data, expand, W, names);
  return table;
}

void Index_Test_Instances(hash_table* table, example_data* data,
                          term_expander expand, int W, dataset_info* names) {
  key_source src{expand, W, names, logging ? log_fscore : nullptr};
  for (int t = 0; t < data->num_test; ++t) {
    // Past every training stamp.
    const int stamp = t + data->num_train + 1;
    if (logging) test_log.starts.push_back(test_log.keys.size());
    for_each_key(data->test_examples[t], src, false,
                 [&](const char* key, key_kind kind, double v) {
                   hash_entry* h = Hash_Find(key, table);
                   if (h == nullptr) return;
                   expert_hash_info* info = info_of(h);
                   if (info->last_example != stamp) {
                     info->last_example = stamp;
                     info->num_test_docs++;
                   }
                   if (logging) log_key(test_log, info, kind, v);
                 });
  }
  if (logging) test_log.starts.push_back(test_log.keys.size());
}

text_expert_rec* Create_Ngram_Experts(example_data* data, term_expander expand,
                                      dataset_info* names,
                                      text_expert_info* info) {
  const int W = info->window;
  if (W < 1) {
    fprintf(stderr, "Illegal window length (%d): -W must be at least 1\n", W);
    Exit_Run(1);
  }
  num_labels = data->num_classes;

  int n = 0;
  train_log.clear();
  test_log.clear();
  logging = true;
  log_fscore = info->fscore != nullptr ? info->fscore : adds;
  hash_table* table =
      info->class_index >= 0
          ? Hash_Ngram_Experts_Class(data, expand, W, &n, info->class_index, names)
          : Hash_Ngram_Experts(data, expand, W, &n, names);
  logging = false;

  text_expert = static_cast<text_expert_rec*>(
      Malloc(sizeof(text_expert_rec) * (static_cast<size_t>(n) + 1)));
  carve_lists(n);
  Apply_To_Hash(Allocate_Ngram_Expert, table);
  text_expert[n].term = nullptr;

  pair_combiner fmultiple = info->fmultiple != nullptr ? info->fmultiple : max;
  const int valued_type = info->flag_L ? kTypeLinear : kTypeThreshold;

  // Training lists, from the keys logged in example order. An example's
  // entry is the last one of the list while that example is being filled,
  // so a recurring key is recognised there. Keys without values had no
  // value storage carved: their value arrays are null.
  size_t vi = 0;
  for (int e = 0; e < data->num_train; ++e) {
    for (size_t k = train_log.starts[static_cast<size_t>(e)];
         k < train_log.starts[static_cast<size_t>(e) + 1]; ++k) {
      const uint32_t code = train_log.keys.at(k);
      const uint32_t tag = code >> kTagShift;
      const double v = tag != kTagPlain ? train_log.values.at(vi++) : 0.0;
      text_expert_rec* r = &text_expert[code & kIndexMask];
      const int last = r->num_train - 1;
      if (last >= 0 && r->train_index[last] == e) {
        // The key recurs in this example: one entry, counted up.
        r->train_count[last]++;
        if (tag == kTagScored && r->values != nullptr) {
          double c = fmultiple(r->values[last], v);
          r->values[last] = c;
          r->sorted_values[last] = c;
        }
      } else {
        const int pos = r->num_train++;
        r->train_index[pos] = e;
        r->train_count[pos] = 1;
        if (r->values != nullptr && tag != kTagPlain) {
          r->values[pos] = v;
          r->sorted_values[pos] = v;
          r->sorted_index[pos] = e;
        }
      }
      if (r->values != nullptr && tag != kTagPlain) r->type = valued_type;
    }
  }

  // Test lists, numbered after the training examples.
  vi = 0;
  for (int t = 0; t < data->num_test; ++t) {
    const int stamp = t + data->num_train;
    for (size_t k = test_log.starts[static_cast<size_t>(t)];
         k < test_log.starts[static_cast<size_t>(t) + 1]; ++k) {
      const uint32_t code = test_log.keys.at(k);
      const uint32_t tag = code >> kTagShift;
      const double v = tag != kTagPlain ? test_log.values.at(vi++) : 0.0;
      text_expert_rec* r = &text_expert[code & kIndexMask];
      const int last = r->num_test - 1;
      if (last >= 0 && r->test_index[last] == stamp) {
        r->test_count[last]++;
        if (tag == kTagScored && r->test_values != nullptr)
          r->test_values[last] = fmultiple(r->test_values[last], v);
      } else {
        const int pos = r->num_test++;
        r->test_index[pos] = stamp;
        r->test_count[pos] = 1;
        if (r->test_values != nullptr && tag != kTagPlain) r->test_values[pos] = v;
      }
    }
  }
  train_log.clear();
  test_log.clear();

  // train_count travels with the sorted values; train_index and values stay
  // in example order.
  long occurrences = 0;
  for (int i = 0; i < n; ++i) {
    text_expert_rec* r = &text_expert[i];
    occurrences += r->num_train;
    if (r->values != nullptr)
      rsort(r->sorted_values, r->sorted_index, r->train_count, r->num_train);
  }
  num_text_experts = n;
  num_train_occurrences = occurrences;
  return text_expert;
}

void rsort(double* keys, int* a, int* b, int n) {
  // The right part is sorted by the loop instead of a second call, which
  // keeps the order of random() draws: left part first, then right.
  while (n >= 2) {
    int p = static_cast<int>(random() % n);
    swap3(keys, a, b, 0, p);
    const double pivot = keys[0];
    int i = 0;
    // Keys equal to the pivot go alternately to the front and the back, so
    // that long runs of equal values still split in the middle.
    int flag = 1;
    for (int j = 0; j < n; ++j) {
      bool front;
      if (keys[j] < pivot) {
        front = true;
      } else if (keys[j] == pivot) {
        flag = !flag;
        front = flag != 0;
      } else {
        front = false;
      }
      if (front) {
        ++i;
        if (i < j) swap3(keys, a, b, i, j);
      }
    }
    swap3(keys, a, b, 0, i);
    rsort(keys, a, b, i);
    keys += i + 1;
    a += i + 1;
    b += i + 1;
    n -= i + 1;
  }
}

text_expert_rec* Copy_Text_Expert(const text_expert_rec* expert, int labels) {
  text_expert_rec* r = static_cast<text_expert_rec*>(Malloc(sizeof(text_expert_rec)));
  r->term = expert->term;
  r->type = expert->type;
  r->num_train = expert->num_train;
  r->train_index = expert->train_index;
  r->train_count = expert->train_count;
  r->num_test = expert->num_test;
  r->test_index = expert->test_index;
  r->test_count = expert->test_count;
  r->c0 = expert->c0;
  r->c1 = expert->c1;
  r->c2 = expert->c2;
  r->values = expert->values;
  r->sorted_values = expert->sorted_values;
  r->sorted_index = expert->sorted_index;
  r->test_values = expert->test_values;
  r->threshold = expert->threshold;
  r->list_id = expert->list_id;
  if (expert->type == kTypeLinear && labels > 0) {
    r->linear_a = static_cast<double*>(Malloc(sizeof(double) * labels));
    r->linear_b = static_cast<double*>(Malloc(sizeof(double) * labels));
    if (expert->linear_a != nullptr)
      memcpy(r->linear_a, expert->linear_a, sizeof(double) * labels);
    if (expert->linear_b != nullptr)
      memcpy(r->linear_b, expert->linear_b, sizeof(double) * labels);
  }
  return r;
}

double* Sgram_Expert_Prediction(text_expert_rec* weak_hyp, example* x) {
  // Guard against an expert the weak learner never scored. It looks at
  // where the vectors are kept, which is never null, so it cannot fire; an
  // unscored expert yields whatever its vector fields hold.
  double** kept = &weak_hyp->c0;
  if (kept == nullptr) {
    fprintf(stderr, "Weak learner is not evaluated (%s)\n", weak_hyp->term);
    Exit_Run(1);
  }
  // Only a known text in the first attribute can hold the term. The reader's
  // record describes every example of the run, streamed ones included.
  const char* text = nullptr;
  dataset_info* dsi = Get_Dataset_Info();
  bool is_text = true;
  if (dsi != nullptr) {
    is_text = dsi->num_attributes > 0 &&
              (dsi->attributes[0].num_values == kText ||
               dsi->attributes[0].num_values == kScoredText);
  }
  if (is_text && x->values != nullptr &&
      (x->is_unknown == nullptr || !x->is_unknown[0]))
    text = x->values[0].text;
  int count = text != nullptr && weak_hyp->term != nullptr
                  ? Sparse_Ngram_Occur(text, weak_hyp->term)
                  : 0;
  return count >= 1 ? weak_hyp->c1 : weak_hyp->c0;
}

void Print_Hashed_Info(char* key, intptr_t info) {
  printf("%20s appeared in %4d docs\n", key,
         reinterpret_cast<expert_hash_info*>(info)->num_train_docs);
}

int Num_Text_Experts() { return num_text_experts; }

long Num_Train_Occurrences() { return num_train_occurrences; }
