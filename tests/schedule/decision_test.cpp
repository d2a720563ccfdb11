// The decision core over values: what a run asks for and in which order, and what the
// forecast announces for each kind of schedule.
#include "Decision.h"
#include "ZoneScope.h"

#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <tuple>

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

// The needs a rule asks for, in order, then what it did, over these texts.
template <class Rule> std::string Trace(Rule rule, const std::map<Setting, QString>& texts) {
    TraceEnv env(texts);
    rule(env);
    return env.Trace();
}

// A schedule in round 1 whose one-day cycle ended a second before kAt, with `changed` on top.
std::map<Setting, QString> Due(std::map<Setting, QString> changed) {
    changed.insert({{Setting::UpdateCycle, "1"},
                    {Setting::DelayTimes, "1"},
                    {Setting::LastStatus, "ready"},
                    {Setting::LastLaunchTime, "2024-03-04 14:01:59"}});
    return changed;
}
} // namespace

TEST(DecisionCore, RunsAskForEachValueOnlyWhenTheyReachIt) {
    using N = Setting;
    const std::string read = "Strategy LastLaunchTime LastStatus DelayTime UpdateCycle DelayTimes ",
                      check = "TimerMinutes RunWithSystem " + read;
    const QString fresh = "2024-03-05 14:00:00";
    const auto runCheck = [](ScheduleEnv& env) { Check(env); };
    const auto missed = [](ScheduleEnv& env) { CheckMissed(env); };
    // The rule, the texts; the values asked for, then the writes, in order.
    const std::tuple<const char*, std::function<void(ScheduleEnv&)>, std::map<Setting, QString>,
                     std::string>
        rows[] = {
            {"empty files: every repair, the clock for the new last launch, then the decision's "
             "own reading; a cycle that starts now is not over",
             runCheck,
             {},
             check + "ConfigCycleDefault UpdateCycle clock clock | UpdateCycle=1 LastStatus=ready "
                     "LastLaunchTime=2024-03-05 14:02:00 DelayTimes=1 "},
            {"due, AutoCheckNow absent: no range, no draw", runCheck, Due({}),
             check + "clock AutoCheckNow | launch "},
            {"due, AutoCheckNow 0, no delay drawn: the range and one draw, no launch", runCheck,
             Due({{N::AutoCheckNow, "0"}, {N::DelayTime, "0"}}),
             check + "clock AutoCheckNow TimeRandomRange draw | DelayTime=" +
                 std::to_string(at + 1) + " "},
            {"a drawn delay already past: no range, no draw", runCheck,
             Due({{N::DelayTimes, "2"}, {N::AutoCheckNow, "0"}, {N::DelayTime, "5"}}),
             check + "clock AutoCheckNow | launch "},
            {"not over: no AutoCheckNow", runCheck, Due({{N::LastLaunchTime, fresh}}),
             check + "clock | "},
            {"\"never\" without RunWithSystem: no clock, the agent ends", runCheck,
             Due({{N::Strategy, "never"}, {N::RunWithSystem, "0"}}), check + "| exit"},
            {"\"never\" without RunWithSystem: an interrupted run resumes", runCheck,
             Due({{N::Strategy, "never"},
                  {N::LastStatus, "downloading"},
                  {N::LastLaunchTime, fresh},
                  {N::RunWithSystem, "0"}}),
             check + "| launch "},
            // The missed-delay rule reads the clock only for a round 1 or 2 with a delay set.
            {"missed: round 2 ran out", missed, Due({{N::DelayTimes, "2"}, {N::DelayTime, "100"}}),
             read + "clock | DelayTime=1 DelayTimes=3 "},
            {"missed: round 3", missed, Due({{N::DelayTimes, "3"}, {N::DelayTime, "100"}}),
             read + "| "},
            {"missed: a delay due now", missed, Due({{N::DelayTime, QString::number(at)}}),
             read + "clock | "},
        };
    for (const auto& [what, rule, texts, expected] : rows)
        EXPECT_EQ(Trace(rule, texts), expected) << what;
}

