#pragma once
// A non-owning view of an open file with a read limit: every field read by a
// box parser goes through the bounded reads here, so that a size field can
// never push a read past its box. Reads beyond the limit yield 0 and leave the
// position where it was.
#include "GLTKFileIO.h"

#include <cstdint>

namespace MP4 {

class BinFile : public GLTK::FileIO {
public:
    explicit BinFile(const GLTK::FileIO& file) : GLTK::FileIO(file, true) {}
    BinFile(const BinFile& other) : GLTK::FileIO(other, true), limit(other.limit) {}
    ~BinFile() override { descriptor = 0; } // the owner closes the file

    uint64_t limit = UINT64_MAX;

    // True when n more bytes may be read at the current position.
    bool fits(uint64_t n) const { return limit >= n && position <= limit - n; }

    uint8_t read8() { return static_cast<uint8_t>(readN(1)); }
    uint16_t read16() { return static_cast<uint16_t>(readN(2)); }
    uint32_t read24() { return static_cast<uint32_t>(readN(3)); }
    uint32_t read32() { return static_cast<uint32_t>(readN(4)); }
    uint64_t read64() { return readN(8); }
    // Four bytes as they stand in the file (a box type), 0 past the limit.
    uint32_t readType()
    {
        uint8_t b[4];
        if (!fits(4) || read(b, 4) != 4)
            return 0;
        uint32_t t;
        __builtin_memcpy(&t, b, 4);
        return t;
    }
    // Bounded read of n raw bytes; false (and nothing consumed) past the limit.
    bool readBytes(void* dst, uint64_t n)
    {
        if (!fits(n))
            return false;
        if (n == 0)
            return true;
        uint64_t before = position;
        if (read(dst, n) != n) {
            seek_set(static_cast<int64_t>(before));
            return false;
        }
        return true;
    }

private:
    uint64_t readN(unsigned n)
    {
        uint8_t b[8];
        if (!fits(n))
            return 0;
        uint64_t before = position;
        if (read(b, n) != n) {
            if (position != before)
                seek_set(static_cast<int64_t>(before));
            return 0;
        }
        uint64_t v = 0;
        for (unsigned i = 0; i < n; ++i)
            v = v << 8 | b[i];
        return v;
    }
};

// Box types are compared as 32-bit values holding the four code bytes in file
// order.
constexpr uint32_t fourcc(const char* s)
{
    // Little-endian host: the first code byte is the lowest.
    return uint32_t(uint8_t(s[0])) | uint32_t(uint8_t(s[1])) << 8 | uint32_t(uint8_t(s[2])) << 16 |
           uint32_t(uint8_t(s[3])) << 24;
}

} // namespace MP4
