#include "ViewHeading.h"

#include "GLTKConsole.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

const char* const ViewHeading::headingFormat =
    "  <GSpherical:InitialViewHeadingDegrees>%d</GSpherical:InitialViewHeadingDegrees>\n";
const char* const ViewHeading::pitchFormat =
    "  <GSpherical:InitialViewPitchDegrees>%d</GSpherical:InitialViewPitchDegrees>\n";
const char* const ViewHeading::fovFormat =
    "  <GSpherical:InitialHorizontalFOVDegrees>%d</GSpherical:InitialHorizontalFOVDegrees>\n";
const char* const ViewHeading::dollyFormat =
    "  <GSpherical:InitialCameraDolly>%f</GSpherical:InitialCameraDolly>\n";
const char* const ViewHeading::timestampFormat = "  <GSpherical:Timestamp>%lu</GSpherical:Timestamp>\n";
const char* const ViewHeading::softwareFormat =
    "  <GSpherical:StitchingSoftware>%s</GSpherical:StitchingSoftware>\n"
    "  <GSpherical:SourceCount>1</GSpherical:SourceCount>\n";

namespace {

const float NaN = std::numeric_limits<float>::quiet_NaN();

// Where the element of a line format starts in the text, or npos.
size_t findKey(const std::string& text, const char* lineFormat)
{
    const char* percent = std::strchr(lineFormat, '%');
    size_t keyLength = percent != nullptr ? size_t(percent - lineFormat) : std::strlen(lineFormat);
    return text.find(lineFormat, 0, keyLength);
}

// Truncation toward zero to 64 bits, pinned for values beyond that range.
int64_t truncate64(float v)
{
    if (v >= 9.2e18f)
        return std::numeric_limits<int64_t>::max();
    if (v <= -9.2e18f)
        return std::numeric_limits<int64_t>::min();
    return int64_t(v);
}

// Text as XML character data.
std::string escaped(const std::string& text)
{
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '\'': out += "&apos;"; break;
        case '"': out += "&quot;"; break;
        default: out += c;
        }
    }
    return out;
}

