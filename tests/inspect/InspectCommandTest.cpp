// The Inspect command on hand-made and synthetic camera movies and on files
// that are not movies: exit status and the lines a user reads.
#include "Movies.h"
#include "SensorBoxBytes.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

int inspect(const fs::path& file, std::string& out)
{
    return run(q(binaryDir() / "bin" / "Inspect") + " " + q(file), &out);
}

void expectLines(const std::string& out, std::initializer_list<std::string> lines)
{
    for (const std::string& line : lines)
        EXPECT_NE(out.find(line), std::string::npos) << line << " in\n" << out;
}

TEST(Inspect, HandMadeMoviesShowTheirBoxesPositionAndSensorStreams)
{
    TempDir dir;
    const Order B = Order::Big;
    writeFile(dir / "movie.mp4",
              movieWithUdta(cat({sensorBox("QDTD", 16, cat({gravityRecord(0, 0, -16384, 5000000, B),
                                                            gravityRecord(0, 0, -16384, 6000000, B)}), B, 30),
                                 sensorBox("QDTC", 24, cat({compassRecord(0, 1, 0, 100, B), compassRecord(0, 1, 0, 300, B)}),
                                           B, 7),
                                 box("@xyz", text("+35.6586+139.7454+040.000/"))})));
    std::string out;
    ASSERT_EQ(inspect(dir / "movie.mp4", out), 0) << out;
    expectLines(out, {"MP4: <'ftyp': start=0 bytes=24 >\n",
                      "MP4:     <'mvhd': start=32 bytes=108 timeStamp=0 timeScale=1000 duration=2000 >\n",
                      "QMKN not found.\n", "frame: no decodable video track\n", "latitude: 35.658600\n",
                      "longitude: 139.745400\n", "no Spherical Video XML.\n",
                      "QDTD: records=2 extra=30 order=big-endian t=5000000..6000000 span=1000000\n",
                      "QDTC: records=2 extra=7 order=big-endian t=100..300 span=200\n",
                      // Gravity along the camera's +y once its axes are exchanged: upside down.
                      "rev-up/down: [P]200000.000000, [N]:0.000000 -> Y\n", "samples: 2\n"});
    // A sensor box claiming more records than it holds is reported, the rest shown.
    writeFile(dir / "broken.mp4", movieWithUdta(sensorBox("QDTD", 16, 0x10000000, gravityRecord(1, 2, 3, 4))));
    ASSERT_EQ(inspect(dir / "broken.mp4", out), 0) << out;
    expectLines(out, {"QDTD: records=0 extra=0 order=little-endian\n", "QDTC/QDTD is not enough size.\n"});
}

TEST(Inspect, CameraMovieShowsMakerNoteViewAndEveryStream)
{
    std::string out;
    ASSERT_EQ(inspect(sharedMovie("--sph-heading 30 --sensor-endian big"), out), 0) << out;
    expectLines(out, {"source movie model: NARVI ORVEX C1 (20001)\n", "H.264 detected.\n", " profile_idc=",
                      "frame: 960x480 at 30.000 fps\n", "model: NARVI ORVEX C1\n", "software: 1.20.2\n",
                      "maker texts: [ORVEX-MN] [SN00112233]\n", "projectionType: 1\n",
                      "zenith: roll 1.500000, pitch -2.250000\n", "compass: 123.400002, heading: 123.400002\n",
                      "videoStabilization: 1 (yaw 1, lock direction 0, image stabilization 1)\n",
                      "stitching: image centre 1920,1440, movie centre 960,720, sampling rate 1.500000\n",
                      "heading: 30\n", "samples: 60\n"});
    for (const char* type : {"QDTB", "QDTC", "QDTD", "QDTG", "QDTI"})
        expectLines(out, {std::string(type) + ": records=60 extra=30 order=big-endian"});
}

TEST(Inspect, RefusesWhatIsNotAMovie)
{
    TempDir dir;
    writeFile(dir / "notes.txt", text("hello, this is not a movie at all\n"));
    writeFile(dir / "empty.mp4", {});
    writeFile(dir / "ftyp-only.mp4", box("ftyp", cat({text("isom"), Bytes{0, 0, 2, 0}, text("isom")})));
    const std::pair<fs::path, const char*> cases[] = {{dir / "missing.mp4", "missing.mp4: no such file.\n"},
                                                      {dir.path(), "is a directory, not a movie.\n"},
                                                      {dir / "notes.txt", "notes.txt: not an MP4 file.\n"},
                                                      {dir / "empty.mp4", "empty.mp4: not an MP4 file.\n"}};
    std::string out;
    for (const auto& [file, line] : cases) {
        EXPECT_EQ(inspect(file, out), 1) << file;
        expectLines(out, {line});
        EXPECT_EQ(out.find("== box tree =="), std::string::npos) << out;
    }
    EXPECT_EQ(run(q(binaryDir() / "bin" / "Inspect"), &out), 1);
    expectLines(out, {"usage: Inspect movie.mp4\n"});
    EXPECT_EQ(inspect(dir / "ftyp-only.mp4", out), 0) << out; // a movie, if an empty one
    expectLines(out, {"no sensor streams.\n"});
}

} // namespace
