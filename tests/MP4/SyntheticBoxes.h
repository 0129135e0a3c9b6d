#pragma once
// Builders for small synthetic movies and an independent box walker for the
// edit tests (no use of the converter's parser).
#include "BoxBytes.h"
#include "TestSupport.h"

#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace testsupport {

inline const Bytes kSpatialUUID = {0x28, 0xF3, 0x11, 0xE2, 0xB7, 0x91, 0x4F, 0x6F,
                                   0x94, 0xE2, 0x4F, 0x5D, 0xEA, 0xCB, 0x3C, 0x01};
inline const Bytes kSphericalUUID = {0xFF, 0xCC, 0x82, 0x63, 0xF8, 0x55, 0x4A, 0x93,
                                     0x88, 0x14, 0x58, 0x7A, 0x02, 0x52, 0x1F, 0xDD};
inline const Bytes kXmpUUID = {0xBE, 0x7A, 0xCF, 0xCB, 0x97, 0xA9, 0x42, 0xE8,
                               0x9C, 0x71, 0x99, 0x94, 0x91, 0xE3, 0xAF, 0xAC};

inline uint32_t get32(const Bytes& b, size_t at)
{
    return uint32_t(b.at(at)) << 24 | uint32_t(b.at(at + 1)) << 16 | uint32_t(b.at(at + 2)) << 8 | b.at(at + 3);
}
inline uint64_t get64(const Bytes& b, size_t at) { return uint64_t(get32(b, at)) << 32 | get32(b, at + 4); }
inline Bytes slice(const Bytes& b, size_t at, size_t n) { return Bytes(b.begin() + at, b.begin() + at + n); }

// A byte pattern that shows any shift.
inline Bytes pattern(size_t n, unsigned seed = 1)
{
    Bytes b(n);
    for (size_t i = 0; i < n; ++i)
        b[i] = uint8_t((i * 7 + seed * 13 + i / 251) % 251);
    return b;
}

// -------------------------------------------------------------- walker
struct BoxAt {
    std::string type;
    size_t start = 0, size = 0, header = 8;
    size_t end() const { return start + size; }
    size_t body() const { return start + header; }
};

// Bytes between a container's header and its first child.
inline std::optional<size_t> childrenAt(const std::string& type)
{
    static const std::map<std::string, size_t> prefix = {
        {"moov", 0}, {"trak", 0}, {"mdia", 0}, {"minf", 0}, {"stbl", 0}, {"udta", 0}, {"dinf", 0},
        {"QATR", 0}, {"stsd", 8}, {"avc1", 78}, {"meta", 4}};
    auto it = prefix.find(type);
    if (it == prefix.end())
        return std::nullopt;
    return it->second;
}

// Children of the range [from, to); false when a box does not fit exactly.
inline bool children(const Bytes& f, size_t from, size_t to, std::vector<BoxAt>& out)
{
    out.clear();
    size_t at = from;
    while (at < to) {
        if (to - at < 8)
            return false;
        BoxAt b;
        b.start = at;
        b.size = get32(f, at);
        b.type = std::string(f.begin() + at + 4, f.begin() + at + 8);
        if (b.size == 1) {
            b.size = get64(f, at + 8);
            b.header = 16;
        }
        if (b.size < b.header || b.size > to - at)
            return false;
        out.push_back(b);
        at += b.size;
    }
    return true;
}

// Every known container is exactly filled by its children, and the top-level
// boxes fill the file; the spatial-data uuid counts as a container.
inline bool nestsExactly(const Bytes& f, std::string* why = nullptr, size_t from = 0, size_t to = SIZE_MAX)
{
    if (to == SIZE_MAX)
        to = f.size();
    std::vector<BoxAt> kids;
    if (!children(f, from, to, kids)) {
        if (why)
            *why = "bad nesting in [" + std::to_string(from) + "," + std::to_string(to) + ")";
        return false;
    }
    for (const BoxAt& b : kids) {
        size_t skip;
        if (auto p = childrenAt(b.type))
            skip = *p;
        else if (b.type == "uuid" && b.size >= b.header + 16 && slice(f, b.body(), 16) == kSpatialUUID)
            skip = 16;
        else
            continue;
        if (!nestsExactly(f, why, b.body() + skip, b.end()))
            return false;
    }
    return true;
}

