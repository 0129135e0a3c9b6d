#include "Option.h"

#include "GLTKConsole.h"
#include "GLTKwchar.h"
#include "OptionTable.h"

#include <algorithm>
#include <cmath>
#include <cwchar>

const char* const Resize_image = "Resize.osx";
const char* const Resize_version = "2.8.3.2019.07.25";

Option::Option()
{
    reset();
}

void Option::reset()
{
    keyFrameInterval = -1;
    videoWidth = -1;
    videoBitRate = 0xFFFFFFFFu;
    audioBitRate = 128000;
    start = 0;
    end = 0xFFFFFFFFu;
    reEncode = 0;
    codec = 0;
    sourcePath.clear();
    outputPath.clear();
    thumbnailPath.clear();
    viewHeading = ViewHeading();
    viewMode = 0;
}

bool Option::parse(int argc, const std::vector<std::wstring>& argv)
{
    reset();
    bool result = true;
    // Only the converted words exist, however many the command line had.
    int n = std::min<int>(argc, static_cast<int>(argv.size()));
    for (int i = 1; i < n; ++i) {
        GLTK::Console::LocaleC localeC;
        const std::wstring& word = argv[i];
        if (const OptionRow* row = optionRowFor(word)) {
            const std::wstring value = row->prefix ? word.substr(std::wcslen(row->word)) : std::wstring();
            if (!row->apply(*this, value))
                result = false;
            if (row->reEncodes)
                reEncode = 1;
        } else if (sourcePath.empty()) {
            sourcePath = word;
        } else {
            outputPath = word;
        }
    }
    // The frame is W x W/2, and the encoders take even sides only: a width
    // is taken to the nearest multiple of 4, at least 4; one below 2 keeps
    // the source's.
    if (videoWidth >= 2)
        videoWidth = std::max((videoWidth + 2) / 4 * 4, 4);
    else if (videoWidth != -1)
        videoWidth = -1;
    if (sourcePath.empty())
        sourcePath = L"./images/source.mp4";
    if (outputPath.empty())
        outputPath = L"./images/resize.mp4";
    return result;
}

void Option::derive(const SourceMovie& source)
{
    if (!probe.probe(source))
        return;
    if (codec == 0)
        codec = probe.codec;
    // libx265 takes no frame less than 16 high (at the preset used).
    if (codec == 2 && videoWidth > 0)
        videoWidth = std::max(videoWidth, 32);
    if (keyFrameInterval == -1) {
        keyFrameInterval = probe.frameRate > 29.0f ? 30 : 15;
        GLTK::Console::out(L"key-frame interval: %d\n", keyFrameInterval);
    }
    if (videoBitRate == 0xFFFFFFFFu) {
        GLTK::Console::out(L"source video bitrate: %lu\n", static_cast<unsigned long>(probe.videoBitRate));
        // A re-encode never spends more than the camera did: the table's
        // rate, at most the source's own.
        const float own = probe.videoBitRate;
        const uint32_t cap = own >= 1000.0f && own < 4.0e9f ? static_cast<uint32_t>(own) : UINT32_MAX;
        videoBitRate = std::min(probe.default_bitrate(videoWidth, codec == 2), cap);
        GLTK::Console::out(L"output video bitrate: %lu\n", static_cast<unsigned long>(videoBitRate));
    }
}

bool Option::keepsSomething(double duration) const
{
    if (!reEncode || !(duration > 0.0))
        return true;
    GLTK::Console::LocaleC c;
    if (end != 0xFFFFFFFFu && end <= start) {
        GLTK::Console::out(L"-ss:%u -to:%u keeps nothing: the range ends where or before it starts (the movie is "
                           L"%.2f s long).\n",
                           start, end, duration);
        return false;
    }
    if (start >= duration) {
        GLTK::Console::out(L"-ss:%u keeps nothing: the movie is %.2f s long.\n", start, duration);
        return false;
    }
    return true;
}

void Option::usage() const
{
    std::wstring version = GLTK::wchar::mbs2wcs(Resize_version);
    std::wstring image = GLTK::wchar::mbs2wcs(Resize_image);
    GLTK::Console::out(L"\nResize %ls\nusage: %ls [options] [source.mp4] [output.mp4]\n  source.mp4     : input file.\n"
                       L"    %ls\n  output.mp4     : output file.\n    %ls\n\n",
                       version.c_str(), image.c_str(), sourcePath.c_str(), outputPath.c_str());
}
