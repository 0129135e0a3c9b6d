// The metadata-only conversion end to end: the real Resize command copies a
// synthetic camera movie to a new file while rebuilding its metadata. Every
// result is judged by tools we did not write: ffmpeg must decode it without a
// word, every media sample must keep its bytes, boxes must nest and chunks lie
// in their media data (mp4check.py), ffprobe must see a spherical video and
// exiftool must read the position, the view and the XMP fields.
#include "Movies.h"

#include <cmath>
#include <gtest/gtest.h>
#include <map>
#include <sstream>

using namespace testsupport;

namespace {

// The camera movies (make_movie.py options). Each is built once and shared.
//
// An older camera (code below 0x20001), media first behind a 64-bit mdat
// header, with every box it writes.
const std::string kMetaE2EOlderFull = "--model older --mdat-largesize";
// An older camera, moov first with co64 chunk tables and a position south of
// the equator, without XMP, Spherical XML, axis, GPS meta, thumbnail, maker
// note or sensor boxes, and with a loci box cut short (ffmpeg refuses the
// source because of it).
const std::string kMetaE2EOlderBare = "--model older --layout moov-first --co64 --gps=-33.8568+151.2153+005.000/ "
                                      "--no-xmp --no-sph --no-axis --no-meta --no-thumb --no-qmkn --no-sensors "
                                      "--loci bad --creation-time 1262304000";
// An older camera movie with a box between mdat and moov (spatial data, which
// these cameras do not record themselves, stands in for any such box).
const std::string kMetaE2EOlderBetween = "--model older --spatial after-mdat";
// A newer camera as it records: media first, spatial data right behind mdat;
// its maker note says "not equirectangular" and carries unusual correction
// modes, and its Spherical XML holds an initial view.
const std::string kMetaE2ENewerFull = "--model newer --projection 0 --sphere-adj 0 --stabilization 5 "
                                      "--rolling-shutter 1 --sph-heading 30 --sph-pitch -5";
// A newer camera whose spatial data lies behind moov, so that growing moov
// moves it; no XMP, Spherical XML, loci or GPS meta; a bare maker note; a
// thumbnail box too small for the new thumbnail; big-endian sensor boxes.
const std::string kMetaE2ENewerMoved = "--model newer --spatial after-moov --no-xmp --no-sph --no-loci --no-meta "
                                       "--qmkn narvi --thumb-width 32 --thumb-size 1200 --sensor-endian big";
// A newer camera without spatial data, maker note, thumbnail, sensor boxes,
// position or XMP.
const std::string kMetaE2ENewerPlain = "--model newer --spatial none --no-qmkn --no-thumb --no-sensors --no-xyz "
                                       "--no-loci --no-xmp";
// A newer camera movie laid out moov first, as other tools rewrite one.
const std::string kMetaE2ENewerMoovFirst = "--model newer --layout moov-first";

const char kMetaE2EXmp[] = "uuid=be7acfcb97a942e89c71999491e3afac";
const char kMetaE2EAxis[] = "uuid=8e4e1f9781f34d5997b5ff05a27cdb7b";
const char kMetaE2ESpherical[] = "moov.trak.uuid=ffcc8263f8554a938814587a02521fdd";
const char kMetaE2ECreatorTool[] = "<x:CreatorTool>NARVI ORVEX::Resize.osx 2.8.3.2019.07.25</x:CreatorTool>";

std::string resizeCommand() { return q(binaryDir() / "bin" / "Resize"); }

std::string metaE2EUsage(const std::string& source, const std::string& output)
{
    return "\nResize 2.8.3.2019.07.25\n"
           "usage: Resize.osx [options] [source.mp4] [output.mp4]\n"
           "  source.mp4     : input file.\n"
           "    " +
           source +
           "\n"
           "  output.mp4     : output file.\n"
           "    " +
           output + "\n\n";
}

bool endsWith(const std::string& text, const std::string& tail)
{
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

std::string asText(const std::vector<uint8_t>& bytes) { return std::string(bytes.begin(), bytes.end()); }

std::vector<uint8_t> payload(const fs::path& file, const std::string& path)
{
    std::vector<uint8_t> out;
    EXPECT_TRUE(boxPayload(file, path, out)) << "no " << path << " in " << file;
    return out;
}

// One run of Resize on a copy of a shared movie: the source sits in its own
// folder "in", the output goes to "out", so that leftovers in either show.
// earlierOutput, when given, is put at the output path before the run.
class MetaE2ERun {
public:
    explicit MetaE2ERun(const std::string& recipe, const std::string& options = "",
                        const std::string& outputName = "out/output.mp4", const std::string& earlierOutput = "",
                        const std::function<void(const fs::path&)>& damage = nullptr)
    {
        fs::create_directories(dir.path() / "in");
        fs::create_directories(dir.path() / "out");
        source = copyMovie(recipe, dir.path() / "in" / "source.mp4");
        if (damage)
            damage(source);
        sourceBytes = readFile(source);
        output = dir.path() / outputName;
        if (!earlierOutput.empty())
            writeFile(output, std::vector<uint8_t>(earlierOutput.begin(), earlierOutput.end()));
        status = run(resizeCommand() + " " + options + " " + q(source) + " " + q(output), &text);
    }

    TempDir dir;
    fs::path source, output;
    std::vector<uint8_t> sourceBytes;
    int status = -1;
    std::string text; // what the command printed
};

// Files of the run's folders whose names mark a temporary copy.
std::string leftovers(const fs::path& dir)
{
    std::string found;
    for (const auto& e : fs::recursive_directory_iterator(dir))
        if (e.path().filename().string().find(".tmp") != std::string::npos)
            found += e.path().string() + "\n";
    return found;
}

void expectSourceKept(const MetaE2ERun& r)
{
    EXPECT_TRUE(readFile(r.source) == r.sourceBytes) << "the source movie changed";
    EXPECT_EQ(leftovers(r.dir.path()), "");
}

// ffprobe's spherical side data of the video stream ("" when none).
std::string probedProjection(const fs::path& file)
{
    std::string out;
    run("ffprobe -v error -select_streams v:0 -show_entries stream_side_data=side_data_type,projection "
        "-of default=nw=1 " +
            q(file),
        &out);
    if (out.find("side_data_type=Spherical Mapping") == std::string::npos)
        return "";
    size_t at = out.find("projection=");
    return at == std::string::npos ? "?" : out.substr(at + 11, out.find('\n', at) - at - 11);
}

// What every successful metadata-only conversion must give.
void expectSoundConversion(const MetaE2ERun& r)
{
    ASSERT_EQ(r.status, 0) << r.text;
    ASSERT_TRUE(fs::exists(r.output)) << r.text;
    std::string why;
    EXPECT_TRUE(decodesCleanly(r.output, &why)) << why;
    EXPECT_TRUE(samplesEqual(r.source, r.output, &why)) << why;
    EXPECT_TRUE(nestingOk(r.output, &why)) << why;
    EXPECT_TRUE(offsetsOk(r.output, &why)) << why;
    EXPECT_EQ(probedProjection(r.output), "equirectangular");
    EXPECT_TRUE(endsWith(r.text, " [sec]\n")) << r.text;
    expectSourceKept(r);
}

// ---------------------------------------------------------------- box tree

struct MetaE2EBox {
    std::string path; // dotted, from the top level
    uint64_t offset = 0, size = 0;
};

// The box tree as mp4check.py prints it (two blanks of indent a level).
std::vector<MetaE2EBox> boxList(const fs::path& file)
{
    std::vector<MetaE2EBox> out;
    std::vector<std::string> stack;
    std::istringstream in(boxTree(file));
    std::string line;
    while (std::getline(in, line)) {
        size_t indent = line.find_first_not_of(' ');
        size_t at = indent == std::string::npos ? std::string::npos : line.find(" @", indent);
        size_t size = at == std::string::npos ? std::string::npos : line.find(" size=", at);
        if (size == std::string::npos)
            continue;
        stack.resize(indent / 2);
        stack.push_back(line.substr(indent, at - indent));
        MetaE2EBox b;
        for (const std::string& s : stack)
            b.path += (b.path.empty() ? "" : ".") + s;
        b.offset = std::stoull(line.substr(at + 2));
        b.size = std::stoull(line.substr(size + 6));
        out.push_back(b);
    }
    return out;
}

const MetaE2EBox* findBox(const std::vector<MetaE2EBox>& boxes, const std::string& path)
{
    for (const MetaE2EBox& b : boxes)
        if (b.path == path)
            return &b;
    return nullptr;
}

std::vector<std::string> topLevel(const std::vector<MetaE2EBox>& boxes)
{
    std::vector<std::string> out;
    for (const MetaE2EBox& b : boxes)
        if (b.path.find('.') == std::string::npos)
            out.push_back(b.path);
    return out;
}

size_t indexOf(const std::vector<std::string>& list, const std::string& item)
{
    for (size_t i = 0; i < list.size(); ++i)
        if (list[i] == item)
            return i;
    return list.size();
}

// The direct children of moov.udta.
std::vector<MetaE2EBox> udtaChildren(const std::vector<MetaE2EBox>& boxes)
{
    std::vector<MetaE2EBox> out;
    const std::string prefix = "moov.udta.";
    for (const MetaE2EBox& b : boxes)
        if (b.path.compare(0, prefix.size(), prefix) == 0 && b.path.find('.', prefix.size()) == std::string::npos)
            out.push_back(b);
    return out;
}

std::vector<uint8_t> boxBytes(const std::vector<uint8_t>& file, const MetaE2EBox& b)
{
    if (b.offset > file.size() || b.size > file.size() - b.offset)
        return {};
    return std::vector<uint8_t>(file.begin() + static_cast<long>(b.offset),
                                file.begin() + static_cast<long>(b.offset + b.size));
}

uint64_t bigEndian(const std::vector<uint8_t>& bytes, size_t at, size_t n)
{
    uint64_t v = 0;
    for (size_t i = 0; i < n && at + i < bytes.size(); ++i)
        v = (v << 8) | bytes[at + i];
    return v;
}

// Creation times of mvhd and of every track's tkhd and mdhd, in file order.
std::vector<uint64_t> creationTimes(const fs::path& file)
{
    std::vector<uint8_t> bytes = readFile(file);
    std::vector<uint64_t> out;
    for (const MetaE2EBox& b : boxList(file))
        if (b.path == "moov.mvhd" || b.path == "moov.trak.tkhd" || b.path == "moov.trak.mdia.mdhd") {
            if (b.offset + 20 > bytes.size()) {
                ADD_FAILURE() << b.path << " runs past the file";
                continue;
            }
            bool v1 = bytes[b.offset + 8] == 1;
            out.push_back(bigEndian(bytes, b.offset + 12, v1 ? 8 : 4));
        }
    return out;
}

// ---------------------------------------------------------------- other tools

// exiftool's reading of the file, numbers as numbers: "Group:Tag" -> values.
using MetaE2EExif = std::multimap<std::string, std::string>;

MetaE2EExif exifTags(const fs::path& file)
{
    std::string text;
    run("exiftool -a -G1 -n -S " + q(file), &text);
    MetaE2EExif tags;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        size_t close = line.find("] ");
        size_t colon = close == std::string::npos ? std::string::npos : line.find(": ", close);
        if (line.empty() || line[0] != '[' || colon == std::string::npos)
            continue;
        tags.emplace(line.substr(1, close - 1) + ":" + line.substr(close + 2, colon - close - 2), line.substr(colon + 2));
    }
    return tags;
}

std::vector<std::string> exifValues(const MetaE2EExif& tags, const std::string& key)
{
    std::vector<std::string> out;
    auto [from, to] = tags.equal_range(key);
    for (auto it = from; it != to; ++it)
        out.push_back(it->second);
    return out;
}

std::string exifValue(const MetaE2EExif& tags, const std::string& key)
{
    auto it = tags.find(key);
    return it == tags.end() ? "(none)" : it->second;
}

double exifNumber(const MetaE2EExif& tags, const std::string& key)
{
    auto it = tags.find(key);
    return it == tags.end() ? std::nan("") : std::strtod(it->second.c_str(), nullptr);
}

// The entries of the maker note's IFDs ("orvex.0x0001" -> "1").
std::map<std::string, std::string> makerNote(const fs::path& file)
{
    std::string text;
    EXPECT_EQ(mp4check("orvex " + q(file), &text), 0) << text;
    std::map<std::string, std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        if (size_t eq = line.find('='); eq != std::string::npos)
            out[line.substr(0, eq)] = line.substr(eq + 1);
    return out;
}

// Codec and frame size of a picture file as ffprobe sees it ("mjpeg,640,320").
std::string pictureFormat(const fs::path& file)
{
    std::string out;
    run("ffprobe -v error -select_streams v:0 -show_entries stream=codec_name,width,height -of csv=p=0 " + q(file),
        &out);
    while (!out.empty() && (out.back() == '\n' || out.back() == ','))
        out.pop_back();
    return out;
}

// The maker thumbnail box holds a JPEG of the output at 640 x 320 from its
// first byte, and zeros behind it.
void expectMakerThumbnail(const fs::path& movie, size_t payloadSize, const fs::path& scratch)
{
    std::vector<uint8_t> p = payload(movie, "moov.udta.QTHU");
    ASSERT_EQ(p.size(), payloadSize);
    size_t end = p.size();
    while (end > 0 && p[end - 1] == 0)
        --end;
    ASSERT_GE(end, 4u);
    EXPECT_TRUE(p[0] == 0xFF && p[1] == 0xD8) << "no start-of-image marker";
    EXPECT_TRUE(p[end - 2] == 0xFF && p[end - 1] == 0xD9) << "no end-of-image marker before the zeros";
    writeFile(scratch, std::vector<uint8_t>(p.begin(), p.begin() + static_cast<long>(end)));
    EXPECT_EQ(pictureFormat(scratch), "mjpeg,640,320");
    std::string why;
    EXPECT_TRUE(decodesCleanly(scratch, &why)) << why;
}

void expectNear(double value, double want, const std::string& what)
{
    EXPECT_TRUE(std::fabs(value - want) < 1e-3) << what << " is " << value << ", want " << want;
}

// ---------------------------------------------------------------- older cameras

TEST(MetaE2EOlder, MediaFirstMovieWithEveryBoxGetsMoovFirstAndKeepsItsMetadata)
{
    MetaE2ERun r(kMetaE2EOlderFull);
    expectSoundConversion(r);
    if (HasFatalFailure())
        return;

    auto out = boxList(r.output);
    auto in = boxList(r.source);
    std::vector<std::string> top = topLevel(out);
    EXPECT_LT(indexOf(top, "moov"), indexOf(top, "mdat"));
    EXPECT_LT(indexOf(top, "mdat"), top.size());
    EXPECT_EQ(creationTimes(r.output), creationTimes(r.source));

    // The source's XMP has a position, so it is kept as it was; so are the
    // axis record and the camera's own udta boxes.
    EXPECT_EQ(payload(r.output, kMetaE2EXmp), payload(r.source, kMetaE2EXmp));
    EXPECT_EQ(payload(r.output, kMetaE2EAxis), payload(r.source, kMetaE2EAxis));
    std::vector<uint8_t> src = readFile(r.source), dst = readFile(r.output);
    for (const char* type : {"@mod", "QMKN", "QTHU", "QDTB", "QDTC", "QDTD", "QDTG", "QDTI", "@xyz", "loci"}) {
        const MetaE2EBox* a = findBox(in, std::string("moov.udta.") + type);
        const MetaE2EBox* b = findBox(out, std::string("moov.udta.") + type);
        ASSERT_TRUE(a != nullptr && b != nullptr) << type;
        EXPECT_TRUE(boxBytes(src, *a) == boxBytes(dst, *b)) << type << " changed";
    }
    // The rebuild adds the ISO 6709 text box, from the source's @xyz position.
    EXPECT_NE(findBox(out, "moov.udta.\xc2\xa9xyz"), nullptr);

    // The Spherical XML is the source's, padded to 1000 bytes so that a later
    // edit can rewrite it in place.
    std::string xml = asText(payload(r.source, kMetaE2ESpherical));
    std::string rebuilt = asText(payload(r.output, kMetaE2ESpherical));
    ASSERT_EQ(rebuilt.size(), 1000u);
    EXPECT_EQ(rebuilt, xml + "\n" + std::string(1000 - xml.size() - 1, ' '));

    MetaE2EExif tags = exifTags(r.output);
    expectNear(exifNumber(tags, "XMP-exif:GPSLatitude"), 35.6586, "XMP latitude");
    expectNear(exifNumber(tags, "XMP-exif:GPSLongitude"), 139.7454, "XMP longitude");
    expectNear(exifNumber(tags, "XMP-exif:GPSImgDirection"), 45.6, "XMP image direction");
    std::vector<std::string> coordinates = exifValues(tags, "UserData:GPSCoordinates");
    ASSERT_EQ(coordinates.size(), 2u); // @xyz and the ISO 6709 text box
    EXPECT_EQ(coordinates[0], "35.6586 139.7454 40");
    EXPECT_EQ(coordinates[1], "35.6586 139.7454");
    EXPECT_NE(exifValue(tags, "UserData:LocationInformation").find("Lat=35.65860 Lon=139.74541"), std::string::npos);
    EXPECT_EQ(exifValue(tags, "XMP-GSpherical:ProjectionType"), "equirectangular");
    EXPECT_EQ(exifValue(tags, "XMP-GSpherical:StitchingSoftware"), "NARVI ORVEX B1 Stitcher");
}

TEST(MetaE2EOlder, MoovFirstMovieWithoutOptionalBoxesGetsNewMetadata)
{
    MetaE2ERun r(kMetaE2EOlderBare);
    expectSoundConversion(r); // also: the damaged loci box no longer stops ffmpeg
    if (HasFatalFailure())
        return;

    std::vector<std::string> top = topLevel(boxList(r.output));
    EXPECT_LT(indexOf(top, "moov"), indexOf(top, "mdat"));
    EXPECT_LT(indexOf(top, "mdat"), top.size());
    std::vector<uint64_t> times = creationTimes(r.output);
    EXPECT_EQ(times, creationTimes(r.source));
    ASSERT_FALSE(times.empty());
    EXPECT_EQ(times[0], 1262304000u + 2082844800u);

    // A new XMP packet from the position of @xyz, not re-encoded.
    std::string xmp = asText(payload(r.output, kMetaE2EXmp));
    EXPECT_NE(xmp.find(kMetaE2ECreatorTool), std::string::npos) << xmp;
    EXPECT_EQ(payload(r.output, "moov.udta.@xyz"), payload(r.source, "moov.udta.@xyz"));
    EXPECT_NE(r.text.find("Appned New GVF-BOX.\n"), std::string::npos);

    MetaE2EExif tags = exifTags(r.output);
    EXPECT_EQ(exifValue(tags, "XMP:VideoReEncorded"), "false");
    expectNear(exifNumber(tags, "XMP-exif:GPSLatitude"), -33.8568, "XMP latitude");
    expectNear(exifNumber(tags, "XMP-exif:GPSLongitude"), 151.2153, "XMP longitude");
    std::vector<std::string> coordinates = exifValues(tags, "UserData:GPSCoordinates");
    ASSERT_EQ(coordinates.size(), 2u);
    EXPECT_EQ(coordinates[0], "-33.8568 151.2153 5");
    EXPECT_EQ(coordinates[1], "-33.8568 151.2153");
    EXPECT_NE(exifValue(tags, "UserData:LocationInformation").find("Lat=-33.85680 Lon=151.21530"), std::string::npos)
        << exifValue(tags, "UserData:LocationInformation");
    EXPECT_EQ(exifValue(tags, "XMP-GSpherical:ProjectionType"), "equirectangular");
    EXPECT_EQ(exifValue(tags, "XMP-GSpherical:StitchingSoftware"), "NARVI ORVEX::Stratomix");
    EXPECT_EQ(payload(r.output, kMetaE2ESpherical).size(), 1000u);
}

TEST(MetaE2EOlder, BoxBetweenMdatAndMoovDoesNotThrowTheChunkOffsetsOff)
{
    // Moving moov in front of mdat also puts that box in front of moov, so
    // the media data moves by more than moov's size.
    MetaE2ERun r(kMetaE2EOlderBetween);
    expectSoundConversion(r); // also the spatial chunks and the QDT9 pointer
    if (HasFatalFailure())
        return;
    std::vector<std::string> top = topLevel(boxList(r.output));
    EXPECT_LT(indexOf(top, "uuid"), indexOf(top, "moov"));
    EXPECT_LT(indexOf(top, "moov"), indexOf(top, "mdat"));
    EXPECT_LT(indexOf(top, "mdat"), top.size());
}

// ---------------------------------------------------------------- newer cameras

TEST(MetaE2ENewer, RecordedLayoutKeepsItsUdtaWithAnEquirectangularMakerNoteAndNewThumbnail)
{
    MetaE2ERun r(kMetaE2ENewerFull);
    expectSoundConversion(r);
    if (HasFatalFailure())
        return;

    auto in = boxList(r.source);
    auto out = boxList(r.output);
    std::vector<std::string> top = topLevel(out);
    EXPECT_LT(indexOf(top, "mdat"), indexOf(top, "moov"));
    EXPECT_EQ(indexOf(top, "uuid"), indexOf(top, "mdat") + 1) << "the spatial data no longer follows mdat";
    EXPECT_EQ(creationTimes(r.output), creationTimes(r.source));

    // The udta is the source's, box for box: the maker note only says
    // equirectangular now, the thumbnail is new, the rest is byte-identical
    // (the spatial data did not move, so neither did the QDT9 pointer).
    std::vector<uint8_t> src = readFile(r.source), dst = readFile(r.output);
    std::vector<MetaE2EBox> a = udtaChildren(in), b = udtaChildren(out);
    ASSERT_EQ(a.size(), b.size());
    for (size_t i = 0; i < a.size(); ++i) {
        std::string type = a[i].path.substr(10);
        EXPECT_EQ(b[i].path, a[i].path);
        EXPECT_EQ(b[i].size, a[i].size) << type;
        if (type != "QMKN" && type != "QTHU") {
            EXPECT_TRUE(boxBytes(src, a[i]) == boxBytes(dst, b[i])) << type << " changed";
        }
    }
    std::map<std::string, std::string> before = makerNote(r.source), after = makerNote(r.output);
    EXPECT_EQ(before["orvex.0x0001"], "0");
    EXPECT_EQ(after["orvex.0x0001"], "1");
    // Zenith, stabilization and rolling-shutter modes are written back as the
    // source had them (nothing in this run changes them).
    before["orvex.0x0001"] = "1";
    EXPECT_EQ(after, before);
    const MetaE2EBox* thumb = findBox(in, "moov.udta.QTHU");
    ASSERT_NE(thumb, nullptr);
    expectMakerThumbnail(r.output, thumb->size - 8, r.dir.path() / "qthu.jpg");

    // moov.meta, XMP and Spherical XML come over as they were (the XML padded).
    const MetaE2EBox* metaIn = findBox(in, "moov.meta");
    const MetaE2EBox* metaOut = findBox(out, "moov.meta");
    ASSERT_TRUE(metaIn != nullptr && metaOut != nullptr);
    EXPECT_TRUE(boxBytes(src, *metaIn) == boxBytes(dst, *metaOut));
    EXPECT_EQ(payload(r.output, kMetaE2EXmp), payload(r.source, kMetaE2EXmp));
    std::string xml = asText(payload(r.source, kMetaE2ESpherical));
    EXPECT_EQ(asText(payload(r.output, kMetaE2ESpherical)), xml + "\n" + std::string(1000 - xml.size() - 1, ' '));

    MetaE2EExif tags = exifTags(r.output);
    expectNear(exifNumber(tags, "XMP-exif:GPSLatitude"), 35.6586, "XMP latitude");
    expectNear(exifNumber(tags, "XMP-exif:GPSLongitude"), 139.7454, "XMP longitude");
    expectNear(exifNumber(tags, "XMP-exif:GPSImgDirection"), 45.6, "XMP image direction");
    EXPECT_EQ(exifValue(tags, "UserData:GPSCoordinates"), "35.6586 139.7454 40");
    EXPECT_EQ(exifValue(tags, "XMP-GSpherical:InitialViewHeadingDegrees"), "30");
    EXPECT_EQ(exifValue(tags, "XMP-GSpherical:InitialViewPitchDegrees"), "-5");
}

TEST(MetaE2ENewer, SpatialDataBehindMoovIsRepointedAndATooSmallThumbnailBoxIsFreed)
{
    MetaE2ERun r(kMetaE2ENewerMoved);
    expectSoundConversion(r); // offsetsOk: every spatial chunk in QADT, QDT9 at QADT
    if (HasFatalFailure())
        return;

    auto in = boxList(r.source);
    auto out = boxList(r.output);
    std::vector<std::string> top = topLevel(out);
    EXPECT_LT(indexOf(top, "mdat"), indexOf(top, "moov"));
    EXPECT_EQ(indexOf(top, "uuid"), indexOf(top, "moov") + 1);

    // The new Spherical XML grew moov, so the spatial data moved.
    const MetaE2EBox* qadtIn = findBox(in, "uuid.QADT");
    const MetaE2EBox* qadtOut = findBox(out, "uuid.QADT");
    ASSERT_TRUE(qadtIn != nullptr && qadtOut != nullptr);
    EXPECT_GT(qadtOut->offset, qadtIn->offset);
    std::vector<uint8_t> qdt9 = payload(r.output, "moov.udta.QDT9");
    ASSERT_GE(qdt9.size(), 16u);
    EXPECT_EQ(bigEndian(qdt9, 0, 8), qadtOut->offset);
    EXPECT_EQ(bigEndian(qdt9, 8, 8), qadtOut->size);

    // No JPEG of the output fits 1200 bytes: the box is skipped as "free",
    // zeroed, in the same place and size.
    const MetaE2EBox* thumb = findBox(in, "moov.udta.QTHU");
    ASSERT_NE(thumb, nullptr);
    EXPECT_EQ(findBox(out, "moov.udta.QTHU"), nullptr);
    std::vector<MetaE2EBox> a = udtaChildren(in), b = udtaChildren(out);
    ASSERT_EQ(a.size(), b.size());
    size_t at = 0;
    while (at < a.size() && a[at].path != "moov.udta.QTHU")
        ++at;
    ASSERT_LT(at, b.size());
    EXPECT_EQ(b[at].path, "moov.udta.free");
    EXPECT_EQ(b[at].size, thumb->size);
    std::vector<uint8_t> freed = payload(r.output, "moov.udta.free");
    EXPECT_EQ(freed, std::vector<uint8_t>(thumb->size - 8, 0));

    // The bare maker note is corrected as well.
    EXPECT_EQ(makerNote(r.output)["orvex.0x0001"], "1");

    // New XMP from @xyz and the maker note's compass; new Spherical XML.
    std::string xmp = asText(payload(r.output, kMetaE2EXmp));
    EXPECT_NE(xmp.find(kMetaE2ECreatorTool), std::string::npos) << xmp;
    MetaE2EExif tags = exifTags(r.output);
    EXPECT_EQ(exifValue(tags, "XMP:VideoReEncorded"), "false");
    expectNear(exifNumber(tags, "XMP-exif:GPSLatitude"), 35.6586, "XMP latitude");
    expectNear(exifNumber(tags, "XMP-exif:GPSLongitude"), 139.7454, "XMP longitude");
    expectNear(exifNumber(tags, "XMP-exif:GPSImgDirection"), 123.4, "XMP image direction");
    EXPECT_EQ(exifValue(tags, "UserData:GPSCoordinates"), "35.6586 139.7454 40");
    EXPECT_EQ(exifValue(tags, "XMP-GSpherical:StitchingSoftware"), "NARVI ORVEX::Stratomix");
    EXPECT_EQ(findBox(out, "moov.meta"), nullptr);
    EXPECT_EQ(findBox(out, "moov.udta.loci"), nullptr) << "no location boxes are written for newer cameras";
}

// Another tool put moov first: growing moov moves the media data and the
// spatial data behind it, and every chunk offset and QDT9 follow.
TEST(MetaE2ENewer, MoovFirstLayoutIsConvertedWithItsSpatialData)
{
    MetaE2ERun r(kMetaE2ENewerMoovFirst);
    expectSoundConversion(r); // samples (spatial audio included), chunks and QDT9
    std::vector<std::string> top = topLevel(boxList(r.output));
    EXPECT_LT(indexOf(top, "moov"), indexOf(top, "mdat"));
    EXPECT_EQ(makerNote(r.output)["orvex.0x0001"], "1");
}

TEST(MetaE2ENewer, MovieWithoutCameraBoxesKeepsItsUdtaAndGetsNewXmp)
{
    MetaE2ERun r(kMetaE2ENewerPlain);
    expectSoundConversion(r);
    if (HasFatalFailure())
        return;

    auto in = boxList(r.source);
    auto out = boxList(r.output);
    const MetaE2EBox* a = findBox(in, "moov.udta");
    const MetaE2EBox* b = findBox(out, "moov.udta");
    ASSERT_TRUE(a != nullptr && b != nullptr);
    EXPECT_TRUE(boxBytes(readFile(r.source), *a) == boxBytes(readFile(r.output), *b));
    EXPECT_NE(findBox(out, "moov.meta"), nullptr);

    std::string xmp = asText(payload(r.output, kMetaE2EXmp));
    EXPECT_NE(xmp.find(kMetaE2ECreatorTool), std::string::npos) << xmp;
    EXPECT_EQ(xmp.find("GPSLatitude"), std::string::npos) << "no position to write";
    MetaE2EExif tags = exifTags(r.output);
    EXPECT_EQ(exifValue(tags, "XMP:VideoReEncorded"), "false");
    EXPECT_EQ(exifValue(tags, "XMP-GSpherical:StitchingSoftware"), "NARVI ORVEX C1 Stitcher");
}

// ---------------------------------------------------------------- options

TEST(MetaE2EOptions, ViewOptionsRewriteTheInitialView)
{
    {
        SCOPED_TRACE("-view:90,10 on an older camera movie");
        MetaE2ERun r(kMetaE2EOlderFull, "-view:90,10");
        expectSoundConversion(r);
        std::string xml = asText(payload(r.output, kMetaE2ESpherical));
        EXPECT_EQ(xml.size(), 1000u);
        EXPECT_NE(xml.find("  <GSpherical:InitialViewHeadingDegrees>90</GSpherical:InitialViewHeadingDegrees>\n"),
                  std::string::npos)
            << xml;
        EXPECT_NE(xml.find("  <GSpherical:InitialViewPitchDegrees>10</GSpherical:InitialViewPitchDegrees>\n"),
                  std::string::npos)
            << xml;
        MetaE2EExif tags = exifTags(r.output);
        EXPECT_EQ(exifValue(tags, "XMP-GSpherical:InitialViewHeadingDegrees"), "90");
        EXPECT_EQ(exifValue(tags, "XMP-GSpherical:InitialViewPitchDegrees"), "10");
        EXPECT_EQ(exifValue(tags, "XMP-GSpherical:StitchingSoftware"), "NARVI ORVEX B1 Stitcher");
        EXPECT_EQ(exifValue(tags, "XMP-GSpherical:InitialHorizontalFOVDegrees"), "(none)");
    }
    {
        SCOPED_TRACE("-view:- on a newer camera movie whose view is set");
        MetaE2ERun r(kMetaE2ENewerFull, "-view:-");
        expectSoundConversion(r);
        std::string xml = asText(payload(r.output, kMetaE2ESpherical));
        EXPECT_EQ(xml.size(), 1000u);
        EXPECT_EQ(xml.find("InitialView"), std::string::npos) << xml;
        MetaE2EExif tags = exifTags(r.output);
        EXPECT_EQ(exifValue(tags, "XMP-GSpherical:InitialViewHeadingDegrees"), "(none)");
        EXPECT_EQ(exifValue(tags, "XMP-GSpherical:StitchingSoftware"), "NARVI ORVEX C1 Stitcher");
        EXPECT_EQ(exifValue(tags, "XMP-GSpherical:ProjectionType"), "equirectangular");
    }
}

TEST(MetaE2EOptions, ThumbnailOptionWritesAFullSizeJpegAndItsFailureIsNoFailure)
{
    {
        SCOPED_TRACE("thumbnail written");
        TempDir spare;
        fs::path jpeg = spare.path() / "thumb.jpg";
        MetaE2ERun r(kMetaE2EOlderFull, "-thumb:" + q(jpeg));
        expectSoundConversion(r);
        ASSERT_TRUE(fs::exists(jpeg)) << r.text;
        EXPECT_EQ(pictureFormat(jpeg), "mjpeg,960,480");
        std::string why;
        EXPECT_TRUE(decodesCleanly(jpeg, &why)) << why;
    }
    {
        SCOPED_TRACE("thumbnail folder missing");
        TempDir spare;
        fs::path jpeg = spare.path() / "missing" / "thumb.jpg";
        MetaE2ERun r(kMetaE2EOlderFull, "-thumb:" + q(jpeg));
        EXPECT_EQ(r.status, 0) << r.text;
        EXPECT_NE(r.text.find("thumbnailer(" + jpeg.string() + ") failed.\n"), std::string::npos) << r.text;
        EXPECT_TRUE(endsWith(r.text, " [sec]\n")) << r.text;
        std::string why;
        EXPECT_TRUE(decodesCleanly(r.output, &why)) << why;
        EXPECT_FALSE(fs::exists(jpeg));
        expectSourceKept(r);
    }
}

// ---------------------------------------------------------------- failures

TEST(MetaE2EFailures, FailedStagesPrintTheirLineAndTheUsage)
{
    {
        SCOPED_TRACE("output folder missing");
        MetaE2ERun r(kMetaE2EOlderFull, "", "missing/output.mp4");
        EXPECT_EQ(r.status, 1);
        EXPECT_TRUE(endsWith(r.text, "updateMeta failed.\n" + metaE2EUsage(r.source.string(), r.output.string())))
            << r.text;
        EXPECT_FALSE(fs::exists(r.output));
        expectSourceKept(r);
    }
    {
        SCOPED_TRACE("refused before writing: a file already at the output path stays");
        // moov claims a byte past the end of the file: no edit of it is made.
        auto damage = [](const fs::path& movie) {
            std::vector<uint8_t> bytes = readFile(movie);
            const std::string tree = boxTree(movie);
            const size_t at = std::stoull(tree.substr(tree.find("\nmoov @") + 7));
            const uint32_t size = uint32_t(bytes.size() - at + 1);
            for (int i = 0; i < 4; ++i)
                bytes[at + i] = uint8_t(size >> (24 - 8 * i));
            writeFile(movie, bytes);
        };
        MetaE2ERun r(kMetaE2ENewerFull, "", "out/output.mp4", "an earlier result", damage);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.text.find("updateMeta failed.\n"), std::string::npos) << r.text;
        EXPECT_TRUE(asText(readFile(r.output)) == "an earlier result") << "the earlier output was replaced";
        expectSourceKept(r);
    }
}

