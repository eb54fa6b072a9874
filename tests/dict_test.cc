// Tests of the dictionary reader, both filters, and their use on text values
// while examples are read.
#include "dict.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
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
  void TearDown() override { ASSERT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0); }
  std::string Write(const std::string& name, const std::string& text) const {
    std::ofstream(dir_ + "/" + name) << text;
    return dir_ + "/" + name;
  }
  std::string dir_;
};

TEST_F(Dictionary, ReadsWordsInFileOrderIntoOneBlock) {
  std::string huge(5000, 'w');
  char** list = Read_Dictionary(Write("d", "  the\tcat\n\nsat the\r\n" + huge + " end").c_str());
  std::vector<std::string> words(list, list + 6);
  EXPECT_EQ(words, (std::vector<std::string>{"the", "cat", "sat", "the", huge, "end"}));
  EXPECT_EQ(list[6], nullptr);
  EXPECT_EQ(list[1], list[0] + 4);
  EXPECT_EQ(Read_Dictionary(Write("e", " \n\t").c_str())[0], nullptr);

  std::string missing = dir_ + "/none.dict";
  EXPECT_EXIT(Read_Dictionary(missing.c_str()), ::testing::ExitedWithCode(1),
              ::testing::Eq(missing + ": No such file or directory\n"));
  EXPECT_EXIT(Read_Dictionary(dir_.c_str()), ::testing::ExitedWithCode(1),
              ::testing::Eq("mhboost: " + dir_ + ": Is a directory\n"));
}

TEST_F(Dictionary, FiltersBlankWholeWordsInPlace) {
  char** dict = Read_Dictionary(Write("d", "the cat").c_str());
  char* none[] = {nullptr};
  const struct {
    char** dict;
    const char *text, *removed, *kept;
  } cases[] = {
      {dict, "the cat sat ", "        sat ", "the cat     "},
      // Exact, case-sensitive matching; only a space separates words.
      {dict, "Cat cats the\tcat ", "Cat cats the\tcat ", "                 "},
      {dict, "cat\tdog  cat ", "cat\tdog      ", "         cat "},
      // A word with no space after it is left alone.
      {dict, "the cat", "    cat", "the cat"},
      {none, "a b ", "a b ", "    "},
      {nullptr, "a b ", "a b ", "a b "},
  };
  for (const auto& c : cases) {
    std::string removed = c.text, kept = c.text;
    Remove_Dict_Words(c.dict, removed.data());
    Remove_Non_Dict_Words(c.dict, kept.data());
    EXPECT_EQ(removed, c.removed) << c.text;
    EXPECT_EQ(kept, c.kept) << c.text;
  }
}

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
    example_data* data = Read_Data((dir_ + "/task").c_str(), &d, 0, c.mode);
    ASSERT_EQ(data->num_train, 1);
    EXPECT_STREQ(data->train_examples[0]->values[0].text, c.read) << c.title;
  }
  std::string stem = dir_ + "/none";
  dataset_info* d;
  EXPECT_EXIT(Read_Data(stem.c_str(), &d, 0, 1), ::testing::ExitedWithCode(1),
              ::testing::Eq(stem + ".dict: No such file or directory\n"));
}

}  // namespace
