#include "GLTKwchar.h"
#include "MP4Container.h"
#include "SyntheticBoxes.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

std::wstring w(const fs::path& p) { return GLTK::wchar::mbs2wcs(p.string()); }

std::vector<std::string> top(const MP4::Container& c)
{
    std::vector<std::string> r;
    for (auto* b : c.root->children)
        r.push_back(b->typeText());
    return r;
}

// ftyp, mdat, moov with two tracks: one stco (its last offset given), one co64.
Bytes mdatFirstMovie(uint32_t lastOffset = 220)
{
    Bytes ftyp = box("ftyp", text("isomiso2"));
    uint32_t base = uint32_t(ftyp.size() + 8);
    Bytes moov = box("moov", cat({trak(tkhd(960, 480), stco({base, base + 100, lastOffset})),
                                  trak(tkhd(0, 0), co64({base + 300, 0xFFFFFFFFull + 10}))}));
    return cat({ftyp, box("mdat", Bytes(1000, 0x5A)), moov});
}

struct Edit {
    TempDir dir;
    Bytes file;
    MP4::Container c;
    explicit Edit(Bytes bytes) : file(std::move(bytes))
    {
        writeFile(dir / "m.mp4", file);
        EXPECT_TRUE(c.attach(w(dir / "m.mp4")));
    }
    bool untouched() { return readFile(dir / "m.mp4") == file && !fs::exists(dir / "m.mp4.tmp.mp4"); }
};

TEST(ContainerEdit, MoovFirstShiftsEveryTableAndWrapsStcoInsteadOfPromoting)
{
    Edit e(mdatFirstMovie(0xFFFFFF00u));
    uint64_t moovSize = e.c.moov->size;
    ASSERT_TRUE(e.c.moovFirst());
    EXPECT_EQ(top(e.c), (std::vector<std::string>{"ftyp", "moov", "mdat"}));
    Bytes out = readFile(e.dir / "m.mp4");
    std::vector<uint64_t> before = chunkOffsets(e.file), after = chunkOffsets(out);
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < before.size(); ++i)
        EXPECT_EQ(after[i], i < 3 ? (before[i] + moovSize) & 0xFFFFFFFFu : before[i] + moovSize) << i;
    EXPECT_FALSE(fs::exists(e.dir / "m.mp4.tmp.mp4"));
    EXPECT_EQ(Bytes(out.end() - 1000, out.end()), Bytes(1000, 0x5A));
    // Already moov-first: nothing is written.
    EXPECT_FALSE(e.c.moovFirst());
    EXPECT_EQ(readFile(e.dir / "m.mp4"), out);
}

TEST(ContainerEdit, OutputPathLeavesTheSourceAloneButNotIfItIsTheSameFile)
{
    Edit e(mdatFirstMovie());
    e.c.outputPath = w(e.dir / "out.mp4");
    ASSERT_TRUE(e.c.moovFirst());
    EXPECT_TRUE(e.untouched());
    EXPECT_EQ(e.c.path, w(e.dir / "out.mp4"));
    EXPECT_FALSE(e.c.outputPath.has_value());
    EXPECT_EQ(top(e.c), (std::vector<std::string>{"ftyp", "moov", "mdat"}));

    Edit linked(mdatFirstMovie());
    fs::create_hard_link(linked.dir / "m.mp4", linked.dir / "link.mp4");
    linked.c.outputPath = w(linked.dir / "link.mp4");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(linked.c.moovFirst());
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(linked.untouched());
}

TEST(ContainerEdit, FailedCopyReportsAndLeavesNoTemporaryFile)
{
    Edit e(mdatFirstMovie());
    auto ok = [](MP4::Container&, MP4::BinFile&) { return true; };
    testing::internal::CaptureStdout();
    EXPECT_FALSE(e.c.modifyContainer(
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
    EXPECT_TRUE(e.untouched());
    EXPECT_NE(e.c.moov, nullptr); // re-parsed from the unchanged file
}

TEST(ContainerEdit, UpdateTimeStampWritesEveryHeader)
{
    Edit e(box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)), trak(tkhd(960, 480, 5), stco({1})),
                            trak(tkhd(0, 0, 6), stco({2}))})));
    ASSERT_TRUE(e.c.updateTimeStamp(0x12345678));
    EXPECT_EQ(static_cast<MP4::MVHD*>(e.c.first("moov.mvhd"))->creationTime, 0x12345678u);
    int n = 0;
    e.c.find("moov.trak.tkhd", [&](MP4::BOX& b) {
        EXPECT_EQ(static_cast<MP4::TKHD&>(b).creationTime, 0x12345678u);
        return ++n;
    });
    EXPECT_EQ(n, 2);
}

TEST(ContainerEdit, InsertBoxAfterAndInsteadOfAnAnchor)
{
    Edit e(cat({box("ftyp", text("isom")), box("free", Bytes(4, 0)), box("mdat", Bytes(8, 1))}));
    Bytes added = box("skip", Bytes(2, 3));
    auto write = [&](MP4::BinFile& f) { return f.write(added.data(), added.size()) == added.size(); };
    auto none = [](MP4::Container&, MP4::BinFile&) { return true; };
    ASSERT_TRUE(e.c.insertBox(L"t", *e.c.root->children[1], false, write, none, none));
    EXPECT_EQ(top(e.c), (std::vector<std::string>{"ftyp", "free", "skip", "mdat"}));
    ASSERT_TRUE(e.c.insertBox(L"t", *e.c.root->children[1], true, write, none, none));
    EXPECT_EQ(top(e.c), (std::vector<std::string>{"ftyp", "skip", "skip", "mdat"}));
}

} // namespace
