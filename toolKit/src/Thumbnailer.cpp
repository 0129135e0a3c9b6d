#include "Thumbnailer.h"

#include "GLTKConsole.h"
#include "GLTKMediaModule.h"
#include "GLTKwchar.h"

#include <cstdio>
#include <memory>
#include <turbojpeg.h>

namespace {

// The movie's first frame as BGRA, scaled down to fit maximum (0 x 0: full
// size); false when the movie cannot be opened or decoded.
bool buildFrame(const std::wstring& path, GLTK::Size maximum, GLTK::Picture& picture)
{
    const GLTK::MediaFunctions* media = GLTK::MediaModule::functions();
    return media != nullptr && media->firstFrame(GLTK::wchar::narrow(path), maximum, picture);
}

// JPEG of the frame at quality 1..100 (4:2:0) into out.
bool encode(const GLTK::Picture& frame, int quality, ByteArray& out)
{
    tjhandle tj = tjInitCompress();
    if (tj == nullptr)
        return false;
    unsigned char* jpeg = nullptr;
    unsigned long size = 0;
    int ret = tjCompress2(tj, frame.pixels, frame.width, frame.bytesPerRow, frame.height, TJPF_BGRA, &jpeg,
                          &size, TJSAMP_420, quality, 0);
    bool ok = ret == 0 && jpeg != nullptr && size > 0;
    if (ok)
        out.assign(jpeg, size);
    tjFree(jpeg);
    tjDestroy(tj);
    return ok;
}

} // namespace

bool Thumbnailer::saveFrame(const std::wstring& jpegPath)
{
    GLTK::Picture frame;
    if (!buildFrame(path, GLTK::Size(), frame))
        return false;
    ByteArray jpeg;
    if (!encode(frame, kFileQuality, jpeg))
        return false;
    FILE* f = std::fopen(GLTK::wchar::narrow(jpegPath).c_str(), "wb");
    if (f == nullptr)
        return false;
    bool ok = std::fwrite(jpeg.data, 1, size_t(jpeg.length), f) == size_t(jpeg.length);
    ok = std::fclose(f) == 0 && ok;
    return ok;
}

bool Thumbnailer::saveFrame(ByteArray& out, int width, size_t targetSize)
{
    static const char* name = "bool Thumbnailer::saveFrame(ByteArray &, int, size_t)";
    static const wchar_t* wname = L"bool Thumbnailer::saveFrame(ByteArray &, int, size_t)";
    GLTK::Size maximum = width > 0 ? GLTK::Size{width, width / 2} : GLTK::Size();
    GLTK::Picture frame;
    if (!buildFrame(path, maximum, frame))
        return false;
    // Qualities 0.80, 0.75, ..., 0.15 in whole percent, so that rounding can
    // never add or drop an attempt: fourteen encodings at most.
    for (int percent = 80; percent > 10; percent -= 5) {
        if (!encode(frame, percent, out))
            return false;
        size_t size = removeAPPX(out);
        if (size <= targetSize) {
            GLTK::Console::out(L"%s: targetSize:%lu->%lu\n", name, static_cast<unsigned long>(targetSize),
                               static_cast<unsigned long>(size));
            return true;
        }
    }
    GLTK::Console::out(L"%ls failed - targetSize:%lu\n", wname, static_cast<unsigned long>(targetSize));
    return false;
}

size_t Thumbnailer::removeAPPX(ByteArray& jpeg)
{
    if (jpeg.length <= 1) {
        jpeg.clear();
        return 0;
    }
    uint8_t* p = jpeg.data;
    if (p[0] != 0xFF || p[1] != 0xD8)
        return size_t(jpeg.length);
    size_t pos = 2;
    size_t remain = size_t(jpeg.length) - 2;
    // APP0..APP15 segments right after the start of image: marker, 16-bit
    // length (which counts itself), payload.
    while (remain >= 4 && p[pos] == 0xFF && (p[pos + 1] & 0xF0) == 0xE0) {
        size_t segment = size_t(be16(p + pos + 2)) + 2;
        if (segment > remain)
            break;
        pos += segment;
        remain -= segment;
    }
    if (pos > 2)
        std::memmove(p + 2, p + pos, remain);
    jpeg.resize(remain + 2);
    return remain + 2;
}
