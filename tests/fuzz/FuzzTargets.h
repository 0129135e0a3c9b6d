#pragma once
// The entry functions of the fuzzing harnesses (FuzzMain.cpp), also called
// by the test that replays every input that once broke them (tests/robust).
// Each drives one family of parsers with an input of arbitrary bytes and
// returns 0, or -1 for an input it refuses (libFuzzer then keeps it out of
// the corpus). Parsers report problems on the console, which the callers
// silence; anything wrong beyond that is a crash, a sanitizer report or an
// abort from a broken invariant.
#include "AVCCRecord.h"
#include "AccelSensorStreamEmbed.h"
#include "AxisTiltStream.h"
#include "BoxBytes.h"
#include "ExifParser.h"
#include "GLTKwchar.h"
#include "GPSInfo.h"
#include "MP4Container.h"
#include "MP4MovieCheck.h"
#include "MetaBuilder.h"
#include "MetaProbe.h"
#include "Option.h"
#include "SpatialSound.h"
#include "Utility.h"
#include "VideoStabilizationMode.h"
#include "ViewHeading.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace fuzz {

using testsupport::box;
using testsupport::Bytes;
using testsupport::cat;

// The parsers read files by path: inputs are handed to them through one
// in-memory file, reachable by its /proc/self/fd path.
inline const std::wstring& memoryFile(const Bytes& bytes)
{
    static const int fd = memfd_create("fuzz-input", 0);
    static const std::wstring path = GLTK::wchar::mbs2wcs("/proc/self/fd/" + std::to_string(fd));
    if (fd < 0 || ftruncate(fd, 0) != 0 ||
        (!bytes.empty() && pwrite(fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())))
        std::abort();
    return path;
}
inline void attach(MP4::Container& c, const Bytes& bytes)
{
    if (!c.attach(memoryFile(bytes)))
        std::abort(); // the memory file always opens
}
inline Bytes uuidBox(const uint8_t (&user)[16], const uint8_t* data, size_t size)
{
    return box("uuid", cat({Bytes(user, user + 16), Bytes(data, data + size)}));
}

// The whole input is a movie file: box tree parse, dotted-path lookups, the
// dump of every typed box, and the spatial-audio track's reader.
inline int boxTree(const uint8_t* data, size_t size)
{
    MP4::Container c;
    attach(c, Bytes(data, data + size));
    c.dump();
    for (const char* p : {"moov.trak.mdia.minf.stbl.stsd.avc1.avcC", "moov.trak.mdia.minf.stbl.stco",
                          "moov.trak.mdia.minf.stbl.co64", "moov.udta", "moov.meta", "uuid.QATR.mdia.minf.stbl.stsz"})
        c.find(p, [](MP4::BOX&) { return true; });
    MP4::SpatialSound().attach(c, double(size % 3), size % 5 ? double(size % 7) : -1.0);
    return 0;
}

// The input is a QMKN payload: the maker-note read, then each of the four
// in-place updates on its own exact-size heap copy, so that a write one byte
// past the payload is caught.
inline int makerNote(const uint8_t* data, size_t size)
{
    try {
        ExifParser parser;
        parser.attachQMKN(data, size);
        ExifParser::ORVEX orvex;
        parser.readOREVX(orvex);
    } catch (const char*) {
    }
    for (int32_t mode : {-1, 0, 1, 3, 0x0D})
        for (int update = 0; update < 4; ++update) {
            Bytes copy(data, data + size);
            int32_t m = mode;
            try {
                update == 0   ? ExifParser::updateProjectionType(copy.data(), size, m)
                : update == 1 ? ExifParser::updateSphereAdjZenith(copy.data(), size, m)
                : update == 2 ? ExifParser::updateAdjRollingShutter(copy.data(), size, m)
                              : ExifParser::updateVideoStabilization(copy.data(), size, m);
            } catch (const char*) {
            }
        }
    return 0;
}

