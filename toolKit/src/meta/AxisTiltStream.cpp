#include "AxisTiltStream.h"

#include <cstring>

uint64_t AxisTiltStream::trim(uint32_t start, uint32_t count)
{
    const uint64_t length = data.size();
    if (length < 16 || count == 0)
        return length;
    const uint8_t* p = reinterpret_cast<const uint8_t*>(data.data());
    const uint16_t mark = uint16_t(p[8] | p[9] << 8);
    const bool big = mark == 0x3210;
    if (!big && mark != 0x0123)
        return length;
    auto rd32 = [&](const uint8_t* q) {
        return big ? uint32_t(q[0]) << 24 | uint32_t(q[1]) << 16 | uint32_t(q[2]) << 8 | q[3]
                   : uint32_t(q[3]) << 24 | uint32_t(q[2]) << 16 | uint32_t(q[1]) << 8 | q[0];
    };
    const uint32_t records = rd32(p);
    const uint32_t unit = big ? uint32_t(p[6] << 8 | p[7]) : uint32_t(p[7] << 8 | p[6]);
    if (unit == 0 || uint64_t(records) * unit > length - 16)
        return length;
    if (uint64_t(start) + count > records)
        return length;
    std::string out = data.substr(0, 16);
    out.append(data, 16 + uint64_t(start) * unit, uint64_t(count) * unit);
    uint8_t* q = reinterpret_cast<uint8_t*>(out.data());
    if (big) {
        q[0] = uint8_t(count >> 24), q[1] = uint8_t(count >> 16), q[2] = uint8_t(count >> 8), q[3] = uint8_t(count);
    } else {
        q[3] = uint8_t(count >> 24), q[2] = uint8_t(count >> 16), q[1] = uint8_t(count >> 8), q[0] = uint8_t(count);
    }
    data = out;
    return data.size();
}
