#include "RebuildRequest.h"

#include "GLTKConsole.h"

#include <cmath>

void RebuildRequest::settleSphericalXml(const MP4::Container& movie, bool inPlace)
{
    if (sphericalXml.empty()) {
        uint32_t width = 0, height = 0;
        if (const MP4::TKHD* t = movie.first<MP4::TKHD>("moov.trak.tkhd")) {
            width = t->width;
            height = t->height;
        }
        if ((!inPlace && projectionType == 2) || height < 1 || width != 2 * height) {
            GLTK::Console::out(L"MP4: Not a spherical video.\n");
        } else {
            ViewHeading v;
            v.stitchingSoftware = stitchingSoftware;
            v.timestamp = timestamp;
            sphericalXml = v.toString();
            GLTK::Console::out(L"Appned New GVF-BOX.\n");
        }
    }
    // A fixed size lets a later edit rewrite the box in place.
    if (!sphericalXml.empty() && sphericalXml.size() < 1000) {
        sphericalXml += '\n';
        sphericalXml.resize(1000, ' ');
    }
}

ViewHeading RebuildRequest::pose() const
{
    ViewHeading view;
    view.attach(sphericalXml);
    view.bringIntoRange();
    return view;
}

bool RebuildRequest::appendSphericalVideo(const MP4::Container& movie, MP4::EditPlan& plan) const
{
    if (sphericalXml.empty())
        return true;
    const ViewHeading view = pose();
    return movie.appendSphericalVideoXML(plan, sphericalXml) &&
           movie.appendSphericalVideoV2(plan, creatorTool, std::isnan(view.heading) ? 0.0 : view.heading,
                                        std::isnan(view.pitch) ? 0.0 : view.pitch);
}
