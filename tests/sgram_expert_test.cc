// Expert creation over small in-memory data sets (text, discrete, continuous
// and scored-text attributes, with and without -I and -L), checked against a
// plain map-based reference, and the seeded sort of valued experts.
#include "sgram_expert.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "text_util.h"
#include "weak_parm.h"

namespace {

using Ints = std::vector<int>;
using Doubles = std::vector<double>;
using Strings = std::vector<std::string>;

// A names record and examples built by hand (never freed, like the real
// ones). Values are "?" for unknown, else the text, discrete index or number.
// The first `train` examples are the training set.
struct Data {
  dataset_info names{};
  std::vector<example*> ex;
  int train = 0;
  example_data data{};
  text_expert_rec* experts = nullptr;

  Data(std::vector<std::pair<std::string, int>> attributes, int num_classes) {
    names.num_classes = num_classes;
    names.num_attributes = static_cast<int>(attributes.size());
    names.attributes = new attribute_info[attributes.size()];
    for (size_t j = 0; j < attributes.size(); ++j)
      names.attributes[j] = {strdup(attributes[j].first.c_str()), attributes[j].second, nullptr};
  }
  void Add(const Strings& values, const Ints& labels = {}, bool is_train = false) {
    example* e = new example{};
    e->values = new attribute_value[values.size()]{};
    e->is_unknown = new int[values.size()]{};
    e->labels = new unsigned char[static_cast<size_t>(names.num_classes)]{};
    for (int l : labels) e->labels[l] = 1;
    for (size_t j = 0; j < values.size(); ++j) {
      int kind = names.attributes[j].num_values;
      if (values[j] == "?") e->is_unknown[j] = 1;
      else if (kind == kContinuous) e->values[j].real = strtod(values[j].c_str(), nullptr);
      else if (kind > 0) e->values[j].index = atol(values[j].c_str());
      else e->values[j].text = strdup(values[j].c_str());
    }
    ex.push_back(e);
    if (is_train) train = static_cast<int>(ex.size());
  }
  void Train(const Strings& values, const Ints& labels) { Add(values, labels, true); }

