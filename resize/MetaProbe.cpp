#include "MetaProbe.h"

#include "ElementText.h"
#include "GLTKConsole.h"
#include "GLTKMediaModule.h"
#include "GLTKwchar.h"
#include "SourceMetadata.h"

void MetaProbe::init()
{
    cameraVersion = 0;
    frameRate = 0;
    width = height = 0;
    codec = 0;
    creatorTool.clear();
    hasGyroData = false;
    duration = 0;
    audioBitRate = 0;
    videoBitRate = 0;
    videoQuality = 0;
}

bool MetaProbe::probe(const SourceMovie& source)
{
    init();
    readMetadata(source.metadata);
    codec = source.codec;
    if (codec == 1)
        GLTK::Console::out(L"H.264 detected.\n");
    else if (codec == 2)
        GLTK::Console::out(L"H.265/HEVC detected(%ls).\n", GLTK::wchar::mbs2wcs(source.codecEntry).c_str());
    else
        GLTK::Console::out(L"Unknown codec.\n");
    width = source.width;
    height = source.height;
    frameRate = source.frameRate;
    // Only a sample entry without a size leaves the decoder to tell it.
    if (width < 1)
        detect_movie(source.path());
    duration = source.duration;
    videoBitRate = source.videoBitRate;
    audioBitRate = source.audioBitRate;
    for (int i = 0; i < source.extraTracks; ++i)
        GLTK::Console::out(L"3rd(or more) track is found.\n");
    // The quality class: the camera records some sizes at two rates; a source
    // below the middle of them is the lower-rate kind.
    if (width >= 1921)
        videoQuality = videoBitRate < 44000000.0f ? 1 : 0;
    else if (frameRate > 29.0f)
        videoQuality = videoBitRate < 12000000.0f ? 1 : 0;
    return width >= 1;
}

void MetaProbe::detect_movie(const std::wstring& path)
{
    GLTK::Size size;
    GLTK::MediaTime length;
    float rate = 0;
    const GLTK::MediaFunctions* media = GLTK::MediaModule::functions();
    if (media != nullptr && media->describeSource(GLTK::wchar::narrow(path), size, length, rate, nullptr)) {
        width = size.width;
        height = size.height;
        frameRate = rate;
    }
}

void MetaProbe::readMetadata(const SourceMetadata& found)
{
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
        GLTK::Console::out(L"source movie panoramaImageType: %d\n", static_cast<int>(found.orvex.projectionType));
        break;
    case SourceMetadata::MakerNote::Unreadable:
        GLTK::Console::out(L"EXIF can't read.\n");
        break;
    case SourceMetadata::MakerNote::Empty:
        break;
    }
    MetaText::elementText(found.xmp, "<x:CreatorTool>", "</x:CreatorTool>", true, creatorTool);
    hasGyroData = found.hasGyroData;
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
