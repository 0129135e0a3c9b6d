#include "MP4Container.h"

#include "GLTKConsole.h"
#include "MP4Splice.h"

#include <algorithm>
#include <cstring>
#include <sys/stat.h>
#include <vector>

namespace MP4 {

const wchar_t* const kTemporarySuffix = L".tmp.mp4";

Container::~Container() = default;

// ---------------------------------------------------------------- reading

bool Container::attach(const std::wstring& p, uint64_t limit)
{
    std::wstring copy = p; // the path may be our own field
    bool opened = GLTK::FileIO::open(copy, [&](GLTK::FileIO& f) {
        path = copy;
        BinFile view(f);
        parse(view, limit);
    });
    return opened;
}

void Container::parse(BinFile& file, uint64_t limit)
{
    root = std::make_unique<ROOT>();
    root->depth = -1;
    root->start = 0;
    root->type = fourcc("root");
    root->size = std::min(file.length(), limit);
    file.seek_set(0);
    root->parseBox(file, limit);
    moov = mdat = videoTrack = nullptr;
    moov = root->first("moov");
    mdat = root->first("mdat");
    root->find("moov.trak", [&](BOX& trak) {
        static_cast<NestedBox&>(trak).find("tkhd", [&](BOX& b) {
            if (static_cast<TKHD&>(b).width >= 1)
                videoTrack = &trak;
            return true;
        });
        return true;
    });
}

void Container::find(const char* p, const std::function<bool(BOX&)>& visit) const
{
    if (root)
        root->find(p, visit);
}

BOX* Container::first(const char* p) const
{
    return root ? root->first(p) : nullptr;
}

bool Container::open(const std::function<void(GLTK::FileIO&)>& action) const
{
    return GLTK::FileIO::open(path, action);
}

bool Container::open_a(const std::function<void(GLTK::FileIO&)>& action) const
{
    return GLTK::FileIO::open_a(path, action);
}

BOX* Container::spatialChild(const char* p) const
{
    BOX* found = nullptr;
    find(p, [&](BOX& b) {
        const UUID* parent = dynamic_cast<const UUID*>(b.parent);
        if (found == nullptr && parent != nullptr && parent->hasUserType(SpatialData::_UUID))
            found = &b;
        return found == nullptr;
    });
    return found;
}

bool Container::isMdatFirst() const
{
    if (!root)
        return false;
    bool moovSeen = false;
    for (BOX* b : root->children) {
        if (b->is("moov"))
            moovSeen = true;
        if (b->is("mdat"))
            return !moovSeen;
    }
    return false;
}

bool Container::readPayload(const BOX& b, uint64_t maxBytes, std::string& out) const
{
    out.clear();
    uint64_t n = b.payloadSize();
    if (n > maxBytes)
        return false;
    bool ok = false;
    open([&](GLTK::FileIO& f) {
        BinFile v(f);
        if (!v.seek_set(static_cast<int64_t>(b.payloadStart())))
            return;
        out.resize(n);
        ok = v.readBytes(out.data(), n);
        if (!ok)
            out.clear();
    });
    return ok;
}

void Container::dump() const
{
    if (root)
        root->dump();
}

// ---------------------------------------------------------------- editing

bool Container::modifyContainer(const wchar_t* name, const Edit& edit)
{
    bool ok = false;
    bool opened = GLTK::FileIO::open_a(path, [&](GLTK::FileIO& f) {
        BinFile view(f);
        ok = edit(view);
    });
    if (!opened)
        ok = false;
    if (!ok)
        GLTK::Console::out(L"Container::modifyContainer::%ls(%ls) failed.\n", name, path.c_str());
    std::wstring p = path;
    attach(p);
    return ok;
}

static bool sameFile(const std::wstring& a, const std::wstring& b)
{
    struct stat sa, sb;
    if (stat(GLTK::FileIO::toNative(a).c_str(), &sa) != 0 || stat(GLTK::FileIO::toNative(b).c_str(), &sb) != 0)
        return false;
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

bool Container::modifyContainer(const wchar_t* name, const CopyStep& copy, const FixUp& fix1, const FixUp& fix2)
{
    const std::wstring source = path;
    const std::wstring target = outputPath ? *outputPath : path + kTemporarySuffix;
    bool ok = false;
    // Never create (and so truncate) the file being read.
    if (!sameFile(source, target)) {
        GLTK::FileIO::open(source, [&](GLTK::FileIO& in) {
            GLTK::FileIO::open_w(target, [&](GLTK::FileIO& out) {
                BinFile src(in), dst(out);
                uint64_t split = 0;
                ok = copy(src, dst, split);
                if (ok) {
                    Container partial;
                    ok = partial.attach(target, split) && GLTK::FileIO::open_a(target, [&](GLTK::FileIO& f) {
                             BinFile view(f);
                             ok = fix1(partial, view);
                         }) && ok;
                    if (ok) {
                        ok = partial.attach(target) && GLTK::FileIO::open_a(target, [&](GLTK::FileIO& f) {
                                 BinFile view(f);
                                 ok = fix2(partial, view);
                             }) && ok;
                    }
                }
                if (ok && fsync(out.descriptor) != 0)
                    ok = false;
            });
        });
    }
    if (ok) {
        if (outputPath) {
            path = *outputPath;
            outputPath.reset();
        } else if (!GLTK::FileIO::rename(target, source)) {
            // rename replaces the source atomically; if it cannot, the source
            // stays as it was and the edit has failed.
            ok = false;
        }
    }
    if (!ok) {
        GLTK::Console::out(L"Container::modifyContainer::%ls(%ls to %ls) failed.\n", name, source.c_str(),
                           target.c_str());
        if (!sameFile(source, target))
            GLTK::FileIO::unlink(target);
    }
    std::wstring p = path;
    attach(p);
    return ok;
}

bool Container::insertBox(const wchar_t* name, const BOX& anchorIn, bool replace, const Edit& write, const FixUp& fix1,
                          const FixUp& fix2)
{
    const uint64_t aStart = anchorIn.start, aSize = anchorIn.size;
    CopyStep copy = [&](BinFile& src, BinFile& dst, uint64_t& split) {
        uint64_t length = src.length();
        if (aStart > length || aSize > length - aStart)
            return false; // the anchor runs past the end of the file
        if (!src.seek_set(0) || src.copyTo(dst, aStart) != aStart)
            return false;
        if (!replace) {
            if (src.copyTo(dst, aSize) != aSize)
                return false;
        } else if (!src.seek_cur(static_cast<int64_t>(aSize))) {
            return false;
        }
        split = dst.position;
        if (!write(dst))
            return false;
        uint64_t rest = length - aStart - aSize;
        return src.copyTo(dst, rest) == rest;
    };
    return modifyContainer(name, copy, fix1, fix2);
}

bool Container::modifyBoxSize(BinFile& file, const BOX& box, int64_t delta)
{
    bool ok = true;
    for (const BOX* b = &box; b != nullptr; b = b->parent)
        ok = b->writeSize(file, b->size + static_cast<uint64_t>(delta)) && ok;
    return ok;
}

// Adds delta to every entry of one chunk-offset table (32-bit entries wrap).
static bool shiftOffsets(BinFile& file, const STCO& table, unsigned entrySize, int64_t delta)
{
    return remapTable(file, table, entrySize, [delta](uint64_t x) { return x + static_cast<uint64_t>(delta); });
}

static bool shiftTables(Container& c, BinFile& file, const std::string& prefix, int64_t delta)
{
    bool found = false, ok = true;
    c.find((prefix + ".stco").c_str(), [&](BOX& b) {
        found = true;
        ok = shiftOffsets(file, static_cast<STCO&>(b), 4, delta) && ok;
        return true;
    });
    c.find((prefix + ".co64").c_str(), [&](BOX& b) {
        found = true;
        ok = shiftOffsets(file, static_cast<STCO&>(b), 8, delta) && ok;
        return true;
    });
    return found && ok;
}

bool Container::modifySTCOIndex(BinFile& file, int64_t delta)
{
    return shiftTables(*this, file, "moov.trak.mdia.minf.stbl", delta);
}

bool Container::modifySpatialTrakSTCOIndex(BinFile& file, int64_t delta)
{
    return shiftTables(*this, file, "uuid.QATR.mdia.minf.stbl", delta);
}

bool Container::moovFirst()
{
    if (!root)
        return false;
    std::vector<const BOX*> order;
    const BOX* pendingMdat = nullptr;
    const BOX* theMoov = nullptr;
    for (const BOX* b : root->children) {
        if (b->is("mdat")) {
            pendingMdat = b;
            continue;
        }
        if (b->is("moov")) {
            if (pendingMdat == nullptr)
                return false; // moov already precedes the media
            theMoov = b;
            order.push_back(b);
            order.push_back(pendingMdat);
            pendingMdat = nullptr;
            continue;
        }
        order.push_back(b);
    }
    if (theMoov == nullptr)
        return false;
    // Where each carried box begins in the new file. In the usual layout
    // (ftyp, mdat, moov) the media data just moves by moov's size, but a box
    // between mdat and moov (the spatial data, a free box) moves in front of
    // moov and takes the media data further along. An offset into no carried
    // box is shifted by moov's size, as in the usual layout.
    const uint64_t moovSize = theMoov->size;
    std::vector<uint64_t> newStart;
    uint64_t at = 0;
    for (const BOX* b : order) {
        newStart.push_back(at);
        at += b->size;
    }
    auto map = [&](uint64_t x) {
        for (size_t i = 0; i < order.size(); ++i)
            if (x >= order[i]->start && x - order[i]->start < order[i]->size)
                return newStart[i] + (x - order[i]->start);
        return x + moovSize;
    };
    CopyStep copy = [&](BinFile& src, BinFile& dst, uint64_t& split) {
        for (const BOX* b : order)
            if (!b->copyTo(src, dst))
                return false;
        split = dst.position;
        return true;
    };
    FixUp nothing = [](Container&, BinFile&) { return true; };
    // Every offset into a moved box follows it: the tracks' chunks, the
    // spatial-audio chunks and the QDT9 pointer.
    FixUp shift = [&](Container& c, BinFile& f) { return remapFileOffsets(c, f, map); };
    return modifyContainer(L"moovFirst", copy, nothing, shift);
}

bool Container::updateTimeStamp(uint64_t t)
{
    bool ok = true;
    auto writeAt = [&](GLTK::FileIO& f, const BOX& b, uint8_t version) {
        BinFile view(f);
        uint64_t need = 12 + (version == 1 ? 8 : 4);
        if (b.size < need)
            return;
        bool w = view.seek_set(static_cast<int64_t>(b.start + 12)) &&
                 (version == 1 ? view.write64(t) : view.write32(static_cast<uint32_t>(t)));
        ok = w && ok;
    };
    bool opened = open_a([&](GLTK::FileIO& f) {
        if (BOX* m = first("moov.mvhd"))
            writeAt(f, *m, static_cast<MVHD*>(m)->version);
        find("moov.trak.tkhd", [&](BOX& b) {
            writeAt(f, b, static_cast<TKHD&>(b).version);
            return true;
        });
        find("moov.trak.mdia.mdhd", [&](BOX& b) {
            writeAt(f, b, static_cast<MDHD&>(b).version);
            return true;
        });
    });
    std::wstring p = path;
    attach(p);
    return opened && ok;
}

bool Container::replaceUdta(uint64_t tail, const ByteArray& udta)
{
    if (moov == nullptr)
        return false;
    const NestedBox& m = static_cast<const NestedBox&>(*moov);
    const BOX* old = m.first("udta");
    const uint64_t fileLength = root->size;
    SpliceEdit edit;
    edit.require(clippedEnd(*moov, fileLength) == moov->end());
    if (old != nullptr) {
        const int64_t delta = static_cast<int64_t>(udta.length) - static_cast<int64_t>(old->size);
        edit.require(clippedEnd(*old, fileLength) == old->end());
        edit.add(Splice::bytes(old->start, old->size, udta));
        edit.resize(*moov, delta);
        return edit.run(*this, L"replaceUdta_Replace");
    }
    if (m.children.size() < 3)
        return false;
    const BOX& last = *m.children.back();
    // The new box goes between two children, never into one.
    const uint64_t at = last.end() - std::min(tail, last.end());
    bool boundary = at == last.end();
    for (const BOX* child : m.children)
        boundary = boundary || child->start == at;
    edit.require(last.end() <= moov->end() && boundary);
    edit.add(Splice::bytes(at, 0, udta));
    edit.resize(*moov, static_cast<int64_t>(udta.length));
    return edit.run(*this, L"replaceUdta_Append");
}

} // namespace MP4
