#include "camera/VideoStabilizationMode.h"

#include <gtest/gtest.h>
#include <string>

namespace {

TEST(VideoStabilizationMode, ResolvesSourceCodeAndRequestIntoTheWrittenCode)
{
    struct Case {
        const char* what;
        int32_t source;
        bool imageAvailable;
        int32_t yaw, image;                  // requested
        int32_t result, yawOut, yawMode, exif; // resolved
    } cases[] = {
        {"source locked with image", 13, true, -1, -1, 13, 0, 2, 13},
        {"image asked on a locked source", 5, true, -1, 1, 13, -1, 2, 13},
        {"no tag, no image stabilizer", -1, false, -1, -1, 8, 0, 0, 8},
        {"unset request -1 asks for yaw", 0, true, -1, -1, 12, 1, 1, 4},
        {"unset request -2 asks for locked yaw", -1, true, -2, 1, 13, 2, 2, 13},
        {"yaw off", 0, true, 0, -1, 8, 0, 0, 0},
        {"source code 2 defers to the request", 2, true, 1, -1, 12, 1, 1, 4},
        {"source code 1 is kept", 1, true, 2, -1, 9, -1, -1, 1},
        {"other negative codes pass through", -3, true, -1, -1, -3, -1, -1, -3},
    };
    for (const Case& c : cases) {
        VideoStabilizationMode m;
        m.yaw = c.yaw;
        m.image = c.image;
        EXPECT_EQ(m.resolvState(c.source, c.imageAvailable), c.result) << c.what;
        EXPECT_TRUE(c.yawOut < 0 || m.yaw == c.yawOut) << c.what << ": yaw " << m.yaw;
        EXPECT_TRUE(c.yawMode < 0 || m.yawMode == c.yawMode) << c.what << ": yaw mode " << m.yawMode;
        EXPECT_EQ(m.exif, c.exif) << c.what;
    }
    // Code 2 maps to yaw mode 1 in the resolution above but to 0 here.
    const int expected[16] = {0, 1, 0, 2, 1, 2, 0, 0, 0, 1, 0, 2, 1, 2, 0, 0};
    for (int v = 0; v < 16; ++v)
        EXPECT_EQ(VideoStabilizationMode::yawModeOf(v), expected[v]) << v;
}

TEST(VideoStabilizationMode, SummaryFollowsTheResolvedModeNotTheRequest)
{
    VideoStabilizationMode m;
    std::string s;
    EXPECT_STREQ(m.stabilizeModeSummary(s), "yaw:unknown,image:unknown");
    m.yaw = 0;
    m.yawMode = 2;
    m.image = 1;
    EXPECT_STREQ(m.stabilizeModeSummary(s), "yaw:lockDir,image:enabled");
    EXPECT_EQ(s, "yaw:lockDir,image:enabled");
    m.yawMode = 1;
    m.image = 0;
    EXPECT_STREQ(m.stabilizeModeSummary(s), "yaw:enabled,image:disabled");
}

} // namespace
