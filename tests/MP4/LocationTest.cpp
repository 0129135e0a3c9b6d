// Removing unreadable loci boxes from moov.udta.
#include "SyntheticBoxes.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

// A loci box: language, name, role, longitude, latitude, altitude, body, notes.
Bytes loci(int32_t longitude, int32_t latitude, const std::string& name = "", bool withNotes = true)
{
    Bytes p = cat({{0x15, 0xC7}, text(name), {0, 0}, u32s({uint32_t(longitude), uint32_t(latitude), 40 << 16}), {0}});
    if (withNotes)
        p.push_back(0);
    return fullbox("loci", 0, p);
}

// The edited file: no loci left, the media where its offsets say.
Bytes expectClean(const SyntheticMovie& m)
{
    EXPECT_TRUE(findAll(readFile(m.path()), "moov.udta.loci").empty());
    return m.expectMediaIntact();
}

TEST(RemoveBadLoci, GoodOrNoLociAreLeftAloneWithoutRewriting)
{
    for (Bytes l : {loci(139 << 16, 35 << 16), loci(-180 * 65536, -90 * 65536, "Tokyo"), Bytes{}}) {
        SyntheticMovie m(true, cat({box("QMKN", Bytes(8, 1)), l}));
        ino_t before = inode(m.dir / "m.mp4");
        testing::internal::CaptureStdout();
        EXPECT_TRUE(m.c.removeBadLOCI());
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_EQ(readFile(m.dir / "m.mp4"), m.file);
        EXPECT_EQ(inode(m.dir / "m.mp4"), before); // not even copied
    }
}

TEST(RemoveBadLoci, BadLociAreCutOutAndOffsetsFollow)
{
    const Bytes keep = box("QMKN", Bytes(8, 1)), cxyz = box("\xA9xyz", Bytes{0, 4, 0x15, 0xC7, '+', '1', '+', '2'});
    for (bool moovFirst : {true, false}) {
        for (const Bytes& bad : {loci(139 << 16, 91 << 16), loci(int32_t(181u << 16), 0), loci(1, 1, "x", false),
                                 fullbox("loci", 0, Bytes{0x15})}) {
            SyntheticMovie m(moovFirst, cat({keep, bad, cxyz}));
            ASSERT_TRUE(m.c.removeBadLOCI());
            Bytes f = expectClean(m);
            ASSERT_EQ(f.size(), m.file.size() - bad.size());
            EXPECT_EQ(findAll(f, "moov.udta").at(0).size, 8 + keep.size() + cxyz.size());
            std::vector<uint64_t> before = chunkOffsets(m.file), after = chunkOffsets(f);
            for (size_t i = 0; i < before.size(); ++i)
                EXPECT_EQ(after[i], moovFirst ? before[i] - bad.size() : before[i]);
        }
    }
}

TEST(RemoveBadLoci, ALociCutByItsParentIsRemovedAsFarAsItReaches)
{
    size_t lociSize = 0;
    SyntheticMovie m(false, cat({box("QMKN", Bytes(8, 1)), loci(1, 1)}), [&](Bytes& f) {
        auto l = findOne(f, "moov.udta.loci");
        lociSize = l->size;
        put32be(f.data() + l->start, 5000); // claims to run past udta and moov
    });
    ASSERT_TRUE(m.c.removeBadLOCI());
    EXPECT_EQ(expectClean(m).size(), m.file.size() - lociSize);
}

} // namespace
