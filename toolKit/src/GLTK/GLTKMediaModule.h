#pragma once
// FFmpeg and the codec libraries it brings (some 140 shared objects, about
// 40 ms to map and relocate) are loaded only by the runs that decode or
// encode. The toolkit's decoding, encoding and re-encoding code is built as a
// module of its own (resize-media.so, beside the converter) and loaded the
// first time a run needs it: a metadata-only conversion of an older camera's
// movie never loads it.
//
// As it is loaded, the module fills in the function tables of the code that
// calls into it. A program that has that code linked in (the tests, the
// measuring tools) has them filled from its start and loads nothing.
#include "GLTKMedia.h"

#include <cstdint>
#include <memory>
#include <string>

namespace GLTK {

// A decoded picture: 8-bit B, G, R, A, rows bytesPerRow apart. The pixels
// are the decoder's own, held for as long as `keep` is.
struct Picture {
    int width = 0, height = 0, bytesPerRow = 0;
    const uint8_t* pixels = nullptr;
    std::shared_ptr<const void> keep;
};

// The toolkit's entries into the media module.
struct MediaFunctions {
    // GLTKVideoReader::describeSource: the picture size, length and frame
    // rate of a movie's first video track, and the rate of its first audio
    // track (when asked).
    bool (*describeSource)(const std::string& url, Size& size, MediaTime& duration, float& nominalFrameRate,
                           float* audioSampleRate) = nullptr;
    // The first frame of the first video track as BGRA, scaled down to fit
    // maximum keeping its aspect ratio (0 x 0: full size), decoded on the
    // calling thread.
    bool (*firstFrame)(const std::string& url, Size maximum, Picture& picture) = nullptr;
};

namespace MediaModule {

// Makes the module's functions available: loads the module once (any thread
// may ask) unless its code is part of the program. False, after one log
// line, when it cannot be loaded.
bool load();
// The toolkit's entries, the module loaded first; null when it cannot be.
const MediaFunctions* functions();
// Called by the module's code as the program or the module starts: fills in
// the toolkit's entries and marks the module as present.
void provide(const MediaFunctions& entries);

} // namespace MediaModule
} // namespace GLTK
