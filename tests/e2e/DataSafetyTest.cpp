// Nothing a user owns is lost or left broken. Each case is a way a run once
// destroyed a file or reported success for a broken one: a target that names
// the source or another target, a path too long to be used whole, a
// re-encode that fails over an existing output, a recording cut short inside
// its spatial data, a stop request while the libraries load, and a long
// stitching text that overflowed the Spherical XML.
#include "Tools.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>

using namespace testsupport;

namespace {

const std::string kOlder = "--model older";
const std::string kNewer = "--model newer";

// Runs Resize with the words in dir; the source, the files named in `kept`
// and the folder's other entries must come out as they went in, with no
// temporary file left.
void expectRefused(const fs::path& dir, const std::string& words, const std::string& line,
                   const std::vector<fs::path>& kept)
{
    SCOPED_TRACE(words);
    std::vector<Bytes> before;
    for (const fs::path& f : kept)
        before.push_back(readFile(f));
    const auto entries = [&] {
        std::vector<fs::path> all;
        for (const auto& e : fs::recursive_directory_iterator(dir))
            all.push_back(e.path());
        return all;
    };
    const std::vector<fs::path> listed = entries();
    std::string text;
    EXPECT_EQ(run("cd " + q(dir) + " && " + resize() + " " + words, &text), 1);
    EXPECT_NE(text.find(line), std::string::npos) << text;
    EXPECT_EQ(text.find("processing"), std::string::npos) << text;
    for (size_t i = 0; i < kept.size(); ++i)
        EXPECT_TRUE(readFile(kept[i]) == before[i]) << kept[i] << " changed";
    EXPECT_EQ(entries(), listed);
}

TEST(DataSafety, TargetsThatNameTheSourceOrEachOtherOrAreTooLongAreRefusedBeforeAnythingIsWritten)
{
    TempDir dir;
    const fs::path source = copyMovie(kOlder, dir / "source.mp4"), earlier = dir / "earlier.mp4";
    writeFile(earlier, {'o', 'l', 'd'});
    fs::create_directories(dir / "links");
    fs::create_hard_link(source, dir / "links" / "hard.mp4");
    fs::create_symlink(source, dir / "links" / "soft.mp4");
    const std::string src = q(source), same = " and source " + source.string() + " are the same file.\n";
    const std::vector<fs::path> kept{source, earlier};
    expectRefused(dir.path(), src + " " + q(dir / "links" / ".." / "source.mp4"), "output " + (dir / "links" / ".." / "source.mp4").string() + same, kept);
    expectRefused(dir.path(), src + " links/hard.mp4", "output links/hard.mp4" + same, kept);
    expectRefused(dir.path(), src + " links/soft.mp4", "output links/soft.mp4" + same, kept);
    expectRefused(dir.path(), "links/soft.mp4 " + src, "output " + source.string() + " and source links/soft.mp4", kept);
    expectRefused(dir.path(), "-vw:480 -ss:1 " + src + " links/hard.mp4", "output links/hard.mp4" + same, kept);
    // The thumbnail once replaced the source, or the movie just written.
    expectRefused(dir.path(), "-thumb:links/soft.mp4 " + src + " out.mp4", "thumbnail links/soft.mp4" + same, kept);
    expectRefused(dir.path(), "-vw:480 -thumb:" + src + " " + src + " out.mp4", "thumbnail " + source.string() + same,
                  kept);
    expectRefused(dir.path(), "-thumb:./out.mp4 " + src + " out.mp4",
                  "thumbnail ./out.mp4 and output out.mp4 are the same file.\n", kept);
    expectRefused(dir.path(), "-thumb:earlier.mp4 " + src + " links/../earlier.mp4",
                  "thumbnail earlier.mp4 and output links/../earlier.mp4 are the same file.\n", kept);
    // Cut at 2048 characters, this path named earlier.mp4.
    std::string padded;
    while (padded.size() + 11 < 2048)
        padded += "./";
    padded.resize(2048 - 11, '/');
    expectRefused(dir.path(), src + " " + padded + "earlier.mp4.and-more",
                  "argument 2 is longer than 2048 characters; it is refused rather than cut.\n", kept);
    EXPECT_TRUE(fs::is_symlink(dir / "links" / "soft.mp4") && fs::exists(dir / "links" / "hard.mp4"));
}

TEST(DataSafety, AFailedReEncodeLeavesTheOutputAsItWasAndDamageOfTheSourceStillGivesAWholeMovie)
{
    TempDir dir;
    const fs::path source = copyMovie(kNewer, dir / "source.mp4"), out = dir / "out.mp4";
    writeFile(out, {'o', 'l', 'd'});
    std::string text;
    EXPECT_EQ(run(resize() + " -ss:9 " + q(source) + " " + q(out), &text), 1) << text;
    EXPECT_EQ(readFile(out), (Bytes{'o', 'l', 'd'}));
    EXPECT_EQ(leftovers(dir.path()), "");

    // A moov-first recording cut short inside its spatial data: the rest is
    // converted, the spatial data left out with a line, and QDT9 names none.
    Bytes cut = readFile(sharedMovie(kNewer + " --layout moov-first"));
    const BoxAt spatial = findAll(cut, "uuid").at(0);
    cut.resize(spatial.start + spatial.size / 2);
    writeFile(dir / "cut.mp4", cut);
    for (const char* options : {"", "-vw:480"}) {
        SCOPED_TRACE(options);
        ASSERT_EQ(run(resize() + " " + options + " " + q(dir / "cut.mp4") + " " + q(out), &text), 0) << text;
        EXPECT_NE(text.find("is cut short; it is left out.\n"), std::string::npos) << text;
        std::string why;
        EXPECT_TRUE(nestingOk(out, &why) && offsetsOk(out, &why) && decodesCleanly(out, &why)) << why;
        const Bytes qdt9 = payload(out, "moov.udta.QDT9");
        EXPECT_EQ(Bytes(qdt9.begin(), qdt9.begin() + 16), Bytes(16, 0)); // offset and size of QADT
    }
}

// The signal bit of SIGTERM in a mask of /proc/PID/status.
bool termIn(pid_t pid, const char* field)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(field))
            return (std::stoull(line.substr(std::strlen(field)), nullptr, 16) >> (SIGTERM - 1)) & 1;
    return false;
}

