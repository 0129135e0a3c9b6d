#include "codec/AVCCRecord.h"

#include "Movies.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>
#include <vector>

using namespace testsupport;

namespace {

using Bytes = std::vector<uint8_t>;

ByteArray toArray(const Bytes& b) { return ByteArray(b.data(), b.size()); }
Bytes toBytes(const ByteArray& a) { return Bytes(a.data, a.data + a.length); }

// A record around one SPS and one PPS, as a muxer writes it.
Bytes recordOf(const Bytes& sps, const Bytes& pps)
{
    Bytes r = {0x01, sps.size() > 1 ? sps[1] : uint8_t(0), sps.size() > 2 ? sps[2] : uint8_t(0),
               sps.size() > 3 ? sps[3] : uint8_t(0), 0xFF, 0xE1};
    for (const Bytes* unit : {&sps, &pps}) {
        if (unit == &pps)
            r.push_back(0x01);
        r.push_back(uint8_t(unit->size() >> 8));
        r.push_back(uint8_t(unit->size()));
        r.insert(r.end(), unit->begin(), unit->end());
    }
    return r;
}

// The record parsed, and its first SPS too unless recordOnly.
AVCSyntax::AVCC parsed(const Bytes& record, bool recordOnly = false)
{
    AVCSyntax::AVCC avcc;
    try {
        GolombBitStream s;
        s.attach(toArray(record));
        avcc.parse(s);
        if (!recordOnly)
            avcc.sps_parse();
    } catch (const char* e) {
        ADD_FAILURE() << "record does not parse: " << e;
    }
    return avcc;
}
Bytes firstSps(const Bytes& record) { return toBytes(parsed(record, true).sequenceParameterSets.entries.front().bytes); }

struct Assigned {
    bool ok = false, oldFullRange = false, oldConstrainedSet1 = false;
    Bytes record;
    std::string printed;
};
Assigned assign(const Bytes& record, bool fullRange)
{
    Assigned a;
    ByteArray out;
    out.append8(0xAA); // must be cleared
    testing::internal::CaptureStdout();
    a.ok = avcc_assign_fullRange_and_constrained_set1_flag(toArray(record), out, fullRange, a.oldFullRange,
                                                           a.oldConstrainedSet1);
    a.printed = testing::internal::GetCapturedStdout();
    a.record = toBytes(out);
    return a;
}

// Real records from libx264, made once for all tests of this file.
class AVCCRecord : public testing::Test {
protected:
    static fs::path dir()
    {
        static TempDir d;
        return d.path();
    }
    static void SetUpTestSuite()
    {
        for (auto [name, options] : {std::pair{"baseline", "-profile:v baseline"},
                                     {"main", "-profile:v main"},
                                     {"high", "-profile:v high"},
                                     {"ntsc", "-profile:v high -x264-params videoformat=ntsc"},
                                     {"component", "-profile:v high -x264-params videoformat=component"},
                                     {"fullrange", "-profile:v high -x264-params fullrange=on"}}) {
            fs::path movie = dir() / (name + std::string(".mp4"));
            std::string log;
            ASSERT_EQ(run("ffmpeg -v error -y -f lavfi -i testsrc=size=192x96:rate=25 -frames:v 3 -pix_fmt yuv420p "
                          "-c:v libx264 " + std::string(options) + " " + q(movie),
                          &log),
                      0)
                << log;
            ASSERT_TRUE(boxPayload(movie, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC", records[name])) << name;
        }
    }
    static std::map<std::string, Bytes> records;
};
std::map<std::string, Bytes> AVCCRecord::records;

TEST_F(AVCCRecord, WritesBackUnchangedExceptReservedBits)
{
    for (auto& [name, record] : records) {
        AVCSyntax::AVCC avcc = parsed(record, true);
        GolombBitStream out;
        avcc.to_s(out);
        Bytes expected = record;
        expected[4] &= 0x03;
        expected[5] &= 0x1F;
        EXPECT_EQ(toBytes(out), expected) << name;
    }
    // libx264's High profile record carries chroma and bit-depth bytes after
    // the PPS; they are kept.
    EXPECT_EQ(parsed(records["high"], true).trailing.length, 4u);
}

// The profile and flags as the reader reports them, or what it printed.
std::string flagsOf(const Bytes& record)
{
    unsigned char profile = 0;
    bool cs1 = false, full = false;
    testing::internal::CaptureStdout();
    bool ok = avcc_get_profile_idc_and_constrained_set1_flag(toArray(record), profile, cs1, full);
    std::string printed = testing::internal::GetCapturedStdout();
    return ok ? std::to_string(profile) + " cs1=" + std::to_string(cs1) + " full=" + std::to_string(full) : printed;
}

TEST_F(AVCCRecord, AssignSetsTheFlagsAndChangesNothingAroundTheSps)
{
    EXPECT_EQ(flagsOf(records["baseline"]), "66 cs1=1 full=0");
    EXPECT_EQ(flagsOf(records["high"]), "100 cs1=0 full=0");
    EXPECT_EQ(flagsOf(records["fullrange"]), "100 cs1=0 full=1");
    for (const std::string name : {"baseline", "high"}) {
        const Bytes& record = records[name];
        Assigned a = assign(record, true);
        ASSERT_TRUE(a.ok) << name;
        EXPECT_EQ(a.printed, "");
        EXPECT_FALSE(a.oldFullRange);
        EXPECT_EQ(a.oldConstrainedSet1, name == "baseline");
        EXPECT_EQ(flagsOf(a.record), (name == "baseline" ? "66" : "100") + std::string(" cs1=1 full=1"));
        EXPECT_EQ(parsed(a.record).sps.width(), 192);
        // The head and all after the SPS as they were; the length follows the SPS.
        size_t oldEnd = 8 + be16(&record[6]), newEnd = 8 + be16(&a.record[6]);
        ASSERT_LE(newEnd, a.record.size());
        EXPECT_EQ(Bytes(a.record.begin(), a.record.begin() + 4), Bytes(record.begin(), record.begin() + 4));
        EXPECT_EQ(Bytes(a.record.begin() + long(newEnd), a.record.end()), Bytes(record.begin() + long(oldEnd), record.end()));
    }
}

// The NAL units of an Annex B stream, start codes and trailing zeros cut.
std::vector<Bytes> nalUnitsOf(const Bytes& stream)
{
    std::vector<size_t> starts;
    for (size_t i = 0; i + 3 <= stream.size(); ++i)
        if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1)
            starts.push_back(i + 3);
    std::vector<Bytes> units;
    for (size_t k = 0; k < starts.size(); ++k) {
        size_t end = (k + 1 < starts.size()) ? starts[k + 1] - 3 : stream.size();
        while (end > starts[k] && stream[end - 1] == 0)
            --end;
        units.emplace_back(stream.begin() + long(starts[k]), stream.begin() + long(end));
    }
    return units;
}

// The first value that FFmpeg's header trace prints for each field name.
std::map<std::string, long long> tracedFields(const fs::path& stream)
{
    std::string trace;
    run("ffmpeg -hide_banner -i " + q(stream) + " -c copy -bsf:v trace_headers -f null -", &trace);
    std::map<std::string, long long> fields;
    std::istringstream lines(trace);
    std::string line;
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

TEST_F(AVCCRecord, RewrittenSpsReadsBackInFFmpeg)
{
    // The rewritten SPS in place of the encoder's in the raw stream, read by
    // FFmpeg's own parser. The encoders' SPS hold an emulation-prevention
    // byte inside the VUI timing, which the rewrite must see through. Main
    // (77) must not read the High profile block.
    for (const std::string name : {"baseline", "main", "high"}) {
        SCOPED_TRACE(name);
        fs::path raw = dir() / (name + ".h264"), patched = dir() / (name + "-patched.h264");
        std::string log;
        ASSERT_EQ(run("ffmpeg -v error -y -i " + q(dir() / (name + ".mp4")) +
                          " -c copy -bsf:v h264_mp4toannexb -f h264 " + q(raw),
                      &log),
                  0)
            << log;
        Assigned a = assign(records[name], true);
        ASSERT_TRUE(a.ok) << a.printed;
        Bytes sps = firstSps(a.record), stream;
        for (const Bytes& nal : nalUnitsOf(readFile(raw))) {
            stream.insert(stream.end(), {0, 0, 0, 1});
            const Bytes& unit = (!nal.empty() && (nal[0] & 0x1F) == 7) ? sps : nal;
            stream.insert(stream.end(), unit.begin(), unit.end());
        }
        writeFile(patched, stream);

        std::map<std::string, long long> original = tracedFields(raw), traced = tracedFields(patched);
        EXPECT_EQ(traced["constraint_set1_flag"], 1);
        EXPECT_EQ(traced["video_signal_type_present_flag"], 1);
        EXPECT_EQ(traced["video_format"], 5);
        EXPECT_EQ(traced["video_full_range_flag"], 1);
        for (const char* field : {"profile_idc", "level_idc", "constraint_set0_flag", "pic_width_in_mbs_minus1",
                                  "num_units_in_tick", "time_scale", "max_dec_frame_buffering",
                                  "bitstream_restriction_flag"})
            EXPECT_EQ(traced[field], original[field]) << field;
        ASSERT_EQ(run("ffprobe -v quiet -show_entries stream=color_range -of csv=p=0 " + q(patched), &log), 0);
        EXPECT_EQ(log.substr(0, 2), "pc");
        ASSERT_EQ(run("ffmpeg -v error -i " + q(patched) + " -f null -", &log), 0);
        EXPECT_EQ(log, "");
    }
}

// The SPS fields of the record's dump line, from profile_idc on.
std::string spsFields(const Bytes& record)
{
    std::wstring w = avcc_fields(toArray(record));
    std::string s(w.begin(), w.end());
    return s.substr(std::min(s.size(), s.find("profile_idc")));
}

TEST_F(AVCCRecord, SignalTypeFollowsTheRequestAndAMissingVuiIsAdded)
{
    // "component" (0) becomes unspecified (5), "ntsc" (2) is kept.
    const std::string high = "profile_idc=100 level_idc=11 constraint_set1_flag=1 ";
    EXPECT_EQ(spsFields(assign(records["component"], true).record), high + "full_range=1 video_format=5 width=192 height=96");
    EXPECT_EQ(spsFields(assign(records["ntsc"], true).record), high + "full_range=1 video_format=2 width=192 height=96");
    // A full-range source reports it, and the flag can be cleared.
    Assigned a = assign(records["fullrange"], false);
    EXPECT_TRUE(a.ok && a.oldFullRange && !a.oldConstrainedSet1);
    EXPECT_EQ(spsFields(a.record), high + "full_range=0 video_format=5 width=192 height=96");
    EXPECT_EQ(parsed(a.record).sps.vui.video_signal_type_present_flag.value, 1u);

    // An SPS without VUI gains one with only the signal type.
    AVCSyntax::AVCC base = parsed(records["baseline"]);
    base.sps.vui_parameters_present_flag = 0;
    GolombBitStream s;
    base.sps.to_s(s);
    s.flush_bits();
    a = assign(recordOf(toBytes(s), toBytes(base.pictureParameterSets.entries.front().bytes)), true);
    ASSERT_TRUE(a.ok);
    const AVCSyntax::VUI& vui = parsed(a.record).sps.vui;
    EXPECT_EQ(spsFields(a.record), "profile_idc=66 level_idc=11 constraint_set1_flag=1 full_range=1 video_format=5 "
                                   "width=192 height=96");
    EXPECT_EQ(vui.aspect_ratio_info_present_flag.value + vui.overscan_info_present_flag.value +
                  vui.colour_description_present_flag.value + vui.chroma_loc_info_present_flag.value +
                  vui.timing_info_present_flag.value + vui.nal_hrd_parameters_present_flag.value +
                  vui.vcl_hrd_parameters_present_flag.value + vui.pic_struct_present_flag.value +
                  vui.bitstream_restriction_flag.value,
              0u);
}

TEST_F(AVCCRecord, ShortOrIncompleteRecordsFailWithTheParsersMessage)
{
    // The Main record ends with its PPS: every shorter prefix fails at the
    // record level, before its SPS is looked at.
    const Bytes& main = records["main"];
    for (size_t n = 0; n < main.size(); ++n) {
        Assigned a = assign(Bytes(main.begin(), main.begin() + long(n)), true);
        EXPECT_FALSE(a.ok) << n;
        ASSERT_EQ(a.printed, "avcc.parse() failed: no more data\n") << n;
    }

    Bytes sps = firstSps(records["high"]);
    Bytes cutSps = recordOf(Bytes(sps.begin(), sps.begin() + 5), {0x68, 0xEB, 0xE3, 0xCB, 0x22, 0xC0});
    Assigned a = assign(cutSps, true);
    EXPECT_FALSE(a.ok);
    EXPECT_EQ(a.printed, "avcc.sps_parse() failed: no more data\n");
    EXPECT_TRUE(a.record.empty());
    EXPECT_EQ(flagsOf(cutSps), "avcc.sps_parse() failed: no more data\n");

    EXPECT_EQ(assign({0x01, 0x64, 0x00, 0x0B, 0xFF, 0xE0, 0x00}, true).printed,
              "avcc.sps_parse() failed: no sequence parameter set\n");
}

TEST_F(AVCCRecord, PpsLoopRunsOncePerSpsAndOnlyTheFirstSpsIsRewritten)
{
    // Two SPS entries and one PPS: the second PPS read runs into the end.
    Bytes sps = firstSps(records["baseline"]);
    Bytes record = recordOf(sps, {0x68, 0xEB});
    record[5] = 0xE2;
    Bytes second = {0x00, uint8_t(sps.size())};
    second.insert(second.end(), sps.begin(), sps.end());
    record.insert(record.begin() + 8 + long(sps.size()), second.begin(), second.end());
    EXPECT_EQ(assign(record, true).printed, "avcc.parse() failed: no more data\n");

    // With a second PPS present, the PPS count byte is kept as it was (1).
    record.insert(record.end(), {0x00, 0x01, 0x68});
    Assigned b = assign(record, false);
    ASSERT_TRUE(b.ok) << b.printed;
    AVCSyntax::AVCC after = parsed(b.record);
    EXPECT_EQ(after.numOfPictureParameterSets, 1u);
    EXPECT_EQ(after.pictureParameterSets.entries.size(), 2u);
    EXPECT_EQ(toBytes(after.sequenceParameterSets.entries[1].bytes), sps);
}

// A hand-made Baseline SPS head up to pic_order_cnt_type.
void writeSpsHead(GolombBitStream& s, uint32_t pocType)
{
    s.write_bits(0x6742C01E, 32); // NAL header, profile 66, constraint flags, level 30
    s.write_golomb(0);            // seq_parameter_set_id
    s.write_golomb(0);            // log2_max_frame_num_minus4
    s.write_golomb(pocType);
}
// The rest of an SPS after the picture order fields: 192 x 96, no VUI.
void writeSpsTail(GolombBitStream& s, bool vui)
{
    s.write_golomb(1); // max_num_ref_frames
    s.write_bits(0, 1);
    s.write_golomb(11);
    s.write_golomb(5);
    s.write_bits(0b110, 3); // frame_mbs_only, direct_8x8, no cropping
    s.write_bits(vui, 1);
}
Assigned assignSps(GolombBitStream& s)
{
    s.flush_bits();
    return assign(recordOf(toBytes(s), {0x68}), true);
}

TEST_F(AVCCRecord, AbsurdCountsAndLongCodesAreRefused)
{
    GolombBitStream longCode;
    longCode.write_bits(0x6742C01E, 32);
    longCode.write_bits(0, 40); // seq_parameter_set_id with 40 leading zeros
    EXPECT_EQ(assignSps(longCode).printed, "avcc.sps_parse() failed: too log golomb sream\n");

    GolombBitStream cycle;
    writeSpsHead(cycle, 1);
    cycle.write_bits(0, 1);
    cycle.write_golomb(0);
    cycle.write_golomb(0);
    cycle.write_golomb(256); // num_ref_frames_in_pic_order_cnt_cycle
    for (int i = 0; i < 300; ++i)
        cycle.write_golomb(0);
    EXPECT_EQ(assignSps(cycle).printed,
              "avcc.sps_parse() failed: num_ref_frames_in_pic_order_cnt_cycle out of range\n");

    GolombBitStream hrd; // a VUI whose NAL HRD claims 33 schedules
    writeSpsHead(hrd, 2);
    writeSpsTail(hrd, true);
    hrd.write_bits(0, 5); // aspect, overscan, signal type, chroma loc, timing
    hrd.write_bits(1, 1); // nal_hrd_parameters_present_flag
    hrd.write_golomb(32); // cpb_cnt_minus1
    hrd.write_bits(0, 64);
    EXPECT_EQ(assignSps(hrd).printed, "avcc.sps_parse() failed: cpb_cnt_minus1 out of range\n");
}

TEST_F(AVCCRecord, PocType1OffsetsKeepTheirBits)
{
    // Offsets written as arbitrary code numbers, odd ones included, come back
    // as the same codes after a rewrite.
    GolombBitStream s;
    writeSpsHead(s, 1);
    s.write_bits(1, 1);
    s.write_golomb(3);
    s.write_golomb(5);
    s.write_golomb(3);
    for (uint32_t v : {1u, 2u, 7u})
        s.write_golomb(v);
    writeSpsTail(s, false);
    Assigned a = assignSps(s);
    ASSERT_TRUE(a.ok) << a.printed;
    AVCSyntax::AVCC after = parsed(a.record);
    EXPECT_EQ(after.sps.offset_for_non_ref_pic.value, 3u);
    EXPECT_EQ(after.sps.offset_for_top_to_bottom_field.value, 5u);
    ASSERT_EQ(after.sps.offset_for_ref_frame.size(), 3u);
    EXPECT_EQ(after.sps.offset_for_ref_frame[2].value, 7u);
    EXPECT_EQ(after.sps.width(), 192);
}

TEST_F(AVCCRecord, DumpShowsTheMainFields)
{
    testing::internal::CaptureStdout();
    avcc_dump(toArray(records["high"]), L"    ", L"avcC");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "MP4:     <avcC version=1 profile=100 compatibility=0x00 level=11 lengthSize=4 sps=1 pps=1"
              " profile_idc=100 level_idc=11 constraint_set1_flag=0 full_range=0 video_format=5"
              " width=192 height=96 >\n");
    EXPECT_EQ(avcc_fields(toArray(Bytes{0x01, 0x64})), L" unparsed: no more data");
    std::wstring noSps = avcc_fields(toArray(Bytes{0x01, 0x64, 0x00, 0x0B, 0xFF, 0xE0, 0x00}));
    EXPECT_NE(noSps.find(L"sps=0 pps=0 sps unparsed: no sequence parameter set"), std::string::npos);
}

} // namespace
