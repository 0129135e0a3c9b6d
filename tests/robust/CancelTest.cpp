// Stopping a run with "Resize -kill:PID" (SIGTERM) while it re-encodes and
// while it copies a large movie's metadata: the run stops within a few
// seconds with exit status 1, removes its temporary file and its partial
// output, and leaves the source byte for byte as it was.
//
// To hit the chosen stage every time, the test watches the output folder,
// freezes the run (SIGSTOP) as soon as the file of that stage appears, sends
// the termination signal with the program's own kill command, and lets the
// run go on (SIGCONT): the signal is then handled inside that stage.
#include "ByteArray.h"
#include "Movies.h"
#include "RobustSupport.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

using namespace testsupport;
using robust::Outcome;

namespace {

// Seconds the run may take to stop once it runs again.
constexpr double kPromptly = 5.0;

class Cancel : public testing::Test {
protected:
    // Starts Resize, waits for `watched` to appear with at least minBytes,
    // stops the run there and checks the outcome.
    void stopWhenPresent(const std::vector<std::string>& args, const fs::path& watched, uint64_t minBytes,
                         const fs::path& src, const fs::path& out)
    {
        const uint64_t before = robust::fileHash(src);
        robust::Child run(args, dir.path());
        const double deadline = robust::now() + 120;
        bool seen = false;
        while (robust::now() < deadline && run.running()) {
            std::error_code ec;
            const uint64_t n = fs::file_size(watched, ec);
            if (!ec && n >= minBytes) {
                seen = true;
                break;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
        ASSERT_TRUE(seen) << watched << " never appeared\n" << run.wait(1).describe();
        run.pause();
        EXPECT_EQ(robust::killWithResize(run.pid()), 0) << "Resize -kill: could not signal the run";
        run.resume();
        const Outcome o = run.wait(60);
        ASSERT_FALSE(o.timedOut) << o.describe();
        ASSERT_TRUE(o.exited) << o.describe();
        EXPECT_EQ(o.status, 1) << o.describe();
        EXPECT_LT(o.seconds, kPromptly) << o.describe();
        EXPECT_FALSE(fs::exists(out)) << "partial output left\n" << o.describe();
        EXPECT_TRUE(robust::temporaryFiles(dir.path()).empty()) << o.describe();
        EXPECT_EQ(robust::fileHash(src), before) << "the source changed";
        std::printf("stopped %.3f s after the signal; last lines:\n%s\n", o.seconds,
                    o.output.substr(o.output.size() > 300 ? o.output.size() - 300 : 0).c_str());
    }

    TempDir dir;
};

TEST_F(Cancel, DuringTheReEncode)
{
    const fs::path src = dir / "src.mp4", out = dir / "out.mp4";
    fs::copy_file(sharedMovie("--model newer --duration 4"), src);
    // Some frames written: the encoder and muxer are at work.
    stopWhenPresent({"-vw:640", src.string(), out.string()}, out, 1, src, out);
}

// A movie of about 256 MB: an older camera's mdat-first movie whose mdat is
// padded at its end. Nothing points behind the padding but moov itself, so
// the movie stays valid.
fs::path largeMovie(const fs::path& dir)
{
    const std::vector<uint8_t> f = readFile(sharedMovie("--model older --no-thumb"));
    // Top-level boxes: ftyp, mdat, moov in that order.
    size_t pos = 0, mdatAt = 0, mdatSize = 0;
    while (pos + 8 <= f.size()) {
        const size_t size = be32(f.data() + pos);
        if (std::memcmp(f.data() + pos + 4, "mdat", 4) == 0)
            mdatAt = pos, mdatSize = size;
        if (size < 8)
            break;
        pos += size;
    }
    if (mdatSize == 0)
        throw std::runtime_error("no 32-bit mdat in the fixture");
    constexpr uint64_t kPad = 256ull << 20;
    const fs::path p = dir / "large.mp4";
    std::vector<uint8_t> head(f.begin(), f.begin() + static_cast<long>(mdatAt + mdatSize));
    put32be(head.data() + mdatAt, static_cast<uint32_t>(mdatSize + kPad));
    int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    bool ok = fd >= 0 && write(fd, head.data(), head.size()) == static_cast<ssize_t>(head.size());
    // Real bytes, not a hole: the copy must move every one of them.
    std::vector<uint8_t> block(1 << 20, 0x5A);
    for (uint64_t done = 0; ok && done < kPad; done += block.size())
        ok = write(fd, block.data(), block.size()) == static_cast<ssize_t>(block.size());
    const size_t tail = f.size() - head.size();
    ok = ok && write(fd, f.data() + head.size(), tail) == static_cast<ssize_t>(tail);
    if (fd >= 0)
        close(fd);
    if (!ok)
        throw std::runtime_error("cannot write the large movie");
    return p;
}

TEST_F(Cancel, DuringTheMetadataCopy)
{
    const fs::path src = largeMovie(dir.path()), out = dir / "out.mp4";
    // The output is written once, through out.mp4.tmp.mp4.
    stopWhenPresent({src.string(), out.string()}, dir / "out.mp4.tmp.mp4", 1, src, out);
}

} // namespace
