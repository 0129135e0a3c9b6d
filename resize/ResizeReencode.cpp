// The re-encode itself, part of the media module: it fills in
// ResizeTranscoder::reencode as the module starts.
#include "ResizeTranscoder.h"

#include "GLTKConsole.h"
#include "GLTKMedia.h"
#include "GLTKVideoTranscoder.h"
#include "GLTKwchar.h"
#include "Utility.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace {

// m:ss, or h:mm:ss from an hour on.
std::wstring clockText(double seconds)
{
    const long s = std::lround(std::max(seconds, 0.0));
    wchar_t text[32];
    if (s >= 3600)
        swprintf(text, 32, L"%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    else
        swprintf(text, 32, L"%ld:%02ld", s / 60, s % 60);
    return text;
}

// The re-encode's status line at a terminal: frames done of those the cut
// should give, percent, frames per second, elapsed and remaining time.
// Drawn at most ten times a second, and once more at the end.
class FrameProgress {
public:
    explicit FrameProgress(uint32_t expected) : total(expected) {}
    ~FrameProgress() { GLTK::Console::endStatus(); }

    void frame(uint32_t done)
    {
        if (done <= 1 || Clock::now() - drawn >= std::chrono::milliseconds(100))
            draw(done);
    }
    // A cut written whole has exactly the frames written.
    void finish(uint32_t done, bool whole)
    {
        if (whole)
            total = done;
        draw(done);
    }

private:
    using Clock = std::chrono::steady_clock;

    void draw(uint32_t done)
    {
        drawn = Clock::now();
        total = std::max(total, done);
        const double elapsed = std::chrono::duration<double>(drawn - begun).count();
        // The rate settles after a tenth of a second; the last drawing has it
        // whatever the time, and nothing left.
        const double fps = elapsed > 0.1 || (done == total && elapsed > 0.0) ? done / elapsed : 0.0;
        const std::wstring left = done == total ? L"0:00" : fps > 0.0 ? clockText((total - done) / fps) : L"-:--";
        GLTK::Console::LocaleC c;
        GLTK::Console::status(L"frame %u/%u  %3.0f%%  %.1f fps  elapsed %ls  remaining %ls", done, total,
                              total ? 100.0 * done / total : 0.0, fps, clockText(elapsed).c_str(), left.c_str());
    }

    uint32_t total;
    const Clock::time_point begun = Clock::now();
    Clock::time_point drawn = begun;
};

// The progress lines off a terminal (a log, a pipe): the first, one about
// every second, and the last, so that a log stays short however long the
// movie. Each kind (frames, audio) keeps its own pace.
class LogLines {
public:
    // Prints the line when it is due; keeps it otherwise, for the end.
    void line(std::wstring text)
    {
        const auto now = Clock::now();
        if (printed && now - last < std::chrono::seconds(1)) {
            held = std::move(text);
            return;
        }
        printed = true;
        last = now;
        held.clear();
        GLTK::Console::out(L"%ls", text.c_str());
    }
    // The last line, when it was held back.
    void finish()
    {
        if (!held.empty())
            GLTK::Console::out(L"%ls", held.c_str());
        held.clear();
    }

private:
    using Clock = std::chrono::steady_clock;
    bool printed = false;
    Clock::time_point last;
    std::wstring held;
};

std::wstring format(const wchar_t* f, int frame, double t, double total)
{
    GLTK::Console::LocaleC c;
    wchar_t text[96];
    if (frame >= 0)
        swprintf(text, 96, f, frame, t, total);
    else
        swprintf(text, 96, f, t, total);
    return text;
}

uint32_t reencode(const Option& option, const std::wstring& into)
{
    const std::string source = GLTK::wchar::narrow(option.sourcePath);
    const std::string output = GLTK::wchar::narrow(into);

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
    if (option.videoWidth > 0)
        size = GLTK::Size{option.videoWidth, option.videoWidth / 2};
    GLTK::Console::out(L"output size: %dx%d\n", size.width, size.height);
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

    // At a terminal one status line; elsewhere lines for logs and scripts.
    const bool terminal = GLTK::Console::isTerminal();
    LogLines frameLines, audioLines;
    FrameProgress progress(static_cast<uint32_t>(
        std::lround(std::max(range.duration.seconds() * transcoder.nominalFrameRate(), 0.0))));
    uint32_t frames = 0;
    auto onFrame = [&](const GLTK::VideoFrame* frame, GLTKVideoWriter&, GLTK::MediaTime time) {
        if (!terminal)
            frameLines.line(format(L"processing frame %6d %0.2f/%0.2f\n", int(frames), time.seconds(), total));
        transcoder.processFrame(frame, time);
        ++frames;
        if (terminal)
            progress.frame(frames);
        return true;
    };
    auto onAudio = [&](const GLTK::AudioBuffer* buffer, GLTKVideoWriter&, GLTK::MediaTime time) {
        if (!terminal)
            audioLines.line(format(L"processing audio ------ %0.2f/%0.2f\n", -1, time.seconds(), total));
        transcoder.processAudio(buffer);
    };
    bool ok = transcoder.process(output, 1.0f, startTime, range, option.codec == 2, onFrame, onAudio,
                                 [](GLTKVideoWriter&) {});
    if (terminal)
        progress.finish(frames, ok);
    frameLines.finish();
    audioLines.finish();
    return ok ? frames : 0;
}

const bool provided = (ResizeTranscoder::reencode = reencode, true);

} // namespace
