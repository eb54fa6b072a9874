// Symbol table: separate chaining over a fixed ladder of bucket counts.
//
// Keys and entries are carved from large arenas: a training collection can
// hold tens of millions of distinct sparse grams, and one heap allocation per
// key and per entry would cost more than the keys themselves. Entries never
// move (growth relinks them into a new bucket array), so callers may keep
// entry pointers for the whole run.
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

// The one scan in progress, shared by all tables.
hash_table* scan_table = nullptr;
int cur_index = -1;
hash_entry* slot = nullptr;

// Bump allocator for keys and entries; blocks are never freed.
constexpr size_t kArenaBlock = size_t{1} << 20;
char* arena_next = nullptr;
size_t arena_left = 0;

void* arena_alloc(size_t size, size_t align) {
  size_t pad = (align - (reinterpret_cast<uintptr_t>(arena_next) & (align - 1))) &
               (align - 1);
  if (arena_next == nullptr || pad + size > arena_left) {
    size_t block = size + align > kArenaBlock ? size + align : kArenaBlock;
    arena_next = static_cast<char*>(safe_calloc(block, 1));
    arena_left = block;
    pad = (align - (reinterpret_cast<uintptr_t>(arena_next) & (align - 1))) &
          (align - 1);
  }
  char* p = arena_next + pad;
  arena_next += pad + size;
  arena_left -= pad + size;
  return p;
}

inline unsigned bucket_of(const char* key, int size_index) {
  return Hash_Key(key) % static_cast<unsigned>(Sizes[size_index]);
}

hash_entry* find_in(hash_entry** buckets, int size_index, const char* key) {
  for (hash_entry* e = buckets[bucket_of(key, size_index)]; e != nullptr; e = e->next)
    if (strcmp(e->symbol, key) == 0) return e;
  return nullptr;
}

void show_symbol(hash_entry* e) {
  printf("<count=%4d symbol '%s'>", static_cast<int>(e->count), e->symbol);
}

}  // namespace

uint32_t Hash_Key(const char* key) {
  uint32_t h = 0;
  for (const char* p = key; *p != '\0'; ++p) {
    // Bytes are read as signed and sign-extended: keys with bytes above 0x7F
    // must land in the buckets this rule gives.
    int32_t b = static_cast<signed char>(*p);
    h = h * 137u;
    h ^= static_cast<uint32_t>(b);
  }
  return h;
}

hash_table* Init_Hash() {
  return static_cast<hash_table*>(safe_calloc(1, sizeof(hash_table)));
}

hash_entry* Hash_Find(const char* key, hash_table* table) {
  if (table->buckets == nullptr) return nullptr;
  return find_in(table->buckets, table->size_index, key);
}

hash_entry* Hash_Insert(const char* key, hash_table* table) {
  if (table->buckets == nullptr)
    table->buckets = static_cast<hash_entry**>(
        safe_calloc(Sizes[table->size_index], sizeof(hash_entry*)));
  hash_entry* e = find_in(table->buckets, table->size_index, key);
  if (e == nullptr) {
    table->num_entries++;
    size_t len = strlen(key) + 1;
    e = static_cast<hash_entry*>(arena_alloc(sizeof(hash_entry), alignof(hash_entry)));
    e->symbol = static_cast<char*>(arena_alloc(len, 1));
    memcpy(e->symbol, key, len);
    e->count = 0;
    unsigned b = bucket_of(key, table->size_index);
    e->next = table->buckets[b];
    table->buckets[b] = e;
  }
  if (table->num_entries == 2 * Sizes[table->size_index]) {
    if (Sizes[table->size_index + 1] != 0) {
      int old_size = Sizes[table->size_index];
      hash_entry** old = table->buckets;
      table->size_index++;
      hash_entry** fresh = static_cast<hash_entry**>(
          safe_calloc(Sizes[table->size_index], sizeof(hash_entry*)));
      for (int i = 0; i < old_size; ++i) {
        hash_entry* p = old[i];
        while (p != nullptr) {
          hash_entry* next = p->next;
          unsigned b = bucket_of(p->symbol, table->size_index);
          p->next = fresh[b];
          fresh[b] = p;
          p = next;
        }
      }
      // The old bucket array is not needed any more; unlike entries, it is
      // never referenced by callers, so it can be released.
      free(old);
      table->buckets = fresh;
      e = find_in(table->buckets, table->size_index, key);
    } else {
      warning("hash table is crowded, performance may suffer");
    }
  }
  return e;
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
