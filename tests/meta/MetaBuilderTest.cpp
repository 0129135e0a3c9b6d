#include "BoxBytes.h"
#include "GLTKwchar.h"
#include "MetaBuilder.h"
#include "TestSupport.h"

#include <cmath>
#include <gtest/gtest.h>

using namespace testsupport;

namespace {

TEST(MetaBuilder, CreatorToolAndProgressLines)
{
    MetaBuilder m("Resize.osx", "2.8.3.2019.07.25", false);
    EXPECT_EQ(m.creatorTool, "NARVI ORVEX::Resize.osx 2.8.3.2019.07.25");
    EXPECT_EQ(m.stitchingSoftware, "NARVI ORVEX::Stratomix");
    EXPECT_EQ(MetaBuilder("a", "b", true).stitchingSoftware, "NARVI ORVEX::a b");
    testing::internal::CaptureStdout();
    m.progress(4);
    m.progress(12);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "processing meta    4 40.00/100.00\nprocessing meta   10 100.00/100.00\n");
}

// A movie holding only a moov with one track of the given size.
MP4::Container& movie(TempDir& dir, MP4::Container& c, uint32_t w, uint32_t h)
{
    writeFile(dir / "m.mp4", box("moov", trak(tkhd(w, h), stco({1}))));
    EXPECT_TRUE(c.attach(GLTK::wchar::mbs2wcs((dir / "m.mp4").string())));
    return c;
}

TEST(MetaBuilder, SphericalXmlIsMadeForTwoToOneFramesAndPaddedTo1000)
{
    TempDir dir;
    MP4::Container c;
    MetaBuilder m("Resize.osx", "2.8.3.2019.07.25", false);
    testing::internal::CaptureStdout();
    m.updateSphereXML(movie(dir, c, 3840, 2160), false);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "MP4: Not a spherical video.\n");
    EXPECT_TRUE(m.sphericalXml.empty());

    testing::internal::CaptureStdout();
    m.updateSphereXML(movie(dir, c, 3840, 1920), false);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Appned New GVF-BOX.\n");
    EXPECT_EQ(m.sphericalXml.size(), 1000u);
    EXPECT_NE(m.sphericalXml.find("NARVI ORVEX::Stratomix"), std::string::npos);

    m.sphericalXml = std::string(999, 'x');
    m.updateSphereXML(c, false);
    EXPECT_EQ(m.sphericalXml, std::string(999, 'x') + "\n");
    m.sphericalXml = std::string(1000, 'y');
    m.updateSphereXML(c, false);
    EXPECT_EQ(m.sphericalXml, std::string(1000, 'y'));

    // An equirectangular source edited in place keeps getting its XML even
    // when the maker note says otherwise.
    MetaBuilder n("Resize.osx", "2.8.3.2019.07.25", false);
    n.projectionType = 2;
    testing::internal::CaptureStdout();
    n.updateSphereXML(c, true);
    testing::internal::GetCapturedStdout();
    EXPECT_FALSE(n.sphericalXml.empty());
}

TEST(MetaBuilder, ViewHeadingAttachOverlaysOrResets)
{
    MetaBuilder m("Resize.osx", "2.8.3.2019.07.25", false);
    ViewHeading none;
    EXPECT_FALSE(m.currentViewHeading(none));

    ViewHeading v;
    v.heading = 90;
    v.pitch = 10;
    m.attach(v, false);
    ViewHeading now;
    ASSERT_TRUE(m.currentViewHeading(now));
    EXPECT_FLOAT_EQ(now.heading, 90);
    EXPECT_FLOAT_EQ(now.pitch, 10);
    EXPECT_EQ(now.stitchingSoftware, "NARVI ORVEX::Stratomix");

    m.attach(ViewHeading(), true);
    ASSERT_TRUE(m.currentViewHeading(now));
    EXPECT_TRUE(std::isnan(now.heading));
    EXPECT_TRUE(std::isnan(now.pitch));
    EXPECT_EQ(now.stitchingSoftware, "NARVI ORVEX::Stratomix");
}

TEST(MetaBuilder, TrimStreamCutsTheAxisStream)
{
    // A little-endian stream of five 4-byte records.
    std::string axis(16, '\0');
    axis[0] = 5;
    axis[6] = 4;
    axis[8] = 0x23, axis[9] = 0x01;
    for (char r = 0; r < 5; ++r)
        axis += std::string(4, r);
    MetaBuilder m("Resize.osx", "2.8.3.2019.07.25", false);
    m.axis = axis;
    m.trimStream(1, 2);
    EXPECT_EQ(m.trimStart, 1u);
    EXPECT_EQ(m.trimCount, 2u);
    ASSERT_EQ(m.axis.size(), 16u + 8u);
    EXPECT_EQ(m.axis[0], 2);
    EXPECT_EQ(m.axis.substr(16), std::string(4, 1) + std::string(4, 2));
    // A range past the records, or a payload of another kind, stays whole.
    m.trimStream(4, 9);
    EXPECT_EQ(m.axis.size(), 24u);
    m.axis = "not a stream";
    m.trimStream(0, 1);
    EXPECT_EQ(m.axis, "not a stream");
}

TEST(MetaBuilder, ReadSpatialDataTakesTheWholeMovieForAnOpenEnd)
{
    MetaBuilder m("Resize.osx", "2.8.3.2019.07.25", false);
    EXPECT_TRUE(m.readSpatialData(L"/nonexistent.mp4", 0u, 0xFFFFFFFFu));
    EXPECT_FALSE(m.spatialSound.trimmed);
    EXPECT_FALSE(m.readSpatialData(L"/nonexistent.mp4", 10u, 5u));
}

} // namespace
