#include "GLTKVideoReader.h"
#include "VideoFixtures.h"

#include <gtest/gtest.h>


using namespace videotest;
using GLTK::MediaTime;

namespace {

TEST(VideoReader, DescribeSourceGivesDecodedSizeRateDurationAndAudioRate)
{
    // Pixels of aspect 2:1 make the track declare 1920 wide; the decoded
    // frames stay 960 x 480, and that is the size that counts.
    GLTK::Size size;
    MediaTime duration;
    float rate = 0, audioRate = -1;
    ASSERT_TRUE(GLTKVideoReader::describeSource(makeMovie(MovieSpec().rate(25).audio(22050).filter(",setsar=2")), size,
                                                duration, rate, &audioRate));
    EXPECT_EQ(size, (GLTK::Size{960, 480}));
    EXPECT_FLOAT_EQ(rate, 25.0f);
    EXPECT_NEAR(duration.seconds(), 2.0, 0.05);
    EXPECT_FLOAT_EQ(audioRate, 22050.0f);
    ASSERT_TRUE(GLTKVideoReader::describeSource(makeMovie(MovieSpec()), size, duration, rate, &audioRate));
    EXPECT_FLOAT_EQ(audioRate, 0.0f) << "no audio track: rate 0";

    testsupport::TempDir dir;
    path audioOnly = dir / "audio.mp4", garbage = dir / "garbage.mp4";
    ASSERT_EQ(testsupport::run("ffmpeg -v error -f lavfi -i sine=duration=1 -c:a aac " + testsupport::q(audioOnly)), 0);
    testsupport::writeFile(garbage, std::vector<uint8_t>(5000, 0x5A));
    testing::internal::CaptureStderr();
    for (const path& p : {audioOnly, dir / "missing.mp4", garbage})
        EXPECT_FALSE(GLTKVideoReader::describeSource(p, size, duration, rate, nullptr)) << p;
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("GLTKVideoReader::describeSource: No video tracks found - " + audioOnly.string()),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("Failed to open " + (dir / "missing.mp4").string() + "."), std::string::npos) << log;
}

TEST(VideoReader, AudioRunningPastTheLimitIsHeldBackUntilVideoCatchesUp)
{
    GLTKVideoReader reader;
    ASSERT_TRUE(reader.start(makeMovie(MovieSpec().audio(48000)), {320, 160}, GLTK::MediaTimeRange::all()));
    ASSERT_TRUE(reader.loadNextFrame(nullptr)); // last frame time 0
    // Audio only: once it is more than 1 s ahead of the frame, every request
    // yields the marker with the last audio time.
    double lastReal = -1;
    int markers = 0;
    for (int i = 0; i < 200 && markers < 3; ++i) {
        ASSERT_TRUE(reader.loadNextAudio(1.0f, [&](const GLTK::AudioBuffer* b, MediaTime t) {
            if (b->isHeldBackMarker()) {
                ++markers;
                EXPECT_DOUBLE_EQ(t.seconds(), lastReal);
            } else {
                EXPECT_EQ(markers, 0) << "no real buffer between markers";
                lastReal = t.seconds();
            }
        }));
    }
    EXPECT_EQ(markers, 3);
    EXPECT_GT(lastReal, 1.0);
    EXPECT_LT(lastReal, 1.1);
    // Frames up to 0.5 s bring the audio back within the limit.
    while (reader.currentFrameTime().seconds() < 0.5)
        ASSERT_TRUE(reader.loadNextFrame(nullptr));
    bool real = false;
    ASSERT_TRUE(reader.loadNextAudio(1.0f, [&](const GLTK::AudioBuffer* b, MediaTime) { real = !b->isHeldBackMarker(); }));
    EXPECT_TRUE(real);
}

TEST(VideoReader, TimeRangeStartsAtItsStartAndStopsBeforeItsEnd)
{
    // Key frames every 30 frames: the start at 0.5 s is mid-group, so the
    // reader must seek back and drop what decodes before it.
    GLTKVideoReader reader;
    reader.setAudioSampleRate(48000);
    GLTK::MediaTimeRange range(MediaTime(500000, 1000000), MediaTime(1, 2)); // [0.5, 1.0)
    ASSERT_TRUE(reader.start(makeMovie(MovieSpec().audio(48000)), {480, 240}, range));
    std::vector<double> times;
    int64_t samples = 0;
    double firstAudio = -1;
    while (reader.mediaStatus() == GLTKVideoReader::Reading) {
        bool a = reader.loadNextAudio(10.0f, [&](const GLTK::AudioBuffer* b, MediaTime t) {
            if (firstAudio < 0)
                firstAudio = t.seconds();
            samples += b->sampleCount();
        });
        bool v = reader.loadNextFrame([&](const GLTK::VideoFrame*, MediaTime t) { times.push_back(t.seconds()); });
        if (!a && !v)
            break;
    }
    EXPECT_EQ(reader.mediaStatus(), GLTKVideoReader::Completed);
    ASSERT_EQ(times.size(), 15u);
    EXPECT_DOUBLE_EQ(times.front(), 0.5);
    EXPECT_NEAR(times.back(), 0.5 + 14.0 / 30, 1e-9);
    EXPECT_DOUBLE_EQ(firstAudio, 0.5);
    EXPECT_EQ(samples, 24000) << "audio is cut to the range with sample precision";
}

TEST(VideoReader, FailuresAndStopsEndTheReading)
{
    GLTKVideoReader reader;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(reader.start("/nonexistent/x.mp4", {}, GLTK::MediaTimeRange::all()));
    reader.setPixelFormatType(0x31323334);
    EXPECT_FALSE(reader.start(makeMovie(MovieSpec().length(1)), {}, GLTK::MediaTimeRange::all()));
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("GLTKVideoReader::start: Failed to open /nonexistent/x.mp4."), std::string::npos) << log;
    EXPECT_FALSE(reader.loadNextFrame(nullptr));

    // Stopping while reading cancels.
    reader.setPixelFormatType(GLTK::kPixelFormat_BGRA);
    ASSERT_TRUE(reader.start(makeMovie(MovieSpec().length(1)), {64, 32}, GLTK::MediaTimeRange::all()));
    ASSERT_TRUE(reader.loadNextFrame(nullptr));
    reader.stop();
    EXPECT_EQ(reader.mediaStatus(), GLTKVideoReader::Cancelled);
    EXPECT_FALSE(reader.loadNextFrame(nullptr));
}

} // namespace
