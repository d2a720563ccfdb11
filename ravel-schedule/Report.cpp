#include "Report.h"

#include "Clock.h"
#include "CommonFunctions.h"
#include "FileLayout.h"
#include "LogTexts.h"
#include "MarkupSTL.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QVariant>

#include <climits>
#include <unistd.h>

namespace {
constexpr qint64 kLogTail = 256 * 1024; // enough for the last check

QString WithSlash(QString path) {
    if (!path.endsWith(QLatin1Char('/')) && !path.endsWith(QLatin1Char('\\')))
        path += QLatin1Char('/');
    return path;
}

QString Moment(qint64 seconds) {
    return QDateTime::fromSecsSinceEpoch(seconds).toString(QLatin1String(kDateFormat));
}

QString Quoted(const QString& text) {
    return QLatin1Char('"') + text + QLatin1Char('"');
}

// Why the agent would read the defaults from this file, or an empty text when it reads it.
QString FileProblem(const QString& path) {
    const QFileInfo info(path);
    if (!info.exists())
        return QStringLiteral("is missing");
    if (!info.isReadable())
        return QStringLiteral("cannot be read");
    std::string text;
    CMarkupSTL document;
    if (CCommonFunctions::ReadXMLFile(path.toStdWString(), text, false) == 0 && !text.empty())
        document.SetDoc(text.c_str());
    return document.FindElem("root") ? QString() : QStringLiteral("holds no settings");
}

std::vector<std::string> CommandLine(const QString& pid) {
    QFile file(QStringLiteral("/proc/") + pid + QStringLiteral("/cmdline"));
    std::vector<std::string> args;
    if (!file.open(QIODevice::ReadOnly))
        return args;
    for (const QByteArray& arg : file.readAll().split('\0'))
        args.push_back(arg.toStdString());
    if (!args.empty() && args.back().empty())
        args.pop_back();
    return args;
}

// The inode of a socket listening on port 31334 of the loopback or any address, 0 when none.
QByteArray ListeningInode() {
    QFile table(QStringLiteral("/proc/net/tcp"));
    if (!table.open(QIODevice::ReadOnly))
        return QByteArray();
    for (const QByteArray& line : table.readAll().split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() > 9 && fields[3] == "0A" &&
            (fields[1] == "0100007F:7A66" || fields[1] == "00000000:7A66"))
            return fields[9];
    }
    return QByteArray();
}

QStringList LastCheckLines(const QString& path, bool& found) {
    QFile log(path);
    found = log.open(QIODevice::ReadOnly);
    if (!found)
        return {};
    log.seek(qMax<qint64>(0, log.size() - kLogTail));
    const QStringList lines = QString::fromLocal8Bit(log.readAll()).split(QLatin1Char('\n'));
    // A check's reading is not indented; the start-up rule's reading is.
    int first = -1;
    for (int i = lines.size() - 1; i >= 0 && first < 0; --i)
        if (lines[i].contains(QLatin1String("][ReadConfigInfo: Enter]-->")))
            first = i;
    QStringList check;
    for (int i = first; i >= 0 && i < lines.size(); ++i) {
        check << lines[i];
        if (lines[i].contains(QLatin1String("[Sleep ")) ||
            lines[i].contains(QLatin1String("will exit now!")))
            break;
    }
    return check;
}

// The argument (the installed folder) of a process running the agent's executable in
// `duplicate`; empty when none runs.
QString RunningFrom(const QString& duplicate) {
    const QString exe =
        QFileInfo(duplicate + QLatin1String(RAVEL_EXE_FILE_NAME) + QLatin1String(MAC_APP_PATH))
            .canonicalFilePath();
    for (const QString& pid : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        const std::vector<std::string> args =
            pid.toLongLong() > 0 ? CommandLine(pid) : std::vector<std::string>();
        if (args.size() > 1 &&
            QFileInfo(QString::fromLocal8Bit(args[0].c_str())).canonicalFilePath() == exe)
            return QString::fromLocal8Bit(args[1].c_str());
    }
    return QString();
}

// The folder named by the last deployment line of a data folder's log; empty when none.
QString LoggedDeployment(const QString& log) {
    QFile file(log);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    const QByteArray mark = QByteArray(logtext::kDeployFrom).split('%').first();
    const QByteArray text = file.readAll();
    const qsizetype at = text.lastIndexOf(mark);
    if (at < 0)
        return QString();
    const qsizetype from = at + mark.size();
    const qsizetype end = text.indexOf(logtext::kLineEnd, from);
    return QString::fromLocal8Bit(text.mid(from, end < 0 ? -1 : end - from));
}

