#include "VideoFixtures.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

using namespace testsupport;

namespace videotest {

namespace {

// Movies live for the whole run of the binary, shared by the tests.
const TempDir& movieDir()
{
    static TempDir dir;
    return dir;
}

std::string trim(std::string s)
{
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' '))
        s.pop_back();
    return s;
}

} // namespace

path makeMovie(const MovieSpec& s)
{
    std::ostringstream name;
    name << "src_" << s.width << "x" << s.height << "_" << s.fps << "_" << s.seconds << "_a" << s.audioRate << "x"
         << s.audioChannels << "_k" << s.keyInterval << "_" << std::hash<std::string>()(s.videoFilter) << ".mp4";
    path out = movieDir() / name.str();
    if (fs::exists(out))
        return out;
    std::ostringstream cmd;
    cmd << "ffmpeg -v error -y -f lavfi -i testsrc2=size=" << s.width << "x" << s.height << ":rate=" << s.fps
        << ":duration=" << s.seconds << s.videoFilter;
    if (s.audioRate > 0)
        cmd << " -f lavfi -i sine=frequency=440:sample_rate=" << s.audioRate << ":duration=" << s.seconds;
    cmd << " -c:v libx264 -preset ultrafast -pix_fmt yuv420p -g " << s.keyInterval;
    if (s.audioRate > 0)
        cmd << " -c:a aac -ac " << s.audioChannels;
    cmd << " " << q(out);
    std::string log;
    int rc = run(cmd.str(), &log);
    EXPECT_EQ(rc, 0) << cmd.str() << "\n" << log;
    return out;
}

std::string probe(const path& movie, const std::string& kind, const std::string& field)
{
    std::string cmd = "ffprobe -v error ";
    if (kind.empty())
        cmd += "-show_entries format=" + field;
    else
        cmd += "-select_streams " + kind + ":0 -show_entries stream=" + field;
    cmd += " -of default=noprint_wrappers=1:nokey=1 " + q(movie);
    std::string out;
    run(cmd, &out);
    return trim(out);
}

std::vector<bool> keyFlags(const path& movie)
{
    std::string out;
    run("ffprobe -v error -select_streams v:0 -show_entries packet=flags -of csv=p=0 " + q(movie), &out);
    std::vector<bool> flags;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line))
        if (!line.empty())
            flags.push_back(line[0] == 'K');
    return flags;
}

int streamCount(const path& movie, const std::string& kind)
{
    std::string out;
    run("ffprobe -v error -select_streams " + kind + " -show_entries stream=index -of csv=p=0 " + q(movie), &out);
    int n = 0;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line))
        if (!line.empty())
            ++n;
    return n;
}

std::string decodeErrors(const path& movie)
{
    std::string out;
    int rc = run("ffmpeg -v error -i " + q(movie) + " -f null -", &out);
    if (rc != 0 && out.empty())
        out = "exit status " + std::to_string(rc);
    return out;
}

std::vector<std::string> topLevelBoxes(const path& movie)
{
    std::vector<std::string> types;
    FILE* f = std::fopen(movie.c_str(), "rb");
    if (f == nullptr)
        return types;
    uint64_t pos = 0;
    unsigned char h[16];
    while (std::fseek(f, long(pos), SEEK_SET) == 0 && std::fread(h, 1, 8, f) == 8) {
        uint64_t size = uint64_t(h[0]) << 24 | uint64_t(h[1]) << 16 | uint64_t(h[2]) << 8 | h[3];
        types.emplace_back(reinterpret_cast<char*>(h + 4), 4);
        if (size == 1) {
            if (std::fread(h + 8, 1, 8, f) != 8)
                break;
            size = 0;
            for (int i = 8; i < 16; ++i)
                size = size << 8 | h[i];
        }
        if (size < 8)
            break;
        pos += size;
    }
    std::fclose(f);
    return types;
}

} // namespace videotest
