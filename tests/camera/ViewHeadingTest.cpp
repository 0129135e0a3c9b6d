#include "camera/ViewHeading.h"

#include <cmath>
#include <gtest/gtest.h>
#include <string>

namespace {

const std::string header = "<rdf:SphericalVideo xmlns:GSpherical='http://ns.google.com/videos/1.0/spherical/'\n"
                           "  xmlns:rdf='http://www.w3.org/1999/02/22-rdf-syntax-ns#'>\n"
                           "  <GSpherical:Spherical>true</GSpherical:Spherical>\n"
                           "  <GSpherical:Stitched>true</GSpherical:Stitched>\n"
                           "  <GSpherical:ProjectionType>equirectangular</GSpherical:ProjectionType>\n";

TEST(ViewHeading, DocumentTextAndRoundTripTruncatingAngles)
{
    ViewHeading v;
    EXPECT_EQ(v.toString(), header + "</rdf:SphericalVideo>");
    v.stitchingSoftware = "NARVI ORVEX::Stratomix";
    v.timestamp = 3647000000ull;
    v.heading = -135.9f;
    v.pitch = 12.2f;
    v.fov = 75.0f;
    v.dolly = 0.25f;
    EXPECT_EQ(v.toString(),
              header + "  <GSpherical:StitchingSoftware>NARVI ORVEX::Stratomix</GSpherical:StitchingSoftware>\n"
                       "  <GSpherical:SourceCount>1</GSpherical:SourceCount>\n"
                       "  <GSpherical:Timestamp>3647000000</GSpherical:Timestamp>\n"
                       "  <GSpherical:InitialViewHeadingDegrees>-135</GSpherical:InitialViewHeadingDegrees>\n"
                       "  <GSpherical:InitialViewPitchDegrees>12</GSpherical:InitialViewPitchDegrees>\n"
                       "  <GSpherical:InitialHorizontalFOVDegrees>75</GSpherical:InitialHorizontalFOVDegrees>\n"
                       "  <GSpherical:InitialCameraDolly>0.250000</GSpherical:InitialCameraDolly>\n"
                       "</rdf:SphericalVideo>");
    v.stitchingSoftware = " padded name ";
    ViewHeading back;
    back.attach(v.toString());
    EXPECT_EQ(back.stitchingSoftware, " padded name ");
    EXPECT_EQ(back.timestamp, 3647000000ull);
    EXPECT_EQ(back.heading, -135.0f);
    EXPECT_EQ(back.pitch, 12.0f);
    EXPECT_EQ(back.dolly, 0.25f);
    EXPECT_EQ(back.toString(), v.toString());

    // Attaching text replaces everything. Elements must stand at their
    // two-blank indent to be found, a value that does not scan is unset, and
    // an unclosed software element gives no text.
    back.attach(std::string("<GSpherical:InitialViewHeadingDegrees>45</GSpherical:InitialViewHeadingDegrees>\n"
                            "  <GSpherical:InitialViewPitchDegrees>x</GSpherical:InitialViewPitchDegrees>\n"
                            "  <GSpherical:InitialHorizontalFOVDegrees>80</GSpherical:InitialHorizontalFOVDegrees>\n"
                            "  <GSpherical:StitchingSoftware>dangling"));
    EXPECT_TRUE(std::isnan(back.heading) && std::isnan(back.pitch) && std::isnan(back.dolly));
    EXPECT_EQ(back.fov, 80.0f);
    EXPECT_EQ(back.timestamp, 0u);
    EXPECT_EQ(back.stitchingSoftware, "");
}

TEST(ViewHeading, MergeTakesOnlySetValues)
{
    ViewHeading base, option;
    base.attach(std::string("  <GSpherical:StitchingSoftware>S</GSpherical:StitchingSoftware>\n"
                            "  <GSpherical:Timestamp>77</GSpherical:Timestamp>\n"
                            "  <GSpherical:InitialViewHeadingDegrees>1</GSpherical:InitialViewHeadingDegrees>\n"
                            "  <GSpherical:InitialHorizontalFOVDegrees>90</GSpherical:InitialHorizontalFOVDegrees>\n"
                            "  <GSpherical:InitialCameraDolly>0.5</GSpherical:InitialCameraDolly>\n"));
    const std::string before = base.toString();
    base.attach(option); // nothing set: nothing changes
    EXPECT_EQ(base.toString(), before);
    option.heading = 180;
    option.pitch = -30;
    option.dolly = 0;
    option.stitchingSoftware = "other";
    base.attach(option);
    EXPECT_EQ(base.heading, 180.0f);
    EXPECT_EQ(base.pitch, -30.0f);
    EXPECT_EQ(base.fov, 90.0f);
    EXPECT_EQ(base.dolly, 0.0f);
    EXPECT_EQ(base.timestamp, 77u); // a timestamp of 0 is not set
    EXPECT_EQ(base.stitchingSoftware, "other");
}

} // namespace
