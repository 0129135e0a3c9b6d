#include "camera/ExifParser.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

std::string thrown(const std::function<void()>& f)
{
    try {
        f();
    } catch (const char* s) {
        return s;
    }
    return "";
}

// ---------------------------------------------------------------------------
// A small TIFF writer: IFDs whose entries hold an inline value, out-of-line
// bytes, or a pointer to a child IFD (optionally preceded by a signature, as
// the maker note is). Offsets are patched relative to the TIFF base.

struct Ifd;

struct Entry {
    uint16_t tag;
    uint16_t type;
    uint32_t count;
    uint32_t value;             // inline value field as a number
    Bytes blob;                 // out-of-line data, already in block order
    std::shared_ptr<Ifd> child; // pointer entry
    Bytes childPrefix;          // bytes before the child IFD

    Entry(uint16_t tag, uint16_t type, uint32_t count, uint32_t value = 0)
        : tag(tag), type(type), count(count), value(value)
    {
    }
};

struct Ifd {
    std::vector<Entry> entries;
    Ifd& add(Entry e)
    {
        entries.push_back(std::move(e));
        return *this;
    }
};

class Writer {
public:
    Writer(bool bigEndian, size_t base) : be(bigEndian), base(base) {}

    Bytes out;
    bool be;
    size_t base;

    void u16(uint16_t v)
    {
        if (be) {
            out.push_back(uint8_t(v >> 8));
            out.push_back(uint8_t(v));
        } else {
            out.push_back(uint8_t(v));
            out.push_back(uint8_t(v >> 8));
        }
    }
    void u32(uint32_t v)
    {
        if (be) {
            u16(uint16_t(v >> 16));
            u16(uint16_t(v));
        } else {
            u16(uint16_t(v));
            u16(uint16_t(v >> 16));
        }
    }
    void patch32(size_t at, uint32_t v)
    {
        for (int i = 0; i < 4; ++i)
            out[at + size_t(i)] = uint8_t(be ? v >> (24 - 8 * i) : v >> (8 * i));
    }
    void raw(const Bytes& b) { out.insert(out.end(), b.begin(), b.end()); }

    // Writes the IFD at the end of the block, then its data and children.
    void ifd(const Ifd& d)
    {
        u16(uint16_t(d.entries.size()));
        std::vector<size_t> fields;
        for (const Entry& e : d.entries) {
            u16(e.tag);
            u16(e.type);
            u32(e.count);
            fields.push_back(out.size());
            u32(e.value);
        }
        u32(0); // no next IFD
        for (size_t i = 0; i < d.entries.size(); ++i) {
            const Entry& e = d.entries[i];
            if (!e.blob.empty()) {
                patch32(fields[i], uint32_t(out.size() - base));
                raw(e.blob);
            } else if (e.child) {
                patch32(fields[i], uint32_t(out.size() - base));
                raw(e.childPrefix);
                ifd(*e.child);
            }
        }
    }
};

const Bytes narviSig = {'N', 'a', 'r', 'v', 'i', 0, 0, 0};

// Value fields and out-of-line data of the block's byte order.
struct Enc {
    bool be;
    uint32_t shortField(uint16_t v) const { return be ? uint32_t(v) << 16 : v; }
    uint32_t short2Field(uint16_t a, uint16_t b) const { return be ? uint32_t(a) << 16 | b : uint32_t(b) << 16 | a; }
    Bytes words(std::initializer_list<uint32_t> vs) const
    {
        Writer w(be, 0);
        for (uint32_t v : vs)
            w.u32(v);
        return w.out;
    }
    Entry text(uint16_t tag, const std::string& s, uint16_t type = ExifParser::TYPE_ASCII) const
    {
        Entry e{tag, type, uint32_t(s.size())};
        e.blob.assign(s.begin(), s.end());
        return e;
    }
    Entry shortEntry(uint16_t tag, uint16_t v) const { return Entry{tag, ExifParser::TYPE_SHORT, 1, shortField(v)}; }
    Entry rational(uint16_t tag, uint16_t type, uint32_t count, std::initializer_list<uint32_t> vs) const
    {
        Entry e{tag, type, count};
        e.blob = words(vs);
        return e;
    }
    Entry pointer(uint16_t tag, std::shared_ptr<Ifd> child, uint16_t type = 4, Bytes prefix = {}) const
    {
        Entry e{tag, type, 1};
        e.child = std::move(child);
        e.childPrefix = std::move(prefix);
        return e;
    }
};

