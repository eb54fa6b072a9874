// Dictionary filter: reads the optional word list <stem>.dict and blanks out,
// in place, the words of a text value that are (or are not) in it.
//
// The list is one block of characters with a null-terminated array of word
// starts. Lists made by Read_Dictionary also get a hash set, so that a large
// dictionary does not turn every word of every text into a linear search;
// lists built by other means are searched in order.
#include "dict.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "die.h"
#include "read_data.h"

namespace {

using word_set = std::unordered_set<std::string_view>;

// Word sets of the lists returned by Read_Dictionary (which are never freed
// nor changed, so the views stay valid).
std::unordered_map<char**, word_set>& known_lists() {
  static std::unordered_map<char**, word_set> lists;
  return lists;
}

[[noreturn]] void dict_error(const char* path, const char* what) {
  fprintf(stderr, "mhboost: %s: %s\n", path, what);
  Exit_Run(1);
}

bool in_dictionary(char** dictionary, const word_set* set, const char* word,
                   size_t len) {
  if (set != nullptr) return set->count(std::string_view(word, len)) != 0;
  for (char** d = dictionary; *d != nullptr; ++d)
    if (strncmp(*d, word, len) == 0 && (*d)[len] == '\0') return true;
  return false;
}

// Visits each word of `text` that is followed by a space (words are cut at
// single spaces only) and blanks it when `blank_if_found` matches whether the
// dictionary holds it.
void filter(char** dictionary, char* text, bool blank_if_found) {
  if (dictionary == nullptr) return;
  auto it = known_lists().find(dictionary);
  const word_set* set = it != known_lists().end() ? &it->second : nullptr;
  char* word = text;
  for (char* space; (space = strchr(word, ' ')) != nullptr; word = space + 1) {
    size_t len = static_cast<size_t>(space - word);
    if (len == 0) continue;  // empty words match nothing and have nothing to blank
    if (in_dictionary(dictionary, set, word, len) == blank_if_found)
      memset(word, ' ', len);
  }
}

}  // namespace

char** Read_Dictionary(const char* path) {
  FILE* f = fopen(path, "r");
  if (f == nullptr) {
    perror(path);
    Exit_Run(1);
  }
  // The whole file in memory: words of any length are read without a fixed
  // word buffer, and pipes work as well as files.
  std::vector<char> text;
  char chunk[65536];
  size_t got;
  while ((got = fread(chunk, 1, sizeof chunk, f)) > 0)
    text.insert(text.end(), chunk, chunk + got);
  if (ferror(f)) {
    int err = errno;
    dict_error(path, err != 0 ? strerror(err) : "read error");
  }
  fclose(f);
  if (!text.empty() && memchr(text.data(), 0, text.size()) != nullptr)
    dict_error(path, "NUL byte in the dictionary");

  // First pass: count the words and their total size with terminators.
  size_t words = 0, total = 0;
  for (size_t i = 0; i < text.size();) {
    while (i < text.size() && isspace(static_cast<unsigned char>(text[i]))) ++i;
    if (i == text.size()) break;
    size_t start = i;
    while (i < text.size() && !isspace(static_cast<unsigned char>(text[i]))) ++i;
    ++words;
    total += i - start + 1;
  }

  char** list = static_cast<char**>(Malloc(sizeof(char*) * (words + 1)));
  char* block = static_cast<char*>(Malloc(total + 1));
  word_set& set = known_lists()[list];
  set.reserve(words);

  // Second pass: copy each word to the next free place in the block.
  size_t w = 0;
  char* next = block;
  for (size_t i = 0; i < text.size();) {
    while (i < text.size() && isspace(static_cast<unsigned char>(text[i]))) ++i;
    if (i == text.size()) break;
    size_t start = i;
    while (i < text.size() && !isspace(static_cast<unsigned char>(text[i]))) ++i;
    size_t len = i - start;
    memcpy(next, text.data() + start, len);
    next[len] = '\0';
    list[w++] = next;
    set.emplace(next, len);
    next += len + 1;
  }
  list[w] = nullptr;
  return list;
}

void Remove_Dict_Words(char** dictionary, char* text) {
  filter(dictionary, text, true);
}

void Remove_Non_Dict_Words(char** dictionary, char* text) {
  filter(dictionary, text, false);
}
