#include "SpatialDataCopy.h"

#include "GLTKConsole.h"

namespace SpatialDataCopy {

bool carry(const MP4::Container& movie, const MP4::Container& camera, unsigned file, const MP4::SpatialSound& sound,
           MP4::EditPlan& plan)
{
    const MP4::BOX* box = camera.spatialData();
    if (box == nullptr)
        return true;
    // Already in the movie (a metadata-only run): it goes along with the
    // rest, and the remap repoints it wherever it lands.
    if (const MP4::BOX* own = movie.spatialData(); own != nullptr && plan.keeps(*own))
        return true;
    if (!box->isWhole(camera.length()))
        return false;
    if (!sound.trimmed) {
        plan.append({MP4::EditPlan::range(file, box->start, box->size)});
        return true;
    }

    // uuid header and user type, the QADT header, the kept payload, then
    // the rebuilt track; the new box keeps 32-bit sizes.
    const MP4::BOX* qadt = camera.spatialChild("uuid.QADT");
    if (qadt == nullptr || sound.endByte < sound.startByte)
        return false;
    const uint64_t kept = sound.endByte - sound.startByte;
    const uint64_t from = sound.payloadStart + sound.startByte;
    const uint64_t total = MP4::UUID::kHeader + 8 + kept + sound.buffer.length;
    if (total > UINT32_MAX || from < sound.payloadStart || from + kept > qadt->clippedEnd(camera.length())) {
        GLTK::Console::out(L"Container::trimSpatialData(%ls) failed.\n", camera.path.c_str());
        return false;
    }
    ByteArray head;
    MP4::appendHeader(head, "uuid", total);
    head.append(MP4::SpatialData::_UUID, 16);
    MP4::appendHeader(head, "QADT", kept + 8);
    MP4::EditPlan::Offsets chunks;
    chunks.at = sound.co64At;
    chunks.count = sound.chunkCount;
    chunks.width = 8;
    chunks.file = file;
    chunks.owner = "co64";
    plan.append({MP4::EditPlan::bytes(std::move(head)), MP4::EditPlan::range(file, from, kept),
                 MP4::EditPlan::bytes(sound.buffer, {chunks})});

    // QDT9 names the new QADT box, 8 bytes before the kept payload, and its
    // new size.
    if (const MP4::BOX* qdt9 = camera.first("moov.udta.QDT9"); qdt9 != nullptr &&
                                                                qdt9->clippedEnd(camera.length()) >= qdt9->start + 24) {
        MP4::EditPlan::Offsets pointer;
        pointer.at = qdt9->start + 8;
        pointer.count = 1;
        pointer.width = 8;
        pointer.pointer = true;
        pointer.target = {file, from};
        pointer.addend = -8;
        pointer.owner = "QDT9";
        plan.setOffsets(file, pointer);
        ByteArray size;
        size.append64be(kept + 8);
        plan.patch(file, qdt9->start + 16, std::move(size));
    }
    return true;
}

} // namespace SpatialDataCopy
