#include "MetaBuilder.h"

#include "CameraModel.h"
#include "GLTKConsole.h"
#include "GLTKwchar.h"
#include "NewerCameraWriter.h"
#include "OlderCameraWriter.h"
#include "SourceMetadata.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

MetaBuilder::MetaBuilder(const char* image, const char* version, bool ownName)
{
    char buf[256];
    snprintf(buf, sizeof buf, "NARVI ORVEX::%s %s", image, version);
    std::string tool = buf;
    init();
    creatorTool = tool;
    stitchingSoftware = ownName ? tool : "NARVI ORVEX::Stratomix";
}

void MetaBuilder::init()
{
    gps.init();
    xmp.clear();
    axis.clear();
    sphericalXml.clear();
    projectionType = 0;
    timestamp = 0;
    modelText.clear();
    sourcePath.clear();
    spatialSound.clear();
    orvex.clear();
    makerModes[0] = makerModes[1] = makerModes[2] = -1;
    trimStart = trimCount = 0;
}

void MetaBuilder::progress(unsigned step)
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

bool MetaBuilder::readMeta(const std::wstring& source, bool reEncoded)
{
    VideoStabilizationMode mode;
    return readMeta(source, reEncoded, mode);
}

bool MetaBuilder::readMeta(const std::wstring& source, bool reEncoded, const VideoStabilizationMode& mode)
{
    std::string keepTool = creatorTool, keepSoftware = stitchingSoftware;
    init();
    creatorTool = keepTool;
    stitchingSoftware = keepSoftware;
    MP4::Container c;
    if (!c.attach(source))
        return false;
    sourcePath = source;

    SourceMetadata found;
    found.read(c);
    timestamp = found.creationTime;
    if (found.hasModel)
        modelText = found.modelText;
    else
        GLTK::Console::out(L"Invalid @mod.\n");
    if (found.makerNote == SourceMetadata::MakerNote::Read) {
        orvex = found.orvex;
        projectionType = static_cast<int32_t>(orvex.projectionType);
        makerModes[0] = orvex.sphereAdjZenith;
        makerModes[1] = orvex.videoStabilization;
        makerModes[2] = orvex.adjRollingShutter;
    } else if (found.makerNote == SourceMetadata::MakerNote::Unreadable) {
        GLTK::Console::out(L"MP4: QMKN parse failed: %ls\n", GLTK::wchar::mbs2wcs(found.makerNoteError).c_str());
    } else if (found.makerNote == SourceMetadata::MakerNote::Empty) {
        GLTK::Console::out(L"Invalid QMKN.\n");
    }
    gps = found.gps;
    xmp = found.xmp;
    axis = found.axis;
    sphericalXml = found.sphericalXml;

    std::string summary = found.stabilizationSummary;
    if (mode.yaw != -1 && mode.image != -1)
        mode.stabilizeModeSummary(summary);
    // A new XMP packet after a re-encode or where the source has none; the
    // source's own is kept when it carries the position.
    if (xmp.empty() || reEncoded)
        xmp = gps.to_XMP_string(creatorTool.c_str(), reEncoded, summary);
    else if (!(gps.hasLatitude && gps.hasLongitude))
        xmp = gps.to_XMP_string(creatorTool.c_str(), false, summary);
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
    // At a terminal the steps share one line, ended however the rebuild ends.
    struct EndStatus {
        ~EndStatus() { GLTK::Console::endStatus(); }
    } endStatus;
    progress(0);
    MP4::Container movie;
    if (!movie.attach(path)) {
        GLTK::Console::out(L"MP4: %ls cannot be read: %ls\n", path.c_str(),
                           GLTK::wchar::mbs2wcs(std::strerror(errno)).c_str());
        return false;
    }
    MP4::EditPlan plan(movie);
    if (withAvcC && !movie.appendFullRangeAndConstrainedSet1Flag(plan, fullRange))
        return false;
    progress(2);
    progress(4);
    const bool built = CameraModel::isNewer(CameraModel::code(modelText))
                           ? NewerCameraWriter(*this).build(movie, plan, outPath == nullptr)
                           : OlderCameraWriter(*this).build(movie, plan, outPath == nullptr);
    if (!built || !plan.write(outPath != nullptr ? *outPath : path))
        return false;
    progress(10);
    return true;
}

void MetaBuilder::updateSphereXML(const MP4::Container& c, bool inPlace)
{
    if (sphericalXml.empty()) {
        uint32_t width = 0, height = 0;
        if (const MP4::TKHD* t = c.first<MP4::TKHD>("moov.trak.tkhd")) {
            width = t->width;
            height = t->height;
        }
        if ((!inPlace && projectionType == 2) || height < 1 || width != 2 * height) {
            GLTK::Console::out(L"MP4: Not a spherical video.\n");
        } else {
            ViewHeading v;
            v.stitchingSoftware = stitchingSoftware;
            v.timestamp = timestamp;
            sphericalXml = v.toString();
            GLTK::Console::out(L"Appned New GVF-BOX.\n");
        }
    }
    // A fixed size lets a later edit rewrite the box in place.
    if (!sphericalXml.empty() && sphericalXml.size() < 1000) {
        sphericalXml += '\n';
        sphericalXml.resize(1000, ' ');
    }
}

bool MetaBuilder::appendSphericalV2(const MP4::Container& movie, MP4::EditPlan& plan) const
{
    if (sphericalXml.empty())
        return true;
    ViewHeading view;
    view.attach(sphericalXml);
    view.bringIntoRange();
    return movie.appendSphericalVideoV2(plan, creatorTool, std::isnan(view.heading) ? 0.0 : view.heading,
                                        std::isnan(view.pitch) ? 0.0 : view.pitch);
}

// ---------------------------------------------------------------- adjusting

void MetaBuilder::trimStream(unsigned start, unsigned count)
{
    if (!axis.empty()) {
        AxisTiltStream stream(axis);
        uint64_t n = stream.trim(start, count);
        axis = n ? stream.toBinary().substr(0, n) : std::string();
    }
    trimStart = start;
    trimCount = count;
}

bool MetaBuilder::readSpatialData(const std::wstring& source, unsigned start, unsigned end)
{
    return readSpatialData(source, static_cast<double>(start), end == 0xFFFFFFFFu ? -1.0 : static_cast<double>(end));
}

bool MetaBuilder::readSpatialData(const std::wstring& source, double start, double end)
{
    return spatialSound.attach(source, start, end);
}

void MetaBuilder::attach(const AxisTiltStream& stream, ExifParser::VIDEO_STABILIZATION mode, bool rollingShutter)
{
    axis = stream.toBinary();
    makerModes[0] = stream.zenithCorrectionState == -1 ? 1 : stream.zenithCorrectionState == -2 ? 0 : -1;
    makerModes[1] = mode;
    makerModes[2] = rollingShutter ? 1 : 0;
}

void MetaBuilder::attach(const ViewHeading& heading, bool resetAngles)
{
    ViewHeading v;
    v.attach(sphericalXml);
    v.attach(heading);
    if (v.stitchingSoftware.empty())
        v.stitchingSoftware = stitchingSoftware;
    if (resetAngles)
        v.heading = v.pitch = v.fov = v.dolly = std::nanf("");
    v.bringIntoRange();
    sphericalXml = v.toString();
}

bool MetaBuilder::currentViewHeading(ViewHeading& out)
{
    out = ViewHeading();
    if (sphericalXml.empty())
        return false;
    out.attach(sphericalXml);
    return true;
}
