// Component data helpers: the main component's display name, the data folder, folder creation,
// copying with a rollback copy, and the permissions of what the agent makes: opened to everyone
// (shared) or kept to the owner (per-user).
#include "CommonFunctions.h"

#include "Descriptor.h"
#include "FileLayout.h"
#include "LogTexts.h"
#include "MarkupSTL.h"
#include "Profile.h"
#include "StrConv.h"
#include "md5.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QList>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>
#if defined(__linux__)
#include <sys/sendfile.h>
#endif

namespace {

const char kBackupSuffix[] = ".old";

// Problems go to the debug channel only, stamped with the build time, the source and the caller.
void Report(const char* function, const char* text) {
    std::fprintf(stderr, "%s: %s: %s: %s\n", __TIME__, logtext::kStoreSource, function, text);
}

QString Utf8Text(const std::string& text) {
    return QString::fromStdString(text);
}

// The text of the current element's first child with this name, empty when there is none.
QString FirstChildText(CMarkupSTL& document, const char* name) {
    document.ResetChildPos();
    if (!document.FindChildElem(name))
        return QString();
    return Utf8Text(document.GetChildData());
}

// Moves into the first component after the current one whose "main" is 1.
bool IntoMainComponent(CMarkupSTL& document) {
    while (document.FindChildElem("component")) {
        document.IntoElem();
        if (document.FindChildElem("main") && Utf8Text(document.GetChildData()).toInt() == 1)
            return true;
        document.OutOfElem();
    }
    return false;
}

const size_t kCompareChunk = 64 * 1024;
const mode_t kEveryone = 0777;
const mode_t kOwnerOnly = 0700, kOwnerFile = 0600, kAnyExecute = 0111;

// The per-user mode of a file or folder: folders and executables 0700, other files 0600.
mode_t OwnerMode(mode_t mode) {
    return S_ISDIR(mode) || (mode & kAnyExecute) ? kOwnerOnly : kOwnerFile;
}

// The mode a copy is made with: the source's permission bits (shared) or the owner's (per-user).
mode_t CopyMode(mode_t source) {
    return kPerUser ? OwnerMode(source) : source & kEveryone;
}

// Paths as the digest has always taken them: 8-bit text, ending at the first NUL.
std::string NativePath(const QString& path) {
    return UnicodeToAnsi(path.toStdWString());
}

int OpenForReading(const QString& path) {
    return ::open(NativePath(path).c_str(), O_RDONLY | O_CLOEXEC);
}

// The MD5 digest of what is left to read; an error ends the input, as with the file digest.
std::string DigestRest(int fd, std::vector<unsigned char>& buffer) {
    md5_context context;
    md5_starts(&context);
    size_t got = 0;
    while ((got = ReadFully(fd, buffer.data(), buffer.size())) > 0)
        md5_update(&context, buffer.data(), static_cast<unsigned int>(got));
    unsigned char digest[16];
    md5_finish(&context, digest);
    return std::string(reinterpret_cast<const char*>(digest), sizeof digest);
}

// True when both plain files hold the same bytes; reads them side by side from the start.
bool SameBytes(int a, int b, std::vector<unsigned char>& buffer) {
    unsigned char* left = buffer.data();
    unsigned char* right = buffer.data() + kCompareChunk;
    for (;;) {
        const size_t got = ReadFully(a, left, kCompareChunk);
        if (ReadFully(b, right, kCompareChunk) != got || std::memcmp(left, right, got) != 0)
            return false;
        if (got < kCompareChunk)
            return true;
    }
}

// The rule is that of Md5File on both paths: equal digests, an unopenable file having the empty
// one. The answer is reached with less work where it cannot differ: equal bytes have equal
// digests, plain files of different sizes have different ones, and one unopenable file against
// an open one differs. Only files whose bytes differ at equal size are hashed.
bool SameDigest(const QString& src, const QString& dst) {
    const Descriptor a(OpenForReading(src));
    const Descriptor b(OpenForReading(dst));
    if (a.get() < 0 || b.get() < 0)
        return a.get() < 0 && b.get() < 0;
    std::vector<unsigned char> buffer(2 * kCompareChunk);
    struct stat infoA, infoB;
    const bool plain = fstat(a.get(), &infoA) == 0 && fstat(b.get(), &infoB) == 0 &&
                       S_ISREG(infoA.st_mode) && S_ISREG(infoB.st_mode);
    if (plain) {
        if (infoA.st_size != infoB.st_size)
            return false;
        if (SameBytes(a.get(), b.get(), buffer))
            return true;
        if (lseek(a.get(), 0, SEEK_SET) != 0 || lseek(b.get(), 0, SEEK_SET) != 0)
            return Md5File(NativePath(src)) == Md5File(NativePath(dst));
    }
    return DigestRest(a.get(), buffer) == DigestRest(b.get(), buffer);
}

#if defined(__linux__)
// QFile::copy without its sync to disk: the content goes into an unnamed file in the target's
// folder, which gets the source's permission bits and is linked in under the target's name only
// when complete, so a target never shows half a copy. False when anything is out of the
// ordinary (the target exists, no unnamed files there, a source that cannot be sent): nothing
// is left behind then, and the caller lets QFile::copy decide.
bool CopyWithoutSync(const QString& src, const QString& dst) {
    const QByteArray target = QFile::encodeName(dst);
    const QByteArray folder = QFile::encodeName(QFileInfo(dst).path());
    const Descriptor in(::open(QFile::encodeName(src).constData(), O_RDONLY | O_CLOEXEC));
    struct stat info;
    if (in.get() < 0 || fstat(in.get(), &info) != 0 || !S_ISREG(info.st_mode))
        return false;
    const Descriptor out(::open(folder.constData(), O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600));
    if (out.get() < 0)
        return false;
    off_t sent = 0;
    while (sent < info.st_size) {
        const ssize_t n = ::sendfile(out.get(), in.get(), nullptr, size_t(info.st_size - sent));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        sent += n;
    }
    if (fchmod(out.get(), CopyMode(info.st_mode)) != 0)
        return false;
    const std::string self = "/proc/self/fd/" + std::to_string(out.get());
    return ::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, target.constData(), AT_SYMLINK_FOLLOW) == 0;
}
#endif

