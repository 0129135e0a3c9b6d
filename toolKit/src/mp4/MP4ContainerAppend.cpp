// The metadata appenders of the container: the XMP and axis uuid boxes at the
// end of the file, the Spherical Video V1 box inside the video track, and the
// GPS meta box copied from the camera's movie.
#include "MP4Container.h"

#include "GLTKConsole.h"

namespace MP4 {

// ---------------------------------------------------------------- XMP, axis

bool Container::appendUUIDOnce(EditPlan& plan, const uint8_t (&userType)[16], const std::string& payload,
                               const wchar_t* existedMessage) const
{
    bool present = false;
    find<UUID>("uuid", [&](UUID& b) {
        present = b.hasUserType(userType) && plan.keeps(b);
        return !present;
    });
    if (present) {
        GLTK::Console::out(existedMessage);
        return true;
    }
    plan.append({EditPlan::bytes(UUID::bytes(userType, payload))});
    return true;
}

bool Container::appendXMP(EditPlan& plan, const std::string& xmp) const
{
    return appendUUIDOnce(plan, XMP::_UUID, xmp, L"MP4: XMP is existed.\n");
}

bool Container::appendAxis(EditPlan& plan, const std::string& axis) const
{
    return appendUUIDOnce(plan, AXIS::_UUID, axis, L"MP4: AXIS is existed.\n");
}

// ---------------------------------------------------------------- Spherical Video V1

void Container::build_sphericalVideoXmlBOX(const EditPlan& plan, BOX*& existing, ByteArray& out,
                                           const std::string& xml) const
{
    existing = nullptr;
    find<UUID>("moov.trak.uuid", [&](UUID& b) {
        if (b.hasUserType(SphericalXML::_UUID) && plan.keeps(b))
            existing = &b; // the last one wins
        return true;
    });
    out = UUID::bytes(SphericalXML::_UUID, xml);
}

bool Container::appendSphericalVideoXML(EditPlan& plan, const std::string& xml) const
{
    if (moov == nullptr || mdat == nullptr || videoTrack == nullptr)
        return false;
    BOX* existing = nullptr;
    ByteArray bytes;
    build_sphericalVideoXmlBOX(plan, existing, bytes, xml);
    // Rewritten in its place, or written behind the video track's last
    // child; the track and moov grow over it.
    if (existing != nullptr)
        return plan.replace(L"appendSphericalVideoXML", *existing, {EditPlan::bytes(std::move(bytes))});
    return plan.insert(L"appendSphericalVideoXML", *videoTrack, videoTrack->end(), {EditPlan::bytes(std::move(bytes))});
}

// ---------------------------------------------------------------- Spherical Video V2

bool Container::appendSphericalVideoV2(EditPlan& plan, const std::string& source, double yaw, double pitch) const
{
    if (videoTrack == nullptr)
        return true;
    const STSD* stsd = videoTrack->first<STSD>("mdia.minf.stbl.stsd");
    const VisualSampleEntry* entry = nullptr;
    for (const BOX* b : stsd != nullptr ? stsd->children : std::vector<BOX*>())
        if ((entry = dynamic_cast<const VisualSampleEntry*>(b)) != nullptr)
            break;
    if (entry == nullptr)
        return true; // no picture format that takes them
    bool whole = entry->whole();
    const BOX* config = nullptr;
    std::vector<const BOX*> old;
    for (const BOX* b : entry->children) {
        whole = whole && b->whole();
        if (config == nullptr && (b->is("avcC") || b->is("hvcC")))
            config = b;
        if (b->is("st3d") || b->is("sv3d"))
            old.push_back(b);
    }
    if (!whole) {
        GLTK::Console::out(L"MP4: the boxes of the video sample entry run past it; no Spherical Video V2 written.\n");
        return true;
    }
    for (const BOX* b : old) {
        if (b->as<ST3D>() == nullptr && b->as<SV3D>() == nullptr) {
            GLTK::Console::out(L"MP4: the movie's Spherical Video V2 box is truncated; left as it is.\n");
            return true;
        }
    }
    for (const BOX* b : old)
        if (!plan.remove(L"appendSphericalVideoV2", *b))
            return false;
    const uint64_t at = config != nullptr ? config->end() : entry->payloadStart() + VisualSampleEntry::kFixedFields;
    return plan.insert(L"appendSphericalVideoV2", *entry, at,
                       {EditPlan::bytes(SphericalV2::boxes(source, yaw, pitch, 0.0))});
}

// ---------------------------------------------------------------- spatial data

// ---------------------------------------------------------------- GPS meta

bool Container::appendGpsMeta(EditPlan& plan, unsigned file, uint64_t offset, uint64_t length) const
{
    if (moov == nullptr)
        return false;
    const BOX* meta = moov->first("meta");
    if (meta != nullptr && plan.keeps(*meta)) {
        GLTK::Console::out(L"MP4: moov.meta(GPS) is existed.\n");
        return true;
    }
    return plan.insert(L"appendGPSMeta", *moov, moov->endOfChildren(), {EditPlan::range(file, offset, length)});
}

} // namespace MP4
