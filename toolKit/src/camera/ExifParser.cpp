#include "ExifParser.h"

#include "GLTKConsole.h"

#include <cmath>
#include <cstring>
#include <limits>

const char narviExifCameraInfo[20] = "[Narvi Camera Info]";

namespace {

// The maker's 8-byte maker-note signature.
const uint8_t narviSignature[8] = {'N', 'a', 'r', 'v', 'i', 0, 0, 0};

// Saved cursors are only ever nested one or two deep; anything deeper is a
// sign of a broken caller, not of deeper data.
constexpr size_t maxCursorDepth = 16;

void put16(uint8_t* p, uint16_t v, bool bigEndian)
{
    if (bigEndian) {
        p[0] = uint8_t(v >> 8);
        p[1] = uint8_t(v);
    } else {
        p[0] = uint8_t(v);
        p[1] = uint8_t(v >> 8);
    }
}

void put32(uint8_t* p, uint32_t v, bool bigEndian)
{
    if (bigEndian) {
        put16(p, uint16_t(v >> 16), true);
        put16(p + 2, uint16_t(v), true);
    } else {
        put16(p, uint16_t(v), false);
        put16(p + 2, uint16_t(v >> 16), false);
    }
}

// The value field of a SHORT entry holds the SHORT in its first two bytes,
// in the note's own byte order, and two zero bytes after it.
void putShortValue(uint8_t* field, int32_t mode, bool bigEndian)
{
    put16(field, uint16_t(mode), bigEndian);
    put16(field + 2, 0, bigEndian);
}

// The SHORT of a value field read as a 32-bit number in the note's order.
uint32_t shortOf(uint32_t value, bool bigEndian) { return bigEndian ? value >> 16 : value & 0xFFFF; }

} // namespace

void ExifParser::ORVEX::clear()
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    model.clear();
    software.clear();
    makerText2.clear();
    makerText5.clear();
    projectionType = 0;
    orvexValue2 = 0;
    zenith[0] = nan;
    zenith[1] = nan;
    compass = nan;
    orvexValue5 = 0;
    heading = nan;
    sphereAdjZenith = MODE_UNKNOWN;
    videoStabilization = MODE_UNKNOWN;
    adjRollingShutter = MODE_UNKNOWN;
    yawEnabled = false;
    yawLockDir = false;
    hasStabilization = false;
    makerValue1000 = 0;
    orvexValue203 = -1;
    stitchingFishImgCenter[0] = stitchingFishImgCenter[1] = 0;
    stitchingFishMovCenter[0] = stitchingFishMovCenter[1] = 0;
    stitchingSamplingRate = 0;
}

// The compass is measured in the camera body's plane. When the camera points
// more than 45 degrees up or down, the direction the lens faces is derived
// from roll and pitch instead. A NaN pitch (no zenith) keeps the compass.
void ExifParser::ORVEX::attachCompass()
{
    const float pi = 3.1415927f;
    const float p = zenith[1];
    const float r = zenith[0];
    const float a = r * pi / 180.0f;
    const float b = p * pi / 180.0f;
    float theta;
    if (p < -45.0f)
        theta = std::atan2(-std::sin(a), std::cos(a) * std::sin(b));
    else if (p > 45.0f)
        theta = std::atan2(std::sin(a), -std::sin(b) * std::cos(a));
    else {
        heading = compass;
        return;
    }
    heading = std::fmod(theta * 180.0f / (-pi) + compass + 180.0f, 360.0f);
}

ExifParser::ExifParser() { attachBytes(nullptr, 0); }

ExifParser::~ExifParser() { delete[] data; }

void ExifParser::attachBytes(const uint8_t* bytes, size_t n)
{
    delete[] data;
    data = nullptr;
    size = 0;
    if (bytes != nullptr && n != 0) {
        data = new uint8_t[n];
        std::memcpy(data, bytes, n);
        size = n;
    }
    cursor = 0;
    cursorStack.clear();
    bigEndian = true;
    tiffBase = 0;
    ifd0 = exifIfd = makerNote = narviMakerNote = orvexIfd = 0;
    makerNoteOnly = false;
}

