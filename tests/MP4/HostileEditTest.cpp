// Edits on movies with damaged box headers: nothing may read or write out of
// bounds, and an edit that fails leaves the file as it was.
#include "AccelSensorStreamEmbed.h"
#include "SensorBoxBytes.h"
#include "SpatialSound.h"
#include "SyntheticBoxes.h"

#include <gtest/gtest.h>
#include <random>

using namespace testsupport;

namespace {

// A movie with every kind of box the edits touch.
Bytes fullMovie()
{
    Bytes loci = fullbox("loci", 0, cat({Bytes{0x15, 0xC7, 0, 0}, u32s({1 << 16, 2 << 16, 3 << 16}), Bytes{0, 0}}));
    Bytes udta = cat({box("QMKN", Bytes(16, 1)), sensorBox("QDTC", 24, pattern(4 * 24, 3)),
                      sensorBox("QDTD", 16, pattern(5 * 16, 3)), loci, box("QDT9", Bytes(24, 0))});
    return SyntheticMovie(false, udta, [](Bytes& f) {
               // A Spherical Video box in the video track, and spatial data at the end.
               Bytes sph = box("uuid", cat({kSphericalUUID, text("<xml/>")}));
               f = cat({f, spatialBox(pattern(8 * 1536 * 3, 6), 48000, 8, f.size() + sph.size() + 32)});
               for (const char* path : {"moov", "moov.trak"})
                   put32be(f.data() + findOne(f, path)->start, uint32_t(findOne(f, path)->size + sph.size()));
               const BoxAt trak = *findOne(f, "moov.trak");
               f.insert(f.begin() + long(trak.end() - sph.size()), sph.begin(), sph.end());
           })
        .file;
}

TEST(HostileEdits, DamagedHeadersNeverBreakBoundsAndFailedEditsLeaveTheFile)
{
    TempDir dir;
    const fs::path file = dir / "m.mp4";
    const std::wstring path = GLTK::wchar::mbs2wcs(file.string());
    const Bytes clean = fullMovie();
    // Damage goes into the headers of the boxes the edits read.
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
            size_t field = rng() % 4; // the size, or a count or field behind the header
            size_t pos = headers[rng() % headers.size()] + (field == 0 ? 0 : 8 + 4 * field);
            uint32_t v = rng() % 2 ? nasty[rng() % std::size(nasty)] : uint32_t(rng());
            if (pos + 4 <= f.size())
                put32be(f.data() + pos, v);
        }
        writeFile(file, f);
        testing::internal::CaptureStdout();
        MP4::Container c;
        ASSERT_TRUE(c.attach(path));
        std::vector<AccelSensorStreamEmbed::Ecompass> e;
        std::vector<AccelSensorStreamEmbed::TopBottomCorrection> d;
        unsigned short extra;
        AccelSensorStreamEmbed::loadM29_QDTC(c, e, extra);
        AccelSensorStreamEmbed::loadM29_QDTD(c, d, extra);
        MP4::SpatialSound().attach(path, 0.01, 0.05);
        const std::function<bool()> edits[] = {[&] { return c.appendSphericalVideoXML(std::string(64, 'v')); },
                                               [&] { return c.removeBadLOCI(); },
                                               [&] { return c.overwriteSpatialDataOffset(0) || true; },
                                               [&] { return c.appendXMP("<x/>"); }};
        for (const auto& edit : edits) {
            Bytes before = readFile(file);
            if (!edit()) {
                EXPECT_EQ(readFile(file), before) << "round " << round;
            }
        }
        testing::internal::GetCapturedStdout();
        EXPECT_FALSE(fs::exists(dir / "m.mp4.tmp.mp4"));
    }
}

} // namespace
