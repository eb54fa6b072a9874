// Readers for the names file and the training/test files, the streaming
// reader of classification mode, the label and example printers used by the
// prediction output, and the checked allocator Malloc.
//
// All three file kinds share one lexical layer, read_name: fields ended by
// ",", ":" or a period followed by white space, "|"/"%" line comments and
// backslash escapes. Fields are collected into fixed 1 MiB buffers and only
// their final form is copied, so a long text costs one copy.
#include "read_data.h"

#include <sys/mman.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

#include "die.h"
#include "dict.h"
#include "progress.h"

namespace {

// One buffer for the names file, one for example fields. Two spare bytes past
// the field limit: a text value gets one blank appended (by the dictionary
// filter or by squeeze_spaces) after a field of maximal length.
char names_buffer[kFieldBufferSize + 2];
char data_buffer[kFieldBufferSize + 2];

// The character that ended the last field, or EOF.
int delimiter = EOF;

// File being read, for diagnostics about the file itself (read errors, NUL
// bytes); null when read_name is used on a stream of unknown origin.
const char* current_path = nullptr;

dataset_info* dsi = nullptr;        // kept for the streaming reader and printers
char** dictionary = nullptr;        // word list of <stem>.dict, or null
int dict_op = 0;                    // 0 none, 1 keep dict words, 2 drop them
void (*new_instance_hook)(example_data*) = nullptr;

constexpr int kListStep = 32;       // growth of class/attribute/value lists
constexpr int kExampleStep = 2048;  // growth of the example array

inline int next_char(FILE* in) { return getc_unlocked(in); }

// isspace of the "C" locale (the program never changes locale), without a
// library call per character: blank, tab, newline, vertical tab, form feed
// and carriage return.
inline bool is_space(int c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

const char* path_for_messages() {
  return current_path != nullptr ? current_path : "input";
}

// Problems with the file itself rather than with its contents as the format
// defines them: the message names the file.
[[noreturn]] void file_error(const char* what) {
  fprintf(stderr, "mhboost: %s: %s\n", path_for_messages(), what);
  Exit_Run(1);
}

// Called when getc reports EOF: tells a true end of input from a read error
// (a directory opened as a file ends up here with EISDIR).
void check_stream(FILE* in) {
  if (ferror(in)) {
    int err = errno;
    file_error(err != 0 ? strerror(err) : "read error");
  }
}

[[noreturn]] void crashf(const char* format, ...)
    __attribute__((format(printf, 1, 2)));

void crashf(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  vfprintf(stderr, format, ap);
  va_end(ap);
  fprintf(stderr, "\n");
  Exit_Run(255);
}

// Skips the rest of a comment line. A comment is meant to end with a newline;
// one that runs into the end of the input simply ends there.
void skip_line(FILE* in) {
  int c;
  while ((c = next_char(in)) != '\n' && c != EOF) {
  }
  if (c == EOF) check_stream(in);
}

// Grows an array of `count` elements by `step` when it is full.
template <typename T>
T* grow_if_full(T* array, int count, int step) {
  if (count % step != 0) return array;
  size_t bytes = sizeof(T) * (static_cast<size_t>(count) + step);
  T* bigger = static_cast<T*>(realloc(array, bytes));
  if (bigger == nullptr) {
    perror("Malloc");
    Exit_Run(1);
  }
  memset(bigger + count, 0, sizeof(T) * step);
  return bigger;
}

char* copy_string(const char* s) {
  size_t n = strlen(s) + 1;
  char* p = static_cast<char*>(Malloc(n));
  memcpy(p, s, n);
  return p;
}

// "<stem><suffix>" built with the printf format "%s<suffix>".
std::string stem_path(const char* format, const char* stem) {
  int n = snprintf(nullptr, 0, format, stem);
  std::string path(static_cast<size_t>(n) + 1, '\0');
  snprintf(path.data(), path.size(), format, stem);
  path.resize(static_cast<size_t>(n));
  return path;
}

// Reads the value count of a "discrete N" declaration, as atoi would, but
// refusing counts that could not be used (0, negative, absurdly large).
int discrete_count(const char* digits, const char* attribute) {
  errno = 0;
  long n = strtol(digits, nullptr, 10);
  if (n <= 0 || n > 0x7fffffffL || errno == ERANGE) {
    fprintf(stderr,
            "mhboost: %s: attribute %s: \"discrete\" needs a positive number "
            "of values\n",
            path_for_messages(), attribute);
    Exit_Run(1);
  }
  return static_cast<int>(n);
}

// Opens a data file, telling a missing file (not an error for Read_Data)
// from one that exists but cannot be read.
FILE* open_optional(const char* path) {
  FILE* f = fopen(path, "r");
  if (f == nullptr && errno != ENOENT) {
    int err = errno;
    fprintf(stderr, "mhboost: %s: %s\n", path, strerror(err));
    Exit_Run(1);
  }
  return f;
}

}  // namespace

// ---------------------------------------------------------------- fields

int read_name(FILE* in, char* buf) {
  int c;
  // Leading white space and whole-line comments.
  for (;;) {
    c = next_char(in);
    if (c == EOF) {
      check_stream(in);
      buf[0] = '\0';
      delimiter = EOF;
      return 0;
    }
    if (c == '|' || c == '%') {
      skip_line(in);
      continue;
    }
    if (!is_space(c)) break;
  }

  int len = 0;
  auto store = [&](int ch) {
    if (ch == '\0') file_error("NUL byte in a field");
    buf[len++] = static_cast<char>(ch);
    if (len >= kFieldBufferSize) {
      fprintf(stderr, "Name/Data field is too long\n");
      fprintf(stderr, "Increase buffer length (%d)\n", kFieldBufferSize);
      Exit_Run(1);
    }
  };
  // Stores the character after a backslash; false if the input ended.
  auto store_escaped = [&]() {
    int e = next_char(in);
    if (e == EOF) {
      check_stream(in);
      delimiter = EOF;
      return false;
    }
    store(e);
    return true;
  };

  for (;; c = next_char(in)) {
    if (c == EOF) {
      check_stream(in);
      delimiter = EOF;
      break;
    }
    if (c == ',' || c == ':') {
      delimiter = c;
      break;
    }
    if (c == '|' || c == '%') {
      skip_line(in);
      delimiter = '\n';
      break;
    }
    if (c == '\\') {
      if (!store_escaped()) break;
      continue;
    }
    if (c == '.') {
      int after = next_char(in);
      if (after == EOF) {
        // A final period ends the field like one followed by a newline.
        check_stream(in);
        delimiter = EOF;
        break;
      }
      if (is_space(after)) {
        delimiter = after;
        break;
      }
      if (after == '|' || after == '%') {
        skip_line(in);
        delimiter = '\n';
        break;
      }
      // '3.5', 'a.,b': the period and the character after it are data.
      store('.');
      if (after == '\\') {
        if (!store_escaped()) break;
      } else {
        store(after);
      }
      continue;
    }
    store(c);
  }

  while (len > 0 && is_space(static_cast<unsigned char>(buf[len - 1]))) --len;
  buf[len] = '\0';
  return 1;
}

int Last_Delimiter() { return delimiter; }

void squeeze_spaces(char* s) {
  const char* p = s;
  char* q = s;
  while (is_space(static_cast<unsigned char>(*p))) ++p;
  while (*p != '\0') {
    if (is_space(static_cast<unsigned char>(*p))) {
      *q++ = ' ';
      while (is_space(static_cast<unsigned char>(*p))) ++p;
    } else {
      *q++ = *p++;
    }
  }
  // Every text ends in one blank; an empty value becomes a single blank.
  if (q == s || q[-1] != ' ') *q++ = ' ';
  *q = '\0';
}

void crash(const char* message) {
  fprintf(stderr, "%s\n", message);
  Exit_Run(255);
}

// ---------------------------------------------------------------- names

dataset_info* Get_Names(const char* path) {
  FILE* f = fopen(path, "r");
  if (f == nullptr) {
    fprintf(stderr, "Failed to open names file (%s).\n", path);
    Exit_Run(255);
  }
  current_path = path;
  char* buf = names_buffer;
  dataset_info* info = static_cast<dataset_info*>(Malloc(sizeof(dataset_info)));

  // Classes: every field while the delimiter is ",". End of input is not
  // checked here, so an empty file declares one class with an empty name.
  do {
    read_name(f, buf);
    info->class_names = grow_if_full(info->class_names, info->num_classes, kListStep);
    info->class_names[info->num_classes++] = copy_string(buf);
  } while (delimiter == ',');

  while (read_name(f, buf)) {
    info->attributes = grow_if_full(info->attributes, info->num_attributes, kListStep);
    attribute_info* a = &info->attributes[info->num_attributes++];
    a->name = copy_string(buf);
    if (delimiter != ':') crash("expected colon after attribute\n");

    int n = 0;
    do {
      if (!read_name(f, buf)) crash("unexpected eof\n");
      a->values = grow_if_full(a->values, n, kListStep);
      a->values[n++] = copy_string(buf);
    } while (delimiter == ',');

    if (n >= 2) {
      a->num_values = n;
      continue;
    }
    const char* kind = a->values[0];
    if (strcmp(kind, "continuous") == 0) {
      a->num_values = kContinuous;
    } else if (strcmp(kind, "set") == 0 || strcmp(kind, "text") == 0) {
      a->num_values = kText;
    } else if (strcmp(kind, "scoredtext") == 0) {
      a->num_values = kScoredText;
    } else if (strncmp(kind, "discrete", 8) == 0) {
      // The slots are named by the data files in order of first appearance.
      int slots = discrete_count(kind + 8, a->name);
      free(a->values[0]);
      free(a->values);
      a->values = static_cast<char**>(Malloc(sizeof(char*) * slots));
      a->num_values = slots;
    } else if (strcmp(kind, "ignore") == 0) {
      a->num_values = kIgnore;
    } else {
      crash("cannot have only one discrete value for attribute\n");
    }
  }
  fclose(f);
  current_path = nullptr;
  return info;
}

void Print_Names(dataset_info* info, const char* out_name) {
  FILE* out = stderr;
  if (strcmp(out_name, "-") != 0) {
    out = fopen(out_name, "w");
    if (out == nullptr) {
      perror(out_name);
      Exit_Run(1);
    }
  }
  fprintf(out, "%d classes\n", info->num_classes);
  for (int i = 0; i < info->num_classes; ++i)
    fprintf(out, " class %d = %s\n", i, info->class_names[i]);
  fprintf(out, "\n%d attributes\n", info->num_attributes);
  for (int i = 0; i < info->num_attributes; ++i) {
    const attribute_info* a = &info->attributes[i];
    if (a->num_values == kContinuous) {
      fprintf(out, "  attribute %d (%s) is continuous\n", i, a->name);
    } else if (a->num_values == kSet) {
      fprintf(out, "  attribute %d (%s) is a set\n", i, a->name);
    } else if (a->num_values > 0) {
      fprintf(out, "  attribute %d (%s) has %d values\n", i, a->name, a->num_values);
      for (int j = 0; j < a->num_values; ++j)
        fprintf(out, "%5s ", a->values[j] != nullptr ? a->values[j] : "NULL");
      fprintf(out, "\n");
    }
  }
  if (out != stderr) fclose(out);
}

// ---------------------------------------------------------------- examples

unsigned char* Read_Labels(dataset_info* info, char* field) {
  unsigned char* labels = static_cast<unsigned char*>(Malloc(info->num_classes));
  if (field[0] == '\0') return labels;
  char* word = field;
  for (;;) {
    char* space = strchr(word, ' ');
    if (space != nullptr) *space = '\0';
    int l = 0;
    while (l < info->num_classes && strcmp(info->class_names[l], word) != 0) ++l;
    if (l == info->num_classes) {
      fprintf(stderr, "***%s*** ", word);
      crash("bad class name\n");
    }
    labels[l] = 1;
    if (space == nullptr) break;
    word = space + 1;
  }
  return labels;
}

example* Read_Example(dataset_info* info, FILE* in) {
  char* buf = data_buffer;
  if (!read_name(in, buf)) return nullptr;

  // The record and its two per-attribute arrays in one block.
  int n = info->num_attributes;
  size_t values_at = (sizeof(example) + 7) & ~size_t{7};
  size_t unknown_at = values_at + sizeof(attribute_value) * n;
  char* block = static_cast<char*>(Malloc(unknown_at + sizeof(int) * n));
  example* e = reinterpret_cast<example*>(block);
  e->values = reinterpret_cast<attribute_value*>(block + values_at);
  e->is_unknown = reinterpret_cast<int*>(block + unknown_at);

  for (int j = 0; j < n; ++j) {
    attribute_info* a = &info->attributes[j];
    if (strcmp(buf, "?") == 0) {
      e->is_unknown[j] = 1;
    } else if (a->num_values == kContinuous) {
      char* end;
      e->values[j].real = strtod(buf, &end);
      if (end == buf || *end != '\0')
        crashf("illegal attribute value: %s for attribute %s\n", buf, a->name);
    } else if (a->num_values == kText || a->num_values == kScoredText ||
               a->num_values == kSet) {
      if (dict_op != 0) {
        strcat(buf, " ");
        if (dict_op == 1)
          Remove_Non_Dict_Words(dictionary, buf);
        else
          Remove_Dict_Words(dictionary, buf);
      }
      squeeze_spaces(buf);
      char* copy = strdup(buf);
      if (copy == nullptr) crash("Could not copy set\n");
      e->values[j].text = copy;
    } else if (a->num_values > 0) {
      int k = 0;
      while (k < a->num_values && a->values[k] != nullptr &&
             strcmp(a->values[k], buf) != 0)
        ++k;
      if (k == a->num_values)
        crashf("illegal attribute value: %s for attribute %s\n", buf, a->name);
      if (a->values[k] == nullptr) a->values[k] = copy_string(buf);
      e->values[j].index = k;
    } else {
      e->values[j].index = 0;  // ignored attribute
    }
    if (!read_name(in, buf)) crash("end of file reached too soon\n");
  }
  e->labels = Read_Labels(info, buf);
  return e;
}

example** Read_DataSet(dataset_info* info, const char* path, int* count) {
  FILE* in;
  if (strcmp(path, "-") == 0) {
    in = stdin;
    current_path = "standard input";
  } else {
    in = fopen(path, "r");
    if (in == nullptr) crash("can't open file\n");
    current_path = path;
  }
  example** examples = nullptr;
  int n = 0;
  for (example* e; (e = Read_Example(info, in)) != nullptr;) {
    examples = grow_if_full(examples, n, kExampleStep);
    examples[n++] = e;
    if ((n & 1023) == 0) Progress_Update("reading examples", n, "examples");
  }
  Progress_Done();
  if (examples == nullptr) examples = grow_if_full(examples, 0, kExampleStep);
  if (in != stdin) fclose(in);
  current_path = nullptr;
  *count = n;
  return examples;
}

example_data* Read_Data(const char* stem, dataset_info** dsi_out,
                        int classify_only, int dict_mode) {
  dict_op = dict_mode;
  if (dict_op != 0) dictionary = Read_Dictionary(stem_path("%s.dict", stem).c_str());

  dsi = Get_Names(stem_path("%s.names", stem).c_str());
  *dsi_out = dsi;

  example_data* data = static_cast<example_data*>(Malloc(sizeof(example_data)));
  data->num_classes = dsi->num_classes;

  if (classify_only) {
    data->test_examples = static_cast<example**>(Malloc(sizeof(example*)));
    data->test_labels = static_cast<unsigned char**>(Malloc(sizeof(unsigned char*)));
    return data;
  }

  // A set whose file is missing is empty; its arrays are still allocated so
  // that callers never meet a null array beside a zero count.
  auto read_set = [](const std::string& path, int* count) {
    FILE* probe = open_optional(path.c_str());
    if (probe == nullptr) {
      *count = 0;
      return static_cast<example**>(Malloc(sizeof(example*)));
    }
    fclose(probe);
    return Read_DataSet(dsi, path.c_str(), count);
  };
  // Training file first: discrete values take their indexes from it.
  data->train_examples = read_set(stem_path("%s.data", stem), &data->num_train);
  data->test_examples = read_set(stem_path("%s.test", stem), &data->num_test);

  data->train_labels = static_cast<unsigned char**>(
      Malloc(sizeof(unsigned char*) * (data->num_train + 1)));
  for (int i = 0; i < data->num_train; ++i) {
    data->train_examples[i]->index = i;
    data->train_labels[i] = data->train_examples[i]->labels;
  }
  data->test_labels = static_cast<unsigned char**>(
      Malloc(sizeof(unsigned char*) * (data->num_test + 1)));
  for (int i = 0; i < data->num_test; ++i) {
    data->test_examples[i]->index = data->num_train + i;
    data->test_labels[i] = data->test_examples[i]->labels;
  }
  return data;
}

int GetNextTestInstance(example_data* data) {
  if (dsi == nullptr) {
    fprintf(stderr, "mhboost: no names file has been read\n");
    Exit_Run(1);
  }
  current_path = "standard input";
  example* e = Read_Example(dsi, stdin);
  current_path = nullptr;
  if (e == nullptr) {
    data->test_examples[0] = nullptr;
    data->test_labels[0] = nullptr;
    data->num_test = 0;
    return 0;
  }
  e->index = 0;
  data->test_examples[0] = e;
  data->test_labels[0] = e->labels;
  data->num_test = 1;
  if (new_instance_hook != nullptr) new_instance_hook(data);
  return 1;
}

void Set_New_Instance_Hook(void (*hook)(example_data* data)) {
  new_instance_hook = hook;
}

dataset_info* Get_Dataset_Info() { return dsi; }

// ---------------------------------------------------------------- printing

void PrintLabel(int l) { printf("%s ", dsi->class_names[l]); }

void PrintAllLabels(const unsigned char* labels) {
  for (int l = 0; l < dsi->num_classes; ++l)
    if (labels[l]) printf("%s ", dsi->class_names[l]);
}

void PrintInstance(const example* e) {
  for (int j = 0; j < dsi->num_attributes; ++j) {
    const attribute_info* a = &dsi->attributes[j];
    printf("\n%s: ", a->name);
    if (e->is_unknown[j]) {
      printf("?");
    } else if (a->num_values == kContinuous) {
      printf("%7.7f", e->values[j].real);
    } else if (a->num_values == kText || a->num_values == kScoredText ||
               a->num_values == kSet) {
      printf("%s", e->values[j].text);
    } else if (a->num_values > 0) {
      printf("%s", a->values[e->values[j].index]);
    }
  }
}

void Print_Examples(dataset_info* info, const char* out_name, example** ex, int n) {
  FILE* out = stdout;
  if (strcmp(out_name, "-") != 0) {
    out = fopen(out_name, "w");
    if (out == nullptr) {
      perror(out_name);
      Exit_Run(1);
    }
  }
  fprintf(out, "\n%d examples read\n\n", n);
  for (int i = 0; i < n; ++i) {
    const example* e = ex[i];
    fprintf(out, "example %d (class", i);
    for (int l = 0; l < info->num_classes; ++l)
      if (e->labels[l]) fprintf(out, " %s(%d)", info->class_names[l], l);
    fprintf(out, "):\n");
    for (int j = 0; j < info->num_attributes; ++j) {
      const attribute_info* a = &info->attributes[j];
      fprintf(out, "  attr %s(%d) = ", a->name, j);
      if (e->is_unknown[j]) {
        fprintf(out, "?\n");
      } else if (a->num_values == kContinuous) {
        fprintf(out, "%lf\n", e->values[j].real);
      } else if (a->num_values == kSet || a->num_values == kText ||
                 a->num_values == kScoredText) {
        fprintf(out, "%s\n", e->values[j].text);
      } else if (a->num_values > 0) {
        long k = e->values[j].index;
        fprintf(out, "%s(%ld)\n", a->values[k] != nullptr ? a->values[k] : "NULL", k);
      } else {
        fprintf(out, "(ignored)\n");
      }
    }
    fprintf(out, "\n");
  }
  if (out != stdout) fclose(out);
}

void* Malloc_Huge(size_t size) {
  constexpr size_t kHuge = size_t{2} << 20;
  const size_t bytes = (std::max<size_t>(size, 1) + kHuge - 1) / kHuge * kHuge;
  void* p = aligned_alloc(kHuge, bytes);
  if (p == nullptr) {
    perror("Malloc");
    Exit_Run(1);
  }
  madvise(p, bytes, MADV_HUGEPAGE);
  return p;
}

void* Malloc(size_t size) {
  void* p = calloc(size == 0 ? 1 : size, 1);
  if (p == nullptr) {
    perror("Malloc");
    Exit_Run(1);
  }
  return p;
}
