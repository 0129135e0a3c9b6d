// The JSON form: one document for scripts. A value the movie does not hold
// is null rather than left out (a box that is missing, an angle the camera
// did not write, a maker-note mode of -1), so that scripts need not test
// for each key.
#include "CameraModel.h"
#include "GLTKwchar.h"
#include "InspectForms.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace Inspect {

namespace {

// Keys in the order written: file and status first, the box tree last.
using json = nlohmann::ordered_json;

// A single-precision value with the digits it really has (123.4, not
// 123.40000152587891); null when it is not a number.
json number(float v)
{
    if (!std::isfinite(v))
        return nullptr;
    char text[32];
    std::snprintf(text, sizeof text, "%.7g", double(v));
    return std::strtod(text, nullptr);
}
json number(double v)
{
    if (!std::isfinite(v))
        return nullptr;
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", v);
    return std::strtod(text, nullptr);
}
json mode(int32_t v) { return v == ExifParser::MODE_UNKNOWN ? json(nullptr) : json(v); }
template <class T> json when(bool has, const T& v) { return has ? json(v) : json(nullptr); }

// Texts from the file are kept as they are, up to a zero byte that ends them.
std::string text(const std::string& s) { return s.substr(0, s.find('\0')); }

json boxTree(const MP4::BOX& b)
{
    json j = {{"type", codeText(b.type)}, {"start", b.start}, {"size", b.size}};
    if (const auto* u = b.as<MP4::UUID>()) {
        char hex[33];
        for (int i = 0; i < 16; ++i)
            std::snprintf(hex + 2 * i, 3, "%02X", u->userType[i]);
        j["userType"] = hex;
    }
    if (!b.unreadable.empty())
        j["unreadable"] = b.unreadable;
    const auto* nested = b.as<MP4::NestedBox>();
    if (nested != nullptr && nested->hasChild()) {
        json children = json::array();
        for (const MP4::BOX* c : nested->children)
            children.push_back(boxTree(*c));
        j["children"] = std::move(children);
    }
    return j;
}

json track(const Track& t)
{
    return {{"id", t.id},
            {"handler", t.handler},
            {"codec", t.codec},
            {"width", t.width},
            {"height", t.height},
            {"timeScale", t.timeScale},
            {"duration", number(t.seconds)},
            {"samples", t.samples},
            {"frameRate", t.handler == "vide" ? number(t.frameRate) : json(nullptr)}};
}

json camera(const SourceMetadata& found)
{
    const uint32_t code = found.modelCode;
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%05X", code);
    return {{"model", when(found.hasModel, text(found.modelText))},
            {"code", when(code != 0, std::string(hex))},
            {"generation", code == 0 ? json(nullptr) : json(CameraModel::isNewer(code) ? "newer" : "older")}};
}

json makerNote(const Report& r)
{
    const SourceMetadata& found = r.source.metadata;
    static const char* const states[] = {"missing", "empty", "unreadable", "read"};
    json j = {{"state", states[static_cast<int>(found.makerNote)]},
              {"byteOrder", when(!r.makerNoteOrder.empty(), r.makerNoteOrder)},
              {"error", when(found.makerNote == SourceMetadata::MakerNote::Unreadable, found.makerNoteError)}};
    if (found.makerNote != SourceMetadata::MakerNote::Read)
        return j;
    const ExifParser::ORVEX& o = found.orvex;
    j["model"] = text(o.model);
    j["software"] = text(o.software);
    j["makerTexts"] = {text(o.makerText2), text(o.makerText5)};
    j["projectionType"] = o.projectionType;
    j["zenith"] = {{"roll", number(o.zenith[0])}, {"pitch", number(o.zenith[1])}};
    j["compass"] = number(o.compass);
    j["heading"] = number(o.heading);
    j["sphereAdjZenith"] = mode(o.sphereAdjZenith);
    j["adjRollingShutter"] = mode(o.adjRollingShutter);
    j["videoStabilization"] = o.videoStabilization == ExifParser::MODE_UNKNOWN
                                  ? json(nullptr)
                                  : json{{"value", o.videoStabilization},
                                         {"yawCorrection", o.yawEnabled},
                                         {"lockedDirection", o.yawLockDir},
                                         {"imageStabilization", (o.videoStabilization & 8) != 0}};
    j["stitching"] = {{"imageCentre", {o.stitchingFishImgCenter[0], o.stitchingFishImgCenter[1]}},
                      {"movieCentre", {o.stitchingFishMovCenter[0], o.stitchingFishMovCenter[1]}},
                      {"samplingRate", number(o.stitchingSamplingRate)}};
    return j;
}

json gps(const Report& r)
{
    const GPSInfo& g = r.gps;
    if (r.gpsSource.empty() && !g.hasDirection)
        return nullptr;
    return {{"source", when(!r.gpsSource.empty(), r.gpsSource)},
            {"text", when(!r.gpsSource.empty(), text(g.rawXyz))},
            {"latitude", g.hasLatitude ? number(g.latitude) : nullptr},
            {"longitude", g.hasLongitude ? number(g.longitude) : nullptr},
            {"altitude", g.hasAltitude ? number(g.altitude) : nullptr},
            {"direction", g.hasDirection ? number(float(g.direction)) : nullptr}};
}

json spherical(const Report& r)
{
    const SourceMetadata& found = r.source.metadata;
    json v1 = nullptr, v2 = nullptr;
    if (found.hasSphericalXml)
        v1 = {{"stitchingSoftware", r.view.stitchingSoftware},
              {"heading", number(r.view.heading)},
              {"pitch", number(r.view.pitch)},
              {"fieldOfView", number(r.view.fov)},
              {"dolly", number(r.view.dolly)},
              {"timestamp", when(r.view.timestamp != 0, r.view.timestamp)}};
    if (found.hasV2)
        v2 = {{"yaw", number(found.v2Yaw)},
              {"pitch", number(found.v2Pitch)},
              {"roll", number(found.v2Roll)},
              {"metadataSource", text(found.v2Source)}};
    return {{"v1", v1}, {"v2", v2}};
}

json sensorStreams(const Report& r)
{
    json list = json::array();
    for (const SensorSummary& s : r.streams)
        list.push_back({{"type", s.type},
                        {"readable", s.readable},
                        {"records", s.records},
                        {"rate", s.rate},
                        {"recordSize", s.recordSize},
                        {"byteOrder", s.bigEndian ? "big-endian" : "little-endian"},
                        {"firstTime", when(s.readable && s.records > 0, s.firstTime)},
                        {"lastTime", when(s.readable && s.records > 0, s.lastTime)}});
    return list;
}

json spatialAudio(const Report& r)
{
    if (!r.hasSpatialAudio)
        return nullptr;
    const SpatialAudio& a = r.spatialAudio;
    return {{"dataBytes", a.dataBytes},
            {"track", a.hasTrack ? track(a.track) : json(nullptr)},
            {"pointer", a.pointer}};
}

} // namespace

std::string jsonDocument(const Report& r)
{
    json j = {{"file", GLTK::wchar::narrow(r.path)}, {"size", when(r.hasSize, r.fileSize)}};
    if (r.kind() == Report::Kind::NotAMovie) {
        j["status"] = "not a movie";
        j["error"] = r.refusal;
    } else {
        const SourceMetadata& found = r.source.metadata;
        json tracks = json::array();
        for (const Track& t : r.tracks)
            tracks.push_back(track(t));
        j["status"] = r.problems.empty() ? "whole" : "problems";
        j["problems"] = r.problems;
        j["camera"] = camera(found);
        j["tracks"] = std::move(tracks);
        j["spherical"] = spherical(r);
        j["gps"] = gps(r);
        j["makerNote"] = makerNote(r);
        j["sensorStreams"] = sensorStreams(r);
        j["spatialAudio"] = spatialAudio(r);
        j["boxes"] = boxTree(*r.source.container.root)["children"];
    }
    // Bytes that are not UTF-8 (a damaged text box) become U+FFFD rather
    // than stopping the report.
    return j.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

} // namespace Inspect
