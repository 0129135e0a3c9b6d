#pragma once
// uuid boxes: a box header, a 16-byte user type and a payload. The XMP packet,
// the axis record and the Spherical Video V1 XML are payloads of their own
// user types (read from the file when needed); the spatial-data box holds
// child boxes instead (QADT, QATR).
#include "MP4BoxTree.h"

#include <cstdint>
#include <string>

namespace MP4 {

class UUID : public NestedBox {
public:
    using NestedBox::NestedBox;
    bool hasChild() const override;
    bool parseBox(BinFile& file) override;
    void dump() const override;
    bool hasUserType(const uint8_t (&uuid)[16]) const;
    // Where the payload begins: after the header and the user type.
    uint64_t userPayloadStart() const { return payloadStart() + 16; }
    uint64_t userPayloadSize() const { return payloadSize() - 16; }

    // A uuid box: size, "uuid", the user type, the payload as given.
    static ByteArray bytes(const uint8_t (&userType)[16], const std::string& payload);

    uint8_t userType[16] = {};
    // The header and the user type.
    static constexpr uint64_t kHeader = 24;
};

// The user types the program knows.
namespace SpatialData {
extern const uint8_t _UUID[16];
}
namespace XMP {
extern const uint8_t _UUID[16];
}
namespace AXIS {
extern const uint8_t _UUID[16];
}
namespace SphericalXML {
extern const uint8_t _UUID[16];
}

} // namespace MP4
