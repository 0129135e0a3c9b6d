// The command line, and the source probe that derives the defaults of a
// re-encode.
#include "CameraModel.h"
#include "GLTKwchar.h"
#include "Option.h"
#include "OptionTable.h"
#include "Tools.h"

#include <gtest/gtest.h>
#include <regex>

using namespace testsupport;

namespace {

// The words parsed, then, as the run does, the source opened once and the
// defaults derived from it.
struct Parse {
    Option option;
    bool ok = false;
    std::string printed;
    explicit Parse(const std::vector<std::string>& words)
    {
        std::vector<std::wstring> args = {L"Resize"};
        for (const std::string& w : words)
            args.push_back(GLTK::wchar::mbs2wcs(w));
        printed = printedBy([&] {
            ok = option.parse(static_cast<int>(args.size()), args);
            SourceMovie source;
            std::wstring problem;
            if (ok && source.open(option.sourcePath, problem))
                option.derive(source);
        });
    }
};

TEST(Option, ValuesAndWhatMakesARunReEncode)
{
    Parse p({"-vw:1922", "-ki:10", "-vb:8000000", "-ab:96000", "-ss:2", "-to:12.1", "-h265", "-thumb:t.jpg",
             "/nonexistent/a.mp4", "b.mp4"});
    EXPECT_TRUE(p.ok); // the words alone: the source is looked at later
    const Option& o = p.option;
    // The end rounded up to whole seconds, the width to a multiple of 4.
    EXPECT_EQ(std::make_tuple(o.videoWidth, o.keyFrameInterval, o.videoBitRate, o.audioBitRate, o.start, o.end, o.codec),
              std::make_tuple(1924, 10, 8000000u, 96000u, 2u, 13u, 2));
    EXPECT_EQ(o.thumbnailPath + L" " + o.sourcePath + L" " + o.outputPath, L"t.jpg /nonexistent/a.mp4 b.mp4");
    EXPECT_EQ(o.reEncode, 1);
    // Codec and thumbnail options alone re-encode nothing.
    EXPECT_EQ(Parse({"-h264", "-thumb:x.jpg", "/x"}).option.reEncode, 0);
    EXPECT_EQ(Parse({"-vw:1", "/x"}).option.videoWidth, -1); // below 2: the source's width
    EXPECT_EQ(Parse({"-vw:2", "-vb:8M", "-ab:96k", "/x"}).option.videoWidth, 4);
    EXPECT_EQ(Parse({"-vb:8M", "-ab:96k", "/x"}).option.videoBitRate, 8000000u);
    EXPECT_EQ(Parse({"-vb:8M", "-ab:96k", "/x"}).option.audioBitRate, 96000u);
}

// Every model of the line probes to its code, and only the newer ones take
// the newer camera's path; the probe derives the key-frame interval and
// the bit rate of a re-encode from the source.
TEST(Option, EachCameraModelProbesToItsCodeAndTheSourceGivesTheDefaults)
{
    const struct {
        const char* suffix;
        uint32_t code;
        bool newer;
    } models[] = {{"A1", 0x00001, false}, {"B1", 0x10001, false}, {"B2", 0x11001, false}, {"E2", 0x40002, true},
                  {"C1", 0x20001, true},  {"D1", 0x30001, true},  {"E1", 0x40001, true},  {"X9", 0, false}};
    for (const auto& m : models) {
        Parse p({sharedMovie(std::string("--model ") + m.suffix).string()});
        char line[64];
        std::snprintf(line, sizeof line, "source movie model: NARVI ORVEX %s (%x)\n", m.suffix, m.code);
        EXPECT_NE(p.printed.find(line), std::string::npos) << p.printed;
        EXPECT_EQ(p.option.probe.cameraVersion, m.code);
        EXPECT_EQ(CameraModel::isNewer(p.option.probe.cameraVersion), m.newer) << m.suffix;
    }
    // The bit rate of the table for the size and frame rate, but never more
    // than the source's own.
    auto rates = [](const std::string& printed) {
        std::smatch m;
        EXPECT_TRUE(std::regex_search(printed, m, std::regex(R"(source video bitrate: (\d+)\n[^]*output video bitrate: (\d+)\n)")));
        return m.size() == 3 ? std::make_pair(std::stoul(m[1]), std::stoul(m[2])) : std::make_pair(0ul, 0ul);
    };
    Parse newer({sharedMovie("--model newer").string()});
    for (const char* line : {"H.264 detected.\n", "key-frame interval: 30\n",
                             "detect default bitrate: 960/30.00fps, videoQuality:1, hevc:0\n"})
        EXPECT_NE(newer.printed.find(line), std::string::npos) << line << " in\n" << newer.printed;
    EXPECT_EQ(rates(newer.printed).second, std::min(8000000ul, rates(newer.printed).first));
    Parse hevc({"-vw:9", sharedMovie("--model older --codec h265 --fps 25").string()});
    for (const char* line : {"H.265/HEVC detected(hvc1).\n", "key-frame interval: 15\n"})
        EXPECT_NE(hevc.printed.find(line), std::string::npos) << line << " in\n" << hevc.printed;
    EXPECT_EQ(rates(hevc.printed).second, std::min(3000000ul, rates(hevc.printed).first));
    EXPECT_EQ(hevc.option.codec, 2);
    EXPECT_EQ(hevc.option.videoWidth, 32); // libx265's smallest frame is 32 x 16
}

// One table drives the parser, --help and resize-batch (through --options):
// every row is listed once in each.
TEST(Option, HelpAndTheBatchTableListEveryOptionOnce)
{
    std::string help, table;
    EXPECT_EQ(run(resize() + " --help", &help), 0);
    EXPECT_EQ(run(resize() + " --options", &table), 0);
    EXPECT_TRUE(help.starts_with(usage("./images/source.mp4", "./images/resize.mp4"))) << help;
    auto count = [](const std::string& text, const std::string& what) {
        size_t n = 0;
        for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
            ++n;
        return n;
    };
    for (const OptionRow& row : optionTable()) {
        std::string listed = "\n  ", tabled = "\n";
        listed.append(GLTK::wchar::narrow(row.word)).append(GLTK::wchar::narrow(row.value)).append(" ");
        tabled.append(GLTK::wchar::narrow(row.word)).append("\t");
        EXPECT_EQ(count(help, listed), 1u) << listed << " in\n" << help;
        EXPECT_EQ(count("\n" + table, tabled), 1u) << tabled << " in\n" << table;
    }
}

} // namespace
