#include "OlderCameraWriter.h"

#include "MetaBuilder.h"

bool OlderCameraWriter::build(const MP4::Container& movie, MP4::EditPlan& plan, bool inPlace)
{
    movie.moovFirst(plan);
    movie.removeBadLOCI(plan);
    meta.progress(6);
    meta.updateSphereXML(movie, inPlace);
    if (!movie.appendLocationAndSphericalVideoXML(plan, meta.gps, meta.sphericalXml) ||
        !meta.appendSphericalV2(movie, plan))
        return false;
    meta.progress(8);
    if (!meta.xmp.empty() && !movie.appendXMP(plan, meta.xmp))
        return false;
    if (!meta.axis.empty() && !movie.appendAxis(plan, meta.axis))
        return false;
    movie.updateTimeStamp(plan, meta.timestamp);
    return true;
}
