#pragma once
// Builds MP4 boxes from bytes in tests, field by field.
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace testsupport {

using Bytes = std::vector<uint8_t>;

// v as n big-endian bytes.
inline void addBE(Bytes& b, uint64_t v, int n)
{
    for (int i = n - 1; i >= 0; --i)
        b.push_back(uint8_t(v >> 8 * i));
}
inline void add32(Bytes& b, uint32_t v) { addBE(b, v, 4); }
inline void add64(Bytes& b, uint64_t v) { addBE(b, v, 8); }
inline Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes r;
    for (const Bytes& p : parts)
        r.insert(r.end(), p.begin(), p.end());
    return r;
}
inline Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }
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
    return box(type, cat({p, payload}));
}
// A chunk-offset table: stco with 32-bit entries, co64 with 64-bit ones.
template <class T> Bytes offsetTable(const std::vector<T>& offsets)
{
    Bytes p;
    add32(p, uint32_t(offsets.size()));
    for (T o : offsets)
        addBE(p, o, sizeof(T));
    return fullbox(sizeof(T) == 4 ? "stco" : "co64", 0, p);
}
inline Bytes stco(const std::vector<uint32_t>& offsets) { return offsetTable(offsets); }
inline Bytes co64(const std::vector<uint64_t>& offsets) { return offsetTable(offsets); }
// A track header of version 0 with the given size in whole pixels.
inline Bytes tkhd(uint32_t width, uint32_t height, uint32_t creation = 0)
{
    Bytes p;
    for (uint32_t v : {creation, 0u, 1u, 0u, 0u}) // creation, modification, track id, reserved, duration
        add32(p, v);
    p.resize(p.size() + 8 + 2 + 2 + 2 + 2 + 36, 0);
    add32(p, width << 16);
    add32(p, height << 16);
    return fullbox("tkhd", 0, p);
}
inline Bytes trak(const Bytes& tkhdBox, const Bytes& table)
{
    return box("trak", cat({tkhdBox, box("mdia", box("minf", box("stbl", table)))}));
}

} // namespace testsupport
