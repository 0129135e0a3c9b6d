#include "TestSupport.h"

#include <array>
#include <cstdio>
#include <fstream>
#include <random>
#include <stdexcept>
#include <sys/wait.h>

namespace testsupport {

TempDir::TempDir()
{
    std::random_device rd;
    fs::path base = fs::temp_directory_path();
    for (int i = 0; i < 100; ++i) {
        fs::path p = base / ("resize-test-" + std::to_string(rd()));
        if (fs::create_directory(p)) {
            dir = p;
            return;
        }
    }
    throw std::runtime_error("cannot make a temporary folder");
}

TempDir::~TempDir()
{
    std::error_code ec;
    fs::remove_all(dir, ec);
}

std::vector<uint8_t> readFile(const fs::path& p)
{
    std::ifstream f(p, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

void writeFile(const fs::path& p, const std::vector<uint8_t>& bytes)
{
    std::ofstream f(p, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

int run(const std::string& command, std::string* out)
{
    std::string cmd = command + " 2>&1";
    FILE* pipe = popen(cmd.c_str(), "r");
    if (pipe == nullptr)
        return -1;
    std::array<char, 4096> buf;
    std::string text;
    size_t n;
    while ((n = fread(buf.data(), 1, buf.size(), pipe)) > 0)
        text.append(buf.data(), n);
    int status = pclose(pipe);
    if (out != nullptr)
        *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string q(const fs::path& p)
{
    std::string s = p.string();
    std::string r = "'";
    for (char c : s) {
        if (c == '\'')
            r += "'\\''";
        else
            r += c;
    }
    return r + "'";
}

fs::path sourceDir() { return RESIZE_SOURCE_DIR; }
fs::path binaryDir() { return RESIZE_BINARY_DIR; }

} // namespace testsupport
