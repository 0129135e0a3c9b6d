#include "camera/ExifParser.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using E = ExifParser;

std::string thrown(const std::function<void()>& f)
{
    try {
        f();
    } catch (const char* s) {
        return s;
    }
    return "";
}

// A small TIFF writer: IFDs whose entries hold an inline value, out-of-line
// bytes, or a pointer to a child IFD (after an optional prefix, as the maker
// note's signature). Offsets count from byte 0 of the block.
struct Ifd;
struct Entry {
    uint16_t tag, type;
    uint32_t count, value;
    Bytes blob;
    std::shared_ptr<Ifd> child;
    Bytes prefix;
    Entry(uint16_t tag, uint16_t type, uint32_t count, uint32_t value = 0, Bytes blob = {},
          std::shared_ptr<Ifd> child = nullptr, Bytes prefix = {})
        : tag(tag), type(type), count(count), value(value), blob(std::move(blob)), child(std::move(child)),
          prefix(std::move(prefix))
    {
    }
};
struct Ifd {
    std::vector<Entry> entries;
};

struct Writer {
    bool be;
    Bytes out;
    void put(uint32_t v, int n)
    {
        for (int i = 0; i < n; ++i)
            out.push_back(uint8_t(v >> 8 * (be ? n - 1 - i : i)));
    }
    void patch(size_t at, uint32_t v)
    {
        for (int i = 0; i < 4; ++i)
            out[at + size_t(i)] = uint8_t(v >> 8 * (be ? 3 - i : i));
    }
    void ifd(const Ifd& d)
    {
        put(uint32_t(d.entries.size()), 2);
        std::vector<size_t> fields;
        for (const Entry& e : d.entries) {
            put(e.tag, 2);
            put(e.type, 2);
            put(e.count, 4);
            fields.push_back(out.size());
            put(e.value, 4);
        }
        put(0, 4); // no next IFD
        for (size_t i = 0; i < d.entries.size(); ++i) {
            const Entry& e = d.entries[i];
            if (e.blob.empty() && !e.child)
                continue;
            patch(fields[i], uint32_t(out.size()));
            out.insert(out.end(), e.blob.begin(), e.blob.end());
            out.insert(out.end(), e.prefix.begin(), e.prefix.end());
            if (e.child)
                ifd(*e.child);
        }
    }
};

const Bytes narviSig = {'N', 'a', 'r', 'v', 'i', 0, 0, 0};

Entry shortE(uint16_t tag, uint16_t v, bool be = true) { return {tag, E::TYPE_SHORT, 1, be ? uint32_t(v) << 16 : v}; }
Entry textE(uint16_t tag, const std::string& s, uint16_t type = E::TYPE_ASCII)
{
    return {tag, type, uint32_t(s.size()), 0, Bytes(s.begin(), s.end())};
}
Entry words(uint16_t tag, uint16_t type, uint32_t count, std::initializer_list<uint32_t> vs, bool be = true)
{
    Writer w{be, {}};
    for (uint32_t v : vs)
        w.put(v, 4);
    return {tag, type, count, 0, w.out};
}
Entry pointer(uint16_t tag, std::shared_ptr<Ifd> child, uint16_t type = 4, Bytes prefix = {})
{
    return {tag, type, 1, 0, {}, std::move(child), std::move(prefix)};
}
std::shared_ptr<Ifd> ifdOf(std::vector<Entry> entries) { return std::make_shared<Ifd>(Ifd{std::move(entries)}); }

// A typical camera ORVEX IFD.
std::shared_ptr<Ifd> orvexIfd(bool be = true)
{
    return ifdOf({shortE(0x0001, 1, be), shortE(0x0002, 7, be),
                  words(0x0003, E::TYPE_SRATIONAL, 2, {uint32_t(-15), 10, 30, 4}, be),
                  words(0x0004, E::TYPE_RATIONAL, 1, {2705, 10}, be), shortE(0x0005, 3, be), shortE(0x0007, 0, be),
                  shortE(0x0013, 1, be), Entry{0x0204, E::TYPE_SHORT, 2, be ? 960u << 16 | 480 : 480u << 16 | 960},
                  words(0x0206, E::TYPE_RATIONAL, 1, {3, 4}, be), shortE(0x1014, 5, be)});
}
std::shared_ptr<Ifd> makerIfd(std::shared_ptr<Ifd> orvex, bool be = true)
{
    return ifdOf({textE(0x0002, std::string("FW 1.20\0", 8)), textE(0x0005, "SERIAL00042", E::TYPE_UNDEFINED),
                  shortE(0x1000, 0x1234, be), pointer(0x4001, std::move(orvex))});
}

