#include "GPSInfo.h"

#include "GLTKConsole.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

// Conversions of doubles that may come from hostile text: out-of-range and
// NaN values are pinned instead of being undefined.
int64_t clampToInt64(double v)
{
    if (std::isnan(v))
        return 0;
    if (v >= 9.2e18)
        return std::numeric_limits<int64_t>::max();
    if (v <= -9.2e18)
        return std::numeric_limits<int64_t>::min();
    return int64_t(v);
}

unsigned clampToUnsigned(double v)
{
    if (!(v > 0))
        return 0;
    if (v >= 4294967295.0)
        return 4294967295u;
    return unsigned(v);
}

int clampToInt(double v)
{
    if (std::isnan(v))
        return 0;
    if (v >= 2147483647.0)
        return std::numeric_limits<int>::max();
    if (v <= -2147483648.0)
        return std::numeric_limits<int>::min();
    return int(v);
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

} // namespace

std::string GPSInfo::BaseX::toAbsBase60() const
{
    GLTK::Console::LocaleC scope;
    double a = std::fabs(value);
    double degrees = std::floor(a);
    char buf[80];
    std::snprintf(buf, sizeof buf, "%d,%0.6f", clampToInt(degrees), (a - degrees) * 60.0);
    return buf;
}

uint32_t GPSInfo::BaseX::toUINT32Fixnum() const
{
    return uint32_t(uint64_t(clampToInt64(std::round(value * 65536.0))));
}

void GPSInfo::init()
{
    hasLatitude = hasLongitude = hasAltitude = hasDirection = false;
    latitude = longitude = altitude = direction = 0.0;
    rawXyz.clear();
}

std::pair<bool, double> from_iso6709(const char*& cursor)
{
    if (*cursor == '\0')
        return {false, 0.0};
    const char sign = *cursor++;
    double integer = 0.0;
    int digits = 0;
    while (isDigit(*cursor)) {
        integer = integer * 10.0 + (*cursor++ - '0');
        ++digits;
    }
    double fraction = 0.0;
    if (*cursor == '.') {
        ++cursor;
        // The first fraction digit weighs single-precision 0.1.
        double weight = double(0.1f);
        while (isDigit(*cursor)) {
            fraction += (*cursor++ - '0') * weight;
            weight /= 10.0;
        }
    }
    // Decimal degrees only: degree-minute forms have 4 or more digits.
    if (digits < 2 || digits > 3 || (sign != '+' && sign != '-'))
        return {false, 0.0};
    double value = integer + fraction;
    return {true, sign == '-' ? -value : value};
}

void GPSInfo::attachRXYZ(const char* text)
{
    if (text == nullptr)
        text = "";
    rawXyz = text;
    const char* p = text;
    auto lat = from_iso6709(p);
    hasLatitude = lat.first;
    latitude = lat.second;
    auto lon = from_iso6709(p);
    hasLongitude = lon.first;
    longitude = lon.second;
    hasAltitude = false;
    if (*p != '/') {
        // Numbers are always parsed in the C locale: the program only ever
        // changes the character-type category.
        GLTK::Console::LocaleC scope;
        char* end = nullptr;
        altitude = std::strtod(p, &end);
        hasAltitude = end != p && (*end == '/' || std::strcmp(end, "CRSWGS_84/") == 0);
    }
}

void GPSInfo::attachCompass(double degrees)
{
    direction = degrees;
    hasDirection = true;
}

void GPSInfo::attachCompass(const std::string& xmp)
{
    hasDirection = false;
    size_t at = xmp.find("<exif:GPSImgDirection>");
    if (at == std::string::npos)
        return;
    GLTK::Console::LocaleC scope;
    float numerator = 0, denominator = 0;
    if (std::sscanf(xmp.c_str() + at, "<exif:GPSImgDirection>%f/%f</exif:GPSImgDirection>", &numerator,
                    &denominator) == 2
        && denominator > 0) {
        direction = double(numerator) / double(denominator);
        hasDirection = true;
    }
}

std::string GPSInfo::to_CXYZ_string() const
{
    if (!hasLatitude || !hasLongitude)
        return "";
    GLTK::Console::LocaleC scope;
    char buf[32];
    std::snprintf(buf, sizeof buf, "%+07.4f%+08.4f", latitude, longitude);
    return std::string(buf) + "/";
}

std::string GPSInfo::to_XMP_part() const
{
    GLTK::Console::LocaleC scope;
    std::string out;
    char buf[512];
    if (hasLatitude) {
        std::snprintf(buf, sizeof buf,
                      "      <exif:GPSLatitude>%s%c</exif:GPSLatitude>\n"
                      "      <exif:GPSLongitude>%s%c</exif:GPSLongitude>\n",
                      lat().toAbsBase60().c_str(), latitude < 0 ? 'S' : 'N', lon().toAbsBase60().c_str(),
                      longitude < 0 ? 'W' : 'E');
        out += buf;
    }
    if (hasAltitude) {
        std::snprintf(buf, sizeof buf,
                      "      <exif:GPSAltitude>%u/100</exif:GPSAltitude>\n"
                      "      <exif:GPSAltitudeRef>%c</exif:GPSAltitudeRef>\n",
                      clampToUnsigned(std::fabs(altitude) * 100.0), altitude < 0 ? '1' : '0');
        out += buf;
    }
    if (hasDirection) {
        std::snprintf(buf, sizeof buf,
                      "      <exif:GPSImgDirection>%d/10</exif:GPSImgDirection>\n"
                      "      <exif:GPSImgDirectionRef>T</exif:GPSImgDirectionRef>\n",
                      clampToInt(direction * 10.0 + 0.5));
        out += buf;
    }
    return out;
}

std::string GPSInfo::to_XMP_string(const char* creatorTool, bool reEncoded, const std::string& stabilization) const
{
    GLTK::Console::LocaleC scope;
    std::string out;
    char buf[512];
    std::snprintf(buf, sizeof buf,
                  "<?xpacket begin='\xEF\xBB\xBF' id='W5M0MpCehiHzreSzNTczkc9d'?>\n"
                  "<x:xmpmeta xmlns:x='adobe:ns:meta/'>\n"
                  "  <rdf:RDF xmlns:rdf='http://www.w3.org/1999/02/22-rdf-syntax-ns#'>\n"
                  "    <rdf:Description rdf:about='' xmlns:exif='http://ns.adobe.com/exif/1.0/'>\n"
                  "      <x:CreatorTool>%s</x:CreatorTool>\n",
                  creatorTool != nullptr ? creatorTool : "");
    out += buf;
    out += to_XMP_part();
    std::snprintf(buf, sizeof buf,
                  "    </rdf:Description>\n"
                  "  </rdf:RDF>\n"
                  "  <VideoReEncorded>%s</VideoReEncorded>\n",
                  reEncoded ? "true" : "false");
    out += buf;
    if (!stabilization.empty()) {
        std::snprintf(buf, sizeof buf, "  <VideoStabilization>%s</VideoStabilization>\n", stabilization.c_str());
        out += buf;
    }
    std::snprintf(buf, sizeof buf, "</x:xmpmeta>\n<?xpacket end='w'?>\n");
    out += buf;
    return out;
}
