#!/usr/bin/env python3
"""Writes the first 1,000,000 bits of the binary expansion of e as 125,000
bytes, most significant bit first: e = 10.1011011111100001..., the integer
part "10" included. Exact integer arithmetic only (binary splitting of
sum 1/k!), no floating point; the result is checked against a second run
with 200 more bits.

usage: make_e.py OUT_FILE"""
import math
import sys


def split(a, b):
    """P/Q = sum over k in (a, b] of 1 / ((a+1)(a+2)...k)."""
    if b - a == 1:
        return 1, b
    m = (a + b) // 2
    p1, q1 = split(a, m)
    p2, q2 = split(m, b)
    return p1 * q2 + p2, q1 * q2


def e_bits(frac_bits):
    """floor(e * 2^frac_bits) as a bit string; K! > 2^(frac_bits + 64)."""
    k, log2_fact = 2, 0.0
    while log2_fact < frac_bits + 64:
        k += 1
        log2_fact += math.log2(k)
    p, q = split(0, k)  # e = 1 + p/q
    return bin((1 << frac_bits) + (p << frac_bits) // q)[2:]


BITS = 1000000
bits = e_bits(BITS + 16)
assert e_bits(BITS + 216).startswith(bits[:-2])
bits = bits[:BITS]
with open(sys.argv[1], "wb") as out:
    out.write(int(bits, 2).to_bytes(BITS // 8, "big"))
