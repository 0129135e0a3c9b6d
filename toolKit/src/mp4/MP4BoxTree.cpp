// The core of the box tree: headers, nesting, path lookup and the factory
// that makes the typed child of each code.
#include "MP4Box.h"

#include <algorithm>
#include <cstring>

namespace MP4 {

// ---------------------------------------------------------------- BOX

BOX::BOX(BinFile& file, int d, BOX* p) : depth(d), parent(p)
{
    start = file.position;
    size = file.read32();
    type = file.readType();
    if (size == 1) {
        largesize = true;
        size = file.read64();
    } else if (size == 0 && type != 0) {
        openEnded = true;
        uint64_t len = file.length();
        size = len > start ? len - start : 0;
    }
}

std::string BOX::typeText() const
{
    char t[5];
    std::memcpy(t, &type, 4);
    for (int i = 0; i < 4; ++i)
        if (static_cast<unsigned char>(t[i]) < 0x20 || static_cast<unsigned char>(t[i]) > 0x7E)
            t[i] = '?';
    t[4] = 0;
    return t;
}

uint64_t BOX::clippedEnd(uint64_t fileLength) const
{
    uint64_t e = end() < start ? UINT64_MAX : end();
    e = std::min(e, fileLength);
    for (const BOX* p = parent; p != nullptr; p = p->parent)
        if (p->end() >= p->start) // a size that wraps around says nothing
            e = std::min(e, p->end());
    return std::max(e, start);
}

bool BOX::isInside(const BOX& other) const
{
    for (const BOX* b = this; b != nullptr; b = b->parent)
        if (b == &other)
            return true;
    return false;
}

// ---------------------------------------------------------------- nesting

NestedBox::~NestedBox()
{
    for (BOX* c : children)
        delete c;
}

void NestedBox::parseChildren(BinFile& file, uint64_t end)
{
    const uint64_t myEnd = std::min(this->start + this->size, end);
    childrenRead = true;
    childrenAt = file.position;
    if (depth + 1 > kMaxDepth)
        return;
    file.limit = myEnd;
    BOX header(file, depth + 1, this);
    while (header.type != 0) {
        // A box shorter than its own header cannot be skipped over: the rest
        // of the parent is unreadable.
        uint64_t minimum = header.largesize ? 16 : 8;
        if (header.size < minimum)
            break;
        BOX* child = allocChild(header);
        child->parseBox(file, end);
        children.push_back(child);
        uint64_t next = header.start + header.size;
        if (next < header.start || next >= myEnd)
            break;
        if (!file.seek_set(static_cast<int64_t>(next)))
            break;
        file.limit = myEnd;
        header = BOX(file, depth + 1, this);
    }
}

void NestedBox::parseBox(BinFile& file, uint64_t end)
{
    parseChildren(file, end);
}

void NestedBox::find(const char* path, const std::function<bool(BOX&)>& visit) const
{
    if (path == nullptr || std::strlen(path) < 4)
        return;
    uint32_t code;
    std::memcpy(&code, path, 4);
    for (BOX* child : children) {
        if (child->type != code)
            continue;
        char next = path[4];
        if (next == '\0') {
            if (!visit(*child))
                return;
        } else if (next == '.' && child->hasChild()) {
            if (const NestedBox* nested = child->as<NestedBox>())
                nested->find(path + 5, visit);
        }
    }
}

BOX* NestedBox::first(const char* path) const
{
    // An inner search that stops does not stop the outer levels, so keep the
    // first box met.
    BOX* found = nullptr;
    find(path, [&](BOX& b) {
        if (found == nullptr)
            found = &b;
        return false;
    });
    return found;
}

uint64_t NestedBox::endOfChildren() const
{
    if (children.empty())
        return payloadStart();
    return std::min(children.back()->end(), end());
}

void NestedBoxWithVersion::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    versionFlags = file.read32();
    parseChildren(file, end);
}

void META::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    const uint64_t body = file.position;
    uint8_t head[8];
    if (file.readBytes(head, 8) && std::memcmp(head + 4, "hdlr", 4) == 0) {
        file.seek_set(static_cast<int64_t>(body));
        parseChildren(file, end);
        return;
    }
    file.seek_set(static_cast<int64_t>(body));
    NestedBoxWithVersion::parseBox(file, end);
}

// ---------------------------------------------------------------- factory

template <class T> static BOX* make(BOX& h) { return new T(h); }

