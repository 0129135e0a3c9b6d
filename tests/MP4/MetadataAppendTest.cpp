// The uuid appenders (XMP, axis, Spherical Video V1) and the GPS meta copy on
// small synthetic movies, checked with an independent box walker.
#include "GLTKwchar.h"
#include "MP4Container.h"
#include "SyntheticBoxes.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

std::wstring w(const fs::path& p) { return GLTK::wchar::mbs2wcs(p.string()); }

std::string capture(const std::function<void()>& f)
{
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

// ftyp, moov (video track with stco, sound track with co64), mdat; or
// ftyp, mdat, moov. The media bytes follow their layout.
struct Layout {
    Bytes file;
    Bytes media;
};
Layout movie(bool moovFirst, const Bytes& videoExtra = {})
{
    Bytes ftyp = box("ftyp", text("isomiso2"));
    Bytes media = pattern(3000);
    auto build = [&](uint32_t mediaAt) {
        return box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)),
                                mediaTrak(960, 480, {mediaAt, mediaAt + 1000}, 1000, false, videoExtra),
                                mediaTrak(0, 0, {mediaAt + 2000}, 1000, true)}));
    };
    Layout l;
    l.media = media;
    if (moovFirst) {
        Bytes probe = build(0);
        Bytes moov = build(uint32_t(ftyp.size() + probe.size() + 8));
        l.file = cat({ftyp, moov, box("mdat", media)});
    } else {
        Bytes mdat = box("mdat", media);
        l.file = cat({ftyp, mdat, build(uint32_t(ftyp.size() + 8))});
    }
    return l;
}

// Each chunk still holds the same bytes.
void expectMediaIntact(const Bytes& file, const Layout& l)
{
    std::vector<uint64_t> offs = chunkOffsets(file);
    ASSERT_EQ(offs.size(), 3u);
    // stco entries come first: video chunks 0 and 1, then the co64 sound chunk.
    for (size_t i = 0; i < 3; ++i) {
        ASSERT_LE(offs[i] + 1000, file.size());
        EXPECT_EQ(slice(file, offs[i], 1000), slice(l.media, i * 1000, 1000)) << "chunk " << i;
    }
    std::string why;
    EXPECT_TRUE(nestsExactly(file, &why)) << why;
}

TEST(MetadataAppend, XmpAndAxisAreAppendedOnceAtTheEnd)
{
    TempDir dir;
    Layout l = movie(false);
    writeFile(dir / "m.mp4", l.file);
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
    std::string xmp = std::string(1000, 'x');
    ASSERT_TRUE(c.appendXMP(xmp));
    Bytes f = readFile(dir / "m.mp4");
    ASSERT_EQ(f.size(), l.file.size() + 1024);
    EXPECT_EQ(slice(f, 0, l.file.size()), l.file);
    size_t at = l.file.size();
    EXPECT_EQ(slice(f, at, 8), cat({Bytes{0x00, 0x00, 0x04, 0x00}, text("uuid")}));
    EXPECT_EQ(slice(f, at + 8, 16), kXmpUUID);
    EXPECT_EQ(slice(f, at + 24, 1000), text(xmp));

    EXPECT_EQ(capture([&] { EXPECT_TRUE(c.appendXMP("other")); }), "MP4: XMP is existed.\n");
    EXPECT_EQ(readFile(dir / "m.mp4"), f);

    ASSERT_TRUE(c.appendAxis(std::string("\x01\x02\x00\x03", 4)));
    Bytes g = readFile(dir / "m.mp4");
    ASSERT_EQ(g.size(), f.size() + 28);
    EXPECT_EQ(slice(g, f.size() + 8, 16),
              (Bytes{0x8E, 0x4E, 0x1F, 0x97, 0x81, 0xF3, 0x4D, 0x59, 0x97, 0xB5, 0xFF, 0x05, 0xA2, 0x7C, 0xDB, 0x7B}));
    EXPECT_EQ(slice(g, f.size() + 24, 4), (Bytes{1, 2, 0, 3}));
    EXPECT_EQ(capture([&] { EXPECT_TRUE(c.appendAxis("again")); }), "MP4: AXIS is existed.\n");
    expectMediaIntact(g, l);
}

