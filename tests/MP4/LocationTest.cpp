// Location boxes in moov.udta: removing unreadable loci boxes and adding the
// position boxes of a GPS record.
#include "GLTKwchar.h"
#include "MP4Container.h"
#include "SyntheticBoxes.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace testsupport;

namespace {

std::wstring w(const fs::path& p) { return GLTK::wchar::mbs2wcs(p.string()); }

ino_t inode(const fs::path& p)
{
    struct stat st;
    return stat(p.c_str(), &st) == 0 ? st.st_ino : 0;
}

// A loci box: language, name, role, longitude, latitude, altitude, body, notes.
Bytes loci(int32_t longitude, int32_t latitude, const std::string& name = "", bool withNotes = true)
{
    Bytes p = {0x15, 0xC7};
    p.insert(p.end(), name.begin(), name.end());
    p.push_back(0);
    p.push_back(0); // role
    add32(p, uint32_t(longitude));
    add32(p, uint32_t(latitude));
    add32(p, 40 << 16);
    p.push_back(0); // body
    if (withNotes)
        p.push_back(0);
    return fullbox("loci", 0, p);
}

// A movie with the given udta children, moov first or media first.
struct Movie {
    Bytes file, media = pattern(2000, 7);
    Movie(const Bytes& udtaChildren, bool moovFirst)
    {
        Bytes ftyp = box("ftyp", text("isom"));
        auto moovAt = [&](uint32_t mediaAt) {
            return box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)), mediaTrak(960, 480, {mediaAt, mediaAt + 1000}, 1000),
                                    box("udta", udtaChildren)}));
        };
        if (moovFirst)
            file = cat({ftyp, moovAt(uint32_t(ftyp.size() + moovAt(0).size() + 8)), box("mdat", media)});
        else
            file = cat({ftyp, box("mdat", media), moovAt(uint32_t(ftyp.size() + 8))});
    }
    void expectMedia(const Bytes& f) const
    {
        auto offs = chunkOffsets(f);
        ASSERT_EQ(offs.size(), 2u);
        EXPECT_EQ(slice(f, offs[0], 2000), media);
        std::string why;
        EXPECT_TRUE(nestsExactly(f, &why)) << why;
    }
};

TEST(RemoveBadLoci, GoodLociAreLeftAloneWithoutRewriting)
{
    TempDir dir;
    for (Bytes l : {loci(139 << 16, 35 << 16), loci(-180 * 65536, -90 * 65536, "Tokyo"), loci(0, 0)}) {
        Movie m(cat({box("QMKN", Bytes(8, 1)), l}), true);
        writeFile(dir / "m.mp4", m.file);
        ino_t before = inode(dir / "m.mp4");
        MP4::Container c;
        ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
        testing::internal::CaptureStdout();
        EXPECT_TRUE(c.removeBadLOCI());
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_EQ(readFile(dir / "m.mp4"), m.file);
        EXPECT_EQ(inode(dir / "m.mp4"), before); // not even copied
    }
    // No loci at all.
    Movie none(box("QMKN", Bytes(8, 1)), true);
    writeFile(dir / "n.mp4", none.file);
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "n.mp4")));
    EXPECT_TRUE(c.removeBadLOCI());
    EXPECT_EQ(readFile(dir / "n.mp4"), none.file);
}

TEST(RemoveBadLoci, BadLociAreCutOutAndOffsetsFollow)
{
    Bytes tooFarNorth = loci(139 << 16, 91 << 16);
    Bytes tooFarEast = loci(int32_t(181u << 16), 0);
    Bytes noNotes = loci(1, 1, "x", false);
    Bytes tiny = fullbox("loci", 0, Bytes{0x15});
    for (bool moovFirst : {true, false}) {
        for (const Bytes& bad : {tooFarNorth, tooFarEast, noNotes, tiny}) {
            TempDir dir;
            Bytes keep = box("QMKN", Bytes(8, 1));
            Movie m(cat({keep, bad, box("\xA9xyz", Bytes{0, 4, 0x15, 0xC7, '+', '1', '+', '2'})}), moovFirst);
            writeFile(dir / "m.mp4", m.file);
            MP4::Container c;
            ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
            ASSERT_TRUE(c.removeBadLOCI());
            Bytes f = readFile(dir / "m.mp4");
            ASSERT_EQ(f.size(), m.file.size() - bad.size());
            EXPECT_TRUE(findAll(f, "moov.udta.loci").empty());
            EXPECT_EQ(findAll(f, "moov.udta").at(0).size, 8 + keep.size() + 16);
            EXPECT_TRUE(findOne(f, "moov.udta.\xA9xyz").has_value());
            std::vector<uint64_t> before = chunkOffsets(m.file), after = chunkOffsets(f);
            for (size_t i = 0; i < before.size(); ++i)
                EXPECT_EQ(after[i], moovFirst ? before[i] - bad.size() : before[i]);
            m.expectMedia(f);
        }
    }
}

TEST(RemoveBadLoci, ALociCutByItsParentIsRemovedAsFarAsItReaches)
{
    TempDir dir;
    Movie m(cat({box("QMKN", Bytes(8, 1)), loci(1, 1)}), false);
    Bytes f = m.file;
    auto l = findOne(f, "moov.udta.loci");
    put32be(f.data() + l->start, 5000); // claims to run past udta and moov
    writeFile(dir / "m.mp4", f);
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
    ASSERT_TRUE(c.removeBadLOCI());
    Bytes g = readFile(dir / "m.mp4");
    EXPECT_EQ(g.size(), f.size() - l->size);
    EXPECT_TRUE(findAll(g, "moov.udta.loci").empty());
    m.expectMedia(g);
}

} // namespace
