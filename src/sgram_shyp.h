// Indexing of a stored model: a key table of the model's experts, and the
// matching of a set of examples against it (filling each expert's test-side
// occurrence lists).
#ifndef MHBOOST_SGRAM_SHYP_H_
#define MHBOOST_SGRAM_SHYP_H_

#include "read_data.h"
#include "sgram_util.h"

struct hash_table;
struct weak_hyp;

/// Remembers the model and its term enumerator, builds and returns its key
/// table. Called once after the model is read and compiled.
hash_table* Index_Weak_Hyp(term_expander expand, int W, weak_hyp* whs,
                           int num_weak_hyps);
/// Fills num_test, test_index, test_count (and test_values for valued
/// experts) of every model expert from `n` examples. The caller has sized
/// the arrays for n entries.
void Index_New_Test_Instances(example** examples, int n, dataset_info* names);

#endif  // MHBOOST_SGRAM_SHYP_H_
