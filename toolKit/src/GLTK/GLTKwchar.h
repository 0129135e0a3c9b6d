#pragma once
// Conversion between multibyte (locale) text and wide strings. Both directions
// cut their result at 2048 units, as every path and argument of the program is.
#include <string>

namespace GLTK {
namespace wchar {

constexpr size_t kMaxUnits = 2048;

std::wstring mbs2wcs(const std::string& text);
std::wstring mbs2wcs(const char* text);
// The result keeps a length of min(6 * characters, 2048) bytes; the text ends
// at its first zero byte (use c_str()). See narrow() for a trimmed copy.
std::string wcs2mbs(const std::wstring& text);
// The multibyte form of a whole text (a path), never cut: up to its first
// zero or its first character that has no multibyte form.
std::string narrow(const std::wstring& text);

} // namespace wchar
} // namespace GLTK
