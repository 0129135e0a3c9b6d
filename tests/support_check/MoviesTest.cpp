// The synthetic camera movies and the MP4 checks that every other test
// relies on, verified with tools we did not write (ffmpeg, ffprobe,
// exiftool) and against deliberate damage.
#include "Movies.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace testsupport;

namespace {

const char* const kNewer = "--model newer";
const char* const kOlder = "--model older";
const char* const kOlderMoovFirst = "--model older --layout moov-first";
// Every layout option away from the default, on the same picture and sound.
const char* const kNewerVariant = "--model newer --layout moov-first --spatial after-moov --co64 --mdat-largesize "
                                  "--sensor-endian big --qmkn narvi --projection 0 --zenith 10,-60 --compass 90 "
                                  "--stabilization 13";

std::string probe(const fs::path& file, const std::string& entries)
{
    std::string out;
    run("ffprobe -v error -show_entries " + entries + " -of compact=p=0 " + q(file), &out);
    return out;
}

// Top-level box types in file order.
std::vector<std::string> topLevel(const fs::path& file)
{
    std::vector<std::string> types;
    std::string tree = boxTree(file);
    size_t pos = 0;
    while (pos < tree.size()) {
        size_t end = tree.find('\n', pos);
        if (end == std::string::npos)
            end = tree.size();
        std::string line = tree.substr(pos, end - pos);
        if (!line.empty() && line[0] != ' ') {
            std::string type = line.substr(0, 4);
            if (type == "uuid" && line.find("uuid=28f311e2") != std::string::npos)
                type = "spatial";
            types.push_back(type);
        }
        pos = end + 1;
    }
    return types;
}

uint64_t topLevelOffset(const fs::path& file, const std::string& type)
{
    std::string tree = boxTree(file);
    size_t at = tree.find("\n" + type + " @");
    if (tree.compare(0, type.size() + 2, type + " @") == 0)
        at = 0;
    else if (at != std::string::npos)
        at += 1;
    EXPECT_NE(at, std::string::npos) << tree;
    return at == std::string::npos ? 0 : std::stoull(tree.substr(at + type.size() + 2));
}

void expectSound(const fs::path& file)
{
    std::string why;
    EXPECT_TRUE(decodesCleanly(file, &why)) << why;
    EXPECT_TRUE(nestingOk(file, &why)) << why;
    EXPECT_TRUE(offsetsOk(file, &why)) << why;
}

std::string payloadText(const fs::path& file, const std::string& path)
{
    std::vector<uint8_t> bytes;
    EXPECT_TRUE(boxPayload(file, path, bytes)) << path;
    return std::string(bytes.begin(), bytes.end());
}

TEST(Movies, NewerCameraMovieHasTheCameraLayoutAndDecodes)
{
    fs::path movie = sharedMovie(kNewer);
    expectSound(movie);

    std::string streams = probe(movie, "stream=codec_name,codec_tag_string,width,height,sample_rate");
    EXPECT_NE(streams.find("codec_name=h264|codec_tag_string=avc1|width=960|height=480"), std::string::npos) << streams;
    EXPECT_NE(streams.find("codec_name=aac|codec_tag_string=mp4a|sample_rate=48000"), std::string::npos) << streams;
    EXPECT_NE(probe(movie, "stream_side_data=projection").find("equirectangular"), std::string::npos);

    std::vector<std::string> order = {"ftyp", "free", "mdat", "spatial", "moov", "uuid", "uuid"};
    EXPECT_EQ(topLevel(movie), order);
    EXPECT_EQ(payloadText(movie, "moov.udta.@mod"), "NARVI ORVEX V");
    EXPECT_EQ(payloadText(movie, "moov.udta.@xyz"), "+35.6586+139.7454+040.000/");
    EXPECT_EQ(payloadText(movie, "moov.udta.QTHU").size(), 65536u);
    EXPECT_EQ(payloadText(movie, "moov.udta.QTHU").substr(0, 3), "\xFF\xD8\xFF");
}

TEST(Movies, OlderCameraMovieInBothLayoutsKeepsItsSamples)
{
    fs::path mdatFirst = sharedMovie(kOlder);
    fs::path moovFirst = sharedMovie(kOlderMoovFirst);
    expectSound(mdatFirst);
    expectSound(moovFirst);

    std::vector<std::string> first = {"ftyp", "free", "mdat", "moov", "uuid", "uuid"};
    std::vector<std::string> second = {"ftyp", "moov", "mdat", "uuid", "uuid"};
    EXPECT_EQ(topLevel(mdatFirst), first);
    EXPECT_EQ(topLevel(moovFirst), second);
    EXPECT_EQ(payloadText(moovFirst, "moov.udta.@mod"), "NARVI ORVEX SC");

    std::string why;
    EXPECT_TRUE(samplesEqual(mdatFirst, moovFirst, &why)) << why;
    // Older cameras record no spatial data, so nothing may point at it.
    std::vector<uint8_t> none;
    EXPECT_FALSE(boxPayload(mdatFirst, "moov.udta.QDT9", none));
}

TEST(Movies, EveryLayoutOptionKeepsSamplesAndPointers)
{
    fs::path variant = sharedMovie(kNewerVariant);
    expectSound(variant);
    std::vector<std::string> order = {"ftyp", "moov", "spatial", "mdat", "uuid", "uuid"};
    EXPECT_EQ(topLevel(variant), order);
    EXPECT_NE(boxTree(variant).find("mdat @"), std::string::npos);
    EXPECT_NE(boxTree(variant).find(" largesize"), std::string::npos);
    EXPECT_EQ(boxTree(variant).find("stco"), std::string::npos);

    std::string why;
    EXPECT_TRUE(samplesEqual(sharedMovie(kNewer), variant, &why)) << why;
    EXPECT_NE(why.find("spatial track equal"), std::string::npos) << why;
}

TEST(Movies, SampleComparisonSeesOneChangedByte)
{
    TempDir dir;
    fs::path original = sharedMovie(kNewer);
    for (const char* where : {"mdat", "spatial"}) {
        fs::path copy = copyMovie(kNewer, dir / "changed.mp4");
        // A byte well inside the movie's media data or the spatial samples.
        uint64_t at = topLevelOffset(copy, where == std::string("mdat") ? "mdat" : "uuid") + 5000;
        std::vector<uint8_t> bytes = readFile(copy);
        ASSERT_LT(at, bytes.size());
        bytes[at] ^= 0x01;
        writeFile(copy, bytes);

        std::string why;
        EXPECT_FALSE(samplesEqual(original, copy, &why)) << where;
        EXPECT_NE(why.find("differs"), std::string::npos) << why;
        EXPECT_TRUE(nestingOk(copy, &why)) << why;
    }
}

TEST(Movies, DamagedStructureIsReported)
{
    TempDir dir;
    fs::path copy = copyMovie(kOlderMoovFirst, dir / "broken.mp4");
    std::vector<uint8_t> bytes = readFile(copy);
    uint64_t moov = topLevelOffset(copy, "moov");
    // mvhd is moov's first child: one byte more makes moov's children overrun it.
    bytes[moov + 8 + 3] += 1;
    writeFile(copy, bytes);
    std::string why;
    EXPECT_FALSE(nestingOk(copy, &why));
    EXPECT_NE(why.find("moov"), std::string::npos) << why;

    // Chunk offsets left unshifted after moving the media data.
    fs::path shifted = copyMovie(kOlderMoovFirst, dir / "shifted.mp4");
    bytes = readFile(shifted);
    bytes.insert(bytes.begin() + static_cast<long>(topLevelOffset(shifted, "mdat")), {0, 0, 0, 8, 'f', 'r', 'e', 'e'});
    writeFile(shifted, bytes);
    EXPECT_TRUE(nestingOk(shifted, &why)) << why;
    EXPECT_FALSE(offsetsOk(shifted, &why));
    EXPECT_FALSE(samplesEqual(sharedMovie(kOlderMoovFirst), shifted, &why));
}

TEST(Movies, ExiftoolReadsTheXmpPosition)
{
    std::string out;
    ASSERT_EQ(run("exiftool -n -s3 -XMP-exif:GPSLatitude -XMP-exif:GPSLongitude -XMP-exif:GPSImgDirection " + q(sharedMovie(kNewer)), &out), 0);
    EXPECT_EQ(out, "35.6586\n139.7454\n45.6\n");
}

TEST(Movies, MakerNoteCarriesTheRequestedValues)
{
    std::string out;
    ASSERT_EQ(mp4check("orvex " + q(sharedMovie(kNewer)), &out), 0) << out;
    for (const char* line : {"form=tiff-be", "ifd0.0x0110=NARVI ORVEX V\n", "maker.0x1000=1\n", "orvex.0x0001=1\n",
                             "orvex.0x0003=150/100,-225/100\n", "orvex.0x0004=1234/10\n", "orvex.0x0007=1\n",
                             "orvex.0x0013=0\n", "orvex.0x0204=1920,1440\n", "orvex.0x1014=1\n"})
        EXPECT_NE(out.find(line), std::string::npos) << line << " in\n" << out;

    ASSERT_EQ(mp4check("orvex " + q(sharedMovie(kNewerVariant)), &out), 0) << out;
    for (const char* line : {"form=narvi", "orvex.0x0001=0\n", "orvex.0x0003=1000/100,-6000/100\n",
                             "orvex.0x0004=900/10\n", "orvex.0x1014=13\n"})
        EXPECT_NE(out.find(line), std::string::npos) << line << " in\n" << out;
    EXPECT_EQ(out.find("ifd0."), std::string::npos) << out;
}

TEST(Movies, SensorStreamsCarryTheirRecordIndex)
{
    std::string little, big;
    ASSERT_EQ(mp4check("sensor " + q(sharedMovie(kNewer)) + " QDTD", &little), 0) << little;
    ASSERT_EQ(mp4check("sensor " + q(sharedMovie(kNewerVariant)) + " QDTD", &big), 0) << big;
    EXPECT_EQ(little.rfind("type=QDTD size=984 count=60 extra=30 unit=16 endian=little\n", 0), 0u) << little;
    EXPECT_EQ(big.rfind("type=QDTD size=984 count=60 extra=30 unit=16 endian=big\n", 0), 0u) << big;
    EXPECT_NE(little.find("\n59 x=3350 y=0 z=16038 tag=59 t=5966667\n"), std::string::npos) << little;
    EXPECT_EQ(little.substr(little.find('\n')), big.substr(big.find('\n')));

    std::string times;
    ASSERT_EQ(mp4check("sensor " + q(sharedMovie(kNewer)) + " QDTG", &times), 0) << times;
    EXPECT_NE(times.find("\n1 t=33333\n"), std::string::npos) << times;
}

TEST(Movies, H265MovieIsTaggedHvc1AndDecodes)
{
    fs::path movie = sharedMovie("--codec h265 --duration 1 --model older");
    expectSound(movie);
    std::string streams = probe(movie, "stream=codec_name,codec_tag_string,nb_frames");
    EXPECT_NE(streams.find("codec_name=hevc|codec_tag_string=hvc1|nb_frames=30"), std::string::npos) << streams;
    std::string sensors;
    ASSERT_EQ(mp4check("sensor " + q(movie) + " QDTC", &sensors), 0) << sensors;
    EXPECT_NE(sensors.find("count=30 "), std::string::npos) << sensors;
}

} // namespace
