#pragma once
// Small pieces of the run flow: argument conversion, the kill command, the
// source check, the platform's full-range answer and the timing line.
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace Utility {

constexpr int kMaxArguments = 10;

// The command line as wide strings: at most 10 words, each cut at 2048 wide
// characters.
std::vector<std::wstring> convertArguments(int argc, const char* const* argv);

// The number (1 and up) of the first of the converted words that is not
// text in the current locale, 0 when all are. Such a word would be cut at its
// first unreadable byte and name another file than the one meant.
int firstUnreadableArgument(int argc, const char* const* argv);

// The number (1 and up) of the first of the converted words longer than
// 2048 characters, 0 when none is. Such a word would be cut, and a cut path
// names another file than the one meant.
int firstOverlongArgument(int argc, const char* const* argv);

// True when the command line is "-kill:PID" (exactly two words); status is
// then the exit status (0 when SIGTERM could be sent, 1 otherwise).
bool kill(int argc, const std::vector<std::wstring>& argv, int& status);

// Whether decoding to a full-range 4:2:0 format is supported: always on this
// platform (libswscale converts to full-range NV12).
bool isSupporFullRangePixelFormat();

// "\n%0.4f [sec]\n" with the elapsed time truncated to whole milliseconds.
void printElapsed(std::chrono::steady_clock::time_point start);

} // namespace Utility
