// Fuzz target: the three term enumerators and the sparse-term occurrence
// count. The first byte picks the enumerator, the window (1..8), the kind
// (text or scored text) and whether scores are wanted; the rest, squeezed
// the way the reader stores a text (single blanks, one trailing blank), is
// the text. Every term, and every score handed out, is compared with a
// direct model of the enumeration built on a split of the text into words.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "read_data.h"
#include "sgram_util.h"
#include "text_util.h"

namespace terms_target {

using strings = std::vector<std::string>;

struct term_out {
  std::string term;
  strings scores;  // only when scores are handed out
};

inline strings Split(const std::string& s) {
  strings out;
  if (s == " ") return out;  // an empty value: no word at all
  size_t i = 0;
  while (i < s.size()) {
    size_t sp = s.find(' ', i);
    if (sp == std::string::npos) break;  // a token must be followed by a blank
    out.push_back(s.substr(i, sp - i));
    i = sp + 1;
  }
  return out;
}

inline std::string Join(const strings& w, size_t from, size_t n) {
  std::string s;
  for (size_t j = 0; j < n; ++j) {
    if (j > 0) s += ' ';
    s += w[from + j];
  }
  return s;
}

// Windows of n words (with their scores for scored text).
inline std::vector<term_out> Model_Full(const strings& tok, int n, bool scored,
                                        bool give) {
  std::vector<term_out> out;
  if (n < 1) return out;
  strings words, scores;
  if (scored) {
    for (size_t i = 0; i + 1 < tok.size(); i += 2) {
      words.push_back(tok[i]);
      scores.push_back(tok[i + 1]);
    }
  } else {
    words = tok;
  }
  for (size_t i = 0; i + n <= words.size(); ++i) {
    term_out t{Join(words, i, n), {}};
    if (give) t.scores.assign(scores.begin() + i, scores.begin() + i + n);
    out.push_back(t);
  }
  return out;
}

inline std::vector<term_out> Model_Ngram(const strings& tok, int W, bool scored,
                                         bool give) {
  std::vector<term_out> out;
  for (int n = 1; n <= W; ++n) {
    std::vector<term_out> part = Model_Full(tok, n, scored, give);
    out.insert(out.end(), part.begin(), part.end());
  }
  return out;
}

inline std::vector<term_out> Model_Sparse(const std::string& text,
                                          const strings& tok, int W,
                                          bool scored, bool give) {
  std::vector<term_out> out;
  if (text.size() <= 1) return out;
  strings padded = tok;
  for (int i = 0; i < (scored ? 2 * W : W); ++i) padded.push_back("*");
  strings words, scores;
  if (scored) {
    for (size_t i = 0; i + 1 < padded.size(); i += 2) {
      words.push_back(padded[i]);
      scores.push_back(padded[i + 1]);
    }
  } else {
    words = padded;
  }
  for (size_t i = 0; i + W <= words.size(); ++i) {
    for (uint64_t mask = 0; mask < (uint64_t{1} << W); mask += 2) {
      std::string s;
      strings sc;
      for (int j = 0; j < W; ++j) {
        bool wild = (mask >> j) & 1;
        s += wild ? std::string("?") : words[i + j];
        s += ' ';
        if (give) sc.push_back(wild ? std::string("?") : scores[i + j]);
      }
      // Wildcards and blanks are trimmed from both ends, character by
      // character, and one blank is put back behind the last word.
      size_t b = s.find_first_not_of("? ");
      size_t e = s.find_last_not_of("? ");
      // Only literal "?" words: the term is the blank left behind.
      std::string term = b == std::string::npos ? std::string(" ") : s.substr(b, e - b + 1) + " ";
      if (term.find('*') != std::string::npos) continue;
      out.push_back(term_out{term, sc});
    }
  }
  return out;
}

// Start positions at which every word of `term` equals the text's word, a
// "?" or "*" in the term matching any word.
inline int Model_Occur(const std::string& text, const std::string& term) {
  auto split_ws = [](const std::string& s) {
    strings w;
    size_t i = 0;
    while (i < s.size()) {
      while (i < s.size() && isspace(static_cast<unsigned char>(s[i]))) ++i;
      size_t b = i;
      while (i < s.size() && !isspace(static_cast<unsigned char>(s[i]))) ++i;
      if (i > b) w.push_back(s.substr(b, i - b));
    }
    return w;
  };
  strings t = split_ws(text), w = split_ws(term);
  if (w.empty()) return 0;
  int found = 0;
  for (size_t i = 0; i + w.size() <= t.size(); ++i) {
    bool all = true;
    for (size_t k = 0; k < w.size() && all; ++k)
      all = w[k] == "?" || w[k] == "*" || w[k] == t[i + k];
    if (all) ++found;
  }
  return found;
}

inline int One_Input(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const int which = data[0] % 3;          // 0 sparse, 1 ngram, 2 full
  const int W = (data[0] / 3) % 8 + 1;
  const bool scored = (data[0] / 24) % 2 == 1;
  const bool want = (data[0] / 48) % 2 == 1;
  const int type = scored ? kScoredText : kText;
  const bool give = scored && want;

  // The text as the reader stores it (a NUL would end it early there too).
  std::vector<char> buf;
  for (size_t i = 1; i < size && data[i] != 0; ++i)
    buf.push_back(static_cast<char>(data[i]));
  buf.push_back('\0');
  buf.push_back('\0');  // squeeze_spaces may append one blank
  squeeze_spaces(buf.data());
  const std::string text(buf.data());
  const strings tok = Split(text);

  std::vector<term_out> want_terms;
  term_expander next;
  if (which == 0) {
    next = Next_Sparse_Ngram;
    want_terms = Model_Sparse(text, tok, W, scored, give);
  } else if (which == 1) {
    next = Next_Ngram;
    want_terms = Model_Ngram(tok, W, scored, give);
  } else {
    next = Next_Ngram_Full;
    want_terms = Model_Full(tok, W, scored, give);
  }

  std::vector<char*> scores(W + 1, nullptr);  // exactly the room promised
  size_t got = 0;
  std::vector<std::string> sparse_terms;
  int status = fuzz::Guarded([&] {
    for (char* t; (t = next(buf.data(), W, type, scores.data(), want)) != nullptr;) {
      FUZZ_CHECK(got < want_terms.size());
      const term_out& m = want_terms[got++];
      FUZZ_CHECK(m.term == t);
      if (give) {
        for (int j = 0; j < static_cast<int>(m.scores.size()); ++j)
          FUZZ_CHECK(scores[j] != nullptr && m.scores[j] == scores[j]);
        FUZZ_CHECK(scores[m.scores.size()] == nullptr || which == 0);
      }
      if (which == 0) {
        if (!scored && sparse_terms.size() < 8) sparse_terms.push_back(t);
        continue;  // the sparse enumerator keeps its term and scores
      }
      if (scored) {
        free(t);
        for (int j = 0; j <= W && scores[j] != nullptr; ++j) {
          free(scores[j]);
          scores[j] = nullptr;
        }
      }
    }
  });
  // The enumerators end only through the window limit or the text-length
  // limit, neither reachable with a window of at most 8 and a short text.
  FUZZ_CHECK(status == -1);
  FUZZ_CHECK(got == want_terms.size());
  FUZZ_CHECK(text == buf.data());  // every blank put back

  if (!scored) {
    for (const std::string& t : sparse_terms) {
      int n = Sparse_Ngram_Occur(text.c_str(), t.c_str());
      FUZZ_CHECK(n == Model_Occur(text, t));
      // A term occurs where it was found, unless the trimming of wildcard
      // marks ate a "?" that ends a word of the text ('b?' gives 'b').
      if (text.find('?') == std::string::npos) FUZZ_CHECK(n >= 1);
    }
    // Whole text, wildcard runs, and a term of the input's own making.
    FUZZ_CHECK(Sparse_Ngram_Occur(text.c_str(), text.c_str()) ==
               Model_Occur(text, text));
    std::string wild = "? ? ";
    FUZZ_CHECK(Sparse_Ngram_Occur(text.c_str(), wild.c_str()) ==
               Model_Occur(text, wild));
    if (tok.size() >= 2) {
      std::string t = tok[tok.size() - 1] + " ? " + tok[0] + " ";
      FUZZ_CHECK(Sparse_Ngram_Occur(text.c_str(), t.c_str()) == Model_Occur(text, t));
    }
  }
  return 0;
}

}  // namespace terms_target

#ifndef MHBOOST_FUZZ_NO_MAIN
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return terms_target::One_Input(data, size);
}
#endif
