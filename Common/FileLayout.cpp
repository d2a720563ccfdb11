#include "FileLayout.h"

#include "CommonFunctions.h"
#include "Profile.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QVariant>

#include <pwd.h>
#include <unistd.h>
#include <vector>

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
const char kHomePrefix[] = "~/";
const char kSocketName[] = "ravel.socket";
const char kLockName[] = "ravel.lock";

QString WithTrailingSlash(QString path) {
    if (!path.endsWith(QLatin1Char('/')))
        path += QLatin1Char('/');
    return path;
}

// An absolute path, or nothing.
QString Absolute(const QString& path) {
    return path.startsWith(QLatin1Char('/')) ? path : QString();
}

// The home of the account's entry in the user database; empty when it has none.
QString DatabaseHome() {
    const long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(hint > 0 ? size_t(hint) : 16384);
    struct passwd entry;
    struct passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found ||
        !found->pw_dir)
        return QString();
    return QFile::decodeName(found->pw_dir);
}

} // namespace

QString StoredDataFolder(const QString& installed) {
    return CCommonFunctions::GetConfigure(QLatin1String(kDataFolderSection),
                                          QLatin1String(kDataFolderKey), QVariant(QString()),
                                          installed + QLatin1String(TIDEWATER_DAT))
        .toString();
}

QString HomeFolder() {
    QString home = Absolute(qEnvironmentVariable("HOME"));
    if (home.isEmpty())
        home = Absolute(DatabaseHome());
    while (home.size() > 1 && home.endsWith(QLatin1Char('/')))
        home.chop(1);
    return home;
}

QString UserDataRoot() {
#if defined(__APPLE__)
    const QString home = HomeFolder();
    return home.isEmpty() ? QString() : home + QStringLiteral("/Library/Application Support/");
#else
    const QString xdg = Absolute(qEnvironmentVariable("XDG_DATA_HOME"));
    if (!xdg.isEmpty())
        return WithTrailingSlash(xdg);
    const QString home = HomeFolder();
    return home.isEmpty() ? QString() : home + QStringLiteral("/.local/share/");
#endif
}

QString DefaultDataFolder(QString displayName) {
    const QString root = kPerUser ? UserDataRoot() : QString::fromLatin1(kDataRoot);
    if (root.isEmpty())
        return QString();
    return root + displayName.replace(QLatin1Char(' '), QLatin1Char('_')) + QLatin1Char('/');
}

QString WithSeparator(QString path) {
    if (!path.endsWith(QLatin1Char('/')) && !path.endsWith(QLatin1Char('\\')))
        path += QLatin1Char('/');
    return path;
}

QString DataFolderFrom(const QString& text) {
    if (!kPerUser || !text.startsWith(QLatin1String(kHomePrefix)))
        return WithSeparator(text);
    const QString home = HomeFolder();
    return home.isEmpty() ? QString() : WithSeparator(home + text.mid(1));
}

QString InstanceSocket(const QString& dataFolder) {
    return dataFolder + QLatin1String(kSocketName);
}

QString InstanceLock(const QString& dataFolder) {
    return dataFolder + QLatin1String(kLockName);
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
    places.dataFolder = folder.isEmpty() ? QString() : DataFolderFrom(folder);
    if (places.dataFolder.isEmpty())
        return places;
    places.duplicate = places.dataFolder + QLatin1String(DUPLICATE_FOLDER);
    places.userInfo = places.duplicate + QLatin1String(USER_INFO_DAT);
    places.logFolder = places.dataFolder + QLatin1String(LOG_FOLDER);
    places.log = places.logFolder + QLatin1String(LOG_FILE_NAME);
    if (kPerUser)
        places.socket = InstanceSocket(places.dataFolder);
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

QString GetDataFolder() {
    // Always the installed copy's settings, so both roles agree on the data folder.
    QString folder = StoredDataFolder(g_qstrOrgPath);
    if (folder.isEmpty()) {
        const QString name = CCommonFunctions::GetMainComDisplayName(g_qstrOrgDat);
        folder = CCommonFunctions::GetCompDataDirectory(name);
        // The installed settings are every account's: the per-user agent derives its folder anew.
        if (!kPerUser)
            CCommonFunctions::WriteConfigure(QLatin1String(kDataFolderSection),
                                             QLatin1String(kDataFolderKey), QVariant(folder),
                                             g_qstrOrgPath + QLatin1String(TIDEWATER_DAT));
    }
    return folder.isEmpty() ? QString() : DataFolderFrom(folder);
}

QString GetDuplicatePath(bool bLog) {
    const QString folder = GetDataFolder();
    if (folder.isEmpty())
        return QString();
    return folder + QLatin1String(bLog ? LOG_FOLDER : DUPLICATE_FOLDER);
}