TEST(MetaE2EFailures, CommandLineMistakesEndWithStatusOne)
{
    TempDir dir;
    std::string text;
    // Run in a scratch folder: the default paths ./images/... must not exist.
    const std::string cd = "cd " + q(dir.path()) + " && ";
    EXPECT_EQ(run(cd + resizeCommand() + " -h", &text), 1);
    EXPECT_EQ(text, metaE2EUsage("./images/source.mp4", "./images/resize.mp4"));
    EXPECT_EQ(run(cd + resizeCommand() + " -view:90", &text), 1);
    EXPECT_EQ(text, "invalid arguments for -view:\n" + metaE2EUsage("./images/source.mp4", "./images/resize.mp4"));
    EXPECT_EQ(run(cd + resizeCommand() + " -kill:0", &text), 1);
    EXPECT_EQ(text, "");
    EXPECT_TRUE(fs::is_empty(dir.path()));
}

// ---------------------------------------------------------------- data safety

TEST(MetaE2ESafety, OutputNamingTheSourceIsRefusedBeforeAnythingIsWritten)
{
    TempDir dir;
    fs::path source = copyMovie(kMetaE2EOlderFull, dir.path() / "source.mp4");
    std::vector<uint8_t> original = readFile(source);
    fs::create_directories(dir.path() / "links");
    fs::create_hard_link(source, dir.path() / "links" / "hard.mp4");
    fs::create_symlink(source, dir.path() / "links" / "soft.mp4");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"same path", q(source) + " " + q(source)},
        {"same file through another spelling", q(source) + " " + q(dir.path() / "links" / ".." / "source.mp4")},
        {"hard link", q(source) + " " + q(dir.path() / "links" / "hard.mp4")},
        {"symbolic link as output", q(source) + " " + q(dir.path() / "links" / "soft.mp4")},
        {"symbolic link as source", q(dir.path() / "links" / "soft.mp4") + " " + q(source)},
        {"with a re-encode option", "-vw:480 " + q(source) + " " + q(dir.path() / "links" / "hard.mp4")},
    };
    for (const auto& [what, words] : cases) {
        SCOPED_TRACE(what);
        std::string text;
        EXPECT_EQ(run(resizeCommand() + " " + words, &text), 1);
        EXPECT_NE(text.find("is the source movie itself.\n"), std::string::npos) << text;
        EXPECT_EQ(text.find("processing meta"), std::string::npos) << text;
        EXPECT_TRUE(readFile(source) == original) << "the source changed";
        EXPECT_TRUE(fs::is_symlink(dir.path() / "links" / "soft.mp4"));
        EXPECT_TRUE(fs::exists(dir.path() / "links" / "hard.mp4"));
        EXPECT_EQ(leftovers(dir.path()), "");
    }
}

TEST(MetaE2ESafety, OutputNameThatIsNotTextIsRefusedRatherThanCut)
{
    // "out\xe9.mp4" is no UTF-8 text; cut at the bad byte it would name the
    // file "out" that stands beside it.
    TempDir dir;
    fs::path source = copyMovie(kMetaE2EOlderFull, dir.path() / "source.mp4");
    writeFile(dir.path() / "out", {'k', 'e', 'e', 'p'});
    std::string text;
    EXPECT_EQ(run("cd " + q(dir.path()) + " && " + resizeCommand() + " source.mp4 \"$(printf 'out\\351.mp4')\"", &text),
              1);
    EXPECT_EQ(text, "argument 2 is not readable text in this locale.\n");
    EXPECT_TRUE(asText(readFile(dir.path() / "out")) == "keep") << "the file \"out\" was overwritten";
    size_t files = 0;
    for (const auto& e : fs::directory_iterator(dir.path()))
        files += e.is_regular_file() ? 1 : 0;
    EXPECT_EQ(files, 2u);
}

} // namespace