// Where a duplicate folder was deployed from: its running duplicate's argument, else its log.
QString DeployedFrom(const QString& duplicate) {
    const QString running = RunningFrom(duplicate);
    return running.isEmpty()
               ? LoggedDeployment(duplicate + QLatin1String("../") + QLatin1String(LOG_FOLDER) +
                                  QLatin1String(LOG_FILE_NAME))
               : running;
}

// A running agent checks every TimerMinutes from its last logged check on.
quint32 NextCheck(const Inspection& in) {
    const quint32 at = ToTimeT(in.at);
    const int interval = TimerIntervalMs(in.settings.timerMinutes);
    if (in.agent.pid == 0 || in.lastCheck.isEmpty() || interval <= 0)
        return at;
    const QString& first = in.lastCheck.first();
    const QDateTime last =
        QDateTime::fromString(first.mid(first.indexOf(QLatin1String("][")) + 2, 19), kDateFormat);
    // The logged check is done: the next one comes at least one interval later.
    const qint64 from = qMax<qint64>(at, qint64(ToTimeT(last)) + 1);
    const qint64 next = last.isValid() ? FirstCheckFrom(ToTimeT(last), interval, from) : -1;
    return next < 0 || next > qint64(kDelayAbsent) ? at : quint32(next);
}

QStringList Warnings(const Inspection& in) {
    QStringList warnings;
    const quint32 minutes = in.settings.timerMinutes;
    if (minutes == 0)
        warnings << QStringLiteral("\"TimerMinutes\" is 0: the agent checks whenever it is idle, "
                                   "thousands of times a second, and its log grows by about a "
                                   "megabyte a second");
    else if (TimerIntervalMs(minutes) < 0)
        warnings << QStringLiteral("\"TimerMinutes\" %1 is too large: its milliseconds do not fit "
                                   "a signed 32-bit integer, so the timer is never armed and only "
                                   "the first check runs")
                        .arg(minutes);
    else if (qint64(minutes) * 60000 > INT_MAX)
        warnings << QStringLiteral("\"TimerMinutes\" %1 is too large: its milliseconds do not fit "
                                   "a signed 32-bit integer and wrap to a check every %2 ms")
                        .arg(minutes)
                        .arg(TimerIntervalMs(minutes));
    const QVariant logSwitch = GetConfigure(QStringLiteral("LOG"), QStringLiteral("LogSwitch"),
                                            QVariant(QStringLiteral("1")), in.files.settings);
    if (logSwitch.toInt() == 0)
        warnings << QStringLiteral("\"LogSwitch\" is 0: the agent writes no log, so there is no "
                                   "trace to diagnose with");
    for (const auto& [path, name] : {std::pair(in.files.settings, "Tidewater.dat"),
                                     std::pair(in.files.userInfo, "UserInfo.dat")}) {
        const QString problem = FileProblem(path);
        if (!problem.isEmpty())
            warnings << QStringLiteral("%1 %2 (%3): the agent reads the defaults")
                            .arg(QLatin1String(name), problem, path);
    }
    // Without RunWithSystem the agent checks its files at start and ends when one is missing.
    const QString updater =
        in.files.installed + QStringLiteral("Tidewater.app/Contents/MacOS/Tidewater");
    for (const QString& path : {updater, in.files.userInfo, in.files.settings,
                                in.files.installed + QStringLiteral("UpdateInfo.dat")})
        if (!in.settings.runWithSystem && !QFileInfo::exists(path))
            warnings << QStringLiteral("RunWithSystem is off and %1 is missing: the agent ends at "
                                       "start-up with status 255, before any check")
                            .arg(path);
    const QString duplicate = QFileInfo(in.files.userInfo).path();
    if (QFileInfo::exists(duplicate) && access(QFile::encodeName(duplicate).constData(), W_OK) != 0)
        warnings << QStringLiteral("the agent could not write its data folder %1: UserInfo.dat "
                                   "cannot be saved, so repairs are redone at every check and no "
                                   "delay is ever stored")
                        .arg(duplicate);
    else if (QFileInfo::exists(in.files.userInfo) &&
             access(QFile::encodeName(in.files.userInfo).constData(), W_OK) != 0)
        warnings << QStringLiteral("the agent could not write %1: repairs are redone at every "
                                   "check and no delay is ever stored")
                        .arg(in.files.userInfo);
    return warnings;
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

// What happens once the cycle is over, at the check that decides.
QString PathText(const Forecast& f, const ScheduleSettings& s, bool over) {
    const quint32 round = f.record.nDelayTimes;
    const QString check =
        over ? QStringLiteral("the next check") : QStringLiteral("the first check after it");
    switch (f.path) {
    case LaunchPath::Auto:
        return QStringLiteral("AutoCheckNow is %1, so it launches at %2")
            .arg(s.autoCheckNow)
            .arg(check);
    case LaunchPath::Forced:
        return QStringLiteral("in delay round %1 it launches at %2").arg(round).arg(check);
    case LaunchPath::DelayDue:
        return QStringLiteral("the drawn delay ran out at %1, so it launches at %2")
            .arg(Moment(f.record.nDelayTime), check);
    case LaunchPath::DelayWait:
        return QStringLiteral("a drawn delay is pending until %1; the launch comes at the first "
                              "check at or after it")
            .arg(Moment(f.record.nDelayTime));
    case LaunchPath::Draw:
        return QStringLiteral("a delay of 1 s to %1 s will be drawn at %2 (round %3), and the "
                              "launch comes at the first check at or after the drawn moment")
            .arg(qMax<quint32>(f.span, 1))
            .arg(check)
            .arg(round);
    case LaunchPath::None:
        break;
    }
    return QStringLiteral("no check comes after it");
}

QString Reason(const Inspection& in) {
    const Forecast& f = in.forecast;
    const QString status = in.texts[int(Setting::LastStatus)];
    const QString end = Moment(f.cycleEnd);
    switch (f.verdict) {
    case Verdict::Ends:
        return QStringLiteral("the strategy is \"never\" and RunWithSystem is off: the agent ends "
                              "at its next check");
    case Verdict::Never:
        return f.record.bContinue
                   ? QStringLiteral("the interrupted run (LastStatus \"%1\") is not resumed under "
                                    "\"never\" with RunWithSystem: the agent stays and never "
                                    "launches")
                         .arg(status)
                   : QStringLiteral("the strategy is \"never\" with RunWithSystem: the agent stays "
                                    "and never launches");
    case Verdict::Held:
        return QStringLiteral("\"DelayTime\" is absent and reads as the end of the 32-bit clock: "
                              "in delay round %1 the launch is held there (the cycle ends at %2)")
            .arg(f.record.nDelayTimes)
            .arg(end);
    case Verdict::Resume:
        return QStringLiteral("LastStatus \"%1\" is an interrupted run: the next check resumes it")
            .arg(status);
    case Verdict::Launch:
    case Verdict::WaitDelay:
        return QStringLiteral("the cycle ended at %1; %2").arg(end, PathText(f, in.settings, true));
    case Verdict::WaitCycle:
        return QStringLiteral("the cycle ends at %1; then %2")
            .arg(end, PathText(f, in.settings, false));
    }
    return QString();
}

QString DelayText(quint32 delay) {
    if (delay == 0)
        return QStringLiteral("none drawn (0)");
    if (delay == kDelayAbsent)
        return QStringLiteral("absent (the end of the 32-bit clock)");
    return Moment(delay);
}
} // namespace

