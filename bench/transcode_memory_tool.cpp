// Re-encodes a movie through GLTKVideoTranscoder the way the re-encode driver
// does (full-range 4:2:0 frames, 2:1 output of the given width, audio at the
// source rate or 44.1 kHz) and reports time, CPU use and peak memory.
//
//   transcode_memory_tool SOURCE OUTPUT [WIDTH] [-h265] [-vb:BITS] [-ki:FRAMES]
#include "GLTKMedia.h"
#include "GLTKVideoTranscoder.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/resource.h>

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s SOURCE OUTPUT [WIDTH] [-h265] [-vb:BITS] [-ki:FRAMES]\n", argv[0]);
        return 2;
    }
    std::string source = argv[1];
    std::string output = argv[2];
    int width = 0;
    bool hevc = false;
    uint64_t bitRate = 16000000;
    int keyInterval = 30;
    for (int i = 3; i < argc; ++i) {
        if (std::strcmp(argv[i], "-h265") == 0)
            hevc = true;
        else if (std::strncmp(argv[i], "-vb:", 4) == 0)
            bitRate = std::strtoull(argv[i] + 4, nullptr, 10);
        else if (std::strncmp(argv[i], "-ki:", 4) == 0)
            keyInterval = std::atoi(argv[i] + 4);
        else
            width = std::atoi(argv[i]);
    }

    auto wallStart = std::chrono::steady_clock::now();
    GLTKVideoTranscoder transcoder;
    if (!transcoder.attachSource(source)) {
        std::fprintf(stderr, "attach failed\n");
        return 1;
    }
    GLTK::MediaTime duration = transcoder.sourceDuration();
    transcoder.setPixelFormatType(GLTK::kPixelFormat_420f);
    transcoder.setVideoAverageBitRate(bitRate);
    transcoder.setAudioEncoderBitRate(128000);
    GLTK::Size size = width >= 2 ? GLTK::Size{width, width / 2} : transcoder.sourceFrameSize();
    transcoder.setRenderFrameSize(size);
    transcoder.setOutputFrameSize(size);
    transcoder.setKeyFrameInterval(keyInterval);
    float rate = transcoder.detectedAudioSampleRate() < 44100.0f ? 44100.0f : transcoder.detectedAudioSampleRate();
    transcoder.setAudioProcessSampleRate(rate);
    transcoder.setAudioSampleRate(rate);
    transcoder.setMoovFirst(true);

    unsigned frames = 0;
    bool ok = transcoder.process(
        output, 1.0f, GLTK::MediaTime(0, duration.timescale), GLTK::MediaTimeRange(GLTK::MediaTime(0, duration.timescale), duration),
        hevc,
        [&](const GLTK::VideoFrame* frame, GLTKVideoWriter& writer, GLTK::MediaTime time) {
            writer.processFrame(frame, time);
            ++frames;
            return true;
        },
        [&](const GLTK::AudioBuffer* buffer, GLTKVideoWriter& writer, GLTK::MediaTime) { writer.processAudio(buffer); },
        nullptr);
    double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();

    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    double user = double(usage.ru_utime.tv_sec) + double(usage.ru_utime.tv_usec) / 1e6;
    double sys = double(usage.ru_stime.tv_sec) + double(usage.ru_stime.tv_usec) / 1e6;
    std::printf("result      %s\n", ok ? "ok" : "FAILED");
    std::printf("frames      %u (%.2f s of source)\n", frames, duration.seconds());
    std::printf("wall        %.2f s (%.1f frames/s)\n", wall, wall > 0 ? frames / wall : 0.0);
    std::printf("cpu         user %.2f s + sys %.2f s = %.2f cores\n", user, sys, wall > 0 ? (user + sys) / wall : 0.0);
    std::printf("idle passes %llu\n", static_cast<unsigned long long>(transcoder.idlePasses()));
    std::printf("peak rss    %ld KiB\n", usage.ru_maxrss);
    return ok ? 0 : 1;
}
