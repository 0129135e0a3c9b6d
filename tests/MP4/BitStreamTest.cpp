#include "BitStream.h"

#include <gtest/gtest.h>

namespace {

const char* thrown(void (*f)(BitStream&), BitStream& s)
{
    try {
        f(s);
    } catch (const char* e) {
        return e;
    }
    return "";
}

TEST(BitStream, ByteAccessNeedsAByteBoundaryAndWideWritesKeepPendingBits)
{
    uint8_t bytes[] = {0xA5, 0x0F, 0x03};
    BitStream r;
    r.attach(ByteArray(bytes, 3));
    EXPECT_EQ(r.read_bits(3).pattern, 5u);
    EXPECT_STREQ(thrown([](BitStream& s) { s.read8(); }, r), "bits existed");
    EXPECT_EQ(r.read_bits(13).pattern, 0x050Fu);
    EXPECT_STREQ(thrown([](BitStream& s) { s.read16n(); }, r), "no more data");

    BitStream w;
    w.write_bits(1, 1);
    EXPECT_STREQ(thrown([](BitStream& s) { s.write8(0); }, w), "bits existed");
    w.write_bits(0x3, 2);
    w.write_bits(0x8000000000000001ull, 64);
    w.write_bits(1, 70); // 69 zeros, then a one
    w.flush_bits();
    ASSERT_EQ(w.length, 18u);
    EXPECT_EQ(w.data[0], 0xF0u); // 111 then the top bit of the 64-bit value
    EXPECT_EQ(w.data[8], 0x20u); // its low bit lands as the third bit
    for (int i = 9; i < 17; ++i)
        EXPECT_EQ(w.data[i], 0u) << i;
    EXPECT_EQ(w.data[17], 0x80u); // 3 + 64 + 70 = 137 bits: the one is bit 136
}

} // namespace
