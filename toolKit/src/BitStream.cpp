#include "BitStream.h"

void BitStream::attach(const ByteArray& bytes)
{
    assign(bytes.data, bytes.length);
    head = 0;
}

void BitStream::take(uint64_t n)
{
    head += n;
    if (head == length) {
        clear();
        head = 0;
    }
}

uint32_t BitStream::next_bit()
{
    if (bitCount == 0) {
        if (remaining() == 0)
            throw "no more data";
        accumulator = data[head];
        bitCount = 8;
        take(1);
    }
    --bitCount;
    return static_cast<uint32_t>((accumulator >> bitCount) & 1);
}

Bits BitStream::read_bits(int n)
{
    Bits b;
    if (n < 1)
        return b;
    b.length = static_cast<uint32_t>(n);
    for (int i = 0; i < n; ++i)
        b.pattern = (b.pattern << 1) | next_bit();
    return b;
}

uint8_t BitStream::read8()
{
    if (bitCount > 0)
        throw "bits existed";
    if (remaining() < 1)
        throw "no more data";
    uint8_t v = data[head];
    take(1);
    return v;
}

uint16_t BitStream::read16n()
{
    if (bitCount > 0)
        throw "bits existed";
    if (remaining() < 2)
        throw "no more data";
    uint16_t v = be16(data + head);
    take(2);
    return v;
}

void BitStream::read_bytes(uint64_t n, ByteArray& out)
{
    if (bitCount > 0)
        throw "bits existed";
    if (remaining() < n)
        throw "no more data";
    out.assign(data + head, n);
    if (n > 0)
        take(n);
}

void BitStream::write_bits(uint64_t value, int n)
{
    if (n < 1)
        return;
    if (n > 32) {
        // Wide fields go in two parts so that pending bits never shift out of
        // the accumulator; bits above the 64 of value are zeros.
        write_bits(n - 32 >= 64 ? 0 : value >> 32, n - 32);
        write_bits(value & 0xFFFFFFFFull, 32);
        return;
    }
    accumulator = (accumulator << n) | (value & ((1ull << n) - 1));
    bitCount += n;
    while (bitCount >= 8) {
        bitCount -= 8;
        append8(static_cast<uint8_t>(accumulator >> bitCount));
        accumulator &= (bitCount == 0) ? 0 : ((1ull << bitCount) - 1);
    }
}

void BitStream::write8(uint8_t byte)
{
    if (bitCount > 0)
        throw "bits existed";
    append8(byte);
}

void BitStream::write16n(uint16_t value)
{
    if (bitCount > 0)
        throw "bits existed";
    append16be(value);
}

void BitStream::write_bytes(const ByteArray& bytes)
{
    if (bitCount > 0)
        throw "bits existed";
    append(bytes);
}

void BitStream::flush_bits()
{
    if (bitCount > 0)
        write_bits(0, 8 - bitCount);
}
