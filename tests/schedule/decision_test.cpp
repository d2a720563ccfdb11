// The decision core over values: what a run asks for and in which order, and what the
// forecast announces for each kind of schedule.
#include "Decision.h"
#include "ZoneScope.h"

#include <gtest/gtest.h>
#include <map>

namespace {
const QDateTime kAt(QDate(2024, 3, 5), QTime(14, 2, 0));
const quint32 at = quint32(kAt.toSecsSinceEpoch()), kDay = 86400;

// The rules over these texts (absent keys read as empty), clock readings of kAt and draws of 0,
// recording the values asked for in order and the writes and launches.
class TraceEnv : public MemoryEnv {
public:
    explicit TraceEnv(const std::map<Setting, QString>& given) {
        for (const auto& [setting, text] : given)
            texts[int(setting)] = text;
        SetClock(kAt);
        draw = 0; // a delay of 0 * span / 2^31 + 1 = 1 s
    }
    QString Read(Setting setting) override {
        asked += std::string(PlaceOf(setting).key) + " ";
        return MemoryEnv::Read(setting);
    }
    void Write(Setting setting, const QString& text) override {
        done += std::string(PlaceOf(setting).key) + "=" + text.toStdString() + " ";
        MemoryEnv::Write(setting, text);
    }
    QDateTime Now() override { return asked += "clock ", MemoryEnv::Now(); }
    quint32 NowSeconds() override { return asked += "clock ", MemoryEnv::NowSeconds(); }
    int Draw() override { return asked += "draw ", MemoryEnv::Draw(); }
    int Launch() override { return done += "launch ", MemoryEnv::Launch(); }
    // The needs in the order asked, then what was done.
    std::string Trace() const { return asked + "| " + done + (exited ? "exit" : ""); }

private:
    std::string asked, done;
};

std::string TraceCheck(const std::map<Setting, QString>& texts) {
    TraceEnv env(texts);
    Check(env);
    return env.Trace();
}

std::string TraceMissed(const std::map<Setting, QString>& texts) {
    TraceEnv env(texts);
    CheckMissed(env);
    return env.Trace();
}
} // namespace

TEST(DecisionCore, RunsAskForEachValueOnlyWhenTheyReachIt) {
    using N = Setting;
    const std::string read = "Strategy LastLaunchTime LastStatus DelayTime UpdateCycle DelayTimes ",
                      check = "TimerMinutes RunWithSystem " + read;
    const QString ready = "ready", due = "2024-03-04 14:01:59", fresh = "2024-03-05 14:00:00";
    // Texts; the values asked for, then the writes, in order.
    const std::pair<std::map<Setting, QString>, std::string> checks[] = {
        // Empty files: every repair, the clock for the new last launch, then the decision's
        // own reading; a cycle that starts now is not over.
        {{},
         check + "ConfigCycleDefault UpdateCycle clock clock | UpdateCycle=1 LastStatus=ready "
                 "LastLaunchTime=2024-03-05 14:02:00 DelayTimes=1 "},
        // Due with AutoCheckNow absent: no range, no draw.
        {{{N::UpdateCycle, "1"},
          {N::DelayTimes, "1"},
          {N::LastStatus, ready},
          {N::LastLaunchTime, due}},
         check + "clock AutoCheckNow | launch "},
        // Due with AutoCheckNow 0 and no delay drawn: the range and one draw, no launch.
        {{{N::UpdateCycle, "1"},
          {N::DelayTimes, "1"},
          {N::LastStatus, ready},
          {N::LastLaunchTime, due},
          {N::AutoCheckNow, "0"},
          {N::DelayTime, "0"}},
         check + "clock AutoCheckNow TimeRandomRange draw | DelayTime=" + std::to_string(at + 1) +
             " "},
        // A drawn delay already past: no range, no draw.
        {{{N::UpdateCycle, "1"},
          {N::DelayTimes, "2"},
          {N::LastStatus, ready},
          {N::LastLaunchTime, due},
          {N::AutoCheckNow, "0"},
          {N::DelayTime, "5"}},
         check + "clock AutoCheckNow | launch "},
        // Not over: no AutoCheckNow.
        {{{N::UpdateCycle, "1"},
          {N::DelayTimes, "1"},
          {N::LastStatus, ready},
          {N::LastLaunchTime, fresh}},
         check + "clock | "},
        // "never": no clock; without RunWithSystem the agent ends; an interrupted run resumes.
        {{{N::Strategy, "never"},
          {N::UpdateCycle, "1"},
          {N::DelayTimes, "1"},
          {N::LastStatus, ready},
          {N::LastLaunchTime, due},
          {N::RunWithSystem, "0"}},
         check + "| exit"},
        {{{N::Strategy, "never"},
          {N::UpdateCycle, "1"},
          {N::DelayTimes, "1"},
          {N::LastStatus, "downloading"},
          {N::LastLaunchTime, fresh},
          {N::RunWithSystem, "0"}},
         check + "| launch "},
    };
    for (const auto& [texts, expected] : checks)
        EXPECT_EQ(TraceCheck(texts), expected);
    // The missed-delay rule reads the clock only for a round 1 or 2 with a delay set.
    const std::pair<std::map<Setting, QString>, std::string> missed[] = {
        {{{N::UpdateCycle, "1"},
          {N::DelayTimes, "2"},
          {N::LastStatus, ready},
          {N::LastLaunchTime, due},
          {N::DelayTime, "100"}},
         read + "clock | DelayTime=1 DelayTimes=3 "},
        {{{N::UpdateCycle, "1"},
          {N::DelayTimes, "3"},
          {N::LastStatus, ready},
          {N::LastLaunchTime, due},
          {N::DelayTime, "100"}},
         read + "| "},
        {{{N::UpdateCycle, "1"},
          {N::DelayTimes, "1"},
          {N::LastStatus, ready},
          {N::LastLaunchTime, due},
          {N::DelayTime, QString::number(at)}},
         read + "clock | "},
    };
    for (const auto& [texts, expected] : missed)
        EXPECT_EQ(TraceMissed(texts), expected);
}