TEST(MetadataAppend, AnOpenEndedLastBoxIsSealedBeforeAppending)
{
    TempDir dir;
    Layout l = movie(true);
    Bytes f = l.file;
    size_t mdatAt = f.size() - 3008;
    f[mdatAt] = f[mdatAt + 1] = f[mdatAt + 2] = f[mdatAt + 3] = 0; // mdat runs to the end of the file
    writeFile(dir / "m.mp4", f);
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
    ASSERT_TRUE(c.appendXMP("<x/>"));
    Bytes g = readFile(dir / "m.mp4");
    EXPECT_EQ(get32(g, mdatAt), 3008u);
    EXPECT_TRUE(findOne(g, "uuid").has_value());
    expectMediaIntact(g, l);
}

TEST(MetadataAppend, SphericalXmlInMoovFirstMovieShiftsEveryChunkOffset)
{
    TempDir dir;
    Layout l = movie(true);
    writeFile(dir / "m.mp4", l.file);
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
    const uint64_t moovSize = c.moov->size, trakSize = c.videoTrack->size;
    std::vector<uint64_t> before = chunkOffsets(l.file);
    std::string xml(500, 's');
    ASSERT_TRUE(c.appendSphericalVideoXML(xml));
    Bytes f = readFile(dir / "m.mp4");
    EXPECT_EQ(f.size(), l.file.size() + 524);
    auto moov = findOne(f, "moov");
    auto traks = findAll(f, "moov.trak");
    ASSERT_TRUE(moov && traks.size() == 2);
    EXPECT_EQ(moov->size, moovSize + 524);
    EXPECT_EQ(traks[0].size, trakSize + 524);
    // The box is the video track's last child.
    auto uuid = findOne(f, "moov.trak.uuid");
    ASSERT_TRUE(uuid);
    EXPECT_EQ(uuid->end(), traks[0].end());
    EXPECT_EQ(slice(f, uuid->body(), 16), kSphericalUUID);
    EXPECT_EQ(slice(f, uuid->body() + 16, 500), text(xml));
    std::vector<uint64_t> after = chunkOffsets(f);
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < before.size(); ++i)
        EXPECT_EQ(after[i], before[i] + 524);
    expectMediaIntact(f, l);
    EXPECT_FALSE(fs::exists(dir / "m.mp4.tmp.mp4"));

    // A longer XML replaces the box in place: only the difference is added.
    ASSERT_TRUE(c.appendSphericalVideoXML(std::string(700, 't')));
    Bytes g = readFile(dir / "m.mp4");
    EXPECT_EQ(findAll(g, "moov.trak.uuid").size(), 1u);
    EXPECT_EQ(findOne(g, "moov")->size, moovSize + 724);
    EXPECT_EQ(findAll(g, "moov.trak")[0].size, trakSize + 724);
    EXPECT_EQ(findAll(g, "moov.trak")[1].size, traks[1].size);
    std::vector<uint64_t> again = chunkOffsets(g);
    for (size_t i = 0; i < before.size(); ++i)
        EXPECT_EQ(again[i], before[i] + 724);
    expectMediaIntact(g, l);
}

TEST(MetadataAppend, SphericalXmlInMdatFirstMovieLeavesOffsets)
{
    TempDir dir;
    Layout l = movie(false);
    writeFile(dir / "m.mp4", l.file);
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
    ASSERT_TRUE(c.appendSphericalVideoXML(std::string(500, 's')));
    Bytes f = readFile(dir / "m.mp4");
    EXPECT_EQ(chunkOffsets(f), chunkOffsets(l.file));
    EXPECT_EQ(slice(f, 0, 16 + 3008), slice(l.file, 0, 16 + 3008)); // ftyp and mdat untouched
    expectMediaIntact(f, l);
}

TEST(MetadataAppend, SphericalXmlRefusesATrackRunningPastMoov)
{
    TempDir dir;
    Bytes g = movie(true).file;
    auto v = findAll(g, "moov.trak")[0];
    put32be(g.data() + v.start, uint32_t(0x7FFFFFF0)); // the video track claims 2 GB
    writeFile(dir / "h.mp4", g);
    MP4::Container h;
    ASSERT_TRUE(h.attach(w(dir / "h.mp4")));
    ASSERT_NE(h.videoTrack, nullptr);
    std::string out = capture([&] { EXPECT_FALSE(h.appendSphericalVideoXML("<a/>")); });
    EXPECT_NE(out.find("Container::modifyContainer::appendSphericalVideoXML("), std::string::npos) << out;
    EXPECT_EQ(readFile(dir / "h.mp4"), g);
    EXPECT_FALSE(fs::exists(dir / "h.mp4.tmp.mp4"));
}

