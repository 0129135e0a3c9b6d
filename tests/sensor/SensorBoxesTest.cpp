#include "AccelSensorStreamEmbed.h"
#include "BoxBytes.h"
#include "GLTKwchar.h"
#include "SensorStreamBoxes.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace testsupport;
using A = AccelSensorStreamEmbed;

namespace {

std::wstring w(const fs::path& p) { return GLTK::wchar::mbs2wcs(p.string()); }

void le16(Bytes& b, uint16_t v)
{
    b.push_back(uint8_t(v));
    b.push_back(uint8_t(v >> 8));
}
void le32(Bytes& b, uint32_t v)
{
    le16(b, uint16_t(v));
    le16(b, uint16_t(v >> 16));
}
void le64(Bytes& b, uint64_t v)
{
    le32(b, uint32_t(v));
    le32(b, uint32_t(v >> 32));
}

// The 16-byte stream header: count, extra, unitSize in the stream's byte
// order, then the endian mark as stored (little-endian value), 6 reserved.
Bytes streamHeader(uint32_t count, uint16_t extra, uint16_t unitSize, bool big, uint16_t mark = 0)
{
    Bytes h;
    if (big) {
        add32(h, count);
        add16(h, extra);
        add16(h, unitSize);
    } else {
        le32(h, count);
        le16(h, extra);
        le16(h, unitSize);
    }
    le16(h, mark ? mark : (big ? 0x3210 : 0x0123));
    h.resize(16, 0xEE);
    return h;
}

// A compass / gyro style record: x, y, z, 4 reserved bytes, time stamp.
Bytes xyzRecord(uint32_t x, uint32_t y, uint32_t z, uint64_t t, bool big)
{
    Bytes r;
    auto put32 = [&](uint32_t v) { big ? add32(r, v) : le32(r, v); };
    put32(x);
    put32(y);
    put32(z);
    r.insert(r.end(), {0xA1, 0xA2, 0xA3, 0xA4});
    big ? add64(r, t) : le64(r, t);
    return r;
}

// A gravity record: three 16-bit axes, 2 reserved bytes, time stamp.
Bytes gravityRecord(int16_t x, int16_t y, int16_t z, uint64_t t, bool big)
{
    Bytes r;
    auto put16 = [&](uint16_t v) { big ? add16(r, v) : le16(r, v); };
    put16(uint16_t(x));
    put16(uint16_t(y));
    put16(uint16_t(z));
    r.insert(r.end(), {0xB1, 0xB2});
    big ? add64(r, t) : le64(r, t);
    return r;
}

uint32_t bits(float f)
{
    uint32_t v;
    std::memcpy(&v, &f, 4);
    return v;
}

// A movie holding only moov.udta with the given boxes.
struct Movie {
    TempDir dir;
    MP4::Container c;
    explicit Movie(const Bytes& udtaChildren)
    {
        writeFile(dir / "m.mp4", box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)), box("udta", udtaChildren)})));
        EXPECT_TRUE(c.attach(w(dir / "m.mp4")));
    }
};