void ExifParser::attachQMKN(const uint8_t* bytes, size_t n)
{
    attachBytes(bytes, n);
    if (size >= 8 && std::memcmp(data, narviSignature, 8) == 0) {
        // Bare maker note: its IFD follows the signature and its offsets
        // count from byte 0.
        bigEndian = true;
        makerNoteOnly = true;
        narviMakerNote = 8;
        return;
    }
    tiffBase = 0;
    cursor = 0;
    bigEndian = read16() == 0x4D4D;
    if (read16() != 42) {
        attachBytes(nullptr, 0);
        throw "Invalid TIFF-ID(0x002A).";
    }
    ifd0 = size_t(offsetFromBase(read32()));
}

void ExifParser::read(uint8_t* dst, size_t n, size_t pos) const
{
    if (pos > size || n > size - pos)
        throw "Invalid position";
    if (n != 0)
        std::memcpy(dst, data + pos, n);
}

uint16_t ExifParser::read16()
{
    uint8_t b[2];
    read(b, 2, cursor);
    cursor += 2;
    return bigEndian ? uint16_t(b[0] << 8 | b[1]) : uint16_t(b[1] << 8 | b[0]);
}

uint32_t ExifParser::read32()
{
    uint8_t b[4];
    read(b, 4, cursor);
    cursor += 4;
    if (bigEndian)
        return uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3];
    return uint32_t(b[3]) << 24 | uint32_t(b[2]) << 16 | uint32_t(b[1]) << 8 | b[0];
}

void ExifParser::readEntry(uint16_t& tag, uint16_t& type, uint32_t& count, uint32_t& value)
{
    tag = read16();
    type = read16();
    count = read32();
    value = read32();
}

bool ExifParser::enumEntry(uint16_t& remaining, const EntryVisitor& visit)
{
    bool goOn = true;
    while (remaining > 0) {
        uint16_t tag, type;
        uint32_t count, value;
        readEntry(tag, type, count, value);
        --remaining;
        goOn = visit(tag, type, count, value);
        if (!goOn)
            break;
    }
    return goOn;
}

bool ExifParser::findEntry(uint16_t& remaining, uint16_t tag, const EntryHandler& found)
{
    bool hit = false;
    enumEntry(remaining, [&](uint16_t t, uint16_t type, uint32_t count, uint32_t value) {
        if (t != tag)
            return true;
        hit = true;
        found(t, type, count, value);
        return false;
    });
    return hit;
}

bool ExifParser::find(uint16_t tag, const EntryHandler& found)
{
    uint16_t remaining = read16();
    // An entry count that claims more than the block still holds is refused
    // before any entry is read.
    if (uint64_t(remaining) * 12 > size - cursor)
        throw "Invalid position";
    return findEntry(remaining, tag, found);
}

void ExifParser::seekAbsolute(uint64_t pos)
{
    if (pos > size)
        throw "Invalid position";
    cursor = size_t(pos);
}

void ExifParser::pushCursor(size_t pos)
{
    if (cursorStack.size() >= maxCursorDepth)
        throw "Invalid position";
    size_t saved = cursor;
    seekAbsolute(pos);
    cursorStack.push_back(saved);
}

void ExifParser::popCursor()
{
    if (cursorStack.empty())
        return;
    cursor = cursorStack.back();
    cursorStack.pop_back();
}

uint32_t ExifParser::toUINT16(uint32_t value) const
{
    return shortOf(value, bigEndian);
}

uint32_t ExifParser::secondUINT16(uint32_t value) const
{
    return bigEndian ? value & 0xFFFF : value >> 16;
}

