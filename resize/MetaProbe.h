#pragma once
// Inspects a source movie before anything is rewritten: camera model and
// generation, the maker-note record, codec, spherical metadata, sensor data,
// frame size and rate, and the bit rates of the tracks. It only reads, and
// prints one console line per finding.
#include "ExifParser.h"
#include "MP4Container.h"

#include <cstdint>
#include <string>

class MetaProbe {
public:
    MetaProbe() { init(); }
    virtual ~MetaProbe() = default;

    void init();
    // True when the source is a movie with a decodable video track.
    bool probe(const std::wstring& path);

    // The model, maker note, Spherical Video XML, XMP and gyro stream, as
    // the rebuild reads them.
    void readMetadata(MP4::Container& c);
    void readCodec(MP4::Container& c);
    void detect_movie(const std::wstring& path);
    void detectBitRate(MP4::Container& c);

    // The output bit rate when none is asked for, from the output width (or
    // the probed one), the probed frame rate and quality class.
    uint32_t default_bitrate(int width, bool hevc) const;

    uint32_t cameraVersion;
    float frameRate;
    int32_t width, height;
    int32_t codec; // 0 unknown, 1 H.264, 2 H.265
    ExifParser::ORVEX orvex;
    std::string sphericalXml;
    std::string stitchingSoftware;
    std::string xmp;
    std::string creatorTool;
    bool hasGyroData;
    float duration;
    float audioBitRate;
    float videoBitRate;
    // 1 when the source was recorded at the lower of the camera's two rates
    // for its size and frame rate, else 0: a low-rate source is never inflated.
    int32_t videoQuality;
};
