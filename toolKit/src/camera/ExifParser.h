#pragma once
// Reader of the camera maker's TIFF/EXIF metadata: the maker-note IFD and,
// inside it, the camera's own ORVEX IFD. The input is either a JPEG stream
// (APP1 "Exif" segment) or the payload of a movie's QMKN box. Besides the
// read into an ORVEX record, four static operations patch one SHORT value of
// the ORVEX IFD in place.
//
// Every failure is thrown as a plain C string; callers catch everything.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class ExifParser {
public:
    // Maker-note modes, stored as the SHORT value of their ORVEX entry.
    // -1 means "not present in the source / leave the maker note alone";
    // other values are whatever the camera writes and are passed through.
    typedef int32_t PROJECTION_TYPE;           // ORVEX tag 0x0001
    typedef int32_t TOPBOTTOM_CORRECTION_TYPE; // ORVEX tag 0x0007
    typedef int32_t RS_CORRECTION_TYPE;        // ORVEX tag 0x0013
    // ORVEX tag 0x1014: bits 0-2 the yaw code (0 none, 1 and 4 yaw correction,
    // 3 and 5 yaw correction with locked direction, 2 off), bit 3 image
    // stabilization.
    typedef int32_t VIDEO_STABILIZATION;

    static constexpr int32_t MODE_UNKNOWN = -1;
    static constexpr PROJECTION_TYPE PROJECTION_EQUIRECTANGULAR = 1;
    static constexpr VIDEO_STABILIZATION STABILIZATION_IMAGE_BIT = 8;

    // TIFF value types the parser checks.
    enum : uint16_t {
        TYPE_ASCII = 2,
        TYPE_SHORT = 3,
        TYPE_RATIONAL = 5,
        TYPE_UNDEFINED = 7,
        TYPE_SRATIONAL = 10,
    };

    // The camera record read out of the maker note.
    struct ORVEX {
        std::string model;      // IFD0 0x0110
        std::string software;   // IFD0 0x0131
        std::string makerText2; // maker-note IFD 0x0002
        std::string makerText5; // maker-note IFD 0x0005
        uint32_t projectionType;
        uint32_t orvexValue2;
        float zenith[2]; // roll, pitch in degrees
        float compass;   // degrees
        uint32_t orvexValue5;
        float heading; // compass corrected for a tilted camera
        TOPBOTTOM_CORRECTION_TYPE sphereAdjZenith;
        VIDEO_STABILIZATION videoStabilization;
        RS_CORRECTION_TYPE adjRollingShutter;
        bool yawEnabled;
        bool yawLockDir;
        bool hasStabilization;
        uint32_t makerValue1000;
        int32_t orvexValue203;
        uint32_t stitchingFishImgCenter[2];
        uint32_t stitchingFishMovCenter[2];
        float stitchingSamplingRate;

        ORVEX() { clear(); }
        void clear();
        // heading = compass, corrected when the camera was tilted more than
        // 45 degrees up or down.
        void attachCompass();
    };

    // Callback for one IFD entry: tag, type, count, raw value field.
    typedef std::function<bool(uint16_t, uint16_t, uint32_t, uint32_t)> EntryVisitor;
    typedef std::function<void(uint16_t, uint16_t, uint32_t, uint32_t)> EntryHandler;

    ExifParser();
    virtual ~ExifParser();
    ExifParser(const ExifParser&) = delete;
    ExifParser& operator=(const ExifParser&) = delete;

    void attachBytes(const uint8_t* bytes, size_t n);
    // Attaches a QMKN payload: a bare maker note ("Narvi\0\0\0" signature)
    // or a block starting with a TIFF header.
    void attachQMKN(const uint8_t* bytes, size_t n);

    // Bounded reads; anything past the end throws "Invalid position".
    void read(uint8_t* dst, size_t n, size_t pos) const;
    uint16_t read16();
    uint32_t read32();
    void readEntry(uint16_t& tag, uint16_t& type, uint32_t& count, uint32_t& value);

    // IFD walks. The cursor stands at the next entry; each visited entry is
    // consumed and `remaining` counted down.
    bool enumEntry(uint16_t& remaining, const EntryVisitor& visit);
    bool findEntry(uint16_t& remaining, uint16_t tag, const EntryHandler& found);
    // Reads the entry count at the cursor (the start of an IFD), then
    // findEntry. Afterwards the cursor stands after the entry found.
    bool find(uint16_t tag, const EntryHandler& found);

    void pushCursor(size_t pos);
    void popCursor();

    // The SHORT held in a value field read by read32: the field's first two
    // bytes, in the note's own byte order ("MM" or "II"), so that a
    // little-endian note reads as the camera wrote it.
    uint32_t toUINT16(uint32_t value) const;
    // The second SHORT of a SHORT[2] value field (its last two bytes).
    uint32_t secondUINT16(uint32_t value) const;
    // ASCII or UNDEFINED text of more than 4 bytes, read at its offset.
    void toString(uint16_t type, uint32_t count, uint32_t value, std::string& out) const;

    void seekToIFD0();
    void seekToEXIF();
    void seekToMakerNote();
    void seekToNARVIMakerNote();
    void seekToORVEX();

    void readOREVX(ORVEX& out);

    // In-place patches of a QMKN payload. Each returns true when an entry was
    // rewritten (false when the tag is absent or there was nothing to do) and
    // throws its own "... override failed." text on any error.
    static bool updateProjectionType(uint8_t* buf, size_t n, PROJECTION_TYPE mode);
    // A stored 1 is never lowered to 0: mode then becomes 1. -1 does nothing.
    static bool updateSphereAdjZenith(uint8_t* buf, size_t n, TOPBOTTOM_CORRECTION_TYPE& mode);
    static bool updateAdjRollingShutter(uint8_t* buf, size_t n, RS_CORRECTION_TYPE& mode);
    // 0 and -1 do nothing. Without a 0x1014 entry, a 0x0109 SRATIONAL[3]
    // entry is turned into it.
    static bool updateVideoStabilization(uint8_t* buf, size_t n, VIDEO_STABILIZATION mode);

    // State. Positions are byte indexes into data; 0 = not located yet.
    uint8_t* data = nullptr;
    size_t size = 0;
    size_t cursor = 0;
    std::vector<size_t> cursorStack;
    bool bigEndian = true;
    size_t tiffBase = 0;
    size_t ifd0 = 0;
    size_t exifIfd = 0;
    size_t makerNote = 0;
    size_t narviMakerNote = 0;
    size_t orvexIfd = 0;
    bool makerNoteOnly = false;

private:
    // Moves the cursor to an absolute position given as a 64-bit sum, so that
    // an offset plus the TIFF base can never wrap.
    void seekAbsolute(uint64_t pos);
    uint64_t offsetFromBase(uint32_t value) const { return uint64_t(tiffBase) + value; }
    void readRational(uint32_t value, uint32_t& numerator, uint32_t& denominator);
    void seekToChild(void (ExifParser::*parent)(), size_t& cache, uint16_t tag, const char* missing);
};

// The maker's camera-info marker text and its length without the zero byte.
extern const char narviExifCameraInfo[20];
constexpr size_t narviExifCameraInfo_length = 19;