// The input is an avcC payload: the read of its first SPS, the rewrite with
// full range and constraint_set1_flag, and the dump text. A rewrite that
// succeeds must read back with the flags it was asked to set.
inline int avcc(const uint8_t* data, size_t size)
{
    ByteArray payload(data, size);
    unsigned char profile = 0;
    bool set1 = false, full = false;
    (void)avcc_get_profile_idc_and_constrained_set1_flag(payload, profile, set1, full);
    (void)avcc_fields(payload);
    for (bool wantFull : {true, false}) {
        ByteArray out;
        if (avcc_assign_fullRange_and_constrained_set1_flag(payload, out, wantFull, full, set1) &&
            (!avcc_get_profile_idc_and_constrained_set1_flag(out, profile, set1, full) || !set1 || full != wantFull))
            std::abort();
    }
    return 0;
}

// The input is the children of moov.udta: the six sensor-stream readers, the
// trim of the QDTD and QDTC boxes in a copied udta, and the axis-tilt stream
// trim on the raw input.
inline int sensorBoxes(const uint8_t* data, size_t size)
{
    using A = AccelSensorStreamEmbed;
    const Bytes udta = box("udta", Bytes(data, data + size));
    MP4::Container c;
    attach(c, cat({box("ftyp", {'i', 's', 'o', 'm'}), box("moov", udta)}));
    auto load = [&]<class T>(void (*reader)(const MP4::Container&, std::vector<T>&, unsigned short&)) {
        std::vector<T> records;
        unsigned short extra = 0;
        reader(c, records, extra);
    };
    load(A::loadM29_QDTB), load(A::loadM29_QDTC), load(A::loadM29_QDTD), load(A::loadM30_QDTG);
    load(A::loadM22_QDTH), load(A::loadM29_QDTI);

    const uint32_t first = static_cast<uint32_t>(size % 5), count = static_cast<uint32_t>(1 + size % 13);
    // The cut the rebuild makes of each QDTD and QDTC box it carries.
    for (const auto& [type, recordSize] : {std::pair{"moov.udta.QDTD", 16u}, std::pair{"moov.udta.QDTC", 24u}})
        c.find(type, [&, record = recordSize](MP4::BOX& b) {
            ByteArray bytes;
            if (c.readBox(b, 1 << 20, bytes))
                SensorStream::trimSensorBox(bytes.data, bytes.length, record, first, count);
            return true;
        });
    (void)AxisTiltStream(std::string(reinterpret_cast<const char*>(data), size)).trim(first, count);
    return 0;
}

// The input is text, put into a movie as its Spherical Video XML, its XMP
// packet and its ISO 6709 position: the source probe's and the metadata
// rebuild's readers, the view-heading reader and writer, the position's
// text forms and the stabilization summary.
inline int xml(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const Bytes tkhd = box("tkhd", cat({Bytes(76, 0), {0x03, 0xC0, 0, 0, 0x01, 0xE0, 0, 0}})); // 960x480
    const Bytes trak = box("trak", cat({tkhd, uuidBox(MP4::SphericalXML::_UUID, data, size)}));
    SourceMovie movie;
    std::wstring problem;
    if (!movie.open(memoryFile(cat({box("ftyp", {'i', 's', 'o', 'm'}),
                                    box("moov", cat({trak, box("udta", box("@xyz", Bytes(data, data + size)))})),
                                    uuidBox(MP4::XMP::_UUID, data, size)})),
                    problem))
        std::abort(); // it has a movie box
    MetaProbe probe;
    probe.readMetadata(movie.metadata);
    MetaBuilder meta("fuzz", "0", false);
    VideoStabilizationMode mode;
    mode.yaw = 1;
    mode.image = 1;
    meta.readMeta(movie, size % 2 == 0, mode);
    ViewHeading current, asked, v;
    meta.currentViewHeading(current);
    asked.heading = 90.5f;
    asked.pitch = -10.0f;
    meta.attach(asked, size % 3 == 0);
    v.attach(text);
    (void)v.toString();
    GPSInfo info;
    info.attachRXYZ(text.c_str());
    info.attachCompass(text);
    (void)info.to_XMP_part();
    (void)info.to_CXYZ_string();
    return 0;
}

