// Container edits on synthetic camera movies, checked with tools we did not
// write: ffmpeg must decode the result without a word, every sample of every
// track must keep its bytes, box sizes must nest exactly and every chunk must
// still lie in its media data.
#include "AccelSensorStreamEmbed.h"
#include "GLTKwchar.h"
#include "GPSInfo.h"
#include "MP4Container.h"
#include "Movies.h"
#include "SensorStreamBoxes.h"
#include "SpatialSound.h"
#include "SyntheticBoxes.h"

#include <cmath>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
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

ino_t inode(const fs::path& p)
{
    struct stat st;
    return stat(p.c_str(), &st) == 0 ? st.st_ino : 0;
}

const std::string kSph = "uuid=ffcc8263f8554a938814587a02521fdd";
const std::string kSpatial = "uuid=28f311e2b7914f6f94e24f5deacb3c01";

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
};

TEST(MovieEdit, SphericalXmlInsertedThenReplacedOnBothLayouts)
{
    for (const char* layout : {"moov-first", "mdat-first"}) {
        SCOPED_TRACE(layout);
        Work m(std::string("--model older --no-sph --layout ") + layout);
        Bytes before = readFile(m.file);
        std::string xml(1000, 'a');
        ASSERT_TRUE(m.c.appendSphericalVideoXML(xml));
        expectIntact(m.original, m.file);
        EXPECT_EQ(payloadAt(m.file, "moov.trak." + kSph), text(xml));
        Bytes after = readFile(m.file);
        EXPECT_EQ(after.size(), before.size() + 1024);
        if (std::string(layout) == "mdat-first") {
            EXPECT_EQ(chunkOffsets(after), chunkOffsets(before));
        }

        std::string longer(1500, 'b');
        ASSERT_TRUE(m.c.appendSphericalVideoXML(longer));
        expectIntact(m.original, m.file);
        EXPECT_EQ(payloadAt(m.file, "moov.trak." + kSph), text(longer));
        EXPECT_EQ(findAll(readFile(m.file), "moov.trak.uuid").size(), 1u);
        EXPECT_EQ(fs::file_size(m.file), before.size() + 1524);
    }
}

TEST(MovieEdit, XmpAndAxisAreReadableByExiftool)
{
    Work m("--model older --no-xmp --no-axis");
    const std::string xmp =
        "<?xpacket begin='\xEF\xBB\xBF' id='W5M0MpCehiHzreSzNTczkc9d'?>\n"
        "<x:xmpmeta xmlns:x='adobe:ns:meta/'>\n"
        " <rdf:RDF xmlns:rdf='http://www.w3.org/1999/02/22-rdf-syntax-ns#'>\n"
        "  <rdf:Description rdf:about='' xmlns:xmp='http://ns.adobe.com/xap/1.0/'>\n"
        "   <xmp:CreatorTool>Resize edit test</xmp:CreatorTool>\n"
        "  </rdf:Description>\n"
        " </rdf:RDF>\n"
        "</x:xmpmeta>\n<?xpacket end='w'?>\n";
    ASSERT_TRUE(m.c.appendXMP(xmp));
    ASSERT_TRUE(m.c.appendAxis("axis record"));
    EXPECT_EQ(capture([&] { EXPECT_TRUE(m.c.appendXMP(xmp)); }), "MP4: XMP is existed.\n");
    EXPECT_EQ(capture([&] { EXPECT_TRUE(m.c.appendAxis("x")); }), "MP4: AXIS is existed.\n");
    expectIntact(m.original, m.file);
    std::string out;
    ASSERT_EQ(run("exiftool -s -s -s -XMP:CreatorTool " + q(m.file), &out), 0) << out;
    EXPECT_EQ(out, "Resize edit test\n");
    EXPECT_EQ(payloadAt(m.file, "uuid=8e4e1f9781f34d5997b5ff05a27cdb7b"), text("axis record"));
}

