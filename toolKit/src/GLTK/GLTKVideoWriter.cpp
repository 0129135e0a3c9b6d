#include "GLTKVideoWriter.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <string>
#include <deque>
#include <fcntl.h>
#include <mutex>
#include <thread>
#include <unistd.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

using GLTK::MediaTime;
using GLTK::platformLog;

namespace {

// Encoder settings: the most SSIM per unit of encoder time at a fixed bit
// rate, measured with the encoder alone on the frames a 4K source gives at
// 1920x960, full range (bench/encoder_settings.sh; README, "Encoders").
//
// x264, Baseline, 16 Mbit/s: "veryfast" with subpixel refinement 3 (one
// step up) and auto-variance adaptive quantisation (aq-mode 2) comes within
// 0.0001 SSIM of "faster" in under half its time (7.5 s of CPU for 10 s
// against 16.0 s). A third of "faster"'s time goes to trellis quantisation,
// which with Baseline's CAVLC buys 0.0004; aq-mode 2 adds 0.0004 at no
// cost, subme 3 another 0.0002.
constexpr const char* kX264Preset = "veryfast";
constexpr const char* kX264Params = "subme=3:aq-mode=2";
// x265, 8 Mbit/s: "veryfast" is where the quality levels off: 0.0038 SSIM
// over "ultrafast" for twice its time, level with "faster" and within
// 0.0001 of "fast" (18 % slower); "superfast" is 0.0019 lower, 0.0009 with
// SAO back on. Sign-bit hiding is off: it saves 0.6 % of the bits (SSIM
// 0.00005) for 6 % of the encoder's time. Psychovisual rate-distortion stays
// on: turning it off would add 0.0004 SSIM and save 6 %, but flattens the
// texture that SSIM does not reward.
constexpr const char* kX265Preset = "veryfast";
constexpr const char* kX265Params = "signhide=0";

// Frames handed from the caller's thread to an encoder thread. The bound is
// kept by the producer, which checks hasRoom before pushing.
class FrameQueue {
public:
    explicit FrameQueue(size_t capacity) : capacity(capacity) {}
    ~FrameQueue()
    {
        for (AVFrame* f : items)
            av_frame_free(&f);
    }
    bool hasRoom() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return !closed && items.size() < capacity;
    }
    void push(AVFrame* frame)
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            items.push_back(frame);
        }
        ready.notify_one();
    }
    // Waits for the next frame; null once the queue is closed and empty.
    AVFrame* pop()
    {
        std::unique_lock<std::mutex> lock(mutex);
        ready.wait(lock, [this] { return closed || !items.empty(); });
        if (items.empty())
            return nullptr;
        AVFrame* f = items.front();
        items.pop_front();
        return f;
    }
    void close()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            closed = true;
        }
        ready.notify_all();
    }

private:
    const size_t capacity;
    mutable std::mutex mutex;
    std::condition_variable ready;
    std::deque<AVFrame*> items;
    bool closed = false;
};

} // namespace

// One output file: the muxer, the encoders and their worker threads.
struct GLTKVideoWriter::Output {
    AVFormatContext* fmt = nullptr;
    AVCodecContext* video = nullptr;
    AVCodecContext* audio = nullptr;
    AVStream* videoStream = nullptr;
    AVStream* audioStream = nullptr;
    bool headerWritten = false;

    std::mutex muxMutex;
    std::atomic<bool> failed{false};

    FrameQueue videoQueue{kVideoQueueDepth};
    FrameQueue audioQueue{kAudioQueueDepth};
    std::thread videoThread;
    std::thread audioThread;

    MediaTime startTime = MediaTime::zero();
    int64_t lastVideoPts = INT64_MIN;

    // Video conversion on the worker, for frames whose layout or size is not
    // the encoder's.
    SwsContext* sws = nullptr;
    // Audio conversion to the encoder's planar float, and the FIFO that cuts
    // it into the encoder's frame size.
    SwrContext* swr = nullptr;
    int swrInRate = 0;
    int swrInChannels = 0;
    AVAudioFifo* fifo = nullptr;
    int64_t audioPts = INT64_MIN;

    ~Output()
    {
        finishThreads();
        sws_freeContext(sws);
        swr_free(&swr);
        if (fifo != nullptr)
            av_audio_fifo_free(fifo);
        avcodec_free_context(&video);
        avcodec_free_context(&audio);
        if (fmt != nullptr) {
            if (fmt->pb != nullptr)
                avio_closep(&fmt->pb);
            avformat_free_context(fmt);
        }
    }

