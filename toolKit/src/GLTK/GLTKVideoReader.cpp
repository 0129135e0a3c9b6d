#include "GLTKVideoReader.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
#include <libswresample/swresample.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

using GLTK::MediaTime;
using GLTK::platformLog;

namespace {

enum OpenResult { Opened, OpenFailed, NoTrack, DecoderFailed };

// The FFmpeg layout and range for one of our pixel-format codes.
bool outputFormat(uint32_t type, AVPixelFormat& format, bool& fullRange)
{
    switch (type) {
    case GLTK::kPixelFormat_420f:
        format = AV_PIX_FMT_NV12;
        fullRange = true;
        return true;
    case GLTK::kPixelFormat_y420:
        format = AV_PIX_FMT_YUV420P;
        fullRange = false;
        return true;
    case GLTK::kPixelFormat_f420:
        format = AV_PIX_FMT_YUV420P;
        fullRange = true;
        return true;
    case GLTK::kPixelFormat_BGRA:
        format = AV_PIX_FMT_BGRA;
        fullRange = true;
        return true;
    default:
        return false;
    }
}

// The size that fits maximum keeping the aspect ratio of size; never larger
// than size. A zero maximum dimension does not limit.
GLTK::Size fitSize(GLTK::Size size, GLTK::Size maximum)
{
    double s = 1.0;
    if (maximum.width > 0 && size.width > maximum.width)
        s = std::min(s, double(maximum.width) / size.width);
    if (maximum.height > 0 && size.height > maximum.height)
        s = std::min(s, double(maximum.height) / size.height);
    if (s >= 1.0)
        return size;
    return {std::max(1, int(std::lround(size.width * s))), std::max(1, int(std::lround(size.height * s)))};
}

} // namespace

// Converts decoded frames to the delivered size and layout. The context is
// kept while the source and destination stay the same.
class GLTKVideoReader::Scaler {
public:
    ~Scaler()
    {
        sws_freeContext(sws);
        av_buffer_pool_uninit(&pool);
    }

