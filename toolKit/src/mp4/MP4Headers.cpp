// The movie, track and media header boxes and the handler box: parse,
// serialiser, dump lines and the factory's entries.
#include "MP4Box.h"

#include "GLTKConsole.h"

namespace MP4 {

namespace {

using GLTK::Console;
using ull = unsigned long long;

// The times that mvhd and mdhd share after their full-box header: creation,
// modification, time scale and duration, 32-bit in version 0, 64-bit (but
// the time scale) in version 1.
bool readTimes(BinFile& file, uint8_t version, uint64_t& creation, uint64_t& modification, uint32_t& timeScale,
               uint64_t& duration)
{
    auto time = [&](uint64_t& t) {
        uint32_t narrow = 0;
        if (version == 1)
            return file.read64(t);
        RCHECK(file.read32(narrow));
        t = narrow;
        return true;
    };
    return time(creation) && time(modification) && file.read32(timeScale) && time(duration);
}

} // namespace

const BoxKinds& headerBoxKinds()
{
    static const BoxKinds kinds = {
        {"root", "ftyp", newBox<FTYP>}, {"root", "mdat", newBox<MDAT>}, {"moov", "mvhd", newBox<MVHD>},
        {"trak", "tkhd", newBox<TKHD>}, {"QATR", "tkhd", newBox<TKHD>}, {"mdia", "mdhd", newBox<MDHD>},
        {"meta", "hdlr", newBox<HDLR>},
    };
    return kinds;
}

bool MVHD::parseBox(BinFile& file)
{
    RCHECK(file.read8(version) && file.skip(3));
    return readTimes(file, version, creationTime, modificationTime, timeScale, duration);
}

void MVHD::dump() const
{
    Console::out(L"MP4: %ls<%ls timeStamp=%llu timeScale=%u duration=%llu >\n", indent().c_str(),
                 basicTag().c_str(), ull(creationTime), timeScale, ull(duration));
}

bool TKHD::parseBox(BinFile& file)
{
    RCHECK(file.read8(version) && file.skip(3));
    uint32_t narrow = 0;
    if (version == 1) {
        RCHECK(file.read64(creationTime) && file.skip(8) && file.read32(trackId) && file.skip(4) &&
               file.read64(duration));
    } else {
        RCHECK(file.read32(narrow) && file.skip(4) && file.read32(trackId) && file.skip(4));
        creationTime = narrow;
        RCHECK(file.read32(narrow));
        duration = narrow;
    }
    // reserved 8, layer 2, alternate group 2, volume 2, reserved 2, matrix
    // 36, then width and height in 16.16 fixed point.
    RCHECK(file.skip(52) && file.read32(width) && file.read32(height));
    width >>= 16;
    height >>= 16;
    return true;
}

void TKHD::dump() const
{
    Console::out(L"MP4: %ls<%ls timeStamp=%llu width=%u height=%u >\n", indent().c_str(), basicTag().c_str(),
                 ull(creationTime), width, height);
}

bool MDHD::parseBox(BinFile& file)
{
    RCHECK(file.read8(version) && file.read24(flags));
    RCHECK(readTimes(file, version, creationTime, modificationTime, timeScale, duration));
    return file.read16(language) && file.read16(preDefined);
}

ByteArray MDHD::bytes() const
{
    ByteArray body;
    if (version == 1) {
        body.append64be(creationTime);
        body.append64be(modificationTime);
        body.append32be(timeScale);
        body.append64be(duration);
    } else {
        body.append32be(static_cast<uint32_t>(creationTime));
        body.append32be(static_cast<uint32_t>(modificationTime));
        body.append32be(timeScale);
        body.append32be(static_cast<uint32_t>(duration));
    }
    body.append16be(language);
    body.append16be(preDefined);
    return makeFullBox("mdhd", version, flags, body);
}

void MDHD::dump() const
{
    Console::out(L"MP4: %ls<%ls timeStamp=%llu timeScale=%u duration=%llu >\n", indent().c_str(),
                 basicTag().c_str(), ull(creationTime), timeScale, ull(duration));
}

bool HDLR::parseBox(BinFile& file)
{
    // version and flags, pre-defined, then the handler type
    return file.skip(8) && file.readType(handlerType);
}

void HDLR::dump() const
{
    wchar_t code[5] = {};
    for (int i = 0; i < 4; ++i) {
        const unsigned c = (handlerType >> (8 * i)) & 0xFF;
        code[i] = c < 0x20 || c > 0x7E ? L'?' : static_cast<wchar_t>(c);
    }
    Console::out(L"MP4: %ls<%ls handler=%ls >\n", indent().c_str(), basicTag().c_str(), code);
}

} // namespace MP4
