#pragma once
// Running Resize as the robustness tests do, and what every run must leave:
// status 0 or 1 (never a signal, never hanging), the source as it was, no
// temporary file, and after a failure no output and a line that says so.
#include "Tools.h"

#include <gtest/gtest.h>
#include <regex>

namespace robust {

using namespace testsupport;

struct Outcome {
    int status = -1; // 0 or 1 from Resize; 128 + n for signal n (137: killed at the time limit)
    std::string output;
};

// Runs Resize on source in its folder, for at most two minutes, under a
// file-size limit in bytes when one is given, and when readOnly is given in
// a mount namespace of its own where that folder is an empty read-only file
// system (status 125 when that cannot be arranged); checks what every run
// must leave.
inline Outcome runChecked(const std::string& options, const fs::path& source, const fs::path& out,
                          uint64_t fileSize = 0, const std::string& readOnly = "")
{
    std::string cmd = "cd " + q(source.parent_path()) + " && ";
    if (!readOnly.empty())
        cmd += "unshare -m sh -c 'mount --make-rprivate / && mount -t tmpfs -o ro,size=64k resize-test " + readOnly +
               " || exit 125; exec \"$0\" \"$@\"' ";
    cmd += "timeout -s KILL 120 " + (fileSize ? "prlimit --fsize=" + std::to_string(fileSize) + " " : "") + resize();
    const bool isFile = fs::is_regular_file(source);
    const std::string before = isFile ? md5(source) : "";
    Outcome o;
    o.status = run(cmd + " " + options + " " + q(source) + " " + q(out), &o.output);
    if (o.status == 125 && !readOnly.empty())
        return o;
    EXPECT_TRUE(o.status == 0 || o.status == 1) << "status " << o.status << "\n" << o.output;
    EXPECT_TRUE(!isFile || md5(source) == before) << "the source changed";
    EXPECT_EQ(leftovers(source.parent_path()), "") << o.output;
    if (o.status == 1) {
        EXPECT_FALSE(fs::is_regular_file(out)) << "a failed run left its output\n" << o.output;
        static const std::regex said("failed|: not an MP4 movie|: Is a directory|: damaged movie box");
        EXPECT_TRUE(std::regex_search(o.output, said)) << "no line says what failed\n" << o.output;
    }
    return o;
}

} // namespace robust