TEST(DecisionCore, ForecastForEachVerdict) {
    const quint32 absent = kDelayAbsent, clockEnd = 4294967295u;
    struct Row {
        const char* what;
        CONFIG_INFO record;        // strategy, cycle, round, continue, delay, last launch
        ScheduleSettings settings; // timer, RunWithSystem, AutoCheckNow, range
        std::string expected;      // verdict path missed earliest-at latest-at ("-" when none)
        bool startsNow = false;
        quint32 now = at;
    };
    // Last launches whose one-day cycle is over, ends now, and has most of a day to run.
    const quint32 over = at - kDay - 1, ends = at - kDay, recent = at - 100;
    const ScheduleSettings dflt, noAuto{1, true, 0, 720}, alone{1, false, 1, 720};
    const Row rows[] = {
        {"over by a second", {1, 1, 1, 0, 0, over}, dflt, "launch auto 0 0 0"},
        {"ends at the boundary", {1, 1, 1, 0, 0, ends}, dflt, "wait-cycle auto 0 60 60"},
        {"checks whenever idle", {1, 1, 1, 0, 0, ends}, {0, true, 1, 720}, "wait-cycle auto 0 1 1"},
        {"timer never armed",
         {1, 1, 1, 0, 0, ends},
         {35792, true, 1, 720},
         "wait-cycle none 0 - -"},
        {"round 1 draws", {1, 1, 1, 0, 0, over}, noAuto, "wait-delay draw 0 60 43200"},
        {"round 2 draws half", {1, 1, 2, 0, 0, over}, noAuto, "wait-delay draw 0 60 21600"},
        {"span 0 is 1 s", {1, 1, 2, 0, 0, over}, {1, true, 0, 1}, "wait-delay draw 0 60 60"},
        {"draw after the cycle", {1, 1, 1, 0, 0, recent}, noAuto, "wait-cycle draw 0 86400 129540"},
        {"round 3", {1, 1, 3, 0, 0, over}, noAuto, "launch forced 0 0 0"},
        {"pending delay", {1, 1, 1, 0, at + 100, over}, noAuto, "wait-delay delay-wait 0 120 120"},
        {"delay past", {1, 1, 2, 0, at - 5, over}, noAuto, "launch delay-due 0 0 0"},
        {"absent delay", {1, 1, 1, 0, absent, recent}, noAuto, "held none 0 - -"},
        {"absent delay, round 3", {1, 1, 3, 0, absent, over}, noAuto, "launch forced 0 0 0"},
        {"missed at start",
         {1, 1, 1, 0, at - 5, recent},
         noAuto,
         "wait-cycle delay-due 1 86340 86340",
         true},
        {"not missed when running",
         {1, 1, 1, 0, at - 5, recent},
         noAuto,
         "wait-cycle delay-due 0 86340 86340"},
        {"never missed in round 3",
         {1, 1, 3, 0, at - 5, recent},
         noAuto,
         "wait-cycle forced 0 86340 86340",
         true},
        {"cycle past the clock",
         {1, 1, 1, 0, 0, clockEnd - 100},
         dflt,
         "wait-cycle none 0 - -",
         false,
         clockEnd - 90},
        {"future last launch", {1, 30, 1, 0, 0, at + 10}, dflt, "launch auto 0 0 0"},
        {"resume", {1, 1, 1, 1, 0, at}, dflt, "resume none 0 0 0"},
        {"resume under never", {0, 1, 1, 1, 0, at}, alone, "resume none 0 0 0"},
        {"resident under never", {0, 1, 1, 1, 0, at}, dflt, "never none 0 - -"},
        {"never, resident", {0, 1, 1, 0, 0, over}, dflt, "never none 0 - -"},
        {"never, not resident", {0, 1, 1, 0, 0, over}, alone, "ends none 0 - -"},
    };
    static const char* const kPaths[] = {"none",      "auto",       "forced",
                                         "delay-due", "delay-wait", "draw"};
    const auto relative = [](qint64 moment, quint32 from) {
        return moment < 0 ? std::string("-") : std::to_string(moment - from);
    };
    for (const Row& row : rows) {
        const Forecast f = Foresee(row.record, row.settings, row.now, row.startsNow);
        EXPECT_EQ(std::string(VerdictName(f.verdict)) + " " + kPaths[int(f.path)] + " " +
                      std::to_string(f.missed) + " " + relative(f.earliest, row.now) + " " +
                      relative(f.latest, row.now),
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
