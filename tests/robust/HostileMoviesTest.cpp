// Broken and hostile source movies through the whole command, with and
// without a re-encode: the command ends by itself with status 0 or 1 (never
// by a signal, never hanging), says what failed, leaves the source as it was,
// leaves no temporary file behind and no output after a failure.
#include "ByteArray.h"
#include "Movies.h"
#include "RobustSupport.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>

using namespace testsupport;
using robust::Outcome;

namespace {

using Bytes = std::vector<uint8_t>;

// A box found in a file: where it starts, its size and header length.
struct At {
    size_t start = 0, size = 0, header = 8;
    size_t payload() const { return start + header; }
    size_t end() const { return start + size; }
};

// Boxes at a dotted path, walking the containers the camera movies use.
void findBoxes(const Bytes& f, size_t from, size_t to, const std::string& path, std::vector<At>& out)
{
    const std::string head = path.substr(0, path.find('.'));
    const std::string rest = path.find('.') == std::string::npos ? "" : path.substr(path.find('.') + 1);
    size_t pos = from;
    while (pos + 8 <= to) {
        At b;
        b.start = pos;
        b.size = be32(f.data() + pos);
        if (b.size == 1 && pos + 16 <= to) {
            b.size = static_cast<size_t>(be64(f.data() + pos + 8));
            b.header = 16;
        } else if (b.size == 0) {
            b.size = to - pos;
        }
        if (b.size < b.header || b.size > to - pos)
            return;
        const std::string type(reinterpret_cast<const char*>(f.data() + pos + 4), 4);
        if (type == head) {
            if (rest.empty())
                out.push_back(b);
            else
                findBoxes(f, b.payload() + (type == "stsd" ? 8 : type == "meta" ? 4 : 0), b.end(), rest, out);
        }
        pos += b.size;
    }
}
std::vector<At> findBoxes(const Bytes& f, const std::string& path)
{
    std::vector<At> out;
    findBoxes(f, 0, f.size(), path, out);
    return out;
}
At theBox(const Bytes& f, const std::string& path)
{
    std::vector<At> all = findBoxes(f, path);
    if (all.empty())
        throw std::runtime_error("no box " + path);
    return all.front();
}

// The lines printed before the usage text (or all of them when there is no
// usage text), without the timing line.
std::string ownLines(const std::string& output)
{
    std::string text = output.substr(0, output.find("\nResize 2."));
    size_t timing = text.find(" [sec]");
    if (timing != std::string::npos)
        text = text.substr(0, text.rfind('\n', timing));
    return text;
}

class HostileMovies : public testing::Test {
protected:
    // Runs Resize on the given source bytes (written as src.mp4 in a fresh
    // folder), once copying the metadata only and once re-encoding, and
    // checks the outcome.
    void expectSafe(const std::string& name, const Bytes& source, bool alsoReEncode = true)
    {
        for (bool reEncode : {false, true}) {
            if (reEncode && !alsoReEncode)
                continue;
            const fs::path src = dir / "src.mp4", out = dir / "out.mp4";
            fs::remove(out);
            writeFile(src, source);
            expectSafeRun(name, src, out, reEncode);
        }
    }

    void expectSafeRun(const std::string& name, const fs::path& src, const fs::path& out, bool reEncode)
    {
        SCOPED_TRACE(name + (reEncode ? " (re-encode)" : " (metadata copy)"));
        const bool sourceIsFile = fs::is_regular_file(src);
        const uint64_t before = sourceIsFile ? robust::fileHash(src) : 0;
        std::vector<std::string> args;
        if (reEncode)
            args.push_back("-vw:320");
        args.push_back(src.string());
        args.push_back(out.string());
        const Outcome o = robust::runResize(args, dir.path(), 60);
        ++runs;
        ASSERT_FALSE(o.timedOut) << o.describe();
        ASSERT_TRUE(o.exited) << o.describe();
        EXPECT_TRUE(o.status == 0 || o.status == 1) << o.describe();
        if (sourceIsFile) {
            EXPECT_EQ(robust::fileHash(src), before) << "the source changed";
        }
        EXPECT_TRUE(robust::temporaryFiles(dir.path()).empty()) << o.describe();
        if (o.status == 1) {
            EXPECT_FALSE(fs::exists(out)) << "a failed run left its output\n" << o.describe();
            EXPECT_FALSE(ownLines(o.output).empty()) << "no line says what failed\n" << o.describe();
        } else {
            EXPECT_TRUE(fs::is_regular_file(out)) << o.describe();
            ++succeeded;
        }
        outcomes += name + (reEncode ? " -vw:320" : "") + ": " + std::to_string(o.status) + "\n";
        fs::remove(out);
    }

