#include "codec/AVCCRecord.h"

#include "GLTKConsole.h"
#include "GLTKwchar.h"

#include <cwchar>
#include <exception>

namespace AVCSyntax {

// ---------------------------------------------------------------------------
// Parameter-set entries

void ParameterSetVector::parse(GolombBitStream& stream)
{
    Entry e;
    e.length = stream.read16n();
    stream.read_bytes(e.length, e.bytes);
    entries.push_back(std::move(e));
}

void ParameterSetVector::to_s(GolombBitStream& stream)
{
    if (entries.empty())
        throw "no parameter set left to write";
    Entry& e = entries.front();
    stream.write16n(e.length);
    stream.write_bytes(e.bytes);
    entries.pop_front();
}

// ---------------------------------------------------------------------------
// Scaling lists

void ScalingList::process_stream(GolombBitStream& stream, bool write)
{
    // Each delta moves the scale value; a value of 0 ends the explicit part
    // of the list (the rest repeats the last value), so the number of deltas
    // follows from the deltas themselves, on reading and on writing alike.
    // The deltas are written back as the code numbers that were read: the
    // signed codes do not survive a write and a read unchanged, and a changed
    // delta would move the end of the list and every field behind it.
    if (!write) {
        delta_scale.clear();
        delta_code.clear();
    }
    size_t k = 0;
    int lastScale = 8;
    int nextScale = 8;
    for (int j = 0; j < size; ++j) {
        if (nextScale != 0) {
            uint32_t code;
            if (write) {
                if (k >= delta_code.size())
                    throw "scaling list incomplete";
                code = delta_code[k++];
                stream.write_golomb(code);
            } else {
                code = stream.read_golomb();
                delta_code.push_back(code);
            }
            // The signed reading of the code, as read_golombs gives it.
            const int half = static_cast<int>(code / 2);
            const int delta = code % 2 ? -half : half;
            if (!write)
                delta_scale.push_back(delta);
            nextScale = (lastScale + delta + 256) % 256;
        }
        lastScale = (nextScale == 0) ? lastScale : nextScale;
    }
}

void ScalingMatrix::process_stream(GolombBitStream& stream, bool write)
{
    if (count < 0 || count > 12)
        throw "scaling matrix size out of range";
    size_t n = static_cast<size_t>(count);
    if (!write)
        seq_scaling_list_present_flag.resize(n);
    else if (seq_scaling_list_present_flag.size() != n)
        throw "scaling matrix incomplete";
    for (size_t i = 0; i < n; ++i) {
        seq_scaling_list_present_flag[i].process(stream, write);
        if (seq_scaling_list_present_flag[i]) {
            lists[i].size = (i < 6) ? 16 : 64;
            lists[i].process(stream, write);
        }
    }
}

// ---------------------------------------------------------------------------
// High-profile block

void HighProfileSpec::process_stream(GolombBitStream& stream, bool write)
{
    chroma_format_idc.process(stream, write);
    if (chroma_format_idc == 3)
        separate_colour_plane_flag.process(stream, write);
    bit_depth_luma_minus8.process(stream, write);
    bit_depth_chroma_minus8.process(stream, write);
    qpprime_y_zero_transform_bypass_flag.process(stream, write);
    seq_scaling_matrix_present_flag.process(stream, write);
    if (seq_scaling_matrix_present_flag) {
        scaling_matrix.count = (chroma_format_idc != 3) ? 8 : 12;
        scaling_matrix.process(stream, write);
    }
}

// ---------------------------------------------------------------------------
// HRD

void HRD::process_stream(GolombBitStream& stream, bool write)
{
    cpb_cnt_minus1.process(stream, write);
    if (cpb_cnt_minus1 > 31)
        throw "cpb_cnt_minus1 out of range";
    bit_rate_scale.process(stream, write);
    cpb_size_scale.process(stream, write);
    size_t n = cpb_cnt_minus1 + 1;
    if (!write) {
        bit_rate_value_minus1.resize(n);
        cpb_size_value_minus1.resize(n);
        cbr_flag.resize(n);
    } else if (bit_rate_value_minus1.size() != n || cpb_size_value_minus1.size() != n || cbr_flag.size() != n) {
        throw "hrd parameters incomplete";
    }
    for (size_t i = 0; i < n; ++i) {
        bit_rate_value_minus1[i].process(stream, write);
        cpb_size_value_minus1[i].process(stream, write);
        cbr_flag[i].process(stream, write);
    }
    initial_cpb_removal_delay_length_minus1.process(stream, write);
    cpb_removal_delay_length_minus1.process(stream, write);
    dpb_output_delay_length_minus1.process(stream, write);
    time_offset_length.process(stream, write);
}

// ---------------------------------------------------------------------------
// VUI

void VUI::process_stream(GolombBitStream& stream, bool write)
{
    const uint32_t Extended_SAR = 255;

    aspect_ratio_info_present_flag.process(stream, write);
    if (aspect_ratio_info_present_flag) {
        aspect_ratio_idc.process(stream, write);
        if (aspect_ratio_idc == Extended_SAR) {
            sar_width.process(stream, write);
            sar_height.process(stream, write);
        }
    }
    overscan_info_present_flag.process(stream, write);
    if (overscan_info_present_flag)
        overscan_appropriate_flag.process(stream, write);
    video_signal_type_present_flag.process(stream, write);
    if (video_signal_type_present_flag) {
        video_format.process(stream, write);
        video_full_range_flag.process(stream, write);
        colour_description_present_flag.process(stream, write);
        if (colour_description_present_flag) {
            colour_primaries.process(stream, write);
            transfer_characteristics.process(stream, write);
            matrix_coefficients.process(stream, write);
        }
    }
    chroma_loc_info_present_flag.process(stream, write);
    if (chroma_loc_info_present_flag) {
        chroma_sample_loc_type_top_field.process(stream, write);
        chroma_sample_loc_type_bottom_field.process(stream, write);
    }
    timing_info_present_flag.process(stream, write);
    if (timing_info_present_flag) {
        num_units_in_tick.process(stream, write);
        time_scale.process(stream, write);
        fixed_frame_rate_flag.process(stream, write);
    }
    nal_hrd_parameters_present_flag.process(stream, write);
    if (nal_hrd_parameters_present_flag)
        nal_hrd.process(stream, write);
    vcl_hrd_parameters_present_flag.process(stream, write);
    if (vcl_hrd_parameters_present_flag)
        vcl_hrd.process(stream, write);
    if (nal_hrd_parameters_present_flag || vcl_hrd_parameters_present_flag)
        low_delay_hrd_flag.process(stream, write);
    pic_struct_present_flag.process(stream, write);
    bitstream_restriction_flag.process(stream, write);
    if (bitstream_restriction_flag) {
        motion_vectors_over_pic_boundaries_flag.process(stream, write);
        max_bytes_per_pic_denom.process(stream, write);
        max_bits_per_mb_denom.process(stream, write);
        log2_max_mv_length_horizontal.process(stream, write);
        log2_max_mv_length_vertical.process(stream, write);
        max_num_reorder_frames.process(stream, write);
        max_dec_frame_buffering.process(stream, write);
    }
}

// ---------------------------------------------------------------------------
// SPS

bool SPS::hasHighProfileBlock(uint32_t profile_idc)
{
    switch (profile_idc) {
    case 100:
    case 110:
    case 122:
    case 244:
    case 44:
    case 83:
    case 86:
    case 118:
    case 128:
    case 138:
        return true;
    default:
        return false;
    }
}

bool SPS::fullRange() const
{
    return vui_parameters_present_flag == 1 && vui.video_signal_type_present_flag == 1 &&
           vui.video_full_range_flag == 1;
}

long long SPS::width() const
{
    // Crop offsets count in chroma samples: two luma columns for 4:2:0 and
    // 4:2:2, one for 4:4:4 and for monochrome or separate colour planes.
    uint32_t chroma = hasHighProfileBlock(profile_idc) ? uint32_t(high.chroma_format_idc) : 1;
    bool planes = chroma == 3 && high.separate_colour_plane_flag == 1;
    long long unitX = (chroma == 0 || chroma == 3 || planes) ? 1 : 2;
    long long crop = frame_cropping_flag ? (long long)frame_crop_left_offset + frame_crop_right_offset : 0;
    return ((long long)pic_width_in_mbs_minus1 + 1) * 16 - unitX * crop;
}

long long SPS::height() const
{
    uint32_t chroma = hasHighProfileBlock(profile_idc) ? uint32_t(high.chroma_format_idc) : 1;
    long long fields = 2 - (long long)frame_mbs_only_flag;
    long long unitY = (chroma == 1 ? 2 : 1) * fields;
    long long crop = frame_cropping_flag ? (long long)frame_crop_top_offset + frame_crop_bottom_offset : 0;
    return ((long long)pic_height_in_map_units_minus1 + 1) * 16 * fields - unitY * crop;
}

void SPS::process_stream(GolombBitStream& stream, bool write)
{
    forbidden_zero_bit.process(stream, write);
    nal_ref_idc.process(stream, write);
    nal_unit_type.process(stream, write);
    profile_idc.process(stream, write);
    constraint_set0_flag.process(stream, write);
    constraint_set1_flag.process(stream, write);
    constraint_set2_flag.process(stream, write);
    constraint_set3_flag.process(stream, write);
    constraint_set4_5_and_reserved.process(stream, write);
    level_idc.process(stream, write);
    seq_parameter_set_id.process(stream, write);
    if (hasHighProfileBlock(profile_idc))
        high.process(stream, write);
    log2_max_frame_num_minus4.process(stream, write);
    pic_order_cnt_type.process(stream, write);
    if (pic_order_cnt_type == 0) {
        log2_max_pic_order_cnt_lsb_minus4.process(stream, write);
    } else if (pic_order_cnt_type == 1) {
        delta_pic_order_always_zero_flag.process(stream, write);
        offset_for_non_ref_pic.process(stream, write);
        offset_for_top_to_bottom_field.process(stream, write);
        num_ref_frames_in_pic_order_cnt_cycle.process(stream, write);
        if (num_ref_frames_in_pic_order_cnt_cycle > 255)
            throw "num_ref_frames_in_pic_order_cnt_cycle out of range";
        if (!write)
            offset_for_ref_frame.resize(num_ref_frames_in_pic_order_cnt_cycle);
        else if (offset_for_ref_frame.size() != num_ref_frames_in_pic_order_cnt_cycle)
            throw "offset_for_ref_frame incomplete";
        offset_for_ref_frame.process(stream, write);
    }
    max_num_ref_frames.process(stream, write);
    gaps_in_frame_num_value_allowed_flag.process(stream, write);
    pic_width_in_mbs_minus1.process(stream, write);
    pic_height_in_map_units_minus1.process(stream, write);
    frame_mbs_only_flag.process(stream, write);
    if (!frame_mbs_only_flag)
        mb_adaptive_frame_field_flag.process(stream, write);
    direct_8x8_inference_flag.process(stream, write);
    frame_cropping_flag.process(stream, write);
    if (frame_cropping_flag) {
        frame_crop_left_offset.process(stream, write);
        frame_crop_right_offset.process(stream, write);
        frame_crop_top_offset.process(stream, write);
        frame_crop_bottom_offset.process(stream, write);
    }
    vui_parameters_present_flag.process(stream, write);
    if (vui_parameters_present_flag)
        vui.process(stream, write);
}

// ---------------------------------------------------------------------------
// Configuration record

void AVCC::parse(GolombBitStream& stream)
{
    *this = AVCC();
    configurationVersion = stream.read8();
    AVCProfileIndication = stream.read8();
    profile_compatibility = stream.read8();
    AVCLevelIndication = stream.read8();
    lengthSizeMinusOne = stream.read8() & 0x03;
    numOfSequenceParameterSets = stream.read8() & 0x1F;
    for (int i = 0; i < numOfSequenceParameterSets; ++i)
        sequenceParameterSets.parse(stream);
    numOfPictureParameterSets = stream.read8();
    // As many picture parameter sets as sequence parameter sets.
    for (int i = 0; i < numOfSequenceParameterSets; ++i)
        pictureParameterSets.parse(stream);
    stream.read_bytes(stream.remaining(), trailing);
}

void AVCC::to_s(GolombBitStream& stream)
{
    stream.write8(configurationVersion);
    stream.write8(AVCProfileIndication);
    stream.write8(profile_compatibility);
    stream.write8(AVCLevelIndication);
    stream.write8(lengthSizeMinusOne);
    stream.write8(numOfSequenceParameterSets);
    for (int i = 0; i < numOfSequenceParameterSets; ++i)
        sequenceParameterSets.to_s(stream);
    stream.write8(numOfPictureParameterSets);
    for (int i = 0; i < numOfSequenceParameterSets; ++i)
        pictureParameterSets.to_s(stream);
    stream.write_bytes(trailing);
}

// A NAL unit never holds 00 00 0x (x <= 3): the encoder inserts an
// emulation-prevention byte 03 after every 00 00 that would. The syntax is
// read from the unescaped bytes and escaped again when written, or every
// field behind the first such byte (the VUI timing of most encoders) would be
// misread and written back wrong.
static ByteArray unescapeNAL(const ByteArray& in)
{
    ByteArray out;
    out.resize(in.length);
    uint64_t n = 0;
    int zeros = 0;
    for (uint64_t i = 0; i < in.length; ++i) {
        uint8_t b = in.data[i];
        if (zeros >= 2 && b == 0x03) {
            zeros = 0;
            continue;
        }
        zeros = b == 0 ? zeros + 1 : 0;
        out.data[n++] = b;
    }
    out.resize(n);
    return out;
}

static ByteArray escapeNAL(const uint8_t* in, uint64_t length)
{
    ByteArray out;
    int zeros = 0;
    for (uint64_t i = 0; i < length; ++i) {
        uint8_t b = in[i];
        if (zeros >= 2 && b <= 0x03) {
            out.append8(0x03);
            zeros = 0;
        }
        out.append8(b);
        zeros = b == 0 ? zeros + 1 : 0;
    }
    return out;
}

void AVCC::sps_parse()
{
    if (sequenceParameterSets.entries.empty())
        throw "no sequence parameter set";
    GolombBitStream stream;
    stream.attach(unescapeNAL(sequenceParameterSets.entries.front().bytes));
    sps = SPS();
    sps.parse(stream);
}

void AVCC::sps_to_s()
{
    if (sequenceParameterSets.entries.empty())
        throw "no sequence parameter set";
    GolombBitStream stream;
    sps.to_s(stream);
    // The RBSP ends with a stop bit, then zero bits to the byte boundary.
    stream.write_bits(1, 1);
    stream.flush_bits();
    ByteArray escaped = escapeNAL(stream.front(), stream.remaining());
    if (escaped.length > 0xFFFF)
        throw "sequence parameter set too long";
    ParameterSetVector::Entry& first = sequenceParameterSets.entries.front();
    first.bytes = escaped;
    first.length = static_cast<uint16_t>(escaped.length);
}

} // namespace AVCSyntax

