#include "NewerCameraWriter.h"

#include "CameraUdta.h"
#include "GLTKConsole.h"
#include "MetaBuilder.h"
#include "SpatialDataCopy.h"

#include <memory>

bool NewerCameraWriter::build(const MP4::Container& movie, MP4::EditPlan& plan, bool inPlace)
{
    meta.updateSphereXML(movie, inPlace);
    if (!meta.sphericalXml.empty() &&
        (!movie.appendSphericalVideoXML(plan, meta.sphericalXml) || !meta.appendSphericalV2(movie, plan)))
        return false;
    meta.progress(6);

    // The camera's movie: the movie itself in a metadata-only run, else the
    // source that was re-encoded into it.
    std::unique_ptr<MP4::Container> source;
    const MP4::Container* camera = &movie;
    unsigned cameraFile = 0;
    if (meta.sourcePath != movie.path) {
        source = std::make_unique<MP4::Container>();
        if (!source->attach(meta.sourcePath))
            return false;
        camera = source.get();
        cameraFile = plan.addInput(*source);
    }
    if (!carryUdta(movie, *camera, cameraFile, plan) || !carryGpsMeta(movie, *camera, cameraFile, plan) ||
        !SpatialDataCopy::carry(movie, *camera, cameraFile, meta.spatialSound, plan))
        return false;
    meta.progress(8);
    if (!meta.xmp.empty() && !movie.appendXMP(plan, meta.xmp))
        return false;
    movie.updateTimeStamp(plan, meta.timestamp);
    return true;
}

bool NewerCameraWriter::carryUdta(const MP4::Container& movie, const MP4::Container& camera, unsigned cameraFile,
                                  MP4::EditPlan& plan)
{
    const MP4::UDTA* udta = camera.first<MP4::UDTA>("moov.udta");
    if (udta == nullptr)
        return false;
    if (!udta->isWhole(camera.length()) || udta->largesize) {
        GLTK::Console::out(L"source movie read. but, unmatch size.\n");
        return false;
    }
    CameraUdta edits(meta);
    if (!edits.update(camera, cameraFile, *udta, movie.path, plan))
        return false;
    // The movie's own udta already is the camera's in a metadata-only run.
    if (cameraFile == 0)
        return true;
    return movie.replaceUdta(plan, {MP4::EditPlan::range(cameraFile, udta->start, udta->size)});
}

bool NewerCameraWriter::carryGpsMeta(const MP4::Container& movie, const MP4::Container& camera, unsigned cameraFile,
                                     MP4::EditPlan& plan)
{
    const MP4::BOX* gpsMeta = camera.first("moov.meta");
    if (gpsMeta == nullptr || gpsMeta->size < 9)
        return true;
    if (!gpsMeta->isWhole(camera.length()))
        return false;
    return movie.appendGpsMeta(plan, cameraFile, gpsMeta->start, gpsMeta->size);
}