    void fail(const char* method, const std::string& what)
    {
        platformLog("%s: %s", method, what.c_str());
        failed = true;
    }

    void startThreads()
    {
        videoThread = std::thread([this] { videoWorker(); });
        if (audio != nullptr)
            audioThread = std::thread([this] { audioWorker(); });
    }

    void finishThreads()
    {
        videoQueue.close();
        audioQueue.close();
        if (videoThread.joinable())
            videoThread.join();
        if (audioThread.joinable())
            audioThread.join();
    }

    // Moves every packet the encoder has ready into the muxer.
    void drain(AVCodecContext* enc, AVStream* st, const char* method)
    {
        AVPacket* pkt = av_packet_alloc();
        if (pkt == nullptr) {
            fail(method, "out of memory");
            return;
        }
        for (;;) {
            int ret = avcodec_receive_packet(enc, pkt);
            if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF)
                break;
            if (ret < 0) {
                fail(method, "encoding failed: " + GLTK::avErrorText(ret));
                break;
            }
            // The encoders leave the duration out; a frame lasts one frame
            // period, which also gives the last sample of the track its length.
            if (pkt->duration <= 0 && enc->framerate.num > 0 && enc->framerate.den > 0)
                pkt->duration = av_rescale_q(1, av_inv_q(enc->framerate), enc->time_base);
            av_packet_rescale_ts(pkt, enc->time_base, st->time_base);
            pkt->stream_index = st->index;
            std::lock_guard<std::mutex> lock(muxMutex);
            ret = av_interleaved_write_frame(fmt, pkt);
            if (ret < 0) {
                fail(method, std::string("writing ") + fmt->url + " failed: " + GLTK::avErrorText(ret));
                break;
            }
        }
        av_packet_free(&pkt);
    }

    void send(AVCodecContext* enc, AVStream* st, AVFrame* frame, const char* method)
    {
        int ret = avcodec_send_frame(enc, frame);
        if (ret < 0 && ret != AVERROR_EOF) {
            fail(method, "encoding failed: " + GLTK::avErrorText(ret));
            return;
        }
        drain(enc, st, method);
    }

    // The frame in the encoder's layout, size and range.
    AVFrame* convert(AVFrame* in)
    {
        AVColorRange inRange = in->color_range == AVCOL_RANGE_JPEG || in->format == AV_PIX_FMT_BGRA
                                   ? AVCOL_RANGE_JPEG
                                   : AVCOL_RANGE_MPEG;
        AVColorRange outRange = video->color_range == AVCOL_RANGE_JPEG ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
        if (in->format == video->pix_fmt && in->width == video->width && in->height == video->height &&
            inRange == outRange)
            return in;
        sws = sws_getCachedContext(sws, in->width, in->height, static_cast<AVPixelFormat>(in->format),
                                   video->width, video->height, video->pix_fmt, SWS_BILINEAR, nullptr, nullptr,
                                   nullptr);
        AVFrame* out = av_frame_alloc();
        if (sws == nullptr || out == nullptr) {
            av_frame_free(&out);
            return nullptr;
        }
        const int* table = sws_getCoefficients(in->colorspace == AVCOL_SPC_SMPTE170M ? SWS_CS_ITU601 : SWS_CS_ITU709);
        sws_setColorspaceDetails(sws, table, inRange == AVCOL_RANGE_JPEG, table, outRange == AVCOL_RANGE_JPEG, 0,
                                 1 << 16, 1 << 16);
        out->format = video->pix_fmt;
        out->width = video->width;
        out->height = video->height;
        if (av_frame_get_buffer(out, 0) < 0 ||
            sws_scale(sws, in->data, in->linesize, 0, in->height, out->data, out->linesize) <= 0) {
            av_frame_free(&out);
            return nullptr;
        }
        out->pts = in->pts;
        out->color_range = outRange;
        return out;
    }

    void videoWorker()
    {
        static const char* method = "GLTKVideoWriter::processFrame";
        while (AVFrame* frame = videoQueue.pop()) {
            if (!failed) {
                AVFrame* in = convert(frame);
                if (in == nullptr) {
                    fail(method, "frame conversion failed");
                } else {
                    in->pict_type = AV_PICTURE_TYPE_NONE;
                    send(video, videoStream, in, method);
                    if (in != frame)
                        av_frame_free(&in);
                }
            }
            av_frame_free(&frame);
        }
        if (!failed)
            send(video, videoStream, nullptr, method); // flush the encoder
    }

    // Encodes every whole encoder frame in the FIFO, and the remainder too
    // when final.
    void encodeFifo(bool final, const char* method)
    {
        const int frameSize = audio->frame_size > 0 ? audio->frame_size : 1024;
        while (!failed && (av_audio_fifo_size(fifo) >= frameSize || (final && av_audio_fifo_size(fifo) > 0))) {
            int n = std::min(frameSize, av_audio_fifo_size(fifo));
            AVFrame* frame = av_frame_alloc();
            if (frame == nullptr) {
                fail(method, "out of memory");
                return;
            }
            frame->format = audio->sample_fmt;
            frame->sample_rate = audio->sample_rate;
            frame->nb_samples = n;
            av_channel_layout_copy(&frame->ch_layout, &audio->ch_layout);
            if (av_frame_get_buffer(frame, 0) < 0 ||
                av_audio_fifo_read(fifo, reinterpret_cast<void**>(frame->data), n) != n) {
                av_frame_free(&frame);
                fail(method, "audio buffering failed");
                return;
            }
            frame->pts = audioPts;
            audioPts += n;
            send(audio, audioStream, frame, method);
            av_frame_free(&frame);
        }
    }

    // Converts a buffer (null: what the resampler still holds) into the FIFO.
    bool resample(const AVFrame* in, const char* method)
    {
        if (in != nullptr && (swr == nullptr || in->sample_rate != swrInRate ||
                              in->ch_layout.nb_channels != swrInChannels)) {
            AVChannelLayout inLayout{};
            av_channel_layout_default(&inLayout, in->ch_layout.nb_channels);
            swr_free(&swr);
            int ret = swr_alloc_set_opts2(&swr, &audio->ch_layout, audio->sample_fmt, audio->sample_rate,
                                          &inLayout, static_cast<AVSampleFormat>(in->format), in->sample_rate, 0,
                                          nullptr);
            av_channel_layout_uninit(&inLayout);
            if (ret < 0 || swr_init(swr) < 0) {
                fail(method, "audio conversion set-up failed");
                return false;
            }
            swrInRate = in->sample_rate;
            swrInChannels = in->ch_layout.nb_channels;
        }
        if (swr == nullptr)
            return true;
        int inCount = in != nullptr ? in->nb_samples : 0;
        int capacity = swr_get_out_samples(swr, inCount);
        if (capacity <= 0)
            return true;
        uint8_t** planes = nullptr;
        if (av_samples_alloc_array_and_samples(&planes, nullptr, audio->ch_layout.nb_channels, capacity,
                                               audio->sample_fmt, 0) < 0) {
            fail(method, "out of memory");
            return false;
        }
        int n = swr_convert(swr, planes, capacity,
                            in != nullptr ? const_cast<const uint8_t**>(in->extended_data) : nullptr, inCount);
        bool ok = n >= 0 && av_audio_fifo_write(fifo, reinterpret_cast<void**>(planes), n) == n;
        av_freep(&planes[0]);
        av_freep(&planes);
        if (!ok)
            fail(method, "audio conversion failed");
        return ok;
    }

    void audioWorker()
    {
        static const char* method = "GLTKVideoWriter::processAudio";
        while (AVFrame* buffer = audioQueue.pop()) {
            if (!failed) {
                if (audioPts == INT64_MIN) {
                    // The track starts at the first buffer's time on the
                    // session's timeline; later buffers follow without gaps.
                    MediaTime t(buffer->pts, buffer->sample_rate);
                    int64_t rel = MediaTime(t.convertScale(audio->sample_rate).value -
                                                startTime.convertScale(audio->sample_rate).value,
                                            audio->sample_rate)
                                      .value;
                    audioPts = std::max<int64_t>(0, rel);
                }
                if (resample(buffer, method))
                    encodeFifo(false, method);
            }
            av_frame_free(&buffer);
        }
        if (!failed && audioPts != INT64_MIN && resample(nullptr, method))
            encodeFifo(true, method);
        if (!failed)
            send(audio, audioStream, nullptr, method);
    }
};

