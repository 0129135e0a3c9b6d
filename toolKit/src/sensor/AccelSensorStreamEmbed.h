#pragma once
// The camera's embedded sensor streams. A movie carries its motion-sensor data
// as QDTx maker boxes directly inside moov.udta, one box per stream: the
// ordinary 8-byte box header, a 16-byte stream header, then fixed-size
// records.
//
//   payload  width  field
//         0  u32    count     records that follow
//         4  u16    extra     per-stream value, handed back unchanged
//         6  u16    unitSize  record size; must match the box type
//         8  u16    endian    0x0123: as stored (little-endian);
//                             0x3210: every multi-byte field is big-endian
//        10  6      reserved
//        16         count records of unitSize bytes
//
// The endian mark is read as a little-endian value and never swapped itself.
#include "GLTKConsole.h"
#include "GLTKFileIO.h"
#include "GLTKMatrix.h"
#include "GLTKVector.h"
#include "GLTKwchar.h"
#include "MP4Container.h"
#include "SensorStreamBoxes.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

class AccelSensorStreamEmbed {
public:
    // ---------------------------------------------------------- records
    // The last field of every record is a 64-bit time stamp in one common
    // time base. Reserved bytes are kept as read and never swapped.

    // QDTB: gyroscope axes.
    struct Gyro {
        int32_t x, y, z;
        uint8_t reserved[4];
        uint64_t t;
        static void swap_xyzt(Gyro& r);
    };
    // QDTC: electronic compass; the axes are single-precision floats.
    struct Ecompass {
        float x, y, z;
        uint8_t reserved[4];
        uint64_t t;
        static void swap_xyzt(Ecompass& r);
    };
    // QDTD: direction of gravity in the camera frame, fixed point (a unit
    // vector is 16384 long).
    struct TopBottomCorrection {
        int16_t x, y, z;
        uint8_t reserved[2];
        uint64_t t;
        static void swap_xyzt(TopBottomCorrection& r);
    };
    // QDTH: attitude quaternion.
    struct Quaternion {
        float w, x, y, z;
        uint64_t t;
        static void swap_wxyzt(Quaternion& r);
    };
    // QDTI: yaw correction, laid out as a quaternion.
    struct YawCorrection {
        float w, x, y, z;
        uint64_t t;
        static void swap_QDTI(YawCorrection& r);
    };
    // QDTG records are bare 64-bit time stamps.
    static void swap_u64(unsigned long long& t);

    // Size of the box header plus the stream header: where records begin.
    static constexpr unsigned kRecordsAt = 24;
    static constexpr uint16_t kLittleEndianMark = 0x0123;
    static constexpr uint16_t kBigEndianMark = 0x3210;

    // ---------------------------------------------------------- readers
    // Reads the records of the box "moov.udta." + type into out. A missing
    // box leaves out empty and extra 0 without a message; a malformed one
    // prints one line and leaves out empty.
    template <class T, class Swap>
    static void loadM29_QDTx(const MP4::Container& container, const char* type, std::vector<T>& out,
                             unsigned short& extra, Swap swap);

    static void loadM29_QDTB(const MP4::Container& c, std::vector<Gyro>& out, unsigned short& extra);
    static void loadM29_QDTC(const MP4::Container& c, std::vector<Ecompass>& out, unsigned short& extra);
    static void loadM29_QDTD(const MP4::Container& c, std::vector<TopBottomCorrection>& out, unsigned short& extra);
    static void loadM30_QDTG(const MP4::Container& c, std::vector<unsigned long long>& out, unsigned short& extra);
    static void loadM22_QDTH(const MP4::Container& c, std::vector<Quaternion>& out, unsigned short& extra);
    static void loadM29_QDTI(const MP4::Container& c, std::vector<YawCorrection>& out, unsigned short& extra);
    // ---------------------------------------------------------------- loading
    //
    // One accelerometer sample with its compass heading, 12 bytes; also the
    // record of the raw stream read by `load` (big-endian there).
    struct TAccelSensorInfo {
        int16_t x = 0;
        int16_t y = 0;
        int16_t z = 0;
        uint16_t orientation = 0; // hundredths of a degree, 0 ... 35999
        int16_t temperature = 0;
        uint8_t reserved[2] = {};
    };

    // The 48-byte header of a raw stream (twelve big-endian 32-bit words
    // there, host order here). `loadM29` fills it from the boxes.
    struct StreamHeader {
        int32_t count = 0;          // samples announced
        int32_t rate = 0;           // sample rate value
        int32_t tempGain = 0;       // temperature correction a
        int32_t tempOffset = 0;     // temperature correction b
        int32_t tempScale = 0;      // temperature correction c
        int32_t reserved = 0;
        int32_t offsetX = 0;        // added to every raw x
        int32_t offsetY = 0;        // added to every raw y
        int32_t offsetZ = 0;        // added to every raw z
        int32_t tempCorrection = 0; // non-zero: correct z for temperature
        int32_t divisor = 0;
        int32_t step = 0;           // 30 / divisor
    };

    // Reads a raw stream at the file's position: header, then up to count
    // samples. With `filter`, each axis is low-pass filtered on its own
    // thread. Then the two orientation decisions. True when count samples
    // were read.
    bool load(int unused, GLTK::FileIO& file, bool filter);
    // Builds the samples from the movie's QDTD (gravity) and QDTC (compass)
    // boxes; QDTD is resampled at the QDTG times unless the movie has QDTI.
    // `divisor` must not be 0. True when a sample was made for every record.
    bool loadM29(const MP4::Container& container, int divisor);
    // QDTD at the QDTG presentation times (see the .cpp for the walk).
    void loadM30_QDTD_with_QDTG(const MP4::Container& container, std::vector<TopBottomCorrection>& out,
                                unsigned short& extra);

