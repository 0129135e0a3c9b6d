#include "GLTKMedia.h"

#include <cmath>

namespace GLTK {

MediaTime MediaTime::fromSeconds(double seconds, int32_t timescale)
{
    if (timescale <= 0 || !std::isfinite(seconds))
        return MediaTime::invalid();
    double v = std::round(seconds * double(timescale));
    if (v > 9.2e18)
        v = 9.2e18;
    if (v < -9.2e18)
        v = -9.2e18;
    return MediaTime(static_cast<int64_t>(v), timescale);
}

MediaTime MediaTime::convertScale(int32_t newTimescale) const
{
    if (!isValid() || newTimescale <= 0)
        return MediaTime::invalid();
    if (newTimescale == timescale)
        return *this;
    __int128 n = static_cast<__int128>(value) * newTimescale;
    __int128 half = timescale / 2;
    __int128 q = (n >= 0 ? n + half : n - half) / timescale;
    return MediaTime(static_cast<int64_t>(q), newTimescale);
}

int MediaTime::compare(const MediaTime& other) const
{
    __int128 a = static_cast<__int128>(value) * (other.timescale > 0 ? other.timescale : 1);
    __int128 b = static_cast<__int128>(other.value) * (timescale > 0 ? timescale : 1);
    return a < b ? -1 : (a > b ? 1 : 0);
}

MediaTime MediaTimeRange::end() const
{
    if (!start.isValid() || !duration.isValid())
        return MediaTime::invalid();
    int32_t ts = start.timescale >= duration.timescale ? start.timescale : duration.timescale;
    MediaTime a = start.convertScale(ts);
    MediaTime b = duration.convertScale(ts);
    return MediaTime(a.value + b.value, ts);
}

} // namespace GLTK
