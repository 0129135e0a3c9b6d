#include "InspectReport.h"

#include "AccelSensorStreamEmbed.h"
#include "GLTKwchar.h"
#include "MP4MovieCheck.h"
#include "SensorStreamBoxes.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace Inspect {

namespace {

using Embed = AccelSensorStreamEmbed;

// The maker note is read this far, as the rebuild reads it.
constexpr uint64_t kMaxMakerNote = 16 << 20;

// A readable MP4 without a movie box: a first top-level box with a
// printable code and a size that fits the file. Text, an image or an empty
// file is not one.
bool looksLikeMP4(const MP4::Container& c)
{
    if (c.moov != nullptr)
        return true;
    if (!c.root || c.root->children.empty())
        return false;
    const MP4::BOX& b = *c.root->children.front();
    if (b.size < b.headerSize() || b.end() < b.start || b.end() > c.length())
        return false;
    for (int i = 0; i < 4; ++i) {
        const unsigned ch = (b.type >> (8 * i)) & 0xFF;
        if ((ch < 0x20 || ch > 0x7E) && ch != 0xA9)
            return false;
    }
    return true;
}

// n bytes at an offset of the open file; false when they are not all there.
bool readAt(const MP4::Container& c, uint64_t at, void* out, uint64_t n)
{
    bool ok = false;
    c.open([&](GLTK::FileIO& f) { ok = f.seek_set(static_cast<int64_t>(at)) && f.read(out, n) == n; });
    return ok;
}

uint64_t le64(const uint8_t* p)
{
    return uint64_t(SensorStream::le32(p)) | uint64_t(SensorStream::le32(p + 4)) << 32;
}

Track trackOf(const MP4::Container& c, const MP4::NestedBox& trak)
{
    Track t;
    if (const auto* tkhd = trak.first<MP4::TKHD>("tkhd")) {
        t.id = tkhd->trackId;
        t.width = tkhd->width;
        t.height = tkhd->height;
    }
    // hdlr: version and flags, a pre-defined word, then the handler type.
    uint8_t handler[4];
    if (const MP4::BOX* hdlr = trak.first("mdia.hdlr");
        hdlr && hdlr->reach >= hdlr->payloadStart() + 12 && readAt(c, hdlr->payloadStart() + 8, handler, 4))
        t.handler = codeText(uint32_t(SensorStream::le32(handler)));
    if (const auto* mdhd = trak.first<MP4::MDHD>("mdia.mdhd")) {
        t.timeScale = mdhd->timeScale;
        t.seconds = mdhd->timeScale ? double(mdhd->duration) / mdhd->timeScale : 0.0;
    }
    if (const auto* stsd = trak.first<MP4::STSD>("mdia.minf.stbl.stsd"); stsd && !stsd->children.empty()) {
        const MP4::BOX& entry = *stsd->children.front();
        t.codec = codeText(entry.type);
        // The sample entry's own frame size, where the track header has none.
        if (const auto* visual = entry.as<MP4::VisualSampleEntry>(); visual && t.width == 0) {
            t.width = visual->width;
            t.height = visual->height;
        }
    }
    if (const auto* stsz = trak.first<MP4::STSZ>("mdia.minf.stbl.stsz"))
        t.samples = stsz->sampleCount;
    if (t.handler == "vide" && t.seconds > 0)
        t.frameRate = double(t.samples) / t.seconds;
    return t;
}

} // namespace

std::string codeText(uint32_t type)
{
    std::string text;
    for (int i = 0; i < 4; ++i) {
        const unsigned char ch = static_cast<unsigned char>(type >> (8 * i));
        if (ch < 0x80) {
            text += static_cast<char>(ch);
        } else {
            text += static_cast<char>(0xC0 | ch >> 6);
            text += static_cast<char>(0x80 | (ch & 0x3F));
        }
    }
    return text;
}

void Report::read(const std::wstring& file)
{
    path = file;
    struct stat st {};
    hasSize = ::stat(GLTK::FileIO::toNative(path).c_str(), &st) == 0;
    fileSize = hasSize ? static_cast<uint64_t>(st.st_size) : 0;

    std::wstring problem;
    const bool movie = source.open(path, problem);
    const MP4::Container& c = source.container;
    if (!c.root) {
        refusal = GLTK::wchar::narrow(problem);
        return;
    }
    if (!looksLikeMP4(c)) {
        refusal = "not an MP4 movie";
        return;
    }
    if (!movie && c.moov == nullptr) {
        // The open stopped before the camera's boxes; the top-level ones
        // (XMP, spatial data) may still be there.
        source.metadata.read(c);
        problems.push_back("no movie box (moov): the file ends at " + std::to_string(c.length()) +
                           " bytes without one, most likely cut short before the camera wrote it");
    }
    for (std::string& p : MP4::problemsOf(c))
        problems.push_back(std::move(p));

    const SourceMetadata& found = source.metadata;
    if (found.makerNote == SourceMetadata::MakerNote::Unreadable)
        problems.push_back("moov.udta.QMKN: the maker note cannot be read: " + found.makerNoteError);
    if (const MP4::BOX* q = c.first("moov.udta.QMKN")) {
        std::string bytes;
        if (c.readPayload(*q, kMaxMakerNote, bytes) && bytes.size() >= 2)
            makerNoteOrder = bytes.compare(0, 2, "II") == 0 ? "little-endian" : "big-endian";
    }
    readTracks();
    readStreams();
    readSpatialAudio();
    readPosition();
    if (found.hasSphericalXml)
        view.attach(found.sphericalXml);
}

