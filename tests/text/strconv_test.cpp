#include "StrConv.h"

#include <gtest/gtest.h>

using Tokens = std::vector<std::wstring>;

namespace {

// U+00E9, U+4E2D, and two characters outside the BMP (U+1F600, U+10348).
const std::wstring kWide = L"a\u00e9\u4e2d\U0001F600\U00010348";
const std::string kUtf8 = "a\xc3\xa9\xe4\xb8\xad\xf0\x9f\x98\x80\xf0\x90\x8d\x88";

} // namespace

TEST(TextConversion, Utf8RoundTripKeepsEveryCodePoint) {
    EXPECT_EQ(UnicodeToUtf8(kWide), kUtf8);
    std::wstring back = Utf8ToUnicode(kUtf8);
    EXPECT_EQ(back, kWide);
    EXPECT_EQ(back.size(), 5u); // one element per code point, no surrogate halves
}

TEST(TextConversion, AnsiFormsUseTheLocal8BitCodec) {
    QString q = QString::fromWCharArray(kWide.c_str());
    std::string local = q.toLocal8Bit().toStdString();
    EXPECT_EQ(UnicodeToAnsi(kWide), local);
    EXPECT_EQ(Utf8ToAnsi(kUtf8), local);
    EXPECT_EQ(AnsiToUtf8(local), QString::fromLocal8Bit(local.c_str()).toUtf8().toStdString());
    EXPECT_EQ(AnsiToUtf8(UnicodeToAnsi(L"path/x y")), "path/x y");
}

TEST(TextConversion, NarrowTextEndsAtTheFirstNul) {
    const std::string narrow("ab\0cd", 5);
    EXPECT_EQ(Utf8ToUnicode(narrow), L"ab");
    EXPECT_EQ(AnsiToUnicode(narrow), L"ab");
    EXPECT_EQ(Utf8ToAnsi(narrow), "ab");
    EXPECT_EQ(AnsiToUtf8(narrow), "ab");
    const std::wstring wide(L"xy\0z", 4); // read in full, but the narrow result is a C string
    EXPECT_EQ(UnicodeToUtf8(wide), "xy");
    EXPECT_EQ(UnicodeToAnsi(wide), "xy");
}

TEST(TextConversion, InvalidInputIsReplacedNotFatal) {
    std::wstring fromBad = Utf8ToUnicode("\xff\xfe"
                                         "a\xc3");
    EXPECT_NE(fromBad.find(L'\uFFFD'), std::wstring::npos);
    EXPECT_NE(fromBad.find(L'a'), std::wstring::npos);
    std::wstring badWide{L'a', wchar_t(0xD800), wchar_t(0x110000), wchar_t(-1), L'b'};
    std::string utf8 = UnicodeToUtf8(badWide);
    EXPECT_EQ(utf8.front(), 'a');
    EXPECT_EQ(utf8.back(), 'b');
    EXPECT_EQ(UnicodeToAnsi(badWide).back(), 'b');
    EXPECT_EQ(Utf8ToUnicode(utf8).back(), L'b');
}

TEST(SplitStr, DefaultSetsFollowTheTokenRules) {
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
}

TEST(SplitStr, FillingFormReplacesAndCounts) {
    Tokens tokens{L"old", L"older"};
    EXPECT_EQ(SplitStr(tokens, L"a|b c||", L"|", nullptr), 4);
    EXPECT_EQ(tokens, (Tokens{L"a", L"b c", L"", L""}));
    EXPECT_EQ(SplitStr(tokens, L"   "), 0);
    EXPECT_TRUE(tokens.empty());
    // Blanks only cut at token ends; an empty blank set keeps them.
    EXPECT_EQ(SplitStr(L" a b |c", L"|", L""), (Tokens{L" a b ", L"c"}));
    EXPECT_EQ(SplitStr(L"\U0001F600,\u00e9"), (Tokens{L"\U0001F600", L"\u00e9"}));
}

TEST(TrimStr, SetsAndTrailingNuls) {
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
    QString text = "a b(1)";
    ParseEscapeChar(text);
    EXPECT_EQ(text, "a b\\(1\\)");
    text = "50%&x";
    ParseEscapeChar(text);
    EXPECT_EQ(text, "50\\%\\&x");

    text = "!@~`#$%^&()+=,'[];";
    ParseEscapeChar(text);
    EXPECT_EQ(text, "\\!\\@\\~\\`\\#\\$\\%\\^\\&\\(\\)\\+\\=\\,\\'\\[\\]\\;");
    const QString untouched = " \"*?|<>{}\\/.-_";
    text = untouched;
    ParseEscapeChar(text);
    EXPECT_EQ(text, untouched);

    std::wstring wide(L"\U0001F600 $x\0(", 6); // full length, NUL included
    ParseEscapeCharW(wide);
    EXPECT_EQ(wide, std::wstring(L"\U0001F600 \\$x\0\\(", 8));
}
