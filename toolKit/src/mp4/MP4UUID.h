#pragma once
// uuid boxes: a box header, a 16-byte user type and a payload. The XMP packet,
// the axis record and the Spherical Video V1 XML are payloads of their own
// user types; the spatial-data box holds child boxes instead (QADT, QATR).
#include "MP4BoxTree.h"

#include <cstdint>
#include <string>

namespace MP4 {

class UUID : public NestedBox {
public:
    using NestedBox::NestedBox;
    UUID() = default;
    // An in-memory box holding the payload (depth 0, start 0, all-zero user
    // type until a subclass sets it).
    UUID(const void* payload, uint64_t n);
    bool hasChild() const override;
    void parseBox(BinFile& file, uint64_t end) override;
    BOX* allocChild(BOX& header) override;
    void dump() const override;
    bool hasUserType(const uint8_t (&uuid)[16]) const;

    // The box as it is written: size (payload + 24), "uuid", user type,
    // payload exactly as given.
    ByteArray bytes() const;

    uint8_t userType[16] = {};
    ByteArray payload;
    // Payloads above this are not loaded (the box is still copied whole).
    static constexpr uint64_t kMaxPayload = 16 << 20;
    static constexpr uint64_t kHeader = 24;
};

namespace SpatialData {
extern const uint8_t _UUID[16];
}

class XMP : public UUID {
public:
    static const uint8_t _UUID[16];
    XMP(const std::string& text);
};
class AXIS : public UUID {
public:
    static const uint8_t _UUID[16];
    AXIS(const std::string& text);
};
class SphericalXML : public UUID {
public:
    static const uint8_t _UUID[16];
    SphericalXML(const std::string& text);
};

} // namespace MP4
