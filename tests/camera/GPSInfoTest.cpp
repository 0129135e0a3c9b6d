#include "camera/GPSInfo.h"

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sstream>
#include <string>

namespace {

using namespace testsupport;

TEST(GPSInfo, Iso6709DecimalDegreesOnly)
{
    GPSInfo g;
    g.attachRXYZ("+35.6586+139.7454+040.000/");
    ASSERT_TRUE(g.hasLatitude && g.hasLongitude && g.hasAltitude);
    EXPECT_NEAR(g.latitude, 35.6586, 1e-6);
    EXPECT_NEAR(g.longitude, 139.7454, 1e-6);
    EXPECT_DOUBLE_EQ(g.altitude, 40.0);
    g.attachRXYZ("-33.8688-070.6693/");
    EXPECT_NEAR(g.latitude, -33.8688, 1e-6);
    EXPECT_NEAR(g.longitude, -70.6693, 1e-6);
    EXPECT_FALSE(g.hasAltitude);

    g.attachRXYZ("+3539.51+13945.06/"); // degree-minute form
    EXPECT_FALSE(g.hasLatitude || g.hasLongitude || g.hasAltitude);
    g.attachRXYZ("35.6586+139.7454/"); // a missing sign fails that coordinate
    EXPECT_FALSE(g.hasLatitude);
    g.attachRXYZ(nullptr);
    EXPECT_FALSE(g.hasLatitude);
}

TEST(GPSInfo, AltitudeKeptOnlyBeforeSlashOrDatum)
{
    GPSInfo g;
    g.attachRXYZ("+35.6586+139.7454+40CRSWGS_84/");
    EXPECT_TRUE(g.hasAltitude);
    g.attachRXYZ("+35.6586+139.7454-12.5/");
    EXPECT_DOUBLE_EQ(g.altitude, -12.5);
    for (const char* bad : {"+35.6586+139.7454+40m/", "+35.6586+139.7454+40", "+35.6586+139.7454+40CRSWGS_84/x", ""}) {
        g.attachRXYZ(bad);
        EXPECT_FALSE(g.hasAltitude) << bad;
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

TEST(GPSInfo, ExiftoolReadsTheXmpPacket)
{
    GPSInfo g;
    g.attachRXYZ("-33.8688+151.2093+058.500/");
    g.attachCompass(123.45);
    std::string xmp = g.to_XMP_string("NARVI ORVEX::Resize.osx 2.8.3.2019.07.25", true, "yaw:enabled,image:disabled");
    TempDir dir;
    writeFile(dir / "gps.xmp", std::vector<uint8_t>(xmp.begin(), xmp.end()));
    std::string out;
    ASSERT_EQ(run("exiftool -n -s3 -GPSLatitude -GPSLongitude -GPSAltitude -GPSImgDirection " + q(dir / "gps.xmp"), &out),
              0)
        << out;
    std::istringstream lines(out);
    double lat = 0, lon = 0, alt = 0, direction = 0;
    lines >> lat >> lon >> alt >> direction;
    ASSERT_FALSE(lines.fail()) << out;
    EXPECT_NEAR(lat, -33.8688, 1e-6);
    EXPECT_NEAR(lon, 151.2093, 1e-6);
    EXPECT_NEAR(alt, 58.5, 1e-9);
    EXPECT_NEAR(direction, 123.5, 1e-9); // tenths, rounded
}

} // namespace
