#pragma once
// The rebuild of an older camera's movie (model codes below the newer
// generation): moov goes in front of the media, unreadable loci boxes go,
// the Spherical Video boxes (V1 and V2) and the location boxes the movie
// lacks are added, then the XMP and axis boxes and the creation times.
// After a re-encode the camera's own boxes come along as for the newer
// cameras: its udta (model text, maker note, sensor streams, maker
// thumbnail) brought up to date and cut to the kept range, and its GPS meta
// box; a metadata-only copy carries them as they stand in the movie.
#include "RebuildRequest.h"
#include "SourceMovie.h"

class OlderCameraWriter {
public:
    OlderCameraWriter(const SourceMovie& source, RebuildRequest& request) : source(source), req(request) {}
    // Records the edits in the plan over the movie; false ends the rebuild.
    bool build(const MP4::Container& movie, MP4::EditPlan& plan, bool inPlace);

private:
    // The camera's udta (but a loci box that cannot be read) with the
    // location boxes it lacks, in place of the fresh encode's.
    bool carryUdta(const MP4::Container& movie, unsigned cameraFile, MP4::EditPlan& plan);

    const SourceMovie& source;
    RebuildRequest& req;
};