// A typical camera ORVEX IFD.
std::shared_ptr<Ifd> orvexIfd(const Enc& enc)
{
    auto d = std::make_shared<Ifd>();
    d->add(enc.shortEntry(0x0001, 1))
        .add(enc.shortEntry(0x0002, 7))
        .add(enc.rational(0x0003, ExifParser::TYPE_SRATIONAL, 2, {uint32_t(-15), 10, 30, 4}))
        .add(enc.rational(0x0004, ExifParser::TYPE_RATIONAL, 1, {2705, 10}))
        .add(enc.shortEntry(0x0005, 3))
        .add(enc.shortEntry(0x0007, 0))
        .add(enc.shortEntry(0x0013, 1))
        .add(Entry{0x0204, ExifParser::TYPE_SHORT, 2, enc.short2Field(960, 480)})
        .add(enc.rational(0x0206, ExifParser::TYPE_RATIONAL, 1, {3, 4}))
        .add(enc.shortEntry(0x1014, 5));
    return d;
}

std::shared_ptr<Ifd> makerIfd(const Enc& enc, std::shared_ptr<Ifd> orvex)
{
    auto d = std::make_shared<Ifd>();
    d->add(enc.text(0x0002, std::string("FW 1.20\0", 8)))
        .add(enc.text(0x0005, "SERIAL00042", ExifParser::TYPE_UNDEFINED))
        .add(enc.shortEntry(0x1000, 0x1234))
        .add(enc.pointer(0x4001, std::move(orvex)));
    return d;
}

// TIFF header, IFD0 -> EXIF -> maker note -> ORVEX, based at byte 0.
Bytes tiffChain(bool be, std::shared_ptr<Ifd> orvex = nullptr)
{
    Enc enc{be};
    if (!orvex)
        orvex = orvexIfd(enc);
    auto exif = std::make_shared<Ifd>();
    exif->add(enc.pointer(0x927C, makerIfd(enc, orvex), ExifParser::TYPE_UNDEFINED, narviSig));
    Ifd ifd0;
    ifd0.add(enc.text(0x0110, std::string("NARVI ORVEX S\0", 14)))
        .add(enc.text(0x0131, std::string("1.50.1\0", 7)))
        .add(enc.pointer(0x8769, exif));
    Writer w(be, 0);
    w.out = be ? Bytes{'M', 'M'} : Bytes{'I', 'I'};
    w.u16(42);
    w.u32(8);
    w.ifd(ifd0);
    return w.out;
}

// Bare maker note: signature, then the maker-note IFD; offsets from byte 0.
Bytes bareMakerNote(std::shared_ptr<Ifd> orvex = nullptr)
{
    Enc enc{true};
    if (!orvex)
        orvex = orvexIfd(enc);
    Writer w(true, 0);
    w.raw(narviSig);
    w.ifd(*makerIfd(enc, orvex));
    return w.out;
}

Bytes segment(uint16_t marker, const Bytes& payload)
{
    Bytes s(4 + payload.size());
    s[0] = uint8_t(marker >> 8);
    s[1] = uint8_t(marker);
    s[2] = uint8_t((payload.size() + 2) >> 8);
    s[3] = uint8_t(payload.size() + 2);
    std::copy(payload.begin(), payload.end(), s.begin() + 4);
    return s;
}

Bytes exifApp1(const Bytes& tiff)
{
    Bytes payload = {'E', 'x', 'i', 'f', 0, 0};
    payload.insert(payload.end(), tiff.begin(), tiff.end());
    return segment(0xFFE1, payload);
}

Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& p : parts)
        all.insert(all.end(), p.begin(), p.end());
    return all;
}

const Bytes SOI = {0xFF, 0xD8};
const Bytes EOI = {0xFF, 0xD9};

ExifParser::ORVEX readQMKN(const Bytes& b)
{
    ExifParser p;
    p.attachQMKN(b.data(), b.size());
    ExifParser::ORVEX r;
    p.readOREVX(r);
    return r;
}

