#pragma once
// Small types shared by the video reader, writer, transcoder and thumbnailer:
// media times and ranges, frame sizes, pixel-format codes, and the decoded
// video frames and audio buffers handed from the reader to the writer.
#include <cstdint>
#include <string>

struct AVFrame;

namespace GLTK {

// Four-character pixel-format codes understood by the reader and the writer.
constexpr uint32_t kPixelFormat_420f = 0x34323066; // "420f": NV12, full range
constexpr uint32_t kPixelFormat_y420 = 0x79343230; // "y420": planar 4:2:0, video range
constexpr uint32_t kPixelFormat_f420 = 0x66343230; // "f420": planar 4:2:0, full range
constexpr uint32_t kPixelFormat_BGRA = 0x42475241; // "BGRA": packed 8-bit B, G, R, A

// A point in time as value / timescale seconds. A timescale of 0 marks an
// invalid (or, as a range duration, unbounded) time.
struct MediaTime {
    int64_t value = 0;
    int32_t timescale = 0;

    constexpr MediaTime() = default;
    constexpr MediaTime(int64_t v, int32_t ts) : value(v), timescale(ts) {}

    static constexpr MediaTime zero() { return MediaTime(0, 1); }
    static constexpr MediaTime invalid() { return MediaTime(); }
    // seconds, rounded to the nearest unit of the timescale.
    static MediaTime fromSeconds(double seconds, int32_t timescale);

    bool isValid() const { return timescale > 0; }
    double seconds() const { return isValid() ? double(value) / double(timescale) : 0.0; }
    // The same time in another timescale, rounded to the nearest unit.
    MediaTime convertScale(int32_t newTimescale) const;

    // Exact comparison of two valid times (cross-multiplied in 128 bits).
    int compare(const MediaTime& other) const;
    bool operator<(const MediaTime& o) const { return compare(o) < 0; }
    bool operator<=(const MediaTime& o) const { return compare(o) <= 0; }
    bool operator>(const MediaTime& o) const { return compare(o) > 0; }
    bool operator>=(const MediaTime& o) const { return compare(o) >= 0; }
    bool operator==(const MediaTime& o) const { return compare(o) == 0; }
};

// A span of a movie: start and duration. An invalid duration means "to the
// end"; all() is the range that covers the whole movie.
struct MediaTimeRange {
    MediaTime start = MediaTime::zero();
    MediaTime duration = MediaTime::invalid();

    constexpr MediaTimeRange() = default;
    constexpr MediaTimeRange(MediaTime s, MediaTime d) : start(s), duration(d) {}
    static constexpr MediaTimeRange all() { return MediaTimeRange(); }

    bool hasEnd() const { return duration.isValid(); }
    // start + duration in the finer of the two timescales (only when hasEnd()).
    MediaTime end() const;
    // True when the range starts at or before zero and has no end.
    bool isAll() const { return start.value <= 0 && !hasEnd(); }
};

// A frame size in pixels.
struct Size {
    int width = 0;
    int height = 0;
    bool operator==(const Size&) const = default;
};

// A decoded, scaled video frame (the reader's "pixel buffer"). Owns one
// reference to the underlying frame; the writer takes its own reference when
// it queues the frame, so no pixels are copied between the two.
class VideoFrame {
public:
    // Takes over the reference held by frame.
    explicit VideoFrame(AVFrame* frame);
    ~VideoFrame();
    VideoFrame(const VideoFrame&) = delete;
    VideoFrame& operator=(const VideoFrame&) = delete;

    int width() const;
    int height() const;
    // kPixelFormat_420f, kPixelFormat_y420, kPixelFormat_f420,
    // kPixelFormat_BGRA, or 0 for any other layout.
    uint32_t pixelFormatType() const;
    int planeCount() const;
    const uint8_t* plane(int index) const;
    int bytesPerRow(int index) const;
    const AVFrame* avFrame() const { return frame; }

private:
    AVFrame* frame;
};

// A buffer of decoded audio as 16-bit signed interleaved PCM (the reader's
// audio sample buffer). The reader hands heldBack() instead of a buffer when
// it keeps audio from running too far ahead of the video; that marker carries
// no samples and the writer appends nothing for it.
class AudioBuffer {
public:
    // Takes over the reference held by frame (format AV_SAMPLE_FMT_S16).
    explicit AudioBuffer(AVFrame* frame);
    ~AudioBuffer();
    AudioBuffer(const AudioBuffer&) = delete;
    AudioBuffer& operator=(const AudioBuffer&) = delete;

    static const AudioBuffer* heldBack();
    bool isHeldBackMarker() const { return frame == nullptr; }

    int sampleCount() const;  // per channel
    int channelCount() const;
    int sampleRate() const;
    const int16_t* samples() const;
    // The presentation time of the first sample (timescale = sample rate).
    MediaTime time() const;
    const AVFrame* avFrame() const { return frame; }

private:
    AudioBuffer() : frame(nullptr) {}
    AVFrame* frame;
};

// The text of an FFmpeg error code.
std::string avErrorText(int errnum);

// The media layer's log: one printf-style line on standard error. Callers put
// the operation's name first ("%s: ...", __func__ or a fixed name).
void platformLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Keeps FFmpeg's own messages to errors (its default prints every stream's
// details); called by the reader and writer before they open anything.
void quietFFmpegLog();

} // namespace GLTK
