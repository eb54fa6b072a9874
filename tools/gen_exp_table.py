#!/usr/bin/env python3
"""Prints the table of src/vec_exp.cc: for i in 0..127, H = 2^(i/128)
rounded to the nearest double and the relative tail 2^(i/128) / H - 1 as a
double, stored as the bits of the tail and the bits of H less i << 45 (the
exponent that the reduced argument adds back). Needs mpmath."""
import struct

import mpmath

mpmath.mp.prec = 300


def bits(x):
    return struct.unpack('<Q', struct.pack('<d', x))[0]


def main():
    words = []
    for i in range(128):
        exact = mpmath.mpf(2) ** (mpmath.mpf(i) / 128)
        head = float(exact)
        tail = float(exact / mpmath.mpf(head) - 1)
        words.append(bits(tail))
        words.append((bits(head) - (i << 45)) % 2**64)
    for j in range(0, len(words), 4):
        print('    ' + ', '.join('0x%016x' % w for w in words[j:j + 4]) + ',')


if __name__ == '__main__':
    main()
