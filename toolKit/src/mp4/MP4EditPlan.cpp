// The edit plan: the edits that change it, and the layout of its pieces in
// the output. Writing it (overlays, offsets, the one write) is in
// MP4EditPlanWrite.cpp.
#include "MP4EditPlan.h"

#include "GLTKConsole.h"
#include "GLTKwchar.h"
#include "MP4Container.h"

#include <algorithm>

namespace MP4 {

namespace {

// The file-system block the media data keeps its offset within: 4 KiB, the
// block of XFS, btrfs and ext4 as made by default, and a multiple of any
// smaller block, so that the media's whole blocks can be cloned.
constexpr uint64_t kBlock = 4096;

const BOX* topLevelOf(const BOX& box)
{
    const BOX* b = &box;
    while (b->parent != nullptr && b->parent->depth >= 0)
        b = b->parent;
    return b;
}

uint64_t lengthOf(const EditPlan::Pieces& pieces)
{
    uint64_t n = 0;
    for (const EditPlan::Piece& p : pieces)
        n += p.size();
    return n;
}

} // namespace

EditPlan::Piece EditPlan::range(unsigned file, uint64_t start, uint64_t length)
{
    Piece p;
    p.file = file;
    p.start = start;
    p.length = length;
    return p;
}

EditPlan::Piece EditPlan::bytes(ByteArray data, std::vector<Offsets> offsets)
{
    Piece p;
    p.bytes = std::make_shared<ByteArray>(std::move(data));
    p.offsets = std::move(offsets);
    return p;
}

EditPlan::EditPlan(const Container& movie)
{
    addInput(movie);
    if (movie.root)
        for (const BOX* b : movie.root->children)
            top.push_back(b);
    tailStart = top.empty() ? 0 : top.back()->reach;
}

unsigned EditPlan::addInput(const Container& other)
{
    const unsigned file = static_cast<unsigned>(inputs.size());
    inputs.push_back({&other, other.length(), {}});
    registerChunkOffsets(file, other);
    return file;
}

const std::wstring& EditPlan::pathOf(unsigned file) const
{
    return inputs.at(file).movie->path;
}

// The chunk offsets every movie holds into itself: those of its tracks and
// of the spatial-audio track.
void EditPlan::registerChunkOffsets(unsigned file, const Container& c)
{
    for (const std::string prefix : {"moov.trak.mdia.minf.stbl.", "uuid.QATR.mdia.minf.stbl."})
        for (const char* code : {"stco", "co64"})
            c.find<STCO>((prefix + code).c_str(), [&](STCO& t) {
                if (t.entryCount > 0)
                    inputs[file].offsets.push_back({t.firstEntry, t.entryCount, t.entrySize(), file, false, {}, 0, code});
                return true;
            });
}

void EditPlan::registerOffsets(unsigned file, const Offsets& o)
{
    dropOffsets(file, o.at);
    inputs.at(file).offsets.push_back(o);
}

void EditPlan::dropOffsets(unsigned file, uint64_t at)
{
    auto& list = inputs.at(file).offsets;
    list.erase(std::remove_if(list.begin(), list.end(), [&](const Offsets& x) { return x.at == at; }), list.end());
}

// ---------------------------------------------------------------- edits

bool EditPlan::refuse(const wchar_t* name, const BOX& box, const wchar_t* reason) const
{
    GLTK::Console::out(L"Container::modifyContainer::%ls(%ls) failed: '%ls' at %llu %ls.\n", name, pathOf(0).c_str(),
                       GLTK::wchar::mbs2wcs(box.typeText()).c_str(), static_cast<unsigned long long>(box.start),
                       reason);
    return false;
}

// A box may be edited when it and every box around it lie whole inside
// their parents and the file, so that their size fields can follow.
bool EditPlan::fitsAsEdit(const wchar_t* name, const BOX& box) const
{
    for (const BOX* b = &box; b != nullptr && b->depth >= 0; b = b->parent) {
        if (!b->whole())
            return refuse(name, *b, L"runs past its parent or the end of the file");
        if (b->size < b->headerSize())
            return refuse(name, *b, L"is shorter than its own header");
    }
    if (!keeps(box))
        return refuse(name, box, L"is replaced or left out by an earlier edit");
    return true;
}

void EditPlan::grow(const BOX& box, int64_t delta)
{
    for (const BOX* b = &box; b != nullptr && b->depth >= 0; b = b->parent)
        deltas[b] += delta;
}

bool EditPlan::addSplice(const wchar_t* name, Splice s)
{
    for (const Splice& o : splices) {
        const bool clash = s.box != nullptr && o.box != nullptr
                               ? s.at < o.at + o.removed && o.at < s.at + s.removed
                           : s.box != nullptr ? s.at < o.at && o.at < s.at + s.removed
                           : o.box != nullptr ? o.at < s.at && s.at < o.at + o.removed
                                              : false;
        if (clash)
            return refuse(name, s.box != nullptr ? *s.box : *s.top, L"overlaps an earlier edit");
    }
    s.seq = nextSeq++;
    splices.push_back(std::move(s));
    return true;
}

bool EditPlan::replace(const wchar_t* name, const BOX& box, Pieces with)
{
    // The box itself may claim more than its parent holds: it gives way as
    // far as it really reaches.
    const bool topLevel = box.parent == nullptr || box.parent->depth < 0;
    if (!topLevel && !fitsAsEdit(name, *box.parent))
        return false;
    if (!keeps(box))
        return refuse(name, box, L"is replaced or left out by an earlier edit");
    Splice s;
    s.at = box.start;
    s.removed = box.reach - box.start;
    s.top = topLevelOf(box);
    s.box = &box;
    const int64_t delta = static_cast<int64_t>(lengthOf(with)) - static_cast<int64_t>(s.removed);
    s.content = std::move(with);
    if (!addSplice(name, std::move(s)))
        return false;
    if (!topLevel)
        grow(*box.parent, delta);
    gone.push_back(&box);
    return true;
}

bool EditPlan::remove(const wchar_t* name, const BOX& box)
{
    return replace(name, box, {});
}

bool EditPlan::insert(const wchar_t* name, const BOX& into, uint64_t at, Pieces what)
{
    if (!fitsAsEdit(name, into))
        return false;
    if (at < into.payloadStart() || at > into.end())
        return refuse(name, into, L"does not hold the place of the insertion");
    Splice s;
    s.at = at;
    s.top = topLevelOf(into);
    s.depth = into.depth;
    const int64_t delta = static_cast<int64_t>(lengthOf(what));
    s.content = std::move(what);
    if (!addSplice(name, std::move(s)))
        return false;
    grow(into, delta);
    return true;
}

void EditPlan::reorder(const std::vector<const BOX*>& topLevel)
{
    top = topLevel;
}

void EditPlan::append(Pieces what)
{
    for (Piece& p : what)
        appended.push_back(std::move(p));
}

void EditPlan::patch(unsigned file, uint64_t at, ByteArray bytes)
{
    patches.push_back({{file, at}, std::move(bytes)});
}

void EditPlan::patchLater(unsigned file, uint64_t at, uint64_t length, std::function<ByteArray()> make)
{
    latePatches.push_back({{file, at}, length, std::async(std::launch::async, std::move(make))});
}

bool EditPlan::keeps(const BOX& box) const
{
    for (const BOX* g : gone)
        if (box.isInside(*g))
            return false;
    return std::find(top.begin(), top.end(), topLevelOf(box)) != top.end();
}

// ---------------------------------------------------------------- layout

void EditPlan::layOut()
{
    placed.clear();
    uint64_t out = 0;
    auto put = [&](const Piece& p) {
        if (p.size() == 0)
            return;
        // A range that goes on where the last one ended is the same copy:
        // the block two boxes share is then copied (or shared) whole.
        if (!p.bytes && !placed.empty()) {
            Piece& last = placed.back().piece;
            if (!last.bytes && last.file == p.file && last.start + last.length == p.start) {
                last.length += p.length;
                out += p.length;
                return;
            }
        }
        placed.push_back({p, out});
        out += p.size();
    };
    // At one offset, insertions come before a box replaced there, and an
    // insertion into a deeper box before one into its parent.
    std::vector<const Splice*> order;
    for (const Splice& s : splices)
        order.push_back(&s);
    std::sort(order.begin(), order.end(), [](const Splice* a, const Splice* b) {
        if (a->at != b->at)
            return a->at < b->at;
        const bool ai = a->box == nullptr, bi = b->box == nullptr;
        if (ai != bi)
            return ai;
        if (a->depth != b->depth)
            return a->depth > b->depth;
        return a->seq < b->seq;
    });
    for (const BOX* box : top) {
        uint64_t pos = box->start;
        // Media data that moves keeps its offset within a file-system block:
        // the kernel then copies it block for block (and a file system that
        // shares blocks between files shares them instead of copying). A
        // free box in front of it takes up the difference.
        if (box->is("mdat") && out % kBlock != box->start % kBlock) {
            uint64_t pad = (box->start % kBlock + kBlock - out % kBlock) % kBlock;
            put(bytes(makeFreeBox(pad < 8 ? pad + kBlock : pad)));
        }
        for (const Splice* s : order) {
            if (s->top != box)
                continue;
            put(range(0, pos, s->at - pos));
            for (const Piece& p : s->content)
                put(p);
            pos = s->at + s->removed;
        }
        put(range(0, pos, box->reach - pos));
    }
    // Bytes behind the last box that are no box (a recording cut short
    // inside a box header, padding) would leave the output unreadable there.
    const uint64_t length = inputs[0].length;
    if (tailStart < length && cutShortNoted.insert(nullptr).second)
        GLTK::Console::out(L"MP4: the last %llu bytes of %ls are not a box; they are left out.\n",
                           static_cast<unsigned long long>(length - tailStart), pathOf(0).c_str());
    for (const Piece& p : appended)
        put(p);
    total = out;
    spans.assign(inputs.size(), {});
    for (const Placed& p : placed)
        if (!p.piece.bytes)
            spans[p.piece.file].push_back({p.piece.start, p.out});
    for (auto& list : spans)
        std::sort(list.begin(), list.end(), [](const Span& a, const Span& b) { return a.start < b.start; });
}

uint64_t EditPlan::map(unsigned file, uint64_t offset) const
{
    // The placed range of the file that holds the offset, or the nearest
    // one before it: an offset into bytes that are not carried (a chunk
    // offset past the end, say) keeps its distance to the bytes before it.
    if (file >= spans.size() || spans[file].empty())
        return offset;
    const std::vector<Span>& s = spans[file];
    auto after = std::upper_bound(s.begin(), s.end(), offset, [](uint64_t x, const Span& r) { return x < r.start; });
    const Span& r = after == s.begin() ? s.front() : *std::prev(after);
    return offset - r.start + r.out;
}

} // namespace MP4
