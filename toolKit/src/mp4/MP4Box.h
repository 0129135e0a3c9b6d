#pragma once
// The box tree of an MP4 file. Only the boxes the metadata stages touch get
// typed classes; every other box is a plain BOX that remembers where it lies
// and how big it is, so that it can be copied byte for byte.
#include "ByteArray.h"
#include "MP4BinFile.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace MP4 {

class BOX {
public:
    BOX() = default;
    // Reads one box header at the file's position.
    BOX(BinFile& file, int depth, BOX* parent);
    virtual ~BOX() = default;

    virtual bool hasChild() const { return false; }
    virtual void dump() const;
    virtual void parseBox(BinFile& /*file*/, uint64_t /*end*/) {}
    virtual BOX* allocChild(BOX& /*header*/) { return nullptr; }

    // Rewrites the size field in the file (8 bytes at start+8 for a largesize
    // box, else the low 32 bits at start); the file position is restored.
    bool writeSize(BinFile& file, uint64_t newSize) const;
    // Copies the whole box from `from` to the destination's position.
    bool copyTo(GLTK::FileIO& from, GLTK::FileIO& to) const;
    // "'type': start=N bytes=N"
    std::wstring basicTag() const;
    std::string typeText() const;
    bool is(const char* code) const { return type == fourcc(code); }
    uint64_t end() const { return start + size; }
    // Length of the header: 16 with a 64-bit size, else 8.
    uint64_t headerSize() const { return largesize ? 16 : 8; }
    // The payload offset and length, clipped to the box.
    uint64_t payloadStart() const { return start + headerSize(); }
    uint64_t payloadSize() const { return size > headerSize() ? size - headerSize() : 0; }

    int depth = 0;
    uint64_t start = 0;
    uint64_t size = 0;
    uint32_t type = 0;
    bool largesize = false;
    BOX* parent = nullptr;

protected:
    void copyHeader(const BOX& h)
    {
        depth = h.depth;
        start = h.start;
        size = h.size;
        type = h.type;
        largesize = h.largesize;
        parent = h.parent;
    }
    std::wstring indent() const;
};

// Deepest nesting the parser follows; deeper boxes are kept as plain boxes.
constexpr int kMaxDepth = 24;

class NestedBox : public BOX {
public:
    NestedBox() = default;
    explicit NestedBox(const BOX& header) { copyHeader(header); }
    ~NestedBox() override;
    NestedBox(const NestedBox&) = delete;
    NestedBox& operator=(const NestedBox&) = delete;

    bool hasChild() const override { return true; }
    void dump() const override;
    void parseBox(BinFile& file, uint64_t end) override;
    BOX* allocChild(BOX& header) override;

    // Visits every box matching the dotted path of four-character codes below
    // this box; the visitor returns true to go on.
    void find(const char* path, const std::function<bool(BOX&)>& visit) const;
    void if_not_found(const char* path, const std::function<void()>& action) const;
    // The first match, or null.
    BOX* first(const char* path) const;

    std::vector<BOX*> children;

protected:
    void parseChildren(BinFile& file, uint64_t end);
};

class NestedBoxWithVersion : public NestedBox {
public:
    using NestedBox::NestedBox;
    void parseBox(BinFile& file, uint64_t end) override;
    uint32_t versionFlags = 0;
};

// Typed boxes, named by their codes.
#define MP4_NESTED(NAME)                            \
    class NAME : public NestedBox {                 \
    public:                                         \
        using NestedBox::NestedBox;                 \
        BOX* allocChild(BOX& header) override;      \
    };
MP4_NESTED(ROOT)
MP4_NESTED(MOOV)
MP4_NESTED(TRAK)
MP4_NESTED(MDIA)
MP4_NESTED(MINF)
MP4_NESTED(STBL)
MP4_NESTED(UDTA)
#undef MP4_NESTED

class STSD : public NestedBoxWithVersion {
public:
    using NestedBoxWithVersion::NestedBoxWithVersion;
    void parseBox(BinFile& file, uint64_t end) override;
    BOX* allocChild(BOX& header) override;
    // Also names the sample-entry codes ("codes=avc1,sowt").
    void dump() const override;
    uint32_t entryCount = 0;
};

class AVC1 : public NestedBox {
public:
    using NestedBox::NestedBox;
    void parseBox(BinFile& file, uint64_t end) override;
    BOX* allocChild(BOX& header) override;
    void dump() const override;
    uint16_t width = 0, height = 0;
};

class META : public NestedBoxWithVersion {
public:
    using NestedBoxWithVersion::NestedBoxWithVersion;
    BOX* allocChild(BOX& header) override;
};

class UUID : public NestedBox {
public:
    using NestedBox::NestedBox;
    UUID() = default;
    // An in-memory box holding the payload (depth 0, start 0, all-zero user
    // type until a subclass sets it).
    UUID(const void* payload, uint64_t n);
    bool hasChild() const override;
    void parseBox(BinFile& file, uint64_t end) override;
    BOX* allocChild(BOX& header) override;
    void dump() const override;
    bool hasUserType(const uint8_t (&uuid)[16]) const;

