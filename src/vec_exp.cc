// exp over arrays of doubles with AVX-512 or AVX2, bit for bit the C
// library's exp.
//
// The C library (glibc 2.28 and later, the build that uses fused
// multiply-adds) computes exp(x) for 2^-54 <= |x| < 512 as follows, each
// step rounded to double:
//   z = fma(x, 128/ln 2, S)          S = 1.5 * 2^52 rounds z to an integer k
//   k = z - S
//   r = fma(k, -ln2hi/128, x)
//   r = fma(k, -ln2lo/128, r)        x = k ln2/128 + r, |r| <= ln2/256
//   tmp = fma(r^4, C4 + r C5, fma(C2 + r C3, r^2, tail[k mod 128] + r))
//   scale = 2^(k/128) as H[k mod 128] with k div 128 added to its exponent
//   exp(x) = fma(scale, tmp, scale)
// (the polynomial's inner products are fused too, as the library fuses
// them). The same steps on eight (or four) lanes give the same bits; lanes outside
// that range (tiny, huge, infinite or NaN inputs, and the library's
// special scaling near the ends of the range) are handed to exp(3) itself.
// Because another C library could use another formula, the vector path is
// checked against exp(3) on probe inputs before it is first used.
#include "vec_exp.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include <immintrin.h>

