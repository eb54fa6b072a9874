// The three term enumerators over one text value: contiguous n-grams of one
// length, of all lengths up to W, and sparse grams with inner wildcards.
// Each is a resumable generator kept in file-level state: call it with the
// same arguments until it returns null, one text at a time.
#ifndef MHBOOST_SGRAM_UTIL_H_
#define MHBOOST_SGRAM_UTIL_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "hash.h"

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
/// Longest window of the sparse enumerator (its masks are 64-bit).
constexpr int kMaxSparseWindow = 62;

namespace sparse_terms_detail {
// The words of one text in the reader's form, and room to write a term.
struct text_words {
  std::vector<int> start;
  std::vector<int> length;
  std::vector<unsigned char> star;  // the word holds a "*"
  std::vector<char> term;
};
text_words& Scratch();
/// Fills `w` with the words of text[0..len) and returns true when the text
/// is in the reader's form: no leading blank, every word followed by
/// exactly one blank.
bool Split_Words(const char* text, size_t len, text_words& w);
}  // namespace sparse_terms_detail

/// Calls emit(term, length, hash) for each term that Next_Sparse_Ngram
/// gives for the value `text` of a text attribute (no scores) with window
/// W, in the same order, with the same bytes; hash is
/// Hash_Key_Extend(h0, term, length), the hash of the term behind a key
/// prefix hashed into h0. Each window's words are found once and every term
/// is written straight from them, with none of the enumerator's per-term
/// state; terms of a window that begin alike share the hashing of their
/// common words. Returns false, having emitted nothing, for a text that is
/// not in the reader's form or that the enumerator would refuse: such a
/// text is left to the enumerator.
template <class Emit>
bool For_Each_Sparse_Term(const char* text, int W, uint32_t h0, Emit&& emit) {
  if (W < 1) return true;
  if (W > kMaxSparseWindow) return false;
  const size_t len = strlen(text);
  if (len <= 1) return true;  // an empty value has no terms
  if (static_cast<long long>(len) >= 2LL * W + static_cast<long long>(kSparseBufferSize) + 1)
    return false;
  sparse_terms_detail::text_words& w = sparse_terms_detail::Scratch();
  if (!sparse_terms_detail::Split_Words(text, len, w)) return false;
  const int n = static_cast<int>(w.start.size());
  if (w.term.size() < len + 2 * static_cast<size_t>(W) + 2) w.term.resize(len + 2 * W + 2);
  char* const buf = w.term.data();
  const uint64_t masks = uint64_t{1} << W;
  // Hash after the first p + 1 positions of the window (each word or "?"
  // with its blank), for the wildcard bits of those positions in `bits`;
  // levels below `levels` are those of the term being hashed.
  uint32_t state[kMaxSparseWindow];
  uint64_t bits[kMaxSparseWindow];
  // Windows start at every word and once behind the last (the enumerator
  // pads the text with W words "*"); a term that keeps a "*" word, or a
  // word holding a "*", is not given.
  for (int i = 0; i <= n; ++i) {
    uint64_t star = 0;
    for (int p = 0; p < W; ++p)
      if (i + p >= n || w.star[static_cast<size_t>(i + p)]) star |= uint64_t{1} << p;
    if (star & 1) continue;  // the first word is never a wildcard
    auto word = [&](int p) { return text + w.start[static_cast<size_t>(i + p)]; };
    auto word_length = [&](int p) { return static_cast<size_t>(w.length[static_cast<size_t>(i + p)]); };
    // No "?" to trim in front when the first word does not begin with one.
    const bool clean_front = word(0)[0] != '?';
    int levels = 0;
    for (uint64_t mask = 0; mask < masks; mask += 2) {
      if ((star & ~mask) != 0) continue;
      // Up to the last real word: the wildcards after it would be trimmed.
      int last = W - 1;
      while (last > 0 && ((mask >> last) & 1)) --last;
      char* out = buf;
      for (int p = 0; p <= last;) {
        if ((mask >> p) & 1) {
          *out++ = '?';
          *out++ = ' ';
          ++p;
          continue;
        }
        int q = p;
        while (q < last && !((mask >> (q + 1)) & 1)) ++q;
        // Words p..q with the blank behind each, as the text holds them.
        const char* from = word(p);
        const size_t run = static_cast<size_t>(word(q) + word_length(q) + 1 - from);
        memcpy(out, from, run);
        out += run;
        p = q + 1;
      }
      if (clean_front && word(last)[word_length(last) - 1] != '?') {
        // Nothing to trim but the wildcards left out: the term is what was
        // written, and its hash is built on the longest run of leading
        // positions it shares with the terms hashed before.
        int p = 0;
        while (p < levels && p <= last && bits[p] == (mask & ((uint64_t{2} << p) - 1))) ++p;
        for (; p <= last; ++p) {
          uint32_t h = p == 0 ? h0 : state[p - 1];
          if ((mask >> p) & 1)
            h = Hash_Key_Extend(h, "? ", 2);
          else
            h = Hash_Key_Extend(Hash_Key_Extend(h, word(p), word_length(p)), " ", 1);
          state[p] = h;
          bits[p] = mask & ((uint64_t{2} << p) - 1);
        }
        levels = last + 1;
        emit(static_cast<const char*>(buf), static_cast<size_t>(out - buf), state[last]);
        continue;
      }
      // Wildcards and blanks are trimmed from both ends, character by
      // character, and one blank is put back behind the last word.
      char* s = buf;
      while (s < out && (*s == '?' || *s == ' ')) ++s;
      if (s == out) {
        emit(" ", size_t{1}, Hash_Key_Extend(h0, " ", 1));
        continue;
      }
      char* e = out - 1;
      while (e > s && (*e == '?' || *e == ' ')) --e;
      e[1] = ' ';
      const size_t length = static_cast<size_t>(e + 2 - s);
      emit(static_cast<const char*>(s), length, Hash_Key_Extend(h0, s, length));
    }
  }
  return true;
}

#endif  // MHBOOST_SGRAM_UTIL_H_
