#include "MP4Box.h"

#include "GLTKConsole.h"
#include "GLTKwchar.h"

#include <algorithm>
#include <cstring>
#include <vector>

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
        uint64_t len = file.length();
        size = len > start ? len - start : 0;
    }
}

bool BOX::writeSize(BinFile& file, uint64_t newSize) const
{
    uint64_t saved = file.position;
    bool ok;
    if (largesize)
        ok = file.seek_set(static_cast<int64_t>(start + 8)) && file.write64(newSize);
    else
        ok = file.seek_set(static_cast<int64_t>(start)) && file.write32(static_cast<uint32_t>(newSize));
    file.seek_set(static_cast<int64_t>(saved));
    return ok;
}

bool BOX::copyTo(GLTK::FileIO& from, GLTK::FileIO& to) const
{
    if (size == 0)
        return true;
    if (!from.seek_set(static_cast<int64_t>(start)))
        return false;
    return from.copyTo(to, size) == size;
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

std::wstring BOX::basicTag() const
{
    std::wstring t = GLTK::wchar::mbs2wcs(typeText());
    wchar_t buf[96];
    swprintf(buf, 96, L"'%ls': start=%llu bytes=%llu", t.c_str(), static_cast<unsigned long long>(start),
             static_cast<unsigned long long>(size));
    return buf;
}

std::wstring BOX::indent() const
{
    return depth > 0 ? std::wstring(static_cast<size_t>(depth) * 4, L' ') : std::wstring();
}

void BOX::dump() const
{
    if (type == 0)
        GLTK::Console::out(L"MP4: %ls== EOF total=%lld ==\n", indent().c_str(), static_cast<long long>(start));
    else
        GLTK::Console::out(L"MP4: %ls<%ls >\n", indent().c_str(), basicTag().c_str());
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

BOX* NestedBox::allocChild(BOX& header)
{
    return new BOX(header);
}

void NestedBox::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls children=%lu >\n", indent().c_str(), basicTag().c_str(),
                       static_cast<unsigned long>(children.size()));
    for (const BOX* c : children)
        c->dump();
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
            static_cast<NestedBox*>(child)->find(path + 5, visit);
        }
    }
}

void NestedBox::if_not_found(const char* path, const std::function<void()>& action) const
{
    bool found = false;
    find(path, [&](BOX&) {
        found = true;
        return false;
    });
    if (!found)
        action();
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

void NestedBoxWithVersion::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    versionFlags = file.read32();
    parseChildren(file, end);
}

// ---------------------------------------------------------------- factories

template <class T> static BOX* make(BOX& h) { return new T(h); }

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
    case fourcc("sowt"): return make<SOWT>(h);
    default: return make<BOX>(h);
    }
}

void STSD::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    versionFlags = file.read32();
    entryCount = file.read32();
    parseChildren(file, end);
}

void STSD::dump() const
{
    std::wstring codes;
    for (const BOX* c : children) {
        if (!codes.empty())
            codes += L',';
        codes += GLTK::wchar::mbs2wcs(c->typeText());
    }
    GLTK::Console::out(L"MP4: %ls<%ls entries=%u codes=%ls children=%lu >\n", indent().c_str(), basicTag().c_str(),
                       entryCount, codes.empty() ? L"-" : codes.c_str(), static_cast<unsigned long>(children.size()));
    for (const BOX* c : children)
        c->dump();
}

BOX* AVC1::allocChild(BOX& h)
{
    return h.type == fourcc("avcC") ? make<AVCC>(h) : make<BOX>(h);
}

void AVC1::parseBox(BinFile& file, uint64_t end)
{
    // The visual sample entry: 6 reserved bytes, data reference index, 16
    // bytes of pre-defined and reserved fields, width and height, then 50
    // more bytes before the child boxes.
    file.limit = std::min(start + size, end);
    uint64_t body = file.position;
    if (!file.fits(78))
        return;
    file.seek_set(static_cast<int64_t>(body + 24));
    width = file.read16();
    height = file.read16();
    file.seek_set(static_cast<int64_t>(body + 78));
    parseChildren(file, end);
}

void AVC1::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls width=%u height=%u children=%lu >\n", indent().c_str(), basicTag().c_str(),
                       width, height, static_cast<unsigned long>(children.size()));
    for (const BOX* c : children)
        c->dump();
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

void HDLR::dump() const
{
    wchar_t code[5] = {};
    for (int i = 0; i < 4; ++i) {
        const unsigned c = (handlerType >> (8 * i)) & 0xFF;
        code[i] = c < 0x20 || c > 0x7E ? L'?' : static_cast<wchar_t>(c);
    }
    GLTK::Console::out(L"MP4: %ls<%ls handler=%ls >\n", indent().c_str(), basicTag().c_str(), code);
}

