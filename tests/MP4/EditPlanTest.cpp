// Edit plans over camera movies and small synthetic ones, written once and
// judged by tools we did not write: ffmpeg decodes the result without a word,
// and mp4check.py finds every sample, chunk, size and QDT9 pointer in place.
#include "GPSInfo.h"
#include "MP4Container.h"
#include "Movies.h"
#include "SpatialDataCopy.h"
#include "SyntheticBoxes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace testsupport;
using MP4::EditPlan;

namespace {

void expectIntact(const fs::path& original, const fs::path& edited)
{
    std::string why;
    EXPECT_TRUE(decodesCleanly(edited, &why)) << why;
    EXPECT_TRUE(samplesEqual(original, edited, &why)) << why;
    EXPECT_TRUE(nestingOk(edited, &why)) << why;
    EXPECT_TRUE(offsetsOk(edited, &why)) << why;
}

// A copy of a shared camera movie, its container, and an output path.
struct Work {
    TempDir dir;
    fs::path original, file, out;
    MP4::Container c;
    explicit Work(const std::string& options)
    {
        original = sharedMovie(options);
        file = copyMovie(options, dir / "m.mp4");
        out = dir / "out.mp4";
        EXPECT_TRUE(c.attach(w(file)));
    }
    // The movie's udta, followed inside by a free box of n bytes.
    EditPlan::Pieces biggerUdta(EditPlan& plan, size_t n) const
    {
        const BoxAt udta = *findOne(readFile(file), "moov.udta");
        ByteArray size;
        size.append32be(uint32_t(udta.size + 8 + n));
        plan.patch(0, udta.start, size);
        return {EditPlan::range(0, udta.start, udta.size), EditPlan::bytes(MP4::makeFreeBox(8 + n))};
    }
    bool noTemporaryFile() const { return !fs::exists(fs::path(out.string() + ".tmp.mp4")); }
};

TEST(EditPlan, EveryOffsetFollowsWhenMoovMovesAndGrows)
{
    // moov goes in front of the media and grows by a longer Spherical Video
    // box, a bigger udta and new location boxes: the chunk offsets of every
    // track (stco, co64), of the spatial-audio track behind moov or behind
    // mdat, and the QDT9 pointer (which the camera layer registers) follow.
    for (const char* options : {"--model newer --spatial after-moov", "--model newer --co64 --mdat-largesize",
                                "--model older --spatial after-mdat"}) {
        SCOPED_TRACE(options);
        Work m(options);
        EditPlan plan(m.c);
        ASSERT_TRUE(m.c.moovFirst(plan));
        ASSERT_TRUE(m.c.appendSphericalVideoXML(plan, std::string(3000, ' ')));
        ASSERT_TRUE(m.c.replaceUdta(plan, m.biggerUdta(plan, 300)));
        ASSERT_TRUE(SpatialDataCopy::carry(m.c, m.c, 0, MP4::SpatialSound(), plan));
        m.c.updateTimeStamp(plan, 3000000000ull);
        ASSERT_TRUE(plan.write(w(m.out)));
        EXPECT_FALSE(plan.wroteInPlace);
        EXPECT_EQ(plan.bytesWritten, fs::file_size(m.out)) << "written once";
        expectIntact(m.original, m.out);
        EXPECT_TRUE(readFile(m.file) == readFile(m.original)) << "the input changed";
        EXPECT_TRUE(m.noTemporaryFile());
        const Bytes in = readFile(m.file), out = readFile(m.out);
        EXPECT_LT(topLevel(out).find("moov"), topLevel(out).find("mdat")) << topLevel(out);
        EXPECT_EQ(findOne(out, "mdat")->start % 4096, findOne(in, "mdat")->start % 4096) << "media off its block";
    }
}

TEST(EditPlan, RewritesOnlyTheTailInPlaceWhenNoByteOfTheMovieMoves)
{
    // media first, moov last: the changes all lie behind the media.
    Work m("--model newer");
    const ino_t before = inode(m.file);
    EditPlan plan(m.c);
    ASSERT_TRUE(m.c.appendSphericalVideoXML(plan, std::string(1500, ' ')));
    ASSERT_TRUE(m.c.replaceUdta(plan, m.biggerUdta(plan, 100)));
    m.c.appendAxis(plan, "axis");
    ASSERT_TRUE(plan.write(w(m.file)));
    EXPECT_TRUE(plan.wroteInPlace);
    EXPECT_EQ(inode(m.file), before);
    EXPECT_LT(plan.bytesWritten, fs::file_size(m.file) / 4);
    expectIntact(m.original, m.file);
    EXPECT_FALSE(fs::exists(fs::path(m.file.string() + ".tmp.mp4")));
}

TEST(EditPlan, OffsetConversionAtTheThirtyTwoBitEdges)
{
    auto run = [](EditPlan::Offsets o, Bytes values, uint64_t shift) {
        const bool ok = EditPlan::convertOffsets(o, values.data(), [&](unsigned file, uint64_t at) {
            return at + shift + file;
        });
        return std::make_pair(ok, values);
    };
    EditPlan::Offsets stco;
    stco.count = 2;
    stco.owner = "stco";
    // Moved to the last 32-bit offset: kept; one byte further: refused.
    EXPECT_EQ(run(stco, u32s({0xFFFFFF00u, 16}), 0xFF), std::make_pair(true, u32s({0xFFFFFFFFu, 0x10F})));
    std::string said = printedBy([&] { EXPECT_FALSE(run(stco, u32s({0xFFFFFF00u, 16}), 0x100).first); });
    EXPECT_NE(said.find("'stco' would be 4294967296"), std::string::npos) << said;
    // co64 goes past 32 bits; a pointer names where its target lands plus
    // its addend, whatever it held.
    EditPlan::Offsets co64 = stco;
    co64.width = 8;
    co64.count = 1;
    Bytes wide(8, 0);
    put32be(wide.data() + 4, 0xFFFFFFFFu);
    Bytes moved(8, 0);
    moved[3] = 1;
    EXPECT_EQ(run(co64, wide, 1), std::make_pair(true, moved));
    EditPlan::Offsets pointer = co64;
    pointer.pointer = true;
    pointer.target = {1, 5000};
    pointer.addend = -8;
    Bytes named(8, 0);
    put32be(named.data() + 4, 5000 + 100 + 1 - 8);
    EXPECT_EQ(run(pointer, Bytes(8, 0xEE), 100), std::make_pair(true, named));
}

TEST(EditPlan, OffsetsAndSizesPastThirtyTwoBitsAndDamagedBoxesAreRefusedBeforeWriting)
{
    {
        SCOPED_TRACE("a chunk offset that moving the media would push past 32 bits");
        SyntheticMovie s(true, [](Bytes& f) {
            put32be(f.data() + findOne(f, "moov.trak.mdia.minf.stbl.stco")->body() + 8, 0xFFFFFF00u);
        });
        EditPlan plan(s.c);
        ASSERT_TRUE(s.c.appendSphericalVideoXML(plan, std::string(1000, ' ')));
        std::string said = printedBy([&] { EXPECT_FALSE(plan.write(w(s.dir / "out.mp4"))); });
        EXPECT_NE(said.find("'stco'"), std::string::npos) << said;
        EXPECT_FALSE(fs::exists(s.dir / "out.mp4"));
        EXPECT_FALSE(fs::exists(s.dir / "out.mp4.tmp.mp4"));
    }
    {
        SCOPED_TRACE("moov would outgrow its 32-bit size (a sparse movie of 4 GiB)");
        TempDir dir;
        const fs::path file = dir / "big.mp4";
        Bytes head = cat({box("ftyp", text("isomiso2")), box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)),
                                                                          mediaTrak(960, 480, {}, 0)}))});
        const size_t moovAt = findOne(head, "moov")->start;
        put32be(head.data() + moovAt, 0xFFFFFFF8u);
        writeFile(file, head);
        ASSERT_EQ(truncate(file.c_str(), off_t(moovAt) + 0xFFFFFFF8ll), 0);
        MP4::Container c;
        ASSERT_TRUE(c.attach(w(file)));
        EditPlan plan(c);
        ASSERT_TRUE(plan.insert(L"test", *c.moov, c.moov->endOfChildren(),
                                {EditPlan::bytes(ByteArray("0123456789abcdef", 16))}));
        std::string said = printedBy([&] { EXPECT_FALSE(plan.write(w(dir / "out.mp4"))); });
        EXPECT_NE(said.find("'moov'"), std::string::npos) << said;
        EXPECT_FALSE(fs::exists(dir / "out.mp4"));
    }
    {
        SCOPED_TRACE("a track running past moov: no edit of it is made");
        SyntheticMovie s(false, [](Bytes& f) {
            const BoxAt trak = *findOne(f, "moov.trak");
            put32be(f.data() + trak.start, uint32_t(trak.size + 5000));
        });
        EditPlan plan(s.c);
        std::string said = printedBy([&] { EXPECT_FALSE(s.c.appendSphericalVideoXML(plan, "<xml/>")); });
        EXPECT_NE(said.find("appendSphericalVideoXML"), std::string::npos) << said;
    }
}

