#include "StrConv.h"

#include <gtest/gtest.h>

using Tokens = std::vector<std::wstring>;

TEST(TextConversion, RoundTripLocal8BitNulsAndInvalidInput) {
    // U+00E9, U+4E2D, and two characters outside the BMP (U+1F600, U+10348).
    const std::wstring wide = L"a\u00e9\u4e2d\U0001F600\U00010348";
    const std::string utf8 = "a\xc3\xa9\xe4\xb8\xad\xf0\x9f\x98\x80\xf0\x90\x8d\x88";
    EXPECT_EQ(UnicodeToUtf8(wide), utf8);
    EXPECT_EQ(Utf8ToUnicode(utf8), wide); // one element per code point, no surrogate halves

    // The local 8-bit encoding is UTF-8 here, as on macOS: every form meets the same bytes.
    EXPECT_EQ(UnicodeToAnsi(wide), utf8);
    EXPECT_EQ(AnsiToUnicode(utf8), wide);
    EXPECT_EQ(Utf8ToAnsi(utf8), utf8);
    EXPECT_EQ(AnsiToUtf8(utf8), utf8);

    // Narrow text ends at the first NUL; wide text is read in full, but the result is a C string.
    const std::string narrow("ab\0cd", 5);
    EXPECT_EQ(Utf8ToUnicode(narrow), L"ab");
    EXPECT_EQ(AnsiToUnicode(narrow), L"ab");
    EXPECT_EQ(Utf8ToAnsi(narrow) + "|" + AnsiToUtf8(narrow), "ab|ab");
    EXPECT_EQ(UnicodeToUtf8(std::wstring(L"xy\0z", 4)), "xy");
    EXPECT_EQ(UnicodeToAnsi(std::wstring(L"xy\0z", 4)), "xy");

    // Invalid UTF-8 becomes U+FFFD, one per bad byte, and the text goes on.
    EXPECT_EQ(Utf8ToUnicode("\xff\xfe\x61\xc3"), L"\uFFFD\uFFFDa\uFFFD");
    // Invalid code points come out as whatever Qt makes of them; the text around them stays.
    const std::wstring badWide{L'a', wchar_t(0xD800), wchar_t(0x110000), wchar_t(-1), L'b'};
    for (const std::string& text : {UnicodeToUtf8(badWide), UnicodeToAnsi(badWide)})
        EXPECT_EQ(text.substr(0, 1) + text.back(), "ab") << text;
}

TEST(SplitAndTrim, TokenRulesFillingFormSetsAndTrailingNuls) {
    EXPECT_EQ(SplitStr(L""), Tokens{});
    EXPECT_EQ(SplitStr(L" \t\r\n "), Tokens{});
    EXPECT_EQ(SplitStr(L"a"), Tokens{L"a"});
    EXPECT_EQ(SplitStr(L"a,,b"), (Tokens{L"a", L"", L"b"}));
    EXPECT_EQ(SplitStr(L"a,"), (Tokens{L"a", L""}));
    EXPECT_EQ(SplitStr(L"  a  "), Tokens{L"a"});
    EXPECT_EQ(SplitStr(L"a b"), (Tokens{L"a", L"b"}));
    EXPECT_EQ(SplitStr(L"a , b"), (Tokens{L"a", L"b"}));
    EXPECT_EQ(SplitStr(L"x;\ty\r\nz,"), (Tokens{L"x", L"y", L"z", L""}));
    EXPECT_EQ(SplitStr(L";a"), (Tokens{L"", L"a"}));
    EXPECT_EQ(SplitStr(L"\U0001F600,\u00e9"), (Tokens{L"\U0001F600", L"\u00e9"}));
    // Blanks only cut at token ends; an empty blank set keeps them.
    EXPECT_EQ(SplitStr(L" a b |c", L"|", L""), (Tokens{L" a b ", L"c"}));
    Tokens tokens{L"old", L"older"};
    EXPECT_EQ(SplitStr(tokens, L"a|b c||", L"|", nullptr), 4);
    EXPECT_EQ(tokens, (Tokens{L"a", L"b c", L"", L""}));
    EXPECT_EQ(SplitStr(tokens, L"   "), 0);
    EXPECT_TRUE(tokens.empty());

    EXPECT_EQ(TrimStr("  x \r\n"), "x");
    EXPECT_EQ(TrimStr("\t\t"), "");
    EXPECT_EQ(TrimStr(std::string("x\0\0", 3)), "x");
    EXPECT_EQ(TrimStr(std::string(" x \0", 4), "", ""), " x ");
    EXPECT_EQ(TrimStr(std::string(3, '\0'), "", ""), "");
    EXPECT_EQ(TrimStr(std::string("\0a\0b\0", 5), "", ""), std::string("\0a\0b", 4));
    EXPECT_EQ(TrimStr("xxabyy", "x", "y"), "ab");
    EXPECT_EQ(TrimStr("  ab  ", nullptr, ""), "ab  ");
    EXPECT_EQ(TrimStr("  ab  ", "", nullptr), "  ab");
    EXPECT_EQ(TrimStr("ab", "a", "b"), ""); // the two ends cross
}

TEST(EscapeChars, ShellSpecialsGetOneBackslash) {
    auto escaped = [](QString text) { return ParseEscapeChar(text), text; };
    EXPECT_EQ(escaped("a b(1)"), "a b\\(1\\)");
    EXPECT_EQ(escaped("50%&x"), "50\\%\\&x");
    EXPECT_EQ(escaped("!@~`#$%^&()+=,'[];"), R"(\!\@\~\`\#\$\%\^\&\(\)\+\=\,\'\[\]\;)");
    EXPECT_EQ(escaped(" \"*?|<>{}\\/.-_"), " \"*?|<>{}\\/.-_");
    std::wstring wide(L"\U0001F600 $x\0(", 6); // full length, NUL included
    ParseEscapeCharW(wide);
    EXPECT_EQ(wide, std::wstring(L"\U0001F600 \\$x\0\\(", 8));
}
