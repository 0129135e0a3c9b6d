// Resize as the user starts it: a small program of its own, linked
// statically, that holds SIGINT and SIGTERM back from its first instruction
// and then becomes the converter (libexec/resize/Resize beside this bin/).
//
// The converter links the media libraries, and loading them takes a few
// tens of milliseconds before its first instruction runs; a stop request in
// that time would otherwise end the process by the signal, without a word.
// Held back (the signal mask outlives exec), the request waits until the
// converter has set up its handlers and lets it through: it then says
// "cancelled." and exits with status 1, whenever the request came.
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

int main(int, char** argv)
{
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    sigprocmask(SIG_BLOCK, &stops, nullptr);

    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string converter = "libexec/resize/Resize";
    if (n > 0) {
        std::string here(self, static_cast<size_t>(n));
        converter = here.substr(0, here.find_last_of('/')) + "/../libexec/resize/Resize";
    }
    execv(converter.c_str(), argv);
    std::printf("Resize: %s cannot be started: %s\n", converter.c_str(), std::strerror(errno));
    return 1;
}
