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

// Collects every ended child (the updater's runs end as our children too); notes the resident's.
void Reap(pid_t resident, QString& end) {
    int status = 0;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;)
        if (pid == resident)
            end = EndOf(status);
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
        if (line.startsWith("VmRSS:"))
            sample.rssKb =
                line.section(' ', 1, -1, QString::SectionSkipEmpty).section(' ', 0, 0).toLongLong();
    sample.fds =
        QDir(proc + "fd").entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System).size();
    sample.lastLaunch = Seconds(LastLaunch(userInfo));
    return sample;
}

// Looks at the resident every simulated minute until logout or its end.
void Live(const SessionPlan& p, pid_t resident, const QString& userInfo, QString& end) {
    while (time(nullptr) < p.logout && end.isEmpty()) {
        AppendSample(p.day + "samples.txt", Look(resident, userInfo));
        Reap(resident, end);
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
} // namespace

int RunSession(const SessionPlan& p) {
    prctl(PR_SET_CHILD_SUBREAPER, 1); // detached starts end as our children
    const QString userInfo = p.data + "Brightwell/UserInfo.dat", log = p.data + "log/ravel.log";
    const QString runs = p.installed + "Tidewater.args", err = p.day + "stderr.txt";
    Record r;
    r["login"] = QString::number(time(nullptr));
    r["last_launch"] = LastLaunch(userInfo);
    r["log_from"] = QString::number(QFileInfo(log).size());
    r["runs_from"] = QString::number(Lines(runs));
    QStringList problems;
    if (Finish(StartProcess(RAVEL_SCHEDULE_EXE,
                            {"ravel-schedule", p.installed.toStdString(), "--json"},
                            p.day + "schedule.json", err)) != 0)
        problems << "the inspector failed at login";
    KeepAsked(p.installed, userInfo, p.day + "asked/");
    const std::string installedExe = (p.installed + "ravel.app/Contents/MacOS/ravel").toStdString();
    const std::string residentExe =
        (p.data + "Brightwell/ravel.app/Contents/MacOS/ravel").toStdString();
    r["installed"] = QString::number(Finish(StartProcess(installedExe, {installedExe}, err, err)));
    pid_t resident = 0;
    WaitFor([&] { return (resident = FindProcess(residentExe)) != 0; });
    QString end;
    if (resident) {
        Live(p, resident, userInfo, end);
        r["logout"] = QString::number(time(nullptr));
        EndResident(resident, end);
    }
    r["resident_end"] = end;
    WaitFor([&] {
        return !FindProcess(p.installed.toStdString() + "Tidewater.app/Contents/MacOS/Tidewater");
    });
    Reap(0, end);
    if (FindProcess(installedExe) || FindProcess(residentExe))
        problems << "an agent process outlived the session";
    r["log_to"] = QString::number(QFileInfo(log).size());
    r["runs_to"] = QString::number(Lines(runs));
    r["problem"] = problems.join("; ");
    return WriteRecord(p.day + "session.txt", r) ? 0 : 1;
}
