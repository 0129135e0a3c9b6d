#pragma once
// Carries the camera metadata of a source movie over to the output movie and
// brings it up to date: reads what the source holds (SourceMetadata), lets
// the driver adjust it (trim, view heading, stabilization), then has the
// writer of the camera's generation (OlderCameraWriter, NewerCameraWriter)
// build one edit plan, which writes the output once.
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
    // With outPath null the movie at path (a fresh encode) is edited, its
    // avcC flags included; otherwise the movie at path is written, rebuilt,
    // to *outPath.
    bool updateMeta(const std::wstring& path, const std::wstring* outPath, bool fullRange);
    bool updateMetaWithoutAddingFullRange(const std::wstring& path, const std::wstring* outPath);
    // Settles the Spherical Video V1 XML for the movie: made when the source
    // had none and the frame is 2:1, padded to 1000 characters.
    void updateSphereXML(const MP4::Container& c, bool inPlace);
    // Spherical Video V2 beside the V1 XML, with the same initial view.
    bool appendSphericalV2(const MP4::Container& movie, MP4::EditPlan& plan) const;
    void progress(unsigned step);

    // Trimming and adjustments between readMeta and updateMeta.
    void trimStream(unsigned start, unsigned count);
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
    // The sensor entries kept by a trim; a count of 0 keeps them all.
    uint32_t trimStart = 0;
    uint32_t trimCount = 0;

private:
    bool rebuild(const std::wstring& path, const std::wstring* outPath, bool withAvcC, bool fullRange);
};