// Position of the first occurrence of a byte pattern.
size_t findBytes(const Bytes& hay, const Bytes& needle)
{
    auto it = std::search(hay.begin(), hay.end(), needle.begin(), needle.end());
    return it == hay.end() ? std::string::npos : size_t(it - hay.begin());
}

// ---------------------------------------------------------------------------

TEST(ExifParser, BareMakerNoteNeedsNoTiffHeader)
{
    Bytes b = bareMakerNote();
    ExifParser p;
    p.attachQMKN(b.data(), b.size());
    EXPECT_TRUE(p.makerNoteOnly);
    EXPECT_EQ(p.narviMakerNote, 8u);
    EXPECT_EQ(thrown([&] { p.seekToIFD0(); }), "Only NARVI Meta");
    EXPECT_EQ(thrown([&] { p.seekToEXIF(); }), "Only NARVI Meta");
    EXPECT_EQ(thrown([&] { p.seekToMakerNote(); }), "Only NARVI Meta");

    ExifParser::ORVEX r;
    p.readOREVX(r);
    EXPECT_EQ(r.model, "");
    EXPECT_EQ(r.software, "");
    EXPECT_EQ(r.makerText2, std::string("FW 1.20\0", 8)); // the zero in the count stays
    EXPECT_EQ(r.makerText5, "SERIAL00042");
    EXPECT_EQ(r.makerValue1000, 0x1234u);
    EXPECT_EQ(r.projectionType, 1u);
    EXPECT_EQ(r.videoStabilization, 5);
    EXPECT_TRUE(r.yawLockDir);
}

TEST(ExifParser, BigEndianChainFillsEveryField)
{
    ExifParser::ORVEX r = readQMKN(tiffChain(true));
    EXPECT_EQ(r.model, std::string("NARVI ORVEX S\0", 14));
    EXPECT_EQ(r.software, std::string("1.50.1\0", 7));
    EXPECT_EQ(r.makerText5, "SERIAL00042");
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
    EXPECT_TRUE(r.yawEnabled);
    EXPECT_TRUE(r.yawLockDir);
    EXPECT_TRUE(r.hasStabilization);
    EXPECT_EQ(r.stitchingFishImgCenter[0], 960u);
    EXPECT_EQ(r.stitchingFishImgCenter[1], 480u);
    EXPECT_FLOAT_EQ(r.stitchingSamplingRate, 0.75f);
    // Absent tags keep their cleared values.
    EXPECT_EQ(r.orvexValue203, -1);
    EXPECT_EQ(r.stitchingFishMovCenter[0], 0u);
}

TEST(ExifParser, LittleEndianWalksButRefusesShortValues)
{
    Bytes b = tiffChain(false);
    ExifParser p;
    p.attachQMKN(b.data(), b.size());
    EXPECT_FALSE(p.bigEndian);
    EXPECT_NO_THROW(p.seekToORVEX());
    ExifParser::ORVEX r;
    EXPECT_EQ(thrown([&] { p.readOREVX(r); }), "bigEndian reqired.");
    // Fields read before the failure stay in the record.
    EXPECT_EQ(r.model, std::string("NARVI ORVEX S\0", 14));
    EXPECT_EQ(r.makerText5, "SERIAL00042");
    EXPECT_EQ(r.makerValue1000, 0u);
}

TEST(ExifParser, WrongTiffIdDropsTheData)
{
    Bytes b = tiffChain(true);
    b[3] = 43;
    ExifParser p;
    EXPECT_EQ(thrown([&] { p.attachQMKN(b.data(), b.size()); }), "Invalid TIFF-ID(0x002A).");
    EXPECT_EQ(p.size, 0u);
    EXPECT_EQ(p.data, nullptr);

    // A JPEG's Exif header is checked the same way.
    Bytes t = tiffChain(true);
    t[3] = 0;
    Bytes jpeg = concat({SOI, exifApp1(t), EOI});
    p.attachBytes(jpeg.data(), jpeg.size());
    EXPECT_EQ(thrown([&] { p.seekToIFD0(); }), "Invalid TIFF-ID(0x002A).");
}

