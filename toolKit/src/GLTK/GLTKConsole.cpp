#include "GLTKConsole.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <climits>
#include <cwchar>
#include <string>
#include <vector>

namespace GLTK {

locale_t C_LOCALE = newlocale(LC_ALL_MASK, "C", nullptr);

void Console::init_locale()
{
    const char* name = setlocale(LC_CTYPE, "");
    if (name == nullptr || std::strcmp(name, "C") == 0 || std::strcmp(name, "POSIX") == 0)
        setlocale(LC_CTYPE, "C.UTF-8");
}

// Formats into a wide buffer and writes its multibyte form. Standard output
// stays byte-oriented, so the console mixes safely with anything else that
// writes there.
static void vout(const wchar_t* format, va_list args)
{
    std::vector<wchar_t> buf(512);
    for (;;) {
        va_list copy;
        va_copy(copy, args);
        int n = vswprintf(buf.data(), buf.size(), format, copy);
        va_end(copy);
        if (n >= 0) {
            buf.resize(static_cast<size_t>(n));
            break;
        }
        if (buf.size() >= (1u << 24))
            return;
        buf.resize(buf.size() * 4);
    }
    std::string text;
    text.reserve(buf.size());
    std::mbstate_t st{};
    char mb[MB_LEN_MAX];
    for (wchar_t c : buf) {
        size_t k = wcrtomb(mb, c, &st);
        if (k == static_cast<size_t>(-1)) {
            st = std::mbstate_t{};
            text += '?';
        } else {
            text.append(mb, k);
        }
    }
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
}

void Console::out(const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    vout(format, args);
    va_end(args);
}

void Console::dump(const wchar_t* title, const void* bytes, size_t count)
{
    out(L"%ls", title);
    const unsigned char* p = static_cast<const unsigned char*>(bytes);
    std::wstring line;
    wchar_t hex[8];
    for (size_t i = 0; i < count; ++i) {
        swprintf(hex, 8, L" %02X", p[i]);
        line += hex;
    }
    line += L"\n";
    out(L"%ls", line.c_str());
}

} // namespace GLTK
