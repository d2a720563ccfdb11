// The soak's judge on days written by hand: a day that keeps every promise passes, and each fault
// it is there to find is found. Then the settings' syntax and the logins it plans.
#include "Judge.h"
#include "Scenario.h"
#include "ZoneScope.h"

#include <QRegularExpression>
#include <functional>
#include <gmock/gmock.h>

using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {
const char kStart[] = "----------------------Start Log---------------------------------";
const char kEnd[] = "----------------------End Log-----------------------------------";
const char kUpdater[] = "/i/Tidewater.app/Contents/MacOS/Tidewater";

qint64 At(const char* time) { // a moment of Monday 2024-01-08 (UTC)
    return Seconds(QStringLiteral("2024-01-08 ") + time);
}

QString Line(qint64 at, const QString& message, int tabs = 0) {
    return "[Src/ravel(42)][" + LocalText(at) + "]" + QString(tabs, '\t') + "[" + message +
           "]-->\n";
}

// A check every ten minutes from 08:31 to 12:21; the one at 09:01, the first after the cycle's
// end at 09:00, launches (AutoCheckNow 1). `shift` moves check k by that many seconds.
QString ResidentLog(
    const std::function<qint64(int)>& shift = [](int) { return 0; },
    const QString& sleep = "Sleep 10 Minutes") {
    QString log = QString(kStart) + "\n" + Line(At("08:31:00"), "CheckMissed: Enter") +
                  Line(At("08:31:00"), "ReadConfigInfo: Enter", 1) +
                  Line(At("08:31:00"), "ReadConfigInfo: Leave", 1) +
                  Line(At("08:31:00"), "CheckMissed: Leave");
    for (int k = 0; k < 24; ++k) {
        const qint64 at = At("08:31:00") + k * 600 + shift(k);
        log += Line(at, "ReadConfigInfo: Enter") + Line(at, "ReadConfigInfo: Leave");
        if (k == 3)
            log += Line(at, "Time is used up, ravel will check if delay time is ok") +
                   Line(at, "AutoCheckNow = 1") +
                   Line(at, QStringLiteral("Time is Ready, Try to Launch(%1)").arg(kUpdater)) +
                   Line(at, QStringLiteral("File path is: %1").arg(kUpdater));
        log += Line(at, sleep);
    }
    return log;
}

// The installed copy's part of the log, then the resident's.
SessionLog DayLog(const QString& resident) {
    return ReadSessionLog(QString(kStart) + "\n" +
                          Line(At("08:30:40"), "Enter111111111 InitAgent() ...qstrSrcPath=/i/") +
                          Line(At("08:30:41"), "File path is: /d/ravel") + kEnd + "\n" + resident);
}

// The updater's record of a launch, seen from the first look half a minute after it on.
void Recorded(DayFacts& f, qint64 launch) {
    for (Sample& sample : f.samples)
        sample.lastLaunch = sample.at < launch + 30 ? f.lastLaunch : launch;
}

// 08:30 to 12:30: the installed copy hands over, the resident launches at 09:01 and lives on.
DayFacts GoodDay() {
    DayFacts f;
    f.login = At("08:30:00");
    f.logout = At("12:30:00");
    f.installedStatus = 0;
    f.residentEnd = "SIGTERM";
    f.lastLaunch = Seconds("2024-01-07 09:00:00");
    f.updaterRuns = 1;
    f.announced = {"wait-cycle", At("08:30:10"), At("09:00:10"), At("09:00:10")};
    f.replayed = {"wait-cycle", At("08:31:00"), At("09:01:00"), At("09:01:00")};
    for (qint64 at = At("08:31:05"); at < f.logout; at += 60)
        f.samples.append({at, 12908, 11, f.lastLaunch});
    Recorded(f, At("09:01:00"));
    f.log = DayLog(ResidentLog());
    return f;
}

Expectations TenMinutes() {
    Expectations e;
    e.interval = 600;
    return e;
}

QStringList Failures(const DayFacts& f) {
    return JudgeDay(f, TenMinutes()).failures;
}

class Judge : public ::testing::Test {
protected:
    ZoneScope utc{"UTC"};
};
} // namespace

