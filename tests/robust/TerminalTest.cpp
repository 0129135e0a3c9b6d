// What a user sees at a terminal (Resize on a pseudo-terminal): the
// re-encode and the metadata stage each draw one status line in place ("\r")
// and end it with a newline, and Ctrl-C stops the run at any stage with
// "cancelled." on a line of its own.
#include "Robust.h"

#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <pty.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <utmp.h>

using namespace robust;

namespace {

struct Terminal {
    int master = -1;
    pid_t pid = -1;
    std::string seen; // what Resize wrote, byte for byte

    // With held, the output is stopped (as Ctrl-S stops it) before Resize
    // starts: its first line, printed while it probes the source, holds it
    // there until Ctrl-C starts the output again.
    Terminal(const fs::path& dir, const std::string& words, bool held = false)
    {
        termios t{};               // no output processing
        t.c_iflag = IXON;          // Ctrl-S stops the output
        t.c_lflag = ISIG | NOFLSH; // Ctrl-C sends SIGINT and drops nothing
        t.c_cflag = CS8 | CREAD;
        t.c_cc[VINTR] = 3, t.c_cc[VSTOP] = 19, t.c_cc[VSTART] = 17, t.c_cc[VMIN] = 1;
        int slave = -1;
        EXPECT_EQ(openpty(&master, &slave, nullptr, &t, nullptr), 0);
        if (held) {
            type("\x13");
            // A write without waiting is refused once the stop is in force.
            const int probe = open(ptsname(master), O_WRONLY | O_NONBLOCK | O_NOCTTY);
            while (write(probe, "", 1) == 1)
                usleep(100);
            close(probe);
        }
        const std::string command = "cd " + q(dir) + " && exec " + resize() + " " + words;
        if ((pid = fork()) == 0) {
            login_tty(slave);
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
        close(slave);
        // Held: wait until Resize is blocked writing to the stopped output.
        const std::string writing = std::to_string(SYS_write) + " ";
        std::string call;
        for (int i = 0; held && i < 60000 && !call.starts_with(writing); ++i) {
            usleep(1000);
            std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/syscall"), call);
        }
        EXPECT_TRUE(!held || call.starts_with(writing)) << call;
    }
    void type(const char* keys) { EXPECT_EQ(write(master, keys, strlen(keys)), ssize_t(strlen(keys))); }
    // Reads until the text appears or Resize ends.
    void readUntil(const std::string& text)
    {
        char buf[4096];
        pollfd p{master, POLLIN, 0};
        for (ssize_t n = 1; seen.find(text) == std::string::npos && n > 0 && poll(&p, 1, 120000) == 1;)
            if ((n = read(master, buf, sizeof buf)) > 0)
                seen.append(buf, size_t(n));
        std::erase(seen, '\0');
    }
    int status()
    {
        readUntil("\x04"); // never written: to the end
        int s = 0;
        waitpid(pid, &s, 0);
        close(master);
        return WIFEXITED(s) ? WEXITSTATUS(s) : 128 + WTERMSIG(s);
    }
};

TEST(Terminal, OneStatusLineForEachStageAndCtrlCAtEveryStageSaysCancelled)
{
    TempDir dir;
    copyMovie("--size 320x160 --duration 2", dir / "src.mp4");
    Terminal done(dir.path(), "-vw:320 src.mp4 out.mp4");
    ASSERT_EQ(done.status(), 0) << done.seen;
    // Every drawing of the frame count is in its format and counts up to the
    // 60 frames of the movie; the last one is ended by a newline.
    const std::regex frame(R"(\rframe (\d+)/\d+ +\d+%  [0-9.]+ fps  elapsed \d+:\d\d  remaining (\d+:\d\d|-:--) *)");
    std::vector<unsigned long> counts;
    for (std::sregex_iterator it(done.seen.begin(), done.seen.end(), frame), end; it != end; ++it)
        counts.push_back(std::stoul((*it)[1]));
    EXPECT_TRUE(counts.size() >= 2 && std::is_sorted(counts.begin(), counts.end()));
    size_t drawings = 0;
    for (size_t at = 0; (at = done.seen.find("\rframe", at)) != std::string::npos; ++at)
        ++drawings;
    EXPECT_EQ(counts.size(), drawings) << "malformed drawings\n" << done.seen;
    EXPECT_TRUE(std::regex_search(done.seen, std::regex(R"(\rframe 60/60  100%  [^\r\n]* remaining 0:00 *\n)")));
    EXPECT_TRUE(std::regex_search(done.seen, std::regex(R"(\rwriting metadata 100% *\n)"))) << done.seen;
    EXPECT_EQ(done.seen.find("processing frame"), std::string::npos);
    EXPECT_EQ(done.seen.find("processing meta"), std::string::npos);
    fs::remove(dir / "out.mp4");

    // Ctrl-C while the source is probed, and during the re-encode: after
    // what was drawn, "cancelled." on a line of its own, and nothing more.
    Terminal probing(dir.path(), "-vw:320 src.mp4 out.mp4", true);
    probing.type("\x03");
    EXPECT_EQ(probing.status(), 1);
    EXPECT_TRUE(probing.seen.ends_with("\ncancelled.\n")) << probing.seen;
    EXPECT_EQ(probing.seen.find("processing"), std::string::npos) << probing.seen;
    Terminal encoding(dir.path(), "-vw:640 src.mp4 out.mp4");
    encoding.readUntil("\rframe");
    encoding.type("\x03");
    EXPECT_EQ(encoding.status(), 1);
    EXPECT_TRUE(std::regex_search(encoding.seen, std::regex(R"(\r(frame|writing metadata) [^\r\n]+\ncancelled\.\n$)")))
        << encoding.seen;
    EXPECT_FALSE(fs::exists(dir / "out.mp4"));
    EXPECT_EQ(leftovers(dir.path()), "");
}

} // namespace
