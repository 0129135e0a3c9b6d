// The Spherical Video V2 boxes: parse, serialisers and dump lines.
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

// A full box of version 0 holds at least its version and flags and `body`
// more bytes.
bool fits(const BOX& b, BinFile& file, uint64_t body)
{
    return b.size >= 12 + body && file.fits(4 + body);
}

} // namespace

void ST3D::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    if (!fits(*this, file, 1))
        return;
    file.read32();
    stereoMode = file.read8();
    complete = true;
}

ByteArray ST3D::bytes(uint8_t mode)
{
    ByteArray body;
    body.append8(mode);
    return makeFullBox("st3d", 0, 0, body);
}

BOX* SV3D::allocChild(BOX& h)
{
    if (h.type == fourcc("svhd"))
        return new SVHD(h);
    if (h.type == fourcc("proj"))
        return new PROJ(h);
    return new BOX(h);
}

bool SV3D::complete() const
{
    const auto* svhd = dynamic_cast<const SVHD*>(first("svhd"));
    const auto* prhd = dynamic_cast<const PRHD*>(first("proj.prhd"));
    const auto* equi = dynamic_cast<const EQUI*>(first("proj.equi"));
    return svhd != nullptr && svhd->complete && prhd != nullptr && prhd->complete && equi != nullptr &&
           equi->complete;
}

void SVHD::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    if (size < 13 || !file.fits(size - 8))
        return;
    file.read32();
    std::string text(static_cast<size_t>(std::min<uint64_t>(size - 12, 4096)), '\0');
    if (!file.readBytes(text.data(), text.size()))
        return;
    metadataSource = text.substr(0, text.find('\0'));
    complete = true;
}

ByteArray SVHD::bytes(const std::string& source)
{
    ByteArray body;
    body.appendText(source);
    body.append8(0);
    return makeFullBox("svhd", 0, 0, body);
}

BOX* PROJ::allocChild(BOX& h)
{
    if (h.type == fourcc("prhd"))
        return new PRHD(h);
    if (h.type == fourcc("equi"))
        return new EQUI(h);
    return new BOX(h);
}

void PRHD::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    if (!fits(*this, file, 12))
        return;
    file.read32();
    yaw = static_cast<int32_t>(file.read32()) / 65536.0;
    pitch = static_cast<int32_t>(file.read32()) / 65536.0;
    roll = static_cast<int32_t>(file.read32()) / 65536.0;
    complete = true;
}

ByteArray PRHD::bytes(double yaw, double pitch, double roll)
{
    ByteArray body;
    body.append32be(static_cast<uint32_t>(fixed16(yaw)));
    body.append32be(static_cast<uint32_t>(fixed16(pitch)));
    body.append32be(static_cast<uint32_t>(fixed16(roll)));
    return makeFullBox("prhd", 0, 0, body);
}

void EQUI::parseBox(BinFile& file, uint64_t end)
{
    file.limit = std::min(start + size, end);
    if (!fits(*this, file, 16))
        return;
    file.read32();
    top = file.read32();
    bottom = file.read32();
    left = file.read32();
    right = file.read32();
    complete = true;
}

ByteArray EQUI::bytes(uint32_t t, uint32_t b, uint32_t l, uint32_t r)
{
    ByteArray body;
    for (uint32_t v : {t, b, l, r})
        body.append32be(v);
    return makeFullBox("equi", 0, 0, body);
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

void ST3D::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls stereoMode=%u >\n", indent().c_str(), basicTag().c_str(), unsigned(stereoMode));
}

void SVHD::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls metadataSource=%ls >\n", indent().c_str(), basicTag().c_str(),
                       GLTK::wchar::mbs2wcs(metadataSource).c_str());
}

void PRHD::dump() const
{
    GLTK::Console::LocaleC c;
    GLTK::Console::out(L"MP4: %ls<%ls yaw=%g pitch=%g roll=%g >\n", indent().c_str(), basicTag().c_str(), yaw, pitch,
                       roll);
}

void EQUI::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls top=%u bottom=%u left=%u right=%u >\n", indent().c_str(), basicTag().c_str(),
                       top, bottom, left, right);
}

} // namespace MP4
