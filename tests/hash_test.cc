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

// Keys looked up in batches (repeats among them, growth in the middle of a
// batch) give the same entries, growth and chain order as single calls:
// the two tables scan alike.
TEST(HashTable, BatchLookupMatchesSingleCalls) {
  hash_table* single = Init_Hash();
  hash_table* batched = Init_Hash();
  std::vector<std::string> keys;
  for (int i = 0; i < 30000; ++i) keys.push_back("w" + std::to_string((i * 7919) % 21000) + " x");
  keys.push_back("");
  std::vector<hash_entry*> expected;
  for (const std::string& k : keys) expected.push_back(Hash_Insert(k.c_str(), single));
  std::vector<hash_key_ref> refs;
  for (const std::string& k : keys)
    refs.push_back({k.data(), static_cast<uint32_t>(k.size()), Hash_Key(k.c_str())});
  std::vector<hash_entry*> got(keys.size());
  for (size_t at = 0; at < keys.size(); at += 777)
    Hash_Lookup_Batch(batched, refs.data() + at, std::min<size_t>(777, keys.size() - at), true,
                      got.data() + at);
  ASSERT_EQ(batched->num_entries, single->num_entries);
  EXPECT_EQ(batched->size_index, single->size_index);
  for (size_t i = 0; i < keys.size(); ++i) {
    ASSERT_EQ(got[i], Hash_Find(keys[i].c_str(), batched));
    ASSERT_STREQ(got[i]->symbol, expected[i]->symbol);
  }
  std::vector<std::string> scan_single, scan_batched;
  Init_Hash_Scan(single);
  for (hash_entry* x; (x = Next_Hash_Entry()) != nullptr;) scan_single.emplace_back(x->symbol);
  Init_Hash_Scan(batched);
  for (hash_entry* x; (x = Next_Hash_Entry()) != nullptr;) scan_batched.emplace_back(x->symbol);
  EXPECT_EQ(scan_batched, scan_single);
  // Without insertion: an absent key gives null and adds nothing.
  const std::string absent = "not there";
  hash_key_ref probe[2] = {refs[0], {absent.data(), static_cast<uint32_t>(absent.size()),
                                     Hash_Key(absent.c_str())}};
  hash_entry* found[2];
  Hash_Lookup_Batch(batched, probe, 2, false, found);
  EXPECT_EQ(found[0], got[0]);
  EXPECT_EQ(found[1], nullptr);
  EXPECT_EQ(batched->num_entries, single->num_entries);
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
