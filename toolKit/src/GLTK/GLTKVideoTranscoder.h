#pragma once
// Pumps decoded frames and audio from a GLTKVideoReader into a
// GLTKVideoWriter on the calling thread, paced by the writer's readiness and
// with audio kept from running too far ahead of the video.
#include "GLTKMedia.h"
#include "GLTKVideoReader.h"
#include "GLTKVideoWriter.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace GLTK {
// Set (for example from a SIGTERM handler: the store is lock-free) to make a
// running transcode stop at its next pass; process() then returns false
// after finishing the file it was writing.
extern std::atomic<bool> transcodeStopRequested;
} // namespace GLTK

class GLTKVideoTranscoder {
public:
    // Called once per decoded frame, in the set pixel format's range and the
    // layout the encoder takes (GLTKVideoWriter::encoderPixelFormatType);
    // answering false ends the loop (and makes process() return false).
    // Absent: the frame goes to the writer.
    using ProcessFrame =
        std::function<bool(const GLTK::VideoFrame* frame, GLTKVideoWriter& writer, GLTK::MediaTime time)>;
    // Called once per decoded audio buffer (never with the held-back marker).
    // Absent: the buffer goes to the writer.
    using ProcessAudio =
        std::function<void(const GLTK::AudioBuffer* buffer, GLTKVideoWriter& writer, GLTK::MediaTime time)>;
    // Called once after the loop, before the writer is stopped.
    using ProcessFinally = std::function<void(GLTKVideoWriter& writer)>;

    // A reader and a writer with these settings: video average bit rate
    // 8192000, audio sample rate 44100, audio processing rate 44100, one
    // audio channel, audio bit rate 128000, pixel format "BGRA", moov first.
    GLTKVideoTranscoder();
    ~GLTKVideoTranscoder();
    GLTKVideoTranscoder(const GLTKVideoTranscoder&) = delete;
    GLTKVideoTranscoder& operator=(const GLTKVideoTranscoder&) = delete;

    // Describes the source; on success the render and output sizes become
    // the source frame size and the detected audio rate is taken. Logs
    // "%s: Failed to detect frameSize: %s" and returns false otherwise.
    bool attachSource(const std::string& url);
    GLTK::Size sourceFrameSize() const { return frameSize; }
    GLTK::MediaTime sourceDuration() const { return duration; }
    float nominalFrameRate() const { return frameRate; }
    float detectedAudioSampleRate() const { return detectedSampleRate; }

    GLTK::Size renderFrameSize() const { return renderSize; }
    void setRenderFrameSize(GLTK::Size size) { renderSize = size; }
    GLTK::Size outputFrameSize() const { return outputSize; }
    void setOutputFrameSize(GLTK::Size size) { outputSize = size; }

    // Settings held by the reader and writer themselves (0 once process()
    // has released them). Pixel format and channel count go to both; the
    // processing rate is the reader's audio rate; the rest are the writer's.
    uint32_t pixelFormatType() const;
    void setPixelFormatType(uint32_t type);
    int audioChannelCount() const;
    void setAudioChannelCount(int count);
    float audioProcessSampleRate() const;
    void setAudioProcessSampleRate(float rate);
    uint64_t videoAverageBitRate() const;
    void setVideoAverageBitRate(uint64_t bitsPerSecond);
    float audioSampleRate() const;
    void setAudioSampleRate(float rate);
    uint32_t audioEncoderBitRate() const;
    void setAudioEncoderBitRate(uint32_t bitsPerSecond);
    int keyFrameInterval() const;
    void setKeyFrameInterval(int frames);
    bool moovFirst() const;
    void setMoovFirst(bool on);

    // Decodes timeRange of the source and encodes it into outputURL with the
    // timeline starting at startTime. Each pass moves at most one audio
    // buffer and one frame, as far as the writer is ready; a pass that moves
    // nothing (audio held back behind the video moves nothing) sleeps 1 ms.
    // Ends when the reader completes, fails or is
    // cancelled, when processFrame answers false, when the writer fails, or
    // on a stop request. True when the reader did not fail, the writer
    // finished the file and nothing stopped the loop early. Runs once: the
    // reader and writer are released at the end.
    bool process(const std::string& outputURL, float audioPrecedingLimit, GLTK::MediaTime startTime,
                 GLTK::MediaTimeRange timeRange, bool encodeHEVC, const ProcessFrame& processFrame,
                 const ProcessAudio& processAudio, const ProcessFinally& processFinally);

    // Hand a frame or an audio buffer to the writer (for use in callbacks).
    bool processFrame(const GLTK::VideoFrame* frame, GLTK::MediaTime frameTime);
    bool processAudio(const GLTK::AudioBuffer* buffer);

    // The status names of the reader.
    static std::string mediaStatusName(int status) { return GLTKVideoReader::mediaStatusName(status); }

    // Number of passes of the last process() that moved neither audio nor a
    // frame (each slept 1 ms).
    uint64_t idlePasses() const { return idle; }

private:
    std::string source;
    std::unique_ptr<GLTKVideoReader> reader;
    std::unique_ptr<GLTKVideoWriter> videoWriter;
    GLTK::Size frameSize;
    GLTK::MediaTime duration = GLTK::MediaTime::zero();
    float frameRate = 0;
    float detectedSampleRate = 0;
    GLTK::Size renderSize;
    GLTK::Size outputSize;
    uint64_t idle = 0;
};
