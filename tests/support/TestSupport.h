#pragma once
// Helpers shared by the tests: a scratch folder per test, files as bytes,
// running external tools, and what a call printed.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace testsupport {

namespace fs = std::filesystem;

// A fresh, empty folder removed again when the object goes away.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const fs::path& path() const { return dir; }
    fs::path operator/(const std::string& name) const { return dir / name; }

private:
    fs::path dir;
};

std::vector<uint8_t> readFile(const fs::path& p);
void writeFile(const fs::path& p, const std::vector<uint8_t>& bytes);

// Runs a shell command; returns its exit status and fills out with what it
// printed on standard output and standard error together.
int run(const std::string& command, std::string* out = nullptr);

// Quotes a path for the shell.
std::string q(const fs::path& p);

fs::path sourceDir();
fs::path binaryDir();

// What f printed on standard output.
std::string printedBy(const std::function<void()>& f);

} // namespace testsupport
