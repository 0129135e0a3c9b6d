#pragma once
// Encodes video frames and audio buffers into an MPEG-4 file: H.264
// (Constrained Baseline, automatic level) through libx264 or HEVC ("hvc1")
// through libx265 at an average bit rate with a fixed key-frame interval, and
// AAC audio, muxed by libavformat with the movie header first or last.
//
// Frames and audio buffers are queued (bounded) and encoded on two worker
// threads of the writer, so that the caller can decode the next frames while
// the encoder works; the readiness flags report room in those queues and are
// the caller's only back-pressure.
#include "GLTKMedia.h"

#include <cstdint>
#include <memory>
#include <string>

class GLTKVideoWriter {
public:
    // Room in the queues between the caller and the encoders: a few frames,
    // enough to keep the encoder busy while the caller decodes the next, and
    // 32 audio buffers (about a second of sound).
    static constexpr size_t kVideoQueueDepth = 4;
    static constexpr size_t kAudioQueueDepth = 32;

    GLTKVideoWriter();
    ~GLTKVideoWriter();
    GLTKVideoWriter(const GLTKVideoWriter&) = delete;
    GLTKVideoWriter& operator=(const GLTKVideoWriter&) = delete;

    // Drops any previous output, sets up a new one (setupWriter), writes the
    // file header and starts the encoder threads. Times given later are
    // written relative to startTime. False when the set-up fails.
    bool start(const std::string& url, GLTK::MediaTime startTime, GLTK::Size outputSize, bool hasAudio,
               bool encodeHEVC);
    // Removes any file at url, tests that the path can be created, opens the
    // muxer and the encoders. Each failure logs one line and returns false.
    bool setupWriter(const std::string& url, GLTK::Size outputSize, bool hasAudio, bool encodeHEVC);

    // Whether the video queue has room (false before start, after stop and
    // after a failure).
    bool isReadyForMoreFrame() const;
    // Whether the audio queue has room (false without an audio track).
    bool isReadyForMoreAudio() const;

    // Queues a frame for encoding at time (taking its own reference to the
    // pixels). False without a frame, when not ready, or for a frame before
    // the start time or not after the previous one.
    bool processFrame(const GLTK::VideoFrame* frame, GLTK::MediaTime time);
    // Queues an audio buffer (its own time is used). False without a buffer
    // or when not ready; true, appending nothing, for
    // GLTK::AudioBuffer::heldBack().
    bool processAudio(const GLTK::AudioBuffer* buffer);

    // Lets the queues drain, flushes the encoders, writes the trailer (moving
    // the movie header to the front when moov-first is on) and closes the
    // file. True only when every packet, the trailer and the file were
    // written without an error.
    bool stop();

    // True once encoding or writing has failed; stop will then answer false.
    bool hasFailed() const;

    // Settings, applied by the next start.
    uint64_t videoAverageBitRate() const { return videoBitRate; }
    void setVideoAverageBitRate(uint64_t bitsPerSecond) { videoBitRate = bitsPerSecond; }
    float audioSampleRate() const { return sampleRate; }
    void setAudioSampleRate(float rate) { sampleRate = rate; }
    int audioChannelCount() const { return channelCount; }
    void setAudioChannelCount(int count) { channelCount = count; }
    uint32_t audioEncoderBitRate() const { return audioBitRate; }
    void setAudioEncoderBitRate(uint32_t bitsPerSecond) { audioBitRate = bitsPerSecond; }
    // The layout of the frames that will be given: "420f" and "f420" frames
    // are encoded as full range and the stream says so; "y420" and "BGRA" as
    // video range.
    uint32_t pixelFormatType() const { return pixelFormat; }
    void setPixelFormatType(uint32_t type) { pixelFormat = type; }
    // The layout in the same range as the set one that the encoder takes as
    // it is, with no conversion on the way: x264 takes NV12 ("420f") and
    // planar 4:2:0, x265 planar 4:2:0 only ("f420" for "420f").
    uint32_t encoderPixelFormatType(bool encodeHEVC) const;
    int keyFrameInterval() const { return keyInterval; }
    void setKeyFrameInterval(int frames) { keyInterval = frames; }
    bool moovFirst() const { return moovAtFront; }
    void setMoovFirst(bool on) { moovAtFront = on; }
    // Hints for the encoder's rate control and the track's time base: the
    // source's frame rate (0 = unknown) and the timescale of the frame times
    // (0 = 90000).
    float expectedFrameRate() const { return frameRate; }
    void setExpectedFrameRate(float rate) { frameRate = rate; }
    int32_t videoTimescale() const { return timescale; }
    void setVideoTimescale(int32_t value) { timescale = value; }

private:
    struct Output;

    uint64_t videoBitRate = 8000000;
    float sampleRate = 44100.0f;
    int channelCount = 2;
    uint32_t audioBitRate = 128000;
    uint32_t pixelFormat = GLTK::kPixelFormat_BGRA;
    int keyInterval = 15;
    bool moovAtFront = true;
    float frameRate = 0;
    int32_t timescale = 0;

    std::unique_ptr<Output> output;
};