    // The corrected acceleration of sample i (clamped to the table).
    GLTK::Vector3 axis(int i) const;
    // Upside down: gravity mostly along +y rather than -y. Prints one line.
    void detectReverse();
    // Front reversed. Prints one line.
    void detectReverseFront();
    // The compass heading of the sample, from its gravity and the compass
    // vector.
    static void calcOrientation(TAccelSensorInfo& info, const Ecompass& compass);
    // The rotation that turns v onto the direction of axis (identity when v
    // is too short or already along the axis).
    static void tiltMatrix0WithAxis(const GLTK::Vector3& v, const GLTK::Vector3& axis, GLTK::Matrix3x3& result);

    // Runs filterForAcc over the three axes, one thread each, and joins them
    // all before it returns or throws.
    static void filterAxes(const std::vector<double>& x, const std::vector<double>& y, const std::vector<double>& z,
                           std::vector<double>& fx, std::vector<double>& fy, std::vector<double>& fz);
    // The gravity direction at time g between the records p and q
    // (p.t <= g < q.t), of length 16384; p's vector where no turn is defined.
    static TopBottomCorrection interpolateGravity(const TopBottomCorrection& p, const TopBottomCorrection& q,
                                                  uint64_t g);

    bool isReversed() const { return reversed; }
    bool isFrontReversed() const { return frontReversed; }
    const std::vector<TAccelSensorInfo>& getSamples() const { return samples; }

    StreamHeader header;
    std::vector<TAccelSensorInfo> samples;
    bool reversed = false;
    float upWeight = 0;
    float downWeight = 0;
    bool frontReversed = false;
    float frontScore = 0;

private:
    void clearState();
};

static_assert(sizeof(AccelSensorStreamEmbed::Gyro) == 24);
static_assert(sizeof(AccelSensorStreamEmbed::Ecompass) == 24);
static_assert(sizeof(AccelSensorStreamEmbed::TopBottomCorrection) == 16);
static_assert(sizeof(AccelSensorStreamEmbed::Quaternion) == 24);
static_assert(sizeof(AccelSensorStreamEmbed::YawCorrection) == 24);
static_assert(sizeof(AccelSensorStreamEmbed::TAccelSensorInfo) == 12);
static_assert(sizeof(AccelSensorStreamEmbed::StreamHeader) == 48);


template <class T, class Swap>
void AccelSensorStreamEmbed::loadM29_QDTx(const MP4::Container& container, const char* type, std::vector<T>& out,
                                          unsigned short& extra, Swap swap)
{
    constexpr unsigned S = sizeof(T);
    out.clear();
    extra = 0;
    std::string path = std::string("moov.udta.") + type;
    MP4::BOX* box = container.first(path.c_str());
    if (box == nullptr)
        return;
    const std::wstring name = GLTK::wchar::mbs2wcs(std::string(type, strnlen(type, 4)));
    if (box->size <= 23) {
        GLTK::Console::out(L"%ls: Not enough length. except less than %u, but %u.\n", name.c_str(), kRecordsAt,
                           static_cast<unsigned>(box->size));
        return;
    }
    container.open([&](GLTK::FileIO& file) {
        // The box is judged by the bytes it really has: a size that claims
        // more than its parent or the file holds is cut there.
        const uint64_t size = box->reach - box->start;
        uint8_t header[16];
        if (size < kRecordsAt || !file.seek_set(static_cast<int64_t>(box->start + 8)) ||
            file.read(header, 16) != 16) {
            GLTK::Console::out(L"%ls: Not enough length. except less than %u, but %u.\n", name.c_str(), kRecordsAt,
                               static_cast<unsigned>(size));
            return;
        }
        uint32_t count = SensorStream::le32(header);
        uint16_t headExtra = SensorStream::le16(header + 4);
        uint16_t unitSize = SensorStream::le16(header + 6);
        const uint16_t mark = SensorStream::le16(header + 8);
        const bool big = mark == kBigEndianMark;
        if (big) {
            SensorStream::swapBytes(count);
            SensorStream::swapBytes(headExtra);
            SensorStream::swapBytes(unitSize);
        }
        if (unitSize != S || (mark != kBigEndianMark && mark != kLittleEndianMark)) {
            GLTK::Console::out(L"%ls: Invalid header. unitSize(expect %u, but %u), endian(expect %04X/%04X, but "
                               L"%04X).\n",
                               name.c_str(), S, static_cast<unsigned>(unitSize), static_cast<unsigned>(kBigEndianMark),
                               static_cast<unsigned>(kLittleEndianMark), static_cast<unsigned>(mark));
            return;
        }
        // The message shows the 32-bit figures; the check itself is exact.
        const uint64_t need = kRecordsAt + uint64_t(count) * S;
        if (size < need) {
            GLTK::Console::out(L"%ls: Not enough length. except less than %u+%u*%u(=%u), but %u.\n", name.c_str(),
                               kRecordsAt, static_cast<unsigned>(unitSize), count,
                               static_cast<unsigned>(kRecordsAt + count * S), static_cast<unsigned>(size));
            return;
        }
        extra = headExtra;
        if (count == 0)
            return;
        out.reserve(count);
        std::vector<uint8_t> block(S * 4096);
        uint32_t left = count;
        while (left > 0) {
            uint32_t n = std::min<uint32_t>(left, 4096);
            if (file.read(block.data(), uint64_t(n) * S) != uint64_t(n) * S) {
                out.clear(); // the file ended inside the records
                return;
            }
            for (uint32_t i = 0; i < n; ++i) {
                T record;
                std::memcpy(&record, block.data() + uint64_t(i) * S, S);
                if (big)
                    swap(record);
                out.push_back(record);
            }
            left -= n;
        }
    });
}
