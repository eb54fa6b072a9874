// Fuzz target: a training file read against a fixed names file, through
// Read_Data (so the dictionary filters run as they do in the program) and
// Read_DataSet. The first byte picks one of four names files and the
// dictionary mode; the rest is the training file.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_common.h"
#include "read_data.h"

namespace data_target {

// Every attribute kind, and both ways of declaring a discrete attribute.
constexpr int kVariants = 4;
const char* const kNames[kVariants] = {
    "sports, politics, science, business.\n"
    "headline: text.\nsource: wire, web, print.\nwords: continuous.\n",
    "sports, politics, science.\nheadline: text.\nlength: continuous.\n"
    "source: wire, web, print.\n",
    "sports, politics, science.\nheadline: text.\nlength: continuous.\n"
    "source: wire, web, print.\nkind: discrete 3.\njunk: ignore.\n",
    "a, b, c.\nscored: scoredtext.\nbody: set.\n"};
const char kDictionary[] = "the a of cat\ndog\tgoal  cup\n";

inline bool In_Dictionary(const char* word, size_t len) {
  static const char* const words[] = {"the", "a", "of", "cat", "dog", "goal", "cup"};
  for (const char* w : words)
    if (strlen(w) == len && strncmp(w, word, len) == 0) return true;
  return false;
}

// A stored text: single blanks, no other white space, one trailing blank.
inline void Check_Text(const char* t, int dict_mode) {
  size_t n = strlen(t);
  FUZZ_CHECK(n >= 1 && t[n - 1] == ' ');
  FUZZ_CHECK(n == 1 || t[0] != ' ');
  for (size_t i = 0; i < n; ++i) {
    FUZZ_CHECK(t[i] == ' ' || !isspace(static_cast<unsigned char>(t[i])));
    if (i > 0) FUZZ_CHECK(!(t[i] == ' ' && t[i - 1] == ' '));
  }
  if (dict_mode == 1) {
    // Only dictionary words survive (a word holding a tab or a newline is
    // one word for the filter, and no dictionary word holds one).
    for (const char* w = t; *w != '\0';) {
      const char* e = strchr(w, ' ');
      if (e != w) FUZZ_CHECK(In_Dictionary(w, static_cast<size_t>(e - w)));
      w = e + 1;
    }
  }
}

inline void Check_Example(const dataset_info* dsi, const example* e,
                          int dict_mode) {
  for (int j = 0; j < dsi->num_attributes; ++j) {
    const attribute_info* a = &dsi->attributes[j];
    FUZZ_CHECK(e->is_unknown[j] == 0 || e->is_unknown[j] == 1);
    if (e->is_unknown[j]) continue;
    if (a->num_values == kText || a->num_values == kScoredText) {
      Check_Text(e->values[j].text, dict_mode);
    } else if (a->num_values > 0) {
      long k = e->values[j].index;
      FUZZ_CHECK(k >= 0 && k < a->num_values && a->values[k] != nullptr);
    }
  }
  for (int l = 0; l < dsi->num_classes; ++l)
    FUZZ_CHECK(e->labels[l] == 0 || e->labels[l] == 1);
}

inline void Free_Examples(const dataset_info* dsi, example** ex, int n) {
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < dsi->num_attributes; ++j) {
      int kind = dsi->attributes[j].num_values;
      if (!ex[i]->is_unknown[j] && (kind == kText || kind == kScoredText))
        free(ex[i]->values[j].text);
    }
    free(ex[i]->labels);
    free(ex[i]);  // the record and its value arrays are one block
  }
  free(ex);
}

inline void Free_Names(dataset_info* info) {
  for (int i = 0; i < info->num_classes; ++i) free(info->class_names[i]);
  free(info->class_names);
  for (int j = 0; j < info->num_attributes; ++j) {
    attribute_info* a = &info->attributes[j];
    int held = a->num_values > 0 ? a->num_values : 1;
    for (int v = 0; v < held; ++v) free(a->values[v]);
    free(a->values);
    free(a->name);
  }
  free(info->attributes);
  free(info);
}

inline int One_Input(const uint8_t* data, size_t size) {
  static const std::string dir = [] {
    const std::string& d = fuzz::Scratch_Dir();
    for (int v = 0; v < kVariants; ++v) {
      std::string stem = d + "/data" + std::to_string(v);
      fuzz::Write_File(stem + ".names", kNames[v]);
      fuzz::Write_File(stem + ".dict", kDictionary);
    }
    return d;
  }();
  if (size < 1) return 0;
  const int variant = data[0] % kVariants;
  const int dict_mode = (data[0] / kVariants) % 3;
  const std::string stem = dir + "/data" + std::to_string(variant);
  fuzz::Write_File(stem + ".data", data + 1, size - 1);

  dataset_info* dsi = nullptr;
  example_data* d = nullptr;
  int status = fuzz::Guarded(
      [&] { d = Read_Data(stem.c_str(), &dsi, 0, dict_mode); });
  if (status != -1) return 0;

  FUZZ_CHECK(d->num_classes == dsi->num_classes && d->num_test == 0);
  for (int i = 0; i < d->num_train; ++i) {
    FUZZ_CHECK(d->train_examples[i]->index == i);
    FUZZ_CHECK(d->train_labels[i] == d->train_examples[i]->labels);
    Check_Example(dsi, d->train_examples[i], dict_mode);
#ifndef MHBOOST_FUZZ_NO_MAIN
    PrintInstance(d->train_examples[i]);  // standard output is closed
#endif
  }
  Free_Examples(dsi, d->train_examples, d->num_train);
  free(d->test_examples);
  free(d->train_labels);
  free(d->test_labels);
  free(d);
  Free_Names(dsi);
  return 0;
}

}  // namespace data_target

#ifndef MHBOOST_FUZZ_NO_MAIN
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return data_target::One_Input(data, size);
}
#endif
