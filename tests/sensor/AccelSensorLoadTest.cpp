// The accelerometer table: built from a movie's QDTD and QDTC boxes (QDTD
// resampled at the QDTG times), or read from a raw stream and filtered on
// three threads; and the orientation decisions made from it.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "GLTKFileIO.h"
#include "MP4Container.h"
#include "SensorBoxBytes.h"
#include "TestSupport.h"
#include "sensor/AccelSensorStreamEmbed.h"
#include "sensor/SensorFilter.h"

namespace {

using namespace testsupport;
using Embed = AccelSensorStreamEmbed;
using Sample = AccelSensorStreamEmbed::TAccelSensorInfo;
using Gravity = Embed::TopBottomCorrection;

// Runs f and returns what it printed.
std::string printedBy(const std::function<void()>& f)
{
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

// x y z (and the orientation) of every sample.
std::string samplesOf(const Embed& e, bool orientation = false)
{
    std::ostringstream o;
    for (const Sample& s : e.getSamples()) {
        o << s.x << " " << s.y << " " << s.z;
        if (orientation)
            o << " " << s.orientation;
        o << "|";
    }
    return o.str();
}

// n records made by record(i), in a box of the type.
Bytes boxOf(const char* type, uint16_t unit, int n, const std::function<Bytes(int)>& record)
{
    Bytes all;
    for (int i = 0; i < n; ++i)
        all = cat({all, record(i)});
    return sensorBox(type, unit, all);
}
// A QDTI box makes loadM29 take QDTD as it stands.
Bytes yawBox() { return sensorBox("QDTI", 24, quaternionRecord(1, 0, 0, 0, 0)); }
Bytes northBox(int n) { return boxOf("QDTC", 24, n, [](int i) { return compassRecord(0, 1, 0, i); }); }

TEST(SensorMovieLoad, GravityAxesAreNegatedAndYZExchanged)
{
    UdtaMovie m(cat({yawBox(), sensorBox("QDTD", 16, cat({gravityRecord(100, 200, 300, 10), gravityRecord(-32768, 0, 5, 20)})),
                 northBox(2)}));
    Embed e;
    printedBy([&] { ASSERT_TRUE(e.loadM29(m.c, 3)); });
    EXPECT_EQ(samplesOf(e), "-100 -300 -200|-32768 -5 0|"); // two's-complement negation keeps -32768
    EXPECT_EQ(e.getSamples()[0].temperature, 20);
    EXPECT_EQ(std::tie(e.header.count, e.header.rate, e.header.step), std::make_tuple(2, 100, 10));
}

TEST(SensorMovieLoad, CompassMustCoverEveryGravityRecordAndReloadingStartsClear)
{
    auto build = [](int gravityCount, int compassCount) {
        // Headings 0 and 90 degrees in turn; records after the tenth point
        // elsewhere and must not be used.
        return cat({yawBox(), boxOf("QDTD", 16, gravityCount, [](int i) { return gravityRecord(0, 0, 16384, i); }),
                    boxOf("QDTC", 24, compassCount, [](int i) {
                        return i >= 10 ? compassRecord(1, 0, 0, i) : compassRecord(i % 2 ? -1 : 0, i % 2 ? 0 : 1, 0, i);
                    })});
    };
    Embed e;
    UdtaMovie short9(build(10, 9)), none(build(0, 1)), enough(build(10, 12));
    EXPECT_EQ(printedBy([&] { EXPECT_FALSE(e.loadM29(short9.c, 1)); }),
              "QDTC/QDTD is not enough size.\n  QDTC:   9\n  QDTD/G: 10\n");
    EXPECT_NE(printedBy([&] { EXPECT_FALSE(e.loadM29(none.c, 1)); }).find("  QDTD/G: 0\n"), std::string::npos);
    printedBy([&] { ASSERT_TRUE(e.loadM29(enough.c, 1)); });
    EXPECT_EQ(samplesOf(e, true), "0 -16384 0 0|0 -16384 0 9000|0 -16384 0 0|0 -16384 0 9000|0 -16384 0 0|0 -16384 0 9000|"
                            "0 -16384 0 0|0 -16384 0 9000|0 -16384 0 0|0 -16384 0 9000|");

    UdtaMovie upsideDown(cat({yawBox(), sensorBox("QDTD", 16, gravityRecord(0, 0, -16384, 0)), northBox(1)}));
    printedBy([&] { ASSERT_TRUE(e.loadM29(upsideDown.c, 1)); });
    EXPECT_TRUE(e.isReversed()); // sample y = +16384
    UdtaMovie empty(Bytes{});
    printedBy([&] { EXPECT_FALSE(e.loadM29(empty.c, 1)); });
    EXPECT_TRUE(e.getSamples().empty());
    EXPECT_FALSE(e.isReversed() || e.isFrontReversed());
    EXPECT_EQ(e.upWeight, 0.0f);
}

TEST(SensorMovieLoad, GravityResampledBeforeAtBetweenAndAfterTheRecords)
{
    // QDTD times are 5, 6, 7 and 8 seconds (microseconds); QDTG times are
    // shifted by 4 seconds onto that clock.
    const Bytes gravity = sensorBox("QDTD", 16, cat({gravityRecord(16384, 0, 0, 5000000), gravityRecord(0, 3000, 4000, 6000000),
                                                     gravityRecord(10000, 0, 0, 7000000), gravityRecord(20000, 0, 0, 8000000)}));
    auto resampled = [](const Bytes& udta, std::string& printed, unsigned short* extra = nullptr) {
        UdtaMovie m(udta);
        std::vector<Gravity> out(3); // stale records are dropped
        unsigned short e = 0;
        printed = printedBy([&] { Embed().loadM30_QDTD_with_QDTG(m.c, out, extra ? *extra : e); });
        std::ostringstream o;
        for (const Gravity& r : out)
            o << r.x << " " << r.y << " " << r.z << " " << r.t << " " << int(r.reserved[0]) << "|";
        return o.str();
    };
    auto times = [](std::initializer_list<uint64_t> ts) {
        Bytes all;
        for (uint64_t t : ts)
            all = cat({all, timeRecord(t)});
        return sensorBox("QDTG", 8, all);
    };
    // Before and at the first record: its vector, reserved bytes cleared; half
    // way: turned 45 degrees; at an inner record: its direction at length
    // 16384, or the raw vector when the next one is parallel (no axis); at and
    // after the last record: the last record itself, one line each.
    std::string printed;
    EXPECT_EQ(resampled(cat({gravity, times({0, 1000000, 1500000, 2000000, 3000000, 4000000, 5000000})}), printed),
              "16384 0 0 4000000 0|16384 0 0 5000000 0|11585 6951 9268 5500000 0|0 9830 13107 6000000 0|"
              "10000 0 0 7000000 0|20000 0 0 8000000 170|20000 0 0 8000000 170|");
    EXPECT_EQ(printed, "QDTD: End of data : use 8000000 for 8000000\nQDTD: End of data : use 8000000 for 9000000\n");
    // A frame time that steps back after the index passed it runs to the end.
    EXPECT_EQ(resampled(cat({gravity, times({3500000, 1500000})}), printed),
              "10000 0 0 7500000 0|20000 0 0 8000000 170|");
    EXPECT_EQ(printed, "QDTD: End of data : use 8000000 for 5500000\n");

    // Without frame times QDTD is taken as it stands; without QDTD nothing.
    unsigned short extra = 0;
    EXPECT_EQ(resampled(sensorBox("QDTD", 16, cat({gravityRecord(1, 2, 3, 4), gravityRecord(5, 6, 7, 8)}), Order::Little, 9),
                        printed, &extra),
              "1 2 3 4 170|5 6 7 8 170|");
    EXPECT_EQ(printed, "QDTD: No QDTG entries.\n");
    EXPECT_EQ(extra, 9);
    EXPECT_EQ(resampled(times({1, 2, 3}), printed), "");
}

TEST(SensorOrientation, CompassHeadingClockwiseAfterTheTiltOntoTheAxis)
{
    auto heading = [](int16_t gravityY, int16_t gravityZ, float x, float y, float z) {
        Sample s;
        s.y = gravityY;
        s.z = gravityZ;
        Embed::calcOrientation(s, Embed::Ecompass{x, y, z, {}, 0});
        return s.orientation;
    };
    // Gravity along -y: no tilt; single precision may land a hundredth short.
    EXPECT_EQ(heading(-16384, 0, 0, 1, 0), 0);
    EXPECT_EQ(heading(-16384, 0, -1, 0, 0), 9000);
    EXPECT_NEAR(heading(-16384, 0, 1, 1, 0), 31500, 1);
    EXPECT_EQ(heading(-16384, 0, 0, 0, 0), 0);
    EXPECT_EQ(heading(-16384, 0, NAN, 1, 0), 0);
    // Gravity along +z: the tilt turns +z onto -y, a compass along -z onto +y.
    EXPECT_EQ(heading(0, 16384, 0, 0, -1), 0);
    EXPECT_EQ(heading(0, 16384, -1, 0, 0), 9000);

    // No tilt for a gravity vector too short or opposite the axis.
    const GLTK::Vector3 axis(0, -2, 0);
    GLTK::Matrix3x3 m;
    for (const GLTK::Vector3& w : {GLTK::Vector3(0, 0.00001f, 0), GLTK::Vector3(0, 5, 0)}) { // too short, opposite
        m = GLTK::Matrix3x3(0, 0, 0, 0, 0, 0, 0, 0, 0);
        Embed::tiltMatrix0WithAxis(w, axis, m);
        EXPECT_EQ(m, GLTK::Matrix3x3::identity());
    }
}

// ---------------------------------------------------------------- raw stream

struct RawSample {
    int16_t x, y, z;
    uint16_t orientation = 0;
    int16_t temperature = 20;
};

// Loads a raw stream (twelve big-endian header words, then 12-byte samples)
// from a file; returns load's result and fills what it printed.
bool loadRaw(Embed& e, const std::vector<int32_t>& words, const std::vector<RawSample>& samples, bool filter = false,
             std::string* printed = nullptr, size_t cut = 0)
{
    Bytes b;
    for (size_t i = 0; i < 12; ++i)
        add32(b, i < words.size() ? uint32_t(words[i]) : 0);
    for (const RawSample& s : samples) {
        for (uint16_t v : {uint16_t(s.x), uint16_t(s.y), uint16_t(s.z), s.orientation, uint16_t(s.temperature)})
            add16(b, v);
        b.insert(b.end(), {0x5A, 0xA5});
    }
    b.resize(b.size() - cut);
    TempDir dir;
    writeFile(dir / "acc.bin", b);
    bool ok = false;
    std::string out = printedBy([&] {
        EXPECT_TRUE(GLTK::FileIO::open((dir / "acc.bin").wstring(), [&](GLTK::FileIO& f) { ok = e.load(0, f, filter); }));
    });
    if (printed)
        *printed = out;
    return ok;
}

TEST(SensorRawStream, FieldsAreBigEndianAndShortOrHostileInputFails)
{
    Embed e;
    std::string printed;
    EXPECT_TRUE(loadRaw(e, {2, 100, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, {{-2, 300, -32768, 35999, -5}, {1, 2, 3}}));
    EXPECT_EQ(samplesOf(e, true), "-2 300 -32768 35999|1 2 3 0|");
    EXPECT_EQ(e.getSamples()[0].temperature, -5);
    EXPECT_EQ(e.getSamples()[0].reserved[0], 0x5A); // kept as read
    EXPECT_EQ(std::tie(e.header.offsetX, e.header.step), std::make_tuple(5, 10));

    EXPECT_FALSE(loadRaw(e, {1}, {}, false, nullptr, 1)); // a header of 47 bytes
    // A count far beyond the file: the samples present are read, and no room
    // is made for samples that are not there.
    EXPECT_FALSE(loadRaw(e, {0x7FFFFFFF}, {{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}, true));
    EXPECT_EQ(e.getSamples().size(), 3u);
    EXPECT_LT(e.getSamples().capacity(), 1000u);
    EXPECT_FALSE(loadRaw(e, {2}, {{1, 2, 3}, {4, 5, 6}}, false, nullptr, 1)); // a partial sample is none
    EXPECT_EQ(e.getSamples().size(), 1u);
    EXPECT_FALSE(loadRaw(e, {-1}, {{1, 2, 3}}));
    EXPECT_TRUE(e.getSamples().empty());
    EXPECT_TRUE(loadRaw(e, {0, 100}, {{1, 2, 3}}, false, &printed)); // count 0: nothing read, decides no
    EXPECT_EQ(printed, "rev-up/down: [P]0.000000, [N]:0.000000 -> N\nrev-front:   [F]0.000000 -> N\n");
}

TEST(SensorRawStream, ThreadedFilteringMatchesOneAxisAtATime)
{
    std::vector<RawSample> in;
    std::vector<double> axes[3], filtered[3];
    for (int i = 0; i < 2000; ++i) {
        in.push_back({int16_t(16000 * std::cos(i * 0.01) + (i % 7) * 40), int16_t(-8000 + (i * 37) % 500),
                      int16_t(32767 - (i % 3))});
        for (int a = 0; a < 3; ++a)
            axes[a].push_back(a == 0 ? in.back().x : a == 1 ? in.back().y : in.back().z);
    }
    Embed e;
    std::string printed;
    ASSERT_TRUE(loadRaw(e, {int32_t(in.size())}, in, true, &printed));
    EXPECT_EQ(printed.rfind("filtering acc.\n", 0), 0u);
    for (int a = 0; a < 3; ++a)
        filterForAcc(axes[a], filtered[a]);
    // Truncated toward zero, then to 16 bits: a near-full-scale axis times
    // the kernel's gain above 1 wraps, as the camera's own tools do.
    auto to16 = [](double v) { return int16_t(int32_t(v)); };
    ASSERT_EQ(e.getSamples().size(), in.size());
    for (size_t i = 0; i < in.size(); ++i) {
        const Sample& s = e.getSamples()[i];
        ASSERT_EQ(std::tie(s.x, s.y, s.z), std::make_tuple(to16(filtered[0][i]), to16(filtered[1][i]), to16(filtered[2][i])))
            << i;
    }
    EXPECT_LT(e.getSamples()[1000].z, 0);
}

TEST(SensorDecisions, UpsideDownFrontReversedAndTheCorrectedAxis)
{
    Embed e;
    std::string printed;
    loadRaw(e, {3}, {{0, 16384, 0}, {0, 16384, 0}, {100, -16384, 0}}, false, &printed);
    EXPECT_TRUE(e.isReversed());
    EXPECT_EQ(printed.substr(0, printed.find('\n') + 1),
              "rev-up/down: [P]200000.000000, [N]:" + std::to_string(e.downWeight) + " -> Y\n");
    // Gravity mostly along z, slightly up: no up/down vote, and each sample
    // scores -y / |v|; an all-zero sample makes it NaN, which is "not >= 0".
    loadRaw(e, {3}, {{0, 1000, 16384}, {0, 1000, 16384}, {0, 1000, 16384}}, false, &printed);
    EXPECT_FALSE(e.isReversed());
    EXPECT_TRUE(e.isFrontReversed());
    EXPECT_NEAR(e.frontScore, -3 * 1000 / std::sqrt(1000.0 * 1000 + 16384.0 * 16384), 1e-5);
    EXPECT_NE(printed.find("rev-front:   [F]-0.18"), std::string::npos);
    loadRaw(e, {1}, {{0, 0, 0}});
    EXPECT_TRUE(std::isnan(e.frontScore) && e.isFrontReversed());

    // gain 100, offset 0, scale 100, correction on: at 20 degrees z gains
    // 16 * (100 * (25 - 20) / 100) = 80; at 38 degrees, truncated, -13 * 16.
    loadRaw(e, {2, 0, 100, 0, 100, 0, 1, -2, 3, 1}, {{10, 20, 30, 0, 20}, {-1, -1, -1, 0, 38}});
    EXPECT_EQ(e.axis(0), GLTK::Vector3(11, 18, 30 + 3 + 80));
    EXPECT_EQ(e.axis(1).z, -1 + 3 - 16 * 13);
    EXPECT_EQ(e.axis(-4).x, 11); // the index is clamped to the table
    EXPECT_EQ(Embed().axis(0).length(), 0.0f);
    // Header words at the ends of their range wrap instead of overflowing.
    loadRaw(e, {1, 0, INT32_MAX, INT32_MAX, INT32_MAX, 0, INT32_MAX, 0, 0, 1}, {{10, 0, 0, 0, 99}});
    EXPECT_EQ(e.axis(0).x, float(int32_t(uint32_t(INT32_MAX) + 10u)));
}

} // namespace
