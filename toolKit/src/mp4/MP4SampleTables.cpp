// The sample descriptions and the sample tables: their parse, and the
// serialisers of the tables the spatial-audio rebuild writes.
#include "MP4Box.h"

#include <algorithm>
#include <vector>

namespace MP4 {

void STSD::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    versionFlags = file.read32();
    entryCount = file.read32();
    parseChildren(file, end);
}

void VisualSampleEntry::parseBox(BinFile& file, uint64_t end)
{
    // 6 reserved bytes, data reference index, 16 bytes of pre-defined and
    // reserved fields, width and height, then 50 more bytes before the
    // child boxes.
    file.limit = std::min(start + size, end);
    uint64_t body = file.position;
    if (!file.fits(kFixedFields))
        return;
    complete = true;
    file.seek_set(static_cast<int64_t>(body + 24));
    width = file.read16();
    height = file.read16();
    file.seek_set(static_cast<int64_t>(body + kFixedFields));
    parseChildren(file, end);
}

void STCO::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    versionFlags = file.read32();
    entryCount = file.read32();
    firstEntry = file.position;
}

uint64_t STCO::entriesInBox(uint64_t fileLength) const
{
    uint64_t boxEnd = clippedEnd(fileLength);
    if (firstEntry == 0 || firstEntry > boxEnd)
        return 0;
    return std::min<uint64_t>(entryCount, (boxEnd - firstEntry) / entrySize());
}

ByteArray CO64::bytes(uint32_t versionFlags, const std::vector<uint64_t>& offsets)
{
    ByteArray body;
    body.append32be(static_cast<uint32_t>(offsets.size()));
    for (uint64_t o : offsets)
        body.append64be(o);
    return makeFullBox("co64", uint8_t(versionFlags >> 24), versionFlags, body);
}

void STSC::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    versionFlags = file.read32();
    entryCount = file.read32();
}

ByteArray STSC::bytes(uint32_t versionFlags, const std::vector<Entry>& entries)
{
    ByteArray body;
    body.append32be(static_cast<uint32_t>(entries.size()));
    for (const Entry& e : entries) {
        body.append32be(e.firstChunk);
        body.append32be(e.samplesPerChunk);
        body.append32be(e.sampleDescriptionIndex);
    }
    return makeFullBox("stsc", uint8_t(versionFlags >> 24), versionFlags, body);
}

void STSZ::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    versionFlags = file.read32();
    sampleSize = file.read32();
    sampleCount = file.read32();
    if (sampleSize != 0) {
        totalBytes = uint64_t(sampleSize) * sampleCount;
        return;
    }
    // Sum the per-sample table in blocks, never past the box.
    uint64_t left = sampleCount;
    std::vector<uint8_t> buf(64 * 1024);
    while (left > 0) {
        uint64_t n = std::min<uint64_t>(left, buf.size() / 4);
        if (!file.readBytes(buf.data(), n * 4)) {
            // The box is shorter than its count says: sum what fits.
            uint64_t room = file.limit > file.position ? (file.limit - file.position) / 4 : 0;
            n = std::min(n, room);
            if (n == 0 || !file.readBytes(buf.data(), n * 4))
                break;
        }
        for (uint64_t i = 0; i < n; ++i)
            totalBytes += be32(buf.data() + 4 * i);
        left -= n;
    }
}

ByteArray STSZ::bytes(uint32_t versionFlags, uint32_t sampleSize, uint32_t sampleCount)
{
    ByteArray body;
    body.append32be(sampleSize);
    body.append32be(sampleCount);
    return makeFullBox("stsz", uint8_t(versionFlags >> 24), versionFlags, body);
}

void STTS::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    versionFlags = file.read32();
    entryCount = file.read32();
}

ByteArray STTS::bytes(uint32_t versionFlags, uint32_t count, uint32_t delta)
{
    ByteArray body;
    body.append32be(1);
    body.append32be(count);
    body.append32be(delta);
    return makeFullBox("stts", uint8_t(versionFlags >> 24), versionFlags, body);
}

} // namespace MP4
