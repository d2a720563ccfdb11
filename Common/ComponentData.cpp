// Component data helpers: the main component's display name, the shared data folder, folder
// creation, copying with a rollback copy, and opening permissions to everyone.
#include "CommonFunctions.h"

#include "MarkupSTL.h"
#include "StrConv.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QList>
#include <cstdio>

namespace {

const char kSourceName[] = "../Common/CommonFunctions";
const char kDataRoot[] = "/usr/local/zq_kt_userdata/";
const char kBackupSuffix[] = ".old";

// Problems go to the debug channel only, stamped with the build time, the source and the caller.
void Report(const char* function, const char* text) {
    std::fprintf(stderr, "%s: %s: %s: %s\n", __TIME__, kSourceName, function, text);
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

std::string Digest(const QString& path) {
    return Md5File(UnicodeToAnsi(path.toStdWString()));
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

} // namespace

QString CCommonFunctions::GetMainComDisplayName(const QString& file) {
    std::string text;
    ReadXMLFile(file.toStdWString(), text, false);
    CMarkupSTL document;
    document.SetDoc(text.c_str());
    if (!document.FindElem("root")) {
        Report("GetMainComDisplayName",
               "Get main component display name Failed: XML file's format  is not correct.");
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
    const QString path = QLatin1String(kDataRoot) + name.replace(QLatin1Char(' '), '_') + '/';
    MXPSCreatePath(path.toStdWString());
    return path;
}

// Levels are made from the second "/" on, and each level on the way is opened to everyone.
// What follows the last "/" is never made: a folder path has to end with "/".
int CCommonFunctions::MXPSCreatePath(const std::wstring& path) {
    if (path.empty()) {
        Report("MXPSCreatePath", "Path is empty.");
        return -1;
    }
    const QString folder = QString::fromStdWString(path).replace(QLatin1Char('\\'), '/');
    if (QFileInfo::exists(folder))
        return 0;
    int slash = folder.indexOf(QLatin1Char('/'), folder.indexOf(QLatin1Char('/')) + 1);
    if (slash < 0) {
        Report("MXPSCreatePath", "Path format is wrong.");
        return -1;
    }
    for (; slash >= 0; slash = folder.indexOf(QLatin1Char('/'), slash + 1)) {
        const QString prefix = folder.left(slash);
        if (!QFileInfo::exists(prefix) && !QDir().mkpath(prefix)) {
            Report("MXPSCreatePath", "Make directory failed.");
            return -1;
        }
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
        if (Digest(src) == Digest(dst))
            return true;
        if (!QFile::remove(dst)) {
            QFile::remove(backup);
            QFile::rename(dst, backup);
        }
    }
    const bool copied = QFile::copy(src, dst);
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
        QDir().mkpath(dst);
        setFilePermissions(dst);
    }
    const QFileInfoList entries = QDir(src).entryInfoList(
        QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Unsorted);
    src = WithSlash(src);
    dst = WithSlash(dst);
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

bool CCommonFunctions::setFilePermissions(QString path) {
    const QFileDevice::Permissions everyone =
        QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner |
        QFileDevice::ReadUser | QFileDevice::WriteUser | QFileDevice::ExeUser |
        QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ExeGroup |
        QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther;
    return QFile::setPermissions(path, QFile::permissions(path) | everyone);
}
