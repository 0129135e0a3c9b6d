// The accelerometer table: the raw stream and its three filter threads, the
// table built from a movie's QDTD and QDTC boxes, the QDTD resampling at the
// QDTG times, and the orientation decisions.
#include <gtest/gtest.h>

#include <cmath>
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

// ---------------------------------------------------------------- helpers

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
        add16(b, uint16_t(s.x));
        add16(b, uint16_t(s.y));
        add16(b, uint16_t(s.z));
        add16(b, s.orientation);
        add16(b, uint16_t(s.temperature));
        b.push_back(0x5A);
        b.push_back(0xA5);
    }
    return b;
}

// Loads a raw stream from a file; returns load's result and fills `printed`.
bool loadRaw(Embed& embed, const Bytes& bytes, bool filter, std::string* printed = nullptr)
{
    TempDir dir;
    writeFile(dir / "acc.bin", bytes);
    bool ok = false;
    testing::internal::CaptureStdout();
    bool opened = GLTK::FileIO::open((dir / "acc.bin").wstring(), [&](GLTK::FileIO& f) { ok = embed.load(0, f, filter); });
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(opened);
    if (printed)
        *printed = out;
    return ok;
}

// A movie holding the given udta boxes, attached to a container.
class Movie {
public:
    explicit Movie(const Bytes& udtaChildren)
    {
        writeFile(dir / "movie.mp4", movieWithUdta(udtaChildren));
        EXPECT_TRUE(container.attach((dir / "movie.mp4").wstring()));
    }
    TempDir dir;
    MP4::Container container;
};

bool loadMovie(Embed& embed, MP4::Container& c, int divisor, std::string* printed = nullptr)
{
    testing::internal::CaptureStdout();
    bool ok = embed.loadM29(c, divisor);
    std::string out = testing::internal::GetCapturedStdout();
    if (printed)
        *printed = out;
    return ok;
}

Bytes gravityBox(const std::vector<Bytes>& records, Order o = Order::Little, uint16_t extra = 0)
{
    Bytes all;
    for (const Bytes& r : records)
        all.insert(all.end(), r.begin(), r.end());
    return sensorBox("QDTD", 16, all, o, extra);
}
Bytes compassBox(const std::vector<Bytes>& records, Order o = Order::Little)
{
    Bytes all;
    for (const Bytes& r : records)
        all.insert(all.end(), r.begin(), r.end());
    return sensorBox("QDTC", 24, all, o);
}
Bytes timeBox(const std::vector<uint64_t>& times, Order o = Order::Little)
{
    Bytes all;
    for (uint64_t t : times) {
        Bytes r = timeRecord(t, o);
        all.insert(all.end(), r.begin(), r.end());
    }
    return sensorBox("QDTG", 8, all, o);
}
// A QDTI box makes loadM29 take QDTD as it stands.
Bytes yawBox() { return sensorBox("QDTI", 24, yawRecord(1, 0, 0, 0, 0)); }

size_t countOf(const std::string& text, const std::string& piece)
{
    size_t n = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1))
        ++n;
    return n;
}

// ---------------------------------------------------------------- movie boxes

TEST(SensorMovieLoad, GravityAxesAreNegatedAndYZExchanged)
{
    Movie m(cat({yawBox(), gravityBox({gravityRecord(100, 200, 300, 10), gravityRecord(-32768, 0, 5, 20)}),
                 compassBox({compassRecord(0, 1, 0, 10), compassRecord(0, 1, 0, 20)})}));
    Embed e;
    ASSERT_TRUE(loadMovie(e, m.container, 3));
    ASSERT_EQ(e.getSamples().size(), 2u);
    const Sample& s = e.getSamples()[0];
    EXPECT_EQ(s.x, -100);
    EXPECT_EQ(s.y, -300);
    EXPECT_EQ(s.z, -200);
    EXPECT_EQ(s.temperature, 20);
    // Two's-complement negation keeps -32768.
    EXPECT_EQ(e.getSamples()[1].x, -32768);
    EXPECT_EQ(e.getSamples()[1].y, -5);
    EXPECT_EQ(e.header.count, 2);
    EXPECT_EQ(e.header.rate, 100);
    EXPECT_EQ(e.header.divisor, 3);
    EXPECT_EQ(e.header.step, 10);
    EXPECT_EQ(e.header.offsetX, 0);
    EXPECT_EQ(e.header.tempCorrection, 0);
}

