// The Inspect command on small hand-made movies and on files that are not
// movies: exit status and the lines a user reads.
#include <gtest/gtest.h>

#include <string>

#include "Movies.h"
#include "SensorBoxBytes.h"
#include "TestSupport.h"

namespace {

using namespace testsupport;

int inspect(const fs::path& file, std::string& out)
{
    return run(q(binaryDir() / "bin" / "Inspect") + " " + q(file), &out);
}

bool has(const std::string& text, const std::string& line) { return text.find(line) != std::string::npos; }

TEST(Inspect, ShowsBoxesPositionAndSensorStreams)
{
    TempDir dir;
    Bytes gravity = cat({gravityRecord(0, 0, -16384, 5000000, Order::Big), gravityRecord(0, 0, -16384, 6000000, Order::Big)});
    Bytes compass = cat({compassRecord(0, 1, 0, 100, Order::Big), compassRecord(0, 1, 0, 200, Order::Big),
                         compassRecord(0, 1, 0, 300, Order::Big)});
    Bytes times = cat({timeRecord(1000000, Order::Big), timeRecord(1500000, Order::Big)});
    writeFile(dir / "movie.mp4", movieWithUdta(cat({sensorBox("QDTD", 16, gravity, Order::Big, 30),
                                                    sensorBox("QDTC", 24, compass, Order::Big, 7),
                                                    sensorBox("QDTG", 8, times, Order::Big),
                                                    box("@xyz", text("+35.6586+139.7454+040.000/"))})));
    std::string out;
    ASSERT_EQ(inspect(dir / "movie.mp4", out), 0) << out;
    EXPECT_TRUE(has(out, "MP4: <'ftyp': start=0 bytes=24 >\n")) << out;
    EXPECT_TRUE(has(out, "MP4:     <'mvhd': start=32 bytes=108 timeStamp=0 timeScale=1000 duration=2000 >\n")) << out;
    EXPECT_TRUE(has(out, "QMKN not found.\n")) << out;
    EXPECT_TRUE(has(out, "frame: no decodable video track\n")) << out;
    EXPECT_TRUE(has(out, "latitude: 35.658600\n")) << out;
    EXPECT_TRUE(has(out, "longitude: 139.745400\n")) << out;
    EXPECT_TRUE(has(out, "no Spherical Video XML.\n")) << out;
    EXPECT_TRUE(has(out, "QDTD: records=2 extra=30 order=big-endian t=5000000..6000000 span=1000000\n")) << out;
    EXPECT_TRUE(has(out, "QDTC: records=3 extra=7 order=big-endian t=100..300 span=200\n")) << out;
    EXPECT_TRUE(has(out, "QDTG: records=2 extra=0 order=big-endian t=1000000..1500000 span=500000\n")) << out;
    // The gravity points along the camera's +y once its axes are exchanged:
    // upside down.
    EXPECT_TRUE(has(out, "rev-up/down: [P]200000.000000, [N]:0.000000 -> Y\n")) << out;
    EXPECT_TRUE(has(out, "rev-front:   ")) << out;
    EXPECT_TRUE(has(out, "samples: 2\n")) << out;
}

TEST(Inspect, CameraMovieShowsMakerNoteViewAndEveryStream)
{
    std::string out;
    ASSERT_EQ(inspect(sharedMovie("--sph-heading 30 --sensor-endian big"), out), 0) << out;
    EXPECT_TRUE(has(out, "source movie model: NARVI ORVEX V (20001)\n")) << out;
    EXPECT_TRUE(has(out, "H.264 detected.\n")) << out;
    EXPECT_TRUE(has(out, "frame: 960x480 at 30.000 fps\n")) << out;
    EXPECT_TRUE(has(out, "model: NARVI ORVEX V\n")) << out;
    EXPECT_TRUE(has(out, "projectionType: 1\n")) << out;
    EXPECT_TRUE(has(out, "zenith: roll 1.500000, pitch -2.250000\n")) << out;
    EXPECT_TRUE(has(out, "heading: 30\n")) << out;
    EXPECT_TRUE(has(out, "codes=avc1")) << out;
    EXPECT_TRUE(has(out, " profile_idc=")) << out;
    for (const char* type : {"QDTB", "QDTC", "QDTD", "QDTG", "QDTI"})
        EXPECT_TRUE(has(out, std::string(type) + ": records=60 extra=30 order=big-endian")) << type << "\n" << out;
    EXPECT_TRUE(has(out, "samples: 60\n")) << out;
}

TEST(Inspect, BrokenSensorBoxIsReportedAndTheRestShown)
{
    TempDir dir;
    // A count far beyond what the box holds.
    writeFile(dir / "movie.mp4",
              movieWithUdta(sensorBox("QDTD", 16, 0x10000000, gravityRecord(1, 2, 3, 4), Order::Little)));
    std::string out;
    ASSERT_EQ(inspect(dir / "movie.mp4", out), 0) << out;
    EXPECT_TRUE(has(out, "QDTD: Not enough length. except less than 24+16*268435456(=24), but 40.\n")) << out;
    EXPECT_TRUE(has(out, "QDTD: records=0 extra=0 order=little-endian\n")) << out;
    EXPECT_TRUE(has(out, "QDTC/QDTD is not enough size.\n")) << out;
}

TEST(Inspect, MovieWithoutMoovButWithBoxesIsReadable)
{
    TempDir dir;
    writeFile(dir / "ftyp-only.mp4", box("ftyp", cat({text("isom"), Bytes{0, 0, 2, 0}, text("isom")})));
    std::string out;
    EXPECT_EQ(inspect(dir / "ftyp-only.mp4", out), 0) << out;
    EXPECT_TRUE(has(out, "no sensor streams.\n")) << out;
}

TEST(Inspect, RefusesWhatIsNotAMovie)
{
    TempDir dir;
    std::string out;
    EXPECT_EQ(inspect(dir / "missing.mp4", out), 1);
    EXPECT_TRUE(has(out, "missing.mp4: no such file.\n")) << out;

    EXPECT_EQ(inspect(dir.path(), out), 1);
    EXPECT_TRUE(has(out, "is a directory, not a movie.\n")) << out;

    writeFile(dir / "notes.txt", text("hello, this is not a movie at all\n"));
    EXPECT_EQ(inspect(dir / "notes.txt", out), 1);
    EXPECT_TRUE(has(out, "notes.txt: not an MP4 file.\n")) << out;
    EXPECT_FALSE(has(out, "== box tree ==")) << out;

    writeFile(dir / "empty.mp4", {});
    EXPECT_EQ(inspect(dir / "empty.mp4", out), 1);
    EXPECT_TRUE(has(out, "not an MP4 file.\n")) << out;

    EXPECT_EQ(run(q(binaryDir() / "bin" / "Inspect"), &out), 1);
    EXPECT_TRUE(has(out, "usage: Inspect movie.mp4\n")) << out;
}

} // namespace
