#include "SyntheticBoxes.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

std::vector<std::string> top(const MP4::Container& c)
{
    std::vector<std::string> r;
    for (auto* b : c.root->children)
        r.push_back(b->typeText());
    return r;
}

TEST(ContainerEdit, MoovFirstShiftsEveryTableAndWrapsStcoInsteadOfPromoting)
{
    // The video track's last offset lies just below 4 GiB, the sound track's
    // co64 has one above it.
    SyntheticMovie m(false, std::nullopt, [](Bytes& f) {
        put32be(f.data() + findOne(f, "moov.trak.mdia.minf.stbl.stco")->body() + 12, 0xFFFFFF00u);
        put32be(f.data() + findOne(f, "moov.trak.mdia.minf.stbl.co64")->body() + 8, 1);
    });
    const uint64_t moovSize = m.c.moov->size;
    ASSERT_TRUE(m.c.moovFirst());
    EXPECT_EQ(top(m.c), (std::vector<std::string>{"ftyp", "moov", "mdat"}));
    Bytes out = readFile(m.path());
    std::vector<uint64_t> before = chunkOffsets(m.file), after = chunkOffsets(out);
    ASSERT_EQ(after.size(), 3u);
    EXPECT_EQ(after[0], before[0] + moovSize);
    EXPECT_EQ(after[1], (before[1] + moovSize) & 0xFFFFFFFFu);
    EXPECT_EQ(after[2], before[2] + moovSize);
    EXPECT_GT(after[2], 0xFFFFFFFFu);
    EXPECT_FALSE(fs::exists(m.dir / "m.mp4.tmp.mp4"));
    EXPECT_EQ(slice(out, out.size() - 3000, 3000), m.media);
    // Already moov-first: nothing is written.
    EXPECT_FALSE(m.c.moovFirst());
    EXPECT_EQ(readFile(m.path()), out);
}

TEST(ContainerEdit, OutputPathLeavesTheSourceAloneButNotIfItIsTheSameFile)
{
    SyntheticMovie m(false);
    m.c.outputPath = w(m.dir / "out.mp4");
    ASSERT_TRUE(m.c.moovFirst());
    EXPECT_TRUE(m.unchanged());
    EXPECT_EQ(m.c.path, w(m.dir / "out.mp4"));
    EXPECT_FALSE(m.c.outputPath.has_value());
    EXPECT_EQ(top(m.c), (std::vector<std::string>{"ftyp", "moov", "mdat"}));

    SyntheticMovie linked(false);
    fs::create_hard_link(linked.path(), linked.dir / "link.mp4");
    linked.c.outputPath = w(linked.dir / "link.mp4");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(linked.c.moovFirst());
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(linked.unchanged());
}

TEST(ContainerEdit, FailedCopyReportsAndLeavesNoTemporaryFile)
{
    SyntheticMovie m(false);
    auto ok = [](MP4::Container&, MP4::BinFile&) { return true; };
    testing::internal::CaptureStdout();
    EXPECT_FALSE(m.c.modifyContainer(
        L"breaks",
        [](MP4::BinFile& s, MP4::BinFile& d, uint64_t& split) {
            s.copyTo(d, 100);
            split = 0;
            return false;
        },
        ok, ok));
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Container::modifyContainer::breaks("), std::string::npos) << out;
    EXPECT_NE(out.find(".tmp.mp4) failed."), std::string::npos) << out;
    EXPECT_TRUE(m.unchanged());
    EXPECT_NE(m.c.moov, nullptr); // re-parsed from the unchanged file
}

} // namespace
