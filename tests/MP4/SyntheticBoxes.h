#pragma once
// Small synthetic movies for the edit-plan tests, built and walked with the
// test support's own box code (no use of the converter's parser).
#include "BoxWalk.h"
#include "GLTKwchar.h"
#include "MP4Container.h"
#include "TestSupport.h"

#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <sys/stat.h>

namespace testsupport {

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

// A track whose chunks (one per offset) each hold one sample of chunkBytes.
inline Bytes mediaTrak(uint32_t width, uint32_t height, const std::vector<uint32_t>& offsets, uint32_t chunkBytes,
                       bool use64 = false)
{
    Bytes table = use64 ? co64(std::vector<uint64_t>(offsets.begin(), offsets.end())) : stco(offsets);
    Bytes stbl = box("stbl", cat({fullbox("stsd", 0, u32s({0})), fullbox("stts", 0, u32s({0})),
                                  fullbox("stsc", 0, u32s({1, 1, 1, 1})),
                                  fullbox("stsz", 0, u32s({0, chunkBytes, uint32_t(offsets.size())})), table}));
    return box("trak", cat({tkhd(width, height), box("mdia", cat({fullbox("mdhd", 0, Bytes(20, 0)), box("minf", stbl)}))}));
}

// A small movie written to dir/m.mp4 and attached: ftyp, then moov (mvhd, a
// video track with two 1000-byte chunks in stco, a sound track with one in
// co64) and mdat, in either order. damage may change the bytes first.
struct SyntheticMovie {
    TempDir dir;
    Bytes file;
    MP4::Container c;
    SyntheticMovie(bool moovFirst, const std::function<void(Bytes&)>& damage = nullptr)
    {
        Bytes ftyp = box("ftyp", text("isomiso2")), media(3000, 0x5A);
        auto moov = [&](uint32_t at) {
            return box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)), mediaTrak(960, 480, {at, at + 1000}, 1000),
                                    mediaTrak(0, 0, {at + 2000}, 1000, true)}));
        };
        file = moovFirst ? cat({ftyp, moov(uint32_t(ftyp.size() + moov(0).size() + 8)), box("mdat", media)})
                         : cat({ftyp, box("mdat", media), moov(uint32_t(ftyp.size() + 8))});
        if (damage)
            damage(file);
        writeFile(dir / "m.mp4", file);
        EXPECT_TRUE(c.attach(w(dir / "m.mp4")));
    }
};

} // namespace testsupport
