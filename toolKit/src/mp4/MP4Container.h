#pragma once
// An MP4 file as a box tree, and every edit of it. Edits are written to the
// file directly, after which the container re-parses the file, so a caller
// always sees a tree that matches the bytes on disk.
#include "ByteArray.h"
#include "MP4Box.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

class GPSInfo;

namespace MP4 {

class SpatialSound;

class Container {
public:
    using CopyStep = std::function<bool(BinFile& source, BinFile& destination, uint64_t& split)>;
    using FixUp = std::function<bool(Container& output, BinFile& file)>;
    using Edit = std::function<bool(BinFile& file)>;

    Container() = default;
    ~Container();
    Container(const Container&) = delete;
    Container& operator=(const Container&) = delete;

    // Opens the file read-only and parses it (limit all ones for the whole
    // file); false when it cannot be opened (the old tree stays).
    bool attach(const std::wstring& path, uint64_t limit = UINT64_MAX);
    void parse(BinFile& file, uint64_t limit);
    void find(const char* path, const std::function<bool(BOX&)>& visit) const;
    BOX* first(const char* path) const;
    bool open(const std::function<void(GLTK::FileIO&)>& action) const;
    bool open_a(const std::function<void(GLTK::FileIO&)>& action) const;
    bool isMdatFirst() const;
    // The first box at path (such as "uuid.QADT") whose parent is the
    // spatial-data uuid box, or null.
    BOX* spatialChild(const char* path) const;
    // The payload of a box (after its header), when it holds at most
    // maxBytes and lies inside the file.
    bool readPayload(const BOX& b, uint64_t maxBytes, std::string& out) const;
    void dump() const;

    // -- edits
    bool modifyContainer(const wchar_t* name, const Edit& edit);
    bool modifyContainer(const wchar_t* name, const CopyStep& copy, const FixUp& fix1, const FixUp& fix2);
    bool insertBox(const wchar_t* name, const BOX& anchor, bool replace, const Edit& write, const FixUp& fix1,
                   const FixUp& fix2);
    bool modifyBoxSize(BinFile& file, const BOX& box, int64_t delta);
    bool modifySTCOIndex(BinFile& file, int64_t delta);
    bool modifySpatialTrakSTCOIndex(BinFile& file, int64_t delta);
    bool moovFirst();
    bool updateTimeStamp(uint64_t t);
    // Puts a complete udta box (header included) into moov: in place of the
    // existing moov.udta, or appended to moov when there is none, `tail`
    // bytes before the end of moov's last child (0: as moov's last child).
    // Sizes of moov and every offset behind the change follow.
    bool replaceUdta(uint64_t tail, const ByteArray& udta);

    // -- metadata appenders
    bool appendXMP(const std::string& xmp);
    bool appendAxis(const std::string& axis);
    bool appendSphericalVideoXML(const std::string& xml);
    bool build_sphericalVideoXmlBOX(BOX*& existing, ByteArray& out, const std::string& xml);
    bool isSpatialDataExist() const;
    bool appendSpatialData(GLTK::FileIO& source, uint64_t offset, uint64_t length);
    bool trimSpatialData(GLTK::FileIO& source, uint64_t offset, SpatialSound& sound);
    bool overwriteSpatialDataOffset(uint64_t oldOffset);
    bool appendFullRangeAndConstrainedSet1Flag(bool fullRange);
    bool appendLocations(const GPSInfo& gps);
    bool build_locationBOX(BOX*& udta, ByteArray& out, const GPSInfo& gps);
    bool appendLocationAndSphericalVideoXML(const GPSInfo& gps, const std::string& xml);
    bool removeBadLOCI();
    bool appendGpsMeta(GLTK::FileIO& source, uint64_t offset, uint64_t length);

    std::wstring path;
    // When set, the next copying edit writes its result here instead of
    // replacing the file, and the container then adopts this path.
    std::optional<std::wstring> outputPath;
    std::unique_ptr<ROOT> root;
    BOX* moov = nullptr;
    BOX* mdat = nullptr;
    BOX* videoTrack = nullptr;

private:
    bool appendUUIDOnce(const UUID& box, const wchar_t* existedMessage);
};

// The suffix of the temporary file written beside an edited file.
extern const wchar_t* const kTemporarySuffix;

} // namespace MP4