bool FindAgentFiles(const QString& folder, AgentFiles& files, QString& problem) {
    const QFileInfo info(folder);
    if (!info.isDir()) {
        problem =
            QStringLiteral("%1: %2").arg(folder, info.exists() ? "not a folder" : "no such folder");
        return false;
    }
    const QString installed = WithSlash(info.absoluteFilePath());
    if (!QFileInfo::exists(installed + "ravel.app") &&
        !QFileInfo::exists(installed + "Tidewater.dat")) {
        problem = QStringLiteral("%1: not an installed folder (neither ravel.app nor "
                                 "Tidewater.dat is there)")
                      .arg(folder);
        return false;
    }
    if (IsDuplicateFolder(installed)) {
        const QString from = DeployedFrom(installed);
        problem =
            QStringLiteral("%1 is a duplicate folder, the agent's resident copy, not an "
                           "installed folder: ")
                .arg(folder) +
            (from.isEmpty()
                 ? QStringLiteral("no running duplicate and no deployment line "
                                  "in its log tell where it was deployed from")
                 : QStringLiteral("it was deployed from %1; run ravel-schedule %1").arg(from));
        return false;
    }
    const AgentPlaces places = LocateAgentPlaces(installed);
    files.installed = places.installed;
    files.settings = places.settings;
    files.dataFolder = places.dataFolder;
    files.userInfo = places.userInfo;
    files.log = places.log;
    return true;
}

