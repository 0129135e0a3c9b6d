#include "GLTKPendingFile.h"

#include "GLTKConsole.h"
#include "GLTKFileIO.h"
#include "GLTKwchar.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace GLTK {

namespace {

std::wstring systemMessage(int error)
{
    return wchar::mbs2wcs(std::strerror(error));
}

} // namespace

bool PendingFile::create(const std::wstring& targetPath, const wchar_t* suffix)
{
    discard();
    // O_EXCL: a file that already has the name is never taken over, be it
    // the user's or another run's.
    // A target that is itself a temporary file (a movie rebuilt from the
    // run's own fresh encode) gets "<name>.1<suffix>" beside it rather than
    // a suffix on a suffix.
    const std::wstring end = suffix;
    const bool temporaryTarget = targetPath.size() > end.size() && targetPath.ends_with(end);
    const std::wstring stem = temporaryTarget ? targetPath.substr(0, targetPath.size() - end.size()) : targetPath;
    int error = 0;
    for (int n = temporaryTarget ? 1 : 0; n < 100; ++n) {
        std::wstring name = stem + (n == 0 ? L"" : L"." + std::to_wstring(n)) + suffix;
        int fd = ::open(FileIO::toNative(name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd >= 0) {
            ::close(fd);
            target = targetPath;
            temporary = std::move(name);
            return true;
        }
        error = errno;
        if (error != EEXIST)
            break;
    }
    Console::out(L"writing %ls failed: %ls\n", targetPath.c_str(), systemMessage(error).c_str());
    return false;
}

bool PendingFile::commit()
{
    if (temporary.empty())
        return false;
    if (!FileIO::rename(temporary, target)) {
        const int error = errno;
        Console::out(L"writing %ls failed: %ls\n", target.c_str(), systemMessage(error).c_str());
        discard();
        return false;
    }
    temporary.clear();
    return true;
}

void PendingFile::discard()
{
    if (!temporary.empty())
        FileIO::unlink(temporary);
    temporary.clear();
}

} // namespace GLTK
