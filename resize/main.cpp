// Resize: converts an ORVEX camera movie and rebuilds its metadata.
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
#include <csignal>

namespace {

// Stage failures print their line, then the usage text. Whatever this run
// wrote to the output is removed: a failed run never leaves a half-written
// movie that looks finished.
int fail(const Option& option, bool outputWritten)
{
    if (outputWritten)
        GLTK::FileIO::unlink(option.outputPath);
    option.usage();
    return 1;
}

int run(int argc, const std::vector<std::wstring>& args)
{
    Option option;
    if (!option.parse(argc, args))
        return fail(option, false);
    if (Utility::isSameFile(option.sourcePath, option.outputPath)) {
        GLTK::Console::out(L"output %ls is the source movie itself.\n", option.outputPath.c_str());
        return fail(option, false);
    }

    uint32_t frames = 0;
    if (option.reEncode) {
        frames = ResizeTranscoder::trim(option);
        if (frames == 0) {
            GLTK::Console::out(L"process(%ls, %ls) failed.\n", option.sourcePath.c_str(), option.outputPath.c_str());
            return fail(option, true);
        }
    }
    {
        MetaBuilder meta(Resize_image, Resize_version, false);
        meta.readMeta(option.sourcePath, option.reEncode != 0);
        if (frames != 0) {
            unsigned perSecond = option.probe.frameRate > 29.0f ? 30 : 15;
            meta.trimStream(option.start * perSecond, frames);
        }
        if (option.viewMode != 0)
            meta.attach(option.viewHeading, option.viewMode == 2);
        if (option.reEncode && option.probe.cameraVersion >= 0x20001 &&
            !meta.readSpatialData(option.sourcePath, option.start, option.end)) {
            GLTK::Console::out(L"readSpatialData failed.\n");
            return fail(option, true);
        }
        bool updated = option.reEncode
                           ? meta.updateMeta(option.outputPath, nullptr, Utility::isSupporFullRangePixelFormat())
                           : meta.updateMeta(option.sourcePath, &option.outputPath,
                                             Utility::isSupporFullRangePixelFormat());
        if (!updated || GLTK::cancelRequested()) {
            GLTK::Console::out(L"updateMeta failed.\n");
            return fail(option, true);
        }
    }
    if (!option.thumbnailPath.empty()) {
        Thumbnailer thumbnailer(option.outputPath);
        if (!thumbnailer.saveFrame(option.thumbnailPath))
            GLTK::Console::out(L"thumbnailer(%ls) failed.\n", option.thumbnailPath.c_str());
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
    auto start = std::chrono::steady_clock::now();
    // SIGTERM (Resize -kill:PID) and Ctrl-C stop the run between two steps.
    GLTK::installCancelHandlers();
    // Past a file-size limit a write then fails (EFBIG) like a full disk,
    // and the run cleans up after itself instead of dying with its output
    // half written.
    std::signal(SIGXFSZ, SIG_IGN);
    status = run(argc, args);
    Utility::printElapsed(start);
    return status;
}
