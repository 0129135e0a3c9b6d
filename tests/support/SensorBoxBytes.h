#pragma once
// Builds the camera's sensor-stream boxes (QDTx in moov.udta) in tests: a
// 16-byte stream header and fixed-size records, in either byte order; and a
// minimal movie around them.
#include "BoxBytes.h"
#include "GLTKwchar.h"
#include "MP4Container.h"
#include "TestSupport.h"

#include <bit>
#include <gtest/gtest.h>

namespace testsupport {

// Byte order of a stream: the mark read little-endian from the header.
enum class Order { Little, Big };

// v as n bytes in the given order.
inline void put(Bytes& b, uint64_t v, int n, Order o)
{
    for (int i = 0; i < n; ++i)
        b.push_back(uint8_t(v >> 8 * (o == Order::Big ? n - 1 - i : i)));
}
// A record: fields of the given width, the reserved bytes as given, then
// the 64-bit time.
inline Bytes record(int width, std::initializer_list<uint32_t> fields, const Bytes& reserved, uint64_t t, Order o)
{
    Bytes b;
    for (uint32_t v : fields)
        put(b, v, width, o);
    b.insert(b.end(), reserved.begin(), reserved.end());
    put(b, t, 8, o);
    return b;
}
// QDTD: gravity x, y, z (16 bits), 2 reserved, time.
inline Bytes gravityRecord(int16_t x, int16_t y, int16_t z, uint64_t t, Order o = Order::Little)
{
    return record(2, {uint16_t(x), uint16_t(y), uint16_t(z)}, {0xAA, 0xBB}, t, o);
}
// QDTB / QDTC: x, y, z (32 bits), 4 reserved, time.
inline Bytes xyzRecord(uint32_t x, uint32_t y, uint32_t z, uint64_t t, Order o = Order::Little)
{
    return record(4, {x, y, z}, {0xA1, 0xA2, 0xA3, 0xA4}, t, o);
}
inline Bytes compassRecord(float x, float y, float z, uint64_t t, Order o = Order::Little)
{
    return xyzRecord(std::bit_cast<uint32_t>(x), std::bit_cast<uint32_t>(y), std::bit_cast<uint32_t>(z), t, o);
}
// QDTI: the quaternion w, x, y, z (floats), time.
inline Bytes yawRecord(float w, uint64_t t) { return record(4, {std::bit_cast<uint32_t>(w), 0, 0, 0}, {}, t, Order::Little); }
// QDTG: one time.
inline Bytes timeRecord(uint64_t t) { return record(4, {}, {}, t, Order::Little); }

// The box: count, extra, unitSize, mark, 6 reserved, then the records.
inline Bytes sensorBox(const std::string& type, uint16_t unitSize, uint32_t count, const Bytes& records,
                       Order o = Order::Little, uint16_t extra = 0)
{
    Bytes p;
    put(p, count, 4, o);
    put(p, extra, 2, o);
    put(p, unitSize, 2, o);
    put(p, o == Order::Big ? 0x3210 : 0x0123, 2, Order::Little); // the mark is always read little-endian
    p.resize(p.size() + 6, 0);
    return box(type, cat({p, records}));
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
    Bytes mvhd;
    for (uint32_t v : {0, 0, 0, 1000, 2000}) // version and flags, creation, modification, time scale, duration
        add32(mvhd, v);
    mvhd.resize(mvhd.size() + 80, 0);
    return cat({box("ftyp", cat({text("isom"), {0, 0, 2, 0}, text("isomavc1")})),
                box("moov", cat({box("mvhd", mvhd), box("udta", udtaChildren)}))});
}

// movieWithUdta written to a temporary folder and attached.
struct UdtaMovie {
    TempDir dir;
    MP4::Container c;
    explicit UdtaMovie(const Bytes& udtaChildren)
    {
        writeFile(dir / "movie.mp4", movieWithUdta(udtaChildren));
        EXPECT_TRUE(c.attach(GLTK::wchar::mbs2wcs((dir / "movie.mp4").string())));
    }
};

} // namespace testsupport
