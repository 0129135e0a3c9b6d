// The accelerometer table: the raw stream and its three filter threads, the
// table built from a movie's QDTD and QDTC boxes, the QDTD resampling at the
// QDTG times, and the orientation decisions.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
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

struct RawSample {
    int16_t x, y, z;
    uint16_t orientation = 0;
    int16_t temperature = 20;
};

// A raw stream: twelve big-endian header words, then 12-byte samples.
Bytes rawStream(const std::vector<int32_t>& words, const std::vector<RawSample>& samples)
{
    Bytes b;
    for (size_t i = 0; i < 12; ++i)
        add32(b, i < words.size() ? uint32_t(words[i]) : 0);
    for (const RawSample& s : samples) {
        for (uint16_t v : {uint16_t(s.x), uint16_t(s.y), uint16_t(s.z), s.orientation, uint16_t(s.temperature)})
            add16(b, v);
        b.insert(b.end(), {0x5A, 0xA5});
    }
    return b;
}

// Loads a raw stream from a file; returns load's result and what it printed.
bool loadRaw(Embed& embed, const Bytes& bytes, bool filter, std::string* printed = nullptr)
{
    TempDir dir;
    writeFile(dir / "acc.bin", bytes);
    bool ok = false;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(GLTK::FileIO::open((dir / "acc.bin").wstring(), [&](GLTK::FileIO& f) { ok = embed.load(0, f, filter); }));
    std::string out = testing::internal::GetCapturedStdout();
    if (printed)
        *printed = out;
    return ok;
}

// A movie holding the given udta boxes, attached to a container.
struct Movie {
    TempDir dir;
    MP4::Container container;
    explicit Movie(const Bytes& udtaChildren)
    {
        writeFile(dir / "movie.mp4", movieWithUdta(udtaChildren));
        EXPECT_TRUE(container.attach((dir / "movie.mp4").wstring()));
    }
    bool load(Embed& embed, int divisor, std::string* printed = nullptr)
    {
        testing::internal::CaptureStdout();
        bool ok = embed.loadM29(container, divisor);
        std::string out = testing::internal::GetCapturedStdout();
        if (printed)
            *printed = out;
        return ok;
    }
    std::vector<Gravity> atFrameTimes(std::string* printed = nullptr, unsigned short* extra = nullptr)
    {
        std::vector<Gravity> out(3);
        unsigned short e = 0;
        testing::internal::CaptureStdout();
        Embed().loadM30_QDTD_with_QDTG(container, out, extra ? *extra : e);
        std::string text = testing::internal::GetCapturedStdout();
        if (printed)
            *printed = text;
        return out;
    }
};

Bytes gravityBox(const std::vector<Bytes>& records, uint16_t extra = 0)
{
    Bytes all;
    for (const Bytes& r : records)
        all = cat({all, r});
    return sensorBox("QDTD", 16, all, Order::Little, extra);
}
Bytes compassBox(int n, const std::function<Bytes(int)>& record)
{
    Bytes all;
    for (int i = 0; i < n; ++i)
        all = cat({all, record(i)});
    return sensorBox("QDTC", 24, all);
}
Bytes timeBox(const std::vector<uint64_t>& times)
{
    Bytes all;
    for (uint64_t t : times)
        all = cat({all, timeRecord(t)});
    return sensorBox("QDTG", 8, all);
}
// A QDTI box makes loadM29 take QDTD as it stands.
Bytes yawBox() { return sensorBox("QDTI", 24, quaternionRecord(1, 0, 0, 0, 0)); }

TEST(SensorMovieLoad, GravityAxesAreNegatedAndYZExchanged)
{
    Movie m(cat({yawBox(), gravityBox({gravityRecord(100, 200, 300, 10), gravityRecord(-32768, 0, 5, 20)}),
                 compassBox(2, [](int i) { return compassRecord(0, 1, 0, 10 * i + 10); })}));
    Embed e;
    ASSERT_TRUE(m.load(e, 3));
    ASSERT_EQ(e.getSamples().size(), 2u);
    const Sample& s = e.getSamples()[0];
    EXPECT_EQ(s.x, -100);
    EXPECT_EQ(s.y, -300);
    EXPECT_EQ(s.z, -200);
    EXPECT_EQ(s.temperature, 20);
    EXPECT_EQ(e.getSamples()[1].x, -32768); // two's-complement negation keeps it
    EXPECT_EQ(e.getSamples()[1].y, -5);
    EXPECT_EQ(e.header.count, 2);
    EXPECT_EQ(e.header.rate, 100);
    EXPECT_EQ(e.header.step, 10);
}