// ---------------------------------------------------------------------------
// Entry points

namespace {

enum class Stage { Done, Record, SequenceParameterSet };

// Parses the record and its first SPS; on failure names the stage that
// failed and the reason.
Stage parseRecord(const ByteArray& payload, AVCSyntax::AVCC& avcc, std::wstring& reason)
{
    Stage stage = Stage::Record;
    try {
        GolombBitStream stream;
        stream.attach(payload);
        avcc.parse(stream);
        stage = Stage::SequenceParameterSet;
        avcc.sps_parse();
        return Stage::Done;
    } catch (const char* e) {
        reason = GLTK::wchar::mbs2wcs(e);
    } catch (const std::exception& e) {
        reason = GLTK::wchar::mbs2wcs(e.what());
    }
    return stage;
}

bool parseAndReport(const ByteArray& payload, AVCSyntax::AVCC& avcc)
{
    std::wstring reason;
    switch (parseRecord(payload, avcc, reason)) {
    case Stage::Done:
        return true;
    case Stage::Record:
        GLTK::Console::out(L"avcc.parse() failed: %ls\n", reason.c_str());
        return false;
    case Stage::SequenceParameterSet:
        GLTK::Console::out(L"avcc.sps_parse() failed: %ls\n", reason.c_str());
        return false;
    }
    return false;
}

} // namespace

