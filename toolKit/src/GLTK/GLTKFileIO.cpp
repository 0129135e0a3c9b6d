#include "GLTKFileIO.h"

#include "GLTKCancel.h"
#include "GLTKConsole.h"
#include "GLTKwchar.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <vector>

namespace GLTK {

std::string FileIO::toNative(const std::wstring& path)
{
    return wchar::narrow(path);
}

namespace {

// Opens a file for writing, made or emptied. A file that is empty already
// (the temporary file a commit reserved) is not truncated: ext4 takes a
// truncation to zero for a file being rewritten in place and starts writing
// all of it to the disk when it is closed, which would make the writer wait
// for the whole movie's write-back.
int openEmpty(const std::string& name)
{
    const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    struct stat st;
    if (fd != -1 && (fstat(fd, &st) != 0 || (st.st_size != 0 && ftruncate(fd, 0) != 0))) {
        const int error = errno;
        ::close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

} // namespace

FileIO::FileIO(const std::wstring& p, int m) : path(p), mode(m)
{
    std::string name = toNative(path);
    int fd;
    if (mode == 'a')
        fd = ::open(name.c_str(), O_RDWR | O_CLOEXEC);
    else if (mode == 'w')
        fd = openEmpty(name);
    else
        fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        fd = 0;
    } else if (fd == 0) {
        // Descriptor 0 means "not open" to every caller: move it elsewhere.
        int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
        ::close(fd);
        fd = moved == -1 ? 0 : moved;
    }
    descriptor = fd;
}

FileIO::~FileIO()
{
    if (descriptor != 0)
        ::close(descriptor);
}

uint64_t FileIO::length() const
{
    if (descriptor == 0)
        return 0;
    struct stat st;
    if (fstat(descriptor, &st) != 0)
        return 0;
    return static_cast<uint64_t>(st.st_size);
}

uint64_t FileIO::read(void* buffer, uint64_t count)
{
    if (descriptor == 0)
        return UINT64_MAX;
    ssize_t r;
    do {
        r = ::read(descriptor, buffer, count);
    } while (r < 0 && errno == EINTR);
    if (r > 0)
        position += static_cast<uint64_t>(r);
    return static_cast<uint64_t>(r);
}

uint64_t FileIO::write(const void* buffer, uint64_t count)
{
    if (descriptor == 0)
        return UINT64_MAX;
    // A write to a regular file may be partial (a signal, a full disk); finish
    // it unless the system refuses outright, so that short counts mean failure.
    const char* p = static_cast<const char*>(buffer);
    uint64_t done = 0;
    while (done < count) {
        ssize_t r = ::write(descriptor, p + done, count - done);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0) {
            if (done == 0)
                return static_cast<uint64_t>(r);
            break;
        }
        done += static_cast<uint64_t>(r);
    }
    position += done;
    return done;
}

static bool seekTo(int fd, int64_t offset, int whence, uint64_t& position, const wchar_t* name)
{
    if (fd == 0)
        return false;
    off_t r = lseek(fd, offset, whence);
    if (r == static_cast<off_t>(-1)) {
        int e = errno;
        std::wstring text = wchar::mbs2wcs(strerror(e));
        Console::out(L"%ls(%lld) failed - %ls(%d)\n", name, static_cast<long long>(offset), text.c_str(), e);
        return false;
    }
    position = static_cast<uint64_t>(r);
    return true;
}

bool FileIO::seek_set(int64_t offset)
{
    return seekTo(descriptor, offset, SEEK_SET, position, L"seek_set");
}

bool FileIO::seek_cur(int64_t offset)
{
    return seekTo(descriptor, offset, SEEK_CUR, position, L"seek_cur");
}

namespace {

// The unit a file system shares between files: copy_file_range clones a
// range (on XFS, btrfs and other file systems with shared extents) only when
// both offsets and the length are multiples of it. A value that is no
// plausible block (a network file system's transfer size, say) falls back to
// the page size most local file systems use.
uint64_t blockSizeOf(int descriptor)
{
    struct statfs fs {};
    if (fstatfs(descriptor, &fs) == 0 && fs.f_bsize >= 512 && fs.f_bsize <= (1 << 20) &&
        (fs.f_bsize & (fs.f_bsize - 1)) == 0)
        return static_cast<uint64_t>(fs.f_bsize);
    return 4096;
}

} // namespace

uint64_t FileIO::copyTo(FileIO& destination, uint64_t count)
{
    if (count == 0 || descriptor == 0 || destination.descriptor == 0)
        return 0;
    // The range is split at the block boundaries so that its middle can be
    // shared rather than copied: the bytes up to the first boundary and those
    // behind the last one go through memory, the whole blocks between to the
    // kernel. That needs both positions to lie at the same place within a
    // block; when they do not, nothing can be shared and the kernel copies
    // the whole range.
    const uint64_t block = blockSizeOf(destination.descriptor);
    const bool shareable = position % block == destination.position % block;
    const uint64_t head = shareable ? std::min(count, (block - position % block) % block) : 0;
    const uint64_t middle = shareable ? (count - head) / block * block : count;
    const uint64_t tail = count - head - middle;
    // Where the kernel copies, it writes the destination in pieces, and
    // fills the page cache's large pages only with pieces that start at a
    // multiple of their size: ext4 took 0.41 s for 1 GiB written from 4 KiB
    // past a multiple of 64 KiB, 0.28 s from one. So the middle goes in two
    // runs, the second starting at a multiple of 1 MiB in the destination
    // (whole blocks either way, so both are shared where the file system can).
    constexpr uint64_t kRun = 1 << 20;
    const uint64_t lead = std::min(middle, (kRun - (destination.position + head) % kRun) % kRun);
    uint64_t total = bufferCopy(destination, head);
    if (total == head)
        total += kernelCopy(destination, lead);
    if (total == head + lead)
        total += kernelCopy(destination, middle - lead);
    if (total == head + middle)
        total += bufferCopy(destination, tail);
    return total;
}

uint64_t FileIO::kernelCopy(FileIO& destination, uint64_t count)
{
    if (count == 0)
        return 0;
    // copy_file_range works on explicit offsets, so both descriptors are
    // positioned afterwards. It is asked for 64 MiB at a time (a multiple of
    // any block) so that a stop request is seen between the steps.
    uint64_t total = 0;
    loff_t in = static_cast<loff_t>(position), out = static_cast<loff_t>(destination.position);
    bool fallBack = false;
    while (total < count && !cancelRequested()) {
        size_t want = static_cast<size_t>(std::min<uint64_t>(count - total, 64 << 20));
        ssize_t r = copy_file_range(descriptor, &in, destination.descriptor, &out, want, 0);
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0) {
            // Not offered between these files: copy the rest by hand.
            fallBack = errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP;
            break;
        }
        if (r == 0)
            break; // end of the source
        total += static_cast<uint64_t>(r);
    }
    if (!seek_set(in) || !destination.seek_set(out) || !fallBack)
        return total;
    return total + bufferCopy(destination, count - total);
}

