#pragma once
// The spatial-audio track of a camera movie, cut to a time range.
//
// The spatial data is a top-level uuid box (user type SpatialData::_UUID)
// with two children: QADT, the raw audio samples, and QATR, a complete track
// description whose chunk offsets point into the QADT payload. For a time
// range this works out which bytes of the payload to keep and builds a new
// QATR box describing exactly those bytes. Its chunk offsets name the kept
// bytes where they lie in the source movie; the edit plan moves them to
// where the kept bytes land in the output.
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
    bool attach(const Container& source, double start, double end);

    bool buildTrimmedQATR(const Container& c);
    // Copies a box into out, nested boxes child by child, the table boxes
    // rebuilt.
    bool copyBox(const Container& c, const BOX& box, ByteArray& out);

    ByteArray buffer;             // the rebuilt QATR box
    uint64_t co64At;              // where its chunk offsets start in buffer
    uint32_t sampleSize;          // bytes per sample (the track's stsz)
    uint32_t chunkCount;          // chunks of the rebuilt track
    uint32_t sampleCount;         // samples kept
    uint32_t lastChunkRemainder;  // kept bytes mod one chunk's bytes
    uint64_t startByte, endByte;  // kept range, from the payload's first byte
    uint64_t payloadStart;        // source file offset of the QADT payload
    bool trimmed;                 // a rebuilt QATR stands in buffer

private:
    // The rebuilt form of one table box; false for a box copied as it is.
    bool rebuiltTable(const BOX& box, ByteArray& out);
};

} // namespace MP4
