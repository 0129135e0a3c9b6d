#include "GLTKwchar.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace GLTK {
namespace wchar {

std::wstring mbs2wcs(const char* text)
{
    if (text == nullptr)
        return std::wstring();
    size_t n = std::min(2 * std::strlen(text), kMaxUnits);
    std::wstring out(n, L'\0');
    if (n > 0)
        mbstowcs(out.data(), text, n);
    out.resize(wcsnlen(out.c_str(), n));
    return out;
}

std::wstring mbs2wcs(const std::string& text)
{
    return mbs2wcs(text.c_str());
}

std::string wcs2mbs(const std::wstring& text)
{
    size_t n = std::min(6 * text.size(), kMaxUnits);
    std::string out(n, '\0');
    if (n > 0) {
        size_t r = wcstombs(out.data(), text.c_str(), n);
        if (r == static_cast<size_t>(-1)) {
            // An unconvertible character stops the conversion; keep what was
            // converted before it (wcstombs leaves the buffer undefined, so
            // redo it character by character).
            std::fill(out.begin(), out.end(), '\0');
            size_t pos = 0;
            std::mbstate_t st{};
            char buf[MB_LEN_MAX];
            for (wchar_t c : text) {
                size_t k = wcrtomb(buf, c, &st);
                if (k == static_cast<size_t>(-1) || pos + k > n)
                    break;
                std::memcpy(out.data() + pos, buf, k);
                pos += k;
            }
        }
    }
    return out;
}

std::string narrow(const std::wstring& text)
{
    // Paths go through here on their way to the system: a cut path would
    // name another file, so the whole text is converted, as far as its first
    // character that has no multibyte form.
    std::string out;
    std::mbstate_t st{};
    char buf[MB_LEN_MAX];
    for (wchar_t c : text) {
        if (c == L'\0')
            break;
        size_t k = wcrtomb(buf, c, &st);
        if (k == static_cast<size_t>(-1))
            break;
        out.append(buf, k);
    }
    return out;
}

} // namespace wchar
} // namespace GLTK