namespace {

constexpr uint64_t kInvLn2N = 0x40671547652b82feULL;    // 128 / ln 2
constexpr uint64_t kNegLn2HiN = 0xbf762e42fefa0000ULL;  // -(ln 2 / 128), high part
constexpr uint64_t kNegLn2LoN = 0xbd0cf79abc9e3b3aULL;  // and the rest
constexpr uint64_t kC2 = 0x3fdffffffffffdbdULL;
constexpr uint64_t kC3 = 0x3fc555555555543cULL;
constexpr uint64_t kC4 = 0x3fa55555cf172b91ULL;
constexpr uint64_t kC5 = 0x3f81111167a4d017ULL;
constexpr uint64_t kShift = 0x4338000000000000ULL;  // 1.5 * 2^52

// For i < 128: the bits of tail_i = 2^(i/128) / H_i - 1, then the bits of
// H_i (2^(i/128) rounded to double) less i << 45. tools/gen_exp_table.py
// computes them.
alignas(64) constexpr uint64_t kTable[256] = {
    0x0000000000000000, 0x3ff0000000000000, 0x3c9b3b4f1a88bf6e, 0x3feff63da9fb3335,
    0xbc7160139cd8dc5d, 0x3fefec9a3e778061, 0xbc905e7a108766d1, 0x3fefe315e86e7f85,
    0x3c8cd2523567f613, 0x3fefd9b0d3158574, 0xbc8bce8023f98efa, 0x3fefd06b29ddf6de,
    0x3c60f74e61e6c861, 0x3fefc74518759bc8, 0x3c90a3e45b33d399, 0x3fefbe3ecac6f383,
    0x3c979aa65d837b6d, 0x3fefb5586cf9890f, 0x3c8eb51a92fdeffc, 0x3fefac922b7247f7,
    0x3c3ebe3d702f9cd1, 0x3fefa3ec32d3d1a2, 0xbc6a033489906e0b, 0x3fef9b66affed31b,
    0xbc9556522a2fbd0e, 0x3fef9301d0125b51, 0xbc5080ef8c4eea55, 0x3fef8abdc06c31cc,
    0xbc91c923b9d5f416, 0x3fef829aaea92de0, 0x3c80d3e3e95c55af, 0x3fef7a98c8a58e51,
    0xbc801b15eaa59348, 0x3fef72b83c7d517b, 0xbc8f1ff055de323d, 0x3fef6af9388c8dea,
    0x3c8b898c3f1353bf, 0x3fef635beb6fcb75, 0xbc96d99c7611eb26, 0x3fef5be084045cd4,
    0x3c9aecf73e3a2f60, 0x3fef54873168b9aa, 0xbc8fe782cb86389d, 0x3fef4d5022fcd91d,
    0x3c8a6f4144a6c38d, 0x3fef463b88628cd6, 0x3c807a05b0e4047d, 0x3fef3f49917ddc96,
    0x3c968efde3a8a894, 0x3fef387a6e756238, 0x3c875e18f274487d, 0x3fef31ce4fb2a63f,
    0x3c80472b981fe7f2, 0x3fef2b4565e27cdd, 0xbc96b87b3f71085e, 0x3fef24dfe1f56381,
    0x3c82f7e16d09ab31, 0x3fef1e9df51fdee1, 0xbc3d219b1a6fbffa, 0x3fef187fd0dad990,
    0x3c8b3782720c0ab4, 0x3fef1285a6e4030b, 0x3c6e149289cecb8f, 0x3fef0cafa93e2f56,
    0x3c834d754db0abb6, 0x3fef06fe0a31b715, 0x3c864201e2ac744c, 0x3fef0170fc4cd831,
    0x3c8fdd395dd3f84a, 0x3feefc08b26416ff, 0xbc86a3803b8e5b04, 0x3feef6c55f929ff1,
    0xbc924aedcc4b5068, 0x3feef1a7373aa9cb, 0xbc9907f81b512d8e, 0x3feeecae6d05d866,
    0xbc71d1e83e9436d2, 0x3feee7db34e59ff7, 0xbc991919b3ce1b15, 0x3feee32dc313a8e5,
    0x3c859f48a72a4c6d, 0x3feedea64c123422, 0xbc9312607a28698a, 0x3feeda4504ac801c,
    0xbc58a78f4817895b, 0x3feed60a21f72e2a, 0xbc7c2c9b67499a1b, 0x3feed1f5d950a897,
    0x3c4363ed60c2ac11, 0x3feece086061892d, 0x3c9666093b0664ef, 0x3feeca41ed1d0057,
    0x3c6ecce1daa10379, 0x3feec6a2b5c13cd0, 0x3c93ff8e3f0f1230, 0x3feec32af0d7d3de,
    0x3c7690cebb7aafb0, 0x3feebfdad5362a27, 0x3c931dbdeb54e077, 0x3feebcb299fddd0d,
    0xbc8f94340071a38e, 0x3feeb9b2769d2ca7, 0xbc87deccdc93a349, 0x3feeb6daa2cf6642,
    0xbc78dec6bd0f385f, 0x3feeb42b569d4f82, 0xbc861246ec7b5cf6, 0x3feeb1a4ca5d920f,
    0x3c93350518fdd78e, 0x3feeaf4736b527da, 0x3c7b98b72f8a9b05, 0x3feead12d497c7fd,
    0x3c9063e1e21c5409, 0x3feeab07dd485429, 0x3c34c7855019c6ea, 0x3feea9268a5946b7,
    0x3c9432e62b64c035, 0x3feea76f15ad2148, 0xbc8ce44a6199769f, 0x3feea5e1b976dc09,
    0xbc8c33c53bef4da8, 0x3feea47eb03a5585, 0xbc845378892be9ae, 0x3feea34634ccc320,
    0xbc93cedd78565858, 0x3feea23882552225, 0x3c5710aa807e1964, 0x3feea155d44ca973,
    0xbc93b3efbf5e2228, 0x3feea09e667f3bcd, 0xbc6a12ad8734b982, 0x3feea012750bdabf,
    0xbc6367efb86da9ee, 0x3fee9fb23c651a2f, 0xbc80dc3d54e08851, 0x3fee9f7df9519484,
    0xbc781f647e5a3ecf, 0x3fee9f75e8ec5f74, 0xbc86ee4ac08b7db0, 0x3fee9f9a48a58174,
    0xbc8619321e55e68a, 0x3fee9feb564267c9, 0x3c909ccb5e09d4d3, 0x3feea0694fde5d3f,
    0xbc7b32dcb94da51d, 0x3feea11473eb0187, 0x3c94ecfd5467c06b, 0x3feea1ed0130c132,
    0x3c65ebe1abd66c55, 0x3feea2f336cf4e62, 0xbc88a1c52fb3cf42, 0x3feea427543e1a12,
    0xbc9369b6f13b3734, 0x3feea589994cce13, 0xbc805e843a19ff1e, 0x3feea71a4623c7ad,
    0xbc94d450d872576e, 0x3feea8d99b4492ed, 0x3c90ad675b0e8a00, 0x3feeaac7d98a6699,
    0x3c8db72fc1f0eab4, 0x3feeace5422aa0db, 0xbc65b6609cc5e7ff, 0x3feeaf3216b5448c,
    0x3c7bf68359f35f44, 0x3feeb1ae99157736, 0xbc93091fa71e3d83, 0x3feeb45b0b91ffc6,
    0xbc5da9b88b6c1e29, 0x3feeb737b0cdc5e5, 0xbc6c23f97c90b959, 0x3feeba44cbc8520f,
    0xbc92434322f4f9aa, 0x3feebd829fde4e50, 0xbc85ca6cd7668e4b, 0x3feec0f170ca07ba,
    0x3c71affc2b91ce27, 0x3feec49182a3f090, 0x3c6dd235e10a73bb, 0x3feec86319e32323,
    0xbc87c50422622263, 0x3feecc667b5de565, 0x3c8b1c86e3e231d5, 0x3feed09bec4a2d33,
    0xbc91bbd1d3bcbb15, 0x3feed503b23e255d, 0x3c90cc319cee31d2, 0x3feed99e1330b358,
    0x3c8469846e735ab3, 0x3feede6b5579fdbf, 0xbc82dfcd978e9db4, 0x3feee36bbfd3f37a,
    0x3c8c1a7792cb3387, 0x3feee89f995ad3ad, 0xbc907b8f4ad1d9fa, 0x3feeee07298db666,
    0xbc55c3d956dcaeba, 0x3feef3a2b84f15fb, 0xbc90a40e3da6f640, 0x3feef9728de5593a,
    0xbc68d6f438ad9334, 0x3feeff76f2fb5e47, 0xbc91eee26b588a35, 0x3fef05b030a1064a,
    0x3c74ffd70a5fddcd, 0x3fef0c1e904bc1d2, 0xbc91bdfbfa9298ac, 0x3fef12c25bd71e09,
    0x3c736eae30af0cb3, 0x3fef199bdd85529c, 0x3c8ee3325c9ffd94, 0x3fef20ab5fffd07a,
    0x3c84e08fd10959ac, 0x3fef27f12e57d14b, 0x3c63cdaf384e1a67, 0x3fef2f6d9406e7b5,
    0x3c676b2c6c921968, 0x3fef3720dcef9069, 0xbc808a1883ccb5d2, 0x3fef3f0b555dc3fa,
    0xbc8fad5d3ffffa6f, 0x3fef472d4a07897c, 0xbc900dae3875a949, 0x3fef4f87080d89f2,
    0x3c74a385a63d07a7, 0x3fef5818dcfba487, 0xbc82919e2040220f, 0x3fef60e316c98398,
    0x3c8e5a50d5c192ac, 0x3fef69e603db3285, 0x3c843a59ac016b4b, 0x3fef7321f301b460,
    0xbc82d52107b43e1f, 0x3fef7c97337b9b5f, 0xbc892ab93b470dc9, 0x3fef864614f5a129,
    0x3c74b604603a88d3, 0x3fef902ee78b3ff6, 0x3c83c5ec519d7271, 0x3fef9a51fbc74c83,
    0xbc8ff7128fd391f0, 0x3fefa4afa2a490da, 0xbc8dae98e223747d, 0x3fefaf482d8e67f1,
    0x3c8ec3bc41aa2008, 0x3fefba1bee615a27, 0x3c842b94c3a9eb32, 0x3fefc52b376bba97,
    0x3c8a64a931d185ee, 0x3fefd0765b6e4540, 0xbc8e37bae43be3ed, 0x3fefdbfdad9cbe14,
    0x3c77893b4d91cd9d, 0x3fefe7c1819e90d8, 0x3c5305c14160cc89, 0x3feff3c22b8f71f1,
};

// The exponent field of x (without sign) lies in [0x3c9, 0x3c9 + 0x3e]:
// 2^-54 <= |x| < 512.
constexpr uint64_t kLowTop = 0x3c9;
constexpr uint64_t kTopSpan = 0x3e;

__attribute__((target("avx512f"))) inline __m512d broadcast(uint64_t bits) {
  return _mm512_castsi512_pd(_mm512_set1_epi64(static_cast<long long>(bits)));
}

// Lanes of `lanes` whose inputs lie in the range the formula covers get
// their results in *out; the mask of those lanes is returned.
__attribute__((target("avx512f"))) __mmask8 exp8(__m512d x, __mmask8 lanes, __m512d* out) {
  const __m512i xi = _mm512_castpd_si512(x);
  const __m512i top = _mm512_and_si512(_mm512_maskz_srli_epi64(0xFF, xi, 52), _mm512_set1_epi64(0x7ff));
  const __mmask8 fit = _mm512_mask_cmple_epu64_mask(
      lanes, _mm512_sub_epi64(top, _mm512_set1_epi64(kLowTop)), _mm512_set1_epi64(kTopSpan));
  const __m512d shift = broadcast(kShift);
  const __m512d z = _mm512_fmadd_pd(x, broadcast(kInvLn2N), shift);
  const __m512i ki = _mm512_castpd_si512(z);
  const __m512d kd = _mm512_sub_pd(z, shift);
  __m512d r = _mm512_fmadd_pd(kd, broadcast(kNegLn2HiN), x);
  r = _mm512_fmadd_pd(kd, broadcast(kNegLn2LoN), r);
  const __m512i idx = _mm512_maskz_slli_epi64(0xFF, _mm512_and_si512(ki, _mm512_set1_epi64(127)), 1);
  const __m512i high = _mm512_maskz_slli_epi64(0xFF, ki, 45);
  // (Masked forms with a zero source: the plain ones start from an
  // undefined vector, which some compilers warn about.)
  const __m512d tail = _mm512_mask_i64gather_pd(_mm512_setzero_pd(), 0xFF, idx, kTable, 8);
  const __m512i head = _mm512_mask_i64gather_epi64(
      _mm512_setzero_si512(), 0xFF, _mm512_add_epi64(idx, _mm512_set1_epi64(1)), kTable, 8);
  const __m512d p23 = _mm512_fmadd_pd(r, broadcast(kC3), broadcast(kC2));
  const __m512d tr = _mm512_add_pd(r, tail);
  const __m512d r2 = _mm512_mul_pd(r, r);
  const __m512d p45 = _mm512_fmadd_pd(r, broadcast(kC5), broadcast(kC4));
  __m512d tmp = _mm512_fmadd_pd(p23, r2, tr);
  const __m512d r4 = _mm512_mul_pd(r2, r2);
  tmp = _mm512_fmadd_pd(r4, p45, tmp);
  const __m512d scale = _mm512_castsi512_pd(_mm512_add_epi64(high, head));
  *out = _mm512_fmadd_pd(scale, tmp, scale);
  return fit;
}

__attribute__((target("avx512f"))) void exp_array_avx512(const double* x, double* out, size_t n) {
  for (size_t i = 0; i < n; i += 8) {
    const size_t left = n - i;
    const __mmask8 lanes = left >= 8 ? 0xFF : static_cast<__mmask8>((1u << left) - 1);
    const __m512d v = _mm512_maskz_loadu_pd(lanes, x + i);
    __m512d e;
    const __mmask8 fit = exp8(v, lanes, &e);
    // Inputs the formula does not cover go to exp(3), read before the store
    // in case out is x.
    const unsigned rest = static_cast<unsigned>(lanes & ~fit);
    double other[8];
    for (unsigned m = rest; m != 0; m &= m - 1) {
      const int lane = __builtin_ctz(m);
      other[lane] = std::exp(x[i + lane]);
    }
    _mm512_mask_storeu_pd(out + i, fit, e);
    for (unsigned m = rest; m != 0; m &= m - 1) {
      const int lane = __builtin_ctz(m);
      out[i + lane] = other[lane];
    }
  }
}

__attribute__((target("avx2,fma"))) inline __m256d broadcast4(uint64_t bits) {
  return _mm256_castsi256_pd(_mm256_set1_epi64x(static_cast<long long>(bits)));
}

// The same steps on four lanes with AVX2 and FMA. AVX2 has no unsigned
// 64-bit comparison; the exponent field is small, so signed ones do.
__attribute__((target("avx2,fma"))) __m256d exp4(__m256d x, __m256d* fit) {
  const __m256i xi = _mm256_castpd_si256(x);
  const __m256i top = _mm256_and_si256(_mm256_srli_epi64(xi, 52), _mm256_set1_epi64x(0x7ff));
  const __m256i off = _mm256_sub_epi64(top, _mm256_set1_epi64x(kLowTop));
  *fit = _mm256_castsi256_pd(
      _mm256_andnot_si256(_mm256_cmpgt_epi64(_mm256_setzero_si256(), off),
                          _mm256_cmpgt_epi64(_mm256_set1_epi64x(kTopSpan + 1), off)));
  const __m256d shift = broadcast4(kShift);
  const __m256d z = _mm256_fmadd_pd(x, broadcast4(kInvLn2N), shift);
  const __m256i ki = _mm256_castpd_si256(z);
  const __m256d kd = _mm256_sub_pd(z, shift);
  __m256d r = _mm256_fmadd_pd(kd, broadcast4(kNegLn2HiN), x);
  r = _mm256_fmadd_pd(kd, broadcast4(kNegLn2LoN), r);
  const __m256i idx = _mm256_slli_epi64(_mm256_and_si256(ki, _mm256_set1_epi64x(127)), 1);
  const __m256i high = _mm256_slli_epi64(ki, 45);
  const long long* table = reinterpret_cast<const long long*>(kTable);
  const __m256d tail = _mm256_castsi256_pd(_mm256_i64gather_epi64(table, idx, 8));
  const __m256i head = _mm256_i64gather_epi64(table + 1, idx, 8);
  const __m256d p23 = _mm256_fmadd_pd(r, broadcast4(kC3), broadcast4(kC2));
  const __m256d tr = _mm256_add_pd(r, tail);
  const __m256d r2 = _mm256_mul_pd(r, r);
  const __m256d p45 = _mm256_fmadd_pd(r, broadcast4(kC5), broadcast4(kC4));
  __m256d tmp = _mm256_fmadd_pd(p23, r2, tr);
  const __m256d r4 = _mm256_mul_pd(r2, r2);
  tmp = _mm256_fmadd_pd(r4, p45, tmp);
  const __m256d scale = _mm256_castsi256_pd(_mm256_add_epi64(high, head));
  return _mm256_fmadd_pd(scale, tmp, scale);
}

__attribute__((target("avx2,fma"))) void exp_array_avx2(const double* x, double* out, size_t n) {
  size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    const __m256d v = _mm256_loadu_pd(x + i);
    __m256d fit;
    const __m256d e = exp4(v, &fit);
    const int all = _mm256_movemask_pd(fit);
    if (all == 0xF) {
      _mm256_storeu_pd(out + i, e);
      continue;
    }
    // Inputs the formula does not cover go to exp(3), read before the
    // store in case out is x.
    alignas(32) double lanes[4];
    _mm256_store_pd(lanes, e);
    for (int l = 0; l < 4; ++l)
      if ((all >> l & 1) == 0) lanes[l] = std::exp(x[i + l]);
    _mm256_storeu_pd(out + i, _mm256_load_pd(lanes));
  }
  for (; i < n; ++i) out[i] = std::exp(x[i]);
}