Bytes tiffOf(const Ifd& ifd0, bool be = true)
{
    Writer w{be, be ? Bytes{'M', 'M'} : Bytes{'I', 'I'}};
    w.put(42, 2);
    w.put(8, 4);
    w.ifd(ifd0);
    return w.out;
}
// TIFF header, IFD0 -> EXIF -> maker note -> ORVEX.
Bytes tiffChain(bool be = true)
{
    auto exif = ifdOf({pointer(0x927C, makerIfd(orvexIfd(be), be), E::TYPE_UNDEFINED, narviSig)});
    return tiffOf(Ifd{{textE(0x0110, std::string("NARVI ORVEX S\0", 14)), textE(0x0131, std::string("1.50.1\0", 7)),
                       pointer(0x8769, exif)}},
                  be);
}
// Bare maker note: signature, then the maker-note IFD.
Bytes bareMakerNote(std::shared_ptr<Ifd> orvex = orvexIfd())
{
    Writer w{true, narviSig};
    w.ifd(*makerIfd(std::move(orvex)));
    return w.out;
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& p : parts)
        all.insert(all.end(), p.begin(), p.end());
    return all;
}
Bytes segment(uint16_t marker, const Bytes& payload)
{
    size_t n = payload.size() + 2;
    return cat({{uint8_t(marker >> 8), uint8_t(marker), uint8_t(n >> 8), uint8_t(n)}, payload});
}
Bytes exifApp1(const Bytes& tiff) { return segment(0xFFE1, cat({{'E', 'x', 'i', 'f', 0, 0}, tiff})); }
const Bytes SOI = {0xFF, 0xD8}, EOI = {0xFF, 0xD9};

E::ORVEX readQMKN(const Bytes& b)
{
    E p;
    p.attachQMKN(b.data(), b.size());
    E::ORVEX r;
    p.readOREVX(r);
    return r;
}
std::string qmknError(const Bytes& b) { return thrown([&] { readQMKN(b); }); }

size_t findBytes(const Bytes& hay, const Bytes& needle)
{
    auto it = std::search(hay.begin(), hay.end(), needle.begin(), needle.end());
    return it == hay.end() ? std::string::npos : size_t(it - hay.begin());
}
// Aims the big-endian pointer entry with the given tag bytes at offset 8.
Bytes redirected(Bytes b, const Bytes& tag)
{
    size_t at = findBytes(b, tag);
    EXPECT_NE(at, std::string::npos);
    std::fill(b.begin() + long(at) + 8, b.begin() + long(at) + 12, 0);
    b[at + 11] = 8;
    return b;
}

TEST(ExifParser, ReadsTheTiffChainAndTheBareMakerNote)
{
    E::ORVEX r = readQMKN(tiffChain());
    EXPECT_EQ(r.model, std::string("NARVI ORVEX S\0", 14));
    EXPECT_EQ(r.software, std::string("1.50.1\0", 7));
    EXPECT_EQ(r.makerText2, std::string("FW 1.20\0", 8)); // the zero in the count stays
    EXPECT_EQ(r.makerText5, "SERIAL00042");
    EXPECT_EQ(r.makerValue1000, 0x1234u);
    EXPECT_EQ(r.projectionType, 1u);
    EXPECT_EQ(r.orvexValue2, 7u);
    EXPECT_FLOAT_EQ(r.zenith[0], -1.5f); // signed numerator
    EXPECT_FLOAT_EQ(r.zenith[1], 7.5f);
    EXPECT_FLOAT_EQ(r.compass, 270.5f);
    EXPECT_FLOAT_EQ(r.heading, 270.5f); // level camera: no correction
    EXPECT_EQ(r.orvexValue5, 3u);
    EXPECT_EQ(r.sphereAdjZenith, 0);
    EXPECT_EQ(r.adjRollingShutter, 1);
    EXPECT_EQ(r.videoStabilization, 5);
    EXPECT_TRUE(r.yawEnabled && r.yawLockDir && r.hasStabilization);
    EXPECT_EQ(r.stitchingFishImgCenter[0], 960u);
    EXPECT_EQ(r.stitchingFishImgCenter[1], 480u);
    EXPECT_FLOAT_EQ(r.stitchingSamplingRate, 0.75f);
    EXPECT_EQ(r.orvexValue203, -1); // absent tags keep their cleared values
    EXPECT_EQ(r.stitchingFishMovCenter[0], 0u);

    // The bare maker note needs no TIFF header; the IFD0 fields stay empty
    // and the TIFF walk refuses with the parser's own message.
    Bytes b = bareMakerNote();
    E p;
    p.attachQMKN(b.data(), b.size());
    EXPECT_TRUE(p.makerNoteOnly);
    EXPECT_EQ(thrown([&] { p.seekToEXIF(); }), "Only NARVI Meta");
    r = readQMKN(b);
    EXPECT_EQ(r.model, "");
    EXPECT_EQ(r.makerText5, "SERIAL00042");
    EXPECT_EQ(r.videoStabilization, 5);
}

