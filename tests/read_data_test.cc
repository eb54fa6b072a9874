// Tests of the field reader, the names file, the training/test files, the
// streaming reader of classification mode and the printers.
#include "read_data.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

using ::testing::ExitedWithCode;

// Stderr of a death test, matched whole.
::testing::Matcher<const std::string&> StderrIs(const std::string& text) {
  return ::testing::Eq(text);
}

// Every field of `input` with the delimiter that ended it.
std::vector<std::pair<std::string, int>> ReadFields(const std::string& input) {
  std::string copy = input;
  FILE* in = fmemopen(copy.data(), copy.size(), "r");
  static char buf[kFieldBufferSize];
  std::vector<std::pair<std::string, int>> fields;
  while (read_name(in, buf)) fields.emplace_back(buf, Last_Delimiter());
  EXPECT_EQ(Last_Delimiter(), EOF);
  EXPECT_STREQ(buf, "");
  fclose(in);
  return fields;
}

using Fields = std::vector<std::pair<std::string, int>>;

class TempDir : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/mhboost_read_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    std::string cmd = "rm -rf '" + dir_ + "'";
    ASSERT_EQ(system(cmd.c_str()), 0);
  }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  std::string Write(const std::string& name, const std::string& text) const {
    std::string path = Path(name);
    FILE* f = fopen(path.c_str(), "w");
    EXPECT_NE(f, nullptr);
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
    return path;
  }
  // Writes <stem>.names and, when given, <stem>.data / <stem>.test.
  std::string Task(const std::string& names, const char* train, const char* test) {
    Write("task.names", names);
    if (train != nullptr) Write("task.data", train);
    if (test != nullptr) Write("task.test", test);
    return Path("task");
  }
  std::string dir_;
};

// ------------------------------------------------------------ field reader

TEST(FieldReader, DelimitersEndFields) {
  EXPECT_EQ(ReadFields("a, b:c. d\n"),
            (Fields{{"a", ','}, {"b", ':'}, {"c", ' '}, {"d", EOF}}));
  EXPECT_EQ(ReadFields("x.\ty.\nz"), (Fields{{"x", '\t'}, {"y", '\n'}, {"z", EOF}}));
}

TEST(FieldReader, EmptyInputAndCommentsOnlyGiveNoField) {
  EXPECT_EQ(ReadFields(""), Fields{});
  EXPECT_EQ(ReadFields("  \n\t\n"), Fields{});
  EXPECT_EQ(ReadFields("% one\n| two\n"), Fields{});
}

TEST(FieldReader, CommentsSkipWholeLinesAndEndFields) {
  EXPECT_EQ(ReadFields("% note, with: delimiters.\n| another\nx | rest, of line\ny"),
            (Fields{{"x", '\n'}, {"y", EOF}}));
  EXPECT_EQ(ReadFields("a%b,c\nd"), (Fields{{"a", '\n'}, {"d", EOF}}));
}

TEST(FieldReader, CommentRunningIntoEndOfInputEndsReading) {
  EXPECT_EQ(ReadFields("x, y % no newline"), (Fields{{"x", ','}, {"y", '\n'}}));
  EXPECT_EQ(ReadFields("x,\n| no newline"), (Fields{{"x", ','}}));
}

TEST(FieldReader, PeriodRules) {
  // Kept inside a field; dropped before white space, a comment or the end.
  EXPECT_EQ(ReadFields("3.14, end. next, a.,b, x.|c\nz."),
            (Fields{{"3.14", ','},
                    {"end", ' '},
                    {"next", ','},
                    {"a.,b", ','},
                    {"x", '\n'},
                    {"z", EOF}}));
  // The character after a stored period is not tested as a delimiter, but a
  // backslash there still escapes.
  EXPECT_EQ(ReadFields("a.:b, c.\\,d, e..f"),
            (Fields{{"a.:b", ','}, {"c.,d", ','}, {"e..f", EOF}}));
  EXPECT_EQ(ReadFields(". x"), (Fields{{"", ' '}, {"x", EOF}}));
}

TEST(FieldReader, BackslashStoresAnyCharacter) {
  EXPECT_EQ(ReadFields("a\\,b, c\\:d, e\\. f, g\\|h\\%i, j\\\\k"),
            (Fields{{"a,b", ','},
                    {"c:d", ','},
                    {"e. f", ','},
                    {"g|h%i", ','},
                    {"j\\k", EOF}}));
  EXPECT_EQ(ReadFields("a\\\nb"), (Fields{{"a\nb", EOF}}));
  EXPECT_EQ(ReadFields("end\\"), (Fields{{"end", EOF}}));
}

