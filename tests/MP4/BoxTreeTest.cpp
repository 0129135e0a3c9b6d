#include "BoxBytes.h"
#include "GLTKwchar.h"
#include "MP4Container.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

std::wstring w(const fs::path& p) { return GLTK::wchar::mbs2wcs(p.string()); }

struct Parsed {
    TempDir dir;
    MP4::Container c;
    explicit Parsed(const Bytes& bytes, uint64_t limit = UINT64_MAX)
    {
        writeFile(dir / "m.mp4", bytes);
        EXPECT_TRUE(c.attach(w(dir / "m.mp4"), limit));
    }
    std::vector<std::string> top() const
    {
        std::vector<std::string> r;
        for (auto* b : c.root->children)
            r.push_back(b->typeText());
        return r;
    }
};

TEST(BoxTree, EmptyFileHasNoBoxes)
{
    Parsed p({});
    EXPECT_TRUE(p.c.root->children.empty());
    EXPECT_EQ(p.c.moov, nullptr);
    EXPECT_EQ(p.c.mdat, nullptr);
    EXPECT_EQ(p.c.videoTrack, nullptr);
}

TEST(BoxTree, SizeZeroRunsToEndAndLargeSizeIsRead)
{
    Bytes large;
    add32(large, 1);
    large.insert(large.end(), {'f', 'r', 'e', 'e'});
    add64(large, 24);
    large.resize(24, 0);
    Bytes toEnd;
    add32(toEnd, 0);
    toEnd.insert(toEnd.end(), {'m', 'd', 'a', 't'});
    toEnd.resize(100, 7);
    Parsed p(cat({box("ftyp", text("isom")), large, toEnd}));
    ASSERT_EQ(p.top(), (std::vector<std::string>{"ftyp", "free", "mdat"}));
    EXPECT_TRUE(p.c.root->children[1]->largesize);
    EXPECT_EQ(p.c.root->children[1]->size, 24u);
    EXPECT_EQ(p.c.mdat->size, 100u);
}

TEST(BoxTree, LimitIgnoresLaterBoxesAndCutsStraddlingOnes)
{
    Bytes file = cat({box("ftyp", text("isom")), box("moov", box("udta", box("QMKN", Bytes(40, 1)))),
                      box("mdat", Bytes(10, 0))});
    Parsed p(file, 12 + 8 + 8 + 10);
    EXPECT_EQ(p.top(), (std::vector<std::string>{"ftyp", "moov"}));
    EXPECT_EQ(p.c.mdat, nullptr);
}

TEST(BoxTree, PathLookupVisitsEveryMatchAtEveryLevel)
{
    Bytes moov = box("moov", cat({box("udta", box("QMKN", Bytes(4, 1))), box("udta", box("QMKN", Bytes(6, 2))),
                                  fullbox("meta", 0, box("hdlr", Bytes(20, 0)))}));
    Bytes topMeta = fullbox("meta", 0, fullbox("hdlr", 0, cat({Bytes(4, 0), text("mdir"), Bytes(12, 0)})));
    Parsed p(cat({moov, topMeta}));
    std::vector<uint64_t> sizes;
    p.c.find("moov.udta.QMKN", [&](MP4::BOX& b) {
        sizes.push_back(b.size);
        return true;
    });
    EXPECT_EQ(sizes, (std::vector<uint64_t>{12, 14}));
    EXPECT_EQ(p.c.first("moov.meta.hdlr"), nullptr); // meta in moov is a plain box
    MP4::BOX* hdlr = p.c.first("meta.hdlr");
    ASSERT_NE(hdlr, nullptr);
    EXPECT_EQ(static_cast<MP4::HDLR*>(hdlr)->handlerType, MP4::fourcc("mdir"));
    // A visitor that answers false stops at the first match.
    int n = 0;
    p.c.find("moov.udta", [&](MP4::BOX&) {
        ++n;
        return false;
    });
    EXPECT_EQ(n, 1);
}

