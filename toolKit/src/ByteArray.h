#pragma once
// An owned, growable byte buffer on the C heap.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

class ByteArray {
public:
    ByteArray() = default;
    ByteArray(const void* bytes, uint64_t n) { assign(bytes, n); }
    ByteArray(const ByteArray& other) { assign(other.data, other.length); }
    ByteArray(ByteArray&& other) noexcept : data(other.data), length(other.length)
    {
        other.data = nullptr;
        other.length = 0;
    }
    ByteArray& operator=(const ByteArray& other)
    {
        if (this != &other)
            assign(other.data, other.length);
        return *this;
    }
    ByteArray& operator=(ByteArray&& other) noexcept
    {
        if (this != &other) {
            std::free(data);
            data = other.data;
            length = other.length;
            other.data = nullptr;
            other.length = 0;
        }
        return *this;
    }
    virtual ~ByteArray() { std::free(data); }

    // Resizes to n bytes; new bytes are zero. Throws std::bad_alloc on failure.
    void resize(uint64_t n)
    {
        if (n == 0) {
            clear();
            return;
        }
        void* p = std::realloc(data, static_cast<size_t>(n));
        if (p == nullptr)
            throw std::bad_alloc();
        data = static_cast<uint8_t*>(p);
        if (n > length)
            std::memset(data + length, 0, static_cast<size_t>(n - length));
        length = n;
    }
    void clear()
    {
        std::free(data);
        data = nullptr;
        length = 0;
    }
    void assign(const void* bytes, uint64_t n)
    {
        clear();
        append(bytes, n);
    }
    void append(const void* bytes, uint64_t n)
    {
        if (n == 0)
            return;
        uint64_t old = length;
        resize(length + n);
        if (bytes != nullptr)
            std::memcpy(data + old, bytes, static_cast<size_t>(n));
    }
    void append(const ByteArray& other) { append(other.data, other.length); }
    void append8(uint8_t v) { append(&v, 1); }
    void append16be(uint16_t v)
    {
        uint8_t b[2] = {uint8_t(v >> 8), uint8_t(v)};
        append(b, 2);
    }
    void append32be(uint32_t v)
    {
        uint8_t b[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
        append(b, 4);
    }
    void append64be(uint64_t v)
    {
        append32be(uint32_t(v >> 32));
        append32be(uint32_t(v));
    }
    void appendText(const std::string& s) { append(s.data(), s.size()); }
    std::string toString() const { return std::string(reinterpret_cast<const char*>(data), static_cast<size_t>(length)); }

    uint64_t size() const { return length; }
    bool empty() const { return length == 0; }

    uint8_t* data = nullptr;
    uint64_t length = 0;
};

// Big-endian helpers for byte buffers.
inline uint16_t be16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }
inline uint32_t be32(const uint8_t* p)
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
}
inline uint64_t be64(const uint8_t* p) { return uint64_t(be32(p)) << 32 | be32(p + 4); }
inline void put16be(uint8_t* p, uint16_t v)
{
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}
inline void put32be(uint8_t* p, uint32_t v)
{
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
inline void put64be(uint8_t* p, uint64_t v)
{
    put32be(p, uint32_t(v >> 32));
    put32be(p + 4, uint32_t(v));
}
