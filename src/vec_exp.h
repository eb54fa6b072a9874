// exp over arrays of doubles, eight at a time where the processor allows,
// giving the same bits as the C library's exp for every input.
#ifndef MHBOOST_VEC_EXP_H
#define MHBOOST_VEC_EXP_H

#include <cstddef>

// out[i] = exp(x[i]) for i < n, bit for bit as exp(3) gives it. The arrays
// may be the same; otherwise they must not overlap.
void Exp_Array(const double* x, double* out, size_t n);

// Whether Exp_Array computes with vectors: the processor has AVX-512 and
// the vector formula agreed with exp(3) on a set of probe inputs when the
// program started (a C library with another formula keeps the plain loop).
bool Exp_Array_Uses_Vectors();

// Tests: with `off`, Exp_Array calls exp(3) one value at a time until
// called again with false. Returns whether vectors were in use before.
bool Exp_Array_Force_Scalar(bool off);

#endif  // MHBOOST_VEC_EXP_H
