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

// The resident's log with checks `first` to `last` moved by `by` seconds.
void Shift(DayFacts& f, int first, int last, qint64 by) {
    f.log = DayLog(ResidentLog([=](int k) { return k >= first && k <= last ? by : 0; }));
}

DayFindings Judged(const DayFacts& f) {
    Expectations tenMinutes;
    tenMinutes.interval = 600;
    return JudgeDay(f, tenMinutes);
}

class Judge : public ::testing::Test {
protected:
    ZoneScope utc{"UTC"};
};
} // namespace

TEST_F(Judge, ADayThatKeepsEveryPromisePasses) {
    const DayFindings found = Judged(GoodDay());
    EXPECT_THAT(found.failures, IsEmpty());
    EXPECT_EQ(found.checks, 24);
    EXPECT_EQ(found.firstCheck, At("08:31:00"));
    EXPECT_EQ(found.launches, QList<qint64>{At("09:01:00")});
    EXPECT_EQ(found.memory, "+0");
    EXPECT_EQ(found.handles, "11");
}

// Each fault the judge is there to find is found; what a loaded machine does at the limits of
// the tolerances (a check half an interval late, a draw late by that much) passes.
TEST_F(Judge, EachFaultIsFoundAndTheTolerancesHold) {
    struct Row {
        const char* name;
        std::function<void(DayFacts&)> fault;
        const char* found; // in one of the failures; null: none
    };
    const Row rows[] = {
        {"a check skipped", [](DayFacts& f) { Shift(f, 10, 23, 600); },
         "check 11 came at 10:21:00, 600 s from its time 10:11:00 (-2 s to 300 s allowed); 14 "
         "such"},
        {"a check early", [](DayFacts& f) { Shift(f, 7, 7, -3); }, "-3 s from its time"},
        {"a check later than half an interval", [](DayFacts& f) { Shift(f, 7, 7, 301); },
         "301 s from its time 09:41:00 (-2 s to 300 s allowed)"},
        {"a check half an interval late", [](DayFacts& f) { Shift(f, 7, 7, 300); }, nullptr},
        {"the launching check late",
         [](DayFacts& f) { Shift(f, 3, 3, 200), Recorded(f, At("09:04:20")); }, nullptr},
        {"another interval logged",
         [](DayFacts& f) { f.log = DayLog(ResidentLog([](int) { return 0; }, "Sleep 5 Minutes")); },
         "logged Sleep 5 Minutes"},
        {"checks stop before logout", [](DayFacts& f) { f.logout = At("13:30:00"); },
         "24 checks from 08:31:00 to logout"},
        {"no launch where foreseen",
         [](DayFacts& f) { f.replayed.earliest = f.replayed.latest = At("10:01:00"); },
         "launch at 2024-01-08 09:01:00 outside the window foreseen for the first check: "
         "2024-01-08 10:01:00 to 2024-01-08 10:01:00"},
        {"a launch before its cycle is over",
         [](DayFacts& f) {
             f.lastLaunch = Seconds("2024-01-07 09:01:00");
             Recorded(f, At("09:01:00"));
         },
         "launch at 2024-01-08 09:01:00 before its cycle is over (last launch 2024-01-07 "
         "09:01:00)"},
        {"no launch in a window before logout",
         [](DayFacts& f) {
             f.replayed.earliest = f.replayed.latest = At("11:01:00");
             f.log = DayLog(ResidentLog().remove(QRegularExpression(".*(Ready|File path).*\n")));
             f.updaterRuns = 0;
         },
         "no launch, though foreseen by 11:01:00"},
        {"an updater run missing", [](DayFacts& f) { f.updaterRuns = 0; },
         "1 launch(es) logged, 0 updater run(s) recorded"},
        {"a malformed line",
         [](DayFacts& f) { f.log = DayLog(ResidentLog() + "[Src/ravel(42)][2024-01-08 12:2\n"); },
         "1 malformed log line(s), the first: [Src/ravel(42)][2024-01-08 12:2"},
        {"the installed copy's End missing",
         [](DayFacts& f) { f.log = ReadSessionLog(QString(kStart) + "\n" + ResidentLog()); },
         "banners: 2 Start and 0 End"},
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
        DayFacts f = GoodDay();
        row.fault(f);
        const std::string failures = Judged(f).failures.join('\n').toStdString();
        if (row.found) {
            EXPECT_THAT(failures, HasSubstr(row.found)) << row.name;
        } else {
            EXPECT_EQ(failures, "") << row.name;
        }
    }
}

// The settings' syntax: a scenario named and changed, settings alone changing "auto", the logins
// planned from them, and what cannot be run refused.
TEST(TimelapseSettings, NameAScenarioChangeItOrRefuse) {
    QList<Scenario> all;
    QString problem;
    ASSERT_TRUE(ScenariosFrom({"dst-berlin", "TimerMinutes=5", "UpdateCycle=3", "start=2024-03-29",
                               "sessions=09:00-12:00,13:00-18:00", "weekends=no", "jitter=0"},
                              all, problem))
        << problem.toStdString();
    ASSERT_EQ(all.size(), 1);
    const Scenario& s = all.first();
    EXPECT_EQ(s.zone + " " + s.updateSetting.at("TimerMinutes") +
                  s.updateSetting.at("AutoCheckNow"),
              "Europe/Berlin 50"); // AutoCheckNow kept from the scenario
    EXPECT_EQ(UserSettings(s)["UpdateStrategy"]["UpdateCycle"], "3");
    EXPECT_EQ(UserSettings(s)["UpdateRecord"]["LastLaunchTime"], "2024-03-28 11:00:00");
    QStringList logins; // Friday 2024-03-29, then Monday: the weekend has no logins
    for (const Login& login : LoginsOf(s, 2))
        logins << QString::number(login.day) + " " + login.login + "-" + login.logout.mid(11);
    EXPECT_EQ(logins,
              QStringList({"1 2024-03-29 09:00:00-12:00:00", "1 2024-03-29 13:00:00-18:00:00",
                           "2 2024-04-01 09:00:00-12:00:00", "2 2024-04-01 13:00:00-18:00:00"}));
    EXPECT_EQ(ArgumentsOf(s).first(), "dst-berlin");
    ASSERT_TRUE(ScenariosFrom({"AutoCheckNow=0"}, all, problem));
    EXPECT_EQ(all.first().name, "auto") << "settings alone change \"auto\"";

    const std::pair<QStringList, const char*> bad[] = {
        {{"lunar"}, "unknown scenario \"lunar\""},
        {{"Colour=blue"}, "unknown setting \"Colour\""},
        {{"TZ=Mars/Olympus"}, "bad value for TZ: \"Mars/Olympus\""},
        {{"sessions=08:00-12:00,11:00-17:00"},
         "bad value for sessions: \"08:00-12:00,11:00-17:00\""},
        {{"TimerMinutes=0"}, "bad value for TimerMinutes: \"0\""},
    };
    for (const auto& [words, expected] : bad) {
        EXPECT_FALSE(ScenariosFrom(words, all, problem)) << expected;
        EXPECT_EQ(problem.toStdString(), expected);
    }
}
