#pragma once
// Byte-level helpers for the QDTx sensor-stream boxes (layout described in
// AccelSensorStreamEmbed.h): byte order and the trim rewrite applied to a
// box inside a copied udta.
#include "ByteArray.h"
#include "MP4Box.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace SensorStream {

// Bytes in file order to host values; the host is little-endian.
inline uint16_t le16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }
inline uint32_t le32(const uint8_t* p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
template <class T> void swapBytes(T& v)
{
    uint8_t b[sizeof(T)];
    std::memcpy(b, &v, sizeof(T));
    std::reverse(b, b + sizeof(T));
    std::memcpy(&v, b, sizeof(T));
}


// Cuts a sensor box, held in memory, to `count` records starting at record
// `first` (records of recordSize bytes: 16 for QDTD, 24 for QDTC); a cut
// past the last record keeps those there are. The count field is written in
// the box's byte order, the kept records move to the front of the record
// area as raw bytes, and the bytes behind them become zero; the box keeps
// its size. Returns false and leaves the box untouched when the kept records
// would fill the box exactly (or it is too small to be a stream).
bool trimSensorBox(uint8_t* box, uint64_t boxSize, unsigned recordSize, uint32_t first, uint32_t count);

} // namespace SensorStream
