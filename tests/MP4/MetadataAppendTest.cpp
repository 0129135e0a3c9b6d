// Appending to small synthetic movies where the camera movies cannot show
// the case: an open-ended last box, damaged tracks, wrong source places and
// a udta placed before a tail of moov.
#include "GLTKwchar.h"
#include "MP4Container.h"
#include "SyntheticBoxes.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

TEST(MetadataAppend, AnOpenEndedLastBoxIsSealedBeforeAppending)
{
    size_t mdatAt = 0;
    SyntheticMovie m(true, std::nullopt, [&](Bytes& f) {
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
    SyntheticMovie m(true, std::nullopt, [](Bytes& f) { put32be(f.data() + findAll(f, "moov.trak")[0].start, 0x7FFFFFF0); });
    ASSERT_NE(m.c.videoTrack, nullptr);
    std::string out = capture([&] { EXPECT_FALSE(m.c.appendSphericalVideoXML("<a/>")); });
    EXPECT_NE(out.find("Container::modifyContainer::appendSphericalVideoXML("), std::string::npos) << out;
    EXPECT_TRUE(m.unchanged());
}

TEST(MetadataAppend, GpsMetaFromAWrongPlaceIsRefused)
{
    SyntheticMovie m(true);
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
    SyntheticMovie m(true);
    Bytes udta = box("udta", box("@mod", text("NARVI ORVEX B1")));
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
