#include "Session.h"

#include "AgentHarness.h"
#include "Record.h"

#include <ctime>
#include <sys/syscall.h>

namespace {
const qint64 kDeadline = 120; // real seconds for any one process to do its part
const qint64 kStep = 10;      // simulated seconds between looks while waiting

// The real clock, for deadlines: libfaketime answers the C library's clock calls, not the system
// call itself.
double RealSeconds() {
    timespec now{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

// Sleeps `seconds` of simulated time (libfaketime shortens the sleep).
void Nap(qint64 seconds) {
    const timespec span{time_t(seconds), 0};
    nanosleep(&span, nullptr);
}

template <class Condition> bool WaitFor(Condition condition) {
    for (const double end = RealSeconds() + kDeadline; !condition() && RealSeconds() < end;)
        Nap(kStep);
    return condition();
}

// True once the child `pid` has ended (its wait status in `status`), false at the deadline.
bool Ended(pid_t pid, int& status) {
    bool ended = false;
    return WaitFor([&] { return ended = ended || waitpid(pid, &status, WNOHANG) == pid; });
}

// The exit status of a child, -1 after a signal; -2 when it had not ended by the deadline (then
// it is killed).
int Finish(pid_t pid) {
    int status = 0;
    if (!Ended(pid, status)) {
        kill(pid, SIGKILL), waitpid(pid, &status, 0);
        return -2;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

QString EndOf(int status) {
    if (WIFSIGNALED(status))
        return WTERMSIG(status) == SIGTERM ? "SIGTERM"
                                           : QStringLiteral("signal %1").arg(WTERMSIG(status));
    return QStringLiteral("exit %1").arg(WEXITSTATUS(status));
}

// Collects every ended child (the updater's runs end as our children too); the resident's end,
// if it is among them, goes to `end`.
void Reap(pid_t resident = 0, QString* end = nullptr) {
    int status = 0;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;)
        if (pid == resident && end)
            *end = EndOf(status);
}

qint64 Lines(const QString& path) {
    return QString::fromStdString(ReadAll(path)).count('\n');
}

QString LastLaunch(const QString& userInfo) {
    return GetConfigure("UpdateRecord", "LastLaunchTime", "", userInfo).toString();
}

// The files the inspector reads, copied to `folder`: an installed folder (the agent's bundle
// stands there as an empty file, present as the inspector asks) beside its data folder.
void KeepAsked(const QString& installed, const QString& userInfo, const QString& folder) {
    WriteAll(folder + "installed/ravel.app/Contents/MacOS/ravel", "");
    WriteAll(folder + "installed/Tidewater.dat", ReadAll(installed + "Tidewater.dat"));
    WriteConfigure("DupInfo", "DuplicatePath", folder + "data/",
                   folder + "installed/Tidewater.dat");
    WriteAll(folder + "data/Brightwell/UserInfo.dat", ReadAll(userInfo));
}

Sample Look(pid_t pid, const QString& userInfo) {
    Sample sample;
    sample.at = time(nullptr);
    const QString proc = "/proc/" + QString::number(pid) + "/";
    for (const QString& line : QString::fromStdString(ReadAll(proc + "status")).split('\n'))
        if (line.startsWith("VmRSS:")) // "VmRSS:     12908 kB"
            sample.rssKb = line.split(' ', Qt::SkipEmptyParts).value(1).toLongLong();
    sample.fds =
        QDir(proc + "fd").entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System).size();
    sample.lastLaunch = Seconds(LastLaunch(userInfo));
    return sample;
}

// Looks at the resident every simulated minute until logout or its end.
void Live(const SessionPlan& p, pid_t resident, const QString& userInfo, QString& end) {
    while (time(nullptr) < p.logout && end.isEmpty()) {
        AppendSample(p.day + "samples.txt", Look(resident, userInfo));
        Reap(resident, &end);
        Nap(60);
    }
}

// SIGTERM, as a session's end sends it, and the resident's end.
void EndResident(pid_t resident, QString& end) {
    if (!end.isEmpty())
        return;
    kill(resident, SIGTERM);
    int status = 0;
    if (Ended(resident, status))
        end = EndOf(status);
    else
        end = "still running after SIGTERM", kill(resident, SIGKILL), waitpid(resident, nullptr, 0);
}
// Where things are, for one login.
struct Places {
    explicit Places(const SessionPlan& p)
        : userInfo(p.data + "Brightwell/UserInfo.dat"), log(p.data + "log/ravel.log"),
          runs(p.installed + "Tidewater.args"), err(p.day + "stderr.txt"),
          installedExe((p.installed + "ravel.app/Contents/MacOS/ravel").toStdString()),
          residentExe((p.data + "Brightwell/ravel.app/Contents/MacOS/ravel").toStdString()),
          updaterExe((p.installed + "Tidewater.app/Contents/MacOS/Tidewater").toStdString()) {}
    const QString userInfo, log, runs, err;
    const std::string installedExe, residentExe, updaterExe;
};

// The inspector's answer at login, and a copy of what it was asked about.
void Ask(const SessionPlan& p, const Places& at, Record& r) {
    const std::vector<std::string> ask{"ravel-schedule", p.installed.toStdString(), "--json"};
    if (Finish(StartProcess(RAVEL_SCHEDULE_EXE, ask, p.day + "schedule.json", at.err)) != 0)
        r["problem"] = "the inspector failed at login";
    KeepAsked(p.installed, at.userInfo, p.day + "asked/");
}

// The installed copy's run, then the resident's life until logout and its end.
void LogIn(const SessionPlan& p, const Places& at, Record& r) {
    r["installed"] =
        QString::number(Finish(StartProcess(at.installedExe, {at.installedExe}, at.err, at.err)));
    pid_t resident = 0;
    WaitFor([&] { return (resident = FindProcess(at.residentExe)) != 0; });
    QString end;
    if (resident) {
        Live(p, resident, at.userInfo, end);
        r["logout"] = QString::number(time(nullptr));
        EndResident(resident, end);
    }
    r["resident_end"] = end;
}

// The state the judge compares across the session: the log's size, the updater's runs.
void Mark(const Places& at, Record& r, const QString& when) {
    r["log_" + when] = QString::number(QFileInfo(at.log).size());
    r["runs_" + when] = QString::number(Lines(at.runs));
}
} // namespace

int RunSession(const SessionPlan& p) {
    prctl(PR_SET_CHILD_SUBREAPER, 1); // detached starts end as our children
    const Places at(p);
    Record r;
    r["login"] = QString::number(time(nullptr));
    r["last_launch"] = LastLaunch(at.userInfo);
    Mark(at, r, "from");
    Ask(p, at, r);
    LogIn(p, at, r);
    WaitFor([&] { return !FindProcess(at.updaterExe); });
    Reap();
    if (FindProcess(at.installedExe) || FindProcess(at.residentExe))
        r["problem"] += " an agent process outlived the session";
    Mark(at, r, "to");
    return WriteRecord(p.day + "session.txt", r) ? 0 : 1;
}
