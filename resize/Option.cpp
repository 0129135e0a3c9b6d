#include "Option.h"

#include "GLTKConsole.h"
#include "GLTKwchar.h"
#include "Utility.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
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

static bool prefix(const std::wstring& word, const wchar_t* p, size_t n)
{
    return word.compare(0, n, p) == 0;
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
        const wchar_t* value = word.c_str() + std::min<size_t>(word.size(), 4);
        if (word == L"-h") {
            result = false;
        } else if (word == L"-view:-") {
            viewMode = 2;
        } else if (prefix(word, L"-view:", 6)) {
            std::string narrow = GLTK::wchar::wcs2mbs(word);
            float v[4] = {NAN, NAN, NAN, NAN};
            int read = sscanf(narrow.c_str(), "-view:%f,%f,%f,%f", &v[0], &v[1], &v[2], &v[3]);
            if (read >= 2) {
                viewHeading.heading = v[0];
                viewHeading.pitch = v[1];
                if (read >= 3)
                    viewHeading.fov = v[2];
                if (read >= 4)
                    viewHeading.dolly = v[3];
                viewMode = 1;
            } else {
                GLTK::Console::out(L"invalid arguments for -view:\n");
                result = false;
            }
        } else if (prefix(word, L"-vw:", 4)) {
            videoWidth = static_cast<int32_t>(std::wcstol(value, nullptr, 10));
            reEncode = 1;
        } else if (prefix(word, L"-ki:", 4)) {
            keyFrameInterval = static_cast<int32_t>(std::wcstol(value, nullptr, 10));
            reEncode = 1;
        } else if (prefix(word, L"-vb:", 4)) {
            videoBitRate = static_cast<uint32_t>(std::wcstoul(value, nullptr, 10));
            reEncode = 1;
        } else if (prefix(word, L"-ab:", 4)) {
            audioBitRate = static_cast<uint32_t>(std::wcstoul(value, nullptr, 10));
            reEncode = 1;
        } else if (prefix(word, L"-ss:", 4)) {
            start = static_cast<uint32_t>(std::wcstoul(value, nullptr, 10));
            reEncode = 1;
        } else if (prefix(word, L"-to:", 4)) {
            double seconds = std::ceil(wcstod_l(value, nullptr, GLTK::C_LOCALE));
            // Beyond what a 64-bit count of seconds holds (or not a number):
            // to the end.
            end = seconds > -9.2e18 && seconds < 9.2e18 ? static_cast<uint32_t>(static_cast<int64_t>(seconds))
                                                        : 0xFFFFFFFFu;
            reEncode = 1;
        } else if (prefix(word, L"-thumb:", 7)) {
            thumbnailPath = word.substr(7);
        } else if (word == L"-h264") {
            codec = 1;
        } else if (word == L"-h265") {
            codec = 2;
        } else if (sourcePath.empty()) {
            sourcePath = word;
        } else {
            outputPath = word;
        }
    }
    // The frame is W x W/2, and the encoders take even sides only: a width
    // is taken to the nearest multiple of 4, at least 4.
    if (videoWidth > 0)
        videoWidth = static_cast<int32_t>(std::clamp<int64_t>((int64_t(videoWidth) + 2) / 4 * 4, 4, INT32_MAX - 3));
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
        videoBitRate = probe.default_bitrate(videoWidth, codec == 2);
        GLTK::Console::out(L"output video bitrate: %lu\n", static_cast<unsigned long>(videoBitRate));
    }
}

void Option::usage() const
{
    std::wstring version = GLTK::wchar::mbs2wcs(Resize_version);
    std::wstring image = GLTK::wchar::mbs2wcs(Resize_image);
    GLTK::Console::out(L"\nResize %ls\nusage: %ls [options] [source.mp4] [output.mp4]\n  source.mp4     : input file.\n"
                       L"    %ls\n  output.mp4     : output file.\n    %ls\n\n",
                       version.c_str(), image.c_str(), sourcePath.c_str(), outputPath.c_str());
}
