// Word ids, sparse-term occurrence counting and the score-combining helpers.
#include "text_util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "hash.h"

namespace {

using Strings = std::vector<std::string>;

TEST(HashTextTest, StableIdsAndLongWords) {
  hash_table* table = Init_Hash();
  std::string big(5000, 'x');
  std::vector<int> got;
  for (const std::string& text : Strings{"a b a c ", "c d ", " ", "a " + big + " " + big + " "}) {
    int* ids = Hash_Text(text.c_str(), table);
    for (int* p = ids; *p != 0; ++p) got.push_back(*p);
    free(ids);
  }
  EXPECT_EQ(got, (std::vector<int>{1, 2, 1, 3, 3, 4, 1, 5, 5}));
  EXPECT_EQ(Hash_Find("", table)->count, 5);
}

TEST(SparseNgramOccurTest, CountsEveryMatchingStart) {
  EXPECT_EQ(Sparse_Ngram_Occur("a b a c a b ", "a ? "), 3);
  EXPECT_EQ(Sparse_Ngram_Occur("a b a c a b ", "a ? a "), 2);
  EXPECT_EQ(Sparse_Ngram_Occur("a a a ", "a a "), 2);
  // A term may not run past the end of the text, wildcards included.
  EXPECT_EQ(Sparse_Ngram_Occur("x a ", "a ? "), 0);
  EXPECT_EQ(Sparse_Ngram_Occur("a ", "a ? c "), 0);
  EXPECT_EQ(Sparse_Ngram_Occur(" ", "a "), 0);
}

TEST(CombinerTest, TiesAndWildcards) {
  // The second argument wins a tie: the sign of zero shows which came back.
  EXPECT_FALSE(std::signbit(max(-0.0, 0.0)));
  EXPECT_TRUE(std::signbit(min(0.0, -0.0)));
  char s15[] = "1.5", q[] = "?", s3[] = "3", m1[] = "-1", nz[] = "-0", z[] = "0";
  char* sum_in[] = {s15, q, s3, nullptr};
  EXPECT_EQ(adds(sum_in), 4.5L);
  char* wild_first[] = {q, s3, m1, nullptr};
  EXPECT_EQ(maxs(wild_first), 3.0L);
  EXPECT_EQ(mins(wild_first), -1.0L);
  // A leading "?" is still converted (to 0); later ones are skipped.
  char* wild_neg[] = {q, m1, q, nullptr};
  EXPECT_EQ(maxs(wild_neg), 0.0L);
  // On a tie the earlier value stays.
  char* zeros[] = {nz, z, nullptr};
  EXPECT_TRUE(std::signbit(mins(zeros)));
}

}  // namespace