// Probe inputs: the whole covered range and its edges, typical log
// weights, and values around every table point.
std::vector<double> probes() {
  std::vector<double> p = {0.0, -0.0, 1.0, -1.0, 0.5, -0.5, 511.9999, -511.9999, 512.0, -512.0,
                           0x1p-54, -0x1p-54, 0x1.fffffffffffffp-55, 709.78, -708.4, -745.1};
  std::mt19937_64 gen(20261122);
  std::uniform_real_distribution<double> wide(-512.0, 512.0), narrow(-40.0, 5.0), unit(-1.0, 1.0);
  for (int i = 0; i < 4000; ++i) p.push_back(wide(gen));
  for (int i = 0; i < 4000; ++i) p.push_back(narrow(gen));
  for (int i = 0; i < 2000; ++i) p.push_back(unit(gen) * std::ldexp(1.0, -static_cast<int>(gen() % 54)));
  for (int i = 0; i < 2048; ++i) {
    // Near k ln2 / 128, where the rounding of z decides between two k.
    const double k = static_cast<double>(static_cast<int64_t>(gen() % 130000) - 65000);
    const double at = k * 0.005415212348111709;
    p.push_back(std::bit_cast<double>(std::bit_cast<uint64_t>(at) + (gen() % 5) - 2));
  }
  return p;
}

