// The heading of the camera: its compass, or for a camera pointing more than
// 45 degrees up or down, the direction derived from roll and pitch.
#include "camera/ExifParser.h"

#include <cmath>
#include <gtest/gtest.h>

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
