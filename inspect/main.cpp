// Inspect: shows what a camera movie holds, without changing it. The box
// tree, the source probe's findings, the maker-note record, the GPS
// position, the Spherical Video view, the sensor streams and the orientation
// decisions made from them.
//
// Exit status 0 when the file is an MP4 that could be read, 1 otherwise.
#include "AccelSensorStreamEmbed.h"
#include "ByteArray.h"
#include "ExifParser.h"
#include "GLTKConsole.h"
#include "GLTKFileIO.h"
#include "GLTKwchar.h"
#include "GPSInfo.h"
#include "MP4Container.h"
#include "MetaProbe.h"
#include "SourceMetadata.h"
#include "SensorStreamBoxes.h"
#include "Utility.h"
#include "ViewHeading.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace {

using GLTK::Console;
using Embed = AccelSensorStreamEmbed;

void section(const wchar_t* title) { Console::out(L"\n== %ls ==\n", title); }

std::wstring wide(const std::string& s) { return GLTK::wchar::mbs2wcs(s); }

// The payload of a box, at most `limit` bytes of it, and never more than the
// file and the box's parents really hold. False when it cannot be read.
bool readPayload(const MP4::Container& c, const MP4::BOX& box, uint64_t limit, ByteArray& out)
{
    out.clear();
    bool ok = false;
    c.open([&](GLTK::FileIO& f) {
        const uint64_t available = box.reach - box.start;
        if (available < box.headerSize())
            return;
        const uint64_t n = std::min(available - box.headerSize(), limit);
        out.resize(n);
        ok = f.seek_set(static_cast<int64_t>(box.payloadStart())) && (n == 0 || f.read(out.data, n) == n);
    });
    if (!ok)
        out.clear();
    return ok;
}

// A readable MP4: a moov, or a first top-level box with a printable code
// and a size that fits the file. Anything else (text, an image, an empty
// file) is refused.
bool isMP4(const MP4::Container& c, uint64_t fileLength)
{
    if (c.moov != nullptr)
        return true;
    if (!c.root || c.root->children.empty())
        return false;
    const MP4::BOX& b = *c.root->children.front();
    if (b.size < b.headerSize() || b.end() < b.start || b.end() > fileLength)
        return false;
    for (int i = 0; i < 4; ++i) {
        const unsigned ch = (b.type >> (8 * i)) & 0xFF;
        if ((ch < 0x20 || ch > 0x7E) && ch != 0xA9)
            return false;
    }
    return true;
}

// ---------------------------------------------------------------- maker note

void showMakerNote(const SourceMetadata& found)
{
    section(L"maker note (moov.udta.QMKN)");
    switch (found.makerNote) {
    case SourceMetadata::MakerNote::Missing:
        Console::out(L"QMKN not found.\n");
        return;
    case SourceMetadata::MakerNote::Empty:
        Console::out(L"Invalid QMKN.\n");
        return;
    case SourceMetadata::MakerNote::Unreadable:
        Console::out(L"MP4: QMKN parse failed: %ls\n", wide(found.makerNoteError).c_str());
        return;
    case SourceMetadata::MakerNote::Read:
        break;
    }
    const ExifParser::ORVEX& o = found.orvex;
    Console::LocaleC locale;
    Console::out(L"model: %ls\n", wide(o.model).c_str());
    Console::out(L"software: %ls\n", wide(o.software).c_str());
    Console::out(L"maker texts: [%ls] [%ls]\n", wide(o.makerText2).c_str(), wide(o.makerText5).c_str());
    Console::out(L"projectionType: %u\n", o.projectionType);
    Console::out(L"zenith: roll %f, pitch %f\n", double(o.zenith[0]), double(o.zenith[1]));
    Console::out(L"compass: %f, heading: %f\n", double(o.compass), double(o.heading));
    Console::out(L"sphereAdjZenith: %d\n", o.sphereAdjZenith);
    Console::out(L"videoStabilization: %d (yaw %d, lock direction %d, image stabilization %d)\n",
                 o.videoStabilization, o.yawEnabled ? 1 : 0, o.yawLockDir ? 1 : 0, o.hasStabilization ? 1 : 0);
    Console::out(L"adjRollingShutter: %d\n", o.adjRollingShutter);
    Console::out(L"stitching: image centre %u,%u, movie centre %u,%u, sampling rate %f\n",
                 o.stitchingFishImgCenter[0], o.stitchingFishImgCenter[1], o.stitchingFishMovCenter[0],
                 o.stitchingFishMovCenter[1], double(o.stitchingSamplingRate));
}

