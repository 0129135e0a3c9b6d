// uuid boxes: the user types the program knows, their parse, serialiser,
// dump line and the factory's entries.
#include "MP4Box.h"

#include "GLTKConsole.h"

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

const BoxKinds& uuidBoxKinds()
{
    static const BoxKinds kinds = {
        {"root", "uuid", newBox<UUID>}, {"trak", "uuid", newBox<UUID>}, {"uuid", "QATR", newBox<TRAK>}};
    return kinds;
}

bool UUID::hasUserType(const uint8_t (&uuid)[16]) const
{
    return std::memcmp(userType, uuid, 16) == 0;
}

bool UUID::hasChild() const
{
    return hasUserType(SpatialData::_UUID);
}

bool UUID::parseBox(BinFile& file)
{
    if (!file.readBytes(userType, 16))
        return fail("too short for its user type");
    if (hasChild())
        parseChildren(file);
    return true;
}

ByteArray UUID::bytes(const uint8_t (&userType)[16], const std::string& payload)
{
    ByteArray out;
    appendHeader(out, "uuid", payload.size() + 24);
    out.append(userType, 16);
    out.appendText(payload);
    return out;
}

void UUID::dump() const
{
    if (hasChild()) {
        NestedBox::dump();
        return;
    }
    wchar_t u[40];
    const uint8_t* t = userType;
    swprintf(u, 40, L"%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", t[0], t[1], t[2], t[3],
             t[4], t[5], t[6], t[7], t[8], t[9], t[10], t[11], t[12], t[13], t[14], t[15]);
    GLTK::Console::out(L"MP4: %ls<%ls uuid=%ls payload=%llu >\n", indent().c_str(), basicTag().c_str(), u,
                       static_cast<unsigned long long>(userPayloadSize()));
}

} // namespace MP4
