#pragma once
// The sample-table boxes: the sample descriptions (stsd, the visual sample
// entries and the H.264 decoder configuration), and the tables of chunk
// offsets, samples per chunk, sample sizes and sample times. Tables that
// the rebuild writes have a serialiser.
#include "MP4BoxTree.h"

#include <cstdint>

namespace MP4 {

class STSD : public NestedBoxWithVersion {
public:
    using NestedBoxWithVersion::NestedBoxWithVersion;
    bool parseBox(BinFile& file) override;
    // Also names the sample-entry codes ("codes=avc1,sowt").
    void dump() const override;
    uint32_t entryCount = 0;
};

// A visual sample entry (avc1, hvc1, hev1): 78 bytes of fixed fields, then
// the codec configuration and the optional boxes that follow it.
class VisualSampleEntry : public NestedBox {
public:
    using NestedBox::NestedBox;
    bool parseBox(BinFile& file) override;
    void dump() const override;
    uint16_t width = 0, height = 0;
    static constexpr uint64_t kFixedFields = 78;
};

class AVC1 : public VisualSampleEntry {
public:
    using VisualSampleEntry::VisualSampleEntry;
};

// The H.264 decoder configuration record.
class AVCC : public BOX {
public:
    explicit AVCC(const BOX& h) { copyHeader(h); }
    bool parseBox(BinFile& file) override;
    void dump() const override;
    bool get_profile_idc_and_constrained_set1_flag(unsigned char& profile_idc, bool& constrainedSet1,
                                                   bool& fullRange) const;
    bool assign_fullRange_and_constrained_set1_flag(ByteArray& out, bool fullRange, bool& oldFullRange,
                                                    bool& oldConstrainedSet1) const;
    ByteArray record;
};

class SOWT : public BOX {
public:
    explicit SOWT(const BOX& h) { copyHeader(h); }
};

// stco and co64: the entry count and where the first entry lies; every
// entry lies inside the box.
class STCO : public BOX {
public:
    explicit STCO(const BOX& h) { copyHeader(h); }
    bool parseBox(BinFile& file) override;
    void dump() const override;
    unsigned entrySize() const { return is("co64") ? 8 : 4; }
    uint32_t versionFlags = 0, entryCount = 0;
    uint64_t firstEntry = 0;
};
class CO64 : public STCO {
public:
    using STCO::STCO;
    // A co64 box of the given offsets.
    static ByteArray bytes(uint32_t versionFlags, const std::vector<uint64_t>& offsets);
};

class STSC : public BOX {
public:
    explicit STSC(const BOX& h) { copyHeader(h); }
    bool parseBox(BinFile& file) override;
    void dump() const override;
    struct Entry {
        uint32_t firstChunk, samplesPerChunk, sampleDescriptionIndex;
    };
    static ByteArray bytes(uint32_t versionFlags, const std::vector<Entry>& entries);
    uint32_t versionFlags = 0, entryCount = 0;
};

class STSZ : public BOX {
public:
    explicit STSZ(const BOX& h) { copyHeader(h); }
    bool parseBox(BinFile& file) override;
    void dump() const override;
    // A table of samples that all have the same size (no per-sample table).
    static ByteArray bytes(uint32_t versionFlags, uint32_t sampleSize, uint32_t sampleCount);
    uint32_t versionFlags = 0, sampleSize = 0, sampleCount = 0;
    uint64_t totalBytes = 0; // the sum of the sample sizes
};

class STTS : public BOX {
public:
    explicit STTS(const BOX& h) { copyHeader(h); }
    bool parseBox(BinFile& file) override;
    void dump() const override;
    // A table of one entry: count samples of delta time-scale units each.
    static ByteArray bytes(uint32_t versionFlags, uint32_t count, uint32_t delta);
    uint32_t versionFlags = 0, entryCount = 0;
};

} // namespace MP4