// ---------------------------------------------------------------- uuid

const uint8_t SpatialData::_UUID[16] = {0x28, 0xF3, 0x11, 0xE2, 0xB7, 0x91, 0x4F, 0x6F,
                                        0x94, 0xE2, 0x4F, 0x5D, 0xEA, 0xCB, 0x3C, 0x01};
const uint8_t XMP::_UUID[16] = {0xBE, 0x7A, 0xCF, 0xCB, 0x97, 0xA9, 0x42, 0xE8,
                                0x9C, 0x71, 0x99, 0x94, 0x91, 0xE3, 0xAF, 0xAC};
const uint8_t AXIS::_UUID[16] = {0x8E, 0x4E, 0x1F, 0x97, 0x81, 0xF3, 0x4D, 0x59,
                                 0x97, 0xB5, 0xFF, 0x05, 0xA2, 0x7C, 0xDB, 0x7B};
const uint8_t SphericalXML::_UUID[16] = {0xFF, 0xCC, 0x82, 0x63, 0xF8, 0x55, 0x4A, 0x93,
                                         0x88, 0x14, 0x58, 0x7A, 0x02, 0x52, 0x1F, 0xDD};

UUID::UUID(const void* bytes, uint64_t n)
{
    depth = 0;
    start = 0;
    type = fourcc("uuid");
    size = n + 24;
    payload.assign(bytes, n);
}

XMP::XMP(const std::string& text) : UUID(text.data(), text.size()) { std::memcpy(userType, _UUID, 16); }
AXIS::AXIS(const std::string& text) : UUID(text.data(), text.size()) { std::memcpy(userType, _UUID, 16); }
SphericalXML::SphericalXML(const std::string& text) : UUID(text.data(), text.size())
{
    std::memcpy(userType, _UUID, 16);
}

bool UUID::hasUserType(const uint8_t (&uuid)[16]) const
{
    return size >= 24 && std::memcmp(userType, uuid, 16) == 0;
}

bool UUID::hasChild() const
{
    return hasUserType(SpatialData::_UUID);
}

BOX* UUID::allocChild(BOX& h)
{
    return h.type == fourcc("QATR") ? make<TRAK>(h) : make<BOX>(h);
}

void UUID::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    if (size < 24 || !file.readBytes(userType, 16))
        return;
    if (hasChild()) {
        parseChildren(file, end);
        return;
    }
    uint64_t n = size - 24;
    if (n > kMaxPayload || !file.fits(n))
        return;
    payload.resize(n);
    uint64_t done = 0;
    while (done < n) {
        uint64_t piece = std::min<uint64_t>(n - done, 1 << 16);
        if (!file.readBytes(payload.data + done, piece)) {
            payload.resize(done);
            return;
        }
        done += piece;
    }
}

void UUID::dump() const
{
    if (hasChild()) {
        NestedBox::dump();
        return;
    }
    wchar_t u[40];
    swprintf(u, 40, L"%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", userType[0], userType[1],
             userType[2], userType[3], userType[4], userType[5], userType[6], userType[7], userType[8], userType[9],
             userType[10], userType[11], userType[12], userType[13], userType[14], userType[15]);
    GLTK::Console::out(L"MP4: %ls<%ls uuid=%ls payload=%llu >\n", indent().c_str(), basicTag().c_str(), u,
                       static_cast<unsigned long long>(payload.length));
}

bool UUID::write(BinFile& file) const
{
    uint8_t header[8];
    put32be(header, static_cast<uint32_t>(payload.length + 24));
    std::memcpy(header + 4, "uuid", 4);
    uint64_t total = 0;
    total += file.write(header, 4);
    total += file.write(header + 4, 4);
    total += file.write(userType, 16);
    if (payload.length > 0)
        total += file.write(payload.data, payload.length);
    else
        total += 0;
    return total == payload.length + 24;
}

bool UUID::write(GLTK::FileIO& file) const
{
    BinFile view(file);
    bool ok = write(view);
    file.position = view.position;
    return ok;
}

void UUID::to_byteArray(ByteArray& out) const
{
    out.clear();
    out.append32be(static_cast<uint32_t>(payload.length + 24));
    out.append("uuid", 4);
    out.append(userType, 16);
    out.append(payload);
}

// ---------------------------------------------------------------- leaves

void MVHD::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    version = file.read8();
    file.read24();
    if (version == 1) {
        creationTime = file.read64();
        modificationTime = file.read64();
        timeScale = file.read32();
        duration = file.read64();
    } else {
        creationTime = file.read32();
        modificationTime = file.read32();
        timeScale = file.read32();
        duration = file.read32();
    }
}

