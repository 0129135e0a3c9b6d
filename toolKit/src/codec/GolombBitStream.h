#pragma once
// Exponential-Golomb codes of H.264 parameter sets on top of the bit queue.
// The bytes are taken as they are: emulation-prevention bytes are neither
// removed nor inserted. Failures throw plain C strings: "no more data",
// "too log golomb sream" (a code longer than 31 bits) and "bits existed".
#include "BitStream.h"

#include <cstdint>

class GolombBitStream : public BitStream {
public:
    // One unsigned code ue(v). Codes are accepted up to 31 bits (15 leading
    // zeros), so the largest value read is 65534.
    uint32_t read_golomb();
    // One signed code in this program's own mapping: code k reads as k/2 when
    // k is even and as -(k/2) when k is odd (0, 0, 1, -1, 2, -2, ...).
    int read_golombs();

    void write_golomb(uint32_t value);
    // Writes 2v for v >= 0 and ~(2v) for v < 0 (0, 1, -1, 2, -2 become the
    // codes 0, 2, 1, 4, 3). A negative value written and read back comes out
    // one larger; that asymmetry is this program's defined behaviour.
    void write_golombs(int value);

    // The code of v: pattern v + 1 with 2 floor(log2(v + 1)) + 1 bits. For
    // v = 2^32 - 1 the pattern does not fit in 32 bits and comes out as 0.
    static Bits encode(uint32_t value);
    // The value of a complete code, or 0xFFFFFFFF when the pattern is 0 or
    // its length does not match its significant bits.
    static uint32_t decode(const Bits& code);
};
