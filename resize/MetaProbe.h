#pragma once
// What the run learns of its source before anything is rewritten: camera
// model and generation, the maker-note record, codec, frame size and rate,
// and the bit rates of the tracks, read from the source movie the run has
// opened (nothing is read twice), with one console line per finding.
#include "SourceMovie.h"

#include <cstdint>
#include <string>

class MetaProbe {
public:
    MetaProbe() { init(); }
    virtual ~MetaProbe() = default;

    void init();
    // True when the source has a video track whose frames can be decoded.
    bool probe(const SourceMovie& source);

    // The model and maker note as the rebuild reads them.
    void readMetadata(const SourceMetadata& found);
    // The frame size and rate from the decoder, for a sample entry that
    // gives no size.
    void detect_movie(const std::wstring& path);

    // The output bit rate when none is asked for, from the output width (or
    // the probed one), the probed frame rate and quality class.
    uint32_t default_bitrate(int width, bool hevc) const;

    uint32_t cameraVersion;
    float frameRate;
    int32_t width, height;
    int32_t codec; // 0 unknown, 1 H.264, 2 H.265
    std::string creatorTool;
    bool hasGyroData;
    float duration;
    float audioBitRate;
    float videoBitRate;
    // 1 when the source was recorded at the lower of the camera's two rates
    // for its size and frame rate, else 0: a low-rate source is never inflated.
    int32_t videoQuality;
};
