// Text experts: one candidate rule per distinct key of the training data
// (a term of a text value, a discrete value, or a continuous attribute), with
// the lists of training and test examples in which the key occurs.
#ifndef MHBOOST_SGRAM_EXPERT_H_
#define MHBOOST_SGRAM_EXPERT_H_

#include <cstdint>

#include "read_data.h"
#include "sgram_util.h"

struct hash_table;
struct text_expert_info;

// Index into Text_Expert_Type_Name.
enum text_expert_type {
  kTypeSgram = 0,
  kTypeNgram = 1,
  kTypeFgram = 2,
  kTypeAndw = 3,
  kTypeOrw = 4,
  kTypeThreshold = 5,
  kTypeLinear = 6,
};
extern const char* const Text_Expert_Type_Name[7];

struct text_expert_rec {
  char* term;
  int type;
  int num_train;
  int* train_index;
  int* train_count;
  int num_test;
  int* test_index;
  int* test_count;
  double* c0;
  double* c1;
  double* c2;
  void* reserved1;
  void* reserved2;
  double* values;         // per training occurrence, example order
  double* sorted_values;  // the same values sorted ascending
  int* sorted_index;      // example index of each sorted value
  double* test_values;    // per test occurrence
  double threshold;
  double* linear_a;
  double* linear_b;
  // Experts whose training lists are identical share a list id (the index
  // of the first expert with that list); used to score a list once.
  int list_id;
};

// The record of one key while the experts are collected; the key table's
// entry for the key holds its expert index plus one.
struct expert_hash_info {
  int num_test_docs;
  int num_train_docs;
  int last_example;  // stamp of the last example counted
  int expert_index;
  int spare;         // kinds of attribute the key was met with in training
  char* key;         // the key, as the table holds it
};

/// Builds every expert of the training set; the array ends with a record
/// whose term is null. Also kept in file-level state.
text_expert_rec* Create_Ngram_Experts(example_data* data, term_expander expand,
                                      dataset_info* names,
                                      text_expert_info* info);
hash_table* Hash_Ngram_Experts(example_data* data, term_expander expand, int W,
                               int* num_experts, dataset_info* names);
hash_table* Hash_Ngram_Experts_Class(example_data* data, term_expander expand,
                                     int W, int* num_experts, int class_index,
                                     dataset_info* names);
void Index_Test_Instances(hash_table* table, example_data* data,
                          term_expander expand, int W, dataset_info* names);
/// Sorts keys[0..n) ascending, moving a and b with them (random pivots).
void rsort(double* keys, int* a, int* b, int n);
text_expert_rec* Copy_Text_Expert(const text_expert_rec* expert, int num_labels);
double* Sgram_Expert_Prediction(text_expert_rec* weak_hyp, example* x);
/// Applied to the entries of a table made by Hash_Ngram_Experts (or
/// Hash_Ngram_Experts_Class), lists each key and its document frequency.
/// Create_Ngram_Experts releases the key records once the experts are made.
void Print_Hashed_Info(char* key, intptr_t count);

/// Number of experts built by the last Create_Ngram_Experts (without the
/// terminating record), and the total of their training occurrences.
int Num_Text_Experts();
long Num_Train_Occurrences();

#endif  // MHBOOST_SGRAM_EXPERT_H_
