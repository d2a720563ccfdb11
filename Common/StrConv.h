// Conversions between the three text forms (wide, UTF-8, local 8-bit), splitting and trimming.
#pragma once

#include <QString>
#include <string>
#include <vector>

std::string UnicodeToUtf8(const std::wstring& text);
std::string UnicodeToAnsi(const std::wstring& text);
std::wstring Utf8ToUnicode(const std::string& text);
std::wstring AnsiToUnicode(const std::string& text);
std::string Utf8ToAnsi(const std::string& text);
std::string AnsiToUtf8(const std::string& text);

// Null sets mean the defaults: separators " \t\r\n,;", blanks " \t\r\n".
int SplitStr(std::vector<std::wstring>& tokens, const std::wstring& source,
             const wchar_t* separators = nullptr, const wchar_t* blanks = nullptr);
std::vector<std::wstring> SplitStr(const std::wstring& source, const wchar_t* separators = nullptr,
                                   const wchar_t* blanks = nullptr);

// Null sets mean " \t\r\n"; an empty set trims nothing but trailing NULs.
std::string TrimStr(const std::string& source, const char* left = nullptr,
                    const char* right = nullptr);

void ParseEscapeChar(QString& text);
void ParseEscapeCharW(std::wstring& text);
