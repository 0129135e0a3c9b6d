#pragma once
// Decodes a source movie into video frames scaled to a play size and audio
// buffers of 16-bit interleaved PCM at a chosen rate and channel count, one
// frame or buffer per call, over one time range.
//
// Video and audio are read through two independent demuxers, one per track,
// so that neither has to queue the other's packets: memory stays flat however
// the file is interleaved. The video decoder runs its own frame and slice
// threads; scaling and resampling run on the caller's thread.
#include "GLTKMedia.h"

#include <functional>
#include <memory>
#include <string>

class GLTKVideoReader {
public:
    // Media status values (the names are those of mediaStatusName).
    enum Status : int { Unknown = 0, Reading = 1, Completed = 2, Failed = 3, Cancelled = 4 };

    // frame is owned by the reader and released when the handler returns;
    // keep it longer by taking a reference of its own (the writer does).
    using FrameHandler = std::function<void(const GLTK::VideoFrame* frame, GLTK::MediaTime time)>;
    // buffer is either decoded audio or GLTK::AudioBuffer::heldBack() (see
    // loadNextAudio); time is the buffer's presentation time, or the last
    // audio time for the marker.
    using AudioHandler = std::function<void(const GLTK::AudioBuffer* buffer, GLTK::MediaTime time)>;

    GLTKVideoReader();
    ~GLTKVideoReader();
    GLTKVideoReader(const GLTKVideoReader&) = delete;
    GLTKVideoReader& operator=(const GLTKVideoReader&) = delete;

    // Describes a movie from its header, decoding nothing: size = the
    // picture size of the first video track's sample entry (as the decoder
    // will deliver it, not the track header's display size; only when the
    // entry has none is the first frame decoded); duration = the movie's
    // duration (timescale 1000000); nominalFrameRate = that track's average
    // frame rate (else its base rate); audioSampleRate (when given) = the
    // first audio track's rate, 0 without audio. Fails with a log line when
    // the movie cannot be opened or has no video track.
    static bool describeSource(const std::string& url, GLTK::Size& size, GLTK::MediaTime& duration,
                               float& nominalFrameRate, float* audioSampleRate);
    // The same, and the reader's audio sample rate becomes the detected one.
    bool describeSource(const std::string& url, GLTK::Size& size, GLTK::MediaTime& duration,
                        float& nominalFrameRate);

    // The first decoded frame of the first video track, in the given pixel
    // format, scaled down to fit maximumSize keeping its aspect ratio (never
    // enlarged; 0 x 0 = full size). Decodes that one frame on the calling
    // thread. Null on failure, without a message.
    static std::unique_ptr<GLTK::VideoFrame> copyFirstFrame(const std::string& url, GLTK::Size maximumSize,
                                                            uint32_t pixelFormatType);

    // Opens the movie and begins decoding timeRange (MediaTimeRange::all()
    // for the whole movie). A range seeks to the key frame before its start
    // and drops what decodes before it; frames at or after its end end it.
    // playSize 0 x 0 keeps the decoded size. True when reading has begun.
    bool start(const std::string& url, GLTK::Size playSize, GLTK::MediaTimeRange timeRange);
    // Whether an audio track is being decoded (the first audio track).
    bool hasAudioTrack() const;

    // Decodes the next video frame of the range and calls handler with it.
    // False when not reading, at the end of the range, or on an error (the
    // status then says which).
    bool loadNextFrame(const FrameHandler& handler);
    // Decodes the next audio buffer and calls handler with it. While the last
    // audio buffer read is more than limit seconds ahead of the last video
    // frame read, hands GLTK::AudioBuffer::heldBack() with the last audio
    // time instead and returns true (once the video has ended, audio is never
    // held back). False without audio, when not reading, or at the end.
    bool loadNextAudio(float limit, const AudioHandler& handler);

    // 0 before start, 1 while reading, 2 once the video and the audio have
    // both reached the end of the range, 3 after a read or decode error, 4
    // after stop while reading.
    int mediaStatus() const;
    // "Unknown", "Reading", "Completed", "Failed", "Cancelled" or "<<unknown:%d>".
    std::string mediaStatusWithNSString() const;
    static std::string mediaStatusName(int status);

    // Stops reading and releases the decoders and demuxers.
    void stop();
    // Only meaningful with audible playback, which this reader never does.
    void pause() {}
    void resume() {}

    // Settings, applied by the next start: the rate and channel count that
    // decoded audio is converted to, and the pixel format of the frames
    // ("420f", "y420", "f420" or "BGRA").
    float audioSampleRate() const { return sampleRate; }
    void setAudioSampleRate(float rate) { sampleRate = rate; }
    int audioChannelCount() const { return channelCount; }
    void setAudioChannelCount(int count) { channelCount = count; }
    uint32_t pixelFormatType() const { return pixelFormat; }
    void setPixelFormatType(uint32_t type) { pixelFormat = type; }

    // The time of the last video frame and of the last audio buffer read.
    GLTK::MediaTime currentFrameTime() const { return frameTime; }
    GLTK::MediaTime currentAudioTime() const { return audioTime; }
    // The started video track's nominal frame rate and time base (the
    // timescale of the frame times), valid after start.
    float nominalFrameRate() const { return frameRate; }
    int32_t videoTimescale() const;

private:
    struct Track;
    struct Audio;
    class Scaler;

    bool fail(const char* method, const std::string& what);
    void updateStatus();

    float sampleRate = 44100.0f;
    int channelCount = 2;
    uint32_t pixelFormat = GLTK::kPixelFormat_BGRA;

    int status = Unknown;
    GLTK::Size playSize;
    GLTK::MediaTimeRange range;
    GLTK::MediaTime frameTime = GLTK::MediaTime::zero();
    GLTK::MediaTime audioTime = GLTK::MediaTime::zero();
    float frameRate = 0;
    bool videoEnded = false;
    bool audioEnded = false;

    std::unique_ptr<Track> video;
    std::unique_ptr<Audio> audio;
    std::unique_ptr<Scaler> scaler;
};
