#pragma once
// Carries the camera metadata of a source movie over to the output movie and
// brings it up to date: reads what the source holds into a rebuild request,
// lets the run adjust it (trim, view heading, stabilization), then has the
// writer of the camera's generation (OlderCameraWriter, NewerCameraWriter)
// record its edits in one edit plan, which writes the output once.
#include "AxisTiltStream.h"
#include "RebuildRequest.h"
#include "SourceMovie.h"
#include "VideoStabilizationMode.h"

#include <cstdint>
#include <string>

class MetaBuilder {
public:
    MetaBuilder(const char* image, const char* version, bool ownName);
    virtual ~MetaBuilder() = default;

    // Reads the source's metadata (the movie the run has opened, which must
    // outlive the builder) into a new request.
    bool readMeta(const SourceMovie& source, bool reEncoded);
    bool readMeta(const SourceMovie& source, bool reEncoded, const VideoStabilizationMode& mode);
    // With outPath null the movie at path (a fresh encode) is edited, its
    // avcC flags included; otherwise the source (at path) is written,
    // rebuilt, into *outPath: an empty file the run reserved for it (its
    // output's temporary file), which the run removes if it is not kept.
    bool updateMeta(const std::wstring& path, const std::wstring* outPath, bool fullRange);
    bool updateMetaWithoutAddingFullRange(const std::wstring& path, const std::wstring* outPath);

    // Trimming and adjustments between readMeta and updateMeta.
    void trimStream(unsigned start, unsigned count);
    // The spatial audio cut to start..end seconds (end < 0: to the end).
    bool readSpatialData(double start, double end);
    void attach(const AxisTiltStream& stream, ExifParser::VIDEO_STABILIZATION mode, bool rollingShutter);
    void attach(const ViewHeading& heading, bool resetAngles);
    bool currentViewHeading(ViewHeading& out) const;

    const RebuildRequest& request() const { return req; }

private:
    void progress(unsigned step) const;
    bool rebuild(const std::wstring& path, const std::wstring* outPath, bool withAvcC, bool fullRange);

    std::string creatorTool, stitchingSoftware;
    const SourceMovie* source = nullptr;
    RebuildRequest req;
};
