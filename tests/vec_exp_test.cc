// Exp_Array against exp(3), value by value and bit for bit: across the
// range the vector formula covers, at its edges, around the points where
// the argument reduction switches table entries, and on inputs it hands
// back to exp(3) (tiny, huge, infinite, NaN, results that underflow).
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "vec_exp.h"

namespace {

// Inputs of every kind, in an order that puts special values in every lane
// position and arrays whose length is not a multiple of eight.
std::vector<double> inputs() {
  std::vector<double> x = {0.0,
                           -0.0,
                           std::numeric_limits<double>::infinity(),
                           -std::numeric_limits<double>::infinity(),
                           std::numeric_limits<double>::quiet_NaN(),
                           -std::numeric_limits<double>::quiet_NaN(),
                           std::numeric_limits<double>::denorm_min(),
                           std::numeric_limits<double>::min(),
                           0x1p-54,
                           -0x1p-54,
                           std::nextafter(0x1p-54, 0.0),
                           512.0,
                           -512.0,
                           std::nextafter(512.0, 0.0),
                           std::nextafter(-512.0, 0.0),
                           709.782712893384,
                           709.8,
                           -708.39641853226408,
                           -745.13321910194110,
                           -746.0,
                           1e300,
                           -1e300};
  std::mt19937_64 gen(7);
  std::uniform_real_distribution<double> covered(-512.0, 512.0), weights(-60.0, 3.0),
      beyond(-800.0, 800.0);
  for (int i = 0; i < 200000; ++i) x.push_back(covered(gen));
  for (int i = 0; i < 200000; ++i) x.push_back(weights(gen));
  for (int i = 0; i < 20000; ++i) x.push_back(beyond(gen));
  for (int i = 0; i < 20000; ++i)
    x.push_back(std::bit_cast<double>(gen()));  // any bit pattern, NaNs with payloads included
  for (int i = 0; i < 50000; ++i) {
    // Next to multiples of ln 2 / 128, where the reduction picks one of two
    // table entries.
    const double k = static_cast<double>(static_cast<int64_t>(gen() % 180000) - 90000);
    const uint64_t near = std::bit_cast<uint64_t>(k * 0.0054152123481117085);
    x.push_back(std::bit_cast<double>(near + gen() % 9 - 4));
  }
  for (int e = -60; e < -40; ++e) x.push_back(std::ldexp(1.37, e));
  return x;
}

void expect_same_as_exp(const std::vector<double>& x, const std::vector<double>& got) {
  ASSERT_EQ(x.size(), got.size());
  int shown = 0;
  for (size_t i = 0; i < x.size(); ++i) {
    const double want = std::exp(x[i]);
    // NaNs too: their sign and payload must be the ones exp(3) returns.
    if (std::bit_cast<uint64_t>(got[i]) != std::bit_cast<uint64_t>(want)) {
      ADD_FAILURE() << "exp(" << std::hexfloat << x[i] << ") = " << want << ", got " << got[i];
      if (++shown == 10) return;
    }
  }
}

TEST(VecExpTest, MatchesTheCLibraryBitForBit) {
  const std::vector<double> x = inputs();
  for (size_t n : {x.size(), size_t{13}, size_t{8}, size_t{7}, size_t{1}}) {
    const std::vector<double> part(x.begin(), x.begin() + static_cast<std::ptrdiff_t>(n));
    std::vector<double> got(n);
    Exp_Array(part.data(), got.data(), n);
    expect_same_as_exp(part, got);
  }
}

TEST(VecExpTest, WorksInPlaceAndOnOddOffsets) {
  const std::vector<double> x = inputs();
  for (size_t offset : {0, 1, 3}) {
    std::vector<double> y(x.begin() + static_cast<std::ptrdiff_t>(offset), x.end());
    Exp_Array(y.data(), y.data(), y.size());
    expect_same_as_exp(std::vector<double>(x.begin() + static_cast<std::ptrdiff_t>(offset), x.end()), y);
  }
}

// Every path the processor offers, each checked against exp(3): the
// start-up check alone would let a wrong path through unnoticed if it
// happened to agree on the probes.
TEST(VecExpTest, EveryWidthMatchesTheCLibrary) {
  const std::vector<double> x = inputs();
  const int widest = Exp_Array_Width();
  for (int lanes : {8, 4, 0}) {
    const int was = Exp_Array_Limit_Width(lanes);
    EXPECT_EQ(widest, was);
    const int got_width = Exp_Array_Width();
    EXPECT_LE(got_width, lanes);
    std::vector<double> got(x.size());
    Exp_Array(x.data(), got.data(), x.size());
    expect_same_as_exp(x, got);
    // An odd length leaves a tail after the last whole vector.
    std::vector<double> odd(x.begin(), x.begin() + 11), odd_got(11);
    Exp_Array(odd.data(), odd_got.data(), odd.size());
    expect_same_as_exp(odd, odd_got);
    Exp_Array_Limit_Width(8);
  }
  EXPECT_EQ(widest, Exp_Array_Width());
}

TEST(VecExpTest, VectorsAreUsedWhereTheProcessorHasThem) {
  __builtin_cpu_init();
  // The start-up check compares the formula with this C library's exp; if
  // it fails here, Exp_Array is correct but slow, and the formula needs to
  // follow the library.
  if (__builtin_cpu_supports("avx512f")) {
    EXPECT_EQ(8, Exp_Array_Width());
    Exp_Array_Limit_Width(4);
    EXPECT_EQ(__builtin_cpu_supports("fma") ? 4 : 0, Exp_Array_Width());
    Exp_Array_Limit_Width(8);
  } else if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) {
    EXPECT_EQ(4, Exp_Array_Width());
  } else {
    GTEST_SKIP() << "no AVX-512 or AVX2 here";
  }
}

}  // namespace
