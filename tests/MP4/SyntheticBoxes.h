#pragma once
// Builders for small synthetic movies and an independent box walker for the
// edit tests (no use of the converter's parser).
#include "BoxBytes.h"
#include "GLTKwchar.h"
#include "MP4Container.h"
#include "TestSupport.h"

#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <string>
#include <sys/stat.h>

namespace testsupport {

inline const Bytes kSpatialUUID = {0x28, 0xF3, 0x11, 0xE2, 0xB7, 0x91, 0x4F, 0x6F,
                                   0x94, 0xE2, 0x4F, 0x5D, 0xEA, 0xCB, 0x3C, 0x01};
inline const Bytes kSphericalUUID = {0xFF, 0xCC, 0x82, 0x63, 0xF8, 0x55, 0x4A, 0x93,
                                     0x88, 0x14, 0x58, 0x7A, 0x02, 0x52, 0x1F, 0xDD};

inline uint32_t get32(const Bytes& b, size_t at)
{
    return uint32_t(b.at(at)) << 24 | uint32_t(b.at(at + 1)) << 16 | uint32_t(b.at(at + 2)) << 8 | b.at(at + 3);
}
inline uint64_t get64(const Bytes& b, size_t at) { return uint64_t(get32(b, at)) << 32 | get32(b, at + 4); }
inline Bytes slice(const Bytes& b, size_t at, size_t n) { return Bytes(b.begin() + long(at), b.begin() + long(at + n)); }
inline Bytes u32s(std::initializer_list<uint32_t> v)
{
    Bytes b;
    for (uint32_t x : v)
        add32(b, x);
    return b;
}

inline std::wstring w(const fs::path& p) { return GLTK::wchar::mbs2wcs(p.string()); }
inline ino_t inode(const fs::path& p)
{
    struct stat st;
    return stat(p.c_str(), &st) == 0 ? st.st_ino : 0;
}
// What f printed.
inline std::string capture(const std::function<void()>& f)
{
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

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

// Where a container's children start (the spatial-data uuid counts as one).
inline std::optional<size_t> childrenStart(const Bytes& f, const BoxAt& b)
{
    static const std::map<std::string, size_t> prefix = {
        {"moov", 0}, {"trak", 0}, {"mdia", 0}, {"minf", 0}, {"stbl", 0}, {"udta", 0},
        {"dinf", 0}, {"QATR", 0}, {"stsd", 8}, {"avc1", 78}, {"meta", 4}};
    if (auto it = prefix.find(b.type); it != prefix.end())
        return b.body() + it->second;
    if (b.type == "uuid" && b.size >= b.header + 16 && slice(f, b.body(), 16) == kSpatialUUID)
        return b.body() + 16;
    return std::nullopt;
}

// Children of the range [from, to); false when a box does not fit exactly.
inline bool children(const Bytes& f, size_t from, size_t to, std::vector<BoxAt>& out)
{
    out.clear();
    for (size_t at = from; at < to; at += out.back().size) {
        if (to - at < 8)
            return false;
        BoxAt b{std::string(f.begin() + long(at) + 4, f.begin() + long(at) + 8), at, get32(f, at)};
        if (b.size == 1) {
            b.size = get64(f, at + 8);
            b.header = 16;
        }
        if (b.size < b.header || b.size > to - at)
            return false;
        out.push_back(b);
    }
    return true;
}

// Every known container is exactly filled by its children, and the top-level
// boxes fill the file.
inline bool nestsExactly(const Bytes& f, std::string* why = nullptr, size_t from = 0, size_t to = SIZE_MAX)
{
    to = std::min(to, f.size());
    std::vector<BoxAt> kids;
    if (!children(f, from, to, kids)) {
        if (why)
            *why = "bad nesting in [" + std::to_string(from) + "," + std::to_string(to) + ")";
        return false;
    }
    for (const BoxAt& b : kids)
        if (auto at = childrenStart(f, b); at && !nestsExactly(f, why, *at, b.end()))
            return false;
    return true;
}

// Every box at a dotted path.
inline std::vector<BoxAt> findAll(const Bytes& f, const std::string& path, size_t from = 0, size_t to = SIZE_MAX)
{
    std::vector<BoxAt> result, kids;
    children(f, from, std::min(to, f.size()), kids);
    const std::string rest = path.size() > 5 ? path.substr(5) : "";
    for (const BoxAt& b : kids) {
        if (b.type != path.substr(0, 4))
            continue;
        if (rest.empty())
            result.push_back(b);
        else if (auto at = childrenStart(f, b)) {
            auto inner = findAll(f, rest, *at, b.end());
            result.insert(result.end(), inner.begin(), inner.end());
        }
    }
    return result;
}
inline std::optional<BoxAt> findOne(const Bytes& f, const std::string& path)
{
    auto all = findAll(f, path);
    return all.empty() ? std::nullopt : std::optional<BoxAt>(all.front());
}

// Chunk offsets of every table at the prefix (stco then co64, in file order).
inline std::vector<uint64_t> chunkOffsets(const Bytes& f, const std::string& prefix = "moov.trak.mdia.minf.stbl")
{
    std::vector<uint64_t> r;
    for (const char* t : {".stco", ".co64"})
        for (const BoxAt& b : findAll(f, prefix + t))
            for (uint32_t i = 0, n = get32(f, b.body() + 4); i < n; ++i)
                r.push_back(t[1] == 's' ? get32(f, b.body() + 8 + 4 * i) : get64(f, b.body() + 8 + 8 * i));
    return r;
}

// -------------------------------------------------------------- builders
// A track whose chunks (one per offset) lie in the file, each one sample of
// chunkBytes bytes.
inline Bytes mediaTrak(uint32_t width, uint32_t height, const std::vector<uint32_t>& offsets, uint32_t chunkBytes,
                       bool use64 = false, const Bytes& extra = {})
{
    Bytes table = use64 ? co64(std::vector<uint64_t>(offsets.begin(), offsets.end())) : stco(offsets);
    Bytes stbl = box("stbl", cat({fullbox("stsd", 0, u32s({0})), fullbox("stts", 0, u32s({0})),
                                  fullbox("stsc", 0, u32s({1, 1, 1, 1})),
                                  fullbox("stsz", 0, u32s({0, chunkBytes, uint32_t(offsets.size())})), table}));
    return box("trak", cat({tkhd(width, height), box("mdia", cat({fullbox("mdhd", 0, Bytes(20, 0)), box("minf", stbl)})),
                            extra}));
}

// The spatial-data uuid box: QADT with the payload, then the QATR track whose
// co64 points at chunks of 1536 samples from payloadAt (the payload's file
// offset).
inline Bytes spatialBox(const Bytes& payload, uint32_t timeScale, uint32_t sampleSize, uint64_t payloadAt)
{
    uint32_t samples = uint32_t(payload.size() / sampleSize);
    std::vector<uint64_t> offsets;
    for (uint64_t o = 0; o < payload.size(); o += uint64_t(sampleSize) * 1536)
        offsets.push_back(payloadAt + o);
    Bytes stbl = box("stbl", cat({fullbox("stsd", 0, cat({u32s({1}), box("sowt", Bytes(28, 0))})),
                                  fullbox("stts", 0, u32s({1, samples, 1})), fullbox("stsc", 0, u32s({1, 1, 1536, 1})),
                                  fullbox("stsz", 0, u32s({sampleSize, samples})), co64(offsets)}));
    Bytes minf = box("minf", cat({fullbox("smhd", 0, Bytes(4, 0)),
                                  box("dinf", fullbox("dref", 0, cat({u32s({1}), fullbox("url ", 1, {})}))), stbl}));
    Bytes mdhd = fullbox("mdhd", 0, cat({u32s({1111, 2222, timeScale, samples}), {0x55, 0xC4, 0, 0}}));
    Bytes hdlr = fullbox("hdlr", 0, cat({u32s({0}), text("soun"), Bytes(13, 0)}));
    return box("uuid", cat({kSpatialUUID, box("QADT", payload), box("QATR", cat({tkhd(0, 0), box("mdia", cat({mdhd, hdlr, minf}))}))}));
}

// A small movie written to dir/m.mp4 and attached: ftyp, then moov (mvhd, a
// video track with two 1000-byte chunks in stco, a sound track with one in
// co64, a udta with the boxes given unless none) and mdat, in either order.
// damage may change the bytes before they are written.
struct SyntheticMovie {
    TempDir dir;
    Bytes media = pattern(3000), file;
    MP4::Container c;
    SyntheticMovie(bool moovFirst, const std::optional<Bytes>& udta = std::nullopt,
                   const std::function<void(Bytes&)>& damage = nullptr)
    {
        Bytes ftyp = box("ftyp", text("isomiso2"));
        auto moov = [&](uint32_t at) {
            return box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)), mediaTrak(960, 480, {at, at + 1000}, 1000),
                                    mediaTrak(0, 0, {at + 2000}, 1000, true), udta ? box("udta", *udta) : Bytes{}}));
        };
        file = moovFirst ? cat({ftyp, moov(uint32_t(ftyp.size() + moov(0).size() + 8)), box("mdat", media)})
                         : cat({ftyp, box("mdat", media), moov(uint32_t(ftyp.size() + 8))});
        if (damage)
            damage(file);
        writeFile(path(), file);
        EXPECT_TRUE(c.attach(w(path())));
    }
    fs::path path() const { return dir / "m.mp4"; }
    bool unchanged() const { return readFile(path()) == file && !fs::exists(dir / "m.mp4.tmp.mp4"); }
    // The file as it is now, checked: every chunk holds its bytes, sizes nest.
    Bytes expectMediaIntact() const
    {
        Bytes f = readFile(path());
        std::vector<uint64_t> offs = chunkOffsets(f);
        EXPECT_EQ(offs.size(), 3u);
        for (size_t i = 0; i < offs.size() && offs[i] + 1000 <= f.size(); ++i)
            EXPECT_EQ(slice(f, offs[i], 1000), slice(media, i * 1000, 1000)) << "chunk " << i;
        std::string why;
        EXPECT_TRUE(nestsExactly(f, &why)) << why;
        return f;
    }
};

} // namespace testsupport
