#pragma once
// The core of the box tree: a box header, nested boxes with their dotted-path
// lookup, and the factory of typed children. Only the boxes the metadata
// stages touch get typed classes, declared by family (MP4Headers.h,
// MP4SampleTables.h, MP4Location.h, MP4UUID.h, MP4Spherical.h), each family
// with its parse, serialisers, dump lines and factory entries side by side.
// Every other box is a plain BOX that remembers where it lies and how big it
// is, so that it can be copied byte for byte.
//
// One rule tells whether a box can be used: a typed box exists only when its
// fields were read whole. A box of a known type whose fields are not all
// there (or make no sense) is kept as a plain box that says why, and the
// tree itself never fails. Whether a box's bytes are all in the file is its
// reach: where its bytes really end, cut at its parent's reach.
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
    virtual ~BOX() = default;

    // Reads a box header at `at` below `parent`, whose reach bounds it.
    // False when no whole header is there, or its type is zero (padding).
    bool readHeader(BinFile& file, uint64_t at, int depth, BOX* parent);

    virtual bool hasChild() const { return false; }
    // Reads the box's own fields: the file stands at the payload, its limit
    // at the box's reach. False when one is not there or makes no sense (see
    // fail): the box is then kept as a plain box.
    virtual bool parseBox(BinFile& /*file*/) { return true; }
    virtual void dump() const;

    // "'type': start=N bytes=N"
    std::wstring basicTag() const;
    std::string typeText() const;
    bool is(const char* code) const { return type == fourcc(code); }
    uint64_t end() const { return start + size; }
    // Length of the header: 16 with a 64-bit size, else 8.
    uint64_t headerSize() const { return largesize ? 16 : 8; }
    uint64_t payloadStart() const { return start + headerSize(); }
    uint64_t payloadSize() const { return size > headerSize() ? size - headerSize() : 0; }
    // Every byte the box claims is in the file, inside its parents.
    bool whole() const { return end() >= start && reach == end(); }
    // True when this box is `other` or lies inside it (through parent links).
    bool isInside(const BOX& other) const;
    // This box as class T, or null when it was not read as one.
    template <class T> const T* as() const { return dynamic_cast<const T*>(this); }
    template <class T> T* as() { return dynamic_cast<T*>(this); }

    int depth = 0;
    uint64_t start = 0;
    uint64_t size = 0;
    uint32_t type = 0;
    bool largesize = false;
    // The size field held 0: the box runs to the end of the file.
    bool openEnded = false;
    BOX* parent = nullptr;
    // Where the box's bytes really end: its end, cut at its parent's reach.
    uint64_t reach = 0;
    // Why a box of a known type is kept as a plain box (empty otherwise).
    std::string unreadable;

protected:
    // Ends a parse with the reason a reader is given.
    bool fail(const char* why)
    {
        unreadable = why;
        return false;
    }
    void copyHeader(const BOX& h);
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
    bool parseBox(BinFile& file) override
    {
        parseChildren(file);
        return true;
    }

    // Visits every box matching the dotted path of four-character codes below
    // this box; the visitor returns true to go on.
    void find(const char* path, const std::function<bool(BOX&)>& visit) const;
    // The first match, or null.
    BOX* first(const char* path) const;
    // The same, typed: only the matches that really are of class T (a box
    // with the right name that could not be read as one was kept as a plain
    // box, and is passed over).
    template <class T> void find(const char* path, const std::function<bool(T&)>& visit) const
    {
        find(path, [&](BOX& b) {
            T* typed = dynamic_cast<T*>(&b);
            return typed == nullptr || visit(*typed);
        });
    }
    template <class T> T* first(const char* path) const
    {
        // An inner search that stops does not stop the outer levels: keep
        // the first box met.
        T* found = nullptr;
        find<T>(path, [&](T& b) {
            if (found == nullptr)
                found = &b;
            return false;
        });
        return found;
    }
    // Where new children go: behind the last child, or at the start of the
    // payload when there is none.
    uint64_t endOfChildren() const;

    std::vector<BOX*> children;
    // Whether the children were read, and where the first one begins (after
    // the box's own fields).
    bool childrenRead = false;
    uint64_t childrenAt = 0;

protected:
    // Reads the children from the file's position to the box's reach, each
    // made by the factory for this box's type.
    void parseChildren(BinFile& file);
};

class NestedBoxWithVersion : public NestedBox {
public:
    using NestedBox::NestedBox;
    bool parseBox(BinFile& file) override;
    uint32_t versionFlags = 0;
};

// The nested boxes that hold nothing but children, named by their codes.
#define MP4_NESTED(NAME)            \
    class NAME : public NestedBox { \
    public:                         \
        using NestedBox::NestedBox; \
    };
MP4_NESTED(ROOT)
MP4_NESTED(MOOV)
MP4_NESTED(TRAK)
MP4_NESTED(MDIA)
MP4_NESTED(MINF)
MP4_NESTED(STBL)
MP4_NESTED(UDTA)
#undef MP4_NESTED

// A meta box: a full box (ISO), or QuickTime's form without version and
// flags, told apart by its first child, hdlr, starting right after the header.
class META : public NestedBoxWithVersion {
public:
    using NestedBoxWithVersion::NestedBoxWithVersion;
    bool parseBox(BinFile& file) override;
};

// The factory: which class a box of a type is made as under a parent of a
// type ("root" for the top level). Each family lists its own boxes beside
// their parse, serialisers and dump lines.
struct BoxKind {
    const char* parent;
    const char* type;
    BOX* (*make)(const BOX& header);
};
template <class T> BOX* newBox(const BOX& header)
{
    return new T(header);
}
using BoxKinds = std::vector<BoxKind>;
const BoxKinds& containerBoxKinds();
const BoxKinds& headerBoxKinds();
const BoxKinds& sampleTableBoxKinds();
const BoxKinds& locationBoxKinds();
const BoxKinds& uuidBoxKinds();
const BoxKinds& sphericalBoxKinds();

// Serialisers shared by every box the rebuild writes: a header with a 32-bit
// size, then the payload.
void appendHeader(ByteArray& out, const char* type, uint64_t size);
ByteArray makeBox(const char* type, const ByteArray& payload);
// A full box: the version byte and 24 flag bits lead the payload.
ByteArray makeFullBox(const char* type, uint8_t version, uint32_t flags, const ByteArray& payload);
// A "free" box of the given total size (at least 8), zero-filled.
ByteArray makeFreeBox(uint64_t size);

} // namespace MP4
