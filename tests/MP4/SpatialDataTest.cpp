// The spatial-audio track: cutting it to a time range, and carrying the
// spatial-data box over to an output movie whole or trimmed.
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

std::string capture(const std::function<void()>& f)
{
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

// 2.5 seconds of 48 kHz sound, 8 bytes a sample.
const Bytes kPayload = pattern(960000, 5);

Bytes qdt9Box() { return box("QDT9", cat({u32s({0, 0, 0, 0}), pattern(16, 9)})); }

// ftyp, mdat, moov (video track, udta with QDT9), optionally the spatial box.
struct Source {
    Bytes file;
    uint64_t uuidAt = 0, uuidSize = 0, payloadAt = 0;
};
Source source(bool withSpatial = true, uint32_t timeScale = 48000, uint32_t sampleSize = 8)
{
    Bytes ftyp = box("ftyp", text("isom"));
    Bytes mdat = box("mdat", pattern(2000, 2));
    uint32_t mediaAt = uint32_t(ftyp.size() + 8);
    Bytes moov = box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)), mediaTrak(960, 480, {mediaAt, mediaAt + 1000}, 1000),
                                  box("udta", cat({box("QMKN", Bytes(8, 1)), qdt9Box()}))}));
    Source s;
    s.file = cat({ftyp, mdat, moov});
    if (withSpatial) {
        s.uuidAt = s.file.size();
        s.payloadAt = s.uuidAt + 32;
        Bytes uuid = spatialBox(kPayload, timeScale, sampleSize, s.payloadAt);
        s.uuidSize = uuid.size();
        s.file = cat({s.file, uuid});
    }
    return s;
}

// Reads the rebuilt QATR box in a buffer through the independent walker.
Bytes asFile(const ByteArray& b) { return Bytes(b.data, b.data + b.length); }

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
    EXPECT_EQ(sound.sampleSize, 8u);
    EXPECT_EQ(sound.sampleCount, 48000u);
    EXPECT_EQ(sound.chunkCount, 32u); // 31 full chunks of 12288 bytes, and one more
    EXPECT_EQ(sound.lastChunkRemainder, 3072u);
    EXPECT_EQ(sound.payloadStart, s.payloadAt);

    Bytes q = asFile(sound.buffer);
    std::string why;
    ASSERT_TRUE(nestsExactly(q, &why)) << why;
    ASSERT_EQ(findAll(q, "QATR").size(), 1u);
    EXPECT_EQ(findAll(q, "QATR")[0].size, q.size());
    // The track header and the untouched boxes are copied as they stand.
    Bytes src = s.file;
    auto srcTkhd = findOne(src, "uuid.QATR.tkhd");
    EXPECT_EQ(slice(q, findOne(q, "QATR.tkhd")->start, srcTkhd->size), slice(src, srcTkhd->start, srcTkhd->size));
    auto srcStsd = findOne(src, "uuid.QATR.mdia.minf.stbl.stsd");
    auto stsd = findOne(q, "QATR.mdia.minf.stbl.stsd");
    EXPECT_EQ(slice(q, stsd->start, stsd->size), slice(src, srcStsd->start, srcStsd->size));

    auto mdhd = findOne(q, "QATR.mdia.mdhd");
    ASSERT_TRUE(mdhd);
    EXPECT_EQ(mdhd->size, 32u);
    EXPECT_EQ(get32(q, mdhd->body() + 4), 1111u);    // creation time kept
    EXPECT_EQ(get32(q, mdhd->body() + 12), 48000u);  // time scale kept
    EXPECT_EQ(get32(q, mdhd->body() + 16), 48000u);  // duration = samples kept
    EXPECT_EQ(get32(q, mdhd->body() + 20), 0x55C40000u);
    auto stts = findOne(q, "QATR.mdia.minf.stbl.stts");
    EXPECT_EQ(slice(q, stts->body(), 16), u32s({0, 1, 48000, 1}));
    auto stsc = findOne(q, "QATR.mdia.minf.stbl.stsc");
    EXPECT_EQ(stsc->size, 40u);
    EXPECT_EQ(slice(q, stsc->body(), 32), u32s({0, 2, 1, 1536, 1, 32, 3072, 1}));
    auto stsz = findOne(q, "QATR.mdia.minf.stbl.stsz");
    EXPECT_EQ(slice(q, stsz->body(), 12), u32s({0, 8, 48000}));
    std::vector<uint64_t> offs = chunkOffsets(q, "QATR.mdia.minf.stbl");
    ASSERT_EQ(offs.size(), 32u);
    for (size_t i = 0; i < offs.size(); ++i)
        EXPECT_EQ(offs[i], s.payloadAt + 12288 * i);
}