    AVFrame* scale(const AVFrame* src, int width, int height, AVPixelFormat format, bool fullRange)
    {
        AVPixelFormat srcFormat = static_cast<AVPixelFormat>(src->format);
        bool srcFull = src->color_range == AVCOL_RANGE_JPEG;
        // The deprecated "J" layouts are the plain ones in full range.
        switch (srcFormat) {
        case AV_PIX_FMT_YUVJ420P: srcFormat = AV_PIX_FMT_YUV420P; srcFull = true; break;
        case AV_PIX_FMT_YUVJ422P: srcFormat = AV_PIX_FMT_YUV422P; srcFull = true; break;
        case AV_PIX_FMT_YUVJ444P: srcFormat = AV_PIX_FMT_YUV444P; srcFull = true; break;
        default: break;
        }
        const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(srcFormat);
        if (desc != nullptr && (desc->flags & AV_PIX_FMT_FLAG_RGB))
            srcFull = true;
        // Matrix for conversions to or from RGB: the frame's own, else BT.709
        // for HD sizes and BT.601 below.
        int colorspace = SWS_CS_ITU709;
        if (src->colorspace == AVCOL_SPC_BT470BG || src->colorspace == AVCOL_SPC_SMPTE170M)
            colorspace = SWS_CS_ITU601;
        else if (src->colorspace == AVCOL_SPC_UNSPECIFIED && src->width < 1280)
            colorspace = SWS_CS_ITU601;

        // A reduction from video range into full range is scaled in video
        // range and widened afterwards, on the reduced frame: libswscale
        // widens every source line before its vertical filter, twice the
        // pixels of a 2:1 reduction, at a tenth of a 4K re-encode's scaling.
        const bool widenAfter = !srcFull && fullRange && (format == AV_PIX_FMT_NV12 || format == AV_PIX_FMT_YUV420P) &&
                                int64_t(width) * height * 2 <= int64_t(src->width) * src->height;
        const bool scaleFull = fullRange && !widenAfter;
        if (sws == nullptr || srcFormat != key.srcFormat || src->width != key.srcW || src->height != key.srcH ||
            srcFull != key.srcFull || colorspace != key.colorspace || width != key.dstW || height != key.dstH ||
            format != key.dstFormat || scaleFull != key.dstFull) {
            sws_freeContext(sws);
            sws = makeContext(src->width, src->height, srcFormat, srcFull, width, height, format, scaleFull);
            if (sws == nullptr)
                return nullptr;
            const int* table = sws_getCoefficients(colorspace);
            sws_setColorspaceDetails(sws, table, srcFull ? 1 : 0, table, scaleFull ? 1 : 0, 0, 1 << 16, 1 << 16);
            key = {srcFormat, src->width, src->height, srcFull, colorspace, width, height, format, scaleFull};
            // The frames come from a pool of buffers of their size: a frame
            // the encoder is done with is used again, instead of new memory
            // that the kernel has to clear page by page (2 % of a re-encode).
            av_buffer_pool_uninit(&pool);
            const int bytes = av_image_get_buffer_size(format, width, height, kAlign);
            pool = bytes > 0 ? av_buffer_pool_init(static_cast<size_t>(bytes), nullptr) : nullptr;
            if (pool == nullptr)
                return nullptr;
        }
        AVFrame* dst = av_frame_alloc();
        if (dst == nullptr)
            return nullptr;
        dst->format = format;
        dst->width = width;
        dst->height = height;
        dst->buf[0] = av_buffer_pool_get(pool);
        if (dst->buf[0] == nullptr ||
            av_image_fill_arrays(dst->data, dst->linesize, dst->buf[0]->data, format, width, height, kAlign) < 0 ||
            sws_scale_frame(sws, dst, src) < 0) {
            av_frame_free(&dst);
            return nullptr;
        }
        if (widenAfter)
            widenRange(dst);
        dst->color_range = fullRange ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
        dst->colorspace = colorspace == SWS_CS_ITU709 ? AVCOL_SPC_BT709 : AVCOL_SPC_SMPTE170M;
        dst->pts = src->best_effort_timestamp;
        return dst;
    }

private:
    // Video range (luma 16-235, chroma 16-240 about 128) to full range
    // (0-255), in place, for NV12 and planar 4:2:0.
    static void widenRange(AVFrame* f)
    {
        struct Tables {
            uint8_t luma[256], chroma[256];
            Tables()
            {
                for (int v = 0; v < 256; ++v) {
                    luma[v] = uint8_t(std::clamp(std::lround((v - 16) * 255.0 / 219.0), 0L, 255L));
                    chroma[v] = uint8_t(std::clamp(std::lround((v - 128) * 255.0 / 224.0 + 128.0), 0L, 255L));
                }
            }
        };
        static const Tables tables;
        auto map = [&](int plane, int bytes, int rows, const uint8_t* table) {
            for (int y = 0; y < rows; ++y) {
                uint8_t* p = f->data[plane] + static_cast<ptrdiff_t>(y) * f->linesize[plane];
                for (int x = 0; x < bytes; ++x)
                    p[x] = table[p[x]];
            }
        };
        const int chromaRows = (f->height + 1) / 2;
        map(0, f->width, f->height, tables.luma);
        if (f->format == AV_PIX_FMT_NV12) {
            map(1, (f->width + 1) / 2 * 2, chromaRows, tables.chroma);
        } else {
            map(1, (f->width + 1) / 2, chromaRows, tables.chroma);
            map(2, (f->width + 1) / 2, chromaRows, tables.chroma);
        }
    }

    struct Key {
        AVPixelFormat srcFormat = AV_PIX_FMT_NONE;
        int srcW = 0, srcH = 0;
        bool srcFull = false;
        int colorspace = 0;
        int dstW = 0, dstH = 0;
        AVPixelFormat dstFormat = AV_PIX_FMT_NONE;
        bool dstFull = false;
    };
    static SwsContext* makeContext(int srcW, int srcH, AVPixelFormat srcFormat, bool srcFull, int dstW, int dstH,
                                   AVPixelFormat dstFormat, bool dstFull)
    {
        SwsContext* c = sws_alloc_context();
        if (c == nullptr)
            return nullptr;
        // Bicubic, as FFmpeg's own scaler defaults to: on a 4K to 1920-wide
        // reduction it keeps noticeably more detail than bilinear (about
        // 0.0015 SSIM against a bicubic reference), for a cost that is small
        // beside decoding the source.
        av_opt_set_int(c, "sws_flags", SWS_BICUBIC, 0);
        av_opt_set_int(c, "srcw", srcW, 0);
        av_opt_set_int(c, "srch", srcH, 0);
        av_opt_set_int(c, "src_format", srcFormat, 0);
        av_opt_set_int(c, "src_range", srcFull ? 1 : 0, 0);
        av_opt_set_int(c, "dstw", dstW, 0);
        av_opt_set_int(c, "dsth", dstH, 0);
        av_opt_set_int(c, "dst_format", dstFormat, 0);
        av_opt_set_int(c, "dst_range", dstFull ? 1 : 0, 0);
        if (sws_init_context(c, nullptr, nullptr) < 0) {
            sws_freeContext(c);
            return nullptr;
        }
        return c;
    }

