// Location boxes in moov.udta: removing loci boxes that cannot be read, and
// adding the position boxes of the GPS record.
#include "MP4Container.h"

#include "GLTKConsole.h"
#include "GPSInfo.h"
#include "MP4Splice.h"

#include <cstring>

namespace MP4 {

namespace {

// A loci body is read at most this far; a longer one is not a location.
constexpr uint64_t kMaxLociBody = 1 << 16;

// The fields of a loci box after its header: version and flags, language,
// zero-terminated name, role, longitude, latitude and altitude (16.16 fixed
// point), zero-terminated body and notes. Good when every field is there and
// the coordinates are on the globe.
bool lociIsGood(const uint8_t* p, uint64_t n)
{
    uint64_t at = 4 + 2;
    auto text = [&]() {
        const void* zero = at < n ? std::memchr(p + at, 0, n - at) : nullptr;
        if (zero == nullptr)
            return false;
        at = static_cast<const uint8_t*>(zero) - p + 1;
        return true;
    };
    if (at > n || !text())
        return false;
    at += 1; // role
    if (at > n || n - at < 12)
        return false;
    const int64_t longitude = static_cast<int32_t>(be32(p + at));
    const int64_t latitude = static_cast<int32_t>(be32(p + at + 4));
    at += 12;
    if (!text() || !text())
        return false;
    return longitude >= -180 * 65536 && longitude <= 180 * 65536 && latitude >= -90 * 65536 && latitude <= 90 * 65536;
}

// Where new boxes go inside a container box: behind its last child (before
// any terminator or padding that follows), or at the start of its payload.
uint64_t endOfChildren(const BOX& parent)
{
    const NestedBox* n = dynamic_cast<const NestedBox*>(&parent);
    if (n == nullptr || n->children.empty())
        return parent.payloadStart();
    return std::min(n->children.back()->end(), parent.end());
}

// Adds the location boxes (and a new udta around them when moov has none) to
// the edit; false when there is nothing to add.
bool addLocations(Container& c, SpliceEdit& edit, const GPSInfo& gps)
{
    BOX* udta = nullptr;
    ByteArray bytes;
    if (!c.build_locationBOX(udta, bytes, gps))
        return false;
    const uint64_t fileLength = c.root->size;
    const BOX& into = udta != nullptr ? *udta : *c.moov;
    edit.require(clippedEnd(into, fileLength) == into.end() && clippedEnd(*c.moov, fileLength) == c.moov->end());
    edit.add(Splice::bytes(endOfChildren(into), 0, bytes));
    edit.resizeWithAncestors(into, static_cast<int64_t>(bytes.length));
    return true;
}

} // namespace

bool Container::build_locationBOX(BOX*& udta, ByteArray& out, const GPSInfo& gps)
{
    out.clear();
    udta = first("moov.udta");
    // Each box only where the movie has none of its kind yet.
    if (first("moov.udta.@xyz") == nullptr) {
        out.append32be(static_cast<uint32_t>(gps.rawXyz.size() + 8));
        out.append("@xyz", 4);
        out.appendText(gps.rawXyz);
    }
    if (first("moov.udta.loci") == nullptr) {
        ByteArray loci;
        loci.append32be(32);
        loci.append("loci", 4);
        loci.append32be(0); // version and flags
        loci.append32be(0); // language, empty name, role
        loci.append32be(gps.lon().toUINT32Fixnum());
        loci.append32be(gps.lat().toUINT32Fixnum());
        loci.append32be(gps.alt().toUINT32Fixnum());
        loci.resize(32); // empty body and notes, then zeros
        out.append(loci);
    }
    if (first("moov.udta.\xA9xyz") == nullptr) {
        const std::string text = gps.to_CXYZ_string();
        out.append32be(static_cast<uint32_t>(text.size() + 12));
        out.append("\xA9xyz", 4);
        out.append16be(static_cast<uint16_t>(text.size()));
        out.append16be(0x15C7); // packed ISO 639-2 "eng"
        out.appendText(text);
    }
    if (out.empty())
        return false;
    if (udta == nullptr) {
        ByteArray wrapped;
        wrapped.append32be(static_cast<uint32_t>(out.length + 8));
        wrapped.append("udta", 4);
        wrapped.append(out);
        out = std::move(wrapped);
    }
    return true;
}

bool Container::appendLocations(const GPSInfo& gps)
{
    if (moov == nullptr)
        return false;
    SpliceEdit edit;
    if (!addLocations(*this, edit, gps)) {
        GLTK::Console::out(L"MP4: No location-boxes were appended.\n");
        return true;
    }
    return edit.run(*this, L"appendLocations");
}

bool Container::appendLocationAndSphericalVideoXML(const GPSInfo& gps, const std::string& xml)
{
    if (moov == nullptr || mdat == nullptr || videoTrack == nullptr)
        return false;
    BOX* existing = nullptr;
    ByteArray sphere;
    build_sphericalVideoXmlBOX(existing, sphere, xml);
    const uint64_t fileLength = root->size;
    SpliceEdit edit;
    // The Spherical Video box first: when the video track is moov's last
    // child, both insertions fall on the same offset and the box must stay
    // inside the track.
    if (existing != nullptr) {
        const int64_t delta = static_cast<int64_t>(sphere.length) - static_cast<int64_t>(existing->size);
        edit.require(clippedEnd(*existing, fileLength) == existing->end());
        edit.add(Splice::bytes(existing->start, existing->size, sphere));
        edit.resizeWithAncestors(*existing->parent, delta);
    } else {
        edit.require(clippedEnd(*videoTrack, fileLength) == videoTrack->end());
        edit.add(Splice::bytes(videoTrack->end(), 0, sphere));
        edit.resizeWithAncestors(*videoTrack, static_cast<int64_t>(sphere.length));
    }
    addLocations(*this, edit, gps);
    return edit.run(*this, L"appendLocationAndSphericalVideoXML");
}

bool Container::removeBadLOCI()
{
    if (first("moov.udta") == nullptr || first("moov.udta.loci") == nullptr)
        return true;
    const uint64_t fileLength = root->size;
    SpliceEdit edit;
    bool any = false;
    open([&](GLTK::FileIO& f) {
        find("moov.udta.loci", [&](BOX& loci) {
            const uint64_t end = clippedEnd(loci, fileLength);
            const uint64_t bodyAt = std::min(loci.payloadStart(), end);
            const uint64_t n = end - bodyAt;
            ByteArray body;
            bool good = false;
            // A box that claims to run past its parent is malformed as well.
            if (n <= kMaxLociBody && end == loci.end()) {
                body.resize(n);
                good = f.seek_set(static_cast<int64_t>(bodyAt)) && (n == 0 || f.read(body.data, n) == n) &&
                       lociIsGood(body.data, n);
            }
            if (!good) {
                // Removed as far as it really reaches; udta and moov shrink.
                const uint64_t removed = end - loci.start;
                edit.add(Splice::bytes(loci.start, removed, ByteArray()));
                edit.resizeWithAncestors(*loci.parent, -static_cast<int64_t>(removed));
                edit.require(clippedEnd(*loci.parent, fileLength) == loci.parent->end());
                any = true;
            }
            return true;
        });
    });
    if (!any)
        return true;
    edit.require(clippedEnd(*moov, fileLength) == moov->end());
    return edit.run(*this, L"removeBadLOCI");
}

} // namespace MP4
