#include "MetaBuilder.h"

#include "GLTKConsole.h"
#include "GLTKwchar.h"
#include "NewerCameraWriter.h"
#include "OlderCameraWriter.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>

MetaBuilder::MetaBuilder(const char* image, const char* version, bool ownName)
{
    creatorTool = std::string("NARVI ORVEX::") + image + " " + version;
    stitchingSoftware = ownName ? creatorTool : "NARVI ORVEX::Stratomix";
    req.creatorTool = creatorTool;
    req.stitchingSoftware = stitchingSoftware;
}

// The rebuild's steps, as one status line at a terminal or a line each.
void MetaBuilder::progress(unsigned step) const
{
    unsigned s = std::min(step, 10u);
    if (GLTK::Console::isTerminal()) {
        GLTK::Console::status(L"writing metadata %3u%%", s * 10);
        return;
    }
    GLTK::Console::LocaleC c;
    GLTK::Console::out(L"processing meta %4d %0.2f/%0.2f\n", s, s * 10.0, 100.0);
}

// ---------------------------------------------------------------- reading

bool MetaBuilder::readMeta(const SourceMovie& movie, bool reEncoded)
{
    VideoStabilizationMode mode;
    return readMeta(movie, reEncoded, mode);
}

bool MetaBuilder::readMeta(const SourceMovie& movie, bool reEncoded, const VideoStabilizationMode& mode)
{
    source = &movie;
    req = RebuildRequest();
    req.creatorTool = creatorTool;
    req.stitchingSoftware = stitchingSoftware;
    const SourceMetadata& found = movie.metadata;
    req.timestamp = found.creationTime;
    if (!found.hasModel)
        GLTK::Console::out(L"Invalid @mod.\n");
    if (found.makerNote == SourceMetadata::MakerNote::Read) {
        req.projectionType = static_cast<int32_t>(found.orvex.projectionType);
        req.makerModes[0] = found.orvex.sphereAdjZenith;
        req.makerModes[1] = found.orvex.videoStabilization;
        req.makerModes[2] = found.orvex.adjRollingShutter;
    } else if (found.makerNote == SourceMetadata::MakerNote::Unreadable) {
        GLTK::Console::out(L"MP4: QMKN parse failed: %ls\n", GLTK::wchar::mbs2wcs(found.makerNoteError).c_str());
    } else if (found.makerNote == SourceMetadata::MakerNote::Empty) {
        GLTK::Console::out(L"Invalid QMKN.\n");
    }
    req.gps = found.gps;
    req.xmp = found.xmp;
    req.axis = found.axis;
    req.sphericalXml = found.sphericalXml;

    std::string summary = found.stabilizationSummary;
    if (mode.yaw != -1 && mode.image != -1)
        mode.stabilizeModeSummary(summary);
    // A new XMP packet after a re-encode or where the source has none; the
    // source's own is kept when it carries the position.
    if (req.xmp.empty() || reEncoded)
        req.xmp = req.gps.to_XMP_string(creatorTool.c_str(), reEncoded, summary);
    else if (!(req.gps.hasLatitude && req.gps.hasLongitude))
        req.xmp = req.gps.to_XMP_string(creatorTool.c_str(), false, summary);
    return true;
}

// ---------------------------------------------------------------- writing

bool MetaBuilder::updateMeta(const std::wstring& path, const std::wstring* outPath, bool fullRange)
{
    return rebuild(path, outPath, outPath == nullptr, fullRange);
}

bool MetaBuilder::updateMetaWithoutAddingFullRange(const std::wstring& path, const std::wstring* outPath)
{
    return rebuild(path, outPath, false, false);
}

bool MetaBuilder::rebuild(const std::wstring& path, const std::wstring* outPath, bool withAvcC, bool fullRange)
{
    if (source == nullptr)
        return false;
    // At a terminal the steps share one line, ended however the rebuild ends.
    struct EndStatus {
        ~EndStatus() { GLTK::Console::endStatus(); }
    } endStatus;
    progress(0);
    // The source is rebuilt from the tree the run has read; a fresh encode
    // is read here.
    std::unique_ptr<MP4::Container> encoded;
    const MP4::Container* movie = &source->container;
    if (!GLTK::FileIO::sameFile(path, source->path())) {
        encoded = std::make_unique<MP4::Container>();
        if (!encoded->attach(path)) {
            GLTK::Console::out(L"MP4: %ls cannot be read: %ls\n", path.c_str(),
                               GLTK::wchar::mbs2wcs(std::strerror(errno)).c_str());
            return false;
        }
        movie = encoded.get();
    }
    MP4::EditPlan plan(*movie);
    if (withAvcC && !movie->appendFullRangeAndConstrainedSet1Flag(plan, fullRange))
        return false;
    progress(2);
    const bool inPlace = outPath == nullptr;
    const bool built = source->newer() ? NewerCameraWriter(*source, req).build(*movie, plan, inPlace)
                                       : OlderCameraWriter(*source, req).build(*movie, plan, inPlace);
    if (!built)
        return false;
    progress(5);
    if (!plan.write(inPlace ? path : *outPath, !inPlace))
        return false;
    progress(10);
    return true;
}

// ---------------------------------------------------------------- adjusting

void MetaBuilder::trimStream(unsigned start, unsigned count)
{
    if (!req.axis.empty()) {
        AxisTiltStream stream(req.axis);
        uint64_t n = stream.trim(start, count);
        req.axis = n ? stream.toBinary().substr(0, n) : std::string();
    }
    req.trimStart = start;
    req.trimCount = count;
}

bool MetaBuilder::readSpatialData(double start, double end)
{
    return source != nullptr && req.spatialCut.attach(source->container, start, end);
}

void MetaBuilder::attach(const AxisTiltStream& stream, ExifParser::VIDEO_STABILIZATION mode, bool rollingShutter)
{
    req.axis = stream.toBinary();
    req.makerModes[0] = stream.zenithCorrectionState == -1 ? 1 : stream.zenithCorrectionState == -2 ? 0 : -1;
    req.makerModes[1] = mode;
    req.makerModes[2] = rollingShutter ? 1 : 0;
}

void MetaBuilder::attach(const ViewHeading& heading, bool resetAngles)
{
    ViewHeading v;
    v.attach(req.sphericalXml);
    v.attach(heading);
    if (v.stitchingSoftware.empty())
        v.stitchingSoftware = stitchingSoftware;
    if (resetAngles)
        v.heading = v.pitch = v.fov = v.dolly = std::nanf("");
    v.bringIntoRange();
    req.sphericalXml = v.toString();
}

bool MetaBuilder::currentViewHeading(ViewHeading& out) const
{
    out = ViewHeading();
    if (req.sphericalXml.empty())
        return false;
    out.attach(req.sphericalXml);
    return true;
}
