#pragma once
// Console output: every line the program prints goes through here, as
// wide-character printf-style text on standard output.
#include <clocale>
#include <cstddef>
#include <locale.h>

namespace GLTK {

// The process-wide C locale, for parsing numbers independently of the user's
// locale (wcstod_l and friends).
extern locale_t C_LOCALE;

class Console {
public:
    // Takes the character-type category from the environment so that UTF-8
    // paths convert to wide strings without loss; falls back to "C.UTF-8" when
    // the environment names the plain C locale. Numbers stay in the C locale.
    static void init_locale();

    // Wide printf to standard output, flushed after every call. While a
    // status line is open the text goes above it and the status line is
    // drawn again below.
    static void out(const wchar_t* format, ...);

    // Whether standard output is a terminal: only there is a status line
    // drawn in place; a pipe or a log file gets whole lines.
    static bool isTerminal();
    // Draws the status line: one line at the bottom of the terminal,
    // redrawn in place ("\r") by every call.
    static void status(const wchar_t* format, ...);
    // Ends the status line with a newline, where it stays as it was last
    // drawn. Nothing when none is open.
    static void endStatus();

    // The title, then every byte as " %02X", then a line end.
    static void dump(const wchar_t* title, const void* bytes, size_t count);

    // Scope opened around locale-independent number formatting. Only the
    // character-type category is ever changed, so numbers are always in the C
    // locale and the scope itself has nothing to do.
    class LocaleC {
    public:
        LocaleC() {}
        ~LocaleC() {}
        LocaleC(const LocaleC&) = delete;
        LocaleC& operator=(const LocaleC&) = delete;
    };
};

} // namespace GLTK