TEST(FieldReader, FieldsSpanLinesAndAreTrimmed) {
  EXPECT_EQ(ReadFields("  hello\n  world \t\n, \n\t next  .\n"),
            (Fields{{"hello\n  world", ','}, {"next", '\n'}}));
  EXPECT_EQ(ReadFields("a ,, b"), (Fields{{"a", ','}, {"", ','}, {"b", EOF}}));
}

TEST(FieldReader, LongestFieldFitsAndOneMoreIsFatal) {
  std::string longest(kFieldBufferSize - 1, 'x');
  Fields got = ReadFields(longest + ", y");
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].first.size(), static_cast<size_t>(kFieldBufferSize - 1));

  std::string too_long(kFieldBufferSize, 'x');
  EXPECT_EXIT(ReadFields(too_long), ExitedWithCode(1),
              StderrIs("Name/Data field is too long\nIncrease buffer length (1048576)\n"));
}

TEST(FieldReader, NulByteIsRejected) {
  EXPECT_EXIT(ReadFields(std::string("ab\0c, d", 7)), ExitedWithCode(1),
              StderrIs("mhboost: input: NUL byte in a field\n"));
}

TEST(SqueezeSpaces, SingleSpacesAndOneTrailingBlank) {
  auto squeeze = [](const char* s) {
    char buf[64];
    strcpy(buf, s);
    squeeze_spaces(buf);
    return std::string(buf);
  };
  EXPECT_EQ(squeeze("  a\t\tb\n"), "a b ");
  EXPECT_EQ(squeeze("a b "), "a b ");
  EXPECT_EQ(squeeze("word"), "word ");
  EXPECT_EQ(squeeze(" \n\t "), " ");
  EXPECT_EQ(squeeze(""), " ");
}

// ------------------------------------------------------------ names file

using NamesFile = TempDir;

TEST_F(NamesFile, DeclaresClassesAndEveryKind) {
  std::string path = Write("k.names",
                           "% classes first\n"
                           "sports, politics, science.\n"
                           "headline: text.\n"
                           "body: set.\n"
                           "length: continuous.\n"
                           "source: wire, web, print.\n"
                           "rating: scoredtext.\n"
                           "id: ignore.\n"
                           "color: discrete 3.\n"
                           "shape: discrete10.\n");
  dataset_info* d = Get_Names(path.c_str());
  ASSERT_EQ(d->num_classes, 3);
  EXPECT_STREQ(d->class_names[0], "sports");
  EXPECT_STREQ(d->class_names[2], "science");
  ASSERT_EQ(d->num_attributes, 8);
  const int kinds[] = {kText, kText, kContinuous, 3, kScoredText, kIgnore, 3, 10};
  const char* names[] = {"headline", "body", "length", "source",
                         "rating", "id", "color", "shape"};
  for (int i = 0; i < 8; ++i) {
    EXPECT_STREQ(d->attributes[i].name, names[i]);
    EXPECT_EQ(d->attributes[i].num_values, kinds[i]) << names[i];
  }
  EXPECT_STREQ(d->attributes[3].values[0], "wire");
  EXPECT_STREQ(d->attributes[3].values[2], "print");
  for (int j = 0; j < 3; ++j) EXPECT_EQ(d->attributes[6].values[j], nullptr);
  for (int j = 0; j < 10; ++j) EXPECT_EQ(d->attributes[7].values[j], nullptr);
}

TEST_F(NamesFile, LongListsGrow) {
  std::string text;
  for (int i = 0; i < 100; ++i) text += (i ? ", c" : "c") + std::to_string(i);
  text += ".\n";
  for (int i = 0; i < 70; ++i) {
    text += "a" + std::to_string(i) + ": v0";
    for (int j = 1; j < 40; ++j) text += ", v" + std::to_string(j);
    text += ".\n";
  }
  dataset_info* d = Get_Names(Write("long.names", text).c_str());
  ASSERT_EQ(d->num_classes, 100);
  EXPECT_STREQ(d->class_names[99], "c99");
  ASSERT_EQ(d->num_attributes, 70);
  EXPECT_STREQ(d->attributes[69].name, "a69");
  ASSERT_EQ(d->attributes[69].num_values, 40);
  EXPECT_STREQ(d->attributes[69].values[39], "v39");
}

