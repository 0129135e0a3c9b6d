// Resize: converts an ORVEX camera movie and rebuilds its metadata.
#include "GLTKConsole.h"
#include "Utility.h"

#include <chrono>

int main(int argc, char** argv)
{
    GLTK::Console::init_locale();
    std::vector<std::wstring> args = Utility::convertArguments(argc, argv);
    int status = 0;
    if (Utility::kill(argc, args, status))
        return status;
    auto start = std::chrono::steady_clock::now();
    GLTK::Console::out(L"option parsing is not available yet.\n");
    Utility::printElapsed(start);
    return 1;
}
