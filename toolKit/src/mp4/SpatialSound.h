#pragma once
// The spatial-audio track of a camera movie, cut to a time range.
//
// The spatial data is a top-level uuid box (user type SpatialData::_UUID)
// with two children: QADT, the raw audio samples, and QATR, a complete track
// description whose chunk offsets point into the QADT payload. For a time
// range this works out which bytes of the payload to keep and builds a new
// QATR box describing exactly those bytes, with its chunk offsets pointing
// at the source's QADT payload; the container's trimSpatialData writes the
// kept bytes and this track and then moves the offsets to the new box.
#include "ByteArray.h"
#include "MP4Container.h"

#include <cstdint>
#include <string>

namespace MP4 {

class SpatialSound {
public:
    // Samples per chunk of the rebuilt track.
    static constexpr uint32_t kChunkSamples = 1536;

    SpatialSound() { clear(); }
    virtual ~SpatialSound() = default;

    void clear();

    // Works out the kept range for start and end in seconds (end < 0: to the
    // end of the data) and builds the rebuilt QATR. True with `trimmed` false
    // when the whole movie is asked for or the source has no spatial data.
    bool attach(const std::wstring& source, double start, double end);

    bool buildTrimmedQATR(Container& c);
    // Copies a box into out, nested boxes child by child, the table boxes
    // rebuilt; size receives the number of bytes appended.
    bool copyBox(Container& c, BOX& box, ByteArray& out, unsigned& size);
    bool copyAndModify(Container& c, BOX& box, ByteArray& out, unsigned& size);

    // Each writes the rebuilt table box and returns its length (0 on failure).
    unsigned modifyMDHD(Container& c, BOX& box, ByteArray& out);
    unsigned modifySTTS(Container& c, BOX& box, ByteArray& out);
    unsigned modifySTSC(Container& c, BOX& box, ByteArray& out);
    unsigned modifySTSZ(Container& c, BOX& box, ByteArray& out);
    unsigned modifyCO64(Container& c, BOX& box, ByteArray& out);

    // The box's size (newSize, or the source's when 0), type, version and
    // flags.
    bool writeFullBoxHeader(const BOX& box, GLTK::FileIO& file, ByteArray& out, unsigned newSize);
    // Writes buffer at the file's position; true when it is empty or whole.
    bool writeTrimmedQATR(GLTK::FileIO& file);

    ByteArray buffer;             // the rebuilt QATR box
    uint32_t sampleSize;          // bytes per sample (the track's stsz)
    uint32_t chunkCount;          // chunks of the rebuilt track
    uint32_t sampleCount;         // samples kept
    uint32_t lastChunkRemainder;  // kept bytes mod one chunk's bytes
    uint64_t startByte, endByte;  // kept range, from the payload's first byte
    uint64_t payloadStart;        // source file offset of the QADT payload
    bool trimmed;                 // a rebuilt QATR stands in buffer
};

} // namespace MP4
