#pragma once
// What a camera movie holds besides its media, read once by one set of rules:
// the source probe, the metadata rebuild and the Inspect command all read a
// movie's model, maker note, XMP, Spherical Video XML and position here.
// Reading prints nothing; each caller reports the findings its own way.
#include "ExifParser.h"
#include "GPSInfo.h"
#include "MP4Container.h"

#include <cstdint>
#include <string>

class SourceMetadata {
public:
    // Reads the parsed movie; false when it holds no box tree at all.
    bool read(const MP4::Container& c);

    // moov.udta.@mod: the model text when the box holds any, and its code.
    bool hasModel = false;
    std::string modelText;
    uint32_t modelCode = 0;

    // moov.udta.QMKN.
    enum class MakerNote { Missing, Empty, Unreadable, Read };
    MakerNote makerNote = MakerNote::Missing;
    std::string makerNoteError; // the parser's message when Unreadable
    ExifParser::ORVEX orvex;

    // The first XMP and axis uuid boxes at the top level.
    bool hasXmp = false;
    std::string xmp;
    std::string axis;
    // The VideoStabilization element of the XMP.
    std::string stabilizationSummary;

    // The first Spherical Video V1 box of the video track (another uuid box
    // before it does not hide it).
    bool hasSphericalXml = false;
    std::string sphericalXml;

    // The Spherical Video V2 boxes of the video track's sample entry.
    bool hasV2 = false;
    double v2Yaw = 0, v2Pitch = 0, v2Roll = 0;
    std::string v2Source;

    // moov.udta.@xyz, with the direction of the maker note's heading, or of
    // the XMP when the maker note has none.
    bool hasXyz = false;
    GPSInfo gps;

    // The creation time of moov.mvhd, and whether a gyro stream is present.
    uint64_t creationTime = 0;
    bool hasGyroData = false;

private:
    void readCamera(const MP4::Container& c);
    void readUuids(const MP4::Container& c);
    void readSpherical(const MP4::Container& c);
};
