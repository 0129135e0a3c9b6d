#include "MP4Container.h"

#include "GLTKConsole.h"

#include <algorithm>
#include <vector>

namespace MP4 {

const wchar_t* const kTemporarySuffix = L".tmp.mp4";

Container::~Container() = default;

// ---------------------------------------------------------------- reading

bool Container::attach(const std::wstring& p)
{
    std::wstring copy = p; // the path may be our own field
    root.reset();
    moov = nullptr;
    mdat = nullptr;
    videoTrack = nullptr;
    path = std::move(copy);
    file = std::make_unique<GLTK::FileIO>(path, 'r'); // it names our path: keep it as long
    if (!file->isOpen()) {
        file.reset(); // errno still says why
        return false;
    }
    BinFile view(*file);
    root = std::make_unique<ROOT>();
    root->depth = -1;
    root->start = 0;
    root->type = fourcc("root");
    root->size = root->reach = file->length();
    view.moveTo(0);
    root->parseBox(view);
    moov = root->first<MOOV>("moov");
    mdat = root->first("mdat");
    root->find<TRAK>("moov.trak", [&](TRAK& trak) {
        trak.find<TKHD>("tkhd", [&](TKHD& tkhd) {
            if (tkhd.width >= 1)
                videoTrack = &trak;
            return true;
        });
        return true;
    });
    return true;
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
    if (!file)
        return false;
    action(*file);
    return true;
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

BOX* Container::spatialData() const
{
    BOX* qadt = spatialChild("uuid.QADT");
    return qadt != nullptr && qadt->size >= 9 ? qadt->parent : nullptr;
}

bool Container::readBox(const BOX& b, uint64_t maxBytes, ByteArray& out) const
{
    out.clear();
    if (b.size > maxBytes || !b.whole() || !file)
        return false;
    out.resize(b.size);
    const bool ok = file->seek_set(static_cast<int64_t>(b.start)) && file->read(out.data, b.size) == b.size;
    if (!ok)
        out.clear();
    return ok;
}

bool Container::readPayload(const BOX& b, uint64_t maxBytes, std::string& out) const
{
    out.clear();
    const uint64_t skip = b.as<UUID>() != nullptr ? 16 : 0;
    const uint64_t n = b.payloadSize() > skip ? b.payloadSize() - skip : 0;
    if (n > maxBytes || !b.whole() || !file)
        return false;
    out.resize(n);
    const bool ok = file->seek_set(static_cast<int64_t>(b.payloadStart() + skip)) &&
                    (n == 0 || file->read(out.data(), n) == n);
    if (!ok)
        out.clear();
    return ok;
}

void Container::dump() const
{
    if (root)
        root->dump();
}

// ---------------------------------------------------------------- edits

bool Container::moovFirst(EditPlan& plan) const
{
    if (!root)
        return false;
    // Every box that is not mdat keeps its order; the mdat met before moov
    // follows moov (a later mdat replaces an earlier one).
    std::vector<const BOX*> order;
    const BOX* pendingMdat = nullptr;
    bool moved = false;
    for (const BOX* b : root->children) {
        if (b->is("mdat")) {
            pendingMdat = b;
        } else if (b->is("moov")) {
            if (pendingMdat == nullptr)
                return false; // moov already precedes the media
            order.push_back(b);
            order.push_back(pendingMdat);
            pendingMdat = nullptr;
            moved = true;
        } else {
            order.push_back(b);
        }
    }
    if (!moved)
        return false;
    plan.reorder(order);
    return true;
}

void Container::updateTimeStamp(EditPlan& plan, uint64_t t) const
{
    auto writeAt = [&](const BOX& b, uint8_t version) {
        const uint64_t width = version == 1 ? 8 : 4;
        if (b.size < kCreationTimeAt + width || b.reach < b.start + kCreationTimeAt + width)
            return;
        ByteArray field;
        if (version == 1)
            field.append64be(t);
        else
            field.append32be(static_cast<uint32_t>(t));
        plan.patch(0, b.start + kCreationTimeAt, std::move(field));
    };
    if (const MVHD* m = first<MVHD>("moov.mvhd"))
        writeAt(*m, m->version);
    find<TKHD>("moov.trak.tkhd", [&](TKHD& b) {
        writeAt(b, b.version);
        return true;
    });
    find<MDHD>("moov.trak.mdia.mdhd", [&](MDHD& b) {
        writeAt(b, b.version);
        return true;
    });
}

bool Container::replaceUdta(EditPlan& plan, EditPlan::Pieces udta) const
{
    if (moov == nullptr)
        return false;
    const BOX* old = moov->first("udta");
    if (old != nullptr && plan.keeps(*old))
        return plan.replace(L"replaceUdta_Replace", *old, std::move(udta));
    if (moov->children.size() < 3)
        return false;
    return plan.insert(L"replaceUdta_Append", *moov, moov->endOfChildren(), std::move(udta));
}

} // namespace MP4
