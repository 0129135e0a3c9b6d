#pragma once
// Whether a movie is whole, read back as a player would meet it: every box
// lies inside its parent and the boxes of each container fill it exactly
// (the top-level boxes fill the file); every chunk of every track lies
// inside the media data (the spatial-audio track's inside the QADT
// payload); and the camera's QDT9 pointer names the QADT box. The metadata
// rebuild checks each movie it writes this way before the movie takes its
// name, and Inspect lists what it finds.
#include "MP4Container.h"

#include <string>
#include <vector>

namespace MP4 {

// What keeps the movie from being whole, one text a problem ("moov.trak.mdia.
// minf.stbl.stco: a chunk at 1200..5300 lies outside the media data"); empty
// for a whole movie.
std::vector<std::string> problemsOf(const Container& movie);

} // namespace MP4
