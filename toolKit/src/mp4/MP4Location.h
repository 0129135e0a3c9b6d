#pragma once
// The location boxes of moov.udta: loci (ISO 639 location information), the
// box coded A9 78 79 7A (a text position with a language code) and the one
// coded 40 78 79 7A ("@xyz", the camera's raw ISO 6709 text).
#include "MP4BoxTree.h"

#include <cstdint>
#include <string>

namespace MP4 {

// Read only when every field is there and the coordinates are on the globe.
class LOCI : public BOX {
public:
    explicit LOCI(const BOX& h) { copyHeader(h); }
    bool parseBox(BinFile& file) override;
    // A loci box with an empty name, body and notes; the coordinates are
    // 16.16 fixed-point values.
    static ByteArray bytes(uint32_t longitude, uint32_t latitude, uint32_t altitude);
    int32_t longitude = 0, latitude = 0; // 16.16 fixed point
};

// The box coded A9 78 79 7A: a 16-bit text length, a language code, the text.
class XYZ : public BOX {
public:
    explicit XYZ(const BOX& h) { copyHeader(h); }
    bool parseBox(BinFile& file) override;
    void dump() const override;
    // The box for a text, in English (packed ISO 639-2 "eng").
    static ByteArray bytes(const std::string& text);
    static constexpr uint16_t kEnglish = 0x15C7;
    std::string text;
};

// "@xyz": the text as it stands, without terminator.
namespace ATXYZ {
ByteArray bytes(const std::string& text);
}

} // namespace MP4
