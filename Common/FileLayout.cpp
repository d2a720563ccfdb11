#include "FileLayout.h"

#include "CommonFunctions.h"

#include <QCoreApplication>
#include <QDir>
#include <QVariant>

const char* MAC_APP_PATH = "/Contents/MacOS/ravel";
const char* RAVEL_EXE_FILE_NAME = "ravel.app";
const char* USER_INFO_DAT = "UserInfo.dat";
const char* TIDEWATER_DAT = "Tidewater.dat";
const char* BRIGHTWELL_INFO = "/UpdateInfo";
const char* BRIGHTWELL_DATA = "/Brightwell Data";
const char* TIDEWATER_EXE = "Tidewater.app/Contents/MacOS/Tidewater";
const char* UPDATE_INFO_DAT = "UpdateInfo.dat";

QString g_qstrOrgPath;
QString g_qstrOrgDat;
QString g_qstrUserInfoIniPath;
QString g_qstrTidewaterIniPath;
QString g_qstrUpdateInfoDatPath;
QString g_qstrTidewaterExePath;

namespace {
QString WithTrailingSlash(QString path) {
    if (!path.endsWith(QLatin1Char('/')))
        path += QLatin1Char('/');
    return path;
}
} // namespace

QString GetExeDir() {
    // The executable sits in ravel.app/Contents/MacOS/: three levels below the installed folder.
    QString dir = WithTrailingSlash(QCoreApplication::applicationDirPath());
    for (int level = 0; level < 3; ++level)
        dir = dir.left(dir.lastIndexOf(QLatin1Char('/'), -2) + 1);
    return dir;
}

QString GetUserDirectory() {
    return WithTrailingSlash(QDir::homePath()) + QStringLiteral("Application Data");
}

QString GetDuplicatePath(bool bLog) {
    // Always the installed copy's settings, so both roles agree on the data folder.
    const QString settings = g_qstrOrgPath + QString::fromLatin1(TIDEWATER_DAT);
    const QString section = QStringLiteral("DupInfo");
    const QString key = QStringLiteral("DuplicatePath");
    QString folder =
        CCommonFunctions::GetConfigure(section, key, QVariant(QString()), settings).toString();
    if (folder.isEmpty()) {
        const QString name = CCommonFunctions::GetMainComDisplayName(g_qstrOrgDat);
        folder = CCommonFunctions::GetCompDataDirectory(name);
        CCommonFunctions::WriteConfigure(section, key, QVariant(folder), settings);
    }
    if (!folder.endsWith(QLatin1Char('/')) && !folder.endsWith(QLatin1Char('\\')))
        folder += QLatin1Char('/');
    return folder + (bLog ? QStringLiteral("log/") : QStringLiteral("Brightwell/"));
}