void ExifParser::toString(uint16_t type, uint32_t count, uint32_t value, std::string& out) const
{
    if ((type != TYPE_ASCII && type != TYPE_UNDEFINED) || count < 5)
        throw "Invalid Type: ASCII[>4] or UNDEF[>4] required.";
    uint64_t pos = offsetFromBase(value);
    if (pos > size || count > size - pos)
        throw "Invalid position";
    out.assign(reinterpret_cast<const char*>(data + pos), count);
}

void ExifParser::readRational(uint32_t value, uint32_t& numerator, uint32_t& denominator)
{
    pushCursor(size_t(offsetFromBase(value)));
    numerator = read32();
    denominator = read32();
    popCursor();
}

void ExifParser::seekToIFD0()
{
    if (makerNoteOnly)
        throw "Only NARVI Meta";
    if (ifd0 != 0) {
        seekAbsolute(ifd0);
        return;
    }
    // JPEG: look for the APP1 "Exif" segment among the first markers.
    bigEndian = true;
    cursor = 0;
    if (read16() != 0xFFD8)
        throw "SOI(0xFFD8) not found.";
    for (int examined = 0; examined < 32; ++examined) {
        uint16_t marker = read16();
        if (marker == 0xFFD8)
            throw "Invalid SOI(0xFFD8) found.";
        if (marker == 0xFFD9)
            throw "Invalid EOI(0xFFD9) found.";
        if (marker == 0xFFDA)
            throw "Invalid SOS(0xFFDA) found.";
        if (marker == 0xFFFF)
            continue; // fill
        if (marker < 0xFF00)
            throw "Unknown marker.";
        size_t segment = cursor; // the length field counts itself
        uint16_t length = read16();
        if (marker == 0xFFE1) {
            static const uint8_t exifId[6] = {'E', 'x', 'i', 'f', 0, 0};
            uint8_t id[6];
            read(id, 6, cursor);
            cursor += 6;
            if (std::memcmp(id, exifId, 6) == 0) {
                tiffBase = cursor;
                bigEndian = read16() == 0x4D4D;
                if (read16() != 42)
                    throw "Invalid TIFF-ID(0x002A).";
                ifd0 = size_t(offsetFromBase(read32()));
                // Cameras write IFD0 right after the header, where the cursor
                // now stands; the first pass relies on that.
                return;
            }
        }
        seekAbsolute(uint64_t(segment) + length);
    }
}

// Places the cursor at the IFD that the pointer entry `tag` of the parent IFD
// refers to, caching its position.
void ExifParser::seekToChild(void (ExifParser::*parent)(), size_t& cache, uint16_t tag, const char* missing)
{
    if (cache != 0) {
        seekAbsolute(cache);
        return;
    }
    (this->*parent)();
    bool found = find(tag, [&](uint16_t, uint16_t, uint32_t, uint32_t value) {
        uint64_t pos = offsetFromBase(value);
        seekAbsolute(pos);
        cache = size_t(pos);
    });
    if (!found)
        throw missing;
}

void ExifParser::seekToEXIF()
{
    if (makerNoteOnly)
        throw "Only NARVI Meta";
    seekToChild(&ExifParser::seekToIFD0, exifIfd, 0x8769, "EXIF-IFD(0x8769) not found.");
}

void ExifParser::seekToMakerNote()
{
    if (makerNoteOnly)
        throw "Only NARVI Meta";
    seekToChild(&ExifParser::seekToEXIF, makerNote, 0x927C, "MakerNote-IFD(0x927C) not found.");
}

void ExifParser::seekToNARVIMakerNote()
{
    if (narviMakerNote != 0) {
        seekAbsolute(narviMakerNote);
        return;
    }
    seekToMakerNote();
    uint8_t signature[8];
    read(signature, 8, cursor);
    cursor += 8;
    if (std::memcmp(signature, narviSignature, 8) != 0)
        throw "Not a NARVI image.";
    narviMakerNote = cursor;
}

