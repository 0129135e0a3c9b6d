#include "MetaProbe.h"

#include "ElementText.h"
#include "GLTKConsole.h"
#include "GLTKVideoReader.h"
#include "GLTKwchar.h"
#include "SourceMetadata.h"

void MetaProbe::init()
{
    cameraVersion = 0;
    frameRate = 0;
    width = height = 0;
    codec = 0;
    orvex.clear();
    sphericalXml.clear();
    stitchingSoftware.clear();
    xmp.clear();
    creatorTool.clear();
    hasGyroData = false;
    duration = 0;
    audioBitRate = 0;
    videoBitRate = 0;
    videoQuality = 0;
}

bool MetaProbe::probe(const std::wstring& path)
{
    init();
    MP4::Container c;
    if (!c.attach(path))
        return false;
    readMetadata(c);
    readCodec(c);
    detect_movie(path);
    detectBitRate(c);
    return width >= 1;
}

void MetaProbe::readMetadata(MP4::Container& c)
{
    SourceMetadata found;
    found.read(c);
    if (found.hasModel) {
        cameraVersion = found.modelCode;
        GLTK::Console::out(L"source movie model: %ls (%x)\n", GLTK::wchar::mbs2wcs(found.modelText).c_str(),
                           cameraVersion);
    }
    switch (found.makerNote) {
    case SourceMetadata::MakerNote::Missing:
        GLTK::Console::out(L"QMKN not found.\n");
        break;
    case SourceMetadata::MakerNote::Read:
        orvex = found.orvex;
        GLTK::Console::out(L"source movie panoramaImageType: %d\n", static_cast<int>(orvex.projectionType));
        break;
    case SourceMetadata::MakerNote::Unreadable:
        GLTK::Console::out(L"EXIF can't read.\n");
        break;
    case SourceMetadata::MakerNote::Empty:
        break;
    }
    sphericalXml = found.sphericalXml;
    MetaText::elementText(sphericalXml, "<GSpherical:StitchingSoftware>", "</GSpherical:StitchingSoftware>", true,
                          stitchingSoftware);
    xmp = found.xmp;
    MetaText::elementText(xmp, "<x:CreatorTool>", "</x:CreatorTool>", true, creatorTool);
    hasGyroData = found.hasGyroData;
}

void MetaProbe::readCodec(MP4::Container& c)
{
    codec = 0;
    if (c.first("moov.trak.mdia.minf.stbl.stsd.avc1")) {
        codec = 1;
        GLTK::Console::out(L"H.264 detected.\n");
    }
    c.find<MP4::STSD>("moov.trak.mdia.minf.stbl.stsd", [&](MP4::STSD& stsd) {
        for (MP4::BOX* e : stsd.children) {
            if (e->is("hvc1")) {
                codec = 2;
                GLTK::Console::out(L"H.265/HEVC detected(hvc1).\n");
            } else if (e->is("hev1")) {
                codec = 2;
                GLTK::Console::out(L"H.265/HEVC detected(hev1).\n");
            }
        }
        return true;
    });
    if (codec == 0)
        GLTK::Console::out(L"Unknown codec.\n");
}

void MetaProbe::detect_movie(const std::wstring& path)
{
    GLTK::Size size;
    GLTK::MediaTime length;
    float rate = 0;
    if (GLTKVideoReader::describeSource(GLTK::wchar::narrow(path), size, length, rate, nullptr)) {
        width = size.width;
        height = size.height;
        frameRate = rate;
    }
}

void MetaProbe::detectBitRate(MP4::Container& c)
{
    if (const MP4::MVHD* m = c.first<MP4::MVHD>("moov.mvhd"))
        duration = static_cast<float>(m->seconds());
    c.find<MP4::TRAK>("moov.trak", [&](MP4::TRAK& t) {
        auto* tkhd = t.first<MP4::TKHD>("tkhd");
        auto* stsz = t.first<MP4::STSZ>("mdia.minf.stbl.stsz");
        bool video = tkhd != nullptr && tkhd->width >= 1;
        float rate = static_cast<float>(stsz ? stsz->totalBytes : 0) * 8.0f / duration;
        if (video && videoBitRate == 0)
            videoBitRate = rate;
        else if (audioBitRate == 0)
            audioBitRate = rate;
        else
            GLTK::Console::out(L"3rd(or more) track is found.\n");
        return true;
    });
    // The quality class: the camera records some sizes at two rates; a source
    // below the middle of them is the lower-rate kind.
    videoQuality = 0;
    if (width >= 1921)
        videoQuality = videoBitRate < 44000000.0f ? 1 : 0;
    else if (frameRate > 29.0f)
        videoQuality = videoBitRate < 12000000.0f ? 1 : 0;
}

uint32_t MetaProbe::default_bitrate(int w, bool hevc) const
{
    static const uint32_t bitRates[] = {56000, 32000, 16000, 8000};
    if (w <= 0)
        w = width;
    {
        GLTK::Console::LocaleC c;
        GLTK::Console::out(L"detect default bitrate: %d/%0.2ffps, videoQuality:%d, hevc:%d\n", w,
                           static_cast<double>(frameRate), videoQuality, hevc ? 1 : 0);
    }
    uint32_t rate;
    if (w >= 1921) {
        rate = (videoQuality == 1 ? bitRates[1] : bitRates[0]) * 1000;
        if (hevc)
            rate /= 2;
    } else if (frameRate > 29.0f) {
        rate = (videoQuality == 1 ? bitRates[3] : bitRates[2]) * 1000;
        if (hevc)
            rate /= 2;
    } else if (w >= 1281) {
        rate = 8192000;
        if (hevc)
            rate >>= 1;
    } else {
        rate = 6000000;
        if (hevc)
            rate >>= 1;
    }
    return rate;
}
