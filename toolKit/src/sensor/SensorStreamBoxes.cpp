#include "SensorStreamBoxes.h"

#include "AccelSensorStreamEmbed.h"

namespace SensorStream {

bool trimSensorBox(uint8_t* box, uint64_t boxSize, unsigned recordSize, uint32_t first, uint32_t count)
{
    using A = AccelSensorStreamEmbed;
    if (box == nullptr || recordSize == 0 || boxSize < A::kRecordsAt)
        return false;
    const bool big = le16(box + 16) == A::kBigEndianMark;
    uint32_t recorded = le32(box + 8);
    if (big)
        swapBytes(recorded);
    // A cut that runs past the last record keeps the records there are from
    // its start on (none when it starts past them).
    const uint64_t held = std::min<uint64_t>(recorded, (boxSize - A::kRecordsAt) / recordSize);
    const uint64_t from = std::min<uint64_t>(first, held);
    const uint64_t kept = std::min<uint64_t>(count, held - from) * recordSize;
    // A box the kept records would fill exactly is deliberately not rewritten.
    if (boxSize - A::kRecordsAt <= kept)
        return false;
    uint32_t stored = static_cast<uint32_t>(kept / recordSize);
    if (big)
        swapBytes(stored);
    std::memcpy(box + 8, &stored, 4);
    uint8_t* records = box + A::kRecordsAt;
    std::memmove(records, records + from * recordSize, kept);
    std::memset(records + kept, 0, boxSize - A::kRecordsAt - kept);
    return true;
}

} // namespace SensorStream

using A = AccelSensorStreamEmbed;

void A::Gyro::swap_xyzt(Gyro& r)
{
    SensorStream::swapBytes(r.x);
    SensorStream::swapBytes(r.y);
    SensorStream::swapBytes(r.z);
    SensorStream::swapBytes(r.t);
}

void A::Ecompass::swap_xyzt(Ecompass& r)
{
    SensorStream::swapBytes(r.x);
    SensorStream::swapBytes(r.y);
    SensorStream::swapBytes(r.z);
    SensorStream::swapBytes(r.t);
}

void A::TopBottomCorrection::swap_xyzt(TopBottomCorrection& r)
{
    SensorStream::swapBytes(r.x);
    SensorStream::swapBytes(r.y);
    SensorStream::swapBytes(r.z);
    SensorStream::swapBytes(r.t);
}

void A::Quaternion::swap_wxyzt(Quaternion& r)
{
    SensorStream::swapBytes(r.w);
    SensorStream::swapBytes(r.x);
    SensorStream::swapBytes(r.y);
    SensorStream::swapBytes(r.z);
    SensorStream::swapBytes(r.t);
}

void A::YawCorrection::swap_QDTI(YawCorrection& r)
{
    SensorStream::swapBytes(r.w);
    SensorStream::swapBytes(r.x);
    SensorStream::swapBytes(r.y);
    SensorStream::swapBytes(r.z);
    SensorStream::swapBytes(r.t);
}

void A::swap_u64(unsigned long long& t) { SensorStream::swapBytes(t); }

void A::loadM29_QDTB(const MP4::Container& c, std::vector<Gyro>& out, unsigned short& extra)
{
    loadM29_QDTx(c, "QDTB", out, extra, Gyro::swap_xyzt);
}

void A::loadM29_QDTC(const MP4::Container& c, std::vector<Ecompass>& out, unsigned short& extra)
{
    loadM29_QDTx(c, "QDTC", out, extra, Ecompass::swap_xyzt);
}

void A::loadM29_QDTD(const MP4::Container& c, std::vector<TopBottomCorrection>& out, unsigned short& extra)
{
    loadM29_QDTx(c, "QDTD", out, extra, TopBottomCorrection::swap_xyzt);
}

void A::loadM30_QDTG(const MP4::Container& c, std::vector<unsigned long long>& out, unsigned short& extra)
{
    loadM29_QDTx(c, "QDTG", out, extra, swap_u64);
}

void A::loadM22_QDTH(const MP4::Container& c, std::vector<Quaternion>& out, unsigned short& extra)
{
    loadM29_QDTx(c, "QDTH", out, extra, Quaternion::swap_wxyzt);
}

void A::loadM29_QDTI(const MP4::Container& c, std::vector<YawCorrection>& out, unsigned short& extra)
{
    loadM29_QDTx(c, "QDTI", out, extra, YawCorrection::swap_QDTI);
}
