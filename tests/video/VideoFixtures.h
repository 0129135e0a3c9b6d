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
    int width = 960;
    int height = 480;
    int fps = 30;
    double seconds = 2.0;
    int audioRate = 0;     // 0: no audio track
    int audioChannels = 2;
    int keyInterval = 30;  // of the source
    std::string videoFilter; // appended to the generator, e.g. ",setsar=2"

    MovieSpec& size(int w, int h) { width = w; height = h; return *this; }
    MovieSpec& rate(int f) { fps = f; return *this; }
    MovieSpec& length(double s) { seconds = s; return *this; }
    MovieSpec& audio(int r, int channels = 2) { audioRate = r; audioChannels = channels; return *this; }
    MovieSpec& filter(const std::string& f) { videoFilter = f; return *this; }
};

// Makes (once per test binary run, in a shared folder) a movie matching spec
// and returns its path. Fails the calling test when ffmpeg fails.
path makeMovie(const MovieSpec& spec);

// One ffprobe field of the first stream of the kind ("v" or "a"), or of the
// format when kind is empty; "" when absent.
std::string probe(const path& movie, const std::string& kind, const std::string& field);

// Per video packet in decoding order: whether it is a key frame.
std::vector<bool> keyFlags(const path& movie);

// Number of streams of the kind in the movie.
int streamCount(const path& movie, const std::string& kind);

// What "ffmpeg -v error -i movie -f null -" printed (empty for a clean file).
std::string decodeErrors(const path& movie);

// The four-character types of the top-level boxes in file order.
std::vector<std::string> topLevelBoxes(const path& movie);

} // namespace videotest
