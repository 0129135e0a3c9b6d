#pragma once
// The rebuild of a newer camera's movie: the Spherical Video boxes (V1 and
// V2) go into the video track; the camera's own udta (maker note, sensor
// streams, maker thumbnail, QDT9), its GPS meta box and its spatial data are
// carried over from the source movie, brought up to date and cut to the kept
// range; then the XMP box and the creation times. No location, axis or
// reordering edits: the camera's udta already holds what it needs.
#include "RebuildRequest.h"
#include "SourceMovie.h"

class NewerCameraWriter {
public:
    NewerCameraWriter(const SourceMovie& source, RebuildRequest& request) : source(source), req(request) {}
    // Records the edits in the plan over the movie; false ends the rebuild.
    bool build(const MP4::Container& movie, MP4::EditPlan& plan, bool inPlace);

private:
    // The camera's udta, brought up to date, in place of the movie's.
    bool carryUdta(const MP4::Container& movie, unsigned cameraFile, MP4::EditPlan& plan);

    const SourceMovie& source;
    RebuildRequest& req;
};
