#include "CameraModel.h"
#include "GLTKwchar.h"
#include "Movies.h"
#include "Option.h"
#include "TestSupport.h"

#include <cmath>
#include <gtest/gtest.h>

using namespace testsupport;

namespace {

struct Parse {
    Option option;
    bool ok = false;
    std::string printed;
    explicit Parse(std::vector<std::string> words)
    {
        std::vector<std::wstring> args = {L"Resize"};
        for (auto& w : words)
            args.push_back(GLTK::wchar::mbs2wcs(w));
        testing::internal::CaptureStdout();
        ok = option.parse(static_cast<int>(args.size()), args);
        printed = testing::internal::GetCapturedStdout();
    }
};

TEST(Option, DefaultsAndPositionalPaths)
{
    Parse none({"/nonexistent/a.mp4"});
    EXPECT_TRUE(none.ok); // a source that cannot be probed does not fail the parse
    EXPECT_EQ(none.option.outputPath, L"./images/resize.mp4");
    EXPECT_EQ(none.option.reEncode, 0);
    EXPECT_EQ(none.option.keyFrameInterval, -1);
    EXPECT_EQ(none.option.videoBitRate, 0xFFFFFFFFu);
    EXPECT_EQ(none.option.audioBitRate, 128000u);

    Parse three({"/nonexistent/a.mp4", "b.mp4", "c.mp4", "-x", "-h266"});
    EXPECT_EQ(three.option.sourcePath, L"/nonexistent/a.mp4");
    EXPECT_EQ(three.option.outputPath, L"-h266"); // words that look like options are paths
}

TEST(Option, ValuesSetTheReEncodeFlag)
{
    Parse p({"-vw:1920", "-ki:10", "-vb:8000000", "-ab:96000", "-ss:2", "-to:12.1", "-h265", "-thumb:t.jpg",
             "/nonexistent/a.mp4"});
    EXPECT_TRUE(p.ok);
    EXPECT_EQ(p.option.videoWidth, 1920);
    EXPECT_EQ(p.option.keyFrameInterval, 10);
    EXPECT_EQ(p.option.videoBitRate, 8000000u);
    EXPECT_EQ(p.option.audioBitRate, 96000u);
    EXPECT_EQ(p.option.start, 2u);
    EXPECT_EQ(p.option.end, 13u);
    EXPECT_EQ(p.option.codec, 2);
    EXPECT_EQ(p.option.thumbnailPath, L"t.jpg");
    EXPECT_EQ(p.option.reEncode, 1);
    EXPECT_EQ(Parse({"-to:12", "/x"}).option.end, 12u);
    // Codec and thumbnail options alone re-encode nothing.
    EXPECT_EQ(Parse({"-h264", "-thumb:x.jpg", "/x"}).option.reEncode, 0);
    // Out-of-range numbers keep their low 32 bits.
    EXPECT_EQ(Parse({"-vb:4294967297", "/x"}).option.videoBitRate, 1u);
}

TEST(Option, ViewValues)
{
    Parse two({"-view:90,10", "/x"});
    EXPECT_TRUE(two.ok);
    EXPECT_EQ(two.option.viewMode, 1);
    EXPECT_FLOAT_EQ(two.option.viewHeading.heading, 90.0f);
    EXPECT_FLOAT_EQ(two.option.viewHeading.pitch, 10.0f);
    EXPECT_TRUE(std::isnan(two.option.viewHeading.fov));
    EXPECT_TRUE(std::isnan(two.option.viewHeading.dolly));

    Parse one({"-view:90", "/x"});
    EXPECT_FALSE(one.ok);
    EXPECT_NE(one.printed.find("invalid arguments for -view:\n"), std::string::npos);

    EXPECT_EQ(Parse({"-view:-", "/x"}).option.viewMode, 2);
    EXPECT_EQ(Parse({"-view:-", "-view:1,2", "/x"}).option.viewMode, 1);
    EXPECT_FLOAT_EQ(Parse({"-view:1,2,3,0.25", "/x"}).option.viewHeading.dolly, 0.25f);
}

TEST(Option, HelpFailsWithoutProbing)
{
    Parse h({"-vw:1920", "-h", "/x"});
    EXPECT_FALSE(h.ok);
    EXPECT_EQ(h.printed, ""); // no probe lines
    testing::internal::CaptureStdout();
    h.option.usage();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\nResize 2.8.3.2019.07.25\nusage: Resize.osx [options] [source.mp4] [output.mp4]\n"
              "  source.mp4     : input file.\n    /x\n  output.mp4     : output file.\n    ./images/resize.mp4\n\n");
}