TEST(ExifParser, OffsetsPastTheEndAreRejected)
{
    const Bytes good = tiffChain(true);
    auto attempt = [](Bytes b) {
        return thrown([&] { readQMKN(b); });
    };

    Bytes b = good;
    b[5] = 0x10; // IFD0 offset beyond the block
    EXPECT_EQ(attempt(b), "Invalid position");

    b = good;
    b[4] = b[5] = b[6] = 0xFF; // offset that would wrap a 32-bit sum
    EXPECT_EQ(attempt(b), "Invalid position");

    b = good;
    // IFD0's model entry: 2 (count) bytes after the header, value field at +8.
    size_t modelValue = 8 + 2 + 8;
    b[modelValue] = 0xFF;
    b[modelValue + 1] = 0xFF;
    b[modelValue + 2] = 0xFF;
    b[modelValue + 3] = 0xF0;
    EXPECT_EQ(attempt(b), "Invalid position");

    b = good;
    b[8] = 0x10; // IFD0 claims 4096+ entries
    EXPECT_EQ(attempt(b), "Invalid position");

    // Every truncation either reads or fails with a message; none crashes.
    for (size_t n = 0; n < good.size(); ++n) {
        Bytes cut(good.begin(), good.begin() + long(n));
        try {
            readQMKN(cut);
        } catch (const char*) {
        }
    }
}

TEST(ExifParser, CorruptBytesNeverCrashOrHang)
{
    const Bytes good = concat({SOI, exifApp1(tiffChain(true)), EOI});
    const Bytes bare = bareMakerNote();
    for (const Bytes* base : {&good, &bare}) {
        for (size_t i = 0; i < base->size(); ++i) {
            for (uint8_t v : {uint8_t(0x00), uint8_t(0xFF), uint8_t(0x80), uint8_t(base->at(i) ^ 0x01)}) {
                Bytes b = *base;
                b[i] = v;
                ExifParser p;
                ExifParser::ORVEX r;
                try {
                    if (base == &bare)
                        p.attachQMKN(b.data(), b.size());
                    else
                        p.attachBytes(b.data(), b.size());
                    p.readOREVX(r);
                } catch (const char*) {
                }
                EXPECT_LE(p.cursor, p.size);
            }
        }
    }
}

TEST(ExifParser, IfdOffsetLoopsEnd)
{
    // ORVEX pointer aimed back at the maker-note IFD itself: the walk reads
    // the maker-note entries as ORVEX ones and ends.
    {
        Bytes b = bareMakerNote();
        size_t at = findBytes(b, {0x40, 0x01, 0x00, 0x04});
        ASSERT_NE(at, std::string::npos);
        b[at + 8] = 0;
        b[at + 9] = 0;
        b[at + 10] = 0;
        b[at + 11] = 8;
        ExifParser::ORVEX r;
        std::string e = thrown([&] { r = readQMKN(b); });
        EXPECT_EQ(e, "");
        EXPECT_EQ(r.orvexValue2, 0u);
    }
    // EXIF pointer aimed at IFD0: the maker-note pointer is then missing.
    {
        Bytes b = tiffChain(true);
        size_t at = findBytes(b, {0x87, 0x69});
        ASSERT_NE(at, std::string::npos);
        b[at + 8] = 0;
        b[at + 9] = 0;
        b[at + 10] = 0;
        b[at + 11] = 8;
        EXPECT_EQ(thrown([&] { readQMKN(b); }), "MakerNote-IFD(0x927C) not found.");
    }
    // Maker-note pointer aimed at IFD0: no signature there.
    {
        Bytes b = tiffChain(true);
        size_t at = findBytes(b, {0x92, 0x7C});
        ASSERT_NE(at, std::string::npos);
        b[at + 8] = 0;
        b[at + 9] = 0;
        b[at + 10] = 0;
        b[at + 11] = 8;
        EXPECT_EQ(thrown([&] { readQMKN(b); }), "Not a NARVI image.");
    }
    // A JPEG segment of length 0 points back at itself.
    {
        Bytes jpeg = concat({SOI, {0xFF, 0xE0, 0x00, 0x00}, EOI});
        ExifParser p;
        p.attachBytes(jpeg.data(), jpeg.size());
        EXPECT_EQ(thrown([&] { p.seekToIFD0(); }), "Unknown marker.");
    }
}

