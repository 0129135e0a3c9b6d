// The spatial-audio track cut to a time range, and the spatial-data box
// refused from wrong places or on a full disk. Carrying it over to real
// movies is checked in MovieEditTest.
#include "GLTKwchar.h"
#include "MP4Container.h"
#include "SpatialSound.h"
#include "SyntheticBoxes.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace testsupport;

namespace {

std::wstring w(const fs::path& p) { return GLTK::wchar::mbs2wcs(p.string()); }

// 2.5 seconds of 48 kHz sound, 8 bytes a sample.
const Bytes kPayload = pattern(960000, 5);

// ftyp, mdat, moov (video track, udta with QDT9), optionally the spatial box.
struct Source {
    Bytes file;
    uint64_t uuidAt = 0, uuidSize = 0, payloadAt = 0;
};
Source source(bool withSpatial = true, uint32_t timeScale = 48000)
{
    Bytes ftyp = box("ftyp", text("isom"));
    uint32_t mediaAt = uint32_t(ftyp.size() + 8);
    Bytes udta = box("udta", cat({box("QMKN", Bytes(8, 1)), box("QDT9", cat({u32s({0, 0, 0, 0}), pattern(16, 9)}))}));
    Bytes moov = box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)), mediaTrak(960, 480, {mediaAt, mediaAt + 1000}, 1000), udta}));
    Source s;
    s.file = cat({ftyp, box("mdat", pattern(2000, 2)), moov});
    if (withSpatial) {
        s.uuidAt = s.file.size();
        s.payloadAt = s.uuidAt + 32;
        Bytes uuid = spatialBox(kPayload, timeScale, 8, s.payloadAt);
        s.uuidSize = uuid.size();
        s.file = cat({s.file, uuid});
    }
    return s;
}

TEST(SpatialSound, CutsOneSecondOutOfTheMiddle)
{
    TempDir dir;
    Source s = source();
    writeFile(dir / "s.mp4", s.file);
    MP4::SpatialSound sound;
    ASSERT_TRUE(sound.attach(w(dir / "s.mp4"), 1.0, 2.0));
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
        EXPECT_EQ(offs[i], s.payloadAt + 12288 * i);
}

TEST(SpatialSound, RangesAtTheEdges)
{
    TempDir dir;
    writeFile(dir / "s.mp4", source().file);
    MP4::SpatialSound sound;
    const std::wstring p = w(dir / "s.mp4");
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

    writeFile(dir / "none.mp4", source(false).file);
    EXPECT_TRUE(sound.attach(w(dir / "none.mp4"), 1, 2)); // no spatial data: nothing to trim
    EXPECT_FALSE(sound.trimmed);
    writeFile(dir / "bad.mp4", source(true, 0).file);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(sound.attach(w(dir / "bad.mp4"), 1, 2)); // a track without a time scale
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "No Spatial Metadata.\n");
}

struct Output {
    TempDir dir;
    Source src = source();
    Bytes original = source(false).file; // the output movie: no spatial data
    MP4::Container c;
    Output()
    {
        writeFile(dir / "s.mp4", src.file);
        writeFile(dir / "o.mp4", original);
        EXPECT_TRUE(c.attach(w(dir / "o.mp4")));
    }
    bool withSource(const std::function<bool(GLTK::FileIO&)>& f)
    {
        bool ok = false;
        GLTK::FileIO::open(w(dir / "s.mp4"), [&](GLTK::FileIO& in) { ok = f(in); });
        return ok;
    }
};

TEST(SpatialData, WrongSourcePlacesAreRefusedAndLeaveTheFile)
{
    Output o;
    MP4::SpatialSound sound;
    ASSERT_TRUE(sound.attach(w(o.dir / "s.mp4"), 1.0, 2.0));
    for (auto [offset, length] : {std::pair<uint64_t, uint64_t>{0, o.src.uuidSize}, {o.src.uuidAt, o.src.uuidSize - 1},
                                  {o.src.uuidAt, 1ull << 40}, {UINT64_MAX - 8, 64}}) {
        testing::internal::CaptureStdout();
        EXPECT_FALSE(o.withSource([&](GLTK::FileIO& in) { return o.c.appendSpatialData(in, offset, length); }));
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(out.find("appendSpatialData("), std::string::npos) << out;
        EXPECT_EQ(readFile(o.dir / "o.mp4"), o.original);
    }
    testing::internal::CaptureStdout();
    EXPECT_FALSE(o.withSource([&](GLTK::FileIO& in) { return o.c.trimSpatialData(in, 8, sound); }));
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("trimSpatialData("), std::string::npos) << out;
    EXPECT_EQ(readFile(o.dir / "o.mp4"), o.original);
}

TEST(SpatialData, FullDiskDuringAppendLeavesTheFileAsItWas)
{
    Output o;
    pid_t pid = fork();
    if (pid == 0) {
        signal(SIGXFSZ, SIG_IGN);
        rlim_t limit = o.original.size() + 5000;
        struct rlimit lim = {limit, limit};
        setrlimit(RLIMIT_FSIZE, &lim);
        testing::internal::CaptureStdout();
        bool ok = o.withSource([&](GLTK::FileIO& in) { return o.c.appendSpatialData(in, o.src.uuidAt, o.src.uuidSize); });
        std::string out = testing::internal::GetCapturedStdout();
        _exit(ok ? 1 : out.find("appendSpatialData(") == std::string::npos ? 2 : 0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(readFile(o.dir / "o.mp4"), o.original);
}

} // namespace
