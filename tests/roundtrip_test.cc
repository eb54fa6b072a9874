// A stored model must give new examples the scores that training gave them:
// train with long-form predictions, then classify the test file through
// standard input with the written model (-C -o). Both long forms of the test
// examples, labels, scores and markers of the top class, must be the same
// text (the model's ten decimals per value are ample for six printed).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "temp_dir.h"

namespace {

std::string RunIn(const std::string& dir, const std::string& command) {
  FILE* p = popen(("cd '" + dir + "' && " MHBOOST_BINARY " -S news " + command + " 2>/dev/null").c_str(), "r");
  std::string out;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  EXPECT_EQ(pclose(p), 0) << command;
  return out;
}

class RoundTrip : public ::testing::TestWithParam<std::string> {};

TEST_P(RoundTrip, ClassifyingTheTestFileRepeatsTrainingScores) {
  const Temp_Dir tmp("mhboost-roundtrip");
  const std::string& dir = tmp.path();
  ASSERT_EQ(std::system(("cp " MHBOOST_SOURCE_DIR "/examples/news.* '" + dir + "/'").c_str()), 0);
  std::string trained = RunIn(dir, "-n 25 -o " + GetParam());
  const std::string classified = RunIn(dir, "-C -o " + GetParam() + " < news.test");
  const size_t test = trained.find("\nTest data:\n");
  ASSERT_NE(test, std::string::npos);
  trained = trained.substr(trained.find("\nheadline:", test));
  int examples = 0;
  for (size_t at = 0; (at = trained.find("correct label", at + 1)) != std::string::npos;) ++examples;
  ASSERT_EQ(examples, 25);
  EXPECT_EQ(classified.substr(classified.find("\nheadline:")), trained);
}

// The models hold attribute-prefixed terms of each enumerator, sparse terms
// with a wildcard (-W 3), a discrete key (-z) and thresholds on the
// continuous attribute (all but -L, whose linear rules this data never picks).
INSTANTIATE_TEST_SUITE_P(Learners, RoundTrip,
                         ::testing::Values("-W 3", "-N ngram -W 2", "-N fgram -W 2", "-W 2 -R",
                                           "-z -W 2", "-L"));

}  // namespace