TEST(ExifParser, JpegScanFindsExifBehindOtherSegments)
{
    Bytes tiff = tiffChain(true);
    Bytes xmpApp1 = segment(0xFFE1, {'h', 't', 't', 'p', ':', '/', '/', 'n', 's'});
    Bytes jfif = segment(0xFFE0, {'J', 'F', 'I', 'F', 0, 1, 1, 0, 0, 1, 0, 1, 0, 0});
    Bytes fill = {0xFF, 0xFF};
    Bytes jpeg = concat({SOI, jfif, fill, xmpApp1, exifApp1(tiff), segment(0xFFDB, Bytes(65, 0)), EOI});

    ExifParser p;
    p.attachBytes(jpeg.data(), jpeg.size());
    ExifParser::ORVEX r;
    p.readOREVX(r);
    EXPECT_EQ(p.tiffBase, 2 + jfif.size() + 2 + xmpApp1.size() + 4 + 6);
    EXPECT_EQ(p.ifd0, p.tiffBase + 8);
    EXPECT_EQ(r.model, std::string("NARVI ORVEX S\0", 14));
    EXPECT_EQ(r.videoStabilization, 5);
    EXPECT_FLOAT_EQ(r.compass, 270.5f);
}

TEST(ExifParser, JpegScanRejectsMisplacedMarkers)
{
    auto scan = [](const Bytes& jpeg) {
        return thrown([&] {
            ExifParser p;
            p.attachBytes(jpeg.data(), jpeg.size());
            p.seekToIFD0();
        });
    };
    Bytes app0 = segment(0xFFE0, {1, 2, 3});
    EXPECT_EQ(scan({0x89, 'P', 'N', 'G'}), "SOI(0xFFD8) not found.");
    EXPECT_EQ(scan(concat({SOI, app0, SOI})), "Invalid SOI(0xFFD8) found.");
    EXPECT_EQ(scan(concat({SOI, app0, EOI})), "Invalid EOI(0xFFD9) found.");
    EXPECT_EQ(scan(concat({SOI, segment(0xFFDA, {0})})), "Invalid SOS(0xFFDA) found.");
    EXPECT_EQ(scan(concat({SOI, {0x12, 0x34}})), "Unknown marker.");
    EXPECT_EQ(scan(concat({SOI, {0xFF, 0xE0, 0x40, 0x00}})), "Invalid position"); // segment past the end
    EXPECT_EQ(scan(SOI), "Invalid position");
}

TEST(ExifParser, JpegScanGivesUpSilentlyAfter32Markers)
{
    Bytes jpeg = SOI;
    for (int i = 0; i < 32; ++i) {
        Bytes s = segment(0xFFE2, {uint8_t(i)});
        jpeg.insert(jpeg.end(), s.begin(), s.end());
    }
    size_t after32 = jpeg.size();
    Bytes rest = concat({exifApp1(tiffChain(true)), EOI});
    jpeg.insert(jpeg.end(), rest.begin(), rest.end());

    ExifParser p;
    p.attachBytes(jpeg.data(), jpeg.size());
    EXPECT_NO_THROW(p.seekToIFD0());
    EXPECT_EQ(p.ifd0, 0u);
    EXPECT_EQ(p.cursor, after32);
}

TEST(ExifParser, TextEntriesMustBeOutOfLine)
{
    Enc enc{true};
    auto withModel = [&](Entry model) {
        Ifd ifd0;
        ifd0.add(model);
        Writer w(true, 0);
        w.out = {'M', 'M'};
        w.u16(42);
        w.u32(8);
        w.ifd(ifd0);
        return w.out;
    };
    Entry inlineText{0x0110, ExifParser::TYPE_ASCII, 4, 0x41424300};
    Bytes b = withModel(inlineText);
    EXPECT_EQ(thrown([&] { readQMKN(b); }), "Invalid Type: ASCII[>4] or UNDEF[>4] required.");

    Entry wrongType = enc.text(0x0110, "ABCDEFGH");
    wrongType.type = ExifParser::TYPE_SHORT;
    b = withModel(wrongType);
    EXPECT_EQ(thrown([&] { readQMKN(b); }), "Invalid Type: ASCII[>4] or UNDEF[>4] required.");

    // With the text in place, the walk goes on and misses the EXIF IFD.
    b = withModel(enc.text(0x0110, "ABCDEFGH"));
    EXPECT_EQ(thrown([&] { readQMKN(b); }), "EXIF-IFD(0x8769) not found.");
}

