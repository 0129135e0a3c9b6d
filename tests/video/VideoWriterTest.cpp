#include "GLTKVideoReader.h"
#include "GLTKVideoWriter.h"
#include "Movies.h"
#include "VideoFixtures.h"

#include <gtest/gtest.h>

#include <thread>

using namespace videotest;
using GLTK::MediaTime;

namespace {

TEST(VideoWriter, InputsFollowTheStartAndAnExistingFileIsReplaced)
{
    testsupport::TempDir dir;
    path out = dir / "out.mp4";
    testsupport::writeFile(out, std::vector<uint8_t>(100000, 0xEE));
    GLTKVideoWriter writer;
    EXPECT_FALSE(writer.isReadyForMoreFrame()) << "not started";
    ASSERT_TRUE(writer.start(out, MediaTime::zero(), {320, 160}, false, false));
    EXPECT_TRUE(writer.isReadyForMoreFrame());
    EXPECT_FALSE(writer.isReadyForMoreAudio()) << "started without audio";
    EXPECT_FALSE(writer.processAudio(GLTK::AudioBuffer::heldBack()));
    EXPECT_FALSE(writer.processFrame(nullptr, MediaTime::zero()));
    EXPECT_TRUE(writer.stop());
    EXPECT_FALSE(writer.isReadyForMoreFrame()) << "stopped";
    EXPECT_FALSE(writer.stop()) << "nothing left to stop";
    EXPECT_LT(fs::file_size(out), 100000u);
    EXPECT_EQ(testsupport::boxTree(out).rfind("ftyp @", 0), 0u);

    // With audio the held-back marker is accepted and writes nothing.
    ASSERT_TRUE(writer.start(out, MediaTime::zero(), {320, 160}, true, false));
    EXPECT_TRUE(writer.isReadyForMoreAudio());
    EXPECT_FALSE(writer.processAudio(nullptr));
    EXPECT_TRUE(writer.processAudio(GLTK::AudioBuffer::heldBack()));
    EXPECT_TRUE(writer.stop());

    testing::internal::CaptureStderr();
    EXPECT_FALSE(writer.start(dir / "missing/out.mp4", MediaTime::zero(), {320, 160}, true, false));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "GLTKVideoWriter::setupWriter: open failed(2)\n");
    EXPECT_FALSE(writer.isReadyForMoreFrame());
}

TEST(VideoWriter, QueuesAreBoundedAndFramesBeforeTheStartOrOutOfOrderAreRefused)
{
    testsupport::TempDir dir;
    auto frame = GLTKVideoReader::copyFirstFrame(makeMovie(MovieSpec().length(1)), {640, 320},
                                                 GLTK::kPixelFormat_420f);
    ASSERT_TRUE(frame);
    GLTKVideoWriter writer;
    writer.setPixelFormatType(GLTK::kPixelFormat_420f);
    writer.setKeyFrameInterval(4);
    writer.setVideoTimescale(600);
    writer.setExpectedFrameRate(30);
    path out = dir / "out.mp4";
    ASSERT_TRUE(writer.start(out, MediaTime(1, 1), {640, 320}, false, false));
    EXPECT_FALSE(writer.processFrame(frame.get(), MediaTime(599, 600))) << "before the session start";

    // Offer frames as fast as possible: the writer must refuse some while its
    // queue is full, and take them again once the encoder has caught up.
    int accepted = 0, refusals = 0;
    for (int i = 0; accepted < 40 && i < 100000; ++i) {
        if (!writer.isReadyForMoreFrame()) {
            ++refusals;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            continue;
        }
        ASSERT_TRUE(writer.processFrame(frame.get(), MediaTime(600 + 20 * accepted, 600)));
        ++accepted;
    }
    EXPECT_EQ(accepted, 40);
    EXPECT_GT(refusals, 0) << "the queue never filled";
    while (!writer.isReadyForMoreFrame())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_FALSE(writer.processFrame(frame.get(), MediaTime(600 + 20 * 39, 600))) << "same time as the last";
    ASSERT_TRUE(writer.stop());

    EXPECT_EQ(decodeErrors(out), "");
    EXPECT_EQ(probe(out, "v", "color_range,nb_frames"), "pc\n40");
    EXPECT_NEAR(std::stod(probe(out, "", "duration")), 40.0 / 30, 0.01);
    EXPECT_EQ(keyFrames(out), (std::vector<size_t>{0, 4, 8, 12, 16, 20, 24, 28, 32, 36}));
}

} // namespace
