// A stored model must give new examples the scores that training gave them:
// train with long-form predictions, then classify the test file through
// standard input with the written model, and compare every test example's
// labels and per-class scores (the model keeps ten decimals per value).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string RunIn(const std::string& dir, const std::string& command) {
  std::string full = "cd '" + dir + "' && " + command + " 2>/dev/null";
  FILE* p = popen(full.c_str(), "r");
  std::string out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  EXPECT_EQ(pclose(p), 0) << command;
  return out;
}

struct Scored {
  std::vector<int> labels;
  std::vector<double> scores;
};

// The "Test data" block of -o: per example a "correct label = ..." line and
// one line per class "MM  value : name ".
std::vector<Scored> ParseLongForm(const std::string& out, const std::vector<std::string>& classes) {
  std::vector<Scored> result;
  const size_t start = out.find("\nTest data:\n");
  EXPECT_NE(start, std::string::npos);
  std::istringstream in(out.substr(start));
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("correct label = ", 0) != 0) continue;
    Scored s;
    std::istringstream names(line.substr(16));
    std::vector<std::string> carried;
    for (std::string w; names >> w;) carried.push_back(w);
    for (const auto& c : classes)
      s.labels.push_back(std::find(carried.begin(), carried.end(), c) != carried.end());
    for (size_t l = 0; l < classes.size(); ++l) {
      std::getline(in, line);
      s.scores.push_back(std::strtod(line.c_str() + 2, nullptr));
    }
    result.push_back(s);
  }
  return result;
}

std::vector<Scored> ParseShortForm(const std::string& out, size_t k) {
  std::vector<Scored> result;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line);
    Scored s;
    for (size_t l = 0; l < k; ++l) {
      int y;
      fields >> y;
      s.labels.push_back(y);
    }
    for (size_t l = 0; l < k; ++l) {
      double v;
      fields >> v;
      s.scores.push_back(v);
    }
    result.push_back(s);
  }
  return result;
}

class RoundTrip : public ::testing::TestWithParam<std::string> {};

TEST_P(RoundTrip, ClassifyingTheTestFileRepeatsTrainingScores) {
  char tmpl[] = "/tmp/mhboost-roundtrip-XXXXXX";
  const std::string dir = mkdtemp(tmpl);
  const std::string src = std::string(MHBOOST_SOURCE_DIR) + "/examples/news.";
  for (const char* ext : {"names", "data", "test"})
    ASSERT_EQ(std::system(("cp '" + src + ext + "' '" + dir + "/'").c_str()), 0);
  const std::vector<std::string> classes = {"sports", "politics", "science", "business"};
  const std::string bin = MHBOOST_BINARY;

  const std::string trained = RunIn(dir, bin + " -S news -n 12 -o " + GetParam());
  const std::vector<Scored> expected = ParseLongForm(trained, classes);
  const std::string classified = RunIn(dir, bin + " -S news -C " + GetParam() + " < news.test");
  const std::vector<Scored> got = ParseShortForm(classified, classes.size());

  ASSERT_EQ(expected.size(), 25u);
  ASSERT_EQ(got.size(), expected.size());
  for (size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i].labels, expected[i].labels) << "example " << i;
    for (size_t l = 0; l < classes.size(); ++l)
      EXPECT_NEAR(got[i].scores[l], expected[i].scores[l], 2e-6) << "example " << i << " class " << l;
  }
  std::system(("rm -rf '" + dir + "'").c_str());
}

// Terms of every kind, with the attribute prefixes and discrete keys that a
// model must find again in new text; thresholds on the continuous attribute.
INSTANTIATE_TEST_SUITE_P(Learners, RoundTrip,
                         ::testing::Values("-W 3", "-N ngram -W 2", "-N fgram -W 2", "-W 2 -R",
                                           "-z", "-L"));

}  // namespace
