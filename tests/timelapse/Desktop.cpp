#include "Desktop.h"

#include "AgentHarness.h"
#include "Judge.h"
#include "Record.h"

#include <cstdio>

namespace {
// The default data root, as a real installation uses it (private to these namespaces).
const QString kDataRoot = "/usr/local/zq_kt_userdata/";

Settings ToSettings(const QMap<QString, QMap<QString, QString>>& map) {
    Settings settings;
    for (auto section = map.begin(); section != map.end(); ++section)
        for (auto key = section->begin(); key != section->end(); ++key)
            settings[section.key()][key.key()] = key.value();
    return settings;
}

// The login under libfaketime's wrapper, whose process keeps the day's shared clock; the status
// of the session, or -2 when it outlived its deadline (then it is killed).
int RunLogin(const DesktopPlan& plan, AgentPlace& place, const Login& login, const QString& day) {
    const qint64 logout = Seconds(login.logout);
    setenv("FAKETIME_DONT_RESET", "1", 1); // every process shares the wrapper's clock
    const std::string clock = "@" + login.login.toStdString() + " x" + std::to_string(plan.speed);
    const pid_t pid = StartProcess(FAKETIME_EXE,
                                   {"faketime", "-f", clock, plan.self.toStdString(), "--session",
                                    place.inst.toStdString(), place.data.toStdString(),
                                    day.toStdString(), std::to_string(logout)},
                                   day + "stderr.txt", day + "stderr.txt");
    const qint64 realSeconds = (logout - Seconds(login.login)) / plan.speed * 4 + 300;
    int status = 0;
    for (qint64 waited = 0; waitpid(pid, &status, WNOHANG) != pid; ++waited) {
        if (waited > realSeconds * 10) {
            kill(pid, SIGKILL), waitpid(pid, &status, 0);
            return -2;
        }
        usleep(100000);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The same question the login asked, for the moment the agent's first check came.
Forecast Replay(const QString& day, qint64 firstCheck) {
    if (firstCheck < 0)
        return {};
    const QString out = day + "replayed.json";
    QFile::remove(out);
    const pid_t pid = StartProcess(RAVEL_SCHEDULE_EXE,
                                   {"ravel-schedule", (day + "asked/installed").toStdString(),
                                    "--at", LocalText(firstCheck).toStdString(), "--json"},
                                   out, day + "stderr.txt");
    waitpid(pid, nullptr, 0);
    return ForecastFrom(QByteArray::fromStdString(ReadAll(out)));
}

DayFacts FactsOf(const QString& day, const std::string& log) {
    const Record r = ReadRecord(day + "session.txt");
    DayFacts f;
    f.login = r.value("login", "-1").toLongLong();
    f.logout = r.value("logout", "-1").toLongLong();
    f.installedStatus = r.value("installed", "-1").toInt();
    f.residentEnd = r.value("resident_end");
    f.problem = r.isEmpty() ? "the session left no record" : r.value("problem");
    f.lastLaunch = Seconds(r.value("last_launch"));
    f.updaterRuns = r.value("runs_to").toInt() - r.value("runs_from").toInt();
    f.announced = ForecastFrom(QByteArray::fromStdString(ReadAll(day + "schedule.json")));
    f.samples = ReadSamples(day + "samples.txt");
    const size_t from = r.value("log_from").toULongLong(), to = r.value("log_to").toULongLong();
    f.log =
        ReadSessionLog(QString::fromStdString(log.substr(std::min(from, log.size()), to - from)));
    return f;
}

Expectations ExpectationsOf(const Scenario& s) {
    Expectations e;
    e.interval = s.updateSetting.value("TimerMinutes", "600").toLongLong() * 60;
    e.cycle = s.user.value("UpdateStrategy").value("UpdateCycle", "1").toLongLong() * 86400;
#ifdef __SANITIZE_ADDRESS__
    e.judgeMemory = false; // freed memory waits in the sanitizer's quarantine by design
#endif
    return e;
}

// "hh:mm:ss", or "Ddd hh:mm:ss" on another day than `day`.
QString Moment(qint64 seconds, const QString& day) {
    if (seconds < 0)
        return "none";
    const QString text = LocalText(seconds);
    return text.left(10) == day.left(10)
               ? text.mid(11)
               : QDate::fromString(text.left(10), Qt::ISODate).toString("ddd ") + text.mid(11);
}

// "from-to", one moment when they agree, or "none (verdict)".
QString Window(const Forecast& f, const QString& day) {
    if (f.earliest < 0)
        return QStringLiteral("none (%1)").arg(f.verdict.isEmpty() ? "no answer" : f.verdict);
    const QString from = Moment(f.earliest, day);
    return f.latest == f.earliest ? from : from + "-" + Moment(f.latest, day);
}

QString Row(int index, const Login& login, const DayFacts& f, const DayFindings& d) {
    QStringList launches;
    for (qint64 launch : d.launches)
        launches << Moment(launch, login.login);
    const QDate date = QDate::fromString(login.login.left(10), Qt::ISODate);
    return QString::asprintf(
        "%3d  %-9s  %-11s  %-10s  %-21s  %-8s   %-21s  %-9s %6d %4llds %7s %3s  %s", index,
        qPrintable(date.toString("ddd MM-dd")),
        qPrintable(login.login.mid(11, 5) + "-" + login.logout.mid(11, 5)),
        qPrintable(f.announced.verdict.isEmpty() ? "-" : f.announced.verdict),
        qPrintable(Window(f.announced, login.login)), qPrintable(Moment(d.firstCheck, login.login)),
        qPrintable(Window(f.replayed, login.login)),
        qPrintable(launches.isEmpty() ? "-" : launches.join(",")), d.checks, d.latest,
        qPrintable(d.memory), qPrintable(d.handles), d.failures.isEmpty() ? "ok" : "FAILED");
}

QString Header(const Scenario& s) {
    QStringList sessions;
    for (const auto& [in, out] : s.sessions)
        sessions << in.toString("hh:mm") + "-" + out.toString("hh:mm");
    QStringList settings;
    for (auto key = s.updateSetting.begin(); key != s.updateSetting.end(); ++key)
        settings << key.key() + "=" + key.value();
    const auto user = UserSettings(s);
    for (const auto& section : user)
        for (auto key = section.begin(); key != section.end(); ++key)
            settings << key.key() + "=" + key.value();
    const QString jitter =
        s.jitter ? QStringLiteral(" (each up to %1 min later)").arg(s.jitter) : "";
    return QStringLiteral("== %1: TZ=%2, %3 %4%5; %6")
        .arg(s.name, s.zone, s.weekends ? "every day" : "Mon-Fri", sessions.join(","), jitter,
             settings.join(' '));
}

// The zone of the desktop for every process; the sanitizer told that libfaketime comes first.
void SetEnvironment(const Scenario& s) {
    setenv("TZ", s.zone.toUtf8().constData(), 1);
    tzset();
    const QString asan = qEnvironmentVariable("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS",
           qPrintable((asan.isEmpty() ? "" : asan + ":") + "verify_asan_link_order=0"), 1);
}

// The product as its installer leaves it, with the default data root opened to every account.
void LayOut(AgentPlace& place, const Scenario& s) {
    QDir().mkpath(kDataRoot);
    chmod(QFile::encodeName(kDataRoot).constData(), 0777);
    Settings tidewater;
    for (auto key = s.updateSetting.begin(); key != s.updateSetting.end(); ++key)
        tidewater["UpdateSetting"][key.key()] = key.value();
    place.LayOutInstalled(tidewater, ToSettings(UserSettings(s)));
}

// One login run and judged: its row of the table, its findings.
DayFindings Judged(const DesktopPlan& plan, AgentPlace& place, const Login& login, int index) {
    const QString day = plan.out + QString::asprintf("login-%02d/", index);
    QDir(day).removeRecursively();
    QDir().mkpath(day);
    const int status = RunLogin(plan, place, login, day);
    std::fprintf(stderr, "%s: login %d (%s to %s) done\n", qPrintable(plan.scenario.name), index,
                 qPrintable(login.login), qPrintable(login.logout.mid(11)));
    DayFacts facts = FactsOf(day, ReadAll(place.data + "log/ravel.log"));
    if (status != 0)
        facts.problem += QStringLiteral(" (the session ended with %1)").arg(status);
    facts.replayed = Replay(day, FirstCheck(facts.log));
    DayFindings found = JudgeDay(facts, ExpectationsOf(plan.scenario));
    std::printf("%s\n", qPrintable(Row(index, login, facts, found)));
    std::fflush(stdout);
    return found;
}
} // namespace

int RunDesktop(const DesktopPlan& plan) {
    const Scenario& s = plan.scenario;
    SetEnvironment(s);
    AgentPlace place(kDataRoot + "Demo_Product/");
    LayOut(place, s);
    std::printf("%s\n  #  date       session      verdict     window at login        1st check  "
                "window for it          launches   checks late  memory fds  result\n",
                qPrintable(Header(s)));
    const QList<Login> logins = LoginsOf(s, plan.days);
    QStringList findings;
    int launches = 0, checks = 0;
    qint64 latest = 0;
    for (int i = 0; i < logins.size(); ++i) {
        const DayFindings found = Judged(plan, place, logins[i], i + 1);
        for (const QString& failure : found.failures)
            findings << QStringLiteral("  login %1: %2").arg(i + 1).arg(failure);
        launches += found.launches.size(), checks += found.checks;
        latest = std::max(latest, found.latest);
    }
    WriteAll(plan.out + "ravel.log", ReadAll(place.data + "log/ravel.log"));
    const QString summary =
        QStringLiteral("%1: %2 day(s), %3 login(s), %4 launch(es), %5 checks, the latest %6 s "
                       "after its time: %7")
            .arg(s.name, -14)
            .arg(plan.days)
            .arg(logins.size())
            .arg(launches)
            .arg(checks)
            .arg(latest)
            .arg(findings.isEmpty() ? "passed"
                                    : QStringLiteral("FAILED, %1 finding(s)").arg(findings.size()));
    std::printf("%s%s\n", qPrintable(findings.isEmpty() ? "" : findings.join('\n') + "\n"),
                qPrintable(summary));
    WriteAll(plan.out + "summary.txt", (summary + "\n").toStdString());
    return findings.isEmpty() ? 0 : 1;
}