TEST(MovieEdit, LocationBoxesAreAddedWhereNoneRemain)
{
    GPSInfo gps;
    gps.attachRXYZ("+35.6586+139.7454+040.000/");
    // A movie without any position box: all three are added to its udta.
    Work m("--model older --no-xyz --no-loci --layout moov-first");
    ASSERT_TRUE(m.c.appendLocations(gps));
    expectIntact(m.original, m.file);
    EXPECT_EQ(payloadAt(m.file, "moov.udta.@xyz"), text("+35.6586+139.7454+040.000/"));
    Bytes loci = payloadAt(m.file, "moov.udta.loci");
    ASSERT_EQ(loci.size(), 24u);
    EXPECT_EQ(get32(loci, 8), uint32_t(std::lround(139.7454 * 65536)));
    EXPECT_EQ(get32(loci, 12), uint32_t(std::lround(35.6586 * 65536)));
    EXPECT_EQ(get32(loci, 16), 40u << 16);
    Bytes edited = readFile(m.file);
    auto cxyz = findOne(edited, "moov.udta.\xA9xyz");
    ASSERT_TRUE(cxyz);
    EXPECT_EQ(slice(edited, cxyz->body(), cxyz->size - 8), cat({Bytes{0, 18, 0x15, 0xC7}, text("+35.6586+139.7454/")}));
    std::string out;
    run("exiftool -n -s -s -s -GPSLatitude -GPSLongitude " + q(m.file), &out);
    EXPECT_NE(out.find("35.6586"), std::string::npos) << out;

    // Nothing left to add.
    EXPECT_EQ(capture([&] { EXPECT_TRUE(m.c.appendLocations(gps)); }), "MP4: No location-boxes were appended.\n");

    // A movie whose moov has no udta gets one.
    Work bare("--model none --no-qmkn --no-sensors --no-thumb --no-xyz --no-loci --layout moov-first");
    if (bare.c.first("moov.udta") != nullptr)
        GTEST_SKIP() << "the builder still wrote a udta";
    ASSERT_TRUE(bare.c.appendLocations(gps));
    expectIntact(bare.original, bare.file);
    EXPECT_EQ(findAll(readFile(bare.file), "moov.udta").size(), 1u);
    EXPECT_EQ(payloadAt(bare.file, "moov.udta.@xyz"), text("+35.6586+139.7454+040.000/"));
}

TEST(MovieEdit, LocationAndSphericalXmlInOneEdit)
{
    GPSInfo gps;
    gps.attachRXYZ("-33.8688+151.2093/");
    for (const char* layout : {"moov-first", "mdat-first"}) {
        SCOPED_TRACE(layout);
        Work m(std::string("--model older --no-sph --no-loci --layout ") + layout);
        ASSERT_TRUE(m.c.appendLocationAndSphericalVideoXML(gps, std::string(1000, 'x')));
        expectIntact(m.original, m.file);
        EXPECT_EQ(payloadAt(m.file, "moov.trak." + kSph).size(), 1000u);
        Bytes loci = payloadAt(m.file, "moov.udta.loci");
        EXPECT_EQ(int32_t(get32(loci, 12)), int32_t(std::lround(-33.8688 * 65536)));
        // The @xyz box was there already and is kept as it was.
        EXPECT_EQ(payloadAt(m.file, "moov.udta.@xyz"), payloadAt(m.original, "moov.udta.@xyz"));
    }
}

TEST(MovieEdit, BadLociIsRemovedAndTheMovieDecodesAgain)
{
    Work m("--model older --loci bad --layout moov-first");
    std::string why;
    EXPECT_FALSE(decodesCleanly(m.file, &why)); // what the damaged box does to ffmpeg
    ASSERT_TRUE(m.c.removeBadLOCI());
    EXPECT_TRUE(findAll(readFile(m.file), "moov.udta.loci").empty());
    expectIntact(m.original, m.file);
    // A fresh one can then be added.
    GPSInfo gps;
    gps.attachRXYZ("+35.6586+139.7454/");
    ASSERT_TRUE(m.c.appendLocations(gps));
    expectIntact(m.original, m.file);
    EXPECT_EQ(payloadAt(m.file, "moov.udta.loci").size(), 24u);
}

// ------------------------------------------------------------------ avcC

// "pc" for full range, "tv" or "unknown" otherwise.
std::string colorRange(const fs::path& f)
{
    std::string out;
    run("ffprobe -v error -select_streams v:0 -show_entries stream=color_range -of default=nw=1:nk=1 " + q(f), &out);
    return out.substr(0, out.find_first_of(",\n"));
}