TEST(EditPlan, AvcCFlagsReuseTheUdtaSpaceOrGrowWhatFollows)
{
    const char* kAvcC = "moov.trak.mdia.minf.stbl.stsd.avc1.avcC";
    auto colorRange = [](const fs::path& f) {
        std::string out;
        run("ffprobe -v error -select_streams v:0 -show_entries stream=color_range -of default=nw=1:nk=1 " + q(f),
            &out);
        return out.substr(0, out.find_first_of(",\n"));
    };
    {
        SCOPED_TRACE("moov first with a udta behind the avcC: moov keeps its length");
        Work m("--model older --layout moov-first");
        const Bytes before = readFile(m.file);
        const BoxAt udta = *findOne(before, "moov.udta");
        EditPlan plan(m.c);
        std::string said = printedBy([&] { ASSERT_TRUE(m.c.appendFullRangeAndConstrainedSet1Flag(plan, true)); });
        EXPECT_EQ(said, "Container::appendFullRangeAndConstrainedSet1Flag: 0 - 1, constrained_set1_flag:  0 - 1\n");
        ASSERT_TRUE(plan.write(w(m.out)));
        const Bytes after = readFile(m.out);
        const int64_t delta = int64_t(findOne(after, kAvcC)->size) - int64_t(findOne(before, kAvcC)->size);
        ASSERT_NE(delta, 0) << "the record kept its length; this movie cannot show the udta strategy";
        EXPECT_EQ(after.size(), before.size());
        EXPECT_TRUE(findAll(after, "moov.udta").empty());
        auto freeBox = findOne(after, "moov.free");
        ASSERT_TRUE(freeBox);
        EXPECT_EQ(freeBox->end(), udta.end());
        expectIntact(m.original, m.out);
        EXPECT_EQ(colorRange(m.out), "pc");
    }
    {
        SCOPED_TRACE("no udta: everything behind the avcC moves");
        Work m("--model older --layout moov-first --no-xyz --no-loci --qmkn none --no-sensors --no-thumb");
        Bytes f = readFile(m.file);
        std::memcpy(f.data() + findOne(f, "moov.udta")->start + 4, "skip", 4);
        writeFile(m.file, f);
        ASSERT_TRUE(m.c.attach(w(m.file)));
        EditPlan plan(m.c);
        printedBy([&] { ASSERT_TRUE(m.c.appendFullRangeAndConstrainedSet1Flag(plan, true)); });
        ASSERT_TRUE(plan.write(w(m.out)));
        EXPECT_GT(fs::file_size(m.out), f.size());
        expectIntact(m.original, m.out);
        EXPECT_EQ(colorRange(m.out), "pc");
    }
}

