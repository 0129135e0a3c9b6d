#pragma once
// Running the commands, and reading movies through tools we did not write
// (ffprobe, ffmpeg, exiftool, the independent checker).
#include "BoxWalk.h"
#include "Movies.h"

#include <cmath>
#include <gtest/gtest.h>
#include <map>
#include <sstream>

namespace testsupport {

inline std::string resize() { return q(binaryDir() / "bin" / "Resize"); }

// A digest of a file's bytes, for files too large to keep in memory twice.
inline std::string md5(const fs::path& file)
{
    std::string out;
    run("md5sum < " + q(file), &out);
    return out;
}

// The usage text that ends every failed run.
inline std::string usage(const std::string& source, const std::string& output)
{
    return "\nResize 2.8.3.2019.07.25\nusage: Resize.osx [options] [source.mp4] [output.mp4]\n"
           "  source.mp4     : input file.\n    " +
           source + "\n  output.mp4     : output file.\n    " + output + "\n\n";
}

// Files under dir whose names mark a temporary copy.
inline std::string leftovers(const fs::path& dir)
{
    std::string found;
    for (const auto& e : fs::recursive_directory_iterator(dir))
        if (e.path().filename().string().find(".tmp") != std::string::npos)
            found += e.path().string() + "\n";
    return found;
}

// ffprobe's values of the entries ("stream=width,height") for one stream
// ("v:0", "a:0") or, with no stream, the container; one a line.
inline std::string probe(const fs::path& file, const std::string& stream, const std::string& entries)
{
    std::string out;
    run("ffprobe -v error " + (stream.empty() ? "" : "-select_streams " + stream) + " -show_entries " + entries +
            " -of default=nw=1:nk=1 " + q(file),
        &out);
    while (!out.empty() && (out.back() == '\n' || out.back() == ','))
        out.pop_back();
    return out;
}

// Positions of the key frames among the video packets, in decode order.
inline std::vector<int> keyFrames(const fs::path& file)
{
    std::string text = probe(file, "v:0", "packet=flags"), line;
    std::vector<int> keys;
    std::istringstream lines(text);
    for (int i = 0; std::getline(lines, line); ++i)
        if (line.starts_with("K"))
            keys.push_back(i);
    return keys;
}

// The payload of the first box at the path, as mp4check reads it.
inline Bytes payload(const fs::path& file, const std::string& path)
{
    Bytes out;
    EXPECT_TRUE(boxPayload(file, path, out)) << "no " << path << " in " << file;
    return out;
}
inline std::string payloadText(const fs::path& file, const std::string& path)
{
    const Bytes b = payload(file, path);
    return std::string(b.begin(), b.end());
}

// Creation times of mvhd and of every track's tkhd and mdhd, in file order.
inline std::vector<uint64_t> creationTimes(const Bytes& f)
{
    std::vector<uint64_t> out;
    for (const char* path : {"moov.mvhd", "moov.trak.tkhd", "moov.trak.mdia.mdhd"})
        for (const BoxAt& b : findAll(f, path))
            out.push_back(f[b.body()] == 1 ? get64(f, b.body() + 4) : get32(f, b.body() + 4));
    return out;
}

// exiftool's reading of the file, numbers as numbers: "Group:Tag" -> value
// (the values of a repeated tag joined by " | ").
using Exif = std::map<std::string, std::string>;
inline Exif exif(const fs::path& file)
{
    std::string text, line;
    run("exiftool -a -G1 -n -S " + q(file), &text);
    Exif tags;
    std::istringstream in(text);
    while (std::getline(in, line)) {
        size_t close = line.find("] "), colon = line.find(": ", close);
        if (line.starts_with("[") && close != std::string::npos && colon != std::string::npos) {
            std::string& v = tags[line.substr(1, close - 1) + ":" + line.substr(close + 2, colon - close - 2)];
            v += (v.empty() ? "" : " | ") + line.substr(colon + 2);
        }
    }
    return tags;
}

// Spherical Video V2 beside V1, telling the same initial view: exiftool reads
// the V2 pose (the V1 heading brought into -180..180, the V1 pitch, 0 where
// V1 has none), zero bounds and the tool that wrote them; ffprobe's
// spherical side data has the same yaw and pitch; the video sample entry
// holds one sv3d box.
inline void expectSphericalV2(const fs::path& file)
{
    Exif tags = exif(file);
    auto degrees = [&](const std::string& tag) {
        return tags.count(tag) ? std::stod(tags[tag]) : tag.starts_with("XMP") ? 0.0 : NAN;
    };
    const double yaw = std::remainder(degrees("XMP-GSpherical:InitialViewHeadingDegrees"), 360.0);
    const double pitch = degrees("XMP-GSpherical:InitialViewPitchDegrees");
    EXPECT_EQ(degrees("Track1:PoseYawDegrees"), yaw);
    EXPECT_EQ(degrees("Track1:PosePitchDegrees"), pitch);
    EXPECT_EQ(degrees("Track1:PoseRollDegrees"), 0.0);
    EXPECT_EQ(tags["Track1:ProjectionBoundsTop"] + tags["Track1:ProjectionBoundsRight"], "00");
    EXPECT_EQ(tags["Track1:MetadataSource"], "NARVI ORVEX::Resize.osx 2.8.3.2019.07.25");
    std::ostringstream side;
    side << yaw << "\n" << pitch;
    EXPECT_EQ(probe(file, "v:0", "stream_side_data=yaw,pitch"), side.str());
    EXPECT_EQ(findAll(readFile(file), "moov.trak.mdia.minf.stbl.stsd.*.sv3d").size(), 1u);
}

// The maker note of after is that of before with its projection type set to
// equirectangular (1) and nothing else changed: the value of the ORVEX
// entry 0x0001, SHORT[1], in the maker note's byte order.
inline void expectOnlyProjectionCorrected(const fs::path& before, const fs::path& after, bool bigEndian = true)
{
    Bytes want = payload(before, "moov.udta.QMKN");
    const Bytes entry = bigEndian ? Bytes{0, 1, 0, 3, 0, 0, 0, 1} : Bytes{1, 0, 3, 0, 1, 0, 0, 0};
    const auto at = std::search(want.begin(), want.end(), entry.begin(), entry.end());
    ASSERT_NE(at, want.end());
    at[8] = !bigEndian, at[9] = bigEndian;
    EXPECT_EQ(payload(after, "moov.udta.QMKN"), want);
}

// The maker thumbnail box holds a JPEG of the output at 640 x 320 from its
// first byte, and zeros behind it.
inline void expectMakerThumbnail(const fs::path& movie, size_t payloadSize, const fs::path& scratch)
{
    Bytes p = payload(movie, "moov.udta.QTHU");
    ASSERT_EQ(p.size(), payloadSize);
    while (!p.empty() && p.back() == 0)
        p.pop_back();
    ASSERT_GE(p.size(), 4u);
    EXPECT_TRUE(p[0] == 0xFF && p[1] == 0xD8 && p[p.size() - 2] == 0xFF && p.back() == 0xD9) << "not one JPEG";
    writeFile(scratch, p);
    EXPECT_EQ(probe(scratch, "v:0", "stream=codec_name,width,height"), "mjpeg\n640\n320");
    EXPECT_TRUE(decodesCleanly(scratch));
}

} // namespace testsupport
