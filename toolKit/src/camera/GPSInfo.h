#pragma once
// Shooting position and view direction of a movie: read from the ISO 6709
// text of the "@xyz" box, an XMP packet or the maker note's compass, and
// written as XMP EXIF elements, ISO 6709 text and 16.16 fixed point.
#include <cstdint>
#include <string>
#include <utility>

class GPSInfo {
public:
    // One coordinate value with its validity flag.
    struct BaseX {
        bool valid = false;
        double value = 0.0;

        BaseX() = default;
        BaseX(bool v, double x) : valid(v), value(x) {}
        // "%d,%0.6f": whole degrees of the absolute value, then the rest as
        // minutes (35.658581 gives "35,39.514860").
        std::string toAbsBase60() const;
        // value x 65536 rounded half away from zero, two's complement.
        uint32_t toUINT32Fixnum() const;
    };

    bool hasLatitude;
    double latitude; // degrees, north positive
    bool hasLongitude;
    double longitude; // degrees, east positive
    bool hasAltitude;
    double altitude; // metres
    bool hasDirection;
    double direction; // degrees from true north
    std::string rawXyz;

    GPSInfo() { init(); }
    void init();

    BaseX lat() const { return BaseX(hasLatitude, latitude); }
    BaseX lon() const { return BaseX(hasLongitude, longitude); }
    BaseX alt() const { return BaseX(hasAltitude, altitude); }
    BaseX dir() const { return BaseX(hasDirection, direction); }

    // ISO 6709 text, decimal degrees: "+35.6586+139.7454+040.000/".
    void attachRXYZ(const char* text);
    void attachCompass(double degrees);
    // The direction of an XMP packet's exif:GPSImgDirection element.
    void attachCompass(const std::string& xmp);

    // "+DD.DDDD+DDD.DDDD/" when latitude and longitude are known, else "".
    std::string to_CXYZ_string() const;
    // The exif:GPS* elements that are known, six blanks indented.
    std::string to_XMP_part() const;
    // A complete XMP packet.
    std::string to_XMP_string(const char* creatorTool, bool reEncoded, const std::string& stabilization) const;
};

// Reads one signed decimal-degree coordinate of ISO 6709 text and advances
// the cursor past it. Returns (valid, value).
std::pair<bool, double> from_iso6709(const char*& cursor);
