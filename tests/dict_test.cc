// Tests of the dictionary reader, both filters, and their use on text values
// while examples are read.
#include "dict.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "read_data.h"

namespace {

class Dictionary : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/mhboost_dict_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    std::string cmd = "rm -rf '" + dir_ + "'";
    ASSERT_EQ(system(cmd.c_str()), 0);
  }
  std::string Write(const std::string& name, const std::string& text) const {
    std::string path = dir_ + "/" + name;
    FILE* f = fopen(path.c_str(), "w");
    EXPECT_NE(f, nullptr);
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
    return path;
  }
  // The title of the one training example of a task whose text attribute
  // holds `title`, read with dictionary mode `mode`.
  std::string FilteredTitle(const std::string& dict, const std::string& title, int mode) {
    Write("task.dict", dict);
    Write("task.names", "x, y.\ntitle: text.\n");
    Write("task.data", title + ", x.\n");
    dataset_info* d;
    example_data* data = Read_Data((dir_ + "/task").c_str(), &d, 0, mode);
    EXPECT_EQ(data->num_train, 1);
    return data->train_examples[0]->values[0].text;
  }
  std::string dir_;
};

std::vector<std::string> Words(char** list) {
  std::vector<std::string> words;
  for (; *list != nullptr; ++list) words.emplace_back(*list);
  return words;
}

std::string Filter(void (*fn)(char**, char*), char** dict, std::string text) {
  fn(dict, text.data());
  return text;
}

TEST_F(Dictionary, ReadsWordsInFileOrder) {
  char** list = Read_Dictionary(Write("d", "  the\tcat\n\nsat the\r\nend").c_str());
  EXPECT_EQ(Words(list), (std::vector<std::string>{"the", "cat", "sat", "the", "end"}));
  // Words lie end to end in one block.
  EXPECT_EQ(list[1], list[0] + 4);

  char** empty = Read_Dictionary(Write("e", " \n\t").c_str());
  EXPECT_EQ(empty[0], nullptr);

  std::string huge(5000, 'w');
  char** long_words = Read_Dictionary(Write("l", "a " + huge + " b").c_str());
  EXPECT_EQ(Words(long_words), (std::vector<std::string>{"a", huge, "b"}));
}

TEST_F(Dictionary, UnreadableFiles) {
  std::string missing = dir_ + "/none.dict";
  EXPECT_EXIT(Read_Dictionary(missing.c_str()), ::testing::ExitedWithCode(1),
              ::testing::Eq(missing + ": No such file or directory\n"));
  EXPECT_EXIT(Read_Dictionary(dir_.c_str()), ::testing::ExitedWithCode(1),
              ::testing::Eq("mhboost: " + dir_ + ": Is a directory\n"));
}

TEST_F(Dictionary, FiltersBlankWholeWordsInPlace) {
  char** dict = Read_Dictionary(Write("d", "the cat").c_str());
  EXPECT_EQ(Filter(Remove_Dict_Words, dict, "the cat sat "), "        sat ");
  EXPECT_EQ(Filter(Remove_Non_Dict_Words, dict, "the cat sat "), "the cat     ");
  // Matching is exact and case-sensitive; only a blank separates words.
  EXPECT_EQ(Filter(Remove_Dict_Words, dict, "Cat cats the\tcat "), "Cat cats the\tcat ");
  EXPECT_EQ(Filter(Remove_Non_Dict_Words, dict, "cat\tdog  cat "), "         cat ");
  // A word with no blank after it is left alone.
  EXPECT_EQ(Filter(Remove_Dict_Words, dict, "the cat"), "    cat");
}

TEST_F(Dictionary, HandBuiltAndEmptyLists) {
  char the[] = "the", cat[] = "cat";
  char* hand[] = {the, cat, nullptr};
  EXPECT_EQ(Filter(Remove_Dict_Words, hand, "a the cat b "), "a         b ");
  EXPECT_EQ(Filter(Remove_Non_Dict_Words, hand, "a the cat b "), "  the cat   ");

  char* none[] = {nullptr};
  EXPECT_EQ(Filter(Remove_Dict_Words, none, "a b "), "a b ");
  EXPECT_EQ(Filter(Remove_Non_Dict_Words, none, "a b "), "    ");
  EXPECT_EQ(Filter(Remove_Dict_Words, nullptr, "a b "), "a b ");
  EXPECT_EQ(Filter(Remove_Non_Dict_Words, nullptr, "a b "), "a b ");
}

TEST_F(Dictionary, TextValuesAreFilteredWhileRead) {
  EXPECT_EQ(FilteredTitle("the", "the cat sat", 2), "cat sat ");
  EXPECT_EQ(FilteredTitle("cat", "the cat sat", 1), "cat ");
  EXPECT_EQ(FilteredTitle("", "the cat sat", 1), " ");
  EXPECT_EQ(FilteredTitle("", "the cat sat", 2), "the cat sat ");
  EXPECT_EQ(FilteredTitle("cat", "the Cat\tcat  cat", 1), "cat ");
  // Without a dictionary mode the .dict file is not consulted.
  EXPECT_EQ(FilteredTitle("cat", "the cat", 0), "the cat ");
}

TEST_F(Dictionary, MissingDictionaryEndsTheRun) {
  Write("task.names", "x.\n");
  std::string stem = dir_ + "/task";
  dataset_info* d;
  EXPECT_EXIT(Read_Data(stem.c_str(), &d, 0, 1), ::testing::ExitedWithCode(1),
              ::testing::Eq(stem + ".dict: No such file or directory\n"));
}

}  // namespace
