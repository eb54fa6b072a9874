// The term enumerators: windows beyond the fuzzed range and the long-text
// bound.
#include "sgram_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "read_data.h"

namespace {

using Terms = std::vector<std::string>;

// Runs an enumerator over a copy of `text` to its end; with `scored`, each
// term is followed in the result by its scores, as "term|s1|s2".
Terms Enumerate(term_expander f, const std::string& text, int w, int type = kText,
                bool want_scores = false) {
  std::vector<char> buf(text.begin(), text.end());
  buf.push_back('\0');
  std::vector<char*> scores(static_cast<size_t>(std::clamp(w, 0, 64)) + 1, nullptr);
  const bool owned = type == kScoredText && f != Next_Sparse_Ngram;
  Terms out;
  for (char* t; (t = f(buf.data(), w, type, scores.data(), want_scores)) != nullptr;) {
    out.emplace_back(t);
    for (char** s = scores.data(); want_scores && *s != nullptr; ++s) {
      out.back() += std::string("|") + *s;
      if (owned) free(*s);
    }
    if (owned) {
      free(t);
      scores[0] = nullptr;
    }
  }
  EXPECT_STREQ(buf.data(), text.c_str()) << "the text must be left as it was";
  return out;
}

// Term order, scores, padding and wildcard trimming of every enumerator are
// compared with a direct model of the enumeration by the terms fuzz target,
// which regress_test replays over its corpus (windows 1 to 8). Here: the
// windows it does not reach, and the limits on text length and window.
TEST(Terms, WindowsOutsideTheFuzzedRange) {
  EXPECT_EQ(Enumerate(Next_Ngram, "a b c ", 0), Terms{});
  EXPECT_EQ(Enumerate(Next_Sparse_Ngram, "a b ", 0), Terms{});
  EXPECT_EQ(Enumerate(Next_Ngram, "x 1 y 2 ", INT_MAX, kScoredText), (Terms{"x", "y", "x y"}));
  EXPECT_EQ(Enumerate(Next_Ngram_Full, "x y ", INT_MAX), Terms{});
  EXPECT_EQ(Enumerate(Next_Sparse_Ngram, "a 1 ", 12, kScoredText, true), Terms{"a |1|?|?|?|?|?|?|?|?|?|?|?"});
}

TEST(SparseTerms, LongestAcceptedTextsFit) {
  // W = 2: a text of 2W + 262144 characters is accepted.
  std::string word(static_cast<size_t>(kSparseBufferSize) + 3, 'a');
  EXPECT_EQ(Enumerate(Next_Sparse_Ngram, word + " ", 2), Terms{word + " "});
  // W = 6 over scored text at the bound: 4W bytes of padding behind it.
  const size_t pairs = static_cast<size_t>(kSparseBufferSize + 12) / 4;
  std::string scored;
  for (size_t i = 0; i < pairs; ++i) scored += "w 1 ";
  Terms got = Enumerate(Next_Sparse_Ngram, scored, 6, kScoredText);
  // 32 terms per start word, fewer for the last five.
  EXPECT_EQ(got.size(), pairs * 32 - (16 + 24 + 28 + 30 + 31));
  EXPECT_EQ(got.back(), "w ");
}

TEST(SparseTermsDeathTest, TooLongTextOrWindowIsRefused) {
  std::string text(static_cast<size_t>(kSparseBufferSize) + 4, 'a');
  EXPECT_EXIT(Enumerate(Next_Sparse_Ngram, text + " ", 2), ::testing::ExitedWithCode(1),
              "^Cannot not handle such a long text\n$");
  EXPECT_EXIT(Enumerate(Next_Sparse_Ngram, "a b ", 63), ::testing::ExitedWithCode(1),
              "too long for sparse grams");
}

}  // namespace
