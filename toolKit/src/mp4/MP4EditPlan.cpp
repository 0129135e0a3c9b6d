#include "MP4EditPlan.h"

#include "GLTKCancel.h"
#include "GLTKConsole.h"
#include "GLTKwchar.h"
#include "GLTKPendingFile.h"
#include "MP4Container.h"
#include "MP4MovieCheck.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace MP4 {

namespace {

// Offset tables are read into memory for the remap; a table beyond this is
// not something a camera or an encoder writes.
constexpr uint64_t kMaxOffsetBytes = 256ull << 20;
// The file-system block size the media data's offset is kept aligned to.
constexpr uint64_t kBlock = 4096;
// Bytes of the movie that an edit in place may hold while they move.
constexpr uint64_t kMaxMovedInPlace = 32ull << 20;

const BOX* topLevelOf(const BOX& box)
{
    const BOX* b = &box;
    while (b->parent != nullptr && b->parent->depth >= 0)
        b = b->parent;
    return b;
}

std::wstring systemMessage(int error)
{
    return GLTK::wchar::mbs2wcs(std::strerror(error));
}

// An input that cannot be opened, with the reason the system gave.
bool cannotRead(const std::wstring& path)
{
    GLTK::Console::out(L"MP4: %ls cannot be read: %ls\n", path.c_str(), systemMessage(errno).c_str());
    return false;
}

// Puts bytes over an input's overlay: overlapping entries merge into one,
// the newer bytes on top.
void overlay(std::map<uint64_t, ByteArray>& layer, uint64_t at, const uint8_t* data, uint64_t n)
{
    if (n == 0)
        return;
    uint64_t lo = at, hi = at + n;
    auto it = layer.upper_bound(at);
    if (it != layer.begin() && std::prev(it)->first + std::prev(it)->second.length > at)
        --it;
    std::vector<std::pair<uint64_t, ByteArray>> merged;
    while (it != layer.end() && it->first < hi) {
        lo = std::min(lo, it->first);
        hi = std::max(hi, it->first + it->second.length);
        merged.emplace_back(it->first, std::move(it->second));
        it = layer.erase(it);
    }
    ByteArray out;
    out.resize(hi - lo);
    for (auto& [start, bytes] : merged)
        std::memcpy(out.data + (start - lo), bytes.data, bytes.length);
    std::memcpy(out.data + (at - lo), data, n);
    layer.emplace(lo, std::move(out));
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
    const uint64_t length = inputs[0].length;
    if (movie.root)
        for (const BOX* b : movie.root->children)
            top.push_back(b);
    tailStart = top.empty() ? 0 : top.back()->clippedEnd(length);
}

unsigned EditPlan::addInput(const Container& other)
{
    const unsigned file = static_cast<unsigned>(inputs.size());
    inputs.push_back({other.path, other.length(), {}});
    registerOffsets(file, other);
    return file;
}

// The offsets every movie holds into itself: the chunk offsets of its
// tracks and of the spatial-audio track, and the QDT9 pointer at the
// spatial data's QADT box.
void EditPlan::registerOffsets(unsigned file, const Container& c)
{
    const uint64_t length = c.length();
    for (const std::string prefix : {"moov.trak.mdia.minf.stbl.", "uuid.QATR.mdia.minf.stbl."})
        for (const char* code : {"stco", "co64"})
            c.find<STCO>((prefix + code).c_str(), [&](STCO& t) {
                if (uint64_t n = t.entriesInBox(length))
                    inputs[file].offsets.push_back({t.firstEntry, n, t.entrySize(), file, false, {}, 0, code});
                return true;
            });
    const BOX* qdt9 = c.first("moov.udta.QDT9");
    if (qdt9 != nullptr && qdt9->clippedEnd(length) >= qdt9->start + 24)
        inputs[file].offsets.push_back({qdt9->start + 8, 1, 8, file, false, {}, 0, "QDT9"});
}

void EditPlan::setOffsets(unsigned file, const Offsets& o)
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

bool EditPlan::refuse(const wchar_t* name, const BOX* /*box*/) const
{
    GLTK::Console::out(L"Container::modifyContainer::%ls(%ls) failed.\n", name, inputs[0].path.c_str());
    return false;
}

// A box may be edited when it and every box around it lie whole inside
// their parents and the file, so that their size fields can follow.
bool EditPlan::fitsAsEdit(const wchar_t* name, const BOX& box) const
{
    for (const BOX* b = &box; b != nullptr && b->depth >= 0; b = b->parent)
        if (!b->isWhole(inputs[0].length) || b->size < b->headerSize())
            return refuse(name, &box);
    if (!keeps(box))
        return refuse(name, &box);
    return true;
}

void EditPlan::grow(const BOX& box, int64_t delta)
{
    for (const BOX* b = &box; b != nullptr && b->depth >= 0; b = b->parent)
        deltas[b] += delta;
}

static uint64_t lengthOf(const EditPlan::Pieces& pieces)
{
    uint64_t n = 0;
    for (const EditPlan::Piece& p : pieces)
        n += p.size();
    return n;
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
            return refuse(name, s.box);
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
        return refuse(name, &box);
    Splice s;
    s.at = box.start;
    s.removed = box.clippedEnd(inputs[0].length) - box.start;
    s.top = topLevelOf(box);
    s.box = &box;
    const int64_t delta = static_cast<int64_t>(lengthOf(with)) - static_cast<int64_t>(s.removed);
    s.content = std::move(with);
    if (!addSplice(name, std::move(s)))
        return false;
    if (box.parent != nullptr)
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
        return refuse(name, &into);
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

bool EditPlan::keeps(const BOX& box) const
{
    for (const BOX* g : gone)
        if (box.isInside(*g))
            return false;
    return std::find(top.begin(), top.end(), topLevelOf(box)) != top.end();
}

// ---------------------------------------------------------------- layout and remap

void EditPlan::layout()
{
    placed.clear();
    uint64_t out = 0;
    auto put = [&](const Piece& p) {
        if (p.size() == 0)
            return;
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
    const uint64_t length = inputs[0].length;
    for (const BOX* box : top) {
        const uint64_t end = box->clippedEnd(length);
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
        put(range(0, pos, end - pos));
    }
    // Bytes behind the last box that are no box (a recording cut short
    // inside a box header, padding) would leave the output unreadable there.
    if (tailStart < length && cutShortNoted.insert(nullptr).second)
        GLTK::Console::out(L"MP4: the last %llu bytes of %ls are not a box; they are left out.\n",
                           static_cast<unsigned long long>(length - tailStart), inputs[0].path.c_str());
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

// Where the whole of [at, at + n) of an input is carried into the output.
static bool carried(const std::vector<EditPlan::Piece>& ranges, unsigned file, uint64_t at, uint64_t n)
{
    for (const EditPlan::Piece& p : ranges)
        if (!p.bytes && p.file == file && p.start <= at && at + n <= p.start + p.length)
            return true;
    return false;
}

bool EditPlan::remap(std::map<unsigned, std::map<uint64_t, ByteArray>>& overlays)
{
    std::vector<Piece> ranges;
    for (const Placed& p : placed)
        if (!p.piece.bytes)
            ranges.push_back(p.piece);

    for (auto& [where, bytes] : patches)
        overlay(overlays[where.file], where.offset, bytes.data, bytes.length);

    // The size of every box on the path to a change, of a box that ran to
    // the end of the file but has something behind it now, and of a box that
    // the recording cut short: it is carried as far as it goes.
    const uint64_t length = inputs[0].length;
    const bool lastIsOpen = !top.empty() && appended.empty();
    std::map<const BOX*, int64_t> sizes = deltas;
    for (const BOX* b : top) {
        const bool cutShort = !b->isWhole(length);
        if ((b->openEnded && !(lastIsOpen && b == top.back())) || cutShort)
            sizes.emplace(b, 0);
        if (cutShort && cutShortNoted.insert(b).second)
            GLTK::Console::out(L"MP4: '%ls' at %llu is cut short in %ls; it is carried as far as it goes.\n",
                               GLTK::wchar::mbs2wcs(b->typeText()).c_str(), static_cast<unsigned long long>(b->start),
                               inputs[0].path.c_str());
    }
    for (const auto& [box, delta] : sizes) {
        if (!keeps(*box))
            continue;
        const uint64_t carried = box->isWhole(length) ? box->size : box->clippedEnd(length) - box->start;
        const uint64_t newSize = carried + static_cast<uint64_t>(delta);
        uint8_t field[8];
        if (box->largesize) {
            put64be(field, newSize);
            overlay(overlays[0], box->start + 8, field, 8);
        } else if (newSize > UINT32_MAX) {
            GLTK::Console::out(L"MP4: '%ls' at %llu would be %llu bytes, too large for its 32-bit size; nothing written.\n",
                               GLTK::wchar::mbs2wcs(box->typeText()).c_str(),
                               static_cast<unsigned long long>(box->start), static_cast<unsigned long long>(newSize));
            return false;
        } else {
            put32be(field, static_cast<uint32_t>(newSize));
            overlay(overlays[0], box->start, field, 4);
        }
    }

    // Every absolute offset, in the inputs' boxes and in new bytes.
    auto convert = [&](const Offsets& o, uint8_t* values) {
        for (uint64_t i = 0; i < o.count; ++i) {
            uint8_t* v = values + i * o.width;
            const uint64_t old = o.width == 4 ? be32(v) : be64(v);
            const uint64_t now = o.pointer ? map(o.target.file, o.target.offset) + static_cast<uint64_t>(o.addend)
                                           : map(o.file, old);
            if (o.width == 4 && now > UINT32_MAX) {
                GLTK::Console::out(L"MP4: an offset in '%ls' would be %llu, past 32 bits; nothing written.\n",
                                   GLTK::wchar::mbs2wcs(o.owner).c_str(), static_cast<unsigned long long>(now));
                return false;
            }
            if (o.width == 4)
                put32be(v, static_cast<uint32_t>(now));
            else
                put64be(v, now);
        }
        return true;
    };
    uint64_t held = 0;
    for (unsigned file = 0; file < inputs.size(); ++file) {
        bool ok = true;
        bool opened = GLTK::FileIO::open(inputs[file].path, [&](GLTK::FileIO& f) {
            for (const Offsets& o : inputs[file].offsets) {
                const uint64_t n = o.count * o.width;
                if (!carried(ranges, file, o.at, n))
                    continue;
                held += n;
                ByteArray values;
                if (held > kMaxOffsetBytes) {
                    GLTK::Console::out(L"MP4: '%s' is too large to remap; nothing written.\n", o.owner);
                    ok = false;
                    return;
                }
                values.resize(n);
                if (!f.seek_set(static_cast<int64_t>(o.at)) || f.read(values.data, n) != n || !convert(o, values.data)) {
                    ok = false;
                    return;
                }
                overlay(overlays[file], o.at, values.data, n);
            }
        });
        if (!opened)
            return cannotRead(inputs[file].path);
        if (!ok)
            return false;
    }
    for (Placed& p : placed) {
        if (!p.piece.bytes || p.piece.offsets.empty())
            continue;
        auto copy = std::make_shared<ByteArray>(*p.piece.bytes);
        for (const Offsets& o : p.piece.offsets)
            if (o.at + o.count * o.width > copy->length || !convert(o, copy->data + o.at))
                return false;
        p.piece.bytes = copy;
    }
    return true;
}

// ---------------------------------------------------------------- write

bool EditPlan::write(const std::wstring& outputPath)
{
    layout();
    std::map<unsigned, std::map<uint64_t, ByteArray>> overlays;
    if (!remap(overlays))
        return false;
    return writeOut(outputPath, overlays);
}

bool EditPlan::writeOut(const std::wstring& outputPath,
                        const std::map<unsigned, std::map<uint64_t, ByteArray>>& overlays)
{
    bytesWritten = 0;
    static const std::map<uint64_t, ByteArray> none;
    auto layerOf = [&](unsigned file) -> const std::map<uint64_t, ByteArray>& {
        auto it = overlays.find(file);
        return it == overlays.end() ? none : it->second;
    };
    // The movie is rewritten in place when it is its own output and the few
    // of its bytes that move (boxes behind a change at its end) can be held
    // in memory until they are written back; the media stays where it is.
    wroteInPlace = GLTK::FileIO::sameFile(outputPath, inputs[0].path);
    uint64_t moved = 0;
    for (const Placed& p : placed)
        if (!p.piece.bytes && p.piece.file == 0 && p.out != p.piece.start)
            moved += p.piece.length;
    if (moved > kMaxMovedInPlace)
        wroteInPlace = false;
    if (wroteInPlace && moved > 0) {
        bool read = GLTK::FileIO::open(inputs[0].path, [&](GLTK::FileIO& f) {
            for (Placed& p : placed) {
                if (p.piece.bytes || p.piece.file != 0 || p.out == p.piece.start)
                    continue;
                ByteArray held;
                held.resize(p.piece.length);
                if (!f.seek_set(static_cast<int64_t>(p.piece.start)) || f.read(held.data, held.length) != held.length) {
                    wroteInPlace = false;
                    return;
                }
                const auto& layer = layerOf(0);
                for (auto it = layer.begin(); it != layer.end(); ++it) {
                    const uint64_t a = std::max(it->first, p.piece.start);
                    const uint64_t b = std::min(it->first + it->second.length, p.piece.start + p.piece.length);
                    if (a < b)
                        std::memcpy(held.data + (a - p.piece.start), it->second.data + (a - it->first), b - a);
                }
                p.piece = bytes(std::move(held));
            }
        });
        if (!read)
            return cannotRead(inputs[0].path);
    }

    int error = 0;
    auto put = [&](GLTK::FileIO& dst, uint64_t at, const void* data, uint64_t n) {
        if (n == 0)
            return true;
        if (!dst.seek_set(static_cast<int64_t>(at)) || dst.write(data, n) != n) {
            error = errno;
            return false;
        }
        bytesWritten += n;
        return true;
    };
    // One placed piece at its place in dst: new bytes, or an input range
    // with its overlay on top (in place, input 0 only needs its overlay).
    auto emit = [&](std::vector<std::unique_ptr<GLTK::FileIO>>& files, GLTK::FileIO& dst, const Placed& p) {
        if (GLTK::cancelRequested())
            return false;
        if (p.piece.bytes)
            return put(dst, p.out, p.piece.bytes->data, p.piece.bytes->length);
        const auto& layer = layerOf(p.piece.file);
        const bool copy = !(wroteInPlace && p.piece.file == 0);
        GLTK::FileIO& src = *files[p.piece.file];
        uint64_t pos = p.piece.start;
        const uint64_t end = p.piece.start + p.piece.length;
        auto copyTo = [&](uint64_t upTo) {
            if (upTo <= pos || !copy)
                return true;
            const uint64_t n = upTo - pos;
            errno = 0;
            if (!src.seek_set(static_cast<int64_t>(pos)) || !dst.seek_set(static_cast<int64_t>(p.out + pos - p.piece.start)) ||
                src.copyTo(dst, n) != n) {
                error = errno != 0 ? errno : EIO;
                return false;
            }
            bytesWritten += n;
            return true;
        };
        auto it = layer.upper_bound(pos);
        if (it != layer.begin())
            --it;
        for (; it != layer.end() && it->first < end; ++it) {
            const uint64_t a = std::max(it->first, pos), b = std::min(it->first + it->second.length, end);
            if (b <= a)
                continue;
            if (!copyTo(a) || !put(dst, p.out + a - p.piece.start, it->second.data + (a - it->first), b - a))
                return false;
            pos = b;
        }
        return copyTo(end);
    };

    bool ok = true;
    std::vector<std::unique_ptr<GLTK::FileIO>> files;
    for (unsigned f = 0; f < inputs.size(); ++f) {
        files.push_back(std::make_unique<GLTK::FileIO>(inputs[f].path, wroteInPlace && f == 0 ? 'a' : 'r'));
        if (!files.back()->isOpen())
            return cannotRead(inputs[f].path);
    }
    // A copy is written under a temporary name beside the output, and takes
    // the output's name only once it has been read back whole.
    GLTK::PendingFile pending;
    if (!wroteInPlace && !pending.create(outputPath, kTemporarySuffix))
        return false;
    const std::wstring& target = wroteInPlace ? inputs[0].path : pending.temporaryPath();
    {
        std::unique_ptr<GLTK::FileIO> made;
        if (!wroteInPlace) {
            errno = 0;
            made = std::make_unique<GLTK::FileIO>(target, 'w');
            if (!made->isOpen()) {
                GLTK::Console::out(L"MP4: %ls cannot be written: %ls\n", target.c_str(), systemMessage(errno).c_str());
                return false;
            }
        }
        GLTK::FileIO& dst = wroteInPlace ? *files[0] : *made;
        for (const Placed& p : placed)
            if (!(ok = emit(files, dst, p)))
                break;
        if (ok && wroteInPlace && ftruncate(dst.descriptor, static_cast<off_t>(total)) != 0) {
            error = errno;
            ok = false;
        }
    }
    if (!ok) {
        if (!GLTK::cancelRequested())
            GLTK::Console::out(L"MP4: writing %ls failed: %ls\n", target.c_str(),
                               systemMessage(error != 0 ? error : EIO).c_str());
        return false;
    }
    if (GLTK::cancelRequested() || !isWhole(target))
        return false;
    return wroteInPlace || pending.commit();
}

bool EditPlan::isWhole(const std::wstring& path)
{
    Container written;
    std::vector<std::string> problems;
    if (!written.attach(path))
        problems.push_back(GLTK::wchar::narrow(systemMessage(errno)));
    else
        problems = problemsOf(written);
    if (problems.empty())
        return true;
    GLTK::Console::out(L"MP4: the rebuilt movie is damaged: %ls; it is not kept.\n",
                       GLTK::wchar::mbs2wcs(problems.front()).c_str());
    return false;
}

} // namespace MP4
