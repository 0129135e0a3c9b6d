#pragma once
// The H.264 decoder configuration record (avcC) and its first sequence
// parameter set, parsed down to the last syntax element and written back bit
// for bit. Used to mark a movie's video as full range and to set
// constraint_set1_flag without re-encoding.
//
// The syntax classes read from and write to a GolombBitStream and throw plain
// C strings on malformed input; the functions at the end of this header catch
// them and report one console line instead.
#include "ByteArray.h"
#include "codec/GolombBitStream.h"

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace AVCSyntax {

// Every element of the syntax: read from a stream, written to one. Each
// holds its fields by value with their defaults, so that assigning a
// default-made one resets it whole.
class Entity {
public:
    virtual void parse(GolombBitStream& stream) = 0;
    virtual void to_s(GolombBitStream& stream) = 0;
    virtual ~Entity() = default;

    void process(GolombBitStream& stream, bool write)
    {
        if (write)
            to_s(stream);
        else
            parse(stream);
    }
};

// A syntax structure whose reading and writing walk the same code path, so
// that the written bits follow exactly the order and conditions of the read.
class Syntax : public Entity {
public:
    void parse(GolombBitStream& stream) override { process_stream(stream, false); }
    void to_s(GolombBitStream& stream) override { process_stream(stream, true); }

protected:
    virtual void process_stream(GolombBitStream& stream, bool write) = 0;
};

// A fixed-width field u(N), N from 1 to 32.
template <int N> class BitData : public Entity {
    static_assert(N >= 1 && N <= 32, "fields are 1 to 32 bits wide");

public:
    void parse(GolombBitStream& stream) override { value = stream.read_bits(N).pattern; }
    void to_s(GolombBitStream& stream) override { stream.write_bits(value, N); }

    BitData& operator=(uint32_t v)
    {
        value = v;
        return *this;
    }
    operator uint32_t() const { return value; }

    uint32_t value = 0;
};

// One unsigned exp-Golomb code ue(v).
class GolombData : public Entity {
public:
    void parse(GolombBitStream& stream) override { value = stream.read_golomb(); }
    void to_s(GolombBitStream& stream) override { stream.write_golomb(value); }

    GolombData& operator=(uint32_t v)
    {
        value = v;
        return *this;
    }
    operator uint32_t() const { return value; }

    uint32_t value = 0;
};

// A run of like fields. Size it with resize() before parsing; parse and to_s
// then handle every element in order. Elements can also be handled one by one
// where the syntax interleaves them with other fields.
template <class Element> class EntityVector : public Entity {
public:
    void parse(GolombBitStream& stream) override
    {
        for (Element& e : items)
            e.parse(stream);
    }
    void to_s(GolombBitStream& stream) override
    {
        for (Element& e : items)
            e.to_s(stream);
    }

    void resize(size_t n) { items.assign(n, Element()); }
    size_t size() const { return items.size(); }
    Element& operator[](size_t i) { return items.at(i); }
    const Element& operator[](size_t i) const { return items.at(i); }

    std::vector<Element> items;
};

template <int N> class BitDataVector : public EntityVector<BitData<N>> {};
class GolombDataVector : public EntityVector<GolombData> {};

// The parameter sets of a configuration record: a queue of entries, each a
// 16-bit length and that many bytes. parse reads one entry and appends it;
// to_s writes the front entry and removes it, so a parsed record is written
// once.
class ParameterSetVector : public Entity {
public:
    struct Entry {
        uint16_t length = 0;
        ByteArray bytes;
    };

    void parse(GolombBitStream& stream) override;
    void to_s(GolombBitStream& stream) override;

    std::deque<Entry> entries;
};

// scaling_list(): the deltas between successive scale values, carried with
// this program's signed codes. size is 16 or 64.
class ScalingList : public Syntax {
public:
    int size = 16;
    // The deltas in this program's signed reading, and the code numbers as
    // read, which are what is written back.
    std::vector<int> delta_scale;
    std::vector<uint32_t> delta_code;

protected:
    void process_stream(GolombBitStream& stream, bool write) override;
};

// The scaling-list flags and lists of seq_scaling_matrix_present_flag:
// 8 lists, or 12 when chroma_format_idc is 3 (count is set before use).
class ScalingMatrix : public Syntax {
public:
    int count = 8;
    BitDataVector<1> seq_scaling_list_present_flag;
    ScalingList lists[12];

protected:
    void process_stream(GolombBitStream& stream, bool write) override;
};

// The block that the high profiles add after seq_parameter_set_id.
class HighProfileSpec : public Syntax {
public:
    GolombData chroma_format_idc;
    BitData<1> separate_colour_plane_flag;
    GolombData bit_depth_luma_minus8;
    GolombData bit_depth_chroma_minus8;
    BitData<1> qpprime_y_zero_transform_bypass_flag;
    BitData<1> seq_scaling_matrix_present_flag;
    ScalingMatrix scaling_matrix;

protected:
    void process_stream(GolombBitStream& stream, bool write) override;
};

// hrd_parameters(), for the NAL and the VCL HRD of the VUI.
class HRD : public Syntax {
public:
    GolombData cpb_cnt_minus1;
    BitData<4> bit_rate_scale;
    BitData<4> cpb_size_scale;
    GolombDataVector bit_rate_value_minus1;
    GolombDataVector cpb_size_value_minus1;
    BitDataVector<1> cbr_flag;
    BitData<5> initial_cpb_removal_delay_length_minus1;
    BitData<5> cpb_removal_delay_length_minus1;
    BitData<5> dpb_output_delay_length_minus1;
    BitData<5> time_offset_length;

protected:
    void process_stream(GolombBitStream& stream, bool write) override;
};

// vui_parameters().
class VUI : public Syntax {
public:
    BitData<1> aspect_ratio_info_present_flag;
    BitData<8> aspect_ratio_idc;
    BitData<16> sar_width;
    BitData<16> sar_height;
    BitData<1> overscan_info_present_flag;
    BitData<1> overscan_appropriate_flag;
    BitData<1> video_signal_type_present_flag;
    BitData<3> video_format;
    BitData<1> video_full_range_flag;
    BitData<1> colour_description_present_flag;
    BitData<8> colour_primaries;
    BitData<8> transfer_characteristics;
    BitData<8> matrix_coefficients;
    BitData<1> chroma_loc_info_present_flag;
    GolombData chroma_sample_loc_type_top_field;
    GolombData chroma_sample_loc_type_bottom_field;
    BitData<1> timing_info_present_flag;
    BitData<32> num_units_in_tick;
    BitData<32> time_scale;
    BitData<1> fixed_frame_rate_flag;
    BitData<1> nal_hrd_parameters_present_flag;
    HRD nal_hrd;
    BitData<1> vcl_hrd_parameters_present_flag;
    HRD vcl_hrd;
    BitData<1> low_delay_hrd_flag;
    BitData<1> pic_struct_present_flag;
    BitData<1> bitstream_restriction_flag;
    BitData<1> motion_vectors_over_pic_boundaries_flag;
    GolombData max_bytes_per_pic_denom;
    GolombData max_bits_per_mb_denom;
    GolombData log2_max_mv_length_horizontal;
    GolombData log2_max_mv_length_vertical;
    GolombData max_num_reorder_frames;
    GolombData max_dec_frame_buffering;

protected:
    void process_stream(GolombBitStream& stream, bool write) override;
};

// seq_parameter_set_rbsp() with its one-byte NAL header. The trailing bits
// after the VUI are not modelled; writing ends with zero bits up to the byte
// boundary.
class SPS : public Syntax {
public:
    // The profiles that carry the high-profile block.
    static bool hasHighProfileBlock(uint32_t profile_idc);

    // Whether the SPS declares full-range video: VUI present, signal type
    // present and video_full_range_flag all 1.
    bool fullRange() const;
    // The frame size after cropping, in pixels.
    long long width() const;
    long long height() const;

    BitData<1> forbidden_zero_bit;
    BitData<2> nal_ref_idc;
    BitData<5> nal_unit_type;
    BitData<8> profile_idc;
    BitData<1> constraint_set0_flag;
    BitData<1> constraint_set1_flag;
    BitData<1> constraint_set2_flag;
    BitData<1> constraint_set3_flag;
    BitData<4> constraint_set4_5_and_reserved;
    BitData<8> level_idc;
    GolombData seq_parameter_set_id;
    HighProfileSpec high;
    GolombData log2_max_frame_num_minus4;
    GolombData pic_order_cnt_type;
    GolombData log2_max_pic_order_cnt_lsb_minus4;
    BitData<1> delta_pic_order_always_zero_flag;
    // Signed in the H.264 syntax; carried as unsigned code numbers, which
    // keeps their bits exactly.
    GolombData offset_for_non_ref_pic;
    GolombData offset_for_top_to_bottom_field;
    GolombData num_ref_frames_in_pic_order_cnt_cycle;
    GolombDataVector offset_for_ref_frame;
    GolombData max_num_ref_frames;
    BitData<1> gaps_in_frame_num_value_allowed_flag;
    GolombData pic_width_in_mbs_minus1;
    GolombData pic_height_in_map_units_minus1;
    BitData<1> frame_mbs_only_flag;
    BitData<1> mb_adaptive_frame_field_flag;
    BitData<1> direct_8x8_inference_flag;
    BitData<1> frame_cropping_flag;
    GolombData frame_crop_left_offset;
    GolombData frame_crop_right_offset;
    GolombData frame_crop_top_offset;
    GolombData frame_crop_bottom_offset;
    BitData<1> vui_parameters_present_flag;
    VUI vui;

protected:
    void process_stream(GolombBitStream& stream, bool write) override;
};

// The decoder configuration record. The reserved high bits of the
// lengthSizeMinusOne and SPS-count bytes are dropped, so they are written
// back as zeros. The picture parameter sets are carried, not parsed, and
// their loop runs as many times as there are sequence parameter sets; the
// PPS count byte is kept as read. Whatever follows is kept raw.
class AVCC : public Entity {
public:
    void parse(GolombBitStream& stream) override;
    void to_s(GolombBitStream& stream) override;
    // Parses the first SPS entry into sps.
    void sps_parse();
    // Writes sps and puts the result in place of the first SPS entry.
    void sps_to_s();

    uint8_t configurationVersion = 0;
    uint8_t AVCProfileIndication = 0;
    uint8_t profile_compatibility = 0;
    uint8_t AVCLevelIndication = 0;
    uint8_t lengthSizeMinusOne = 0;
    uint8_t numOfSequenceParameterSets = 0;
    ParameterSetVector sequenceParameterSets;
    uint8_t numOfPictureParameterSets = 0;
    ParameterSetVector pictureParameterSets;
    ByteArray trailing;

    SPS sps;
};

} // namespace AVCSyntax