bool avcc_get_profile_idc_and_constrained_set1_flag(const ByteArray& payload, unsigned char& profile_idc,
                                                    bool& constrainedSet1, bool& fullRange)
{
    AVCSyntax::AVCC avcc;
    if (!parseAndReport(payload, avcc))
        return false;
    profile_idc = static_cast<unsigned char>(avcc.sps.profile_idc.value);
    constrainedSet1 = avcc.sps.constraint_set1_flag == 1;
    fullRange = avcc.sps.fullRange();
    return true;
}

bool avcc_assign_fullRange_and_constrained_set1_flag(const ByteArray& payload, ByteArray& out, bool fullRange,
                                                     bool& oldFullRange, bool& oldConstrainedSet1)
{
    out.clear();
    AVCSyntax::AVCC avcc;
    if (!parseAndReport(payload, avcc))
        return false;

    AVCSyntax::SPS& sps = avcc.sps;
    oldFullRange = sps.fullRange();
    oldConstrainedSet1 = sps.constraint_set1_flag == 1;

    // A VUI or signal type that was absent is written with every other field
    // 0; video_format 0 (component) becomes 5 (unspecified).
    sps.vui_parameters_present_flag = 1;
    sps.vui.video_signal_type_present_flag = 1;
    if (sps.vui.video_format == 0)
        sps.vui.video_format = 5;
    sps.vui.video_full_range_flag = fullRange ? 1 : 0;
    sps.constraint_set1_flag = 1;

    try {
        avcc.sps_to_s();
        GolombBitStream stream;
        avcc.to_s(stream);
        out.assign(stream.front(), stream.remaining());
    } catch (const char* e) {
        GLTK::Console::out(L"avcc.to_s() failed: %ls\n", GLTK::wchar::mbs2wcs(e).c_str());
        out.clear();
        return false;
    }
    return true;
}

