// The three term enumerators: contiguous n-grams of one length, of every
// length up to W, and sparse grams (windows of W tokens whose inner positions
// may be wildcards). Each is a resumable generator whose position lives in
// the statics below; a text is enumerated to its end before the next starts.
#include "sgram_util.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "die.h"
#include "read_data.h"

namespace {

// Next_Ngram_Full: start of the current n-gram, and the blank that ends it
// (overwritten by NUL while the term is out). text_0 is null when idle.
char* text_0 = nullptr;
char* text_1 = nullptr;

// Next_Ngram: the length now being enumerated (0 when idle), and whether it
// has given a term yet.
int cur_win = 0;
bool cur_win_used = false;

// Next_Sparse_Ngram_Intern: the current full window, the wildcard mask of
// the next sparse term, and the window's score strings: those handed out in
// the caller's array (kept here too, so that the caller's array is only ever
// written) and private copies of their original text.
char* ngram = nullptr;
uint64_t cur_ind = 0;
char** save_scores = nullptr;
char** window_scores = nullptr;
int num_saved = 0;

// The words of the current full window (offsets into ngram and lengths),
// found once per window rather than once per mask, and the positions whose
// word holds a "*" (bit i for word i).
int word_start[64];
int word_length[64];
uint64_t star_words = 0;

// Whether the term last returned by Next_Sparse_Ngram_Intern holds a "*":
// trimming removes only "?" and blanks, so it does exactly when one of the
// words it keeps does.
bool last_has_star = false;

// strlen of the term any enumerator returned last.
size_t last_length = 0;

// Next_Sparse_Ngram: 1 when the next call starts a new text.
int first = 1;


// Work buffers that grow on demand. The padded text must hold every text the
// length check accepts plus 2W (or 4W) bytes of padding and the NUL; a sparse
// term is at most its window plus two bytes per position.
struct grow_buffer {
  char* data = nullptr;
  size_t size = 0;
  char* reserve(size_t need) {
    if (need > size) {
      size_t n = size == 0 ? static_cast<size_t>(kSparseBufferSize) : size;
      while (n < need) n *= 2;
      char* fresh = static_cast<char*>(Malloc(n));
      free(data);
      data = fresh;
      size = n;
    }
    return data;
  }
};
grow_buffer padded_buf;
grow_buffer term_buf;

// Strings handed to the caller: at least two bytes, so that a score can
// always be overwritten in place by the wildcard mark "?".
char* copy_token(const char* start, size_t len) {
  char* s = static_cast<char*>(Malloc(len < 1 ? 2 : len + 1));
  memcpy(s, start, len);
  s[len] = '\0';
  return s;
}

// Frees the score strings of the current window (the caller's entries and
// the private copies) and marks the caller's array empty.
void release_window_scores(char** scores) {
  for (int i = 0; i < num_saved; ++i) {
    free(window_scores[i]);
    free(save_scores[i]);
    scores[i] = nullptr;
  }
  free(save_scores);
  free(window_scores);
  save_scores = nullptr;
  window_scores = nullptr;
  num_saved = 0;
}

}  // namespace

char* Next_Ngram_Full(char* text, int n, int type, char** scores,
                      int want_scores) {
  const bool scored = type == kScoredText;
  const bool give_scores = scored && want_scores != 0 && scores != nullptr;
  // Blanks per word: a scored word is followed by its score.
  const int per = scored ? 2 : 1;

  if (text_0 != nullptr) {
    *text_1 = ' ';
    for (int s = 0; s < per; ++s) {
      char* b = *text_0 == '\0' ? nullptr : strchr(text_0 + 1, ' ');
      if (b == nullptr) {
        text_0 = nullptr;
        return nullptr;
      }
      text_0 = b + 1;
    }
  } else {
    if (n < 1 || text == nullptr || text[0] == '\0') return nullptr;
    char* p = text;
    for (long long s = 0; s < static_cast<long long>(per) * (n - 1); ++s) {
      p = strchr(p + 1, ' ');
      if (p == nullptr) return nullptr;  // fewer than n words
    }
    text_1 = p;
    text_0 = text;
  }

  char* end = text_1;
  for (int s = 0; s < per; ++s) {
    end = strchr(end + 1, ' ');
    if (end == nullptr) {
      text_0 = nullptr;
      return nullptr;
    }
  }
  *end = '\0';
  text_1 = end;
  if (!scored) {
    last_length = static_cast<size_t>(end - text_0);
    return text_0;
  }

  // Scored text: the words joined by blanks, the scores copied out.
  char* result = static_cast<char*>(Malloc(strlen(text_0) + 1));
  char* out = result;
  int j = 0;
  const char* q = text_0;
  for (long long tok = 0; tok < 2LL * n; ++tok) {
    const char* e = q;
    while (*e != '\0' && *e != ' ') ++e;
    size_t len = static_cast<size_t>(e - q);
    if (tok % 2 == 0) {
      if (out != result) *out++ = ' ';
      memcpy(out, q, len);
      out += len;
    } else if (give_scores) {
      scores[j++] = copy_token(q, len);
    }
    if (*e == '\0') break;
    q = e + 1;
  }
  *out = '\0';
  if (give_scores) scores[j] = nullptr;
  last_length = static_cast<size_t>(out - result);
  return result;
}

