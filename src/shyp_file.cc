// The strong hypothesis file <stem>.shyp: merging repeated rules, writing the
// model after training, and reading it back (then indexing its rules against
// the examples in memory) for continued training and for classification.
//
// The reader is strict where the layout leaves room for damage: every token
// is bounded, every number must be a whole number token, and a file that ends
// anywhere but between two hypotheses is reported with its name and line,
// so that no rule is ever built from values the file did not hold.
#include <cerrno>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "die.h"
#include "read_data.h"
#include "sgram_expert.h"
#include "sgram_shyp.h"
#include "sgram_util.h"
#include "weak_learn.h"

namespace {

// The longest 'Text:TYPE:term' header token the reader accepts.
constexpr int kMaxHeaderLength = 1023;
// Number tokens longer than this cannot come from the writer.
constexpr int kMaxNumberLength = 1023;

// Where the reader stands, for its messages. Read_Weak_Hyp may be handed a
// stream directly, so the defaults describe an anonymous stream.
const char* reader_name = "model stream";
int reader_line = 1;
// Set when the last token read ran into the end of the stream: the writer
// ends every model with newlines, so such a token may have been cut short.
bool token_at_eof = false;

[[noreturn]] void Model_Error(const char* problem, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// `problem` is "truncated" or "malformed"; the details say what is missing
// or wrong.
void Model_Error(const char* problem, const char* format, ...) {
  fprintf(stderr, "mhboost: %s:%d: model file is %s (", reader_name,
          reader_line, problem);
  va_list ap;
  va_start(ap, format);
  vfprintf(stderr, format, ap);
  va_end(ap);
  fprintf(stderr, ")\n");
  Exit_Run(1);
}

// Reads the next white-space-separated token into buf (room for max + 1
// bytes), as a "%s" conversion would, counting lines on the way. Returns
// false at the end of the stream. A token longer than max is an error.
bool Read_Token(FILE* in, char* buf, int max, const char* what) {
  int c;
  while ((c = getc(in)) != EOF && isspace(c)) {
    if (c == '\n') ++reader_line;
  }
  if (c == EOF) {
    if (ferror(in)) {
      fprintf(stderr, "mhboost: %s: cannot read the model file: %s\n",
              reader_name, strerror(errno));
      Exit_Run(1);
    }
    return false;
  }
  int len = 0;
  while (c != EOF && !isspace(c)) {
    if (len == max) {
      buf[len] = '\0';
      Model_Error("malformed", "%s longer than %d characters: '%.40s...'",
                  what, max, buf);
    }
    buf[len++] = static_cast<char>(c);
    c = getc(in);
  }
  buf[len] = '\0';
  token_at_eof = c == EOF;
  // The separator stays in the stream, as after a scanf conversion.
  if (c != EOF) ungetc(c, in);
  return true;
}

// Converts a whole token as "%lg" would read it; anything left over is an
// error rather than the start of the next token.
double Token_To_Double(const char* token, const char* what) {
  char* end = nullptr;
  double v = strtod(token, &end);
  if (end == token || *end != '\0')
    Model_Error("malformed", "%s is not a number: '%s'", what, token);
  return v;
}

// Reads one value; the end of the stream here is a cut inside a rule.
double Read_Value(FILE* in, const char* what) {
  char buf[kMaxNumberLength + 1];
  if (!Read_Token(in, buf, kMaxNumberLength, what))
    Model_Error("truncated", "the file ends before %s", what);
  if (token_at_eof)
    Model_Error("truncated", "the file ends inside %s: '%s'", what, buf);
  return Token_To_Double(buf, what);
}

example_data* Model_Data() {
  example_data* d = Weak_Data();
  if (d == nullptr) {
    fprintf(stderr,
            "mhboost: the strong hypothesis needs the data set to be read "
            "first\n");
    Exit_Run(1);
  }
  return d;
}

// Zero-filled array of n elements; never a zero-byte request, which the
// allocator could answer with null.
void* Alloc_Array(int n, size_t size) {
  return Malloc((n > 0 ? static_cast<size_t>(n) : 1) * size);
}

double* New_Vector(int k) {
  return static_cast<double*>(Alloc_Array(k, sizeof(double)));
}

char* Copy_String(const char* s) {
  size_t n = strlen(s);
  char* copy = static_cast<char*>(Malloc(n + 1));
  memcpy(copy, s, n + 1);
  return copy;
}

char* Model_Path(const char* stem) {
  if (stem == nullptr) {
    fprintf(stderr, "mhboost: no file stem given (use -S stem)\n");
    Exit_Run(1);
  }
  size_t n = strlen(stem) + sizeof(".shyp");
  char* path = static_cast<char*>(Malloc(n));
  snprintf(path, n, "%s.%s", stem, "shyp");
  return path;
}

bool Is_Valued_Type(int type) {
  return type == kTypeThreshold || type == kTypeLinear;
}

// ---- writing ----

// One vector of k values, six to a line, always followed by a blank line.
void Write_Vector(FILE* out, const double* v, int k) {
  for (int l = 0; l < k; ++l) {
    fprintf(out, "%12.10f ", v != nullptr ? v[l] : 0.0);
    if ((l + 1) % 6 == 0) fprintf(out, "\n");
  }
  fprintf(out, k % 6 == 0 ? "\n" : "\n\n");
}

// The term as it stands in a header: blanks become '#', so that the header
// is one token, and the trailing blank of a sparse term is dropped.
char* Encode_Term(const char* term) {
  char* s = Copy_String(term);
  size_t n = strlen(s);
  for (size_t i = 0; i < n; ++i)
    if (s[i] == ' ') s[i] = '#';
  if (n > 0 && s[n - 1] == '#') s[n - 1] = '\0';
  return s;
}

// Scales the three prediction vectors of e in place by w.
void Scale_Vectors(text_expert_rec* e, double w, int k) {
  double* vs[3] = {e->c0, e->c1, e->c2};
  for (double* v : vs) {
    if (v == nullptr) continue;
    for (int l = 0; l < k; ++l) v[l] = v[l] * w;
  }
}

}  // namespace

weak_hyp* Allocate_Weak_Hyp(int count) {
  return static_cast<weak_hyp*>(Alloc_Array(count, sizeof(weak_hyp)));
}

void CompileStrongTextHypothesis(weak_hyp* whs, int* count) {
  int n = *count;
  int k = Model_Data()->num_classes;
  int kept = 0;
  for (int i = 0; i < n; ++i) {
    text_expert_rec* e = whs[i].hyp;
    if (e == nullptr || e->term == nullptr) continue;
    double w = whs[i].weight;
    Scale_Vectors(e, w, k);
    for (int j = i + 1; j < n; ++j) {
      text_expert_rec* f = whs[j].hyp;
      if (f == nullptr || f->term == nullptr) continue;
      if (e->type == kTypeLinear || strcmp(e->term, f->term) != 0) continue;
      if (!(e->type == kTypeFgram || e->threshold == f->threshold)) continue;
      f->term = nullptr;
      double wj = whs[j].weight;
      w = w + wj;
      double** mine[3] = {&e->c0, &e->c1, &e->c2};
      double* theirs[3] = {f->c0, f->c1, f->c2};
      for (int r = 0; r < 3; ++r) {
        if (theirs[r] == nullptr) continue;
        // A missing vector of the target counts as zeros.
        if (*mine[r] == nullptr) *mine[r] = New_Vector(k);
        double* v = *mine[r];
        for (int l = 0; l < k; ++l) v[l] = v[l] + wj * theirs[r][l];
      }
    }
    double* vs[3] = {e->c0, e->c1, e->c2};
    for (double* v : vs) {
      if (v == nullptr) continue;
      for (int l = 0; l < k; ++l) v[l] = v[l] / w;
    }
    whs[i].weight = w;
    whs[kept++] = whs[i];
  }
  *count = kept;
}

void Write_Strong_Hypothesis_To(FILE* out, weak_hyp* whs, int count) {
  int k = Model_Data()->num_classes;
  fprintf(out, "%d\n\n", count);
  for (int i = 0; i < count; ++i) {
    const text_expert_rec* e = whs[i].hyp;
    int type = e->type;
    const char* name;
    int vectors;
    switch (type) {
      case kTypeSgram:
      case kTypeNgram:
      case kTypeFgram:
        name = Text_Expert_Type_Name[kTypeSgram];
        vectors = 2;
        break;
      case kTypeAndw:
      case kTypeOrw:
      case kTypeLinear:
        name = Text_Expert_Type_Name[type];
        vectors = 1;
        break;
      case kTypeThreshold:
        name = Text_Expert_Type_Name[type];
        vectors = 3;
        break;
      default:
        fprintf(stderr, "mhboost: cannot write a rule of unknown type %d\n",
                type);
        Exit_Run(1);
    }
    char* term = Encode_Term(e->term);
    fprintf(out, "%20.15f %s%c%s%c%s\n\n", whs[i].weight, "Text", ':', name,
            ':', term);
    free(term);
    const double* vs[3] = {e->c0, e->c1, e->c2};
    for (int r = 0; r < vectors; ++r) Write_Vector(out, vs[r], k);
    if (type == kTypeThreshold) fprintf(out, "%12.10f\n\n", e->threshold);
    if (type == kTypeLinear) {
      Write_Vector(out, e->linear_a, k);
      Write_Vector(out, e->linear_b, k);
    }
    fprintf(out, "\n");
  }
}

namespace {

// Writes the model to `out` and closes it. Returns 0, or the error number of
// the first write or close that failed.
int Write_And_Close(FILE* out, weak_hyp* whs, int count) {
  Write_Strong_Hypothesis_To(out, whs, count);
  int error = ferror(out) != 0 ? (errno != 0 ? errno : EIO) : 0;
  if (fclose(out) != 0 && error == 0) error = errno;
  return error;
}

[[noreturn]] void Model_Write_Failed(const char* path, int error) {
  fprintf(stderr, "mhboost: %s: cannot write the model file: %s\n", path,
          strerror(error));
  Exit_Run(1);
}

}  // namespace

void WriteStrongHypothesis(weak_hyp* whs, int* count, int /*ecoc_mode*/) {
  CompileStrongTextHypothesis(whs, count);
  char* path = Model_Path(Weak_File_Stem());
  auto write_in_place = [&] {
    FILE* out = fopen(path, "w");
    if (out == nullptr) {
      perror(path);
      Exit_Run(1);
    }
    errno = 0;
    const int error = Write_And_Close(out, whs, *count);
    if (error != 0) Model_Write_Failed(path, error);
  };
  // The model normally goes to a file beside the one it replaces and is
  // renamed over it only when complete, so that a failed write never
  // destroys an older model; through a symbolic link, beside the file the
  // link names. Anything that is not a plain file (a device, a pipe, a
  // directory, a link to nothing yet) is opened and written as it stands,
  // and opening a directory fails with the system's text for it.
  struct stat st;
  const bool exists = stat(path, &st) == 0;
  char* target = path;
  struct stat link;
  if (lstat(path, &link) == 0 && S_ISLNK(link.st_mode)) target = realpath(path, nullptr);
  if ((exists && !S_ISREG(st.st_mode)) || target == nullptr) {
    write_in_place();
    free(path);
    return;
  }
  // A model that may not be written is refused as opening it would be,
  // before anything is written.
  if (exists) {
    const int fd = open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
      perror(path);
      Exit_Run(1);
    }
    close(fd);
  }
  size_t n = strlen(target) + 32;
  char* tmp = static_cast<char*>(Malloc(n));
  snprintf(tmp, n, "%s.tmp.%ld", target, static_cast<long>(getpid()));
  FILE* out = fopen(tmp, "w");
  if (out == nullptr) {
    // Nothing can be made beside it (a directory that may not be written,
    // a name too long with the suffix): write the model in place.
    write_in_place();
  } else {
    // The new file keeps the permissions of the one it replaces.
    if (exists) fchmod(fileno(out), st.st_mode & 07777);
    errno = 0;
    int error = Write_And_Close(out, whs, *count);
    if (error == 0 && rename(tmp, target) != 0) error = errno;
    if (error != 0) {
      remove(tmp);
      Model_Write_Failed(path, error);
    }
  }
  free(tmp);
  if (target != path) free(target);
  free(path);
}

