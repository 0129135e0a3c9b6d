// Location boxes in moov.udta: removing loci boxes that cannot be read, and
// adding the position boxes of the GPS record.
#include "MP4Container.h"

#include "GLTKConsole.h"
#include "GPSInfo.h"

namespace MP4 {

ByteArray Container::locationBoxes(const GPSInfo& gps, bool xyz, bool loci, bool textXyz)
{
    ByteArray out;
    if (xyz)
        out.append(ATXYZ::bytes(gps.rawXyz));
    if (loci)
        out.append(LOCI::bytes(gps.lon().toUINT32Fixnum(), gps.lat().toUINT32Fixnum(), gps.alt().toUINT32Fixnum()));
    if (textXyz)
        out.append(XYZ::bytes(gps.to_CXYZ_string()));
    return out;
}

bool Container::build_locationBOX(const EditPlan& plan, BOX*& udta, ByteArray& out, const GPSInfo& gps) const
{
    out.clear();
    udta = first("moov.udta");
    if (udta != nullptr && !plan.keeps(*udta))
        udta = nullptr;
    // Each box only where the movie has none of its kind yet.
    auto lacks = [&](const char* path) {
        bool found = false;
        find(path, [&](BOX& b) {
            found = plan.keeps(b);
            return !found;
        });
        return !found;
    };
    out = locationBoxes(gps, lacks("moov.udta.@xyz"), lacks("moov.udta.loci"), lacks("moov.udta.\xA9xyz"));
    if (out.empty())
        return false;
    if (udta == nullptr)
        out = makeBox("udta", out);
    return true;
}

bool Container::appendLocation(EditPlan& plan, const GPSInfo& gps) const
{
    if (moov == nullptr || mdat == nullptr || videoTrack == nullptr)
        return false;
    BOX* udta = nullptr;
    ByteArray locations;
    if (!build_locationBOX(plan, udta, locations, gps))
        return true;
    const NestedBox* into = udta != nullptr ? udta->as<NestedBox>() : moov;
    if (into == nullptr)
        return false;
    return plan.insert(L"appendLocation", *into, into->endOfChildren(),
                       {EditPlan::bytes(std::move(locations))});
}

bool Container::removeBadLOCI(EditPlan& plan) const
{
    if (first("moov.udta") == nullptr || first("moov.udta.loci") == nullptr)
        return true;
    bool ok = true;
    find("moov.udta.loci", [&](BOX& b) {
        // A box that claims to run past its parent is malformed as well, as
        // is one that could not be read as a location at all.
        if (!b.whole() || b.as<LOCI>() == nullptr)
            ok = plan.remove(L"removeBadLOCI", b) && ok;
        return true;
    });
    return ok;
}

} // namespace MP4
