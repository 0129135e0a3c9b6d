#include "Movies.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <stdexcept>
#include <unistd.h>

namespace testsupport {

namespace {

fs::path fixture(const char* name) { return sourceDir() / "tests" / "fixtures" / name; }

bool check(const std::string& args, std::string* why)
{
    std::string out;
    int status = mp4check(args, &out);
    if (why != nullptr)
        *why = out;
    return status == 0;
}

} // namespace

fs::path sharedMovie(const std::string& options)
{
    // Named by the options and by the builder's own source, so that a change
    // of the builder makes new movies. The builder keeps its ffmpeg output
    // in the same folder.
    const char* env = std::getenv("RESIZE_FIXTURE_CACHE");
    const fs::path dir = env != nullptr && *env != '\0' ? fs::path(env) : binaryDir() / "fixture-cache";
    const std::vector<uint8_t> builder = readFile(fixture("make_movie.py"));
    const std::string key = options + '\n' + std::string(builder.begin(), builder.end());
    const fs::path path = dir / ("movie-" + std::to_string(std::hash<std::string>{}(key)) + ".mp4");
    if (fs::exists(path))
        return path;
    fs::create_directories(dir);
    const fs::path tmp = dir / (".tmp-" + std::to_string(getpid()) + "-" + path.filename().string());
    std::string text;
    int status = run("RESIZE_FIXTURE_CACHE=" + q(dir) + " python3 " + q(fixture("make_movie.py")) + " " + options +
                         " --out " + q(tmp),
                     &text);
    if (status != 0 || !fs::exists(tmp)) {
        ADD_FAILURE() << "make_movie.py " << options << " failed with status " << status << ":\n" << text;
        throw std::runtime_error("make_movie.py failed: " + text);
    }
    fs::rename(tmp, path);
    return path;
}

fs::path copyMovie(const std::string& options, const fs::path& out)
{
    fs::copy_file(sharedMovie(options), out, fs::copy_options::overwrite_existing);
    return out;
}

int mp4check(const std::string& args, std::string* out)
{
    return run("python3 " + q(fixture("mp4check.py")) + " " + args, out);
}

bool samplesEqual(const fs::path& a, const fs::path& b, std::string* why)
{
    return check("samples-equal " + q(a) + " " + q(b), why);
}

bool nestingOk(const fs::path& file, std::string* why) { return check("nesting " + q(file), why); }

bool offsetsOk(const fs::path& file, std::string* why) { return check("offsets " + q(file), why); }

bool boxPayload(const fs::path& file, const std::string& path, std::vector<uint8_t>& out)
{
    std::string text;
    bool found = mp4check("get --raw " + q(file) + " " + q(path), &text) == 0;
    out.assign(text.begin(), found ? text.end() : text.begin());
    return found;
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
