#include "Movies.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace testsupport {

namespace {

fs::path fixtureDir() { return sourceDir() / "tests" / "fixtures"; }

fs::path cacheDir()
{
    const char* env = std::getenv("RESIZE_FIXTURE_CACHE");
    return env != nullptr && *env != '\0' ? fs::path(env) : binaryDir() / "fixture-cache";
}

// The builder caches its ffmpeg output in the build tree of the tests that
// call it, unless the caller chose a folder.
std::string withCache() { return "RESIZE_FIXTURE_CACHE=" + q(cacheDir()) + " "; }

std::string fileText(const fs::path& p)
{
    std::ifstream f(p, std::ios::binary);
    std::ostringstream s;
    s << f.rdbuf();
    return s.str();
}

bool check(const std::string& args, std::string* why)
{
    std::string out;
    int status = mp4check(args, &out);
    if (why != nullptr)
        *why = out;
    return status == 0;
}

} // namespace

fs::path makeMovie(const fs::path& out, const std::string& options)
{
    std::string text;
    int status = run(withCache() + "python3 " + q(fixtureDir() / "make_movie.py") + " " + options + " --out " + q(out), &text);
    if (status != 0 || !fs::exists(out)) {
        ADD_FAILURE() << "make_movie.py " << options << " failed with status " << status << ":\n" << text;
        throw std::runtime_error("make_movie.py failed: " + text);
    }
    return out;
}

fs::path sharedMovie(const std::string& options)
{
    // Keyed by the options and by the builder's own source, so that a change
    // of the builder makes new movies.
    std::string key = options + '\n' + fileText(fixtureDir() / "make_movie.py") + fileText(fixtureDir() / "mp4box.py");
    char name[64];
    std::snprintf(name, sizeof(name), "movie-%016zx.mp4", std::hash<std::string>{}(key));
    fs::path dir = cacheDir();
    fs::create_directories(dir);
    fs::path path = dir / name;
    if (!fs::exists(path)) {
        fs::path tmp = dir / (std::string(".tmp-") + std::to_string(getpid()) + "-" + name);
        makeMovie(tmp, options);
        fs::rename(tmp, path);
    }
    return path;
}

fs::path copyMovie(const std::string& options, const fs::path& out)
{
    fs::copy_file(sharedMovie(options), out, fs::copy_options::overwrite_existing);
    return out;
}

int mp4check(const std::string& args, std::string* out)
{
    return run("python3 " + q(fixtureDir() / "mp4check.py") + " " + args, out);
}

bool samplesEqual(const fs::path& a, const fs::path& b, std::string* why)
{
    return check("samples-equal " + q(a) + " " + q(b), why);
}

bool nestingOk(const fs::path& file, std::string* why) { return check("nesting " + q(file), why); }

bool offsetsOk(const fs::path& file, std::string* why) { return check("offsets " + q(file), why); }

std::string boxTree(const fs::path& file)
{
    std::string out;
    mp4check("tree " + q(file), &out);
    return out;
}

bool boxPayload(const fs::path& file, const std::string& path, std::vector<uint8_t>& out)
{
    std::string text;
    out.clear();
    if (mp4check("get --raw " + q(file) + " " + q(path), &text) != 0)
        return false;
    out.assign(text.begin(), text.end());
    return true;
}

bool decodesCleanly(const fs::path& file, std::string* why)
{
    std::string out;
    int status = run("ffmpeg -nostdin -v error -i " + q(file) + " -f null -", &out);
    if (why != nullptr)
        *why = out;
    return status == 0 && out.empty();
}

} // namespace testsupport