TEST_F(NamesFile, DegenerateButValidFiles) {
  dataset_info* empty = Get_Names(Write("e.names", "").c_str());
  ASSERT_EQ(empty->num_classes, 1);
  EXPECT_STREQ(empty->class_names[0], "");
  EXPECT_EQ(empty->num_attributes, 0);

  dataset_info* no_attrs = Get_Names(Write("n.names", "a, b, c.\n").c_str());
  EXPECT_EQ(no_attrs->num_classes, 3);
  EXPECT_EQ(no_attrs->num_attributes, 0);

  // Without its period the class list runs into the next line.
  dataset_info* swallowed =
      Get_Names(Write("s.names", "a, b\nc.\nx: text.\n").c_str());
  ASSERT_EQ(swallowed->num_classes, 2);
  EXPECT_STREQ(swallowed->class_names[1], "b\nc");
  ASSERT_EQ(swallowed->num_attributes, 1);
  EXPECT_EQ(swallowed->attributes[0].num_values, kText);
}

TEST_F(NamesFile, FormatErrors) {
  std::string missing = Path("missing.names");
  EXPECT_EXIT(Get_Names(missing.c_str()), ExitedWithCode(255),
              StderrIs("Failed to open names file (" + missing + ").\n"));
  EXPECT_EXIT(Get_Names(Write("a.names", "a, b.\nx continuous.\n").c_str()),
              ExitedWithCode(255), StderrIs("expected colon after attribute\n\n"));
  EXPECT_EXIT(Get_Names(Write("b.names", "a, b.\nx: red, ").c_str()),
              ExitedWithCode(255), StderrIs("unexpected eof\n\n"));
  EXPECT_EXIT(Get_Names(Write("c.names", "a, b.\nx:").c_str()), ExitedWithCode(255),
              StderrIs("unexpected eof\n\n"));
  EXPECT_EXIT(Get_Names(Write("d.names", "a, b.\nx: Continuous.\n").c_str()),
              ExitedWithCode(255),
              StderrIs("cannot have only one discrete value for attribute\n\n"));
}

TEST_F(NamesFile, UnusableFilesAreNamed) {
  std::string dir = Path("dir.names");
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  EXPECT_EXIT(Get_Names(dir.c_str()), ExitedWithCode(1),
              StderrIs("mhboost: " + dir + ": Is a directory\n"));
  std::string zero = Write("z.names", "a, b.\ncolor: discrete 0.\n");
  EXPECT_EXIT(Get_Names(zero.c_str()), ExitedWithCode(1),
              StderrIs("mhboost: " + zero +
                       ": attribute color: \"discrete\" needs a positive number of "
                       "values\n"));
}

// ------------------------------------------------------------ data files

using DataFile = TempDir;

const char kNames[] =
    "sports, politics, science.\n"
    "len: continuous.\n"
    "title: text.\n"
    "src: wire, web.\n"
    "color: discrete 3.\n"
    "id: ignore.\n";

TEST_F(DataFile, ValuesLabelsAndIndexes) {
  std::string stem = Task(kNames,
                          "3.5, The  cat\n sat, web, red, 17, sports politics.\n"
                          "?, ?, ?, ?, ?, science.\n"
                          "-0.5, x\\, y\\. z, wire, blue, junk, .\n"
                          "1e3, last, wire, red, 0, politics",
                          "% test set\n2, t, web, green, 0, sports sports.\n");
  dataset_info* d = nullptr;
  example_data* data = Read_Data(stem.c_str(), &d, 0, 0);
  ASSERT_EQ(d, Get_Dataset_Info());
  EXPECT_EQ(data->num_classes, 3);
  ASSERT_EQ(data->num_train, 4);
  ASSERT_EQ(data->num_test, 1);

  example* a = data->train_examples[0];
  EXPECT_EQ(a->index, 0);
  EXPECT_DOUBLE_EQ(a->values[0].real, 3.5);
  EXPECT_STREQ(a->values[1].text, "The cat sat ");
  EXPECT_EQ(a->values[2].index, 1);
  EXPECT_EQ(a->values[3].index, 0);
  EXPECT_EQ(a->values[4].index, 0);
  EXPECT_EQ(data->train_labels[0], a->labels);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(a->labels), 3), std::string("\1\1\0", 3));

  example* b = data->train_examples[1];
  for (int j = 0; j < 5; ++j) EXPECT_EQ(b->is_unknown[j], 1);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(b->labels), 3), std::string("\0\0\1", 3));

  example* c = data->train_examples[2];
  EXPECT_EQ(c->is_unknown[0], 0);
  EXPECT_DOUBLE_EQ(c->values[0].real, -0.5);
  EXPECT_STREQ(c->values[1].text, "x, y. z ");
  EXPECT_EQ(c->values[3].index, 1);  // "?" above used no slot
  EXPECT_EQ(std::string(reinterpret_cast<char*>(c->labels), 3), std::string(3, '\0'));

  // The last example has no final period or newline.
  example* last = data->train_examples[3];
  EXPECT_DOUBLE_EQ(last->values[0].real, 1000.0);
  EXPECT_EQ(last->labels[1], 1);

  // Test examples continue the numbering and the discrete slots.
  example* t = data->test_examples[0];
  EXPECT_EQ(t->index, 4);
  EXPECT_EQ(t->values[3].index, 2);
  EXPECT_EQ(data->test_labels[0], t->labels);
  EXPECT_EQ(t->labels[0], 1);
  attribute_info* color = &d->attributes[3];
  EXPECT_STREQ(color->values[0], "red");
  EXPECT_STREQ(color->values[1], "blue");
  EXPECT_STREQ(color->values[2], "green");
}

