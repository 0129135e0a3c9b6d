#include "BitStream.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>

namespace {

std::string thrown(const std::function<void()>& f)
{
    try {
        f();
    } catch (const char* s) {
        return s;
    }
    return "";
}

TEST(BitStream, ReadsMostSignificantFirstAndRefusesMixedOrShortReads)
{
    BitStream s;
    uint8_t bytes[] = {0xA5, 0x0F, 0x03};
    s.attach(ByteArray(bytes, 3));
    EXPECT_EQ(s.read_bits(0).length, 0u);
    EXPECT_EQ(s.read_bits(3).pattern, 5u);
    EXPECT_EQ(thrown([&] { s.read8(); }), "bits existed");
    EXPECT_EQ(s.read_bits(13).pattern, 0x050Fu);
    EXPECT_EQ(thrown([&] { s.read16n(); }), "no more data");
    ByteArray out;
    EXPECT_EQ(thrown([&] { s.read_bytes(2, out); }), "no more data");
    s.read_bytes(1, out);
    ASSERT_EQ(out.length, 1u);
    EXPECT_EQ(out.data[0], 3u);
    EXPECT_EQ(thrown([&] { s.next_bit(); }), "no more data");
}

TEST(BitStream, WritesPadAndKeepPendingBitsAcrossWideFields)
{
    BitStream s;
    s.write_bits(1, 1);
    EXPECT_EQ(thrown([&] { s.write8(0); }), "bits existed");
    s.flush_bits();
    s.write16n(0xBEEF);
    s.write_bits(0x7, 3);
    s.write_bits(0x8000000000000001ull, 64);
    s.write_bits(1, 70); // 69 zeros, then a one
    s.flush_bits();
    ASSERT_EQ(s.length, 3u + 18u);
    EXPECT_EQ(s.data[0], 0x80u);
    EXPECT_EQ(s.data[1], 0xBEu);
    EXPECT_EQ(s.data[2], 0xEFu);
    EXPECT_EQ(s.data[3], 0xF0u);  // 111 then the top bit of the 64-bit value
    EXPECT_EQ(s.data[11], 0x20u); // its low bit lands as the third bit
    for (int i = 12; i < 20; ++i)
        EXPECT_EQ(s.data[i], 0u) << i;
    EXPECT_EQ(s.data[20], 0x80u); // 3 + 64 + 70 = 137 bits: the one is bit 136
}

} // namespace
