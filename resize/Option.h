#pragma once
// Everything the command line asks for, with what the program learns by
// probing the source.
#include "MetaProbe.h"
#include "ViewHeading.h"

#include <cstdint>
#include <string>
#include <vector>

extern const char* const Resize_image;
extern const char* const Resize_version;

class Option {
public:
    Option();
    // Reads the words; argv[0] is the command name. False when the usage is
    // to be shown.
    bool parse(int argc, const std::vector<std::wstring>& argv);
    // Probes the source the run has opened (printing what it finds) and
    // derives the defaults that depend on it: codec, key-frame interval and
    // video bit rate. A source whose video cannot be probed leaves them unset.
    void derive(const SourceMovie& source);
    // Whether the asked range keeps any of a movie of this length (seconds);
    // false, after one line naming the range and the length, when not.
    bool keepsSomething(double duration) const;
    void usage() const;

    int32_t keyFrameInterval;
    int32_t videoWidth;
    uint32_t videoBitRate;
    uint32_t audioBitRate;
    uint32_t start;
    uint32_t end;
    int32_t reEncode;
    int32_t codec; // 0 as the source, 1 H.264, 2 H.265
    std::wstring sourcePath;
    std::wstring outputPath;
    std::wstring thumbnailPath;
    MetaProbe probe;
    ViewHeading viewHeading;
    int32_t viewMode; // 0 none, 1 values given, 2 "-view:-"

private:
    void reset();
};
