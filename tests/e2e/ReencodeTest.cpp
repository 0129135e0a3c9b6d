// The re-encode end to end: the real Resize program on synthetic camera
// movies, its output checked with tools we did not write (ffprobe, ffmpeg,
// exiftool, the independent MP4 checker).
#include "Tools.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <regex>

using namespace testsupport;

namespace {

// Newer camera, 30 fps, sensor records in big-endian order that end at
// 80 of the 120 frames, a maker note that does not say equirectangular.
const std::string kNewer30 = "--duration 4 --sensor-endian big --sensor-records 80 --projection 2";

struct Reencode {
    TempDir dir;
    fs::path source, output = dir / "out.mp4";
    int status = -1;
    std::string out; // what the run printed
    Reencode(const std::string& recipe, const std::string& options) : source(sharedMovie(recipe))
    {
        status = run(resize() + " " + options + " " + q(source) + " " + q(output), &out);
    }
};

// The progress lines printed off a terminal, each in its exact format and
// ended by a newline (no carriage return anywhere): frames numbered from 0
// to the last one written, at increasing times from the cut's start; audio
// lines inside the cut; every total the source's whole duration. And few:
// the first and last of each kind and about one a second between.
void expectProgress(const std::string& out, size_t frames, double start, double end, const std::string& total)
{
    static const std::regex line(R"(processing (frame ([ 0-9]{6})|audio ------) ([0-9]+\.[0-9]{2})/([0-9]+\.[0-9]{2})\n)");
    static const std::regex any("processing (frame|audio)");
    std::vector<double> times;
    std::vector<unsigned long> numbers;
    long audio = 0;
    for (std::sregex_iterator it(out.begin(), out.end(), line), none; it != none; ++it) {
        const std::smatch& m = *it;
        EXPECT_TRUE(m[4] == total && std::stod(m[3]) >= start - 0.005 && std::stod(m[3]) < end) << m[0];
        if (!m[2].matched) {
            ++audio;
        } else {
            numbers.push_back(std::stoul(m[2]));
            times.push_back(std::stod(m[3]));
        }
    }
    ASSERT_FALSE(numbers.empty());
    EXPECT_EQ(numbers.front(), 0u);
    EXPECT_EQ(numbers.back(), frames - 1);
    EXPECT_TRUE(std::adjacent_find(numbers.begin(), numbers.end(), std::greater_equal<>()) == numbers.end());
    EXPECT_NEAR(times[0], start, 0.005);
    EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
    EXPECT_GT(audio, 0);
    EXPECT_EQ(out.find('\r'), std::string::npos);
    EXPECT_EQ(long(numbers.size()) + audio,
              std::distance(std::sregex_iterator(out.begin(), out.end(), any), std::sregex_iterator()))
        << "malformed progress lines";
    std::smatch took;
    ASSERT_TRUE(std::regex_search(out, took, std::regex(R"(\n([0-9.]+) \[sec\]\n$)"))) << out;
    const double seconds = std::stod(took[1]);
    EXPECT_LE(double(numbers.size()), seconds + 3) << out;
    EXPECT_LE(double(audio), seconds + 3) << out;
}

// A stream payload (16-byte header, then records) cut to count records from
// first on: each kept record is the source's (the synthetic records carry
// their index in a tag field) and any bytes behind them are zero.
void expectRecordsCut(const Bytes& after, size_t first, size_t count)
{
    ASSERT_GE(after.size(), 16u);
    const bool big = after[8] == 0x10; // the mark 0x3210, read little-endian
    auto number = [&](size_t at, int n) {
        uint64_t v = 0;
        for (int i = 0; i < n; ++i)
            v |= uint64_t(after.at(at + size_t(big ? n - 1 - i : i))) << 8 * i;
        return v;
    };
    const size_t unit = number(6, 2), tag = unit == 16 ? 6 : 12; // hhhH or fffI before the time
    ASSERT_EQ(number(0, 4), count);
    for (size_t i = 0; i < count; ++i)
        ASSERT_EQ(number(16 + i * unit + tag, unit == 16 ? 2 : 4), first + i) << "record " << i;
    EXPECT_EQ(slice(after, 16 + count * unit, after.size() - 16 - count * unit), Bytes(after.size() - 16 - count * unit, 0));
}
void expectSensorCut(const Reencode& r, size_t first, size_t count)
{
    for (const char* kind : {"QDTD", "QDTC"}) {
        SCOPED_TRACE(kind);
        Bytes after = payload(r.output, std::string("moov.udta.") + kind);
        EXPECT_EQ(after.size(), payload(r.source, std::string("moov.udta.") + kind).size()); // the box keeps its size
        expectRecordsCut(after, first, count);
    }
}

// The spatial-data box holds exactly the samples of [first, first + count)
// (the synthetic samples carry their index in their first two channels) and
// its track tables describe exactly those samples.
void expectSpatialCut(const fs::path& output, uint32_t first, uint32_t count)
{
    const std::string spatial = uuidSegment(kSpatialUUID);
    Bytes qadt = payload(output, spatial + ".QADT");
    ASSERT_EQ(qadt.size(), size_t(count) * 8);
    for (uint32_t i : {0u, count / 2, count - 1})
        EXPECT_EQ(uint32_t(qadt[8 * i] | qadt[8 * i + 1] << 8 | qadt[8 * i + 2] << 16 | qadt[8 * i + 3] << 24), first + i);
    auto words = [&](const std::string& path, size_t at, size_t n) {
        Bytes b = payload(output, spatial + ".QATR.mdia." + path);
        std::vector<uint32_t> v;
        for (size_t i = 0; i < n; ++i)
            v.push_back(get32(b, at + 4 * i));
        return v;
    };
    EXPECT_EQ(words("minf.stbl.stsz", 4, 2), (std::vector<uint32_t>{8, count}));
    EXPECT_EQ(words("minf.stbl.stts", 4, 3), (std::vector<uint32_t>{1, count, 1}));
    EXPECT_EQ(words("mdhd", 0, 1)[0] >> 24, 0u); // version 0: the duration follows the time scale
    EXPECT_EQ(words("mdhd", 12, 2), (std::vector<uint32_t>{48000, count}));
}

// What every re-encoded output must pass: decoding without a word,
// consistent boxes and chunk offsets, the Spherical Video mapping, a new XMP
// packet that says the video was re-encoded, and the position.
void expectCameraMovie(const fs::path& output)
{
    std::string why;
    EXPECT_TRUE(decodesCleanly(output, &why)) << why;
    EXPECT_TRUE(nestingOk(output, &why)) << why;
    EXPECT_TRUE(offsetsOk(output, &why)) << why;
    EXPECT_EQ(probe(output, "v:0", "stream_side_data=projection"), "equirectangular");
    expectSphericalV2(output);
    Exif tags = exif(output);
    EXPECT_EQ(tags["XMP:VideoReEncorded"], "true");
    EXPECT_NEAR(std::stod(tags["XMP-exif:GPSLatitude"]), 35.6586, 1e-3);
    EXPECT_NE(tags["UserData:GPSCoordinates"].find("35.6586 139.7454"), std::string::npos);
    EXPECT_NE(tags["UserData:LocationInformation"].find("Lat=35.65860 Lon=139.74541"), std::string::npos);
    EXPECT_NE(payloadText(output, uuidSegment(kXmpUUID))
                  .find("<x:CreatorTool>NARVI ORVEX::Resize.osx 2.8.3.2019.07.25</x:CreatorTool>"),
              std::string::npos);
}

// An H.264 output is Constrained Baseline in full range: the avcC's own
// profile byte and the sequence parameter set it carries both have
// constraint_set1, and the parameter set's video signal says full range, as
// ffmpeg's own header trace reads it.
void expectAvcFlags(const fs::path& output)
{
    EXPECT_EQ(probe(output, "v:0", "stream=codec_name,profile,color_range"), "h264\nConstrained Baseline\npc");
    Bytes avcC = payload(output, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC");
    ASSERT_GE(avcC.size(), 11u);
    EXPECT_EQ(avcC[1], 66);       // profile: baseline
    EXPECT_TRUE(avcC[2] & 0x40);  // constraint_set1 in the record
    EXPECT_EQ(avcC[8] & 0x1F, 7); // the first parameter set is an SPS
    EXPECT_TRUE(avcC[10] & 0x40); // constraint_set1 in the SPS
    std::string trace;
    run("ffmpeg -nostdin -hide_banner -i " + q(output) + " -map 0:v -c copy -bsf:v trace_headers -frames:v 1 -f null -",
        &trace);
    EXPECT_TRUE(std::regex_search(trace, std::regex(R"(constraint_set1_flag +1 = 1)"))) << trace;
    EXPECT_TRUE(std::regex_search(trace, std::regex(R"(video_full_range_flag +1 = 1)"))) << trace;
}

// The output's first frame holds the levels of the source's frame at the
// cut, reduced by ffmpeg to the output's size in full range: the 10th and
// 90th percentiles of each plane within 2 of ffmpeg's. A frame flagged full
// range that holds video-range values is 10 or more off.
void expectFullRangeLevels(const fs::path& output, const fs::path& source, int start)
{
    auto averages = [](const std::string& input, const std::string& scale) {
        std::string log;
        run("ffmpeg -nostdin -hide_banner " + input + " -vf " + scale +
                "signalstats,metadata=print:file=- -frames:v 1 -f null - 2>/dev/null",
            &log);
        std::vector<double> v;
        for (const char* key : {"YLOW=", "YHIGH=", "ULOW=", "UHIGH=", "VLOW=", "VHIGH="}) {
            const size_t at = log.find(std::string("signalstats.") + key);
            v.push_back(at == std::string::npos ? -1000 : std::stod(log.substr(at + 12 + std::strlen(key))));
        }
        return v;
    };
    const std::string size = probe(output, "v:0", "stream=width") + ":" + probe(output, "v:0", "stream=height");
    const std::vector<double> got = averages("-i " + q(output), "");
    const std::vector<double> want = averages("-ss " + std::to_string(start) + " -i " + q(source),
                                              "scale=" + size + ":out_range=pc,");
    for (size_t i = 0; i < want.size(); ++i)
        EXPECT_NEAR(got[i], want[i], 2.0) << "percentile " << i % 2 << " of plane " << i / 2;
}

TEST(ReencodeNewerCamera, HevcCutHasItsSizeKeyFramesAudioAndTrimmedCameraData)
{
    // A width is taken to the nearest multiple of 4.
    Reencode r(kNewer30, "-vw:641 -ki:15 -ab:64000 -ss:1 -to:3 -h265");
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("\noutput size: 640x320\n"), std::string::npos) << r.out;
    EXPECT_EQ(probe(r.output, "v:0", "stream=codec_name,codec_tag_string,width,height,nb_frames"), "hevc\nhvc1\n640\n320\n60");
    EXPECT_NEAR(std::stod(probe(r.output, "v:0", "stream=duration")), 2.0, 0.04);
    EXPECT_NEAR(std::stod(probe(r.output, "", "format=duration")), 2.0, 0.05);
    EXPECT_EQ(keyFrames(r.output), (std::vector<int>{0, 15, 30, 45}));
    EXPECT_EQ(probe(r.output, "a:0", "stream=sample_rate"), "48000");
    EXPECT_NEAR(std::stod(probe(r.output, "a:0", "stream=duration")), 2.0, 0.01); // cut with the video, to the sample
    EXPECT_NEAR(std::stod(probe(r.output, "a:0", "stream=bit_rate")), 64000, 64000 * 0.15);
    expectProgress(r.out, 60, 1.0, 3.0, "4.00");
    expectFullRangeLevels(r.output, r.source, 1);

    // Sensor records from 1 s x 30 on, one per frame written as far as
    // there are records (to 80); the spatial audio from 1 s to 3 s.
    expectSensorCut(r, 30, 50);
    expectSpatialCut(r.output, 48000, 96000);
    expectCameraMovie(r.output);
    // The maker note says equirectangular now; the rest of it is the source's.
    expectOnlyProjectionCorrected(r.source, r.output);
    // The maker thumbnail is a new JPEG of the output, in a box of the old size.
    expectMakerThumbnail(r.output, payload(r.source, "moov.udta.QTHU").size(), r.dir / "thumb.jpg");
    EXPECT_NE(payload(r.output, "moov.udta.QTHU"), payload(r.source, "moov.udta.QTHU"));
}

TEST(ReencodeNewerCamera, H264AtLowRateKeepsBitRateResamplesAudioAndTrimsAt15PerSecond)
{
    // 25 fps (sensor records at 15 a second), low-rate audio, long enough
    // for the encoder's rate control to settle; the end asked lies beyond
    // the source's.
    Reencode r("--fps 25 --duration 8 --audio-rate 22050", "-vw:639 -vb:1000000 -ki:25 -ss:2 -to:20 -h264");
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("\noutput size: 640x320\n"), std::string::npos) << r.out;
    EXPECT_EQ(probe(r.output, "v:0", "stream=width,height,nb_frames"), "640\n320\n150");
    EXPECT_NEAR(std::stod(probe(r.output, "v:0", "stream=bit_rate")), 1000000, 150000);
    EXPECT_NEAR(std::stod(probe(r.output, "v:0", "stream=duration")), 6.0, 0.05);
    EXPECT_EQ(keyFrames(r.output), (std::vector<int>{0, 25, 50, 75, 100, 125}));
    EXPECT_EQ(probe(r.output, "a:0", "stream=sample_rate"), "44100");
    EXPECT_NEAR(std::stod(probe(r.output, "a:0", "stream=bit_rate")), 128000, 128000 * 0.15);
    expectAvcFlags(r.output);
    expectFullRangeLevels(r.output, r.source, 2);
    expectProgress(r.out, 150, 2.0, 8.0, "8.00");
    // Below 29 fps the camera records 15 sensor entries a second: the cut
    // starts at 2 s x 15 and keeps the 6 s written; the spatial audio runs
    // from 2 s to the end of its data.
    expectSensorCut(r, 30, 90);
    expectSpatialCut(r.output, 96000, 6 * 48000);
    expectCameraMovie(r.output);
}