    void TearDown() override
    {
        RecordProperty("runs", runs);
        std::printf("%d runs, %d ended with status 0\n%s", runs, succeeded, outcomes.c_str());
    }

    static Bytes movie(const std::string& options) { return readFile(sharedMovie(options)); }

    TempDir dir;
    int runs = 0, succeeded = 0;
    std::string outcomes;
};

// Small movies of both layouts: mdat first (with the spatial-data box of the
// newer cameras) and moov first.
const std::string kMdatFirst = "--model newer --size 320x160 --duration 1";
const std::string kMoovFirst = "--model older --layout moov-first --size 320x160 --duration 1";

TEST_F(HostileMovies, EmptyFileAndFolderAsSource)
{
    expectSafe("0-byte file", {});
    fs::create_directory(dir / "folder.mp4");
    for (bool reEncode : {false, true})
        expectSafeRun("folder as source", dir / "folder.mp4", dir / "out.mp4", reEncode);
    expectSafe("8 zero bytes", Bytes(8, 0));
    Bytes ftyp = movie(kMdatFirst);
    ftyp.resize(theBox(ftyp, "ftyp").end());
    expectSafe("only ftyp", ftyp);
}

TEST_F(HostileMovies, TruncatedFiles)
{
    for (const std::string& options : {kMdatFirst, kMoovFirst}) {
        const Bytes f = movie(options);
        const At moov = theBox(f, "moov"), mdat = theBox(f, "mdat");
        // Inside the first header, at box boundaries, inside the media and
        // at several places inside moov, and one byte short of the end.
        const std::vector<size_t> cuts = {4,
                                          mdat.start + 4,
                                          mdat.payload() + 100,
                                          mdat.start + mdat.size / 2,
                                          mdat.end() - 1,
                                          moov.start + 8,
                                          moov.start + moov.size / 3,
                                          moov.start + 2 * moov.size / 3,
                                          f.size() - 1};
        for (size_t cut : cuts)
            expectSafe((options == kMdatFirst ? "mdat first" : "moov first") + std::string(" cut at ") +
                           std::to_string(cut) + " of " + std::to_string(f.size()),
                       Bytes(f.begin(), f.begin() + static_cast<long>(cut)));
    }
}

TEST_F(HostileMovies, RandomBytesChangedInsideMoov)
{
    std::mt19937 rng(20190725);
    for (const std::string& options : {kMdatFirst, kMoovFirst}) {
        const Bytes clean = movie(options);
        const At moov = theBox(clean, "moov");
        for (int round = 0; round < 12; ++round) {
            Bytes f = clean;
            const int changes = 1 + static_cast<int>(rng() % 8);
            for (int k = 0; k < changes; ++k)
                f[moov.start + rng() % moov.size] = static_cast<uint8_t>(rng());
            // The re-encode is run for every third case only: most of them
            // end in the same probe.
            expectSafe("seeded moov change " + std::to_string(round) + (options == kMdatFirst ? " (mdat first)" : " (moov first)"),
                       f, round % 3 == 0);
        }
    }
}

TEST_F(HostileMovies, BoxSizesZeroOneAndPastTheEnd)
{
    const Bytes clean = movie(kMdatFirst);
    for (const char* path : {"moov", "mdat", "moov.trak", "moov.udta", "moov.udta.QMKN",
                             "moov.trak.mdia.minf.stbl.stco", "moov.trak.mdia.minf.stbl.stsd"}) {
        const At b = theBox(clean, path);
        for (uint32_t size : {0u, 1u, 0xFFFFFFF0u}) {
            Bytes f = clean;
            put32be(f.data() + b.start, size);
            expectSafe(std::string(path) + " size " + std::to_string(size), f, size != 1);
        }
    }
    // A 64-bit size far past the file.
    Bytes f = clean;
    const At moov = theBox(clean, "moov");
    put32be(f.data() + moov.start, 1);
    put64be(f.data() + moov.start + 8, 0x7FFFFFFFFFFFFF00ull);
    expectSafe("moov largesize past the end", f);
}

TEST_F(HostileMovies, ChunkOffsetsPastTheEnd)
{
    const Bytes clean = movie(kMdatFirst);
    for (uint32_t past : {uint32_t(clean.size() + 1000), 0xFFFFFFF0u}) {
        Bytes f = clean;
        for (const At& stco : findBoxes(clean, "moov.trak.mdia.minf.stbl.stco")) {
            const uint32_t count = be32(f.data() + stco.payload() + 4);
            for (uint32_t i = 0; i < count && stco.payload() + 8 + 4 * (i + 1) <= stco.end(); ++i)
                put32be(f.data() + stco.payload() + 8 + 4 * i, past + i);
        }
        expectSafe("every chunk offset at " + std::to_string(past), f);
    }
}

// The maker note's IFD chain, big-endian TIFF as the camera writes it.
struct MakerNote {
    size_t base = 0; // file offset of the QMKN payload (the TIFF base)
    size_t ifd0 = 0, exif = 0, note = 0, makerIfd = 0, orvex = 0;
    // File offset of the value field of the entry with this tag in the IFD at
    // offset ifd (TIFF offsets), or 0.
    static size_t entry(const Bytes& f, size_t base, size_t ifd, uint16_t tag)
    {
        const size_t at = base + ifd;
        const uint16_t n = be16(f.data() + at);
        for (uint16_t i = 0; i < n; ++i)
            if (be16(f.data() + at + 2 + 12 * i) == tag)
                return at + 2 + 12 * i + 8;
        return 0;
    }
    explicit MakerNote(const Bytes& f)
    {
        base = theBox(f, "moov.udta.QMKN").payload();
        if (f[base] != 'M')
            throw std::runtime_error("expected a big-endian TIFF maker note");
        ifd0 = be32(f.data() + base + 4);
        exif = be32(f.data() + entry(f, base, ifd0, 0x8769));
        note = be32(f.data() + entry(f, base, exif, 0x927C));
        makerIfd = note + 8; // after the "Narvi\0\0\0" signature
        orvex = be32(f.data() + entry(f, base, makerIfd, 0x4001));
    }
};

TEST_F(HostileMovies, MakerNoteOffsetsThatLoopOrLeaveTheBox)
{
    const Bytes clean = movie(kMdatFirst);
    const MakerNote m(clean);
    const size_t qmknSize = theBox(clean, "moov.udta.QMKN").size - 8;
    struct Patch {
        const char* name;
        size_t at;
        uint32_t value;
        bool sixteen = false;
    };
    const std::vector<Patch> patches = {
        {"next-IFD link of IFD0 to itself", m.base + m.ifd0 + 2 + 12 * be16(clean.data() + m.base + m.ifd0), uint32_t(m.ifd0)},
        {"Exif IFD pointer back to IFD0", MakerNote::entry(clean, m.base, m.ifd0, 0x8769), uint32_t(m.ifd0)},
        {"ORVEX IFD pointer to its own IFD", MakerNote::entry(clean, m.base, m.makerIfd, 0x4001), uint32_t(m.makerIfd)},
        {"Exif IFD pointer outside the box", MakerNote::entry(clean, m.base, m.ifd0, 0x8769), 0xFFFFFFF0u},
        {"maker note 4 bytes before the end of the box", MakerNote::entry(clean, m.base, m.exif, 0x927C),
         uint32_t(qmknSize - 4)},
        {"ORVEX IFD pointer just past the box", MakerNote::entry(clean, m.base, m.makerIfd, 0x4001), uint32_t(qmknSize)},
        {"IFD0 entry count 65535", m.base + m.ifd0, 0xFFFF, true},
        {"ORVEX entry count 65535", m.base + m.orvex, 0xFFFF, true},
        {"model text count 2^32-1", MakerNote::entry(clean, m.base, m.ifd0, 0x0110) - 4, 0xFFFFFFFFu},
    };
    for (const Patch& p : patches) {
        ASSERT_GT(p.at, m.base) << p.name;
        Bytes f = clean;
        if (p.sixteen)
            put16be(f.data() + p.at, static_cast<uint16_t>(p.value));
        else
            put32be(f.data() + p.at, p.value);
        expectSafe(std::string("QMKN: ") + p.name, f);
    }
}

// Inserts text right after the first `after` inside the last box of the
// chain (outermost first), growing every box of the chain.
Bytes insertText(const Bytes& f, const std::vector<At>& chain, const std::string& after, const std::string& text)
{
    const At& inner = chain.back();
    const auto from = f.begin() + static_cast<long>(inner.payload()), to = f.begin() + static_cast<long>(inner.end());
    const auto found = std::search(from, to, after.begin(), after.end());
    if (found == to)
        throw std::runtime_error("no " + after);
    Bytes out(f.begin(), found + static_cast<long>(after.size()));
    out.insert(out.end(), text.begin(), text.end());
    out.insert(out.end(), found + static_cast<long>(after.size()), f.end());
    for (const At& b : chain)
        put32be(out.data() + b.start, static_cast<uint32_t>(b.size + text.size()));
    return out;
}

bool hasUserType(const Bytes& f, const At& uuid, const char* hex)
{
    for (int i = 0; i < 16; ++i)
        if (f[uuid.payload() + static_cast<size_t>(i)] != std::stoi(std::string(hex + 2 * i, 2), nullptr, 16))
            return false;
    return true;
}

TEST_F(HostileMovies, MetadataTextWithVeryLongLines)
{
    // 200,000 characters on one line of the XMP packet and of the Spherical
    // Video XML (a regular-expression search once ran out of stack here).
    const std::string longText(200000, 'a');
    Bytes f = movie(kMdatFirst);
    const At moov = theBox(f, "moov");
    bool grown = false;
    for (const At& trak : findBoxes(f, "moov.trak")) {
        std::vector<At> uuids;
        findBoxes(f, trak.payload(), trak.end(), "uuid", uuids);
        for (const At& u : uuids)
            if (!grown && hasUserType(f, u, "FFCC8263F8554A938814587A02521FDD")) {
                f = insertText(f, {moov, trak, u}, "<GSpherical:StitchingSoftware>", longText);
                grown = true;
            }
    }
    ASSERT_TRUE(grown);
    for (const At& u : findBoxes(f, "uuid"))
        if (hasUserType(f, u, "BE7ACFCB97A942E89C71999491E3AFAC")) {
            f = insertText(f, {u}, "<x:CreatorTool>", longText);
            break;
        }
    expectSafe("200,000 characters in the XMP creator tool and the stitching software", f);
}

TEST_F(HostileMovies, SensorCountsThatOverflow32Bits)
{
    const Bytes clean = movie(kMdatFirst);
    // count x record size wraps to a small number in 32 bits: 0x0AAAAAAB x 24
    // = 2^32 + 8, 0x10000001 x 16 = 2^32 + 16; and the largest count.
    const std::vector<std::pair<const char*, uint32_t>> cases = {
        {"QDTC", 0x0AAAAAABu}, {"QDTB", 0x0AAAAAABu}, {"QDTD", 0x10000001u}, {"QDTD", 0xFFFFFFFFu},
        {"QDTI", 0xFFFFFFFFu}, {"QDTG", 0x20000001u}};
    for (const auto& [type, count] : cases) {
        Bytes f = clean;
        const At b = theBox(clean, std::string("moov.udta.") + type);
        put32be(f.data() + b.payload(), __builtin_bswap32(count)); // the stream header is little-endian
        expectSafe(std::string(type) + " count " + std::to_string(count), f);
    }
}

} // namespace
