#pragma once
// The Spherical Video V2 boxes of the video sample entry: st3d (stereo
// mode) and sv3d, which holds svhd (the tool that wrote the boxes) and proj
// with prhd (the initial pose) and one projection box, equi (the share of
// the sphere cropped at each edge).
#include "MP4BoxTree.h"

#include <cstdint>
#include <string>

namespace MP4 {

class ST3D : public BOX {
public:
    explicit ST3D(const BOX& h) { copyHeader(h); }
    bool parseBox(BinFile& file) override;
    void dump() const override;
    static ByteArray bytes(uint8_t stereoMode);
    static constexpr uint8_t kMonoscopic = 0;
    uint8_t stereoMode = 0;
};

// Read only with svhd and proj (with prhd and equi) all there and whole.
class SV3D : public NestedBox {
public:
    using NestedBox::NestedBox;
    bool parseBox(BinFile& file) override;
};

class SVHD : public BOX {
public:
    explicit SVHD(const BOX& h) { copyHeader(h); }
    bool parseBox(BinFile& file) override;
    void dump() const override;
    static ByteArray bytes(const std::string& metadataSource);
    std::string metadataSource;
};

class PROJ : public NestedBox {
public:
    using NestedBox::NestedBox;
};

// The pose in degrees, each a signed 16.16 fixed-point value in the box.
class PRHD : public BOX {
public:
    explicit PRHD(const BOX& h) { copyHeader(h); }
    bool parseBox(BinFile& file) override;
    void dump() const override;
    static ByteArray bytes(double yaw, double pitch, double roll);
    double yaw = 0, pitch = 0, roll = 0;
};

// Bounds as unsigned 0.32 fixed-point shares of the sphere.
class EQUI : public BOX {
public:
    explicit EQUI(const BOX& h) { copyHeader(h); }
    bool parseBox(BinFile& file) override;
    void dump() const override;
    static ByteArray bytes(uint32_t top, uint32_t bottom, uint32_t left, uint32_t right);
    uint32_t top = 0, bottom = 0, left = 0, right = 0;
};

namespace SphericalV2 {
// st3d, then sv3d, for a monoscopic full 360x180 equirectangular picture
// with the given pose.
ByteArray boxes(const std::string& metadataSource, double yaw, double pitch, double roll);
} // namespace SphericalV2

} // namespace MP4
