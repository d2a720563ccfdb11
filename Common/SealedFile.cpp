// The file layer under every settings file: whole-file reads whatever the encoding mark, saves
// with the UTF-8 mark, optional sealing with triple DES, and the digests used to compare files.
#include "CommonFunctions.h"
#include "FileHandle.h"

#include "Descriptor.h"
#include "MarkupSTL.h"
#include "SettingsRead.h"
#include "StrConv.h"
#include "des.h"
#include "md5.h"

#include <QReadLocker>
#include <QSaveFile>
#include <QWriteLocker>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <vector>

const char UTF8_FILE_HEADER[] = "\xEF\xBB\xBF";
const char UTF8_XML_HEADER[] = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n";
const char SEAL_PASS_PHRASE[] = "Ferrox_Quillmond_51947";

QReadWriteLock CCommonFunctions::m_ReadWriteLock;

namespace {

const size_t kMarkLength = 3;
const size_t kBlock = 8;
const size_t kKeyLength = 24;
const size_t kDigestChunk = 51200;
const int kMaxRandomBytes = 128;
// Reads of a settings file before one that fails for now counts as failed.
const int kReadAttempts = 3;

// True for an error that tells nothing about the file itself: it may well be there and whole,
// and the same call may succeed a moment later.
bool Transient(int error) {
    return error == EIO || error == EMFILE || error == ENFILE || error == ENOMEM || error == EAGAIN;
}

int OpenForReading(const char* path) {
    int fd = -1;
    do
        fd = ::open(path, O_RDONLY | O_CLOEXEC);
    while (fd < 0 && errno == EINTR);
    return fd;
}

// Reads the whole file into `buffer`, which carries one extra zero byte so that the text can be
// read as a C string. Settings files are re-read at every check: one open, one fstat (which tells
// both that this is a plain file, as a folder opens for reading too, and its size), one read, one
// close.
SettingsRead ReadWholeFile(const char* path, std::vector<char>& buffer) {
    const Descriptor file(OpenForReading(path));
    struct stat info;
    if (file.get() < 0 || fstat(file.get(), &info) != 0)
        return Transient(errno) ? SettingsRead::Failed : SettingsRead::Absent;
    if (!S_ISREG(info.st_mode) || info.st_size < 1)
        return SettingsRead::Absent;
    buffer.assign(static_cast<size_t>(info.st_size) + 1, '\0');
    // A file that shrank meanwhile leaves zeros behind, which every decoder below stops at or
    // ignores; an error part-way would leave a cut text that parses as less than the file holds.
    bool failed = false;
    ReadFully(file.get(), buffer.data(), static_cast<size_t>(info.st_size), failed);
    return failed ? SettingsRead::Failed : SettingsRead::Read;
}

bool StartsWith(const std::vector<char>& buffer, const char* mark, size_t length) {
    return buffer.size() > length && std::memcmp(buffer.data(), mark, length) == 0;
}

// Little-endian 16-bit units to code points; surrogate pairs are joined so that text beyond the
// Basic Multilingual Plane survives.
std::wstring WideFromUtf16Le(const unsigned char* bytes, size_t units) {
    std::wstring wide;
    wide.reserve(units);
    for (size_t i = 0; i < units; ++i) {
        char32_t unit = bytes[2 * i] | (bytes[2 * i + 1] << 8);
        if (unit >= 0xD800 && unit < 0xDC00 && i + 1 < units) {
            char32_t low = bytes[2 * i + 2] | (bytes[2 * i + 3] << 8);
            if (low >= 0xDC00 && low < 0xE000) {
                unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            }
        }
        wide.push_back(static_cast<wchar_t>(unit));
    }
    return wide;
}

// Any encoding the product's tools write: UTF-16LE or UTF-8 with a mark, else local 8-bit text
// from its first "<". False when nothing usable is there.
bool DecodeText(const std::vector<char>& buffer, long size, std::string& out) {
    if (StartsWith(buffer, "\xFF\xFE", 2)) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(buffer.data()) + 2;
        out = UnicodeToUtf8(WideFromUtf16Le(bytes, static_cast<size_t>(size - 2) / 2));
        return true;
    }
    if (StartsWith(buffer, UTF8_FILE_HEADER, kMarkLength)) {
        out = std::string(buffer.data() + kMarkLength);
        return true;
    }
    const char* end = buffer.data() + size;
    const char* open = std::find(buffer.data(), end, '<');
    if (open == end)
        return false;
    out = AnsiToUtf8(std::string(open, end));
    return true;
}

