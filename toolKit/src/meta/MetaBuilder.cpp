#include "MetaBuilder.h"

#include "AccelSensorStreamEmbed.h"
#include "CameraModel.h"
#include "ElementText.h"
#include "GLTKConsole.h"
#include "GLTKwchar.h"
#include "SensorStreamBoxes.h"
#include "Thumbnailer.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {


// Walks the direct children of a serialized box held in memory, bounded by
// the box: calls visit(offset of the child in the buffer, child size).
template <class F> void eachChild(ByteArray& box, F visit)
{
    if (box.length < 8)
        return;
    uint64_t end = std::min<uint64_t>(be32(box.data), box.length);
    uint64_t pos = 8;
    while (pos + 8 <= end) {
        uint64_t size = be32(box.data + pos);
        if (size < 8 || size > end - pos)
            break;
        visit(pos, size);
        pos += size;
    }
}

} // namespace

MetaBuilder::MetaBuilder(const char* image, const char* version, bool ownName)
{
    char buf[256];
    snprintf(buf, sizeof buf, "NARVI ORVEX::%s %s", image, version);
    std::string tool = buf;
    init();
    creatorTool = tool;
    stitchingSoftware = ownName ? tool : "NARVI ORVEX::Stratomix";
}

void MetaBuilder::init()
{
    gps.init();
    xmp.clear();
    axis.clear();
    sphericalXml.clear();
    projectionType = 0;
    timestamp = 0;
    modelText.clear();
    sourcePath.clear();
    spatialSound.clear();
    orvex.clear();
    makerModes[0] = makerModes[1] = makerModes[2] = -1;
    trimStart = trimCount = 0;
}

void MetaBuilder::progress(unsigned step)
{
    unsigned s = std::min(step, 10u);
    GLTK::Console::LocaleC c;
    GLTK::Console::out(L"processing meta %4d %0.2f/%0.2f\n", s, s * 10.0, 100.0);
}

// ---------------------------------------------------------------- reading

static std::string payloadText(MP4::Container& c, const MP4::BOX& b, uint64_t maxBytes)
{
    std::string text;
    c.readPayload(b, maxBytes, text);
    return text;
}

bool MetaBuilder::readMeta(const std::wstring& source, bool reEncoded)
{
    VideoStabilizationMode mode;
    return readMeta(source, reEncoded, mode);
}

