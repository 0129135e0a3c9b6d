#include "GLTKVideoReader.h"
#include "GLTKwchar.h"
#include "Thumbnailer.h"
#include "VideoFixtures.h"

#include <gtest/gtest.h>
#include <turbojpeg.h>

using namespace videotest;

namespace {

std::wstring w(const path& p) { return GLTK::wchar::mbs2wcs(p.string()); }

using Bytes = std::vector<uint8_t>;
Bytes bytesOf(const ByteArray& a) { return Bytes(a.data, a.data + a.length); }

// The stripped JPEG that the bounded thumbnail makes at one quality, built
// independently from the same first frame with libjpeg-turbo.
Bytes referenceJpeg(const path& movie, int width, int quality)
{
    auto frame = GLTKVideoReader::copyFirstFrame(movie, {width, width / 2}, GLTK::kPixelFormat_BGRA);
    ByteArray out;
    if (!frame)
        return {};
    tjhandle tj = tjInitCompress();
    unsigned char* jpeg = nullptr;
    unsigned long size = 0;
    if (tjCompress2(tj, frame->plane(0), frame->width(), frame->bytesPerRow(0), frame->height(), TJPF_BGRA, &jpeg,
                    &size, TJSAMP_420, quality, 0) == 0)
        out.assign(jpeg, size);
    tjFree(jpeg);
    tjDestroy(tj);
    Thumbnailer::removeAPPX(out);
    return bytesOf(out);
}

TEST(Thumbnailer, RemoveAPPXStripsOnlyLeadingWholeAppSegments)
{
    struct Case {
        const char* what;
        Bytes in, out;
    } cases[] = {
        {"two leading APP segments; a late APP2 stays",
         {0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x06, 1, 2, 3, 4, 0xFF, 0xE1, 0x00, 0x04, 5, 6, 0xFF, 0xDB, 0x00, 0x03, 0x42,
          0xFF, 0xE2, 0x00, 0x02, 0xFF, 0xD9},
         {0xFF, 0xD8, 0xFF, 0xDB, 0x00, 0x03, 0x42, 0xFF, 0xE2, 0x00, 0x02, 0xFF, 0xD9}},
        {"not a JPEG", {0x89, 0x50, 0x4E, 0x47, 0xFF, 0xE0, 0x00, 0x02}, {0x89, 0x50, 0x4E, 0x47, 0xFF, 0xE0, 0x00, 0x02}},
        {"an APP segment claiming more than is left",
         {0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x04, 0xAA, 0xBB, 0xFF, 0xE1, 0x01, 0x00, 0xCC, 0xDD},
         {0xFF, 0xD8, 0xFF, 0xE1, 0x01, 0x00, 0xCC, 0xDD}},
        {"fewer than four bytes after the start", {0xFF, 0xD8, 0xFF, 0xE0, 0x00}, {0xFF, 0xD8, 0xFF, 0xE0, 0x00}},
        {"one byte", {0xFF}, {}},
    };
    for (const Case& c : cases) {
        ByteArray jpeg(c.in.data(), c.in.size());
        EXPECT_EQ(Thumbnailer::removeAPPX(jpeg), c.out.size()) << c.what;
        EXPECT_EQ(bytesOf(jpeg), c.out) << c.what;
    }
}

TEST(Thumbnailer, BoundedJpegTakesTheFirstQualityThatFitsAndGivesUpAfterFifteen)
{
    path movie = makeMovie(MovieSpec().length(1));
    // A limit that quality 0.80 misses and 0.75 meets exactly.
    Bytes q75 = referenceJpeg(movie, 480, 75);
    ASSERT_GT(referenceJpeg(movie, 480, 80).size(), q75.size());
    ByteArray out;
    testing::internal::CaptureStdout();
    ASSERT_TRUE(Thumbnailer(w(movie)).saveFrame(out, 480, q75.size()));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "bool Thumbnailer::saveFrame(ByteArray &, int, size_t): targetSize:" +
                                                          std::to_string(q75.size()) + "->" +
                                                          std::to_string(q75.size()) + "\n");
    EXPECT_EQ(bytesOf(out), q75); // the 480 x 240 first frame, stripped of its APP segments

    // Nothing fits: the fourteenth and last attempt, quality 0.15, stays.
    testing::internal::CaptureStdout();
    EXPECT_FALSE(Thumbnailer(w(movie)).saveFrame(out, 320, 100));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "bool Thumbnailer::saveFrame(ByteArray &, int, size_t) failed - targetSize:100\n");
    EXPECT_EQ(bytesOf(out), referenceJpeg(movie, 320, 15));

    testing::internal::CaptureStdout();
    EXPECT_FALSE(Thumbnailer(L"/nonexistent/movie.mp4").saveFrame(out, 320, 100000));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "an unreadable movie prints nothing";
}

} // namespace
