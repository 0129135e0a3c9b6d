// The rebuild's own reading rules and decisions, on small synthetic movies.
#include "BoxBytes.h"
#include "GLTKwchar.h"
#include "RebuildRequest.h"
#include "SourceMetadata.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

const Bytes kSphericalUUID = {0xFF, 0xCC, 0x82, 0x63, 0xF8, 0x55, 0x4A, 0x93,
                              0x88, 0x14, 0x58, 0x7A, 0x02, 0x52, 0x1F, 0xDD};

// A movie holding only a moov with the given boxes.
MP4::Container& movie(TempDir& dir, MP4::Container& c, const Bytes& moov)
{
    writeFile(dir / "m.mp4", box("moov", moov));
    EXPECT_TRUE(c.attach(GLTK::wchar::mbs2wcs((dir / "m.mp4").string())));
    return c;
}

TEST(SourceMetadata, SphericalXmlIsTheVideoTracksFirstV1BoxWhateverComesBefore)
{
    TempDir dir;
    MP4::Container c;
    Bytes sound = box("trak", cat({tkhd(0, 0), box("uuid", cat({kSphericalUUID, text("<sound/>")}))}));
    Bytes video = box("trak", cat({tkhd(960, 480), box("uuid", cat({Bytes(16, 7), text("other")})),
                                   box("uuid", cat({kSphericalUUID, text("<first/>")})),
                                   box("uuid", cat({kSphericalUUID, text("<second/>")}))}));
    Bytes udta = box("udta", cat({box("@mod", text("NARVI ORVEX D1")), box("QMKN", {})}));
    SourceMetadata found;
    ASSERT_TRUE(found.read(movie(dir, c, cat({sound, video, udta}))));
    EXPECT_TRUE(found.hasSphericalXml);
    EXPECT_EQ(found.sphericalXml, "<first/>");
    EXPECT_EQ(found.modelCode, 0x30001u);
    EXPECT_EQ(found.makerNote, SourceMetadata::MakerNote::Empty);

    ASSERT_TRUE(found.read(movie(dir, c, sound)));
    EXPECT_FALSE(found.hasSphericalXml) << "a track without a picture is not the video";
    EXPECT_EQ(found.makerNote, SourceMetadata::MakerNote::Missing);
}

TEST(RebuildRequest, SphericalXmlIsMadeOnlyForTwoToOneFrames)
{
    TempDir dir;
    MP4::Container c;
    RebuildRequest m;
    testing::internal::CaptureStdout();
    m.settleSphericalXml(movie(dir, c, box("trak", tkhd(3840, 2160))), false);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "MP4: Not a spherical video.\n");
    EXPECT_TRUE(m.sphericalXml.empty());

    testing::internal::CaptureStdout();
    m.settleSphericalXml(movie(dir, c, box("trak", tkhd(3840, 1920))), false);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Appned New GVF-BOX.\n");
    EXPECT_EQ(m.sphericalXml.size(), 1000u);

    // A maker note that says "not equirectangular" stops it for a copy, but
    // not for a fresh encode edited in place.
    RebuildRequest n;
    n.projectionType = 2;
    testing::internal::CaptureStdout();
    n.settleSphericalXml(c, false);
    EXPECT_TRUE(n.sphericalXml.empty());
    n.settleSphericalXml(c, true);
    testing::internal::GetCapturedStdout();
    EXPECT_FALSE(n.sphericalXml.empty());
}

} // namespace
