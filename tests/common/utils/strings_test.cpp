// Tests of the string helpers: case mapping, trimming, prefix/suffix tests, the splitter, UTF placeholders.
#include "common/utils/strings.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace std::string_view_literals;
namespace strings = common::strings;

std::vector<std::string> tokens(std::string_view text, const char* separators) {
    std::vector<std::string> out;
    for (std::string_view token : strings::split(text, separators))
        out.emplace_back(token);
    return out;
}

// --- case mapping ---

TEST(Strings, LowerMapsUpperCaseLetters) {
    EXPECT_EQ(strings::lower('A'), 'a');
    EXPECT_EQ(strings::lower('F'), 'f');
    EXPECT_EQ(strings::lower('X'), 'x');
    EXPECT_EQ(strings::lower('x'), 'x');
    EXPECT_EQ(strings::lower('.'), '.');
    EXPECT_EQ(strings::lower('7'), '7');
}

TEST(Strings, LowerTakesHighBytesAsUnsigned) {
    // A byte above 127 must not be passed to the C library as a negative value.
    const char high = static_cast<char>(0xC4);
    EXPECT_EQ(strings::lower(high), high);
}

TEST(Strings, IsUpperTestsUpperCaseLetters) {
    EXPECT_TRUE(strings::isUpper('X'));
    EXPECT_TRUE(strings::isUpper('D'));
    EXPECT_FALSE(strings::isUpper('x'));
    EXPECT_FALSE(strings::isUpper('1'));
    EXPECT_FALSE(strings::isUpper(':'));
}

// --- trimming ---

TEST(Strings, TrimKeepsTabsBetweenBlanks) {
    const std::string_view text = "  \t x \t  ";
    EXPECT_EQ(strings::trim(text), "\t x \t"sv);
    EXPECT_EQ(strings::trimStart(text), "\t x \t  "sv);
    EXPECT_EQ(strings::trimEnd(text), "  \t x \t"sv);
}

TEST(Strings, TrimOfBlanksTabsBlanksKeepsTheTabs) { EXPECT_EQ(strings::trim("  \t\t  "sv), "\t\t"sv); }

TEST(Strings, TrimOfOnlyBlanksIsEmpty) {
    EXPECT_TRUE(strings::trim("    "sv).empty());
    EXPECT_TRUE(strings::trimStart("    "sv).empty());
    EXPECT_TRUE(strings::trimEnd("    "sv).empty());
    EXPECT_TRUE(strings::trim(""sv).empty());
}

TEST(Strings, TrimKeepsLineEnds) { EXPECT_EQ(strings::trim(" \nab\r "sv), "\nab\r"sv); }

TEST(Strings, TrimResultViewsTheCallersText) {
    const std::string text = "  abc  ";
    const std::string_view trimmed = strings::trim(text);
    EXPECT_EQ(trimmed.data(), text.data() + 2);
    EXPECT_EQ(trimmed.size(), 3u);
}

TEST(Strings, TrimWorksOnSixteenBitText) {
    EXPECT_EQ(strings::trim(u"  \tab  "sv), u"\tab"sv);
    EXPECT_EQ(strings::trimStart(u"  ab "sv), u"ab "sv);
    EXPECT_EQ(strings::trimEnd(u"  ab "sv), u"  ab"sv);
    EXPECT_TRUE(strings::trim(u"   "sv).empty());
}

// --- prefix and suffix ---

TEST(Strings, StartWith) {
    EXPECT_TRUE(strings::startWith("abcdef"sv, "abc"sv));
    EXPECT_FALSE(strings::startWith("xabc"sv, "abc"sv));
    EXPECT_FALSE(strings::startWith("ab"sv, "abc"sv));
    EXPECT_TRUE(strings::startWith(u"abcdef"sv, u"ab"sv));
    EXPECT_FALSE(strings::startWith(u"abcdef"sv, u"b"sv));
}

TEST(Strings, EmptyPatternAlwaysMatches) {
    EXPECT_TRUE(strings::startWith("abc"sv, ""sv));
    EXPECT_TRUE(strings::endWith("abc"sv, ""sv));
    EXPECT_TRUE(strings::startWith(""sv, ""sv));
    EXPECT_TRUE(strings::endWith(""sv, ""sv));
    EXPECT_TRUE(strings::startWith(u"abc"sv, u""sv));
    EXPECT_TRUE(strings::endWith(u"abc"sv, u""sv));
}

TEST(Strings, EndWithUsesTheLastOccurrence) {
    EXPECT_TRUE(strings::endWith("abcabc"sv, "abc"sv));
    EXPECT_TRUE(strings::endWith(u"abcabc"sv, u"abc"sv));
}

TEST(Strings, EndWith) {
    EXPECT_TRUE(strings::endWith("file.cpp"sv, ".cpp"sv));
    EXPECT_FALSE(strings::endWith("abcab"sv, "abc"sv));
    EXPECT_FALSE(strings::endWith("xyz"sv, "abc"sv));
    EXPECT_FALSE(strings::endWith("bc"sv, "abc"sv));
}