// Whether exp_array gives exp(3)'s bits on every probe input.
bool agrees(void (*exp_array)(const double*, double*, size_t)) {
  const std::vector<double> x = probes();
  std::vector<double> got(x.size());
  exp_array(x.data(), got.data(), x.size());
  for (size_t i = 0; i < x.size(); ++i)
    if (std::bit_cast<uint64_t>(got[i]) != std::bit_cast<uint64_t>(std::exp(x[i]))) return false;
  return true;
}

// The widest vectors the processor has and the formula agrees on: 8
// (AVX-512), 4 (AVX2 with FMA) or 0.
const int widest = [] {
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f") && agrees(exp_array_avx512)) return 8;
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") && agrees(exp_array_avx2))
    return 4;
  return 0;
}();
// AVX2 where AVX-512 is there too, for tests of the AVX2 path.
const bool avx2_agrees = widest == 8 && __builtin_cpu_supports("fma") && agrees(exp_array_avx2);
int width = widest;

}  // namespace

void Exp_Array(const double* x, double* out, size_t n) {
  if (width == 8) {
    exp_array_avx512(x, out, n);
    return;
  }
  if (width == 4) {
    exp_array_avx2(x, out, n);
    return;
  }
  for (size_t i = 0; i < n; ++i) out[i] = std::exp(x[i]);
}

int Exp_Array_Width() { return width; }

int Exp_Array_Limit_Width(int lanes) {
  const int was = width;
  width = widest <= lanes ? widest : lanes >= 4 && (widest == 4 || avx2_agrees) ? 4 : 0;
  return was;
}
