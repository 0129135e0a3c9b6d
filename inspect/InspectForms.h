#pragma once
// The two forms of Inspect's report: text for a person (the default) and one
// JSON document for scripts. Both go to standard output; the problems are
// said on standard error by the caller.
#include "InspectReport.h"

#include <string>

namespace Inspect {

// The box tree with the typed boxes' fields, the source probe's findings,
// the tracks, the maker note, the position, the Spherical Video view, the
// sensor streams with the orientation decided from them, and the spatial
// audio. For a movie only.
void printText(const Report& report);

// The whole report as one JSON document, ending in a line end; for a file
// that is not a movie, the file and the reason.
std::string jsonDocument(const Report& report);

} // namespace Inspect