TEST(BoxTree, OnlyTheSpatialUuidHasChildren)
{
    Bytes spatialType = {0x28, 0xF3, 0x11, 0xE2, 0xB7, 0x91, 0x4F, 0x6F,
                         0x94, 0xE2, 0x4F, 0x5D, 0xEA, 0xCB, 0x3C, 0x01};
    Bytes otherType(16, 0x11);
    Bytes qatr = box("QATR", box("mdia", fullbox("mdhd", 0, Bytes(20, 0))));
    Parsed p(cat({box("uuid", cat({otherType, qatr})), box("uuid", cat({spatialType, box("QADT", Bytes(16, 3)), qatr}))}));
    int n = 0;
    p.c.find("uuid.QATR", [&](MP4::BOX& b) {
        ++n;
        EXPECT_EQ(b.parent, p.c.root->children[1]);
        return true;
    });
    EXPECT_EQ(n, 1);
    auto* other = static_cast<MP4::UUID*>(p.c.root->children[0]);
    EXPECT_EQ(other->payload.length, qatr.size());
}

TEST(BoxTree, VideoTrackIsTheLastTrackWithAWidth)
{
    Bytes moov = box("moov", cat({trak(tkhd(960, 480), stco({1})), trak(tkhd(0, 0), stco({2}))}));
    Parsed p(moov);
    ASSERT_NE(p.c.videoTrack, nullptr);
    EXPECT_EQ(p.c.videoTrack, static_cast<MP4::NestedBox*>(p.c.moov)->children[0]);
    auto* t = static_cast<MP4::TKHD*>(p.c.first("moov.trak.tkhd"));
    EXPECT_EQ(t->width, 960u);
    EXPECT_EQ(t->height, 480u);
}

TEST(BoxTree, HostileSizesNeverReadPastTheirParent)
{
    // A child claiming far more than its parent, a child smaller than its
    // header, an stco whose count runs past its box.
    Bytes bad;
    add32(bad, 0x7FFFFFF0);
    bad.insert(bad.end(), {'u', 'd', 't', 'a'});
    Bytes tiny;
    add32(tiny, 3);
    tiny.insert(tiny.end(), {'f', 'r', 'e', 'e'});
    Bytes hugeCount;
    add32(hugeCount, 0xFFFFFFFF);
    add32(hugeCount, 42);
    Bytes moov = box("moov", cat({box("trak", box("mdia", box("minf", box("stbl", fullbox("stco", 0, hugeCount))))),
                                  bad, Bytes(16, 0)}));
    Parsed p(cat({moov, tiny, box("mdat", Bytes(8, 0))}));
    auto* table = static_cast<MP4::STCO*>(p.c.first("moov.trak.mdia.minf.stbl.stco"));
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->entryCount, 0xFFFFFFFFu);
    EXPECT_EQ(table->entriesInBox(4), 1u);
    // The box after the 3-byte one cannot be found, and nothing crashed.
    EXPECT_EQ(p.c.mdat, nullptr);
}

TEST(BoxTree, DeepNestingIsBounded)
{
    Bytes inner = box("free", {});
    for (int i = 0; i < 2000; ++i)
        inner = box("udta", inner);
    Parsed p(box("moov", inner));
    int depth = 0;
    const MP4::BOX* b = p.c.moov;
    while (b->hasChild() && !static_cast<const MP4::NestedBox*>(b)->children.empty()) {
        b = static_cast<const MP4::NestedBox*>(b)->children[0];
        ++depth;
    }
    EXPECT_LE(depth, MP4::kMaxDepth);
}

TEST(BoxTree, DumpPrintsIndentedTags)
{
    Parsed p(cat({box("ftyp", text("isom")), box("moov", box("udta", box("QMKN", Bytes(4, 0))))}));
    testing::internal::CaptureStdout();
    p.c.dump();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("MP4: <'ftyp': start=0 bytes=12 >"), std::string::npos) << out;
    EXPECT_NE(out.find("MP4:         <'QMKN': start=28 bytes=12 >"), std::string::npos) << out;
}

} // namespace