void MVHD::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls timeStamp=%llu timeScale=%u duration=%llu >\n", indent().c_str(),
                       basicTag().c_str(), static_cast<unsigned long long>(creationTime), timeScale,
                       static_cast<unsigned long long>(duration));
}

void TKHD::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    uint64_t body = file.position;
    version = file.read8();
    file.read24();
    if (version == 1) {
        creationTime = file.read64();
        file.read64();
        trackId = file.read32();
        file.read32();
        duration = file.read64();
    } else {
        creationTime = file.read32();
        file.read32();
        trackId = file.read32();
        file.read32();
        duration = file.read32();
    }
    // reserved 8, layer 2, alternate group 2, volume 2, reserved 2, matrix 36
    uint64_t sizes = file.position + 52;
    if (file.position < body || !file.fits(52 + 8))
        return;
    file.seek_set(static_cast<int64_t>(sizes));
    width = file.read32() >> 16;
    height = file.read32() >> 16;
}

void TKHD::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls timeStamp=%llu width=%u height=%u >\n", indent().c_str(), basicTag().c_str(),
                       static_cast<unsigned long long>(creationTime), width, height);
}

void MDHD::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    version = file.read8();
    file.read24();
    if (version == 1) {
        creationTime = file.read64();
        file.read64();
        timeScale = file.read32();
        duration = file.read64();
    } else {
        creationTime = file.read32();
        file.read32();
        timeScale = file.read32();
        duration = file.read32();
    }
}

void MDHD::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls timeStamp=%llu timeScale=%u duration=%llu >\n", indent().c_str(),
                       basicTag().c_str(), static_cast<unsigned long long>(creationTime), timeScale,
                       static_cast<unsigned long long>(duration));
}

void STCO::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    versionFlags = file.read32();
    entryCount = file.read32();
    firstEntry = file.position;
}

uint64_t STCO::entriesInBox(unsigned entrySize) const
{
    uint64_t boxEnd = start + size;
    if (firstEntry == 0 || firstEntry > boxEnd)
        return 0;
    return std::min<uint64_t>(entryCount, (boxEnd - firstEntry) / entrySize);
}

void STCO::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls entries=%u >\n", indent().c_str(), basicTag().c_str(), entryCount);
}

void STSC::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    versionFlags = file.read32();
    entryCount = file.read32();
}

void STSC::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls entries=%u >\n", indent().c_str(), basicTag().c_str(), entryCount);
}

void STSZ::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    versionFlags = file.read32();
    sampleSize = file.read32();
    sampleCount = file.read32();
    if (sampleSize != 0) {
        totalBytes = uint64_t(sampleSize) * sampleCount;
        return;
    }
    // Sum the per-sample table in blocks, never past the box.
    uint64_t left = sampleCount;
    std::vector<uint8_t> buf(64 * 1024);
    while (left > 0) {
        uint64_t n = std::min<uint64_t>(left, buf.size() / 4);
        if (!file.readBytes(buf.data(), n * 4)) {
            // The box is shorter than its count says: sum what fits.
            uint64_t room = file.limit > file.position ? (file.limit - file.position) / 4 : 0;
            n = std::min(n, room);
            if (n == 0 || !file.readBytes(buf.data(), n * 4))
                break;
        }
        for (uint64_t i = 0; i < n; ++i)
            totalBytes += be32(buf.data() + 4 * i);
        left -= n;
    }
}

void STSZ::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls sampleSize=%u samples=%u totalBytes=%llu >\n", indent().c_str(),
                       basicTag().c_str(), sampleSize, sampleCount, static_cast<unsigned long long>(totalBytes));
}

void STTS::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    versionFlags = file.read32();
    entryCount = file.read32();
}

void STTS::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls entries=%u >\n", indent().c_str(), basicTag().c_str(), entryCount);
}

void LOCI::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    uint64_t n = payloadSize();
    if (n > 4096 || !file.fits(n))
        n = file.limit > file.position ? std::min<uint64_t>(file.limit - file.position, 4096) : 0;
    body.resize(n);
    if (n > 0 && !file.readBytes(body.data, n))
        body.clear();
}

void XYZ::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    uint16_t n = file.read16();
    file.read16(); // language
    std::string s(n, '\0');
    if (n > 0 && file.readBytes(s.data(), n))
        text = s;
}

void XYZ::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls text=%ls >\n", indent().c_str(), basicTag().c_str(),
                       GLTK::wchar::mbs2wcs(text).c_str());
}

void HDLR::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    file.read32(); // version and flags
    file.read32(); // pre-defined
    handlerType = file.readType();
}

void AVCC::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    uint64_t n = payloadSize();
    if (n > (1 << 20) || !file.fits(n))
        return;
    record.resize(n);
    if (n > 0 && !file.readBytes(record.data, n))
        record.clear();
}

} // namespace MP4
