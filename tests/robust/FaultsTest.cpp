// Faults of the machine rather than of the movie: a disk that fills up during
// the metadata copy or the re-encode (a file-size limit on the process), and
// an output folder that cannot be written. A run that fails says so, exits
// with status 1, leaves the source as it was and leaves neither a temporary
// file nor a partial output; a run that ends with status 0 has written a whole
// movie.
#include "Movies.h"
#include "RobustSupport.h"

#include <gtest/gtest.h>
#include <unistd.h>

using namespace testsupport;
using robust::Limits;
using robust::Outcome;

namespace {

class Faults : public testing::Test {
protected:
    void SetUp() override
    {
        source = dir / "src.mp4";
        fs::copy_file(sharedMovie(kSource), source);
        sourceHash = robust::fileHash(source);
    }

    // Runs Resize and checks what every run must leave; returns the outcome.
    Outcome runChecked(const std::string& name, const std::vector<std::string>& options, const fs::path& out,
                       const Limits& limits = {})
    {
        SCOPED_TRACE(name);
        std::vector<std::string> args = options;
        args.push_back(source.string());
        args.push_back(out.string());
        Outcome o = robust::runResize(args, dir.path(), 120, limits);
        if (o.exited && o.status == robust::kNoReadOnlyFolder)
            return o;
        EXPECT_FALSE(o.timedOut) << o.describe();
        EXPECT_TRUE(o.exited) << o.describe();
        EXPECT_TRUE(o.status == 0 || o.status == 1) << o.describe();
        EXPECT_EQ(robust::fileHash(source), sourceHash) << "the source changed";
        EXPECT_TRUE(robust::temporaryFiles(dir.path()).empty()) << o.describe();
        if (o.status == 1) {
            EXPECT_FALSE(fs::exists(out) && fs::is_regular_file(out)) << "partial output left\n" << o.describe();
            EXPECT_NE(o.output.find("failed"), std::string::npos) << o.describe();
        } else if (o.status == 0) {
            std::string why;
            EXPECT_TRUE(nestingOk(out, &why)) << why;
            EXPECT_TRUE(decodesCleanly(out, &why)) << why;
        }
        return o;
    }

    static constexpr const char* kSource = "--model newer";
    TempDir dir;
    fs::path source;
    uint64_t sourceHash = 0;
};

TEST_F(Faults, DiskFullDuringTheMetadataCopy)
{
    const uint64_t size = fs::file_size(source);
    // From a limit that stops the first copy early to limits that let the
    // copy through but stop one of the later edits, which rewrite the output
    // through a temporary file a little larger than the source.
    int failures = 0, successes = 0;
    for (uint64_t limit : {uint64_t(4096), size / 2, size - 1, size + 256, size + 2048, size + 8192, size + 65536}) {
        const fs::path out = dir / "out.mp4";
        Outcome o = runChecked("file-size limit " + std::to_string(limit), {}, out, Limits{limit, {}});
        if (o.status == 1) {
            ++failures;
            EXPECT_NE(o.output.find("updateMeta failed."), std::string::npos) << o.describe();
        } else {
            ++successes;
        }
        fs::remove(out);
    }
    EXPECT_GE(failures, 3); // every limit up to the source size fails
    std::printf("metadata copy: %d limits failed cleanly, %d let the run through\n", failures, successes);
}

TEST_F(Faults, DiskFullDuringTheReEncode)
{
    const fs::path out = dir / "out.mp4";
    Outcome whole = runChecked("no limit", {"-vw:320"}, out);
    ASSERT_EQ(whole.status, 0) << whole.describe();
    const uint64_t size = fs::file_size(out);
    fs::remove(out);
    int failures = 0;
    // Limits inside the encode, then around the finished output's size, where
    // the metadata edits of the new file run out of room.
    for (uint64_t limit : {uint64_t(16384), size / 2, size - 1, size + 512, size + 4096}) {
        Outcome o = runChecked("re-encode, file-size limit " + std::to_string(limit), {"-vw:320"}, out, Limits{limit, {}});
        failures += o.status == 1;
        if (limit < size && o.status == 1) {
            EXPECT_TRUE(o.output.find("process(") != std::string::npos ||
                        o.output.find("updateMeta failed.") != std::string::npos)
                << o.describe();
        }
        fs::remove(out);
    }
    EXPECT_GE(failures, 2);
}

TEST_F(Faults, OutputFolderThatCannotBeWritten)
{
    // Root may write anywhere on an ordinary folder, so the folder is made
    // unusable in ways that stop root too: a path under /proc, a plain file
    // where a folder is expected, a folder where the output file is expected,
    // and (when the machine allows a private mount) a read-only file system.
    fs::create_directory(dir / "taken.mp4");
    writeFile(dir / "plain", {1, 2, 3});
    std::vector<std::pair<std::string, fs::path>> places = {
        {"under /proc", "/proc/resize-no-such-folder/out.mp4"},
        {"below a plain file", dir / "plain" / "out.mp4"},
        {"a folder in the output's place", dir / "taken.mp4"},
    };
    if (geteuid() != 0) {
        fs::create_directory(dir / "locked");
        fs::permissions(dir / "locked", fs::perms::owner_read | fs::perms::owner_exec);
        places.push_back({"a folder without write permission", dir / "locked" / "out.mp4"});
    }
    for (const auto& [name, out] : places)
        for (bool reEncode : {false, true}) {
            Outcome o = runChecked(name + (reEncode ? ", re-encode" : ""),
                                   reEncode ? std::vector<std::string>{"-vw:320"} : std::vector<std::string>{}, out);
            EXPECT_EQ(o.status, 1) << name << "\n" << o.describe();
        }

    fs::create_directory(dir / "readonly");
    for (bool reEncode : {false, true}) {
        Outcome o = runChecked(std::string("read-only file system") + (reEncode ? ", re-encode" : ""),
                               reEncode ? std::vector<std::string>{"-vw:320"} : std::vector<std::string>{},
                               dir / "readonly" / "out.mp4", Limits{0, dir / "readonly"});
        if (o.exited && o.status == robust::kNoReadOnlyFolder) {
            std::printf("no private mount here: the read-only file system case was not run\n");
            break;
        }
        EXPECT_EQ(o.status, 1) << o.describe();
    }
    if (geteuid() != 0)
        fs::permissions(dir / "locked", fs::perms::owner_all);
}

} // namespace