bool CopyFileContents(const QString& src, const QString& dst) {
#if defined(__linux__)
    if (!QFile::exists(dst) && CopyWithoutSync(src, dst))
        return true;
#endif
    return QFile::copy(src, dst);
}

QString WithSlash(const QString& path) {
    if (path.endsWith(QLatin1Char('/')) || path.endsWith(QLatin1Char('\\')))
        return path;
    return path + QLatin1Char('/');
}

bool ExistsOrDangles(const QString& path) {
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

// What a listing with QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot keeps: files,
// folders and links, but no special file (FIFO, socket, device) and no dangling link.
bool Listed(const QFileInfo& entry) {
    if (entry.isSymLink())
        return entry.exists();
    return entry.isFile() || entry.isDir();
}

DIR* OpenFolder(const QByteArray& path) {
    DIR* dir = nullptr;
    do
        dir = ::opendir(path.constData());
    while (!dir && errno == EINTR);
    return dir;
}

// The entries of `folder` (ending with "/") in file-system order, as that listing gives them.
// False when the folder cannot be read to its end: a list cut short would copy part of a tree as
// if it were all of it.
bool ListFolder(const QString& folder, QFileInfoList& entries) {
    DIR* dir = OpenFolder(QFile::encodeName(folder));
    if (!dir)
        return false;
    errno = 0;
    while (const dirent* entry = ::readdir(dir)) {
        const QString name = QFile::decodeName(entry->d_name);
        const QFileInfo info(folder + name);
        if (name != QLatin1String(".") && name != QLatin1String("..") && Listed(info))
            entries.append(info);
        errno = 0;
    }
    const bool whole = errno == 0;
    ::closedir(dir);
    return whole;
}

QFileDevice::Permissions EveryoneFlags() {
    return QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner |
           QFileDevice::ReadUser | QFileDevice::WriteUser | QFileDevice::ExeUser |
           QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ExeGroup |
           QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther;
}

} // namespace

QString CCommonFunctions::GetMainComDisplayName(const QString& file) {
    std::string text;
    ReadXMLFile(file.toStdWString(), text, false);
    CMarkupSTL document;
    document.SetDoc(text.c_str());
    if (!document.FindElem("root")) {
        Report("GetMainComDisplayName", logtext::kDisplayNameFailed);
        return QString();
    }
    if (!document.FindChildElem("components"))
        return QString();
    document.IntoElem();
    if (!IntoMainComponent(document))
        return QString();
    const QString displayName = FirstChildText(document, "displayname");
    if (!displayName.isEmpty())
        return displayName;
    return FirstChildText(document, "name");
}

QString CCommonFunctions::GetCompDataDirectory(QString name) {
    const QString path = DefaultDataFolder(name);
    MXPSCreatePath(path.toStdWString());
    return path;
}