TEST(ExifParser, LittleEndianWalksButRefusesShortValues)
{
    Bytes b = tiffChain(false);
    E p;
    p.attachQMKN(b.data(), b.size());
    EXPECT_NO_THROW(p.seekToORVEX());
    E::ORVEX r;
    EXPECT_EQ(thrown([&] { p.readOREVX(r); }), "bigEndian reqired.");
    // Fields read before the failure stay in the record.
    EXPECT_EQ(r.makerText5, "SERIAL00042");
    EXPECT_EQ(r.makerValue1000, 0u);
}

TEST(ExifParser, HostileOffsetsCountsAndLoopsEndWithAMessage)
{
    const Bytes good = tiffChain();
    auto with = [&](std::initializer_list<std::pair<size_t, uint8_t>> changes) {
        Bytes b = good;
        for (auto [at, v] : changes)
            b[at] = v;
        return b;
    };
    const size_t modelValue = 8 + 2 + 8; // IFD0's first entry's value field
    struct Case {
        const char* what;
        Bytes bytes;
        const char* message;
    } cases[] = {
        {"TIFF id 43", with({{3, 43}}), "Invalid TIFF-ID(0x002A)."},
        {"IFD0 past the end", with({{5, 0x10}}), "Invalid position"},
        {"IFD0 offset wrapping 32 bits", with({{4, 0xFF}, {5, 0xFF}, {6, 0xFF}}), "Invalid position"},
        {"text offset past the end",
         with({{modelValue, 0xFF}, {modelValue + 1, 0xFF}, {modelValue + 2, 0xFF}, {modelValue + 3, 0xF0}}),
         "Invalid position"},
        {"4096 entries", with({{8, 0x10}}), "Invalid position"},
        {"EXIF pointer at IFD0", redirected(good, {0x87, 0x69}), "MakerNote-IFD(0x927C) not found."},
        {"maker note at IFD0", redirected(good, {0x92, 0x7C}), "Not a NARVI image."},
        {"rational past the end", bareMakerNote(ifdOf({Entry{0x0004, E::TYPE_RATIONAL, 1, 0xFFFFFFF8}})),
         "Invalid position"},
        // ORVEX pointer aimed back at the maker-note IFD: its entries are read
        // as ORVEX ones and the walk ends.
        {"ORVEX at the maker note", redirected(bareMakerNote(), {0x40, 0x01, 0x00, 0x04}), ""},
    };
    for (const Case& c : cases)
        EXPECT_EQ(qmknError(c.bytes), c.message) << c.what;

    // A refused block is dropped, not kept half attached.
    Bytes bad = with({{3, 43}});
    E p;
    EXPECT_EQ(thrown([&] { p.attachQMKN(bad.data(), bad.size()); }), "Invalid TIFF-ID(0x002A).");
    EXPECT_EQ(p.size, 0u);
    EXPECT_EQ(p.data, nullptr);
    // A JPEG's Exif header is checked the same way.
    Bytes jpeg = cat({SOI, exifApp1(with({{3, 0}})), EOI});
    p.attachBytes(jpeg.data(), jpeg.size());
    EXPECT_EQ(thrown([&] { p.seekToIFD0(); }), "Invalid TIFF-ID(0x002A).");
}

TEST(ExifParser, CorruptOrTruncatedBytesNeverCrashOrHang)
{
    const Bytes jpeg = cat({SOI, exifApp1(tiffChain()), EOI});
    const Bytes bare = bareMakerNote();
    for (const Bytes* base : {&jpeg, &bare}) {
        for (size_t i = 0; i < base->size(); ++i) {
            for (uint8_t v : {uint8_t(0x00), uint8_t(0xFF), uint8_t(0x80), uint8_t(base->at(i) ^ 0x01)}) {
                Bytes b = *base;
                b[i] = v;
                E p;
                E::ORVEX r;
                try {
                    base == &bare ? p.attachQMKN(b.data(), b.size()) : p.attachBytes(b.data(), b.size());
                    p.readOREVX(r);
                } catch (const char*) {
                }
                EXPECT_LE(p.cursor, p.size);
            }
            try {
                readQMKN(Bytes(base->begin(), base->begin() + long(i)));
            } catch (const char*) {
            }
        }
    }
}