uint64_t FileIO::bufferCopy(FileIO& destination, uint64_t count)
{
    constexpr uint64_t kBlock = 1 << 20;
    uint64_t total = 0;
    std::vector<char> buffer(static_cast<size_t>(std::min(count, kBlock)));
    while (total < count && !cancelRequested()) {
        uint64_t want = std::min(count - total, kBlock);
        uint64_t got = read(buffer.data(), want);
        if (got == 0 || got == UINT64_MAX || got > want)
            break; // end of file or read error: the caller sees the short total
        uint64_t put = destination.write(buffer.data(), got);
        if (put == UINT64_MAX || put != got) {
            if (put != UINT64_MAX)
                total += put;
            break;
        }
        total += put;
    }
    return total;
}

bool FileIO::rename(const std::wstring& from, const std::wstring& to)
{
    return ::rename(toNative(from).c_str(), toNative(to).c_str()) == 0;
}

namespace {

// What a path names: the file where one is there (through links), else the
// name within the folder that would hold it.
struct Identity {
    bool known = false, exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    std::string name;
    bool operator==(const Identity& o) const
    {
        return known && o.known && exists == o.exists && device == o.device && inode == o.inode && name == o.name;
    }
};

Identity identityOf(const std::string& path)
{
    Identity id;
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) {
        id.known = id.exists = true;
    } else {
        const size_t slash = path.find_last_of('/');
        const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
        id.name = slash == std::string::npos ? path : path.substr(slash + 1);
        id.known = !id.name.empty() && ::stat(folder.c_str(), &st) == 0;
    }
    id.device = st.st_dev;
    id.inode = st.st_ino;
    return id;
}

} // namespace

bool FileIO::sameFile(const std::wstring& a, const std::wstring& b)
{
    return identityOf(toNative(a)) == identityOf(toNative(b));
}

bool FileIO::unlink(const std::wstring& path)
{
    return ::unlink(toNative(path).c_str()) == 0;
}

} // namespace GLTK
