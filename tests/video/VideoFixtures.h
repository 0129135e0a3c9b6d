#pragma once
// Synthetic source movies made with the ffmpeg command, and ffprobe queries
// for checking what the video layer wrote.
#include "TestSupport.h"

#include <string>
#include <vector>

namespace videotest {

using testsupport::fs::path;
namespace fs = testsupport::fs;

struct MovieSpec {
    int width = 960, height = 480, fps = 30;
    double seconds = 2.0;
    int audioRate = 0; // 0: no audio track
    int audioChannels = 2;
    std::string videoFilter; // appended to the generator, e.g. ",setsar=2"

    MovieSpec& rate(int f) { fps = f; return *this; }
    MovieSpec& length(double s) { seconds = s; return *this; }
    MovieSpec& audio(int r, int channels = 2) { audioRate = r; audioChannels = channels; return *this; }
    MovieSpec& filter(const std::string& f) { videoFilter = f; return *this; }
};

// Makes (once per test binary run, in a shared folder) a movie as described
// with a key frame every 30 frames and returns its path. Fails the calling
// test when ffmpeg fails.
path makeMovie(const MovieSpec& wanted);

// One ffprobe field of the first stream of the kind ("v" or "a"), or of the
// format when kind is empty; "" when absent.
std::string probe(const path& movie, const std::string& kind, const std::string& field);

// Indexes of the key frames among the video packets in decoding order.
std::vector<size_t> keyFrames(const path& movie);

// What "ffmpeg -v error -i movie -f null -" printed (empty for a clean file).
std::string decodeErrors(const path& movie);

// Whether moov comes before mdat at the top level of the file.
bool moovBeforeMdat(const path& movie);

} // namespace videotest