TEST(ExifParser, JpegScanFindsExifBehindOtherSegmentsUpTo32Markers)
{
    Bytes xmp = segment(0xFFE1, {'h', 't', 't', 'p', ':', '/', '/', 'n', 's'});
    Bytes jfif = segment(0xFFE0, {'J', 'F', 'I', 'F', 0, 1, 1, 0, 0, 1, 0, 1, 0, 0});
    Bytes jpeg = cat({SOI, jfif, {0xFF, 0xFF}, xmp, exifApp1(tiffChain()), segment(0xFFDB, Bytes(65, 0)), EOI});
    E p;
    p.attachBytes(jpeg.data(), jpeg.size());
    E::ORVEX r;
    p.readOREVX(r);
    EXPECT_EQ(p.tiffBase, 2 + jfif.size() + 2 + xmp.size() + 4 + 6);
    EXPECT_EQ(r.model, std::string("NARVI ORVEX S\0", 14));
    EXPECT_FLOAT_EQ(r.compass, 270.5f);

    // After 32 markers the scan gives up without a word.
    Bytes many = SOI;
    for (int i = 0; i < 32; ++i)
        many = cat({many, segment(0xFFE2, {uint8_t(i)})});
    size_t after32 = many.size();
    many = cat({many, exifApp1(tiffChain()), EOI});
    E q;
    q.attachBytes(many.data(), many.size());
    EXPECT_NO_THROW(q.seekToIFD0());
    EXPECT_EQ(q.ifd0, 0u);
    EXPECT_EQ(q.cursor, after32);
}

TEST(ExifParser, JpegScanRejectsMisplacedMarkers)
{
    auto scan = [](const Bytes& jpeg) {
        return thrown([&] {
            E p;
            p.attachBytes(jpeg.data(), jpeg.size());
            p.seekToIFD0();
        });
    };
    Bytes app0 = segment(0xFFE0, {1, 2, 3});
    EXPECT_EQ(scan({0x89, 'P', 'N', 'G'}), "SOI(0xFFD8) not found.");
    EXPECT_EQ(scan(cat({SOI, app0, SOI})), "Invalid SOI(0xFFD8) found.");
    EXPECT_EQ(scan(cat({SOI, app0, EOI})), "Invalid EOI(0xFFD9) found.");
    EXPECT_EQ(scan(cat({SOI, segment(0xFFDA, {0})})), "Invalid SOS(0xFFDA) found.");
    EXPECT_EQ(scan(cat({SOI, {0x12, 0x34}})), "Unknown marker.");
    EXPECT_EQ(scan(cat({SOI, {0xFF, 0xE0, 0x00, 0x00}, EOI})), "Unknown marker."); // length 0 points at itself
    EXPECT_EQ(scan(cat({SOI, {0xFF, 0xE0, 0x40, 0x00}})), "Invalid position");    // segment past the end
    EXPECT_EQ(scan(SOI), "Invalid position");
}

