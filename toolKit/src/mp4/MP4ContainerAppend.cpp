// The metadata appenders of the container: the XMP and axis uuid boxes at the
// end of the file, the Spherical Video V1 box inside the video track, the
// spatial data carried over from the source movie, and the GPS meta box.
#include "MP4Container.h"

#include "GLTKConsole.h"
#include "MP4Splice.h"
#include "SpatialSound.h"

#include <cstring>
#include <unistd.h>

namespace MP4 {

namespace {

// A top-level box whose size field is 0 runs to the end of the file; give it
// its real size before anything is appended behind it.
bool sealOpenEndedBox(const Container& c, BinFile& f)
{
    if (!c.root || c.root->children.empty())
        return true;
    const BOX& last = *c.root->children.back();
    if (last.largesize || last.type == 0)
        return true;
    if (!f.seek_set(static_cast<int64_t>(last.start)) || !f.fits(4))
        return false;
    if (f.read32() != 0)
        return true;
    return last.size <= UINT32_MAX && last.writeSize(f, last.size);
}

// Appends bytes at the end of the parsed file in place. A failed write is
// cut off again, so the file keeps its old length and bytes.
bool appendAtEnd(Container& c, const wchar_t* name, const std::function<bool(BinFile&)>& write)
{
    bool ok = false;
    if (c.root) {
        const uint64_t end = c.root->size;
        GLTK::FileIO::open_a(c.path, [&](GLTK::FileIO& file) {
            BinFile f(file);
            ok = end == f.length() && sealOpenEndedBox(c, f) && f.seek_set(static_cast<int64_t>(end)) && write(f);
            if (!ok && f.length() > end && ftruncate(file.descriptor, static_cast<off_t>(end)) != 0)
                GLTK::Console::out(L"Container::%ls: could not cut %ls back.\n", name, c.path.c_str());
        });
    }
    if (!ok) {
        GLTK::Console::out(L"Container::%ls(%ls) failed.\n", name, c.path.c_str());
        return false;
    }
    std::wstring p = c.path;
    return c.attach(p);
}

// True when the source holds, at offset, a box of exactly length bytes of
// the given type (and, for a uuid box, user type).
bool sourceBoxIs(GLTK::FileIO& source, uint64_t offset, uint64_t length, const char* type,
                 const uint8_t* userType = nullptr)
{
    const uint64_t fileLength = source.length();
    if (offset > fileLength || length > fileLength - offset || length < 8)
        return false;
    uint8_t h[32];
    uint64_t want = std::min<uint64_t>(length, 32);
    if (!source.seek_set(static_cast<int64_t>(offset)) || source.read(h, want) != want)
        return false;
    uint64_t size = be32(h), header = 8;
    if (size == 1) {
        if (want < 16)
            return false;
        size = be64(h + 8);
        header = 16;
    }
    if (size != length || std::memcmp(h + 4, type, 4) != 0)
        return false;
    if (userType == nullptr)
        return true;
    return want >= header + 16 && std::memcmp(h + header, userType, 16) == 0;
}


} // namespace

// ---------------------------------------------------------------- XMP, axis

bool Container::appendUUIDOnce(const UUID& box, const wchar_t* existedMessage)
{
    bool present = false;
    find("uuid", [&](BOX& b) {
        present = static_cast<UUID&>(b).hasUserType(box.userType);
        return !present;
    });
    if (present) {
        GLTK::Console::out(existedMessage);
        return true;
    }
    const wchar_t* name = box.hasUserType(XMP::_UUID) ? L"appendXMP" : L"appendAxis";
    return appendAtEnd(*this, name, [&](BinFile& f) { return box.write(f); });
}

bool Container::appendXMP(const std::string& xmp)
{
    return appendUUIDOnce(XMP(xmp), L"MP4: XMP is existed.\n");
}

bool Container::appendAxis(const std::string& axis)
{
    return appendUUIDOnce(AXIS(axis), L"MP4: AXIS is existed.\n");
}

// ---------------------------------------------------------------- Spherical Video V1

bool Container::build_sphericalVideoXmlBOX(BOX*& existing, ByteArray& out, const std::string& xml)
{
    existing = nullptr;
    find("moov.trak.uuid", [&](BOX& b) {
        if (static_cast<UUID&>(b).hasUserType(SphericalXML::_UUID))
            existing = &b; // the last one wins
        return true;
    });
    SphericalXML(xml).to_byteArray(out);
    return true;
}

bool Container::appendSphericalVideoXML(const std::string& xml)
{
    if (moov == nullptr || mdat == nullptr || videoTrack == nullptr)
        return false;
    BOX* existing = nullptr;
    ByteArray bytes;
    build_sphericalVideoXmlBOX(existing, bytes, xml);
    const uint64_t fileLength = root->size;
    SpliceEdit edit;
    if (existing != nullptr) {
        // Rewritten in its place; its track and moov change by the difference.
        const int64_t delta = static_cast<int64_t>(bytes.length) - static_cast<int64_t>(existing->size);
        edit.require(clippedEnd(*existing, fileLength) == existing->end());
        edit.add(Splice::bytes(existing->start, existing->size, bytes));
        edit.resize(*existing->parent, delta);
        edit.resize(*moov, delta);
    } else {
        // Written right behind the video track, which then grows over it.
        edit.require(clippedEnd(*videoTrack, fileLength) == videoTrack->end());
        edit.add(Splice::bytes(videoTrack->end(), 0, bytes));
        edit.resize(*videoTrack, static_cast<int64_t>(bytes.length));
        edit.resize(*moov, static_cast<int64_t>(bytes.length));
    }
    return edit.run(*this, L"appendSphericalVideoXML");
}

// ---------------------------------------------------------------- spatial data

bool Container::isSpatialDataExist() const
{
    bool found = false;
    find("uuid", [&](BOX& b) {
        found = static_cast<UUID&>(b).hasUserType(SpatialData::_UUID);
        return !found;
    });
    return found;
}

bool Container::appendSpatialData(GLTK::FileIO& source, uint64_t offset, uint64_t length)
{
    if (isSpatialDataExist()) {
        GLTK::Console::out(L"MP4: SpatialData is existed.\n");
        return true;
    }
    bool ok = appendAtEnd(*this, L"appendSpatialData", [&](BinFile& f) {
        return sourceBoxIs(source, offset, length, "uuid", SpatialData::_UUID) &&
               source.seek_set(static_cast<int64_t>(offset)) && source.copyTo(f, length) == length;
    });
    return ok && overwriteSpatialDataOffset(offset);
}

bool Container::trimSpatialData(GLTK::FileIO& source, uint64_t offset, SpatialSound& sound)
{
    if (isSpatialDataExist()) {
        GLTK::Console::out(L"MP4: SpatialData is existed.\n");
        return true;
    }
    if (!sound.trimmed || sound.endByte < sound.startByte) {
        GLTK::Console::out(L"Container::trimSpatialData(%ls) failed: no trimmed track.\n", path.c_str());
        return false;
    }
    const uint64_t kept = sound.endByte - sound.startByte;
    const uint64_t total = sound.buffer.length + kept + 32;
    bool ok = appendAtEnd(*this, L"trimSpatialData", [&](BinFile& f) {
        // The source box must be the spatial data, and the kept bytes must lie
        // inside it; the new box keeps 32-bit sizes.
        uint8_t head[24];
        if (total > UINT32_MAX || offset > source.length() || !source.seek_set(static_cast<int64_t>(offset)) ||
            source.read(head, 24) != 24 || std::memcmp(head + 4, "uuid", 4) != 0 ||
            std::memcmp(head + 8, SpatialData::_UUID, 16) != 0)
            return false;
        const uint64_t from = sound.payloadStart + sound.startByte;
        if (from < sound.payloadStart || from > source.length() || kept > source.length() - from)
            return false;
        ByteArray h;
        h.append32be(static_cast<uint32_t>(total));
        h.append(head + 4, 20); // "uuid" and the user type
        h.append32be(static_cast<uint32_t>(kept + 8));
        h.append("QADT", 4);
        return f.write(h.data, h.length) == h.length && source.seek_set(static_cast<int64_t>(from)) &&
               source.copyTo(f, kept) == kept && sound.writeTrimmedQATR(f);
    });
    // The rebuilt track points into the source payload; the kept bytes now
    // begin 32 bytes into the new box (uuid header, user type, QADT header),
    // so the move is measured from 32 bytes before the source payload.
    return ok && overwriteSpatialDataOffset(sound.payloadStart - 32);
}

bool Container::overwriteSpatialDataOffset(uint64_t oldOffset)
{
    BOX* qadt = spatialChild("uuid.QADT");
    if (qadt == nullptr)
        return false;
    const uint64_t qadtStart = qadt->start, qadtSize = qadt->size;
    const int64_t delta = static_cast<int64_t>(qadt->parent->start - oldOffset);
    if (!modifyContainer(L"overwriteSpatialDataOffset_QADT",
                         [&](BinFile& f) { return modifySpatialTrakSTCOIndex(f, delta); }))
        return false;
    BOX* qdt9 = first("moov.udta.QDT9");
    if (qdt9 == nullptr)
        return true;
    const uint64_t at = qdt9->start;
    const bool fits = clippedEnd(*qdt9, root->size) >= at + 24;
    return modifyContainer(L"overwriteSpatialDataOffset_QDT9", [&](BinFile& f) {
        return fits && f.seek_set(static_cast<int64_t>(at + 8)) && f.write64(qadtStart) && f.write64(qadtSize);
    });
}

// ---------------------------------------------------------------- GPS meta

bool Container::appendGpsMeta(GLTK::FileIO& source, uint64_t offset, uint64_t length)
{
    if (moov == nullptr)
        return false;
    const NestedBox& m = static_cast<const NestedBox&>(*moov);
    if (m.first("meta") != nullptr) {
        GLTK::Console::out(L"MP4: moov.meta(GPS) is existed.\n");
        return true;
    }
    // Behind moov's last child, which moov then grows over.
    const uint64_t at = m.children.empty() ? moov->payloadStart() : m.children.back()->end();
    SpliceEdit edit;
    edit.require(clippedEnd(*moov, root->size) == moov->end() && at <= moov->end());
    Splice s;
    s.at = at;
    s.length = length;
    s.write = [&](BinFile& dst) {
        return sourceBoxIs(source, offset, length, "meta") && source.seek_set(static_cast<int64_t>(offset)) &&
               source.copyTo(dst, length) == length;
    };
    edit.add(std::move(s));
    edit.resize(*moov, static_cast<int64_t>(length));
    return edit.run(*this, L"appendGPSMeta");
}

} // namespace MP4
