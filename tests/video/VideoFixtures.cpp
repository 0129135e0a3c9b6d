#include "VideoFixtures.h"

#include "Movies.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace testsupport;

namespace videotest {

path makeMovie(const MovieSpec& s)
{
    static TempDir dir; // movies live for the whole run, shared by the tests
    std::ostringstream name, cmd;
    name << "src_" << s.width << "x" << s.height << "_" << s.fps << "_" << s.seconds << "_a" << s.audioRate << "x"
         << s.audioChannels << "_" << std::hash<std::string>()(s.videoFilter) << ".mp4";
    path out = dir / name.str();
    if (fs::exists(out))
        return out;
    cmd << "ffmpeg -v error -y -f lavfi -i testsrc2=size=" << s.width << "x" << s.height << ":rate=" << s.fps
        << ":duration=" << s.seconds << s.videoFilter;
    if (s.audioRate > 0)
        cmd << " -f lavfi -i sine=frequency=440:sample_rate=" << s.audioRate << ":duration=" << s.seconds;
    cmd << " -c:v libx264 -preset ultrafast -pix_fmt yuv420p -g 30";
    if (s.audioRate > 0)
        cmd << " -c:a aac -ac " << s.audioChannels;
    cmd << " " << q(out);
    std::string log;
    EXPECT_EQ(run(cmd.str(), &log), 0) << cmd.str() << "\n" << log;
    return out;
}

std::string probe(const path& movie, const std::string& kind, const std::string& field)
{
    std::string out;
    run("ffprobe -v error " +
            (kind.empty() ? "-show_entries format=" + field
                          : "-select_streams " + kind + ":0 -show_entries stream=" + field) +
            " -of default=noprint_wrappers=1:nokey=1 " + q(movie),
        &out);
    while (!out.empty() && std::isspace(static_cast<unsigned char>(out.back())))
        out.pop_back();
    return out;
}

std::vector<size_t> keyFrames(const path& movie)
{
    std::string out;
    run("ffprobe -v error -select_streams v:0 -show_entries packet=flags -of csv=p=0 " + q(movie), &out);
    std::vector<size_t> keys;
    std::istringstream in(out);
    std::string line;
    for (size_t i = 0; std::getline(in, line); ++i)
        if (!line.empty() && line[0] == 'K')
            keys.push_back(i);
    return keys;
}

std::string decodeErrors(const path& movie)
{
    std::string out;
    int rc = run("ffmpeg -v error -i " + q(movie) + " -f null -", &out);
    return rc != 0 && out.empty() ? "exit status " + std::to_string(rc) : out;
}

bool moovBeforeMdat(const path& movie)
{
    std::string tree = boxTree(movie); // ftyp comes first
    return tree.find("\nmoov @") < tree.find("\nmdat @");
}

} // namespace videotest
