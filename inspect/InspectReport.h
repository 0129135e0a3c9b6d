#pragma once
// What Inspect finds in one file, read once and printed in either form (the
// text a person reads, or one JSON document for scripts). Reading prints
// nothing; each form decides what to show.
//
// A file is one of three kinds: not a movie at all (missing, a folder, no
// MP4 boxes), a movie with problems (a box that runs past its parent or the
// file, a chunk outside the media data, no movie box, a maker note or a
// sensor stream that cannot be read), or a whole movie.
#include "GPSInfo.h"
#include "SourceMovie.h"
#include "ViewHeading.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Inspect {

// One track, from its boxes alone (nothing is decoded).
struct Track {
    uint32_t id = 0;
    std::string handler; // "vide", "soun", ... from hdlr
    std::string codec;   // the first sample entry's code: "avc1", "hvc1", "mp4a", ...
    uint32_t width = 0, height = 0;
    uint32_t timeScale = 0;
    double seconds = 0;
    uint64_t samples = 0;
    double frameRate = 0; // samples per second, for a video track
};

// One QDTx sensor-stream box: its 16-byte stream header and the times of
// its first and last record.
struct SensorSummary {
    std::string type;
    bool readable = false; // the header makes sense and every record is in the box
    uint32_t records = 0;
    uint16_t rate = 0;       // the header's per-stream value: records per second
    uint16_t recordSize = 0; // bytes per record, as the header says
    bool bigEndian = false;
    uint64_t firstTime = 0, lastTime = 0;
};

// The spatial-audio data: the QADT samples and the QATR track over them.
struct SpatialAudio {
    uint64_t dataBytes = 0; // QADT payload
    bool hasTrack = false;
    Track track;
    bool pointer = false; // moov.udta.QDT9 is there
};

class Report {
public:
    enum class Kind { NotAMovie, Problems, Whole };

    // Reads the file at path. Never prints.
    void read(const std::wstring& path);

    Kind kind() const;
    // 0 a whole movie, 1 not a movie, 2 a movie with problems.
    int exitStatus() const;

    std::wstring path;
    bool hasSize = false; // the file could be looked at
    uint64_t fileSize = 0;
    // Why the file is not a movie ("No such file or directory", "not an MP4
    // movie"); empty for a movie.
    std::string refusal;
    // The parsed file and what the camera wrote besides the media.
    SourceMovie source;
    // What keeps the movie from being whole, one text each.
    std::vector<std::string> problems;

    std::vector<Track> tracks;
    std::vector<SensorSummary> streams;
    bool hasSpatialAudio = false;
    SpatialAudio spatialAudio;

    // The maker note's byte order: "big-endian", "little-endian", or empty
    // when there is none to tell.
    std::string makerNoteOrder;

    // The position: from @xyz (with the maker note's or the XMP's
    // direction), else from the text position box; gpsSource names the box,
    // empty when there is no position.
    GPSInfo gps;
    std::string gpsSource;

    // The Spherical Video V1 view, when the video track has the XML.
    ViewHeading view;

private:
    void readTracks();
    void readStreams();
    void readSpatialAudio();
    void readPosition();
};

// A box's four-character code as UTF-8 text, each byte taken as Latin-1 (the
// text position box's code begins with the copyright sign, 0xA9).
std::string codeText(uint32_t type);

} // namespace Inspect