std::wstring avcc_fields(const ByteArray& payload)
{
    AVCSyntax::AVCC avcc;
    std::wstring reason;
    Stage stage = parseRecord(payload, avcc, reason);
    if (stage == Stage::Record)
        return L" unparsed: " + reason;

    wchar_t text[512];
    std::swprintf(text, sizeof text / sizeof text[0],
                  L" version=%u profile=%u compatibility=0x%02X level=%u lengthSize=%u sps=%u pps=%u",
                  unsigned(avcc.configurationVersion), unsigned(avcc.AVCProfileIndication),
                  unsigned(avcc.profile_compatibility), unsigned(avcc.AVCLevelIndication),
                  unsigned(avcc.lengthSizeMinusOne) + 1, unsigned(avcc.numOfSequenceParameterSets),
                  unsigned(avcc.numOfPictureParameterSets));
    std::wstring fields = text;
    if (stage == Stage::SequenceParameterSet)
        return fields + L" sps unparsed: " + reason;

    const AVCSyntax::SPS& sps = avcc.sps;
    std::swprintf(text, sizeof text / sizeof text[0],
                  L" profile_idc=%u level_idc=%u constraint_set1_flag=%u full_range=%d video_format=%u"
                  L" width=%lld height=%lld",
                  unsigned(sps.profile_idc), unsigned(sps.level_idc), unsigned(sps.constraint_set1_flag),
                  sps.fullRange() ? 1 : 0,
                  (sps.vui_parameters_present_flag && sps.vui.video_signal_type_present_flag)
                      ? unsigned(sps.vui.video_format)
                      : 5u,
                  sps.width(), sps.height());
    return fields + text;
}

void avcc_dump(const ByteArray& payload, const wchar_t* indent, const wchar_t* tag)
{
    GLTK::Console::out(L"MP4: %ls<%ls%ls >\n", indent, tag, avcc_fields(payload).c_str());
}
