// The sample descriptions and the sample tables: their parse, the
// serialisers of the tables the spatial-audio rebuild writes, their dump
// lines and the factory's entries.
#include "MP4Box.h"

#include "AVCCRecord.h"
#include "GLTKConsole.h"
#include "GLTKwchar.h"

#include <vector>

namespace MP4 {

namespace {

using GLTK::Console;
using ull = unsigned long long;

// An avcC record is a few dozen bytes; anything near this is not one.
constexpr uint64_t kMaxAvcC = 1 << 20;

// A table of `count` entries of `width` bytes each lies inside the box.
bool tableFits(const BinFile& file, uint64_t count, uint64_t width)
{
    return count <= UINT64_MAX / width && file.fits(count * width);
}

} // namespace

const BoxKinds& sampleTableBoxKinds()
{
    static const BoxKinds kinds = {
        {"stbl", "stco", newBox<STCO>}, {"stbl", "co64", newBox<CO64>},
        {"stbl", "stsc", newBox<STSC>}, {"stbl", "stsd", newBox<STSD>},
        {"stbl", "stsz", newBox<STSZ>}, {"stbl", "stts", newBox<STTS>},
        {"stsd", "avc1", newBox<AVC1>}, {"stsd", "hvc1", newBox<VisualSampleEntry>},
        {"stsd", "hev1", newBox<VisualSampleEntry>}, {"stsd", "sowt", newBox<SOWT>},
        {"avc1", "avcC", newBox<AVCC>},
    };
    return kinds;
}

// ---------------------------------------------------------------- descriptions

bool STSD::parseBox(BinFile& file)
{
    RCHECK(file.read32(versionFlags) && file.read32(entryCount));
    parseChildren(file);
    return true;
}

void STSD::dump() const
{
    std::wstring codes;
    for (const BOX* c : children) {
        if (!codes.empty())
            codes += L',';
        codes += GLTK::wchar::mbs2wcs(c->typeText());
    }
    Console::out(L"MP4: %ls<%ls entries=%u codes=%ls children=%lu >\n", indent().c_str(), basicTag().c_str(),
                 entryCount, codes.empty() ? L"-" : codes.c_str(), static_cast<unsigned long>(children.size()));
    for (const BOX* c : children)
        c->dump();
}

bool VisualSampleEntry::parseBox(BinFile& file)
{
    // 6 reserved bytes, data reference index, 16 bytes of pre-defined and
    // reserved fields, width and height, then 50 more bytes before the
    // child boxes.
    const uint64_t body = file.position;
    if (!file.fits(kFixedFields))
        return fail("shorter than a visual sample entry's fixed fields");
    RCHECK(file.skip(24) && file.read16(width) && file.read16(height) && file.moveTo(body + kFixedFields));
    parseChildren(file);
    return true;
}

void VisualSampleEntry::dump() const
{
    Console::out(L"MP4: %ls<%ls width=%u height=%u children=%lu >\n", indent().c_str(), basicTag().c_str(), width,
                 height, static_cast<unsigned long>(children.size()));
    for (const BOX* c : children)
        c->dump();
}

bool AVCC::parseBox(BinFile& file)
{
    const uint64_t n = payloadSize();
    if (n > kMaxAvcC)
        return fail("too large for a decoder configuration");
    record.resize(n);
    return file.readBytes(record.data, n);
}

void AVCC::dump() const
{
    avcc_dump(record, indent().c_str(), basicTag().c_str());
}

bool AVCC::get_profile_idc_and_constrained_set1_flag(unsigned char& profile_idc, bool& constrainedSet1,
                                                     bool& fullRange) const
{
    return avcc_get_profile_idc_and_constrained_set1_flag(record, profile_idc, constrainedSet1, fullRange);
}

bool AVCC::assign_fullRange_and_constrained_set1_flag(ByteArray& out, bool fullRange, bool& oldFullRange,
                                                      bool& oldConstrainedSet1) const
{
    return avcc_assign_fullRange_and_constrained_set1_flag(record, out, fullRange, oldFullRange, oldConstrainedSet1);
}

// ---------------------------------------------------------------- tables

bool STCO::parseBox(BinFile& file)
{
    RCHECK(file.read32(versionFlags) && file.read32(entryCount));
    firstEntry = file.position;
    if (!tableFits(file, entryCount, entrySize()))
        return fail("its chunk offsets run past its end");
    return true;
}

void STCO::dump() const
{
    Console::out(L"MP4: %ls<%ls entries=%u >\n", indent().c_str(), basicTag().c_str(), entryCount);
}

ByteArray CO64::bytes(uint32_t versionFlags, const std::vector<uint64_t>& offsets)
{
    ByteArray body;
    body.append32be(static_cast<uint32_t>(offsets.size()));
    for (uint64_t o : offsets)
        body.append64be(o);
    return makeFullBox("co64", uint8_t(versionFlags >> 24), versionFlags, body);
}

bool STSC::parseBox(BinFile& file)
{
    RCHECK(file.read32(versionFlags) && file.read32(entryCount));
    if (!tableFits(file, entryCount, 12))
        return fail("its entries run past its end");
    return true;
}

void STSC::dump() const
{
    Console::out(L"MP4: %ls<%ls entries=%u >\n", indent().c_str(), basicTag().c_str(), entryCount);
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

bool STSZ::parseBox(BinFile& file)
{
    RCHECK(file.read32(versionFlags) && file.read32(sampleSize) && file.read32(sampleCount));
    if (sampleSize != 0) {
        totalBytes = uint64_t(sampleSize) * sampleCount;
        return true;
    }
    if (!tableFits(file, sampleCount, 4))
        return fail("its sample sizes run past its end");
    // Summed in blocks.
    std::vector<uint8_t> buf(64 * 1024);
    for (uint64_t left = sampleCount; left > 0;) {
        const uint64_t n = std::min<uint64_t>(left, buf.size() / 4);
        RCHECK(file.readBytes(buf.data(), n * 4));
        for (uint64_t i = 0; i < n; ++i)
            totalBytes += be32(buf.data() + 4 * i);
        left -= n;
    }
    return true;
}

void STSZ::dump() const
{
    Console::out(L"MP4: %ls<%ls sampleSize=%u samples=%u totalBytes=%llu >\n", indent().c_str(),
                 basicTag().c_str(), sampleSize, sampleCount, ull(totalBytes));
}

ByteArray STSZ::bytes(uint32_t versionFlags, uint32_t sampleSize, uint32_t sampleCount)
{
    ByteArray body;
    body.append32be(sampleSize);
    body.append32be(sampleCount);
    return makeFullBox("stsz", uint8_t(versionFlags >> 24), versionFlags, body);
}

bool STTS::parseBox(BinFile& file)
{
    RCHECK(file.read32(versionFlags) && file.read32(entryCount));
    if (!tableFits(file, entryCount, 8))
        return fail("its entries run past its end");
    return true;
}

void STTS::dump() const
{
    Console::out(L"MP4: %ls<%ls entries=%u >\n", indent().c_str(), basicTag().c_str(), entryCount);
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
