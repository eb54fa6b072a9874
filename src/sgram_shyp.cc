// Indexing of a stored model: a key table over the model's rules, and the
// matching of a set of examples against it, which fills each rule's
// test-side occurrence lists so that stored rules are evaluated exactly like
// freshly built ones. Example keys are produced as expert creation produces
// them, with the model's own enumerator and window.
#include "sgram_shyp.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "hash.h"
#include "read_data.h"
#include "sgram_expert.h"
#include "sgram_util.h"
#include "text_util.h"
#include "weak_learn.h"
#include "weak_parm.h"

namespace {

// Value of a key in the model's table. A valued key (a continuous
// attribute, or a scored-text term) may carry several rules, one per stored
// threshold; every other key names one rule, since the model was compiled
// before the table was built.
struct model_key_info {
  int expert_index;  // the single rule, when list is null
  int num_listed;
  int capacity;
  int* list;         // every rule with this key, in model order
};

constexpr int kInitialListCapacity = 16;

term_expander mem_Next_Ngram_Expert = nullptr;
int mem_Ngram = 0;
weak_hyp* mem_whi = nullptr;
int mem_num_wh = 0;
hash_table* mem_hi = nullptr;

bool Is_Valued(const text_expert_rec* e) {
  return e->type == kTypeThreshold || e->type == kTypeLinear;
}

void Append_Index(model_key_info* info, int j) {
  if (info->num_listed == info->capacity) {
    int capacity = info->capacity * 2;
    auto* list = static_cast<int*>(Malloc(capacity * sizeof(int)));
    memcpy(list, info->list, info->num_listed * sizeof(int));
    free(info->list);
    info->list = list;
    info->capacity = capacity;
  }
  info->list[info->num_listed++] = j;
}

void Start_List(model_key_info* info, int j) {
  info->capacity = kInitialListCapacity;
  info->list = static_cast<int*>(Malloc(info->capacity * sizeof(int)));
  info->list[0] = j;
  info->num_listed = 1;
}

// The first two arguments mirror expert creation's collector; the table
// depends only on the remembered model.
hash_table* Hash_Ngram_Experts(term_expander /*expand*/, int /*W*/,
                               int num_weak_hyps) {
  hash_table* table = Init_Hash();
  for (int j = 0; j < num_weak_hyps; ++j) {
    text_expert_rec* e = mem_whi[j].hyp;
    if (e == nullptr || e->term == nullptr) continue;
    hash_entry* entry = Hash_Insert(e->term, table);
    auto* info = reinterpret_cast<model_key_info*>(entry->count);
    if (info == nullptr) {
      info = static_cast<model_key_info*>(Malloc(sizeof(model_key_info)));
      if (Is_Valued(e))
        Start_List(info, j);
      else
        info->expert_index = j;
      entry->count = reinterpret_cast<intptr_t>(info);
    } else {
      // A repeated key of a single rule cannot come from a compiled model
      // of one data set; keep every rule rather than lose one.
      if (info->list == nullptr) Start_List(info, info->expert_index);
      Append_Index(info, j);
    }
  }
  return table;
}

// Per-example state of one indexing pass.
int* slots = nullptr;  // entry of the current example in each rule, or -1

// Records one occurrence of a key in example `ex` for every rule of the key.
// `value` is the occurrence's value (null when the key carries none); a
// valued rule without a value learns nothing, as for an unknown value.
// With `combine` (scored text) repeated occurrences merge their values with
// fmultiple; otherwise the last value stands.
void Match(const model_key_info* info, int ex, const double* value,
           bool combine, pair_combiner fmultiple) {
  int single = info->expert_index;
  const int* list = info->list != nullptr ? info->list : &single;
  int n = info->list != nullptr ? info->num_listed : 1;
  for (int i = 0; i < n; ++i) {
    int j = list[i];
    text_expert_rec* e = mem_whi[j].hyp;
    if (Is_Valued(e) && value == nullptr) continue;
    if (slots[j] == -1) {
      slots[j] = e->num_test;
      e->test_index[e->num_test] = ex;
      e->test_count[e->num_test] = 0;
      ++e->num_test;
    }
    int s = slots[j];
    ++e->test_count[s];
    if (value != nullptr && e->test_values != nullptr) {
      if (combine && e->test_count[s] > 1)
        e->test_values[s] = fmultiple(e->test_values[s], *value);
      else
        e->test_values[s] = *value;
    }
  }
}

const model_key_info* Find_Key(const char* key) {
  hash_entry* entry = Hash_Find(key, mem_hi);
  return entry != nullptr ? reinterpret_cast<model_key_info*>(entry->count)
                          : nullptr;
}

}  // namespace

