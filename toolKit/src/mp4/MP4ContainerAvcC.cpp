// Rewrites the video track's avcC box with the full-range flag and
// constraint_set1_flag set. Three ways of making room, as the record's length
// decides: the same length in place; giving up moov.udta's space, so that
// moov keeps its length; or growing everything around the avcC.
#include "MP4Container.h"

#include "GLTKConsole.h"
#include "GLTKwchar.h"

namespace MP4 {

bool Container::appendFullRangeAndConstrainedSet1Flag(EditPlan& plan, bool fullRange) const
{
    AVCC* avcc = dynamic_cast<AVCC*>(first("moov.trak.mdia.minf.stbl.stsd.avc1.avcC"));
    if (avcc == nullptr || moov == nullptr)
        return true;
    ByteArray record;
    bool oldFullRange = false, oldConstrainedSet1 = false, rebuilt = false;
    try {
        rebuilt = avcc->assign_fullRange_and_constrained_set1_flag(record, fullRange, oldFullRange, oldConstrainedSet1);
    } catch (const char* e) {
        GLTK::Console::out(L"Container::appendFullRangeAndConstrainedSet1Flag: %ls\n", GLTK::wchar::mbs2wcs(e).c_str());
        rebuilt = false;
    }
    if (!rebuilt)
        return true;
    GLTK::Console::out(L"Container::appendFullRangeAndConstrainedSet1Flag: %d - %d, constrained_set1_flag:  %d - 1\n",
                       oldFullRange ? 1 : 0, fullRange ? 1 : 0, oldConstrainedSet1 ? 1 : 0);
    if (oldFullRange == fullRange && oldConstrainedSet1)
        return true;

    ByteArray bytes = makeBox("avcC", record);
    const int64_t delta = static_cast<int64_t>(bytes.length) - static_cast<int64_t>(avcc->size);
    if (delta == 0)
        return plan.replace(L"appendFullRangeAndConstrainedSet1Flag_EnoughSpaces", *avcc, {EditPlan::bytes(bytes)});

    // moov.udta's space absorbs the change when it lies behind the avcC: a
    // free box takes the udta's place, so moov keeps its length and no
    // offset behind it moves. The udta's boxes are given up on purpose; the
    // rebuild writes the udta it needs afterwards.
    const BOX* udta = first("moov.udta");
    if (udta != nullptr && udta->whole() && plan.keeps(*udta) && avcc->end() <= udta->start &&
        (delta < 0 || udta->size >= static_cast<uint64_t>(delta))) {
        const uint64_t freeSize = udta->size - static_cast<uint64_t>(delta);
        // A free box needs its 8-byte header; a smaller gap cannot be filled.
        if (freeSize == 0 || freeSize >= 8) {
            EditPlan::Pieces room;
            if (freeSize > 0)
                room.push_back(EditPlan::bytes(makeFreeBox(freeSize)));
            return plan.replace(L"appendFullRangeAndConstrainedSet1Flag_ReuseUdta", *avcc, {EditPlan::bytes(bytes)}) &&
                   plan.replace(L"appendFullRangeAndConstrainedSet1Flag_ReuseUdta", *udta, std::move(room));
        }
    }
    return plan.replace(L"appendFullRangeAndConstrainedSet1Flag_NoSpaces", *avcc, {EditPlan::bytes(bytes)});
}

} // namespace MP4
