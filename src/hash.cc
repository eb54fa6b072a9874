// Symbol table: separate chaining over a fixed ladder of bucket counts.
//
// Keys and entries are carved from large arenas: a training collection can
// hold tens of millions of distinct sparse grams, and one heap allocation per
// key and per entry would cost more than the keys themselves. Each key is
// stored right behind its entry, and the entry keeps the key's full hash and
// length, so a chain walk reads one place per entry and compares key bytes
// only when hash and length agree. Entries never move (growth relinks them
// into a new bucket array, bucketed by the hash they keep), so callers may
// keep entry pointers for the whole run.
#include "hash.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "die.h"

namespace {

// Bucket counts, ended by 0. Fixed by design: scan order, growth points and
// therefore the numbering of experts depend on them.
const int Sizes[] = {5003, 100003, 2000003, 40000003, 0};

// h % Sizes[i] by two multiplications instead of a division: with
// M = floor((2^64 - 1) / d) + 1, the remainder of a 32-bit h by d is the high
// 64 bits of (M * h mod 2^64) * d, exactly, for every 32-bit h and d.
constexpr uint64_t magic(uint64_t d) { return UINT64_C(0xFFFFFFFFFFFFFFFF) / d + 1; }
const uint64_t Magic[] = {magic(5003), magic(100003), magic(2000003), magic(40000003), 0};

inline unsigned bucket_of(uint32_t hash, int size_index) {
  const uint64_t low = Magic[size_index] * hash;
  return static_cast<unsigned>(
      (static_cast<unsigned __int128>(low) * static_cast<uint32_t>(Sizes[size_index])) >> 64);
}

// The one scan in progress, shared by all tables.
hash_table* scan_table = nullptr;
int cur_index = -1;
hash_entry* slot = nullptr;

// Bump allocator for keys and entries; blocks are never freed.
constexpr size_t kArenaBlock = size_t{1} << 20;
constexpr uintptr_t kLine = 64;
char* arena_next = nullptr;
size_t arena_left = 0;

// Padding that moves `at` up to a multiple of `align`, and further to the
// next cache line if a block of `size` bytes (at most one line) would
// otherwise straddle two lines.
inline size_t arena_pad(uintptr_t at, size_t size, size_t align) {
  uintptr_t start = (at + (align - 1)) & ~static_cast<uintptr_t>(align - 1);
  if (size <= kLine && start / kLine != (start + size - 1) / kLine)
    start = (start + (kLine - 1)) & ~(kLine - 1);
  return start - at;
}

// An entry and its key are allocated together and kept within one cache line
// when they fit in one, so that a step along a chain costs one memory access.
void* arena_alloc(size_t size, size_t align) {
  size_t pad = arena_pad(reinterpret_cast<uintptr_t>(arena_next), size, align);
  if (arena_next == nullptr || pad + size > arena_left) {
    size_t block = size + kLine > kArenaBlock ? size + kLine : kArenaBlock;
    arena_next = static_cast<char*>(safe_calloc(block, 1));
    arena_left = block;
    pad = arena_pad(reinterpret_cast<uintptr_t>(arena_next), size, align);
  }
  char* p = arena_next + pad;
  arena_next += pad + size;
  arena_left -= pad + size;
  return p;
}

inline bool same_key(const hash_entry* e, const char* key, uint32_t length, uint32_t hash) {
  return e->hash == hash && e->length == length && memcmp(e->symbol, key, length) == 0;
}

hash_entry* find_in(hash_entry** buckets, int size_index, const char* key,
                    uint32_t length, uint32_t hash) {
  for (hash_entry* e = buckets[bucket_of(hash, size_index)]; e != nullptr; e = e->next)
    if (same_key(e, key, length, hash)) return e;
  return nullptr;
}

uint32_t checked_length(size_t length) {
  if (length > UINT32_MAX) fatal("key too long for the symbol table");
  return static_cast<uint32_t>(length);
}

void allocate_buckets(hash_table* table) {
  table->buckets = static_cast<hash_entry**>(
      safe_calloc(Sizes[table->size_index], sizeof(hash_entry*)));
}

// Moves every entry into a bucket array of the next size: old buckets in
// increasing index, each chain from its head, each entry pushed on the head
// of its new chain.
void grow(hash_table* table) {
  int old_size = Sizes[table->size_index];
  hash_entry** old = table->buckets;
  table->size_index++;
  allocate_buckets(table);
  hash_entry** fresh = table->buckets;
  for (int i = 0; i < old_size; ++i) {
    hash_entry* p = old[i];
    while (p != nullptr) {
      hash_entry* next = p->next;
      unsigned b = bucket_of(p->hash, table->size_index);
      p->next = fresh[b];
      fresh[b] = p;
      p = next;
    }
  }
  // The old bucket array is not needed any more; unlike entries, it is
  // never referenced by callers, so it can be released.
  free(old);
}

// Hash_Insert for a key whose length and hash are known; the table has its
// bucket array.
hash_entry* insert_hashed(const char* key, uint32_t length, uint32_t hash,
                          hash_table* table) {
  hash_entry* e = find_in(table->buckets, table->size_index, key, length, hash);
  if (e == nullptr) {
    table->num_entries++;
    e = static_cast<hash_entry*>(arena_alloc(sizeof(hash_entry) + length + 1, alignof(hash_entry)));
    e->symbol = reinterpret_cast<char*>(e + 1);
    memcpy(e->symbol, key, length);
    e->symbol[length] = '\0';
    e->count = 0;
    e->hash = hash;
    e->length = length;
    unsigned b = bucket_of(hash, table->size_index);
    e->next = table->buckets[b];
    table->buckets[b] = e;
  }
  // The growth check is made on every call, whether or not a key was added.
  if (table->num_entries == 2 * Sizes[table->size_index]) {
    if (Sizes[table->size_index + 1] != 0)
      grow(table);
    else
      warning("hash table is crowded, performance may suffer");
  }
  return e;
}

void show_symbol(hash_entry* e) {
  printf("<count=%4d symbol '%s'>", static_cast<int>(e->count), e->symbol);
}

}  // namespace

