// Word ids and sparse-term occurrence counting, key building, and the small
// functions that combine the word scores of scored-text terms.
#include "text_util.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "hash.h"
#include "read_data.h"

namespace {

// Word ids shared by every occurrence count of the run, so that ids stay
// stable. The empty key holds the id counter; "?" and "*" get non-positive
// ids, which the matcher reads as "matches any word".
hash_table* words_hash = nullptr;

// Reused by Hash_Text: the current word (any length) and the ids of the text.
std::string word_buf;
std::vector<int> id_buf;

// isspace of the "C" locale (the program never changes locale), inline.
inline bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Reads the next whitespace-delimited word at or after `p` into word_buf, as
// the "%s" conversion would. Returns the character after the word, or null
// when no word is left.
const char* read_word(const char* p) {
  while (*p != '\0' && is_space(*p)) ++p;
  if (*p == '\0') return nullptr;
  const char* start = p;
  while (*p != '\0' && !is_space(*p)) ++p;
  word_buf.assign(start, static_cast<size_t>(p - start));
  return p;
}

}  // namespace

int* Hash_Text(const char* text, hash_table* table) {
  hash_entry* counter = Hash_Insert("", table);
  intptr_t count = counter->count;
  id_buf.clear();
  const char* p = text;
  while (p != nullptr) {
    const char* end = read_word(p);
    if (end == nullptr) break;
    hash_entry* e = Hash_Insert(word_buf.c_str(), table);
    if (e->count == 0) e->count = ++count;
    id_buf.push_back(static_cast<int>(e->count));
    // The next word starts behind the blank that ends this one.
    p = strchr(end, ' ');
    if (p != nullptr) ++p;
  }
  int* ids = static_cast<int*>(Malloc(sizeof(int) * (id_buf.size() + 1)));
  if (!id_buf.empty()) memcpy(ids, id_buf.data(), sizeof(int) * id_buf.size());
  ids[id_buf.size()] = 0;
  // Entries never move when the table grows, so the counter entry found at
  // the start is still the one to update.
  counter->count = count;
  return ids;
}

int Sparse_Ngram_Occur(const char* text, const char* term) {
  if (words_hash == nullptr) {
    words_hash = Init_Hash();
    Hash_Insert("", words_hash)->count = 0;
    Hash_Insert("?", words_hash)->count = -1;
    Hash_Insert("*", words_hash)->count = -2;
  }
  int* t = Hash_Text(text, words_hash);
  int* w = Hash_Text(term, words_hash);
  int m = 0;
  while (w[m] != 0) ++m;
  int found = 0;
  if (m > 0) {
    for (int i = 0;; ++i) {
      int k = 0;
      // A wildcard matches any word but not the end of the text: the term
      // must lie wholly inside it.
      while (k < m && t[i + k] != 0 && (w[k] <= 0 || w[k] == t[i + k])) ++k;
      if (k == m) ++found;
      if (t[i + k] == 0) break;
    }
  }
  free(t);
  free(w);
  return found;
}

char* PrefixAttribute(const char* term, const char* name) {
  size_t n = strlen(name);
  size_t t = strlen(term);
  char* key = static_cast<char*>(Malloc(n + t + 2));
  memcpy(key, name, n);
  key[n] = ':';
  memcpy(key + n + 1, term, t + 1);
  return key;
}

void itostr(int n, char* buf) {
  char digits[16];
  int len = 0;
  unsigned v = n < 0 ? 0u : static_cast<unsigned>(n);
  do {
    digits[len++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  for (int i = 0; i < len; ++i) buf[i] = digits[len - 1 - i];
  buf[len] = '\0';
}

double add(double a, double b) { return a + b; }
double max(double a, double b) { return b >= a ? b : a; }
double min(double a, double b) { return b <= a ? b : a; }

long double adds(char** values) {
  long double sum = 0;
  if (values == nullptr) return sum;
  for (char** v = values; *v != nullptr; ++v)
    if (strcmp(*v, "?") != 0) sum += strtod(*v, nullptr);
  return sum;
}

long double maxs(char** values) {
  if (values == nullptr || values[0] == nullptr) return 0;
  long double best = strtod(values[0], nullptr);
  for (char** v = values + 1; *v != nullptr; ++v) {
    if (strcmp(*v, "?") == 0) continue;
    long double x = strtod(*v, nullptr);
    if (x > best) best = x;
  }
  return best;
}

long double mins(char** values) {
  if (values == nullptr || values[0] == nullptr) return 0;
  long double best = strtod(values[0], nullptr);
  for (char** v = values + 1; *v != nullptr; ++v) {
    if (strcmp(*v, "?") == 0) continue;
    long double x = strtod(*v, nullptr);
    if (x < best) best = x;
  }
  return best;
}
