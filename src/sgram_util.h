// The three term enumerators over one text value: contiguous n-grams of one
// length, of all lengths up to W, and sparse grams with inner wildcards.
// Each is a resumable generator kept in file-level state: call it with the
// same arguments until it returns null, one text at a time.
#ifndef MHBOOST_SGRAM_UTIL_H_
#define MHBOOST_SGRAM_UTIL_H_

#include <cstddef>

/// Signature shared by all enumerators so that any can be chosen by -N.
/// `type` is kText or kScoredText; `scores` has room for W + 1 pointers.
using term_expander = char* (*)(char* text, int len, int type, char** scores,
                                int want_scores);

/// Every contiguous n-gram of exactly `n` words.
char* Next_Ngram_Full(char* text, int n, int type, char** scores,
                      int want_scores);
/// All 1-grams, then all 2-grams, ... up to W-grams.
char* Next_Ngram(char* text, int W, int type, char** scores, int want_scores);
/// Sparse grams of window W (one trailing blank, "?" wildcards).
char* Next_Sparse_Ngram(char* text, int W, int type, char** scores,
                        int want_scores);
char* Next_Sparse_Ngram_Intern(char* padded_text, int W, int type,
                               char** scores, int want_scores);

/// strlen of the term that the enumerator called last returned, so that
/// callers need not measure it again.
size_t Last_Term_Length();

/// Texts of this length or more are refused by the sparse enumerator
/// (besides the 2W padding allowance).
constexpr int kSparseBufferSize = 262144;

#endif  // MHBOOST_SGRAM_UTIL_H_
