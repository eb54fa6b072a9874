// String-keyed symbol table: maps each distinct term to one caller-owned
// machine word. Separate chaining over a fixed ladder of prime bucket counts;
// entries are only ever added, never removed or moved, so an entry pointer
// stays valid for the life of the program. Also home of the program's generic
// diagnostics (fatal, warning) and the zero-filling allocator safe_calloc.
#ifndef MHBOOST_HASH_H_
#define MHBOOST_HASH_H_

#include <cstddef>
#include <cstdint>

struct hash_entry {
  char* symbol;      // private copy of the key
  intptr_t count;    // caller-owned word: counter, small id or pointer
  hash_entry* next;  // next entry of the same bucket
  uint32_t hash;     // Hash_Key(symbol), compared before the key bytes
  uint32_t length;   // strlen(symbol)
};

struct hash_table {
  int size_index;       // index into the size ladder
  int num_entries;      // distinct keys held
  hash_entry** buckets; // null until the first insertion
};

/// A new, empty table (no bucket array yet).
hash_table* Init_Hash();
/// The entry for `key`: the existing one or a new one whose count is 0.
hash_entry* Hash_Insert(const char* key, hash_table* table);
/// The entry for `key`, or null.
hash_entry* Hash_Find(const char* key, hash_table* table);

/// A key given by its bytes: `length` bytes at `key` (no NUL among them; a
/// new entry's copy is NUL-terminated) whose Hash_Key is `hash`.
struct hash_key_ref {
  const char* key;
  uint32_t length;
  uint32_t hash;
};

/// Hash_Insert (or, with insert false, Hash_Find) of keys[0..n) in order,
/// with the same results, growth points and chain order as n single calls;
/// out[i] receives the entry of keys[i] (null: absent, Hash_Find only). The
/// buckets and chain heads of later keys are fetched from memory while
/// earlier keys are looked up.
void Hash_Lookup_Batch(hash_table* table, const hash_key_ref* keys, size_t n,
                       bool insert, hash_entry** out);

/// One scan at a time over the whole program; run every scan to its end.
void Init_Hash_Scan(hash_table* table);
hash_entry* Next_Hash_Entry();

void Apply_To_Hash(void (*fn)(char* symbol, intptr_t count), hash_table* table);
void Apply_To_Hash_Direct(void (*fn)(hash_entry* entry), hash_table* table);

/// Debugging dumps to standard output.
void show_hashtab(hash_table* table);
void scan_hashtab(hash_table* table);

/// The raw hash of a key (before reduction modulo the bucket count).
uint32_t Hash_Key(const char* key);
/// The raw hash of the key made of the bytes already hashed into `h`
/// followed by bytes[0..length): Hash_Key(a + b) is
/// Hash_Key_Extend(Hash_Key(a), b, strlen(b)).
inline uint32_t Hash_Key_Extend(uint32_t h, const char* bytes, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    // Bytes are read as signed and sign-extended: keys with bytes above 0x7F
    // must land in the buckets this rule gives.
    h = h * 137u;
    h ^= static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(bytes[i])));
  }
  return h;
}

/// Zero-filled block of count * size bytes; "fatal: out of memory" otherwise.
void* safe_calloc(size_t count, size_t size);
/// "fatal: " + message + newline on standard error, exit status 1.
[[noreturn]] void fatal(const char* format, ...)
    __attribute__((format(printf, 1, 2)));
/// "warning: " + message + newline on standard error; returns.
void warning(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif  // MHBOOST_HASH_H_
