#include "StrConv.h"

#include <cstring>
#include <cwchar>

namespace {

const wchar_t kDefaultSeparators[] = L" \t\r\n,;";
const wchar_t kDefaultBlanks[] = L" \t\r\n";
const char kDefaultTrimSet[] = " \t\r\n";
const char kEscapedChars[] = "!@~`#$%^&()+=,'[];";

// Wide text is taken at its full length, embedded NULs included.
QString FromWide(const std::wstring& text) {
    return QString::fromWCharArray(text.data(), qsizetype(text.size()));
}

std::wstring ToWide(const QString& text) {
    std::wstring out(size_t(text.size()), L'\0');
    qsizetype n = text.toWCharArray(out.data());
    out.resize(size_t(n));
    return out;
}

// Narrow sources are C strings: whatever follows an embedded NUL is dropped.
QString FromUtf8(const std::string& text) {
    return QString::fromUtf8(text.c_str(), qsizetype(std::strlen(text.c_str())));
}

QString FromLocal8Bit(const std::string& text) {
    return QString::fromLocal8Bit(text.c_str(), qsizetype(std::strlen(text.c_str())));
}

// NUL is never in a set: the sets are zero-terminated.
bool InSet(const wchar_t* set, wchar_t c) {
    return c != L'\0' && std::wcschr(set, c) != nullptr;
}

// Narrow results likewise end at the first NUL of the converted bytes.
std::string ToCString(const QByteArray& bytes) {
    return std::string(bytes.constData());
}

} // namespace

std::string UnicodeToUtf8(const std::wstring& text) {
    return ToCString(FromWide(text).toUtf8());
}

std::string UnicodeToAnsi(const std::wstring& text) {
    return ToCString(FromWide(text).toLocal8Bit());
}

std::wstring Utf8ToUnicode(const std::string& text) {
    return ToWide(FromUtf8(text));
}

std::wstring AnsiToUnicode(const std::string& text) {
    return ToWide(FromLocal8Bit(text));
}

std::string Utf8ToAnsi(const std::string& text) {
    return ToCString(FromUtf8(text).toLocal8Bit());
}

std::string AnsiToUtf8(const std::string& text) {
    return ToCString(FromLocal8Bit(text).toUtf8());
}

int SplitStr(std::vector<std::wstring>& tokens, const std::wstring& source,
             const wchar_t* separators, const wchar_t* blanks) {
    const wchar_t* seps = separators ? separators : kDefaultSeparators;
    const wchar_t* blank = blanks ? blanks : kDefaultBlanks;
    const auto none = std::wstring::npos;
    tokens.clear();

    size_t pos = source.find_first_not_of(blank);
    while (pos != none) {
        size_t sep = source.find_first_of(seps, pos);
        size_t next = sep == none ? none : source.find_first_not_of(blank, sep);
        std::wstring token = source.substr(pos, sep == none ? none : sep - pos);
        token.erase(token.find_last_not_of(blank) + 1); // npos + 1 == 0 clears an all-blank token
        tokens.push_back(token);
        if (next == none)
            break;
        if (InSet(seps, source[next]))
            ++next;
        pos = source.find_first_not_of(blank, next);
        // A separator at the very end leaves one empty token behind it.
        if (pos == none)
            tokens.emplace_back();
    }
    return int(tokens.size());
}

std::vector<std::wstring> SplitStr(const std::wstring& source, const wchar_t* separators,
                                   const wchar_t* blanks) {
    std::vector<std::wstring> tokens;
    SplitStr(tokens, source, separators, blanks);
    return tokens;
}

std::string TrimStr(const std::string& source, const char* left, const char* right) {
    const auto none = std::string::npos;
    size_t first = source.find_first_not_of(left ? left : kDefaultTrimSet);
    if (first == none)
        return std::string();
    // Trailing NULs go whatever the right set holds: that is how zero padding is stripped.
    size_t end = source.find_last_not_of('\0');
    if (end == none)
        return std::string();
    size_t last = source.find_last_not_of(right ? right : kDefaultTrimSet, end);
    if (last == none || first > last)
        return std::string();
    return source.substr(first, last - first + 1);
}

void ParseEscapeChar(QString& text) {
    // Backslash is not in the set, so an escape is never escaped again.
    for (size_t i = std::strlen(kEscapedChars); i-- > 0;) {
        QChar c = QLatin1Char(kEscapedChars[i]);
        text.replace(c, QString(QLatin1Char('\\')) + c, Qt::CaseSensitive);
    }
}

void ParseEscapeCharW(std::wstring& text) {
    QString converted = FromWide(text);
    ParseEscapeChar(converted);
    text = ToWide(converted);
}
