// The Spherical Video V2 boxes: parse, serialisers, dump lines and the
// factory's entries.
#include "MP4Box.h"

#include "GLTKConsole.h"
#include "GLTKwchar.h"

#include <algorithm>
#include <cmath>

namespace MP4 {

namespace {

int32_t fixed16(double degrees)
{
    return static_cast<int32_t>(std::lround(std::clamp(degrees, -32768.0, 32767.0) * 65536.0));
}

// A 16.16 fixed-point number of degrees.
bool readDegrees(BinFile& file, double& degrees)
{
    uint32_t v = 0;
    RCHECK(file.read32(v));
    degrees = static_cast<int32_t>(v) / 65536.0;
    return true;
}

} // namespace

const BoxKinds& sphericalBoxKinds()
{
    static const BoxKinds kinds = {
        {"avc1", "st3d", newBox<ST3D>}, {"hvc1", "st3d", newBox<ST3D>}, {"hev1", "st3d", newBox<ST3D>},
        {"avc1", "sv3d", newBox<SV3D>}, {"hvc1", "sv3d", newBox<SV3D>}, {"hev1", "sv3d", newBox<SV3D>},
        {"sv3d", "svhd", newBox<SVHD>}, {"sv3d", "proj", newBox<PROJ>}, {"proj", "prhd", newBox<PRHD>},
        {"proj", "equi", newBox<EQUI>},
    };
    return kinds;
}

bool ST3D::parseBox(BinFile& file)
{
    return file.skip(4) && file.read8(stereoMode);
}

ByteArray ST3D::bytes(uint8_t mode)
{
    ByteArray body;
    body.append8(mode);
    return makeFullBox("st3d", 0, 0, body);
}

void ST3D::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls stereoMode=%u >\n", indent().c_str(), basicTag().c_str(), unsigned(stereoMode));
}

bool SV3D::parseBox(BinFile& file)
{
    parseChildren(file);
    if (first<SVHD>("svhd") == nullptr || first<PRHD>("proj.prhd") == nullptr || first<EQUI>("proj.equi") == nullptr)
        return fail("its svhd, prhd or equi is missing or cut short");
    return true;
}

bool SVHD::parseBox(BinFile& file)
{
    if (payloadSize() < 5)
        return fail("too short for a metadata source");
    RCHECK(file.skip(4));
    std::string text(static_cast<size_t>(std::min<uint64_t>(payloadSize() - 4, 4096)), '\0');
    RCHECK(file.readBytes(text.data(), text.size()));
    metadataSource = text.substr(0, text.find('\0'));
    return true;
}

ByteArray SVHD::bytes(const std::string& source)
{
    ByteArray body;
    body.appendText(source);
    body.append8(0);
    return makeFullBox("svhd", 0, 0, body);
}

void SVHD::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls metadataSource=%ls >\n", indent().c_str(), basicTag().c_str(),
                       GLTK::wchar::mbs2wcs(metadataSource).c_str());
}

bool PRHD::parseBox(BinFile& file)
{
    return file.skip(4) && readDegrees(file, yaw) && readDegrees(file, pitch) && readDegrees(file, roll);
}

ByteArray PRHD::bytes(double yaw, double pitch, double roll)
{
    ByteArray body;
    body.append32be(static_cast<uint32_t>(fixed16(yaw)));
    body.append32be(static_cast<uint32_t>(fixed16(pitch)));
    body.append32be(static_cast<uint32_t>(fixed16(roll)));
    return makeFullBox("prhd", 0, 0, body);
}

void PRHD::dump() const
{
    GLTK::Console::LocaleC c;
    GLTK::Console::out(L"MP4: %ls<%ls yaw=%g pitch=%g roll=%g >\n", indent().c_str(), basicTag().c_str(), yaw, pitch,
                       roll);
}

bool EQUI::parseBox(BinFile& file)
{
    return file.skip(4) && file.read32(top) && file.read32(bottom) && file.read32(left) && file.read32(right);
}

ByteArray EQUI::bytes(uint32_t t, uint32_t b, uint32_t l, uint32_t r)
{
    ByteArray body;
    for (uint32_t v : {t, b, l, r})
        body.append32be(v);
    return makeFullBox("equi", 0, 0, body);
}

void EQUI::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls top=%u bottom=%u left=%u right=%u >\n", indent().c_str(), basicTag().c_str(),
                       top, bottom, left, right);
}

ByteArray SphericalV2::boxes(const std::string& source, double yaw, double pitch, double roll)
{
    ByteArray proj = PRHD::bytes(yaw, pitch, roll);
    proj.append(EQUI::bytes(0, 0, 0, 0));
    ByteArray sv3d = SVHD::bytes(source);
    sv3d.append(makeBox("proj", proj));
    ByteArray out = ST3D::bytes(ST3D::kMonoscopic);
    out.append(makeBox("sv3d", sv3d));
    return out;
}

} // namespace MP4