TEST_F(Judge, ADayThatKeepsEveryPromisePasses) {
    const DayFindings found = JudgeDay(GoodDay(), TenMinutes());
    EXPECT_THAT(found.failures, IsEmpty());
    EXPECT_EQ(found.checks, 24);
    EXPECT_EQ(found.firstCheck, At("08:31:00"));
    EXPECT_EQ(found.launches, QList<qint64>{At("09:01:00")});
    EXPECT_EQ(found.memory, "+0");
    EXPECT_EQ(found.handles, "11");
}

TEST_F(Judge, EachFaultIsFound) {
    struct Row {
        const char* name;
        std::function<void(DayFacts&)> fault;
        const char* found; // in one of the failures
    };
    const auto log = [](DayFacts& f, const QString& resident) { f.log = DayLog(resident); };
    const Row rows[] = {
        {"a check skipped",
         [&](DayFacts& f) { log(f, ResidentLog([](int k) { return k >= 10 ? 600 : 0; })); },
         "check 11 came at 10:21:00, 600 s from its time 10:11:00 (-2 s to 300 s allowed); 14 "
         "such"},
        {"a check early",
         [&](DayFacts& f) { log(f, ResidentLog([](int k) { return k == 7 ? -3 : 0; })); },
         "-3 s from its time"},
        {"a check later than half an interval",
         [&](DayFacts& f) { log(f, ResidentLog([](int k) { return k == 7 ? 301 : 0; })); },
         "301 s from its time 09:41:00 (-2 s to 300 s allowed)"},
        {"another interval logged",
         [&](DayFacts& f) { log(f, ResidentLog([](int) { return 0; }, "Sleep 5 Minutes")); },
         "logged Sleep 5 Minutes"},
        {"checks stop before logout", [&](DayFacts& f) { f.logout = At("13:30:00"); },
         "24 checks from 08:31:00 to logout"},
        {"no launch where foreseen",
         [](DayFacts& f) { f.replayed.earliest = f.replayed.latest = At("10:01:00"); },
         "launch at 2024-01-08 09:01:00 outside the window foreseen for the first check: "
         "2024-01-08 10:01:00 to 2024-01-08 10:01:00"},
        {"a launch where none is foreseen",
         [](DayFacts& f) {
             f.replayed = {"never", At("08:31:00"), -1, -1};
         },
         "none (never)"},
        {"a launch before its cycle is over",
         [](DayFacts& f) {
             f.lastLaunch = Seconds("2024-01-07 09:01:00");
             Recorded(f, At("09:01:00"));
         },
         "launch at 2024-01-08 09:01:00 before its cycle is over (last launch 2024-01-07 "
         "09:01:00)"},
        {"no launch in a window before logout",
         [&](DayFacts& f) {
             f.replayed.earliest = f.replayed.latest = At("11:01:00");
             log(f, ResidentLog().remove(QRegularExpression(".*(Ready|File path).*\n")));
             f.updaterRuns = 0;
         },
         "no launch, though foreseen by 11:01:00"},
        {"an updater run missing", [](DayFacts& f) { f.updaterRuns = 0; },
         "1 launch(es) logged, 0 updater run(s) recorded"},
        {"a malformed line",
         [&](DayFacts& f) { log(f, ResidentLog() + "[Src/ravel(42)][2024-01-08 12:2\n"); },
         "1 malformed log line(s), the first: [Src/ravel(42)][2024-01-08 12:2"},
        {"the installed copy's End missing",
         [](DayFacts& f) { f.log = ReadSessionLog(QString(kStart) + "\n" + ResidentLog()); },
         "banners: 2 Start and 0 End"},
        {"an End with no run open",
         [](DayFacts& f) { f.log = ReadSessionLog(QString(kEnd) + "\n" + ResidentLog()); },
         "an End with no run open"},
        {"a line stamped after logout", [](DayFacts& f) { f.logout = At("12:11:00"); },
         "outside the session"},
        {"descriptors that grow",
         [](DayFacts& f) {
             for (Sample& s : f.samples)
                 s.fds = 11 + (s.at - f.login) / 1800;
         },
         "open descriptors went from 12 to 17 between 09:11:00 and 12:30:00"},
        {"memory that grows",
         [](DayFacts& f) {
             for (Sample& s : f.samples)
                 s.rssKb += (s.at - f.login) / 100;
         },
         "resident memory grew by"},
        {"the resident ended before logout", [](DayFacts& f) { f.residentEnd = "exit 0"; },
         "the resident copy did not live until logout (exit 0)"},
        {"the installed copy failed", [](DayFacts& f) { f.installedStatus = 255; },
         "the installed copy ended with status 255"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        DayFacts f = GoodDay();
        row.fault(f);
        const QStringList failures = Failures(f);
        EXPECT_THAT(failures.join('\n').toStdString(), HasSubstr(row.found)) << row.name;
    }
}

TEST_F(Judge, ToleratesWhatALoadedMachineDoes) {
    const struct {
        const char* name;
        std::function<void(DayFacts&)> change;
    } rows[] = {
        {"a check half an interval late",
         [](DayFacts& f) { f.log = DayLog(ResidentLog([](int k) { return k == 7 ? 300 : 0; })); }},
        {"the launching check late",
         [](DayFacts& f) {
             f.log = DayLog(ResidentLog([](int k) { return k == 3 ? 200 : 0; }));
             Recorded(f, At("09:04:20"));
         }},
        {"memory grown by a few pages", [](DayFacts& f) { f.samples.last().rssKb += 64; }},
        {"a descriptor open for a moment", [](DayFacts& f) { f.samples.last().fds += 2; }},
        {"the last check cut off by logout", [](DayFacts& f) { f.logout = At("12:30:00") + 250; }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        DayFacts f = GoodDay();
        row.change(f);
        EXPECT_THAT(Failures(f), IsEmpty()) << row.name;
    }
}

TEST_F(Judge, ReadsTheLinesOfEachCheck) {
    const QString text = QString(kStart) + "\n" + Line(At("10:00:00"), "ReadConfigInfo: Enter") +
                         Line(At("10:00:01"), "Delay to Time (2024-01-08 11:30:00)") +
                         Line(At("10:00:02"), "Sleep 15 Minutes") +
                         Line(At("11:30:00"), "ReadConfigInfo: Enter") +
                         Line(At("11:30:01"), "Time is Ready, Try to Launch(/x)"); // then SIGTERM
    const SessionLog log = ReadSessionLog(text);
    ASSERT_EQ(log.checks.size(), 2);
    EXPECT_EQ(log.checks[0].at, At("10:00:00")) << "when it read the schedule";
    EXPECT_EQ(log.checks[0].drawn, At("11:30:00"));
    EXPECT_EQ(log.checks[0].minutes, 15u);
    EXPECT_EQ(log.checks[0].launchAt, -1);
    EXPECT_EQ(log.checks[1].at, At("11:30:00"));
    EXPECT_EQ(log.checks[1].launchAt, At("11:30:01")) << "a check cut off still launched";
    EXPECT_EQ(log.checks[1].minutes, 0u);
    EXPECT_EQ(FirstCheck(log), At("10:00:00"));
    EXPECT_EQ(log.starts, 1);
    EXPECT_EQ(log.earliest, At("10:00:00"));
    EXPECT_EQ(log.latest, At("11:30:01"));
}

TEST_F(Judge, ReadsTheInspectorsReport) {
    const Forecast f = ForecastFrom(R"({"verdict": "wait-delay", "check_at": "2024-01-08 08:31:00",
        "earliest": "2024-01-08 09:31:00", "latest": null})");
    EXPECT_EQ(f.verdict, "wait-delay");
    EXPECT_EQ(f.checkAt, At("08:31:00"));
    EXPECT_EQ(f.earliest, At("09:31:00"));
    EXPECT_EQ(f.latest, -1);
    EXPECT_EQ(ForecastFrom("not a report").verdict, "");
}

TEST(TimelapseSettings, NameAScenarioAndChangeIt) {
    QList<Scenario> all;
    QString problem;
    ASSERT_TRUE(ScenariosFrom({}, all, problem));
    QStringList names;
    for (const Scenario& s : all)
        names << s.name;
    EXPECT_EQ(names, QStringList({"auto", "range-inside", "range-beyond", "two-day-cycle",
                                  "dst-new-york", "dst-berlin"}));

    ASSERT_TRUE(ScenariosFrom({"dst-berlin", "TimerMinutes=5", "UpdateCycle=3", "start=2024-03-29",
                               "sessions=09:00-12:00,13:00-18:00", "weekends=no", "jitter=0"},
                              all, problem))
        << problem.toStdString();
    ASSERT_EQ(all.size(), 1);
    const Scenario& s = all.first();
    EXPECT_EQ(s.zone, "Europe/Berlin");
    EXPECT_EQ(s.updateSetting["TimerMinutes"], "5");
    EXPECT_EQ(s.updateSetting["AutoCheckNow"], "0") << "kept from the scenario";
    EXPECT_EQ(UserSettings(s)["UpdateStrategy"]["UpdateCycle"], "3");
    EXPECT_EQ(UserSettings(s)["UpdateRecord"]["LastLaunchTime"], "2024-03-28 11:00:00")
        << "the day before the first day, as the scenario has it";
    // Friday 2024-03-29, then Monday: the weekend has no logins.
    const QList<Login> logins = LoginsOf(s, 2);
    ASSERT_EQ(logins.size(), 4);
    EXPECT_EQ(logins[0].login, "2024-03-29 09:00:00");
    EXPECT_EQ(logins[1].logout, "2024-03-29 18:00:00");
    EXPECT_EQ(logins[2].login, "2024-04-01 09:00:00");
    EXPECT_EQ(logins[3].day, 2);
    EXPECT_EQ(ArgumentsOf(s).first(), "dst-berlin");

    ASSERT_TRUE(
        ScenariosFrom({"AutoCheckNow=0", "LastLaunchTime=2023-12-31 23:00:00"}, all, problem));
    EXPECT_EQ(all.first().name, "auto") << "settings alone change \"auto\"";
    EXPECT_EQ(UserSettings(all.first())["UpdateRecord"]["LastLaunchTime"], "2023-12-31 23:00:00");
}

TEST(TimelapseSettings, RefusesWhatItCannotRun) {
    const struct {
        QStringList words;
        const char* problem;
    } rows[] = {
        {{"lunar"}, "unknown scenario \"lunar\""},
        {{"Colour=blue"}, "unknown setting \"Colour\""},
        {{"TZ=Mars/Olympus"}, "bad value for TZ: \"Mars/Olympus\""},
        {{"sessions=12:00-11:00"}, "bad value for sessions"},
        {{"sessions=08:00-12:00,11:00-17:00"}, "bad value for sessions"},
        {{"TimerMinutes=0"}, "bad value for TimerMinutes: \"0\""},
        {{"UpdateCycle=x"}, "bad value for UpdateCycle"},
        {{"jitter=121"}, "bad value for jitter"},
        {{"weekends=maybe"}, "bad value for weekends"},
        {{"start=2024-02-30"}, "bad value for start"},
    };
    for (const auto& row : rows) {
        QList<Scenario> scenarios;
        QString problem;
        EXPECT_FALSE(ScenariosFrom(row.words, scenarios, problem)) << row.problem;
        EXPECT_THAT(problem.toStdString(), HasSubstr(row.problem));
    }
}

TEST(TimelapseSettings, LoginsAreTheSameEveryRunAndNeverOverlap) {
    QList<Scenario> all;
    QString problem;
    ASSERT_TRUE(ScenariosFrom({"range-beyond", "jitter=120"}, all, problem));
    const QList<Login> logins = LoginsOf(all.first(), 5);
    EXPECT_EQ(logins.size(), 10) << "two sessions a day, weekdays";
    EXPECT_EQ(logins.last().login.left(10), "2024-01-12");
    for (int i = 0; i < logins.size(); ++i) {
        EXPECT_LT(logins[i].login, logins[i].logout);
        if (i > 0) {
            EXPECT_LT(logins[i - 1].logout, logins[i].login) << i;
        }
    }
    EXPECT_EQ(LoginsOf(all.first(), 5).last().logout, logins.last().logout);
}
