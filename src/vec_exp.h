// exp over arrays of doubles, eight at a time where the processor allows,
// giving the same bits as the C library's exp for every input.
#ifndef MHBOOST_VEC_EXP_H
#define MHBOOST_VEC_EXP_H

#include <cstddef>

// out[i] = exp(x[i]) for i < n, bit for bit as exp(3) gives it. The arrays
// may be the same; otherwise they must not overlap.
void Exp_Array(const double* x, double* out, size_t n);

// The lanes Exp_Array computes at a time: 8 where the processor has
// AVX-512, 4 where it has AVX2 and FMA, provided the vector formula agreed
// with exp(3) on a set of probe inputs when the program started (a C
// library with another formula keeps the plain loop); else 0.
int Exp_Array_Width();

// Tests: Exp_Array computes at most `lanes` at a time (0: exp(3) one value
// at a time) until called again. Returns the width in use before.
int Exp_Array_Limit_Width(int lanes);

#endif  // MHBOOST_VEC_EXP_H
