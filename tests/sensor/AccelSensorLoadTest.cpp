// The accelerometer table built from a movie's gravity and compass boxes (a
// toolkit part that only the Inspect command uses): the gravity axes
// negated with y and z exchanged, each sample's heading from the compass,
// and QDTD resampled at the QDTG frame times.
#include "SensorBoxBytes.h"
#include "sensor/AccelSensorStreamEmbed.h"

#include <gtest/gtest.h>
#include <sstream>

using namespace testsupport;
using Embed = AccelSensorStreamEmbed;

TEST(SensorLoader, TableFromTheGravityCompassAndFrameTimeBoxes)
{
    // With a QDTI box QDTD is taken as it stands.
    const Bytes yaw = sensorBox("QDTI", 24, yawRecord(1, 0));
    UdtaMovie level(cat({yaw, sensorBox("QDTD", 16, cat({gravityRecord(0, 0, 16384, 0), gravityRecord(0, 0, 16384, 1),
                                                         gravityRecord(100, 200, 300, 2)})),
                         sensorBox("QDTC", 24, cat({compassRecord(0, 1, 0, 0), compassRecord(-1, 0, 0, 1),
                                                    compassRecord(0, 1, 0, 2)}))}));
    Embed e;
    printedBy([&] { ASSERT_TRUE(e.loadM29(level.c, 1)); });
    std::ostringstream table;
    for (const auto& s : e.getSamples())
        table << s.x << " " << s.y << " " << s.z << " " << s.orientation << "|";
    EXPECT_EQ(table.str().substr(0, table.str().rfind(' ')), "0 -16384 0 0|0 -16384 0 9000|-100 -300 -200");
    EXPECT_FALSE(e.isReversed()); // upside down shows in the Inspect test

    // QDTD at 5, 6, 7 and 8 s; the frame times of QDTG lie 4 s earlier on
    // that clock. Before the first record: the first; half way: turned 45
    // degrees towards the next; at an inner record: its direction at length
    // 16384; after the last: the last.
    UdtaMovie timed(cat({sensorBox("QDTD", 16, cat({gravityRecord(16384, 0, 0, 5000000), gravityRecord(0, 3000, 4000, 6000000),
                                                    gravityRecord(10000, 0, 0, 7000000), gravityRecord(20000, 0, 0, 8000000)})),
                         sensorBox("QDTG", 8, cat({timeRecord(0), timeRecord(1500000), timeRecord(2000000), timeRecord(5000000)}))}));
    std::vector<Embed::TopBottomCorrection> gravity;
    unsigned short extra = 0;
    printedBy([&] { e.loadM30_QDTD_with_QDTG(timed.c, gravity, extra); });
    std::ostringstream resampled;
    for (const auto& g : gravity)
        resampled << g.x << " " << g.y << " " << g.z << " " << g.t << "|";
    EXPECT_EQ(resampled.str(), "16384 0 0 4000000|11585 6951 9268 5500000|0 9830 13107 6000000|20000 0 0 8000000|");
}