TEST(SensorMovieLoad, CompassMustCoverEveryGravityRecord)
{
    auto build = [](int gravityCount, int compassCount) {
        std::vector<Bytes> d;
        for (int i = 0; i < gravityCount; ++i)
            d.push_back(gravityRecord(0, 0, 16384, uint64_t(i)));
        // Headings 0 and 90 degrees in turn; records after the tenth point
        // elsewhere and must not be used.
        return cat({yawBox(), gravityBox(d), compassBox(compassCount, [](int i) {
                        return i >= 10 ? compassRecord(1, 0, 0, i) : compassRecord(i % 2 ? -1 : 0, i % 2 ? 0 : 1, 0, i);
                    })});
    };
    Embed e;
    std::string printed;
    EXPECT_FALSE(Movie(build(10, 9)).load(e, 1, &printed));
    EXPECT_EQ(printed, "QDTC/QDTD is not enough size.\n  QDTC:   9\n  QDTD/G: 10\n");
    EXPECT_TRUE(e.getSamples().empty());
    EXPECT_FALSE(Movie(build(0, 1)).load(e, 1, &printed));
    EXPECT_NE(printed.find("  QDTD/G: 0\n"), std::string::npos);

    ASSERT_TRUE(Movie(build(10, 12)).load(e, 1));
    ASSERT_EQ(e.getSamples().size(), 10u);
    for (size_t i = 0; i < 10; ++i)
        EXPECT_EQ(e.getSamples()[i].orientation, i % 2 == 0 ? 0 : 9000) << i;
}

TEST(SensorMovieLoad, LoadingAgainStartsFromAClearTable)
{
    Movie good(cat({yawBox(), gravityBox({gravityRecord(0, 0, -16384, 0)}), compassBox(1, [](int) { return compassRecord(0, 1, 0, 0); })}));
    Embed e;
    ASSERT_TRUE(good.load(e, 1));
    EXPECT_TRUE(e.isReversed()); // sample y = +16384
    EXPECT_FALSE(Movie(Bytes{}).load(e, 1));
    EXPECT_TRUE(e.getSamples().empty());
    EXPECT_FALSE(e.isReversed() || e.isFrontReversed());
    EXPECT_EQ(e.upWeight, 0.0f);
}

void expectGravity(const Gravity& r, int x, int y, int z, uint64_t t)
{
    EXPECT_EQ(std::tie(r.x, r.y, r.z), std::tie(x, y, z)) << "at " << t;
    EXPECT_EQ(r.t, t);
}

TEST(SensorMovieLoad, GravityResampledBeforeAtBetweenAndAfterTheRecords)
{
    // QDTD times are 5, 6, 7 and 8 seconds (microseconds); QDTG times are
    // shifted by 4 seconds onto that clock.
    const Bytes gravity = gravityBox({gravityRecord(16384, 0, 0, 5000000), gravityRecord(0, 3000, 4000, 6000000),
                                      gravityRecord(10000, 0, 0, 7000000), gravityRecord(20000, 0, 0, 8000000)});
    std::string printed;
    auto out = Movie(cat({gravity, timeBox({0, 1000000, 1500000, 2000000, 3000000, 4000000, 5000000})}))
                   .atFrameTimes(&printed);
    ASSERT_EQ(out.size(), 7u);
    expectGravity(out[0], 16384, 0, 0, 4000000); // before: the first vector, reserved bytes cleared
    EXPECT_EQ(out[0].reserved[0], 0);
    expectGravity(out[1], 16384, 0, 0, 5000000);
    expectGravity(out[2], 11585, 6951, 9268, 5500000); // half way: turned 45 degrees
    expectGravity(out[3], 0, 9830, 13107, 6000000);    // at an inner record: length 16384
    expectGravity(out[4], 10000, 0, 0, 7000000);       // parallel successor: no axis, the raw vector
    // At and after the last record: the last record itself, one line each.
    expectGravity(out[5], 20000, 0, 0, 8000000);
    expectGravity(out[6], 20000, 0, 0, 8000000);
    EXPECT_EQ(out[6].reserved[0], 0xAA);
    EXPECT_EQ(printed, "QDTD: End of data : use 8000000 for 8000000\n"
                       "QDTD: End of data : use 8000000 for 9000000\n");

    // A frame time that steps back after the index passed it runs to the end.
    out = Movie(cat({gravity, timeBox({3500000, 1500000})})).atFrameTimes(&printed);
    ASSERT_EQ(out.size(), 2u);
    expectGravity(out[1], 20000, 0, 0, 8000000);
    EXPECT_EQ(printed, "QDTD: End of data : use 8000000 for 5500000\n");

    // Without frame times QDTD is taken as it stands; without QDTD nothing.
    unsigned short extra = 0;
    out = Movie(gravityBox({gravityRecord(1, 2, 3, 4), gravityRecord(5, 6, 7, 8)}, 9))
              .atFrameTimes(&printed, &extra);
    EXPECT_EQ(printed, "QDTD: No QDTG entries.\n");
    ASSERT_EQ(out.size(), 2u);
    expectGravity(out[1], 5, 6, 7, 8);
    EXPECT_EQ(extra, 9);
    EXPECT_TRUE(Movie(timeBox({1, 2, 3})).atFrameTimes().empty());
}