    static constexpr int kAlign = 64;
    SwsContext* sws = nullptr;
    AVBufferPool* pool = nullptr;
    Key key;
};

// One track read through its own demuxer (every other stream discarded, so
// their bytes are never read) and decoded.
struct GLTKVideoReader::Track {
    AVFormatContext* fmt = nullptr;
    AVCodecContext* dec = nullptr;
    AVPacket* pkt = nullptr;
    AVFrame* frame = nullptr;
    AVStream* stream = nullptr;
    bool demuxEnded = false;
    int64_t lastPts = AV_NOPTS_VALUE;
    std::string error;

    ~Track()
    {
        av_frame_free(&frame);
        av_packet_free(&pkt);
        avcodec_free_context(&dec);
        avformat_close_input(&fmt);
    }

    // Opens the first stream of the type (cover pictures aside) and its
    // decoder. threadType 0 decodes on the calling thread only.
    OpenResult open(const std::string& url, AVMediaType type, int threadType)
    {
        OpenResult r = openStream(url, type);
        return r == Opened ? openDecoder(threadType) : r;
    }

    // Reads the movie's header and picks the stream; nothing is decoded.
    OpenResult openStream(const std::string& url, AVMediaType type)
    {
        GLTK::quietFFmpegLog();
        int ret = avformat_open_input(&fmt, url.c_str(), nullptr, nullptr);
        if (ret < 0) {
            error = GLTK::avErrorText(ret);
            return OpenFailed;
        }
        for (unsigned i = 0; i < fmt->nb_streams; ++i) {
            AVStream* st = fmt->streams[i];
            if (stream == nullptr && st->codecpar->codec_type == type &&
                !(st->disposition & AV_DISPOSITION_ATTACHED_PIC))
                stream = st;
            else
                st->discard = AVDISCARD_ALL;
        }
        return stream != nullptr ? Opened : NoTrack;
    }

