// Faults of the machine rather than of the movie: a disk that fills up during
// the metadata copy or the re-encode (a file-size limit on the process), and
// an output folder that cannot be written. A run that fails says so, with
// the system's reason, and cleans up; a run that ends with status 0 has
// written a whole movie.
#include "Robust.h"

#include <gtest/gtest.h>
#include <unistd.h>

using namespace robust;

namespace {

struct Faults : testing::Test {
    TempDir dir;
    const fs::path source = copyMovie("--model newer", dir / "src.mp4"), out = dir / "out.mp4";

    // Runs under each file-size limit; returns how many runs failed.
    int failuresUnder(const std::string& options, const std::vector<uint64_t>& limits)
    {
        int failures = 0;
        for (uint64_t limit : limits) {
            SCOPED_TRACE(options + " under a file-size limit of " + std::to_string(limit));
            Outcome o = runChecked(options, source, out, limit);
            EXPECT_TRUE(o.status != 0 || (nestingOk(out) && decodesCleanly(out))) << "an incomplete movie";
            EXPECT_TRUE(o.status != 1 || o.output.find(": File too large\n") != std::string::npos) << o.output;
            failures += o.status == 1;
            fs::remove(out);
        }
        return failures;
    }
};

TEST_F(Faults, DiskFullDuringTheMetadataCopyOrTheReEncode)
{
    // From limits that stop the first copy early to limits that let it
    // through but stop one of the later edits, which rewrite the output
    // through a temporary file a little larger than the source.
    const uint64_t size = fs::file_size(source);
    EXPECT_GE(failuresUnder("", {4096, size / 2, size - 1, size + 256, size + 2048, size + 8192, size + 65536}), 3);
    // Limits inside the encode, then around the finished output's size, where
    // the metadata edits of the new file run out of room.
    ASSERT_EQ(runChecked("-vw:320", source, out).status, 0);
    const uint64_t encoded = fs::file_size(out);
    fs::remove(out);
    EXPECT_GE(failuresUnder("-vw:320", {16384, encoded / 2, encoded - 1, encoded + 512, encoded + 4096}), 2);
}

TEST_F(Faults, OutputFolderThatCannotBeWritten)
{
    // Root may write anywhere in an ordinary folder, so the folder is made
    // unusable in ways that stop root too: a path under /proc, a plain file
    // where a folder is expected, a folder where the output file is expected,
    // and (when the machine allows a private mount) a read-only file system.
    fs::create_directory(dir / "taken.mp4");
    fs::create_directory(dir / "readonly");
    writeFile(dir / "plain", {1, 2, 3});
    const std::pair<fs::path, std::string> places[] = {
        {"/proc/resize-no-such-folder/out.mp4", "No such file or directory"},
        {dir / "plain" / "out.mp4", "Not a directory"},
        {dir / "taken.mp4", "Is a directory"}};
    for (const char* options : {"", "-vw:320"}) {
        for (const auto& [place, reason] : places) {
            const Outcome o = runChecked(options, source, place);
            EXPECT_TRUE(o.status == 1 && o.output.find(": " + reason + "\n") != std::string::npos) << o.output;
        }
        const Outcome o = runChecked(options, source, dir / "readonly" / "out.mp4", 0, (dir / "readonly").string());
        if (o.status == 125)
            std::printf("no private mount here: the read-only file system case was not run\n");
        else
            EXPECT_TRUE(o.status == 1 && o.output.find(": Read-only file system\n") != std::string::npos) << o.output;
    }
}

} // namespace
