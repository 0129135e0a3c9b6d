// The linear element search gives what the regular-expression searches it
// replaces gave, on short texts where std::regex is safe to run, and stays
// linear on a long hostile line where std::regex ran out of stack.
#include "ElementText.h"

#include <chrono>
#include <gtest/gtest.h>
#include <random>
#include <regex>

namespace {

TEST(ElementText, AgreesWithTheRegularExpressionSearch)
{
    const std::string open = "<x:T>", close = "</x:T>";
    const std::regex nonEmpty("<x:T> *(.+) *</x:T>"), any("<x:T>(.*)</x:T>");
    const char* tokens[] = {"<x:T>", "</x:T>", " ", "a", "b", "\n", "\r", "<x:T", "/x:T>"};
    std::mt19937 rng(6709);
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        const int n = static_cast<int>(rng() % 12);
        for (int k = 0; k < n; ++k)
            text += tokens[rng() % std::size(tokens)];
        for (bool wantNonEmpty : {true, false}) {
            std::smatch m;
            const bool expected = std::regex_search(text, m, wantNonEmpty ? nonEmpty : any);
            std::string got = "unset";
            EXPECT_EQ(MetaText::elementText(text, open, close, wantNonEmpty, got), expected) << text;
            if (expected) {
                EXPECT_EQ(got, m[1].str()) << text;
            } else {
                EXPECT_EQ(got, "unset") << text;
            }
        }
    }
}

TEST(ElementText, LongHostileLinesStayLinear)
{
    // 16 MB on one line: an element without its end, then opening tags only.
    std::string text = "<x:CreatorTool>" + std::string(8 << 20, 'a');
    while (text.size() < (16u << 20))
        text += "<x:CreatorTool>";
    const auto start = std::chrono::steady_clock::now();
    std::string out;
    EXPECT_FALSE(MetaText::elementText(text, "<x:CreatorTool>", "</x:CreatorTool>", true, out));
    text += "</x:CreatorTool>";
    EXPECT_TRUE(MetaText::elementText(text, "<x:CreatorTool>", "</x:CreatorTool>", true, out));
    EXPECT_EQ(out.size(), text.size() - 15 - 16);
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 5.0);
}

} // namespace
