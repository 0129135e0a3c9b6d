#include "GLTKMediaModule.h"

#include "GLTKConsole.h"

#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <dlfcn.h>
#include <mutex>
#include <unistd.h>

namespace GLTK {

namespace {

MediaFunctions entries;
std::atomic<bool> present{false};

// The module's file: beside the program that runs.
std::string modulePath()
{
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        return "resize-media.so";
    std::string path(self, static_cast<size_t>(n));
    const size_t slash = path.rfind('/');
    return path.substr(0, slash + 1) + "resize-media.so";
}

} // namespace

void MediaModule::provide(const MediaFunctions& given)
{
    entries = given;
    present.store(true);
}

bool MediaModule::load()
{
    static std::once_flag once;
    std::call_once(once, [] {
        if (present.load())
            return;
        const std::string path = modulePath();
        // Bound now, so that a module that does not match the program fails
        // here, with its reason, and not halfway through a run. It stays
        // loaded for the rest of the process.
        if (dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL) == nullptr)
            platformLog("MediaModule::load: %s", dlerror());
        else if (!present.load())
            platformLog("MediaModule::load: %s does not provide the media functions.", path.c_str());
    });
    return present.load();
}

const MediaFunctions* MediaModule::functions() { return load() ? &entries : nullptr; }

void platformLog(const char* format, ...)
{
    // One write per line, so that lines from the encoder threads never mix.
    char line[2048];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(line, sizeof line - 1, format, args);
    va_end(args);
    if (n < 0)
        return;
    size_t len = static_cast<size_t>(n) < sizeof line - 1 ? static_cast<size_t>(n) : sizeof line - 2;
    line[len++] = '\n';
    // On the same terminal, the message starts on a line of its own below a
    // status line.
    static const bool sameTerminal = isatty(STDERR_FILENO) == 1;
    if (sameTerminal)
        Console::endStatus();
    fwrite(line, 1, len, stderr);
    fflush(stderr);
}

} // namespace GLTK
