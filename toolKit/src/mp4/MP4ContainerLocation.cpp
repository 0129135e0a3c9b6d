// Location boxes in moov.udta: removing loci boxes that cannot be read, and
// adding the position boxes of the GPS record.
#include "MP4Container.h"

#include "GLTKConsole.h"
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

} // namespace

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
