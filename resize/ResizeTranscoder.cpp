#include "ResizeTranscoder.h"

#include "GLTKConsole.h"
#include "GLTKMedia.h"
#include "GLTKVideoTranscoder.h"
#include "GLTKwchar.h"
#include "Utility.h"

uint32_t ResizeTranscoder::trim(const Option& option)
{
    const std::string source = GLTK::wchar::narrow(option.sourcePath);
    const std::string output = GLTK::wchar::narrow(option.outputPath);

    GLTKVideoTranscoder transcoder;
    if (!transcoder.attachSource(source))
        return 0;
    const GLTK::MediaTime duration = transcoder.sourceDuration();

    transcoder.setPixelFormatType(Utility::isSupporFullRangePixelFormat() ? GLTK::kPixelFormat_420f
                                                                          : GLTK::kPixelFormat_y420);
    transcoder.setVideoAverageBitRate(option.videoBitRate);
    transcoder.setAudioEncoderBitRate(option.audioBitRate);

    // The output is always 2:1 equirectangular.
    GLTK::Size size = transcoder.sourceFrameSize();
    if (option.videoWidth >= 2)
        size = GLTK::Size{option.videoWidth, option.videoWidth / 2};
    transcoder.setRenderFrameSize(size);
    transcoder.setOutputFrameSize(size);
    transcoder.setKeyFrameInterval(option.keyFrameInterval);

    const float detected = transcoder.detectedAudioSampleRate();
    const float rate = detected < 44100.0f ? 44100.0f : detected;
    transcoder.setAudioProcessSampleRate(rate);
    transcoder.setAudioSampleRate(rate);
    {
        GLTK::Console::LocaleC c;
        GLTK::Console::out(L"audio sampleRate: in: %0.3f, out: %0.3f/%0.3f\n", detected / 1000.0,
                           transcoder.audioProcessSampleRate() / 1000.0, transcoder.audioSampleRate() / 1000.0);
    }
    // moov is written behind the media: the metadata rebuild then edits the
    // movie where it stands, or moves moov to the front (older cameras) in
    // the one copy it makes anyway. A faststart pass here would copy the
    // whole movie once more.
    transcoder.setMoovFirst(false);

    const int32_t scale = duration.timescale > 0 ? duration.timescale : 1000000;
    const GLTK::MediaTime startTime(static_cast<int64_t>(option.start) * scale, scale);
    GLTK::MediaTime endTime(static_cast<int64_t>(option.end) * scale, scale);
    GLTK::Console::out(L"processing %ls to %ls ...\n", option.sourcePath.c_str(), option.outputPath.c_str());
    if (!(duration > endTime))
        endTime = duration;
    const double total = duration.seconds();
    const GLTK::MediaTimeRange range(startTime, GLTK::MediaTime(endTime.value - startTime.value, scale));

    uint32_t frames = 0;
    auto onFrame = [&](const GLTK::VideoFrame* frame, GLTKVideoWriter&, GLTK::MediaTime time) {
        {
            GLTK::Console::LocaleC c;
            GLTK::Console::out(L"processing frame %6d %0.2f/%0.2f\r", frames, time.seconds(), total);
        }
        transcoder.processFrame(frame, time);
        ++frames;
        return true;
    };
    auto onAudio = [&](const GLTK::AudioBuffer* buffer, GLTKVideoWriter&, GLTK::MediaTime time) {
        {
            GLTK::Console::LocaleC c;
            GLTK::Console::out(L"processing audio ------ %0.2f/%0.2f\r", time.seconds(), total);
        }
        transcoder.processAudio(buffer);
    };
    bool ok = transcoder.process(output, 1.0f, startTime, range, option.codec == 2, onFrame, onAudio,
                                 [](GLTKVideoWriter&) {});
    return ok ? frames : 0;
}
