// Refreshing the duplicate folder from the installed folder.
#include "CommonFunctions.h"
#include "EasyLog.h"
#include "FileLayout.h"
#include "LogTexts.h"
#include "MarkupSTL.h"
#include "StrConv.h"
#include "ravel.h"

#include <QDir>
#include <QFile>
#include <QStringList>

namespace {

// The version mark of a data set: the "value" of its top-level "item". False when unreadable.
bool ReadItemValue(const std::string& xmlPath, std::string& value) {
    CMarkupSTL document;
    if (!document.Load(Utf8ToAnsi(xmlPath).c_str()) || !document.FindElem("item")) {
        return false;
    }
    value = document.GetAttrib("value");
    return true;
}

// The folder a path lies in, with its trailing "/".
QString ParentFolder(const QString& path) {
    return path.left(path.lastIndexOf("/", -2) + 1);
}

// The bundle is refreshed on every start; equal files are skipped by digest.
int CopyBundle(const QString& src, const QString& dst) {
    const QString srcApp = src + RAVEL_EXE_FILE_NAME;
    const QString dstApp = dst + RAVEL_EXE_FILE_NAME;
    if (QFile::exists(dstApp)) {
        CCommonFunctions::setFilePermissions(dstApp);
    }
    if (!QFile::exists(ParentFolder(dstApp))) {
        CCommonFunctions::MXPSCopyFile(srcApp, dstApp);
        return 0;
    }
    if (QFile::exists(dstApp)) {
        QFile::remove(dstApp);
    }
    return CCommonFunctions::MXPSCopyFile(srcApp, dstApp) ? 0 : -1;
}

// The data folders are copied on first deployment, and "Brightwell Data" again whenever the
// installed rule file carries another version mark.
void CopyDataFolders(const QString& src, const QString& dst) {
    const QString dstData = dst + BRIGHTWELL_DATA;
    const bool haveData =
        QFile::exists(dstData + "/Config.xml") || QFile::exists(dstData + "/UpdateRule.dat");
    if (haveData) {
        if (IsCopyFile((src + BRIGHTWELL_DATA + "/Config.xml").toUtf8().toStdString(),
                       (dstData + "/Config.xml").toUtf8().toStdString())) {
            CCommonFunctions::MXPSCopyFile(src + BRIGHTWELL_DATA, dstData);
        }
    } else {
        RAVEL_LOG(logtext::kFirstDataCopy, src.toLocal8Bit().constData());
        CCommonFunctions::MXPSCopyFile(src + BRIGHTWELL_DATA, dstData);
        CCommonFunctions::MXPSCopyFile(src + BRIGHTWELL_INFO, dst + BRIGHTWELL_INFO);
    }
    // Opened to everyone, or the owner's alone in the per-user build.
    CCommonFunctions::setFilePermissions(dstData);
    CCommonFunctions::setFilePermissions(dst + BRIGHTWELL_INFO);
}

} // namespace

int CopyFileToDup(const QString& src, const QString& dst) {
    CCommonFunctions::setFilePermissions(dst);
    const bool newVersion = IsNewVersion(src, dst);
    if (CopyBundle(src, dst) != 0) {
        return -1;
    }
    CopyDependLib();
    RAVEL_LOG(logtext::kDeployFrom, src.toLocal8Bit().constData());
    CopyDataFolders(src, dst);
    // An existing Tidewater.dat in the duplicate is the updater's own and is kept.
    const QString srcDat = src + TIDEWATER_DAT;
    const QString dstDat = dst + TIDEWATER_DAT;
    if ((newVersion || !QFile::exists(dstDat)) && !CCommonFunctions::MXPSCopyFile(srcDat, dstDat)) {
        return -1;
    }
    return 0;
}

bool IsNewVersion(const QString& src, const QString& /*dst*/) {
    // Both digests come from the installed executable, so the answer is always "same".
    const std::string installed =
        (src + "ravel.app/Contents/MacOS/ravel").toLocal8Bit().toStdString();
    const std::string deployed =
        (src + "ravel.app/Contents/MacOS/ravel").toLocal8Bit().toStdString();
    return Md5File(installed) != Md5File(deployed);
}

void CopyDependLib() {
    const QString dup = GetDuplicatePath(false);
    if (!QDir(dup).exists()) {
        CCommonFunctions::MXPSCreatePath(dup.toStdWString());
        setFilePermissions(dup);
    }
    const QStringList entries =
        QDir(g_qstrOrgPath)
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::NoSort);
    for (const QString& name : entries) {
        if (!name.startsWith("lib") || !name.endsWith(".dylib")) {
            continue;
        }
        if (!CCommonFunctions::MXPSCopyFile(g_qstrOrgPath + name, dup + name)) {
            RAVEL_LOG(logtext::kLibraryCopyFailed,
                      (g_qstrOrgPath + name).toLocal8Bit().constData());
        }
    }
}

bool IsCopyFile(const std::string& srcXml, const std::string& dstXml) {
    if (!QFile::exists(QString::fromUtf8(dstXml.c_str()))) {
        return false;
    }
    std::string srcValue;
    std::string dstValue;
    if (!ReadItemValue(srcXml, srcValue) || !ReadItemValue(dstXml, dstValue)) {
        return false;
    }
    return srcValue != dstValue;
}

bool setFilePermissions(const QString& path) {
    return CCommonFunctions::setFilePermissions(path);
}

int CopyOneFile(const QString& src, const QString& dst) {
    return CCommonFunctions::MXPSCopyFile(src, dst);
}

int CreatePath(const QString& path) {
    if (path.isEmpty()) {
        return -1;
    }
    if (QDir(path).exists()) {
        return 0;
    }
    if (!CCommonFunctions::MakeFolders(path)) {
        return -1;
    }
    setFilePermissions(path);
    return 0;
}

bool DeleteSpecialFile(const QString& path) {
    setFilePermissions(path);
    return QFile::remove(path);
}
