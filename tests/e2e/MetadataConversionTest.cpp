// The metadata-only conversion end to end: the real Resize command copies a
// synthetic camera movie to a new file while rebuilding its metadata. Every
// result is judged by tools we did not write: ffmpeg must decode it without a
// word, every media sample must keep its bytes, boxes must nest and chunks lie
// in their media data (mp4check.py), ffprobe must see a spherical video and
// exiftool must read the position, the view and the XMP fields.
#include "ByteArray.h"
#include "Tools.h"

#include <gtest/gtest.h>
#include <set>

using namespace testsupport;

namespace {

// The camera movies (make_movie.py options), each built once and shared.
// An older camera (code below 0x20001), media first behind a 64-bit mdat
// header, with every box it writes.
const std::string kOlderFull = "--model older --mdat-largesize";
// An older camera, moov first with co64 chunk tables and a position south of
// the equator, without the optional boxes, and with a loci box cut short
// (ffmpeg refuses the source because of it).
const std::string kOlderBare = "--model older --layout moov-first --co64 --gps=-33.8568+151.2153+005.000/ --no-xmp "
                               "--no-sph --no-axis --no-meta --no-thumb --qmkn none --no-sensors --loci bad";
// A newer camera as it records: media first, spatial data right behind
// mdat; its maker note says "not equirectangular" and its Spherical XML
// holds an initial view.
const std::string kNewerFull = "--model newer --projection 0 --sph-heading 30 --sph-pitch -5";
// A newer camera whose spatial data lies behind moov, so that growing moov
// moves it; a bare maker note with stabilization off; a thumbnail box too
// small for a new thumbnail; big-endian sensor boxes; no XMP, Spherical XML,
// loci or GPS meta.
const std::string kNewerMoved = "--model newer --spatial after-moov --no-xmp --no-sph --no-loci --no-meta "
                                "--qmkn narvi --stabilization 2 --thumb-size 1200 --sensor-endian big";

const std::string kXmp = uuidSegment(kXmpUUID), kSpherical = "moov.trak." + uuidSegment(kSphericalUUID);
const char kNewCreatorTool[] = "<x:CreatorTool>NARVI ORVEX::Resize.osx 2.8.3.2019.07.25</x:CreatorTool>";

// One run of Resize on a copy of a shared movie: the source sits in "in",
// the output goes to "out", so that leftovers in either show.
struct Conversion {
    TempDir dir;
    fs::path source, output;
    Bytes before, after;
    int status = -1;
    std::string text; // what the command printed
    // earlier, when given, is put at the output path before the run.
    explicit Conversion(const std::string& recipe, const std::string& options = "",
                        const std::string& outputName = "out/output.mp4", const Bytes& earlier = {},
                        void (*damage)(Bytes&) = nullptr)
    {
        fs::create_directories(dir / "in");
        fs::create_directories(dir / "out");
        source = copyMovie(recipe, dir / "in" / "source.mp4");
        before = readFile(source);
        if (damage) {
            damage(before);
            writeFile(source, before);
        }
        output = dir / outputName;
        if (!earlier.empty())
            writeFile(output, earlier);
        status = run(resize() + " " + options + " " + q(source) + " " + q(output), &text);
        after = readFile(output);
    }
    // The source's udta boxes lead the output's, each of its size and, but
    // for those named in changed, of its type and bytes; returns the types
    // of the boxes added behind them.
    std::string udtaAdded(const std::set<std::string>& changed = {}) const
    {
        const std::vector<BoxAt> in = findAll(before, "moov.udta.*"), out = findAll(after, "moov.udta.*");
        std::string added;
        for (size_t i = 0; i < out.size(); ++i)
            if (i >= in.size())
                added += out[i].type;
            else
                EXPECT_TRUE(out[i].size == in[i].size &&
                            (changed.count(in[i].type) || slice(after, out[i].start, out[i].size) == slice(before, in[i].start, in[i].size)))
                    << in[i].type << " changed";
        EXPECT_GE(out.size(), in.size());
        return added;
    }
};

void expectSourceKept(const Conversion& r)
{
    EXPECT_TRUE(readFile(r.source) == r.before) << "the source movie changed";
    EXPECT_EQ(leftovers(r.dir.path()), "");
}

// What every successful metadata-only conversion must give.
void expectSound(const Conversion& r)
{
    ASSERT_EQ(r.status, 0) << r.text;
    std::string why;
    EXPECT_TRUE(decodesCleanly(r.output, &why)) << why;
    EXPECT_TRUE(samplesEqual(r.source, r.output, &why)) << why;
    EXPECT_TRUE(nestingOk(r.output, &why)) << why;
    EXPECT_TRUE(offsetsOk(r.output, &why)) << why;
    EXPECT_EQ(probe(r.output, "v:0", "stream_side_data=projection"), "equirectangular");
    EXPECT_TRUE(r.text.ends_with(" [sec]\n")) << r.text;
    EXPECT_EQ(r.text.find("update failed"), std::string::npos) << r.text; // nothing to do is no failure
    EXPECT_EQ(r.text.find("can't read"), std::string::npos) << r.text;     // notes in either byte order
    EXPECT_EQ(r.text.find("parse failed"), std::string::npos) << r.text;
    EXPECT_EQ(creationTimes(r.after), creationTimes(r.before));
    expectSphericalV2(r.output);
    expectSourceKept(r);
}

// The Spherical XML of the source, padded to 1000 bytes so that a later edit
// can rewrite it in place.
void expectPaddedXml(const Conversion& r)
{
    std::string xml = payloadText(r.source, kSpherical);
    EXPECT_EQ(payloadText(r.output, kSpherical), xml + "\n" + std::string(1000 - xml.size() - 1, ' '));
}

TEST(MetaE2EOlder, MediaFirstMovieWithEveryBoxGetsMoovFirstAndKeepsItsMetadata)
{
    TempDir spare; // -thumb: a full-size JPEG of the output beside it
    Conversion r(kOlderFull, "-thumb:" + q(spare / "thumb.jpg"));
    expectSound(r);
    EXPECT_EQ(probe(spare / "thumb.jpg", "v:0", "stream=codec_name,width,height"), "mjpeg\n960\n480");
    EXPECT_TRUE(decodesCleanly(spare / "thumb.jpg"));
    EXPECT_EQ(topLevel(r.after), "ftyp free moov free mdat uuid uuid");
    // The source's XMP has a position, so it is kept as it was; so are the
    // axis record and the camera's own udta boxes. The rebuild adds the
    // ISO 6709 text box beside @xyz.
    EXPECT_EQ(payloadText(r.output, kXmp), payloadText(r.source, kXmp));
    EXPECT_EQ(payloadText(r.output, uuidSegment(kAxisUUID)), payloadText(r.source, uuidSegment(kAxisUUID)));
    EXPECT_EQ(r.udtaAdded(), "\xA9xyz");
    expectPaddedXml(r);
    Exif tags = exif(r.output);
    EXPECT_EQ(tags["UserData:GPSCoordinates"], "35.6586 139.7454 40 | 35.6586 139.7454");
    EXPECT_NE(tags["UserData:LocationInformation"].find("Lat=35.65860 Lon=139.74541"), std::string::npos);
    EXPECT_NEAR(std::stod(tags["XMP-exif:GPSImgDirection"]), 45.6, 1e-3);
    EXPECT_EQ(tags["XMP-GSpherical:StitchingSoftware"], "NARVI ORVEX B1 Stitcher");
}

TEST(MetaE2EOlder, MoovFirstMovieWithoutOptionalBoxesGetsNewMetadata)
{
    Conversion r(kOlderBare, "", "out/\xE6\x97\xA5\xE6\x9C\xAC-caf\xC3\xA9.mp4"); // an output name beyond ASCII
    expectSound(r); // also: the damaged loci box no longer stops ffmpeg
    EXPECT_EQ(topLevel(r.after), "ftyp moov free mdat uuid");
    EXPECT_EQ(creationTimes(r.after).at(0), 1564048800u + 2082844800u);
    EXPECT_NE(r.text.find("Appned New GVF-BOX.\n"), std::string::npos) << r.text;
    // A new XMP packet from the position of @xyz, not re-encoded.
    EXPECT_NE(payloadText(r.output, kXmp).find(kNewCreatorTool), std::string::npos);
    EXPECT_EQ(payload(r.output, "moov.udta.@xyz"), payload(r.source, "moov.udta.@xyz"));
    EXPECT_EQ(payloadText(r.output, kSpherical).size(), 1000u);
    Exif tags = exif(r.output);
    EXPECT_EQ(tags["XMP:VideoReEncorded"], "false");
    EXPECT_NEAR(std::stod(tags["XMP-exif:GPSLatitude"]), -33.8568, 1e-3);
    EXPECT_NEAR(std::stod(tags["XMP-exif:GPSLongitude"]), 151.2153, 1e-3);
    EXPECT_EQ(tags["UserData:GPSCoordinates"], "-33.8568 151.2153 5 | -33.8568 151.2153");
    EXPECT_NE(tags["UserData:LocationInformation"].find("Lat=-33.85680 Lon=151.21530"), std::string::npos);
    EXPECT_EQ(tags["XMP-GSpherical:StitchingSoftware"], "NARVI ORVEX::Stratomix");
}

TEST(MetaE2EOlder, BoxBetweenMdatAndMoovDoesNotThrowTheChunkOffsetsOff)
{
    // Moving moov in front of mdat also puts that box (spatial data, which
    // these cameras do not record, stands in for any) in front of moov, so
    // the media data moves by more than moov's size.
    Conversion r("--model older --spatial after-mdat");
    expectSound(r); // also the spatial chunks and the QDT9 pointer
    EXPECT_EQ(topLevel(r.after), "ftyp free spatial moov free mdat uuid uuid");
}

TEST(MetaE2ENewer, RecordedLayoutKeepsItsUdtaWithAnEquirectangularMakerNoteAndNewThumbnail)
{
    Conversion r(kNewerFull);
    expectSound(r);
    EXPECT_EQ(topLevel(r.after), "ftyp free mdat spatial moov uuid uuid");
    // The udta is the source's, box for box: the maker note only says
    // equirectangular now, the thumbnail is new, the rest is byte-identical
    // (the spatial data did not move, so neither did the QDT9 pointer).
    EXPECT_EQ(r.udtaAdded({"QMKN", "QTHU"}), "");
    expectOnlyProjectionCorrected(r.source, r.output);
    expectMakerThumbnail(r.output, findOne(r.before, "moov.udta.QTHU")->size - 8, r.dir / "qthu.jpg");

    // moov.meta and XMP come over as they were, the Spherical XML padded.
    EXPECT_EQ(payloadText(r.output, "moov.meta"), payloadText(r.source, "moov.meta"));
    EXPECT_EQ(payloadText(r.output, kXmp), payloadText(r.source, kXmp));
    expectPaddedXml(r);
    Exif tags = exif(r.output);
    EXPECT_NEAR(std::stod(tags["XMP-exif:GPSLatitude"]), 35.6586, 1e-3);
    EXPECT_EQ(tags["UserData:GPSCoordinates"], "35.6586 139.7454 40");
    EXPECT_EQ(tags["XMP-GSpherical:InitialViewHeadingDegrees"], "30");
    EXPECT_EQ(tags["XMP-GSpherical:InitialViewPitchDegrees"], "-5");
}

TEST(MetaE2ENewer, SpatialDataBehindMoovIsRepointedAndATooSmallThumbnailBoxIsFreed)
{
    Conversion r(kNewerMoved);
    expectSound(r); // offsetsOk: every spatial chunk in QADT, QDT9 at QADT
    EXPECT_EQ(topLevel(r.after), "ftyp free mdat moov spatial uuid uuid");
    // The new Spherical XML grew moov, so the spatial data moved.
    BoxAt qadt = *findOne(r.after, "uuid.QADT");
    EXPECT_GT(qadt.start, findOne(r.before, "uuid.QADT")->start);
    Bytes qdt9 = payload(r.output, "moov.udta.QDT9");
    EXPECT_EQ(get64(qdt9, 0), qadt.start);
    EXPECT_EQ(get64(qdt9, 8), qadt.size);
    // No JPEG of the output fits 1200 bytes: the box is skipped as "free",
    // zeroed, in the same place and size.
    EXPECT_EQ(r.udtaAdded({"QMKN", "QTHU", "QDT9"}), "");
    const BoxAt freed = findAll(r.after, "moov.udta.*").at(2);
    EXPECT_EQ(freed.type, "free");
    EXPECT_EQ(slice(r.after, freed.body(), freed.size - 8), Bytes(freed.size - 8, 0));
    expectOnlyProjectionCorrected(r.source, r.output); // the bare maker note as well

    // New XMP from @xyz and the maker note's compass; new Spherical XML.
    EXPECT_NE(payloadText(r.output, kXmp).find(kNewCreatorTool), std::string::npos);
    Exif tags = exif(r.output);
    EXPECT_EQ(tags["XMP:VideoReEncorded"], "false");
    EXPECT_NEAR(std::stod(tags["XMP-exif:GPSLongitude"]), 139.7454, 1e-3);
    EXPECT_NEAR(std::stod(tags["XMP-exif:GPSImgDirection"]), 123.4, 1e-3);
    EXPECT_EQ(tags["XMP-GSpherical:StitchingSoftware"], "NARVI ORVEX::Stratomix");
    EXPECT_FALSE(findOne(r.after, "moov.meta"));
    EXPECT_FALSE(findOne(r.after, "moov.udta.loci")) << "no location boxes are written for newer cameras";
}

TEST(MetaE2ENewer, LittleEndianMakerNoteIsCorrectedToo)
{
    Conversion r("--model newer --qmkn tiff-le --projection 0");
    expectSound(r);
    expectOnlyProjectionCorrected(r.source, r.output, false);
}

TEST(MetaE2ENewer, HevcMovieGetsSphericalV2InItsHvc1Entry)
{
    Conversion r("--model newer --codec h265");
    expectSound(r); // V1 and V2 agree
    EXPECT_EQ(findAll(r.after, "moov.trak.mdia.minf.stbl.stsd.hvc1.sv3d").size(), 1u);
}

// Another tool put moov first: growing moov moves the media data and the
// spatial data behind it, and every chunk offset and QDT9 follow.
TEST(MetaE2ENewer, MoovFirstLayoutIsConvertedWithItsSpatialData)
{
    Conversion r("--model newer --layout moov-first");
    expectSound(r); // the spatial-audio samples, chunks and QDT9 included
    EXPECT_EQ(topLevel(r.after), "ftyp moov free mdat spatial uuid uuid");
    expectOnlyProjectionCorrected(r.source, r.output);
}

TEST(MetaE2EOptions, ViewOptionsRewriteTheInitialView)
{
    // Brought into range once, by one rule: V1 and V2 tell the same view.
    Conversion set(kOlderFull, "-view:540,100");
    expectSound(set); // V2 says yaw -180, pitch 90
    EXPECT_EQ(payloadText(set.output, kSpherical).size(), 1000u);
    Exif tags = exif(set.output);
    EXPECT_EQ(tags["XMP-GSpherical:InitialViewHeadingDegrees"], "-180");
    EXPECT_EQ(tags["XMP-GSpherical:InitialViewPitchDegrees"], "90");
    EXPECT_EQ(tags.count("XMP-GSpherical:InitialHorizontalFOVDegrees"), 0u);

    // Converted again: the V2 boxes are rewritten, not added to.
    TempDir again;
    std::string text;
    ASSERT_EQ(run(resize() + " -view:-45,-20 " + q(set.output) + " " + q(again / "again.mp4"), &text), 0) << text;
    expectSphericalV2(again / "again.mp4");
    EXPECT_EQ(exif(again / "again.mp4")["Track1:PoseYawDegrees"], "-45");

    Conversion cleared(kNewerFull, "-view:-");
    expectSound(cleared); // V2 says yaw 0, pitch 0
    EXPECT_EQ(payloadText(cleared.output, kSpherical).find("InitialView"), std::string::npos);
    EXPECT_EQ(exif(cleared.output)["XMP-GSpherical:ProjectionType"], "equirectangular");
}

TEST(MetaE2EOptions, ThumbnailThatCannotBeWrittenIsNoFailure)
{
    TempDir spare;
    Conversion r(kOlderFull, "-thumb:" + q(spare / "missing" / "thumb.jpg"));
    expectSound(r);
    EXPECT_NE(r.text.find("thumbnailer(" + (spare / "missing" / "thumb.jpg").string() + ") failed.\n"), std::string::npos);
}

TEST(MetaE2EFailures, FailedStagesPrintTheirLineAndTheUsageAndLeaveNoOutput)
{
    // A file the run refused to touch stays; one it began is removed. A
    // track that claims to run past moov cannot be edited: refused before
    // anything is written.
    auto trackPastMoov = [](Bytes& f) {
        const size_t at = findOne(f, "moov.trak")->start;
        f[at] = 0x7F, f[at + 1] = 0xFF; // 2 GiB
    };
    struct Case {
        const char* what;
        std::string recipe, output;
        Bytes earlier;
        void (*damage)(Bytes&);
    } cases[] = {{"output folder missing", kOlderFull, "missing/output.mp4", {}, nullptr},
                 {"a track running past moov", kNewerFull, "out/output.mp4", {}, trackPastMoov},
                 {"the same with an earlier output in place", kNewerFull, "out/output.mp4", {'o', 'l', 'd'}, trackPastMoov}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Conversion r(c.recipe, "", c.output, c.earlier, c.damage);
        EXPECT_EQ(r.status, 1);
        // A missing folder is found before any work, when the output's
        // temporary file cannot be made beside it.
        const std::string line = c.damage ? "updateMeta failed.\n"
                                          : "writing " + r.output.string() + " failed: No such file or directory\n";
        EXPECT_TRUE(r.text.ends_with(line + usage(r.source.string(), r.output.string()))) << r.text;
        EXPECT_EQ(r.after, c.earlier);
        EXPECT_EQ(fs::exists(r.output), !c.earlier.empty());
        expectSourceKept(r);
    }
}

TEST(MetaE2EFailures, CommandLineMistakesEndWithStatusOne)
{
    TempDir dir;
    std::string text;
    // In a scratch folder: the default paths ./images/... must not exist.
    const std::string resizeHere = "cd " + q(dir.path()) + " && " + resize();
    EXPECT_EQ(run(resizeHere + " -view:90", &text), 1);
    EXPECT_EQ(text, "invalid arguments for -view:\n" + usage("./images/source.mp4", "./images/resize.mp4"));
    EXPECT_EQ(run(resizeHere + " -kill:0", &text), 1); // not a signal to the whole process group
    EXPECT_EQ(text, "");
    // "out\xe9.mp4" is no UTF-8 text; cut at the bad byte it would name "out".
    writeFile(dir / "out", {'k', 'e', 'e', 'p'});
    EXPECT_EQ(run(resizeHere + " source.mp4 \"$(printf 'out\\351.mp4')\"", &text), 1);
    EXPECT_EQ(text, "argument 2 is not readable text in this locale.\n");
    EXPECT_EQ(readFile(dir / "out"), (Bytes{'k', 'e', 'e', 'p'}));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);

