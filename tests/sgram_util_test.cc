// The term enumerators: term order for each enumerator and kind, scores of
// scored-text terms, and the long-text bound.
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

TEST(ContiguousTerms, OrderLengthsAndScores) {
  EXPECT_EQ(Enumerate(Next_Ngram_Full, "a b c d ", 2), (Terms{"a b", "b c", "c d"}));
  EXPECT_EQ(Enumerate(Next_Ngram_Full, "a b c d ", 5), Terms{});
  // A last word without its blank is never reached; an empty value has none.
  EXPECT_EQ(Enumerate(Next_Ngram_Full, "a b c", 1), (Terms{"a", "b"}));
  EXPECT_EQ(Enumerate(Next_Ngram_Full, "", 1), Terms{});
  EXPECT_EQ(Enumerate(Next_Ngram, "a b c d ", 2),
            (Terms{"a", "b", "c", "d", "a b", "b c", "c d"}));
  EXPECT_EQ(Enumerate(Next_Ngram, "a b c ", 0), Terms{});
  EXPECT_EQ(Enumerate(Next_Ngram, "x 1 y 2 ", INT_MAX, kScoredText), (Terms{"x", "y", "x y"}));
  EXPECT_EQ(Enumerate(Next_Ngram_Full, "x y ", INT_MAX), Terms{});
  EXPECT_EQ(Enumerate(Next_Ngram_Full, "a 1 b 2.5 c -3 ", 2, kScoredText, true),
            (Terms{"a b|1|2.5", "b c|2.5|-3"}));
}

TEST(SparseTerms, OrderPaddingAndScores) {
  EXPECT_EQ(Enumerate(Next_Sparse_Ngram, "a b c ", 3),
            (Terms{"a b c ", "a ? c ", "a b ", "a ", "b c ", "b ", "c "}));
  // Text shorter than the window: only what fits between the real words.
  EXPECT_EQ(Enumerate(Next_Sparse_Ngram, "a b ", 4), (Terms{"a b ", "a ", "b "}));
  EXPECT_EQ(Enumerate(Next_Sparse_Ngram, " ", 3), Terms{});
  EXPECT_EQ(Enumerate(Next_Sparse_Ngram, "a b ", 0), Terms{});
  // Words holding "*" look like the padding and are dropped.
  EXPECT_EQ(Enumerate(Next_Sparse_Ngram, "a *b c ", 2), (Terms{"a ", "c "}));
  // A text word that is a literal "?" (or ends in one) is trimmed like a
  // wildcard; a window of nothing else leaves the one blank.
  EXPECT_EQ(Enumerate(Next_Sparse_Ngram, "? b? ", 2), (Terms{"b ", " ", "b "}));
  EXPECT_EQ(Enumerate(Next_Sparse_Ngram, "a 1 bb 22 c 3 ", 3, kScoredText, true),
            (Terms{"a bb c |1|22|3", "a ? c |1|?|3", "a bb |1|22|?", "a |1|?|?",
                   "bb c |22|3|?", "bb |22|?|?", "c |3|?|?"}));
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