TEST_F(DataFile, MissingFilesAreEmptySets) {
  dataset_info* d;
  example_data* no_test = Read_Data(Task("a, b.\n", "a.\nb.\n", nullptr).c_str(), &d, 0, 0);
  EXPECT_EQ(no_test->num_train, 2);
  EXPECT_EQ(no_test->num_test, 0);
  EXPECT_EQ(d->num_attributes, 0);

  unlink(Path("task.data").c_str());
  Write("task.test", "b.\n");
  example_data* no_train = Read_Data(Path("task").c_str(), &d, 0, 0);
  EXPECT_EQ(no_train->num_train, 0);
  ASSERT_EQ(no_train->num_test, 1);
  EXPECT_EQ(no_train->test_examples[0]->index, 0);
}

TEST_F(DataFile, DiscreteSlotsRunOut) {
  std::string stem = Task("y, n.\nc: discrete 2.\n", "a, y.\nb, n.\na, y.\n", nullptr);
  dataset_info* d;
  example_data* data = Read_Data(stem.c_str(), &d, 0, 0);
  EXPECT_EQ(data->train_examples[2]->values[0].index, 0);
  EXPECT_EQ(data->train_examples[1]->values[0].index, 1);

  Write("task.data", "a, y.\nb, n.\nc, y.\n");
  EXPECT_EXIT(Read_Data(stem.c_str(), &d, 0, 0), ExitedWithCode(255),
              StderrIs("illegal attribute value: c for attribute c\n\n"));
  Write("task.data", "green, y.\n");
  Task("y, n.\nc: red, blue.\n", nullptr, nullptr);
  EXPECT_EXIT(Read_Data(stem.c_str(), &d, 0, 0), ExitedWithCode(255),
              StderrIs("illegal attribute value: green for attribute c\n\n"));
}

TEST_F(DataFile, BadValuesAndLabels) {
  std::string names = Write("t.names", "x, y.\nlen: continuous.\n");
  dataset_info* d = Get_Names(names.c_str());
  auto read = [&](const char* text) {
    int n;
    Read_DataSet(d, Write("t.data", text).c_str(), &n);
    return n;
  };
  EXPECT_EXIT(read("12abc, x.\n"), ExitedWithCode(255),
              StderrIs("illegal attribute value: 12abc for attribute len\n\n"));
  EXPECT_EXIT(read(", x.\n"), ExitedWithCode(255),
              StderrIs("illegal attribute value:  for attribute len\n\n"));
  EXPECT_EXIT(read("1, x  y.\n"), ExitedWithCode(255),
              StderrIs("****** bad class name\n\n"));
  EXPECT_EXIT(read("1, x z.\n"), ExitedWithCode(255),
              StderrIs("***z*** bad class name\n\n"));
  EXPECT_EXIT(read("1, x.\n2"), ExitedWithCode(255),
              StderrIs("end of file reached too soon\n\n"));
  EXPECT_EQ(read("1, x y x.\n"), 1);
  EXPECT_EQ(read("% nothing\n"), 0);
}

