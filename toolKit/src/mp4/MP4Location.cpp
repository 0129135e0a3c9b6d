// The location boxes of moov.udta: their parse and their serialisers.
#include "MP4Box.h"

#include <algorithm>
#include <cstring>

namespace MP4 {

namespace {
// A loci body is read at most this far; a longer one is not a location.
constexpr uint64_t kMaxLociBody = 1 << 16;
} // namespace

void LOCI::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    uint64_t n = payloadSize();
    if (n > kMaxLociBody || !file.fits(n)) {
        body.clear();
        return;
    }
    body.resize(n);
    if (n > 0 && !file.readBytes(body.data, n))
        body.clear();
}

// The fields after the header: version and flags, language, zero-terminated
// name, role, longitude, latitude and altitude (16.16 fixed point),
// zero-terminated body and notes.
bool LOCI::isGood() const
{
    const uint8_t* p = body.data;
    const uint64_t n = body.length;
    if (n != payloadSize())
        return false; // cut short, or too long to be a location
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

ByteArray LOCI::bytes(uint32_t longitude, uint32_t latitude, uint32_t altitude)
{
    ByteArray out;
    appendHeader(out, "loci", 32);
    out.append32be(0); // version and flags
    out.append32be(0); // language, empty name, role
    out.append32be(longitude);
    out.append32be(latitude);
    out.append32be(altitude);
    out.resize(32); // empty body and notes, then zeros
    return out;
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

ByteArray XYZ::bytes(const std::string& text)
{
    ByteArray out;
    appendHeader(out, "\xA9xyz", text.size() + 12);
    out.append16be(static_cast<uint16_t>(text.size()));
    out.append16be(kEnglish);
    out.appendText(text);
    return out;
}

ByteArray ATXYZ::bytes(const std::string& text)
{
    ByteArray out;
    appendHeader(out, "@xyz", text.size() + 8);
    out.appendText(text);
    return out;
}

} // namespace MP4