Report::Kind Report::kind() const
{
    if (!refusal.empty() || !source.container.root)
        return Kind::NotAMovie;
    return problems.empty() ? Kind::Whole : Kind::Problems;
}

int Report::exitStatus() const
{
    switch (kind()) {
    case Kind::NotAMovie:
        return 1;
    case Kind::Problems:
        return 2;
    case Kind::Whole:
        break;
    }
    return 0;
}

void Report::readTracks()
{
    source.container.find<MP4::TRAK>("moov.trak", [&](MP4::TRAK& trak) {
        tracks.push_back(trackOf(source.container, trak));
        return true;
    });
}

// Each stream box is judged by the bytes it really has: its header must
// name the record size of its type and a byte order, and its records must
// all lie inside it.
void Report::readStreams()
{
    const MP4::Container& c = source.container;
    static const std::pair<const char*, uint16_t> kinds[] = {
        {"QDTB", sizeof(Embed::Gyro)},       {"QDTC", sizeof(Embed::Ecompass)},
        {"QDTD", sizeof(Embed::TopBottomCorrection)}, {"QDTG", sizeof(uint64_t)},
        {"QDTH", sizeof(Embed::Quaternion)}, {"QDTI", sizeof(Embed::YawCorrection)}};
    for (const auto& [type, size] : kinds) {
        const std::string where = std::string("moov.udta.") + type;
        const MP4::BOX* box = c.first(where.c_str());
        if (box == nullptr)
            continue;
        SensorSummary s;
        s.type = type;
        const uint64_t have = box->reach > box->payloadStart() ? box->reach - box->payloadStart() : 0;
        uint8_t head[16];
        if (have < 16 || !readAt(c, box->payloadStart(), head, 16)) {
            problems.push_back(where + ": " + std::to_string(have) + " bytes hold no stream header");
            streams.push_back(s);
            continue;
        }
        const uint16_t mark = SensorStream::le16(head + 8);
        s.bigEndian = mark == Embed::kBigEndianMark;
        s.records = SensorStream::le32(head);
        s.rate = SensorStream::le16(head + 4);
        s.recordSize = SensorStream::le16(head + 6);
        if (s.bigEndian) {
            SensorStream::swapBytes(s.records);
            SensorStream::swapBytes(s.rate);
            SensorStream::swapBytes(s.recordSize);
        }
        const uint64_t need = 16 + uint64_t(s.records) * size;
        if (mark != Embed::kBigEndianMark && mark != Embed::kLittleEndianMark)
            problems.push_back(where + ": the byte-order mark is neither 0123 nor 3210");
        else if (s.recordSize != size)
            problems.push_back(where + ": records of " + std::to_string(s.recordSize) + " bytes, not " +
                               std::to_string(size));
        else if (need > have)
            problems.push_back(where + ": " + std::to_string(s.records) + " records need " + std::to_string(need) +
                               " bytes, the box holds " + std::to_string(have));
        else
            s.readable = true;
        // The time stamp is the last 8 bytes of every record.
        uint8_t t[8];
        if (s.readable && s.records > 0) {
            const uint64_t firstAt = box->payloadStart() + 16 + size - 8;
            const uint64_t lastAt = firstAt + uint64_t(s.records - 1) * size;
            if (readAt(c, firstAt, t, 8))
                s.firstTime = le64(t);
            if (readAt(c, lastAt, t, 8))
                s.lastTime = le64(t);
            if (s.bigEndian) {
                SensorStream::swapBytes(s.firstTime);
                SensorStream::swapBytes(s.lastTime);
            }
        }
        streams.push_back(s);
    }
}

void Report::readSpatialAudio()
{
    const MP4::Container& c = source.container;
    const MP4::BOX* qadt = c.spatialChild("uuid.QADT");
    if (qadt == nullptr)
        return;
    hasSpatialAudio = true;
    spatialAudio.dataBytes = qadt->payloadSize();
    if (const MP4::BOX* qatr = c.spatialChild("uuid.QATR"))
        if (const auto* track = qatr->as<MP4::NestedBox>()) {
            spatialAudio.hasTrack = true;
            spatialAudio.track = trackOf(c, *track);
        }
    spatialAudio.pointer = c.first("moov.udta.QDT9") != nullptr;
}

void Report::readPosition()
{
    const SourceMetadata& found = source.metadata;
    gps = found.gps;
    if (found.hasXyz) {
        gpsSource = "@xyz";
    } else if (const MP4::XYZ* box = source.container.first<MP4::XYZ>("moov.udta.\xA9xyz")) {
        gps.attachRXYZ(box->text.c_str());
        gpsSource = codeText(box->type);
    }
}

} // namespace Inspect
