#include "GolombBitStream.h"

#include <cmath>

namespace {

// floor(log2(x)) computed the way every code length here is: in double
// precision, truncated toward zero. x must not be 0.
int floorLog2(uint64_t x) { return static_cast<int>(std::log2(static_cast<double>(x))); }

} // namespace

uint32_t GolombBitStream::read_golomb()
{
    // Take one bit, then pairs of bits, until the value has exactly as many
    // significant bits as the code has leading zeros plus one.
    uint32_t x = read_bits(1).pattern;
    uint32_t length = 1;
    while (x == 0 || length != static_cast<uint32_t>(2 * floorLog2(x) + 1)) {
        if (length >= 31)
            throw "too log golomb sream";
        x = x * 4 + read_bits(2).pattern;
        length += 2;
    }
    return x - 1;
}

int GolombBitStream::read_golombs()
{
    uint32_t k = read_golomb();
    int h = static_cast<int>(k / 2);
    return (k & 1) ? -h : h;
}

void GolombBitStream::write_golomb(uint32_t value)
{
    // Leading zeros and the significant bits are written separately so that
    // even the 65-bit code of 2^32 - 1 stays within the bit accumulator.
    uint64_t pattern = uint64_t(value) + 1;
    int zeros = floorLog2(pattern);
    write_bits(0, zeros);
    write_bits(pattern, zeros + 1);
}

void GolombBitStream::write_golombs(int value)
{
    uint32_t twice = static_cast<uint32_t>(value) * 2u;
    write_golomb(value >= 0 ? twice : ~twice);
}

Bits GolombBitStream::encode(uint32_t value)
{
    uint64_t pattern = uint64_t(value) + 1;
    Bits b;
    b.pattern = static_cast<uint32_t>(pattern);
    b.length = static_cast<uint32_t>(2 * floorLog2(pattern) + 1);
    return b;
}

uint32_t GolombBitStream::decode(const Bits& code)
{
    if (code.pattern != 0 && code.length == static_cast<uint32_t>(2 * floorLog2(code.pattern) + 1))
        return code.pattern - 1;
    return 0xFFFFFFFFu;
}
