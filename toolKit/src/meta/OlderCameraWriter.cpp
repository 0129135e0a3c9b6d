#include "OlderCameraWriter.h"

#include "SpatialDataCopy.h"

bool OlderCameraWriter::build(const MP4::Container& movie, MP4::EditPlan& plan, bool inPlace)
{
    movie.moovFirst(plan);
    movie.removeBadLOCI(plan);
    req.settleSphericalXml(movie, inPlace);
    if (!req.appendSphericalVideo(movie, plan) || !movie.appendLocation(plan, req.gps))
        return false;
    // A copy of the camera's movie carries its udta whole: the spatial-data
    // pointer in it follows the spatial data, if the movie has any.
    if (&movie == &source.container && !SpatialDataCopy::carry(movie, movie, 0, req.spatialCut, plan))
        return false;
    if (!req.xmp.empty() && !movie.appendXMP(plan, req.xmp))
        return false;
    if (!req.axis.empty() && !movie.appendAxis(plan, req.axis))
        return false;
    movie.updateTimeStamp(plan, req.timestamp);
    return true;
}