TEST(SensorMovieLoad, BigAndLittleEndianBoxesGiveTheSameTable)
{
    auto build = [](Order o) {
        std::vector<Bytes> d, c;
        std::vector<uint64_t> g;
        for (int i = 0; i < 8; ++i) {
            d.push_back(gravityRecord(int16_t(1000 * i - 3000), int16_t(-16000 + 300 * i), int16_t(2000 - 77 * i),
                                      5000000 + 1000000ull * i, o));
            c.push_back(compassRecord(0.1f * i - 0.3f, 0.8f, -0.2f * i, 1000ull * i, o));
            g.push_back(1000000ull * i + 400000);
        }
        return cat({gravityBox(d, o, 0x1234), compassBox(c, o), timeBox(g, o)});
    };
    Movie little(build(Order::Little)), big(build(Order::Big));
    Embed a, b;
    std::string printedA, printedB;
    ASSERT_TRUE(loadMovie(a, little.container, 1, &printedA));
    ASSERT_TRUE(loadMovie(b, big.container, 1, &printedB));
    ASSERT_EQ(a.getSamples().size(), 8u);
    ASSERT_EQ(b.getSamples().size(), 8u);
    for (size_t i = 0; i < 8; ++i) {
        const Sample &p = a.getSamples()[i], &q = b.getSamples()[i];
        EXPECT_EQ(p.x, q.x) << i;
        EXPECT_EQ(p.y, q.y) << i;
        EXPECT_EQ(p.z, q.z) << i;
        EXPECT_EQ(p.orientation, q.orientation) << i;
    }
    EXPECT_EQ(printedA, printedB);
    // Resampled, not copied: the interpolated vectors have length 16384.
    const Sample& s = a.getSamples()[3];
    EXPECT_NEAR(std::sqrt(double(s.x) * s.x + double(s.y) * s.y + double(s.z) * s.z), 16384.0, 2.0);

    std::vector<Embed::TopBottomCorrection> d;
    unsigned short extra = 0;
    testing::internal::CaptureStdout();
    b.loadM30_QDTD_with_QDTG(big.container, d, extra);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(extra, 0x1234);
}

TEST(SensorMovieLoad, CompassMustCoverEveryGravityRecord)
{
    auto build = [](int gravityCount, int compassCount) {
        std::vector<Bytes> d, c;
        for (int i = 0; i < gravityCount; ++i)
            d.push_back(gravityRecord(0, 0, 16384, uint64_t(i)));
        for (int i = 0; i < compassCount; ++i) {
            // Headings 0 and 90 degrees in turn; the records after the tenth
            // point elsewhere and must not be used.
            if (i >= 10)
                c.push_back(compassRecord(1, 0, 0, uint64_t(i)));
            else if (i % 2 == 0)
                c.push_back(compassRecord(0, 1, 0, uint64_t(i)));
            else
                c.push_back(compassRecord(-1, 0, 0, uint64_t(i)));
        }
        return cat({yawBox(), gravityBox(d), compassBox(c)});
    };
    {
        Movie m(build(10, 9));
        Embed e;
        std::string printed;
        EXPECT_FALSE(loadMovie(e, m.container, 1, &printed));
        EXPECT_EQ(printed, "QDTC/QDTD is not enough size.\n  QDTC:   9\n  QDTD/G: 10\n");
        EXPECT_TRUE(e.getSamples().empty());
    }
    {
        Movie m(build(10, 12));
        Embed e;
        ASSERT_TRUE(loadMovie(e, m.container, 1));
        ASSERT_EQ(e.getSamples().size(), 10u);
        for (size_t i = 0; i < 10; ++i)
            EXPECT_EQ(e.getSamples()[i].orientation, i % 2 == 0 ? 0 : 9000) << i;
    }
    {
        // Count 0 in the gravity box: nothing to build.
        Movie m(cat({yawBox(), sensorBox("QDTD", 16, 0, {}), compassBox({compassRecord(0, 1, 0, 0)})}));
        Embed e;
        std::string printed;
        EXPECT_FALSE(loadMovie(e, m.container, 1, &printed));
        EXPECT_NE(printed.find("  QDTD/G: 0\n"), std::string::npos);
    }
}