    OpenResult openDecoder(int threadType)
    {
        const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
        if (codec == nullptr) {
            error = std::string("no decoder for ") + avcodec_get_name(stream->codecpar->codec_id);
            return DecoderFailed;
        }
        dec = avcodec_alloc_context3(codec);
        pkt = av_packet_alloc();
        frame = av_frame_alloc();
        if (dec == nullptr || pkt == nullptr || frame == nullptr) {
            error = "out of memory";
            return DecoderFailed;
        }
        int ret = avcodec_parameters_to_context(dec, stream->codecpar);
        if (ret < 0) {
            error = GLTK::avErrorText(ret);
            return DecoderFailed;
        }
        dec->pkt_timebase = stream->time_base;
        if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
            dec->thread_count = threadType != 0 ? 0 : 1; // 0: as many as the machine has
            dec->thread_type = threadType != 0 ? threadType : FF_THREAD_SLICE;
        }
        if ((ret = avcodec_open2(dec, codec, nullptr)) < 0) {
            error = GLTK::avErrorText(ret);
            return DecoderFailed;
        }
        return Opened;
    }

    // Moves to the key frame at or before time; a failed seek leaves the
    // demuxer at the start, which costs only decoding time.
    void seek(MediaTime time)
    {
        if (!time.isValid() || time.value <= 0)
            return;
        int64_t ts = av_rescale_rnd(time.value, stream->time_base.den,
                                    int64_t(time.timescale) * stream->time_base.num, AV_ROUND_DOWN);
        av_seek_frame(fmt, stream->index, ts, AVSEEK_FLAG_BACKWARD);
    }

    // The next packet of the track into pkt: 1, 0 at the end of the file,
    // < 0 for an error.
    int readPacket()
    {
        for (;;) {
            const int ret = av_read_frame(fmt, pkt);
            if (ret == AVERROR_EOF)
                return 0;
            if (ret < 0)
                return ret;
            if (pkt->stream_index == stream->index)
                return 1;
            av_packet_unref(pkt);
        }
    }

    // 1: a frame stands in frame; 0: the end of the track; < 0: an error.
    int decodeNext()
    {
        for (;;) {
            int ret = avcodec_receive_frame(dec, frame);
            if (ret >= 0)
                return 1;
            if (ret == AVERROR_EOF)
                return 0;
            if (ret != AVERROR(EAGAIN))
                return ret;
            if (demuxEnded)
                return 0;
            ret = readPacket();
            if (ret == 0) {
                demuxEnded = true;
                avcodec_send_packet(dec, nullptr); // drain the decoder
                continue;
            }
            if (ret < 0)
                return ret;
            ret = avcodec_send_packet(dec, pkt);
            av_packet_unref(pkt);
            if (ret < 0 && ret != AVERROR(EAGAIN))
                return ret;
        }
    }

    // The first frame of the track, decoded from as few packets as it
    // takes: a decoder that reorders frames holds a picture back until the
    // pictures after it have come, so after each packet the decoder is
    // drained. A movie begins with a key frame, which needs no other, and
    // comes out of its own packet. 1, 0 or < 0 as decodeNext.
    int decodeFirst()
    {
        for (;;) {
            int ret = readPacket();
            if (ret <= 0)
                return ret;
            ret = avcodec_send_packet(dec, pkt);
            av_packet_unref(pkt);
            if (ret < 0 && ret != AVERROR(EAGAIN) && ret != AVERROR_INVALIDDATA)
                return ret;
            avcodec_send_packet(dec, nullptr);
            ret = avcodec_receive_frame(dec, frame);
            if (ret >= 0)
                return 1;
            if (ret != AVERROR_EOF && ret != AVERROR(EAGAIN))
                return ret;
            avcodec_flush_buffers(dec); // nothing yet: take the next packet
        }
    }

    // The decoded frame's presentation time in the stream's time base; a
    // frame without one follows the previous frame.
    int64_t framePts()
    {
        int64_t pts = frame->best_effort_timestamp;
        if (pts == AV_NOPTS_VALUE)
            pts = frame->pts;
        if (pts == AV_NOPTS_VALUE)
            pts = lastPts == AV_NOPTS_VALUE ? 0 : lastPts + std::max<int64_t>(1, frame->pkt_duration);
        lastPts = pts;
        return pts;
    }

    MediaTime timeOf(int64_t pts) const
    {
        return MediaTime(pts * stream->time_base.num, stream->time_base.den);
    }
};

// The audio track, resampled to 16-bit interleaved PCM and cut to the range
// with sample precision.
struct GLTKVideoReader::Audio {
    Track track;
    SwrContext* swr = nullptr;
    AVChannelLayout outLayout{};
    int outRate = 0;
    // Configuration of the resampler's input, to notice a change mid-stream.
    int inRate = 0;
    int inFormat = -1;
    AVChannelLayout inLayout{};
    int64_t nextSample = INT64_MIN; // position of the next output sample
    int64_t startSample = 0;
    int64_t endSample = INT64_MAX;
    bool ended = false;

    ~Audio()
    {
        swr_free(&swr);
        av_channel_layout_uninit(&outLayout);
        av_channel_layout_uninit(&inLayout);
    }

    bool configure(const AVFrame* in)
    {
        av_channel_layout_uninit(&inLayout);
        if (in->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC || av_channel_layout_check(&in->ch_layout) == 0)
            av_channel_layout_default(&inLayout, std::max(1, in->ch_layout.nb_channels));
        else
            av_channel_layout_copy(&inLayout, &in->ch_layout);
        inRate = in->sample_rate;
        inFormat = in->format;
        swr_free(&swr);
        if (swr_alloc_set_opts2(&swr, &outLayout, AV_SAMPLE_FMT_S16, outRate, &inLayout,
                                static_cast<AVSampleFormat>(in->format), in->sample_rate, 0, nullptr) < 0)
            return false;
        return swr_init(swr) >= 0;
    }

