#include "FileLayout.h"

#include "CommonFunctions.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QVariant>

const char* MAC_APP_PATH = "/Contents/MacOS/ravel";
const char* RAVEL_EXE_FILE_NAME = "ravel.app";
const char* USER_INFO_DAT = "UserInfo.dat";
const char* TIDEWATER_DAT = "Tidewater.dat";
const char* BRIGHTWELL_INFO = "/UpdateInfo";
const char* BRIGHTWELL_DATA = "/Brightwell Data";
const char* TIDEWATER_EXE = "Tidewater.app/Contents/MacOS/Tidewater";
const char* UPDATE_INFO_DAT = "UpdateInfo.dat";
const char* DUPLICATE_FOLDER = "Brightwell/";
const char* LOG_FOLDER = "log/";
const char* LOG_FILE_NAME = "ravel.log";

QString g_qstrOrgPath;
QString g_qstrOrgDat;
QString g_qstrUserInfoIniPath;
QString g_qstrTidewaterIniPath;
QString g_qstrUpdateInfoDatPath;
QString g_qstrTidewaterExePath;

namespace {
const char kDataRoot[] = "/usr/local/zq_kt_userdata/";
const char kDataFolderSection[] = "DupInfo";
const char kDataFolderKey[] = "DuplicatePath";

QString WithTrailingSlash(QString path) {
    if (!path.endsWith(QLatin1Char('/')))
        path += QLatin1Char('/');
    return path;
}
} // namespace

QString StoredDataFolder(const QString& installed) {
    return CCommonFunctions::GetConfigure(QLatin1String(kDataFolderSection),
                                          QLatin1String(kDataFolderKey), QVariant(QString()),
                                          installed + QLatin1String(TIDEWATER_DAT))
        .toString();
}

QString DefaultDataFolder(QString displayName) {
    return QLatin1String(kDataRoot) + displayName.replace(QLatin1Char(' '), QLatin1Char('_')) +
           QLatin1Char('/');
}

QString WithSeparator(QString path) {
    if (!path.endsWith(QLatin1Char('/')) && !path.endsWith(QLatin1Char('\\')))
        path += QLatin1Char('/');
    return path;
}

QString DataFolderFrom(const QString& text) {
    return WithSeparator(text);
}

AgentPlaces LocateAgentPlaces(const QString& installed) {
    AgentPlaces places;
    places.installed = WithSeparator(installed);
    places.settings = places.installed + QLatin1String(TIDEWATER_DAT);
    places.components = places.installed + QLatin1String(UPDATE_INFO_DAT);
    QString folder = StoredDataFolder(places.installed);
    places.stored = !folder.isEmpty();
    if (!places.stored) {
        places.displayName = CCommonFunctions::GetMainComDisplayName(places.components);
        folder = DefaultDataFolder(places.displayName);
    }
    places.dataFolder = DataFolderFrom(folder);
    places.duplicate = places.dataFolder + QLatin1String(DUPLICATE_FOLDER);
    places.userInfo = places.duplicate + QLatin1String(USER_INFO_DAT);
    places.logFolder = places.dataFolder + QLatin1String(LOG_FOLDER);
    places.log = places.logFolder + QLatin1String(LOG_FILE_NAME);
    return places;
}

bool IsDuplicateFolder(const QString& folder) {
    const QFileInfo info(folder);
    const QString canonical = info.canonicalFilePath();
    if (canonical.isEmpty())
        return false;
    const QString stored = StoredDataFolder(WithSeparator(folder));
    if (!stored.isEmpty() &&
        QFileInfo(DataFolderFrom(stored) + QLatin1String(DUPLICATE_FOLDER)).canonicalFilePath() ==
            canonical)
        return true;
    const QDir dir(canonical);
    return WithSeparator(dir.dirName()) == QLatin1String(DUPLICATE_FOLDER) &&
           dir.exists(QLatin1String(RAVEL_EXE_FILE_NAME)) &&
           QFileInfo(dir.filePath(QLatin1String("../") + QLatin1String(LOG_FOLDER))).isDir();
}

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
    QString folder = StoredDataFolder(g_qstrOrgPath);
    if (folder.isEmpty()) {
        const QString name = CCommonFunctions::GetMainComDisplayName(g_qstrOrgDat);
        folder = CCommonFunctions::GetCompDataDirectory(name);
        CCommonFunctions::WriteConfigure(QLatin1String(kDataFolderSection),
                                         QLatin1String(kDataFolderKey), QVariant(folder),
                                         g_qstrOrgPath + QLatin1String(TIDEWATER_DAT));
    }
    return DataFolderFrom(folder) + QLatin1String(bLog ? LOG_FOLDER : DUPLICATE_FOLDER);
}
