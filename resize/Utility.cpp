#include "Utility.h"

#include "GLTKConsole.h"
#include "GLTKwchar.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <cwchar>

namespace Utility {

std::vector<std::wstring> convertArguments(int argc, const char* const* argv)
{
    std::vector<std::wstring> out;
    int n = std::min(argc, kMaxArguments);
    for (int i = 0; i < n; ++i) {
        size_t len = std::strlen(argv[i]);
        size_t cap = std::min<size_t>(2 * len, 2048);
        std::wstring w(cap, L'\0');
        if (cap > 0)
            mbstowcs(w.data(), argv[i], cap);
        w.resize(wcsnlen(w.c_str(), cap));
        out.push_back(std::move(w));
    }
    return out;
}

int firstUnreadableArgument(int argc, const char* const* argv)
{
    int n = std::min(argc, kMaxArguments);
    for (int i = 1; i < n; ++i)
        if (mbstowcs(nullptr, argv[i], 0) == static_cast<size_t>(-1))
            return i;
    return 0;
}

int firstOverlongArgument(int argc, const char* const* argv)
{
    int n = std::min(argc, kMaxArguments);
    for (int i = 1; i < n; ++i)
        if (mbstowcs(nullptr, argv[i], 0) > GLTK::wchar::kMaxUnits)
            return i;
    return 0;
}

bool kill(int argc, const std::vector<std::wstring>& argv, int& status)
{
    if (argc != 2 || argv.size() < 2 || argv[1].compare(0, 6, L"-kill:") != 0)
        return false;
    long pid = std::wcstol(argv[1].c_str() + 6, nullptr, 10);
    if (pid >= 1)
        status = ::kill(static_cast<pid_t>(pid), SIGTERM) == 0 ? 0 : 1;
    else
        status = 1;
    return true;
}

bool isSupporFullRangePixelFormat()
{
    static const bool supported = true;
    return supported;
}

void printElapsed(std::chrono::steady_clock::time_point start)
{
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    float sec = static_cast<float>(ms) / 1000.0f;
    GLTK::Console::LocaleC c;
    GLTK::Console::out(L"\n%0.4f [sec]\n", sec);
}

} // namespace Utility