bool MetaBuilder::readMeta(const std::wstring& source, bool reEncoded, const VideoStabilizationMode& mode)
{
    std::string keepTool = creatorTool, keepSoftware = stitchingSoftware;
    init();
    creatorTool = keepTool;
    stitchingSoftware = keepSoftware;
    MP4::Container c;
    if (!c.attach(source))
        return false;
    sourcePath = source;

    if (MP4::BOX* m = c.first("moov.mvhd"))
        timestamp = static_cast<MP4::MVHD*>(m)->creationTime;

    MP4::BOX* mod = c.first("moov.udta.@mod");
    if (mod != nullptr && mod->size > 8)
        modelText = payloadText(c, *mod, 4096);
    else
        GLTK::Console::out(L"Invalid @mod.\n");

    orvex.clear();
    if (MP4::BOX* q = c.first("moov.udta.QMKN")) {
        if (q->size > 8) {
            std::string bytes = payloadText(c, *q, 16 << 20);
            try {
                ExifParser parser;
                parser.attachQMKN(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
                parser.readOREVX(orvex);
                if (!std::isnan(orvex.heading))
                    gps.attachCompass(static_cast<double>(orvex.heading));
                projectionType = static_cast<int32_t>(orvex.projectionType);
                makerModes[0] = orvex.sphereAdjZenith;
                makerModes[1] = orvex.videoStabilization;
                makerModes[2] = orvex.adjRollingShutter;
            } catch (const char* message) {
                GLTK::Console::out(L"MP4: QMKN parse failed: %ls\n", GLTK::wchar::mbs2wcs(message).c_str());
            }
        } else {
            GLTK::Console::out(L"Invalid QMKN.\n");
        }
    }

    std::string summary;
    c.find("uuid", [&](MP4::BOX& b) {
        auto& u = static_cast<MP4::UUID&>(b);
        if (u.hasUserType(MP4::XMP::_UUID)) {
            xmp = u.payload.toString();
            if (!gps.hasDirection)
                gps.attachCompass(xmp);
            MetaText::elementText(xmp, "<VideoStabilization>", "</VideoStabilization>", false, summary);
        } else if (u.hasUserType(MP4::AXIS::_UUID)) {
            axis = u.payload.toString();
        }
        return true;
    });
    if (mode.yaw != -1 && mode.image != -1)
        mode.stabilizeModeSummary(summary);

    if (MP4::BOX* x = c.first("moov.udta.@xyz")) {
        std::string text = payloadText(c, *x, 4096);
        gps.attachRXYZ(text.c_str()); // stops at the first zero byte
    }

    bool sphericalSeen = false;
    c.find("moov.trak.uuid", [&](MP4::BOX& b) {
        if (sphericalSeen)
            return false;
        sphericalSeen = true;
        auto& u = static_cast<MP4::UUID&>(b);
        if (u.hasUserType(MP4::SphericalXML::_UUID))
            sphericalXml = u.payload.toString();
        return false;
    });

    if (xmp.empty() || reEncoded)
        xmp = gps.to_XMP_string(creatorTool.c_str(), reEncoded, summary);
    else if (!(gps.hasLatitude && gps.hasLongitude))
        xmp = gps.to_XMP_string(creatorTool.c_str(), false, summary);
    return true;
}

// ---------------------------------------------------------------- writing

bool MetaBuilder::updateMeta(const std::wstring& path, const std::wstring* outPath, bool fullRange)
{
    progress(0);
    if (outPath == nullptr) {
        MP4::Container c;
        if (c.attach(path))
            c.appendFullRangeAndConstrainedSet1Flag(fullRange);
    }
    progress(2);
    return updateMetaWithoutAddingFullRange(path, outPath);
}

bool MetaBuilder::ensureOutputWritten(MP4::Container& c)
{
    if (!c.outputPath)
        return true;
    // No copying edit has run yet: copy the file whole to the output.
    MP4::Container::CopyStep copy = [](MP4::BinFile& s, MP4::BinFile& d, uint64_t& split) {
        uint64_t n = s.length();
        split = n;
        return s.seek_set(0) && s.copyTo(d, n) == n;
    };
    MP4::Container::FixUp none = [](MP4::Container&, MP4::BinFile&) { return true; };
    return c.modifyContainer(L"copyToOutput", copy, none, none);
}

bool MetaBuilder::updateMetaWithoutAddingFullRange(const std::wstring& path, const std::wstring* outPath)
{
    progress(4);
    MP4::Container c;
    if (!c.attach(path))
        return false;
    if (outPath != nullptr)
        c.outputPath = *outPath;
    const bool inPlace = outPath == nullptr;

    if (!CameraModel::isNewer(CameraModel::code(modelText))) {
        c.moovFirst();
        c.removeBadLOCI();
        progress(6);
        updateSphereXML(c, inPlace);
        if (!c.appendLocationAndSphericalVideoXML(gps, sphericalXml))
            return false;
        if (!ensureOutputWritten(c))
            return false;
        progress(8);
        if (!xmp.empty() && !c.appendXMP(xmp))
            return false;
        if (!axis.empty() && !c.appendAxis(axis))
            return false;
        c.updateTimeStamp(timestamp);
        progress(10);
        return true;
    }

    if (!c.isMdatFirst())
        return false;
    updateSphereXML(c, inPlace);
    if (!sphericalXml.empty() && !c.appendSphericalVideoXML(sphericalXml))
        return false;
    progress(6);
    MP4::Container source;
    if (!source.attach(sourcePath) || !source.isMdatFirst())
        return false;
    if (!replaceUdta(source, c, outPath) || !ensureOutputWritten(c) || !copyGpsMeta(source, c) ||
        !copySpatialData(source, c))
        return false;
    progress(8);
    if (!xmp.empty() && !c.appendXMP(xmp))
        return false;
    c.updateTimeStamp(timestamp);
    progress(10);
    return true;
}

void MetaBuilder::updateSphereXML(MP4::Container& c, bool inPlace)
{
    if (sphericalXml.empty()) {
        uint32_t width = 0, height = 0;
        if (MP4::BOX* t = c.first("moov.trak.tkhd")) {
            width = static_cast<MP4::TKHD*>(t)->width;
            height = static_cast<MP4::TKHD*>(t)->height;
        }
        if ((!inPlace && projectionType == 2) || height < 1 || width != 2 * height) {
            GLTK::Console::out(L"MP4: Not a spherical video.\n");
        } else {
            ViewHeading v;
            v.stitchingSoftware = stitchingSoftware;
            v.timestamp = timestamp;
            sphericalXml = v.toString();
            GLTK::Console::out(L"Appned New GVF-BOX.\n");
        }
    }
    // A fixed size lets a later edit rewrite the box in place.
    if (!sphericalXml.empty() && sphericalXml.size() < 1000) {
        sphericalXml += '\n';
        sphericalXml.resize(1000, ' ');
    }
}

void MetaBuilder::editUdtaCopy(ByteArray& udta, const std::wstring& moviePath)
{
    eachChild(udta, [&](uint64_t pos, uint64_t size) {
        if (size < 9)
            return;
        uint8_t* box = udta.data + pos;
        uint8_t* payload = box + 8;
        size_t n = static_cast<size_t>(size - 8);
        if (std::memcmp(box + 4, "QMKN", 4) == 0) {
            auto attempt = [&](const wchar_t* failed, auto update) {
                bool ok = false;
                try {
                    ok = update();
                } catch (const char*) {
                    ok = false;
                }
                if (!ok)
                    GLTK::Console::out(L"%ls", failed);
            };
            attempt(L"ProjectionType update failed.\n",
                    [&] { return ExifParser::updateProjectionType(payload, n, ExifParser::PROJECTION_EQUIRECTANGULAR); });
            attempt(L"SphereAdjZenith update failed.\n",
                    [&] { return ExifParser::updateSphereAdjZenith(payload, n, makerModes[0]); });
            attempt(L"VideoStabilization update failed.\n",
                    [&] { return ExifParser::updateVideoStabilization(payload, n, makerModes[1]); });
            attempt(L"AdjRollingShutter update failed.\n",
                    [&] { return ExifParser::updateAdjRollingShutter(payload, n, makerModes[2]); });
        } else if (std::memcmp(box + 4, "QTHU", 4) == 0) {
            std::memset(payload, 0, n);
            ByteArray jpeg;
            Thumbnailer thumbnailer(moviePath);
            if (thumbnailer.saveFrame(jpeg, 640, n) && jpeg.length <= n)
                std::memcpy(payload, jpeg.data, static_cast<size_t>(jpeg.length));
            else
                std::memcpy(box + 4, "free", 4);
        }
    });
}

bool MetaBuilder::replaceUdta(MP4::Container& source, MP4::Container& output, const std::wstring* /*outPath*/)
{
    MP4::BOX* udta = source.first("moov.udta");
    if (udta == nullptr)
        return false;
    ByteArray copy;
    bool read = false;
    source.open([&](GLTK::FileIO& f) {
        if (udta->size > (256ull << 20) || udta->end() > f.length() || !f.seek_set(udta->start))
            return;
        copy.resize(udta->size);
        read = f.read(copy.data, copy.length) == copy.length;
    });
    if (!read) {
        GLTK::Console::out(L"source movie read. but, unmatch size.\n");
        return false;
    }
    if (udta->largesize)
        return false; // a 64-bit udta header is not something the camera writes
    editUdtaCopy(copy, output.path);
    if (trimCount > 0) {
        auto& boxes = static_cast<MP4::NestedBox&>(*udta);
        trimBox<AccelSensorStreamEmbed::TopBottomCorrection>("QDTD", boxes, &copy);
        trimBox<AccelSensorStreamEmbed::Ecompass>("QDTC", boxes, &copy);
    }
    return output.replaceUdta(0, copy);
}

template <class Record> bool MetaBuilder::trimBox(const char* type, MP4::NestedBox& udta, ByteArray* copy)
{
    bool trimmed = false;
    udta.find(type, [&](MP4::BOX& b) {
        uint64_t offset = b.start - udta.start;
        if (copy != nullptr && offset < copy->length && b.size <= copy->length - offset)
            trimmed = SensorStream::trimSensorBox(copy->data + offset, b.size, sizeof(Record), trimStart, trimCount);
        return false;
    });
    return trimmed;
}
static_assert(sizeof(AccelSensorStreamEmbed::TopBottomCorrection) == 16, "a QDTD record is 16 bytes");
static_assert(sizeof(AccelSensorStreamEmbed::Ecompass) == 24, "a QDTC record is 24 bytes");
template bool MetaBuilder::trimBox<AccelSensorStreamEmbed::TopBottomCorrection>(const char*, MP4::NestedBox&,
                                                                               ByteArray*);
template bool MetaBuilder::trimBox<AccelSensorStreamEmbed::Ecompass>(const char*, MP4::NestedBox&, ByteArray*);

bool MetaBuilder::copyGpsMeta(MP4::Container& source, MP4::Container& output)
{
    MP4::BOX* meta = source.first("moov.meta");
    if (meta == nullptr || meta->size < 9)
        return true;
    bool ok = false;
    uint64_t offset = meta->start, length = meta->size;
    source.open([&](GLTK::FileIO& f) { ok = output.appendGpsMeta(f, offset, length); });
    return ok;
}

// The spatial-data uuid box (the parent of a QADT box), or null.
static MP4::BOX* spatialBox(MP4::Container& c)
{
    MP4::BOX* qadt = c.spatialChild("uuid.QADT");
    return qadt != nullptr && qadt->size >= 9 ? qadt->parent : nullptr;
}

// The first chunk offset of the spatial-audio track, and the payload start
// of its QADT box.
static bool spatialAnchor(MP4::Container& c, uint64_t& firstChunk, uint64_t& payloadStart)
{
    MP4::BOX* box = spatialBox(c);
    if (box == nullptr)
        return false;
    MP4::BOX* qadt = static_cast<MP4::NestedBox*>(box)->first("QADT");
    MP4::STCO* table = static_cast<MP4::STCO*>(c.first("uuid.QATR.mdia.minf.stbl.co64"));
    unsigned entry = 8;
    if (table == nullptr) {
        table = static_cast<MP4::STCO*>(c.first("uuid.QATR.mdia.minf.stbl.stco"));
        entry = 4;
    }
    if (qadt == nullptr || table == nullptr || table->entriesInBox(entry) == 0)
        return false;
    payloadStart = qadt->start + 8;
    bool read = false;
    c.open([&](GLTK::FileIO& f) {
        MP4::BinFile v(f);
        if (v.seek_set(static_cast<int64_t>(table->firstEntry)))
            firstChunk = entry == 8 ? v.read64() : v.read32();
        read = true;
    });
    return read;
}

bool MetaBuilder::copySpatialData(MP4::Container& source, MP4::Container& output)
{
    MP4::BOX* box = spatialBox(source);
    if (box == nullptr)
        return true;
    const uint64_t offset = box->start, length = box->size;
    if (MP4::BOX* already = spatialBox(output)) {
        // The box came along with the rest of the source. Whatever the moov
        // edits did to it, make its chunk offsets lie where they lay in the
        // source relative to the QADT payload, and the QDT9 pointer name it.
        uint64_t srcFirst = 0, srcPayload = 0, outFirst = 0, outPayload = 0;
        if (!spatialAnchor(source, srcFirst, srcPayload) || !spatialAnchor(output, outFirst, outPayload))
            return already->start == offset || output.overwriteSpatialDataOffset(offset);
        const int64_t needed = static_cast<int64_t>(outPayload + (srcFirst - srcPayload) - outFirst);
        return output.overwriteSpatialDataOffset(already->start - static_cast<uint64_t>(needed));
    }
    bool ok = false;
    source.open([&](GLTK::FileIO& f) {
        ok = spatialSound.trimmed ? output.trimSpatialData(f, offset, spatialSound)
                                  : output.appendSpatialData(f, offset, length);
    });
    return ok;
}

// ---------------------------------------------------------------- adjusting

void MetaBuilder::trimStream(unsigned start, unsigned count)
{
    if (!axis.empty()) {
        AxisTiltStream stream(axis);
        uint64_t n = stream.trim(start, count);
        axis = n ? stream.toBinary().substr(0, n) : std::string();
    }
    trimStart = start;
    trimCount = count;
}

bool MetaBuilder::readSpatialData(const std::wstring& source, unsigned start, unsigned end)
{
    return readSpatialData(source, static_cast<double>(start), end == 0xFFFFFFFFu ? -1.0 : static_cast<double>(end));
}

bool MetaBuilder::readSpatialData(const std::wstring& source, double start, double end)
{
    return spatialSound.attach(source, start, end);
}

void MetaBuilder::attach(const AxisTiltStream& stream, ExifParser::VIDEO_STABILIZATION mode, bool rollingShutter)
{
    axis = stream.toBinary();
    makerModes[0] = stream.zenithCorrectionState == -1 ? 1 : stream.zenithCorrectionState == -2 ? 0 : -1;
    makerModes[1] = mode;
    makerModes[2] = rollingShutter ? 1 : 0;
}

void MetaBuilder::attach(const ViewHeading& heading, bool resetAngles)
{
    ViewHeading v;
    v.attach(sphericalXml);
    v.attach(heading);
    if (v.stitchingSoftware.empty())
        v.stitchingSoftware = stitchingSoftware;
    if (resetAngles)
        v.heading = v.pitch = v.fov = v.dolly = std::nanf("");
    sphericalXml = v.toString();
}

bool MetaBuilder::currentViewHeading(ViewHeading& out)
{
    out = ViewHeading();
    if (sphericalXml.empty())
        return false;
    out.attach(sphericalXml);
    return true;
}
