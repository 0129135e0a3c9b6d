#pragma once
// The spatial data of a newer camera's movie carried into the output: the
// whole box when the movie is converted whole, or a new box holding the
// kept part of the QADT payload and the rebuilt QATR track after a cut. The
// QATR chunk offsets and the udta's QDT9 pointer follow the box to its new
// place through the edit plan's remap.
#include "MP4Container.h"
#include "SpatialSound.h"

namespace SpatialDataCopy {

// Carries the spatial-data box of the camera's movie (input `file` of the
// plan) into the output of the plan over `movie`. A camera movie without
// spatial data, or a movie that already holds it, needs nothing.
bool carry(const MP4::Container& movie, const MP4::Container& camera, unsigned file, const MP4::SpatialSound& sound,
           MP4::EditPlan& plan);

} // namespace SpatialDataCopy
