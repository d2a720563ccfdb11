// ravel-schedule's findings from facts in memory: the warnings, and the check a running agent's
// verdict is for. No file is read.
#include "Report.h"

#include <gmock/gmock.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {
const QDateTime kAt(QDate(2024, 3, 5), QTime(10, 30, 0));

// A product whose files are all there and readable, settings as given (absent when not given).
Facts Product(const std::map<Setting, QString>& settings = {}) {
    Facts facts;
    facts.files = {
        "/p/", "/p/Tidewater.dat", "/d/", "/d/Brightwell/UserInfo.dat", "/d/log/ravel.log",
        true,  QString()};
    facts.duplicate = "/d/Brightwell";
    facts.at = kAt;
    for (const auto& [setting, text] : settings)
        facts.texts[int(setting)] = text;
    facts.texts[int(Setting::UpdateCycle)] = "1";
    facts.texts[int(Setting::DelayTimes)] = "1";
    facts.texts[int(Setting::LastStatus)] = "ready";
    facts.texts[int(Setting::LastLaunchTime)] = "2024-03-05 09:00:00";
    return facts;
}
} // namespace

TEST(Evaluate, WarningsSayWhatHurtsAndWhy) {
    struct Row {
        const char* what;
        Facts facts;
        std::vector<std::string> warnings;
    };
    Facts logOff = Product(), noFiles = Product({{Setting::RunWithSystem, "0"}});
    logOff.logSwitch = "off"; // reads as 0
    noFiles.updaterPresent = noFiles.componentsPresent = false;
    Facts brokenFiles = Product(), readOnly = Product(), readOnlyFile = Product();
    brokenFiles.settingsFile = FileState::NoSettings;
    brokenFiles.userInfoFile = FileState::Unreadable;
    readOnly.duplicateWritable = readOnly.userInfoWritable = false;
    readOnlyFile.userInfoWritable = false;
    const std::string repeat = "repairs are redone at every check and no delay is ever stored";
    const Row rows[] = {
        {"nothing to say", Product(), {}},
        {"TimerMinutes 0",
         Product({{Setting::TimerMinutes, "0"}}),
         {"\"TimerMinutes\" is 0: the agent checks whenever it is idle, thousands of times a "
          "second, and its log grows by about a megabyte a second"}},
        // 35792 minutes are 2147520000 ms: past 2^31 - 1, so negative as a signed int.
        {"a timer never armed",
         Product({{Setting::TimerMinutes, "35792"}}),
         {"\"TimerMinutes\" 35792 is too large: its milliseconds do not fit a signed 32-bit "
          "integer, so the timer is never armed and only the first check runs"}},
        // 71583 minutes are 4294980000 ms, 12704 ms past 2^32.
        {"a timer that wraps",
         Product({{Setting::TimerMinutes, "71583"}}),
         {"\"TimerMinutes\" 71583 is too large: its milliseconds do not fit a signed 32-bit "
          "integer and wrap to a check every 12704 ms"}},
        {"no log",
         logOff,
         {"\"LogSwitch\" is 0: the agent writes no log, so there is no trace to diagnose with"}},
        {"unusable files",
         brokenFiles,
         {"Tidewater.dat holds no settings (/p/Tidewater.dat): the agent reads the defaults",
          "UserInfo.dat cannot be read (/d/Brightwell/UserInfo.dat): the agent reads the "
          "defaults"}},
        {"files missing without RunWithSystem (a start failure, not a warning)", noFiles, {}},
        {"a data folder it cannot write",
         readOnly,
         {"the agent could not write its data folder /d/Brightwell: UserInfo.dat cannot be "
          "saved, so " +
          repeat}},
        {"a UserInfo.dat it cannot write",
         readOnlyFile,
         {"the agent could not write /d/Brightwell/UserInfo.dat: " + repeat}},
    };
    for (const Row& row : rows) {
        std::vector<std::string> got;
        for (const QString& warning : Evaluate(row.facts).warnings)
            got.push_back(warning.toStdString());
        EXPECT_EQ(got, row.warnings) << row.what;
    }
}

// A running agent's next check comes a whole number of TimerMinutes after the check in its log,
// and at least one interval after it; without an agent, the check is at the moment asked about.
TEST(Evaluate, TheCheckAVerdictIsFor) {
    // The agent's PID (0: none), the time of the last check logged, the time of the check.
    const std::tuple<const char*, qint64, const char*, const char*> rows[] = {
        {"no agent", 0, "10:00:00", "10:30:00"},
        {"an hour after 10:00", 42, "10:00:00", "11:00:00"},
        {"three hours after 08:00", 42, "08:00:00", "11:00:00"},
        {"a check just now", 42, "10:30:00", "11:30:00"},
        {"an unreadable date", 42, "xx:00:00", "10:30:00"},
    };
    for (const auto& [what, pid, logged, checkAt] : rows) {
        Facts facts = Product({{Setting::TimerMinutes, "60"}});
        facts.agent.pid = pid;
        facts.log.found = true;
        facts.log.lastCheck = {
            QString("[Src/ravel(5)][2024-03-05 %1][ReadConfigInfo: Enter]-->").arg(logged)};
        const Inspection in = Evaluate(facts);
        EXPECT_EQ(QDateTime::fromSecsSinceEpoch(in.checkAt).toString("yyyy-MM-dd hh:mm:ss"),
                  QString("2024-03-05 ") + checkAt)
            << what;
    }
}

// The repairs are the reading's writes that change a text, each with the text it replaces.
TEST(Evaluate, RepairsNameWhatTheyReplace) {
    Facts facts = Product({{Setting::Strategy, "circle"}});
    facts.texts[int(Setting::LastStatus)] = "";
    const Inspection in = Evaluate(facts);
    std::vector<std::string> repairs;
    for (const Inspection::Repair& r : in.repairs)
        repairs.push_back(
            (r.section + "/" + r.key + ": " + (r.from.isNull() ? "absent" : r.from) + " -> " + r.to)
                .toStdString());
    EXPECT_THAT(repairs, ElementsAre("UpdateStrategy/Strategy: circle -> cycle",
                                     "UpdateInfo/LastStatus: absent -> ready"));
    EXPECT_THAT(Evaluate(Product()).repairs, IsEmpty());
}
