// The rewrite of the avcC record's sequence parameter set (full range and
// constraint_set1_flag), read back by FFmpeg's own parser: the flags change,
// every other field stays. The encoder's parameter set holds an
// emulation-prevention byte inside the VUI timing, which the rewrite must
// see through.
#include "Movies.h"
#include "codec/AVCCRecord.h"

#include <gtest/gtest.h>
#include <map>
#include <sstream>

using namespace testsupport;

namespace {

// The first value that FFmpeg's header trace prints for each field name.
std::map<std::string, long long> tracedFields(const fs::path& stream)
{
    std::string trace, line;
    run("ffmpeg -hide_banner -i " + q(stream) + " -c copy -bsf:v trace_headers -f null -", &trace);
    std::map<std::string, long long> fields;
    std::istringstream lines(trace);
    while (std::getline(lines, line)) {
        EXPECT_EQ(line.find("Overread"), std::string::npos) << line;
        std::istringstream words(line.substr(line.find(']') == std::string::npos ? 0 : line.find(']') + 1));
        std::string position, name, bits, eq;
        long long value;
        if (words >> position >> name >> bits >> eq >> value && eq == "=")
            fields.emplace(name, value);
    }
    return fields;
}

TEST(AVCCRecord, RewrittenSpsReadsBackInFFmpegWithOnlyItsFlagsChanged)
{
    // A Constrained Baseline stream as the program's encoder writes it.
    TempDir dir;
    std::string log;
    ASSERT_EQ(run("ffmpeg -v error -f lavfi -i testsrc=size=192x96:rate=25 -frames:v 3 -pix_fmt yuv420p -c:v libx264 "
                  "-profile:v baseline " + q(dir / "m.mp4") + " && ffmpeg -v error -i " + q(dir / "m.mp4") +
                  " -c copy -bsf:v h264_mp4toannexb -f h264 " + q(dir / "raw.h264"),
                  &log),
              0)
        << log;
    std::vector<uint8_t> record;
    ASSERT_TRUE(boxPayload(dir / "m.mp4", "moov.trak.mdia.minf.stbl.stsd.avc1.avcC", record));
    ByteArray out;
    bool ok = false, oldFullRange = true, oldSet1 = false;
    EXPECT_EQ(printedBy([&] {
                  ok = avcc_assign_fullRange_and_constrained_set1_flag(ByteArray(record.data(), record.size()), out,
                                                                       true, oldFullRange, oldSet1);
              }),
              "");
    ASSERT_TRUE(ok && !oldFullRange && oldSet1);

    // The raw stream with the rewritten SPS in place of the encoder's.
    const std::vector<uint8_t> raw = readFile(dir / "raw.h264"), rewritten(out.data, out.data + out.length);
    const size_t spsLength = size_t(rewritten[6] << 8 | rewritten[7]);
    std::vector<uint8_t> stream(rewritten.begin() + 4, rewritten.begin() + 8 + long(spsLength));
    stream[0] = stream[1] = stream[2] = 0, stream[3] = 1; // a start code in place of the record's count and length
    for (size_t at = 0; at + 4 < raw.size(); ++at) // from the first unit after the encoder's SPS on
        if (raw[at] == 0 && raw[at + 1] == 0 && raw[at + 2] == 1 && (raw[at + 3] & 0x1F) != 7 && at > 4) {
            stream.insert(stream.end(), raw.begin() + long(at - (raw[at - 1] == 0)), raw.end());
            break;
        }
    writeFile(dir / "patched.h264", stream);

    std::map<std::string, long long> original = tracedFields(dir / "raw.h264"), traced = tracedFields(dir / "patched.h264");
    EXPECT_EQ(original["constraint_set1_flag"], 1);
    EXPECT_EQ(traced["video_signal_type_present_flag"], 1);
    EXPECT_EQ(traced["video_full_range_flag"], 1);
    for (const char* field : {"profile_idc", "level_idc", "constraint_set0_flag", "constraint_set1_flag",
                              "pic_width_in_mbs_minus1", "num_units_in_tick", "time_scale", "max_dec_frame_buffering",
                              "bitstream_restriction_flag"})
        EXPECT_EQ(traced[field], original[field]) << field;
    EXPECT_EQ(run("ffprobe -v quiet -show_entries stream=color_range -of csv=p=0 " + q(dir / "patched.h264"), &log), 0);
    EXPECT_EQ(log.substr(0, 2), "pc");
    EXPECT_TRUE(decodesCleanly(dir / "patched.h264", &log)) << log;
}

} // namespace