void ExifParser::seekToORVEX()
{
    seekToChild(&ExifParser::seekToNARVIMakerNote, orvexIfd, 0x4001, "ORVEX-IFD(0x4001) not found.");
}

void ExifParser::readOREVX(ORVEX& out)
{
    out.clear();
    // Every lookup starts again at the head of its IFD: a find consumes it.
    auto lookup = [this](void (ExifParser::*seek)(), uint16_t tag, const EntryHandler& handle) {
        (this->*seek)();
        find(tag, handle);
    };
    auto text = [this](std::string& field) {
        return [this, &field](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
            toString(type, count, value, field);
        };
    };
    auto shortValue = [this](uint32_t& field) {
        return [this, &field](uint16_t, uint16_t, uint32_t, uint32_t value) { field = toUINT16(value); };
    };
    auto signedShort = [this](int32_t& field) {
        return [this, &field](uint16_t, uint16_t, uint32_t, uint32_t value) {
            field = int32_t(toUINT16(value));
        };
    };

    if (!makerNoteOnly) {
        lookup(&ExifParser::seekToIFD0, 0x0110, text(out.model));
        lookup(&ExifParser::seekToIFD0, 0x0131, text(out.software));
    }

    const auto maker = &ExifParser::seekToNARVIMakerNote;
    lookup(maker, 0x0002, text(out.makerText2));
    lookup(maker, 0x0005, text(out.makerText5));
    lookup(maker, 0x1000, shortValue(out.makerValue1000));

    const auto orvex = &ExifParser::seekToORVEX;
    lookup(orvex, 0x0001, shortValue(out.projectionType));
    lookup(orvex, 0x0002, shortValue(out.orvexValue2));
    lookup(orvex, 0x0003, [&](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
        // Only an entry that is wrong in type while right in count is
        // refused; every other shape is read as two rationals.
        if (type != TYPE_SRATIONAL && count == 2)
            throw "Invalid entry for Zenith(0x0003): SRATIONAL[2] required.";
        pushCursor(size_t(offsetFromBase(value)));
        for (float& angle : out.zenith) {
            int32_t numerator = int32_t(read32());
            uint32_t denominator = read32();
            angle = float(numerator) / float(denominator);
        }
        popCursor();
    });
    lookup(orvex, 0x0004, [&](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
        if (type != TYPE_RATIONAL || count != 1)
            throw "Invalid entry for Compass(0x0004): RATIONAL[1] required.";
        uint32_t numerator, denominator;
        readRational(value, numerator, denominator);
        out.compass = float(numerator) / float(denominator);
        out.attachCompass();
    });
    lookup(orvex, 0x0005, shortValue(out.orvexValue5));
    lookup(orvex, 0x0007, signedShort(out.sphereAdjZenith));
    lookup(orvex, 0x1014, [&](uint16_t, uint16_t, uint32_t, uint32_t value) {
        out.videoStabilization = int32_t(toUINT16(value));
        switch (out.videoStabilization & 7) {
        case 1:
        case 4:
            out.yawEnabled = true;
            break;
        case 3:
        case 5:
            out.yawEnabled = true;
            out.yawLockDir = true;
            break;
        case 2: // yaw correction off
            out.videoStabilization = 0;
            break;
        default:
            break;
        }
        out.hasStabilization = (out.videoStabilization & 7) != 0;
    });
    lookup(orvex, 0x0013, signedShort(out.adjRollingShutter));
    lookup(orvex, 0x0203, signedShort(out.orvexValue203));
    lookup(orvex, 0x0204, [&](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
        if (type != TYPE_SHORT || count != 2)
            throw "Invalid entry for StitchingFishImgCenter(0x0204): SHORT[2] required.";
        out.stitchingFishImgCenter[0] = toUINT16(value);
        out.stitchingFishImgCenter[1] = secondUINT16(value);
    });
    lookup(orvex, 0x0205, [&](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
        if (type != TYPE_SHORT || count != 2)
            throw "Invalid entry for StitchingFishMovCenter(0x0205): SHORT[2] required.";
        out.stitchingFishMovCenter[0] = toUINT16(value);
        out.stitchingFishMovCenter[1] = secondUINT16(value);
    });
    lookup(orvex, 0x0206, [&](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
        if (type != TYPE_RATIONAL || count != 1)
            throw "Invalid entry for StitchingSamplingRate(0x0206): RATIONAL[1] required.";
        uint32_t numerator, denominator;
        readRational(value, numerator, denominator);
        out.stitchingSamplingRate = float(numerator) / float(denominator);
    });
}

