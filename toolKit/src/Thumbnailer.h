#pragma once
// JPEG stills of a movie's first frame: a full-size file, or a JPEG of a
// given width squeezed under a byte limit (to refill a fixed-size box).
#include "ByteArray.h"

#include <cstddef>
#include <string>

class Thumbnailer {
public:
    explicit Thumbnailer(const std::wstring& moviePath) : path(moviePath) {}

    // Writes the first frame, full size, as a JPEG file at jpegPath.
    bool saveFrame(const std::wstring& jpegPath);

    // A JPEG of the first frame scaled to fit width x width/2, with its APPn
    // segments stripped, of at most targetSize bytes. Tries the qualities
    // 0.80, 0.75, ... 0.15 in turn; prints the size reached, or a failure
    // line (the last attempt then stays in out).
    bool saveFrame(ByteArray& out, int width, size_t targetSize);

    // Removes the APPn segments that directly follow the start-of-image
    // marker of the JPEG in jpeg; returns the new size (0, with the buffer
    // freed, for a buffer of 0 or 1 byte; unchanged for a buffer that is not
    // a JPEG).
    static size_t removeAPPX(ByteArray& jpeg);

    // Quality of a full-size file thumbnail.
    static constexpr int kFileQuality = 90;

private:
    std::wstring path;
};