TEST(SensorMovieLoad, LoadingAgainStartsFromAClearTable)
{
    Movie good(cat({yawBox(), gravityBox({gravityRecord(0, 0, -16384, 0)}), compassBox({compassRecord(0, 1, 0, 0)})}));
    Movie empty(Bytes{});
    Embed e;
    ASSERT_TRUE(loadMovie(e, good.container, 1));
    EXPECT_TRUE(e.isReversed()); // sample y = +16384
    EXPECT_FALSE(loadMovie(e, empty.container, 1));
    EXPECT_TRUE(e.getSamples().empty());
    EXPECT_FALSE(e.isReversed());
    EXPECT_FALSE(e.isFrontReversed());
    EXPECT_EQ(e.upWeight, 0.0f);
}

// ---------------------------------------------------------------- QDTD at QDTG times

class GravityAtFrameTimes : public testing::Test {
protected:
    // QDTD times are 5, 6, 7 and 8 seconds (microseconds); QDTG times are
    // shifted by 4 seconds onto that clock.
    std::vector<Embed::TopBottomCorrection> resample(const std::vector<uint64_t>& frameTimes, std::string* printed)
    {
        Movie m(cat({gravityBox({gravityRecord(16384, 0, 0, 5000000), gravityRecord(0, 3000, 4000, 6000000),
                                 gravityRecord(10000, 0, 0, 7000000), gravityRecord(20000, 0, 0, 8000000)}),
                     timeBox(frameTimes)}));
        Embed e;
        std::vector<Embed::TopBottomCorrection> out;
        unsigned short extra = 7;
        testing::internal::CaptureStdout();
        e.loadM30_QDTD_with_QDTG(m.container, out, extra);
        *printed = testing::internal::GetCapturedStdout();
        return out;
    }
    static void expectVector(const Embed::TopBottomCorrection& r, int x, int y, int z, uint64_t t)
    {
        EXPECT_EQ(r.x, x);
        EXPECT_EQ(r.y, y);
        EXPECT_EQ(r.z, z);
        EXPECT_EQ(r.t, t);
    }
};

TEST_F(GravityAtFrameTimes, BeforeAtBetweenAndAfterTheRecords)
{
    std::string printed;
    auto out = resample({0, 1000000, 1500000, 2000000, 3000000, 4000000, 5000000}, &printed);
    ASSERT_EQ(out.size(), 7u);
    // Before the first record: its vector unchanged at the frame time, with
    // the reserved bytes cleared.
    expectVector(out[0], 16384, 0, 0, 4000000);
    EXPECT_EQ(out[0].reserved[0], 0);
    // Exactly at the first record: the same.
    expectVector(out[1], 16384, 0, 0, 5000000);
    // Half way from (1, 0, 0) to (0, 0.6, 0.8): turned 45 degrees.
    expectVector(out[2], 11585, 6951, 9268, 5500000);
    // Exactly at an inner record: that record's direction at length 16384.
    expectVector(out[3], 0, 9830, 13107, 6000000);
    // At an inner record whose successor is parallel: no axis to turn about,
    // the raw vector stands.
    expectVector(out[4], 10000, 0, 0, 7000000);
    // At and after the last record: the last record itself, its own time and
    // reserved bytes included, one line per frame time.
    expectVector(out[5], 20000, 0, 0, 8000000);
    expectVector(out[6], 20000, 0, 0, 8000000);
    EXPECT_EQ(out[6].reserved[0], 0xAA);
    EXPECT_EQ(printed, "QDTD: End of data : use 8000000 for 8000000\n"
                       "QDTD: End of data : use 8000000 for 9000000\n");
}

