#pragma once
// The source movie of a run, opened and parsed once: its box tree (the file
// kept open), what the camera wrote besides the media (SourceMetadata), and
// the facts its boxes give of its streams. The run flow builds it first and
// hands it to every stage that reads the source.
#include "MP4Container.h"
#include "SourceMetadata.h"

#include <cstdint>
#include <string>

class SourceMovie {
public:
    // Opens and reads the movie. False, with the reason as a user reads it
    // in `problem` ("No such file or directory", "Is a directory", "not an
    // MP4 movie", "not an MP4 movie (no moov box)", "damaged movie box: ..."),
    // when it cannot be converted.
    bool open(const std::wstring& path, std::wstring& problem);

    const std::wstring& path() const { return container.path; }
    // The camera generation, decided once from the model text.
    bool newer() const { return newerCamera; }

    MP4::Container container;
    SourceMetadata metadata;

    // The streams: codec of the video track (0 unknown, 1 H.264, 2 H.265,
    // and the sample-entry code that told it), the movie's length and the
    // average bit rates of the first video and the first other track.
    int32_t codec = 0;
    std::string codecEntry;
    float duration = 0;
    float videoBitRate = 0, audioBitRate = 0;
    // The video's picture size (its sample entry's; 0 when it gives none)
    // and average frame rate (samples over the track's length).
    int width = 0, height = 0;
    float frameRate = 0;
    // Tracks beyond the first video and the first other track.
    int extraTracks = 0;

private:
    void readStreams();
    bool newerCamera = false;
};
