#include "RobustSupport.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace robust {

double now()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

std::string Outcome::describe() const
{
    std::ostringstream s;
    if (timedOut)
        s << "timed out";
    else if (exited)
        s << "exit status " << status;
    else
        s << "killed by signal " << signal << " (" << strsignal(signal) << ")";
    s << " after " << seconds << " s; output:\n" << output;
    return s.str();
}

Child::Child(const std::vector<std::string>& args, const fs::path& cwd, const Limits& limits)
{
    static int serial = 0;
    log = cwd / ("resize-" + std::to_string(getpid()) + "-" + std::to_string(++serial) + ".log");
    const std::string program = (testsupport::binaryDir() / "bin" / "Resize").string();
    std::vector<std::string> words{program};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);
    since = now();
    child = fork();
    if (child == 0) {
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || chdir(cwd.c_str()) != 0)
            _exit(126);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        close(fd);
        int null = open("/dev/null", O_RDONLY);
        if (null >= 0)
            dup2(null, STDIN_FILENO);
        if (!limits.readOnlyFolder.empty()) {
            if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                mount("resize-test", limits.readOnlyFolder.c_str(), "tmpfs", MS_RDONLY, "size=64k") != 0)
                _exit(kNoReadOnlyFolder);
        }
        if (limits.fileSize != 0) {
            struct rlimit r = {limits.fileSize, limits.fileSize};
            setrlimit(RLIMIT_FSIZE, &r);
        }
        // The test process may block or ignore signals; the child starts clean.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int s : {SIGTERM, SIGINT, SIGXFSZ, SIGPIPE})
            signal(s, SIG_DFL);
        execv(argv[0], argv.data());
        _exit(127);
    }
}

Child::~Child()
{
    if (child > 0 && !reaped) {
        ::kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    std::error_code ec;
    fs::remove(log, ec);
}

bool Child::running()
{
    if (reaped || child <= 0)
        return false;
    // WNOWAIT keeps the child reapable for wait().
    siginfo_t info = {};
    if (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) != 0)
        return false;
    return info.si_pid == 0;
}

void Child::pause()
{
    ::kill(child, SIGSTOP);
    // Wait until it has really stopped.
    siginfo_t info = {};
    waitid(P_PID, static_cast<id_t>(child), &info, WSTOPPED | WNOWAIT);
}

void Child::resume()
{
    since = now();
    ::kill(child, SIGCONT);
}

Outcome Child::wait(double timeout)
{
    Outcome o;
    if (child <= 0) {
        o.output = "fork failed";
        return o;
    }
    const double deadline = now() + timeout;
    int status = 0;
    for (;;) {
        pid_t r = waitpid(child, &status, WNOHANG);
        if (r == child)
            break;
        if (now() > deadline) {
            o.timedOut = true;
            ::kill(child, SIGKILL);
            waitpid(child, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    reaped = true;
    o.seconds = now() - since;
    if (!o.timedOut) {
        o.exited = WIFEXITED(status);
        o.status = o.exited ? WEXITSTATUS(status) : -1;
        o.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    std::ifstream in(log, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    o.output = text.str();
    return o;
}

Outcome runResize(const std::vector<std::string>& args, const fs::path& cwd, double timeout, const Limits& limits)
{
    Child c(args, cwd, limits);
    return c.wait(timeout);
}

int killWithResize(pid_t pid)
{
    const std::string program = (testsupport::binaryDir() / "bin" / "Resize").string();
    return testsupport::run(testsupport::q(program) + " -kill:" + std::to_string(pid));
}

std::vector<std::string> temporaryFiles(const fs::path& dir)
{
    std::vector<std::string> found;
    for (const auto& e : fs::recursive_directory_iterator(dir)) {
        const std::string name = e.path().filename().string();
        if (name.size() >= 8 && name.compare(name.size() - 8, 8, ".tmp.mp4") == 0)
            found.push_back(name);
    }
    return found;
}

uint64_t fileHash(const fs::path& p)
{
    std::ifstream in(p, std::ios::binary);
    if (!in)
        return 0;
    uint64_t h = 1469598103934665603ull;
    std::vector<char> block(1 << 20);
    while (in) {
        in.read(block.data(), static_cast<std::streamsize>(block.size()));
        std::streamsize n = in.gcount();
        for (std::streamsize i = 0; i < n; ++i) {
            h ^= static_cast<uint8_t>(block[static_cast<size_t>(i)]);
            h *= 1099511628211ull;
        }
    }
    return h;
}

} // namespace robust