TEST_F(GravityAtFrameTimes, TheIndexNeverGoesBack)
{
    std::string printed;
    // A frame time that steps back after the index passed it runs to the end.
    auto out = resample({3500000, 1500000}, &printed);
    ASSERT_EQ(out.size(), 2u);
    expectVector(out[1], 20000, 0, 0, 8000000);
    EXPECT_EQ(countOf(printed, "End of data"), 1u);
}

TEST(SensorMovieLoad, WithoutFrameTimesGravityIsTakenAsItStands)
{
    Movie m(gravityBox({gravityRecord(1, 2, 3, 4), gravityRecord(5, 6, 7, 8)}, Order::Little, 9));
    Embed e;
    std::vector<Embed::TopBottomCorrection> out;
    unsigned short extra = 0;
    testing::internal::CaptureStdout();
    e.loadM30_QDTD_with_QDTG(m.container, out, extra);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "QDTD: No QDTG entries.\n");
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[1].z, 7);
    EXPECT_EQ(out[1].t, 8u);
    EXPECT_EQ(extra, 9);
}

TEST(SensorMovieLoad, FrameTimesWithoutGravityGiveNothing)
{
    Movie m(timeBox({1, 2, 3}));
    Embed e;
    std::vector<Embed::TopBottomCorrection> out(3);
    unsigned short extra = 0;
    testing::internal::CaptureStdout();
    e.loadM30_QDTD_with_QDTG(m.container, out, extra);
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(out.empty());
}

// ---------------------------------------------------------------- orientation

TEST(SensorOrientation, CompassHeadingWithLevelCamera)
{
    // Gravity already along -y: no tilt.
    Sample s;
    s.y = -16384;
    Embed::Ecompass c{};
    auto heading = [&](float x, float y, float z) {
        c.x = x;
        c.y = y;
        c.z = z;
        Embed::calcOrientation(s, c);
        return s.orientation;
    };
    EXPECT_EQ(heading(0, 1, 0), 0);
    EXPECT_EQ(heading(-1, 0, 0), 9000);
    // Clockwise positive, through the whole circle (single precision may
    // land one hundredth short).
    EXPECT_NEAR(heading(-1, -1, 0), 13500, 1);
    EXPECT_NEAR(heading(1, 0, 0), 27000, 1);
    EXPECT_NEAR(heading(1, 1, 0), 31500, 1);
    EXPECT_EQ(heading(0, 0, 0), 0);
    EXPECT_EQ(heading(NAN, 1, 0), 0);
}

TEST(SensorOrientation, CompassHeadingWithTiltedCamera)
{
    // Gravity along +z: the tilt turns +z onto -y (a quarter turn about x),
    // which takes a compass along -z onto +y.
    Sample s;
    s.z = 16384;
    Embed::Ecompass c{};
    c.z = -1;
    Embed::calcOrientation(s, c);
    EXPECT_EQ(s.orientation, 0);
    c = {};
    c.x = -1;
    Embed::calcOrientation(s, c);
    EXPECT_EQ(s.orientation, 9000);
}