TEST(ReencodeOlderCamera, HevcSourceToH264KeepsSizeTheCamerasBoxesAndTrimsItsStreams)
{
    Reencode r("--model older --codec h265 --duration 3", "-h264 -ss:1 -to:2");
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("key-frame interval: 30\n"), std::string::npos) << r.out;
    EXPECT_EQ(probe(r.output, "v:0", "stream=width,height,nb_frames"), "960\n480\n30"); // no -vw: the source's size
    EXPECT_NEAR(std::stod(probe(r.output, "v:0", "stream=duration")), 1.0, 0.04);
    expectProgress(r.out, 30, 1.0, 2.0, "3.00");
    expectCameraMovie(r.output);
    EXPECT_EQ(topLevel(readFile(r.output)), "ftyp free moov free mdat uuid uuid"); // older cameras get moov first
    // The axis-tilt stream is cut like the sensor streams.
    expectRecordsCut(payload(r.output, uuidSegment(kAxisUUID)), 30, 30);

    // What the camera recorded comes along, as for the newer cameras: its
    // udta in its order (with the text position it lacked), the maker note
    // updated, QDTD and QDTC cut to the kept range and the other streams
    // whole, a maker thumbnail of the output, and the GPS meta box.
    std::string udta;
    for (const BoxAt& b : findAll(readFile(r.output), "moov.udta.*"))
        udta += b.type + " ";
    EXPECT_EQ(udta, "@mod QMKN QTHU QDTB QDTC QDTD QDTG QDTI @xyz loci \xA9xyz ");
    expectOnlyProjectionCorrected(r.source, r.output);
    expectSensorCut(r, 30, 30);
    for (const char* whole : {"moov.udta.@mod", "moov.udta.QDTB", "moov.udta.QDTG", "moov.udta.QDTI", "moov.meta"})
        EXPECT_EQ(payload(r.output, whole), payload(r.source, whole)) << whole;
    expectMakerThumbnail(r.output, payload(r.source, "moov.udta.QTHU").size(), r.dir / "thumb.jpg");
    std::string again;
    EXPECT_EQ(run(resize() + " " + q(r.output) + " " + q(r.dir / "again.mp4"), &again), 0) << again;
    EXPECT_NE(again.find("source movie model: NARVI ORVEX B1 (10001)\n"), std::string::npos) << again;
}

// A re-encode that breaks down half-way through, after the output was
// begun, names the two paths, shows the usage text, ends with status 1 and
// leaves no output behind.
TEST(ReencodeFailure, SourceThatBreaksDownLeavesNoOutput)
{
    TempDir dir;
    Bytes broken = readFile(sharedMovie(kNewer30));
    const BoxAt mdat = *findOne(broken, "mdat");
    std::fill(broken.begin() + long(mdat.body() + (mdat.size - 8) / 2), broken.begin() + long(mdat.end()), 0);
    writeFile(dir / "broken.mp4", broken);
    std::string out;
    EXPECT_EQ(run(resize() + " -vw:640 " + q(dir / "broken.mp4") + " " + q(dir / "out.mp4") + " 2>/dev/null", &out), 1);
    const std::string paths[] = {(dir / "broken.mp4").string(), (dir / "out.mp4").string()};
    EXPECT_TRUE(out.ends_with("process(" + paths[0] + ", " + paths[1] + ") failed.\n" + usage(paths[0], paths[1]))) << out;
    EXPECT_FALSE(fs::exists(dir / "out.mp4"));
}

} // namespace