TEST(ExifParser, EntryShapeChecks)
{
    Enc enc{true};
    auto orvexWith = [&](Entry e) {
        auto d = std::make_shared<Ifd>();
        d->add(e);
        return bareMakerNote(d);
    };
    // Zenith: only "wrong type with count 2" is refused.
    EXPECT_EQ(thrown([&] { readQMKN(orvexWith(enc.rational(0x0003, ExifParser::TYPE_RATIONAL, 2, {1, 1, 2, 1}))); }),
              "Invalid entry for Zenith(0x0003): SRATIONAL[2] required.");
    ExifParser::ORVEX r = readQMKN(orvexWith(enc.rational(0x0003, ExifParser::TYPE_SHORT, 1, {uint32_t(-90), 2, 50, 1})));
    EXPECT_FLOAT_EQ(r.zenith[0], -45.0f);
    EXPECT_FLOAT_EQ(r.zenith[1], 50.0f);
    EXPECT_TRUE(std::isnan(r.heading)); // no compass entry

    EXPECT_EQ(thrown([&] { readQMKN(orvexWith(enc.rational(0x0004, ExifParser::TYPE_SRATIONAL, 1, {1, 1}))); }),
              "Invalid entry for Compass(0x0004): RATIONAL[1] required.");
    EXPECT_EQ(thrown([&] { readQMKN(orvexWith(enc.rational(0x0004, ExifParser::TYPE_RATIONAL, 2, {1, 1, 1, 1}))); }),
              "Invalid entry for Compass(0x0004): RATIONAL[1] required.");
    EXPECT_EQ(thrown([&] { readQMKN(orvexWith(Entry{0x0204, ExifParser::TYPE_SHORT, 1, 0})); }),
              "Invalid entry for StitchingFishImgCenter(0x0204): SHORT[2] required.");
    EXPECT_EQ(thrown([&] { readQMKN(orvexWith(Entry{0x0205, 4, 2, 0})); }),
              "Invalid entry for StitchingFishMovCenter(0x0205): SHORT[2] required.");
    EXPECT_EQ(thrown([&] { readQMKN(orvexWith(enc.rational(0x0206, ExifParser::TYPE_RATIONAL, 2, {1, 1, 1, 1}))); }),
              "Invalid entry for StitchingSamplingRate(0x0206): RATIONAL[1] required.");

    // Rationals whose offset lies past the end.
    Entry far{0x0004, ExifParser::TYPE_RATIONAL, 1, 0xFFFFFFF8};
    EXPECT_EQ(thrown([&] { readQMKN(orvexWith(far)); }), "Invalid position");

    // No ORVEX pointer at all.
    Writer w(true, 0);
    w.raw(narviSig);
    Ifd maker;
    maker.add(enc.shortEntry(0x1000, 1));
    w.ifd(maker);
    EXPECT_EQ(thrown([&] { readQMKN(w.out); }), "ORVEX-IFD(0x4001) not found.");
}

TEST(ExifParser, StabilizationCodes)
{
    Enc enc{true};
    struct Case {
        uint16_t stored;
        int32_t value;
        bool yaw, lock, has;
    } cases[] = {
        {1, 1, true, false, true},   {2, 0, false, false, false}, {3, 3, true, true, true},
        {8, 8, false, false, false}, {10, 0, false, false, false}, {12, 12, true, false, true},
    };
    for (const Case& c : cases) {
        auto d = std::make_shared<Ifd>();
        d->add(enc.shortEntry(0x1014, c.stored));
        ExifParser::ORVEX r = readQMKN(bareMakerNote(d));
        EXPECT_EQ(r.videoStabilization, c.value) << c.stored;
        EXPECT_EQ(r.yawEnabled, c.yaw) << c.stored;
        EXPECT_EQ(r.yawLockDir, c.lock) << c.stored;
        EXPECT_EQ(r.hasStabilization, c.has) << c.stored;
    }
}