void EarlyEOF() {
  fprintf(stderr, "Strong Hypothesis file too short\n");
  Exit_Run(1);
}

text_expert_rec* Read_Weak_Hyp(FILE* in, int* word_count) {
  int k = Model_Data()->num_classes;
  char header[kMaxHeaderLength + 1];
  if (!Read_Token(in, header, kMaxHeaderLength, "rule header"))
    Model_Error("truncated", "a weight is not followed by its rule");
  if (token_at_eof && Model_Data()->num_classes > 0)
    Model_Error("truncated", "the file ends inside the rule header '%s'",
                header);

  char* colon1 = strchr(header, ':');
  char* colon2 = colon1 != nullptr ? strchr(colon1 + 1, ':') : nullptr;
  if (colon2 == nullptr) {
    fprintf(stderr, "Illegal Weak Hypotheiss format (%s)\n", header);
    Exit_Run(1);
  }
  // Only the copy is cut: the header stays whole for messages.
  char type_name[kMaxHeaderLength + 1];
  size_t type_len = static_cast<size_t>(colon2 - colon1 - 1);
  memcpy(type_name, colon1 + 1, type_len);
  type_name[type_len] = '\0';
  const char* stored_term = colon2 + 1;

  bool term_kind = type_len >= 1 && strcmp(type_name + 1, "GRAM") == 0;
  bool threshold = strcmp(type_name, "THRESHOLD") == 0;
  bool linear = strcmp(type_name, "LINEAR") == 0;

  // Sparse terms carry one trailing blank that the writer dropped; a
  // continuous attribute's key ('name:') never had one.
  size_t term_len = strlen(stored_term);
  bool add_blank = false;
  if (Weak_Expander() == Next_Sparse_Ngram) {
    bool colon_end = term_len > 0 && stored_term[term_len - 1] == ':';
    add_blank = term_kind || (threshold && !colon_end);
  }

  int type;
  int vectors;
  if (term_kind) {
    type = kTypeSgram;
    vectors = 2;
  } else if (threshold) {
    type = kTypeThreshold;
    vectors = 3;
  } else if (linear) {
    type = kTypeLinear;
    vectors = 1;
  } else {
    fprintf(stderr, "Unknown/Unsupported type (%s)\n", type_name);
    Exit_Run(1);
  }

  char* term = static_cast<char*>(Malloc(term_len + 2));
  memcpy(term, stored_term, term_len);
  if (add_blank) term[term_len++] = ' ';
  term[term_len] = '\0';
  int words = 1;
  for (char* p = term; *p != '\0'; ++p) {
    if (*p == '#') {
      *p = ' ';
      ++words;
    }
  }
  *word_count = words;

  auto* e = static_cast<text_expert_rec*>(Malloc(sizeof(text_expert_rec)));
  e->term = term;
  e->type = type;
  e->c0 = New_Vector(k);
  e->c1 = New_Vector(k);
  e->c2 = New_Vector(k);

  char what[kMaxHeaderLength + 96];
  double* vs[3] = {e->c0, e->c1, e->c2};
  for (int r = 0; r < vectors; ++r) {
    for (int l = 0; l < k; ++l) {
      snprintf(what, sizeof what, "value %d of %d of vector c%d of rule '%s'",
               l + 1, k, r, header);
      vs[r][l] = Read_Value(in, what);
    }
  }
  if (type == kTypeThreshold) {
    snprintf(what, sizeof what, "the threshold of rule '%s'", header);
    e->threshold = Read_Value(in, what);
  }
  if (type == kTypeLinear) {
    e->linear_a = New_Vector(k);
    e->linear_b = New_Vector(k);
    double* ab[2] = {e->linear_a, e->linear_b};
    const char* ab_name[2] = {"linear_a", "linear_b"};
    for (int r = 0; r < 2; ++r) {
      for (int l = 0; l < k; ++l) {
        snprintf(what, sizeof what, "value %d of %d of %s of rule '%s'", l + 1,
                 k, ab_name[r], header);
        ab[r][l] = Read_Value(in, what);
      }
    }
  }
  return e;
}

