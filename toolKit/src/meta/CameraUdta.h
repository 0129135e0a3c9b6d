#pragma once
// The newer camera's udta brought up to date for the output, as patches of
// its bytes (every change keeps each box's length): the maker note says
// equirectangular and takes the new zenith, stabilization and rolling-shutter
// states; the maker thumbnail is drawn anew from the output's media (or the
// box becomes "free" when the new one does not fit); after a trim the QDTD
// and QDTC sensor streams keep the entries of the kept range.
#include "RebuildRequest.h"

class CameraUdta {
public:
    explicit CameraUdta(const RebuildRequest& request) : req(request) {}
    // Patches the udta of the camera's movie (input `file` of the plan);
    // mediaPath is the movie whose frames the output carries.
    bool update(const MP4::Container& camera, unsigned file, const MP4::NestedBox& udta,
                const std::wstring& mediaPath, MP4::EditPlan& plan) const;
    // The camera's GPS meta box (moov.meta) behind the last child of the
    // movie's moov, when the camera has one and the movie none.
    static bool carryGpsMeta(const MP4::Container& movie, const MP4::Container& camera, unsigned file,
                             MP4::EditPlan& plan);

private:
    void updateMakerNote(ByteArray& payload) const;
    void redrawThumbnail(const MP4::BOX& box, unsigned file, const std::wstring& mediaPath, MP4::EditPlan& plan) const;
    void trimSensorBox(const MP4::Container& camera, const MP4::BOX& box, unsigned recordSize, unsigned file,
                       MP4::EditPlan& plan) const;

    const RebuildRequest& req;
};
