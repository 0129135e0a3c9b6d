// Resize: converts an ORVEX camera movie and rebuilds its metadata.
#include "GLTKCancel.h"
#include "GLTKConsole.h"
#include "GLTKFileIO.h"
#include "GLTKPendingFile.h"
#include "GLTKwchar.h"
#include "MetaBuilder.h"
#include "Option.h"
#include "OptionTable.h"
#include "ResizeTranscoder.h"
#include "Thumbnailer.h"
#include "Utility.h"

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>

#include <sys/stat.h>

namespace {

// A run that stops early says why: a cancelled one (SIGTERM, Ctrl-C) only
// that, a failed one what failed, then the usage text. Nothing it wrote is
// left: every file of the run is still under its temporary name, which goes
// with it.
int stop(const Option& option, const std::wstring& failure = {})
{
    if (GLTK::cancelRequested()) {
        GLTK::Console::out(L"cancelled.\n");
        return 1;
    }
    GLTK::Console::out(L"%ls", failure.c_str());
    option.usage();
    return 1;
}

// The files the run will write must be neither the source nor each other
// (links and other spellings included), nor folders. Prints one line naming
// both paths, or the folder, for the first clash.
bool targetsAreFree(const Option& option)
{
    struct Named {
        const wchar_t* role;
        const std::wstring& path;
    };
    std::vector<Named> files{{L"source", option.sourcePath}, {L"output", option.outputPath}};
    if (!option.thumbnailPath.empty())
        files.push_back({L"thumbnail", option.thumbnailPath});
    for (size_t i = 1; i < files.size(); ++i) {
        struct stat st {};
        if (::stat(GLTK::FileIO::toNative(files[i].path).c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            GLTK::Console::out(L"%ls %ls: %ls\n", files[i].role, files[i].path.c_str(),
                               GLTK::wchar::mbs2wcs(std::strerror(EISDIR)).c_str());
            return false;
        }
        for (size_t j = 0; j < i; ++j)
            if (GLTK::FileIO::sameFile(files[i].path, files[j].path)) {
                GLTK::Console::out(L"%ls %ls and %ls %ls are the same file.\n", files[i].role, files[i].path.c_str(),
                                   files[j].role, files[j].path.c_str());
                return false;
            }
    }
    return true;
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
    if (GLTK::cancelRequested() || !option.parse(argc, args) || GLTK::cancelRequested())
        return stop(option);
    // The source is opened and read once, here; every stage works from it.
    // One that cannot be converted is named with the reason, and nothing
    // more is tried.
    SourceMovie source;
    std::wstring problem;
    if (!source.open(option.sourcePath, problem))
        return stop(option, option.sourcePath + L": " + problem + L"\n");
    option.derive(source);
    if (GLTK::cancelRequested() || !option.keepsSomething(source.duration) || !targetsAreFree(option))
        return stop(option);
    // The movie is written under a temporary name beside the output from
    // the first byte on, by the encoder as well as by the metadata rebuild.
    GLTK::PendingFile movie;
    if (!movie.create(option.outputPath, MP4::kTemporarySuffix))
        return stop(option);
    // So is the picture; one that cannot be written is said now, and the
    // run goes on without it.
    GLTK::PendingFile thumbnail;
    const bool picture = !option.thumbnailPath.empty() && thumbnail.create(option.thumbnailPath, L".tmp.jpg");

    uint32_t frames = 0;
    if (option.reEncode) {
        frames = ResizeTranscoder::trim(option, movie.temporaryPath());
        if (frames == 0 || GLTK::cancelRequested())
            return stop(option, L"process(" + option.sourcePath + L", " + option.outputPath + L") failed.\n");
    }
    {
        MetaBuilder meta(Resize_image, Resize_version, false);
        meta.readMeta(source, option.reEncode != 0);
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
        if (option.reEncode && source.newer() &&
            !meta.readSpatialData(option.start, end == 0xFFFFFFFFu ? -1.0 : double(end)))
            return stop(option, L"readSpatialData failed.\n");
        // The rebuild reads the movie it wrote back whole before it keeps it.
        bool updated = option.reEncode ? meta.updateMeta(movie.temporaryPath(), nullptr,
                                                         Utility::isSupporFullRangePixelFormat())
                                       : meta.updateMeta(option.sourcePath, &movie.temporaryPath(),
                                                         Utility::isSupporFullRangePixelFormat());
        if (!updated || GLTK::cancelRequested())
            return stop(option, L"updateMeta failed.\n");
    }
    // The picture is drawn from the finished movie; a picture that fails is
    // reported, and the run still succeeds.
    if (!option.thumbnailPath.empty() &&
        (!picture || !Thumbnailer(movie.temporaryPath()).saveFrame(thumbnail.temporaryPath()))) {
        thumbnail.discard();
        if (!GLTK::cancelRequested())
            GLTK::Console::out(L"thumbnailer(%ls) failed.\n", option.thumbnailPath.c_str());
    }
    // Everything is written: the files take their names. A stop request that
    // comes after this point comes too late; the run has finished.
    if (GLTK::cancelRequested())
        return stop(option);
    if (!movie.commit())
        return stop(option, L"updateMeta failed.\n");
    if (thumbnail.isPending() && !thumbnail.commit())
        GLTK::Console::out(L"thumbnailer(%ls) failed.\n", option.thumbnailPath.c_str());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    // SIGTERM (Resize -kill:PID) and Ctrl-C stop the run between two steps.
    // The launcher holds them back until the handlers are in place; one that
    // came in the meantime arrives here.
    GLTK::installCancelHandlers();
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    sigprocmask(SIG_UNBLOCK, &stops, nullptr);
    GLTK::Console::init_locale();
    std::vector<std::wstring> args = Utility::convertArguments(argc, argv);
    int status = 0;
    if (Utility::kill(argc, args, status))
        return status;
    // Words that answer at once, whatever else the line holds.
    for (size_t i = 1; i < args.size(); ++i) {
        if (args[i] == L"--help")
            return printHelp(), 0;
        if (args[i] == L"--version")
            return GLTK::Console::out(L"Resize %s\n", Resize_version), 0;
        if (args[i] == L"--options")
            return printOptionTable(), 0;
    }
    if (int word = Utility::firstUnreadableArgument(argc, argv)) {
        GLTK::Console::out(L"argument %d is not readable text in this locale.\n", word);
        return 1;
    }
    if (int word = Utility::firstOverlongArgument(argc, argv)) {
        GLTK::Console::out(L"argument %d is longer than %d characters; it is refused rather than cut.\n", word,
                           static_cast<int>(GLTK::wchar::kMaxUnits));
        return 1;
    }
    auto start = std::chrono::steady_clock::now();
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
