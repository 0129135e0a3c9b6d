// The text form: one section a topic, as a person reads it.
#include "AccelSensorStreamEmbed.h"
#include "GLTKConsole.h"
#include "GLTKwchar.h"
#include "InspectForms.h"
#include "MetaProbe.h"

#include <cmath>

namespace Inspect {

namespace {

using GLTK::Console;

void section(const wchar_t* title) { Console::out(L"\n== %ls ==\n", title); }

std::wstring wide(const std::string& s) { return GLTK::wchar::mbs2wcs(s); }

// The source probe prints its own findings; its record is summed up after.
void showProbe(const SourceMovie& source)
{
    section(L"probe");
    MetaProbe probe;
    const bool movie = probe.probe(source);
    static const wchar_t* const codecs[] = {L"unknown", L"H.264", L"H.265"};
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

void showTrack(const Track& t)
{
    Console::out(L"track %u: %ls %ls", t.id, wide(t.handler).c_str(), wide(t.codec).c_str());
    if (t.width != 0)
        Console::out(L" %ux%u", t.width, t.height);
    if (t.frameRate > 0)
        Console::out(L" at %0.3f fps", t.frameRate);
    Console::out(L", %0.3f s, %llu samples, time scale %u\n", t.seconds, static_cast<unsigned long long>(t.samples),
                 t.timeScale);
}

void showTracks(const Report& r)
{
    section(L"tracks");
    for (const Track& t : r.tracks)
        showTrack(t);
    if (r.tracks.empty())
        Console::out(L"no tracks.\n");
}

void showMakerNote(const Report& r)
{
    const SourceMetadata& found = r.source.metadata;
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
    Console::out(L"byte order: %ls\n", wide(r.makerNoteOrder).c_str());
    Console::out(L"model: %ls\n", wide(o.model).c_str());
    Console::out(L"software: %ls\n", wide(o.software).c_str());
    Console::out(L"maker texts: [%ls] [%ls]\n", wide(o.makerText2).c_str(), wide(o.makerText5).c_str());
    Console::out(L"projectionType: %u\n", o.projectionType);
    Console::out(L"zenith: roll %f, pitch %f\n", double(o.zenith[0]), double(o.zenith[1]));
    Console::out(L"compass: %f, heading: %f\n", double(o.compass), double(o.heading));
    Console::out(L"sphereAdjZenith: %d\n", o.sphereAdjZenith);
    // Bits 0-2 the yaw code, bit 3 image stabilization.
    Console::out(L"videoStabilization: %d (yaw %d, lock direction %d, image stabilization %d)\n",
                 o.videoStabilization, o.yawEnabled ? 1 : 0, o.yawLockDir ? 1 : 0,
                 o.videoStabilization != ExifParser::MODE_UNKNOWN && (o.videoStabilization & 8) ? 1 : 0);
    Console::out(L"adjRollingShutter: %d\n", o.adjRollingShutter);
    Console::out(L"stitching: image centre %u,%u, movie centre %u,%u, sampling rate %f\n",
                 o.stitchingFishImgCenter[0], o.stitchingFishImgCenter[1], o.stitchingFishMovCenter[0],
                 o.stitchingFishMovCenter[1], double(o.stitchingSamplingRate));
}

void showGPS(const Report& r)
{
    section(L"GPS");
    const GPSInfo& gps = r.gps;
    if (r.gpsSource.empty() && !gps.hasDirection) {
        Console::out(L"no position.\n");
        return;
    }
    if (!r.gpsSource.empty())
        Console::out(L"source: %ls [%ls]\n", wide(r.gpsSource).c_str(), wide(gps.rawXyz).c_str());
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

void showView(const Report& r)
{
    const SourceMetadata& found = r.source.metadata;
    section(L"Spherical Video view");
    if (found.hasV2)
        Console::out(L"V2 pose: yaw %g, pitch %g, roll %g (written by %ls)\n", found.v2Yaw, found.v2Pitch,
                     found.v2Roll, wide(found.v2Source).c_str());
    else
        Console::out(L"no Spherical Video V2.\n");
    if (!found.hasSphericalXml) {
        Console::out(L"no Spherical Video XML.\n");
        return;
    }
    const ViewHeading& view = r.view;
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

// One line per stream box; then the orientation the sensor loader decides
// from the gravity and compass streams (it prints its own findings).
void showSensorStreams(const Report& r)
{
    section(L"sensor streams");
    for (const SensorSummary& s : r.streams) {
        Console::out(L"%ls: records=%u rate=%u order=%ls", wide(s.type).c_str(), s.records, unsigned(s.rate),
                     s.bigEndian ? L"big-endian" : L"little-endian");
        if (!s.readable)
            Console::out(L" (unreadable)\n");
        else if (s.records > 0)
            Console::out(L" t=%llu..%llu\n", static_cast<unsigned long long>(s.firstTime),
                         static_cast<unsigned long long>(s.lastTime));
        else
            Console::out(L"\n");
    }
    if (r.streams.empty())
        Console::out(L"no sensor streams.\n");

    section(L"orientation");
    const MP4::Container& c = r.source.container;
    if (c.first("moov.udta.QDTC") == nullptr && c.first("moov.udta.QDTD") == nullptr) {
        Console::out(L"no compass or gravity stream.\n");
        return;
    }
    AccelSensorStreamEmbed embed;
    const bool ok = embed.loadM29(c, 1);
    Console::out(L"samples: %zu%ls\n", embed.getSamples().size(), ok ? L"" : L" (incomplete)");
}

void showSpatialAudio(const Report& r)
{
    section(L"spatial audio");
    if (!r.hasSpatialAudio) {
        Console::out(L"no spatial audio.\n");
        return;
    }
    const SpatialAudio& a = r.spatialAudio;
    Console::out(L"data: %llu bytes; pointer (QDT9): %ls\n", static_cast<unsigned long long>(a.dataBytes),
                 a.pointer ? L"yes" : L"no");
    if (a.hasTrack)
        showTrack(a.track);
    else
        Console::out(L"no track (QATR).\n");
}

} // namespace

void printText(const Report& r)
{
    Console::LocaleC locale;
    section(L"box tree");
    r.source.container.dump();
    if (r.source.container.moov != nullptr)
        showProbe(r.source);
    showTracks(r);
    showMakerNote(r);
    showGPS(r);
    showView(r);
    showSensorStreams(r);
    showSpatialAudio(r);
}

} // namespace Inspect