// XML character data as text: the five named entities and character
// references in ASCII; anything else is kept as it stands.
std::string unescaped(const std::string& text)
{
    static const std::pair<const char*, char> named[] = {
        {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&apos;", '\''}, {"&quot;", '"'}};
    std::string out;
    for (size_t i = 0; i < text.size();) {
        bool done = false;
        if (text[i] == '&') {
            for (const auto& [entity, c] : named)
                if (text.compare(i, std::strlen(entity), entity) == 0) {
                    out += c;
                    i += std::strlen(entity);
                    done = true;
                    break;
                }
            const size_t semicolon = text.find(';', i);
            if (!done && text.compare(i, 2, "&#") == 0 && semicolon != std::string::npos && semicolon - i <= 8) {
                const bool hex = i + 2 < text.size() && (text[i + 2] == 'x' || text[i + 2] == 'X');
                char* stop = nullptr;
                const std::string digits = text.substr(i + 2 + hex, semicolon - i - 2 - hex);
                const long code = std::strtol(digits.c_str(), &stop, hex ? 16 : 10);
                if (!digits.empty() && *stop == '\0' && code > 0 && code < 0x80) {
                    out += char(code);
                    i = semicolon + 1;
                    done = true;
                }
            }
        }
        if (!done)
            out += text[i++];
    }
    return out;
}

} // namespace

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

template <>
float ViewHeading::readValue<int>(const std::string& text, const char* lineFormat)
{
    GLTK::Console::LocaleC scope;
    size_t at = findKey(text, lineFormat);
    if (at == std::string::npos)
        return NaN;
    int v = 0;
    if (std::sscanf(text.c_str() + at, lineFormat, &v) != 1)
        return NaN;
    return float(v);
}

template <>
float ViewHeading::readValue<float>(const std::string& text, const char* lineFormat)
{
    GLTK::Console::LocaleC scope;
    size_t at = findKey(text, lineFormat);
    if (at == std::string::npos)
        return NaN;
    float v = 0;
    if (std::sscanf(text.c_str() + at, lineFormat, &v) != 1)
        return NaN;
    return v;
}

template <>
void ViewHeading::writeValue<int>(std::string& out, float value, const char* lineFormat)
{
    GLTK::Console::LocaleC scope;
    if (std::isnan(value))
        return;
    // The element holds an int; a value beyond its range keeps its low bits.
    int v = int(uint32_t(uint64_t(truncate64(value))));
    char buf[128];
    std::snprintf(buf, sizeof buf, lineFormat, v);
    out += buf;
}

template <>
void ViewHeading::writeValue<float>(std::string& out, float value, const char* lineFormat)
{
    GLTK::Console::LocaleC scope;
    if (std::isnan(value))
        return;
    char buf[128];
    std::snprintf(buf, sizeof buf, lineFormat, double(value));
    out += buf;
}

void ViewHeading::init()
{
    stitchingSoftware.clear();
    heading = pitch = fov = dolly = NaN;
    timestamp = 0;
}

void ViewHeading::attach(const std::string& xml)
{
    GLTK::Console::LocaleC scope;
    static const char element[] = "GSpherical:StitchingSoftware";
    // The text starts past the element name and the ">" of the opening tag
    // and ends before the "</" of the closing tag; blanks are kept.
    stitchingSoftware.clear();
    size_t open = xml.find(element);
    if (open != std::string::npos) {
        size_t begin = open + sizeof element; // name plus ">"
        size_t close = xml.find(element, begin);
        if (close != std::string::npos && close >= begin + 2)
            stitchingSoftware = unescaped(xml.substr(begin, close - 2 - begin));
    }

    heading = readValue<int>(xml, headingFormat);
    pitch = readValue<int>(xml, pitchFormat);
    fov = readValue<int>(xml, fovFormat);
    dolly = readValue<float>(xml, dollyFormat);

    timestamp = 0;
    size_t at = findKey(xml, timestampFormat);
    unsigned long t = 0;
    if (at != std::string::npos && std::sscanf(xml.c_str() + at, timestampFormat, &t) == 1)
        timestamp = t;
}

void ViewHeading::bringIntoRange()
{
    if (!std::isnan(heading))
        heading = std::trunc(std::remainder(heading, 360.0f));
    if (!std::isnan(pitch))
        pitch = std::trunc(std::clamp(pitch, -90.0f, 90.0f));
}

void ViewHeading::attach(const ViewHeading& other)
{
    if (!std::isnan(other.heading))
        heading = other.heading;
    if (!std::isnan(other.pitch))
        pitch = other.pitch;
    if (!std::isnan(other.fov))
        fov = other.fov;
    if (!std::isnan(other.dolly))
        dolly = other.dolly;
    if (other.timestamp != 0)
        timestamp = other.timestamp;
    if (!other.stitchingSoftware.empty())
        stitchingSoftware = other.stitchingSoftware;
}

std::string ViewHeading::toString() const
{
    GLTK::Console::LocaleC scope;
    std::string out =
        "<rdf:SphericalVideo xmlns:GSpherical='http://ns.google.com/videos/1.0/spherical/'\n"
        "  xmlns:rdf='http://www.w3.org/1999/02/22-rdf-syntax-ns#'>\n"
        "  <GSpherical:Spherical>true</GSpherical:Spherical>\n"
        "  <GSpherical:Stitched>true</GSpherical:Stitched>\n"
        "  <GSpherical:ProjectionType>equirectangular</GSpherical:ProjectionType>\n";
    // The software's text may be of any length: it is put in whole, escaped.
    if (!stitchingSoftware.empty()) {
        const std::string format = softwareFormat;
        const size_t at = format.find("%s");
        out += format.substr(0, at) + escaped(stitchingSoftware) + format.substr(at + 2);
    }
    if (timestamp != 0) {
        char buf[128];
        std::snprintf(buf, sizeof buf, timestampFormat, static_cast<unsigned long>(timestamp));
        out += buf;
    }
    writeValue<int>(out, heading, headingFormat);
    writeValue<int>(out, pitch, pitchFormat);
    writeValue<int>(out, fov, fovFormat);
    writeValue<float>(out, dolly, dollyFormat);
    out += "</rdf:SphericalVideo>";
    return out;
}

#pragma GCC diagnostic pop
