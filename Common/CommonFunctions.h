// The configuration store: settings files, sealed files, digests and component data helpers.
#pragma once

#include <QReadWriteLock>
#include <QString>
#include <QVariant>
#include <string>

class CMarkupSTL;

extern const char UTF8_FILE_HEADER[]; // EF BB BF
extern const char UTF8_XML_HEADER[];  // <?xml version="1.0" encoding="utf-8"?>\r\n
extern const char SEAL_PASS_PHRASE[]; // the key of sealed settings files

// Static helpers only. Every settings read or write takes m_ReadWriteLock, so threads of one
// process never see a half-written file; other processes are kept safe by atomic saves.
class CCommonFunctions {
public:
    // Reads the whole file into `out` as UTF-8 without a byte-order mark: UTF-16LE (FF FE) is
    // converted, after EF BB BF the rest up to the first NUL, otherwise the text from the first "<"
    // on, read as local 8-bit. With `unseal`, the text is then unsealed with Decrypt. Returns 0,
    // or -1 (`out` untouched) for an empty path, a missing, empty or non-regular file, an
    // unmarked file without "<", or a read that failed (ReadSettingsFile tells these apart).
    static int ReadXMLFile(const std::wstring& path, std::string& out, bool unseal);
    // Writes EF BB BF (unless the document text starts with it) and the document's text, sealed
    // with Encrypt when `seal`, through a temporary file renamed over `path`: a killed save leaves
    // the old file or the new one, possibly with a temporary file beside it. Then sets the file's
    // mode with setFilePermissions. Returns 0, or -1 when the file cannot be written (no folder is
    // made).
    static int SaveXmlFile(const std::wstring& path, CMarkupSTL& document, bool seal);

    // The text of <root><section><key> in `file` as a string variant; `defaultValue` unchanged
    // when the file, the section or the key is missing, unreadable or empty. The first of two
    // same-named sections counts; section "root" is never found.
    static QVariant GetConfigure(const QString& section, const QString& key,
                                 const QVariant& defaultValue, const QString& file);
    // Stores value.toString() (escaped) under <root><section><key>, adding what is missing and
    // keeping everything else in place; section "root" puts the key directly under root. A file
    // that is missing, unreadable or has no root is written afresh, dropping what it held. Saved
    // as SaveXmlFile does (atomically, with its mode); a failed save is silent, and so is a write
    // dropped because the file could not be read for now (an I/O error, no descriptor or memory
    // left; see ReadSettingsFile): the file is left as it is.
    static void WriteConfigure(const QString& section, const QString& key, const QVariant& value,
                               const QString& file);

    // Component data helpers.
    // The "displayname" (else "name") of the first <root><components><component> whose "main" is
    // 1 in the component list `file`; empty when there is none. A file without root is reported
    // on standard error.
    static QString GetMainComDisplayName(const QString& file);
    // DefaultDataFolder(name) ("/usr/local/zq_kt_userdata/" + `name` with blanks made "_" + "/"
    // in the shared build), created with MXPSCreatePath: shared, every level of the path is then
    // opened to everyone, "/usr" included; per-user, the levels it makes are the owner's alone.
    static QString GetCompDataDirectory(QString name);
    // Makes every level of a folder path from the second "/" on ("\\" counts as "/"); text after
    // the last "/" is not made. Shared, each level, old or new, is opened to everyone; per-user,
    // only the levels it makes get a mode (0700). Returns 0 when the path exists or was made; -1,
    // reported on standard error, for an empty path, a path with fewer than two "/", or a level
    // that cannot be made.
    static int MXPSCreatePath(const std::wstring& path);
    // Copies a file, a folder (MXPCopyDir) or a link (as a link with the same target) to `dst`.
    // A file whose MD5 equals the target's is not copied. A target that cannot be deleted is
    // moved to `dst` + ".old", put back if the copy fails and kept otherwise. A new copy is made
    // with the source's permission bits (shared) or the owner's (per-user), then the target gets
    // its mode from setFilePermissions. False for an empty path or a failed copy.
    static bool MXPSCopyFile(QString src, QString dst);
    // Copies the tree under `src` into `dst` (hidden entries included), making folders as needed
    // (MakeFolders) and setting their modes (setFilePermissions). Links are recreated last,
    // pointing to the entry of the same name in `dst`; an entry (or dangling link) already standing
    // at a link's name is replaced. Special files and dangling links in `src` are left out. False
    // when `src` cannot be listed to its end, at the first entry that cannot be copied, or when
    // the last link cannot be made.
    static bool MXPCopyDir(QString src, QString dst);
    // Sets the mode of `path` itself (not of what a folder holds), following links. Shared: read,
    // write and execute for owner, group and others (0777). Per-user: the owner's alone, 0700 for
    // a folder or a file with any execute bit, 0600 for other files. Either way the sticky,
    // set-user-id and set-group-id bits go. True when the mode is set or already was; false when
    // it cannot be set (per-user also for a missing path); callers may ignore the result.
    static bool setFilePermissions(QString path);
    // Makes the one folder `path` (its parent must exist). Shared: with the process's default
    // mode; per-user: 0700 whatever the umask. False when it exists already or cannot be made.
    static bool MakeFolder(const QString& path);
    // Makes `path` and every missing folder above it, as MakeFolder does each. True when it is a
    // folder afterwards; false for an empty path or a level that cannot be made.
    static bool MakeFolders(const QString& path);

    // Shared by readers, exclusive for a save.
    static QReadWriteLock m_ReadWriteLock;
};

// The agent reaches the store through these.
// Forward to the CCommonFunctions members of the same name.
QVariant GetConfigure(const QString& section, const QString& key, const QVariant& defaultValue,
                      const QString& file);
void WriteConfigure(const QString& section, const QString& key, const QVariant& value,
                    const QString& file);

// Seals `plain` with three-key DES-CBC under `passPhrase` (zero-padded or cut to 24 bytes) and
// a fresh 8-byte IV: the upper-case hex of IV + cipher text, 16 + 16 * ceil(size / 8) digits.
std::string Encrypt(const std::string& plain, const std::string& passPhrase);
// Opens text made by Encrypt; trailing NUL bytes (the padding) are dropped. Non-hex digits count
// as zero; text shorter than 8 bytes (16 digits) gives an empty result.
std::string Decrypt(const std::string& hexText, const std::string& passPhrase);
// Three-key DES-CBC of `data` zero-padded to whole blocks; `key` is padded or cut to 24 bytes,
// `iv` to 8. The result is as long as the padded data.
std::string des3(const std::string& data, const std::string& key, const std::string& iv,
                 bool encrypt);
// `count` bytes from std::rand, clamped to 0..128. Not for secrets.
std::string GetRandomBytes(int count);
// Upper-case hex, two digits a byte.
std::string StrToHex(const std::string& bytes);
// Two digits a byte, either case; an odd last digit is a high half; a non-digit counts as 0.
std::string HexToStr(const std::string& text);
// The 16 raw bytes of the MD5 digest.
std::string Md5Hash(const std::string& bytes);
// The 16 raw bytes of the MD5 digest of the file at the 8-bit `path`; empty when it cannot be
// opened.
std::string Md5File(const std::string& path);
