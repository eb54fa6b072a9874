// Word ids, occurrence counting of sparse terms in a text, key building, and
// the small functions that combine the scores of scored-text terms.
#ifndef MHBOOST_TEXT_UTIL_H_
#define MHBOOST_TEXT_UTIL_H_

struct hash_table;

/// Zero-terminated array of the positive ids of the text's words (fresh;
/// the caller frees it with free()); unseen words get new ids in `table`.
int* Hash_Text(const char* text, hash_table* table);
/// Number of start positions of `text` at which sparse `term` matches.
int Sparse_Ngram_Occur(const char* text, const char* term);
/// Fresh string "name:term" (term is not freed).
char* PrefixAttribute(const char* term, const char* name);
/// Decimal digits of a non-negative n into buf.
void itostr(int n, char* buf);

double add(double a, double b);
double max(double a, double b);
double min(double a, double b);
/// Combine a null-terminated array of numeric strings ("?" = wildcard).
long double adds(char** values);
long double maxs(char** values);
long double mins(char** values);

using pair_combiner = double (*)(double, double);
using score_combiner = long double (*)(char**);

#endif  // MHBOOST_TEXT_UTIL_H_
