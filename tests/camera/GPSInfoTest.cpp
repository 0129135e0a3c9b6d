#include "camera/GPSInfo.h"

#include <cmath>
#include <gtest/gtest.h>
#include <string>

namespace {

TEST(GPSInfo, Iso6709DecimalDegreesWithAltitudeOnlyBeforeSlashOrDatum)
{
    const double no = NAN;
    struct Case {
        const char* text;
        double latitude, longitude, altitude;
    } cases[] = {
        {"+35.6586+139.7454+040.000/", 35.6586, 139.7454, 40},
        {"-33.8688-070.6693/", -33.8688, -70.6693, no},
        {"+35.6586+139.7454+40CRSWGS_84/", 35.6586, 139.7454, 40},
        {"+35.6586+139.7454-12.5/", 35.6586, 139.7454, -12.5},
        {"+3539.51+13945.06/", no, no, no}, // degree-minute form
        {"35.6586+139.7454/", no, 139.7454, no}, // a missing sign fails that coordinate only
        {"+35.6586+139.7454+40m/", 35.6586, 139.7454, no},
        {"+35.6586+139.7454+40CRSWGS_84/x", 35.6586, 139.7454, no},
    };
    for (const Case& c : cases) {
        GPSInfo g;
        g.attachRXYZ("+1+2+3/"); // values of an earlier text do not stay
        g.attachRXYZ(c.text);
        EXPECT_EQ(g.hasLatitude, !std::isnan(c.latitude)) << c.text;
        EXPECT_EQ(g.hasLongitude, !std::isnan(c.longitude)) << c.text;
        EXPECT_EQ(g.hasAltitude, !std::isnan(c.altitude)) << c.text;
        if (g.hasLatitude && g.hasLongitude && g.hasAltitude) {
            EXPECT_NEAR(g.latitude, c.latitude, 1e-6) << c.text;
            EXPECT_NEAR(g.longitude, c.longitude, 1e-6) << c.text;
            EXPECT_NEAR(g.altitude, c.altitude, 1e-6) << c.text;
        }
    }
}

TEST(GPSInfo, Iso6709FractionWeightsStartAtSinglePrecisionTenth)
{
    const char* text = "+12.34-";
    const char* p = text;
    auto v = from_iso6709(p);
    EXPECT_TRUE(v.first);
    EXPECT_EQ(v.second, 12.0 + 3 * double(0.1f) + 4 * (double(0.1f) / 10));
    EXPECT_EQ(p, text + 6);
    // An invalid coordinate still advances; the end of the text does not.
    v = from_iso6709(p);
    EXPECT_FALSE(v.first);
    EXPECT_EQ(*p, '\0');
    EXPECT_FALSE(from_iso6709(p).first);
    EXPECT_EQ(*p, '\0');
}

TEST(GPSInfo, CompassFromXmpNeedsANonZeroDenominator)
{
    GPSInfo g;
    g.attachCompass("<x><exif:GPSImgDirection>1234/10</exif:GPSImgDirection></x>");
    EXPECT_TRUE(g.hasDirection);
    EXPECT_NEAR(g.direction, 123.4, 1e-4);
    g.attachCompass("<exif:GPSImgDirection>5/0</exif:GPSImgDirection>");
    EXPECT_FALSE(g.hasDirection);
}

TEST(GPSInfo, WrittenForms)
{
    EXPECT_EQ(GPSInfo::BaseX(true, -1.5).toUINT32Fixnum(), 0xFFFE8000u);
    EXPECT_EQ(GPSInfo::BaseX(true, -0.5 / 65536).toUINT32Fixnum(), 0xFFFFFFFFu);
    EXPECT_EQ(GPSInfo::BaseX(true, 0.5 / 65536).toUINT32Fixnum(), 1u);

    GPSInfo g;
    EXPECT_EQ(g.to_CXYZ_string(), "");
    EXPECT_EQ(g.to_XMP_part(), "");
    g.hasLatitude = g.hasLongitude = g.hasAltitude = true;
    g.latitude = -5.1;
    g.longitude = -9.25;
    EXPECT_EQ(g.to_CXYZ_string(), "-5.1000-09.2500/"); // altitude is never written
    g.latitude = 35.658581;
    g.longitude = -139.7454;
    g.hasLongitude = false; // the XMP writer does not consult it
    g.altitude = -12.345;
    g.attachCompass(359.96);
    EXPECT_EQ(g.to_CXYZ_string(), "");
    EXPECT_EQ(g.to_XMP_part(), "      <exif:GPSLatitude>35,39.514860N</exif:GPSLatitude>\n"
                               "      <exif:GPSLongitude>139,44.724000W</exif:GPSLongitude>\n"
                               "      <exif:GPSAltitude>1234/100</exif:GPSAltitude>\n"
                               "      <exif:GPSAltitudeRef>1</exif:GPSAltitudeRef>\n"
                               "      <exif:GPSImgDirection>3600/10</exif:GPSImgDirection>\n"
                               "      <exif:GPSImgDirectionRef>T</exif:GPSImgDirectionRef>\n");
}

TEST(GPSInfo, XmpPacketFrame)
{
    GPSInfo g;
    std::string x = g.to_XMP_string("NARVI ORVEX::Resize.osx 2.8.3.2019.07.25", true, "");
    EXPECT_EQ(x.rfind("<?xpacket begin='\xEF\xBB\xBF' id='W5M0MpCehiHzreSzNTczkc9d'?>\n"
                      "<x:xmpmeta xmlns:x='adobe:ns:meta/'>\n",
                      0),
              0u);
    EXPECT_NE(x.find("      <x:CreatorTool>NARVI ORVEX::Resize.osx 2.8.3.2019.07.25</x:CreatorTool>\n"
                     "    </rdf:Description>\n  </rdf:RDF>\n  <VideoReEncorded>true</VideoReEncorded>\n"
                     "</x:xmpmeta>\n<?xpacket end='w'?>\n"),
              std::string::npos);
    EXPECT_EQ(x.find("VideoStabilization"), std::string::npos);

    x = g.to_XMP_string("t", false, "yaw:enabled,image:disabled");
    EXPECT_NE(x.find("  <VideoReEncorded>false</VideoReEncorded>\n"
                     "  <VideoStabilization>yaw:enabled,image:disabled</VideoStabilization>\n"
                     "</x:xmpmeta>\n<?xpacket end='w'?>\n"),
              std::string::npos);
}

} // namespace