    // A source that cannot be converted: its path and the reason, the usage
    // text, and nothing else (no probe, no output).
    fs::create_directory(dir / "folder.mp4");
    Bytes cut = readFile(sharedMovie(kNewerFull));
    cut.resize(4000); // ftyp and the start of mdat: the recording was cut short
    writeFile(dir / "cut.mp4", cut);
    writeFile(dir / "notes.mp4", {'h', 'e', 'l', 'l', 'o'});
    for (const auto& [name, reason] : {std::pair{"missing.mp4", "No such file or directory"}, {"folder.mp4", "Is a directory"},
                                       {"notes.mp4", "not an MP4 movie"}, {"cut.mp4", "not an MP4 movie (no moov box)"}}) {
        EXPECT_EQ(run(resizeHere + " -vw:640 " + name + " new.mp4", &text), 1);
        EXPECT_EQ(text, std::string(name) + ": " + reason + "\n" + usage(name, "new.mp4"));
    }
    EXPECT_FALSE(fs::exists(dir / "new.mp4"));
}

TEST(MetaE2EFailures, EveryRefusalNamesItsReasonBeforeAnyWork)
{
    TempDir dir;
    const fs::path source = copyMovie(kNewerFull, dir / "source.mp4"), out = dir / "out.mp4";
    fs::create_directory(dir / "folder");
    Bytes damaged = readFile(source);
    const BoxAt moov = *findOne(damaged, "moov");
    put32be(damaged.data() + moov.start, uint32_t(damaged.size())); // runs past the end of the file
    writeFile(dir / "damaged.mp4", damaged);
    const std::string src = q(source);
    const std::pair<std::string, std::string> cases[] = {
        {"-ss:5 " + src + " " + q(out), "-ss:5 keeps nothing: the movie is 2.00 s long.\n"},
        {"-ss:2 -to:1 " + src + " " + q(out), "-ss:2 -to:1 keeps nothing: the range ends where or before it starts"},
        {"-to:0 " + src + " " + q(out), "-ss:0 -to:0 keeps nothing"},
        {"-vb:8Mb " + src + " " + q(out), "-vb:8Mb is not a bit rate: give a positive number of bits per second"},
        {"-vb:500 " + src + " " + q(out), "-vb:500: the encoder takes at least 1000 bits per second.\n"},
        {"-vw:100000 " + src + " " + q(out), "-vw:100000: the encoders take frames at most 16384 wide.\n"},
        {src + " " + q(dir / "folder") + "/", "output " + (dir / "folder").string() + "/: Is a directory\n"},
        {q(dir / "damaged.mp4") + " " + q(out), ": damaged movie box: it runs past the end of the file\n"},
    };
    for (const auto& [words, line] : cases) {
        SCOPED_TRACE(words);
        std::string text;
        EXPECT_EQ(run(resize() + " " + words, &text), 1);
        EXPECT_NE(text.find(line), std::string::npos) << text;
        EXPECT_NE(text.find("usage: Resize.osx"), std::string::npos) << text;
        EXPECT_EQ(text.find("processing"), std::string::npos) << "work began\n" << text;
        EXPECT_FALSE(fs::exists(out));
        EXPECT_EQ(leftovers(dir.path()), "");
    }
    // A thumbnail that cannot be written is said before the work, which
    // goes on.
    std::string text;
    EXPECT_EQ(run(resize() + " -thumb:" + q(dir / "nofolder" / "t.jpg") + " " + src + " " + q(out), &text), 0) << text;
    const size_t said = text.find("writing " + (dir / "nofolder" / "t.jpg").string() + " failed: No such file or directory\n");
    EXPECT_LT(said, text.find("processing meta")) << text;
}

} // namespace
