// Appending to small synthetic movies where the camera movies cannot show
// the case: an open-ended last box, damaged tracks, wrong source places and
// a udta placed before a tail of moov.
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

// ftyp, moov (video track with stco, sound track with co64), mdat.
struct Movie {
    TempDir dir;
    Bytes media = pattern(3000), file;
    MP4::Container c;
    explicit Movie(const std::function<void(Bytes&)>& damage = nullptr)
    {
        Bytes ftyp = box("ftyp", text("isomiso2"));
        auto moov = [&](uint32_t at) {
            return box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)), mediaTrak(960, 480, {at, at + 1000}, 1000),
                                    mediaTrak(0, 0, {at + 2000}, 1000, true)}));
        };
        file = cat({ftyp, moov(uint32_t(ftyp.size() + moov(0).size() + 8)), box("mdat", media)});
        if (damage)
            damage(file);
        writeFile(dir / "m.mp4", file);
        EXPECT_TRUE(c.attach(w(dir / "m.mp4")));
    }
    // Each chunk still holds its bytes and the sizes nest.
    Bytes expectMediaIntact()
    {
        Bytes f = readFile(dir / "m.mp4");
        std::vector<uint64_t> offs = chunkOffsets(f);
        EXPECT_EQ(offs.size(), 3u);
        for (size_t i = 0; i < offs.size(); ++i)
            EXPECT_EQ(slice(f, offs[i], 1000), slice(media, i * 1000, 1000)) << "chunk " << i;
        std::string why;
        EXPECT_TRUE(nestsExactly(f, &why)) << why;
        return f;
    }
    bool unchanged() { return readFile(dir / "m.mp4") == file && !fs::exists(dir / "m.mp4.tmp.mp4"); }
};

TEST(MetadataAppend, AnOpenEndedLastBoxIsSealedBeforeAppending)
{
    size_t mdatAt = 0;
    Movie m([&](Bytes& f) {
        mdatAt = f.size() - 3008;
        put32be(f.data() + mdatAt, 0); // mdat runs to the end of the file
    });
    ASSERT_TRUE(m.c.appendXMP("<x/>"));
    Bytes g = m.expectMediaIntact();
    EXPECT_EQ(get32(g, mdatAt), 3008u);
    EXPECT_TRUE(findOne(g, "uuid").has_value());
}

TEST(MetadataAppend, SphericalXmlRefusesATrackRunningPastMoov)
{
    Movie m([](Bytes& f) { put32be(f.data() + findAll(f, "moov.trak")[0].start, 0x7FFFFFF0); });
    ASSERT_NE(m.c.videoTrack, nullptr);
    std::string out = capture([&] { EXPECT_FALSE(m.c.appendSphericalVideoXML("<a/>")); });
    EXPECT_NE(out.find("Container::modifyContainer::appendSphericalVideoXML("), std::string::npos) << out;
    EXPECT_TRUE(m.unchanged());
}

TEST(MetadataAppend, GpsMetaFromAWrongPlaceIsRefused)
{
    Movie m;
    writeFile(m.dir / "src.mp4", cat({box("ftyp", text("isom")), box("moov", fullbox("mvhd", 0, Bytes(96, 0)))}));
    for (auto [offset, length] : {std::pair<uint64_t, uint64_t>{0, 16}, // an ftyp, not a meta box
                                  {8, 1u << 30},                         // runs past the file
                                  {UINT64_MAX - 4, 100}}) {              // offset past the file
        bool ok = true;
        std::string out = capture([&] {
            GLTK::FileIO::open(w(m.dir / "src.mp4"),
                               [&](GLTK::FileIO& src) { ok = m.c.appendGpsMeta(src, offset, length); });
        });
        EXPECT_FALSE(ok);
        EXPECT_NE(out.find("Container::modifyContainer::appendGPSMeta("), std::string::npos) << out;
        EXPECT_TRUE(m.unchanged());
    }
}

TEST(MetadataAppend, UdtaAppendedBeforeATailOnlyAtABoxBoundary)
{
    Movie m;
    Bytes udta = box("udta", box("@mod", text("NARVI ORVEX SC")));
    ByteArray bytes(udta.data(), udta.size());
    auto traks = findAll(m.file, "moov.trak");
    std::string out = capture([&] { EXPECT_FALSE(m.c.replaceUdta(10, bytes)); }); // inside the last track
    EXPECT_NE(out.find("replaceUdta_Append("), std::string::npos) << out;
    EXPECT_TRUE(m.unchanged());

    ASSERT_TRUE(m.c.replaceUdta(traks[1].size, bytes)); // in front of the last track
    Bytes f = m.expectMediaIntact();
    EXPECT_EQ(findOne(f, "moov.udta")->start, traks[1].start);
    EXPECT_EQ(findAll(f, "moov.trak")[1].start, traks[1].start + udta.size());
    std::vector<uint64_t> before = chunkOffsets(m.file), after = chunkOffsets(f);
    for (size_t i = 0; i < before.size(); ++i)
        EXPECT_EQ(after[i], before[i] + udta.size());
}

} // namespace
