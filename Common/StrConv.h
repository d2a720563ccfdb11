// Conversions between the three text forms (wide, UTF-8, local 8-bit), splitting and trimming.
#pragma once

#include <QString>
#include <string>
#include <vector>

// Conversions through QString. Wide sources are read in full; narrow sources and every narrow
// result end at the first NUL. Invalid input is replaced by the codec's replacement character;
// nothing fails. The local 8-bit encoding is UTF-8 on Linux and macOS.
std::string UnicodeToUtf8(const std::wstring& text);
std::string UnicodeToAnsi(const std::wstring& text);
std::wstring Utf8ToUnicode(const std::string& text);
std::wstring AnsiToUnicode(const std::string& text);
std::string Utf8ToAnsi(const std::string& text);
std::string AnsiToUtf8(const std::string& text);

// Null sets mean the defaults: separators " \t\r\n,;", blanks " \t\r\n".
// Replaces `tokens` with the pieces of `source` between separators, blanks cut from both ends,
// and returns their number. Blanks around a separator belong to it; two other separators in a
// row give an empty token ("a,,b" is three), and so does one at the end ("a," is two). Empty or
// all-blank text gives none.
int SplitStr(std::vector<std::wstring>& tokens, const std::wstring& source,
             const wchar_t* separators = nullptr, const wchar_t* blanks = nullptr);
// The tokens of the form above as a new vector.
std::vector<std::wstring> SplitStr(const std::wstring& source, const wchar_t* separators = nullptr,
                                   const wchar_t* blanks = nullptr);

// Null sets mean " \t\r\n"; an empty set trims nothing but trailing NULs.
// `source` without its trailing NULs (always), the `left` characters at its start and the
// `right` characters at its end; empty when nothing is left.
std::string TrimStr(const std::string& source, const char* left = nullptr,
                    const char* right = nullptr);

// Puts a backslash before each of !@~`#$%^&()+=,'[]; in `text`, for a shell command line.
void ParseEscapeChar(QString& text);
// ParseEscapeChar on a wide string, read in full.
void ParseEscapeCharW(std::wstring& text);
