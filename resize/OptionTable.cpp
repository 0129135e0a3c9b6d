#include "OptionTable.h"

#include "GLTKConsole.h"
#include "GLTKwchar.h"
#include "Option.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cwchar>
#include <cwctype>

namespace {

bool setView(Option& o, const std::wstring& value)
{
    std::string narrow = GLTK::wchar::wcs2mbs(L"-view:" + value);
    float v[4] = {NAN, NAN, NAN, NAN};
    const int read = std::sscanf(narrow.c_str(), "-view:%f,%f,%f,%f", &v[0], &v[1], &v[2], &v[3]);
    if (read < 2) {
        GLTK::Console::out(L"invalid arguments for -view:\n");
        return false;
    }
    o.viewHeading.heading = v[0];
    o.viewHeading.pitch = v[1];
    if (read >= 3)
        o.viewHeading.fov = v[2];
    if (read >= 4)
        o.viewHeading.dolly = v[3];
    o.viewMode = 1;
    return true;
}

bool setEnd(Option& o, const std::wstring& value)
{
    const double seconds = std::ceil(wcstod_l(value.c_str(), nullptr, GLTK::C_LOCALE));
    // Beyond what a 64-bit count of seconds holds (or not a number): to the
    // end.
    o.end = seconds > -9.2e18 && seconds < 9.2e18 ? static_cast<uint32_t>(static_cast<int64_t>(seconds)) : 0xFFFFFFFFu;
    return true;
}

int32_t signedValue(const std::wstring& v) { return static_cast<int32_t>(std::wcstol(v.c_str(), nullptr, 10)); }
uint32_t unsignedValue(const std::wstring& v) { return static_cast<uint32_t>(std::wcstoul(v.c_str(), nullptr, 10)); }

// A bit rate: a positive whole number of bits per second, or of thousands
// (k) or millions (M) of them: "8M" is 8,000,000. Anything else, or a rate
// below what the encoder can use, is refused with a line that says so.
bool bitRate(const wchar_t* word, const std::wstring& value, uint64_t minimum, uint32_t& out)
{
    wchar_t* end = nullptr;
    const unsigned long long n = value.empty() || !std::iswdigit(value[0]) ? 0 : std::wcstoull(value.c_str(), &end, 10);
    const std::wstring unit = end != nullptr ? end : L"";
    const uint64_t scale = unit.empty() ? 1 : unit == L"k" ? 1000 : unit == L"M" ? 1000000 : 0;
    const uint64_t rate = scale != 0 && n <= UINT32_MAX ? n * scale : 0;
    if (rate == 0 || rate > UINT32_MAX) {
        GLTK::Console::out(L"%ls%ls is not a bit rate: give a positive number of bits per second, or of thousands (k) "
                           L"or millions (M) of them, such as %ls8M.\n",
                           word, value.c_str(), word);
        return false;
    }
    if (rate < minimum) {
        GLTK::Console::out(L"%ls%ls: the encoder takes at least %llu bits per second.\n", word, value.c_str(),
                           static_cast<unsigned long long>(minimum));
        return false;
    }
    out = static_cast<uint32_t>(rate);
    return true;
}

// The widest frame both encoders take (libx264 stops at 16384).
constexpr int32_t kMaxWidth = 16384;
// libx264 and libx265 count the rate in whole kbit/s.
constexpr uint64_t kMinVideoRate = 1000;

const wchar_t* const kOneMovie = L"a time range belongs to one movie and is refused in a batch; cut that movie with Resize";

} // namespace

