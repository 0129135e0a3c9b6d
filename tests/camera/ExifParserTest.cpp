#include "camera/ExifParser.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>
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
// bytes, or a pointer to a child IFD (after those bytes, as the maker note's
// signature). Offsets count from byte 0 of the block. Values inside entries
// are always big-endian: the parser reads no value of a little-endian block.
struct Entry {
    uint16_t tag, type;
    uint32_t count, value;
    Bytes blob;
    std::vector<Entry> child;
    Entry(uint16_t tag, uint16_t type, uint32_t count, uint32_t value = 0, Bytes blob = {},
          std::vector<Entry> child = {})
        : tag(tag), type(type), count(count), value(value), blob(std::move(blob)), child(std::move(child))
    {
    }
};
using Ifd = std::vector<Entry>;

struct Writer {
    bool be;
    Bytes out;
    void put(uint32_t v, int n, size_t at = SIZE_MAX)
    {
        for (int i = 0; i < n; ++i) {
            uint8_t byte = uint8_t(v >> 8 * (be ? n - 1 - i : i));
            at == SIZE_MAX ? out.push_back(byte) : void(out[at + size_t(i)] = byte);
        }
    }
    void ifd(const Ifd& d)
    {
        put(uint32_t(d.size()), 2);
        size_t fields = out.size() + 8;
        for (const Entry& e : d) {
            put(e.tag, 2);
            put(e.type, 2);
            put(e.count, 4);
            put(e.value, 4);
        }
        put(0, 4); // no next IFD
        for (size_t i = 0; i < d.size(); ++i) {
            if (d[i].blob.empty() && d[i].child.empty())
                continue;
            put(uint32_t(out.size()), 4, fields + 12 * i);
            out.insert(out.end(), d[i].blob.begin(), d[i].blob.end());
            if (!d[i].child.empty())
                ifd(d[i].child);
        }
    }
};

const Bytes narviSig = {'N', 'a', 'r', 'v', 'i', 0, 0, 0};

Entry shortE(uint16_t tag, uint16_t v) { return {tag, E::TYPE_SHORT, 1, uint32_t(v) << 16}; }
Entry textE(uint16_t tag, const std::string& s, uint16_t type = E::TYPE_ASCII)
{
    return {tag, type, uint32_t(s.size()), 0, Bytes(s.begin(), s.end())};
}
Entry words(uint16_t tag, uint16_t type, uint32_t count, std::initializer_list<uint32_t> vs)
{
    Writer w{true, {}};
    for (uint32_t v : vs)
        w.put(v, 4);
    return {tag, type, count, 0, w.out};
}

// A typical camera ORVEX IFD, inside the maker-note IFD.
const Ifd orvexIfd = {shortE(0x0001, 1),
                      shortE(0x0002, 7),
                      words(0x0003, E::TYPE_SRATIONAL, 2, {uint32_t(-15), 10, 30, 4}),
                      words(0x0004, E::TYPE_RATIONAL, 1, {2705, 10}),
                      shortE(0x0005, 3),
                      shortE(0x0007, 0),
                      shortE(0x0013, 1),
                      Entry{0x0204, E::TYPE_SHORT, 2, 960u << 16 | 480},
                      words(0x0206, E::TYPE_RATIONAL, 1, {3, 4}),
                      shortE(0x1014, 5)};
Ifd makerIfd(const Ifd& orvex)
{
    return {textE(0x0002, std::string("FW 1.20\0", 8)), textE(0x0005, "SERIAL00042", E::TYPE_UNDEFINED),
            shortE(0x1000, 0x1234), Entry{0x4001, 4, 1, 0, {}, orvex}};
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
    Ifd exif = {Entry{0x927C, E::TYPE_UNDEFINED, 1, 0, narviSig, makerIfd(orvexIfd)}};
    return tiffOf({textE(0x0110, std::string("NARVI ORVEX B1\0", 15)), textE(0x0131, std::string("1.50.1\0", 7)),
                   Entry{0x8769, 4, 1, 0, {}, exif}},
                  be);
}
// Bare maker note: signature, then the maker-note IFD.
Bytes bareMakerNote(const Ifd& orvex = orvexIfd)
{
    Writer w{true, narviSig};
    w.ifd(makerIfd(orvex));
    return w.out;
}

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

