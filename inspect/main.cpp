// Inspect: shows what a camera movie holds, without changing it, as text
// for a person or as one JSON document for scripts.
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

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

const char* const kHelp =
    "Inspect - show what a NARVI ORVEX camera movie holds\n"
    "\n"
    "Usage: Inspect [--json] FILE\n"
    "\n"
    "Reads FILE without changing it and shows its box tree, the camera model, the\n"
    "tracks, the maker-note record, the GPS position, the Spherical Video view (V1\n"
    "and V2), the sensor streams and the spatial audio, and names every problem\n"
    "that keeps the movie from being whole: a box that runs past its parent or the\n"
    "file, a chunk outside the media data, a file cut short before its movie box,\n"
    "a maker note or sensor stream that cannot be read.\n"
    "\n"
    "Options:\n"
    "  --json       print one JSON document instead of the text report\n"
    "               e.g. Inspect --json walk.mp4 > walk.json\n"
    "  -h, --help   print this help and exit\n"
    "               e.g. Inspect --help\n"
    "  --version    print the version and exit\n"
    "               e.g. Inspect --version\n"
    "\n"
    "Exit status:\n"
    "  0  a whole movie\n"
    "  1  not a movie (missing, a folder, no MP4 boxes), or a wrong command line\n"
    "  2  a movie with problems: each is said on standard error and listed under\n"
    "     \"problems\" in the JSON; the report is printed all the same\n"
    "\n"
    "Examples:\n"
    "  Inspect walk.mp4\n"
    "  Inspect --json walk.mp4 | python3 -m json.tool\n";

// Messages on standard error, as "Inspect: ..." lines.
void say(const std::string& text) { std::fprintf(stderr, "Inspect: %s\n", text.c_str()); }

int wrongCommandLine(const std::string& why)
{
    say(why);
    std::fputs("Usage: Inspect [--json] FILE (Inspect --help for more)\n", stderr);
    return 1;
}

// The JSON document must be all that standard output holds: anything the
// toolkit prints while the file is read goes to standard error instead.
class StandardOutputToError {
public:
    StandardOutputToError() : saved(dup(STDOUT_FILENO))
    {
        std::fflush(stdout);
        if (saved >= 0)
            dup2(STDERR_FILENO, STDOUT_FILENO);
    }
    ~StandardOutputToError()
    {
        std::fflush(stdout);
        if (saved >= 0) {
            dup2(saved, STDOUT_FILENO);
            close(saved);
        }
    }
    StandardOutputToError(const StandardOutputToError&) = delete;
    StandardOutputToError& operator=(const StandardOutputToError&) = delete;

private:
    int saved;
};

} // namespace

int main(int argc, char** argv)
{
    GLTK::Console::init_locale();
    if (const int n = Utility::firstOverlongArgument(argc, argv))
        return wrongCommandLine("argument " + std::to_string(n) + " is longer than 2048 characters");
    const std::vector<std::wstring> args = Utility::convertArguments(argc, argv);
    bool asJson = false, optionsEnd = false;
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
        } else if (a == L"--json") {
            asJson = true;
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
    if (asJson) {
        std::string document;
        {
            StandardOutputToError quiet;
            report.read(files[0]);
            document = Inspect::jsonDocument(report);
        }
        std::fputs(document.c_str(), stdout);
        std::fflush(stdout);
    } else {
        report.read(files[0]);
        if (report.kind() != Inspect::Report::Kind::NotAMovie)
            Inspect::printText(report);
    }
    if (report.kind() == Inspect::Report::Kind::NotAMovie)
        say(name + ": " + report.refusal);
    for (const std::string& problem : report.problems)
        say(name + ": warning: " + problem);
    return report.exitStatus();
}