TEST(SensorOrientation, TiltTurnsTheVectorOntoTheAxis)
{
    const GLTK::Vector3 axis(0, -2, 0);
    const GLTK::Vector3 vectors[] = {{1, 2, 3}, {-5, 0.5f, 2}, {0.3f, -4, 0.1f}, {0, 0, -7}, {1000, 1, -1}};
    for (const GLTK::Vector3& v : vectors) {
        GLTK::Matrix3x3 m;
        Embed::tiltMatrix0WithAxis(v, axis, m);
        GLTK::Vector3 r = m * v;
        EXPECT_NEAR(r.x, 0, 1e-3f * v.length());
        EXPECT_NEAR(r.y, -v.length(), 1e-3f * v.length());
        EXPECT_NEAR(r.z, 0, 1e-3f * v.length());
    }
    GLTK::Matrix3x3 m(0, 0, 0, 0, 0, 0, 0, 0, 0);
    Embed::tiltMatrix0WithAxis(GLTK::Vector3(0, 0.00001f, 0), axis, m);
    EXPECT_EQ(m, GLTK::Matrix3x3::identity());
    Embed::tiltMatrix0WithAxis(GLTK::Vector3(0, 5, 0), axis, m); // opposite: no axis to turn about
    EXPECT_EQ(m, GLTK::Matrix3x3::identity());
}

// ---------------------------------------------------------------- raw stream

TEST(SensorRawStream, CountZeroReadsNothingAndDecidesNo)
{
    Embed e;
    std::string printed;
    EXPECT_TRUE(loadRaw(e, rawStream({0, 100}, {{1, 2, 3}}), false, &printed));
    EXPECT_TRUE(e.getSamples().empty());
    EXPECT_EQ(printed, "rev-up/down: [P]0.000000, [N]:0.000000 -> N\n"
                       "rev-front:   [F]0.000000 -> N\n");
    // With filtering the message is printed and the threads run on nothing.
    EXPECT_TRUE(loadRaw(e, rawStream({0}, {}), true, &printed));
    EXPECT_EQ(printed.rfind("filtering acc.\n", 0), 0u);
}

