#pragma once
// The rebuild of an older camera's movie (model codes below the newer
// generation): moov goes in front of the media, unreadable loci boxes go,
// the Spherical Video boxes (V1 and V2) and the location boxes are added,
// then the XMP and axis boxes and the creation times. The camera's udta is
// not carried.
#include "RebuildRequest.h"
#include "SourceMovie.h"

class OlderCameraWriter {
public:
    OlderCameraWriter(const SourceMovie& source, RebuildRequest& request) : source(source), req(request) {}
    // Records the edits in the plan over the movie; false ends the rebuild.
    bool build(const MP4::Container& movie, MP4::EditPlan& plan, bool inPlace);

private:
    const SourceMovie& source;
    RebuildRequest& req;
};
