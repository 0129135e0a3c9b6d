// The core of the box tree: headers, nesting, path lookup, the factory that
// makes the typed child of each code, and the boxes that only nest others.
#include "MP4Box.h"

#include "GLTKConsole.h"
#include "GLTKwchar.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>

namespace MP4 {

namespace {
using GLTK::Console;
using ull = unsigned long long;
} // namespace

// ---------------------------------------------------------------- BOX

bool BOX::readHeader(BinFile& file, uint64_t at, int d, BOX* p)
{
    depth = d;
    parent = p;
    start = at;
    uint32_t size32 = 0;
    if (!file.moveTo(at) || !file.read32(size32) || !file.readType(type) || type == 0)
        return false;
    size = size32;
    if (size32 == 1) {
        largesize = true;
        if (!file.read64(size))
            return false;
    } else if (size32 == 0) {
        openEnded = true;
        size = file.length() > start ? file.length() - start : 0;
    }
    // A size that wraps around reaches no further than its parent.
    const uint64_t limit = parent != nullptr ? parent->reach : file.length();
    reach = std::max(start, std::min(end() < start ? UINT64_MAX : end(), limit));
    return true;
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

bool BOX::isInside(const BOX& other) const
{
    for (const BOX* b = this; b != nullptr; b = b->parent)
        if (b == &other)
            return true;
    return false;
}

void BOX::copyHeader(const BOX& h)
{
    depth = h.depth;
    start = h.start;
    size = h.size;
    type = h.type;
    largesize = h.largesize;
    openEnded = h.openEnded;
    parent = h.parent;
    reach = h.reach;
}

std::wstring BOX::basicTag() const
{
    std::wstring t = GLTK::wchar::mbs2wcs(typeText());
    wchar_t buf[96];
    swprintf(buf, 96, L"'%ls': start=%llu bytes=%llu", t.c_str(), ull(start), ull(size));
    return buf;
}

std::wstring BOX::indent() const
{
    return depth > 0 ? std::wstring(static_cast<size_t>(depth) * 4, L' ') : std::wstring();
}

void BOX::dump() const
{
    if (unreadable.empty())
        Console::out(L"MP4: %ls<%ls >\n", indent().c_str(), basicTag().c_str());
    else
        Console::out(L"MP4: %ls<%ls unreadable=\"%ls\" >\n", indent().c_str(), basicTag().c_str(),
                     GLTK::wchar::mbs2wcs(unreadable).c_str());
}

// ---------------------------------------------------------------- the factory

namespace {

// The class of a box of `type` under a parent of `parentType`.
BOX* make(uint32_t parentType, const BOX& header)
{
    static const std::map<std::pair<uint32_t, uint32_t>, BOX* (*)(const BOX&)> kinds = [] {
        std::map<std::pair<uint32_t, uint32_t>, BOX* (*)(const BOX&)> all;
        for (const BoxKinds* family : {&containerBoxKinds(), &headerBoxKinds(), &sampleTableBoxKinds(),
                                       &locationBoxKinds(), &uuidBoxKinds(), &sphericalBoxKinds()})
            for (const BoxKind& k : *family)
                all[{fourcc(k.parent), fourcc(k.type)}] = k.make;
        return all;
    }();
    auto it = kinds.find({parentType, header.type});
    return it != kinds.end() ? it->second(header) : new BOX(header);
}

} // namespace

const BoxKinds& containerBoxKinds()
{
    static const BoxKinds kinds = {
        {"root", "moov", newBox<MOOV>}, {"root", "meta", newBox<META>},    {"moov", "trak", newBox<TRAK>},
        {"moov", "udta", newBox<UDTA>}, {"trak", "mdia", newBox<MDIA>},    {"QATR", "mdia", newBox<MDIA>},
        {"mdia", "minf", newBox<MINF>}, {"minf", "stbl", newBox<STBL>},
    };
    return kinds;
}

// ---------------------------------------------------------------- nesting

NestedBox::~NestedBox()
{
    for (BOX* c : children)
        delete c;
}

void NestedBox::parseChildren(BinFile& file)
{
    childrenRead = true;
    childrenAt = file.position;
    if (depth + 1 > kMaxDepth)
        return;
    uint64_t at = childrenAt;
    while (at < reach) {
        BOX header;
        file.limit = reach;
        // A box shorter than its own header cannot be skipped over: the rest
        // of the parent is unreadable.
        if (!header.readHeader(file, at, depth + 1, this) || header.size < header.headerSize())
            break;
        std::unique_ptr<BOX> child(make(type, header));
        file.limit = child->reach;
        if (!file.moveTo(child->payloadStart()) || !child->parseBox(file)) {
            auto plain = std::make_unique<BOX>(header);
            plain->unreadable = child->unreadable.empty() ? "its fields run past its end" : child->unreadable;
            child = std::move(plain);
        }
        children.push_back(child.release());
        const uint64_t next = header.end();
        if (next <= at || next >= reach)
            break;
        at = next;
    }
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

void NestedBox::dump() const
{
    Console::out(L"MP4: %ls<%ls children=%lu >\n", indent().c_str(), basicTag().c_str(),
                 static_cast<unsigned long>(children.size()));
    for (const BOX* c : children)
        c->dump();
}

bool NestedBoxWithVersion::parseBox(BinFile& file)
{
    RCHECK(file.read32(versionFlags));
    parseChildren(file);
    return true;
}

bool META::parseBox(BinFile& file)
{
    const uint64_t body = file.position;
    uint8_t head[8];
    if (file.readBytes(head, 8) && std::memcmp(head + 4, "hdlr", 4) == 0) {
        RCHECK(file.moveTo(body));
        parseChildren(file);
        return true;
    }
    RCHECK(file.moveTo(body));
    return NestedBoxWithVersion::parseBox(file);
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
