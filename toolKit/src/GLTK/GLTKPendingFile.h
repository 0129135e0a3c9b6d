#pragma once
// A file the user will keep, on its way to its path. It is written under a
// temporary name in the target's own folder (a name no file had before), and
// put in the target's place by one rename only when it is complete and
// checked; until then whatever stood at the target stays as it was. A
// pending file that is dropped without being committed (a failure, a
// cancel) takes its temporary file with it. Every file Resize writes goes
// this way: the movie, the thumbnail, and the edit plan's copy.
#include <string>

namespace GLTK {

class PendingFile {
public:
    PendingFile() = default;
    ~PendingFile() { discard(); }
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    // Creates the empty temporary file beside target: "<target><suffix>", or
    // "<target>.N<suffix>" when a file already has that name (a target that
    // ends in the suffix loses it first). False, after
    // one line naming the target and the system's reason, when it cannot be made.
    bool create(const std::wstring& target, const wchar_t* suffix);

    const std::wstring& temporaryPath() const { return temporary; }
    const std::wstring& targetPath() const { return target; }
    bool isPending() const { return !temporary.empty(); }

    // Renames the temporary file over the target. False, after one line
    // naming the target and the system's reason, when it cannot; the
    // temporary file is then removed.
    bool commit();
    // Removes the temporary file now (nothing when there is none).
    void discard();

private:
    std::wstring target, temporary;
};

} // namespace GLTK
