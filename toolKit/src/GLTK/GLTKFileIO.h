#pragma once
// A file with a tracked position, open for the life of the object.
#include <cstdint>
#include <functional>
#include <string>

namespace GLTK {

class FileIO {
public:
    // mode 'r': read only; 'w': create or truncate, write only (0644);
    // 'a': read and write without create, writes land at the position.
    // A failed open prints nothing and leaves errno to the caller, who
    // knows what the file was for.
    FileIO(const std::wstring& path, int mode);
    virtual ~FileIO();
    FileIO(const FileIO&) = delete;
    FileIO& operator=(const FileIO&) = delete;

    bool isOpen() const { return descriptor != 0; }
    uint64_t length() const;
    // One read/write call; 2^64-1 when not open, the system's -1 on error.
    uint64_t read(void* buffer, uint64_t count);
    uint64_t write(const void* buffer, uint64_t count);
    bool seek_set(int64_t offset);
    bool seek_cur(int64_t offset);
    // Copies count bytes from this file's position to the destination's
    // position; returns the number of bytes written. The whole file-system
    // blocks of the range are handed to the kernel together, which shares
    // them between the files where the file system can (a clone) and copies
    // them without a trip through user space elsewhere.
    uint64_t copyTo(FileIO& destination, uint64_t count);

    // Gives the file at `from` the name `to`, in place of any file there.
    static bool rename(const std::wstring& from, const std::wstring& to);
    static bool unlink(const std::wstring& path);
    // Both paths name one file (links and other spellings included), or the
    // same new name in one folder when there is no file there yet.
    static bool sameFile(const std::wstring& a, const std::wstring& b);

    // The multibyte form of a path, whole.
    static std::string toNative(const std::wstring& path);

    int descriptor = 0;
    const std::wstring& path;
    int mode = 'r';
    uint64_t position = 0;

protected:
    // A non-owning view of another file (see MP4::BinFile).
    FileIO(const FileIO& other, bool /*view*/)
        : descriptor(other.descriptor), path(other.path), mode(other.mode), position(other.position) {}

private:
    // The kernel's copy, falling back to bufferCopy where it is not offered.
    uint64_t kernelCopy(FileIO& destination, uint64_t count);
    uint64_t bufferCopy(FileIO& destination, uint64_t count);
};

} // namespace GLTK