char* Next_Ngram(char* text, int W, int type, char** scores, int want_scores) {
  if (cur_win == 0) {
    cur_win = 1;
    cur_win_used = false;
  }
  while (cur_win <= W) {
    char* term = Next_Ngram_Full(text, cur_win, type, scores, want_scores);
    if (term != nullptr) {
      cur_win_used = true;
      return term;
    }
    // A length with no term means the text is shorter than it, and than
    // every longer one: stop here rather than try each up to W.
    if (!cur_win_used || cur_win == W) break;
    ++cur_win;
    cur_win_used = false;
  }
  cur_win = 0;
  return nullptr;
}

char* Next_Sparse_Ngram_Intern(char* padded_text, int W, int type,
                               char** scores, int want_scores) {
  const bool scored = type == kScoredText;
  const bool give_scores = scored && want_scores != 0 && scores != nullptr;
  if (W < 1 || W > kMaxSparseWindow) return nullptr;

  if (ngram == nullptr || cur_ind >= (uint64_t{1} << W)) {
    // A plain window that follows another of the same text in place (one
    // word further on) shares all but its last word with it.
    const char* before = scored ? nullptr : ngram;
    if (ngram != nullptr && scored) {
      if (save_scores != nullptr) release_window_scores(scores);
      free(ngram);  // only a scored window is an allocation
    }
    ngram = Next_Ngram_Full(padded_text, W, type, scores, want_scores);
    if (ngram == nullptr) return nullptr;
    cur_ind = 0;
    if (give_scores) {
      num_saved = 0;
      while (num_saved < W && scores[num_saved] != nullptr) ++num_saved;
      save_scores = static_cast<char**>(Malloc(sizeof(char*) * (num_saved + 1)));
      window_scores = static_cast<char**>(Malloc(sizeof(char*) * (num_saved + 1)));
      for (int i = 0; i < num_saved; ++i) {
        window_scores[i] = scores[i];
        save_scores[i] = copy_token(scores[i], strlen(scores[i]));
      }
    }
    // The words of the window: each ends at a blank or at the window's end.
    int from = 0;
    const char* q = ngram;
    if (before != nullptr && W >= 2 && ngram == before + word_start[1] &&
        ngram[word_start[W - 1] + word_length[W - 1] - word_start[1]] == ' ') {
      const int shift = word_start[1];
      for (int i = 0; i + 1 < W; ++i) {
        word_start[i] = word_start[i + 1] - shift;
        word_length[i] = word_length[i + 1];
      }
      star_words >>= 1;
      from = W - 1;
      q = ngram + word_start[W - 2] + word_length[W - 2] + 1;
    } else {
      star_words = 0;
    }
    for (int i = from; i < W; ++i) {
      const char* e = q;
      while (*e != '\0' && *e != ' ') ++e;
      word_start[i] = static_cast<int>(q - ngram);
      word_length[i] = static_cast<int>(e - q);
      if (memchr(q, '*', static_cast<size_t>(e - q)) != nullptr) star_words |= uint64_t{1} << i;
      q = *e == '\0' ? e : e + 1;
    }
    term_buf.reserve(static_cast<size_t>(q - ngram) + 2 * static_cast<size_t>(W) + 3);
  } else if (save_scores != nullptr) {
    // Undo the wildcard marks of the previous mask.
    for (int i = 0; i < num_saved; ++i) {
      scores[i] = window_scores[i];
      strcpy(scores[i], save_scores[i]);
    }
    scores[num_saved] = nullptr;
  }

  // The term is written up to its last real word: the wildcards after it
  // would be trimmed away below. Consecutive real words are copied as one
  // piece when the window holds them with their blanks between.
  const uint64_t mask = cur_ind;
  int last = W - 1;
  while (last > 0 && ((mask >> last) & 1)) --last;
  char* out = term_buf.data;
  for (int i = 0; i <= last;) {
    if ((mask >> i) & 1) {
      *out++ = '?';
      *out++ = ' ';
      if (save_scores != nullptr && i < num_saved) strcpy(scores[i], "?");
      ++i;
      continue;
    }
    int j = i;
    while (j < last && !((mask >> (j + 1)) & 1) &&
           word_start[j + 1] == word_start[j] + word_length[j] + 1)
      ++j;
    const size_t len = static_cast<size_t>(word_start[j] + word_length[j] - word_start[i]);
    memcpy(out, ngram + word_start[i], len);
    out += len;
    *out++ = ' ';
    i = j + 1;
  }
  *out = '\0';
  if (save_scores != nullptr)
    for (int i = last + 1; i < W && i < num_saved; ++i) strcpy(scores[i], "?");
  last_has_star = (star_words & ~mask) != 0;
  cur_ind += 2;  // bit 0 stays clear: the first word is always real

  // Trim wildcards and blanks from both ends, keeping one trailing blank.
  char* s = term_buf.data;
  while (*s == '?' || *s == ' ') ++s;
  char* e = out - 1;
  if (e < s) {
    // Nothing but "?" words (text words that are a literal "?"): the term
    // is the blank that is left behind, as for any other term.
    s[0] = ' ';
    s[1] = '\0';
    last_length = 1;
    return s;
  }
  while (e > s && (*e == '?' || *e == ' ')) --e;
  e[1] = ' ';
  e[2] = '\0';
  last_length = static_cast<size_t>(e + 2 - s);
  return s;
}

