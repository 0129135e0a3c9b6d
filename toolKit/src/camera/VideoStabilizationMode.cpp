#include "VideoStabilizationMode.h"

#include <locale>
#include <sstream>

ExifParser::VIDEO_STABILIZATION VideoStabilizationMode::resolvState(ExifParser::VIDEO_STABILIZATION sourceValue,
                                                                    bool imageAvailable)
{
    const int32_t low = sourceValue & 7;
    if (sourceValue != -1 && sourceValue != 0) {
        // The source says something: it decides the yaw mode. Code 2 ("off")
        // lands on 1 here, unlike everywhere else; kept as the camera
        // software does it.
        if (yaw < 0)
            yaw = 0;
        yawMode = (low == 3 || low == 5) ? 2 : 1;
    } else {
        if (yaw == -1)
            yaw = 1;
        else if (yaw == -2)
            yaw = 2;
        yawMode = yaw;
    }

    if (imageAvailable) {
        if (image < 0)
            image = 0;
    } else {
        yaw = 0;
        yawMode = 0;
        if (image < 0)
            image = 1;
    }

    int32_t candidate;
    if (sourceValue < -1 || sourceValue > 2 || sourceValue == 1) {
        exif = sourceValue;
        candidate = sourceValue | ExifParser::STABILIZATION_IMAGE_BIT;
    } else if (yaw == 1) {
        exif = 4;
        candidate = 12;
    } else if (yaw == 2) {
        exif = 5;
        candidate = 13;
    } else {
        exif = 0;
        candidate = 8;
    }
    if (image == 1)
        exif = candidate;
    source = sourceValue;
    return candidate;
}

int VideoStabilizationMode::yawModeOf(ExifParser::VIDEO_STABILIZATION value)
{
    switch (value & 7) {
    case 1:
    case 4:
        return 1;
    case 3:
    case 5:
        return 2;
    default:
        return 0;
    }
}

namespace {

const char* yawState(int32_t mode, const char* unknown)
{
    switch (mode) {
    case 0:
        return "disabled";
    case 1:
        return "enabled";
    case 2:
        return "lockDir";
    default:
        return unknown;
    }
}

} // namespace

const char* VideoStabilizationMode::stabilizeModeSummary(std::string& out) const
{
    out = "yaw:";
    out += yawState(yawMode, "unknown");
    out += ",image:";
    out += image == 1 ? "enabled" : image == 0 ? "disabled" : "unknown";
    return out.c_str();
}

void VideoStabilizationMode::to_s(std::wstring& out) const
{
    std::wostringstream s;
    s.imbue(std::locale::classic());
    s << L"yaw:" << yawState(yaw, "UNDEF") << L",image:";
    if (image == 1)
        s << L"enabled,image_gain:" << imageGain;
    else if (image == 0)
        s << L"disabled";
    else
        s << L"UNDEF";
    s << L",source:" << source << L",exif:" << exif;
    out = s.str();
}
