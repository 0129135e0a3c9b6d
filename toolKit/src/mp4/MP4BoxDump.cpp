// The box dump: one line per box, indented by depth, with the main fields of
// the typed boxes.
#include "MP4Box.h"

#include "GLTKConsole.h"
#include "GLTKwchar.h"

namespace MP4 {

namespace {
using GLTK::Console;
using ull = unsigned long long;
} // namespace

std::wstring BOX::basicTag() const
{
    std::wstring t = GLTK::wchar::mbs2wcs(typeText());
    wchar_t buf[96];
    swprintf(buf, 96, L"'%ls': start=%llu bytes=%llu", t.c_str(), ull(start), ull(size));
    return buf;
}

std::wstring BOX::indent() const
{
    return depth > 0 ? std::wstring(static_cast<size_t>(depth) * 4, L' ') : std::wstring();
}

void BOX::dump() const
{
    if (type == 0)
        Console::out(L"MP4: %ls== EOF total=%lld ==\n", indent().c_str(), static_cast<long long>(start));
    else
        Console::out(L"MP4: %ls<%ls >\n", indent().c_str(), basicTag().c_str());
}

void NestedBox::dump() const
{
    Console::out(L"MP4: %ls<%ls children=%lu >\n", indent().c_str(), basicTag().c_str(),
                 static_cast<unsigned long>(children.size()));
    for (const BOX* c : children)
        c->dump();
}

void STSD::dump() const
{
    std::wstring codes;
    for (const BOX* c : children) {
        if (!codes.empty())
            codes += L',';
        codes += GLTK::wchar::mbs2wcs(c->typeText());
    }
    Console::out(L"MP4: %ls<%ls entries=%u codes=%ls children=%lu >\n", indent().c_str(), basicTag().c_str(),
                 entryCount, codes.empty() ? L"-" : codes.c_str(), static_cast<unsigned long>(children.size()));
    for (const BOX* c : children)
        c->dump();
}

void VisualSampleEntry::dump() const
{
    Console::out(L"MP4: %ls<%ls width=%u height=%u children=%lu >\n", indent().c_str(), basicTag().c_str(), width,
                 height, static_cast<unsigned long>(children.size()));
    for (const BOX* c : children)
        c->dump();
}

void HDLR::dump() const
{
    wchar_t code[5] = {};
    for (int i = 0; i < 4; ++i) {
        const unsigned c = (handlerType >> (8 * i)) & 0xFF;
        code[i] = c < 0x20 || c > 0x7E ? L'?' : static_cast<wchar_t>(c);
    }
    Console::out(L"MP4: %ls<%ls handler=%ls >\n", indent().c_str(), basicTag().c_str(), code);
}

void UUID::dump() const
{
    if (hasChild()) {
        NestedBox::dump();
        return;
    }
    wchar_t u[40];
    const uint8_t* t = userType;
    swprintf(u, 40, L"%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", t[0], t[1], t[2], t[3],
             t[4], t[5], t[6], t[7], t[8], t[9], t[10], t[11], t[12], t[13], t[14], t[15]);
    Console::out(L"MP4: %ls<%ls uuid=%ls payload=%llu >\n", indent().c_str(), basicTag().c_str(), u,
                 ull(payload.length));
}

void MVHD::dump() const
{
    Console::out(L"MP4: %ls<%ls timeStamp=%llu timeScale=%u duration=%llu >\n", indent().c_str(),
                 basicTag().c_str(), ull(creationTime), timeScale, ull(duration));
}

void TKHD::dump() const
{
    Console::out(L"MP4: %ls<%ls timeStamp=%llu width=%u height=%u >\n", indent().c_str(), basicTag().c_str(),
                 ull(creationTime), width, height);
}

void MDHD::dump() const
{
    Console::out(L"MP4: %ls<%ls timeStamp=%llu timeScale=%u duration=%llu >\n", indent().c_str(),
                 basicTag().c_str(), ull(creationTime), timeScale, ull(duration));
}

void STCO::dump() const
{
    Console::out(L"MP4: %ls<%ls entries=%u >\n", indent().c_str(), basicTag().c_str(), entryCount);
}

void STSC::dump() const
{
    Console::out(L"MP4: %ls<%ls entries=%u >\n", indent().c_str(), basicTag().c_str(), entryCount);
}

void STSZ::dump() const
{
    Console::out(L"MP4: %ls<%ls sampleSize=%u samples=%u totalBytes=%llu >\n", indent().c_str(),
                 basicTag().c_str(), sampleSize, sampleCount, ull(totalBytes));
}

void STTS::dump() const
{
    Console::out(L"MP4: %ls<%ls entries=%u >\n", indent().c_str(), basicTag().c_str(), entryCount);
}

void XYZ::dump() const
{
    Console::out(L"MP4: %ls<%ls text=%ls >\n", indent().c_str(), basicTag().c_str(),
                 GLTK::wchar::mbs2wcs(text).c_str());
}

} // namespace MP4
