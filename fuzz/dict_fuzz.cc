// Fuzz target: the dictionary. The input up to its first NUL byte is the
// dictionary file, the rest the raw text of a value (the whole input serves
// as both when it holds no NUL). The word list is compared with an
// independent split of the file, and both filters, on the list made by
// Read_Dictionary and on a plain list searched in order, are compared with
// a direct reading of the rule: a word is the stretch before a space.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "dict.h"
#include "fuzz_common.h"

namespace dict_target {

inline std::vector<std::string> Split_Words(const std::string& s) {
  std::vector<std::string> words;
  size_t i = 0;
  while (i < s.size()) {
    while (i < s.size() && isspace(static_cast<unsigned char>(s[i]))) ++i;
    size_t start = i;
    while (i < s.size() && !isspace(static_cast<unsigned char>(s[i]))) ++i;
    if (i > start) words.push_back(s.substr(start, i - start));
  }
  return words;
}

// The filter as the rule states it.
inline std::string Expected(const std::string& text,
                            const std::set<std::string>& dict,
                            bool blank_if_found) {
  std::string out = text;
  size_t w = 0;
  for (size_t sp; (sp = out.find(' ', w)) != std::string::npos; w = sp + 1) {
    if (sp == w) continue;
    bool found = dict.count(text.substr(w, sp - w)) != 0;
    if (found == blank_if_found) out.replace(w, sp - w, sp - w, ' ');
  }
  return out;
}

inline std::string Filtered(char** list, const std::string& text,
                            bool remove_dict) {
  std::vector<char> buf(text.begin(), text.end());
  buf.push_back('\0');
  if (remove_dict)
    Remove_Dict_Words(list, buf.data());
  else
    Remove_Non_Dict_Words(list, buf.data());
  return std::string(buf.data());
}

inline int One_Input(const uint8_t* data, size_t size) {
  static const std::string path = fuzz::Scratch_Dir() + "/in.dict";
  const char* bytes = reinterpret_cast<const char*>(data);
  const uint8_t* nul = static_cast<const uint8_t*>(memchr(data, 0, size));
  std::string file(bytes, nul != nullptr ? static_cast<size_t>(nul - data) : size);
  std::string text = file;
  if (nul != nullptr) {
    const char* rest = reinterpret_cast<const char*>(nul + 1);
    text.assign(rest, strnlen(rest, size - static_cast<size_t>(nul + 1 - data)));
  }
  text += ' ';  // the reader appends one blank before filtering
  fuzz::Write_File(path, file);

  char** list = nullptr;
  int status = fuzz::Guarded([&] { list = Read_Dictionary(path.c_str()); });
  if (status != -1) return 0;

  std::vector<std::string> words = Split_Words(file);
  size_t n = 0;
  while (list[n] != nullptr) {
    FUZZ_CHECK(n < words.size() && words[n] == list[n]);
    ++n;
  }
  FUZZ_CHECK(n == words.size());

  std::set<std::string> dict(words.begin(), words.end());
  const std::string drop = Expected(text, dict, true);
  const std::string keep = Expected(text, dict, false);
  FUZZ_CHECK(Filtered(list, text, true) == drop);
  FUZZ_CHECK(Filtered(list, text, false) == keep);

  // The same words in a list that Read_Dictionary did not make.
  std::vector<char*> plain;
  for (std::string& w : words) plain.push_back(w.data());
  plain.push_back(nullptr);
  FUZZ_CHECK(Filtered(plain.data(), text, true) == drop);
  FUZZ_CHECK(Filtered(plain.data(), text, false) == keep);

  FUZZ_CHECK(Filtered(nullptr, text, true) == text);
  FUZZ_CHECK(Filtered(nullptr, text, false) == text);
  // The list is never freed: the filter keeps a word set keyed by it.
  return 0;
}

}  // namespace dict_target

#ifndef MHBOOST_FUZZ_NO_MAIN
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return dict_target::One_Input(data, size);
}
#endif
