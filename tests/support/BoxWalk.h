#pragma once
// A box walker for the tests, over a file's bytes, that shares nothing with
// the converter's parser; and the user types of the camera's uuid boxes.
#include "BoxBytes.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace testsupport {

inline const Bytes kSpatialUUID = {0x28, 0xF3, 0x11, 0xE2, 0xB7, 0x91, 0x4F, 0x6F,
                                   0x94, 0xE2, 0x4F, 0x5D, 0xEA, 0xCB, 0x3C, 0x01};
inline const Bytes kSphericalUUID = {0xFF, 0xCC, 0x82, 0x63, 0xF8, 0x55, 0x4A, 0x93,
                                     0x88, 0x14, 0x58, 0x7A, 0x02, 0x52, 0x1F, 0xDD};
inline const Bytes kXmpUUID = {0xBE, 0x7A, 0xCF, 0xCB, 0x97, 0xA9, 0x42, 0xE8,
                               0x9C, 0x71, 0x99, 0x94, 0x91, 0xE3, 0xAF, 0xAC};
inline const Bytes kAxisUUID = {0x8E, 0x4E, 0x1F, 0x97, 0x81, 0xF3, 0x4D, 0x59,
                                0x97, 0xB5, 0xFF, 0x05, 0xA2, 0x7C, 0xDB, 0x7B};

// The path segment "uuid=hex" that picks a uuid box by user type in mp4check.
inline std::string uuidSegment(const Bytes& userType)
{
    std::string s = "uuid=";
    for (uint8_t b : userType)
        s += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
    return s;
}

inline uint32_t get32(const Bytes& b, size_t at)
{
    return uint32_t(b.at(at)) << 24 | uint32_t(b.at(at + 1)) << 16 | uint32_t(b.at(at + 2)) << 8 | b.at(at + 3);
}
inline uint64_t get64(const Bytes& b, size_t at) { return uint64_t(get32(b, at)) << 32 | get32(b, at + 4); }
inline Bytes slice(const Bytes& b, size_t at, size_t n) { return Bytes(b.begin() + long(at), b.begin() + long(at + n)); }

struct BoxAt {
    std::string type;
    size_t start = 0, size = 0, header = 8;
    size_t end() const { return start + size; }
    size_t body() const { return start + header; }
};

// Where a container's children start (the spatial-data uuid counts as one).
inline std::optional<size_t> childrenStart(const Bytes& f, const BoxAt& b)
{
    static const std::map<std::string, size_t> prefix = {
        {"moov", 0}, {"trak", 0}, {"mdia", 0}, {"minf", 0}, {"stbl", 0}, {"udta", 0},
        {"dinf", 0}, {"QATR", 0}, {"stsd", 8}, {"avc1", 78}, {"hvc1", 78}, {"meta", 4}, {"sv3d", 0}, {"proj", 0}};
    if (auto it = prefix.find(b.type); it != prefix.end())
        return b.body() + it->second;
    if (b.type == "uuid" && b.size >= b.header + 16 && slice(f, b.body(), 16) == kSpatialUUID)
        return b.body() + 16;
    return std::nullopt;
}

// Every box at a dotted path in [from, to) ("moov.trak.tkhd"; "*" stands for
// any type), up to the first box that does not fit.
inline std::vector<BoxAt> findAll(const Bytes& f, const std::string& path, size_t from = 0, size_t to = SIZE_MAX)
{
    std::vector<BoxAt> result;
    const size_t dot = std::min(path.find('.'), path.size());
    to = std::min(to, f.size());
    for (size_t at = from; at + 8 <= to;) {
        BoxAt b{std::string(f.begin() + long(at) + 4, f.begin() + long(at) + 8), at, get32(f, at)};
        if (b.size == 1 && to - at >= 16)
            b.size = get64(f, at + 8), b.header = 16;
        if (b.size < b.header || b.size > to - at)
            break;
        if (path.compare(0, dot, b.type) == 0 || path.compare(0, dot, "*") == 0) {
            if (dot == path.size())
                result.push_back(b);
            else if (auto inner = childrenStart(f, b)) {
                auto deeper = findAll(f, path.substr(dot + 1), *inner, b.end());
                result.insert(result.end(), deeper.begin(), deeper.end());
            }
        }
        at += b.size;
    }
    return result;
}
inline std::optional<BoxAt> findOne(const Bytes& f, const std::string& path)
{
    auto all = findAll(f, path);
    return all.empty() ? std::nullopt : std::optional<BoxAt>(all.front());
}

// The top-level box types in file order, the spatial-data uuid box named
// "spatial": "ftyp moov mdat".
inline std::string topLevel(const Bytes& f)
{
    std::string s;
    for (const BoxAt& b : findAll(f, "*"))
        s += (s.empty() ? "" : " ") + (b.type == "uuid" && childrenStart(f, b) ? std::string("spatial") : b.type);
    return s;
}

} // namespace testsupport
