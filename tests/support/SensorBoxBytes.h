#pragma once
// Builds the camera's sensor-stream boxes (QDTx in moov.udta) in tests: a
// 16-byte stream header and fixed-size records, in either byte order.
#include "BoxBytes.h"

#include <cstring>

namespace testsupport {

// Byte order of a stream: the mark read little-endian from the header.
enum class Order { Little, Big };

inline void put16(Bytes& b, uint16_t v, Order o)
{
    if (o == Order::Big) {
        add16(b, v);
    } else {
        b.push_back(uint8_t(v));
        b.push_back(uint8_t(v >> 8));
    }
}
inline void put32(Bytes& b, uint32_t v, Order o)
{
    if (o == Order::Big) {
        add32(b, v);
    } else {
        for (int i = 0; i < 4; ++i)
            b.push_back(uint8_t(v >> (8 * i)));
    }
}
inline void put64(Bytes& b, uint64_t v, Order o)
{
    if (o == Order::Big) {
        add64(b, v);
    } else {
        put32(b, uint32_t(v), o);
        put32(b, uint32_t(v >> 32), o);
    }
}
inline uint32_t floatBits(float f)
{
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

// QDTD record: gravity x, y, z (16 bits), 2 reserved, time.
inline Bytes gravityRecord(int16_t x, int16_t y, int16_t z, uint64_t t, Order o = Order::Little)
{
    Bytes b;
    put16(b, uint16_t(x), o);
    put16(b, uint16_t(y), o);
    put16(b, uint16_t(z), o);
    b.push_back(0xAA); // reserved, kept as read
    b.push_back(0xBB);
    put64(b, t, o);
    return b;
}
// QDTC record: compass x, y, z (floats), 4 reserved, time.
inline Bytes compassRecord(float x, float y, float z, uint64_t t, Order o = Order::Little)
{
    Bytes b;
    put32(b, floatBits(x), o);
    put32(b, floatBits(y), o);
    put32(b, floatBits(z), o);
    put32(b, 0, o);
    put64(b, t, o);
    return b;
}
// QDTG record: one time.
inline Bytes timeRecord(uint64_t t, Order o = Order::Little)
{
    Bytes b;
    put64(b, t, o);
    return b;
}
// QDTI record: w, x, y, z (32 bits), time.
inline Bytes yawRecord(int32_t w, int32_t x, int32_t y, int32_t z, uint64_t t, Order o = Order::Little)
{
    Bytes b;
    for (int32_t v : {w, x, y, z})
        put32(b, uint32_t(v), o);
    put64(b, t, o);
    return b;
}

// The box: count, extra, unitSize, mark, 6 reserved, then the records.
inline Bytes sensorBox(const std::string& type, uint16_t unitSize, uint32_t count, const Bytes& records,
                       Order o = Order::Little, uint16_t extra = 0)
{
    Bytes p;
    put32(p, count, o);
    put16(p, extra, o);
    put16(p, unitSize, o);
    // The mark is always read little-endian: 0x0123 or 0x3210.
    const uint16_t mark = o == Order::Big ? 0x3210 : 0x0123;
    p.push_back(uint8_t(mark));
    p.push_back(uint8_t(mark >> 8));
    p.resize(p.size() + 6, 0);
    p.insert(p.end(), records.begin(), records.end());
    return box(type, p);
}
// A sensor box whose count is the number of whole records given.
inline Bytes sensorBox(const std::string& type, uint16_t unitSize, const Bytes& records, Order o = Order::Little,
                       uint16_t extra = 0)
{
    return sensorBox(type, unitSize, uint32_t(records.size() / unitSize), records, o, extra);
}

// A minimal movie: ftyp, then moov with an mvhd and a udta holding the boxes
// given.
inline Bytes movieWithUdta(const Bytes& udtaChildren)
{
    Bytes ftypPayload = text("isom");
    add32(ftypPayload, 0x200);
    ftypPayload = cat({ftypPayload, text("isomavc1")});
    Bytes mvhd;
    add32(mvhd, 0);    // creation
    add32(mvhd, 0);    // modification
    add32(mvhd, 1000); // time scale
    add32(mvhd, 2000); // duration
    mvhd.resize(mvhd.size() + 80, 0);
    return cat({box("ftyp", ftypPayload), box("moov", cat({fullbox("mvhd", 0, mvhd), box("udta", udtaChildren)}))});
}

} // namespace testsupport
