#pragma once
// Settles the stabilization state of a run from the source maker note, the
// user's request and whether image stabilization is available; yields the
// maker-note value to write, the XMP summary and a console description.
#include "ExifParser.h"

#include <string>

class VideoStabilizationMode {
public:
    int32_t source = -1;  // maker-note value of the source movie
    int32_t exif = -1;    // value to write into the output maker note
    int32_t yaw = -1;     // request: 0 off, 1 on, 2 locked direction; -1 unset (-2: unset, prefer locked)
    int32_t image = -1;   // image stabilization: 0 off, 1 on; -1 unset
    int32_t yawMode = -1; // resolved yaw correction, codes as yaw
    float imageGain = 1.0f;

    // Settles every field; returns the source-based value with the image bit set.
    ExifParser::VIDEO_STABILIZATION resolvState(ExifParser::VIDEO_STABILIZATION sourceValue, bool imageAvailable);

    // Yaw mode of a maker-note value by its yaw code: 1 and 4 give 1, 3 and
    // 5 give 2, everything else 0. (The field of the same name holds the
    // resolved mode, hence the different name.)
    static int yawModeOf(ExifParser::VIDEO_STABILIZATION value);

    // "yaw:<state>,image:<state>" for the XMP packet.
    const char* stabilizeModeSummary(std::string& out) const;
    // Console description.
    void to_s(std::wstring& out) const;
};
