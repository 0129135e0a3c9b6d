// The media module's side of GLTKMediaModule: fills in the toolkit's entries
// as the module (or a program that links this code in) starts.
#include "GLTKMediaModule.h"
#include "GLTKVideoReader.h"

namespace {

bool describeSource(const std::string& url, GLTK::Size& size, GLTK::MediaTime& duration, float& nominalFrameRate,
                    float* audioSampleRate)
{
    return GLTKVideoReader::describeSource(url, size, duration, nominalFrameRate, audioSampleRate);
}

bool firstFrame(const std::string& url, GLTK::Size maximum, GLTK::Picture& picture)
{
    std::shared_ptr<const GLTK::VideoFrame> frame =
        GLTKVideoReader::copyFirstFrame(url, maximum, GLTK::kPixelFormat_BGRA);
    if (!frame)
        return false;
    picture.width = frame->width();
    picture.height = frame->height();
    picture.bytesPerRow = frame->bytesPerRow(0);
    picture.pixels = frame->plane(0);
    picture.keep = std::move(frame);
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