// Reads the record in payload (an avcC box's contents) and its first SPS:
// profile_idc, whether constraint_set1_flag is 1 and whether the SPS already
// declares full range. On failure prints one line and returns false.
bool avcc_get_profile_idc_and_constrained_set1_flag(const ByteArray& payload, unsigned char& profile_idc,
                                                    bool& constrainedSet1, bool& fullRange);

// Rebuilds the record in payload with video_full_range_flag = fullRange and
// constraint_set1_flag = 1 (adding a VUI and signal type where absent, and
// turning video_format 0 into 5) into out, which is cleared first. Reports
// what the SPS had before. On failure prints one line and returns false.
bool avcc_assign_fullRange_and_constrained_set1_flag(const ByteArray& payload, ByteArray& out, bool fullRange,
                                                     bool& oldFullRange, bool& oldConstrainedSet1);

// The record's main fields as text for a box dump, starting with a blank:
// " version=1 profile=100 compatibility=0x00 level=31 lengthSize=4 sps=1
// pps=1 profile_idc=100 level_idc=31 constraint_set1_flag=0 full_range=0
// video_format=5 width=960 height=480" (video_format 5 when not signalled).
// When the record cannot be read: " unparsed: <reason>"; when only its SPS
// cannot: the record fields, then " sps unparsed: <reason>".
std::wstring avcc_fields(const ByteArray& payload);

// The box dump line of an avcC box: "MP4: <indent><<tag><fields> >".
void avcc_dump(const ByteArray& payload, const wchar_t* indent, const wchar_t* tag);