AgentProcess FindAgentProcess(const QString& installed) {
    AgentProcess agent;
    const QString target = QFileInfo(installed).canonicalFilePath();
    const QByteArray inode = ListeningInode();
    agent.listening = !inode.isEmpty();
    const QString socket = QStringLiteral("socket:[") + QString::fromLatin1(inode) + ']';
    const QStringList pids = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString& pid : pids) {
        if (pid.toLongLong() <= 0)
            continue;
        const std::vector<std::string> args = CommandLine(pid);
        const QString exe = args.empty() ? QString() : QString::fromStdString(args[0]);
        if (args.size() > 1 && exe.endsWith(QLatin1String("ravel.app/Contents/MacOS/ravel")) &&
            QFileInfo(QString::fromLocal8Bit(args[1].c_str())).canonicalFilePath() == target)
            agent.pid = pid.toLongLong();
        if (!agent.listening || agent.portPid)
            continue;
        const QString fds = QStringLiteral("/proc/") + pid + QStringLiteral("/fd");
        for (const QString& fd : QDir(fds).entryList(QDir::System | QDir::NoDotAndDotDot))
            if (QFile::symLinkTarget(fds + '/' + fd).endsWith(socket) ||
                QFileInfo(fds + '/' + fd).symLinkTarget() == socket)
                agent.portPid = pid.toLongLong();
    }
    return agent;
}

Inspection Inspect(const AgentFiles& files, const QDateTime& at, const AgentProcess& agent) {
    Inspection in;
    in.files = files;
    in.at = at;
    in.agent = agent;
    MemoryEnv env;
    for (int setting = 0; setting < kSettingCount; ++setting) {
        const SettingPlace place = PlaceOf(Setting(setting));
        const QString& file = place.inUserInfo ? files.userInfo : files.settings;
        in.texts[setting] = GetConfigure(QLatin1String(place.section), QLatin1String(place.key),
                                         QVariant(QString()), file)
                                .toString();
        env.texts[setting] = in.texts[setting];
    }
    env.SetClock(at);
    ReadConfigInfo(env, in.record);
    in.settings = SettingsFrom(env);
    in.repairs = Repairs(in.texts, env);
    in.lastCheck = LastCheckLines(files.log, in.logFound);
    in.checkAt = NextCheck(in);
    in.forecast = Foresee(in.record, in.settings, in.checkAt, agent.pid == 0);
    in.warnings = Warnings(in);
    return in;
}

QString RenderText(const Inspection& in) {
    const CONFIG_INFO& r = in.record;
    const ScheduleSettings& s = in.settings;
    const Forecast& f = in.forecast;
    QString out;
    const auto line = [&out](const QString& text) { out += text + QLatin1Char('\n'); };
    const auto row = [&line](const char* name, const QString& value) {
        line(QStringLiteral("  %1 %2").arg(QLatin1String(name), -16).arg(value));
    };
    line(QStringLiteral("installed folder %1").arg(in.files.installed));
    line(QStringLiteral("settings         %1").arg(in.files.settings));
    line(QStringLiteral("user schedule    %1").arg(in.files.userInfo));
    line(QStringLiteral("log              %1").arg(in.files.log));
    line(QString());
    line(QStringLiteral("Schedule as the agent reads it"));
    row("strategy", r.nStrategy ? QStringLiteral("cycle") : QStringLiteral("never"));
    row("cycle", QStringLiteral("%1 day(s)").arg(r.nUpdateCycle));
    row("last launch", Moment(r.nLastLaunchTime));
    row("status", r.bContinue
                      ? QStringLiteral("interrupted (%1)").arg(in.texts[int(Setting::LastStatus)])
                      : QStringLiteral("ready"));
    row("delay round", QString::number(r.nDelayTimes));
    row("drawn delay", DelayText(r.nDelayTime));
    row("AutoCheckNow", QString::number(s.autoCheckNow));
    row("TimeRandomRange", QStringLiteral("%1 minutes").arg(s.timeRandomRange));
    row("TimerMinutes", QString::number(s.timerMinutes));
    row("RunWithSystem", s.runWithSystem ? QStringLiteral("yes") : QStringLiteral("no"));
    line(QString());
    line(QStringLiteral("Repairs at the next check"));
    for (const Inspection::Repair& repair : in.repairs)
        line(QStringLiteral("  %1/%2: %3 -> %4")
                 .arg(repair.section, repair.key,
                      repair.from.isNull() ? QStringLiteral("absent") : Quoted(repair.from),
                      Quoted(repair.to)));
    if (in.repairs.isEmpty())
        line(QStringLiteral("  none"));
    line(QString());
    line(QStringLiteral("Verdict: %1").arg(QLatin1String(VerdictName(f.verdict))));
    line(QStringLiteral("  ") + (in.agent.pid ? QStringLiteral("For the running agent's next "
                                                               "check, at %1:")
                                              : QStringLiteral("No agent runs; for one that "
                                                               "starts at %1:"))
                                    .arg(Moment(in.checkAt)));
    if (f.missed)
        line(QStringLiteral("  the delay of round %1 ran out while the agent was away: its "
                            "start counts a missed round (now round %2).")
                 .arg(f.record.nDelayTimes - 1)
                 .arg(f.record.nDelayTimes));
    line(QStringLiteral("  ") + Reason(in) + QLatin1Char('.'));
    if (f.earliest < 0)
        line(QStringLiteral("  Next launch: none foreseen."));
    else if (f.earliest == f.latest)
        line(QStringLiteral("  Next launch: at %1.").arg(Moment(f.earliest)));
    else
        line(QStringLiteral("  Next launch: between %1 and %2.")
                 .arg(Moment(f.earliest), Moment(f.latest)));
    line(QString());
    line(QStringLiteral("Warnings"));
    for (const QString& warning : in.warnings)
        line(QStringLiteral("  ") + warning);
    if (in.warnings.isEmpty())
        line(QStringLiteral("  none"));
    line(QString());
    line(QStringLiteral("Agent: ") +
         (in.agent.pid ? QStringLiteral("running (PID %1)").arg(in.agent.pid)
                       : QStringLiteral("not running")) +
         QStringLiteral("; 127.0.0.1:31334 ") +
         (!in.agent.listening ? QStringLiteral("free")
          : in.agent.portPid  ? QStringLiteral("listened on by PID %1").arg(in.agent.portPid)
                              : QStringLiteral("listened on")));
    line(!in.logFound             ? QStringLiteral("Last check: no log")
         : in.lastCheck.isEmpty() ? QStringLiteral("Last check: none in the log")
                                  : QStringLiteral("Last check in the log:"));
    for (const QString& text : in.lastCheck)
        line(QStringLiteral("  ") + text);
    return out;
}