  // Scores of scored text are added (the default of -F).
  text_expert_rec* Create(term_expander expand, int window, int class_index = -1, int flag_L = 0,
                          pair_combiner fmultiple = max) {
    data = example_data{names.num_classes, train, static_cast<int>(ex.size()) - train,
                        ex.data(), nullptr, ex.data() + train, nullptr};
    text_expert_info info{};
    info.window = window;
    info.class_index = class_index;
    info.flag_L = flag_L;
    info.fmultiple = fmultiple;
    return experts = Create_Ngram_Experts(&data, expand, &names, &info);
  }
  Strings Terms() const {
    Strings out;
    for (text_expert_rec* r = experts; r->term != nullptr; ++r) out.emplace_back(r->term);
    return out;
  }
  const text_expert_rec& Expert(const std::string& term) const {
    for (text_expert_rec* r = experts; r->term != nullptr; ++r)
      if (term == r->term) return *r;
    ADD_FAILURE() << "no expert '" << term << "'";
    static text_expert_rec none{};
    return none;
  }
};

template <class T>
std::vector<T> List(const T* p, int n) {
  return p == nullptr ? std::vector<T>{} : std::vector<T>(p, p + n);
}

// Reference: every key of every example gathered in maps, keys ordered by
// first appearance in the training set; (example, count, value) per entry.
struct Reference {
  Strings order;
  std::map<std::string, std::vector<std::tuple<int, int, double>>> train, test;
  std::map<std::string, bool> valued;
};

void AddKeysOf(Reference& ref, const Data& d, int e, term_expander f, int w, pair_combiner fm) {
  const bool is_train = e < d.train;
  auto add = [&](const std::string& key, bool valued, double v) {
    if (is_train && !ref.train.count(key)) {
      ref.order.push_back(key);
      ref.train[key];
      ref.valued[key] = true;
    }
    if (!ref.train.count(key)) return;
    if (is_train) ref.valued[key] = ref.valued[key] && valued;
    auto& list = (is_train ? ref.train : ref.test)[key];
    if (!list.empty() && std::get<0>(list.back()) == e) {
      std::get<1>(list.back())++;
      std::get<2>(list.back()) = fm(std::get<2>(list.back()), v);
    } else {
      list.emplace_back(e, 1, valued ? v : 0);
    }
  };
  example* x = d.ex[static_cast<size_t>(e)];
  for (int j = 0; j < d.names.num_attributes; ++j) {
    const attribute_info& a = d.names.attributes[j];
    std::string name = a.name;
    if (x->is_unknown[j]) continue;
    if (a.num_values > 0) {
      add(name + ":" + std::to_string(x->values[j].index), false, 0);
    } else if (a.num_values == kContinuous) {
      add(name + ":", true, x->values[j].real);
    } else {
      bool scored = a.num_values == kScoredText;
      std::vector<char*> scores(static_cast<size_t>(w) + 1, nullptr);
      for (char* t; (t = f(x->values[j].text, w, a.num_values, scores.data(), scored));) {
        add(d.names.num_attributes > 1 ? name + ":" + t : std::string(t), scored,
            scored ? static_cast<double>(adds(scores.data())) : 0.0);
        if (scored && f != Next_Sparse_Ngram) {
          free(t);
          for (char** s = scores.data(); *s != nullptr; ++s) free(*s);
        }
      }
    }
  }
}

// Two attributes share the name "d", so their equal keys are one expert.
TEST(CreateExpertsTest, MatchesPlainReferenceOnRandomData) {
  std::mt19937 rng(20240611);
  Data d({{"t", kText}, {"d", 4}, {"n", kContinuous}, {"s", kScoredText}, {"d", 4}}, 2);
  auto value = [&](int j) -> std::string {
    if (rng() % 7 == 0) return "?";
    if (j == 1 || j == 4) return std::to_string(rng() % 4);
    if (j == 2) return std::to_string(static_cast<int>(rng() % 5) - 2);
    static const char* words[] = {"a", "b", "c", "dd", "e", "f"};
    static const char* scores[] = {"1", "0.5", "-2", "3"};
    std::string t;
    for (int i = static_cast<int>(rng() % 9); i > 0; --i)
      t += std::string(words[rng() % 6]) + " " + (j == 3 ? std::string(scores[rng() % 4]) + " " : "");
    return t.empty() ? " " : t;
  };
  for (int i = 0; i < 60; ++i) d.Add({value(0), value(1), value(2), value(3), value(4)}, {0}, i < 45);
  for (term_expander f : {Next_Sparse_Ngram, Next_Ngram, Next_Ngram_Full})
    for (int w : {1, 2, 4})
      for (int flag_L : {0, 1}) {  // -L, with repeated values added (-M +)
        SCOPED_TRACE("W=" + std::to_string(w) + " L=" + std::to_string(flag_L));
        pair_combiner fm = flag_L ? add : max;
        Reference ref;
        for (int e = 0; e < static_cast<int>(d.ex.size()); ++e) AddKeysOf(ref, d, e, f, w, fm);
        text_expert_rec* x = d.Create(f, w, -1, flag_L, fm);
        ASSERT_EQ(d.Terms(), ref.order);
        EXPECT_EQ(Num_Text_Experts(), static_cast<int>(ref.order.size()));
        for (size_t k = 0; k < ref.order.size(); ++k) {
          const std::string& key = ref.order[k];
          SCOPED_TRACE(key);
          const text_expert_rec& r = x[k];
          const auto &tr = ref.train[key], &te = ref.test[key];
          const bool valued = ref.valued[key];
          EXPECT_EQ(r.list_id, static_cast<int>(k));
          ASSERT_EQ(r.num_train, static_cast<int>(tr.size()));
          ASSERT_EQ(r.num_test, static_cast<int>(te.size()));
          EXPECT_EQ(r.type, !valued ? kTypeFgram : flag_L ? kTypeLinear : kTypeThreshold);
          EXPECT_EQ(r.values == nullptr && r.test_values == nullptr, !valued);
          auto want = tr, got = tr;
          for (size_t i = 0; i < tr.size(); ++i) {
            EXPECT_EQ(r.train_index[i], std::get<0>(tr[i]));
            if (!valued) {
              EXPECT_EQ(r.train_count[i], std::get<1>(tr[i]));
            } else {
              EXPECT_EQ(r.values[i], std::get<2>(tr[i]));
              got[i] = {r.sorted_index[i], r.train_count[i], r.sorted_values[i]};
            }
          }
          for (size_t i = 0; i < te.size(); ++i) {
            EXPECT_EQ(r.test_index[i], std::get<0>(te[i]));
            EXPECT_EQ(r.test_count[i], std::get<1>(te[i]));
            if (valued) {
              EXPECT_EQ(r.test_values[i], std::get<2>(te[i]));
            }
          }
          if (!valued) continue;
          // Sorted ascending, each value with its example and count.
          EXPECT_TRUE(std::is_sorted(r.sorted_values, r.sorted_values + r.num_train));
          std::sort(want.begin(), want.end());
          std::sort(got.begin(), got.end());
          EXPECT_EQ(got, want);
        }
      }
}

TEST(CreateExpertsTest, OneClassKeysWithWholeSetCounts) {
  // Keys come from class 1's examples, counts from all. A continuous
  // attribute gives its key only in first place, even where the value lacks.
  Data c({{"n", kContinuous}, {"t", kText}, {"d", 3}, {"s", kScoredText}, {"m", kContinuous}}, 3);
  c.Train({"2.5", "x y ", "1", "p 1 ", "1"}, {0});
  c.Train({"?", "y ", "2", "q 2 p 3 ", "2"}, {1});
  c.Train({"-1", "y x ", "2", "p 4 ", "3"}, {0});
  c.Add({"4", "y ", "2", "p 5 ", "5"});
  c.Create(Next_Sparse_Ngram, 1, 1);
  EXPECT_EQ(c.Terms(), (Strings{"n:", "t:y ", "d:2", "s:q ", "s:p "}));
  EXPECT_EQ(List(c.Expert("n:").sorted_values, 2), (Doubles{-1, 2.5}));
  EXPECT_EQ(List(c.Expert("t:y ").train_index, 3), (Ints{0, 1, 2}));
  EXPECT_EQ(List(c.Expert("t:y ").test_index, 1), Ints{3});
  EXPECT_EQ(List(c.Expert("d:2").train_index, 2), (Ints{1, 2}));
  EXPECT_EQ(List(c.Expert("d:2").test_index, 1), Ints{3});
  EXPECT_EQ(List(c.Expert("s:p ").values, 3), (Doubles{1, 3, 4}));
  EXPECT_EQ(List(c.Expert("s:p ").test_values, 1), Doubles{5});
  EXPECT_EQ(List(c.Expert("s:q ").train_index, 1), Ints{1});
  // A class no example carries, or one that does not exist: no experts.
  for (int cls : {2, 7}) {
    EXPECT_EQ(c.Create(Next_Sparse_Ngram, 1, cls)[0].term, nullptr);
    EXPECT_EQ(Num_Text_Experts(), 0);
  }
}

TEST(CreateExpertsDeathTest, WindowBelowOneIsRefused) {
  Data d({{"body", kText}}, 1);
  d.Train({"a "}, {0});
  EXPECT_EXIT(d.Create(Next_Ngram, -3), ::testing::ExitedWithCode(1),
              "^Illegal window length \\(-3\\)");
}

// Sortedness and the companion arrays are checked by the reference test
// above; here, the use of random() for equal keys.
TEST(RsortTest, FollowsTheSeed) {
  auto run = [](std::vector<double> keys, unsigned seed) {
    Ints a(keys.size()), b(keys.size());
    for (size_t i = 0; i < keys.size(); ++i) a[i] = b[i] = static_cast<int>(i);
    srandom(seed);
    rsort(keys.data(), a.data(), b.data(), static_cast<int>(keys.size()));
    EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
    EXPECT_EQ(a, b);
    return a;
  };
  std::vector<double> keys;
  for (int i = 0; i < 300; ++i) keys.push_back((i * 7919) % 37);
  EXPECT_EQ(run(keys, 5), run(keys, 5));
  EXPECT_NE(run(keys, 5), run(keys, 6));  // equal keys land by random()
  run(std::vector<double>(100000, 1.0), 1);  // one long run of a value
  // Fewer than two keys draw no random number.
  srandom(9);
  long expected = random();
  run({4.0}, 9);
  EXPECT_EQ(random(), expected);
}

// Expert creation takes the sparse terms of a plain text from a shortcut
// that must give exactly what the enumerator gives: same terms, same order.
// Words are drawn from a set that exercises the trimming of "?" characters
// and the dropping of terms with "*"; texts not in the reader's form, and
// windows the enumerator refuses, must be left to it.
TEST(SparseTermShortcut, GivesWhatTheEnumeratorGives) {
  const Strings words = {"a", "bb", "?", "??", "a?", "?a", "a?b", "*", "x*", "\xe9t\xe9"};
  std::mt19937 rng(11);
  auto enumerate = [](const std::string& text, int w) {
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    Strings out;
    for (char* t; (t = Next_Sparse_Ngram(buf.data(), w, kText, nullptr, 0)) != nullptr;)
      out.emplace_back(t);
    return out;
  };
  // Each term's hash is checked as that of the key "name:" + term.
  auto shortcut = [](const std::string& text, int w, Strings& out) {
    return For_Each_Sparse_Term(text.c_str(), w, Hash_Key("name:"), [&](const char* t, size_t n,
                                                                         uint32_t h) {
      out.emplace_back(t, n);
      EXPECT_EQ(h, Hash_Key(("name:" + out.back()).c_str())) << out.back();
    });
  };
  for (int round = 0; round < 600; ++round) {
    std::string text;
    const int n = static_cast<int>(rng() % 7);
    for (int i = 0; i < n; ++i) text += words[rng() % words.size()] + " ";
    const int w = 1 + static_cast<int>(rng() % 7);
    Strings got;
    ASSERT_TRUE(shortcut(text, w, got)) << text;
    ASSERT_EQ(got, enumerate(text, w)) << "text '" << text << "' W " << w;
  }
  Strings none;
  for (const char* text : {" a ", "a  b ", "a b"}) EXPECT_FALSE(shortcut(text, 3, none)) << text;
  EXPECT_FALSE(shortcut("a b ", kMaxSparseWindow + 1, none));
  EXPECT_TRUE(none.empty());
  Strings wide;
  ASSERT_TRUE(shortcut("p q r ", 12, wide));
  EXPECT_EQ(wide, enumerate("p q r ", 12));
}

}  // namespace