TEST(ExifParser, EntriesOfTheWrongShapeAreRefused)
{
    const std::string shapeText = "Invalid Type: ASCII[>4] or UNDEF[>4] required.";
    Entry wrongType = textE(0x0110, "ABCDEFGH");
    wrongType.type = E::TYPE_SHORT;
    EXPECT_EQ(qmknError(tiffOf(Ifd{{Entry{0x0110, E::TYPE_ASCII, 4, 0x41424300}}})), shapeText); // inline text
    EXPECT_EQ(qmknError(tiffOf(Ifd{{wrongType}})), shapeText);
    // With the text in place the walk goes on and misses the EXIF IFD.
    EXPECT_EQ(qmknError(tiffOf(Ifd{{textE(0x0110, "ABCDEFGH")}})), "EXIF-IFD(0x8769) not found.");

    struct Case {
        Entry entry;
        const char* message;
    } cases[] = {
        {words(0x0003, E::TYPE_RATIONAL, 2, {1, 1, 2, 1}), "Invalid entry for Zenith(0x0003): SRATIONAL[2] required."},
        {words(0x0004, E::TYPE_SRATIONAL, 1, {1, 1}), "Invalid entry for Compass(0x0004): RATIONAL[1] required."},
        {words(0x0004, E::TYPE_RATIONAL, 2, {1, 1, 1, 1}), "Invalid entry for Compass(0x0004): RATIONAL[1] required."},
        {Entry{0x0204, E::TYPE_SHORT, 1, 0}, "Invalid entry for StitchingFishImgCenter(0x0204): SHORT[2] required."},
        {Entry{0x0205, 4, 2, 0}, "Invalid entry for StitchingFishMovCenter(0x0205): SHORT[2] required."},
        {words(0x0206, E::TYPE_RATIONAL, 2, {1, 1, 1, 1}),
         "Invalid entry for StitchingSamplingRate(0x0206): RATIONAL[1] required."},
    };
    for (const Case& c : cases)
        EXPECT_EQ(qmknError(bareMakerNote(ifdOf({c.entry}))), c.message);

    // Zenith is only refused for "wrong type with count 2": other shapes are read.
    E::ORVEX r = readQMKN(bareMakerNote(ifdOf({words(0x0003, E::TYPE_SHORT, 1, {uint32_t(-90), 2, 50, 1})})));
    EXPECT_FLOAT_EQ(r.zenith[0], -45.0f);
    EXPECT_FLOAT_EQ(r.zenith[1], 50.0f);
    EXPECT_TRUE(std::isnan(r.heading)); // no compass entry

    Writer w{true, narviSig};
    w.ifd(Ifd{{shortE(0x1000, 1)}});
    EXPECT_EQ(qmknError(w.out), "ORVEX-IFD(0x4001) not found.");
}

TEST(ExifParser, StabilizationCodesSplitIntoYawLockAndImage)
{
    struct Case {
        uint16_t stored;
        int32_t value;
        bool yaw, lock, has;
    } cases[] = {
        {1, 1, true, false, true},   {2, 0, false, false, false}, {3, 3, true, true, true},
        {8, 8, false, false, false}, {10, 0, false, false, false}, {12, 12, true, false, true},
    };
    for (const Case& c : cases) {
        E::ORVEX r = readQMKN(bareMakerNote(ifdOf({shortE(0x1014, c.stored)})));
        EXPECT_EQ(r.videoStabilization, c.value) << c.stored;
        EXPECT_EQ(r.yawEnabled, c.yaw) << c.stored;
        EXPECT_EQ(r.yawLockDir, c.lock) << c.stored;
        EXPECT_EQ(r.hasStabilization, c.has) << c.stored;
    }
}

TEST(ExifParser, CompassCorrectedOnlyForSteepTilt)
{
    auto headingFor = [](float roll, float pitch, float compass) {
        E::ORVEX r;
        r.zenith[0] = roll;
        r.zenith[1] = pitch;
        r.compass = compass;
        r.attachCompass();
        return r.heading;
    };
    EXPECT_FLOAT_EQ(headingFor(80, 45, 123), 123); // within +-45 degrees
    EXPECT_FLOAT_EQ(headingFor(80, -45, 123), 123);
    EXPECT_FLOAT_EQ(headingFor(0, NAN, 123), 123);
    EXPECT_NEAR(headingFor(0, 90, 30), 30, 1e-3); // straight up without roll
    EXPECT_NEAR(headingFor(90, 90, 30), 120, 1e-3);
    EXPECT_NEAR(headingFor(30, -60, 10), 336.31, 0.01);
}

TEST(ExifParser, UpdateProjectionTypeTouchesOnlyItsValueField)
{
    for (Bytes b : {bareMakerNote(), tiffChain()}) {
        Bytes expected = b;
        size_t at = findBytes(b, {0x00, 0x01, 0x00, 0x03, 0x00, 0x00, 0x00, 0x01, 0x00, 0x01});
        ASSERT_NE(at, std::string::npos);
        expected[at + 9] = 2;
        EXPECT_TRUE(E::updateProjectionType(b.data(), b.size(), 2));
        EXPECT_EQ(b, expected);
    }
}

