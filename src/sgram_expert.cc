// Text experts: one candidate rule per distinct key of the training data (a
// term of a text value, a discrete value, or a continuous attribute), each
// with the lists of training and test examples in which its key occurs.
//
// Storage is laid out for scale: a training collection can yield tens of
// millions of keys, so the key records come from a chunked arena, the expert
// records from one block, and every occurrence list is carved out of a few
// contiguous pools sized from the document frequencies. Lists are placed in
// expert order, so the weak learner's pass over all experts walks each pool
// front to back.
//
// Producing the keys of a text and looking each one up is the cost of
// creation, and with millions of keys nearly every lookup and every update of
// a key's record waits on memory. So each pass does one kind of random access
// and announces it ahead: keys are looked up in batches (the table fetches the
// buckets of later keys while it compares earlier ones), each set of examples
// is logged as the expert index (and value) of every key found, and the
// document frequencies and then the lists are made from the logs, each pass
// fetching the records of keys a little further down the log.
#include "sgram_expert.h"

#include <algorithm>
#include <cerrno>
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

// Frees the records of the last collection, once nothing points at them.
void release_infos() {
  for (expert_hash_info* chunk : info_chunks) free(chunk);
  reset_infos();
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

// A table entry's word holds its key's expert index plus one (0: new key),
// so that a lookup yields the index without reading the record.
inline int index_of(const hash_entry* e) { return static_cast<int>(e->count - 1); }

// The expert index of a key found or inserted; a new key gets the next
// record and index.
int record_of(hash_entry* e) {
  if (e->count == 0) {
    expert_hash_info* info = new_info();
    info->key = e->symbol;
    e->count = static_cast<intptr_t>(info->expert_index) + 1;
  }
  return index_of(e);
}

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

// Set by Create_Ngram_Experts while it collects: the terms are asked for
// with their scores, so that scored-text values can be logged. Outside it
// the logs only serve the counts, and are released once counted.
bool logging = false;
score_combiner log_fscore = nullptr;
occurrence_log train_log;
occurrence_log test_log;

void log_key(occurrence_log& log, int index, key_kind kind, double v) {
  uint32_t tag = kind == kKeyContinuous ? kTagContinuous
                 : kind == kKeyScored   ? kTagScored
                                        : kTagPlain;
  log.keys.push(static_cast<uint32_t>(index) | (tag << kTagShift));
  if (tag != kTagPlain) log.values.push(v);
}

// Records fetched this many keys ahead in the passes over a log.
constexpr size_t kLogAhead = 32;

// Document frequencies from a log: each example (stamped with its position
// plus `base`) counts once for every key it holds. In the training set
// (train true) the kinds each key was met with are noted too.
void count_log(const occurrence_log& log, int base, bool train) {
  const size_t total = log.keys.size();
  size_t k = 0;
  for (size_t x = 0; x + 1 < log.starts.size(); ++x) {
    const int stamp = static_cast<int>(x) + base;
    for (const size_t end = log.starts[x + 1]; k < end; ++k) {
      if (k + kLogAhead < total)
        __builtin_prefetch(info_at(static_cast<int>(log.keys.at(k + kLogAhead) & kIndexMask)));
      const uint32_t code = log.keys.at(k);
      expert_hash_info* info = info_at(static_cast<int>(code & kIndexMask));
      if (info->last_example != stamp) {
        info->last_example = stamp;
        if (train)
          info->num_train_docs++;
        else
          info->num_test_docs++;
      }
      if (train) info->spare |= (code >> kTagShift) != kTagPlain ? kSeenValued : kSeenPlain;
    }
  }
}

// ---- producing the keys of one example ----

struct key_source {
  term_expander expand;
  int window;
  dataset_info* names;
  score_combiner fscore;  // null: the terms are produced without scores
  bool known;             // expand is one of the enumerators, which give the length
  // Per attribute, "name:" and its hash, the start of every key of the
  // attribute (of a text attribute only when there are several attributes).
  std::vector<std::string> prefix;
  std::vector<uint32_t> prefix_hash;

  key_source(term_expander e, int w, dataset_info* n, score_combiner f)
      : expand(e), window(w), names(n), fscore(f),
        known(e == Next_Sparse_Ngram || e == Next_Ngram || e == Next_Ngram_Full) {
    for (int j = 0; j < n->num_attributes; ++j) {
      prefix.push_back(std::string(n->attributes[j].name) + ":");
      prefix_hash.push_back(Hash_Key(prefix.back().c_str()));
    }
  }
};

// Reused across calls: the score array handed to the enumerator (one entry
// per word of the longest term, plus the null).
std::vector<char*> score_buf;

// Calls f(j, term, length, kind, value, hash) for every key of example x,
// attribute by attribute, as expert creation and test indexing see them:
// the key is the prefix of attribute j followed by the term's bytes, or the
// term alone when j is -1; hash points at the key's hash when it is known
// already, else it is null. With class_first_pass, only a continuous first
// attribute gives its key (missing or not), alongside the discrete and text
// keys: the one-class collection numbers its keys this way.
template <class F>
void for_each_key(example* x, const key_source& src, bool class_first_pass, F&& f) {
  dataset_info* names = src.names;
  const bool prefix = names->num_attributes > 1;
  const bool sparse = src.expand == Next_Sparse_Ngram;
  for (int j = 0; j < names->num_attributes; ++j) {
    const attribute_info& a = names->attributes[j];
    const int nv = a.num_values;
    if (class_first_pass && nv == kContinuous) {
      if (j == 0) f(j, "", 0, kKeyContinuous, 0.0, nullptr);
      continue;
    }
    if (x->is_unknown[j]) continue;
    if (nv > 0) {
      char digits[24];
      itostr(static_cast<int>(x->values[j].index), digits);
      f(j, digits, strlen(digits), kKeyDiscrete, 0.0, nullptr);
    } else if (nv == kContinuous) {
      f(j, "", 0, kKeyContinuous, x->values[j].real, nullptr);
    } else if (nv == kText || nv == kScoredText) {
      char* value = x->values[j].text;
      if (value == nullptr) continue;
      const int pj = prefix ? j : -1;
      // Sparse terms of a plain text straight from its words, when the text
      // is one the shortcut takes.
      if (sparse && nv == kText &&
          For_Each_Sparse_Term(value, src.window, pj < 0 ? 0 : src.prefix_hash[static_cast<size_t>(j)],
                               [&](const char* term, size_t length, uint32_t hash) {
                                 f(pj, term, length, kKeyText, 0.0, &hash);
                               }))
        continue;
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
        f(pj, term, src.known ? Last_Term_Length() : strlen(term), kind, v, nullptr);
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

// ---- key batches ----

// The keys of consecutive examples, gathered before any is looked up, so
// that the table can overlap the memory waits of many lookups. Kept across
// calls to reuse the storage.
struct key_batch {
  // The keys back to back (grown by hand: a vector would zero every byte
  // it adds before the key is copied over it).
  char* bytes = nullptr;
  size_t used = 0;
  size_t capacity = 0;
  std::vector<hash_key_ref> refs;   // per key; pointer set before lookup
  std::vector<size_t> offsets;      // per key, its start in bytes
  std::vector<uint8_t> kinds;       // per key, its key_kind
  std::vector<double> values;       // per key, its value (0 for plain keys)
  std::vector<int> examples;        // the examples gathered
  std::vector<size_t> ends;         // per example, one past its last key
  std::vector<hash_entry*> entries; // per key, the lookup's result

  void clear() {
    used = 0;
    refs.clear();
    offsets.clear();
    kinds.clear();
    values.clear();
    examples.clear();
    ends.clear();
  }
  // The key `prefix` + term[0..length), whose prefix hashes to hash0; with
  // `hash` null its hash is computed here.
  void add(const std::string* prefix, uint32_t hash0, const char* term,
           size_t length, key_kind kind, double v, const uint32_t* hash) {
    const size_t plen = prefix != nullptr ? prefix->size() : 0;
    const size_t total = plen + length;
    if (total > UINT32_MAX) fatal("key too long for the symbol table");
    if (used + total > capacity) {
      size_t grown = std::max<size_t>(2 * capacity, used + total + (size_t{1} << 16));
      char* fresh = static_cast<char*>(Malloc(grown));
      if (used != 0) memcpy(fresh, bytes, used);
      free(bytes);
      bytes = fresh;
      capacity = grown;
    }
    char* out = bytes + used;
    if (plen != 0) memcpy(out, prefix->data(), plen);
    memcpy(out + plen, term, length);
    const uint32_t h = hash != nullptr ? *hash
                                       : Hash_Key_Extend(prefix != nullptr ? hash0 : 0, term, length);
    offsets.push_back(used);
    used += total;
    refs.push_back(hash_key_ref{nullptr, static_cast<uint32_t>(total), h});
    kinds.push_back(static_cast<uint8_t>(kind));
    values.push_back(v);
  }
  // Points every key at its bytes, which no longer move.
  void finish() {
    for (size_t i = 0; i < refs.size(); ++i) refs[i].key = bytes + offsets[i];
  }
};

key_batch batch;

// Keys gathered before a batch is looked up. Large enough that the start of
// each batch's lookup pipeline costs little, small enough that the entries
// and records it touched are still in cache when they are used.
constexpr size_t kBatchKeys = 4096;

// Looks up (inserting when `insert`) every key of the taken examples of
// examples[0..n), in example order, and calls start(e) before the keys of
// example e and use(e, entry, kind, value) for each of its keys, in the
// order they were produced; entry is null for a key absent from the table
// (insert false).
template <class Take, class Start, class Use>
void scan_keys(example** examples, int n, const key_source& src, bool class_first_pass,
               hash_table* table, bool insert, bool progress, Take&& take, Start&& start,
               Use&& use) {
  batch.clear();
  auto flush = [&]() {
    const size_t keys = batch.refs.size();
    batch.finish();
    if (batch.entries.size() < keys) batch.entries.resize(keys);
    hash_entry** entries = batch.entries.data();
    Hash_Lookup_Batch(table, batch.refs.data(), keys, insert, entries);
    size_t k = 0;
    for (size_t x = 0; x < batch.examples.size(); ++x) {
      const int e = batch.examples[x];
      start(e);
      for (; k < batch.ends[x]; ++k)
        use(e, entries[k], static_cast<key_kind>(batch.kinds[k]), batch.values[k]);
    }
    batch.clear();
  };
  for (int e = 0; e < n; ++e) {
    if (!take(e)) continue;
    for_each_key(examples[e], src, class_first_pass,
                 [&](int j, const char* term, size_t length, key_kind kind, double v,
                     const uint32_t* hash) {
                   if (j < 0)
                     batch.add(nullptr, 0, term, length, kind, v, hash);
                   else
                     batch.add(&src.prefix[static_cast<size_t>(j)],
                               src.prefix_hash[static_cast<size_t>(j)], term, length,
                               kind, v, hash);
                 });
    batch.examples.push_back(e);
    batch.ends.push_back(batch.refs.size());
    if (batch.refs.size() >= kBatchKeys) {
      flush();
      if (progress) Progress_Update("collecting rules", info_count, "rules");
    }
  }
  flush();
}

// ---- records ----

// Scalar fields of one record; its lists were carved beforehand.
void Allocate_Ngram_Expert(expert_hash_info* info) {
  text_expert_rec* r = &text_expert[info->expert_index];
  r->term = info->key;
  r->type = kTypeFgram;
  r->num_train = 0;
  r->num_test = 0;
  r->threshold = 0;
  r->list_id = info->expert_index;
  info->last_example = -1;
}

// The record array, zero-filled, on a cache-line boundary: the fields that
// filling the lists touches (the counts and list pointers at the front of a
// record) then always lie in one line.
text_expert_rec* allocate_records(size_t count) {
  void* p = nullptr;
  const size_t bytes = sizeof(text_expert_rec) * count;
  if (int err = posix_memalign(&p, 64, bytes); err != 0) {
    // Malloc's message: posix_memalign reports its error without errno.
    errno = err;
    perror("Malloc");
    Exit_Run(1);
  }
  // Only the terminating record needs clearing here: carve_lists writes
  // every other record whole.
  text_expert_rec* records = static_cast<text_expert_rec*>(p);
  records[count - 1] = text_expert_rec{};
  return records;
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
    *r = text_expert_rec{};
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

// While the lists of a set of examples are filled from its log: the
// record of the key kAhead places down the log, and the list slots of the
// key half as far down, whose record was asked for earlier. Inlined from
// the start: a function that only prefetches counts as free of side effects,
// and a call to it would be dropped.
[[gnu::always_inline]] inline void prefetch_lists(const occurrence_log& log, size_t k, size_t total,
                    int text_expert_rec::*num, int* text_expert_rec::*index,
                    int* text_expert_rec::*count) {
  if (k + kLogAhead < total) {
    const text_expert_rec* r = &text_expert[log.keys.at(k + kLogAhead) & kIndexMask];
    __builtin_prefetch(&(r->*num));
    __builtin_prefetch(&(r->*count));
  }
  if (k + kLogAhead / 2 < total) {
    const text_expert_rec* r = &text_expert[log.keys.at(k + kLogAhead / 2) & kIndexMask];
    __builtin_prefetch(r->*index + r->*num, 1);
    __builtin_prefetch(r->*count + r->*num, 1);
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

// Logs, example by example, the keys of a set that the table already holds
// (keys it lacks are passed over), then counts them with example stamps
// from `base` on. The training set (train) also shows progress and fills the
// training counts.
void log_known_keys(example** examples, int n, const key_source& src, hash_table* table,
                    bool train, occurrence_log& log, int base) {
  scan_keys(
      examples, n, src, false, table, false, train, [](int) { return true; },
      [&log](int) { log.starts.push_back(log.keys.size()); },
      [&log](int, hash_entry* h, key_kind kind, double v) {
        if (h != nullptr) log_key(log, index_of(h), kind, v);
      });
  log.starts.push_back(log.keys.size());
  count_log(log, base, train);
  if (!logging) log.clear();
}

}  // namespace

hash_table* Hash_Ngram_Experts(example_data* data, term_expander expand, int W,
                               int* num_experts, dataset_info* names) {
  hash_table* table = Init_Hash();
  reset_infos();
  train_log.clear();
  key_source src(expand, W, names, logging ? log_fscore : nullptr);
  scan_keys(
      data->train_examples, data->num_train, src, false, table, true, true,
      [](int) { return true; },
      [](int) { train_log.starts.push_back(train_log.keys.size()); },
      [](int, hash_entry* h, key_kind kind, double v) {
        log_key(train_log, record_of(h), kind, v);
      });
  train_log.starts.push_back(train_log.keys.size());
  count_log(train_log, 1, true);
  if (!logging) train_log.clear();
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
  train_log.clear();
  key_source src(expand, W, names, nullptr);
  // The experts are the keys of the class's examples...
  if (class_index >= 0 && class_index < data->num_classes) {
    scan_keys(
        data->train_examples, data->num_train, src, true, table, true, false,
        [&](int e) { return data->train_examples[e]->labels[class_index] != 0; },
        [](int) {}, [](int, hash_entry* h, key_kind, double) { record_of(h); });
  }
  // ...but their document frequencies cover the whole training set.
  src.fscore = logging ? log_fscore : nullptr;
  log_known_keys(data->train_examples, data->num_train, src, table, true, train_log, 1);
  Progress_Done();
  *num_experts = info_count;
  Index_Test_Instances(table, data, expand, W, names);
  return table;
}

void Index_Test_Instances(hash_table* table, example_data* data,
                          term_expander expand, int W, dataset_info* names) {
  test_log.clear();
  key_source src(expand, W, names, logging ? log_fscore : nullptr);
  // Test stamps lie past every training stamp.
  log_known_keys(data->test_examples, data->num_test, src, table, false, test_log,
                 data->num_train + 1);
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
  // The key table is not needed past this point: the records keep its keys.
  if (info->class_index >= 0)
    Hash_Ngram_Experts_Class(data, expand, W, &n, info->class_index, names);
  else
    Hash_Ngram_Experts(data, expand, W, &n, names);
  logging = false;

  text_expert = allocate_records(static_cast<size_t>(n) + 1);
  carve_lists(n);
  // Each record is made at its own expert index, so walking the records in
  // index order gives what a scan of the table would, with sequential
  // instead of scattered reads.
  for (int i = 0; i < n; ++i) Allocate_Ngram_Expert(info_at(i));
  text_expert[n].term = nullptr;
  // The key records have served their purpose: the table that points at
  // them is dropped, and the records carry everything on.
  release_infos();

  pair_combiner fmultiple = info->fmultiple != nullptr ? info->fmultiple : max;
  const int valued_type = info->flag_L ? kTypeLinear : kTypeThreshold;

  // Training lists, from the keys logged in example order. An example's
  // entry is the last one of the list while that example is being filled,
  // so a recurring key is recognised there. Keys without values had no
  // value storage carved: their value arrays are null, and only an
  // occurrence with a value looks at them.
  size_t vi = 0;
  size_t total = train_log.keys.size();
  size_t k = 0;
  for (int e = 0; e < data->num_train; ++e) {
    for (const size_t end = train_log.starts[static_cast<size_t>(e) + 1]; k < end; ++k) {
      prefetch_lists(train_log, k, total, &text_expert_rec::num_train,
                     &text_expert_rec::train_index, &text_expert_rec::train_count);
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
        if (tag != kTagPlain && r->values != nullptr) {
          r->values[pos] = v;
          r->sorted_values[pos] = v;
          r->sorted_index[pos] = e;
        }
      }
      if (tag != kTagPlain && r->values != nullptr) r->type = valued_type;
    }
  }

  // Test lists, numbered after the training examples.
  vi = 0;
  total = test_log.keys.size();
  k = 0;
  for (int t = 0; t < data->num_test; ++t) {
    const int stamp = t + data->num_train;
    for (const size_t end = test_log.starts[static_cast<size_t>(t) + 1]; k < end; ++k) {
      prefetch_lists(test_log, k, total, &text_expert_rec::num_test,
                     &text_expert_rec::test_index, &text_expert_rec::test_count);
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
        if (tag != kTagPlain && r->test_values != nullptr) r->test_values[pos] = v;
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

void Print_Hashed_Info(char* key, intptr_t count) {
  printf("%20s appeared in %4d docs\n", key,
         info_at(static_cast<int>(count - 1))->num_train_docs);
}

int Num_Text_Experts() { return num_text_experts; }

long Num_Train_Occurrences() { return num_train_occurrences; }
