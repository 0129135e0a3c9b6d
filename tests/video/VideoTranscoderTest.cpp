#include "GLTKVideoTranscoder.h"
#include "VideoFixtures.h"

#include <gtest/gtest.h>

using namespace videotest;
using GLTK::MediaTime;

namespace {

// The transcoder set up as the re-encode driver sets it up.
struct Job {
    GLTKVideoTranscoder transcoder;
    int frames = 0;
    int audioBuffers = 0;
    int finallyCalls = 0;

    bool attach(const path& source, int width, int keyInterval, uint32_t pixelFormat = GLTK::kPixelFormat_420f)
    {
        if (!transcoder.attachSource(source))
            return false;
        transcoder.setPixelFormatType(pixelFormat);
        transcoder.setVideoAverageBitRate(2000000);
        transcoder.setAudioEncoderBitRate(96000);
        GLTK::Size size{width, width / 2};
        transcoder.setRenderFrameSize(size);
        transcoder.setOutputFrameSize(size);
        transcoder.setKeyFrameInterval(keyInterval);
        float detected = transcoder.detectedAudioSampleRate();
        float rate = detected < 44100 ? 44100 : detected;
        transcoder.setAudioProcessSampleRate(rate);
        transcoder.setAudioSampleRate(rate);
        return true;
    }