hash_table* Index_Weak_Hyp(term_expander expand, int W, weak_hyp* whs,
                           int num_weak_hyps) {
  mem_Next_Ngram_Expert = expand;
  mem_Ngram = W;
  mem_whi = whs;
  mem_num_wh = num_weak_hyps;
  mem_hi = Hash_Ngram_Experts(expand, W, num_weak_hyps);
  return mem_hi;
}

void Index_New_Test_Instances(example** examples, int n, dataset_info* names) {
  for (int j = 0; j < mem_num_wh; ++j) {
    text_expert_rec* e = mem_whi[j].hyp;
    if (e != nullptr) e->num_test = 0;
  }
  if (mem_hi == nullptr || mem_hi->num_entries == 0) return;

  text_expert_info* info = Get_Text_Expert_Info();
  score_combiner fscore = info->fscore;
  pair_combiner fmultiple = info->fmultiple;
  bool sparse = mem_Next_Ngram_Expert == Next_Sparse_Ngram;
  bool prefixed = names->num_attributes > 1;
  int W = mem_Ngram;

  slots = static_cast<int*>(Malloc(mem_num_wh * sizeof(int)));
  char** scores = nullptr;
  for (int x = 0; x < n; ++x) {
    example* ex = examples[x];
    for (int j = 0; j < mem_num_wh; ++j) slots[j] = -1;
    for (int a = 0; a < names->num_attributes; ++a) {
      if (ex->is_unknown[a]) continue;
      const attribute_info* attr = &names->attributes[a];
      int kind = attr->num_values;
      if (kind == kText || kind == kScoredText) {
        bool scored = kind == kScoredText;
        if (scored) {
          free(scores);
          scores = static_cast<char**>(Malloc((W + 1) * sizeof(char*)));
        }
        char* term;
        while ((term = mem_Next_Ngram_Expert(ex->values[a].text, W, kind,
                                             scored ? scores : nullptr,
                                             scored ? 1 : 0)) != nullptr) {
          char* key = prefixed ? PrefixAttribute(term, attr->name) : term;
          const model_key_info* found = Find_Key(key);
          if (found != nullptr) {
            if (scored) {
              double v = fscore(scores);
              Match(found, ex->index, &v, true, fmultiple);
            } else {
              Match(found, ex->index, nullptr, false, fmultiple);
            }
          }
          if (prefixed) free(key);
          // The contiguous enumerators hand out fresh terms and score
          // copies for scored text; the sparse one keeps its own.
          if (scored && !sparse) {
            free(term);
            for (int i = 0; i <= W && scores[i] != nullptr; ++i) {
              free(scores[i]);
              scores[i] = nullptr;
            }
          }
        }
      } else if (kind == kContinuous) {
        char* key = PrefixAttribute("", attr->name);
        const model_key_info* found = Find_Key(key);
        if (found != nullptr) {
          double v = ex->values[a].real;
          Match(found, ex->index, &v, false, fmultiple);
        }
        free(key);
      } else if (kind > 0) {
        // Value index in decimal; sparse keys end in a blank like every
        // sparse term, so that the stored key matches.
        char digits[24];
        itostr(static_cast<int>(ex->values[a].index), digits);
        if (sparse) strcat(digits, " ");
        char* key = PrefixAttribute(digits, attr->name);
        const model_key_info* found = Find_Key(key);
        if (found != nullptr) Match(found, ex->index, nullptr, false, fmultiple);
        free(key);
      }
    }
  }
  free(slots);
  slots = nullptr;
  free(scores);
}
