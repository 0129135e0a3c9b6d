// The Inspect command on hand-made and synthetic camera movies and on files
// that are not movies: exit status, the lines a user reads, and the JSON
// document read back by Python's own parser.
#include "BoxBytes.h"
#include "Movies.h"
#include "SensorBoxBytes.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace testsupport;

namespace {

std::string inspect() { return q(binaryDir() / "bin" / "Inspect"); }

// Inspect's status; out gets what it printed, or with a redirection such as
// "2>/dev/null" in `how`, what was left.
int inspect(const std::string& args, std::string& out, const std::string& how = "")
{
    // In a subshell, so that the redirection in `how` stands.
    std::string command = "(";
    command += inspect() + " " + args + " " + how + ")";
    return run(command, &out);
}

void expectLines(const std::string& out, std::initializer_list<std::string> lines)
{
    for (const std::string& line : lines)
        EXPECT_NE(out.find(line), std::string::npos) << line << " in\n" << out;
}

// Runs Inspect --json on the file, standard output alone into a file, and
// checks its status and, as Python reads the document, each path's value.
void expectJson(const fs::path& file, int status, const std::vector<std::pair<std::string, std::string>>& values)
{
    TempDir dir;
    std::string paths, got, want, out;
    EXPECT_EQ(inspect("--json " + q(file), out, "2>/dev/null >" + q(dir / "out.json")), status) << file;
    for (const auto& [path, value] : values) {
        paths += " " + path;
        want += path + " = " + value + "\n";
    }
    ASSERT_EQ(run("python3 " + q(sourceDir() / "tests/inspect/json_values.py") + paths + " <" + q(dir / "out.json"),
                  &out),
              0)
        << out;
    std::istringstream lines(out);
    for (const auto& [path, value] : values) {
        std::string line;
        std::getline(lines, line);
        got += path + " = " + line + "\n";
    }
    EXPECT_EQ(got, want) << file;
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
    ASSERT_EQ(inspect(q(dir / "movie.mp4"), out), 0) << out;
    expectLines(out, {"MP4: <'ftyp': start=0 bytes=24 >\n",
                      "MP4:     <'mvhd': start=32 bytes=108 timeStamp=0 timeScale=1000 duration=2000 >\n",
                      "QMKN not found.\n", "frame: no decodable video track\n", "latitude: 35.658600\n",
                      "longitude: 139.745400\n", "no Spherical Video XML.\n",
                      "QDTD: records=2 rate=30 order=big-endian t=5000000..6000000\n",
                      "QDTC: records=2 rate=7 order=big-endian t=100..300\n",
                      // Gravity along the camera's +y once its axes are exchanged: upside down.
                      "rev-up/down: [P]200000.000000, [N]:0.000000 -> Y\n", "samples: 2\n"});
    EXPECT_EQ(out.find("Inspect:"), std::string::npos) << out; // a whole movie: no warning

    // A sensor box claiming more records than it holds: a problem, said on
    // standard error, and the rest shown.
    writeFile(dir / "broken.mp4", movieWithUdta(sensorBox("QDTD", 16, 0x10000000, gravityRecord(1, 2, 3, 4))));
    ASSERT_EQ(inspect(q(dir / "broken.mp4"), out, "2>/dev/null"), 2) << out;
    expectLines(out, {"QDTD: records=268435456 rate=0 order=little-endian (unreadable)\n",
                      "QDTC/QDTD is not enough size.\n"});
    ASSERT_EQ(inspect(q(dir / "broken.mp4"), out, ">/dev/null"), 2);
    expectLines(out, {"Inspect: " + (dir / "broken.mp4").string() +
                      ": warning: moov.udta.QDTD: 268435456 records need 4294967312 bytes, the box holds 32\n"});
}

// A camera movie whose maker note is little-endian ("II"), with values
// that tell apart the bits of the stabilization mode.
const char* const kLittleEndianCamera =
    "--qmkn tiff-le --projection 0 --stabilization 13 --sph-heading 30 --sensor-endian big";

// A little-endian maker note is read in full: the probe's line and
// the maker-note section show the note's values, and nothing says it failed.
TEST(Inspect, LittleEndianCameraMovieShowsMakerNoteViewAndEveryStream)
{
    std::string out;
    ASSERT_EQ(inspect(q(sharedMovie(kLittleEndianCamera)), out), 0) << out;
    expectLines(out, {"source movie model: NARVI ORVEX C1 (20001)\n", "source movie panoramaImageType: 0\n",
                      "H.264 detected.\n", " profile_idc=", "frame: 960x480 at 30.000 fps\n",
                      "track 1: vide avc1 960x480 at 30.000 fps, 2.000 s, 60 samples", "byte order: little-endian\n",
                      "model: NARVI ORVEX C1\n", "software: 1.20.2\n", "maker texts: [ORVEX-MN] [SN00112233]\n",
                      "projectionType: 0\n", "zenith: roll 1.500000, pitch -2.250000\n",
                      "compass: 123.400002, heading: 123.400002\n", "sphereAdjZenith: 1\n",
                      "videoStabilization: 13 (yaw 1, lock direction 1, image stabilization 1)\n",
                      "stitching: image centre 1920,1440, movie centre 960,720, sampling rate 1.500000\n",
                      "heading: 30\n", "samples: 60\n", "data: 768000 bytes; pointer (QDT9): yes\n"});
    for (const char* type : {"QDTB", "QDTC", "QDTD", "QDTG", "QDTI"})
        expectLines(out, {std::string(type) + ": records=60 rate=30 order=big-endian"});
    for (const char* failure : {"EXIF can't read.", "parse failed", "Inspect:"})
        EXPECT_EQ(out.find(failure), std::string::npos) << failure << " in\n" << out;
}

// Scripts get one document on standard output, whatever the file: a whole
// movie (status 0), one cut short before its movie box (2, its problems
// listed, what there is still shown) and a file that is no movie (1).
TEST(Inspect, JsonDocumentForWholeCutAndNonMovies)
{
    const fs::path whole = sharedMovie(kLittleEndianCamera);
    expectJson(whole, 0,
               {{"status", "\"whole\""}, {"problems", "[]"},
                {"camera.model", "\"NARVI ORVEX C1\""}, {"camera.code", "\"0x20001\""},
                {"camera.generation", "\"newer\""},
                {"tracks.0.codec", "\"avc1\""}, {"tracks.0.width", "960"}, {"tracks.0.height", "480"},
                {"tracks.0.frameRate", "30.0"}, {"tracks.0.samples", "60"}, {"tracks.0.duration", "2.0"},
                {"tracks.1.handler", "\"soun\""}, {"tracks.1.frameRate", "null"},
                // The maker note's values as the fixture wrote them, little-endian.
                {"makerNote.state", "\"read\""}, {"makerNote.byteOrder", "\"little-endian\""},
                {"makerNote.model", "\"NARVI ORVEX C1\""}, {"makerNote.projectionType", "0"},
                {"makerNote.zenith", "{\"roll\": 1.5, \"pitch\": -2.25}"}, {"makerNote.compass", "123.4"},
                {"makerNote.heading", "123.4"}, {"makerNote.sphereAdjZenith", "1"},
                {"makerNote.adjRollingShutter", "0"},
                {"makerNote.videoStabilization",
                 "{\"value\": 13, \"yawCorrection\": true, \"lockedDirection\": true, \"imageStabilization\": true}"},
                {"makerNote.stitching.imageCentre", "[1920, 1440]"},
                {"gps.latitude", "35.6586"}, {"gps.longitude", "139.7454"}, {"gps.direction", "123.4"},
                {"spherical.v1.heading", "30.0"}, {"spherical.v1.pitch", "null"}, {"spherical.v2", "null"},
                {"sensorStreams.2.type", "\"QDTD\""}, {"sensorStreams.2.records", "60"},
                {"sensorStreams.2.rate", "30"}, {"sensorStreams.2.byteOrder", "\"big-endian\""},
                {"sensorStreams.2.firstTime", "4000000"}, {"sensorStreams.2.lastTime", "5966667"},
                {"spatialAudio.track.samples", "96000"}, {"spatialAudio.pointer", "true"},
                {"boxes.2.type", "\"mdat\""}, {"boxes.2.start", "40"}});

    TempDir dir;
    Bytes bytes = readFile(whole);
    bytes.resize(bytes.size() / 4); // inside the media data, before moov
    writeFile(dir / "cut.mp4", bytes);
    const std::string cutAt = std::to_string(bytes.size());
    expectJson(dir / "cut.mp4", 2,
               {{"status", "\"problems\""},
                {"problems.0", "\"no movie box (moov): the file ends at " + cutAt +
                                   " bytes without one, most likely cut short before the camera wrote it\""},
                {"problems.1", "\"mdat at 40 (464720 bytes) runs past the end of the file at " + cutAt + "\""},
                {"problems.2", "missing"}, {"camera.model", "null"}, {"makerNote.state", "\"missing\""},
                {"tracks", "[]"}, {"boxes.2.size", "464720"}});
    std::string out;
    EXPECT_EQ(inspect(q(dir / "cut.mp4"), out, ">/dev/null"), 2); // the text form warns alike
    expectLines(out, {"cut.mp4: warning: mdat at 40 (464720 bytes) runs past the end of the file"});

    writeFile(dir / "notes.txt", text("hello, this is not a movie at all\n"));
    expectJson(dir / "notes.txt", 1,
               {{"status", "\"not a movie\""}, {"error", "\"not an MP4 movie\""}, {"size", "34"},
                {"boxes", "missing"}});
    expectJson(dir / "missing.mp4", 1, {{"error", "\"No such file or directory\""}, {"size", "null"}});
}

TEST(Inspect, RefusesWhatIsNotAMovieOnStandardError)
{
    TempDir dir;
    writeFile(dir / "notes.txt", text("hello, this is not a movie at all\n"));
    writeFile(dir / "empty.mp4", {});
    writeFile(dir / "ftyp-only.mp4", box("ftyp", cat({text("isom"), Bytes{0, 0, 2, 0}, text("isom")})));
    const std::pair<fs::path, const char*> cases[] = {
        {dir / "missing.mp4", "missing.mp4: No such file or directory\n"},
        {dir.path(), ": Is a directory\n"},
        {dir / "notes.txt", "notes.txt: not an MP4 movie\n"},
        {dir / "empty.mp4", "empty.mp4: not an MP4 movie\n"}};
    std::string out;
    for (const auto& [file, line] : cases) {
        EXPECT_EQ(inspect(q(file), out, "2>&1 >/dev/null"), 1) << file;
        EXPECT_TRUE(out.starts_with("Inspect: ") && out.ends_with(line)) << out;
        EXPECT_EQ(inspect(q(file), out, "2>/dev/null"), 1);
        EXPECT_EQ(out, "");
    }
    // Boxes but no movie box: shown, with the problem.
    EXPECT_EQ(inspect(q(dir / "ftyp-only.mp4"), out), 2) << out;
    expectLines(out, {"no sensor streams.\n", "ftyp-only.mp4: warning: no movie box (moov)"});

    EXPECT_EQ(inspect("", out, "2>&1 >/dev/null"), 1);
    expectLines(out, {"Inspect: no file named\n", "Usage: Inspect [--json] FILE"});
    EXPECT_EQ(inspect("--xml movie.mp4", out, "2>&1 >/dev/null"), 1);
    expectLines(out, {"Inspect: unknown option --xml\n"});

    // The help as help2man reads it: a name line, a usage line, the options.
    for (const char* help : {"--help", "-h"}) {
        EXPECT_EQ(inspect(help, out, "2>/dev/null"), 0);
        EXPECT_TRUE(out.starts_with("Inspect - ")) << out;
        expectLines(out,
                    {"\nUsage: Inspect [--json] FILE\n", "\n  --json ", "\n  -h, --help ", "e.g. Inspect --json "});
    }
}

} // namespace