// The avcC box's bytes and where they are.
Bytes avcC(const fs::path& f) { return payloadAt(f, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC"); }

TEST(MovieEdit, AvcCReusesTheUdtaSpaceThenRewritesInPlace)
{
    Work m("--model older --layout moov-first");
    const Bytes before = readFile(m.file);
    const Bytes oldRecord = avcC(m.file);
    const BoxAt udta = *findOne(before, "moov.udta");
    const ino_t file = inode(m.file); // edits in place keep the file
    std::string out = capture([&] { ASSERT_TRUE(m.c.appendFullRangeAndConstrainedSet1Flag(true)); });
    EXPECT_NE(out.find("Container::appendFullRangeAndConstrainedSet1Flag: 0 - 1, constrained_set1_flag:  0 - 1\n"),
              std::string::npos)
        << out;
    const Bytes after = readFile(m.file);
    const int64_t delta = int64_t(avcC(m.file).size()) - int64_t(oldRecord.size());
    ASSERT_NE(delta, 0) << "the record kept its length; this movie cannot show the udta strategy";
    // moov kept its length, the udta became a free box ending where it ended.
    EXPECT_EQ(after.size(), before.size());
    EXPECT_EQ(inode(m.file), file);
    EXPECT_EQ(findOne(after, "moov")->size, findOne(before, "moov")->size);
    EXPECT_TRUE(findAll(after, "moov.udta").empty());
    auto freeBox = findOne(after, "moov.free");
    ASSERT_TRUE(freeBox);
    EXPECT_EQ(freeBox->start, udta.start + delta);
    EXPECT_EQ(freeBox->end(), udta.end());
    EXPECT_EQ(chunkOffsets(after), chunkOffsets(before));
    std::string why;
    EXPECT_TRUE(decodesCleanly(m.file, &why)) << why;
    EXPECT_TRUE(samplesEqual(m.original, m.file, &why)) << why;
    EXPECT_TRUE(nestingOk(m.file, &why)) << why;
    EXPECT_EQ(colorRange(m.file), "pc");

    // Back to limited range: the record keeps its length and only its bytes
    // change.
    out = capture([&] { ASSERT_TRUE(m.c.appendFullRangeAndConstrainedSet1Flag(false)); });
    EXPECT_EQ(out, "Container::appendFullRangeAndConstrainedSet1Flag: 1 - 0, constrained_set1_flag:  1 - 1\n");
    const Bytes again = readFile(m.file);
    ASSERT_EQ(again.size(), after.size());
    EXPECT_EQ(inode(m.file), file);
    auto box = findOne(again, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC");
    for (size_t i = 0; i < again.size(); ++i)
        if (i < box->start || i >= box->end()) {
            ASSERT_EQ(again[i], after[i]) << "byte " << i << " outside the avcC changed";
        }
    EXPECT_NE(colorRange(m.file), "pc");
    EXPECT_TRUE(decodesCleanly(m.file, &why)) << why;

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
        // Take the udta out of play: renamed, it is no longer moov's udta.
        Bytes f = readFile(m.file);
        auto udta = findOne(f, "moov.udta");
        ASSERT_TRUE(udta);
        std::memcpy(f.data() + udta->start + 4, "skip", 4);
        writeFile(m.file, f);
        ASSERT_TRUE(m.c.attach(w(m.file)));
        const size_t oldSize = avcC(m.file).size();
        testing::internal::CaptureStdout();
        ASSERT_TRUE(m.c.appendFullRangeAndConstrainedSet1Flag(true));
        testing::internal::GetCapturedStdout();
        const Bytes after = readFile(m.file);
        const int64_t delta = int64_t(avcC(m.file).size()) - int64_t(oldSize);
        ASSERT_NE(delta, 0);
        EXPECT_EQ(int64_t(after.size()), int64_t(f.size()) + delta);
        std::vector<uint64_t> a = chunkOffsets(f), b = chunkOffsets(after);
        ASSERT_EQ(a.size(), b.size());
        for (size_t i = 0; i < a.size(); ++i)
            EXPECT_EQ(b[i], std::string(layout) == "moov-first" ? a[i] + delta : a[i]);
        expectIntact(m.original, m.file);
        EXPECT_EQ(colorRange(m.file), "pc");
    }
}

// ------------------------------------------------------------------ udta

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
        // A larger udta: the old one with one more box.
        Bytes bigger = slice(f, udta->start, udta->size);
        Bytes pad(308, 0); // a free box of 300 zero bytes
        put32be(pad.data(), 308);
        std::memcpy(pad.data() + 4, "free", 4);
        bigger.insert(bigger.end(), pad.begin(), pad.end());
        put32be(bigger.data(), uint32_t(bigger.size()));
        ASSERT_TRUE(m.c.replaceUdta(0, ByteArray(bigger.data(), bigger.size())));
        expectIntact(m.original, m.file);
        EXPECT_EQ(findOne(readFile(m.file), "moov.udta")->size, bigger.size());

        // Without a udta the new one (a copy of the current one, whose QDT9
        // points at the spatial data as it lies now) is appended to moov.
        Bytes g = readFile(m.file);
        auto u = findOne(g, "moov.udta");
        Bytes current = slice(g, u->start, u->size);
        std::memcpy(g.data() + u->start + 4, "skip", 4);
        writeFile(m.file, g);
        ASSERT_TRUE(m.c.attach(w(m.file)));
        ASSERT_TRUE(m.c.replaceUdta(0, ByteArray(current.data(), current.size())));
        expectIntact(m.original, m.file);
        EXPECT_EQ(findAll(readFile(m.file), "moov.udta").size(), 1u);
    }
}