GLTKVideoWriter::GLTKVideoWriter() = default;

uint32_t GLTKVideoWriter::encoderPixelFormatType(bool encodeHEVC) const
{
    return encodeHEVC && pixelFormat == GLTK::kPixelFormat_420f ? GLTK::kPixelFormat_f420 : pixelFormat;
}

GLTKVideoWriter::~GLTKVideoWriter() = default;

bool GLTKVideoWriter::setupWriter(const std::string& url, GLTK::Size size, bool hasAudio, bool encodeHEVC)
{
    static const char* method = "GLTKVideoWriter::setupWriter";
    GLTK::quietFFmpegLog();
    output.reset();

    // A fresh, empty file as a test that the path can be written.
    unlink(url.c_str());
    int fd = creat(url.c_str(), 0644);
    if (fd < 0) {
        platformLog("%s: %s cannot be written: %s", method, url.c_str(), strerror(errno));
        return false;
    }
    close(fd);

    auto out = std::make_unique<Output>();
    int ret = avformat_alloc_output_context2(&out->fmt, nullptr, "mp4", url.c_str());
    if (ret < 0 || out->fmt == nullptr) {
        platformLog("%s: Error: %s", method, GLTK::avErrorText(ret).c_str());
        return false;
    }

    // Video encoder.
    const char* videoInputFailed = "%s: AVAssetWriter#canAddInput(video) failed.";
    const AVCodec* codec = avcodec_find_encoder_by_name(encodeHEVC ? "libx265" : "libx264");
    if (codec == nullptr || size.width < 2 || size.height < 2 || videoBitRate == 0) {
        platformLog(videoInputFailed, method);
        return false;
    }
    AVCodecContext* v = out->video = avcodec_alloc_context3(codec);
    if (v == nullptr) {
        platformLog(videoInputFailed, method);
        return false;
    }
    v->width = size.width;
    v->height = size.height;
    v->time_base = AVRational{1, timescale > 0 ? timescale : 90000};
    if (frameRate > 0)
        v->framerate = av_d2q(frameRate, 1000000);
    bool fullRange = pixelFormat == GLTK::kPixelFormat_420f || pixelFormat == GLTK::kPixelFormat_f420;
    // x264 takes NV12 as it comes; x265 wants planar 4:2:0.
    v->pix_fmt = !encodeHEVC && pixelFormat == GLTK::kPixelFormat_420f ? AV_PIX_FMT_NV12 : AV_PIX_FMT_YUV420P;
    v->color_range = fullRange ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
    // Average bit rate; the VBV lets a frame run to twice the average over a
    // two-second buffer, so complex scenes borrow from simple ones without
    // unbounded peaks.
    v->bit_rate = int64_t(std::min<uint64_t>(videoBitRate, INT64_MAX / 4));
    v->rc_max_rate = v->bit_rate * 2;
    v->rc_buffer_size = int(std::min<int64_t>(v->bit_rate * 2, INT_MAX));
    v->gop_size = keyInterval > 0 ? keyInterval : 15;
    v->max_b_frames = encodeHEVC ? -1 : 0;
    v->thread_count = 0; // the encoder's own threads, as many as the machine has
    v->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    AVDictionary* opts = nullptr;
    if (encodeHEVC) {
        av_dict_set(&opts, "preset", kX265Preset, 0);
        // Key frames exactly every interval, each an IDR that starts a closed
        // group, so that any key frame can begin a cut.
        av_dict_set(&opts, "x265-params",
                    (std::string("scenecut=0:open-gop=0:log-level=error:") + kX265Params).c_str(), 0);
    } else {
        av_dict_set(&opts, "preset", kX264Preset, 0);
        av_dict_set(&opts, "profile", "baseline", 0);
        av_dict_set(&opts, "x264-params", (std::string("scenecut=0:") + kX264Params).c_str(), 0);
    }
    ret = avcodec_open2(v, codec, &opts);
    av_dict_free(&opts);
    if (ret < 0) {
        platformLog("%s: %s", method, GLTK::avErrorText(ret).c_str());
        platformLog(videoInputFailed, method);
        return false;
    }
    out->videoStream = avformat_new_stream(out->fmt, nullptr);
    if (out->videoStream == nullptr ||
        avcodec_parameters_from_context(out->videoStream->codecpar, v) < 0) {
        platformLog(videoInputFailed, method);
        return false;
    }
    out->videoStream->time_base = v->time_base;
    if (encodeHEVC)
        out->videoStream->codecpar->codec_tag = MKTAG('h', 'v', 'c', '1');

    // Audio encoder: FFmpeg's AAC.
    if (hasAudio) {
        const char* audioInputFailed = "%s: AVAssetWriter#canAddInput(audio) failed.";
        const AVCodec* aac = avcodec_find_encoder_by_name("aac");
        int rate = int(std::lround(sampleRate));
        if (aac == nullptr || rate <= 0 || channelCount <= 0) {
            platformLog(audioInputFailed, method);
            return false;
        }
        AVCodecContext* a = out->audio = avcodec_alloc_context3(aac);
        if (a == nullptr) {
            platformLog(audioInputFailed, method);
            return false;
        }
        a->sample_fmt = AV_SAMPLE_FMT_FLTP;
        a->sample_rate = rate;
        av_channel_layout_default(&a->ch_layout, channelCount);
        a->bit_rate = audioBitRate;
        a->time_base = AVRational{1, rate};
        a->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        ret = avcodec_open2(a, aac, nullptr);
        if (ret < 0) {
            platformLog("%s: %s", method, GLTK::avErrorText(ret).c_str());
            platformLog(audioInputFailed, method);
            return false;
        }
        out->audioStream = avformat_new_stream(out->fmt, nullptr);
        out->fifo = av_audio_fifo_alloc(a->sample_fmt, a->ch_layout.nb_channels, std::max(a->frame_size, 1024) * 4);
        if (out->audioStream == nullptr || out->fifo == nullptr ||
            avcodec_parameters_from_context(out->audioStream->codecpar, a) < 0) {
            platformLog(audioInputFailed, method);
            return false;
        }
        out->audioStream->time_base = a->time_base;
    }

    ret = avio_open(&out->fmt->pb, url.c_str(), AVIO_FLAG_WRITE);
    if (ret < 0) {
        platformLog("%s: Error: %s", method, GLTK::avErrorText(ret).c_str());
        return false;
    }
    output = std::move(out);
    return true;
}

