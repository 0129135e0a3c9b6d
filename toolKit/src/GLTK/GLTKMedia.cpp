#include "GLTKMedia.h"

#include "GLTKConsole.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <unistd.h>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/pixdesc.h>
}

namespace GLTK {

MediaTime MediaTime::fromSeconds(double seconds, int32_t timescale)
{
    if (timescale <= 0 || !std::isfinite(seconds))
        return MediaTime::invalid();
    double v = std::round(seconds * double(timescale));
    if (v > 9.2e18)
        v = 9.2e18;
    if (v < -9.2e18)
        v = -9.2e18;
    return MediaTime(static_cast<int64_t>(v), timescale);
}

MediaTime MediaTime::convertScale(int32_t newTimescale) const
{
    if (!isValid() || newTimescale <= 0)
        return MediaTime::invalid();
    if (newTimescale == timescale)
        return *this;
    __int128 n = static_cast<__int128>(value) * newTimescale;
    __int128 half = timescale / 2;
    __int128 q = (n >= 0 ? n + half : n - half) / timescale;
    return MediaTime(static_cast<int64_t>(q), newTimescale);
}

int MediaTime::compare(const MediaTime& other) const
{
    __int128 a = static_cast<__int128>(value) * (other.timescale > 0 ? other.timescale : 1);
    __int128 b = static_cast<__int128>(other.value) * (timescale > 0 ? timescale : 1);
    return a < b ? -1 : (a > b ? 1 : 0);
}

MediaTime MediaTimeRange::end() const
{
    if (!start.isValid() || !duration.isValid())
        return MediaTime::invalid();
    int32_t ts = start.timescale >= duration.timescale ? start.timescale : duration.timescale;
    MediaTime a = start.convertScale(ts);
    MediaTime b = duration.convertScale(ts);
    return MediaTime(a.value + b.value, ts);
}

VideoFrame::VideoFrame(AVFrame* f) : frame(f) {}

VideoFrame::~VideoFrame() { av_frame_free(&frame); }

int VideoFrame::width() const { return frame->width; }
int VideoFrame::height() const { return frame->height; }

uint32_t VideoFrame::pixelFormatType() const
{
    switch (frame->format) {
    case AV_PIX_FMT_NV12:
        return frame->color_range == AVCOL_RANGE_JPEG ? kPixelFormat_420f : 0;
    case AV_PIX_FMT_YUV420P:
        return frame->color_range == AVCOL_RANGE_JPEG ? kPixelFormat_f420 : kPixelFormat_y420;
    case AV_PIX_FMT_BGRA:
        return kPixelFormat_BGRA;
    default:
        return 0;
    }
}

int VideoFrame::planeCount() const
{
    int n = av_pix_fmt_count_planes(static_cast<AVPixelFormat>(frame->format));
    return n < 0 ? 0 : n;
}

const uint8_t* VideoFrame::plane(int index) const
{
    return index >= 0 && index < planeCount() ? frame->data[index] : nullptr;
}

int VideoFrame::bytesPerRow(int index) const
{
    return index >= 0 && index < planeCount() ? frame->linesize[index] : 0;
}

AudioBuffer::AudioBuffer(AVFrame* f) : frame(f) {}

AudioBuffer::~AudioBuffer() { av_frame_free(&frame); }

const AudioBuffer* AudioBuffer::heldBack()
{
    static const AudioBuffer marker;
    return &marker;
}

int AudioBuffer::sampleCount() const { return frame ? frame->nb_samples : 0; }
int AudioBuffer::channelCount() const { return frame ? frame->ch_layout.nb_channels : 0; }
int AudioBuffer::sampleRate() const { return frame ? frame->sample_rate : 0; }
const int16_t* AudioBuffer::samples() const
{
    return frame ? reinterpret_cast<const int16_t*>(frame->data[0]) : nullptr;
}

MediaTime AudioBuffer::time() const
{
    if (frame == nullptr || frame->sample_rate <= 0)
        return MediaTime::invalid();
    return MediaTime(frame->pts == AV_NOPTS_VALUE ? 0 : frame->pts, frame->sample_rate);
}

std::string avErrorText(int errnum)
{
    char buf[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(errnum, buf, sizeof buf);
    return buf;
}

void platformLog(const char* format, ...)
{
    // One write per line, so that lines from the encoder threads never mix.
    char line[2048];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(line, sizeof line - 1, format, args);
    va_end(args);
    if (n < 0)
        return;
    size_t len = static_cast<size_t>(n) < sizeof line - 1 ? static_cast<size_t>(n) : sizeof line - 2;
    line[len++] = '\n';
    // On the same terminal, the message starts on a line of its own below a
    // status line.
    static const bool sameTerminal = isatty(STDERR_FILENO) == 1;
    if (sameTerminal)
        Console::endStatus();
    fwrite(line, 1, len, stderr);
    fflush(stderr);
}

void quietFFmpegLog()
{
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_ERROR); });
}

} // namespace GLTK
