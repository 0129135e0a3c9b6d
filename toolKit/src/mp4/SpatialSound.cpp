#include "SpatialSound.h"

#include "GLTKConsole.h"

#include <cmath>

namespace MP4 {

namespace {

// Seconds to a sample index: truncated, and refused (false) when negative
// or too large to count.
bool samplesAt(double seconds, uint32_t timeScale, uint64_t& samples)
{
    double s = std::trunc(seconds * timeScale);
    if (!(s >= 0.0) || s >= 9.0e15)
        return false;
    samples = static_cast<uint64_t>(s);
    return true;
}

// Table boxes are small; anything else copied whole is bounded as well.
constexpr uint64_t kMaxCopiedBox = 64 << 20;

} // namespace

void SpatialSound::clear()
{
    buffer.clear();
    co64At = 0;
    sampleSize = chunkCount = sampleCount = lastChunkRemainder = 0;
    startByte = endByte = 0;
    payloadStart = 0;
    trimmed = false;
}

bool SpatialSound::attach(const Container& c, double start, double end)
{
    clear();
    if (start <= 0 && end < 0)
        return true; // the whole movie: the box is carried over as it stands
    if (end >= 0 && start > end)
        return false;
    BOX* qadt = c.spatialChild("uuid.QADT");
    if (qadt == nullptr)
        return true;
    // The payload as far as it really lies inside its box and the file.
    payloadStart = qadt->payloadStart();
    const uint64_t payloadEnd = qadt->reach;
    const uint64_t total = payloadEnd > payloadStart ? payloadEnd - payloadStart : 0;

    uint32_t timeScale = 0;
    c.find<MDHD>("uuid.QATR.mdia.mdhd", [&](MDHD& b) {
        if (b.size >= 9 && timeScale == 0)
            timeScale = b.timeScale;
        return timeScale == 0;
    });
    c.find<STSZ>("uuid.QATR.mdia.minf.stbl.stsz", [&](STSZ& b) {
        if (b.size >= 9 && sampleSize == 0)
            sampleSize = b.sampleSize;
        return sampleSize == 0;
    });
    if (timeScale == 0 || sampleSize == 0) {
        GLTK::Console::out(L"No Spatial Metadata.\n");
        return false;
    }
    uint64_t first = 0, last = 0;
    if (!samplesAt(start < 0 ? 0 : start, timeScale, first) || first > total / sampleSize)
        return false;
    startByte = first * sampleSize;
    if (end >= 0) {
        if (!samplesAt(end, timeScale, last) || last > total / sampleSize)
            return false;
        endByte = last * sampleSize;
    } else {
        endByte = total;
    }
    const uint64_t kept = endByte - startByte;
    if (kept % sampleSize != 0 || kept / sampleSize > UINT32_MAX)
        return false;
    const uint64_t chunkBytes = uint64_t(sampleSize) * kChunkSamples;
    const uint64_t chunks = kept / chunkBytes + 1; // one more than the full chunks, on purpose
    if (chunks > (UINT32_MAX - 16) / 8 || kept % chunkBytes > UINT32_MAX)
        return false;
    sampleCount = static_cast<uint32_t>(kept / sampleSize);
    chunkCount = static_cast<uint32_t>(chunks);
    // Kept as a byte count although the stsc field counts samples.
    lastChunkRemainder = static_cast<uint32_t>(kept % chunkBytes);
    trimmed = buildTrimmedQATR(c);
    return trimmed;
}

bool SpatialSound::buildTrimmedQATR(const Container& c)
{
    buffer.clear();
    co64At = 0;
    BOX* qatr = c.spatialChild("uuid.QATR");
    return qatr != nullptr && copyBox(c, *qatr, buffer) && co64At != 0;
}

bool SpatialSound::copyBox(const Container& c, const BOX& box, ByteArray& out)
{
    const NestedBox* nested = dynamic_cast<const NestedBox*>(&box);
    if (nested == nullptr || !box.hasChild() || box.is("dinf") || box.is("stsd")) {
        if (rebuiltTable(box, out))
            return true;
        ByteArray bytes;
        if (!c.readBox(box, kMaxCopiedBox, bytes) || bytes.empty())
            return false;
        out.append(bytes);
        return true;
    }
    if (nested->children.empty())
        return false;
    const uint64_t at = out.length;
    out.append32be(8); // the size is known once the children are in
    out.append(&box.type, 4);
    for (const BOX* child : nested->children)
        if (!copyBox(c, *child, out))
            return false;
    if (out.length - at > UINT32_MAX)
        return false;
    put32be(out.data + at, static_cast<uint32_t>(out.length - at));
    return true;
}

bool SpatialSound::rebuiltTable(const BOX& box, ByteArray& out)
{
    if (box.largesize || box.size < 12)
        return false;
    // Only a box read as its class is rebuilt; one that merely bears the
    // name is copied as it stands.
    if (const MDHD* mdhd = box.as<MDHD>()) {
        // Every sample lasts one time-scale unit.
        MDHD rebuilt = *mdhd;
        rebuilt.duration = sampleCount;
        out.append(rebuilt.bytes());
    } else if (const STTS* stts = box.as<STTS>()) {
        out.append(STTS::bytes(stts->versionFlags, sampleCount, 1));
    } else if (const STSC* stsc = box.as<STSC>()) {
        out.append(STSC::bytes(stsc->versionFlags, {{1, kChunkSamples, 1}, {chunkCount, lastChunkRemainder, 1}}));
    } else if (const STSZ* stsz = box.as<STSZ>()) {
        out.append(STSZ::bytes(stsz->versionFlags, sampleSize, sampleCount));
    } else if (const CO64* co64 = box.as<CO64>()) {
        // Each chunk named where its first byte lies in the source movie.
        const uint64_t chunkBytes = uint64_t(sampleSize) * kChunkSamples;
        std::vector<uint64_t> offsets(chunkCount);
        for (uint32_t i = 0; i < chunkCount; ++i)
            offsets[i] = payloadStart + startByte + chunkBytes * i;
        co64At = out.length + 16;
        out.append(CO64::bytes(co64->versionFlags, offsets));
    } else {
        return false;
    }
    return true;
}

} // namespace MP4