bool GLTKVideoWriter::start(const std::string& url, MediaTime startTime, GLTK::Size outputSize, bool hasAudio,
                            bool encodeHEVC)
{
    static const char* method = "GLTKVideoWriter::start";
    output.reset();
    if (!setupWriter(url, outputSize, hasAudio, encodeHEVC))
        return false;
    AVDictionary* opts = nullptr;
    // Movie header before the media data: the muxer writes it at the end and
    // then moves it to the front in a second pass over the file.
    if (moovAtFront)
        av_dict_set(&opts, "movflags", "+faststart", 0);
    int ret = avformat_write_header(output->fmt, &opts);
    av_dict_free(&opts);
    if (ret < 0) {
        platformLog("%s: Error: %s", method, GLTK::avErrorText(ret).c_str());
        output.reset();
        return false;
    }
    output->headerWritten = true;
    output->startTime = startTime.isValid() ? startTime : MediaTime::zero();
    output->startThreads();
    return true;
}

bool GLTKVideoWriter::isReadyForMoreFrame() const
{
    return output && !output->failed && output->videoQueue.hasRoom();
}

bool GLTKVideoWriter::isReadyForMoreAudio() const
{
    return output && output->audio != nullptr && !output->failed && output->audioQueue.hasRoom();
}

bool GLTKVideoWriter::processFrame(const GLTK::VideoFrame* frame, MediaTime time)
{
    if (frame == nullptr || !isReadyForMoreFrame() || !time.isValid())
        return false;
    int32_t ts = output->video->time_base.den;
    int64_t pts = time.convertScale(ts).value - output->startTime.convertScale(ts).value;
    if (pts < 0 || pts <= output->lastVideoPts)
        return false;
    AVFrame* ref = av_frame_clone(frame->avFrame());
    if (ref == nullptr)
        return false;
    ref->pts = pts;
    output->lastVideoPts = pts;
    output->videoQueue.push(ref);
    return true;
}

