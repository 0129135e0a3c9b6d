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

TEST(BitStream, ReadsBitsMostSignificantFirst)
{
    BitStream s;
    uint8_t bytes[] = {0xA5, 0x0F};
    s.attach(ByteArray(bytes, 2));
    Bits none = s.read_bits(0);
    EXPECT_EQ(none.length, 0u);
    Bits b = s.read_bits(3);
    EXPECT_EQ(b.pattern, 5u);
    EXPECT_EQ(b.length, 3u);
    EXPECT_EQ(thrown([&] { s.read8(); }), "bits existed");
    EXPECT_EQ(s.read_bits(13).pattern, 0x050Fu);
    EXPECT_EQ(thrown([&] { s.next_bit(); }), "no more data");
}

TEST(BitStream, ByteReadsNeedEnoughQueuedBytes)
{
    BitStream s;
    uint8_t bytes[] = {0x01, 0x02, 0x03};
    s.attach(ByteArray(bytes, 3));
    EXPECT_EQ(s.read16n(), 0x0102u);
    EXPECT_EQ(thrown([&] { s.read16n(); }), "no more data");
    ByteArray out;
    EXPECT_EQ(thrown([&] { s.read_bytes(2, out); }), "no more data");
    s.read_bytes(1, out);
    EXPECT_EQ(out.length, 1u);
    EXPECT_EQ(out.data[0], 3u);
}

TEST(BitStream, WritesPadAndAppend)
{
    BitStream s;
    s.write_bits(1, 1);
    EXPECT_EQ(thrown([&] { s.write8(0); }), "bits existed");
    s.flush_bits();
    ASSERT_EQ(s.length, 1u);
    EXPECT_EQ(s.data[0], 0x80u);
    s.write16n(0xBEEF);
    s.write_bits(0x5, 5);
    s.flush_bits();
    ASSERT_EQ(s.length, 4u);
    EXPECT_EQ(s.data[1], 0xBEu);
    EXPECT_EQ(s.data[2], 0xEFu);
    EXPECT_EQ(s.data[3], 0x28u);
}

TEST(BitStream, WideWritesKeepPendingBits)
{
    BitStream s;
    s.write_bits(0x7, 3);
    s.write_bits(0x8000000000000001ull, 64);
    s.write_bits(1, 70); // 69 zeros, then a one
    s.flush_bits();
    ASSERT_EQ(s.length, 18u);
    EXPECT_EQ(s.data[0], 0xF0u); // 111 then the top bit of the 64-bit value
    EXPECT_EQ(s.data[8], 0x20u); // its low bit lands as the third bit
    for (int i = 9; i < 17; ++i)
        EXPECT_EQ(s.data[i], 0u) << i;
    EXPECT_EQ(s.data[17], 0x80u); // 3 + 64 + 70 = 137 bits: the one is bit 136
}

} // namespace
