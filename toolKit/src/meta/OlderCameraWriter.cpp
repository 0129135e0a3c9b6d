#include "OlderCameraWriter.h"

#include "CameraUdta.h"
#include "GLTKConsole.h"
#include "SpatialDataCopy.h"

bool OlderCameraWriter::build(const MP4::Container& movie, MP4::EditPlan& plan, bool inPlace)
{
    movie.moovFirst(plan);
    movie.removeBadLOCI(plan);
    req.settleSphericalXml(movie, inPlace);
    if (!req.appendSphericalVideo(movie, plan))
        return false;
    const MP4::Container& camera = source.container;
    if (&movie == &camera) {
        // A copy of the camera's movie: its udta stays, the location boxes
        // it lacks join it, and the spatial-data pointer in it follows the
        // spatial data, if the movie has any.
        if (!movie.appendLocation(plan, req.gps) || !SpatialDataCopy::carry(movie, movie, 0, req.spatialCut, plan))
            return false;
    } else {
        const unsigned file = plan.addInput(camera);
        if (!carryUdta(movie, file, plan) || !CameraUdta::carryGpsMeta(movie, camera, file, plan) ||
            !SpatialDataCopy::carry(movie, camera, file, req.spatialCut, plan))
            return false;
    }
    if (!req.xmp.empty() && !movie.appendXMP(plan, req.xmp))
        return false;
    if (!req.axis.empty() && !movie.appendAxis(plan, req.axis))
        return false;
    movie.updateTimeStamp(plan, req.timestamp);
    return true;
}

bool OlderCameraWriter::carryUdta(const MP4::Container& movie, unsigned cameraFile, MP4::EditPlan& plan)
{
    const MP4::Container& camera = source.container;
    const MP4::UDTA* udta = camera.first<MP4::UDTA>("moov.udta");
    if (udta != nullptr && (!udta->whole() || udta->largesize)) {
        GLTK::Console::out(L"MP4: the udta of %ls runs past its parent; it is left out.\n", camera.path.c_str());
        udta = nullptr;
    }
    if (udta == nullptr)
        return movie.appendLocation(plan, req.gps);
    if (!CameraUdta(req).update(camera, cameraFile, *udta, movie.path, plan))
        return false;
    MP4::EditPlan::Pieces pieces(1); // the header, once its size is known
    bool xyz = false, loci = false, textXyz = false;
    uint64_t size = 8;
    for (const MP4::BOX* child : udta->children) {
        if (!child->whole() || (child->is("loci") && child->as<MP4::LOCI>() == nullptr))
            continue;
        xyz = xyz || child->is("@xyz");
        loci = loci || child->is("loci");
        textXyz = textXyz || child->is("\xA9xyz");
        pieces.push_back(MP4::EditPlan::range(cameraFile, child->start, child->size));
        size += child->size;
    }
    ByteArray locations = MP4::Container::locationBoxes(req.gps, !xyz, !loci, !textXyz);
    size += locations.length;
    pieces.push_back(MP4::EditPlan::bytes(std::move(locations)));
    ByteArray header;
    MP4::appendHeader(header, "udta", size);
    pieces.front() = MP4::EditPlan::bytes(std::move(header));
    return movie.replaceUdta(plan, std::move(pieces));
}
