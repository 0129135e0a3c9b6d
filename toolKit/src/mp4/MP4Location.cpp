// The location boxes of moov.udta: their parse, serialisers, dump line and
// the factory's entries.
#include "MP4Box.h"

#include "GLTKConsole.h"
#include "GLTKwchar.h"

#include <cstring>

namespace MP4 {

namespace {
// A loci body is read at most this far; a longer one is not a location.
constexpr uint64_t kMaxLociBody = 1 << 16;
} // namespace

const BoxKinds& locationBoxKinds()
{
    static const BoxKinds kinds = {{"udta", "loci", newBox<LOCI>}, {"udta", "\xA9xyz", newBox<XYZ>}};
    return kinds;
}

// The fields after the header: version and flags, language, zero-terminated
// name, role, longitude, latitude and altitude (16.16 fixed point),
// zero-terminated body and notes.
bool LOCI::parseBox(BinFile& file)
{
    const uint64_t n = payloadSize();
    if (n > kMaxLociBody)
        return fail("too long to be a location");
    ByteArray body;
    body.resize(n);
    RCHECK(file.readBytes(body.data, n));
    const uint8_t* p = body.data;
    uint64_t at = 4 + 2;
    auto text = [&]() {
        const void* zero = at < n ? std::memchr(p + at, 0, n - at) : nullptr;
        if (zero == nullptr)
            return false;
        at = static_cast<const uint8_t*>(zero) - p + 1;
        return true;
    };
    RCHECK(at <= n && text());
    at += 1; // role
    RCHECK(at <= n && n - at >= 12);
    longitude = static_cast<int32_t>(be32(p + at));
    latitude = static_cast<int32_t>(be32(p + at + 4));
    at += 12;
    RCHECK(text() && text());
    if (longitude < -180 * 65536 || longitude > 180 * 65536 || latitude < -90 * 65536 || latitude > 90 * 65536)
        return fail("its position is off the globe");
    return true;
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

bool XYZ::parseBox(BinFile& file)
{
    uint16_t n = 0, language = 0;
    RCHECK(file.read16(n) && file.read16(language));
    text.assign(n, '\0');
    return file.readBytes(text.data(), n);
}

void XYZ::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls text=%ls >\n", indent().c_str(), basicTag().c_str(),
                       GLTK::wchar::mbs2wcs(text).c_str());
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
