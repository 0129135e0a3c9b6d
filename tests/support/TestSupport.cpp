#include "TestSupport.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <stdexcept>
#include <sys/wait.h>

namespace testsupport {

TempDir::TempDir()
{
    std::string name = (fs::temp_directory_path() / "resize-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("cannot make a temporary folder");
    dir = name;
}

TempDir::~TempDir()
{
    std::error_code ec;
    fs::remove_all(dir, ec);
}

std::vector<uint8_t> readFile(const fs::path& p)
{
    std::ifstream f(p, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

void writeFile(const fs::path& p, const std::vector<uint8_t>& bytes)
{
    std::ofstream(p, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

int run(const std::string& command, std::string* out)
{
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return -1;
    std::string text;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;)
        text.append(buf, n);
    int status = pclose(pipe);
    if (out != nullptr)
        *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string q(const fs::path& p)
{
    std::string r = "'";
    for (char c : p.string())
        r += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return r + "'";
}

fs::path sourceDir() { return RESIZE_SOURCE_DIR; }
fs::path binaryDir() { return RESIZE_BINARY_DIR; }

std::string printedBy(const std::function<void()>& f)
{
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

} // namespace testsupport
