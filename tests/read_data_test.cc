// Tests of the field reader, the names file, the training/test files and the
// dictionary filters as the reader applies them.
// What the command-line cases already show (tests/cli/cases: error messages,
// value parsing, printing, streaming) is not repeated here.
#include "temp_dir.h"
#include "read_data.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "dict.h"

namespace {

using ::testing::ExitedWithCode;
using Fields = std::vector<std::pair<std::string, int>>;

// Every field of `input` with the delimiter that ended it.
Fields ReadFields(std::string input) {
  FILE* in = fmemopen(input.data(), input.size(), "r");
  static char buf[kFieldBufferSize];
  Fields fields;
  while (read_name(in, buf)) fields.emplace_back(buf, Last_Delimiter());
  EXPECT_EQ(Last_Delimiter(), EOF);
  fclose(in);
  return fields;
}

class TempDir : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = tmp_.path();
  }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  std::string Write(const std::string& name, const std::string& text) const {
    std::ofstream(Path(name)) << text;
    return Path(name);
  }
  // Writes task.names and, when given, task.data / task.test; returns the stem.
  std::string Task(const std::string& names, const char* train, const char* test) const {
    Write("task.names", names);
    if (train != nullptr) Write("task.data", train);
    if (test != nullptr) Write("task.test", test);
    return Path("task");
  }
  Temp_Dir tmp_{"mhboost_read"};
  std::string dir_;
};

// Escapes, multi-line fields and the field length limit are shown by the
// command-line case reader-formats and data-errors.
TEST(FieldReader, DelimitersCommentsAndPeriods) {
  const struct {
    const char* input;
    Fields fields;
  } cases[] = {
      {"a, b:c. d\n", {{"a", ','}, {"b", ':'}, {"c", ' '}, {"d", EOF}}},
      {"x.\ty.\nz", {{"x", '\t'}, {"y", '\n'}, {"z", EOF}}},
      {"  \n% one\n| two\n", {}},
      // A comment ends the field; one running into the end ends the input.
      {"a%b,c\nd", {{"a", '\n'}, {"d", EOF}}},
      {"x, y % no newline", {{"x", ','}, {"y", '\n'}}},
      {"x,\n| no newline", {{"x", ','}}},
      // A period is stored unless white space, a comment or the end follows;
      // the character after a stored period is stored as is, but may escape.
      {"3.14, a.,b, x.|c\nz.", {{"3.14", ','}, {"a.,b", ','}, {"x", '\n'}, {"z", EOF}}},
      {"a.:b, c.\\,d, e..f", {{"a.:b", ','}, {"c.,d", ','}, {"e..f", EOF}}},
      {". x", {{"", ' '}, {"x", EOF}}},
      {"j\\\\k, end\\", {{"j\\k", ','}, {"end", EOF}}},
      {"a ,, b", {{"a", ','}, {"", ','}, {"b", EOF}}},
  };
  for (const auto& c : cases) EXPECT_EQ(ReadFields(c.input), c.fields) << c.input;
  EXPECT_EXIT(ReadFields(std::string("ab\0c, d", 7)), ExitedWithCode(1),
              ::testing::Eq("mhboost: input: NUL byte in a field\n"));
}

using NamesFile = TempDir;

TEST_F(NamesFile, DeclaresClassesAndEveryKind) {
  dataset_info* d = Get_Names(Write("k.names",
                                    "% classes first\nsports, politics, science.\n"
                                    "headline: text.\nbody: set.\nlength: continuous.\n"
                                    "source: wire, web, print.\nrating: scoredtext.\n"
                                    "id: ignore.\ncolor: discrete 3.\nshape: discrete10.\n")
                                  .c_str());
  ASSERT_EQ(d->num_classes, 3);
  ASSERT_EQ(d->num_attributes, 8);
  const int kinds[] = {kText, kText, kContinuous, 3, kScoredText, kIgnore, 3, 10};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(d->attributes[i].num_values, kinds[i]) << i;
  EXPECT_STREQ(d->attributes[3].values[2], "print");
  for (int j = 0; j < 10; ++j) EXPECT_EQ(d->attributes[7].values[j], nullptr);
}

TEST_F(NamesFile, LongListsGrow) {
  std::string text = "c0", values = ": v0";
  for (int i = 1; i < 100; ++i) text += ", c" + std::to_string(i);
  for (int j = 1; j < 40; ++j) values += ", v" + std::to_string(j);
  text += ".\n";
  for (int i = 0; i < 70; ++i) text += "a" + std::to_string(i) + values + ".\n";
  dataset_info* d = Get_Names(Write("long.names", text).c_str());
  ASSERT_EQ(d->num_classes, 100);
  EXPECT_STREQ(d->class_names[99], "c99");
  ASSERT_EQ(d->num_attributes, 70);
  ASSERT_EQ(d->attributes[69].num_values, 40);
  EXPECT_STREQ(d->attributes[69].values[39], "v39");
}

