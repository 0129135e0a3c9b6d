#include "codec/GolombBitStream.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

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

// A reader over the given bits, written most significant first and padded
// with zeros to the byte boundary.
GolombBitStream readerOf(const std::vector<std::pair<uint64_t, int>>& fields)
{
    GolombBitStream w;
    for (auto& [value, n] : fields)
        w.write_bits(value, n);
    w.flush_bits();
    GolombBitStream r;
    r.attach(w);
    return r;
}

std::vector<uint8_t> bytesOf(const GolombBitStream& s) { return std::vector<uint8_t>(s.data, s.data + s.length); }

TEST(GolombBitStream, ReadsShortestCodes)
{
    // 1 | 010 | 011 | 00100
    GolombBitStream s = readerOf({{0b1, 1}, {0b010, 3}, {0b011, 3}, {0b00100, 5}});
    EXPECT_EQ(s.read_golomb(), 0u);
    EXPECT_EQ(s.read_golomb(), 1u);
    EXPECT_EQ(s.read_golomb(), 2u);
    EXPECT_EQ(s.read_golomb(), 3u);
    // Four padding zeros are left: not a complete code.
    EXPECT_EQ(thrown([&] { s.read_golomb(); }), "no more data");
}

TEST(GolombBitStream, FifteenLeadingZerosIsTheLongestCode)
{
    GolombBitStream longest = readerOf({{0, 15}, {0xFFFF, 16}});
    EXPECT_EQ(longest.read_golomb(), 65534u);

    // Sixteen zeros, a one and sixteen more bits: the reader gives up after
    // 31 bits, leaving the last two bits of the code unread.
    GolombBitStream tooLong = readerOf({{0, 16}, {1, 1}, {0b1011, 16}});
    EXPECT_EQ(thrown([&] { tooLong.read_golomb(); }), "too log golomb sream");
    EXPECT_EQ(tooLong.read_bits(2).pattern, 0b11u);

    // A long run of zeros cannot read on forever either.
    GolombBitStream zeros = readerOf({{0, 64}, {0, 64}});
    EXPECT_EQ(thrown([&] { zeros.read_golomb(); }), "too log golomb sream");
}

TEST(GolombBitStream, WritesUnsignedCodes)
{
    GolombBitStream s;
    s.write_golomb(0);
    EXPECT_EQ(s.bitCount, 1);
    s.write_golomb(4);
    s.flush_bits();
    // 1 00101 00
    EXPECT_EQ(bytesOf(s), std::vector<uint8_t>({0x94}));

    // Every value the reader accepts comes back; the next one needs a
    // 33-bit code and is refused.
    GolombBitStream w;
    for (uint32_t v = 0; v <= 65535; v += (v < 300 ? 1 : 97))
        w.write_golomb(v);
    w.write_golomb(65534);
    w.write_golomb(65535);
    w.flush_bits();
    GolombBitStream r;
    r.attach(w);
    for (uint32_t v = 0; v <= 65535; v += (v < 300 ? 1 : 97))
        ASSERT_EQ(r.read_golomb(), v);
    EXPECT_EQ(r.read_golomb(), 65534u);
    EXPECT_EQ(thrown([&] { r.read_golomb(); }), "too log golomb sream");
}

TEST(GolombBitStream, LargestValueIsWrittenAsA65BitCode)
{
    GolombBitStream s;
    s.write_bits(1, 1);
    s.write_golomb(0xFFFFFFFFu);
    s.flush_bits();
    // 1, then 32 zeros, a one and 32 zeros.
    EXPECT_EQ(bytesOf(s), std::vector<uint8_t>({0x80, 0x00, 0x00, 0x00, 0x40, 0x00, 0x00, 0x00, 0x00}));
}

TEST(GolombBitStream, SignedMappingIsTheProgramsOwn)
{
    GolombBitStream codes;
    for (uint32_t k = 0; k <= 5; ++k)
        codes.write_golomb(k);
    codes.flush_bits();
    // A fresh reader each time: attaching keeps pending bits of the last read.
    GolombBitStream r;
    r.attach(codes);
    std::vector<int> read;
    for (int i = 0; i <= 5; ++i)
        read.push_back(r.read_golombs());
    EXPECT_EQ(read, std::vector<int>({0, 0, 1, -1, 2, -2}));

    GolombBitStream w;
    for (int v : {0, 1, -1, 2, -2})
        w.write_golombs(v);
    w.flush_bits();
    GolombBitStream r2;
    r2.attach(w);
    std::vector<uint32_t> written;
    for (int i = 0; i < 5; ++i)
        written.push_back(r2.read_golomb());
    EXPECT_EQ(written, std::vector<uint32_t>({0, 2, 1, 4, 3}));

    // Non-negative values survive; negative ones come back one larger.
    GolombBitStream trip;
    for (int v : {-1, 3, -5, 0, 1000})
        trip.write_golombs(v);
    trip.flush_bits();
    GolombBitStream r3;
    r3.attach(trip);
    EXPECT_EQ(r3.read_golombs(), 0);
    EXPECT_EQ(r3.read_golombs(), 3);
    EXPECT_EQ(r3.read_golombs(), -4);
    EXPECT_EQ(r3.read_golombs(), 0);
    EXPECT_EQ(r3.read_golombs(), 1000);
}

TEST(GolombBitStream, EncodeAndDecode)
{
    Bits zero = GolombBitStream::encode(0);
    EXPECT_EQ(zero.pattern, 1u);
    EXPECT_EQ(zero.length, 1u);
    Bits four = GolombBitStream::encode(4);
    EXPECT_EQ(four.pattern, 5u);
    EXPECT_EQ(four.length, 5u);
    Bits big = GolombBitStream::encode(65535);
    EXPECT_EQ(big.pattern, 65536u);
    EXPECT_EQ(big.length, 33u);

    EXPECT_EQ(GolombBitStream::decode(Bits{0, 1}), 0xFFFFFFFFu);
    EXPECT_EQ(GolombBitStream::decode(Bits{5, 5}), 4u);
    EXPECT_EQ(GolombBitStream::decode(Bits{5, 3}), 0xFFFFFFFFu);
    EXPECT_EQ(GolombBitStream::decode(Bits{5, 7}), 0xFFFFFFFFu);
    for (uint32_t v : {0u, 1u, 2u, 6u, 7u, 254u, 255u, 65534u, 1000000u})
        EXPECT_EQ(GolombBitStream::decode(GolombBitStream::encode(v)), v) << v;
}

TEST(GolombBitStream, FlushPadsToTheByteBoundary)
{
    GolombBitStream s;
    s.write_bits(0b10111, 5);
    EXPECT_EQ(s.length, 0u);
    s.flush_bits();
    EXPECT_EQ(s.bitCount, 0);
    EXPECT_EQ(bytesOf(s), std::vector<uint8_t>({0xB8}));
    s.flush_bits();
    EXPECT_EQ(s.length, 1u);
}

} // namespace
