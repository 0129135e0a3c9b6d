#pragma once
// The values of the Spherical Video V1 XML that this program sets or keeps:
// stitching software, time stamp and the initial view. NaN marks an unset
// angle, 0 an unset time stamp, the empty text an unset stitching software.
#include <cstdint>
#include <limits>
#include <string>

class ViewHeading {
public:
    std::string stitchingSoftware;
    float heading = std::numeric_limits<float>::quiet_NaN(); // degrees
    float pitch = std::numeric_limits<float>::quiet_NaN();   // degrees
    float fov = std::numeric_limits<float>::quiet_NaN();     // horizontal field of view, degrees
    float dolly = std::numeric_limits<float>::quiet_NaN();
    uint64_t timestamp = 0;

    // Back to the empty record.
    void init();

    // Replaces every value with those found in a Spherical Video V1 XML text.
    void attach(const std::string& xml);
    // Merge: takes every value that is set in the other record.
    void attach(const ViewHeading& other);
    // The one rule that brings a view into the ranges of both Spherical
    // Video forms, so that V1 and V2 tell the same values: heading into
    // -180..180 and then whole degrees (the V1 elements hold integers),
    // pitch whole degrees within -90..90. Unset values stay unset.
    void bringIntoRange();
    // The whole Spherical Video V1 XML document, its texts escaped.
    std::string toString() const;

    // One element's value, found by the part of its line format before the
    // first '%' and scanned with the whole format; NaN when absent.
    template <typename T>
    static float readValue(const std::string& text, const char* lineFormat);
    // Appends the formatted line unless the value is NaN. The integer form
    // truncates toward zero.
    template <typename T>
    static void writeValue(std::string& out, float value, const char* lineFormat);

    // Element line formats.
    static const char* const headingFormat;
    static const char* const pitchFormat;
    static const char* const fovFormat;
    static const char* const dollyFormat;
    static const char* const timestampFormat;
    static const char* const softwareFormat;
};

template <>
float ViewHeading::readValue<int>(const std::string& text, const char* lineFormat);
template <>
float ViewHeading::readValue<float>(const std::string& text, const char* lineFormat);
template <>
void ViewHeading::writeValue<int>(std::string& out, float value, const char* lineFormat);
template <>
void ViewHeading::writeValue<float>(std::string& out, float value, const char* lineFormat);
