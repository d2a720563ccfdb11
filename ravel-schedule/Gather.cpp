// Reading what ravel-schedule needs to know about one installed product: the settings' texts,
// the state of the files the agent reads and checks, and the log's last check. Reads only.
#include "Report.h"

#include "CommonFunctions.h"
#include "FileLayout.h"
#include "LogTail.h"
#include "MarkupSTL.h"

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
    facts.log = ReadLogTail(files.log);
    return facts;
}