char* Next_Sparse_Ngram(char* text, int W, int type, char** scores,
                        int want_scores) {
  if (first) {
    if (W < 1) return nullptr;
    if (W > kMaxSparseWindow) {
      fprintf(stderr, "Window length %d is too long for sparse grams (at most %d)\n",
              W, kMaxSparseWindow);
      Exit_Run(1);
    }
    size_t len = strlen(text);
    if (len <= 1) return nullptr;  // an empty value is stored as one blank
    if (static_cast<long long>(len) >=
        2LL * W + static_cast<long long>(kSparseBufferSize) + 1) {
      fprintf(stderr, "Cannot not handle such a long text\n");
      Exit_Run(1);
    }
    // Padding lets every word start a full window; terms that reach into it
    // mention "*" and are dropped below.
    size_t copies = static_cast<size_t>(type == kScoredText ? 2 * W : W);
    char* buf = padded_buf.reserve(len + 2 * copies + 1);
    memcpy(buf, text, len);
    char* p = buf + len;
    for (size_t i = 0; i < copies; ++i) {
      *p++ = '*';
      *p++ = ' ';
    }
    *p = '\0';
  }
  for (;;) {
    char* term =
        Next_Sparse_Ngram_Intern(padded_buf.data, W, type, scores, want_scores);
    if (term == nullptr) {
      first = 1;
      return nullptr;
    }
    if (!last_has_star) {
      first = 0;
      return term;
    }
  }
}

size_t Last_Term_Length() { return last_length; }

namespace sparse_terms_detail {

text_words& Scratch() {
  static text_words w;
  return w;
}

bool Split_Words(const char* text, size_t len, text_words& w) {
  w.start.clear();
  w.length.clear();
  w.star.clear();
  if (len == 0 || text[0] == ' ' || text[len - 1] != ' ') return false;
  const char* p = text;
  const char* const end = text + len;
  while (p < end) {
    const char* b = static_cast<const char*>(memchr(p, ' ', static_cast<size_t>(end - p)));
    if (b == p) return false;  // two blanks in a row: an empty word
    w.start.push_back(static_cast<int>(p - text));
    w.length.push_back(static_cast<int>(b - p));
    w.star.push_back(memchr(p, '*', static_cast<size_t>(b - p)) != nullptr);
    p = b + 1;
  }
  return true;
}

}  // namespace sparse_terms_detail