TEST(SpatialSound, RangesAtTheEdges)
{
    TempDir dir;
    Source s = source();
    writeFile(dir / "s.mp4", s.file);
    MP4::SpatialSound sound;
    const std::wstring p = w(dir / "s.mp4");
    // The whole movie: nothing to build, the box is later appended whole.
    EXPECT_TRUE(sound.attach(p, 0, -1));
    EXPECT_FALSE(sound.trimmed);
    EXPECT_TRUE(sound.buffer.empty());
    EXPECT_FALSE(sound.attach(p, 10, 5));
    EXPECT_FALSE(sound.attach(p, 0, 3.0)); // past the 2.5 seconds of data
    EXPECT_FALSE(sound.attach(p, 3.0, -1));
    // 0.8 s = 25 chunks exactly: one more chunk than full chunks, remainder 0.
    ASSERT_TRUE(sound.attach(p, 0, 0.8));
    EXPECT_EQ(sound.chunkCount, 26u);
    EXPECT_EQ(sound.lastChunkRemainder, 0u);
    // From a start to the end of the data.
    ASSERT_TRUE(sound.attach(p, 2.0, -1));
    EXPECT_EQ(sound.startByte, 768000u);
    EXPECT_EQ(sound.endByte, 960000u);
    EXPECT_EQ(sound.sampleCount, 24000u);

    // No spatial data: success with nothing trimmed.
    writeFile(dir / "none.mp4", source(false).file);
    EXPECT_TRUE(sound.attach(w(dir / "none.mp4"), 1, 2));
    EXPECT_FALSE(sound.trimmed);
    // A track without a time scale.
    writeFile(dir / "bad.mp4", source(true, 0).file);
    EXPECT_EQ(capture([&] { EXPECT_FALSE(sound.attach(w(dir / "bad.mp4"), 1, 2)); }), "No Spatial Metadata.\n");
}

struct Output {
    TempDir dir;
    Source src = source();
    Bytes original = source(false).file; // the output movie: same layout, no spatial data
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

TEST(SpatialData, AppendedWholeWithItsReferencesMoved)
{
    Output o;
    ASSERT_TRUE(o.withSource([&](GLTK::FileIO& in) { return o.c.appendSpatialData(in, o.src.uuidAt, o.src.uuidSize); }));
    Bytes f = readFile(o.dir / "o.mp4");
    ASSERT_EQ(f.size(), o.original.size() + o.src.uuidSize);
    const uint64_t at = o.original.size();
    std::string why;
    ASSERT_TRUE(nestsExactly(f, &why)) << why;
    // QDT9 points at the QADT box of the output.
    auto qadt = findOne(f, "uuid.QADT");
    auto qdt9 = findOne(f, "moov.udta.QDT9");
    ASSERT_TRUE(qadt && qdt9);
    EXPECT_EQ(get64(f, qdt9->body()), qadt->start);
    EXPECT_EQ(get64(f, qdt9->body() + 8), qadt->size);
    EXPECT_EQ(slice(f, qdt9->body() + 16, 16), pattern(16, 9)); // the rest of QDT9 stays
    // Every spatial chunk offset moved with the box and reads the same bytes.
    std::vector<uint64_t> before = chunkOffsets(o.src.file, "uuid.QATR.mdia.minf.stbl");
    std::vector<uint64_t> after = chunkOffsets(f, "uuid.QATR.mdia.minf.stbl");
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < after.size(); ++i) {
        EXPECT_EQ(after[i], before[i] - o.src.uuidAt + at);
        size_t n = std::min<size_t>(12288, kPayload.size() - 12288 * i);
        EXPECT_EQ(slice(f, after[i], n), slice(o.src.file, before[i], n));
    }
    // The movie's own tracks are untouched.
    EXPECT_EQ(chunkOffsets(f), chunkOffsets(o.original));

    std::string out = capture([&] {
        EXPECT_TRUE(o.withSource([&](GLTK::FileIO& in) { return o.c.appendSpatialData(in, o.src.uuidAt, o.src.uuidSize); }));
    });
    EXPECT_EQ(out, "MP4: SpatialData is existed.\n");
    EXPECT_EQ(readFile(o.dir / "o.mp4"), f);
}