    bool write(BinFile& file) const;
    bool write(GLTK::FileIO& file) const;
    void to_byteArray(ByteArray& out) const;

    uint8_t userType[16] = {};
    ByteArray payload;
    // Payloads above this are not loaded (the box is still copied whole).
    static constexpr uint64_t kMaxPayload = 16 << 20;
};

namespace SpatialData {
extern const uint8_t _UUID[16];
}

class XMP : public UUID {
public:
    static const uint8_t _UUID[16];
    XMP(const std::string& text);
};
class AXIS : public UUID {
public:
    static const uint8_t _UUID[16];
    AXIS(const std::string& text);
};
class SphericalXML : public UUID {
public:
    static const uint8_t _UUID[16];
    SphericalXML(const std::string& text);
};

class FTYP : public BOX {
public:
    explicit FTYP(const BOX& h) { copyHeader(h); }
};
class MDAT : public BOX {
public:
    explicit MDAT(const BOX& h) { copyHeader(h); }
};

class MVHD : public BOX {
public:
    explicit MVHD(const BOX& h) { copyHeader(h); }
    void parseBox(BinFile& file, uint64_t end) override;
    void dump() const override;
    uint8_t version = 0;
    uint64_t creationTime = 0, modificationTime = 0, duration = 0;
    uint32_t timeScale = 0;
    double seconds() const { return timeScale ? double(duration) / timeScale : 0.0; }
};

class TKHD : public BOX {
public:
    explicit TKHD(const BOX& h) { copyHeader(h); }
    void parseBox(BinFile& file, uint64_t end) override;
    void dump() const override;
    uint8_t version = 0;
    uint64_t creationTime = 0, duration = 0;
    uint32_t trackId = 0;
    uint32_t width = 0, height = 0; // whole pixels
};

class MDHD : public BOX {
public:
    explicit MDHD(const BOX& h) { copyHeader(h); }
    void parseBox(BinFile& file, uint64_t end) override;
    void dump() const override;
    uint8_t version = 0;
    uint64_t creationTime = 0, duration = 0;
    uint32_t timeScale = 0;
};

// stco and co64: the entry count and where the first entry lies.
class STCO : public BOX {
public:
    explicit STCO(const BOX& h) { copyHeader(h); }
    void parseBox(BinFile& file, uint64_t end) override;
    void dump() const override;
    uint32_t versionFlags = 0, entryCount = 0;
    uint64_t firstEntry = 0;
    // Entries that really fit inside the box.
    uint64_t entriesInBox(unsigned entrySize) const;
};
class CO64 : public STCO {
public:
    using STCO::STCO;
};

class STSC : public BOX {
public:
    explicit STSC(const BOX& h) { copyHeader(h); }
    void parseBox(BinFile& file, uint64_t end) override;
    void dump() const override;
    uint32_t versionFlags = 0, entryCount = 0;
};

class STSZ : public BOX {
public:
    explicit STSZ(const BOX& h) { copyHeader(h); }
    void parseBox(BinFile& file, uint64_t end) override;
    void dump() const override;
    uint32_t versionFlags = 0, sampleSize = 0, sampleCount = 0;
    uint64_t totalBytes = 0; // sum of the sample sizes found in the box
};

class STTS : public BOX {
public:
    explicit STTS(const BOX& h) { copyHeader(h); }
    void parseBox(BinFile& file, uint64_t end) override;
    void dump() const override;
    uint32_t versionFlags = 0, entryCount = 0;
};

class LOCI : public BOX {
public:
    explicit LOCI(const BOX& h) { copyHeader(h); }
    void parseBox(BinFile& file, uint64_t end) override;
    ByteArray body; // the box after its header (bounded)
};

// The box coded A9 78 79 7A: a 16-bit text length, a language code, the text.
class XYZ : public BOX {
public:
    explicit XYZ(const BOX& h) { copyHeader(h); }
    void parseBox(BinFile& file, uint64_t end) override;
    void dump() const override;
    std::string text;
};

class HDLR : public BOX {
public:
    explicit HDLR(const BOX& h) { copyHeader(h); }
    void parseBox(BinFile& file, uint64_t end) override;
    void dump() const override;
    uint32_t handlerType = 0;
};

class SOWT : public BOX {
public:
    explicit SOWT(const BOX& h) { copyHeader(h); }
};

// The H.264 decoder configuration record.
class AVCC : public BOX {
public:
    explicit AVCC(const BOX& h) { copyHeader(h); }
    void parseBox(BinFile& file, uint64_t end) override;
    void dump() const override;
    bool get_profile_idc_and_constrained_set1_flag(unsigned char& profile_idc, bool& constrainedSet1,
                                                   bool& fullRange) const;
    bool assign_fullRange_and_constrained_set1_flag(ByteArray& out, bool fullRange, bool& oldFullRange,
                                                    bool& oldConstrainedSet1) const;
    ByteArray record;
};

} // namespace MP4
