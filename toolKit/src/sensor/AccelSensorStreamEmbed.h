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
    static void loadM29_QDTx(MP4::Container& container, const char* type, std::vector<T>& out,
                             unsigned short& extra, Swap swap);

    static void loadM29_QDTB(MP4::Container& c, std::vector<Gyro>& out, unsigned short& extra);
    static void loadM29_QDTC(MP4::Container& c, std::vector<Ecompass>& out, unsigned short& extra);
    static void loadM29_QDTD(MP4::Container& c, std::vector<TopBottomCorrection>& out, unsigned short& extra);
    static void loadM30_QDTG(MP4::Container& c, std::vector<unsigned long long>& out, unsigned short& extra);
    static void loadM22_QDTH(MP4::Container& c, std::vector<Quaternion>& out, unsigned short& extra);
    static void loadM29_QDTI(MP4::Container& c, std::vector<YawCorrection>& out, unsigned short& extra);
};

static_assert(sizeof(AccelSensorStreamEmbed::Gyro) == 24);
static_assert(sizeof(AccelSensorStreamEmbed::Ecompass) == 24);
static_assert(sizeof(AccelSensorStreamEmbed::TopBottomCorrection) == 16);
static_assert(sizeof(AccelSensorStreamEmbed::Quaternion) == 24);
static_assert(sizeof(AccelSensorStreamEmbed::YawCorrection) == 24);


template <class T, class Swap>
void AccelSensorStreamEmbed::loadM29_QDTx(MP4::Container& container, const char* type, std::vector<T>& out,
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
        const uint64_t size = std::min(box->size, SensorStream::boxBytesAvailable(*box, file.length()));
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
