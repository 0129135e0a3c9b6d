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

// A reader over the given bits, most significant first, padded with zeros.
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

TEST(GolombBitStream, ReadsCodesUpToFifteenLeadingZeros)
{
    // 1 | 010 | 011 | 00100, then four padding zeros: not a complete code.
    GolombBitStream s = readerOf({{0b1, 1}, {0b010, 3}, {0b011, 3}, {0b00100, 5}});
    for (uint32_t v : {0u, 1u, 2u, 3u})
        EXPECT_EQ(s.read_golomb(), v);
    EXPECT_EQ(thrown([&] { s.read_golomb(); }), "no more data");

    EXPECT_EQ(readerOf({{0, 15}, {0xFFFF, 16}}).read_golomb(), 65534u);
    // Sixteen zeros: the reader gives up after 31 bits, leaving the last two
    // bits of the code unread.
    GolombBitStream tooLong = readerOf({{0, 16}, {1, 1}, {0b1011, 16}});
    EXPECT_EQ(thrown([&] { tooLong.read_golomb(); }), "too log golomb sream");
    EXPECT_EQ(tooLong.read_bits(2).pattern, 0b11u);
    GolombBitStream zeros = readerOf({{0, 64}, {0, 64}});
    EXPECT_EQ(thrown([&] { zeros.read_golomb(); }), "too log golomb sream");
}

TEST(GolombBitStream, WrittenCodesReadBack)
{
    GolombBitStream s;
    s.write_golomb(0);
    s.write_golomb(4);
    s.flush_bits();
    EXPECT_EQ(bytesOf(s), std::vector<uint8_t>({0x94})); // 1 00101 00

    // Every value the reader accepts comes back; 65535 needs a 33-bit code.
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

    // The largest value is a 65-bit code: 32 zeros, a one and 32 zeros.
    GolombBitStream big;
    big.write_bits(1, 1);
    big.write_golomb(0xFFFFFFFFu);
    big.flush_bits();
    EXPECT_EQ(bytesOf(big), std::vector<uint8_t>({0x80, 0x00, 0x00, 0x00, 0x40, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(GolombBitStream::decode(Bits{5, 3}), 0xFFFFFFFFu); // a pattern of the wrong length
}

TEST(GolombBitStream, SignedMappingIsTheProgramsOwn)
{
    // Read: code k gives 0, 0, 1, -1, 2, -2; written: v gives 0, 2, 1, 4, 3.
    GolombBitStream codes;
    for (uint32_t k = 0; k <= 5; ++k)
        codes.write_golomb(k);
    codes.flush_bits();
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
}

} // namespace