TEST(SensorOrientation, CompassHeadingClockwiseAfterTheTilt)
{
    auto heading = [](const Sample& gravity, float x, float y, float z) {
        Sample s = gravity;
        Embed::calcOrientation(s, Embed::Ecompass{x, y, z, {}, 0});
        return s.orientation;
    };
    Sample level;
    level.y = -16384; // gravity along -y: no tilt
    EXPECT_EQ(heading(level, 0, 1, 0), 0);
    EXPECT_EQ(heading(level, -1, 0, 0), 9000);
    EXPECT_NEAR(heading(level, 1, 0, 0), 27000, 1); // single precision may land a hundredth short
    EXPECT_NEAR(heading(level, 1, 1, 0), 31500, 1);
    EXPECT_EQ(heading(level, 0, 0, 0), 0);
    EXPECT_EQ(heading(level, NAN, 1, 0), 0);
    // Gravity along +z: the tilt turns +z onto -y, a compass along -z onto +y.
    Sample tilted;
    tilted.z = 16384;
    EXPECT_EQ(heading(tilted, 0, 0, -1), 0);
    EXPECT_EQ(heading(tilted, -1, 0, 0), 9000);
}

TEST(SensorOrientation, TiltTurnsTheVectorOntoTheAxis)
{
    const GLTK::Vector3 axis(0, -2, 0);
    for (const GLTK::Vector3& v : {GLTK::Vector3(1, 2, 3), GLTK::Vector3(-5, 0.5f, 2), GLTK::Vector3(1000, 1, -1)}) {
        GLTK::Matrix3x3 m;
        Embed::tiltMatrix0WithAxis(v, axis, m);
        GLTK::Vector3 r = m * v;
        EXPECT_NEAR(r.x, 0, 1e-3f * v.length());
        EXPECT_NEAR(r.y, -v.length(), 1e-3f * v.length());
        EXPECT_NEAR(r.z, 0, 1e-3f * v.length());
    }
    GLTK::Matrix3x3 m(0, 0, 0, 0, 0, 0, 0, 0, 0);
    Embed::tiltMatrix0WithAxis(GLTK::Vector3(0, 0.00001f, 0), axis, m); // too short
    EXPECT_EQ(m, GLTK::Matrix3x3::identity());
    m = GLTK::Matrix3x3(0, 0, 0, 0, 0, 0, 0, 0, 0);
    Embed::tiltMatrix0WithAxis(GLTK::Vector3(0, 5, 0), axis, m); // opposite: no axis to turn about
    EXPECT_EQ(m, GLTK::Matrix3x3::identity());
}