// ------------------------------------------------------------------ GPS meta

TEST(MovieEdit, GpsMetaCopiedFromTheSource)
{
    const fs::path source = sharedMovie("--model newer");
    Work m("--model newer --no-meta --spatial none");
    MP4::Container src;
    ASSERT_TRUE(src.attach(w(source)));
    MP4::BOX* meta = src.first("moov.meta");
    ASSERT_NE(meta, nullptr);
    bool ok = false;
    GLTK::FileIO::open(w(source), [&](GLTK::FileIO& in) { ok = m.c.appendGpsMeta(in, meta->start, meta->size); });
    ASSERT_TRUE(ok);
    expectIntact(m.original, m.file);
    EXPECT_EQ(payloadAt(m.file, "moov.meta"), payloadAt(source, "moov.meta"));
    EXPECT_EQ(capture([&] {
                  GLTK::FileIO::open(w(source), [&](GLTK::FileIO& in) { m.c.appendGpsMeta(in, meta->start, meta->size); });
              }),
              "MP4: moov.meta(GPS) is existed.\n");
}

// ------------------------------------------------------------------ spatial data

// A re-encoded output as the rebuild meets it: no spatial data yet, and the
// source's udta (with its QDT9 pointer) already copied over.
struct SpatialWork : Work {
    fs::path source = sharedMovie("--model newer");
    uint64_t offset = 0, length = 0;
    SpatialWork() : Work("--model newer --spatial none")
    {
        MP4::Container src;
        EXPECT_TRUE(src.attach(w(source)));
        MP4::BOX* udta = src.first("moov.udta");
        ByteArray copy;
        copy.resize(udta->size);
        src.open([&](GLTK::FileIO& f) {
            f.seek_set(udta->start);
            f.read(copy.data, copy.length);
        });
        EXPECT_TRUE(c.replaceUdta(0, copy));
        src.find("uuid", [&](MP4::BOX& b) {
            if (static_cast<MP4::UUID&>(b).hasUserType(MP4::SpatialData::_UUID)) {
                offset = b.start;
                length = b.size;
            }
            return true;
        });
        EXPECT_GT(length, 0u);
    }
};

TEST(MovieEdit, SpatialDataCarriedOverWhole)
{
    SpatialWork m;
    bool ok = false;
    GLTK::FileIO::open(w(m.source), [&](GLTK::FileIO& in) { ok = m.c.appendSpatialData(in, m.offset, m.length); });
    ASSERT_TRUE(ok);
    // The source's tracks, spatial samples included, read the same.
    expectIntact(m.source, m.file);
    EXPECT_EQ(payloadAt(m.file, kSpatial + ".QADT"), payloadAt(m.source, kSpatial + ".QADT"));
    auto qadt = findOne(readFile(m.file), "uuid.QADT");
    EXPECT_EQ(get64(payloadAt(m.file, "moov.udta.QDT9"), 0), qadt->start);
}

