#pragma once
// The text of one XML element in a metadata packet, found without a regular
// expression. std::regex matches by recursion, one level per character, so a
// long line in a hostile packet exhausts the stack; this search is linear.
#include <string>

namespace MetaText {

// Finds the element the way a search for "<tag>(.*)</tag>" would (or
// "<tag> *(.+) *</tag>" with nonEmpty): the first opening tag that has a
// closing tag later on the same line (lines end at '\n' or '\r'), and the text
// up to the last closing tag on that line. With nonEmpty the text has at
// least one character and leading blanks are skipped, keeping the last one
// when there is nothing else. False when there is no such element.
inline bool elementText(const std::string& text, const std::string& open, const std::string& close, bool nonEmpty,
                        std::string& out)
{
    const size_t least = nonEmpty ? 1 : 0;
    size_t from = 0;
    for (;;) {
        const size_t at = text.find(open, from);
        if (at == std::string::npos)
            return false;
        const size_t begin = at + open.size();
        size_t lineEnd = text.find_first_of("\r\n", begin);
        if (lineEnd == std::string::npos)
            lineEnd = text.size();
        if (lineEnd >= begin + least + close.size()) {
            const size_t last = text.rfind(close, lineEnd - close.size());
            if (last != std::string::npos && last >= begin + least) {
                size_t first = begin;
                while (nonEmpty && first + 1 < last && text[first] == ' ')
                    ++first;
                out = text.substr(first, last - first);
                return true;
            }
        }
        // Later opening tags on this line find no closing tag either.
        from = lineEnd;
    }
}

} // namespace MetaText
