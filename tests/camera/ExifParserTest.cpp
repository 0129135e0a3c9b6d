// The camera's maker note: the heading derived from compass and tilt, and
// notes in either byte order read and updated alike.
#include "BoxBytes.h"
#include "Movies.h"
#include "camera/ExifParser.h"

#include <cmath>
#include <gtest/gtest.h>
#include <tuple>

using namespace std::string_literals;

// The heading of the camera: its compass, or for a camera pointing more than
// 45 degrees up or down, the direction derived from roll and pitch.
TEST(ExifParser, CompassIsCorrectedOnlyForASteepTilt)
{
    auto heading = [](float roll, float pitch, float compass) {
        ExifParser::ORVEX r;
        r.zenith[0] = roll;
        r.zenith[1] = pitch;
        r.compass = compass;
        r.attachCompass();
        return r.heading;
    };
    EXPECT_FLOAT_EQ(heading(80, 45, 123), 123); // within +-45 degrees
    EXPECT_FLOAT_EQ(heading(80, -45, 123), 123);
    EXPECT_FLOAT_EQ(heading(0, NAN, 123), 123); // no zenith
    EXPECT_NEAR(heading(0, 90, 30), 30, 1e-3);  // straight up without roll
    EXPECT_NEAR(heading(90, 90, 30), 120, 1e-3);
    EXPECT_NEAR(heading(30, -60, 10), 336.31, 0.01);
}

// The same camera record written as a big-endian and as a little-endian
// ("II") maker note reads back the same, every SHORT, SHORT[2] and rational
// in the note's own order; and what an in-place update writes, the reader
// reads back.
TEST(ExifParser, LittleEndianNoteReadsAsItsBigEndianTwin)
{
    using testsupport::Bytes;
    using testsupport::boxPayload;
    using testsupport::sharedMovie;
    auto note = [](const std::string& order) {
        Bytes b;
        EXPECT_TRUE(boxPayload(sharedMovie("--qmkn " + order + " --projection 7 --stabilization 13"),
                               "moov.udta.QMKN", b));
        return b;
    };
    auto read = [](const Bytes& bytes) {
        ExifParser parser;
        parser.attachQMKN(bytes.data(), bytes.size());
        ExifParser::ORVEX r;
        parser.readOREVX(r);
        return r;
    };
    Bytes le = note("tiff-le");
    ExifParser::ORVEX big = read(note("tiff")), little;
    ASSERT_NO_THROW(little = read(le));
    EXPECT_EQ(little.model, "NARVI ORVEX C1\0"s);
    EXPECT_EQ(little.projectionType, 7u);
    EXPECT_EQ(little.videoStabilization, 13);
    EXPECT_TRUE(little.yawLockDir);
    EXPECT_EQ(little.stitchingFishImgCenter[0], 1920u);
    EXPECT_EQ(little.stitchingFishImgCenter[1], 1440u);
    for (const auto& r : {big, little}) // 1.5 and -2.25 degrees; 123.4 degrees
        EXPECT_EQ(std::make_tuple(r.zenith[0], r.zenith[1], r.compass), std::make_tuple(1.5f, -2.25f, 123.4f));
    EXPECT_EQ(std::make_tuple(little.makerText2, little.makerText5, little.orvexValue2, little.orvexValue5,
                              little.sphereAdjZenith, little.adjRollingShutter, little.makerValue1000,
                              little.orvexValue203, little.stitchingFishMovCenter[0], little.stitchingFishMovCenter[1],
                              little.stitchingSamplingRate, little.heading),
              std::make_tuple(big.makerText2, big.makerText5, big.orvexValue2, big.orvexValue5, big.sphereAdjZenith,
                              big.adjRollingShutter, big.makerValue1000, big.orvexValue203,
                              big.stitchingFishMovCenter[0], big.stitchingFishMovCenter[1],
                              big.stitchingSamplingRate, big.heading));

    int32_t rollingShutter = 1, zenith = 0; // 0 raised to 1; a stored 1 kept
    ASSERT_TRUE(ExifParser::updateProjectionType(le.data(), le.size(), 1));
    ASSERT_TRUE(ExifParser::updateAdjRollingShutter(le.data(), le.size(), rollingShutter));
    ASSERT_TRUE(ExifParser::updateSphereAdjZenith(le.data(), le.size(), zenith));
    ASSERT_TRUE(ExifParser::updateVideoStabilization(le.data(), le.size(), 12));
    const ExifParser::ORVEX updated = read(le);
    EXPECT_EQ(updated.projectionType, 1u);
    EXPECT_EQ(updated.adjRollingShutter, 1);
    EXPECT_EQ(updated.sphereAdjZenith, 1);
    EXPECT_EQ(updated.videoStabilization, 12);
}