    bool changed(const AVFrame* in) const
    {
        return in->sample_rate != inRate || in->format != inFormat ||
               in->ch_layout.nb_channels != inLayout.nb_channels;
    }

    // 1: out holds a buffer starting at sample firstSample; 0: the end; < 0: an error.
    int next(AVFrame*& out, int64_t& firstSample)
    {
        out = nullptr;
        while (!ended) {
            int r = track.decodeNext();
            if (r < 0)
                return r;
            const AVFrame* in = r > 0 ? track.frame : nullptr;
            if (in == nullptr) {
                ended = true; // drain what the resampler still holds
                if (swr == nullptr)
                    return 0;
            } else {
                if (in->sample_rate <= 0)
                    return AVERROR_INVALIDDATA;
                if ((swr == nullptr || changed(in)) && !configure(in))
                    return AVERROR(EINVAL);
                int64_t pts = track.framePts();
                if (nextSample == INT64_MIN)
                    nextSample = av_rescale_q(pts, track.stream->time_base, AVRational{1, outRate});
            }
            int inCount = in != nullptr ? in->nb_samples : 0;
            int capacity = swr_get_out_samples(swr, inCount);
            if (capacity <= 0)
                continue;
            AVFrame* buf = av_frame_alloc();
            if (buf == nullptr)
                return AVERROR(ENOMEM);
            buf->format = AV_SAMPLE_FMT_S16;
            buf->sample_rate = outRate;
            buf->nb_samples = capacity;
            av_channel_layout_copy(&buf->ch_layout, &outLayout);
            int n = av_frame_get_buffer(buf, 0);
            if (n >= 0)
                n = swr_convert(swr, buf->data, capacity,
                                in != nullptr ? const_cast<const uint8_t**>(in->extended_data) : nullptr, inCount);
            if (n < 0) {
                av_frame_free(&buf);
                return n;
            }
            int64_t pos = nextSample;
            nextSample += n;
            int64_t from = std::max(pos, startSample);
            int64_t to = std::min(pos + n, endSample);
            if (pos + n >= endSample)
                ended = true;
            if (to <= from) {
                av_frame_free(&buf);
                continue;
            }
            size_t bytesPerSample = size_t(2) * size_t(outLayout.nb_channels);
            if (from > pos)
                std::memmove(buf->data[0], buf->data[0] + size_t(from - pos) * bytesPerSample,
                             size_t(to - from) * bytesPerSample);
            buf->nb_samples = int(to - from);
            buf->pts = from;
            out = buf;
            firstSample = from;
            return 1;
        }
        return 0;
    }
};

GLTKVideoReader::GLTKVideoReader() = default;

GLTKVideoReader::~GLTKVideoReader() { stop(); }

bool GLTKVideoReader::describeSource(const std::string& url, GLTK::Size& size, MediaTime& duration,
                                     float& nominalFrameRate, float* audioSampleRate)
{
    static const char* method = "GLTKVideoReader::describeSource";
    if (audioSampleRate != nullptr)
        *audioSampleRate = 0;
    Track track;
    OpenResult r = track.openStream(url, AVMEDIA_TYPE_VIDEO);
    if (r == OpenFailed) {
        platformLog("%s: Failed to open %s.", method, url.c_str());
        return false;
    }
    if (r == NoTrack) {
        platformLog("%s: No video tracks found - %s", method, url.c_str());
        return false;
    }
    int64_t d = track.fmt->duration;
    if (d == AV_NOPTS_VALUE || d < 0)
        d = track.stream->duration != AV_NOPTS_VALUE
                ? av_rescale_q(track.stream->duration, track.stream->time_base, AV_TIME_BASE_Q)
                : 0;
    duration = MediaTime(d, AV_TIME_BASE);
    AVRational rate = track.stream->avg_frame_rate;
    if (rate.num <= 0 || rate.den <= 0)
        rate = track.stream->r_frame_rate;
    nominalFrameRate = rate.num > 0 && rate.den > 0 ? float(av_q2d(rate)) : 0.0f;
    if (audioSampleRate != nullptr) {
        for (unsigned i = 0; i < track.fmt->nb_streams; ++i) {
            const AVCodecParameters* par = track.fmt->streams[i]->codecpar;
            if (par->codec_type == AVMEDIA_TYPE_AUDIO) {
                *audioSampleRate = float(std::max(0, par->sample_rate));
                break;
            }
        }
    }
    // The sample entry gives the size of the pictures, cropped as they are
    // shown; only a stream that leaves it out has its first frame decoded.
    const AVCodecParameters* par = track.stream->codecpar;
    if (par->width > 0 && par->height > 0) {
        size = {par->width, par->height};
        return true;
    }
    if (track.openDecoder(0) != Opened) {
        platformLog("%s: %s", method, track.error.c_str());
        return false;
    }
    int ret = track.decodeFirst();
    if (ret <= 0) {
        platformLog("%s: Failed to decode the first frame of %s - %s", method, url.c_str(),
                    ret < 0 ? GLTK::avErrorText(ret).c_str() : "no frame");
        return false;
    }
    size = {track.frame->width, track.frame->height};
    return true;
}

