// The symbol table (insertion, lookup, growth and whole-table scans) and the
// combiners of word scores.
#include "hash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "text_util.h"

namespace {

// Nothing depends on the scan order, only on every entry being seen once.
TEST(HashTable, InsertFindGrowAndScanEveryEntryOnce) {
  hash_table* t = Init_Hash();
  EXPECT_EQ(Hash_Find("x", t), nullptr);
  std::string key = "term";
  hash_entry* e = Hash_Insert(key.c_str(), t);
  EXPECT_EQ(e->count, 0);
  e->count = -7;
  key[0] = 'T';  // the table holds its own copy
  EXPECT_EQ(Hash_Insert("term", t), e);
  EXPECT_EQ(e->count, -7);
  EXPECT_EQ(Hash_Find("Term", t), nullptr);
  std::vector<hash_entry*> entries = {e, Hash_Insert("", t)};
  // Far past the first growth (at 10006 keys).
  for (int i = 0; i < 25000; ++i) entries.push_back(Hash_Insert(("k" + std::to_string(i)).c_str(), t));
  EXPECT_GT(t->size_index, 0);
  ASSERT_EQ(t->num_entries, 25002);
  EXPECT_EQ(Hash_Find("", t), entries[1]);
  for (int i = 0; i < 25000; ++i) ASSERT_EQ(Hash_Find(("k" + std::to_string(i)).c_str(), t), entries[i + 2]);

  static std::vector<hash_entry*> scanned, direct;
  static std::vector<std::string> symbols;
  Init_Hash_Scan(t);
  for (hash_entry* x; (x = Next_Hash_Entry()) != nullptr;) scanned.push_back(x);
  Apply_To_Hash_Direct([](hash_entry* x) { direct.push_back(x); }, t);
  Apply_To_Hash([](char* s, intptr_t) { symbols.emplace_back(s); }, t);
  std::vector<std::string> names;
  for (hash_entry* x : entries) names.emplace_back(x->symbol);
  for (auto* v : {&entries, &scanned, &direct}) std::sort(v->begin(), v->end());
  std::sort(names.begin(), names.end());
  std::sort(symbols.begin(), symbols.end());
  EXPECT_EQ(scanned, entries);
  EXPECT_EQ(direct, entries);
  EXPECT_EQ(symbols, names);
}

// A wildcard's score is skipped, except in first place, where it reads as 0.
TEST(Combiners, SkipWildcardScores) {
  char s15[] = "1.5", q[] = "?", s3[] = "3", m1[] = "-1";
  char* sum_in[] = {s15, q, s3, nullptr};
  char* wild_first[] = {q, s3, m1, nullptr};
  char* wild_neg[] = {q, m1, q, nullptr};
  EXPECT_EQ(adds(sum_in), 4.5L);
  EXPECT_EQ(maxs(wild_first), 3.0L);
  EXPECT_EQ(mins(wild_first), -1.0L);
  EXPECT_EQ(maxs(wild_neg), 0.0L);
}

}  // namespace