TEST(DecisionCore, ForecastForEachVerdict) {
    const quint32 absent = kDelayAbsent, clockEnd = 4294967295u;
    struct Row {
        const char* what;
        CONFIG_INFO record;        // strategy, cycle, round, continue, delay, last launch
        ScheduleSettings settings; // timer, RunWithSystem, AutoCheckNow, range
        quint32 at;
        bool startsNow;
        std::string expected; // verdict path missed earliest-at latest-at ("-" when none)
    };
    const ScheduleSettings defaults, noAuto{1, true, 0, 720};
    const Row rows[] = {
        {"over by a second",
         {1, 1, 1, 0, 0, at - kDay - 1},
         defaults,
         at,
         false,
         "launch auto 0 0 0"},
        {"ends at the boundary",
         {1, 1, 1, 0, 0, at - kDay},
         defaults,
         at,
         false,
         "wait-cycle auto 0 60 60"},
        {"checks whenever idle",
         {1, 1, 1, 0, 0, at - kDay},
         {0, true, 1, 720},
         at,
         false,
         "wait-cycle auto 0 1 1"},
        {"timer never armed",
         {1, 1, 1, 0, 0, at - kDay},
         {35792, true, 1, 720},
         at,
         false,
         "wait-cycle none 0 - -"},
        {"round 1 draws",
         {1, 1, 1, 0, 0, at - kDay - 1},
         noAuto,
         at,
         false,
         "wait-delay draw 0 60 43200"},
        {"round 2 draws half",
         {1, 1, 2, 0, 0, at - kDay - 1},
         noAuto,
         at,
         false,
         "wait-delay draw 0 60 21600"},
        {"span 0 is 1 s",
         {1, 1, 2, 0, 0, at - kDay - 1},
         {1, true, 0, 1},
         at,
         false,
         "wait-delay draw 0 60 60"},
        {"draw after the cycle",
         {1, 1, 1, 0, 0, at - 100},
         noAuto,
         at,
         false,
         "wait-cycle draw 0 86400 129540"},
        {"round 3", {1, 1, 3, 0, 0, at - kDay - 1}, noAuto, at, false, "launch forced 0 0 0"},
        {"pending delay",
         {1, 1, 1, 0, at + 100, at - kDay - 1},
         noAuto,
         at,
         false,
         "wait-delay delay-wait 0 120 120"},
        {"delay past",
         {1, 1, 2, 0, at - 5, at - kDay - 1},
         noAuto,
         at,
         false,
         "launch delay-due 0 0 0"},
        {"absent delay", {1, 1, 1, 0, absent, at - 100}, noAuto, at, false, "held none 0 - -"},
        {"absent delay, round 3",
         {1, 1, 3, 0, absent, at - kDay - 1},
         noAuto,
         at,
         false,
         "launch forced 0 0 0"},
        {"missed at start",
         {1, 1, 1, 0, at - 5, at - 100},
         noAuto,
         at,
         true,
         "wait-cycle delay-due 1 86340 86340"},
        {"not missed when running",
         {1, 1, 1, 0, at - 5, at - 100},
         noAuto,
         at,
         false,
         "wait-cycle delay-due 0 86340 86340"},
        {"never missed in round 3",
         {1, 1, 3, 0, at - 5, at - 100},
         noAuto,
         at,
         true,
         "wait-cycle forced 0 86340 86340"},
        {"cycle past the clock",
         {1, 1, 1, 0, 0, clockEnd - 100},
         defaults,
         clockEnd - 90,
         false,
         "wait-cycle none 0 - -"},
        {"future last launch", {1, 30, 1, 0, 0, at + 10}, defaults, at, false, "launch auto 0 0 0"},
        {"resume", {1, 1, 1, 1, 0, at}, defaults, at, false, "resume none 0 0 0"},
        {"resume under never",
         {0, 1, 1, 1, 0, at},
         {1, false, 1, 720},
         at,
         false,
         "resume none 0 0 0"},
        {"resident under never", {0, 1, 1, 1, 0, at}, defaults, at, false, "never none 0 - -"},
        {"never, resident",
         {0, 1, 1, 0, 0, at - kDay - 1},
         defaults,
         at,
         false,
         "never none 0 - -"},
        {"never, not resident",
         {0, 1, 1, 0, 0, at - kDay - 1},
         {1, false, 1, 720},
         at,
         false,
         "ends none 0 - -"},
    };
    static const char* const kPaths[] = {"none",      "auto",       "forced",
                                         "delay-due", "delay-wait", "draw"};
    const auto relative = [](qint64 moment, quint32 from) {
        return moment < 0 ? std::string("-") : std::to_string(moment - from);
    };
    for (const Row& row : rows) {
        const Forecast f = Foresee(row.record, row.settings, row.at, row.startsNow);
        EXPECT_EQ(std::string(VerdictName(f.verdict)) + " " + kPaths[int(f.path)] + " " +
                      std::to_string(f.missed) + " " + relative(f.earliest, row.at) + " " +
                      relative(f.latest, row.at),
                  row.expected)
            << row.what;
    }
}

