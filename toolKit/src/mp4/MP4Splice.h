#pragma once
// A copying edit described as a list of splices: byte ranges of the old file
// that give way to new bytes. After the copy, the size fields of the boxes
// that enclose the changes are rewritten, and every file offset that points
// behind a change (the chunk offsets of the movie's tracks and of the
// spatial-audio track, the QDT9 pointer to the spatial data) is moved by the
// bytes inserted or removed before it. Offsets in front of every change stay
// as they are, so media placed before moov is never touched and media after
// it always moves with it.
#include "ByteArray.h"
#include "MP4Container.h"

#include <functional>
#include <memory>
#include <vector>

namespace MP4 {

struct Splice {
    uint64_t at = 0;      // offset in the old file
    uint64_t removed = 0; // old bytes dropped from there
    uint64_t length = 0;  // new bytes written instead
    // Writes exactly length bytes at the destination's position.
    std::function<bool(BinFile&)> write;

    int64_t delta() const { return static_cast<int64_t>(length) - static_cast<int64_t>(removed); }
    // A splice that writes a copy of the given bytes.
    static Splice bytes(uint64_t at, uint64_t removed, const ByteArray& data);
};

class SpliceEdit {
public:
    // Splices must not overlap; they are applied in file order.
    void add(Splice s);
    // The size of this box (as it stands in the old file) changes by delta.
    void resize(const BOX& box, int64_t delta);
    // The same for the box and every ancestor reached through parent links.
    void resizeWithAncestors(const BOX& box, int64_t delta);

    // Marks the edit as impossible (a box that runs past its parent, say):
    // run then fails before writing anything and prints the edit's line.
    void require(bool ok) { valid = valid && ok; }

    // Where a byte of the old file lies in the new one.
    uint64_t map(uint64_t oldOffset) const;

    // Runs the copying edit on the container (which re-parses afterwards).
    bool run(Container& c, const wchar_t* name) const;

private:
    struct SizeChange {
        uint64_t start, size;
        uint32_t type;
        bool largesize;
        int64_t delta;
    };
    std::vector<Splice> splices;
    std::vector<SizeChange> sizes;
    bool valid = true;
};

// The end of the box, cut at the end of each ancestor and of the file.
uint64_t clippedEnd(const BOX& box, uint64_t fileLength);

// Rewrites every entry of one stco (entrySize 4) or co64 (8) table through
// map, a block at a time; entries past the box are left alone.
bool remapTable(BinFile& file, const STCO& table, unsigned entrySize, const std::function<uint64_t(uint64_t)>& map);

// Moves every offset that the file holds into itself (chunk offsets of the
// tracks and of the spatial-audio track, the QDT9 pointer) through map.
bool remapFileOffsets(Container& c, BinFile& file, const std::function<uint64_t(uint64_t)>& map);

} // namespace MP4
