// Broken and hostile source movies through the whole command, with and
// without a re-encode: the command ends by itself with status 0 or 1, says
// what failed, leaves the source as it was, leaves no temporary file behind
// and no output after a failure.
#include "Robust.h"

#include <gtest/gtest.h>

using namespace robust;

namespace {

// Small movies of both layouts: mdat first (with the spatial-data box of the
// newer cameras) and moov first.
const std::string kMdatFirst = "--model newer --size 320x160 --duration 1";
const std::string kMoovFirst = "--model older --layout moov-first --size 320x160 --duration 1";

Bytes movie(const std::string& options) { return readFile(sharedMovie(options)); }
BoxAt theBox(const Bytes& f, const std::string& path)
{
    auto b = findOne(f, path);
    if (!b)
        throw std::runtime_error("no box " + path);
    return *b;
}
void set32(Bytes& f, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        f.at(at + size_t(i)) = uint8_t(v >> (24 - 8 * i));
}

// Runs Resize on the bytes as a source, copying the metadata only and, unless
// told not to, re-encoding.
void expectSafe(const std::string& name, const Bytes& source, bool alsoReEncode = true)
{
    TempDir dir;
    writeFile(dir / "src.mp4", source);
    for (const char* options : {"", "-vw:320"}) {
        if (*options && !alsoReEncode)
            continue;
        SCOPED_TRACE(name + " " + options);
        runChecked(options, dir / "src.mp4", dir / "out.mp4");
        fs::remove(dir / "out.mp4");
    }
}

// A folder and other files that are no movie at all are refused before
// anything is read (the command-line tests).
TEST(HostileMovies, EmptyAndTruncatedFiles)
{
    expectSafe("0-byte file", {});
    for (const std::string& options : {kMdatFirst, kMoovFirst}) {
        const Bytes f = movie(options);
        const BoxAt ftyp = theBox(f, "ftyp"), moov = theBox(f, "moov"), mdat = theBox(f, "mdat");
        // Inside the first header, after ftyp, at box boundaries, inside the
        // media, at several places inside moov, and one byte short of the end.
        for (size_t cut : {size_t(4), ftyp.end(), mdat.start + 4, mdat.body() + 100, mdat.end() - 1, moov.start + 8,
                           moov.start + moov.size / 3, moov.start + 2 * moov.size / 3, f.size() - 1})
            expectSafe(options + " cut at " + std::to_string(cut), Bytes(f.begin(), f.begin() + long(cut)));
    }
}

TEST(HostileMovies, BoxSizesAndChunkOffsetsPastTheEnd)
{
    const Bytes clean = movie(kMdatFirst);
    for (const char* path : {"moov", "mdat", "moov.trak", "moov.udta", "moov.udta.QMKN",
                             "moov.trak.mdia.minf.stbl.stco", "moov.trak.mdia.minf.stbl.stsd"})
        for (uint32_t size : {0u, 1u, 0xFFFFFFF0u}) {
            Bytes f = clean;
            set32(f, theBox(clean, path).start, size);
            expectSafe(std::string(path) + " size " + std::to_string(size), f, size != 1);
        }
    for (uint32_t past : {uint32_t(clean.size() + 1000), 0xFFFFFFF0u}) {
        Bytes f = clean;
        for (const BoxAt& stco : findAll(clean, "moov.trak.mdia.minf.stbl.stco"))
            for (uint32_t i = 0; i < get32(clean, stco.body() + 4); ++i)
                set32(f, stco.body() + 8 + 4 * i, past + i);
        expectSafe("every chunk offset at " + std::to_string(past), f);
    }
}

TEST(HostileMovies, MakerNoteOffsetsThatLoopOrLeaveTheBox)
{
    // The big-endian TIFF chain the camera writes: IFD0 -> EXIF -> maker note
    // (after its 8-byte signature) -> ORVEX IFD. value(ifd, tag) is the file
    // offset of the value field of the entry with that tag.
    const Bytes clean = movie(kMdatFirst);
    const size_t base = theBox(clean, "moov.udta.QMKN").body(), size = theBox(clean, "moov.udta.QMKN").size - 8;
    auto value = [&](size_t ifd, uint16_t tag) {
        for (size_t at = base + ifd + 2; at < base + ifd + 2 + 12 * (get32(clean, base + ifd) >> 16); at += 12)
            if (get32(clean, at) >> 16 == tag)
                return at + 8;
        throw std::runtime_error("no maker-note entry " + std::to_string(tag));
    };
    const size_t ifd0 = get32(clean, base + 4), exif = get32(clean, value(ifd0, 0x8769));
    const size_t maker = get32(clean, value(exif, 0x927C)) + 8, orvex = get32(clean, value(maker, 0x4001));
    const std::tuple<const char*, size_t, uint32_t> patches[] = {
        {"EXIF IFD pointer back to IFD0", value(ifd0, 0x8769), uint32_t(ifd0)},
        {"ORVEX IFD pointer to its own IFD", value(maker, 0x4001), uint32_t(maker)},
        {"EXIF IFD pointer outside the box", value(ifd0, 0x8769), 0xFFFFFFF0u},
        {"maker note 4 bytes before the end of the box", value(exif, 0x927C), uint32_t(size - 4)},
        {"ORVEX IFD pointer just past the box", value(maker, 0x4001), uint32_t(size)},
        {"ORVEX entry count 65535", base + orvex, 0xFFFF0000u | (get32(clean, base + orvex) & 0xFFFF)},
        {"model text count 2^32-1", value(ifd0, 0x0110) - 4, 0xFFFFFFFFu},
    };
    for (const auto& [name, at, v] : patches) {
        Bytes f = clean;
        set32(f, at, v);
        expectSafe(std::string("QMKN: ") + name, f);
    }
}

TEST(HostileMovies, MetadataTextWithVeryLongLines)
{
    // 200,000 characters on one line of the XMP packet and of the Spherical
    // Video XML (a regular-expression search once ran out of stack here);
    // every box around the text grows with it.
    const std::string longText(200000, 'a');
    Bytes f = movie(kMdatFirst);
    auto grow = [&](std::vector<BoxAt> chain, const std::string& after) {
        const auto from = f.begin() + long(chain.back().body());
        const auto at = std::search(from, f.begin() + long(chain.back().end()), after.begin(), after.end());
        ASSERT_NE(at - from, long(chain.back().size - 8)) << after;
        f.insert(at + long(after.size()), longText.begin(), longText.end());
        for (const BoxAt& b : chain)
            set32(f, b.start, uint32_t(b.size + longText.size()));
    };
    grow({theBox(f, "moov"), theBox(f, "moov.trak"), theBox(f, "moov.trak.uuid")}, "<GSpherical:StitchingSoftware>");
    for (const BoxAt& u : findAll(f, "uuid"))
        if (slice(f, u.body(), 16) == kXmpUUID) {
            grow({u}, "<x:CreatorTool>");
            break;
        }
    expectSafe("200,000 characters in the creator tool and the stitching software", f);
}

} // namespace