TEST(MovieEdit, SpatialDataTrimmedToASecond)
{
    SpatialWork m;
    MP4::SpatialSound sound;
    ASSERT_TRUE(sound.attach(w(m.source), 0.5, 1.5));
    EXPECT_EQ(sound.startByte, 24000u * 8);
    EXPECT_EQ(sound.sampleCount, 48000u);
    bool ok = false;
    GLTK::FileIO::open(w(m.source), [&](GLTK::FileIO& in) { ok = m.c.trimSpatialData(in, m.offset, sound); });
    ASSERT_TRUE(ok);
    std::string why;
    EXPECT_TRUE(decodesCleanly(m.file, &why)) << why;
    EXPECT_TRUE(nestingOk(m.file, &why)) << why;
    EXPECT_TRUE(offsetsOk(m.file, &why)) << why;
    // The movie's own tracks are untouched (compared without spatial data).
    EXPECT_TRUE(samplesEqual(m.original, m.file, &why)) << why;
    Bytes kept = payloadAt(m.file, kSpatial + ".QADT");
    ASSERT_EQ(kept.size(), 384000u);
    EXPECT_EQ(kept, slice(payloadAt(m.source, kSpatial + ".QADT"), 192000, 384000));
    // Each sample carries its index in its first two channels.
    EXPECT_EQ(kept[0] | kept[1] << 8, 24000);
    Bytes qdt9 = payloadAt(m.file, "moov.udta.QDT9");
    auto qadt = findOne(readFile(m.file), "uuid.QADT");
    EXPECT_EQ(get64(qdt9, 0), qadt->start);
    EXPECT_EQ(get64(qdt9, 8), 384008u);
}

// ------------------------------------------------------------------ sensor boxes

TEST(MovieEdit, SensorBoxesReadAndTrimmedInBothByteOrders)
{
    for (const char* endian : {"little", "big"}) {
        SCOPED_TRACE(endian);
        Work m(std::string("--model older --layout mdat-first --sensor-endian ") + endian);
        std::vector<AccelSensorStreamEmbed::Ecompass> e;
        std::vector<AccelSensorStreamEmbed::TopBottomCorrection> d;
        unsigned short extra = 0;
        AccelSensorStreamEmbed::loadM29_QDTC(m.c, e, extra);
        AccelSensorStreamEmbed::loadM29_QDTD(m.c, d, extra);
        std::string listing;
        ASSERT_EQ(mp4check("sensor " + q(m.file) + " QDTD", &listing), 0) << listing;
        ASSERT_GT(d.size(), 20u);
        char line[128];
        std::snprintf(line, sizeof line, "\n10 x=%d y=%d z=%d", d[10].x, d[10].y, d[10].z);
        EXPECT_NE(listing.find(line), std::string::npos) << listing.substr(0, 300);
        ASSERT_EQ(e.size(), d.size());

        // Cut both streams to records 5 .. 14 in a copy of udta and put it back.
        MP4::BOX* udta = m.c.first("moov.udta");
        ByteArray copy;
        copy.resize(udta->size);
        m.c.open([&](GLTK::FileIO& f) {
            f.seek_set(udta->start);
            f.read(copy.data, copy.length);
        });
        ASSERT_TRUE(SensorStream::trimSensorBoxIn(copy, "QDTD", 16, 5, 10));
        ASSERT_TRUE(SensorStream::trimSensorBoxIn(copy, "QDTC", 24, 5, 10));
        ASSERT_TRUE(m.c.replaceUdta(0, copy));
        expectIntact(m.original, m.file);
        std::vector<AccelSensorStreamEmbed::TopBottomCorrection> cut;
        AccelSensorStreamEmbed::loadM29_QDTD(m.c, cut, extra);
        ASSERT_EQ(cut.size(), 10u);
        EXPECT_EQ(cut[0].t, d[5].t);
        EXPECT_EQ(cut[9].x, d[14].x);
        ASSERT_EQ(mp4check("sensor " + q(m.file) + " QDTC", &listing), 0) << listing;
        EXPECT_NE(listing.find(" count=10 "), std::string::npos) << listing.substr(0, 200);
    }
}

// ------------------------------------------------------------------ faults

TEST(MovieEdit, CopyingEditOnAFullDiskLeavesTheMovie)
{
    Work m("--model older --layout moov-first --no-sph");
    const Bytes before = readFile(m.file);
    pid_t pid = fork();
    if (pid == 0) {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit lim = {static_cast<rlim_t>(before.size() / 2), static_cast<rlim_t>(before.size() / 2)};
        setrlimit(RLIMIT_FSIZE, &lim);
        MP4::Container c;
        if (!c.attach(w(m.file)))
            _exit(3);
        testing::internal::CaptureStdout();
        bool ok = c.appendSphericalVideoXML(std::string(1000, 'a'));
        std::string out = testing::internal::GetCapturedStdout();
        bool said = out.find("Container::modifyContainer::appendSphericalVideoXML(") != std::string::npos &&
                    out.find(".tmp.mp4) failed.\n") != std::string::npos;
        _exit(ok ? 1 : said ? 0 : 2);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(readFile(m.file), before);
    EXPECT_FALSE(fs::exists(m.dir / "m.mp4.tmp.mp4"));
}

} // namespace
