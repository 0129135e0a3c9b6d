#include "GLTKVideoReader.h"
#include "GLTKwchar.h"
#include "Thumbnailer.h"
#include "VideoFixtures.h"

#include <gtest/gtest.h>
#include <turbojpeg.h>

using namespace videotest;

namespace {

std::wstring w(const path& p) { return GLTK::wchar::mbs2wcs(p.string()); }

ByteArray bytes(std::initializer_list<int> list)
{
    ByteArray b;
    for (int v : list)
        b.append8(uint8_t(v));
    return b;
}

// Width and height of a JPEG as libjpeg-turbo reads them; false when it is
// not a readable JPEG.
bool jpegSize(const uint8_t* data, size_t size, int& width, int& height)
{
    tjhandle tj = tjInitDecompress();
    int sub = 0, cs = 0;
    bool ok = tjDecompressHeader3(tj, data, static_cast<unsigned long>(size), &width, &height, &sub, &cs) == 0;
    if (ok) {
        std::vector<uint8_t> pixels(size_t(width) * size_t(height) * 3);
        ok = tjDecompress2(tj, data, static_cast<unsigned long>(size), pixels.data(), width, 0, height, TJPF_RGB, 0) == 0;
    }
    tjDestroy(tj);
    return ok;
}

// The stripped JPEG that the bounded thumbnail makes at one quality, built
// independently from the same first frame.
ByteArray referenceJpeg(const path& movie, int width, int quality)
{
    auto frame = GLTKVideoReader::copyFirstFrame(movie, {width, width / 2}, GLTK::kPixelFormat_BGRA);
    ByteArray out;
    if (!frame)
        return out;
    tjhandle tj = tjInitCompress();
    unsigned char* jpeg = nullptr;
    unsigned long size = 0;
    if (tjCompress2(tj, frame->plane(0), frame->width(), frame->bytesPerRow(0), frame->height(), TJPF_BGRA, &jpeg,
                    &size, TJSAMP_420, quality, 0) == 0)
        out.assign(jpeg, size);
    tjFree(jpeg);
    tjDestroy(tj);
    Thumbnailer::removeAPPX(out);
    return out;
}

TEST(Thumbnailer, RemoveAPPXStripsLeadingAppSegmentsOnly)
{
    // SOI, APP0 of 16 bytes, APP1 of 8 bytes, DQT..., then a late APP2 that stays.
    ByteArray jpeg = bytes({0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x10, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14,
                            0xFF, 0xE1, 0x00, 0x08, 1, 2, 3, 4, 5, 6, 0xFF, 0xDB, 0x00, 0x03, 0x42, 0xFF, 0xE2,
                            0x00, 0x02, 0xFF, 0xD9});
    EXPECT_EQ(Thumbnailer::removeAPPX(jpeg), 13u);
    ByteArray expected = bytes({0xFF, 0xD8, 0xFF, 0xDB, 0x00, 0x03, 0x42, 0xFF, 0xE2, 0x00, 0x02, 0xFF, 0xD9});
    ASSERT_EQ(jpeg.length, expected.length);
    EXPECT_EQ(std::memcmp(jpeg.data, expected.data, expected.length), 0);
}

TEST(Thumbnailer, RemoveAPPXLeavesOtherBuffersAlone)
{
    ByteArray notJpeg = bytes({0x89, 0x50, 0x4E, 0x47, 0xFF, 0xE0, 0x00, 0x02});
    EXPECT_EQ(Thumbnailer::removeAPPX(notJpeg), 8u);
    EXPECT_EQ(notJpeg.data[0], 0x89);

    ByteArray one = bytes({0xFF});
    EXPECT_EQ(Thumbnailer::removeAPPX(one), 0u);
    EXPECT_EQ(one.length, 0u);
    EXPECT_EQ(one.data, nullptr);
    ByteArray none;
    EXPECT_EQ(Thumbnailer::removeAPPX(none), 0u);

    // An APP segment claiming more than is left stops the stripping there.
    ByteArray overlong = bytes({0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x04, 0xAA, 0xBB, 0xFF, 0xE1, 0x01, 0x00, 0xCC, 0xDD});
    EXPECT_EQ(Thumbnailer::removeAPPX(overlong), 8u);
    ByteArray kept = bytes({0xFF, 0xD8, 0xFF, 0xE1, 0x01, 0x00, 0xCC, 0xDD});
    EXPECT_EQ(std::memcmp(overlong.data, kept.data, 8), 0);

    // Fewer than four bytes after the start of image: nothing to strip.
    ByteArray shortTail = bytes({0xFF, 0xD8, 0xFF, 0xE0, 0x00});
    EXPECT_EQ(Thumbnailer::removeAPPX(shortTail), 5u);
}

TEST(Thumbnailer, SavesFullSizeFirstFrameAsJpegFile)
{
    testsupport::TempDir dir;
    path jpeg = dir / "thumb.jpg";
    Thumbnailer thumb(w(makeMovie(MovieSpec().length(1))));
    ASSERT_TRUE(thumb.saveFrame(w(jpeg)));
    std::vector<uint8_t> data = testsupport::readFile(jpeg);
    int width = 0, height = 0;
    ASSERT_TRUE(jpegSize(data.data(), data.size(), width, height));
    EXPECT_EQ(width, 960);
    EXPECT_EQ(height, 480);

    EXPECT_FALSE(Thumbnailer(w(dir / "missing.mp4")).saveFrame(w(dir / "x.jpg")));
    EXPECT_FALSE(fs::exists(dir / "x.jpg"));
    EXPECT_FALSE(thumb.saveFrame(w(dir / "no/dir/x.jpg")));
}

TEST(Thumbnailer, BoundedJpegTakesTheFirstQualityThatFits)
{
    path movie = makeMovie(MovieSpec().length(1));
    // A limit that quality 0.80 misses and 0.75 meets exactly.
    ByteArray q80 = referenceJpeg(movie, 480, 80);
    ByteArray q75 = referenceJpeg(movie, 480, 75);
    ASSERT_GT(q75.length, 0u);
    ASSERT_GT(q80.length, q75.length);

    ByteArray out;
    testing::internal::CaptureStdout();
    ASSERT_TRUE(Thumbnailer(w(movie)).saveFrame(out, 480, size_t(q75.length)));
    std::string text = testing::internal::GetCapturedStdout();
    EXPECT_EQ(text, "bool Thumbnailer::saveFrame(ByteArray &, int, size_t): targetSize:" +
                        std::to_string(q75.length) + "->" + std::to_string(q75.length) + "\n");
    ASSERT_EQ(out.length, q75.length);
    EXPECT_EQ(std::memcmp(out.data, q75.data, out.length), 0);
    EXPECT_NE(out.data[3] & 0xF0, 0xE0) << "no APPn segment after the start of image";
    int width = 0, height = 0;
    ASSERT_TRUE(jpegSize(out.data, out.length, width, height));
    EXPECT_EQ(width, 480);
    EXPECT_EQ(height, 240);
}

TEST(Thumbnailer, BoundedJpegGivesUpAfterQualityFifteen)
{
    path movie = makeMovie(MovieSpec().length(1));
    ByteArray q15 = referenceJpeg(movie, 320, 15);
    ByteArray out;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(Thumbnailer(w(movie)).saveFrame(out, 320, 100));
    std::string text = testing::internal::GetCapturedStdout();
    EXPECT_EQ(text, "bool Thumbnailer::saveFrame(ByteArray &, int, size_t) failed - targetSize:100\n");
    // The fourteenth and last attempt, quality 0.15, stays in the buffer.
    ASSERT_EQ(out.length, q15.length);
    EXPECT_EQ(std::memcmp(out.data, q15.data, out.length), 0);

    ByteArray none;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(Thumbnailer(L"/nonexistent/movie.mp4").saveFrame(none, 320, 100000));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "an unreadable movie prints nothing";
}

} // namespace