TEST(SensorRawStream, FieldsAreBigEndianAndShortInputFails)
{
    Embed e;
    EXPECT_TRUE(loadRaw(e, rawStream({2, 100, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, {{-2, 300, -32768, 35999, -5}, {1, 2, 3}}), false));
    ASSERT_EQ(e.getSamples().size(), 2u);
    const Sample& s = e.getSamples()[0];
    EXPECT_EQ(s.x, -2);
    EXPECT_EQ(s.y, 300);
    EXPECT_EQ(s.z, -32768);
    EXPECT_EQ(s.orientation, 35999);
    EXPECT_EQ(s.temperature, -5);
    EXPECT_EQ(s.reserved[0], 0x5A); // kept as read
    EXPECT_EQ(e.header.rate, 100);
    EXPECT_EQ(e.header.offsetX, 5);
    EXPECT_EQ(e.header.step, 10);

    // A header shorter than 48 bytes.
    Bytes header = rawStream({1}, {});
    header.resize(47);
    EXPECT_FALSE(loadRaw(e, header, false));

    // A count far beyond the file: the samples present are read, the result
    // is false, and no room is made for samples that are not there.
    EXPECT_FALSE(loadRaw(e, rawStream({0x7FFFFFFF}, {{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}), true));
    EXPECT_EQ(e.getSamples().size(), 3u);
    EXPECT_LT(e.getSamples().capacity(), 1000u);

    // A trailing partial sample is not a sample.
    Bytes partial = rawStream({2}, {{1, 2, 3}, {4, 5, 6}});
    partial.pop_back();
    EXPECT_FALSE(loadRaw(e, partial, false));
    EXPECT_EQ(e.getSamples().size(), 1u);

    // A negative count reads nothing.
    EXPECT_FALSE(loadRaw(e, rawStream({-1}, {{1, 2, 3}}), false));
    EXPECT_TRUE(e.getSamples().empty());
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

    std::vector<double> x, y, z, fx, fy, fz;
    for (const RawSample& s : in) {
        x.push_back(s.x);
        y.push_back(s.y);
        z.push_back(s.z);
    }
    filterForAcc(x, fx);
    filterForAcc(y, fy);
    filterForAcc(z, fz);
    // Truncated toward zero, then to 16 bits: a near-full-scale axis times
    // the kernel's gain above 1 wraps, as the camera's own tools do.
    auto to16 = [](double v) { return int16_t(int32_t(v)); };
    ASSERT_EQ(e.getSamples().size(), in.size());
    for (size_t i = 0; i < in.size(); ++i) {
        ASSERT_EQ(e.getSamples()[i].x, to16(fx[i])) << i;
        ASSERT_EQ(e.getSamples()[i].y, to16(fy[i])) << i;
        ASSERT_EQ(e.getSamples()[i].z, to16(fz[i])) << i;
    }
    EXPECT_LT(e.getSamples()[1000].z, 0);
}

// ---------------------------------------------------------------- decisions

TEST(SensorDecisions, UpsideDownCameraIsReversed)
{
    Embed e;
    std::string printed;
    loadRaw(e, rawStream({3}, {{0, 16384, 0}, {0, 16384, 0}, {100, -16384, 0}}), false, &printed);
    EXPECT_TRUE(e.isReversed());
    EXPECT_GT(e.upWeight, e.downWeight);
    EXPECT_GT(e.downWeight, 0.0f);
    EXPECT_EQ(printed.substr(0, printed.find('\n') + 1),
              "rev-up/down: [P]200000.000000, [N]:" + std::to_string(e.downWeight) + " -> Y\n");
}

TEST(SensorDecisions, FrontReversedWhenTheScoreIsNegative)
{
    Embed e;
    std::string printed;
    // Gravity mostly along z, slightly up: no up/down vote, and each sample
    // scores -y / |v|.
    loadRaw(e, rawStream({3}, {{0, 1000, 16384}, {0, 1000, 16384}, {0, 1000, 16384}}), false, &printed);
    EXPECT_FALSE(e.isReversed());
    EXPECT_TRUE(e.isFrontReversed());
    EXPECT_NEAR(e.frontScore, -3 * 1000 / std::sqrt(1000.0 * 1000 + 16384.0 * 16384), 1e-5);
    EXPECT_NE(printed.find("rev-front:   [F]-0.18"), std::string::npos);
    EXPECT_NE(printed.find(" -> Y\n"), std::string::npos);

    // An all-zero sample makes the score NaN, which is "not >= 0".
    loadRaw(e, rawStream({1}, {{0, 0, 0}}), false);
    EXPECT_TRUE(std::isnan(e.frontScore));
    EXPECT_TRUE(e.isFrontReversed());
}

TEST(SensorDecisions, AxisAddsOffsetsAndTemperatureCorrection)
{
    Embed e;
    // gain 100, offset 0, scale 100, correction on: at 20 degrees z gains
    // 16 * (100 * (25 - 20) / 100) = 80.
    loadRaw(e, rawStream({2, 0, 100, 0, 100, 0, 1, -2, 3, 1}, {{10, 20, 30, 0, 20}, {-1, -1, -1, 0, 38}}), false);
    GLTK::Vector3 v = e.axis(0);
    EXPECT_EQ(v.x, 11);
    EXPECT_EQ(v.y, 18);
    EXPECT_EQ(v.z, 30 + 3 + 80);
    // At 38 degrees: (38 - 25) steps down, truncated: 100 * (25 - 38) / 100 = -13.
    EXPECT_EQ(e.axis(1).z, -1 + 3 - 16 * 13);
    // The index is clamped to the table.
    EXPECT_EQ(e.axis(-4).x, 11);
    EXPECT_EQ(e.axis(99).x, 0);
    Embed empty;
    EXPECT_EQ(empty.axis(0).length(), 0.0f);

    // Header words at the ends of their range wrap instead of overflowing.
    loadRaw(e, rawStream({1, 0, INT32_MAX, INT32_MAX, INT32_MAX, 0, INT32_MAX, 0, 0, 1}, {{10, 0, 0, 0, 99}}), false);
    EXPECT_EQ(e.axis(0).x, float(int32_t(uint32_t(INT32_MAX) + 10u)));
}

} // namespace
