#include "BoxBytes.h"
#include "GLTKwchar.h"
#include "MP4Container.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

struct Parsed {
    TempDir dir;
    MP4::Container c;
    explicit Parsed(const Bytes& bytes, uint64_t limit = UINT64_MAX)
    {
        writeFile(dir / "m.mp4", bytes);
        EXPECT_TRUE(c.attach(GLTK::wchar::mbs2wcs((dir / "m.mp4").string()), limit));
    }
    std::vector<std::string> top() const
    {
        std::vector<std::string> r;
        for (auto* b : c.root->children)
            r.push_back(b->typeText());
        return r;
    }
};

Bytes header(uint32_t size, const char* type)
{
    Bytes b;
    add32(b, size);
    return cat({b, text(type)});
}

TEST(BoxTree, SizesZeroAndOneLimitsAndTheVideoTrack)
{
    EXPECT_TRUE(Parsed({}).c.root->children.empty());
    // The video track is the last track with a width.
    Parsed tracks(box("moov", cat({trak(tkhd(960, 480), stco({1})), trak(tkhd(0, 0), stco({2}))})));
    EXPECT_EQ(tracks.c.videoTrack, static_cast<MP4::NestedBox*>(tracks.c.moov)->children.at(0));

    Bytes large = header(1, "free");
    add64(large, 24);
    large.resize(24, 0);
    Bytes toEnd = header(0, "mdat");
    toEnd.resize(100, 7);
    Parsed p(cat({box("ftyp", text("isom")), large, toEnd}));
    ASSERT_EQ(p.top(), (std::vector<std::string>{"ftyp", "free", "mdat"}));
    EXPECT_TRUE(p.c.root->children[1]->largesize);
    EXPECT_EQ(p.c.root->children[1]->size, 24u);
    EXPECT_EQ(p.c.mdat->size, 100u);

    // A limit ignores later boxes and cuts one that straddles it.
    Bytes file = cat({box("ftyp", text("isom")), box("moov", box("udta", box("QMKN", Bytes(40, 1)))),
                      box("mdat", Bytes(10, 0))});
    Parsed limited(file, 12 + 8 + 8 + 10);
    EXPECT_EQ(limited.top(), (std::vector<std::string>{"ftyp", "moov"}));
    EXPECT_EQ(limited.c.mdat, nullptr);
}

TEST(BoxTree, PathLookupVisitsEveryMatchAndOnlyTheSpatialUuidHasChildren)
{
    Bytes spatialType = {0x28, 0xF3, 0x11, 0xE2, 0xB7, 0x91, 0x4F, 0x6F,
                         0x94, 0xE2, 0x4F, 0x5D, 0xEA, 0xCB, 0x3C, 0x01};
    Bytes qatr = box("QATR", box("mdia", fullbox("mdhd", 0, Bytes(20, 0))));
    Bytes moov = box("moov", cat({box("udta", box("QMKN", Bytes(4, 1))), box("udta", box("QMKN", Bytes(6, 2))),
                                  fullbox("meta", 0, box("hdlr", Bytes(20, 0)))}));
    Bytes topMeta = fullbox("meta", 0, fullbox("hdlr", 0, cat({Bytes(4, 0), text("mdir"), Bytes(12, 0)})));
    Parsed p(cat({moov, topMeta, box("uuid", cat({Bytes(16, 0x11), qatr})),
                  box("uuid", cat({spatialType, box("QADT", Bytes(16, 3)), qatr}))}));
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
    int n = 0;
    p.c.find("moov.udta", [&](MP4::BOX&) { // false stops at the first match
        ++n;
        return false;
    });
    EXPECT_EQ(n, 1);
    std::vector<MP4::BOX*> parents;
    p.c.find("uuid.QATR", [&](MP4::BOX& b) {
        parents.push_back(b.parent);
        return true;
    });
    EXPECT_EQ(parents, std::vector<MP4::BOX*>{p.c.root->children[3]});
    EXPECT_EQ(static_cast<MP4::UUID*>(p.c.root->children[2])->payload.length, qatr.size());
}

TEST(BoxTree, HostileSizesAndDepthNeverReadPastTheirParent)
{
    // A child claiming far more than its parent, a child smaller than its
    // header, an stco whose count runs past its box.
    Bytes hugeCount;
    add32(hugeCount, 0xFFFFFFFF);
    add32(hugeCount, 42);
    Bytes moov = box("moov", cat({box("trak", box("mdia", box("minf", box("stbl", fullbox("stco", 0, hugeCount))))),
                                  header(0x7FFFFFF0, "udta"), Bytes(16, 0)}));
    Parsed p(cat({moov, header(3, "free"), box("mdat", Bytes(8, 0))}));
    auto* table = static_cast<MP4::STCO*>(p.c.first("moov.trak.mdia.minf.stbl.stco"));
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->entryCount, 0xFFFFFFFFu);
    EXPECT_EQ(table->entriesInBox(p.c.length()), 1u);
    EXPECT_EQ(p.c.mdat, nullptr); // behind the 3-byte box: not found

    Bytes inner = box("free", {});
    for (int i = 0; i < 2000; ++i)
        inner = box("udta", inner);
    Parsed deep(box("moov", inner));
    int depth = 0;
    for (const MP4::BOX* b = deep.c.moov; b->hasChild() && !static_cast<const MP4::NestedBox*>(b)->children.empty();
         ++depth)
        b = static_cast<const MP4::NestedBox*>(b)->children[0];
    EXPECT_LE(depth, MP4::kMaxDepth);
}

} // namespace
