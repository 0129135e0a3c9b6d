// The transcoding loop. Sizes, codecs, cuts and audio rates of whole runs are
// checked end to end (tests/e2e); here the loop's own rules: defaults,
// stopping and failures.
#include "GLTKVideoTranscoder.h"
#include "VideoFixtures.h"

#include <gtest/gtest.h>

using namespace videotest;
using GLTK::MediaTime;

namespace {

bool processAll(GLTKVideoTranscoder& t, const path& out)
{
    return t.process(out, 1.0f, MediaTime::zero(), GLTK::MediaTimeRange::all(), false, nullptr, nullptr, nullptr);
}

TEST(VideoTranscoder, DefaultCallbacksWriteEverythingAsConstrainedBaseline)
{
    testsupport::TempDir dir;
    for (bool withAudio : {true, false}) {
        SCOPED_TRACE(withAudio);
        path out = dir / "out.mp4";
        GLTKVideoTranscoder t;
        ASSERT_TRUE(t.attachSource(makeMovie(withAudio ? MovieSpec().length(1).audio(22050) : MovieSpec().length(1))));
        t.setRenderFrameSize({320, 160});
        t.setOutputFrameSize({320, 160});
        if (withAudio) {
            t.setPixelFormatType(GLTK::kPixelFormat_420f);
            t.setKeyFrameInterval(10);
        }
        ASSERT_TRUE(processAll(t, out));
        EXPECT_EQ(decodeErrors(out), "");
        EXPECT_EQ(probe(out, "v", "profile,width,height,nb_frames"), "Constrained Baseline\n320\n160\n30");
        EXPECT_EQ(probe(out, "a", "sample_rate"), withAudio ? "44100" : ""); // never below 44.1 kHz
        if (withAudio) {
            EXPECT_EQ(probe(out, "v", "color_range"), "pc");
            EXPECT_EQ(keyFrames(out), (std::vector<size_t>{0, 10, 20}));
        }
        EXPECT_TRUE(moovBeforeMdat(out)) << "moov-first is on by default";
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
        EXPECT_FALSE(processAll(t, out)) << "the reader and writer are gone: a second run is refused";
    }
}

TEST(VideoTranscoder, FailuresAreReported)
{
    testsupport::TempDir dir;
    GLTKVideoTranscoder bad;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(bad.attachSource((dir / "missing.mp4").string()));
    ASSERT_TRUE(bad.attachSource(makeMovie(MovieSpec().length(1))));
    EXPECT_FALSE(processAll(bad, dir / "no/such/dir/out.mp4"));
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("GLTKVideoTranscoder::attachSource: Failed to detect frameSize: " +
                       (dir / "missing.mp4").string()),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("GLTKVideoWriter::setupWriter: open failed(2)"), std::string::npos) << log;
}

} // namespace