bool GLTKVideoWriter::processAudio(const GLTK::AudioBuffer* buffer)
{
    if (buffer == nullptr || !isReadyForMoreAudio())
        return false;
    if (buffer->isHeldBackMarker())
        return true;
    if (buffer->sampleCount() <= 0)
        return true;
    AVFrame* ref = av_frame_clone(buffer->avFrame());
    if (ref == nullptr)
        return false;
    output->audioQueue.push(ref);
    return true;
}

bool GLTKVideoWriter::stop()
{
    static const char* method = "GLTKVideoWriter::stop";
    if (!output)
        return false;
    output->finishThreads();
    bool ok = !output->failed && output->headerWritten;
    // After a failure, reported where it happened, the rest of the file can
    // only fail the same way: it is finished without more words.
    auto report = [&](const std::string& what) {
        if (!output->failed)
            platformLog("%s: %s", method, what.c_str());
        ok = false;
    };
    if (output->headerWritten) {
        int ret = av_write_trailer(output->fmt);
        if (ret < 0)
            report("Error: " + GLTK::avErrorText(ret));
        else if (output->fmt->pb != nullptr && output->fmt->pb->error < 0)
            report("Error: " + GLTK::avErrorText(output->fmt->pb->error));
    }
    if (output->fmt->pb != nullptr && avio_closep(&output->fmt->pb) < 0)
        report("Error: closing the file failed");
    output.reset();
    return ok;
}

bool GLTKVideoWriter::hasFailed() const { return output && output->failed; }
