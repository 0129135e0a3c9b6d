#pragma once
// Everything the metadata rebuild is to write into the output, settled
// before the first edit: MetaBuilder fills it from the source movie and the
// run's adjustments (trim, view, stabilization), and the writer of the
// camera's generation takes it, with the source movie, to record the edits.
#include "ExifParser.h"
#include "GPSInfo.h"
#include "MP4Container.h"
#include "SpatialSound.h"
#include "ViewHeading.h"

#include <cstdint>
#include <string>

struct RebuildRequest {
    // The tool that writes the output (the XMP's creator tool and the V2
    // boxes' metadata source), and the stitching software of a V1 XML made
    // new.
    std::string creatorTool;
    std::string stitchingSoftware;

    // The maker note: its projection type as the source says, and the
    // sphere zenith correction, video stabilization and rolling-shutter
    // correction states to write (-1 leaves one as it is).
    int32_t projectionType = 0;
    int32_t makerModes[3] = {-1, -1, -1};
    // The sensor entries kept by a trim; a count of 0 keeps them all.
    uint32_t trimStart = 0;
    uint32_t trimCount = 0;

    std::string xmp;  // the XMP packet (empty: none)
    std::string axis; // the axis-tilt record of older cameras (empty: none)
    GPSInfo gps;
    uint64_t timestamp = 0; // the creation time of the movie and its tracks

    // The Spherical Video V1 XML (empty: none); the V2 pose is taken from it.
    std::string sphericalXml;
    // The spatial audio, cut to the kept range when a cut was asked for.
    MP4::SpatialSound spatialCut;

    // Makes the V1 XML when the source had none and the movie's frame is
    // 2:1 (and, for a copy, the maker note does not say another projection),
    // and pads it to 1000 characters so that a later edit can rewrite it in
    // place. Prints what it decided.
    void settleSphericalXml(const MP4::Container& movie, bool inPlace);
    // The initial view the V1 XML tells, brought into range for both forms.
    ViewHeading pose() const;
    // Writes the V1 XML into the movie's video track and, beside it, the V2
    // boxes with the same view: both or neither.
    bool appendSphericalVideo(const MP4::Container& movie, MP4::EditPlan& plan) const;
};
