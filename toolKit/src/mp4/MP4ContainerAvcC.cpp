// Rewrites the video track's avcC box with the full-range flag and
// constraint_set1_flag set, choosing among three ways of making room: the
// same length in place, giving up moov.udta's space in place, or a copying
// edit that shifts what follows.
#include "MP4Container.h"

#include "GLTKConsole.h"
#include "MP4Splice.h"

#include <vector>

namespace MP4 {

namespace {

// Moves n bytes of the file from one offset to another; the ranges may
// overlap (the copy runs from the far end when moving forward).
bool moveBytes(BinFile& f, uint64_t from, uint64_t to, uint64_t n)
{
    if (n == 0 || from == to)
        return true;
    std::vector<uint8_t> buf(static_cast<size_t>(std::min<uint64_t>(n, 1 << 20)));
    uint64_t done = 0;
    while (done < n) {
        uint64_t piece = std::min<uint64_t>(n - done, buf.size());
        // Moving forward, take the pieces from the end so nothing is
        // overwritten before it has been read.
        uint64_t at = to > from ? n - done - piece : done;
        if (!f.seek_set(static_cast<int64_t>(from + at)) || f.read(buf.data(), piece) != piece)
            return false;
        if (!f.seek_set(static_cast<int64_t>(to + at)) || f.write(buf.data(), piece) != piece)
            return false;
        done += piece;
    }
    return true;
}

} // namespace

bool Container::appendFullRangeAndConstrainedSet1Flag(bool fullRange)
{
    BOX* found = first("moov.trak.mdia.minf.stbl.stsd.avc1.avcC");
    AVCC* avcc = dynamic_cast<AVCC*>(found);
    if (avcc == nullptr || moov == nullptr)
        return true;
    ByteArray record;
    bool oldFullRange = false, oldConstrainedSet1 = false, rebuilt = false;
    try {
        rebuilt = avcc->assign_fullRange_and_constrained_set1_flag(record, fullRange, oldFullRange, oldConstrainedSet1);
    } catch (const char* e) {
        GLTK::Console::out(L"Container::appendFullRangeAndConstrainedSet1Flag: %s\n", e);
        rebuilt = false;
    }
    if (!rebuilt)
        return true;
    GLTK::Console::out(L"Container::appendFullRangeAndConstrainedSet1Flag: %d - %d, constrained_set1_flag:  %d - 1\n",
                       oldFullRange ? 1 : 0, fullRange ? 1 : 0, oldConstrainedSet1 ? 1 : 0);
    if (oldFullRange == fullRange && oldConstrainedSet1)
        return true;

    ByteArray bytes;
    bytes.append32be(static_cast<uint32_t>(record.length + 8));
    bytes.append("avcC", 4);
    bytes.append(record);
    const uint64_t start = avcc->start, oldSize = avcc->size;
    const int64_t delta = static_cast<int64_t>(bytes.length) - static_cast<int64_t>(oldSize);
    const uint64_t fileLength = root->size;
    const bool avccWhole = clippedEnd(*avcc, fileLength) == avcc->end();

    if (delta == 0) {
        return modifyContainer(L"appendFullRangeAndConstrainedSet1Flag_EnoughSpaces", [&](BinFile& f) {
            return avccWhole && f.seek_set(static_cast<int64_t>(start)) && f.write(bytes.data, bytes.length) == bytes.length;
        });
    }

    // moov.udta's space can absorb the change when it lies behind the avcC:
    // what lies between them moves by delta and a free box fills the rest of
    // the udta's old place, so moov keeps its length and no offset moves.
    const BOX* udta = first("moov.udta");
    if (udta != nullptr && avccWhole && start < udta->start && avcc->end() <= udta->start &&
        clippedEnd(*udta, fileLength) == udta->end() && (delta < 0 || udta->size >= static_cast<uint64_t>(delta))) {
        const uint64_t freeSize = udta->size - static_cast<uint64_t>(delta);
        // A free box needs its 8-byte header; a smaller gap cannot be filled.
        if (freeSize == 0 || freeSize >= 8) {
            const uint64_t betweenAt = avcc->end(), between = udta->start - avcc->end();
            const uint64_t udtaStart = udta->start;
            const BOX* ancestors = avcc->parent;
            const BOX* theMoov = moov;
            return modifyContainer(L"appendFullRangeAndConstrainedSet1Flag_ReuseUdta", [&](BinFile& f) {
                if (!moveBytes(f, betweenAt, betweenAt + static_cast<uint64_t>(delta), between))
                    return false;
                if (!f.seek_set(static_cast<int64_t>(start)) || f.write(bytes.data, bytes.length) != bytes.length)
                    return false;
                if (freeSize > 0) {
                    ByteArray freeBox;
                    freeBox.append32be(static_cast<uint32_t>(freeSize));
                    freeBox.append("free", 4);
                    freeBox.resize(freeSize);
                    if (!f.seek_set(static_cast<int64_t>(udtaStart + static_cast<uint64_t>(delta))) ||
                        f.write(freeBox.data, freeBox.length) != freeBox.length)
                        return false;
                }
                if (ancestors != nullptr)
                    modifyBoxSize(f, *ancestors, delta);
                // moov's total length has not changed.
                return theMoov->writeSize(f, theMoov->size);
            });
        }
    }

    SpliceEdit edit;
    edit.require(avccWhole);
    edit.add(Splice::bytes(start, oldSize, bytes));
    if (avcc->parent != nullptr)
        edit.resizeWithAncestors(*avcc->parent, delta);
    return edit.run(*this, L"appendFullRangeAndConstrainedSet1Flag_NoSpaces");
}

} // namespace MP4
