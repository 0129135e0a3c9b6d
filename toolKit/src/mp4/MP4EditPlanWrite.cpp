// Writing the edit plan, in its named steps: lay the overlays (new sizes,
// patches, converted offsets), choose between editing in place and writing
// a copy, write the pieces once, read the result back and keep it.
#include "MP4EditPlan.h"

#include "GLTKCancel.h"
#include "GLTKConsole.h"
#include "GLTKPendingFile.h"
#include "GLTKwchar.h"
#include "MP4Container.h"
#include "MP4MovieCheck.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace MP4 {

namespace {

// Offset tables are read into memory to be converted; a table beyond this is
// not something a camera or an encoder writes.
constexpr uint64_t kMaxOffsetBytes = 256ull << 20;
// Bytes of the movie that an edit in place may hold while they move.
constexpr uint64_t kMaxMovedInPlace = 32ull << 20;

const std::map<uint64_t, ByteArray> kNoOverlay;

std::wstring systemMessage(int error)
{
    return GLTK::wchar::mbs2wcs(std::strerror(error));
}

std::wstring wide(const char* text)
{
    return GLTK::wchar::mbs2wcs(text);
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

const std::map<uint64_t, ByteArray>& layerOf(const std::map<unsigned, std::map<uint64_t, ByteArray>>& overlays,
                                             unsigned file)
{
    auto it = overlays.find(file);
    return it == overlays.end() ? kNoOverlay : it->second;
}

// Whether the whole of [at, at + n) of an input is carried into the output.
bool carried(const std::vector<EditPlan::Piece>& ranges, unsigned file, uint64_t at, uint64_t n)
{
    for (const EditPlan::Piece& p : ranges)
        if (!p.bytes && p.file == file && p.start <= at && at + n <= p.start + p.length)
            return true;
    return false;
}

} // namespace

// ---------------------------------------------------------------- offsets

bool EditPlan::convertOffsets(const Offsets& o, uint8_t* values, const Where& where)
{
    for (uint64_t i = 0; i < o.count; ++i) {
        uint8_t* v = values + i * o.width;
        const uint64_t old = o.width == 4 ? be32(v) : be64(v);
        const uint64_t now =
            o.pointer ? where(o.target.file, o.target.offset) + static_cast<uint64_t>(o.addend) : where(o.file, old);
        if (o.width == 4 && now > UINT32_MAX) {
            GLTK::Console::out(L"MP4: an offset in '%ls' would be %llu, past 32 bits; nothing written.\n",
                               wide(o.owner).c_str(), static_cast<unsigned long long>(now));
            return false;
        }
        if (o.width == 4)
            put32be(v, static_cast<uint32_t>(now));
        else
            put64be(v, now);
    }
    return true;
}

// ---------------------------------------------------------------- overlays

bool EditPlan::layOverlays(Overlays& overlays)
{
    for (auto& [where, bytes] : patches)
        overlay(overlays[where.file], where.offset, bytes.data, bytes.length);
    return resizeBoxes(overlays) && convertAllOffsets(overlays);
}

// The size of every box on the path to a change, of a box that ran to the
// end of the file but has something behind it now, and of a box that the
// recording cut short: it is carried as far as it goes.
bool EditPlan::resizeBoxes(Overlays& overlays)
{
    const bool lastIsOpen = !top.empty() && appended.empty();
    std::map<const BOX*, int64_t> sizes = deltas;
    for (const BOX* b : top) {
        if ((b->openEnded && !(lastIsOpen && b == top.back())) || !b->whole())
            sizes.emplace(b, 0);
        if (!b->whole() && cutShortNoted.insert(b).second)
            GLTK::Console::out(L"MP4: '%ls' at %llu is cut short in %ls; it is carried as far as it goes.\n",
                               wide(b->typeText().c_str()).c_str(), static_cast<unsigned long long>(b->start),
                               pathOf(0).c_str());
    }
    for (const auto& [box, delta] : sizes) {
        if (!keeps(*box))
            continue;
        const uint64_t newSize = box->reach - box->start + static_cast<uint64_t>(delta);
        uint8_t field[8];
        if (box->largesize) {
            put64be(field, newSize);
            overlay(overlays[0], box->start + 8, field, 8);
        } else if (newSize > UINT32_MAX) {
            GLTK::Console::out(L"MP4: '%ls' at %llu would be %llu bytes, too large for its 32-bit size; nothing written.\n",
                               wide(box->typeText().c_str()).c_str(), static_cast<unsigned long long>(box->start),
                               static_cast<unsigned long long>(newSize));
            return false;
        } else {
            put32be(field, static_cast<uint32_t>(newSize));
            overlay(overlays[0], box->start, field, 4);
        }
    }
    return true;
}

// Every absolute offset, in the inputs' boxes and in new bytes.
bool EditPlan::convertAllOffsets(Overlays& overlays)
{
    std::vector<Piece> ranges;
    for (const Placed& p : placed)
        if (!p.piece.bytes)
            ranges.push_back(p.piece);
    const Where where = [this](unsigned file, uint64_t offset) { return map(file, offset); };
    uint64_t held = 0;
    for (unsigned file = 0; file < inputs.size(); ++file) {
        bool ok = true;
        const bool opened = inputs[file].movie->open([&](GLTK::FileIO& f) {
            for (const Offsets& o : inputs[file].offsets) {
                const uint64_t n = o.count * o.width;
                if (!carried(ranges, file, o.at, n))
                    continue;
                if ((held += n) > kMaxOffsetBytes) {
                    GLTK::Console::out(L"MP4: '%ls' is too large to remap; nothing written.\n", wide(o.owner).c_str());
                    ok = false;
                    return;
                }
                ByteArray values;
                values.resize(n);
                if (!f.seek_set(static_cast<int64_t>(o.at)) || f.read(values.data, n) != n ||
                    !convertOffsets(o, values.data, where)) {
                    ok = false;
                    return;
                }
                overlay(overlays[file], o.at, values.data, n);
            }
        });
        if (!opened) {
            GLTK::Console::out(L"MP4: %ls cannot be read.\n", pathOf(file).c_str());
            return false;
        }
        if (!ok)
            return false;
    }
    for (Placed& p : placed) {
        if (!p.piece.bytes || p.piece.offsets.empty())
            continue;
        auto copy = std::make_shared<ByteArray>(*p.piece.bytes);
        for (const Offsets& o : p.piece.offsets)
            if (o.at + o.count * o.width > copy->length || !convertOffsets(o, copy->data + o.at, where))
                return false;
        p.piece.bytes = copy;
    }
    return true;
}

// ---------------------------------------------------------------- in place or a copy

// The movie is rewritten in place when it is its own output and the few of
// its bytes that move (boxes behind a change at its end) can be held in
// memory until they are written back; the media stays where it is. The bytes
// that move are then read now, with their overlay, into the plan.
bool EditPlan::chooseInPlace(bool outputIsInput0, const Overlays& overlays)
{
    if (!outputIsInput0)
        return false;
    uint64_t moved = 0;
    for (const Placed& p : placed)
        if (!p.piece.bytes && p.piece.file == 0 && p.out != p.piece.start)
            moved += p.piece.length;
    if (moved > kMaxMovedInPlace)
        return false;
    bool held = true;
    inputs[0].movie->open([&](GLTK::FileIO& f) {
        for (Placed& p : placed) {
            if (p.piece.bytes || p.piece.file != 0 || p.out == p.piece.start)
                continue;
            ByteArray bytes;
            bytes.resize(p.piece.length);
            if (!f.seek_set(static_cast<int64_t>(p.piece.start)) || f.read(bytes.data, bytes.length) != bytes.length) {
                held = false;
                return;
            }
            for (const auto& [at, over] : layerOf(overlays, 0)) {
                const uint64_t a = std::max(at, p.piece.start);
                const uint64_t b = std::min(at + over.length, p.piece.start + p.piece.length);
                if (a < b)
                    std::memcpy(bytes.data + (a - p.piece.start), over.data + (a - at), b - a);
            }
            p.piece = EditPlan::bytes(std::move(bytes));
        }
    });
    return held;
}

// ---------------------------------------------------------------- the pieces

// One input range at its place in dst, with its overlay on top; in place,
// input 0 only needs its overlay.
bool EditPlan::copyRange(GLTK::FileIO& dst, const Placed& p, const std::map<uint64_t, ByteArray>& layer, int& error)
{
    const bool copy = !(wroteInPlace && p.piece.file == 0);
    GLTK::FileIO& src = *inputs[p.piece.file].movie->file;
    uint64_t pos = p.piece.start;
    const uint64_t end = p.piece.start + p.piece.length;
    auto put = [&](uint64_t at, const void* data, uint64_t n) {
        if (!dst.seek_set(static_cast<int64_t>(p.out + at - p.piece.start)) || dst.write(data, n) != n) {
            error = errno;
            return false;
        }
        bytesWritten += n;
        return true;
    };
    auto copyTo = [&](uint64_t upTo) {
        if (upTo <= pos || !copy)
            return true;
        const uint64_t n = upTo - pos;
        errno = 0;
        if (!src.seek_set(static_cast<int64_t>(pos)) ||
            !dst.seek_set(static_cast<int64_t>(p.out + pos - p.piece.start)) || src.copyTo(dst, n) != n) {
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
        if (!copyTo(a) || !put(a, it->second.data + (a - it->first), b - a))
            return false;
        pos = b;
    }
    return copyTo(end);
}

bool EditPlan::writePieces(GLTK::FileIO& dst, const Overlays& overlays)
{
    int error = 0;
    for (const Placed& p : placed) {
        if (GLTK::cancelRequested())
            return false;
        bool ok = true;
        if (p.piece.bytes) {
            const ByteArray& b = *p.piece.bytes;
            ok = dst.seek_set(static_cast<int64_t>(p.out)) && dst.write(b.data, b.length) == b.length;
            error = ok ? 0 : errno;
            bytesWritten += ok ? b.length : 0;
        } else {
            ok = copyRange(dst, p, layerOf(overlays, p.piece.file), error);
        }
        if (!ok) {
            if (!GLTK::cancelRequested())
                GLTK::Console::out(L"MP4: writing %ls failed: %ls\n", dst.path.c_str(),
                                   systemMessage(error != 0 ? error : EIO).c_str());
            return false;
        }
    }
    if (wroteInPlace && ftruncate(dst.descriptor, static_cast<off_t>(total)) != 0) {
        GLTK::Console::out(L"MP4: writing %ls failed: %ls\n", dst.path.c_str(), systemMessage(errno).c_str());
        return false;
    }
    return writeLatePatches(dst);
}

bool EditPlan::writeLatePatches(GLTK::FileIO& dst)
{
    for (LatePatch& late : latePatches) {
        const ByteArray bytes = late.bytes.get();
        if (bytes.length != late.length || late.length == 0)
            continue;
        // The piece that carries the patched bytes whole, if one does.
        const auto carries = [&](const Placed& p) {
            return !p.piece.bytes && p.piece.file == late.at.file && p.piece.start <= late.at.offset &&
                   late.at.offset - p.piece.start + late.length <= p.piece.length;
        };
        const auto p = std::find_if(placed.begin(), placed.end(), carries);
        if (p == placed.end())
            continue;
        const uint64_t out = p->out + (late.at.offset - p->piece.start);
        if (!dst.seek_set(static_cast<int64_t>(out)) || dst.write(bytes.data, bytes.length) != bytes.length) {
            GLTK::Console::out(L"MP4: writing %ls failed: %ls\n", dst.path.c_str(),
                               systemMessage(errno != 0 ? errno : EIO).c_str());
            return false;
        }
        bytesWritten += bytes.length;
    }
    latePatches.clear();
    return true;
}

// ---------------------------------------------------------------- write

bool EditPlan::write(const std::wstring& outputPath, bool reserved)
{
    bytesWritten = 0;
    // Where the output is the movie being edited, late bytes may be made
    // from it, and there may be no copy to make them beside: they are
    // waited for now and laid like any other patch.
    const bool outputIsInput0 = GLTK::FileIO::sameFile(outputPath, pathOf(0));
    if (outputIsInput0) {
        for (LatePatch& late : latePatches)
            if (ByteArray bytes = late.bytes.get(); bytes.length == late.length && late.length > 0)
                patches.push_back({late.at, std::move(bytes)});
        latePatches.clear();
    }
    layOut();
    Overlays overlays;
    if (!layOverlays(overlays))
        return false;
    wroteInPlace = chooseInPlace(outputIsInput0, overlays);
    // A copy is written under a temporary name beside the output, and takes
    // the output's name only once it has been read back whole; a reserved
    // output is such a name already.
    GLTK::PendingFile pending;
    if (!wroteInPlace && !reserved && !pending.create(outputPath, kTemporarySuffix))
        return false;
    const std::wstring target = wroteInPlace ? pathOf(0) : reserved ? outputPath : pending.temporaryPath();
    {
        errno = 0;
        GLTK::FileIO dst(target, wroteInPlace ? 'a' : 'w');
        if (!dst.isOpen()) {
            GLTK::Console::out(L"MP4: %ls cannot be written: %ls\n", target.c_str(), systemMessage(errno).c_str());
            return false;
        }
        if (!writePieces(dst, overlays))
            return false;
    }
    if (GLTK::cancelRequested() || !isWhole(target))
        return false;
    return wroteInPlace || reserved || pending.commit();
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
