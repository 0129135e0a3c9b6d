#include "camera/VideoStabilizationMode.h"

#include <gtest/gtest.h>
#include <string>

namespace {

struct Resolved {
    int32_t result;
    VideoStabilizationMode m;
};

Resolved resolve(int32_t source, bool imageAvailable, int32_t yaw = -1, int32_t image = -1)
{
    VideoStabilizationMode m;
    m.yaw = yaw;
    m.image = image;
    int32_t r = m.resolvState(source, imageAvailable);
    return {r, m};
}

TEST(VideoStabilizationMode, SourceWithLockedDirectionAndImage)
{
    Resolved r = resolve(13, true);
    EXPECT_EQ(r.result, 13);
    EXPECT_EQ(r.m.yaw, 0);
    EXPECT_EQ(r.m.yawMode, 2);
    EXPECT_EQ(r.m.image, 0);
    EXPECT_EQ(r.m.exif, 13);
    EXPECT_EQ(r.m.source, 13);

    r = resolve(5, true, -1, 1);
    EXPECT_EQ(r.m.exif, 13);
    EXPECT_EQ(r.result, 13);
}

TEST(VideoStabilizationMode, NoSourceTagAndNoImageStabilizer)
{
    Resolved r = resolve(-1, false);
    EXPECT_EQ(r.m.yaw, 0);
    EXPECT_EQ(r.m.yawMode, 0);
    EXPECT_EQ(r.m.image, 1);
    EXPECT_EQ(r.m.exif, 8);
    EXPECT_EQ(r.result, 8);
}

TEST(VideoStabilizationMode, UnsetRequestsFollowTheirSign)
{
    // Nothing in the source: -1 asks for yaw correction, -2 for a locked one.
    Resolved r = resolve(0, true, -1);
    EXPECT_EQ(r.m.yaw, 1);
    EXPECT_EQ(r.m.yawMode, 1);
    EXPECT_EQ(r.m.exif, 4);
    EXPECT_EQ(r.result, 12);

    r = resolve(-1, true, -2, 1);
    EXPECT_EQ(r.m.yaw, 2);
    EXPECT_EQ(r.m.yawMode, 2);
    EXPECT_EQ(r.m.exif, 13);

    r = resolve(0, true, 0);
    EXPECT_EQ(r.m.exif, 0);
    EXPECT_EQ(r.result, 8);
}

TEST(VideoStabilizationMode, SourceCodeTwoDefersToTheRequest)
{
    Resolved r = resolve(2, true, 1);
    EXPECT_EQ(r.m.yawMode, 1); // code 2 maps to 1 here, unlike yawModeOf
    EXPECT_EQ(r.m.exif, 4);
    r = resolve(2, true, 1, 1);
    EXPECT_EQ(r.m.exif, 12);
    // A source of 1 is kept as it is.
    r = resolve(1, true, 2);
    EXPECT_EQ(r.m.exif, 1);
    EXPECT_EQ(r.result, 9);
    // Other negative values pass through too.
    r = resolve(-3, true);
    EXPECT_EQ(r.m.exif, -3);
    EXPECT_EQ(r.result, -3);
}

TEST(VideoStabilizationMode, YawModeOfValue)
{
    const int expected[16] = {0, 1, 0, 2, 1, 2, 0, 0, 0, 1, 0, 2, 1, 2, 0, 0};
    for (int v = 0; v < 16; ++v)
        EXPECT_EQ(VideoStabilizationMode::yawModeOf(v), expected[v]) << v;
    EXPECT_EQ(VideoStabilizationMode::yawModeOf(-1), 0);
}

TEST(VideoStabilizationMode, SummaryAndDescription)
{
    VideoStabilizationMode m;
    std::string s;
    EXPECT_STREQ(m.stabilizeModeSummary(s), "yaw:unknown,image:unknown");
    std::wstring w;
    m.to_s(w);
    EXPECT_EQ(w, L"yaw:UNDEF,image:UNDEF,source:-1,exif:-1");

    m.yaw = 1;
    m.image = 0;
    m.resolvState(-1, true);
    EXPECT_STREQ(m.stabilizeModeSummary(s), "yaw:enabled,image:disabled");
    EXPECT_EQ(s, "yaw:enabled,image:disabled");

    m.yaw = 2;
    m.yawMode = 2;
    m.image = 1;
    m.imageGain = 0.5f;
    m.source = 13;
    m.exif = 13;
    EXPECT_STREQ(m.stabilizeModeSummary(s), "yaw:lockDir,image:enabled");
    m.to_s(w);
    EXPECT_EQ(w, L"yaw:lockDir,image:enabled,image_gain:0.5,source:13,exif:13");

    // The description follows the request, the summary the resolved mode.
    m.yaw = 0;
    m.yawMode = 1;
    m.image = 0;
    m.to_s(w);
    EXPECT_EQ(w, L"yaw:disabled,image:disabled,source:13,exif:13");
    EXPECT_STREQ(m.stabilizeModeSummary(s), "yaw:enabled,image:disabled");
}

} // namespace
