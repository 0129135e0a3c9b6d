// The synthetic camera movies and the MP4 checks that every other test
// relies on, verified with ffmpeg and against deliberate damage: a check
// that cannot fail proves nothing.
#include "BoxWalk.h"
#include "Movies.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

const char* const kNewer = "--model newer";
const char* const kOlderMoovFirst = "--model older --layout moov-first";
// Every layout option away from the default, on the same picture and sound.
const char* const kNewerVariant = "--model newer --layout moov-first --spatial after-moov --co64 --mdat-largesize "
                                  "--sensor-endian big --qmkn narvi";

TEST(Movies, CameraMoviesInEveryLayoutDecodeAndKeepTheirSamples)
{
    const fs::path newer = sharedMovie(kNewer), variant = sharedMovie(kNewerVariant);
    const fs::path older = sharedMovie("--model older"), olderMoovFirst = sharedMovie(kOlderMoovFirst);
    std::string why;
    for (const fs::path& movie : {newer, variant, older, olderMoovFirst}) {
        EXPECT_TRUE(decodesCleanly(movie, &why)) << why;
        EXPECT_TRUE(nestingOk(movie, &why)) << why;
        EXPECT_TRUE(offsetsOk(movie, &why)) << why;
    }
    EXPECT_EQ(topLevel(readFile(newer)), "ftyp free mdat spatial moov uuid uuid");
    EXPECT_EQ(topLevel(readFile(variant)), "ftyp moov spatial mdat uuid uuid");
    EXPECT_EQ(topLevel(readFile(older)), "ftyp free mdat moov uuid uuid");
    EXPECT_EQ(topLevel(readFile(olderMoovFirst)), "ftyp moov mdat uuid uuid");
    const Bytes v = readFile(variant);
    EXPECT_EQ(findOne(v, "mdat")->header, 16u);
    EXPECT_TRUE(findAll(v, "moov.trak.mdia.minf.stbl.stco").empty() && !findAll(v, "moov.trak.mdia.minf.stbl.co64").empty());
    std::vector<uint8_t> none; // older cameras record no spatial data, so nothing may point at it
    EXPECT_FALSE(boxPayload(older, "moov.udta.QDT9", none));

    EXPECT_TRUE(samplesEqual(older, olderMoovFirst, &why)) << why;
    EXPECT_TRUE(samplesEqual(newer, variant, &why)) << why;
    EXPECT_NE(why.find("spatial track equal"), std::string::npos) << why;
}

TEST(Movies, ChecksSeeOneChangedByteBadNestingAndUnshiftedOffsets)
{
    TempDir dir;
    for (const char* where : {"mdat", "uuid.QADT"}) {
        Bytes bytes = readFile(sharedMovie(kNewer));
        bytes.at(findOne(bytes, where)->start + 5000) ^= 0x01; // well inside the media or the spatial samples
        writeFile(dir / "changed.mp4", bytes);
        std::string why;
        EXPECT_FALSE(samplesEqual(sharedMovie(kNewer), dir / "changed.mp4", &why)) << where;
        EXPECT_NE(why.find("differs"), std::string::npos) << why;
        EXPECT_TRUE(nestingOk(dir / "changed.mp4", &why)) << why;
    }
    // mvhd is moov's first child: one byte more makes moov's children overrun it.
    Bytes bytes = readFile(sharedMovie(kOlderMoovFirst));
    bytes[findOne(bytes, "moov.mvhd")->start + 3] += 1;
    writeFile(dir / "broken.mp4", bytes);
    std::string why;
    EXPECT_FALSE(nestingOk(dir / "broken.mp4", &why));
    EXPECT_NE(why.find("moov"), std::string::npos) << why;

    // Chunk offsets left unshifted after moving the media data.
    bytes = readFile(sharedMovie(kOlderMoovFirst));
    bytes.insert(bytes.begin() + long(findOne(bytes, "mdat")->start), {0, 0, 0, 8, 'f', 'r', 'e', 'e'});
    writeFile(dir / "shifted.mp4", bytes);
    EXPECT_TRUE(nestingOk(dir / "shifted.mp4", &why)) << why;
    EXPECT_FALSE(offsetsOk(dir / "shifted.mp4", &why));
    EXPECT_FALSE(samplesEqual(sharedMovie(kOlderMoovFirst), dir / "shifted.mp4", &why));
}

} // namespace
