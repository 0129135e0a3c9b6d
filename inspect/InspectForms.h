#pragma once
// The forms of Inspect's report, on standard output; the problems are said
// on standard error by the caller.
#include "InspectReport.h"

namespace Inspect {

// The box tree with the typed boxes' fields, the source probe's findings,
// the tracks, the maker note, the position, the Spherical Video view, the
// sensor streams with the orientation decided from them, and the spatial
// audio. For a movie only.
void printText(const Report& report);

} // namespace Inspect