// The last launch read from its text, in UTC, worked out by hand: a plain date-time is its moment;
// a text the date parser does not take (an impossible date or time, another shape, blanks, digits
// other than ASCII) or a moment outside the 32-bit clock (before 1970, or exactly its last second,
// which is the unusable mark) starts the cycle at the clock's reading.
TEST(DecisionCore, LastLaunchTexts) {
    ZoneScope utc("UTC");
    MemoryEnv clock;
    clock.SetClock(kAt);
    const quint32 now = clock.NowSeconds();
    const std::pair<const char*, quint32> rows[] = {
        {"2024-03-04 14:00:00", 1709560800u}, // 19786 days and 14 hours
        {"2024-02-29 23:59:59", 1709251199u}, // a leap day
        {"1970-01-02 00:00:00", 86400u},
        {"2106-02-07 06:28:15", now}, // 4294967295: the mark of an unusable date
        {"1969-12-31 23:59:59", now}, // -1
        {"0999-01-01 00:00:00", now},
        {"2023-02-29 10:00:00", now}, // no leap day
        {"2024-13-01 00:00:00", now},
        {"2024-03-04 24:00:00", now},
        {"2024-03-04 14:00:60", now},
        {"2024-03-04T14:00:00", now},
        {"2024-03-04 14:00:0", now},
        {" 2024-03-04 14:00:00", now},
        {"2024-03-04 14:00:00 ", now},
        {"0", now},
        {"", now},
        {"2024-03-04 1a:00:00", now},
        {"\u0662\u0660\u0662\u0664-03-04 14:00:00", now}, // Arabic-Indic digits
    };
    for (const auto& [text, expected] : rows) {
        MemoryEnv env;
        env.SetClock(kAt);
        env.texts[int(Setting::LastLaunchTime)] = QString::fromUtf8(text);
        CONFIG_INFO info;
        ReadConfigInfo(env, info);
        EXPECT_EQ(info.nLastLaunchTime, expected) << "LastLaunchTime \"" << text << "\"";
    }
}