const std::vector<OptionRow>& optionTable()
{
    static const std::vector<OptionRow> rows = {
        {L"-h", false, false, L"it lists no option", L"", L"print the usage text (and end with status 1)", L"-h",
         [](Option&, const std::wstring&) { return false; }},
        {L"-view:-", false, false, nullptr, L"", L"reset the initial view of the Spherical Video metadata", L"-view:-",
         [](Option& o, const std::wstring&) {
             o.viewMode = 2;
             return true;
         }},
        {L"-view:", true, false, nullptr, L"H,P[,FOV[,DOLLY]]",
         L"initial view: heading and pitch in degrees, then field of view and dolly", L"-view:90,10", setView},
        {L"-vw:", true, true, nullptr, L"W",
         L"output frame width in pixels, to the nearest multiple of 4; the height is W/2 (below 2: the source's)",
         L"-vw:1920",
         [](Option& o, const std::wstring& v) {
             const long width = std::wcstol(v.c_str(), nullptr, 10);
             o.videoWidth = static_cast<int32_t>(std::clamp<long>(width, -1, kMaxWidth));
             if (width <= kMaxWidth)
                 return true;
             GLTK::Console::out(L"-vw:%ls: the encoders take frames at most %d wide.\n", v.c_str(), kMaxWidth);
             return false;
         }},
        {L"-ki:", true, true, nullptr, L"N",
         L"key-frame interval in frames (default 30 above 29 fps, else 15)", L"-ki:30",
         [](Option& o, const std::wstring& v) {
             o.keyFrameInterval = signedValue(v);
             return true;
         }},
        {L"-vb:", true, true, nullptr, L"BPS",
         L"video average bit rate, bits per second, k or M for thousands or millions (default: by size and frame "
         L"rate, at most the source's)",
         L"-vb:16M", [](Option& o, const std::wstring& v) { return bitRate(L"-vb:", v, kMinVideoRate, o.videoBitRate); }},
        {L"-ab:", true, true, nullptr, L"BPS", L"audio bit rate, bits per second, k or M as for -vb: (default 128k)",
         L"-ab:96k", [](Option& o, const std::wstring& v) { return bitRate(L"-ab:", v, 1, o.audioBitRate); }},
        {L"-ss:", true, true, kOneMovie, L"S", L"start of the kept range, whole seconds", L"-ss:2",
         [](Option& o, const std::wstring& v) {
             o.start = unsignedValue(v);
             return true;
         }},
        {L"-to:", true, true, kOneMovie, L"S", L"end of the kept range, seconds (rounded up)", L"-to:8.5", setEnd},
        {L"-thumb:", true, false, L"a thumbnail file belongs to one movie and is refused in a batch", L"FILE.jpg",
         L"also write a JPEG of the output's first frame", L"-thumb:walk.jpg",
         [](Option& o, const std::wstring& v) {
             o.thumbnailPath = v;
             return true;
         }},
        {L"-h264", false, false, nullptr, L"", L"write H.264 (with a re-encode; default: as the source)", L"-h264",
         [](Option& o, const std::wstring&) {
             o.codec = 1;
             return true;
         }},
        {L"-h265", false, false, nullptr, L"", L"write H.265 (with a re-encode; default: as the source)", L"-h265",
         [](Option& o, const std::wstring&) {
             o.codec = 2;
             return true;
         }},
    };
    return rows;
}

const OptionRow* optionRowFor(const std::wstring& word)
{
    for (const OptionRow& row : optionTable())
        if (row.prefix ? word.compare(0, std::wcslen(row.word), row.word) == 0 : word == row.word)
            return &row;
    return nullptr;
}

void printHelp()
{
    Option defaults;
    defaults.parse(1, {L"Resize"});
    defaults.usage();
    std::wstring text = L"Options:\n";
    for (const OptionRow& row : optionTable()) {
        std::wstring left = std::wstring(L"  ") + row.word + row.value;
        left.resize(std::max<size_t>(left.size() + 2, 26), L' ');
        text += left + row.meaning + L"\n" + std::wstring(26, L' ') + L"e.g. " + row.example + L"\n";
    }
    text += L"  --help                  this text\n"
            L"  --version               the version\n"
            L"  --options               the option table for scripts: word, match, re-encode, batch\n\n"
            L"Each option under \"Re-encodes\" makes Resize decode the source and encode a new movie;\n"
            L"without one it copies the media untouched and only rewrites the metadata.\n"
            L"Re-encodes:";
    for (const OptionRow& row : optionTable())
        if (row.reEncodes)
            text += std::wstring(L" ") + row.word;
    text += L"\n\nResize -kill:PID sends SIGTERM to a running conversion, which then stops, leaves every\n"
            L"output as it was and exits with status 1.\n";
    GLTK::Console::out(L"%ls", text.c_str());
}

void printOptionTable()
{
    for (const OptionRow& row : optionTable())
        GLTK::Console::out(L"%ls\t%ls\t%ls\t%ls\n", row.word, row.prefix ? L"prefix" : L"exact",
                           row.reEncodes ? L"re-encodes" : L"-", row.notInBatch ? row.notInBatch : L"batch");
}
