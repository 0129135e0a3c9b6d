// Removing unreadable loci boxes from moov.udta.
#include "GLTKwchar.h"
#include "MP4Container.h"
#include "SyntheticBoxes.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

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

// A movie with the given udta children, moov first or media first; the
// file at dir/m.mp4 attached.
struct Movie {
    TempDir dir;
    Bytes file, media = pattern(2000, 7);
    MP4::Container c;
    Movie(const Bytes& udtaChildren, bool moovFirst, const std::function<void(Bytes&)>& damage = nullptr)
    {
        Bytes ftyp = box("ftyp", text("isom"));
        auto moovAt = [&](uint32_t mediaAt) {
            return box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)),
                                    mediaTrak(960, 480, {mediaAt, mediaAt + 1000}, 1000), box("udta", udtaChildren)}));
        };
        if (moovFirst)
            file = cat({ftyp, moovAt(uint32_t(ftyp.size() + moovAt(0).size() + 8)), box("mdat", media)});
        else
            file = cat({ftyp, box("mdat", media), moovAt(uint32_t(ftyp.size() + 8))});
        if (damage)
            damage(file);
        writeFile(dir / "m.mp4", file);
        EXPECT_TRUE(c.attach(GLTK::wchar::mbs2wcs((dir / "m.mp4").string())));
    }
    // The edited file: no loci left, media where its offsets say, sizes nested.
    Bytes expectClean()
    {
        Bytes f = readFile(dir / "m.mp4");
        EXPECT_TRUE(findAll(f, "moov.udta.loci").empty());
        auto offs = chunkOffsets(f);
        EXPECT_EQ(offs.size(), 2u);
        EXPECT_EQ(slice(f, offs.at(0), 2000), media);
        std::string why;
        EXPECT_TRUE(nestsExactly(f, &why)) << why;
        return f;
    }
};

ino_t inode(const fs::path& p)
{
    struct stat st;
    return stat(p.c_str(), &st) == 0 ? st.st_ino : 0;
}

TEST(RemoveBadLoci, GoodOrNoLociAreLeftAloneWithoutRewriting)
{
    for (Bytes l : {loci(139 << 16, 35 << 16), loci(-180 * 65536, -90 * 65536, "Tokyo"), Bytes{}}) {
        Movie m(cat({box("QMKN", Bytes(8, 1)), l}), true);
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
            Movie m(cat({keep, bad, cxyz}), moovFirst);
            ASSERT_TRUE(m.c.removeBadLOCI());
            Bytes f = m.expectClean();
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
    Movie m(cat({box("QMKN", Bytes(8, 1)), loci(1, 1)}), false, [&](Bytes& f) {
        auto l = findOne(f, "moov.udta.loci");
        lociSize = l->size;
        put32be(f.data() + l->start, 5000); // claims to run past udta and moov
    });
    ASSERT_TRUE(m.c.removeBadLOCI());
    EXPECT_EQ(m.expectClean().size(), m.file.size() - lociSize);
}

} // namespace