TEST(MetadataAppend, GpsMetaIsCopiedOnceBehindMoovsLastChild)
{
    TempDir dir;
    Bytes meta = fullbox("meta", 0, cat({fullbox("hdlr", 0, cat({u32s({0}), text("mdta"), Bytes(13, 0)})),
                                          box("keys", pattern(40, 3)), box("ilst", pattern(60, 4))}));
    Bytes source = cat({box("ftyp", text("isom")), box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)), meta}))});
    writeFile(dir / "src.mp4", source);
    const uint64_t metaAt = source.size() - meta.size();

    Layout l = movie(true);
    writeFile(dir / "m.mp4", l.file);
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
    bool ok = false;
    GLTK::FileIO::open(w(dir / "src.mp4"), [&](GLTK::FileIO& src) { ok = c.appendGpsMeta(src, metaAt, meta.size()); });
    ASSERT_TRUE(ok);
    Bytes f = readFile(dir / "m.mp4");
    auto moov = findOne(f, "moov");
    auto copied = findOne(f, "moov.meta");
    ASSERT_TRUE(moov && copied);
    EXPECT_EQ(copied->end(), moov->end());
    EXPECT_EQ(slice(f, copied->start, copied->size), meta);
    EXPECT_EQ(chunkOffsets(f)[0], chunkOffsets(l.file)[0] + meta.size());
    expectMediaIntact(f, l);

    std::string out = capture([&] {
        GLTK::FileIO::open(w(dir / "src.mp4"), [&](GLTK::FileIO& src) { ok = c.appendGpsMeta(src, metaAt, meta.size()); });
    });
    EXPECT_TRUE(ok);
    EXPECT_EQ(out, "MP4: moov.meta(GPS) is existed.\n");
    EXPECT_EQ(readFile(dir / "m.mp4"), f);
}

TEST(MetadataAppend, GpsMetaFromAWrongPlaceIsRefused)
{
    TempDir dir;
    Bytes source = cat({box("ftyp", text("isom")), box("moov", fullbox("mvhd", 0, Bytes(96, 0)))});
    writeFile(dir / "src.mp4", source);
    Layout l = movie(true);
    writeFile(dir / "m.mp4", l.file);
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
    for (auto [offset, length] : {std::pair<uint64_t, uint64_t>{0, 16},           // an ftyp, not a meta box
                                  {8, 1u << 30},                                    // runs past the file
                                  {UINT64_MAX - 4, 100}}) {                         // offset past the file
        bool ok = true;
        std::string out = capture([&] {
            GLTK::FileIO::open(w(dir / "src.mp4"), [&](GLTK::FileIO& src) { ok = c.appendGpsMeta(src, offset, length); });
        });
        EXPECT_FALSE(ok);
        EXPECT_NE(out.find("Container::modifyContainer::appendGPSMeta("), std::string::npos) << out;
        EXPECT_EQ(readFile(dir / "m.mp4"), l.file);
        EXPECT_FALSE(fs::exists(dir / "m.mp4.tmp.mp4"));
    }
}

TEST(MetadataAppend, UdtaAppendedBeforeATailOnlyAtABoxBoundary)
{
    TempDir dir;
    Layout l = movie(true);
    writeFile(dir / "m.mp4", l.file);
    Bytes udta = box("udta", box("@mod", text("NARVI ORVEX SC")));
    ByteArray bytes(udta.data(), udta.size());
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
    auto traks = findAll(l.file, "moov.trak");
    // In the middle of the last track: refused, nothing written.
    testing::internal::CaptureStdout();
    EXPECT_FALSE(c.replaceUdta(10, bytes));
    EXPECT_NE(testing::internal::GetCapturedStdout().find("replaceUdta_Append("), std::string::npos);
    EXPECT_EQ(readFile(dir / "m.mp4"), l.file);
    // In front of the last track.
    ASSERT_TRUE(c.replaceUdta(traks[1].size, bytes));
    Bytes f = readFile(dir / "m.mp4");
    auto u = findOne(f, "moov.udta");
    ASSERT_TRUE(u);
    EXPECT_EQ(u->start, traks[1].start);
    EXPECT_EQ(findAll(f, "moov.trak")[1].start, traks[1].start + udta.size());
    EXPECT_EQ(findOne(f, "moov")->size, findOne(l.file, "moov")->size + udta.size());
    std::vector<uint64_t> before = chunkOffsets(l.file), after = chunkOffsets(f);
    for (size_t i = 0; i < before.size(); ++i)
        EXPECT_EQ(after[i], before[i] + udta.size());
    expectMediaIntact(f, l);
}

} // namespace
