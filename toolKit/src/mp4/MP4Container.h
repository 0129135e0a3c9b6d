#pragma once
// An MP4 file as a box tree, and the edits the metadata rebuild makes to it.
// The tree is read-only: each edit decides what to change from the tree as
// read and records it in an EditPlan over this movie (input 0 of the plan),
// which writes the output once when it is final.
#include "ByteArray.h"
#include "MP4Box.h"
#include "MP4EditPlan.h"

#include <functional>
#include <memory>
#include <string>

class GPSInfo;

namespace MP4 {

class Container {
public:
    Container() = default;
    ~Container();
    Container(const Container&) = delete;
    Container& operator=(const Container&) = delete;

    // Opens the file read-only, keeps it open for the container's life and
    // parses it; false when it cannot be opened (errno says why).
    bool attach(const std::wstring& path);
    void find(const char* path, const std::function<bool(BOX&)>& visit) const;
    BOX* first(const char* path) const;
    // Typed: only the matches that really are of class T.
    template <class T> void find(const char* path, const std::function<bool(T&)>& visit) const
    {
        if (root)
            root->find<T>(path, visit);
    }
    template <class T> T* first(const char* path) const { return root ? root->first<T>(path) : nullptr; }
    // Runs the action on the open file (false when none is open).
    bool open(const std::function<void(GLTK::FileIO&)>& action) const;
    // The length of the parsed file.
    uint64_t length() const { return root ? root->size : 0; }
    // The first box at path (such as "uuid.QADT") whose parent is the
    // spatial-data uuid box, or null.
    BOX* spatialChild(const char* path) const;
    // The spatial-data uuid box (the parent of a QADT box of at least 9
    // bytes), or null.
    BOX* spatialData() const;
    // The payload of a box (after its header; after the user type of a uuid
    // box), when it holds at most maxBytes and lies whole in the file.
    bool readPayload(const BOX& b, uint64_t maxBytes, std::string& out) const;
    // The whole box, header included, on the same conditions.
    bool readBox(const BOX& b, uint64_t maxBytes, ByteArray& out) const;
    void dump() const;

    // -- edits, recorded in a plan over this movie
    // Puts moov in front of the media data; false when it already is.
    bool moovFirst(EditPlan& plan) const;
    // Writes t as the creation time of mvhd, every tkhd and every mdhd.
    void updateTimeStamp(EditPlan& plan, uint64_t t) const;
    // Puts a complete udta box into moov: in place of the existing moov.udta,
    // or behind moov's last child when there is none.
    bool replaceUdta(EditPlan& plan, EditPlan::Pieces udta) const;
    bool appendXMP(EditPlan& plan, const std::string& xmp) const;
    bool appendAxis(EditPlan& plan, const std::string& axis) const;
    bool appendSphericalVideoXML(EditPlan& plan, const std::string& xml) const;
    // The Spherical Video V1 box of the video track that a new one replaces
    // (the last one met, or null), and the bytes of the new box.
    void build_sphericalVideoXmlBOX(const EditPlan& plan, BOX*& existing, ByteArray& out, const std::string& xml) const;
    // Spherical Video V2 (st3d, sv3d) in the video track's sample entry,
    // behind its codec configuration, in place of any the entry holds. A
    // damaged entry or V2 box is left alone with one line saying so.
    bool appendSphericalVideoV2(EditPlan& plan, const std::string& metadataSource, double yaw, double pitch) const;
    bool appendFullRangeAndConstrainedSet1Flag(EditPlan& plan, bool fullRange) const;
    // The location boxes of the position: @xyz, loci and the text position
    // (the box coded A9 78 79 7A), those asked for, in that order.
    static ByteArray locationBoxes(const GPSInfo& gps, bool xyz, bool loci, bool textXyz);
    // The location boxes the movie lacks, wrapped in a new udta when it has
    // none; false when there is nothing to add.
    bool build_locationBOX(const EditPlan& plan, BOX*& udta, ByteArray& out, const GPSInfo& gps) const;
    // The location boxes the movie lacks (@xyz, loci, the text position),
    // behind the last child of its udta.
    bool appendLocation(EditPlan& plan, const GPSInfo& gps) const;
    bool removeBadLOCI(EditPlan& plan) const;
    // A copy of another movie's moov.meta box (input `file` of the plan,
    // `length` bytes from `offset`) behind moov's last child.
    bool appendGpsMeta(EditPlan& plan, unsigned file, uint64_t offset, uint64_t length) const;

    std::wstring path;
    std::unique_ptr<GLTK::FileIO> file;
    std::unique_ptr<ROOT> root;
    MOOV* moov = nullptr;
    BOX* mdat = nullptr;
    TRAK* videoTrack = nullptr;

private:
    bool appendUUIDOnce(EditPlan& plan, const uint8_t (&userType)[16], const std::string& payload,
                        const wchar_t* existedMessage) const;
};

// The suffix of the temporary file written beside an output.
extern const wchar_t* const kTemporarySuffix;

} // namespace MP4