TEST(EditPlan, BadLociGiveWayToNewLocationBoxesBesideTheSphericalBox)
{
    Work m("--model older --loci bad --no-sph");
    EditPlan plan(m.c);
    m.c.removeBadLOCI(plan);
    GPSInfo gps;
    gps.attachRXYZ("+35.6586+139.7454+040.000/");
    ASSERT_TRUE(m.c.appendSphericalVideoXML(plan, "<xml/>") && m.c.appendLocation(plan, gps));
    ASSERT_TRUE(plan.write(w(m.out)));
    std::string why;
    EXPECT_TRUE(decodesCleanly(m.out, &why)) << why; // the source's cut loci made ffmpeg refuse it
    EXPECT_TRUE(nestingOk(m.out, &why)) << why;
    EXPECT_TRUE(offsetsOk(m.out, &why)) << why;
    const Bytes f = readFile(m.out);
    ASSERT_EQ(findAll(f, "moov.udta.loci").size(), 1u);
    EXPECT_EQ(slice(f, findOne(f, "moov.udta.loci")->body() + 8, 8), u32s({0x008BBED3u, 0x0023A89Au}));
    EXPECT_EQ(findAll(f, "moov.udta.\xA9xyz").size(), 1u);
    Bytes sph;
    EXPECT_TRUE(boxPayload(m.out, "moov.trak.uuid=ffcc8263f8554a938814587a02521fdd", sph));
    EXPECT_EQ(sph, text("<xml/>"));
}

TEST(SpatialData, CutToOneSecondIntoANewBoxThatItsChunksAndQdt9Name)
{
    Work camera("--model newer --duration 3");
    MP4::SpatialSound sound;
    EXPECT_FALSE(sound.attach(camera.c, 2.0, 1.0));
    EXPECT_FALSE(sound.attach(camera.c, 0.0, 60.0)) << "an end beyond the data";
    ASSERT_TRUE(sound.attach(camera.c, -1.0, -1.0));
    EXPECT_FALSE(sound.trimmed) << "the whole movie is carried as it stands";
    ASSERT_TRUE(sound.attach(camera.c, 1.0, 2.0));
    ASSERT_TRUE(sound.trimmed);
    const uint64_t kept = sound.endByte - sound.startByte;
    EXPECT_EQ(kept, sound.startByte) << "one second of a constant rate";
    EXPECT_EQ(sound.chunkCount, kept / (sound.sampleSize * 1536ull) + 1);

    // Carried with the camera's udta into a movie without spatial data.
    Work movie("--model newer --spatial none");
    EditPlan plan(movie.c);
    const unsigned file = plan.addInput(camera.c);
    const MP4::BOX* udta = camera.c.first("moov.udta");
    ASSERT_TRUE(movie.c.replaceUdta(plan, {EditPlan::range(file, udta->start, udta->size)}));
    ASSERT_TRUE(SpatialDataCopy::carry(movie.c, camera.c, file, sound, plan));
    ASSERT_TRUE(plan.write(w(movie.out)));
    std::string why;
    EXPECT_TRUE(offsetsOk(movie.out, &why)) << why; // every chunk inside QADT, QDT9 at QADT
    EXPECT_TRUE(nestingOk(movie.out, &why)) << why;
    Bytes in, out;
    ASSERT_TRUE(boxPayload(camera.file, "uuid.QADT", in));
    ASSERT_TRUE(boxPayload(movie.out, "uuid.QADT", out));
    EXPECT_TRUE(out == slice(in, sound.startByte, kept));
}

} // namespace