TEST(SpatialData, TrimmedCopyHoldsTheKeptSamplesAndPointsAtThem)
{
    Output o;
    MP4::SpatialSound sound;
    ASSERT_TRUE(sound.attach(w(o.dir / "s.mp4"), 1.0, 2.0));
    ASSERT_TRUE(o.withSource([&](GLTK::FileIO& in) { return o.c.trimSpatialData(in, o.src.uuidAt, sound); }));
    Bytes f = readFile(o.dir / "o.mp4");
    std::string why;
    ASSERT_TRUE(nestsExactly(f, &why)) << why;
    auto uuid = findOne(f, "uuid");
    auto qadt = findOne(f, "uuid.QADT");
    ASSERT_TRUE(uuid && qadt);
    EXPECT_EQ(uuid->start, o.original.size());
    EXPECT_EQ(uuid->size, sound.buffer.length + 384000 + 32);
    EXPECT_EQ(uuid->end(), f.size());
    EXPECT_EQ(slice(f, uuid->body(), 16), kSpatialUUID);
    EXPECT_EQ(qadt->size, 384008u);
    EXPECT_EQ(slice(f, qadt->body(), 384000), slice(kPayload, 384000, 384000));
    // The rebuilt track follows the samples; only its chunk offsets moved.
    auto qatr = findOne(f, "uuid.QATR");
    auto co64 = findOne(f, "uuid.QATR.mdia.minf.stbl.co64");
    ASSERT_TRUE(qatr && co64);
    EXPECT_EQ(qatr->start, qadt->end());
    EXPECT_EQ(qatr->size, sound.buffer.length);
    size_t fixed = co64->body() + 8 - qatr->start;
    EXPECT_EQ(slice(f, qatr->start, fixed), slice(asFile(sound.buffer), 0, fixed));
    auto qdt9 = findOne(f, "moov.udta.QDT9");
    EXPECT_EQ(get64(f, qdt9->body()), qadt->start);
    EXPECT_EQ(get64(f, qdt9->body() + 8), 384008u);
    std::vector<uint64_t> offs = chunkOffsets(f, "uuid.QATR.mdia.minf.stbl");
    ASSERT_EQ(offs.size(), 32u);
    for (size_t i = 0; i < offs.size(); ++i)
        EXPECT_EQ(offs[i], qadt->body() + 12288 * i);
    EXPECT_EQ(chunkOffsets(f), chunkOffsets(o.original));
}

TEST(SpatialData, WrongSourcePlacesAreRefusedAndLeaveTheFile)
{
    Output o;
    MP4::SpatialSound sound;
    ASSERT_TRUE(sound.attach(w(o.dir / "s.mp4"), 1.0, 2.0));
    struct Case {
        uint64_t offset, length;
    };
    for (Case k : {Case{0, o.src.uuidSize}, Case{o.src.uuidAt, o.src.uuidSize - 1}, Case{o.src.uuidAt, 1ull << 40},
                   Case{UINT64_MAX - 8, 64}}) {
        std::string out = capture([&] {
            EXPECT_FALSE(o.withSource([&](GLTK::FileIO& in) { return o.c.appendSpatialData(in, k.offset, k.length); }));
        });
        EXPECT_NE(out.find("appendSpatialData("), std::string::npos) << out;
        EXPECT_EQ(readFile(o.dir / "o.mp4"), o.original);
    }
    std::string out = capture([&] {
        EXPECT_FALSE(o.withSource([&](GLTK::FileIO& in) { return o.c.trimSpatialData(in, 8, sound); }));
    });
    EXPECT_NE(out.find("trimSpatialData("), std::string::npos) << out;
    EXPECT_EQ(readFile(o.dir / "o.mp4"), o.original);
}

TEST(SpatialData, FullDiskDuringAppendLeavesTheFileAsItWas)
{
    Output o;
    pid_t pid = fork();
    if (pid == 0) {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit lim = {static_cast<rlim_t>(o.original.size() + 5000), static_cast<rlim_t>(o.original.size() + 5000)};
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

// Edits that grow moov move a spatial box placed behind it: its chunk
// offsets and the QDT9 pointer follow.
TEST(SpatialData, GrowingMoovMovesTheSpatialBoxBehindIt)
{
    TempDir dir;
    Source s = source();
    writeFile(dir / "m.mp4", s.file);
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
    // Point QDT9 at the QADT box first.
    ASSERT_TRUE(c.overwriteSpatialDataOffset(s.uuidAt));
    Bytes before = readFile(dir / "m.mp4");
    ASSERT_TRUE(c.appendSphericalVideoXML(std::string(300, 'x')));
    Bytes f = readFile(dir / "m.mp4");
    std::string why;
    ASSERT_TRUE(nestsExactly(f, &why)) << why;
    EXPECT_EQ(chunkOffsets(f), chunkOffsets(before)); // media before moov stays
    std::vector<uint64_t> a = chunkOffsets(before, "uuid.QATR.mdia.minf.stbl");
    std::vector<uint64_t> b = chunkOffsets(f, "uuid.QATR.mdia.minf.stbl");
    ASSERT_EQ(a.size(), b.size());
    for (size_t i = 0; i < a.size(); ++i)
        EXPECT_EQ(b[i], a[i] + 324);
    auto qadt = findOne(f, "uuid.QADT");
    EXPECT_EQ(get64(f, findOne(f, "moov.udta.QDT9")->body()), qadt->start);
    EXPECT_EQ(slice(f, b[0], 100), slice(kPayload, 0, 100));
}

} // namespace