std::string Resized(const std::string& bytes, size_t length) {
    std::string copy = bytes;
    copy.resize(length, '\0');
    return copy;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

int CCommonFunctions::ReadXMLFile(const std::wstring& path, std::string& out, bool unseal) {
    return ReadXMLFileAt(QString::fromWCharArray(path.data(), qsizetype(path.size())), out, unseal);
}

int ReadXMLFileAt(const QString& path, std::string& out, bool unseal) {
    return ReadSettingsFile(path, out, unseal) == SettingsRead::Read ? 0 : -1;
}

// The path in 8-bit form ends at its first NUL, as it always has.
SettingsRead ReadSettingsFile(const QString& path, std::string& out, bool unseal) {
    if (path.isEmpty())
        return SettingsRead::Absent;
    QReadLocker locker(&CCommonFunctions::m_ReadWriteLock);
    std::vector<char> buffer;
    // A value read as its default, for an error that would have passed a moment later, is what
    // the agent decides by and may write back: the read is tried again first.
    SettingsRead read = SettingsRead::Failed;
    for (int attempt = 0; attempt < kReadAttempts && read == SettingsRead::Failed; ++attempt)
        read = ReadWholeFile(path.toLocal8Bit().constData(), buffer);
    if (read != SettingsRead::Read)
        return read;
    if (!DecodeText(buffer, static_cast<long>(buffer.size() - 1), out))
        return SettingsRead::Absent;
    if (unseal)
        out = Decrypt(out, SEAL_PASS_PHRASE);
    return SettingsRead::Read;
}

// Written through a temporary file renamed over the target, so that a process killed during the
// save leaves the old file or the new one, never a truncated one.
int CCommonFunctions::SaveXmlFile(const std::wstring& path, CMarkupSTL& document, bool seal) {
    QWriteLocker locker(&m_ReadWriteLock);
    const QString target = QString::fromStdWString(path);
    QSaveFile file(target);
    file.setDirectWriteFallback(true);
    if (path.empty() || !file.open(QIODevice::WriteOnly))
        return -1;
    std::string text = document.GetDoc();
    if (text.compare(0, kMarkLength, UTF8_FILE_HEADER) != 0)
        file.write(UTF8_FILE_HEADER, kMarkLength);
    if (seal)
        text = Encrypt(text, SEAL_PASS_PHRASE);
    file.write(text.data(), static_cast<qint64>(text.size()));
    if (!file.flush()) // a full disk: commit alone would still put the short file in place
        file.cancelWriting();
    if (!file.commit())
        return -1;
    setFilePermissions(target);
    return 0;
}

std::string Encrypt(const std::string& plain, const std::string& passPhrase) {
    const std::string iv = GetRandomBytes(kBlock);
    return StrToHex(iv + des3(plain, passPhrase, iv, true));
}

// Text too short to hold an IV opens to nothing rather than ending the process.
std::string Decrypt(const std::string& hexText, const std::string& passPhrase) {
    const std::string raw = HexToStr(hexText);
    if (raw.size() < kBlock)
        return std::string();
    const std::string plain = des3(raw.substr(kBlock), passPhrase, raw.substr(0, kBlock), false);
    return TrimStr(plain, "", "");
}

std::string des3(const std::string& data, const std::string& key, const std::string& iv,
                 bool encrypt) {
    const std::string fullKey = Resized(key, kKeyLength);
    const std::string fullIv = Resized(iv, kBlock);
    const size_t length = (data.size() + kBlock - 1) / kBlock * kBlock;
    const std::string input = Resized(data, length);
    DES3_CBC_CTX context;
    DES3_CBCInit(&context, reinterpret_cast<const unsigned char*>(fullKey.data()),
                 reinterpret_cast<const unsigned char*>(fullIv.data()), encrypt ? 1 : 0);
    std::string output;
    output.reserve(length);
    for (size_t offset = 0; offset < length; offset += kBlock) {
        unsigned char block[kBlock];
        DES3_CBCUpdate(&context, block,
                       reinterpret_cast<const unsigned char*>(input.data()) + offset, kBlock);
        output.append(reinterpret_cast<const char*>(block), kBlock);
    }
    return output;
}

// Only the IV depends on these bytes: it has to vary, not to be unpredictable.
std::string GetRandomBytes(int count) {
    count = std::max(0, std::min(count, kMaxRandomBytes));
    std::string bytes;
    for (int i = 0; i < count; ++i)
        bytes.push_back(static_cast<char>(std::rand() & 0xFF));
    return bytes;
}

std::string StrToHex(const std::string& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (unsigned char byte : bytes) {
        hex.push_back(digits[byte >> 4]);
        hex.push_back(digits[byte & 0x0F]);
    }
    return hex;
}

// Lenient on purpose: a character that is no hex digit keeps its place and leaves a zero half.
std::string HexToStr(const std::string& text) {
    std::string bytes((text.size() + 1) / 2, '\0');
    for (size_t i = 0; i < text.size(); ++i) {
        const int digit = HexDigit(text[i]);
        if (digit < 0)
            continue;
        bytes[i / 2] = static_cast<char>(bytes[i / 2] | (i % 2 == 0 ? digit << 4 : digit));
    }
    return bytes;
}

std::string Md5Hash(const std::string& bytes) {
    md5_context context;
    md5_starts(&context);
    md5_update(&context, reinterpret_cast<const unsigned char*>(bytes.data()),
               static_cast<unsigned int>(bytes.size()));
    unsigned char digest[16];
    md5_finish(&context, digest);
    return std::string(reinterpret_cast<const char*>(digest), sizeof digest);
}

std::string Md5File(const std::string& path) {
    FileHandle file = OpenFile(path.c_str(), "rb");
    if (!file)
        return std::string();
    md5_context context;
    md5_starts(&context);
    std::vector<unsigned char> chunk(kDigestChunk);
    size_t got = 0;
    while ((got = std::fread(chunk.data(), 1, chunk.size(), file.get())) > 0)
        md5_update(&context, chunk.data(), static_cast<unsigned int>(got));
    unsigned char digest[16];
    md5_finish(&context, digest);
    return std::string(reinterpret_cast<const char*>(digest), sizeof digest);
}
