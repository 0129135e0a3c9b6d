#include "SourceMetadata.h"

#include "CameraModel.h"
#include "ElementText.h"

#include <cmath>

namespace {
// Text boxes are read at most this far.
constexpr uint64_t kMaxText = 4096;
constexpr uint64_t kMaxMakerNote = 16 << 20;
// The XMP, axis and Spherical XML payloads; a larger one is left unread.
constexpr uint64_t kMaxUuidText = 16 << 20;
} // namespace

bool SourceMetadata::read(const MP4::Container& c)
{
    *this = SourceMetadata();
    if (!c.root)
        return false;
    if (const MP4::MVHD* m = c.first<MP4::MVHD>("moov.mvhd"))
        creationTime = m->creationTime;
    readCamera(c);
    readUuids(c);
    if (const MP4::BOX* x = c.first("moov.udta.@xyz")) {
        std::string text;
        if (c.readPayload(*x, kMaxText, text)) {
            hasXyz = true;
            gps.attachRXYZ(text.c_str()); // stops at the first zero byte
        }
    }
    readSpherical(c);
    const MP4::BOX* gyro = c.first("moov.udta.QDTB");
    hasGyroData = gyro != nullptr && gyro->size >= 25;
    return true;
}

void SourceMetadata::readCamera(const MP4::Container& c)
{
    const MP4::BOX* mod = c.first("moov.udta.@mod");
    if (mod != nullptr && mod->size > 8 && c.readPayload(*mod, kMaxText, modelText)) {
        hasModel = true;
        modelCode = CameraModel::code(modelText);
    }
    if (const MP4::BOX* q = c.first("moov.udta.QMKN")) {
        std::string bytes;
        makerNote = MakerNote::Empty;
        if (q->size > 8 && c.readPayload(*q, kMaxMakerNote, bytes)) {
            try {
                ExifParser parser;
                parser.attachQMKN(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
                parser.readOREVX(orvex);
                makerNote = MakerNote::Read;
            } catch (const char* message) {
                makerNote = MakerNote::Unreadable;
                makerNoteError = message;
            }
        }
    }
    if (makerNote == MakerNote::Read && !std::isnan(orvex.heading))
        gps.attachCompass(static_cast<double>(orvex.heading));
}

void SourceMetadata::readUuids(const MP4::Container& c)
{
    c.find<MP4::UUID>("uuid", [&](MP4::UUID& u) {
        if (u.hasUserType(MP4::XMP::_UUID) && !hasXmp) {
            hasXmp = c.readPayload(u, kMaxUuidText, xmp);
            if (!gps.hasDirection)
                gps.attachCompass(xmp);
            MetaText::elementText(xmp, "<VideoStabilization>", "</VideoStabilization>", false, stabilizationSummary);
        } else if (u.hasUserType(MP4::AXIS::_UUID) && axis.empty()) {
            c.readPayload(u, kMaxUuidText, axis);
        }
        return true;
    });
}

void SourceMetadata::readSpherical(const MP4::Container& c)
{
    if (c.videoTrack == nullptr)
        return;
    c.videoTrack->find<MP4::UUID>("uuid", [&](MP4::UUID& u) {
        if (!u.hasUserType(MP4::SphericalXML::_UUID))
            return true;
        hasSphericalXml = c.readPayload(u, kMaxUuidText, sphericalXml);
        return false;
    });
    c.videoTrack->find<MP4::STSD>("mdia.minf.stbl.stsd", [&](MP4::STSD& stsd) {
        for (const MP4::BOX* entry : stsd.children) {
            const auto* e = entry->as<MP4::VisualSampleEntry>();
            const auto* sv3d = e != nullptr ? e->first<MP4::SV3D>("sv3d") : nullptr;
            const auto* prhd = sv3d != nullptr ? sv3d->first<MP4::PRHD>("proj.prhd") : nullptr;
            const auto* svhd = sv3d != nullptr ? sv3d->first<MP4::SVHD>("svhd") : nullptr;
            if (prhd == nullptr || svhd == nullptr)
                continue;
            hasV2 = true;
            v2Yaw = prhd->yaw;
            v2Pitch = prhd->pitch;
            v2Roll = prhd->roll;
            v2Source = svhd->metadataSource;
            return false;
        }
        return false;
    });
}
