#include "GLTKVideoTranscoder.h"

#include "GLTKCancel.h"

#include <unistd.h>

using GLTK::MediaTime;

namespace GLTK {
std::atomic<bool> transcodeStopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the stop request is set from a signal handler");
} // namespace GLTK

GLTKVideoTranscoder::GLTKVideoTranscoder()
    : reader(std::make_unique<GLTKVideoReader>()), videoWriter(std::make_unique<GLTKVideoWriter>())
{
    setVideoAverageBitRate(8192000);
    setAudioSampleRate(44100.0f);
    setAudioProcessSampleRate(44100.0f);
    setAudioChannelCount(1);
    setAudioEncoderBitRate(128000);
    setPixelFormatType(GLTK::kPixelFormat_BGRA);
    setMoovFirst(true);
}

GLTKVideoTranscoder::~GLTKVideoTranscoder() = default;

bool GLTKVideoTranscoder::attachSource(const std::string& url)
{
    source = url;
    frameSize = GLTK::Size();
    duration = MediaTime::zero();
    frameRate = 0;
    if (!reader || !reader->describeSource(url, frameSize, duration, frameRate)) {
        GLTK::platformLog("%s: Failed to detect frameSize: %s", "GLTKVideoTranscoder::attachSource", url.c_str());
        return false;
    }
    renderSize = frameSize;
    outputSize = frameSize;
    detectedSampleRate = reader->audioSampleRate();
    return true;
}

uint32_t GLTKVideoTranscoder::pixelFormatType() const { return reader ? reader->pixelFormatType() : 0; }

void GLTKVideoTranscoder::setPixelFormatType(uint32_t type)
{
    if (reader)
        reader->setPixelFormatType(type);
    if (videoWriter)
        videoWriter->setPixelFormatType(type);
}

int GLTKVideoTranscoder::audioChannelCount() const { return reader ? reader->audioChannelCount() : 0; }

void GLTKVideoTranscoder::setAudioChannelCount(int count)
{
    if (reader)
        reader->setAudioChannelCount(count);
    if (videoWriter)
        videoWriter->setAudioChannelCount(count);
}

float GLTKVideoTranscoder::audioProcessSampleRate() const { return reader ? reader->audioSampleRate() : 0; }

void GLTKVideoTranscoder::setAudioProcessSampleRate(float rate)
{
    if (reader)
        reader->setAudioSampleRate(rate);
}

uint64_t GLTKVideoTranscoder::videoAverageBitRate() const
{
    return videoWriter ? videoWriter->videoAverageBitRate() : 0;
}

void GLTKVideoTranscoder::setVideoAverageBitRate(uint64_t bitsPerSecond)
{
    if (videoWriter)
        videoWriter->setVideoAverageBitRate(bitsPerSecond);
}

float GLTKVideoTranscoder::audioSampleRate() const { return videoWriter ? videoWriter->audioSampleRate() : 0; }

void GLTKVideoTranscoder::setAudioSampleRate(float rate)
{
    if (videoWriter)
        videoWriter->setAudioSampleRate(rate);
}

uint32_t GLTKVideoTranscoder::audioEncoderBitRate() const
{
    return videoWriter ? videoWriter->audioEncoderBitRate() : 0;
}

void GLTKVideoTranscoder::setAudioEncoderBitRate(uint32_t bitsPerSecond)
{
    if (videoWriter)
        videoWriter->setAudioEncoderBitRate(bitsPerSecond);
}

int GLTKVideoTranscoder::keyFrameInterval() const { return videoWriter ? videoWriter->keyFrameInterval() : 0; }

void GLTKVideoTranscoder::setKeyFrameInterval(int frames)
{
    if (videoWriter)
        videoWriter->setKeyFrameInterval(frames);
}

bool GLTKVideoTranscoder::moovFirst() const { return videoWriter ? videoWriter->moovFirst() : false; }

void GLTKVideoTranscoder::setMoovFirst(bool on)
{
    if (videoWriter)
        videoWriter->setMoovFirst(on);
}

bool GLTKVideoTranscoder::processFrame(const GLTK::VideoFrame* frame, MediaTime frameTime)
{
    return videoWriter ? videoWriter->processFrame(frame, frameTime) : false;
}

bool GLTKVideoTranscoder::processAudio(const GLTK::AudioBuffer* buffer)
{
    return videoWriter ? videoWriter->processAudio(buffer) : false;
}

bool GLTKVideoTranscoder::process(const std::string& outputURL, float audioPrecedingLimit, MediaTime startTime,
                                  GLTK::MediaTimeRange timeRange, bool encodeHEVC, const ProcessFrame& processFrame,
                                  const ProcessAudio& processAudio, const ProcessFinally& processFinally)
{
    idle = 0;
    if (!reader || !videoWriter)
        return false; // already run once
    // Frames are scaled straight into the layout the encoder takes, so each
    // is converted once, by the reader.
    setPixelFormatType(videoWriter->encoderPixelFormatType(encodeHEVC));
    if (!reader->start(source, renderSize, timeRange))
        return false;
    bool hasAudio = reader->hasAudioTrack();
    videoWriter->setVideoTimescale(reader->videoTimescale());
    videoWriter->setExpectedFrameRate(reader->nominalFrameRate());
    if (!videoWriter->start(outputURL, startTime, outputSize, hasAudio, encodeHEVC)) {
        reader->stop();
        return false;
    }

    GLTKVideoWriter& writer = *videoWriter;
    bool goOn = true;
    int status = GLTKVideoReader::Unknown;
    MediaTime audioTime = MediaTime::zero();
    MediaTime frameTime = MediaTime::zero();
    bool audioMoved = false;
    auto audioHandler = [&](const GLTK::AudioBuffer* buffer, MediaTime time) {
        audioTime = time;
        if (buffer == nullptr || buffer->isHeldBackMarker())
            return; // held back: nothing to write
        audioMoved = true;
        if (processAudio)
            processAudio(buffer, writer, time);
        else
            writer.processAudio(buffer);
    };
    auto frameHandler = [&](const GLTK::VideoFrame* frame, MediaTime time) {
        frameTime = time;
        if (processFrame)
            goOn = processFrame(frame, writer, time);
        else
            writer.processFrame(frame, time);
    };

    while (status != GLTKVideoReader::Completed && status != GLTKVideoReader::Failed &&
           status != GLTKVideoReader::Cancelled && goOn) {
        // Each pass's frame and buffer are released when their handlers
        // return, so nothing accumulates from pass to pass.
        // Audio held back behind the video does not count as moved: while
        // the encoder's queue is full that pass has done nothing, and
        // counting it would turn the loop into a spin that takes a core
        // from the encoder.
        audioMoved = false;
        bool frameLoaded = false;
        if (writer.isReadyForMoreAudio())
            reader->loadNextAudio(audioPrecedingLimit, audioHandler);
        if (writer.isReadyForMoreFrame())
            frameLoaded = reader->loadNextFrame(frameHandler);
        if (GLTK::transcodeStopRequested.load() || GLTK::cancelRequested() || writer.hasFailed())
            goOn = false;
        if (goOn) {
            if (!audioMoved && !frameLoaded) {
                ++idle;
                usleep(1000);
            }
            status = reader->mediaStatus();
        }
    }

    if (processFinally)
        processFinally(writer);
    bool stopped = videoWriter->stop();
    reader->stop();
    videoWriter.reset();
    reader.reset();
    return goOn && status != GLTKVideoReader::Failed && stopped;
}