TEST_F(NamesFile, DegenerateFiles) {
  dataset_info* empty = Get_Names(Write("e.names", "").c_str());
  ASSERT_EQ(empty->num_classes, 1);
  EXPECT_STREQ(empty->class_names[0], "");
  EXPECT_EQ(empty->num_attributes, 0);
  // Without its period the class list runs into the next line.
  dataset_info* d = Get_Names(Write("s.names", "a, b\nc.\nx: text.\n").c_str());
  ASSERT_EQ(d->num_classes, 2);
  EXPECT_STREQ(d->class_names[1], "b\nc");
  EXPECT_EQ(d->num_attributes, 1);

  std::string dir = Path("dir.names");
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  EXPECT_EXIT(Get_Names(dir.c_str()), ExitedWithCode(1),
              ::testing::Eq("mhboost: " + dir + ": Is a directory\n"));
  std::string zero = Write("z.names", "a, b.\ncolor: discrete 0.\n");
  EXPECT_EXIT(Get_Names(zero.c_str()), ExitedWithCode(1),
              ::testing::Eq("mhboost: " + zero +
                            ": attribute color: \"discrete\" needs a positive number of values\n"));
}

using DataFile = TempDir;

// Slots of discrete values, labels and example numbering are shown by the
// reader-formats case and checked on every input of the data fuzz target.
TEST_F(DataFile, GrowthAbsentAndUnopenableFiles) {
  std::string text;
  for (int i = 0; i < 5000; ++i) text += std::to_string(i) + ", " + (i % 2 ? "b" : "a") + ".\n";
  dataset_info* d;
  example_data* many =
      Read_Data(Task("a, b.\nv: continuous.\n", text.c_str(), nullptr).c_str(), &d, 0, 0);
  ASSERT_EQ(many->num_train, 5000);
  EXPECT_DOUBLE_EQ(many->train_examples[4999]->values[0].real, 4999.0);
  EXPECT_EQ(many->train_labels[4999][1], 1);

  example_data* no_test = Read_Data(Task("a, b.\n", "a.\nb.\n", nullptr).c_str(), &d, 0, 0);
  EXPECT_EQ(no_test->num_train, 2);
  EXPECT_EQ(no_test->num_test, 0);
  unlink(Path("task.data").c_str());
  Write("task.test", "b.\n");
  example_data* no_train = Read_Data(Path("task").c_str(), &d, 0, 0);
  EXPECT_EQ(no_train->num_train, 0);
  ASSERT_EQ(no_train->num_test, 1);
  EXPECT_EQ(no_train->test_examples[0]->index, 0);

  int n;
  EXPECT_EXIT(Read_DataSet(d, Path("nowhere.data").c_str(), &n), ExitedWithCode(255),
              ::testing::Eq("can't open file\n\n"));
  ASSERT_EQ(mkdir(Path("task.data").c_str(), 0755), 0);
  EXPECT_EXIT(Read_Data(Path("task").c_str(), &d, 0, 0), ExitedWithCode(1),
              ::testing::Eq("mhboost: " + Path("task.data") + ": Is a directory\n"));
}

// The word list and both filters are compared with a direct reading of the
// rules by the dict fuzz target (replayed by regress_test); here, how the
// reader applies them to text values, and the refusals.
using Dictionary = TempDir;

TEST_F(Dictionary, TextValuesAreFilteredWhileRead) {
  const struct {
    const char *dict, *title;
    int mode;
    const char* read;
  } cases[] = {
      {"the", "the  cat sat", 2, "cat sat "},
      {"cat", "the Cat\tcat  cat", 1, "cat "},
      {"", "the cat", 1, " "},
      {"cat", "the cat", 0, "the cat "},  // without a mode the file is not consulted
  };
  Write("task.names", "x, y.\ntitle: text.\n");
  for (const auto& c : cases) {
    Write("task.dict", c.dict);
    Write("task.data", std::string(c.title) + ", x.\n");
    dataset_info* d;
    example_data* data = Read_Data(Path("task").c_str(), &d, 0, c.mode);
    ASSERT_EQ(data->num_train, 1);
    EXPECT_STREQ(data->train_examples[0]->values[0].text, c.read) << c.title;
  }
  const std::string stem = Path("none"), dict = stem + ".dict";
  dataset_info* d;
  const auto missing = ::testing::Eq(dict + ": No such file or directory\n");
  EXPECT_EXIT(Read_Data(stem.c_str(), &d, 0, 1), ExitedWithCode(1), missing);
  EXPECT_EXIT(Read_Dictionary(dict.c_str()), ExitedWithCode(1), missing);
  EXPECT_EXIT(Read_Dictionary(dir_.c_str()), ExitedWithCode(1),
              ::testing::Eq("mhboost: " + dir_ + ": Is a directory\n"));
}

}  // namespace
