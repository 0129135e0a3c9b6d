// The spatial-audio track cut to a time range, and the spatial-data box
// refused from wrong places or when there is one. Carrying it over to real
// movies is checked end to end.
#include "SpatialSound.h"
#include "SyntheticBoxes.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

// 2.5 seconds of 48 kHz sound, 8 bytes a sample.
const Bytes kPayload = pattern(960000, 5);

// A mdat-first movie whose udta holds a QDT9 box, optionally with the
// spatial-data box at its end.
struct Source : SyntheticMovie {
    uint64_t uuidAt = 0, uuidSize = 0;
    explicit Source(bool withSpatial = true, uint32_t timeScale = 48000)
        : SyntheticMovie(false, cat({box("QMKN", Bytes(8, 1)), box("QDT9", cat({u32s({0, 0, 0, 0}), pattern(16, 9)}))}),
                         [=](Bytes& f) {
                             if (withSpatial)
                                 f = cat({f, spatialBox(kPayload, timeScale, 8, f.size() + 32)});
                         })
    {
        if (auto uuid = findOne(file, "uuid")) {
            uuidAt = uuid->start;
            uuidSize = uuid->size;
        }
    }
};

TEST(SpatialSound, CutsOneSecondOutOfTheMiddle)
{
    Source s;
    MP4::SpatialSound sound;
    ASSERT_TRUE(sound.attach(w(s.path()), 1.0, 2.0));
    EXPECT_TRUE(sound.trimmed);
    EXPECT_EQ(sound.startByte, 384000u);
    EXPECT_EQ(sound.endByte, 768000u);
    EXPECT_EQ(sound.sampleCount, 48000u);
    EXPECT_EQ(sound.chunkCount, 32u); // 31 full chunks of 12288 bytes, and one more
    EXPECT_EQ(sound.lastChunkRemainder, 3072u);

    // The rebuilt QATR box: header and untouched boxes copied, the tables
    // rewritten for the kept samples.
    Bytes q(sound.buffer.data, sound.buffer.data + sound.buffer.length);
    std::string why;
    ASSERT_TRUE(nestsExactly(q, &why)) << why;
    ASSERT_EQ(findAll(q, "QATR").size(), 1u);
    EXPECT_EQ(findAll(q, "QATR")[0].size, q.size());
    for (const char* path : {"tkhd", "mdia.minf.stbl.stsd"}) {
        auto mine = findOne(q, std::string("QATR.") + path), theirs = findOne(s.file, std::string("uuid.QATR.") + path);
        EXPECT_EQ(slice(q, mine->start, mine->size), slice(s.file, theirs->start, theirs->size)) << path;
    }
    auto mdhd = findOne(q, "QATR.mdia.mdhd");
    EXPECT_EQ(slice(q, mdhd->body() + 4, 20), cat({u32s({1111, 2222, 48000, 48000}), {0x55, 0xC4, 0, 0}}));
    EXPECT_EQ(slice(q, findOne(q, "QATR.mdia.minf.stbl.stts")->body(), 16), u32s({0, 1, 48000, 1}));
    auto stsc = findOne(q, "QATR.mdia.minf.stbl.stsc");
    EXPECT_EQ(slice(q, stsc->body(), stsc->size - 8), u32s({0, 2, 1, 1536, 1, 32, 3072, 1}));
    EXPECT_EQ(slice(q, findOne(q, "QATR.mdia.minf.stbl.stsz")->body(), 12), u32s({0, 8, 48000}));
    std::vector<uint64_t> offs = chunkOffsets(q, "QATR.mdia.minf.stbl");
    ASSERT_EQ(offs.size(), 32u);
    for (size_t i = 0; i < offs.size(); ++i)
        EXPECT_EQ(offs[i], s.uuidAt + 32 + 12288 * i);
}

TEST(SpatialSound, RangesAtTheEdges)
{
    Source s;
    MP4::SpatialSound sound;
    const std::wstring p = w(s.path());
    EXPECT_TRUE(sound.attach(p, 0, -1)); // the whole movie: nothing to build
    EXPECT_FALSE(sound.trimmed);
    EXPECT_TRUE(sound.buffer.empty());
    EXPECT_FALSE(sound.attach(p, 10, 5));
    EXPECT_FALSE(sound.attach(p, 0, 3.0)); // past the 2.5 seconds of data
    EXPECT_FALSE(sound.attach(p, 3.0, -1));
    // 0.8 s = 25 chunks exactly: one more chunk than full chunks, remainder 0.
    ASSERT_TRUE(sound.attach(p, 0, 0.8));
    EXPECT_EQ(sound.chunkCount, 26u);
    EXPECT_EQ(sound.lastChunkRemainder, 0u);
    ASSERT_TRUE(sound.attach(p, 2.0, -1));
    EXPECT_EQ(sound.startByte, 768000u);
    EXPECT_EQ(sound.endByte, 960000u);

    EXPECT_TRUE(sound.attach(w(Source(false).path()), 1, 2)); // no spatial data: nothing to trim
    EXPECT_FALSE(sound.trimmed);
    Source bad(true, 0); // a track without a time scale
    testing::internal::CaptureStdout();
    EXPECT_FALSE(sound.attach(w(bad.path()), 1, 2));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "No Spatial Metadata.\n");
}

TEST(SpatialData, WrongSourcePlacesAreRefusedAndLeaveTheFile)
{
    Source src, out(false);
    MP4::SpatialSound sound;
    ASSERT_TRUE(sound.attach(w(src.path()), 1.0, 2.0));
    auto refused = [&](const std::function<bool(GLTK::FileIO&)>& edit, const char* name) {
        bool ok = true;
        testing::internal::CaptureStdout();
        GLTK::FileIO::open(w(src.path()), [&](GLTK::FileIO& in) { ok = edit(in); });
        std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_FALSE(ok) << name;
        EXPECT_NE(printed.find(name), std::string::npos) << printed;
        EXPECT_TRUE(out.unchanged());
    };
    for (auto [offset, length] : {std::pair<uint64_t, uint64_t>{0, src.uuidSize}, {src.uuidAt, src.uuidSize - 1},
                                  {src.uuidAt, 1ull << 40}, {UINT64_MAX - 8, 64}})
        refused([&](GLTK::FileIO& in) { return out.c.appendSpatialData(in, offset, length); }, "appendSpatialData(");
    refused([&](GLTK::FileIO& in) { return out.c.trimSpatialData(in, 8, sound); }, "trimSpatialData(");

    // A movie that has spatial data gets none added.
    bool ok = false;
    testing::internal::CaptureStdout();
    GLTK::FileIO::open(w(src.path()), [&](GLTK::FileIO& in) { ok = src.c.appendSpatialData(in, src.uuidAt, src.uuidSize); });
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "MP4: SpatialData is existed.\n");
    EXPECT_TRUE(ok);
    EXPECT_TRUE(src.unchanged());
}

} // namespace