// Levels are made from the second "/" on. The shared agent opens each level on the way to
// everyone; the per-user one sets the mode of the levels it makes only. What follows the last "/"
// is never made: a folder path has to end with "/".
int CCommonFunctions::MXPSCreatePath(const std::wstring& path) {
    if (path.empty()) {
        Report("MXPSCreatePath", logtext::kPathEmpty);
        return -1;
    }
    const QString folder = QString::fromStdWString(path).replace(QLatin1Char('\\'), '/');
    if (QFileInfo::exists(folder))
        return 0;
    int slash = folder.indexOf(QLatin1Char('/'), folder.indexOf(QLatin1Char('/')) + 1);
    if (slash < 0) {
        Report("MXPSCreatePath", logtext::kPathFormatWrong);
        return -1;
    }
    for (; slash >= 0; slash = folder.indexOf(QLatin1Char('/'), slash + 1)) {
        const QString prefix = folder.left(slash);
        const bool existed = QFileInfo::exists(prefix);
        if (!existed && !MakeFolders(prefix)) {
            Report("MXPSCreatePath", logtext::kMakeDirectoryFailed);
            return -1;
        }
        if (!existed || !kPerUser)
            setFilePermissions(prefix);
    }
    return 0;
}

// Identical files are left alone. A destination that cannot be deleted is moved aside to ".old"
// and put back if the copy fails; after a good copy the ".old" stays.
bool CCommonFunctions::MXPSCopyFile(QString src, QString dst) {
    if (src.isEmpty() || dst.isEmpty())
        return false;
    setFilePermissions(dst);
    const QFileInfo source(src);
    if (source.isDir())
        return MXPCopyDir(src, dst);
    if (source.isSymLink())
        return QFile::link(source.symLinkTarget(), dst);
    const QString backup = dst + QLatin1String(kBackupSuffix);
    if (QFileInfo::exists(dst)) {
        if (SameDigest(src, dst))
            return true;
        if (!QFile::remove(dst)) {
            QFile::remove(backup);
            QFile::rename(dst, backup);
        }
    }
    const bool copied = CopyFileContents(src, dst);
    setFilePermissions(dst);
    if (!copied) {
        QFile::rename(backup, dst);
        return false;
    }
    return true;
}

// Links are made last and re-pointed into the destination by the name of their target, so that a
// copied tree refers to its own files rather than to the source's.
bool CCommonFunctions::MXPCopyDir(QString src, QString dst) {
    if (!QFileInfo::exists(dst)) {
        MakeFolders(dst);
        setFilePermissions(dst);
    }
    src = WithSlash(src);
    dst = WithSlash(dst);
    QFileInfoList entries;
    if (!ListFolder(src, entries))
        return false;
    QFileInfoList links;
    for (const QFileInfo& entry : entries) {
        if (entry.isSymLink())
            links.append(entry);
        else if (!MXPSCopyFile(src + entry.fileName(), dst + entry.fileName()))
            return false;
    }
    const QString linkFolder = WithSlash(QFileInfo(dst).absoluteFilePath());
    bool linked = true;
    for (const QFileInfo& link : links) {
        const QString name = dst + link.fileName();
        if (ExistsOrDangles(name))
            QFile::remove(name);
        linked = QFile::link(linkFolder + QFileInfo(link.symLinkTarget()).fileName(), name);
    }
    return linked;
}

// Every file of a refreshed tree passes here: one stat, and a chmod only when the mode is not
// already the one wanted (Qt's own call would drop set-id and sticky bits too).
bool CCommonFunctions::setFilePermissions(QString path) {
    const QByteArray native = QFile::encodeName(path);
    if (path.isEmpty() || native.contains('\0'))
        return !kPerUser && QFile::setPermissions(path, QFile::permissions(path) | EveryoneFlags());
    struct stat info;
    const bool found = ::stat(native.constData(), &info) == 0;
    if (kPerUser && !found)
        return false;
    const mode_t wanted = kPerUser ? OwnerMode(info.st_mode) : kEveryone;
    if (found && (info.st_mode & 07777) == wanted)
        return true;
    return ::chmod(native.constData(), wanted) == 0;
}

bool CCommonFunctions::MakeFolder(const QString& path) {
    if (!kPerUser)
        return QDir().mkdir(path);
    const QByteArray native = QFile::encodeName(path);
    // Made for the owner alone from the start; the chmod undoes a umask that takes owner bits.
    return !path.isEmpty() && ::mkdir(native.constData(), kOwnerOnly) == 0 &&
           ::chmod(native.constData(), kOwnerOnly) == 0;
}

bool CCommonFunctions::MakeFolders(const QString& path) {
    if (!kPerUser)
        return QDir().mkpath(path);
    const QString clean = QDir::cleanPath(path);
    if (clean.isEmpty())
        return false;
    if (QFileInfo(clean).isDir())
        return true;
    const QString parent = QFileInfo(clean).path();
    if (parent != clean && !MakeFolders(parent))
        return false;
    return MakeFolder(clean) || QFileInfo(clean).isDir();
}
