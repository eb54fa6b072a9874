// Tests of the symbol table: the hash of a key, insertion and lookup, growth
// through the bucket ladder, and the scan order that expert numbering uses.
#include "hash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

namespace {

std::vector<hash_entry*> ScanAll(hash_table* table) {
  std::vector<hash_entry*> seen;
  Init_Hash_Scan(table);
  for (hash_entry* e = Next_Hash_Entry(); e != nullptr; e = Next_Hash_Entry()) seen.push_back(e);
  return seen;
}

TEST(HashKey, MultiplyThenXorSignExtendedBytes) {
  EXPECT_EQ(Hash_Key(""), 0u);
  EXPECT_EQ(Hash_Key("ab"), (97u * 137u) ^ 98u);
  // Bytes above 0x7F count as negative values with all upper bits set.
  EXPECT_EQ(Hash_Key("a\xff"), (97u * 137u) ^ 0xFFFFFFFFu);
  EXPECT_EQ(Hash_Key("\xe9t"), (0xFFFFFFE9u * 137u) ^ 116u);
  uint32_t h = 0;  // wraps modulo 2^32
  for (char c : std::string("a long key that overflows")) h = h * 137u ^ uint32_t(c);
  EXPECT_EQ(Hash_Key("a long key that overflows"), h);
}

TEST(HashTable, LazyBucketsAndIdempotentInsert) {
  hash_table* t = Init_Hash();
  EXPECT_EQ(Hash_Find("x", t), nullptr);
  EXPECT_EQ(t->buckets, nullptr);
  EXPECT_TRUE(ScanAll(t).empty());

  std::string key = "term";
  hash_entry* e = Hash_Insert(key.c_str(), t);
  EXPECT_NE(t->buckets, nullptr);
  EXPECT_EQ(e->count, 0);
  EXPECT_NE(e->symbol, key.c_str());  // a private copy
  e->count = -7;
  key[0] = 'T';
  EXPECT_EQ(Hash_Insert("term", t), e);
  EXPECT_EQ(Hash_Find("term", t), e);
  EXPECT_EQ(e->count, -7);
  EXPECT_EQ(Hash_Find("Term", t), nullptr);
  // The empty key is an ordinary key, and it lives in bucket 0.
  hash_entry* empty = Hash_Insert("", t);
  EXPECT_NE(empty, e);
  EXPECT_EQ(t->num_entries, 2);
  EXPECT_EQ(ScanAll(t).front(), empty);
}

TEST(HashTable, GrowsAtTheTenThousandAndSixthKey) {
  hash_table* t = Init_Hash();
  std::vector<hash_entry*> entries;
  for (int i = 0; i < 10005; ++i) entries.push_back(Hash_Insert(("k" + std::to_string(i)).c_str(), t));
  Hash_Insert("k0", t);  // an existing key at the threshold does not grow the table
  EXPECT_EQ(t->size_index, 0);
  entries.push_back(Hash_Insert("k10005", t));
  EXPECT_EQ(t->size_index, 1);
  EXPECT_EQ(t->num_entries, 10006);
  for (int i = 0; i <= 10005; ++i)
    ASSERT_EQ(Hash_Find(("k" + std::to_string(i)).c_str(), t), entries[i]) << i;
  // Every entry is scanned exactly once, in the order of the new buckets.
  std::vector<hash_entry*> scanned = ScanAll(t);
  ASSERT_EQ(scanned.size(), 10006u);
  for (size_t i = 1; i < scanned.size(); ++i)
    ASSERT_LE(Hash_Key(scanned[i - 1]->symbol) % 100003u, Hash_Key(scanned[i]->symbol) % 100003u);
  std::sort(scanned.begin(), scanned.end());
  EXPECT_EQ(std::adjacent_find(scanned.begin(), scanned.end()), scanned.end());
}

TEST(HashTable, ScanVisitsBucketsInOrderNewestFirstWithinAChain) {
  hash_table* t = Init_Hash();
  // Enough keys that many buckets hold chains of two or more.
  std::vector<std::tuple<unsigned, int, hash_entry*>> expected;
  for (int i = 0; i < 6000; ++i) {
    std::string key = "w" + std::to_string(i);
    expected.emplace_back(Hash_Key(key.c_str()) % 5003u, -i, Hash_Insert(key.c_str(), t));
  }
  std::sort(expected.begin(), expected.end());
  std::vector<hash_entry*> order;
  for (const auto& x : expected) order.push_back(std::get<2>(x));
  EXPECT_EQ(ScanAll(t), order);

  // The callback forms walk the same order.
  static std::vector<hash_entry*> direct;
  static std::vector<std::string> symbols;
  Apply_To_Hash_Direct([](hash_entry* e) { direct.push_back(e); }, t);
  Apply_To_Hash([](char* s, intptr_t) { symbols.emplace_back(s); }, t);
  EXPECT_EQ(direct, order);
  ASSERT_EQ(symbols.size(), order.size());
  for (size_t i = 0; i < order.size(); ++i) ASSERT_EQ(symbols[i], order[i]->symbol) << i;
}

}  // namespace
