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

// A reader over what the writer wrote, padded with zeros.
GolombBitStream readerOf(const std::function<void(GolombBitStream&)>& write)
{
    GolombBitStream w, r;
    write(w);
    w.flush_bits();
    r.attach(w);
    return r;
}

TEST(GolombBitStream, CodesOfUpToFifteenLeadingZerosReadBackLongerOnesAreRefused)
{
    GolombBitStream r = readerOf([](GolombBitStream& w) {
        for (uint32_t v : {0u, 1u, 2u, 3u, 254u, 65534u, 65535u, 0u})
            w.write_golomb(v);
    });
    for (uint32_t v : {0u, 1u, 2u, 3u, 254u, 65534u})
        EXPECT_EQ(r.read_golomb(), v);
    // 65535 needs sixteen leading zeros: the reader gives up after 31 bits,
    // leaving the last two bits of the code unread (then the code of 0).
    EXPECT_EQ(thrown([&] { r.read_golomb(); }), "too log golomb sream");
    EXPECT_EQ(r.read_bits(3).pattern, 0b001u);
    GolombBitStream cut = readerOf([](GolombBitStream& w) { w.write_bits(0, 4); }); // and four padding zeros
    EXPECT_EQ(thrown([&] { cut.read_golomb(); }), "no more data");

    // The largest value is written as a 65-bit code: 32 zeros, a one, 32 zeros.
    GolombBitStream big;
    big.write_bits(1, 1);
    big.write_golomb(0xFFFFFFFFu);
    big.flush_bits();
    EXPECT_EQ(std::vector<uint8_t>(big.data, big.data + big.length),
              std::vector<uint8_t>({0x80, 0x00, 0x00, 0x00, 0x40, 0x00, 0x00, 0x00, 0x00}));
}

TEST(GolombBitStream, SignedMappingIsTheProgramsOwn)
{
    // Read: code k gives 0, 0, 1, -1, 2, -2; written: v gives 0, 2, 1, 4, 3.
    GolombBitStream r = readerOf([](GolombBitStream& w) {
        for (uint32_t k = 0; k <= 5; ++k)
            w.write_golomb(k);
        for (int v : {0, 1, -1, 2, -2})
            w.write_golombs(v);
    });
    std::vector<int> read;
    for (int i = 0; i <= 5; ++i)
        read.push_back(r.read_golombs());
    EXPECT_EQ(read, std::vector<int>({0, 0, 1, -1, 2, -2}));
    std::vector<uint32_t> written;
    for (int i = 0; i < 5; ++i)
        written.push_back(r.read_golomb());
    EXPECT_EQ(written, std::vector<uint32_t>({0, 2, 1, 4, 3}));
}

} // namespace