BOX* NestedBox::allocChild(BOX& h)
{
    return new BOX(h);
}

BOX* ROOT::allocChild(BOX& h)
{
    switch (h.type) {
    case fourcc("ftyp"): return make<FTYP>(h);
    case fourcc("mdat"): return make<MDAT>(h);
    case fourcc("moov"): { h.parent = nullptr; return make<MOOV>(h); }
    case fourcc("meta"): { h.parent = nullptr; return make<META>(h); }
    case fourcc("uuid"): { h.parent = nullptr; return make<UUID>(h); }
    default: return make<BOX>(h);
    }
}

BOX* MOOV::allocChild(BOX& h)
{
    switch (h.type) {
    case fourcc("mvhd"): return make<MVHD>(h);
    case fourcc("udta"): return make<UDTA>(h);
    case fourcc("trak"): return make<TRAK>(h);
    default: return make<BOX>(h);
    }
}

BOX* TRAK::allocChild(BOX& h)
{
    switch (h.type) {
    case fourcc("uuid"): return make<UUID>(h);
    case fourcc("tkhd"): return make<TKHD>(h);
    case fourcc("mdia"): return make<MDIA>(h);
    default: return make<BOX>(h);
    }
}

BOX* MDIA::allocChild(BOX& h)
{
    switch (h.type) {
    case fourcc("mdhd"): return make<MDHD>(h);
    case fourcc("minf"): return make<MINF>(h);
    default: return make<BOX>(h);
    }
}

BOX* MINF::allocChild(BOX& h)
{
    return h.type == fourcc("stbl") ? make<STBL>(h) : make<BOX>(h);
}

BOX* STBL::allocChild(BOX& h)
{
    switch (h.type) {
    case fourcc("stco"): return make<STCO>(h);
    case fourcc("co64"): return make<CO64>(h);
    case fourcc("stsc"): return make<STSC>(h);
    case fourcc("stsd"): return make<STSD>(h);
    case fourcc("stsz"): return make<STSZ>(h);
    case fourcc("stts"): return make<STTS>(h);
    default: return make<BOX>(h);
    }
}

BOX* STSD::allocChild(BOX& h)
{
    switch (h.type) {
    case fourcc("avc1"): return make<AVC1>(h);
    case fourcc("hvc1"):
    case fourcc("hev1"): return make<VisualSampleEntry>(h);
    case fourcc("sowt"): return make<SOWT>(h);
    default: return make<BOX>(h);
    }
}

BOX* VisualSampleEntry::allocChild(BOX& h)
{
    switch (h.type) {
    case fourcc("st3d"): return make<ST3D>(h);
    case fourcc("sv3d"): return make<SV3D>(h);
    default: return make<BOX>(h);
    }
}

BOX* AVC1::allocChild(BOX& h)
{
    return h.type == fourcc("avcC") ? make<AVCC>(h) : VisualSampleEntry::allocChild(h);
}

BOX* UDTA::allocChild(BOX& h)
{
    static const uint32_t cxyz = fourcc("\xA9xyz");
    if (h.type == fourcc("loci"))
        return make<LOCI>(h);
    if (h.type == cxyz)
        return make<XYZ>(h);
    return make<BOX>(h);
}

BOX* META::allocChild(BOX& h)
{
    return h.type == fourcc("hdlr") ? make<HDLR>(h) : make<BOX>(h);
}

BOX* UUID::allocChild(BOX& h)
{
    return h.type == fourcc("QATR") ? make<TRAK>(h) : make<BOX>(h);
}

// ---------------------------------------------------------------- serialisers

void appendHeader(ByteArray& out, const char* type, uint64_t size)
{
    out.append32be(static_cast<uint32_t>(size));
    out.append(type, 4);
}

ByteArray makeBox(const char* type, const ByteArray& payload)
{
    ByteArray out;
    appendHeader(out, type, payload.length + 8);
    out.append(payload);
    return out;
}

ByteArray makeFullBox(const char* type, uint8_t version, uint32_t flags, const ByteArray& payload)
{
    ByteArray body;
    body.append32be(uint32_t(version) << 24 | (flags & 0xFFFFFF));
    body.append(payload);
    return makeBox(type, body);
}

ByteArray makeFreeBox(uint64_t size)
{
    ByteArray out;
    appendHeader(out, "free", size);
    out.resize(size);
    return out;
}

} // namespace MP4
