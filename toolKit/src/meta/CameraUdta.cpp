#include "CameraUdta.h"

#include "AccelSensorStreamEmbed.h"
#include "GLTKConsole.h"
#include "SensorStreamBoxes.h"
#include "Thumbnailer.h"

namespace {
constexpr uint64_t kMaxMakerNote = 16 << 20;
// The camera's thumbnail is a small JPEG, redrawn in a box of its size.
constexpr uint64_t kMaxThumbnail = 16 << 20;
// Sensor streams of hours of recording stay far below this.
constexpr uint64_t kMaxSensorBox = 256ull << 20;
} // namespace

bool CameraUdta::update(const MP4::Container& camera, unsigned file, const MP4::NestedBox& udta,
                        const std::wstring& mediaPath, MP4::EditPlan& plan) const
{
    for (const MP4::BOX* box : udta.children) {
        if (box->size < 9 || box->largesize || !box->whole())
            continue;
        if (box->is("QMKN")) {
            ByteArray payload;
            if (!camera.readBox(*box, kMaxMakerNote, payload))
                continue;
            ByteArray note(payload.data + 8, payload.length - 8);
            updateMakerNote(note);
            plan.patch(file, box->payloadStart(), std::move(note));
        } else if (box->is("QTHU")) {
            redrawThumbnail(*box, file, mediaPath, plan);
        } else if (req.trimCount > 0 && box->is("QDTD")) {
            trimSensorBox(camera, *box, sizeof(AccelSensorStreamEmbed::TopBottomCorrection), file, plan);
        } else if (req.trimCount > 0 && box->is("QDTC")) {
            trimSensorBox(camera, *box, sizeof(AccelSensorStreamEmbed::Ecompass), file, plan);
        }
    }
    return true;
}

bool CameraUdta::carryGpsMeta(const MP4::Container& movie, const MP4::Container& camera, unsigned file,
                              MP4::EditPlan& plan)
{
    const MP4::BOX* gpsMeta = camera.first("moov.meta");
    if (gpsMeta == nullptr || gpsMeta->size < 9)
        return true;
    if (!gpsMeta->whole())
        return false;
    return movie.appendGpsMeta(plan, file, gpsMeta->start, gpsMeta->size);
}

void CameraUdta::updateMakerNote(ByteArray& note) const
{
    // An update with nothing to do (tag absent, state unknown or off) is no
    // failure; only a note that cannot be rewritten says so.
    auto attempt = [&](const wchar_t* failed, auto update) {
        try {
            update();
        } catch (const char*) {
            GLTK::Console::out(L"%ls", failed);
        }
    };
    uint8_t* p = note.data;
    const size_t n = static_cast<size_t>(note.length);
    int32_t zenith = req.makerModes[0], rollingShutter = req.makerModes[2];
    attempt(L"ProjectionType update failed.\n",
            [&] { return ExifParser::updateProjectionType(p, n, ExifParser::PROJECTION_EQUIRECTANGULAR); });
    attempt(L"SphereAdjZenith update failed.\n", [&] { return ExifParser::updateSphereAdjZenith(p, n, zenith); });
    attempt(L"VideoStabilization update failed.\n",
            [&] { return ExifParser::updateVideoStabilization(p, n, req.makerModes[1]); });
    attempt(L"AdjRollingShutter update failed.\n",
            [&] { return ExifParser::updateAdjRollingShutter(p, n, rollingShutter); });
}

void CameraUdta::redrawThumbnail(const MP4::BOX& box, unsigned file, const std::wstring& mediaPath,
                                 MP4::EditPlan& plan) const
{
    const uint64_t n = box.payloadSize();
    // Readers skip a box they do not know; a stale thumbnail would lie. A
    // box too large to be a thumbnail is neither read nor redrawn.
    if (n > kMaxThumbnail) {
        plan.patch(file, box.start + 4, ByteArray("free", 4));
        return;
    }
    // The box from its type on: the new JPEG padded with zeros, or a free box
    // of zeros when none fits. Decoding a 4K frame takes as long as copying
    // a hundred megabytes, so it is done beside the copy of the media.
    plan.patchLater(file, box.start + 4, 4 + n, [path = mediaPath, n] {
        ByteArray jpeg;
        const bool drawn = Thumbnailer(path).saveFrame(jpeg, 640, static_cast<size_t>(n)) && jpeg.length <= n;
        ByteArray bytes(drawn ? "QTHU" : "free", 4);
        if (drawn)
            bytes.append(jpeg);
        bytes.resize(4 + n); // zero-filled behind the JPEG
        return bytes;
    });
}

void CameraUdta::trimSensorBox(const MP4::Container& camera, const MP4::BOX& box, unsigned recordSize,
                               unsigned file, MP4::EditPlan& plan) const
{
    ByteArray bytes;
    if (camera.readBox(box, kMaxSensorBox, bytes) &&
        SensorStream::trimSensorBox(bytes.data, bytes.length, recordSize, req.trimStart, req.trimCount))
        plan.patch(file, box.start, std::move(bytes));
}
