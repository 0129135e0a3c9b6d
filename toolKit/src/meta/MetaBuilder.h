#pragma once
// Carries the camera metadata of a source movie over to the output movie and
// brings it up to date: reads what the source holds, lets the driver adjust it
// (trim, view heading, stabilization), then edits the output file.
#include "AxisTiltStream.h"
#include "ExifParser.h"
#include "GPSInfo.h"
#include "MP4Container.h"
#include "SpatialSound.h"
#include "VideoStabilizationMode.h"
#include "ViewHeading.h"

#include <cstdint>
#include <string>

class MetaBuilder {
public:
    MetaBuilder(const char* image, const char* version, bool ownName);
    virtual ~MetaBuilder() = default;

    void init();
    bool readMeta(const std::wstring& source, bool reEncoded);
    bool readMeta(const std::wstring& source, bool reEncoded, const VideoStabilizationMode& mode);
    bool updateMeta(const std::wstring& path, const std::wstring* outPath, bool fullRange);
    bool updateMetaWithoutAddingFullRange(const std::wstring& path, const std::wstring* outPath);
    void updateSphereXML(MP4::Container& c, bool inPlace);
    bool replaceUdta(MP4::Container& source, MP4::Container& output, const std::wstring* outPath);
    bool copyGpsMeta(MP4::Container& source, MP4::Container& output);
    bool copySpatialData(MP4::Container& source, MP4::Container& output);
    void progress(unsigned step);

    // Trimming and adjustments between readMeta and updateMeta.
    void trimStream(unsigned start, unsigned count);
    template <class Record> bool trimBox(const char* type, MP4::NestedBox& udta, ByteArray* copy);
    bool readSpatialData(const std::wstring& source, unsigned start, unsigned end);
    bool readSpatialData(const std::wstring& source, double start, double end);
    void attach(const AxisTiltStream& stream, ExifParser::VIDEO_STABILIZATION mode, bool rollingShutter);
    void attach(const ViewHeading& heading, bool resetAngles);
    bool currentViewHeading(ViewHeading& out);

    GPSInfo gps;
    std::string xmp;
    std::string axis;
    std::string sphericalXml;
    std::string creatorTool;
    std::string stitchingSoftware;
    int32_t projectionType = 0;
    uint64_t timestamp = 0;
    std::string modelText;
    std::wstring sourcePath;
    MP4::SpatialSound spatialSound;
    ExifParser::ORVEX orvex;
    // Sphere zenith correction, video stabilization, rolling-shutter
    // correction, as they are to be written into the output maker note.
    int32_t makerModes[3] = {-1, -1, -1};
    uint32_t trimStart = 0;
    uint32_t trimCount = 0;

private:
    // With an output path, the container reads the source until its first
    // copying edit has written the output; in-place edits must wait for that.
    bool ensureOutputWritten(MP4::Container& c);
    void editUdtaCopy(ByteArray& udta, const std::wstring& moviePath);
};