QJsonObject RenderJson(const Inspection& in) {
    const CONFIG_INFO& r = in.record;
    const ScheduleSettings& s = in.settings;
    const Forecast& f = in.forecast;
    const auto moment = [](qint64 seconds) {
        return seconds < 0 ? QJsonValue(QJsonValue::Null) : QJsonValue(Moment(seconds));
    };
    QJsonArray repairs;
    for (const Inspection::Repair& repair : in.repairs)
        repairs.append(QJsonObject{
            {"section", repair.section},
            {"key", repair.key},
            {"from", repair.from.isNull() ? QJsonValue(QJsonValue::Null) : QJsonValue(repair.from)},
            {"to", repair.to}});
    const QJsonObject schedule{
        {"strategy", r.nStrategy ? "cycle" : "never"},
        {"cycle_days", qint64(r.nUpdateCycle)},
        {"last_launch", Moment(r.nLastLaunchTime)},
        {"status", r.bContinue ? in.texts[int(Setting::LastStatus)] : QStringLiteral("ready")},
        {"interrupted", bool(r.bContinue)},
        {"delay_round", qint64(r.nDelayTimes)},
        {"delay_time", qint64(r.nDelayTime)},
        {"auto_check_now", qint64(s.autoCheckNow)},
        {"time_random_range", qint64(s.timeRandomRange)},
        {"timer_minutes", qint64(s.timerMinutes)},
        {"run_with_system", s.runWithSystem}};
    return QJsonObject{
        {"installed", in.files.installed},
        {"user_info", in.files.userInfo},
        {"log", in.files.log},
        {"at", in.at.toString(QLatin1String(kDateFormat))},
        {"check_at", Moment(in.checkAt)},
        {"verdict", VerdictName(f.verdict)},
        {"reason", Reason(in)},
        {"cycle_end", Moment(f.cycleEnd)},
        {"earliest", moment(f.earliest)},
        {"latest", moment(f.latest)},
        {"missed", f.missed},
        {"schedule", schedule},
        {"repairs", repairs},
        {"warnings", QJsonArray::fromStringList(in.warnings)},
        {"running", in.agent.pid != 0},
        {"pid", in.agent.pid ? QJsonValue(in.agent.pid) : QJsonValue(QJsonValue::Null)},
        {"port_listening", in.agent.listening},
        {"last_check", QJsonArray::fromStringList(in.lastCheck)}};
}