TEST(ExifParser, CorrectionModesAreNeverLoweredFromOne)
{
    Bytes b = bareMakerNote(); // sphereAdjZenith 0, adjRollingShutter 1
    int32_t zenith = 1;
    EXPECT_TRUE(E::updateSphereAdjZenith(b.data(), b.size(), zenith));
    zenith = 0;
    EXPECT_TRUE(E::updateSphereAdjZenith(b.data(), b.size(), zenith));
    EXPECT_EQ(zenith, 1);
    EXPECT_EQ(readQMKN(b).sphereAdjZenith, 1);

    int32_t rs = 0;
    EXPECT_TRUE(E::updateAdjRollingShutter(b.data(), b.size(), rs));
    EXPECT_EQ(rs, 1);
    rs = 3;
    EXPECT_TRUE(E::updateAdjRollingShutter(b.data(), b.size(), rs));
    EXPECT_EQ(readQMKN(b).adjRollingShutter, 3);

    // -1 leaves the maker note alone.
    Bytes before = b;
    int32_t unknown = -1;
    EXPECT_FALSE(E::updateSphereAdjZenith(b.data(), b.size(), unknown));
    EXPECT_FALSE(E::updateAdjRollingShutter(b.data(), b.size(), unknown));
    EXPECT_EQ(b, before);
}

TEST(ExifParser, UpdateVideoStabilizationTakesOverEntry0109)
{
    Bytes b = tiffChain();
    Bytes before = b;
    EXPECT_FALSE(E::updateVideoStabilization(b.data(), b.size(), 0));
    EXPECT_FALSE(E::updateVideoStabilization(b.data(), b.size(), -1));
    EXPECT_EQ(b, before);
    EXPECT_TRUE(E::updateVideoStabilization(b.data(), b.size(), 12));
    EXPECT_EQ(readQMKN(b).videoStabilization, 12);

    // Without a 0x1014 entry, the SRATIONAL[3] entry 0x0109 is turned into it.
    b = bareMakerNote(ifdOf({shortE(0x0001, 1), words(0x0109, E::TYPE_SRATIONAL, 3, {1, 1, 2, 1, 3, 1})}));
    size_t at = findBytes(b, {0x01, 0x09, 0x00, 0x0A, 0x00, 0x00, 0x00, 0x03});
    ASSERT_NE(at, std::string::npos);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(E::updateVideoStabilization(b.data(), b.size(), 13));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Overwrite VideoStabilization(1014) into 0109.\n");
    EXPECT_EQ(Bytes(b.begin() + long(at), b.begin() + long(at) + 12),
              (Bytes{0x10, 0x14, 0x00, 0x03, 0x00, 0x00, 0x00, 0x01, 0x00, 0x0D, 0x00, 0x00}));
    EXPECT_TRUE(readQMKN(b).yawLockDir);

    // Neither entry: nothing changes.
    b = bareMakerNote(ifdOf({shortE(0x0001, 1)}));
    before = b;
    EXPECT_FALSE(E::updateVideoStabilization(b.data(), b.size(), 4));
    EXPECT_EQ(b, before);
}

TEST(ExifParser, UpdateFailuresCarryTheOperationsMessageAndLeaveTheBytes)
{
    Bytes b = bareMakerNote(ifdOf({Entry{0x0001, E::TYPE_SHORT, 2, 0}, Entry{0x0007, 4, 1, 0},
                                   Entry{0x0013, E::TYPE_SHORT, 3, 0}, Entry{0x1014, E::TYPE_SHORT, 2, 0}}));
    Bytes before = b;
    int32_t one = 1;
    EXPECT_EQ(thrown([&] { E::updateProjectionType(b.data(), b.size(), 1); }), "ProjectionType override failed.");
    EXPECT_EQ(thrown([&] { E::updateSphereAdjZenith(b.data(), b.size(), one); }), "SphereAdjZenith override failed.");
    EXPECT_EQ(thrown([&] { E::updateAdjRollingShutter(b.data(), b.size(), one); }),
              "AdjRollingShutter override failed.");
    EXPECT_EQ(thrown([&] { E::updateVideoStabilization(b.data(), b.size(), 4); }),
              "VideoStabilization override failed.");
    EXPECT_EQ(b, before);

    // A 0x0109 of another shape is refused too.
    b = bareMakerNote(ifdOf({words(0x0109, E::TYPE_RATIONAL, 3, {1, 1, 2, 1, 3, 1})}));
    EXPECT_EQ(thrown([&] { E::updateVideoStabilization(b.data(), b.size(), 4); }),
              "VideoStabilization override failed.");
    Bytes junk = {'n', 'o', 't', ' ', 'e', 'x', 'i', 'f'};
    EXPECT_EQ(thrown([&] { E::updateProjectionType(junk.data(), junk.size(), 1); }), "ProjectionType override failed.");
    EXPECT_EQ(thrown([&] { E::updateProjectionType(nullptr, 0, 1); }), "ProjectionType override failed.");
}

} // namespace