// ---------------------------------------------------------------- GPS and view

void showGPS(const MP4::Container& c, const SourceMetadata& found)
{
    section(L"GPS");
    GPSInfo gps = found.gps;
    const wchar_t* from = nullptr;
    if (found.hasXyz) {
        from = L"@xyz";
    } else if (const MP4::XYZ* box = c.first<MP4::XYZ>("moov.udta.\xA9xyz")) {
        gps.attachRXYZ(box->text.c_str());
        from = L"\x00A9xyz";
    }
    if (from == nullptr && !gps.hasDirection) {
        Console::out(L"no position.\n");
        return;
    }
    Console::LocaleC locale;
    if (from != nullptr)
        Console::out(L"source: %ls [%ls]\n", from, wide(gps.rawXyz).c_str());
    auto value = [](const wchar_t* name, bool has, double v, const wchar_t* unit) {
        if (has)
            Console::out(L"%ls: %f%ls\n", name, v, unit);
        else
            Console::out(L"%ls: -\n", name);
    };
    value(L"latitude", gps.hasLatitude, gps.latitude, L"");
    value(L"longitude", gps.hasLongitude, gps.longitude, L"");
    value(L"altitude", gps.hasAltitude, gps.altitude, L" m");
    value(L"direction", gps.hasDirection, gps.direction, L"");
}

void showView(const SourceMetadata& found)
{
    section(L"Spherical Video view");
    Console::LocaleC c;
    if (found.hasV2)
        Console::out(L"V2 pose: yaw %g, pitch %g, roll %g (written by %ls)\n", found.v2Yaw, found.v2Pitch,
                     found.v2Roll, wide(found.v2Source).c_str());
    else
        Console::out(L"no Spherical Video V2.\n");
    if (!found.hasSphericalXml) {
        Console::out(L"no Spherical Video XML.\n");
        return;
    }
    ViewHeading view;
    view.attach(found.sphericalXml);
    Console::out(L"stitching software: %ls\n", wide(view.stitchingSoftware).c_str());
    auto angle = [](const wchar_t* name, float v) {
        if (std::isnan(v))
            Console::out(L"%ls: -\n", name);
        else
            Console::out(L"%ls: %g\n", name, double(v));
    };
    angle(L"heading", view.heading);
    angle(L"pitch", view.pitch);
    angle(L"field of view", view.fov);
    angle(L"dolly", view.dolly);
    Console::out(L"time stamp: %llu\n", static_cast<unsigned long long>(view.timestamp));
}

// ---------------------------------------------------------------- sensor streams

uint64_t timeOf(unsigned long long t) { return t; }
template <class T> uint64_t timeOf(const T& r) { return r.t; }

// One line per stream box present: records read, the header's extra value,
// byte order and the span of the records' times. A malformed box gets the
// reader's own message and shows 0 records.
template <class T, class Loader>
bool showStream(const MP4::Container& c, const char* type, Loader load)
{
    const std::string path = std::string("moov.udta.") + type;
    const MP4::BOX* box = c.first(path.c_str());
    if (box == nullptr)
        return false;
    std::vector<T> records;
    unsigned short extra = 0;
    load(c, records, extra);

    const wchar_t* order = L"?";
    ByteArray head;
    if (readPayload(c, *box, 16, head) && head.length >= 10) {
        const uint16_t mark = SensorStream::le16(head.data + 8);
        order = mark == Embed::kLittleEndianMark ? L"little-endian"
                : mark == Embed::kBigEndianMark  ? L"big-endian"
                                                 : L"unknown";
    }
    const std::wstring name = wide(type);
    if (records.empty()) {
        Console::out(L"%ls: records=0 extra=%u order=%ls\n", name.c_str(), unsigned(extra), order);
        return true;
    }
    uint64_t lo = UINT64_MAX, hi = 0;
    for (const T& r : records) {
        lo = std::min(lo, timeOf(r));
        hi = std::max(hi, timeOf(r));
    }
    Console::out(L"%ls: records=%zu extra=%u order=%ls t=%llu..%llu span=%llu\n", name.c_str(), records.size(),
                 unsigned(extra), order, static_cast<unsigned long long>(timeOf(records.front())),
                 static_cast<unsigned long long>(timeOf(records.back())), static_cast<unsigned long long>(hi - lo));
    return true;
}