TEST(DataSafety, AStopRequestFromTheFirstMomentOnEndsTheRunWithCancelled)
{
    // The request is sent as soon as the command holds SIGTERM back or
    // handles it (while the converter still loads its libraries), and a
    // little later, during the first stages.
    TempDir dir;
    const fs::path source = copyMovie(kNewer, dir / "source.mp4"), out = dir / "out.mp4";
    writeFile(out, {'o', 'l', 'd'});
    const std::string command = (binaryDir() / "bin" / "Resize").string(), log = (dir / "log").string();
    for (int delayMs : {0, 0, 3, 10}) {
        SCOPED_TRACE(delayMs);
        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_addopen(&files, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_adddup2(&files, 1, 2);
        const std::string a = source.string(), b = out.string();
        char* argv[] = {const_cast<char*>(command.c_str()), const_cast<char*>(a.c_str()), const_cast<char*>(b.c_str()),
                        nullptr};
        pid_t pid = 0;
        ASSERT_EQ(posix_spawn(&pid, command.c_str(), &files, nullptr, argv, environ), 0);
        posix_spawn_file_actions_destroy(&files);
        while (!termIn(pid, "SigBlk:") && !termIn(pid, "SigCgt:"))
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        kill(pid, SIGTERM);
        int status = 0;
        waitpid(pid, &status, 0);
        const Bytes printed = readFile(log);
        const std::string text(printed.begin(), printed.end());
        ASSERT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status) << "\n" << text;
        EXPECT_EQ(WEXITSTATUS(status), 1) << text;
        EXPECT_TRUE(text.ends_with("cancelled.\n")) << text;
        EXPECT_EQ(readFile(out), (Bytes{'o', 'l', 'd'}));
        EXPECT_EQ(leftovers(dir.path()), "");
    }
}

TEST(DataSafety, ALongStitchingTextWithMarkupGivesWellFormedSphericalXml)
{
    std::string software = "Stitcher <A&B> 'v2' ";
    while (software.size() < 400)
        software += "0123456789";
    TempDir dir;
    const fs::path source = copyMovie(kOlder + " --stitching \"" + software + "\"", dir / "source.mp4");
    std::string text;
    ASSERT_EQ(run(resize() + " -view:90,10 " + q(source) + " " + q(dir / "out.mp4"), &text), 0) << text;
    Exif tags = exif(dir / "out.mp4");
    EXPECT_EQ(tags["XMP-GSpherical:StitchingSoftware"], software);
    EXPECT_EQ(tags["XMP-GSpherical:InitialViewHeadingDegrees"], "90");
    EXPECT_EQ(tags.count("ExifTool:Warning") + tags.count("ExifTool:Error"), 0u) << tags["ExifTool:Warning"];
    expectSphericalV2(dir / "out.mp4");
}

} // namespace
