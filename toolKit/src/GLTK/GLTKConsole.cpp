#include "GLTKConsole.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <mutex>
#include <string>
#include <unistd.h>
#include <vector>

namespace GLTK {

locale_t C_LOCALE = newlocale(LC_ALL_MASK, "C", nullptr);

void Console::init_locale()
{
    const char* name = setlocale(LC_CTYPE, "");
    if (name == nullptr || std::strcmp(name, "C") == 0 || std::strcmp(name, "POSIX") == 0)
        setlocale(LC_CTYPE, "C.UTF-8");
}

namespace {

std::mutex lock;
// The status line as last drawn, and whether the cursor still stands on it.
std::string statusText;
size_t statusWidth = 0;
bool statusOpen = false;

std::wstring render(const wchar_t* format, va_list args)
{
    std::vector<wchar_t> buf(512);
    for (;;) {
        va_list copy;
        va_copy(copy, args);
        int n = vswprintf(buf.data(), buf.size(), format, copy);
        va_end(copy);
        if (n >= 0)
            return std::wstring(buf.data(), static_cast<size_t>(n));
        if (buf.size() >= (1u << 24))
            return {};
        buf.resize(buf.size() * 4);
    }
}

std::string multibyte(const std::wstring& wide)
{
    std::string text;
    text.reserve(wide.size());
    std::mbstate_t st{};
    char mb[MB_LEN_MAX];
    for (wchar_t c : wide) {
        size_t k = wcrtomb(mb, c, &st);
        if (k == static_cast<size_t>(-1)) {
            st = std::mbstate_t{};
            text += '?';
        } else {
            text.append(mb, k);
        }
    }
    return text;
}

// Standard output stays byte-oriented, so the console mixes safely with
// anything else that writes there: what stdio holds goes first. A signal
// (Ctrl-C) that interrupts the write does not lose the line.
void write(const std::string& text)
{
    fflush(stdout);
    for (size_t done = 0; done < text.size();) {
        const ssize_t n = ::write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        done += static_cast<size_t>(n);
    }
}

} // namespace

void Console::out(const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    const std::string text = multibyte(render(format, args));
    va_end(args);
    std::lock_guard<std::mutex> guard(lock);
    if (!statusOpen) {
        write(text);
        return;
    }
    // The text takes the status line's place; the status line follows it.
    std::string line(statusWidth + 2, ' ');
    line.front() = line.back() = '\r';
    write(line.append(text));
    if (!text.empty() && text.back() == '\n') {
        write(statusText);
    } else {
        statusOpen = false;
        statusWidth = 0;
    }
}

bool Console::isTerminal()
{
    static const bool terminal = isatty(STDOUT_FILENO) == 1;
    return terminal;
}

void Console::status(const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    const std::wstring wide = render(format, args);
    va_end(args);
    std::lock_guard<std::mutex> guard(lock);
    // Spaces cover what a longer line drawn before would leave behind.
    statusText.assign(1, '\r').append(multibyte(wide));
    write(std::string(statusText).append(statusWidth > wide.size() ? statusWidth - wide.size() : 0, ' '));
    statusWidth = wide.size();
    statusOpen = true;
}

void Console::endStatus()
{
    std::lock_guard<std::mutex> guard(lock);
    if (statusOpen)
        write("\n");
    statusOpen = false;
    statusWidth = 0;
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