TEST(SensorRawStream, FieldsAreBigEndianAndShortOrHostileInputFails)
{
    Embed e;
    EXPECT_TRUE(loadRaw(e, rawStream({2, 100, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, {{-2, 300, -32768, 35999, -5}, {1, 2, 3}}),
                        false));
    ASSERT_EQ(e.getSamples().size(), 2u);
    const Sample& s = e.getSamples()[0];
    EXPECT_EQ(std::tie(s.x, s.y, s.z, s.orientation, s.temperature),
              std::make_tuple(int16_t(-2), int16_t(300), int16_t(-32768), uint16_t(35999), int16_t(-5)));
    EXPECT_EQ(s.reserved[0], 0x5A); // kept as read
    EXPECT_EQ(e.header.offsetX, 5);
    EXPECT_EQ(e.header.step, 10);

    Bytes header = rawStream({1}, {});
    header.resize(47);
    EXPECT_FALSE(loadRaw(e, header, false));
    // A count far beyond the file: the samples present are read, and no room
    // is made for samples that are not there.
    EXPECT_FALSE(loadRaw(e, rawStream({0x7FFFFFFF}, {{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}), true));
    EXPECT_EQ(e.getSamples().size(), 3u);
    EXPECT_LT(e.getSamples().capacity(), 1000u);
    Bytes partial = rawStream({2}, {{1, 2, 3}, {4, 5, 6}});
    partial.pop_back(); // a trailing partial sample is not a sample
    EXPECT_FALSE(loadRaw(e, partial, false));
    EXPECT_EQ(e.getSamples().size(), 1u);
    EXPECT_FALSE(loadRaw(e, rawStream({-1}, {{1, 2, 3}}), false));
    EXPECT_TRUE(e.getSamples().empty());

    // Count 0 reads nothing and decides no.
    std::string printed;
    EXPECT_TRUE(loadRaw(e, rawStream({0, 100}, {{1, 2, 3}}), false, &printed));
    EXPECT_EQ(printed, "rev-up/down: [P]0.000000, [N]:0.000000 -> N\n"
                       "rev-front:   [F]0.000000 -> N\n");
}

TEST(SensorRawStream, ThreadedFilteringMatchesOneAxisAtATime)
{
    std::vector<RawSample> in;
    for (int i = 0; i < 2000; ++i)
        in.push_back({int16_t(16000 * std::cos(i * 0.01) + (i % 7) * 40), int16_t(-8000 + (i * 37) % 500),
                      int16_t(32767 - (i % 3))});
    Embed e;
    std::string printed;
    ASSERT_TRUE(loadRaw(e, rawStream({int32_t(in.size())}, in), true, &printed));
    EXPECT_EQ(printed.rfind("filtering acc.\n", 0), 0u);
    std::vector<double> axes[3], filtered[3];
    for (const RawSample& s : in)
        for (int a = 0; a < 3; ++a)
            axes[a].push_back(a == 0 ? s.x : a == 1 ? s.y : s.z);
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

TEST(SensorDecisions, UpsideDownAndFrontReversed)
{
    Embed e;
    std::string printed;
    loadRaw(e, rawStream({3}, {{0, 16384, 0}, {0, 16384, 0}, {100, -16384, 0}}), false, &printed);
    EXPECT_TRUE(e.isReversed());
    EXPECT_GT(e.downWeight, 0.0f);
    EXPECT_EQ(printed.substr(0, printed.find('\n') + 1),
              "rev-up/down: [P]200000.000000, [N]:" + std::to_string(e.downWeight) + " -> Y\n");

    // Gravity mostly along z, slightly up: no up/down vote, and each sample
    // scores -y / |v|.
    loadRaw(e, rawStream({3}, {{0, 1000, 16384}, {0, 1000, 16384}, {0, 1000, 16384}}), false, &printed);
    EXPECT_FALSE(e.isReversed());
    EXPECT_TRUE(e.isFrontReversed());
    EXPECT_NEAR(e.frontScore, -3 * 1000 / std::sqrt(1000.0 * 1000 + 16384.0 * 16384), 1e-5);
    EXPECT_NE(printed.find("rev-front:   [F]-0.18"), std::string::npos);
    // An all-zero sample makes the score NaN, which is "not >= 0".
    loadRaw(e, rawStream({1}, {{0, 0, 0}}), false);
    EXPECT_TRUE(std::isnan(e.frontScore));
    EXPECT_TRUE(e.isFrontReversed());
}

TEST(SensorDecisions, AxisAddsOffsetsAndTemperatureCorrection)
{
    Embed e;
    // gain 100, offset 0, scale 100, correction on: at 20 degrees z gains
    // 16 * (100 * (25 - 20) / 100) = 80; at 38 degrees, truncated, -13 * 16.
    loadRaw(e, rawStream({2, 0, 100, 0, 100, 0, 1, -2, 3, 1}, {{10, 20, 30, 0, 20}, {-1, -1, -1, 0, 38}}), false);
    GLTK::Vector3 v = e.axis(0);
    EXPECT_EQ(v.x, 11);
    EXPECT_EQ(v.y, 18);
    EXPECT_EQ(v.z, 30 + 3 + 80);
    EXPECT_EQ(e.axis(1).z, -1 + 3 - 16 * 13);
    EXPECT_EQ(e.axis(-4).x, 11); // the index is clamped to the table
    EXPECT_EQ(e.axis(99).x, 0);
    EXPECT_EQ(Embed().axis(0).length(), 0.0f);

    // Header words at the ends of their range wrap instead of overflowing.
    loadRaw(e, rawStream({1, 0, INT32_MAX, INT32_MAX, INT32_MAX, 0, INT32_MAX, 0, 0, 1}, {{10, 0, 0, 0, 99}}), false);
    EXPECT_EQ(e.axis(0).x, float(int32_t(uint32_t(INT32_MAX) + 10u)));
}

} // namespace
