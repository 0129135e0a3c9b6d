#pragma once
// The header boxes of a movie, its tracks and their media (mvhd, tkhd, mdhd,
// hdlr), and the top-level file-type and media-data boxes.
#include "MP4BoxTree.h"

#include <cstdint>

namespace MP4 {

class FTYP : public BOX {
public:
    explicit FTYP(const BOX& h) { copyHeader(h); }
};
class MDAT : public BOX {
public:
    explicit MDAT(const BOX& h) { copyHeader(h); }
};

// The creation time of mvhd, tkhd and mdhd lies right after the full-box
// header: 4 bytes in version 0, 8 in version 1.
constexpr uint64_t kCreationTimeAt = 12;

class MVHD : public BOX {
public:
    explicit MVHD(const BOX& h) { copyHeader(h); }
    bool parseBox(BinFile& file) override;
    void dump() const override;
    uint8_t version = 0;
    uint64_t creationTime = 0, modificationTime = 0, duration = 0;
    uint32_t timeScale = 0;
    double seconds() const { return timeScale ? double(duration) / timeScale : 0.0; }
};

class TKHD : public BOX {
public:
    explicit TKHD(const BOX& h) { copyHeader(h); }
    bool parseBox(BinFile& file) override;
    void dump() const override;
    uint8_t version = 0;
    uint64_t creationTime = 0, duration = 0;
    uint32_t trackId = 0;
    uint32_t width = 0, height = 0; // whole pixels
};

class MDHD : public BOX {
public:
    explicit MDHD(const BOX& h) { copyHeader(h); }
    bool parseBox(BinFile& file) override;
    void dump() const override;
    // The box of these fields, in its own version.
    ByteArray bytes() const;
    uint8_t version = 0;
    uint32_t flags = 0;
    uint64_t creationTime = 0, modificationTime = 0, duration = 0;
    uint32_t timeScale = 0;
    uint16_t language = 0, preDefined = 0;
};

class HDLR : public BOX {
public:
    explicit HDLR(const BOX& h) { copyHeader(h); }
    bool parseBox(BinFile& file) override;
    void dump() const override;
    uint32_t handlerType = 0;
};

} // namespace MP4
