#pragma once
// Running the Resize command as a child process for the robustness tests:
// with a time limit, an optional file-size limit, and the means to pause and
// signal it at a chosen moment. Also the file checks every such test makes.
#include "TestSupport.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace robust {

namespace fs = std::filesystem;

struct Limits {
    // RLIMIT_FSIZE of the child in bytes (0: none).
    uint64_t fileSize = 0;
    // When set, the child runs in a mount namespace of its own in which this
    // folder is an empty read-only file system; it exits with status 125 when
    // that cannot be arranged.
    fs::path readOnlyFolder;
};

// Exit status of a child that could not set up its read-only folder.
constexpr int kNoReadOnlyFolder = 125;

// How a child ended.
struct Outcome {
    bool exited = false; // ended by exit(), not by a signal
    int status = -1;     // exit status when exited
    int signal = 0;      // the signal that ended it otherwise
    bool timedOut = false;
    double seconds = 0;  // wall time from start (or resume) to end
    std::string output;  // standard output and error together
    std::string describe() const;
};

// A started Resize process (the build's bin/Resize) with the given arguments,
// its working folder set to cwd and its output going to a file there.
class Child {
public:
    Child(const std::vector<std::string>& args, const fs::path& cwd, const Limits& limits = {});
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return child; }
    // Waits for the end, killing the child (SIGKILL) after timeout seconds;
    // seconds in the outcome count from `since` (start or the last resume).
    Outcome wait(double timeout);
    // Whether the child is still running (not yet reaped).
    bool running();
    void pause();
    void resume();

private:
    pid_t child = -1;
    bool reaped = false;
    fs::path log;
    double since = 0;
};

// Runs Resize to the end (at most timeout seconds).
Outcome runResize(const std::vector<std::string>& args, const fs::path& cwd, double timeout = 60,
                  const Limits& limits = {});

// Runs "Resize -kill:PID": the program's own way of stopping a run.
int killWithResize(pid_t pid);

// Names of the files in dir whose names end in ".tmp.mp4".
std::vector<std::string> temporaryFiles(const fs::path& dir);

// A hash of a file's bytes (FNV-1a, 64 bits) read in blocks; 0 when it
// cannot be read.
uint64_t fileHash(const fs::path& p);

double now();

} // namespace robust
