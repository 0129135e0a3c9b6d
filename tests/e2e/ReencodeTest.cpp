// The re-encode end to end: the real Resize program on synthetic camera
// movies, its output checked with tools we did not write (ffprobe, ffmpeg,
// exiftool, the independent MP4 checker).
#include "Movies.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <regex>
#include <sstream>
#include <unistd.h>

using namespace testsupport;

namespace {

const std::string kReencodeSpatial = "uuid=28f311e2b7914f6f94e24f5deacb3c01";
const std::string kReencodeXmp = "uuid=be7acfcb97a942e89c71999491e3afac";
const std::string kReencodeAxis = "uuid=8e4e1f9781f34d5997b5ff05a27cdb7b";

// Newer camera, 30 fps, sensor records in big-endian order, a maker note
// that does not say equirectangular.
const std::string kReencodeNewer30 = "--duration 4 --sensor-endian big --projection 2";
// Newer camera at 25 fps (sensor records at 15 a second), low-rate audio,
// long enough for the encoder's rate control to settle.
const std::string kReencodeNewer25 = "--fps 25 --duration 8 --audio-rate 22050";
// Older camera with an HEVC source.
const std::string kReencodeOlder = "--model older --codec h265 --duration 3";

struct ReencodeRun {
    int status = -1;
    std::string out; // standard output: the console lines
    std::string err; // standard error: the platform log
};

ReencodeRun reencodeResize(const TempDir& dir, const std::string& args)
{
    fs::path err = dir / "stderr.txt";
    ReencodeRun r;
    r.status = run(q(binaryDir() / "bin" / "Resize") + " " + args + " 2>" + q(err), &r.out);
    std::vector<uint8_t> e = readFile(err);
    r.err.assign(e.begin(), e.end());
    return r;
}

// What a run printed, progress lines left out, for failure messages.
std::string reencodeLog(const ReencodeRun& r)
{
    std::string text = r.out + r.err, kept, line;
    std::replace(text.begin(), text.end(), '\r', '\n');
    std::istringstream lines(text);
    while (std::getline(lines, line))
        if (line.rfind("processing frame", 0) != 0 && line.rfind("processing audio", 0) != 0)
            kept += line + "\n";
    return kept;
}

// key=value lines of ffprobe for one stream ("v:0", "a:0") or, with an empty
// stream, for the container.
std::map<std::string, std::string> reencodeProbe(const fs::path& file, const std::string& stream,
                                                 const std::string& entries)
{
    std::string text;
    std::string select = stream.empty() ? "" : " -select_streams " + stream;
    run("ffprobe -v error" + select + " -show_entries " + entries + " -of default=nw=1 " + q(file), &text);
    std::map<std::string, std::string> values;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        size_t eq = line.find('=');
        if (eq != std::string::npos && values.count(line.substr(0, eq)) == 0)
            values[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return values;
}

double reencodeNumber(const std::map<std::string, std::string>& values, const std::string& key)
{
    auto it = values.find(key);
    return it == values.end() ? NAN : std::strtod(it->second.c_str(), nullptr);
}

// Positions of the key frames among the video packets, in decode order.
std::vector<int> reencodeKeyFrames(const fs::path& file)
{
    std::string text;
    run("ffprobe -v error -select_streams v:0 -show_entries packet=flags -of csv=p=0 " + q(file), &text);
    std::vector<int> keys;
    std::istringstream lines(text);
    std::string line;
    for (int i = 0; std::getline(lines, line); ++i)
        if (!line.empty() && line[0] == 'K')
            keys.push_back(i);
    return keys;
}

// The progress lines of the re-encode: every one must stand in its exact
// format and end with a carriage return.
struct ReencodeProgress {
    std::vector<int> frames;
    std::vector<double> frameTimes;
    std::vector<double> audioTimes;
    std::vector<std::string> totals;
    std::vector<std::string> malformed;
};

ReencodeProgress reencodeProgress(const std::string& text)
{
    static const std::regex frame(R"(processing frame ([ 0-9]{6}) ([0-9]+\.[0-9]{2})/([0-9]+\.[0-9]{2}))");
    static const std::regex audio(R"(processing audio ------ ([0-9]+\.[0-9]{2})/([0-9]+\.[0-9]{2}))");
    ReencodeProgress p;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find_first_of("\r\n", pos);
        if (end == std::string::npos)
            end = text.size();
        std::string segment = text.substr(pos, end - pos);
        bool carriageReturn = end < text.size() && text[end] == '\r';
        std::smatch m;
        if (segment.rfind("processing frame", 0) == 0) {
            if (carriageReturn && std::regex_match(segment, m, frame)) {
                p.frames.push_back(std::atoi(m[1].str().c_str()));
                p.frameTimes.push_back(std::strtod(m[2].str().c_str(), nullptr));
                p.totals.push_back(m[3].str());
            } else {
                p.malformed.push_back(segment);
            }
        } else if (segment.rfind("processing audio", 0) == 0) {
            if (carriageReturn && std::regex_match(segment, m, audio)) {
                p.audioTimes.push_back(std::strtod(m[1].str().c_str(), nullptr));
                p.totals.push_back(m[2].str());
            } else {
                p.malformed.push_back(segment);
            }
        }
        pos = end + 1;
    }
    return p;
}

// The records of a sensor-stream box as the checker reads them.
struct ReencodeSensor {
    long size = -1;
    long count = -1;
    std::vector<long> tags;
};

ReencodeSensor reencodeSensor(const fs::path& file, const std::string& kind)
{
    std::string text;
    ReencodeSensor s;
    if (mp4check("sensor " + q(file) + " " + kind, &text) != 0) {
        ADD_FAILURE() << kind << ": " << text;
        return s;
    }
    static const std::regex header(R"(type=\w+ size=(\d+) count=(\d+) .*)");
    static const std::regex tag(R"(\d+ .* tag=(\d+) .*)");
    std::istringstream lines(text);
    std::string line;
    std::smatch m;
    while (std::getline(lines, line)) {
        if (std::regex_match(line, m, header)) {
            s.size = std::stol(m[1].str());
            s.count = std::stol(m[2].str());
        } else if (std::regex_match(line, m, tag)) {
            s.tags.push_back(std::stol(m[1].str()));
        }
    }
    return s;
}

// A sensor box cut to count records from first on: the records are the
// source's records first.. (each carries its index as its tag), the box
// keeps its size and the bytes after the kept records are zero.
void expectSensorCut(const fs::path& source, const fs::path& output, const std::string& kind, unsigned unit,
                     long first, long count)
{
    SCOPED_TRACE(kind);
    ReencodeSensor before = reencodeSensor(source, kind);
    ReencodeSensor after = reencodeSensor(output, kind);
    EXPECT_EQ(after.size, before.size);
    ASSERT_EQ(after.count, count);
    ASSERT_EQ(after.tags.size(), size_t(count));
    for (long i = 0; i < count; ++i)
        ASSERT_EQ(after.tags[i], first + i) << "record " << i;
    std::vector<uint8_t> payload;
    ASSERT_TRUE(boxPayload(output, "moov.udta." + kind, payload));
    size_t used = 16 + size_t(count) * unit;
    ASSERT_LE(used, payload.size());
    for (size_t i = used; i < payload.size(); ++i)
        ASSERT_EQ(payload[i], 0) << "byte " << i << " after the kept records";
}

uint32_t reencodeBe32(const std::vector<uint8_t>& b, size_t at)
{
    return at + 4 <= b.size() ? uint32_t(b[at]) << 24 | uint32_t(b[at + 1]) << 16 | uint32_t(b[at + 2]) << 8 | b[at + 3]
                              : 0xFFFFFFFFu;
}

// The spatial-data box holds exactly the samples of [first, first + count)
// (the synthetic samples carry their index in their first two channels) and
// its track tables describe exactly those samples.
void expectSpatialCut(const fs::path& output, uint32_t first, uint32_t count)
{
    std::vector<uint8_t> qadt, stsz, mdhd, stts;
    ASSERT_TRUE(boxPayload(output, kReencodeSpatial + ".QADT", qadt));
    ASSERT_EQ(qadt.size(), size_t(count) * 8);
    auto index = [&](size_t sample) {
        const uint8_t* s = qadt.data() + sample * 8;
        return uint32_t(s[0] | s[1] << 8) | uint32_t(s[2] | s[3] << 8) << 16;
    };
    EXPECT_EQ(index(0), first);
    EXPECT_EQ(index(count / 2), first + count / 2);
    EXPECT_EQ(index(count - 1), first + count - 1);

    const std::string stbl = kReencodeSpatial + ".QATR.mdia.minf.stbl.";
    ASSERT_TRUE(boxPayload(output, stbl + "stsz", stsz));
    EXPECT_EQ(reencodeBe32(stsz, 4), 8u);     // sample size
    EXPECT_EQ(reencodeBe32(stsz, 8), count);  // sample count
    ASSERT_TRUE(boxPayload(output, stbl + "stts", stts));
    EXPECT_EQ(reencodeBe32(stts, 4), 1u);
    EXPECT_EQ(reencodeBe32(stts, 8), count);
    EXPECT_EQ(reencodeBe32(stts, 12), 1u);
    ASSERT_TRUE(boxPayload(output, kReencodeSpatial + ".QATR.mdia.mdhd", mdhd));
    ASSERT_EQ(mdhd[0], 0); // version 0: the duration follows the time scale
    EXPECT_EQ(reencodeBe32(mdhd, 12), 48000u);
    EXPECT_EQ(reencodeBe32(mdhd, 16), count);
}

// What every re-encoded output must pass whatever was asked: decoding
// without a word, consistent boxes and chunk offsets, the Spherical Video
// mapping, a new XMP packet that says the video was re-encoded, and the
// position.
void expectCameraMovie(const fs::path& output)
{
    std::string why;
    EXPECT_TRUE(decodesCleanly(output, &why)) << why;
    EXPECT_TRUE(nestingOk(output, &why)) << why;
    EXPECT_TRUE(offsetsOk(output, &why)) << why;

    auto side = reencodeProbe(output, "v:0", "stream_side_data=side_data_type,projection");
    EXPECT_EQ(side["side_data_type"], "Spherical Mapping");
    EXPECT_EQ(side["projection"], "equirectangular");

    std::string xmp;
    run("exiftool -s -XMP:VideoReEncorded -XMP:GPSLatitude " + q(output), &xmp);
    EXPECT_NE(xmp.find("VideoReEncorded                 : true"), std::string::npos) << xmp;
    EXPECT_NE(xmp.find("GPSLatitude                     : 35 deg 39'"), std::string::npos) << xmp;
    std::vector<uint8_t> packet;
    ASSERT_TRUE(boxPayload(output, kReencodeXmp, packet));
    EXPECT_NE(std::string(packet.begin(), packet.end())
                  .find("<x:CreatorTool>NARVI ORVEX::Resize.osx 2.8.3.2019.07.25</x:CreatorTool>"),
              std::string::npos);

    std::string location;
    run("exiftool -s -UserData:GPSCoordinates -UserData:LocationInformation " + q(output), &location);
    EXPECT_NE(location.find("GPSCoordinates                  : 35 deg 39' 30.96\" N, 139 deg 44' 43.44\" E"),
              std::string::npos)
        << location;
    EXPECT_NE(location.find("Lat=35.65860 Lon=139.74541"), std::string::npos) << location;
}

// An H.264 output is Constrained Baseline in full range: the avcC's own
// profile byte and the sequence parameter set it carries both have
// constraint_set1, and the parameter set's video signal says full range.
void expectAvcFlags(const fs::path& output)
{
    auto v = reencodeProbe(output, "v:0", "stream=codec_name,profile,color_range");
    EXPECT_EQ(v["codec_name"], "h264");
    EXPECT_EQ(v["profile"], "Constrained Baseline");
    EXPECT_EQ(v["color_range"], "pc");

    std::vector<uint8_t> avcC;
    ASSERT_TRUE(boxPayload(output, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC", avcC));
    ASSERT_GE(avcC.size(), 11u);
    EXPECT_EQ(avcC[1], 66);        // profile: baseline
    EXPECT_TRUE(avcC[2] & 0x40);   // constraint_set1 in the record
    EXPECT_EQ(avcC[8] & 0x1F, 7);  // the first parameter set is an SPS
    EXPECT_TRUE(avcC[10] & 0x40);  // constraint_set1 in the SPS

    std::string trace;
    run("ffmpeg -nostdin -hide_banner -i " + q(output) +
            " -map 0:v -c copy -bsf:v trace_headers -frames:v 1 -f null - 2>&1 | grep -E "
            "'constraint_set1_flag|video_full_range_flag'",
        &trace);
    EXPECT_TRUE(std::regex_search(trace, std::regex(R"(constraint_set1_flag +1 = 1)"))) << trace;
    EXPECT_TRUE(std::regex_search(trace, std::regex(R"(video_full_range_flag +1 = 1)"))) << trace;
}

// The progress lines: one per frame written, numbered from 0, at increasing
// times from the cut's start; audio lines inside the cut; every total the
// source's whole duration.
void expectProgress(const std::string& out, size_t frames, double start, double end, const std::string& total)
{
    ReencodeProgress p = reencodeProgress(out);
    EXPECT_TRUE(p.malformed.empty()) << "first malformed line: " << (p.malformed.empty() ? "" : p.malformed[0]);
    ASSERT_EQ(p.frames.size(), frames);
    for (size_t i = 0; i < p.frames.size(); ++i)
        ASSERT_EQ(p.frames[i], int(i));
    ASSERT_FALSE(p.frameTimes.empty());
    EXPECT_NEAR(p.frameTimes.front(), start, 0.005);
    EXPECT_LT(p.frameTimes.back(), end);
    for (size_t i = 1; i < p.frameTimes.size(); ++i)
        ASSERT_GE(p.frameTimes[i], p.frameTimes[i - 1]);
    EXPECT_FALSE(p.audioTimes.empty());
    for (double t : p.audioTimes) {
        EXPECT_GE(t, start - 0.005);
        EXPECT_LT(t, end);
    }
    for (const std::string& t : p.totals)
        ASSERT_EQ(t, total);
}

// ---------------------------------------------------------------- tests

TEST(ReencodeNewerCamera, HevcCutHasItsSizeKeyFramesAudioAndTrimmedCameraData)
{
    TempDir dir;
    fs::path source = sharedMovie(kReencodeNewer30);
    fs::path output = dir / "out.mp4";
    ReencodeRun r = reencodeResize(dir, "-vw:640 -ki:15 -ab:64000 -ss:1 -to:3 -h265 " + q(source) + " " + q(output));
    ASSERT_EQ(r.status, 0) << reencodeLog(r);

    auto v = reencodeProbe(output, "v:0", "stream=codec_name,codec_tag_string,width,height,nb_frames,duration");
    EXPECT_EQ(v["codec_name"], "hevc");
    EXPECT_EQ(v["codec_tag_string"], "hvc1");
    EXPECT_EQ(v["width"], "640");
    EXPECT_EQ(v["height"], "320");
    EXPECT_NEAR(reencodeNumber(v, "duration"), 2.0, 0.04);
    EXPECT_EQ(reencodeKeyFrames(output), (std::vector<int>{0, 15, 30, 45}));
    auto a = reencodeProbe(output, "a:0", "stream=sample_rate,bit_rate");
    EXPECT_EQ(a["sample_rate"], "48000");
    EXPECT_NEAR(reencodeNumber(a, "bit_rate"), 64000, 64000 * 0.15);
    EXPECT_NEAR(reencodeNumber(reencodeProbe(output, "", "format=duration"), "duration"), 2.0, 0.05);

    // Frames written = frames in the output = 2 s at 30 fps.
    EXPECT_EQ(v["nb_frames"], "60");
    expectProgress(r.out, 60, 1.0, 3.0, "4.00");
    EXPECT_NE(r.out.find("audio sampleRate: in: 48.000, out: 48.000/48.000\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("processing " + source.string() + " to " + output.string() + " ...\n"), std::string::npos);

    // Sensor records from 1 s × 30 on, one per frame written; the spatial
    // audio from 1 s to 3 s.
    expectSensorCut(source, output, "QDTD", 16, 30, 60);
    expectSensorCut(source, output, "QDTC", 24, 30, 60);
    expectSpatialCut(output, 48000, 96000);

    expectCameraMovie(output);
    // The maker note says equirectangular now; the rest of it is the source's.
    std::string orvex;
    ASSERT_EQ(mp4check("orvex " + q(output), &orvex), 0) << orvex;
    EXPECT_NE(orvex.find("orvex.0x0001=1\n"), std::string::npos) << orvex;
    EXPECT_NE(orvex.find("orvex.0x0004=1234/10\n"), std::string::npos) << orvex;
    // The maker thumbnail is a new JPEG of the output, in a box of the old size.
    std::vector<uint8_t> before, thumb;
    ASSERT_TRUE(boxPayload(source, "moov.udta.QTHU", before));
    ASSERT_TRUE(boxPayload(output, "moov.udta.QTHU", thumb));
    ASSERT_EQ(thumb.size(), before.size());
    ASSERT_GE(thumb.size(), 4u);
    EXPECT_EQ(thumb[0], 0xFF);
    EXPECT_EQ(thumb[1], 0xD8);
    EXPECT_NE(thumb, before);
    writeFile(dir / "thumb.jpg", thumb);
    auto j = reencodeProbe(dir / "thumb.jpg", "v:0", "stream=width,height");
    EXPECT_EQ(j["width"], "640");
    EXPECT_EQ(j["height"], "320");
}

TEST(ReencodeNewerCamera, H264AtLowRateKeepsBitRateResamplesAudioAndTrimsAt15PerSecond)
{
    TempDir dir;
    fs::path source = sharedMovie(kReencodeNewer25);
    fs::path output = dir / "out.mp4";
    ReencodeRun r = reencodeResize(dir, "-vw:640 -vb:1000000 -ki:25 -ss:2 -to:20 -h264 " + q(source) + " " + q(output));
    ASSERT_EQ(r.status, 0) << reencodeLog(r);

    auto v = reencodeProbe(output, "v:0", "stream=width,height,nb_frames,bit_rate,duration");
    EXPECT_EQ(v["width"], "640");
    EXPECT_EQ(v["height"], "320");
    EXPECT_NEAR(reencodeNumber(v, "bit_rate"), 1000000, 150000);
    EXPECT_NEAR(reencodeNumber(v, "duration"), 6.0, 0.05);
    EXPECT_EQ(reencodeKeyFrames(output), (std::vector<int>{0, 25, 50, 75, 100, 125}));
    auto a = reencodeProbe(output, "a:0", "stream=sample_rate,bit_rate");
    EXPECT_EQ(a["sample_rate"], "44100");
    EXPECT_NEAR(reencodeNumber(a, "bit_rate"), 128000, 128000 * 0.15);
    expectAvcFlags(output);

    EXPECT_EQ(v["nb_frames"], "150");
    expectProgress(r.out, 150, 2.0, 8.0, "8.00");
    EXPECT_NE(r.out.find("audio sampleRate: in: 22.050, out: 44.100/44.100\n"), std::string::npos) << r.out;

    // Below 29 fps the camera records 15 sensor entries a second: the cut
    // starts at 2 s × 15 and keeps the 6 s written, 90 entries.
    expectSensorCut(source, output, "QDTD", 16, 30, 90);
    expectSensorCut(source, output, "QDTC", 24, 30, 90);
    // An end beyond the source is the source's end, for the video and for
    // the spatial audio alike: it runs from 2 s to the end of its data.
    expectSpatialCut(output, 96000, 6 * 48000);
    expectCameraMovie(output);
}

TEST(ReencodeOlderCamera, HevcSourceToH264KeepsSizeAndTrimsAxisStream)
{
    TempDir dir;
    fs::path source = sharedMovie(kReencodeOlder);
    fs::path output = dir / "out.mp4";
    ReencodeRun r = reencodeResize(dir, "-h264 -ss:1 -to:2 " + q(source) + " " + q(output));
    ASSERT_EQ(r.status, 0) << reencodeLog(r);
    EXPECT_NE(r.out.find("key-frame interval: 30\n"), std::string::npos) << r.out;

    auto v = reencodeProbe(output, "v:0", "stream=width,height,nb_frames,duration");
    EXPECT_EQ(v["width"], "960"); // no -vw: the source's size
    EXPECT_EQ(v["height"], "480");
    EXPECT_NEAR(reencodeNumber(v, "duration"), 1.0, 0.04);
    EXPECT_EQ(v["nb_frames"], "30");
    expectProgress(r.out, 30, 1.0, 2.0, "3.00");
    expectAvcFlags(output);
    expectCameraMovie(output);

    // Older cameras keep the movie box first.
    std::string tree = boxTree(output);
    EXPECT_LT(tree.find("\nmoov @"), tree.find("\nmdat @")) << tree;

    // The axis-tilt stream is cut like the sensor streams: 30 records from
    // record 30 on.
    std::vector<uint8_t> axis;
    ASSERT_TRUE(boxPayload(output, kReencodeAxis, axis));
    ASSERT_GE(axis.size(), 16u);
    uint32_t count = uint32_t(axis[0]) | uint32_t(axis[1]) << 8 | uint32_t(axis[2]) << 16 | uint32_t(axis[3]) << 24;
    ASSERT_EQ(count, 30u);
    ASSERT_GE(axis.size(), 16u + 30 * 16);
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* rec = axis.data() + 16 + i * 16;
        ASSERT_EQ(uint32_t(rec[6] | rec[7] << 8), 30 + i) << "record " << i;
    }
}

// A failed re-encode names the two paths, shows the usage text, ends with
// status 1 and leaves no output behind, whether the source could not be
// opened at all or broke down half-way through, after the output was begun.
TEST(ReencodeFailure, UndecodableSourceLeavesNoOutput)
{
    TempDir dir;
    fs::path junk = dir / "junk.mp4";
    writeFile(junk, std::vector<uint8_t>(4096, 0x5A));

    fs::path broken = copyMovie(kReencodeNewer30, dir / "broken.mp4");
    std::vector<uint8_t> bytes = readFile(broken);
    // The mdat of the synthetic newer-camera movie starts at byte 40; zero
    // the second half of its payload.
    ASSERT_EQ(std::string(bytes.begin() + 44, bytes.begin() + 48), "mdat");
    size_t mdatEnd = 40 + reencodeBe32(bytes, 40);
    ASSERT_LE(mdatEnd, bytes.size());
    std::fill(bytes.begin() + 48 + (mdatEnd - 48) / 2, bytes.begin() + mdatEnd, 0);
    writeFile(broken, bytes);

    for (const fs::path& source : {junk, broken}) {
        SCOPED_TRACE(source.filename().string());
        fs::path output = dir / "out.mp4";
        ReencodeRun r = reencodeResize(dir, "-vw:640 " + q(source) + " " + q(output));
        EXPECT_EQ(r.status, 1) << r.out;
        EXPECT_NE(r.out.find("process(" + source.string() + ", " + output.string() + ") failed.\n"),
                  std::string::npos)
            << r.out;
        EXPECT_NE(r.out.find("usage: Resize.osx [options] [source.mp4] [output.mp4]"), std::string::npos) << r.out;
        EXPECT_FALSE(fs::exists(output));
    }
}

// The output naming the source itself, by the same path, by another
// spelling of it or through a hard link, is refused before anything is
// written or removed.
TEST(ReencodeFailure, OutputThatIsTheSourceIsRefused)
{
    TempDir dir;
    fs::path source = copyMovie(kReencodeNewer30, dir / "m.mp4");
    fs::path link = dir / "link.mp4";
    fs::create_hard_link(source, link);
    std::vector<uint8_t> original = readFile(source);

    const fs::path outputs[] = {source, dir / "." / "m.mp4", link};
    for (const fs::path& output : outputs) {
        for (const char* options : {"-vw:640 -ss:1", ""}) {
            SCOPED_TRACE(output.string() + " " + options);
            ReencodeRun r = reencodeResize(dir, std::string(options) + " " + q(source) + " " + q(output));
            EXPECT_EQ(r.status, 1) << r.out;
            EXPECT_NE(r.out.find("is the source movie itself"), std::string::npos) << r.out;
            EXPECT_EQ(r.out.find("processing"), std::string::npos) << r.out;
            ASSERT_TRUE(fs::exists(source));
            ASSERT_TRUE(fs::exists(link));
            EXPECT_EQ(fs::hard_link_count(source), 2u);
            ASSERT_TRUE(readFile(source) == original);
        }
    }
}

} // namespace