bool GLTKVideoReader::describeSource(const std::string& url, GLTK::Size& size, MediaTime& duration,
                                     float& nominalFrameRate)
{
    float rate = 0;
    bool ok = describeSource(url, size, duration, nominalFrameRate, &rate);
    if (ok)
        sampleRate = rate;
    return ok;
}

std::unique_ptr<GLTK::VideoFrame> GLTKVideoReader::copyFirstFrame(const std::string& url, GLTK::Size maximumSize,
                                                                  uint32_t pixelFormatType)
{
    AVPixelFormat format;
    bool fullRange;
    if (!outputFormat(pixelFormatType, format, fullRange))
        return nullptr;
    // One frame on one thread: a decoder with frame threads would decode
    // several frames before it handed out the first.
    Track track;
    if (track.open(url, AVMEDIA_TYPE_VIDEO, 0) != Opened || track.decodeFirst() <= 0)
        return nullptr;
    GLTK::Size size = fitSize({track.frame->width, track.frame->height}, maximumSize);
    Scaler scaler;
    AVFrame* frame = scaler.scale(track.frame, size.width, size.height, format, fullRange);
    if (frame == nullptr)
        return nullptr;
    return std::make_unique<GLTK::VideoFrame>(frame);
}

bool GLTKVideoReader::start(const std::string& url, GLTK::Size size, GLTK::MediaTimeRange timeRange)
{
    static const char* method = "GLTKVideoReader::start";
    stop();
    status = Unknown;
    frameTime = MediaTime::zero();
    audioTime = MediaTime::zero();
    videoEnded = false;
    audioEnded = false;
    range = timeRange;
    playSize = size;

    AVPixelFormat format;
    bool fullRange;
    if (!outputFormat(pixelFormat, format, fullRange)) {
        platformLog("%s: unsupported pixel format 0x%08X.", method, pixelFormat);
        return false;
    }

    auto v = std::make_unique<Track>();
    switch (v->open(url, AVMEDIA_TYPE_VIDEO, FF_THREAD_FRAME | FF_THREAD_SLICE)) {
    case Opened:
        break;
    case OpenFailed:
        platformLog("%s: Failed to open %s.", method, url.c_str());
        return false;
    case NoTrack:
        platformLog("%s: No video tracks.", method);
        return false;
    case DecoderFailed:
        platformLog("%s: AVAssetReader#canAddOutput(video) failed. (%s)", method, v->error.c_str());
        return false;
    }
    AVRational rate = v->stream->avg_frame_rate;
    if (rate.num <= 0 || rate.den <= 0)
        rate = v->stream->r_frame_rate;
    frameRate = rate.num > 0 && rate.den > 0 ? float(av_q2d(rate)) : 0.0f;

    auto a = std::make_unique<Audio>();
    switch (a->track.open(url, AVMEDIA_TYPE_AUDIO, 0)) {
    case Opened:
        break;
    case NoTrack:
        a.reset();
        break;
    case OpenFailed:
        platformLog("%s: Failed to open %s.", method, url.c_str());
        return false;
    case DecoderFailed:
        platformLog("%s: AVAssetReader#canAddOutput(audio,mix) failed. (%s)", method, a->track.error.c_str());
        return false;
    }
    if (a) {
        const AVCodecParameters* par = a->track.stream->codecpar;
        a->outRate = sampleRate >= 1.0f ? int(std::lround(sampleRate)) : std::max(1, par->sample_rate);
        int channels = channelCount > 0 ? channelCount : std::max(1, par->ch_layout.nb_channels);
        av_channel_layout_default(&a->outLayout, channels);
        if (range.start.isValid() && range.start.value > 0)
            a->startSample = av_rescale_rnd(range.start.value, a->outRate, range.start.timescale, AV_ROUND_UP);
        if (range.hasEnd()) {
            MediaTime end = range.end();
            a->endSample = av_rescale_rnd(end.value, a->outRate, end.timescale, AV_ROUND_UP);
        }
    }

    if (!range.isAll()) {
        v->seek(range.start);
        if (a)
            a->track.seek(range.start);
    }
    video = std::move(v);
    audio = std::move(a);
    status = Reading;
    return true;
}