// Every box at a dotted path (uuid children only inside the spatial box).
inline std::vector<BoxAt> findAll(const Bytes& f, const std::string& path, size_t from = 0, size_t to = SIZE_MAX)
{
    if (to == SIZE_MAX)
        to = f.size();
    std::vector<BoxAt> result, kids;
    children(f, from, to, kids);
    std::string head = path.substr(0, 4);
    std::string rest = path.size() > 5 ? path.substr(5) : "";
    for (const BoxAt& b : kids) {
        if (b.type != head)
            continue;
        if (rest.empty()) {
            result.push_back(b);
            continue;
        }
        size_t skip;
        if (auto p = childrenAt(b.type))
            skip = *p;
        else if (b.type == "uuid" && slice(f, b.body(), 16) == kSpatialUUID)
            skip = 16;
        else
            continue;
        auto inner = findAll(f, rest, b.body() + skip, b.end());
        result.insert(result.end(), inner.begin(), inner.end());
    }
    return result;
}
inline std::optional<BoxAt> findOne(const Bytes& f, const std::string& path)
{
    auto all = findAll(f, path);
    if (all.empty())
        return std::nullopt;
    return all.front();
}

// Chunk offsets of every table at the prefix (stco then co64, in file order).
inline std::vector<uint64_t> chunkOffsets(const Bytes& f, const std::string& prefix = "moov.trak.mdia.minf.stbl")
{
    std::vector<uint64_t> r;
    for (const char* t : {".stco", ".co64"})
        for (const BoxAt& b : findAll(f, prefix + t)) {
            uint32_t n = get32(f, b.body() + 4);
            for (uint32_t i = 0; i < n; ++i)
                r.push_back(t[1] == 's' ? get32(f, b.body() + 8 + 4 * i) : get64(f, b.body() + 8 + 8 * i));
        }
    return r;
}

// -------------------------------------------------------------- builders
inline Bytes u32s(std::initializer_list<uint32_t> v)
{
    Bytes b;
    for (uint32_t x : v)
        add32(b, x);
    return b;
}

// A track whose chunks (one per offset) lie in the file; the size table gives
// each chunk one sample of chunkBytes bytes.
inline Bytes mediaTrak(uint32_t width, uint32_t height, const std::vector<uint32_t>& offsets, uint32_t chunkBytes,
                       bool use64 = false, const Bytes& extra = {})
{
    Bytes stsz = u32s({0, chunkBytes, uint32_t(offsets.size())});
    Bytes table = use64 ? co64(std::vector<uint64_t>(offsets.begin(), offsets.end())) : stco(offsets);
    Bytes stbl = box("stbl", cat({fullbox("stsd", 0, u32s({0})), fullbox("stts", 0, u32s({0})),
                                  fullbox("stsc", 0, u32s({1, 1, 1, 1})), fullbox("stsz", 0, stsz), table}));
    return box("trak", cat({tkhd(width, height), box("mdia", cat({fullbox("mdhd", 0, Bytes(20, 0)), box("minf", stbl)})), extra}));
}

// The spatial-data uuid box: QADT with the payload, then the QATR track whose
// co64 points at chunks of 1536 samples from payloadAt (the payload's file
// offset).
inline Bytes spatialBox(const Bytes& payload, uint32_t timeScale, uint32_t sampleSize, uint64_t payloadAt)
{
    uint32_t samples = uint32_t(payload.size() / sampleSize);
    uint64_t chunkBytes = uint64_t(sampleSize) * 1536;
    std::vector<uint64_t> offsets;
    for (uint64_t o = 0; o < payload.size(); o += chunkBytes)
        offsets.push_back(payloadAt + o);
    Bytes mdhdBody = u32s({1111, 2222, timeScale, samples});
    add16(mdhdBody, 0x55C4);
    add16(mdhdBody, 0);
    Bytes sowt = box("sowt", Bytes(28, 0));
    Bytes stbl = box("stbl", cat({fullbox("stsd", 0, cat({u32s({1}), sowt})), fullbox("stts", 0, u32s({1, samples, 1})),
                                  fullbox("stsc", 0, u32s({1, 1, 1536, 1})), fullbox("stsz", 0, u32s({sampleSize, samples})),
                                  co64(offsets)}));
    Bytes minf = box("minf", cat({fullbox("smhd", 0, Bytes(4, 0)),
                                  box("dinf", fullbox("dref", 0, cat({u32s({1}), fullbox("url ", 1, {})}))), stbl}));
    Bytes mdia = box("mdia", cat({fullbox("mdhd", 0, mdhdBody), fullbox("hdlr", 0, cat({u32s({0}), text("soun"), Bytes(13, 0)})), minf}));
    Bytes qatr = box("QATR", cat({tkhd(0, 0), mdia}));
    return box("uuid", cat({kSpatialUUID, box("QADT", payload), qatr}));
}

} // namespace testsupport
