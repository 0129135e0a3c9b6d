#pragma once
// The re-encode: configures the transcoder from the option record, runs it
// over the requested time range with progress lines, and returns the number
// of video frames written (0 for failure).
#include "Option.h"

#include <cstdint>

class ResizeTranscoder {
public:
    static uint32_t trim(const Option& option);
};