TEST(ExifParser, CompassCorrectedForSteepTilt)
{
    auto headingFor = [](float roll, float pitch, float compass) {
        ExifParser::ORVEX r;
        r.zenith[0] = roll;
        r.zenith[1] = pitch;
        r.compass = compass;
        r.attachCompass();
        return r.heading;
    };
    // Within +-45 degrees and for an unknown pitch the compass stands.
    EXPECT_FLOAT_EQ(headingFor(80, 45, 123), 123);
    EXPECT_FLOAT_EQ(headingFor(80, -45, 123), 123);
    EXPECT_FLOAT_EQ(headingFor(0, NAN, 123), 123);
    // Straight up or down without roll: the compass again.
    EXPECT_NEAR(headingFor(0, 90, 30), 30, 1e-3);
    EXPECT_NEAR(headingFor(0, -90, 30), 30, 1e-3);
    // Up with a quarter roll turns the heading by 90 degrees.
    EXPECT_NEAR(headingFor(90, 90, 30), 120, 1e-3);
    // A general down-tilted case against a double-precision reference.
    const double pi = 3.14159265358979;
    double a = 30 * pi / 180, b = -60 * pi / 180;
    double theta = std::atan2(-std::sin(a), std::cos(a) * std::sin(b));
    double expected = std::fmod(theta * 180 / -pi + 10 + 180, 360);
    EXPECT_NEAR(headingFor(30, -60, 10), expected, 1e-3);
    EXPECT_NEAR(expected, 336.31, 0.01);
}

// --- In-place updates -------------------------------------------------------


TEST(ExifParser, UpdateProjectionTypeTouchesOnlyItsValueField)
{
    for (bool bare : {true, false}) {
        Bytes b = bare ? bareMakerNote() : tiffChain(true);
        Bytes before = b;
        EXPECT_TRUE(ExifParser::updateProjectionType(b.data(), b.size(), 2));
        size_t at = findBytes(before, {0x00, 0x01, 0x00, 0x03, 0x00, 0x00, 0x00, 0x01, 0x00, 0x01});
        ASSERT_NE(at, std::string::npos);
        for (size_t i = 0; i < b.size(); ++i) {
            if (i == at + 9)
                EXPECT_EQ(b[i], 2u);
            else
                EXPECT_EQ(b[i], before[i]) << i;
        }
        EXPECT_EQ(readQMKN(b).projectionType, 2u);
    }
}

TEST(ExifParser, CorrectionModesAreNeverLoweredFromOne)
{
    Bytes b = bareMakerNote(); // sphereAdjZenith 0, adjRollingShutter 1

    int32_t zenith = 1;
    EXPECT_TRUE(ExifParser::updateSphereAdjZenith(b.data(), b.size(), zenith));
    EXPECT_EQ(readQMKN(b).sphereAdjZenith, 1);
    zenith = 0;
    EXPECT_TRUE(ExifParser::updateSphereAdjZenith(b.data(), b.size(), zenith));
    EXPECT_EQ(zenith, 1);
    EXPECT_EQ(readQMKN(b).sphereAdjZenith, 1);

    int32_t rs = 0;
    EXPECT_TRUE(ExifParser::updateAdjRollingShutter(b.data(), b.size(), rs));
    EXPECT_EQ(rs, 1);
    EXPECT_EQ(readQMKN(b).adjRollingShutter, 1);
    rs = 3;
    EXPECT_TRUE(ExifParser::updateAdjRollingShutter(b.data(), b.size(), rs));
    EXPECT_EQ(readQMKN(b).adjRollingShutter, 3);

    // -1 leaves the maker note alone.
    Bytes before = b;
    int32_t unknown = -1;
    EXPECT_FALSE(ExifParser::updateSphereAdjZenith(b.data(), b.size(), unknown));
    EXPECT_FALSE(ExifParser::updateAdjRollingShutter(b.data(), b.size(), unknown));
    EXPECT_EQ(b, before);
}

