#include "GLTKConsole.h" // init_locale
#include "GLTKFileIO.h"
#include "GLTKwchar.h"
#include "MP4BinFile.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

std::wstring w(const fs::path& p) { return GLTK::wchar::mbs2wcs(p.string()); }

TEST(FileIO, MissingFileIsReportedAndFailedSeeksKeepThePosition)
{
    TempDir dir;
    bool called = false;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(GLTK::FileIO::open(w(dir / "missing.mp4"), [&](GLTK::FileIO&) { called = true; }));
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(called);
    EXPECT_NE(out.find("'r'"), std::string::npos) << out;
    EXPECT_NE(out.find("failed."), std::string::npos) << out;

    std::wstring path = w(dir / "a.bin");
    ASSERT_TRUE(GLTK::FileIO::open_w(path, [](GLTK::FileIO& f) { EXPECT_EQ(f.write("0123456789", 10), 10u); }));
    ASSERT_TRUE(GLTK::FileIO::open_a(path, [](GLTK::FileIO& f) {
        EXPECT_EQ(f.length(), 10u);
        EXPECT_TRUE(f.seek_set(4));
        char c[2];
        EXPECT_EQ(f.read(c, 2), 2u);
        EXPECT_EQ(f.position, 6u);
        testing::internal::CaptureStdout();
        EXPECT_FALSE(f.seek_cur(-100));
        EXPECT_NE(testing::internal::GetCapturedStdout().find("seek_cur(-100) failed - "), std::string::npos);
        EXPECT_EQ(f.position, 6u);
    }));
}

TEST(FileIO, CopyToCopiesAcrossBlockBoundariesAndStopsAtTheEnd)
{
    TempDir dir;
    std::vector<uint8_t> bytes(3 * 1024 * 1024 + 17);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = uint8_t(i * 31 + (i >> 11));
    writeFile(dir / "src", bytes);
    ASSERT_TRUE(GLTK::FileIO::open(w(dir / "src"), [&](GLTK::FileIO& in) {
        GLTK::FileIO::open_w(w(dir / "dst"), [&](GLTK::FileIO& out) {
            EXPECT_EQ(in.copyTo(out, 0), 0u);
            in.seek_set(1);
            EXPECT_EQ(in.copyTo(out, bytes.size() - 1), bytes.size() - 1);
            in.seek_set(bytes.size() - 5);
            EXPECT_EQ(in.copyTo(out, 100), 5u);
        });
    }));
    std::vector<uint8_t> got = readFile(dir / "dst");
    ASSERT_EQ(got.size(), bytes.size() - 1 + 5);
    EXPECT_TRUE(std::equal(bytes.begin() + 1, bytes.end(), got.begin()));
}

TEST(BinFile, BoundedReadsStopAtTheLimitAndKeepThePosition)
{
    TempDir dir;
    writeFile(dir / "b", {0x00, 0x00, 0x01, 0x2C, 0xAA, 0xBB, 0xCC, 0xDD});
    GLTK::FileIO::open(w(dir / "b"), [](GLTK::FileIO& f) {
        {
            MP4::BinFile view(f);
            view.limit = 7;
            EXPECT_EQ(view.read32(), 300u);
            EXPECT_EQ(view.read32(), 0u); // position = limit - 3: refused
            EXPECT_EQ(view.position, 4u);
            view.limit = 8;
            EXPECT_EQ(view.read32(), 0xAABBCCDDu);
            EXPECT_EQ(view.read8(), 0u); // end of file
        }
        EXPECT_TRUE(f.isOpen()); // the view does not close its owner's file
    });
}

TEST(WideStrings, Utf8PathsRoundTripAndConversionsAreCutAt2048Units)
{
    EXPECT_LE(strlen(GLTK::wchar::wcs2mbs(std::wstring(3000, L'a')).c_str()), 2048u);
    EXPECT_EQ(GLTK::wchar::mbs2wcs(std::string(1500, 'b')).size(), 1500u);
    EXPECT_EQ(GLTK::wchar::mbs2wcs(std::string(3000, 'b')).size(), 2048u);

    GLTK::Console::init_locale();
    std::string name = "\xE6\x97\xA5\xE6\x9C\xAC-caf\xC3\xA9.mp4"; // 日本-café.mp4
    std::wstring wide = GLTK::wchar::mbs2wcs(name);
    EXPECT_EQ(wide.size(), 11u);
    EXPECT_EQ(GLTK::wchar::narrow(wide), name);
    TempDir dir;
    EXPECT_TRUE(GLTK::FileIO::open_w(w(dir / name), [](GLTK::FileIO& f) { f.write("x", 1); }));
    EXPECT_TRUE(fs::exists(dir / name));
}

} // namespace
