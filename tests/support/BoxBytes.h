#pragma once
// Builds MP4 boxes from bytes in tests, field by field.
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace testsupport {

using Bytes = std::vector<uint8_t>;

inline void add32(Bytes& b, uint32_t v)
{
    b.push_back(uint8_t(v >> 24));
    b.push_back(uint8_t(v >> 16));
    b.push_back(uint8_t(v >> 8));
    b.push_back(uint8_t(v));
}
inline void add16(Bytes& b, uint16_t v)
{
    b.push_back(uint8_t(v >> 8));
    b.push_back(uint8_t(v));
}
inline void add64(Bytes& b, uint64_t v)
{
    add32(b, uint32_t(v >> 32));
    add32(b, uint32_t(v));
}
inline Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes r;
    for (const Bytes& p : parts)
        r.insert(r.end(), p.begin(), p.end());
    return r;
}
// size, type, payload
inline Bytes box(const std::string& type, const Bytes& payload)
{
    Bytes b;
    b.reserve(payload.size() + 8);
    add32(b, uint32_t(payload.size() + 8));
    b.insert(b.end(), type.begin(), type.begin() + 4);
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}
// A full box: version and flags before the payload.
inline Bytes fullbox(const std::string& type, uint32_t versionFlags, const Bytes& payload)
{
    Bytes p;
    add32(p, versionFlags);
    p.insert(p.end(), payload.begin(), payload.end());
    return box(type, p);
}
inline Bytes stco(const std::vector<uint32_t>& offsets)
{
    Bytes p;
    add32(p, uint32_t(offsets.size()));
    for (uint32_t o : offsets)
        add32(p, o);
    return fullbox("stco", 0, p);
}
inline Bytes co64(const std::vector<uint64_t>& offsets)
{
    Bytes p;
    add32(p, uint32_t(offsets.size()));
    for (uint64_t o : offsets)
        add64(p, o);
    return fullbox("co64", 0, p);
}
// A track header of version 0 with the given size in whole pixels.
inline Bytes tkhd(uint32_t width, uint32_t height, uint32_t creation = 0)
{
    Bytes p;
    add32(p, creation);
    add32(p, 0);
    add32(p, 1); // track id
    add32(p, 0);
    add32(p, 0); // duration
    p.resize(p.size() + 8 + 2 + 2 + 2 + 2 + 36, 0);
    add32(p, width << 16);
    add32(p, height << 16);
    return fullbox("tkhd", 0, p);
}
inline Bytes trak(const Bytes& tkhdBox, const Bytes& table)
{
    return box("trak", cat({tkhdBox, box("mdia", box("minf", box("stbl", table)))}));
}
inline Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

} // namespace testsupport
