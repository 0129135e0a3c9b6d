// On a file system that shares blocks between files (XFS with reflink), a
// metadata-only conversion clones the media instead of copying it: every
// whole block of the output's media data is a block of the source. The
// output must still be a whole movie with the source's samples.
//
// XFS lives on a block device; a small image file becomes one through a
// loop device, which only root can set up. The image is mounted in a mount
// namespace of this process's own, so that it goes away with the process
// even when the test dies half-way. Where any of that is not possible the
// test is skipped with the reason.
#include "Tools.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

using namespace testsupport;

namespace {

constexpr uint64_t kBlock = 4096; // the image's block size (mkfs.xfs -b)

// Bytes of [from, to) of the file in extents that the file system marks as
// shared with another file, once the file's delayed writes have been placed.
uint64_t sharedBytes(const fs::path& file, uint64_t from, uint64_t to)
{
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    constexpr unsigned kExtents = 256;
    std::vector<uint8_t> buffer(sizeof(fiemap) + kExtents * sizeof(fiemap_extent));
    auto* map = reinterpret_cast<fiemap*>(buffer.data());
    uint64_t shared = 0;
    for (uint64_t at = from; at < to;) {
        std::fill(buffer.begin(), buffer.end(), 0);
        map->fm_start = at;
        map->fm_length = to - at;
        map->fm_flags = FIEMAP_FLAG_SYNC;
        map->fm_extent_count = kExtents;
        if (ioctl(fd, FS_IOC_FIEMAP, map) != 0 || map->fm_mapped_extents == 0)
            break;
        for (unsigned i = 0; i < map->fm_mapped_extents; ++i) {
            const fiemap_extent& e = map->fm_extents[i];
            const uint64_t lo = std::max<uint64_t>(e.fe_logical, from);
            const uint64_t hi = std::min<uint64_t>(e.fe_logical + e.fe_length, to);
            if (lo < hi && (e.fe_flags & FIEMAP_EXTENT_SHARED))
                shared += hi - lo;
            at = (e.fe_flags & FIEMAP_EXTENT_LAST) ? to : e.fe_logical + e.fe_length;
        }
    }
    ::close(fd);
    return shared;
}

class SharedMedia : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs root: the XFS image is mounted through a loop device";
        if (run("command -v mkfs.xfs") != 0)
            GTEST_SKIP() << "mkfs.xfs is missing (xfsprogs; make setup installs it)";
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            GTEST_SKIP() << "no mount namespace of its own here: " << std::strerror(errno);
        const fs::path image = dir / "xfs.img";
        writeFile(image, {});
        fs::resize_file(image, 320ull << 20); // mkfs.xfs takes no less than 300 MB; the file stays sparse
        std::string text;
        ASSERT_EQ(run("mkfs.xfs -q -b size=" + std::to_string(kBlock) + " -m reflink=1 " + q(image), &text), 0) << text;
        fs::create_directory(mnt);
        if (run("mount -o loop " + q(image) + " " + q(mnt), &text) != 0)
            GTEST_SKIP() << "the XFS image cannot be mounted (a loop device must turn the file into a block "
                            "device; none free, or none in this container?): "
                         << text;
        mounted = true;
    }
    void TearDown() override
    {
        if (mounted)
            run("umount " + q(mnt));
    }

    TempDir dir;
    const fs::path mnt = dir / "xfs";
    bool mounted = false;
};

TEST_F(SharedMedia, MetadataConversionClonesTheMediaAndStaysWhole)
{
    // An older camera's mdat moves behind moov (a free box keeps it at its
    // place within a block); a newer camera's stays where it was, with its
    // spatial data behind it.
    for (const std::string recipe : {"--model older --mdat-largesize", "--model newer"}) {
        SCOPED_TRACE(recipe);
        const fs::path source = copyMovie(recipe, mnt / "source.mp4"), out = mnt / "out.mp4";
        std::string text;
        ASSERT_EQ(run(resize() + " " + q(source) + " " + q(out), &text), 0) << text;
        const std::optional<BoxAt> mdat = findOne(readFile(out), "mdat");
        ASSERT_TRUE(mdat.has_value());
        const uint64_t from = (mdat->body() + kBlock - 1) / kBlock * kBlock, to = mdat->end() / kBlock * kBlock;
        ASSERT_GT(to, from + 64 * kBlock) << "too little media to tell";
        EXPECT_EQ(sharedBytes(out, from, to), to - from) << "media blocks " << from << ".." << to << " not all shared";
        std::string why;
        EXPECT_TRUE(samplesEqual(source, out, &why)) << why;
        EXPECT_TRUE(nestingOk(out, &why)) << why;
        EXPECT_TRUE(offsetsOk(out, &why)) << why;
        EXPECT_TRUE(decodesCleanly(out, &why)) << why;
        fs::remove(out);
        fs::remove(source);
    }
}

} // namespace
