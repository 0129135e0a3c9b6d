// Container edits on synthetic camera movies, checked with tools we did not
// write: ffmpeg must decode the result without a word, every sample of every
// track must keep its bytes, box sizes must nest exactly and every chunk must
// still lie in its media data.
#include "GLTKwchar.h"
#include "GPSInfo.h"
#include "MP4Container.h"
#include "Movies.h"
#include "SyntheticBoxes.h"

#include <cmath>
#include <gtest/gtest.h>

using namespace testsupport;

namespace {

void expectIntact(const fs::path& original, const fs::path& edited)
{
    std::string why;
    EXPECT_TRUE(decodesCleanly(edited, &why)) << why;
    EXPECT_TRUE(samplesEqual(original, edited, &why)) << why;
    EXPECT_TRUE(nestingOk(edited, &why)) << why;
    EXPECT_TRUE(offsetsOk(edited, &why)) << why;
}

Bytes payloadAt(const fs::path& file, const std::string& path)
{
    Bytes out;
    EXPECT_TRUE(boxPayload(file, path, out)) << path;
    return out;
}

const std::string kSph = "uuid=ffcc8263f8554a938814587a02521fdd";

// A copy of a shared movie, and its container.
struct Work {
    TempDir dir;
    fs::path original, file;
    MP4::Container c;
    explicit Work(const std::string& options)
    {
        original = sharedMovie(options);
        file = copyMovie(options, dir / "m.mp4");
        EXPECT_TRUE(c.attach(w(file)));
    }
    // Renames moov's udta so that the movie has none.
    void hideUdta()
    {
        Bytes f = readFile(file);
        std::memcpy(f.data() + findOne(f, "moov.udta")->start + 4, "skip", 4);
        writeFile(file, f);
        EXPECT_TRUE(c.attach(w(file)));
    }
};

TEST(MovieEdit, SphericalXmlInsertedThenReplacedOnEveryLayout)
{
    // The last movie keeps its spatial data behind moov: growing moov moves
    // its chunk offsets and the QDT9 pointer.
    for (const char* options : {"--model older --no-sph --layout moov-first", "--model older --no-sph --layout mdat-first",
                                "--model newer --no-sph --spatial after-moov"}) {
        SCOPED_TRACE(options);
        Work m(options);
        Bytes before = readFile(m.file);
        ASSERT_TRUE(m.c.appendSphericalVideoXML(std::string(1000, 'a')));
        expectIntact(m.original, m.file);
        EXPECT_EQ(payloadAt(m.file, "moov.trak." + kSph), text(std::string(1000, 'a')));
        EXPECT_EQ(fs::file_size(m.file), before.size() + 1024);
        if (std::string(options).find("mdat-first") != std::string::npos) {
            EXPECT_EQ(chunkOffsets(readFile(m.file)), chunkOffsets(before));
        }

        // A longer XML replaces the box in place.
        ASSERT_TRUE(m.c.appendSphericalVideoXML(std::string(1500, 'b')));
        expectIntact(m.original, m.file);
        EXPECT_EQ(payloadAt(m.file, "moov.trak." + kSph), text(std::string(1500, 'b')));
        EXPECT_EQ(findAll(readFile(m.file), "moov.trak.uuid").size(), 1u);
        EXPECT_EQ(fs::file_size(m.file), before.size() + 1524);
    }
}

TEST(MovieEdit, XmpAndAxisAreAppendedOnce)
{
    Work m("--model older --no-xmp --no-axis");
    const std::string xmp = "<x:xmpmeta xmlns:x='adobe:ns:meta/'/>";
    ASSERT_TRUE(m.c.appendXMP(xmp));
    ASSERT_TRUE(m.c.appendAxis("axis record"));
    Bytes once = readFile(m.file);
    EXPECT_EQ(capture([&] { EXPECT_TRUE(m.c.appendXMP(xmp)); }), "MP4: XMP is existed.\n");
    EXPECT_EQ(capture([&] { EXPECT_TRUE(m.c.appendAxis("x")); }), "MP4: AXIS is existed.\n");
    EXPECT_EQ(readFile(m.file), once);
    expectIntact(m.original, m.file);
    EXPECT_EQ(payloadAt(m.file, "uuid=be7acfcb97a942e89c71999491e3afac"), text(xmp));
    EXPECT_EQ(payloadAt(m.file, "uuid=8e4e1f9781f34d5997b5ff05a27cdb7b"), text("axis record"));
}

TEST(MovieEdit, LocationBoxesAndSphericalXmlAddedInOneEdit)
{
    GPSInfo gps;
    gps.attachRXYZ("+35.6586+139.7454+040.000/");
    const std::string xml(1000, 'x');
    // A bad loci and no other position box: the bad box goes (ffmpeg chokes
    // on it) and all three are added.
    Work m("--model older --no-xyz --no-sph --loci bad --layout moov-first");
    std::string why;
    EXPECT_FALSE(decodesCleanly(m.file, &why));
    ASSERT_TRUE(m.c.removeBadLOCI());
    ASSERT_TRUE(m.c.appendLocationAndSphericalVideoXML(gps, xml));
    expectIntact(m.original, m.file);
    EXPECT_EQ(payloadAt(m.file, "moov.trak." + kSph), text(xml));
    EXPECT_EQ(payloadAt(m.file, "moov.udta.@xyz"), text("+35.6586+139.7454+040.000/"));
    Bytes loci = payloadAt(m.file, "moov.udta.loci");
    ASSERT_EQ(loci.size(), 24u);
    EXPECT_EQ(slice(loci, 8, 12), u32s({uint32_t(std::lround(139.7454 * 65536)), uint32_t(std::lround(35.6586 * 65536)),
                                        40u << 16}));
    Bytes edited = readFile(m.file);
    auto cxyz = findOne(edited, "moov.udta.\xA9xyz");
    ASSERT_TRUE(cxyz);
    EXPECT_EQ(slice(edited, cxyz->body(), cxyz->size - 8), cat({Bytes{0, 18, 0x15, 0xC7}, text("+35.6586+139.7454/")}));

    // Media first, with an @xyz box that is kept as it was.
    Work n("--model older --no-sph --no-loci --layout mdat-first");
    ASSERT_TRUE(n.c.appendLocationAndSphericalVideoXML(gps, xml));
    expectIntact(n.original, n.file);
    EXPECT_EQ(payloadAt(n.file, "moov.udta.@xyz"), payloadAt(n.original, "moov.udta.@xyz"));
    EXPECT_EQ(payloadAt(n.file, "moov.udta.loci").size(), 24u);

    // A movie whose moov has no udta gets one.
    Work bare("--model older --no-xyz --no-loci --no-sph --layout moov-first");
    bare.hideUdta();
    ASSERT_TRUE(bare.c.appendLocationAndSphericalVideoXML(gps, xml));
    expectIntact(bare.original, bare.file);
    EXPECT_EQ(payloadAt(bare.file, "moov.udta.@xyz"), text("+35.6586+139.7454+040.000/"));
}

// "pc" for full range, "tv" or "unknown" otherwise.
std::string colorRange(const fs::path& f)
{
    std::string out;
    run("ffprobe -v error -select_streams v:0 -show_entries stream=color_range -of default=nw=1:nk=1 " + q(f), &out);
    return out.substr(0, out.find_first_of(",\n"));
}
const char* kAvcC = "moov.trak.mdia.minf.stbl.stsd.avc1.avcC";

TEST(MovieEdit, AvcCReusesTheUdtaSpaceThenRewritesInPlace)
{
    Work m("--model older --layout moov-first");
    const Bytes before = readFile(m.file);
    const size_t oldSize = payloadAt(m.file, kAvcC).size();
    const BoxAt udta = *findOne(before, "moov.udta");
    const ino_t file = inode(m.file); // edits in place keep the file
    std::string out = capture([&] { ASSERT_TRUE(m.c.appendFullRangeAndConstrainedSet1Flag(true)); });
    EXPECT_EQ(out, "Container::appendFullRangeAndConstrainedSet1Flag: 0 - 1, constrained_set1_flag:  0 - 1\n");
    const Bytes after = readFile(m.file);
    const int64_t delta = int64_t(payloadAt(m.file, kAvcC).size()) - int64_t(oldSize);
    ASSERT_NE(delta, 0) << "the record kept its length; this movie cannot show the udta strategy";
    // moov kept its length, the udta became a free box ending where it ended.
    EXPECT_EQ(after.size(), before.size());
    EXPECT_EQ(inode(m.file), file);
    EXPECT_TRUE(findAll(after, "moov.udta").empty());
    auto freeBox = findOne(after, "moov.free");
    ASSERT_TRUE(freeBox);
    EXPECT_EQ(freeBox->start, udta.start + delta);
    EXPECT_EQ(freeBox->end(), udta.end());
    expectIntact(m.original, m.file);
    EXPECT_EQ(colorRange(m.file), "pc");

    // Back to limited range: the record keeps its length and only its bytes change.
    out = capture([&] { ASSERT_TRUE(m.c.appendFullRangeAndConstrainedSet1Flag(false)); });
    EXPECT_EQ(out, "Container::appendFullRangeAndConstrainedSet1Flag: 1 - 0, constrained_set1_flag:  1 - 1\n");
    const Bytes again = readFile(m.file);
    ASSERT_EQ(again.size(), after.size());
    EXPECT_EQ(inode(m.file), file);
    auto box = findOne(again, kAvcC);
    EXPECT_EQ(slice(again, 0, box->start), slice(after, 0, box->start));
    EXPECT_EQ(slice(again, box->end(), again.size() - box->end()), slice(after, box->end(), after.size() - box->end()));
    EXPECT_NE(colorRange(m.file), "pc");
    expectIntact(m.original, m.file);

    // Asked again for what it has: nothing is written.
    out = capture([&] { EXPECT_TRUE(m.c.appendFullRangeAndConstrainedSet1Flag(false)); });
    EXPECT_EQ(out, "Container::appendFullRangeAndConstrainedSet1Flag: 0 - 0, constrained_set1_flag:  1 - 1\n");
    EXPECT_EQ(readFile(m.file), again);
}

TEST(MovieEdit, AvcCWithoutUdtaShiftsWhatFollows)
{
    for (const char* layout : {"moov-first", "mdat-first"}) {
        SCOPED_TRACE(layout);
        Work m(std::string("--model older --layout ") + layout);
        m.hideUdta();
        const int64_t size = int64_t(fs::file_size(m.file)), oldSize = int64_t(payloadAt(m.file, kAvcC).size());
        capture([&] { ASSERT_TRUE(m.c.appendFullRangeAndConstrainedSet1Flag(true)); });
        const int64_t delta = int64_t(payloadAt(m.file, kAvcC).size()) - oldSize;
        ASSERT_NE(delta, 0);
        EXPECT_EQ(int64_t(fs::file_size(m.file)), size + delta);
        expectIntact(m.original, m.file); // chunk offsets moved with the media
        EXPECT_EQ(colorRange(m.file), "pc");
    }
}

TEST(MovieEdit, UdtaReplacedAndAppended)
{
    // The last movie keeps its spatial data behind moov: its chunk offsets
    // and the QDT9 pointer move with it.
    for (const char* options : {"--model older --layout moov-first", "--model older --layout mdat-first",
                                "--model newer --spatial after-moov"}) {
        SCOPED_TRACE(options);
        Work m(options);
        Bytes f = readFile(m.file);
        auto udta = findOne(f, "moov.udta");
        // A larger udta: the old one with a free box of 300 bytes more.
        Bytes bigger = cat({slice(f, udta->start, udta->size), box("free", Bytes(300, 0))});
        put32be(bigger.data(), uint32_t(bigger.size()));
        ASSERT_TRUE(m.c.replaceUdta(0, ByteArray(bigger.data(), bigger.size())));
        expectIntact(m.original, m.file);
        EXPECT_EQ(findOne(readFile(m.file), "moov.udta")->size, bigger.size());

        // Without a udta the new one (a copy of the current one, whose QDT9
        // points at the spatial data as it lies now) is appended to moov.
        Bytes g = readFile(m.file);
        Bytes current = slice(g, findOne(g, "moov.udta")->start, findOne(g, "moov.udta")->size);
        m.hideUdta();
        ASSERT_TRUE(m.c.replaceUdta(0, ByteArray(current.data(), current.size())));
        expectIntact(m.original, m.file);
        EXPECT_EQ(findAll(readFile(m.file), "moov.udta").size(), 1u);
    }
}

TEST(MovieEdit, GpsMetaCopiedOnceFromTheSource)
{
    const fs::path source = sharedMovie("--model newer");
    Work m("--model newer --no-meta --spatial none");
    MP4::Container src;
    ASSERT_TRUE(src.attach(w(source)));
    MP4::BOX* meta = src.first("moov.meta");
    ASSERT_NE(meta, nullptr);
    bool ok = false;
    auto copy = [&] {
        GLTK::FileIO::open(w(source), [&](GLTK::FileIO& in) { ok = m.c.appendGpsMeta(in, meta->start, meta->size); });
    };
    copy();
    ASSERT_TRUE(ok);
    expectIntact(m.original, m.file);
    EXPECT_EQ(payloadAt(m.file, "moov.meta"), payloadAt(source, "moov.meta"));
    Bytes once = readFile(m.file);
    EXPECT_EQ(capture(copy), "MP4: moov.meta(GPS) is existed.\n");
    EXPECT_TRUE(ok);
    EXPECT_EQ(readFile(m.file), once);
}

} // namespace
