#pragma once
// The entry functions of the fuzzing harnesses. Each takes one input of
// arbitrary bytes and drives one family of parsers with it: the libFuzzer
// harnesses (FuzzMain.cpp) call them, and so does the regression test that
// replays every input that once broke them (tests/robust).
//
// An entry function returns 0, or -1 for an input it refuses (libFuzzer then
// keeps it out of the corpus). Parsers report problems on the console, which
// the callers silence; anything wrong beyond that is a crash, a sanitizer
// report or an abort from a broken invariant.
#include "AVCCRecord.h"
#include "AccelSensorStreamEmbed.h"
#include "AxisTiltStream.h"
#include "ExifParser.h"
#include "GPSInfo.h"
#include "MP4Container.h"
#include "MetaBuilder.h"
#include "MetaProbe.h"
#include "Option.h"
#include "SpatialSound.h"
#include "Utility.h"
#include "VideoStabilizationMode.h"
#include "ViewHeading.h"
#include "GLTKwchar.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace fuzz {

// The parsers read files by path: inputs are handed to them through one
// in-memory file, reachable by its /proc/self/fd path.
class MemoryFile {
public:
    static MemoryFile& instance()
    {
        static MemoryFile file;
        return file;
    }
    const std::wstring& set(const uint8_t* data, size_t size)
    {
        if (ftruncate(fd, 0) != 0 || (size > 0 && pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)))
            std::abort();
        return path;
    }
    const std::wstring& set(const std::vector<uint8_t>& bytes) { return set(bytes.data(), bytes.size()); }

private:
    MemoryFile()
    {
        fd = memfd_create("fuzz-input", 0);
        if (fd < 0)
            std::abort();
        path = GLTK::wchar::mbs2wcs("/proc/self/fd/" + std::to_string(fd));
    }
    int fd = -1;
    std::wstring path;
};

