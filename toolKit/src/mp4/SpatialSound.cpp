#include "SpatialSound.h"

#include "GLTKConsole.h"
#include "MP4Splice.h"

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
    sampleSize = chunkCount = sampleCount = lastChunkRemainder = 0;
    startByte = endByte = 0;
    payloadStart = 0;
    trimmed = false;
}

bool SpatialSound::attach(const std::wstring& source, double start, double end)
{
    clear();
    if (start <= 0 && end < 0)
        return true; // the whole movie: the box is carried over as it stands
    if (end >= 0 && start > end)
        return false;
    Container c;
    if (!c.attach(source))
        return false;
    BOX* qadt = c.spatialChild("uuid.QADT");
    if (qadt == nullptr)
        return true;
    // The payload as far as it really lies inside its box and the file.
    payloadStart = qadt->payloadStart();
    const uint64_t payloadEnd = clippedEnd(*qadt, c.root->size);
    const uint64_t total = payloadEnd > payloadStart ? payloadEnd - payloadStart : 0;

    uint32_t timeScale = 0;
    c.find("uuid.QATR.mdia.mdhd", [&](BOX& b) {
        if (b.size >= 9 && timeScale == 0)
            timeScale = static_cast<MDHD&>(b).timeScale;
        return timeScale == 0;
    });
    c.find("uuid.QATR.mdia.minf.stbl.stsz", [&](BOX& b) {
        if (b.size >= 9 && sampleSize == 0)
            sampleSize = static_cast<STSZ&>(b).sampleSize;
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

bool SpatialSound::buildTrimmedQATR(Container& c)
{
    buffer.clear();
    BOX* qatr = c.spatialChild("uuid.QATR");
    if (qatr == nullptr)
        return false;
    unsigned size = 0;
    return copyBox(c, *qatr, buffer, size);
}

bool SpatialSound::copyBox(Container& c, BOX& box, ByteArray& out, unsigned& size)
{
    NestedBox* nested = dynamic_cast<NestedBox*>(&box);
    if (nested == nullptr || !box.hasChild() || box.is("dinf") || box.is("stsd"))
        return copyAndModify(c, box, out, size);
    const uint64_t at = out.length;
    out.append32be(8);
    out.append(&box.type, 4);
    uint64_t total = 8;
    for (BOX* child : nested->children) {
        unsigned n = 0;
        if (!copyBox(c, *child, out, n))
            return false;
        total += n;
        if (total > UINT32_MAX)
            return false;
    }
    put32be(out.data + at, static_cast<uint32_t>(total));
    size = static_cast<unsigned>(total);
    return !nested->children.empty();
}

bool SpatialSound::copyAndModify(Container& c, BOX& box, ByteArray& out, unsigned& size)
{
    size = 0;
    if (box.is("co64"))
        size = modifyCO64(c, box, out);
    else if (box.is("mdhd"))
        size = modifyMDHD(c, box, out);
    else if (box.is("stsc"))
        size = modifySTSC(c, box, out);
    else if (box.is("stsz"))
        size = modifySTSZ(c, box, out);
    else if (box.is("stts"))
        size = modifySTTS(c, box, out);
    else if (box.size <= kMaxCopiedBox) {
        c.open([&](GLTK::FileIO& f) {
            if (clippedEnd(box, f.length()) != box.end() || !f.seek_set(static_cast<int64_t>(box.start)))
                return;
            ByteArray bytes;
            bytes.resize(box.size);
            if (box.size > 0 && f.read(bytes.data, box.size) != box.size)
                return;
            out.append(bytes);
            size = static_cast<unsigned>(box.size);
        });
    }
    return size != 0;
}

bool SpatialSound::writeFullBoxHeader(const BOX& box, GLTK::FileIO& file, ByteArray& out, unsigned newSize)
{
    // Only the compact header form carries a version right after the type.
    if (box.largesize || box.size < 12 || !file.seek_set(static_cast<int64_t>(box.start)))
        return false;
    uint8_t h[12];
    if (file.read(h, 12) != 12)
        return false;
    if (newSize != 0)
        put32be(h, newSize);
    out.append(h, 12);
    return true;
}

// Each rebuilt table box is written with its own length, which for the
// camera's tables (one stts entry, a constant sample size) is the source's.

unsigned SpatialSound::modifyMDHD(Container& c, BOX& box, ByteArray& out)
{
    unsigned written = 0;
    c.open([&](GLTK::FileIO& f) {
        uint8_t version = 0;
        if (!f.seek_set(static_cast<int64_t>(box.start + 8)) || f.read(&version, 1) != 1)
            return;
        const unsigned length = version == 1 ? 44 : 32;
        if (clippedEnd(box, f.length()) < box.start + length)
            return;
        ByteArray b;
        if (!writeFullBoxHeader(box, f, b, length))
            return;
        uint8_t times[20], tail[4];
        const unsigned timesLength = version == 1 ? 20 : 12; // creation, modification, time scale
        if (f.read(times, timesLength) != timesLength)
            return;
        b.append(times, timesLength);
        // Every sample lasts one time-scale unit.
        if (version == 1)
            b.append64be(sampleCount);
        else
            b.append32be(sampleCount);
        if (!f.seek_cur(version == 1 ? 8 : 4) || f.read(tail, 4) != 4) // language, pre_defined
            return;
        b.append(tail, 4);
        out.append(b);
        written = length;
    });
    return written;
}

unsigned SpatialSound::modifySTTS(Container& c, BOX& box, ByteArray& out)
{
    unsigned written = 0;
    c.open([&](GLTK::FileIO& f) {
        ByteArray b;
        if (!writeFullBoxHeader(box, f, b, 24))
            return;
        b.append32be(1);
        b.append32be(sampleCount);
        b.append32be(1);
        out.append(b);
        written = 24;
    });
    return written;
}

unsigned SpatialSound::modifySTSC(Container& c, BOX& box, ByteArray& out)
{
    unsigned written = 0;
    c.open([&](GLTK::FileIO& f) {
        ByteArray b;
        if (!writeFullBoxHeader(box, f, b, 40))
            return;
        b.append32be(2);
        b.append32be(1);
        b.append32be(kChunkSamples);
        b.append32be(1);
        b.append32be(chunkCount);
        b.append32be(lastChunkRemainder);
        b.append32be(1);
        out.append(b);
        written = 40;
    });
    return written;
}

unsigned SpatialSound::modifySTSZ(Container& c, BOX& box, ByteArray& out)
{
    unsigned written = 0;
    c.open([&](GLTK::FileIO& f) {
        ByteArray b;
        if (!writeFullBoxHeader(box, f, b, 20))
            return;
        b.append32be(sampleSize);
        b.append32be(sampleCount);
        out.append(b);
        written = 20;
    });
    return written;
}

unsigned SpatialSound::modifyCO64(Container& c, BOX& box, ByteArray& out)
{
    unsigned written = 0;
    c.open([&](GLTK::FileIO& f) {
        const unsigned length = chunkCount * 8 + 16;
        ByteArray b;
        if (!writeFullBoxHeader(box, f, b, length))
            return;
        b.append32be(chunkCount);
        const uint64_t chunkBytes = uint64_t(sampleSize) * kChunkSamples;
        for (uint32_t i = 0; i < chunkCount; ++i)
            b.append64be(payloadStart + chunkBytes * i);
        out.append(b);
        written = length;
    });
    return written;
}

bool SpatialSound::writeTrimmedQATR(GLTK::FileIO& file)
{
    return buffer.length == 0 || file.write(buffer.data, buffer.length) == buffer.length;
}

} // namespace MP4
