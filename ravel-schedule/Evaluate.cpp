// The findings from the facts alone: nothing here reads a file or the clock.
#include "Report.h"

#include "FileLayout.h"
#include "LogTexts.h"

#include <climits>

namespace {
// A running agent checks every TimerMinutes from its last logged check on; the logged check is
// done, so the next one comes at least one interval later.
quint32 NextCheck(const Facts& facts, const ScheduleSettings& settings) {
    const quint32 at = ToTimeT(facts.at);
    const int interval = TimerIntervalMs(settings.timerMinutes);
    const QStringList& check = facts.log.lastCheck;
    if (facts.agent.pid == 0 || check.isEmpty() || interval <= 0)
        return at;
    const QString& first = check.first();
    const quint32 last = DateSeconds(first.mid(first.indexOf(QLatin1String("][")) + 2, 19));
    if (last == kDelayAbsent)
        return at;
    const qint64 next = FirstCheckFrom(last, interval, qMax<qint64>(at, qint64(last) + 1));
    return next < 0 || next > qint64(kDelayAbsent) ? at : quint32(next);
}

QStringList TimerWarnings(quint32 minutes) {
    if (minutes == 0)
        return {QStringLiteral("\"TimerMinutes\" is 0: the agent checks whenever it is idle, "
                               "thousands of times a second, and its log grows by about a "
                               "megabyte a second")};
    if (TimerIntervalMs(minutes) < 0)
        return {QStringLiteral("\"TimerMinutes\" %1 is too large: its milliseconds do not fit a "
                               "signed 32-bit integer, so the timer is never armed and only the "
                               "first check runs")
                    .arg(minutes)};
    if (qint64(minutes) * 60000 > INT_MAX)
        return {QStringLiteral("\"TimerMinutes\" %1 is too large: its milliseconds do not fit a "
                               "signed 32-bit integer and wrap to a check every %2 ms")
                    .arg(minutes)
                    .arg(TimerIntervalMs(minutes))};
    return {};
}

QString FileWarning(FileState state, const char* name, const QString& path) {
    static const char* const problems[] = {"", "is missing", "cannot be read", "holds no settings"};
    if (state == FileState::Settings)
        return QString();
    return QStringLiteral("%1 %2 (%3): the agent reads the defaults")
        .arg(QLatin1String(name), QLatin1String(problems[int(state)]), path);
}

QString Formatted(const char* format, const QString& argument) {
    return QString::asprintf(format, argument.toUtf8().constData());
}

// A failure of the start-up steps before the log opens: the duplicate folder cannot be made.
bool FolderFailure(const Facts& facts, StartFailure& failure) {
    failure.where = QStringLiteral("standard error");
    if (facts.refusedAsRoot) {
        failure.reason = QStringLiteral("this is the per-user agent and this account is root");
        failure.messages = {logtext::kRootRefused};
        return true;
    }
    if (facts.files.dataFolder.isEmpty()) { // per-user, without a home folder
        failure.reason = QStringLiteral("no home folder to find the data folder in");
        failure.messages = {logtext::kDuplicatePathFailed};
        if (!facts.files.stored)
            failure.messages.prepend(QStringLiteral("MXPSCreatePath: ") + logtext::kPathEmpty);
        return true;
    }
    if (!facts.dataFolderMakeable) {
        failure.reason = QStringLiteral("no data folder is given (\"DupInfo\"/\"DuplicatePath\") "
                                        "and this account cannot make %1")
                             .arg(facts.files.dataFolder);
        failure.messages = {QStringLiteral("MXPSCreatePath: ") + logtext::kMakeDirectoryFailed,
                            logtext::kDuplicatePathFailed};
        return true;
    }
    if (!facts.duplicateMakeable) {
        failure.reason =
            QStringLiteral("this account cannot make the duplicate folder %1").arg(facts.duplicate);
        failure.messages = {logtext::kDuplicatePathFailed};
        return true;
    }
    return false;
}

// Without RunWithSystem the agent checks its files at start: the installed copy the updater and
// UpdateInfo.dat (Tidewater.dat too, but without it RunWithSystem reads as on), the resident copy
// then UserInfo.dat; the first one missing ends that copy.
bool FileFailure(const Facts& facts, const ScheduleSettings& settings, StartFailure& failure) {
    if (settings.runWithSystem)
        return false;
    failure.where = QStringLiteral("the log");
    const QString updater = facts.files.installed + QLatin1String(TIDEWATER_EXE);
    const QString components = facts.files.installed + QLatin1String(UPDATE_INFO_DAT);
    const QString missing = QStringLiteral("RunWithSystem is off and %1 is missing: the %2 copy "
                                           "checks it at start and ends with status 255");
    if (!facts.updaterPresent || !facts.componentsPresent) {
        const bool noUpdater = !facts.updaterPresent; // checked first
        failure.reason = missing.arg(noUpdater ? updater : components, "installed");
        failure.messages = {noUpdater ? Formatted(logtext::kExeFileMissing, updater)
                                      : Formatted(logtext::kConfigFileMissing, components),
                            logtext::kOriginalInitFailed};
        return true;
    }
    if (!facts.userInfoPresent) {
        failure.reason = missing.arg(facts.files.userInfo, "resident") +
                         QStringLiteral(" (the installed copy hands over and ends with 0)");
        failure.messages = {Formatted(logtext::kConfigFileMissing, facts.files.userInfo),
                            logtext::kDuplicateInitFailed};
        return true;
    }
    return false;
}

// Why an agent started now would end at start, if it would.
bool StartFailureOf(const Facts& facts, const ScheduleSettings& settings, StartFailure& failure) {
    if (!facts.bundlePresent) {
        failure.reason = QStringLiteral("%1 is missing: nothing starts an agent from this folder")
                             .arg(facts.files.installed + QLatin1String(RAVEL_EXE_FILE_NAME) +
                                  QLatin1String(MAC_APP_PATH));
        failure.status = -1;
        return true;
    }
    return FolderFailure(facts, failure) || FileFailure(facts, settings, failure);
}

// Things that make a start or a launch go wrong although the agent starts.
QStringList SetUpWarnings(const Facts& facts, const Forecast& forecast) {
    QStringList warnings;
    for (const QString& library : facts.foreignLibraries)
        warnings << QStringLiteral("%1 is in the duplicate folder but not in the installed folder: "
                                   "the resident copy may load it before the system's, and a "
                                   "foreign library there can make every hand-over fail")
                        .arg(library);
    if (!facts.files.stored && facts.files.displayName.isEmpty())
        warnings << QStringLiteral("UpdateInfo.dat names no main component's display name: the "
                                   "agent takes %1 as its data folder, shared with every other "
                                   "product without one")
                        .arg(facts.files.dataFolder);
    if (forecast.verdict == Verdict::Held)
        warnings << QStringLiteral("\"DelayTime\" is absent with AutoCheckNow 0, so the updater is "
                                   "never started: the installer (or the updater, after each run) "
                                   "must write \"DelayInfo\"/\"DelayTime\" 0 to UserInfo.dat");
    return warnings;
}

QStringList WriteWarnings(const Facts& facts) {
    if (!facts.duplicateWritable)
        return {QStringLiteral("the agent could not write its data folder %1: UserInfo.dat cannot "
                               "be saved, so repairs are redone at every check and no delay is "
                               "ever stored")
                    .arg(facts.duplicate)};
    if (!facts.userInfoWritable)
        return {QStringLiteral("the agent could not write %1: repairs are redone at every check "
                               "and no delay is ever stored")
                    .arg(facts.files.userInfo)};
    return {};
}

QStringList Warnings(const Facts& facts, const ScheduleSettings& settings) {
    QStringList warnings = TimerWarnings(settings.timerMinutes);
    const QString logSwitch = facts.logSwitch.isEmpty() ? QStringLiteral("1") : facts.logSwitch;
    if (QVariant(logSwitch).toInt() == 0)
        warnings << QStringLiteral("\"LogSwitch\" is 0: the agent writes no log, so there is no "
                                   "trace to diagnose with");
    for (const QString& warning :
         {FileWarning(facts.settingsFile, "Tidewater.dat", facts.files.settings),
          FileWarning(facts.userInfoFile, "UserInfo.dat", facts.files.userInfo)})
        if (!warning.isEmpty())
            warnings << warning;
    return warnings + WriteWarnings(facts);
}

// The values the next check's reading would write back, each with the text it replaces.
QList<Inspection::Repair> Repairs(const QString (&found)[kSettingCount], const MemoryEnv& read) {
    QList<Inspection::Repair> repairs;
    for (const MemoryEnv::Written& write : read.writes) {
        const SettingPlace place = PlaceOf(write.setting);
        const QString& from = found[int(write.setting)];
        if (from != write.text)
            repairs.append({QString::fromLatin1(place.section), QString::fromLatin1(place.key),
                            from.isEmpty() ? QString() : from, write.text});
    }
    return repairs;
}
} // namespace

Inspection Evaluate(const Facts& facts) {
    Inspection in;
    in.files = facts.files;
    in.at = facts.at;
    in.agent = facts.agent;
    MemoryEnv env;
    for (int setting = 0; setting < kSettingCount; ++setting)
        env.texts[setting] = in.texts[setting] = facts.texts[setting];
    env.SetClock(facts.at);
    ReadConfigInfo(env, in.record);
    in.settings = SettingsFrom(env);
    in.repairs = Repairs(in.texts, env);
    in.lastCheck = facts.log.lastCheck;
    in.logFound = facts.log.found;
    in.logBytes = facts.log.bytes;
    in.checkAt = NextCheck(facts, in.settings);
    in.forecast = Foresee(in.record, in.settings, in.checkAt, facts.agent.pid == 0);
    in.warnings = Warnings(facts, in.settings) + SetUpWarnings(facts, in.forecast);
    in.failsAtStart = facts.agent.pid == 0 && StartFailureOf(facts, in.settings, in.startFailure);
    return in;
}

QString VerdictText(const Inspection& inspection) {
    return inspection.failsAtStart ? QStringLiteral("fails-at-start")
                                   : QLatin1String(VerdictName(inspection.forecast.verdict));
}
