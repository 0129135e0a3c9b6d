#include "SpatialDataCopy.h"

#include "GLTKConsole.h"

namespace SpatialDataCopy {

namespace {

// The udta's QDT9 box names the QADT box of the spatial data: its offset and
// its size, 8 bytes each, after the box header.
constexpr uint64_t kQdt9Size = 24;

// Has the camera's QDT9 (if it has one) name the QADT box of the given size
// that lands `addend` bytes from where the given input byte lands; a size of
// 0 names none.
void pointQdt9(const MP4::Container& camera, unsigned file, MP4::EditPlan::Position target, int64_t addend,
               uint64_t size, MP4::EditPlan& plan)
{
    const MP4::BOX* qdt9 = camera.first("moov.udta.QDT9");
    if (qdt9 == nullptr || qdt9->size < kQdt9Size || qdt9->reach < qdt9->start + kQdt9Size)
        return;
    ByteArray fields;
    fields.append64be(0);
    fields.append64be(size);
    if (size == 0) {
        plan.dropOffsets(file, qdt9->start + 8);
    } else {
        MP4::EditPlan::Offsets pointer;
        pointer.at = qdt9->start + 8;
        pointer.count = 1;
        pointer.width = 8;
        pointer.pointer = true;
        pointer.target = target;
        pointer.addend = addend;
        pointer.owner = "QDT9";
        plan.registerOffsets(file, pointer);
    }
    plan.patch(file, qdt9->start + 8, std::move(fields));
}

} // namespace

bool carry(const MP4::Container& movie, const MP4::Container& camera, unsigned file, const MP4::SpatialSound& sound,
           MP4::EditPlan& plan)
{
    const MP4::BOX* box = camera.spatialData();
    const MP4::BOX* qadt = camera.spatialChild("uuid.QADT");
    if (box == nullptr || qadt == nullptr) {
        pointQdt9(camera, file, {}, 0, 0, plan);
        return true;
    }
    // The movie already holds it (a metadata-only run): it goes along with
    // the rest, unless the recording was cut short inside it.
    const MP4::BOX* own = movie.spatialData();
    const bool carried = own != nullptr && plan.keeps(*own);
    if (!box->whole() || box->largesize) {
        GLTK::Console::out(L"MP4: the spatial data of %ls is cut short; it is left out.\n", camera.path.c_str());
        pointQdt9(camera, file, {}, 0, 0, plan);
        return !carried || plan.remove(L"trimSpatialData", *own);
    }
    if (carried || !sound.trimmed) {
        if (!carried)
            plan.append({MP4::EditPlan::range(file, box->start, box->size)});
        pointQdt9(camera, file, {file, qadt->start}, 0, qadt->size, plan);
        return true;
    }

    // uuid header and user type, the QADT header, the kept payload, then
    // the rebuilt track; the new box keeps 32-bit sizes.
    if (sound.endByte < sound.startByte)
        return false;
    const uint64_t kept = sound.endByte - sound.startByte;
    const uint64_t from = sound.payloadStart + sound.startByte;
    const uint64_t total = MP4::UUID::kHeader + 8 + kept + sound.buffer.length;
    if (total > UINT32_MAX || from < sound.payloadStart || from + kept > qadt->reach) {
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
    // The new QADT box begins 8 bytes before the kept payload.
    pointQdt9(camera, file, {file, from}, -8, kept + 8, plan);
    return true;
}

} // namespace SpatialDataCopy
