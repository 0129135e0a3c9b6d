#include "GLTKVideoTranscoder.h"
#include "VideoFixtures.h"

#include <gtest/gtest.h>

using namespace videotest;
using GLTK::MediaTime;

namespace {

// The transcoder set up as the re-encode driver sets it up.
struct Job {
    GLTKVideoTranscoder transcoder;
    int frames = 0, audioBuffers = 0, finallyCalls = 0;

    bool attach(const path& source, int width, int keyInterval, uint32_t pixelFormat = GLTK::kPixelFormat_420f)
    {
        if (!transcoder.attachSource(source))
            return false;
        transcoder.setPixelFormatType(pixelFormat);
        transcoder.setVideoAverageBitRate(2000000);
        transcoder.setAudioEncoderBitRate(96000);
        transcoder.setRenderFrameSize({width, width / 2});
        transcoder.setOutputFrameSize({width, width / 2});
        transcoder.setKeyFrameInterval(keyInterval);
        float rate = std::max(transcoder.detectedAudioSampleRate(), 44100.0f);
        transcoder.setAudioProcessSampleRate(rate);
        transcoder.setAudioSampleRate(rate);
        return true;
    }

    bool run(const path& out, double start, double end, bool hevc)
    {
        int32_t ts = transcoder.sourceDuration().timescale;
        MediaTime startTime = MediaTime::fromSeconds(start, ts), endTime = MediaTime::fromSeconds(end, ts);
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

TEST(VideoTranscoder, H264WholeMovieIsConstrainedBaselineFullRangeWithFixedKeySpacing)
{
    testsupport::TempDir dir;
    path out = dir / "out.mp4";
    Job job;
    ASSERT_TRUE(job.attach(makeMovie(MovieSpec().audio(48000)), 480, 10));
    EXPECT_EQ(job.transcoder.sourceFrameSize(), (GLTK::Size{960, 480}));
    ASSERT_TRUE(job.run(out, 0, 1e9, false));
    EXPECT_EQ(job.frames, 60);
    EXPECT_GT(job.audioBuffers, 0);
    EXPECT_EQ(job.finallyCalls, 1);

    EXPECT_EQ(decodeErrors(out), "");
    EXPECT_EQ(probe(out, "v", "codec_name,profile,width,height,color_range,nb_frames"),
              "h264\nConstrained Baseline\n480\n240\npc\n60");
    EXPECT_EQ(keyFrames(out), (std::vector<size_t>{0, 10, 20, 30, 40, 50}));
    EXPECT_EQ(probe(out, "a", "codec_name,sample_rate,channels"), "aac\n48000\n1");
    EXPECT_NEAR(std::stod(probe(out, "", "duration")), 2.0, 0.05);
    EXPECT_TRUE(moovBeforeMdat(out)) << "moov-first is on by default";
}

TEST(VideoTranscoder, HevcOverATimeRangeIsHvc1AndResamplesLowRateAudio)
{
    testsupport::TempDir dir;
    path out = dir / "out.mp4";
    Job job;
    ASSERT_TRUE(job.attach(makeMovie(MovieSpec().audio(22050, 1)), 320, 5, GLTK::kPixelFormat_y420));
    job.transcoder.setMoovFirst(false);
    ASSERT_TRUE(job.run(out, 0.5, 1.5, true));
    EXPECT_EQ(job.frames, 30);

    EXPECT_EQ(decodeErrors(out), "");
    EXPECT_EQ(probe(out, "v", "codec_name,codec_tag_string,width,height,nb_frames"), "hevc\nhvc1\n320\n160\n30");
    EXPECT_NE(probe(out, "v", "color_range"), "pc");
    EXPECT_EQ(probe(out, "a", "sample_rate"), "44100");
    // The output timeline starts at the range's start.
    EXPECT_NEAR(std::stod(probe(out, "", "duration")), 1.0, 0.05);
    EXPECT_NEAR(std::stod(probe(out, "", "start_time")), 0.0, 0.01);
    EXPECT_EQ(keyFrames(out), (std::vector<size_t>{0, 5, 10, 15, 20, 25}));
    EXPECT_FALSE(moovBeforeMdat(out));
}

TEST(VideoTranscoder, DefaultCallbacksWriteEverythingAndNoAudioGivesNoAudioTrack)
{
    testsupport::TempDir dir;
    for (bool withAudio : {true, false}) {
        path out = dir / "out.mp4";
        GLTKVideoTranscoder t;
        ASSERT_TRUE(t.attachSource(makeMovie(withAudio ? MovieSpec().length(1).audio(48000) : MovieSpec().length(1))));
        t.setRenderFrameSize({320, 160});
        t.setOutputFrameSize({320, 160});
        ASSERT_TRUE(t.process(out, 1.0f, MediaTime::zero(), GLTK::MediaTimeRange::all(), false, nullptr, nullptr,
                              nullptr));
        EXPECT_EQ(probe(out, "v", "nb_frames"), "30");
        EXPECT_EQ(probe(out, "a", "sample_rate"), withAudio ? "44100" : "");
        EXPECT_EQ(decodeErrors(out), "");
    }
}

TEST(VideoTranscoder, FalseFromProcessFrameOrAStopRequestEndsTheLoopButFinishesTheFile)
{
    testsupport::TempDir dir;
    path out = dir / "out.mp4";
    for (bool stopRequest : {false, true}) {
        GLTKVideoTranscoder t;
        ASSERT_TRUE(t.attachSource(makeMovie(MovieSpec().audio(48000))));
        t.setRenderFrameSize({320, 160});
        t.setOutputFrameSize({320, 160});
        int calls = 0, finals = 0;
        bool ok = t.process(
            out, 1.0f, MediaTime::zero(), GLTK::MediaTimeRange::all(), false,
            [&](const GLTK::VideoFrame* f, GLTKVideoWriter& w, MediaTime time) {
                w.processFrame(f, time);
                if (++calls == 5 && stopRequest)
                    GLTK::transcodeStopRequested = true;
                return stopRequest;
            },
            nullptr, [&](GLTKVideoWriter&) { ++finals; });
        GLTK::transcodeStopRequested = false;
        EXPECT_FALSE(ok);
        EXPECT_EQ(calls, stopRequest ? 5 : 1);
        EXPECT_EQ(finals, 1);
        EXPECT_EQ(decodeErrors(out), "") << "the writer was still finished";
        EXPECT_EQ(probe(out, "v", "nb_frames"), stopRequest ? "5" : "1");
        // The reader and writer are gone: a second run is refused.
        EXPECT_FALSE(t.process(out, 1.0f, MediaTime::zero(), GLTK::MediaTimeRange::all(), false, nullptr, nullptr,
                               nullptr));
    }
}

TEST(VideoTranscoder, FailuresAreReported)
{
    testsupport::TempDir dir;
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