// --- splitting ---

TEST(Strings, SplitOfEmptyTextYieldsNothing) {
    const auto sequence = strings::split(""sv, ":");
    EXPECT_TRUE(sequence.begin() == sequence.end());
    EXPECT_TRUE(tokens("", ":").empty());
}

TEST(Strings, SplitOfSeparatorsOnlyYieldsNothing) {
    EXPECT_TRUE(tokens(":", ":").empty());
    EXPECT_TRUE(tokens(":::", ":").empty());
    EXPECT_TRUE(tokens(",;,;", ",;").empty());
}

TEST(Strings, SplitWithoutSeparatorYieldsTheTextOnce) {
    EXPECT_EQ(tokens("x", ":"), std::vector<std::string>{"x"});
    EXPECT_EQ(tokens("hello world", ":"), std::vector<std::string>{"hello world"});
}

TEST(Strings, SplitSkipsEmptyTokens) {
    EXPECT_EQ(tokens("a::b", ":"), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(tokens("::a:b::", ":"), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(tokens("x:f.2", ":"), (std::vector<std::string>{"x", "f.2"}));
}

TEST(Strings, SplitAtAnyOfSeveralSeparators) {
    EXPECT_EQ(tokens("a,b;c,;d", ",;"), (std::vector<std::string>{"a", "b", "c", "d"}));
}

TEST(Strings, SplitTokensViewTheCallersText) {
    const std::string text = "ab:cd";
    auto sequence = strings::split(text, ":");
    auto it = sequence.begin();
    EXPECT_EQ((*it).data(), text.data());
    ++it;
    EXPECT_EQ((*it).data(), text.data() + 3);
    ++it;
    EXPECT_TRUE(it == sequence.end());
}

TEST(Strings, SplitIteratorsCompareByTokenStart) {
    const std::string text = "a:b";
    auto sequence = strings::split(text, ":");
    auto first = sequence.begin();
    auto again = sequence.begin();
    EXPECT_TRUE(first == again);
    auto second = sequence.begin();
    ++second;
    EXPECT_TRUE(first != second);
    EXPECT_TRUE(first != sequence.end());
    ++second;
    EXPECT_TRUE(second == sequence.end());
}

TEST(Strings, SplitNextStepsThroughTokens) {
    using common::strings_internal::splitNext;
    const std::string_view text = ":ab::c";
    const std::string_view first = splitNext<char>(text, {}, ":");
    EXPECT_EQ(first, "ab"sv);
    const std::string_view second = splitNext<char>(text, first, ":");
    EXPECT_EQ(second, "c"sv);
    EXPECT_TRUE(splitNext<char>(text, second, ":").empty());
    EXPECT_TRUE(splitNext<char>(""sv, {}, ":").empty());
}

TEST(Strings, SplitNextWorksOnSixteenBitText) {
    using common::strings_internal::splitNext;
    const std::u16string_view text = u"a;;bc;";
    const std::u16string_view first = splitNext<char16_t>(text, {}, u";");
    EXPECT_EQ(first, u"a"sv);
    const std::u16string_view second = splitNext<char16_t>(text, first, u";");
    EXPECT_EQ(second, u"bc"sv);
    EXPECT_TRUE(splitNext<char16_t>(text, second, u";").empty());
}

// --- literal chooser ---

TEST(Strings, ChooseTakesTheNarrowLiteralForChar) {
    using common::strings_internal::choose;
    EXPECT_EQ(choose<char>(u':', ':'), ':');
    EXPECT_EQ(std::string_view(choose<char>(u"ab", "ab")), "ab"sv);
    EXPECT_EQ(choose<char16_t>(u':', ':'), u':');
    EXPECT_EQ(std::u16string_view(choose<char16_t>(u"ab", "ab")), u"ab"sv);
}

// --- UTF conversions ---

TEST(Strings, Utf16ToUtf8AlwaysReturnsTheMarker) {
    EXPECT_EQ(strings::utf16ToUtf8(u""), "UTF16->UTF8:NOT-CONVERTED");
    EXPECT_EQ(strings::utf16ToUtf8(u"hello"), "UTF16->UTF8:NOT-CONVERTED");
    EXPECT_EQ(strings::utf16ToUtf8(u"\u00e9\u4e2d"), "UTF16->UTF8:NOT-CONVERTED");
}

TEST(Strings, Utf8ToUtf16AlwaysReturnsTheMarker) {
    EXPECT_EQ(strings::utf8ToUtf16(""), u"UTF8->UTF16:NOT-CONVERTED");
    EXPECT_EQ(strings::utf8ToUtf16("hello"), u"UTF8->UTF16:NOT-CONVERTED");
}

}  // namespace
