// The synthetic camera movies and the MP4 checks that every other test
// relies on, verified with tools we did not write (ffmpeg, ffprobe)
// and against deliberate damage.
#include "Movies.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

using namespace testsupport;

namespace {

const char* const kNewer = "--model newer";
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

// Top-level box types in file order (the spatial-data uuid as "spatial"),
// and where one of them starts.
std::vector<std::string> topLevel(const fs::path& file, const std::string& type = "", uint64_t* offset = nullptr)
{
    std::vector<std::string> types;
    std::istringstream tree(boxTree(file));
    for (std::string line; std::getline(tree, line);) {
        if (line.empty() || line[0] == ' ')
            continue;
        types.push_back(line.find("uuid=28f311e2") != std::string::npos ? "spatial" : line.substr(0, 4));
        if (offset && types.back() == type)
            *offset = std::stoull(line.substr(line.find('@') + 1));
    }
    return types;
}
uint64_t offsetOf(const fs::path& file, const std::string& type)
{
    uint64_t offset = 0;
    topLevel(file, type, &offset);
    EXPECT_NE(offset, 0u) << type;
    return offset;
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

TEST(Movies, CameraMoviesInEveryLayoutDecodeAndKeepTheirSamples)
{
    fs::path newer = sharedMovie(kNewer), variant = sharedMovie(kNewerVariant);
    fs::path older = sharedMovie("--model older"), olderMoovFirst = sharedMovie(kOlderMoovFirst);
    for (const fs::path& movie : {newer, variant, older, olderMoovFirst})
        expectSound(movie);
    EXPECT_NE(probe(newer, "stream=codec_name,width,height,sample_rate").find("h264|width=960|height=480"),
              std::string::npos);

    using V = std::vector<std::string>;
    EXPECT_EQ(topLevel(newer), (V{"ftyp", "free", "mdat", "spatial", "moov", "uuid", "uuid"}));
    EXPECT_EQ(topLevel(variant), (V{"ftyp", "moov", "spatial", "mdat", "uuid", "uuid"}));
    EXPECT_EQ(topLevel(older), (V{"ftyp", "free", "mdat", "moov", "uuid", "uuid"}));
    EXPECT_EQ(topLevel(olderMoovFirst), (V{"ftyp", "moov", "mdat", "uuid", "uuid"}));
    EXPECT_NE(boxTree(variant).find(" largesize"), std::string::npos);
    EXPECT_EQ(boxTree(variant).find("stco"), std::string::npos);
    EXPECT_EQ(payloadText(newer, "moov.udta.@mod"), "NARVI ORVEX C1");
    EXPECT_EQ(payloadText(olderMoovFirst, "moov.udta.@mod"), "NARVI ORVEX B1");
    EXPECT_EQ(payloadText(newer, "moov.udta.QTHU").substr(0, 3), "\xFF\xD8\xFF");
    std::vector<uint8_t> none; // older cameras record no spatial data, so nothing may point at it
    EXPECT_FALSE(boxPayload(older, "moov.udta.QDT9", none));

    std::string why;
    EXPECT_TRUE(samplesEqual(older, olderMoovFirst, &why)) << why;
    EXPECT_TRUE(samplesEqual(newer, variant, &why)) << why;
    EXPECT_NE(why.find("spatial track equal"), std::string::npos) << why;
}

TEST(Movies, ChecksSeeOneChangedByteBadNestingAndUnshiftedOffsets)
{
    TempDir dir;
    for (const char* where : {"mdat", "spatial"}) {
        fs::path copy = copyMovie(kNewer, dir / "changed.mp4");
        std::vector<uint8_t> bytes = readFile(copy);
        uint64_t at = offsetOf(copy, where) + 5000; // well inside the media or the spatial samples
        ASSERT_LT(at, bytes.size());
        bytes[at] ^= 0x01;
        writeFile(copy, bytes);
        std::string why;
        EXPECT_FALSE(samplesEqual(sharedMovie(kNewer), copy, &why)) << where;
        EXPECT_NE(why.find("differs"), std::string::npos) << why;
        EXPECT_TRUE(nestingOk(copy, &why)) << why;
    }

    // mvhd is moov's first child: one byte more makes moov's children overrun it.
    fs::path broken = copyMovie(kOlderMoovFirst, dir / "broken.mp4");
    std::vector<uint8_t> bytes = readFile(broken);
    bytes[offsetOf(broken, "moov") + 8 + 3] += 1;
    writeFile(broken, bytes);
    std::string why;
    EXPECT_FALSE(nestingOk(broken, &why));
    EXPECT_NE(why.find("moov"), std::string::npos) << why;

    // Chunk offsets left unshifted after moving the media data.
    fs::path shifted = copyMovie(kOlderMoovFirst, dir / "shifted.mp4");
    bytes = readFile(shifted);
    bytes.insert(bytes.begin() + long(offsetOf(shifted, "mdat")), {0, 0, 0, 8, 'f', 'r', 'e', 'e'});
    writeFile(shifted, bytes);
    EXPECT_TRUE(nestingOk(shifted, &why)) << why;
    EXPECT_FALSE(offsetsOk(shifted, &why));
    EXPECT_FALSE(samplesEqual(sharedMovie(kOlderMoovFirst), shifted, &why));
}

} // namespace
