// Stopping a run with "Resize -kill:PID" (SIGTERM) while it re-encodes and
// while it copies a large movie's metadata: the run stops within a few
// seconds with exit status 1 and a last line "cancelled." (no failure line,
// no usage text), removes its temporary files, and leaves the source and a
// file already at the output's path byte for byte as they were.
//
// To hit the chosen stage every time, the test watches the output folder,
// freezes the run (SIGSTOP) as soon as the file of that stage has bytes, sends
// the termination signal with the program's own kill command, and lets the
// run go on (SIGCONT): the signal is then handled inside that stage.
#include "Robust.h"

#include <chrono>
#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

using namespace robust;

namespace {

void stopWhenWritten(const std::string& options, const fs::path& src, const fs::path& out, const fs::path& watched)
{
    const fs::path dir = src.parent_path();
    const std::string before = md5(src);
    const Bytes earlier{'o', 'l', 'd'};
    writeFile(out, earlier);
    // In the background: the run's process id in "pid", its exit status in "status".
    run("cd " + q(dir) + " && (" + resize() + " " + options + " " + q(src) + " " + q(out) +
        " >log 2>&1 & echo $! >p && mv p pid; wait $!; echo $? >s && mv s status) >/dev/null 2>&1 &");
    using Clock = std::chrono::steady_clock;
    auto written = [](const fs::path& file) {
        std::error_code e;
        return fs::file_size(file, e) > 0 && !e;
    };
    auto waitFor = [&](const fs::path& file, double seconds) {
        for (auto end = Clock::now() + std::chrono::duration<double>(seconds); !written(file) && Clock::now() < end;)
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        return written(file);
    };
    ASSERT_TRUE(waitFor(watched, 120) && waitFor(dir / "pid", 1)) << watched << " never appeared";
    const pid_t pid = std::stoi(std::string(std::istreambuf_iterator<char>(std::ifstream(dir / "pid").rdbuf()), {}));
    kill(pid, SIGSTOP);
    EXPECT_EQ(run(resize() + " -kill:" + std::to_string(pid)), 0) << "Resize -kill: could not signal the run";
    kill(pid, SIGCONT);
    const auto resumed = Clock::now();
    if (!waitFor(dir / "status", 60))
        kill(pid, SIGKILL);
    const Bytes log = readFile(dir / "log"), status = readFile(dir / "status");
    const std::string text(log.begin(), log.end());
    EXPECT_EQ(std::string(status.begin(), status.end()), "1\n") << text;
    EXPECT_TRUE(text.ends_with("\ncancelled.\n") && text.find("failed") == std::string::npos &&
                text.find("usage:") == std::string::npos)
        << text;
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - resumed).count(), 5.0) << text;
    EXPECT_EQ(readFile(out), earlier) << "the file at the output's path changed\n" << text;
    EXPECT_EQ(leftovers(dir), "");
    EXPECT_EQ(md5(src), before) << "the source changed";
}

// A movie of about 256 MB: an older camera's mdat-first movie whose mdat is
// padded at its end with real bytes (not a hole: the copy must move every
// one). Nothing points behind the padding but moov itself, so the movie
// stays valid.
fs::path largeMovie(const fs::path& dir)
{
    Bytes f = readFile(sharedMovie("--model older --no-thumb"));
    const BoxAt mdat = *findOne(f, "mdat");
    constexpr size_t kPad = 256u << 20;
    const uint32_t grown = uint32_t(mdat.size + kPad);
    for (int i = 0; i < 4; ++i)
        f[mdat.start + size_t(i)] = uint8_t(grown >> (24 - 8 * i));
    std::ofstream out(dir / "large.mp4", std::ios::binary);
    out.write(reinterpret_cast<const char*>(f.data()), long(mdat.end()));
    const std::string block(1 << 20, 'Z');
    for (size_t done = 0; done < kPad; done += block.size())
        out.write(block.data(), long(block.size()));
    out.write(reinterpret_cast<const char*>(f.data() + mdat.end()), long(f.size() - mdat.end()));
    return dir / "large.mp4";
}

TEST(Cancel, DuringTheReEncodeAndTheMetadataCopy)
{
    // Once the output's temporary file has bytes, the encoder and muxer are
    // at work.
    TempDir dir;
    stopWhenWritten("-vw:640", copyMovie("--duration 4", dir / "src.mp4"), dir / "out.mp4", dir / "out.mp4.tmp.mp4");
    // A metadata-only run copies the movie once, into the output's
    // temporary file.
    TempDir large;
    stopWhenWritten("", largeMovie(large.path()), large / "out.mp4", large / "out.mp4.tmp.mp4");
}

} // namespace