TEST_F(DataFile, ReadLabelsSetsNamedClasses) {
  dataset_info* d = Get_Names(Write("l.names", "x, y, z.\n").c_str());
  char field[] = "z x z";
  unsigned char* labels = Read_Labels(d, field);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(labels), 3), std::string("\1\0\1", 3));
  char empty[] = "";
  labels = Read_Labels(d, empty);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(labels), 3), std::string(3, '\0'));
}

TEST_F(DataFile, UnopenableFiles) {
  dataset_info* d = Get_Names(Write("u.names", "x.\n").c_str());
  int n;
  EXPECT_EXIT(Read_DataSet(d, Path("nowhere.data").c_str(), &n), ExitedWithCode(255),
              StderrIs("can't open file\n\n"));
  std::string stem = Task("x.\n", nullptr, nullptr);
  ASSERT_EQ(mkdir(Path("task.data").c_str(), 0755), 0);
  dataset_info* out;
  EXPECT_EXIT(Read_Data(stem.c_str(), &out, 0, 0), ExitedWithCode(1),
              StderrIs("mhboost: " + Path("task.data") + ": Is a directory\n"));
}

TEST_F(DataFile, ManyExamples) {
  std::string text;
  for (int i = 0; i < 5000; ++i) text += std::to_string(i) + ", " + (i % 2 ? "b" : "a") + ".\n";
  dataset_info* d;
  example_data* data =
      Read_Data(Task("a, b.\nv: continuous.\n", text.c_str(), nullptr).c_str(), &d, 0, 0);
  ASSERT_EQ(data->num_train, 5000);
  EXPECT_DOUBLE_EQ(data->train_examples[4999]->values[0].real, 4999.0);
  EXPECT_EQ(data->train_examples[4999]->index, 4999);
  EXPECT_EQ(data->train_labels[4999][1], 1);
}

// ------------------------------------------------------------ streaming

int hook_calls = 0;
void CountHook(example_data* data) {
  ++hook_calls;
  EXPECT_EQ(data->num_test, 1);
}

TEST_F(DataFile, StreamingReadsOneInstanceAtATime) {
  // Training and test files exist but are not read in classification mode.
  std::string stem = Task("x, y.\nt: text.\n", "a, x.\n", "b, y.\n");
  dataset_info* d;
  example_data* data = Read_Data(stem.c_str(), &d, 1, 0);
  EXPECT_EQ(data->num_train, 0);
  EXPECT_EQ(data->num_test, 0);
  EXPECT_EQ(data->train_examples, nullptr);
  ASSERT_NE(data->test_examples, nullptr);

  std::string input = Write("stdin.txt", "hello world, y.\nbye, x y.\n");
  ASSERT_NE(freopen(input.c_str(), "r", stdin), nullptr);
  Set_New_Instance_Hook(CountHook);
  hook_calls = 0;
  ASSERT_EQ(GetNextTestInstance(data), 1);
  EXPECT_EQ(data->num_test, 1);
  EXPECT_EQ(data->test_examples[0]->index, 0);
  EXPECT_STREQ(data->test_examples[0]->values[0].text, "hello world ");
  EXPECT_EQ(data->test_labels[0], data->test_examples[0]->labels);
  ASSERT_EQ(GetNextTestInstance(data), 1);
  EXPECT_STREQ(data->test_examples[0]->values[0].text, "bye ");
  EXPECT_EQ(GetNextTestInstance(data), 0);
  EXPECT_EQ(data->num_test, 0);
  EXPECT_EQ(data->test_examples[0], nullptr);
  EXPECT_EQ(hook_calls, 2);
  Set_New_Instance_Hook(nullptr);
}

// ------------------------------------------------------------ printing

TEST_F(DataFile, PrintersUseKeptNames) {
  std::string stem = Task("sp, po, sc.\nlen: continuous.\nt: text.\nc: r, g.\nid: ignore.\n",
                          "2.5, a b, g, 9, sp sc.\n?, c, r, 1, po.\n", nullptr);
  dataset_info* d;
  example_data* data = Read_Data(stem.c_str(), &d, 0, 0);
  ::testing::internal::CaptureStdout();
  PrintLabel(1);
  PrintAllLabels(data->train_labels[0]);
  PrintInstance(data->train_examples[0]);
  PrintInstance(data->train_examples[1]);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "po sp sc \nlen: 2.5000000\nt: a b \nc: g\nid: "
            "\nlen: ?\nt: c \nc: r\nid: ");
}

}  // namespace