weak_hyp* ReadStrongHypothesis(int* count) {
  char* path = Model_Path(Weak_File_Stem());
  FILE* in = fopen(path, "r");
  if (in == nullptr) {
    if (errno == ENOENT) {
      // No stored model: start from an empty one.
      free(path);
      *count = 0;
      return nullptr;
    }
    perror(path);
    Exit_Run(1);
  }
  reader_name = path;
  reader_line = 1;

  char token[kMaxNumberLength + 1];
  if (!Read_Token(in, token, kMaxNumberLength, "the number of hypotheses"))
    Model_Error("truncated", "the file is empty: no number of hypotheses");
  char* end = nullptr;
  errno = 0;
  long declared = strtol(token, &end, 10);
  bool out_of_range = errno == ERANGE;
  if (end == token || *end != '\0')
    Model_Error("malformed", "the number of hypotheses is not an integer: '%s'",
                token);
  if (declared < 0)
    Model_Error("malformed", "negative number of hypotheses: %s", token);
  if (out_of_range || declared > 0x7fffffffL)
    Model_Error("malformed", "number of hypotheses %s is out of range", token);
  // Every hypothesis takes more than one byte, so with a count above the
  // file's size the file ends before some weight: say so at once rather than
  // size an allocation by the count.
  struct stat st;
  if (fstat(fileno(in), &st) == 0 && S_ISREG(st.st_mode) &&
      declared > static_cast<long>(st.st_size))
    EarlyEOF();
  int n = static_cast<int>(declared);

  weak_hyp* whs = Allocate_Weak_Hyp(n);
  int max_words = 0;
  for (int i = 0; i < n; ++i) {
    if (!Read_Token(in, token, kMaxNumberLength, "weight")) EarlyEOF();
    char what[64];
    snprintf(what, sizeof what, "the weight of hypothesis %d", i + 1);
    whs[i].weight = Token_To_Double(token, what);
    whs[i].label_map = nullptr;
    int words = 0;
    whs[i].hyp = Read_Weak_Hyp(in, &words);
    if (words > max_words) max_words = words;
  }
  fclose(in);
  reader_name = "model stream";
  free(path);

  CompileStrongTextHypothesis(whs, &n);
  Index_Weak_Hyp(Weak_Expander(), max_words, whs, n);

  if (!Weak_Classification_Mode()) {
    example_data* d = Model_Data();
    dataset_info* names = Weak_Dsi();
    int m = d->num_train;
    int t = d->num_test;
    // The indexer fills the test side; the training pass is moved across.
    for (int i = 0; i < n; ++i) {
      text_expert_rec* e = whs[i].hyp;
      e->test_index = static_cast<int*>(Alloc_Array(m, sizeof(int)));
      e->test_count = static_cast<int*>(Alloc_Array(m, sizeof(int)));
      e->test_values = Is_Valued_Type(e->type) ? New_Vector(m) : nullptr;
    }
    Index_New_Test_Instances(d->train_examples, m, names);
    for (int i = 0; i < n; ++i) {
      text_expert_rec* e = whs[i].hyp;
      e->num_train = e->num_test;
      e->train_index = e->test_index;
      e->train_count = e->test_count;
      e->values = e->test_values;
      e->num_test = 0;
      e->test_index = static_cast<int*>(Alloc_Array(t, sizeof(int)));
      e->test_count = static_cast<int*>(Alloc_Array(t, sizeof(int)));
      e->test_values = Is_Valued_Type(e->type) ? New_Vector(t) : nullptr;
    }
    Index_New_Test_Instances(d->test_examples, t, names);
  } else {
    // Each streamed example is indexed on its own, into one entry.
    for (int i = 0; i < n; ++i) {
      text_expert_rec* e = whs[i].hyp;
      e->test_index = static_cast<int*>(Alloc_Array(1, sizeof(int)));
      e->test_count = static_cast<int*>(Alloc_Array(1, sizeof(int)));
      e->test_values = Is_Valued_Type(e->type) ? New_Vector(1) : nullptr;
    }
  }
  *count = n;
  return whs;
}