    bool run(const path& out, double start, double end, bool hevc)
    {
        int32_t ts = transcoder.sourceDuration().timescale;
        MediaTime startTime = MediaTime::fromSeconds(start, ts);
        MediaTime endTime = MediaTime::fromSeconds(end, ts);
        if (!(transcoder.sourceDuration() > endTime))
            endTime = transcoder.sourceDuration();
        GLTK::MediaTimeRange range(startTime, MediaTime(endTime.value - startTime.value, ts));
        return transcoder.process(
            out, 1.0f, startTime, range, hevc,
            [&](const GLTK::VideoFrame* f, GLTKVideoWriter&, MediaTime t) {
                EXPECT_TRUE(transcoder.processFrame(f, t));
                ++frames;
                return true;
            },
            [&](const GLTK::AudioBuffer* b, GLTKVideoWriter&, MediaTime) {
                EXPECT_FALSE(b->isHeldBackMarker());
                transcoder.processAudio(b);
                ++audioBuffers;
            },
            [&](GLTKVideoWriter&) { ++finallyCalls; });
    }
};

std::vector<size_t> keyIndexes(const path& movie)
{
    std::vector<size_t> keys;
    std::vector<bool> flags = keyFlags(movie);
    for (size_t i = 0; i < flags.size(); ++i)
        if (flags[i])
            keys.push_back(i);
    return keys;
}

TEST(VideoTranscoder, H264WholeMovieIsConstrainedBaselineFullRangeWithFixedKeySpacing)
{
    testsupport::TempDir dir;
    path out = dir / "out.mp4";
    Job job;
    ASSERT_TRUE(job.attach(makeMovie(MovieSpec().audio(48000)), 480, 10));
    EXPECT_EQ(job.transcoder.sourceFrameSize(), (GLTK::Size{960, 480}));
    EXPECT_FLOAT_EQ(job.transcoder.detectedAudioSampleRate(), 48000.0f);
    ASSERT_TRUE(job.run(out, 0, 1e9, false));
    EXPECT_EQ(job.frames, 60);
    EXPECT_GT(job.audioBuffers, 0);
    EXPECT_EQ(job.finallyCalls, 1);

    EXPECT_EQ(decodeErrors(out), "");
    EXPECT_EQ(probe(out, "v", "codec_name"), "h264");
    EXPECT_EQ(probe(out, "v", "profile"), "Constrained Baseline");
    EXPECT_EQ(probe(out, "v", "width"), "480");
    EXPECT_EQ(probe(out, "v", "height"), "240");
    EXPECT_EQ(probe(out, "v", "color_range"), "pc");
    EXPECT_EQ(probe(out, "v", "nb_frames"), "60");
    EXPECT_EQ(keyIndexes(out), (std::vector<size_t>{0, 10, 20, 30, 40, 50}));
    EXPECT_EQ(probe(out, "a", "codec_name"), "aac");
    EXPECT_EQ(probe(out, "a", "sample_rate"), "48000");
    EXPECT_EQ(probe(out, "a", "channels"), "1") << "the transcoder's channel count is 1";
    EXPECT_NEAR(std::stod(probe(out, "", "duration")), 2.0, 0.05);
    std::vector<std::string> boxes = topLevelBoxes(out);
    auto at = [&](const char* t) { return std::find(boxes.begin(), boxes.end(), t) - boxes.begin(); };
    EXPECT_LT(at("moov"), at("mdat")) << "moov-first is on by default";
}

TEST(VideoTranscoder, HevcOverATimeRangeIsHvc1AndResamplesLowRateAudio)
{
    testsupport::TempDir dir;
    path out = dir / "out.mp4";
    Job job;
    ASSERT_TRUE(job.attach(makeMovie(MovieSpec().audio(22050, 1)), 320, 5, GLTK::kPixelFormat_y420));
    job.transcoder.setMoovFirst(false);
    EXPECT_FLOAT_EQ(job.transcoder.audioProcessSampleRate(), 44100.0f);
    ASSERT_TRUE(job.run(out, 0.5, 1.5, true));
    EXPECT_EQ(job.frames, 30);

    EXPECT_EQ(decodeErrors(out), "");
    EXPECT_EQ(probe(out, "v", "codec_name"), "hevc");
    EXPECT_EQ(probe(out, "v", "codec_tag_string"), "hvc1");
    EXPECT_EQ(probe(out, "v", "width"), "320");
    EXPECT_EQ(probe(out, "v", "height"), "160");
    EXPECT_NE(probe(out, "v", "color_range"), "pc");
    EXPECT_EQ(probe(out, "v", "nb_frames"), "30");
    EXPECT_EQ(probe(out, "a", "sample_rate"), "44100");
    // The output timeline starts at the range's start.
    EXPECT_NEAR(std::stod(probe(out, "", "duration")), 1.0, 0.05);
    EXPECT_NEAR(std::stod(probe(out, "", "start_time")), 0.0, 0.01);
    EXPECT_EQ(keyIndexes(out), (std::vector<size_t>{0, 5, 10, 15, 20, 25}));
    std::vector<std::string> boxes = topLevelBoxes(out);
    auto at = [&](const char* t) { return std::find(boxes.begin(), boxes.end(), t) - boxes.begin(); };
    EXPECT_GT(at("moov"), at("mdat"));
}

TEST(VideoTranscoder, SourceWithoutAudioGivesVideoOnlyOutput)
{
    testsupport::TempDir dir;
    path out = dir / "out.mp4";
    Job job;
    ASSERT_TRUE(job.attach(makeMovie(MovieSpec().length(1)), 640, 15, GLTK::kPixelFormat_BGRA));
    EXPECT_FLOAT_EQ(job.transcoder.detectedAudioSampleRate(), 0.0f);
    ASSERT_TRUE(job.run(out, 0, 1e9, false));
    EXPECT_EQ(job.audioBuffers, 0);
    EXPECT_EQ(streamCount(out, "a"), 0);
    EXPECT_EQ(probe(out, "v", "nb_frames"), "30");
    EXPECT_EQ(probe(out, "v", "profile"), "Constrained Baseline");
    EXPECT_EQ(decodeErrors(out), "");
}

TEST(VideoTranscoder, FalseFromProcessFrameStopsAtOnceButFinishesTheFile)
{
    testsupport::TempDir dir;
    path out = dir / "out.mp4";
    GLTKVideoTranscoder t;
    ASSERT_TRUE(t.attachSource(makeMovie(MovieSpec().audio(48000))));
    t.setRenderFrameSize({320, 160});
    t.setOutputFrameSize({320, 160});
    int calls = 0, finals = 0;
    bool ok = t.process(
        out, 1.0f, MediaTime::zero(), GLTK::MediaTimeRange::all(), false,
        [&](const GLTK::VideoFrame* f, GLTKVideoWriter& w, MediaTime time) {
            ++calls;
            w.processFrame(f, time);
            return false;
        },
        nullptr, [&](GLTKVideoWriter&) { ++finals; });
    EXPECT_FALSE(ok);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(finals, 1);
    EXPECT_EQ(decodeErrors(out), "") << "the writer was still finished";
    EXPECT_EQ(probe(out, "v", "nb_frames"), "1");
    // The reader and writer are gone: a second run is refused.
    EXPECT_FALSE(t.process(out, 1.0f, MediaTime::zero(), GLTK::MediaTimeRange::all(), false, nullptr, nullptr,
                           nullptr));
}

TEST(VideoTranscoder, StopRequestEndsTheLoopWithFalse)
{
    testsupport::TempDir dir;
    GLTKVideoTranscoder t;
    ASSERT_TRUE(t.attachSource(makeMovie(MovieSpec())));
    t.setRenderFrameSize({320, 160});
    t.setOutputFrameSize({320, 160});
    int calls = 0;
    bool ok = t.process(
        dir / "out.mp4", 1.0f, MediaTime::zero(), GLTK::MediaTimeRange::all(), false,
        [&](const GLTK::VideoFrame* f, GLTKVideoWriter& w, MediaTime time) {
            if (++calls == 5)
                GLTK::transcodeStopRequested = true;
            w.processFrame(f, time);
            return true;
        },
        nullptr, nullptr);
    GLTK::transcodeStopRequested = false;
    EXPECT_FALSE(ok);
    EXPECT_EQ(calls, 5);
}

TEST(VideoTranscoder, DefaultCallbacksWriteEverythingAndFailuresAreReported)
{
    testsupport::TempDir dir;
    path out = dir / "out.mp4";
    GLTKVideoTranscoder t;
    EXPECT_EQ(t.videoAverageBitRate(), 8192000u);
    EXPECT_EQ(t.audioChannelCount(), 1);
    EXPECT_EQ(t.pixelFormatType(), GLTK::kPixelFormat_BGRA);
    EXPECT_TRUE(t.moovFirst());
    ASSERT_TRUE(t.attachSource(makeMovie(MovieSpec().length(1).audio(48000))));
    t.setRenderFrameSize({320, 160});
    t.setOutputFrameSize({320, 160});
    ASSERT_TRUE(t.process(out, 1.0f, MediaTime::zero(), GLTK::MediaTimeRange::all(), false, nullptr, nullptr,
                          nullptr));
    EXPECT_EQ(probe(out, "v", "nb_frames"), "30");
    EXPECT_EQ(probe(out, "a", "sample_rate"), "44100");
    EXPECT_EQ(decodeErrors(out), "");

    GLTKVideoTranscoder bad;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(bad.attachSource((dir / "missing.mp4").string()));
    ASSERT_TRUE(bad.attachSource(makeMovie(MovieSpec().length(1))));
    EXPECT_FALSE(bad.process((dir / "no/such/dir/out.mp4").string(), 1.0f, MediaTime::zero(),
                             GLTK::MediaTimeRange::all(), false, nullptr, nullptr, nullptr));
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("GLTKVideoTranscoder::attachSource: Failed to detect frameSize: " +
                       (dir / "missing.mp4").string()),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("GLTKVideoWriter::setupWriter: open failed(2)"), std::string::npos) << log;
}

} // namespace
