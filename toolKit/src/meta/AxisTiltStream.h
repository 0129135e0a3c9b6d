#pragma once
// The axis-tilt data the older cameras keep in a top-level uuid box. Its
// payload is one stream in the camera's sensor-stream layout: a 16-byte header
// (record count, extra value, record size, byte-order mark 0x0123 or 0x3210)
// followed by fixed-size records, one per video frame.
#include <cstdint>
#include <string>

class AxisTiltStream {
public:
    AxisTiltStream() = default;
    explicit AxisTiltStream(const std::string& bytes) : data(bytes) {}

    // The serialized stream as it is stored in the box.
    const std::string& toBinary() const { return data; }
    // Keeps count records from index start, moving them to the front and
    // rewriting the record count; returns the new byte length. A payload that
    // is not a well-formed stream, or a range outside it, is left as it is and
    // its whole length is returned.
    uint64_t trim(uint32_t start, uint32_t count);

    // -1: zenith correction was applied, -2: it was not, other: unknown.
    int zenithCorrectionState = 0;

private:
    std::string data;
};
