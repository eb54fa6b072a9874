// Names, training and test files: the attribute declarations, the labelled
// examples, the streaming reader used in classification mode, the printers
// used by the prediction output, and the checked allocator Malloc.
#ifndef MHBOOST_READ_DATA_H_
#define MHBOOST_READ_DATA_H_

#include <cstddef>
#include <cstdio>

// Attribute kind codes, held in attribute_info::num_values. A positive value
// is a discrete attribute with that many value slots.
enum attribute_kind {
  kContinuous = -126,
  kSet = -125,  // legacy; never produced by the reader
  kText = -124,
  kIgnore = -123,
  kScoredText = -122,
};

constexpr int kFieldBufferSize = 1048576;

struct attribute_info {
  char* name;
  int num_values;  // value-slot count, or a kind code
  char** values;   // discrete value names by index (slots may be null)
};

struct dataset_info {
  char** class_names;
  int num_classes;
  attribute_info* attributes;
  int num_attributes;
};

// One 8-byte slot per attribute value.
union attribute_value {
  double real;   // continuous
  char* text;    // text and scored text: single-spaced, one trailing blank
  long index;    // discrete: index into the attribute's value names
};

struct example {
  attribute_value* values;
  int* is_unknown;           // 1 where the value was "?"
  unsigned char* labels;     // one byte per class
  int index;                 // training 0..m-1, test m..m+n-1, streamed 0
};

struct example_data {
  int num_classes;
  int num_train;
  int num_test;
  example** train_examples;
  unsigned char** train_labels;
  example** test_examples;
  unsigned char** test_labels;
};

// ---- names file ----
dataset_info* Get_Names(const char* path);
/// Reads one field into `buf` (kFieldBufferSize bytes); 1 if read, 0 at end.
int read_name(FILE* in, char* buf);
/// The character that ended the last field (EOF at end of input).
int Last_Delimiter();
void squeeze_spaces(char* s);
/// Message and a newline on standard error, exit status 255.
[[noreturn]] void crash(const char* message);
void Print_Names(dataset_info* dsi, const char* out_name);

// ---- examples ----
example_data* Read_Data(const char* stem, dataset_info** dsi_out,
                        int classify_only, int dict_mode);
example** Read_DataSet(dataset_info* dsi, const char* path, int* count);
example* Read_Example(dataset_info* dsi, FILE* in);
unsigned char* Read_Labels(dataset_info* dsi, char* field);
/// Reads the next example from standard input into the single test slot.
/// Returns 1 if one was read, 0 at end of input.
int GetNextTestInstance(example_data* data);

/// Called by GetNextTestInstance after an example is read, to index the
/// stored model against it (installed by the weak learner).
void Set_New_Instance_Hook(void (*hook)(example_data* data));

dataset_info* Get_Dataset_Info();
void PrintLabel(int l);
void PrintAllLabels(const unsigned char* labels);
void PrintInstance(const example* e);
void Print_Examples(dataset_info* dsi, const char* out_name, example** ex, int n);

/// Zero-filled block; perror("Malloc") and exit status 1 when memory is out.
void* Malloc(size_t size);

/// A block of at least `size` bytes (not filled) on 2 MB boundaries, asked
/// to sit on huge pages where the system grants them: for large arrays read
/// at random, whose reads would otherwise miss the TLB. Released with
/// free(); fails as Malloc does.
void* Malloc_Huge(size_t size);

#endif  // MHBOOST_READ_DATA_H_
