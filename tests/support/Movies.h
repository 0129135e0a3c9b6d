#pragma once
// Synthetic camera movies for the tests, and independent checks of MP4
// files. Both run the Python tools in tests/fixtures, which share no code
// with the converter: make_movie.py builds a movie (ffmpeg picture and sound
// plus the camera's boxes), mp4check.py inspects one.
#include "TestSupport.h"

#include <cstdint>
#include <string>
#include <vector>

namespace testsupport {

// A movie built once per make_movie.py option text ("--model older
// --layout moov-first") and kept in the fixture cache, so that tests asking
// for the same movie share it. Never edit it: copy it first (copyMovie) when
// a test changes the file. A failing build fails the test and throws.
fs::path sharedMovie(const std::string& options = "");
fs::path copyMovie(const std::string& options, const fs::path& out);

// Runs mp4check.py with the given arguments (already quoted); returns its
// exit status and fills out with what it printed.
int mp4check(const std::string& args, std::string* out = nullptr);

// Every track of a and b has the same samples, byte for byte, tracks matched
// in order (and the spatial-audio samples when both files carry them).
bool samplesEqual(const fs::path& a, const fs::path& b, std::string* why = nullptr);

// Every known container box is exactly filled by its children and the
// top-level boxes exactly fill the file.
bool nestingOk(const fs::path& file, std::string* why = nullptr);

// Every chunk of every track lies inside an mdat payload, every spatial-audio
// chunk inside the QADT payload, and a QDT9 box points at the QADT box.
bool offsetsOk(const fs::path& file, std::string* why = nullptr);

// Payload of the first box at a dotted path ("moov.udta.QMKN"; a segment
// "uuid=HEX" picks a uuid box by user type and the payload then starts after
// the user type). False when there is no such box.
bool boxPayload(const fs::path& file, const std::string& path, std::vector<uint8_t>& out);

// ffmpeg decodes every stream of the file without printing an error.
bool decodesCleanly(const fs::path& file, std::string* why = nullptr);

} // namespace testsupport