TEST(ExifParser, UpdateVideoStabilization)
{
    Enc enc{true};
    Bytes b = tiffChain(true);
    Bytes before = b;
    EXPECT_FALSE(ExifParser::updateVideoStabilization(b.data(), b.size(), 0));
    EXPECT_FALSE(ExifParser::updateVideoStabilization(b.data(), b.size(), -1));
    EXPECT_EQ(b, before);
    EXPECT_TRUE(ExifParser::updateVideoStabilization(b.data(), b.size(), 12));
    EXPECT_EQ(readQMKN(b).videoStabilization, 12);

    // Without a 0x1014 entry, the SRATIONAL[3] entry 0x0109 is turned into it.
    auto d = std::make_shared<Ifd>();
    d->add(enc.shortEntry(0x0001, 1)).add(enc.rational(0x0109, ExifParser::TYPE_SRATIONAL, 3, {1, 1, 2, 1, 3, 1}));
    b = bareMakerNote(d);
    before = b;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(ExifParser::updateVideoStabilization(b.data(), b.size(), 13));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Overwrite VideoStabilization(1014) into 0109.\n");
    size_t at = findBytes(before, {0x01, 0x09, 0x00, 0x0A, 0x00, 0x00, 0x00, 0x03});
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(Bytes(b.begin() + long(at), b.begin() + long(at) + 12),
              (Bytes{0x10, 0x14, 0x00, 0x03, 0x00, 0x00, 0x00, 0x01, 0x00, 0x0D, 0x00, 0x00}));
    ExifParser::ORVEX r = readQMKN(b);
    EXPECT_EQ(r.videoStabilization, 13);
    EXPECT_TRUE(r.yawLockDir);

    // Neither entry: nothing changes.
    d = std::make_shared<Ifd>();
    d->add(enc.shortEntry(0x0001, 1));
    b = bareMakerNote(d);
    before = b;
    EXPECT_FALSE(ExifParser::updateVideoStabilization(b.data(), b.size(), 4));
    EXPECT_EQ(b, before);

    // A 0x0109 of another shape is refused.
    d = std::make_shared<Ifd>();
    d->add(enc.rational(0x0109, ExifParser::TYPE_RATIONAL, 3, {1, 1, 2, 1, 3, 1}));
    b = bareMakerNote(d);
    EXPECT_EQ(thrown([&] { ExifParser::updateVideoStabilization(b.data(), b.size(), 4); }),
              "VideoStabilization override failed.");
}

TEST(ExifParser, UpdateFailuresCarryTheOperationsMessage)
{
    auto d = std::make_shared<Ifd>();
    d->add(Entry{0x0001, ExifParser::TYPE_SHORT, 2, 0})
        .add(Entry{0x0007, 4, 1, 0})
        .add(Entry{0x0013, ExifParser::TYPE_SHORT, 3, 0})
        .add(Entry{0x1014, ExifParser::TYPE_SHORT, 2, 0});
    Bytes b = bareMakerNote(d);
    Bytes before = b;
    int32_t one = 1;
    EXPECT_EQ(thrown([&] { ExifParser::updateProjectionType(b.data(), b.size(), 1); }),
              "ProjectionType override failed.");
    EXPECT_EQ(thrown([&] { ExifParser::updateSphereAdjZenith(b.data(), b.size(), one); }),
              "SphereAdjZenith override failed.");
    EXPECT_EQ(thrown([&] { ExifParser::updateAdjRollingShutter(b.data(), b.size(), one); }),
              "AdjRollingShutter override failed.");
    EXPECT_EQ(thrown([&] { ExifParser::updateVideoStabilization(b.data(), b.size(), 4); }),
              "VideoStabilization override failed.");
    EXPECT_EQ(b, before);

    Bytes junk = {'n', 'o', 't', ' ', 'e', 'x', 'i', 'f'};
    EXPECT_EQ(thrown([&] { ExifParser::updateProjectionType(junk.data(), junk.size(), 1); }),
              "ProjectionType override failed.");
    EXPECT_EQ(thrown([&] { ExifParser::updateProjectionType(nullptr, 0, 1); }), "ProjectionType override failed.");
}

} // namespace
