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
    explicit Parsed(const Bytes& bytes)
    {
        writeFile(dir / "m.mp4", bytes);
        EXPECT_TRUE(c.attach(GLTK::wchar::mbs2wcs((dir / "m.mp4").string())));
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
    EXPECT_EQ(tracks.c.videoTrack, tracks.c.moov->children.at(0));

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

    // A file cut short inside a box: the box reaches as far as the file
    // goes, and so do the boxes inside it.
    Bytes file = cat({box("ftyp", text("isom")), box("moov", box("udta", box("QMKN", Bytes(40, 1)))),
                      box("mdat", Bytes(10, 0))});
    file.resize(12 + 8 + 8 + 10);
    Parsed cut(file);
    EXPECT_EQ(cut.top(), (std::vector<std::string>{"ftyp", "moov"}));
    EXPECT_EQ(cut.c.mdat, nullptr);
    const MP4::BOX* qmkn = cut.c.first("moov.udta.QMKN");
    ASSERT_NE(qmkn, nullptr);
    EXPECT_FALSE(qmkn->whole() || cut.c.moov->whole());
    EXPECT_EQ(qmkn->reach, file.size());
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
    const MP4::HDLR* hdlr = p.c.first<MP4::HDLR>("meta.hdlr");
    ASSERT_NE(hdlr, nullptr);
    EXPECT_EQ(hdlr->handlerType, MP4::fourcc("mdir"));
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
    EXPECT_EQ(p.c.root->children[2]->as<MP4::UUID>()->userPayloadSize(), qatr.size());
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
    // The table that cannot be read whole is kept as a plain box that says
    // why; a typed lookup passes it over.
    const MP4::BOX* table = p.c.first("moov.trak.mdia.minf.stbl.stco");
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->unreadable, "its chunk offsets run past its end");
    EXPECT_EQ(p.c.first<MP4::STCO>("moov.trak.mdia.minf.stbl.stco"), nullptr);
    EXPECT_EQ(p.c.mdat, nullptr); // behind the 3-byte box: not found

    Bytes inner = box("free", {});
    for (int i = 0; i < 2000; ++i)
        inner = box("udta", inner);
    Parsed deep(box("moov", inner));
    int depth = 0;
    for (const MP4::NestedBox* b = deep.c.moov; b != nullptr && !b->children.empty(); ++depth)
        b = b->children[0]->as<MP4::NestedBox>();
    EXPECT_LE(depth, MP4::kMaxDepth);
}

} // namespace