std::string capture(const std::function<void()>& f)
{
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

TEST(SensorBoxes, ReadsLittleAndBigEndianRecords)
{
    Bytes qdtc = box("QDTC", cat({streamHeader(2, 7, 24, false), xyzRecord(bits(1.5f), bits(-2.0f), bits(0.25f), 100, false),
                                  xyzRecord(bits(3.0f), 0, 0, 200, false)}));
    Bytes qdtd = box("QDTD", cat({streamHeader(2, 0x1234, 16, true), gravityRecord(100, -200, 16384, 0x0102030405060708, true),
                                  gravityRecord(-1, 2, -3, 9, true)}));
    Bytes qdtg = box("QDTG", cat({streamHeader(3, 1, 8, true), [] {
                                      Bytes b;
                                      add64(b, 10);
                                      add64(b, 20);
                                      add64(b, 0xFFFFFFFF00000001ull);
                                      return b;
                                  }()}));
    Bytes qdtb = box("QDTB", cat({streamHeader(1, 0, 24, true), xyzRecord(uint32_t(-5), 6, uint32_t(-7), 42, true)}));
    Movie m(cat({box("QMKN", Bytes(12, 0)), qdtc, qdtd, qdtg, qdtb}));

    std::string out = capture([&] {
        unsigned short extra = 99;
        std::vector<A::Ecompass> e;
        A::loadM29_QDTC(m.c, e, extra);
        ASSERT_EQ(e.size(), 2u);
        EXPECT_EQ(extra, 7);
        EXPECT_FLOAT_EQ(e[0].x, 1.5f);
        EXPECT_FLOAT_EQ(e[0].y, -2.0f);
        EXPECT_FLOAT_EQ(e[0].z, 0.25f);
        EXPECT_EQ(e[0].t, 100u);
        EXPECT_EQ(e[1].t, 200u);

        std::vector<A::TopBottomCorrection> d;
        A::loadM29_QDTD(m.c, d, extra);
        ASSERT_EQ(d.size(), 2u);
        EXPECT_EQ(extra, 0x1234);
        EXPECT_EQ(d[0].x, 100);
        EXPECT_EQ(d[0].y, -200);
        EXPECT_EQ(d[0].z, 16384);
        EXPECT_EQ(d[0].t, 0x0102030405060708u);
        EXPECT_EQ(d[0].reserved[0], 0xB1); // kept as stored, never swapped
        EXPECT_EQ(d[0].reserved[1], 0xB2);
        EXPECT_EQ(d[1].z, -3);

        std::vector<unsigned long long> g;
        A::loadM30_QDTG(m.c, g, extra);
        EXPECT_EQ(g, (std::vector<unsigned long long>{10, 20, 0xFFFFFFFF00000001ull}));

        std::vector<A::Gyro> b;
        A::loadM29_QDTB(m.c, b, extra);
        ASSERT_EQ(b.size(), 1u);
        EXPECT_EQ(b[0].x, -5);
        EXPECT_EQ(b[0].z, -7);
        EXPECT_EQ(std::memcmp(b[0].reserved, "\xA1\xA2\xA3\xA4", 4), 0);

        // A missing box: empty, extra 0, silent.
        std::vector<A::Quaternion> h;
        A::loadM22_QDTH(m.c, h, extra);
        EXPECT_TRUE(h.empty());
        EXPECT_EQ(extra, 0);
    });
    EXPECT_EQ(out, "");
}

TEST(SensorBoxes, QuaternionRecordsSwapEveryField)
{
    Bytes rec;
    add32(rec, bits(1.0f));
    add32(rec, bits(0.5f));
    add32(rec, bits(-0.5f));
    add32(rec, bits(0.25f));
    add64(rec, 77);
    Movie m(cat({box("QDTI", cat({streamHeader(1, 3, 24, true), rec})), box("QDTH", cat({streamHeader(0, 5, 24, false)}))}));
    unsigned short extra = 0;
    std::vector<A::YawCorrection> y;
    A::loadM29_QDTI(m.c, y, extra);
    ASSERT_EQ(y.size(), 1u);
    EXPECT_FLOAT_EQ(y[0].w, 1.0f);
    EXPECT_FLOAT_EQ(y[0].x, 0.5f);
    EXPECT_FLOAT_EQ(y[0].y, -0.5f);
    EXPECT_FLOAT_EQ(y[0].z, 0.25f);
    EXPECT_EQ(y[0].t, 77u);
    // Count 0: nothing read, but extra comes from the header.
    std::vector<A::Quaternion> q;
    A::loadM22_QDTH(m.c, q, extra);
    EXPECT_TRUE(q.empty());
    EXPECT_EQ(extra, 5);
}

TEST(SensorBoxes, MalformedBoxesPrintTheirLineAndYieldNothing)
{
    Bytes twoRecords = cat({gravityRecord(1, 2, 3, 4, false), gravityRecord(5, 6, 7, 8, false)});
    Bytes oneShort(twoRecords.begin(), twoRecords.end() - 1);
    Movie m(cat({box("QDTB", Bytes(15, 0)),                                          // 23 bytes
                 box("QDTC", cat({streamHeader(1, 0, 24, false, 0x2301), Bytes(24, 0)})), // swapped mark
                 box("QDTH", cat({streamHeader(1, 0, 16, false), Bytes(24, 0)})),          // wrong unit size
                 box("QDTD", cat({streamHeader(2, 0, 16, false), oneShort}))}));
    std::vector<A::Gyro> b;
    std::vector<A::Ecompass> e;
    std::vector<A::Quaternion> h;
    std::vector<A::TopBottomCorrection> d;
    unsigned short extra = 1;
    EXPECT_EQ(capture([&] { A::loadM29_QDTB(m.c, b, extra); }),
              "QDTB: Not enough length. except less than 24, but 23.\n");
    EXPECT_EQ(capture([&] { A::loadM29_QDTC(m.c, e, extra); }),
              "QDTC: Invalid header. unitSize(expect 24, but 24), endian(expect 3210/0123, but 2301).\n");
    EXPECT_EQ(capture([&] { A::loadM22_QDTH(m.c, h, extra); }),
              "QDTH: Invalid header. unitSize(expect 24, but 16), endian(expect 3210/0123, but 0123).\n");
    EXPECT_EQ(capture([&] { A::loadM29_QDTD(m.c, d, extra); }),
              "QDTD: Not enough length. except less than 24+16*2(=56), but 55.\n");
    EXPECT_TRUE(b.empty() && e.empty() && h.empty() && d.empty());
    EXPECT_EQ(extra, 0);

    // One more byte makes the gravity box acceptable; bytes behind the last
    // record are ignored.
    Movie ok(box("QDTD", cat({streamHeader(2, 0, 16, false), twoRecords, Bytes(9, 0xFF)})));
    EXPECT_EQ(capture([&] { A::loadM29_QDTD(ok.c, d, extra); }), "");
    ASSERT_EQ(d.size(), 2u);
    EXPECT_EQ(d[1].x, 5);
}

TEST(SensorBoxes, HostileCountsAndSizesAreRefused)
{
    // 24 + 0xFFFFFFFF * 24 wraps to 0 in 32 bits: still refused.
    Movie wraps(box("QDTC", cat({streamHeader(0xFFFFFFFF, 0, 24, false), Bytes(48, 0)})));
    std::vector<A::Ecompass> e;
    unsigned short extra = 0;
    EXPECT_EQ(capture([&] { A::loadM29_QDTC(wraps.c, e, extra); }),
              "QDTC: Not enough length. except less than 24+24*4294967295(=0), but 72.\n");
    EXPECT_TRUE(e.empty());

    // A box whose size claims far more than the file holds is judged by the
    // bytes that are there.
    Bytes claim = box("QDTC", cat({streamHeader(1000, 0, 24, false), Bytes(48, 0)}));
    claim[0] = 0x00, claim[1] = 0x01, claim[2] = 0x00, claim[3] = 0x00;
    Movie past(claim);
    std::string out = capture([&] { A::loadM29_QDTC(past.c, e, extra); });
    EXPECT_NE(out.find("QDTC: Not enough length. except less than 24+24*1000(=24024), but"), std::string::npos) << out;
    EXPECT_TRUE(e.empty());
}

// A compass box of n records numbered by their time stamps.
Bytes compassBox(uint32_t n, bool big, size_t extraBytes = 0)
{
    Bytes recs;
    for (uint32_t i = 0; i < n; ++i) {
        Bytes r = xyzRecord(i, i + 1, i + 2, 1000 + i, big);
        recs.insert(recs.end(), r.begin(), r.end());
    }
    return box("QDTC", cat({streamHeader(n, 9, 24, big), recs, Bytes(extraBytes, 0x77)}));
}

TEST(SensorBoxes, TrimMovesTheKeptRecordsToTheFrontAndZeroesTheRest)
{
    Bytes b = compassBox(100, false);
    ASSERT_EQ(b.size(), 2424u);
    Bytes original = b;
    ASSERT_TRUE(SensorStream::trimSensorBox(b.data(), b.size(), 24, 10, 50));
    EXPECT_EQ(b.size(), 2424u);
    EXPECT_EQ(Bytes(b.begin(), b.begin() + 8), Bytes(original.begin(), original.begin() + 8));
    EXPECT_EQ(Bytes(b.begin() + 8, b.begin() + 12), (Bytes{50, 0, 0, 0}));
    EXPECT_EQ(Bytes(b.begin() + 12, b.begin() + 24), Bytes(original.begin() + 12, original.begin() + 24));
    EXPECT_EQ(Bytes(b.begin() + 24, b.begin() + 24 + 1200),
              Bytes(original.begin() + 24 + 240, original.begin() + 24 + 240 + 1200));
    EXPECT_EQ(Bytes(b.begin() + 1224, b.end()), Bytes(1200, 0));

    // All 100 records would fill the box exactly: left as it is.
    Bytes c = original;
    EXPECT_FALSE(SensorStream::trimSensorBox(c.data(), c.size(), 24, 0, 100));
    EXPECT_EQ(c, original);
}

TEST(SensorBoxes, TrimWritesTheCountInTheBoxByteOrder)
{
    Bytes big = compassBox(400, true);
    ASSERT_TRUE(SensorStream::trimSensorBox(big.data(), big.size(), 24, 100, 300));
    EXPECT_EQ(Bytes(big.begin() + 8, big.begin() + 12), (Bytes{0x00, 0x00, 0x01, 0x2C}));
    // Records keep their stored (big-endian) bytes: record 100 is now first.
    EXPECT_EQ(Bytes(big.begin() + 24, big.begin() + 48), xyzRecord(100, 101, 102, 1100, true));

    Bytes little = compassBox(400, false);
    ASSERT_TRUE(SensorStream::trimSensorBox(little.data(), little.size(), 24, 100, 300));
    EXPECT_EQ(Bytes(little.begin() + 8, little.begin() + 12), (Bytes{0x2C, 0x01, 0x00, 0x00}));

    // A gravity box (16-byte records) with room behind the kept ones.
    Bytes d = box("QDTD", cat({streamHeader(3, 0, 16, true), gravityRecord(1, 1, 1, 1, true),
                               gravityRecord(2, 2, 2, 2, true), gravityRecord(3, 3, 3, 3, true)}));
    ASSERT_TRUE(SensorStream::trimSensorBox(d.data(), d.size(), 16, 2, 1));
    EXPECT_EQ(Bytes(d.begin() + 24, d.begin() + 40), gravityRecord(3, 3, 3, 3, true));
    EXPECT_EQ(Bytes(d.begin() + 40, d.end()), Bytes(32, 0));
}

TEST(SensorBoxes, TrimRefusesRangesPastTheRecords)
{
    Bytes b = compassBox(10, false, 24 * 100); // plenty of room behind
    Bytes original = b;
    EXPECT_FALSE(SensorStream::trimSensorBox(b.data(), b.size(), 24, 5, 6));          // past the count
    EXPECT_FALSE(SensorStream::trimSensorBox(b.data(), b.size(), 24, 0xFFFFFFFF, 2)); // wraps
    EXPECT_FALSE(SensorStream::trimSensorBox(b.data(), 20, 24, 0, 0));                // shorter than its header
    EXPECT_EQ(b, original);
    // A count field that claims more records than the box holds: the range
    // is checked against the box as well.
    Bytes lying = compassBox(3, false, 30);
    lying[8] = 200;
    original = lying;
    EXPECT_FALSE(SensorStream::trimSensorBox(lying.data(), lying.size(), 24, 4, 1));
    EXPECT_EQ(lying, original);
}

TEST(SensorBoxes, TrimInsideAUdtaCopyFindsTheBoxAndChecksSizes)
{
    Bytes qdtd = box("QDTD", cat({streamHeader(2, 0, 16, false), gravityRecord(1, 2, 3, 4, false),
                                  gravityRecord(5, 6, 7, 8, false)}));
    Bytes udta = box("udta", cat({box("QMKN", Bytes(20, 1)), compassBox(4, false), qdtd}));
    ByteArray copy(udta.data(), udta.size());
    ASSERT_TRUE(SensorStream::trimSensorBoxIn(copy, "QDTC", 24, 1, 2));
    size_t at = 8 + 28; // after the udta header and QMKN
    EXPECT_EQ(copy.data[at + 8], 2);
    EXPECT_EQ(Bytes(copy.data + at + 24, copy.data + at + 48), xyzRecord(1, 2, 3, 1001, false));
    ASSERT_TRUE(SensorStream::trimSensorBoxIn(copy, "QDTD", 16, 1, 1));
    EXPECT_FALSE(SensorStream::trimSensorBoxIn(copy, "QDTB", 24, 0, 1)); // none there

    // A child whose size runs past the udta ends the walk untouched.
    Bytes bad = udta;
    bad[8 + 3] = 0xFF; // QMKN claims 255 bytes
    ByteArray badCopy(bad.data(), bad.size());
    EXPECT_FALSE(SensorStream::trimSensorBoxIn(badCopy, "QDTC", 24, 1, 2));
    EXPECT_EQ(Bytes(badCopy.data, badCopy.data + badCopy.length), bad);
}

} // namespace
