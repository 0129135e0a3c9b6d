#pragma once
// A byte queue with a bit accumulator, most significant bit first. Used to
// take apart and rebuild codec configuration records. Misuse throws a plain C
// string: "no more data" or "bits existed".
#include "ByteArray.h"

#include <cstdint>

struct Bits {
    uint32_t pattern = 0; // right-aligned
    uint32_t length = 0;  // in bits
};

class BitStream : public ByteArray {
public:
    // Replaces the queue by a copy of the array's bytes.
    void attach(const ByteArray& bytes);
    uint32_t next_bit();
    Bits read_bits(int n);
    uint8_t read8();
    uint16_t read16n();
    void read_bytes(uint64_t n, ByteArray& out);

    void write_bits(uint64_t value, int n);
    void write8(uint8_t byte);
    void write16n(uint16_t value);
    void write_bytes(const ByteArray& bytes);
    void flush_bits();

    // Bytes still queued for reading.
    uint64_t remaining() const { return length - head; }
    // The bytes queued (for a writer: what has been written so far).
    const uint8_t* front() const { return data + head; }

    uint64_t accumulator = 0;
    int32_t bitCount = 0;

private:
    void take(uint64_t n);
    uint64_t head = 0; // index of the front byte in the queue
};
