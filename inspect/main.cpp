// Inspect: shows what a camera movie holds, without changing it.
//
// Exit status 0 for a whole movie, 2 for a movie with problems (the report
// is still printed, each problem also said on standard error), 1 for a file
// that is not a movie or a wrong command line. Messages go to standard
// error, the report alone to standard output.
#include "GLTKConsole.h"
#include "GLTKwchar.h"
#include "InspectForms.h"
#include "Option.h"
#include "Utility.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

const char* const kHelp =
    "Inspect - show what a NARVI ORVEX camera movie holds\n"
    "\n"
    "Usage: Inspect FILE\n"
    "\n"
    "Reads FILE without changing it and shows its box tree, the camera model, the\n"
    "tracks, the maker-note record, the GPS position, the Spherical Video view (V1\n"
    "and V2), the sensor streams and the spatial audio, and names every problem\n"
    "that keeps the movie from being whole: a box that runs past its parent or the\n"
    "file, a chunk outside the media data, a file cut short before its movie box,\n"
    "a maker note or sensor stream that cannot be read.\n"
    "\n"
    "Options:\n"
    "  -h, --help   print this help and exit\n"
    "               e.g. Inspect --help\n"
    "  --version    print the version and exit\n"
    "               e.g. Inspect --version\n"
    "\n"
    "Exit status:\n"
    "  0  a whole movie\n"
    "  1  not a movie (missing, a folder, no MP4 boxes), or a wrong command line\n"
    "  2  a movie with problems: each is said on standard error; the report is\n"
    "     printed all the same\n"
    "\n"
    "Examples:\n"
    "  Inspect walk.mp4\n";

// Messages on standard error, as "Inspect: ..." lines.
void say(const std::string& text) { std::fprintf(stderr, "Inspect: %s\n", text.c_str()); }

int wrongCommandLine(const std::string& why)
{
    say(why);
    std::fputs("Usage: Inspect FILE (Inspect --help for more)\n", stderr);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    GLTK::Console::init_locale();
    if (const int n = Utility::firstOverlongArgument(argc, argv))
        return wrongCommandLine("argument " + std::to_string(n) + " is longer than 2048 characters");
    const std::vector<std::wstring> args = Utility::convertArguments(argc, argv);
    bool optionsEnd = false;
    std::vector<std::wstring> files;
    for (size_t i = 1; i < args.size(); ++i) {
        const std::wstring& a = args[i];
        if (optionsEnd || a.size() < 2 || a[0] != L'-') {
            files.push_back(a);
        } else if (a == L"-h" || a == L"--help") {
            std::fputs(kHelp, stdout);
            return 0;
        } else if (a == L"--version") {
            std::printf("Inspect %s\n", Resize_version);
            return 0;
        } else if (a == L"--") {
            optionsEnd = true;
        } else {
            return wrongCommandLine("unknown option " + GLTK::wchar::narrow(a));
        }
    }
    if (files.size() != 1)
        return wrongCommandLine(files.empty() ? "no file named" : "one file at a time");

    Inspect::Report report;
    const std::string name = GLTK::wchar::narrow(files[0]);
    report.read(files[0]);
    if (report.kind() != Inspect::Report::Kind::NotAMovie)
        Inspect::printText(report);
    if (report.kind() == Inspect::Report::Kind::NotAMovie)
        say(name + ": " + report.refusal);
    for (const std::string& problem : report.problems)
        say(name + ": warning: " + problem);
    return report.exitStatus();
}
