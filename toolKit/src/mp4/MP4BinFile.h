#pragma once
// A non-owning view of an open file with a read limit: every field a box
// parser reads goes through the bounded reads here, and each says whether
// the field was there. A read that would pass the limit gives false and
// consumes nothing, so a size field can never push a read past its box, and
// a field cut short is never taken for a zero.
#include "GLTKFileIO.h"

#include <cstdint>

namespace MP4 {

// Ends a parse (with false) at the first field that is not there.
#define RCHECK(condition)      \
    do {                       \
        if (!(condition))      \
            return false;      \
    } while (0)

class BinFile : public GLTK::FileIO {
public:
    explicit BinFile(const GLTK::FileIO& file) : GLTK::FileIO(file, true) {}
    BinFile(const BinFile& other) : GLTK::FileIO(other, true), limit(other.limit) {}
    ~BinFile() override { descriptor = 0; } // the owner closes the file

    uint64_t limit = UINT64_MAX;

    // True when n more bytes may be read at the current position.
    bool fits(uint64_t n) const { return limit >= n && position <= limit - n; }

    bool read8(uint8_t& v) { return readN(1, v); }
    bool read16(uint16_t& v) { return readN(2, v); }
    bool read24(uint32_t& v) { return readN(3, v); }
    bool read32(uint32_t& v) { return readN(4, v); }
    bool read64(uint64_t& v) { return readN(8, v); }
    // Four bytes as they stand in the file (a box type).
    bool readType(uint32_t& type)
    {
        uint8_t b[4];
        if (!readBytes(b, 4))
            return false;
        __builtin_memcpy(&type, b, 4);
        return true;
    }
    // n raw bytes.
    bool readBytes(void* dst, uint64_t n)
    {
        if (!fits(n))
            return false;
        if (n == 0)
            return true;
        const uint64_t before = position;
        if (read(dst, n) != n) {
            seek_set(static_cast<int64_t>(before));
            return false;
        }
        return true;
    }
    // Moves to an offset at or before the limit.
    bool moveTo(uint64_t at) { return at <= limit && seek_set(static_cast<int64_t>(at)); }
    bool skip(uint64_t n) { return fits(n) && seek_set(static_cast<int64_t>(position + n)); }

private:
    template <class T> bool readN(unsigned n, T& v)
    {
        uint8_t b[8];
        if (!readBytes(b, n))
            return false;
        uint64_t x = 0;
        for (unsigned i = 0; i < n; ++i)
            x = x << 8 | b[i];
        v = static_cast<T>(x);
        return true;
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
