#pragma once
// The re-encode: configures the transcoder from the option record, runs it
// over the requested time range with progress lines, and returns the number
// of video frames written (0 for failure).
#include "Option.h"

#include <cstdint>
#include <string>

class ResizeTranscoder {
public:
    // Writes the new movie to `into` (the output's temporary file: the
    // output itself is only replaced once the whole run has succeeded).
    // Loads the media module first (see GLTKMediaModule.h).
    static uint32_t trim(const Option& option, const std::wstring& into);
    // The re-encode in the media module, filled in as it is loaded.
    static uint32_t (*reencode)(const Option& option, const std::wstring& into);
};