// The record's fields on one line, text fields with their zeros made visible.
std::string describe(const E::ORVEX& r)
{
    auto text = [](std::string s) {
        std::replace(s.begin(), s.end(), '\0', '~');
        return s;
    };
    char numbers[400];
    std::snprintf(numbers, sizeof numbers,
                  "proj=%u v2=%u zenith=%g,%g compass=%g heading=%g v5=%u adj=%d rs=%d stab=%d yaw=%d lock=%d has=%d "
                  "m1000=%u v203=%d img=%u,%u mov=%u,%u rate=%g",
                  r.projectionType, r.orvexValue2, r.zenith[0], r.zenith[1], r.compass, r.heading, r.orvexValue5,
                  r.sphereAdjZenith, r.adjRollingShutter, r.videoStabilization, r.yawEnabled, r.yawLockDir,
                  r.hasStabilization, r.makerValue1000, r.orvexValue203, r.stitchingFishImgCenter[0],
                  r.stitchingFishImgCenter[1], r.stitchingFishMovCenter[0], r.stitchingFishMovCenter[1],
                  r.stitchingSamplingRate);
    return text(r.model) + "|" + text(r.software) + "|" + text(r.makerText2) + "|" + text(r.makerText5) + "|" + numbers;
}

TEST(ExifParser, ReadsTheTiffChainAndTheBareMakerNote)
{
    // Signed zenith numerator, level camera (heading = compass), texts with
    // the zero in their count, absent tags at their cleared values.
    const std::string orvex = "|FW 1.20~|SERIAL00042|proj=1 v2=7 zenith=-1.5,7.5 compass=270.5 heading=270.5 v5=3 "
                              "adj=0 rs=1 stab=5 yaw=1 lock=1 has=1 m1000=4660 v203=-1 img=960,480 mov=0,0 rate=0.75";
    EXPECT_EQ(describe(readQMKN(tiffChain())), "NARVI ORVEX B1~|1.50.1~" + orvex);
    // The bare maker note needs no TIFF header; the TIFF walk refuses with
    // the parser's own message.
    Bytes b = bareMakerNote();
    EXPECT_EQ(describe(readQMKN(b)), "|" + orvex);
    E p;
    p.attachQMKN(b.data(), b.size());
    EXPECT_TRUE(p.makerNoteOnly);
    EXPECT_EQ(thrown([&] { p.seekToEXIF(); }), "Only NARVI Meta");

    // A little-endian block is walked, but its SHORT values are refused; the
    // fields read before stay in the record.
    b = tiffChain(false);
    p.attachQMKN(b.data(), b.size());
    EXPECT_NO_THROW(p.seekToORVEX());
    E::ORVEX r;
    EXPECT_EQ(thrown([&] { p.readOREVX(r); }), "bigEndian reqired.");
    EXPECT_EQ(describe(r).substr(0, 44), "NARVI ORVEX B1~|1.50.1~|FW 1.20~|SERIAL00042");
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
        {"IFD0 at offset 0 (a JPEG stream is looked for)", with({{7, 0}}), "SOI(0xFFD8) not found."},
        {"IFD0 past the end", with({{5, 0x10}}), "Invalid position"},
        {"IFD0 offset wrapping 32 bits", with({{4, 0xFF}, {5, 0xFF}, {6, 0xFF}}), "Invalid position"},
        {"text offset past the end",
         with({{modelValue, 0xFF}, {modelValue + 1, 0xFF}, {modelValue + 2, 0xFF}, {modelValue + 3, 0xF0}}),
         "Invalid position"},
        {"4096 entries", with({{8, 0x10}}), "Invalid position"},
        {"EXIF pointer at IFD0", redirected(good, {0x87, 0x69}), "MakerNote-IFD(0x927C) not found."},
        {"maker note at IFD0", redirected(good, {0x92, 0x7C}), "Not a NARVI image."},
        {"rational past the end", bareMakerNote(Ifd({Entry{0x0004, E::TYPE_RATIONAL, 1, 0xFFFFFFF8}})),
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
}

TEST(ExifParser, EntriesOfTheWrongShapeAreRefused)
{
    const std::string shapeText = "Invalid Type: ASCII[>4] or UNDEF[>4] required.";
    Entry wrongType = textE(0x0110, "ABCDEFGH");
    wrongType.type = E::TYPE_SHORT;
    EXPECT_EQ(qmknError(tiffOf(Ifd({Entry{0x0110, E::TYPE_ASCII, 4, 0x41424300}}))), shapeText); // inline text
    EXPECT_EQ(qmknError(tiffOf(Ifd({wrongType}))), shapeText);
    // With the text in place the walk goes on and misses the EXIF IFD.
    EXPECT_EQ(qmknError(tiffOf(Ifd({textE(0x0110, "ABCDEFGH")}))), "EXIF-IFD(0x8769) not found.");
    Writer w{true, narviSig};
    w.ifd(Ifd({shortE(0x1000, 1)}));
    EXPECT_EQ(qmknError(w.out), "ORVEX-IFD(0x4001) not found.");

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
        EXPECT_EQ(qmknError(bareMakerNote(Ifd({c.entry}))), c.message);

    // Zenith is only refused for "wrong type with count 2": other shapes are
    // read, and without a compass there is no heading.
    E::ORVEX r = readQMKN(bareMakerNote(Ifd({words(0x0003, E::TYPE_SHORT, 1, {uint32_t(-90), 2, 50, 1})})));
    EXPECT_NE(describe(r).find("zenith=-45,50 compass=nan heading=nan"), std::string::npos) << describe(r);
}

TEST(ExifParser, StabilizationCodesSplitIntoYawLockAndImage)
{
    const std::pair<uint16_t, const char*> cases[] = {
        {1, "stab=1 yaw=1 lock=0 has=1"}, {2, "stab=0 yaw=0 lock=0 has=0"},   {3, "stab=3 yaw=1 lock=1 has=1"},
        {8, "stab=8 yaw=0 lock=0 has=0"}, {10, "stab=0 yaw=0 lock=0 has=0"}, {12, "stab=12 yaw=1 lock=0 has=1"},
    };
    for (auto [stored, expected] : cases) {
        std::string d = describe(readQMKN(bareMakerNote(Ifd({shortE(0x1014, stored)}))));
        EXPECT_NE(d.find(expected), std::string::npos) << stored << ": " << d;
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

TEST(ExifParser, UpdatesTouchOnlyTheirValueFieldAndNeverLowerCorrections)
{
    for (Bytes b : {bareMakerNote(), tiffChain()}) {
        Bytes expected = b;
        size_t at = findBytes(b, {0x00, 0x01, 0x00, 0x03, 0x00, 0x00, 0x00, 0x01, 0x00, 0x01});
        ASSERT_NE(at, std::string::npos);
        expected[at + 9] = 2;
        EXPECT_TRUE(E::updateProjectionType(b.data(), b.size(), 2));
        EXPECT_EQ(b, expected);
    }

    Bytes b = bareMakerNote(); // sphereAdjZenith 0, adjRollingShutter 1
    int32_t zenith = 1, rs = 0, unknown = -1;
    EXPECT_TRUE(E::updateSphereAdjZenith(b.data(), b.size(), zenith));
    zenith = 0;
    EXPECT_TRUE(E::updateSphereAdjZenith(b.data(), b.size(), zenith));
    EXPECT_EQ(zenith, 1);
    EXPECT_TRUE(E::updateAdjRollingShutter(b.data(), b.size(), rs));
    EXPECT_EQ(rs, 1);
    EXPECT_NE(describe(readQMKN(b)).find("adj=1 rs=1"), std::string::npos);
    rs = 3;
    EXPECT_TRUE(E::updateAdjRollingShutter(b.data(), b.size(), rs));
    EXPECT_NE(describe(readQMKN(b)).find("adj=1 rs=3"), std::string::npos);
    // -1 leaves the maker note alone.
    Bytes before = b;
    EXPECT_FALSE(E::updateSphereAdjZenith(b.data(), b.size(), unknown));
    EXPECT_FALSE(E::updateAdjRollingShutter(b.data(), b.size(), unknown));
    EXPECT_EQ(b, before);
}

TEST(ExifParser, UpdateVideoStabilizationTakesOverEntry0109)
{
    Bytes b = tiffChain(), before = b;
    EXPECT_FALSE(E::updateVideoStabilization(b.data(), b.size(), 0));
    EXPECT_FALSE(E::updateVideoStabilization(b.data(), b.size(), -1));
    EXPECT_EQ(b, before);
    EXPECT_TRUE(E::updateVideoStabilization(b.data(), b.size(), 12));
    EXPECT_EQ(readQMKN(b).videoStabilization, 12);

    // Without a 0x1014 entry, the SRATIONAL[3] entry 0x0109 is turned into it;
    // one of another shape is refused, and with neither nothing changes.
    b = bareMakerNote(Ifd({shortE(0x0001, 1), words(0x0109, E::TYPE_SRATIONAL, 3, {1, 1, 2, 1, 3, 1})}));
    size_t at = findBytes(b, {0x01, 0x09, 0x00, 0x0A, 0x00, 0x00, 0x00, 0x03});
    ASSERT_NE(at, std::string::npos);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(E::updateVideoStabilization(b.data(), b.size(), 13));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Overwrite VideoStabilization(1014) into 0109.\n");
    EXPECT_EQ(Bytes(b.begin() + long(at), b.begin() + long(at) + 12),
              (Bytes{0x10, 0x14, 0x00, 0x03, 0x00, 0x00, 0x00, 0x01, 0x00, 0x0D, 0x00, 0x00}));
    b = bareMakerNote(Ifd({words(0x0109, E::TYPE_RATIONAL, 3, {1, 1, 2, 1, 3, 1})}));
    EXPECT_EQ(thrown([&] { E::updateVideoStabilization(b.data(), b.size(), 4); }),
              "VideoStabilization override failed.");
    b = bareMakerNote(Ifd({shortE(0x0001, 1)}));
    before = b;
    EXPECT_FALSE(E::updateVideoStabilization(b.data(), b.size(), 4));
    EXPECT_EQ(b, before);
}

TEST(ExifParser, UpdateFailuresCarryTheOperationsMessageAndLeaveTheBytes)
{
    Bytes b = bareMakerNote(Ifd({Entry{0x0001, E::TYPE_SHORT, 2, 0}, Entry{0x0007, 4, 1, 0},
                                   Entry{0x0013, E::TYPE_SHORT, 3, 0}, Entry{0x1014, E::TYPE_SHORT, 2, 0}}));
    Bytes before = b, junk = {'n', 'o', 't', ' ', 'e', 'x', 'i', 'f'};
    int32_t one = 1;
    EXPECT_EQ(thrown([&] { E::updateProjectionType(b.data(), b.size(), 1); }), "ProjectionType override failed.");
    EXPECT_EQ(thrown([&] { E::updateSphereAdjZenith(b.data(), b.size(), one); }), "SphereAdjZenith override failed.");
    EXPECT_EQ(thrown([&] { E::updateAdjRollingShutter(b.data(), b.size(), one); }),
              "AdjRollingShutter override failed.");
    EXPECT_EQ(thrown([&] { E::updateVideoStabilization(b.data(), b.size(), 4); }),
              "VideoStabilization override failed.");
    EXPECT_EQ(b, before);
    EXPECT_EQ(thrown([&] { E::updateProjectionType(junk.data(), junk.size(), 1); }), "ProjectionType override failed.");
    EXPECT_EQ(thrown([&] { E::updateProjectionType(nullptr, 0, 1); }), "ProjectionType override failed.");
}

} // namespace
