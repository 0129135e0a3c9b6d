// uuid boxes: the user types the program knows, their parse and serialiser.
#include "MP4Box.h"

#include <algorithm>
#include <cstring>

namespace MP4 {

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
    size = n + kHeader;
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
    return size >= kHeader && std::memcmp(userType, uuid, 16) == 0;
}

bool UUID::hasChild() const
{
    return hasUserType(SpatialData::_UUID);
}

void UUID::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    if (size < kHeader || !file.readBytes(userType, 16))
        return;
    if (hasChild()) {
        parseChildren(file, end);
        return;
    }
    uint64_t n = size - kHeader;
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

ByteArray UUID::bytes() const
{
    ByteArray out;
    appendHeader(out, "uuid", payload.length + kHeader);
    out.append(userType, 16);
    out.append(payload);
    return out;
}

} // namespace MP4
