#include "GLTKConsole.h"
#include "GLTKFileIO.h"
#include "GLTKwchar.h"
#include "MP4BinFile.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

std::wstring w(const fs::path& p) { return GLTK::wchar::mbs2wcs(p.string()); }

TEST(FileIO, MissingFileIsNotOpenedAndActionNotCalled)
{
    TempDir dir;
    std::wstring path = w(dir / "missing.mp4");
    bool called = false;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(GLTK::FileIO::open(path, [&](GLTK::FileIO&) { called = true; }));
    EXPECT_FALSE(GLTK::FileIO::exist(path));
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(called);
    EXPECT_NE(out.find("failed."), std::string::npos);
    EXPECT_NE(out.find("'r'"), std::string::npos);
}

TEST(FileIO, PositionFollowsReadsWritesAndSeeks)
{
    TempDir dir;
    std::wstring path = w(dir / "a.bin");
    ASSERT_TRUE(GLTK::FileIO::open_w(path, [](GLTK::FileIO& f) {
        EXPECT_EQ(f.write("0123456789", 10), 10u);
        EXPECT_EQ(f.position, 10u);
    }));
    ASSERT_TRUE(GLTK::FileIO::open_a(path, [](GLTK::FileIO& f) {
        EXPECT_EQ(f.length(), 10u);
        EXPECT_TRUE(f.seek_set(4));
        char c[2];
        EXPECT_EQ(f.read(c, 2), 2u);
        EXPECT_EQ(f.position, 6u);
        EXPECT_EQ(c[0], '4');
        testing::internal::CaptureStdout();
        EXPECT_FALSE(f.seek_cur(-100));
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(out.find("seek_cur(-100) failed - "), std::string::npos);
        EXPECT_EQ(f.position, 6u);
    }));
}

TEST(FileIO, CopyToCopiesAcrossBlockBoundaries)
{
    TempDir dir;
    std::vector<uint8_t> bytes(3 * 1024 * 1024 + 17);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = uint8_t(i * 31 + (i >> 11));
    writeFile(dir / "src", bytes);
    std::wstring src = w(dir / "src"), dst = w(dir / "dst");
    ASSERT_TRUE(GLTK::FileIO::open(src, [&](GLTK::FileIO& in) {
        GLTK::FileIO::open_w(dst, [&](GLTK::FileIO& out) {
            EXPECT_EQ(in.copyTo(out, 0), 0u);
            in.seek_set(1);
            EXPECT_EQ(in.copyTo(out, bytes.size() - 1), bytes.size() - 1);
            // Asking for more than remains comes up short.
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
    std::wstring path = w(dir / "b");
    GLTK::FileIO::open(path, [](GLTK::FileIO& f) {
        {
            MP4::BinFile view(f);
            view.limit = 7;
            EXPECT_EQ(view.read32(), 300u);
            EXPECT_EQ(view.position, 4u);
            // position = limit - 3: a 4-byte read is refused.
            view.seek_set(4);
            view.limit = 7;
            EXPECT_EQ(view.read32(), 0u);
            EXPECT_EQ(view.position, 4u);
            view.limit = 8;
            EXPECT_EQ(view.read32(), 0xAABBCCDDu);
            EXPECT_EQ(view.read8(), 0u); // end of file
        }
        // The view does not close its owner's file.
        EXPECT_TRUE(f.isOpen());
        EXPECT_TRUE(f.seek_set(0));
        uint8_t b;
        EXPECT_EQ(f.read(&b, 1), 1u);
    });
}

TEST(WideStrings, ConversionsAreCutAt2048Units)
{
    std::wstring longPath(3000, L'a');
    EXPECT_LE(strlen(GLTK::wchar::wcs2mbs(longPath).c_str()), 2048u);
    std::string longArg(1500, 'b');
    EXPECT_EQ(GLTK::wchar::mbs2wcs(longArg).size(), 1500u);
    std::string longer(3000, 'b');
    EXPECT_EQ(GLTK::wchar::mbs2wcs(longer).size(), 2048u);
}

TEST(WideStrings, Utf8PathsRoundTripAfterInitLocale)
{
    GLTK::Console::init_locale();
    std::string name = "\xE6\x97\xA5\xE6\x9C\xAC-caf\xC3\xA9.mp4"; // 日本-café.mp4
    std::wstring wide = GLTK::wchar::mbs2wcs(name);
    EXPECT_EQ(wide.size(), 11u);
    EXPECT_EQ(GLTK::wchar::narrow(wide), name);
    TempDir dir;
    std::wstring path = w(dir / name);
    EXPECT_TRUE(GLTK::FileIO::open_w(path, [](GLTK::FileIO& f) { f.write("x", 1); }));
    EXPECT_TRUE(fs::exists(dir / name));
}

TEST(Console, DumpPrintsUpperCaseHexBytes)
{
    testing::internal::CaptureStdout();
    const uint8_t bytes[] = {0x00, 0xAB, 0x7F};
    GLTK::Console::dump(L"bytes:", bytes, 3);
    GLTK::Console::dump(L"none:", bytes, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "bytes: 00 AB 7F\nnone:\n");
}

} // namespace