bool GLTKVideoReader::hasAudioTrack() const { return audio != nullptr; }

int32_t GLTKVideoReader::videoTimescale() const { return video ? video->stream->time_base.den : 0; }

bool GLTKVideoReader::fail(const char* method, const std::string& what)
{
    platformLog("%s: %s", method, what.c_str());
    status = Failed;
    return false;
}

void GLTKVideoReader::updateStatus()
{
    if (status == Reading && videoEnded && (!audio || audioEnded))
        status = Completed;
}

bool GLTKVideoReader::loadNextFrame(const FrameHandler& handler)
{
    static const char* method = "GLTKVideoReader::loadNextFrame";
    if (status != Reading || !video || videoEnded)
        return false;
    AVPixelFormat format;
    bool fullRange;
    if (!outputFormat(pixelFormat, format, fullRange))
        return fail(method, "unsupported pixel format");
    for (;;) {
        int r = video->decodeNext();
        if (r < 0)
            return fail(method, "video decoding failed: " + GLTK::avErrorText(r));
        if (r == 0) {
            videoEnded = true;
            updateStatus();
            return false;
        }
        MediaTime t = video->timeOf(video->framePts());
        if (range.hasEnd() && t >= range.end()) {
            videoEnded = true;
            updateStatus();
            return false;
        }
        if (t < range.start)
            continue;
        int w = playSize.width > 0 ? playSize.width : video->frame->width;
        int h = playSize.height > 0 ? playSize.height : video->frame->height;
        if (!scaler)
            scaler = std::make_unique<Scaler>();
        AVFrame* scaled = scaler->scale(video->frame, w, h, format, fullRange);
        av_frame_unref(video->frame);
        if (scaled == nullptr)
            return fail(method, "scaling failed");
        frameTime = t;
        GLTK::VideoFrame frame(scaled);
        if (handler)
            handler(&frame, t);
        return true;
    }
}

bool GLTKVideoReader::loadNextAudio(float limit, const AudioHandler& handler)
{
    static const char* method = "GLTKVideoReader::loadNextAudio";
    if (!audio || status != Reading || audioEnded)
        return false;
    if (!videoEnded && audioTime.seconds() - frameTime.seconds() > double(limit)) {
        if (handler)
            handler(GLTK::AudioBuffer::heldBack(), audioTime);
        return true;
    }
    AVFrame* out = nullptr;
    int64_t first = 0;
    int r = audio->next(out, first);
    if (r < 0)
        return fail(method, "audio decoding failed: " + GLTK::avErrorText(r));
    if (r == 0) {
        audioEnded = true;
        updateStatus();
        return false;
    }
    audioTime = MediaTime(first, audio->outRate);
    GLTK::AudioBuffer buffer(out);
    if (handler)
        handler(&buffer, audioTime);
    return true;
}

int GLTKVideoReader::mediaStatus() const { return status; }

std::string GLTKVideoReader::mediaStatusWithNSString() const { return mediaStatusName(status); }

std::string GLTKVideoReader::mediaStatusName(int value)
{
    switch (value) {
    case Unknown: return "Unknown";
    case Reading: return "Reading";
    case Completed: return "Completed";
    case Failed: return "Failed";
    case Cancelled: return "Cancelled";
    default: return "<<unknown:" + std::to_string(value) + ">";
    }
}

void GLTKVideoReader::stop()
{
    if (status == Reading)
        status = Cancelled;
    scaler.reset();
    audio.reset();
    video.reset();
}