void showSensorStreams(const MP4::Container& c)
{
    section(L"sensor streams");
    bool any = false;
    any = showStream<Embed::Gyro>(c, "QDTB", Embed::loadM29_QDTB) || any;
    any = showStream<Embed::Ecompass>(c, "QDTC", Embed::loadM29_QDTC) || any;
    any = showStream<Embed::TopBottomCorrection>(c, "QDTD", Embed::loadM29_QDTD) || any;
    any = showStream<unsigned long long>(c, "QDTG", Embed::loadM30_QDTG) || any;
    any = showStream<Embed::Quaternion>(c, "QDTH", Embed::loadM22_QDTH) || any;
    any = showStream<Embed::YawCorrection>(c, "QDTI", Embed::loadM29_QDTI) || any;
    if (!any)
        Console::out(L"no sensor streams.\n");

    section(L"orientation");
    if (c.first("moov.udta.QDTC") == nullptr && c.first("moov.udta.QDTD") == nullptr) {
        Console::out(L"no compass or gravity stream.\n");
        return;
    }
    Embed embed;
    const bool ok = embed.loadM29(c, 1);
    Console::out(L"samples: %zu%ls\n", embed.getSamples().size(), ok ? L"" : L" (incomplete)");
}

// The source probe prints its own findings; its record is summed up after.
void showProbe(const SourceMovie& source)
{
    section(L"probe");
    MetaProbe probe;
    const bool movie = probe.probe(source);
    static const wchar_t* const codecs[] = {L"unknown", L"H.264", L"H.265"};
    Console::LocaleC locale;
    Console::out(L"model code: 0x%05X\n", probe.cameraVersion);
    Console::out(L"codec: %ls\n", codecs[probe.codec >= 0 && probe.codec <= 2 ? probe.codec : 0]);
    if (movie)
        Console::out(L"frame: %dx%d at %0.3f fps\n", probe.width, probe.height, double(probe.frameRate));
    else
        Console::out(L"frame: no decodable video track\n");
    Console::out(L"duration: %0.3f s\n", double(probe.duration));
    Console::out(L"bit rates: video %0.0f, audio %0.0f bits/s\n", double(probe.videoBitRate),
                 double(probe.audioBitRate));
    Console::out(L"gyro data: %ls\n", probe.hasGyroData ? L"yes" : L"no");
    if (!probe.creatorTool.empty())
        Console::out(L"creator tool: %ls\n", wide(probe.creatorTool).c_str());
}

int usage()
{
    Console::out(L"usage: Inspect movie.mp4\n");
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    Console::init_locale();
    const std::vector<std::wstring> args = Utility::convertArguments(argc, argv);
    if (args.size() != 2)
        return usage();
    const std::wstring& path = args[1];

    struct stat st;
    if (stat(GLTK::FileIO::toNative(path).c_str(), &st) != 0) {
        Console::out(L"Inspect: %ls: no such file.\n", path.c_str());
        return 1;
    }
    if (S_ISDIR(st.st_mode)) {
        Console::out(L"Inspect: %ls: is a directory, not a movie.\n", path.c_str());
        return 1;
    }
    // Read once: a file with no movie box still shows its boxes.
    SourceMovie source;
    std::wstring problem;
    const bool movie = source.open(path, problem);
    const MP4::Container& container = source.container;
    if (!container.root) {
        Console::out(L"Inspect: %ls: cannot be read.\n", path.c_str());
        return 1;
    }
    if (!isMP4(container, static_cast<uint64_t>(st.st_size))) {
        Console::out(L"Inspect: %ls: not an MP4 file.\n", path.c_str());
        return 1;
    }

    section(L"box tree");
    container.dump();

    if (movie || container.moov != nullptr)
        showProbe(source);
    const SourceMetadata& found = source.metadata;
    showMakerNote(found);
    showGPS(container, found);
    showView(found);
    showSensorStreams(container);
    return 0;
}
