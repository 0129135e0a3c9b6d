// Resize: converts an ORVEX camera movie and rebuilds its metadata.
#include "CameraModel.h"
#include "GLTKCancel.h"
#include "GLTKConsole.h"
#include "GLTKFileIO.h"
#include "GLTKwchar.h"
#include "MetaBuilder.h"
#include "Option.h"
#include "ResizeTranscoder.h"
#include "Thumbnailer.h"
#include "Utility.h"

#include <chrono>
#include <cmath>
#include <csignal>

#include <sys/stat.h>

namespace {

// The output file as it stood before the run.
struct OutputStamp {
    bool exists = false;
    struct stat st {};
};

OutputStamp stampOf(const std::wstring& path)
{
    OutputStamp s;
    s.exists = ::stat(GLTK::FileIO::toNative(path).c_str(), &s.st) == 0;
    return s;
}

// True when the run created the output, put another file in its place or
// wrote to it (which moves its change time).
bool writtenSince(const OutputStamp& before, const std::wstring& path)
{
    OutputStamp now = stampOf(path);
    if (!now.exists)
        return false;
    if (!before.exists)
        return true;
    return now.st.st_dev != before.st.st_dev || now.st.st_ino != before.st.st_ino ||
           now.st.st_size != before.st.st_size || now.st.st_ctim.tv_sec != before.st.st_ctim.tv_sec ||
           now.st.st_ctim.tv_nsec != before.st.st_ctim.tv_nsec;
}

// A run that stops early removes whatever it wrote to the output, so that
// it never leaves a half-written movie that looks finished; a file that the
// run refused to touch stays as it was. A cancelled run (SIGTERM, Ctrl-C)
// says only that; a failed one prints what failed, then the usage text.
int stop(const Option& option, const OutputStamp* before = nullptr, const std::wstring& failure = {})
{
    if (before != nullptr && writtenSince(*before, option.outputPath))
        GLTK::FileIO::unlink(option.outputPath);
    if (GLTK::cancelRequested()) {
        GLTK::Console::out(L"cancelled.\n");
        return 1;
    }
    GLTK::Console::out(L"%ls", failure.c_str());
    option.usage();
    return 1;
}

// The camera records its sensor streams at 30 or 15 entries a second, not
// one per frame: the frames written are turned into entries so that the cut
// covers the same time as the video. At 30 or 15 fps (29.97 included) an
// entry is a frame.
uint32_t sensorEntries(uint32_t frames, float frameRate, unsigned perSecond)
{
    if (!(frameRate > 0.0f) || std::fabs(frameRate - float(perSecond)) < 0.5f)
        return frames;
    return static_cast<uint32_t>(std::lround(double(frames) * perSecond / frameRate));
}

int run(int argc, const std::vector<std::wstring>& args)
{
    Option option;
    // The stages stop early on a cancel; one that comes between two stages
    // is seen at the next check.
    if (!option.parse(argc, args) || GLTK::cancelRequested())
        return stop(option);
    if (GLTK::FileIO::sameFile(option.sourcePath, option.outputPath))
        return stop(option, nullptr, L"output " + option.outputPath + L" is the source movie itself.\n");
    const OutputStamp before = stampOf(option.outputPath);

    uint32_t frames = 0;
    if (option.reEncode) {
        frames = ResizeTranscoder::trim(option);
        if (frames == 0 || GLTK::cancelRequested())
            return stop(option, &before, L"process(" + option.sourcePath + L", " + option.outputPath + L") failed.\n");
    }
    {
        MetaBuilder meta(Resize_image, Resize_version, false);
        meta.readMeta(option.sourcePath, option.reEncode != 0);
        if (frames != 0) {
            unsigned perSecond = option.probe.frameRate > 29.0f ? 30 : 15;
            meta.trimStream(option.start * perSecond, sensorEntries(frames, option.probe.frameRate, perSecond));
        }
        if (option.viewMode != 0)
            meta.attach(option.viewHeading, option.viewMode == 2);
        // An end beyond the source was cut at the source's end in the video;
        // the spatial audio is cut the same way, to the end of its data.
        unsigned end = option.end;
        if (end != 0xFFFFFFFFu && option.probe.duration > 0.0f && double(end) >= option.probe.duration)
            end = 0xFFFFFFFFu;
        if (option.reEncode && CameraModel::isNewer(option.probe.cameraVersion) &&
            !meta.readSpatialData(option.sourcePath, option.start, end))
            return stop(option, &before, L"readSpatialData failed.\n");
        bool updated = option.reEncode
                           ? meta.updateMeta(option.outputPath, nullptr, Utility::isSupporFullRangePixelFormat())
                           : meta.updateMeta(option.sourcePath, &option.outputPath,
                                             Utility::isSupporFullRangePixelFormat());
        if (!updated || GLTK::cancelRequested())
            return stop(option, &before, L"updateMeta failed.\n");
    }
    if (!option.thumbnailPath.empty()) {
        const OutputStamp thumbnailBefore = stampOf(option.thumbnailPath);
        Thumbnailer thumbnailer(option.outputPath);
        if (!thumbnailer.saveFrame(option.thumbnailPath) && !GLTK::cancelRequested())
            GLTK::Console::out(L"thumbnailer(%ls) failed.\n", option.thumbnailPath.c_str());
        // Cancelled here, the run leaves neither the movie nor the picture.
        if (GLTK::cancelRequested()) {
            if (writtenSince(thumbnailBefore, option.thumbnailPath))
                GLTK::FileIO::unlink(option.thumbnailPath);
            return stop(option, &before);
        }
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    GLTK::Console::init_locale();
    std::vector<std::wstring> args = Utility::convertArguments(argc, argv);
    int status = 0;
    if (Utility::kill(argc, args, status))
        return status;
    if (int word = Utility::firstUnreadableArgument(argc, argv)) {
        GLTK::Console::out(L"argument %d is not readable text in this locale.\n", word);
        return 1;
    }
    auto start = std::chrono::steady_clock::now();
    // SIGTERM (Resize -kill:PID) and Ctrl-C stop the run between two steps.
    GLTK::installCancelHandlers();
    // Past a file-size limit a write then fails (EFBIG) like a full disk,
    // and the run cleans up after itself instead of dying with its output
    // half written.
    std::signal(SIGXFSZ, SIG_IGN);
    status = run(argc, args);
    // A failed run ends with the usage text; only a finished one is timed.
    if (status == 0)
        Utility::printElapsed(start);
    return status;
}
