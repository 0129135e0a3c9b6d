#include "MP4Splice.h"

#include <algorithm>
#include <cstring>

namespace MP4 {

Splice Splice::bytes(uint64_t at, uint64_t removed, const ByteArray& data)
{
    auto copy = std::make_shared<ByteArray>(data);
    Splice s;
    s.at = at;
    s.removed = removed;
    s.length = data.length;
    s.write = [copy](BinFile& f) { return copy->length == 0 || f.write(copy->data, copy->length) == copy->length; };
    return s;
}

void SpliceEdit::add(Splice s)
{
    auto pos = std::upper_bound(splices.begin(), splices.end(), s.at,
                                [](uint64_t at, const Splice& x) { return at < x.at; });
    splices.insert(pos, std::move(s));
}

void SpliceEdit::resize(const BOX& box, int64_t delta)
{
    for (SizeChange& c : sizes)
        if (c.start == box.start && c.type == box.type) {
            c.delta += delta;
            return;
        }
    sizes.push_back({box.start, box.size, box.type, box.largesize, delta});
}

void SpliceEdit::resizeWithAncestors(const BOX& box, int64_t delta)
{
    for (const BOX* b = &box; b != nullptr; b = b->parent)
        resize(*b, delta);
}

uint64_t SpliceEdit::map(uint64_t x) const
{
    uint64_t y = x;
    for (const Splice& s : splices)
        if (x >= s.at && x - s.at >= s.removed)
            y += static_cast<uint64_t>(s.delta());
    return y;
}

uint64_t clippedEnd(const BOX& box, uint64_t fileLength)
{
    uint64_t end = box.end() < box.start ? UINT64_MAX : box.end();
    end = std::min(end, fileLength);
    for (const BOX* p = box.parent; p != nullptr; p = p->parent)
        if (p->end() >= p->start) // a size that wraps around says nothing
            end = std::min(end, p->end());
    return std::max(end, box.start);
}

// Rewrites one chunk-offset table through map, a block at a time.
bool remapTable(BinFile& file, const STCO& table, unsigned entrySize,
                       const std::function<uint64_t(uint64_t)>& map)
{
    uint64_t end = clippedEnd(table, file.length());
    if (table.firstEntry == 0 || table.firstEntry > end)
        return true; // no entries inside the box
    uint64_t count = std::min<uint64_t>(table.entryCount, (end - table.firstEntry) / entrySize);
    uint64_t pos = table.firstEntry;
    std::vector<uint8_t> buf(64 * 1024);
    const uint64_t perBlock = buf.size() / entrySize;
    while (count > 0) {
        uint64_t n = std::min(count, perBlock);
        uint64_t bytes = n * entrySize;
        if (!file.seek_set(static_cast<int64_t>(pos)) || file.read(buf.data(), bytes) != bytes)
            return false;
        for (uint64_t i = 0; i < n; ++i) {
            uint8_t* p = buf.data() + i * entrySize;
            if (entrySize == 4) // a 32-bit table wraps; it is never promoted
                put32be(p, static_cast<uint32_t>(map(be32(p))));
            else
                put64be(p, map(be64(p)));
        }
        if (!file.seek_set(static_cast<int64_t>(pos)) || file.write(buf.data(), bytes) != bytes)
            return false;
        pos += bytes;
        count -= n;
    }
    return true;
}

bool remapFileOffsets(Container& c, BinFile& file, const std::function<uint64_t(uint64_t)>& map)
{
    bool ok = true;
    for (const char* prefix : {"moov.trak.mdia.minf.stbl", "uuid.QATR.mdia.minf.stbl"}) {
        std::string p = prefix;
        c.find((p + ".stco").c_str(), [&](BOX& b) {
            ok = ok && remapTable(file, static_cast<STCO&>(b), 4, map);
            return true;
        });
        c.find((p + ".co64").c_str(), [&](BOX& b) {
            ok = ok && remapTable(file, static_cast<STCO&>(b), 8, map);
            return true;
        });
    }
    // The QDT9 box starts with the file offset of the spatial data's QADT box.
    if (BOX* qdt9 = c.first("moov.udta.QDT9"); ok && qdt9 != nullptr && clippedEnd(*qdt9, file.length()) >= qdt9->start + 24) {
        if (!file.seek_set(static_cast<int64_t>(qdt9->start + 8)))
            return false;
        uint64_t old = file.read64();
        uint64_t now = map(old);
        if (now != old)
            ok = file.seek_set(static_cast<int64_t>(qdt9->start + 8)) && file.write64(now);
    }
    return ok;
}

bool SpliceEdit::run(Container& c, const wchar_t* name) const
{
    Container::CopyStep copy = [&](BinFile& src, BinFile& dst, uint64_t& split) {
        const uint64_t length = src.length();
        if (!valid)
            return false;
        uint64_t pos = 0;
        for (const Splice& s : splices)
            if (s.at < pos || s.at > length || s.removed > length - s.at) {
                return false; // overlapping, or past the end of the file
            } else {
                pos = s.at + s.removed;
            }
        if (!src.seek_set(0))
            return false;
        pos = 0;
        split = UINT64_MAX;
        for (const Splice& s : splices) {
            if (src.copyTo(dst, s.at - pos) != s.at - pos)
                return false;
            split = std::min(split, dst.position);
            uint64_t before = dst.position;
            if (s.length > 0 && (!s.write || !s.write(dst)))
                return false;
            if (dst.position - before != s.length)
                return false;
            if (!src.seek_set(static_cast<int64_t>(s.at + s.removed)))
                return false;
            pos = s.at + s.removed;
        }
        if (src.copyTo(dst, length - pos) != length - pos)
            return false;
        if (split == UINT64_MAX)
            split = dst.position;
        return true;
    };
    Container::FixUp sizesFix = [&](Container&, BinFile& f) {
        for (const SizeChange& s : sizes) {
            if (s.delta == 0)
                continue;
            uint64_t at = map(s.start);
            uint64_t newSize = s.size + static_cast<uint64_t>(s.delta);
            // The header must still be the box we mean.
            uint8_t h[8];
            if (!f.seek_set(static_cast<int64_t>(at)) || f.read(h, 8) != 8)
                return false;
            uint32_t type;
            std::memcpy(&type, h + 4, 4);
            if (type != s.type)
                return false;
            if (s.largesize) {
                if (be32(h) != 1 || !f.seek_set(static_cast<int64_t>(at + 8)) || !f.write64(newSize))
                    return false;
            } else {
                if (newSize > UINT32_MAX || (be32(h) != s.size && be32(h) != 0))
                    return false; // no room in a 32-bit size field
                if (!f.seek_set(static_cast<int64_t>(at)) || !f.write32(static_cast<uint32_t>(newSize)))
                    return false;
            }
        }
        return true;
    };
    Container::FixUp offsetsFix = [&](Container& out, BinFile& f) {
        bool moves = std::any_of(splices.begin(), splices.end(), [](const Splice& s) { return s.delta() != 0; });
        return !moves || remapFileOffsets(out, f, [&](uint64_t x) { return map(x); });
    };
    return c.modifyContainer(name, copy, sizesFix, offsetsFix);
}

} // namespace MP4