// The input is a command line, one word a line (NUL ends a word too): the
// argument conversion and the option parser. Words naming paths stay inside
// the working folder (inputs with '/' are refused), so the parser's probe
// only ever meets files that do not exist or the folder's own entries.
inline int options(const uint8_t* data, size_t size)
{
    if (std::memchr(data, '/', size) != nullptr)
        return -1;
    std::vector<std::string> words{"Resize", ""};
    for (size_t k = 0; k < size && words.size() <= 14; ++k) {
        if (data[k] == '\n' || data[k] == 0)
            words.emplace_back();
        else
            words.back().push_back(char(data[k]));
    }
    words.resize(std::min<size_t>(words.size(), 14));
    std::vector<const char*> argv;
    for (const std::string& w : words)
        argv.push_back(w.c_str());
    const int argc = static_cast<int>(argv.size());
    Option option;
    (void)option.parse(argc, Utility::convertArguments(argc, argv.data()));
    option.usage();
    return 0;
}

// A movie the rebuild reported as written must read back whole.
inline void expectWhole(const std::wstring& path)
{
    MP4::Container written;
    if (!written.attach(path) || !MP4::problemsOf(written).empty())
        std::abort();
}

// The input is a source movie, converted as the run flow does: a
// metadata-only conversion (read, a new view for some inputs, the rebuild and
// its one write) into a file of its own, then the same bytes taken as a fresh
// encode, rebuilt in place from the source with its spatial data cut. Every
// output the rebuild keeps must be a whole movie.
inline int convert(const uint8_t* data, size_t size)
{
    const Bytes bytes(data, data + size);
    const std::wstring& source = memoryFile(bytes);
    SourceMovie movie;
    std::wstring problem;
    if (!movie.open(source, problem))
        return 0; // refused before any rebuild
    static const std::string dir = [] {
        char folder[] = "/tmp/resize-fuzz-convert-XXXXXX";
        if (mkdtemp(folder) == nullptr)
            std::abort();
        return std::string(folder);
    }();
    const std::string outPath = dir + "/out.mp4", encodedPath = dir + "/encoded.mp4";
    const std::wstring out = GLTK::wchar::mbs2wcs(outPath), encoded = GLTK::wchar::mbs2wcs(encodedPath);
    {
        MetaBuilder meta("fuzz", "0", false);
        meta.readMeta(movie, false);
        if (size % 3 != 0) {
            ViewHeading asked;
            asked.heading = 190.0f;
            asked.pitch = -20.0f;
            meta.attach(asked, size % 3 == 1);
        }
        if (meta.updateMeta(source, &out, true))
            expectWhole(out);
    }
    FILE* f = fopen(encodedPath.c_str(), "wb");
    if (f == nullptr || fwrite(bytes.data(), 1, size, f) != size || fclose(f) != 0)
        std::abort();
    {
        MetaBuilder meta("fuzz", "0", false);
        meta.readMeta(movie, true);
        meta.readSpatialData(size % 2 ? 0.0 : 0.25, size % 5 ? -1.0 : 0.4);
        if (meta.updateMeta(encoded, nullptr, true))
            expectWhole(encoded);
    }
    unlink(outPath.c_str());
    unlink(encodedPath.c_str());
    return 0;
}

struct Target {
    const char* name;
    int (*run)(const uint8_t*, size_t);
};

// Harness names: the folder names of the regression inputs too.
inline const Target kTargets[] = {
    {"boxtree", boxTree}, {"makernote", makerNote}, {"avcc", avcc},
    {"sensor", sensorBoxes}, {"xml", xml},           {"options", options},
    {"convert", convert},
};

} // namespace fuzz
