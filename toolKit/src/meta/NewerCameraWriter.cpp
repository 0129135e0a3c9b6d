#include "NewerCameraWriter.h"

#include "CameraUdta.h"
#include "GLTKConsole.h"
#include "SpatialDataCopy.h"

bool NewerCameraWriter::build(const MP4::Container& movie, MP4::EditPlan& plan, bool inPlace)
{
    req.settleSphericalXml(movie, inPlace);
    if (!req.appendSphericalVideo(movie, plan))
        return false;
    // The camera's movie: the movie itself in a metadata-only run, else the
    // source that was re-encoded into it.
    const MP4::Container& camera = source.container;
    const unsigned cameraFile = &movie == &camera ? 0 : plan.addInput(camera);
    if (!carryUdta(movie, cameraFile, plan) || !CameraUdta::carryGpsMeta(movie, camera, cameraFile, plan) ||
        !SpatialDataCopy::carry(movie, camera, cameraFile, req.spatialCut, plan))
        return false;
    if (!req.xmp.empty() && !movie.appendXMP(plan, req.xmp))
        return false;
    movie.updateTimeStamp(plan, req.timestamp);
    return true;
}

bool NewerCameraWriter::carryUdta(const MP4::Container& movie, unsigned cameraFile, MP4::EditPlan& plan)
{
    const MP4::Container& camera = source.container;
    const MP4::UDTA* udta = camera.first<MP4::UDTA>("moov.udta");
    if (udta == nullptr)
        return false;
    if (!udta->whole() || udta->largesize) {
        GLTK::Console::out(L"source movie read. but, unmatch size.\n");
        return false;
    }
    if (!CameraUdta(req).update(camera, cameraFile, *udta, movie.path, plan))
        return false;
    // The movie's own udta already is the camera's in a metadata-only run.
    if (cameraFile == 0)
        return true;
    return movie.replaceUdta(plan, {MP4::EditPlan::range(cameraFile, udta->start, udta->size)});
}