// A box of the given type around the payload (32-bit size).
inline std::vector<uint8_t> box(const char* type, const std::vector<uint8_t>& payload)
{
    std::vector<uint8_t> out(8);
    put32be(out.data(), static_cast<uint32_t>(payload.size() + 8));
    std::memcpy(out.data() + 4, type, 4);
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}
inline std::vector<uint8_t> uuidBox(const uint8_t (&user)[16], const uint8_t* data, size_t size)
{
    std::vector<uint8_t> payload(user, user + 16);
    payload.insert(payload.end(), data, data + size);
    return box("uuid", payload);
}
inline std::vector<uint8_t> cat(std::initializer_list<std::vector<uint8_t>> parts)
{
    std::vector<uint8_t> out;
    for (const auto& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// The whole input is a movie file: box tree parse, dotted-path lookups, the
// dump of every typed box, and the spatial-audio track's reader.
inline int boxTree(const uint8_t* data, size_t size)
{
    const std::wstring& path = MemoryFile::instance().set(data, size);
    MP4::Container c;
    if (!c.attach(path))
        std::abort(); // the memory file always opens
    c.dump();
    (void)c.isMdatFirst();
    size_t seen = 0;
    for (const char* p : {"moov.trak.mdia.minf.stbl.stsd.avc1.avcC", "moov.trak.mdia.minf.stbl.stco",
                          "moov.trak.mdia.minf.stbl.co64", "moov.udta", "moov.meta", "uuid.QATR.mdia.minf.stbl.stsz"})
        c.find(p, [&](MP4::BOX& b) {
            seen += b.size != 0;
            return true;
        });
    MP4::SpatialSound sound;
    sound.attach(path, double(size % 3), size % 5 ? double(size % 7) : -1.0);
    return 0;
}

// The input is a QMKN payload: the maker-note read (as a QMKN payload and as
// a JPEG stream), then each of the four in-place updates on its own copy.
inline int makerNote(const uint8_t* data, size_t size)
{
    ExifParser::ORVEX orvex;
    try {
        ExifParser parser;
        parser.attachQMKN(data, size);
        parser.readOREVX(orvex);
    } catch (const char*) {
    }
    try {
        ExifParser parser;
        parser.attachBytes(data, size);
        parser.readOREVX(orvex);
    } catch (const char*) {
    }
    for (int32_t mode : {-1, 0, 1, 3, 0x0D}) {
        auto attempt = [&](auto update) {
            // An exact-size heap copy, so that a write one byte past the
            // payload is caught.
            std::vector<uint8_t> copy(data, data + size);
            try {
                (void)update(copy.data(), copy.size());
            } catch (const char*) {
            }
        };
        attempt([&](uint8_t* b, size_t n) { return ExifParser::updateProjectionType(b, n, mode); });
        attempt([&](uint8_t* b, size_t n) {
            int32_t m = mode;
            return ExifParser::updateSphereAdjZenith(b, n, m);
        });
        attempt([&](uint8_t* b, size_t n) {
            int32_t m = mode;
            return ExifParser::updateAdjRollingShutter(b, n, m);
        });
        attempt([&](uint8_t* b, size_t n) { return ExifParser::updateVideoStabilization(b, n, mode); });
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
        bool oldFull = false, oldSet1 = false;
        if (!avcc_assign_fullRange_and_constrained_set1_flag(payload, out, wantFull, oldFull, oldSet1))
            continue;
        unsigned char p2 = 0;
        bool s2 = false, f2 = false;
        if (!avcc_get_profile_idc_and_constrained_set1_flag(out, p2, s2, f2) || !s2 || f2 != wantFull)
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
    const std::vector<uint8_t> udta = box("udta", std::vector<uint8_t>(data, data + size));
    const std::wstring& path = MemoryFile::instance().set(cat({box("ftyp", {'i', 's', 'o', 'm'}), box("moov", udta)}));
    MP4::Container c;
    if (!c.attach(path))
        std::abort();
    unsigned short extra = 0;
    std::vector<A::Gyro> b;
    std::vector<A::Ecompass> cc;
    std::vector<A::TopBottomCorrection> d;
    std::vector<unsigned long long> g;
    std::vector<A::Quaternion> h;
    std::vector<A::YawCorrection> i;
    A::loadM29_QDTB(c, b, extra);
    A::loadM29_QDTC(c, cc, extra);
    A::loadM29_QDTD(c, d, extra);
    A::loadM30_QDTG(c, g, extra);
    A::loadM22_QDTH(c, h, extra);
    A::loadM29_QDTI(c, i, extra);

    const uint32_t first = static_cast<uint32_t>(size % 5), count = static_cast<uint32_t>(1 + size % 13);
    ByteArray copy(udta.data(), udta.size());
    SensorStream::trimSensorBoxIn(copy, "QDTD", 16, first, count);
    SensorStream::trimSensorBoxIn(copy, "QDTC", 24, first, count);

    AxisTiltStream axis(std::string(reinterpret_cast<const char*>(data), size));
    (void)axis.trim(first, count);
    return 0;
}

// The input is location text: the ISO 6709 reader, the compass of an XMP
// packet, and every text form written from what was read.
inline int gps(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    GPSInfo info;
    info.attachRXYZ(text.c_str());
    const char* cursor = text.c_str();
    for (int k = 0; k < 4 && *cursor; ++k) {
        const char* before = cursor;
        (void)from_iso6709(cursor);
        if (cursor == before)
            ++cursor;
    }
    info.attachCompass(text);
    (void)info.to_CXYZ_string();
    (void)info.to_XMP_string("fuzz", true, text.substr(0, 64));
    for (const GPSInfo::BaseX& x : {info.lat(), info.lon(), info.alt(), info.dir()}) {
        (void)x.toAbsBase60();
        (void)x.toUINT32Fixnum();
    }
    return 0;
}

// The input is XML text, put into a movie both as its Spherical Video XML and
// as its XMP packet: the source probe's and the metadata rebuild's readers,
// the view-heading reader and writer, and the stabilization summary.
inline int xml(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::vector<uint8_t> trak = box("trak", uuidBox(MP4::SphericalXML::_UUID, data, size));
    const std::wstring& path = MemoryFile::instance().set(
        cat({box("ftyp", {'i', 's', 'o', 'm'}), box("moov", cat({trak, box("udta", {})})),
             uuidBox(MP4::XMP::_UUID, data, size)}));
    {
        MP4::Container c;
        if (!c.attach(path))
            std::abort();
        MetaProbe probe;
        probe.readMetadata(c);
    }
    MetaBuilder meta("fuzz", "0", false);
    VideoStabilizationMode mode;
    mode.yaw = 1;
    mode.image = 1;
    meta.readMeta(path, size % 2 == 0, mode);
    ViewHeading current;
    meta.currentViewHeading(current);
    ViewHeading asked;
    asked.heading = 90.5f;
    asked.pitch = -10.0f;
    meta.attach(asked, size % 3 == 0);

    ViewHeading v;
    v.attach(text);
    (void)v.toString();
    GPSInfo info;
    info.attachCompass(text);
    (void)info.to_XMP_part();
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
    std::vector<std::string> words{"Resize"};
    std::string word;
    for (size_t k = 0; k <= size; ++k) {
        if (k == size || data[k] == '\n' || data[k] == 0) {
            words.push_back(word);
            word.clear();
        } else {
            word += static_cast<char>(data[k]);
        }
    }
    if (words.size() > 14)
        words.resize(14);
    std::vector<const char*> argv;
    for (const std::string& w : words)
        argv.push_back(w.c_str());
    const int argc = static_cast<int>(argv.size());
    std::vector<std::wstring> args = Utility::convertArguments(argc, argv.data());
    Option option;
    (void)option.parse(argc, args);
    option.usage();
    return 0;
}

struct Target {
    const char* name;
    int (*run)(const uint8_t*, size_t);
};

// Harness names: the folder names of the regression inputs too.
inline const Target kTargets[] = {
    {"boxtree", boxTree}, {"makernote", makerNote}, {"avcc", avcc}, {"sensor", sensorBoxes},
    {"gps", gps},         {"xml", xml},             {"options", options},
};

} // namespace fuzz
