#include "AccelSensorStreamEmbed.h"
#include "GLTKwchar.h"
#include "SensorBoxBytes.h"
#include "SensorStreamBoxes.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sstream>

using namespace testsupport;
using A = AccelSensorStreamEmbed;

namespace {

// What a loader read and printed: the extra value, then each record's
// fields, then the printed text.
template <class R, class... F>
std::string loaded(void (*load)(MP4::Container&, std::vector<R>&, unsigned short&), MP4::Container& c,
                   F R::*... fields)
{
    std::vector<R> records(2); // stale records are dropped
    unsigned short extra = 99;
    testing::internal::CaptureStdout();
    load(c, records, extra);
    std::ostringstream o;
    o << extra;
    for (const R& r : records) {
        o << " |";
        ((o << " " << +(r.*fields)), ...);
    }
    return o.str() + " " + testing::internal::GetCapturedStdout();
}

TEST(SensorBoxes, ReadsLittleAndBigEndianRecordsSilently)
{
    const Order B = Order::Big;
    UdtaMovie m(cat({box("QMKN", Bytes(12, 0)),
                 sensorBox("QDTC", 24, cat({compassRecord(1.5f, -2.0f, 0.25f, 100), compassRecord(3, 0, 0, 200)}),
                           Order::Little, 7),
                 sensorBox("QDTD", 16, cat({gravityRecord(100, -200, 16384, 0x0102030405060708, B),
                                            gravityRecord(-1, 2, -3, 9, B)}), B, 0x1234),
                 sensorBox("QDTG", 8, cat({timeRecord(10, B), timeRecord(0xFFFFFFFF00000001ull, B)}), B, 1),
                 sensorBox("QDTB", 24, xyzRecord(uint32_t(-5), 6, uint32_t(-7), 42, B), B),
                 sensorBox("QDTI", 24, quaternionRecord(1.0f, 0.5f, -0.5f, 0.25f, 77, B), B, 3),
                 sensorBox("QDTH", 24, {}, Order::Little, 5)}));
    using C = A::Ecompass;
    using D = A::TopBottomCorrection;
    using G = A::Gyro;
    using Y = A::YawCorrection;
    EXPECT_EQ(loaded(A::loadM29_QDTC, m.c, &C::x, &C::y, &C::z, &C::t), "7 | 1.5 -2 0.25 100 | 3 0 0 200 ");
    // Reserved bytes are kept as stored, never swapped.
    EXPECT_EQ(loaded(A::loadM29_QDTD, m.c, &D::x, &D::y, &D::z, &D::t),
              "4660 | 100 -200 16384 72623859790382856 | -1 2 -3 9 ");
    std::vector<D> d;
    unsigned short extra;
    A::loadM29_QDTD(m.c, d, extra);
    EXPECT_EQ(d.at(0).reserved[0], 0xAA);
    EXPECT_EQ(loaded(A::loadM29_QDTB, m.c, &G::x, &G::y, &G::z, &G::t), "0 | -5 6 -7 42 ");
    std::vector<G> g;
    A::loadM29_QDTB(m.c, g, extra);
    EXPECT_EQ(std::memcmp(g.at(0).reserved, "\xA1\xA2\xA3\xA4", 4), 0);
    EXPECT_EQ(loaded(A::loadM29_QDTI, m.c, &Y::w, &Y::x, &Y::y, &Y::z, &Y::t), "3 | 1 0.5 -0.5 0.25 77 ");
    EXPECT_EQ(loaded(A::loadM22_QDTH, m.c, &A::Quaternion::t), "5 "); // count 0: extra still read
    std::vector<unsigned long long> times;
    A::loadM30_QDTG(m.c, times, extra);
    EXPECT_EQ(times, (std::vector<unsigned long long>{10, 0xFFFFFFFF00000001ull}));

    // A missing box: empty, extra 0, silent.
    UdtaMovie none(box("QMKN", Bytes(12, 0)));
    EXPECT_EQ(loaded(A::loadM29_QDTB, none.c, &G::x), "0 ");
}

TEST(SensorBoxes, MalformedOrHostileBoxesPrintTheirLineAndYieldNothing)
{
    using C = A::Ecompass;
    using D = A::TopBottomCorrection;
    Bytes twoRecords = cat({gravityRecord(1, 2, 3, 4), gravityRecord(5, 6, 7, 8)});
    Bytes swappedMark = sensorBox("QDTC", 24, Bytes(24, 0));
    std::swap(swappedMark[16], swappedMark[17]);
    UdtaMovie m(cat({box("QDTB", Bytes(15, 0)), swappedMark, sensorBox("QDTH", 16, 1, Bytes(24, 0)),
                 sensorBox("QDTD", 16, 2, Bytes(twoRecords.begin(), twoRecords.end() - 1))}));
    EXPECT_EQ(loaded(A::loadM29_QDTB, m.c, &A::Gyro::x), "0 QDTB: Not enough length. except less than 24, but 23.\n");
    EXPECT_EQ(loaded(A::loadM29_QDTC, m.c, &C::x),
              "0 QDTC: Invalid header. unitSize(expect 24, but 24), endian(expect 3210/0123, but 2301).\n");
    EXPECT_EQ(loaded(A::loadM22_QDTH, m.c, &A::Quaternion::x),
              "0 QDTH: Invalid header. unitSize(expect 24, but 16), endian(expect 3210/0123, but 0123).\n");
    EXPECT_EQ(loaded(A::loadM29_QDTD, m.c, &D::x),
              "0 QDTD: Not enough length. except less than 24+16*2(=56), but 55.\n");
    // One more byte makes the gravity box acceptable; bytes behind the last
    // record are ignored.
    UdtaMovie ok(sensorBox("QDTD", 16, 2, cat({twoRecords, Bytes(9, 0xFF)})));
    EXPECT_EQ(loaded(A::loadM29_QDTD, ok.c, &D::x), "0 | 1 | 5 ");

    // 24 + 0xFFFFFFFF * 24 wraps to 0 in 32 bits: still refused.
    UdtaMovie wraps(sensorBox("QDTC", 24, 0xFFFFFFFF, Bytes(48, 0)));
    EXPECT_EQ(loaded(A::loadM29_QDTC, wraps.c, &C::x),
              "0 QDTC: Not enough length. except less than 24+24*4294967295(=0), but 72.\n");
    // A box size claiming far more than the file holds is judged by the bytes there.
    Bytes claim = sensorBox("QDTC", 24, 1000, Bytes(48, 0));
    put32be(claim.data(), 0x10000);
    UdtaMovie past(claim);
    EXPECT_EQ(loaded(A::loadM29_QDTC, past.c, &C::x).rfind(
                  "0 QDTC: Not enough length. except less than 24+24*1000(=24024), but", 0),
              0u);
}

// A compass box of n records numbered by their time stamps.
Bytes compassBox(uint32_t n, Order o, size_t extraBytes = 0)
{
    Bytes recs;
    for (uint32_t i = 0; i < n; ++i)
        recs = cat({recs, xyzRecord(i, i + 1, i + 2, 1000 + i, o)});
    return sensorBox("QDTC", 24, n, cat({recs, Bytes(extraBytes, 0x77)}), o, 9);
}

TEST(SensorBoxes, TrimMovesTheKeptRecordsToTheFrontAndWritesTheCountInTheBoxOrder)
{
    Bytes b = compassBox(100, Order::Little), original = b;
    ASSERT_TRUE(SensorStream::trimSensorBox(b.data(), b.size(), 24, 10, 50));
    ASSERT_EQ(b.size(), original.size());
    EXPECT_EQ(Bytes(b.begin() + 8, b.begin() + 12), (Bytes{50, 0, 0, 0}));
    original[8] = 50;
    EXPECT_EQ(Bytes(b.begin(), b.begin() + 24), Bytes(original.begin(), original.begin() + 24));
    EXPECT_EQ(Bytes(b.begin() + 24, b.begin() + 1224), Bytes(original.begin() + 264, original.begin() + 1464));
    EXPECT_EQ(Bytes(b.begin() + 1224, b.end()), Bytes(1200, 0));

    Bytes big = compassBox(400, Order::Big);
    ASSERT_TRUE(SensorStream::trimSensorBox(big.data(), big.size(), 24, 100, 300));
    EXPECT_EQ(Bytes(big.begin() + 8, big.begin() + 12), (Bytes{0x00, 0x00, 0x01, 0x2C}));
    EXPECT_EQ(Bytes(big.begin() + 24, big.begin() + 48), xyzRecord(100, 101, 102, 1100, Order::Big));

    // A gravity box (16-byte records) with room behind the kept ones.
    Bytes d = sensorBox("QDTD", 16, cat({gravityRecord(1, 1, 1, 1), gravityRecord(2, 2, 2, 2), gravityRecord(3, 3, 3, 3)}));
    ASSERT_TRUE(SensorStream::trimSensorBox(d.data(), d.size(), 16, 2, 1));
    EXPECT_EQ(Bytes(d.begin() + 24, d.begin() + 40), gravityRecord(3, 3, 3, 3));
    EXPECT_EQ(Bytes(d.begin() + 40, d.end()), Bytes(32, 0));
}

TEST(SensorBoxes, TrimRefusesRangesPastTheRecordsOrTheBox)
{
    Bytes b = compassBox(10, Order::Little, 24 * 100); // plenty of room behind
    Bytes lying = compassBox(3, Order::Little, 30);
    lying[8] = 200; // the count claims more records than the box holds
    Bytes full = compassBox(100, Order::Little);
    const Bytes before[] = {b, lying, full};
    EXPECT_FALSE(SensorStream::trimSensorBox(b.data(), b.size(), 24, 5, 6));          // past the count
    EXPECT_FALSE(SensorStream::trimSensorBox(b.data(), b.size(), 24, 0xFFFFFFFF, 2)); // wraps
    EXPECT_FALSE(SensorStream::trimSensorBox(b.data(), 20, 24, 0, 0));                // shorter than its header
    EXPECT_FALSE(SensorStream::trimSensorBox(lying.data(), lying.size(), 24, 4, 1));
    EXPECT_FALSE(SensorStream::trimSensorBox(full.data(), full.size(), 24, 0, 100)); // all kept: nothing to do
    EXPECT_EQ(b, before[0]);
    EXPECT_EQ(lying, before[1]);
    EXPECT_EQ(full, before[2]);
}

} // namespace
