#include "GLTKMedia.h"

#include <mutex>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/pixdesc.h>
}

namespace GLTK {

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

void quietFFmpegLog()
{
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_ERROR); });
}

} // namespace GLTK
