// Reading what ravel-schedule needs to know about one installed product: the settings' texts,
// the state of the files the agent reads and checks, and the log's last check. Reads only.
#include "Report.h"

#include "CommonFunctions.h"
#include "FileLayout.h"
#include "LogTail.h"
#include "MarkupSTL.h"
#include "Profile.h"

#include <QDir>
#include <QFileInfo>
#include <QVariant>
#include <unistd.h>

namespace {
QString Stored(const char* section, const char* key, const QString& file) {
    return GetConfigure(QLatin1String(section), QLatin1String(key), QVariant(QString()), file)
        .toString();
}

// How the agent's reader finds a settings file.
FileState StateOf(const QString& path) {
    const QFileInfo info(path);
    if (!info.exists())
        return FileState::Missing;
    if (!info.isReadable())
        return FileState::Unreadable;
    std::string text;
    CMarkupSTL document;
    if (CCommonFunctions::ReadXMLFile(path.toStdWString(), text, false) == 0 && !text.empty())
        document.SetDoc(text.c_str());
    return document.FindElem("root") ? FileState::Settings : FileState::NoSettings;
}

bool Writable(const QString& path) {
    return access(QFile::encodeName(path).constData(), W_OK) == 0;
}

// Whether this account could make the folder `path` with every missing level: it exists, or its
// nearest existing ancestor is a folder this account may add to.
bool Makeable(const QString& path) {
    QString level = QDir::cleanPath(path);
    while (!QFileInfo::exists(level) && level != QDir::rootPath() && !level.isEmpty())
        level = QFileInfo(level).path();
    const QFileInfo existing(level);
    if (!existing.isDir())
        return false;
    return QDir::cleanPath(path) == level ||
           access(QFile::encodeName(level).constData(), W_OK | X_OK) == 0;
}

bool IsLibrary(const QString& name) {
    return name.startsWith(QLatin1String("lib")) &&
           (name.endsWith(QLatin1String(".dylib")) || name.contains(QLatin1String(".so")));
}

// Libraries in the duplicate folder that the installed folder does not hold.
QStringList ForeignLibraries(const QString& installed, const QString& duplicate) {
    QStringList foreign;
    const QDir folder(duplicate);
    for (const QString& name : folder.entryList(QDir::Files | QDir::Hidden, QDir::Name))
        if (IsLibrary(name) && !QFileInfo::exists(installed + name))
            foreign << folder.filePath(name);
    return foreign;
}
} // namespace

Facts GatherFacts(const AgentFiles& files, const QDateTime& at, const AgentProcess& agent) {
    Facts facts;
    facts.files = files;
    facts.at = at;
    facts.agent = agent;
    for (int setting = 0; setting < kSettingCount; ++setting) {
        const SettingPlace place = PlaceOf(Setting(setting));
        facts.texts[setting] =
            Stored(place.section, place.key, place.inUserInfo ? files.userInfo : files.settings);
    }
    facts.logSwitch = Stored("LOG", "LogSwitch", files.settings);
    facts.settingsFile = StateOf(files.settings);
    facts.userInfoFile = StateOf(files.userInfo);
    facts.updaterPresent = QFileInfo::exists(files.installed + QLatin1String(TIDEWATER_EXE));
    facts.userInfoPresent = QFileInfo::exists(files.userInfo);
    facts.settingsPresent = QFileInfo::exists(files.settings);
    facts.componentsPresent = QFileInfo::exists(files.installed + QLatin1String(UPDATE_INFO_DAT));
    facts.duplicate = QFileInfo(files.userInfo).path();
    facts.duplicateWritable = !QFileInfo::exists(facts.duplicate) || Writable(facts.duplicate);
    facts.userInfoWritable = !facts.userInfoPresent || Writable(files.userInfo);
    facts.dataFolderMakeable = files.stored || Makeable(files.dataFolder);
    facts.duplicateMakeable = Makeable(facts.duplicate);
    facts.bundlePresent = QFileInfo::exists(files.installed + QLatin1String(RAVEL_EXE_FILE_NAME) +
                                            QLatin1String(MAC_APP_PATH));
    facts.foreignLibraries = ForeignLibraries(files.installed, facts.duplicate);
    facts.refusedAsRoot = kPerUser && (getuid() == 0 || geteuid() == 0);
    facts.log = ReadLogTail(files.log);
    return facts;
}
