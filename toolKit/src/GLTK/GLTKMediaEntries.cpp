// The media module's side of GLTKMediaModule: fills in the toolkit's entries
// as the module (or a program that links this code in) starts.
#include "GLTKMediaModule.h"
#include "GLTKVideoReader.h"

#include <cstring>

namespace {

bool describeSource(const std::string& url, GLTK::Size& size, GLTK::MediaTime& duration, float& nominalFrameRate,
                    float* audioSampleRate)
{
    return GLTKVideoReader::describeSource(url, size, duration, nominalFrameRate, audioSampleRate);
}

bool firstFrame(const std::string& url, GLTK::Size maximum, GLTK::Picture& picture)
{
    std::unique_ptr<GLTK::VideoFrame> frame = GLTKVideoReader::copyFirstFrame(url, maximum, GLTK::kPixelFormat_BGRA);
    if (!frame)
        return false;
    picture.width = frame->width();
    picture.height = frame->height();
    picture.bytesPerRow = picture.width * 4;
    picture.pixels.resize(static_cast<size_t>(picture.bytesPerRow) * static_cast<size_t>(picture.height));
    const int stride = frame->bytesPerRow(0);
    for (int y = 0; y < picture.height; ++y)
        std::memcpy(picture.pixels.data() + static_cast<size_t>(y) * picture.bytesPerRow,
                    frame->plane(0) + static_cast<ptrdiff_t>(y) * stride, static_cast<size_t>(picture.bytesPerRow));
    return true;
}

const bool provided = [] {
    GLTK::MediaFunctions entries;
    entries.describeSource = describeSource;
    entries.firstFrame = firstFrame;
    GLTK::MediaModule::provide(entries);
    return true;
}();

} // namespace