uint32_t Hash_Key(const char* key) { return Hash_Key_Extend(0, key, strlen(key)); }

hash_table* Init_Hash() {
  return static_cast<hash_table*>(safe_calloc(1, sizeof(hash_table)));
}

hash_entry* Hash_Find(const char* key, hash_table* table) {
  if (table->buckets == nullptr) return nullptr;
  uint32_t length = checked_length(strlen(key));
  return find_in(table->buckets, table->size_index, key, length,
                 Hash_Key_Extend(0, key, length));
}

hash_entry* Hash_Insert(const char* key, hash_table* table) {
  if (table->buckets == nullptr) allocate_buckets(table);
  uint32_t length = checked_length(strlen(key));
  return insert_hashed(key, length, Hash_Key_Extend(0, key, length), table);
}

void Hash_Lookup_Batch(hash_table* table, const hash_key_ref* keys, size_t n,
                       bool insert, hash_entry** out) {
  if (n == 0) return;
  if (table->buckets == nullptr) {
    if (!insert) {
      for (size_t i = 0; i < n; ++i) out[i] = nullptr;
      return;
    }
    allocate_buckets(table);
  }
  // A lookup waits on memory twice, for the bucket and for the entries of
  // its chain, and the keys of one batch fall in unrelated buckets: the
  // bucket of a key some way ahead and the chain head of a nearer one are
  // requested before each lookup, so that several requests are in flight.
  // Growth in between only makes an early request useless.
  constexpr size_t kBucketAhead = 32;
  constexpr size_t kHeadAhead = 16;
  constexpr size_t kSecondAhead = 4;
  for (size_t i = 0; i < n && i < kBucketAhead; ++i)
    __builtin_prefetch(&table->buckets[bucket_of(keys[i].hash, table->size_index)]);
  for (size_t i = 0; i < n; ++i) {
    hash_entry** buckets = table->buckets;
    const int size_index = table->size_index;
    if (i + kBucketAhead < n)
      __builtin_prefetch(&buckets[bucket_of(keys[i + kBucketAhead].hash, size_index)]);
    if (i + kHeadAhead < n) {
      const hash_entry* head = buckets[bucket_of(keys[i + kHeadAhead].hash, size_index)];
      if (head != nullptr) __builtin_prefetch(head);
    }
    if (i + kSecondAhead < n) {
      const hash_key_ref& k = keys[i + kSecondAhead];
      const hash_entry* head = buckets[bucket_of(k.hash, size_index)];
      if (head != nullptr && head->hash != k.hash && head->next != nullptr)
        __builtin_prefetch(head->next);
    }
    const hash_key_ref& k = keys[i];
    out[i] = insert ? insert_hashed(k.key, k.length, k.hash, table)
                    : find_in(buckets, size_index, k.key, k.length, k.hash);
  }
}

void Init_Hash_Scan(hash_table* table) {
  scan_table = table;
  cur_index = -1;
}

hash_entry* Next_Hash_Entry() {
  if (slot != nullptr) {
    hash_entry* e = slot;
    slot = slot->next;
    return e;
  }
  if (scan_table == nullptr || scan_table->buckets == nullptr) return nullptr;
  int size = Sizes[scan_table->size_index];
  do {
    ++cur_index;
  } while (cur_index < size && scan_table->buckets[cur_index] == nullptr);
  if (cur_index >= size) return nullptr;
  hash_entry* e = scan_table->buckets[cur_index];
  slot = e->next;
  return e;
}

void Apply_To_Hash(void (*fn)(char* symbol, intptr_t count), hash_table* table) {
  Init_Hash_Scan(table);
  for (hash_entry* e = Next_Hash_Entry(); e != nullptr; e = Next_Hash_Entry())
    fn(e->symbol, e->count);
}

void Apply_To_Hash_Direct(void (*fn)(hash_entry* entry), hash_table* table) {
  Init_Hash_Scan(table);
  for (hash_entry* e = Next_Hash_Entry(); e != nullptr; e = Next_Hash_Entry()) fn(e);
}

void show_hashtab(hash_table* table) {
  if (table->buckets == nullptr) return;
  for (int i = 0; i < Sizes[table->size_index]; ++i) {
    if (table->buckets[i] == nullptr) continue;
    printf("slot %7d: ", i);
    for (hash_entry* e = table->buckets[i]; e != nullptr; e = e->next) {
      printf("   ");
      show_symbol(e);
      printf("\n");
    }
  }
}

void scan_hashtab(hash_table* table) {
  Init_Hash_Scan(table);
  for (hash_entry* e = Next_Hash_Entry(); e != nullptr; e = Next_Hash_Entry()) {
    show_symbol(e);
    printf("\n");
  }
}

void* safe_calloc(size_t count, size_t size) {
  void* p = calloc(count == 0 ? 1 : count, size == 0 ? 1 : size);
  if (p == nullptr) fatal("out of memory");
  return p;
}

void fatal(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  fprintf(stderr, "fatal: ");
  vfprintf(stderr, format, ap);
  fprintf(stderr, "\n");
  va_end(ap);
  Exit_Run(1);
}

void warning(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  fprintf(stderr, "warning: ");
  vfprintf(stderr, format, ap);
  fprintf(stderr, "\n");
  va_end(ap);
}
