#include "MP4Box.h"

#include "AVCCRecord.h"
#include "GLTKConsole.h"

#include <algorithm>

namespace MP4 {

void AVCC::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    uint64_t n = payloadSize();
    if (n > (1 << 20) || !file.fits(n))
        return;
    record.resize(n);
    if (n > 0 && !file.readBytes(record.data, n))
        record.clear();
}

void AVCC::dump() const
{
    avcc_dump(record, indent().c_str(), basicTag().c_str());
}

bool AVCC::get_profile_idc_and_constrained_set1_flag(unsigned char& profile_idc, bool& constrainedSet1,
                                                     bool& fullRange) const
{
    return avcc_get_profile_idc_and_constrained_set1_flag(record, profile_idc, constrainedSet1, fullRange);
}

bool AVCC::assign_fullRange_and_constrained_set1_flag(ByteArray& out, bool fullRange, bool& oldFullRange,
                                                      bool& oldConstrainedSet1) const
{
    return avcc_assign_fullRange_and_constrained_set1_flag(record, out, fullRange, oldFullRange, oldConstrainedSet1);
}

} // namespace MP4