namespace {

// Rewrites the SHORT[1] entry `tag` of the ORVEX IFD in buf. With
// neverLower, a stored 1 is kept when 0 is asked for (and mode becomes 1).
bool rewriteShort(uint8_t* buf, size_t n, uint16_t tag, int32_t& mode, bool neverLower)
{
    ExifParser parser;
    parser.attachQMKN(buf, n);
    parser.seekToORVEX();
    return parser.find(tag, [&](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
        if (type != ExifParser::TYPE_SHORT || count != 1)
            throw "invalid entry";
        if (neverLower && mode == 0 && shortOf(value, parser.bigEndian) == 1)
            mode = 1;
        // The temporary parser works on a copy of buf of the same size, so
        // the value field it just read lies inside buf too.
        putShortValue(buf + parser.cursor - 4, mode, parser.bigEndian);
    });
}

} // namespace

bool ExifParser::updateProjectionType(uint8_t* buf, size_t n, PROJECTION_TYPE mode)
{
    try {
        return rewriteShort(buf, n, 0x0001, mode, false);
    } catch (...) {
        throw "ProjectionType override failed.";
    }
}

bool ExifParser::updateSphereAdjZenith(uint8_t* buf, size_t n, TOPBOTTOM_CORRECTION_TYPE& mode)
{
    if (mode == MODE_UNKNOWN)
        return false;
    try {
        return rewriteShort(buf, n, 0x0007, mode, true);
    } catch (...) {
        throw "SphereAdjZenith override failed.";
    }
}

bool ExifParser::updateAdjRollingShutter(uint8_t* buf, size_t n, RS_CORRECTION_TYPE& mode)
{
    if (mode == MODE_UNKNOWN)
        return false;
    try {
        return rewriteShort(buf, n, 0x0013, mode, true);
    } catch (...) {
        throw "AdjRollingShutter override failed.";
    }
}

bool ExifParser::updateVideoStabilization(uint8_t* buf, size_t n, VIDEO_STABILIZATION mode)
{
    if (mode == 0 || mode == MODE_UNKNOWN)
        return false;
    try {
        if (rewriteShort(buf, n, 0x1014, mode, false))
            return true;
        // Older cameras have no stabilization entry. The SRATIONAL[3] entry
        // 0x0109 is given up for it, so the IFD need not grow; the entry
        // keeps its place even though the tags are then out of order.
        ExifParser parser;
        parser.attachQMKN(buf, n);
        parser.seekToORVEX();
        bool found = parser.find(0x0109, [&](uint16_t, uint16_t type, uint32_t count, uint32_t) {
            if (type != TYPE_SRATIONAL || count != 3)
                throw "invalid entry";
            uint8_t* entry = buf + parser.cursor - 12;
            const bool be = parser.bigEndian;
            put16(entry, 0x1014, be);
            put16(entry + 2, TYPE_SHORT, be);
            put32(entry + 4, 1, be);
            putShortValue(entry + 8, mode, be);
        });
        if (found)
            GLTK::Console::out(L"Overwrite VideoStabilization(%04x) into %04x.\n", 0x1014, 0x0109);
        return found;
    } catch (...) {
        throw "VideoStabilization override failed.";
    }
}
