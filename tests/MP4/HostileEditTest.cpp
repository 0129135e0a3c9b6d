// Edits on movies with damaged box headers: nothing may read or write out of
// bounds, and an edit that fails leaves the file as it was.
#include "AccelSensorStreamEmbed.h"
#include "GLTKwchar.h"
#include "MP4Container.h"
#include "SpatialSound.h"
#include "SyntheticBoxes.h"

#include <gtest/gtest.h>
#include <random>

using namespace testsupport;

namespace {

std::wstring w(const fs::path& p) { return GLTK::wchar::mbs2wcs(p.string()); }

Bytes sensor(const char* type, uint32_t count, uint16_t unit)
{
    Bytes h = {uint8_t(count), uint8_t(count >> 8), uint8_t(count >> 16), uint8_t(count >> 24), 0, 0,
               uint8_t(unit), uint8_t(unit >> 8), 0x23, 0x01, 0, 0, 0, 0, 0, 0};
    return box(type, cat({h, pattern(count * unit, 3)}));
}

// A movie with every kind of box the edits touch.
Bytes fullMovie()
{
    Bytes ftyp = box("ftyp", text("isom"));
    Bytes mdat = box("mdat", pattern(1500, 4));
    uint32_t at = uint32_t(ftyp.size() + 8);
    Bytes l = fullbox("loci", 0, cat({Bytes{0x15, 0xC7, 0, 0}, u32s({1 << 16, 2 << 16, 3 << 16}), Bytes{0, 0}}));
    Bytes udta = box("udta", cat({box("QMKN", Bytes(16, 1)), sensor("QDTC", 4, 24), sensor("QDTD", 5, 16), l,
                                  box("QDT9", Bytes(24, 0))}));
    Bytes sph = box("uuid", cat({kSphericalUUID, text("<xml/>")}));
    Bytes moov = box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)), mediaTrak(960, 480, {at, at + 500}, 500, false, sph),
                                  mediaTrak(0, 0, {at + 1000}, 500, true), udta}));
    Bytes f = cat({ftyp, mdat, moov});
    Bytes spatial = spatialBox(pattern(8 * 1536 * 3, 6), 48000, 8, f.size() + 32);
    return cat({f, spatial});
}

TEST(HostileEdits, DamagedHeadersNeverBreakBoundsAndFailedEditsLeaveTheFile)
{
    TempDir dir;
    const Bytes clean = fullMovie();
    // Offsets of every box header: damage goes where it hurts.
    std::vector<size_t> headers;
    for (const char* p :
         {"moov", "moov.trak", "moov.trak.mdia", "moov.trak.mdia.minf", "moov.trak.mdia.minf.stbl",
          "moov.trak.mdia.minf.stbl.stco", "moov.trak.mdia.minf.stbl.co64", "moov.trak.uuid", "moov.udta",
          "moov.udta.QDTC", "moov.udta.QDTD", "moov.udta.loci", "moov.udta.QDT9", "uuid", "uuid.QADT", "uuid.QATR",
          "uuid.QATR.mdia.minf.stbl.co64", "uuid.QATR.mdia.minf.stbl.stsz", "uuid.QATR.mdia.mdhd"})
        for (const BoxAt& b : findAll(clean, p))
            headers.push_back(b.start);
    ASSERT_GT(headers.size(), 20u);
    std::mt19937 rng(12345);
    const uint32_t nasty[] = {0, 1, 7, 8, 0xFFFFFFFF, 0x80000000, 0x7FFFFFFF, 24, 100000};
    for (int round = 0; round < 200; ++round) {
        Bytes f = clean;
        for (int k = 0; k < 1 + round % 3; ++k) {
            size_t at = headers[rng() % headers.size()];
            size_t field = rng() % 4; // size, or a count / field behind the header
            uint32_t v = rng() % 2 ? nasty[rng() % std::size(nasty)] : uint32_t(rng());
            size_t pos = at + (field == 0 ? 0 : 8 + 4 * field);
            if (pos + 4 <= f.size())
                put32be(f.data() + pos, v);
        }
        writeFile(dir / "m.mp4", f);
        testing::internal::CaptureStdout();
        {
            MP4::Container c;
            ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
            std::vector<AccelSensorStreamEmbed::Ecompass> e;
            std::vector<AccelSensorStreamEmbed::TopBottomCorrection> d;
            unsigned short extra;
            AccelSensorStreamEmbed::loadM29_QDTC(c, e, extra);
            AccelSensorStreamEmbed::loadM29_QDTD(c, d, extra);
            MP4::SpatialSound sound;
            sound.attach(w(dir / "m.mp4"), 0.01, 0.05);

            Bytes before = readFile(dir / "m.mp4");
            if (!c.appendSphericalVideoXML(std::string(64, 'v'))) {
                EXPECT_EQ(readFile(dir / "m.mp4"), before) << "round " << round;
            }
            before = readFile(dir / "m.mp4");
            if (!c.removeBadLOCI()) {
                EXPECT_EQ(readFile(dir / "m.mp4"), before) << "round " << round;
            }
            c.overwriteSpatialDataOffset(0);
            before = readFile(dir / "m.mp4");
            if (!c.appendXMP("<x/>")) {
                EXPECT_EQ(readFile(dir / "m.mp4"), before) << "round " << round;
            }
        }
        testing::internal::GetCapturedStdout();
        EXPECT_FALSE(fs::exists(dir / "m.mp4.tmp.mp4"));
    }
}

} // namespace
