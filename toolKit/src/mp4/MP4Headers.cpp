// The movie, track and media header boxes and the handler box.
#include "MP4Box.h"

#include <algorithm>

namespace MP4 {

namespace {

// The times that mvhd and mdhd share after their full-box header: creation,
// modification, time scale and duration, 32-bit in version 0, 64-bit (but
// the time scale) in version 1.
void readTimes(BinFile& file, uint8_t version, uint64_t& creation, uint64_t& modification, uint32_t& timeScale,
               uint64_t& duration)
{
    const bool wide = version == 1;
    creation = wide ? file.read64() : file.read32();
    modification = wide ? file.read64() : file.read32();
    timeScale = file.read32();
    duration = wide ? file.read64() : file.read32();
}

} // namespace

void MVHD::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    version = file.read8();
    file.read24();
    readTimes(file, version, creationTime, modificationTime, timeScale, duration);
}

void TKHD::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    uint64_t body = file.position;
    version = file.read8();
    file.read24();
    if (version == 1) {
        creationTime = file.read64();
        file.read64();
        trackId = file.read32();
        file.read32();
        duration = file.read64();
    } else {
        creationTime = file.read32();
        file.read32();
        trackId = file.read32();
        file.read32();
        duration = file.read32();
    }
    // reserved 8, layer 2, alternate group 2, volume 2, reserved 2, matrix 36
    uint64_t sizes = file.position + 52;
    if (file.position < body || !file.fits(52 + 8))
        return;
    file.seek_set(static_cast<int64_t>(sizes));
    width = file.read32() >> 16;
    height = file.read32() >> 16;
}

void MDHD::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    version = file.read8();
    flags = file.read24();
    readTimes(file, version, creationTime, modificationTime, timeScale, duration);
    language = file.read16();
    preDefined = file.read16();
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

void HDLR::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    file.read32(); // version and flags
    file.read32(); // pre-defined
    handlerType = file.readType();
}

} // namespace MP4