TEST(Option, ProbesTheSourceAndDerivesDefaults)
{
    fs::path newer = sharedMovie("--model newer");
    Parse p({newer.string()});
    ASSERT_TRUE(p.ok);
    EXPECT_NE(p.printed.find("source movie model: NARVI ORVEX C1 (20001)\n"), std::string::npos) << p.printed;
    EXPECT_NE(p.printed.find("source movie panoramaImageType: 1\n"), std::string::npos);
    EXPECT_NE(p.printed.find("H.264 detected.\n"), std::string::npos);
    EXPECT_NE(p.printed.find("key-frame interval: 30\n"), std::string::npos);
    EXPECT_NE(p.printed.find("source video bitrate: "), std::string::npos);
    // 960 wide at 30 fps, a low-rate source: quality class 1.
    EXPECT_NE(p.printed.find("detect default bitrate: 960/30.00fps, videoQuality:1, hevc:0\n"), std::string::npos)
        << p.printed;
    EXPECT_NE(p.printed.find("output video bitrate: 8000000\n"), std::string::npos);
    EXPECT_EQ(p.option.codec, 1);
    EXPECT_EQ(p.option.probe.cameraVersion, 0x20001u);
    EXPECT_TRUE(p.option.probe.hasGyroData);
    EXPECT_EQ(p.option.probe.width, 960);

    fs::path hevc = sharedMovie("--model older --codec h265 --fps 25");
    Parse q({hevc.string()});
    EXPECT_NE(q.printed.find("source movie model: NARVI ORVEX B1 (10001)\n"), std::string::npos) << q.printed;
    EXPECT_NE(q.printed.find("H.265/HEVC detected(hvc1).\n"), std::string::npos);
    EXPECT_NE(q.printed.find("key-frame interval: 15\n"), std::string::npos);
    EXPECT_NE(q.printed.find("output video bitrate: 3000000\n"), std::string::npos) << q.printed;
    EXPECT_EQ(q.option.codec, 2);
}

TEST(MetaProbe, DefaultBitRateTable)
{
    MetaProbe p;
    testing::internal::CaptureStdout();
    p.frameRate = 30;
    p.videoQuality = 1;
    EXPECT_EQ(p.default_bitrate(3840, true), 16000000u);
    EXPECT_EQ(p.default_bitrate(1920, false), 8000000u);
    p.videoQuality = 0;
    EXPECT_EQ(p.default_bitrate(1920, false), 16000000u); // the frame-rate rule comes first
    EXPECT_EQ(p.default_bitrate(3841, false), 56000000u);
    p.frameRate = 25;
    EXPECT_EQ(p.default_bitrate(1280, false), 6000000u);
    EXPECT_EQ(p.default_bitrate(1281, true), 4096000u);
    testing::internal::GetCapturedStdout();
}

// Every model of the line probes to its code, and only the newer ones take
// the newer camera's path.
TEST(MetaProbe, EachCameraModelProbesToItsCode)
{
    const struct {
        const char* suffix;
        uint32_t code;
        bool newer;
    } models[] = {{"A1", 0x00001, false}, {"B1", 0x10001, false}, {"B2", 0x11001, false}, {"E2", 0x40002, true},
                  {"C1", 0x20001, true},  {"D1", 0x30001, true},  {"E1", 0x40001, true}};
    for (const auto& m : models) {
        fs::path movie = sharedMovie(std::string("--model ") + m.suffix + " --duration 0.2 --no-audio");
        MetaProbe p;
        testing::internal::CaptureStdout();
        EXPECT_TRUE(p.probe(GLTK::wchar::mbs2wcs(movie.string())));
        std::string out = testing::internal::GetCapturedStdout();
        char line[64];
        snprintf(line, sizeof line, "source movie model: NARVI ORVEX %s (%x)\n", m.suffix, m.code);
        EXPECT_NE(out.find(line), std::string::npos) << out;
        EXPECT_EQ(p.cameraVersion, m.code);
        EXPECT_EQ(CameraModel::isNewer(p.cameraVersion), m.newer) << m.suffix;
    }
}

TEST(MetaProbe, UnknownModelsAndBrokenMakerNotes)
{
    fs::path odd = sharedMovie("--model-text 'NARVI ORVEX C1 ' --qmkn tiff-le");
    MetaProbe p;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(p.probe(GLTK::wchar::mbs2wcs(odd.string())));
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(p.cameraVersion, 0u);
    EXPECT_NE(out.find("EXIF can't read.\n"), std::string::npos) << out;
}

} // namespace
