// The launch decision as plain functions over values: the texts read from the settings files,
// the clock's readings and the random draw go in; the record, the outcome, the values to write
// back and the log lines come out. Nothing here opens a file, reads the clock or draws a number.
//
// Two layers:
// - the rules over parsed numbers (CycleOver, DecideLaunch, ...): cheap, no text, no allocation,
//   for callers that keep the schedule as numbers (a simulator);
// - the rule runs (ReadScheduleRule, LaunchRule, MissedRule, CheckRule), which also read and
//   repair the settings texts and produce the agent's log lines and writes in the agent's order.
//   A run asks for each value only when it reaches it (see Need), so that a caller doing real
//   input and output reads, writes and logs in exactly that order.
#pragma once

#include <QDateTime>
#include <QString>
#include <QtGlobal>

// The schedule record, filled afresh from UserInfo.dat on every check.
struct CONFIG_INFO {
    quint32 nStrategy;       // 1 cycle, 0 never
    quint32 nUpdateCycle;    // days
    quint32 nDelayTimes;     // delay round, 1 to 3 after reading
    quint32 bContinue;       // an interrupted run is to be resumed
    quint32 nDelayTime;      // seconds since the epoch; 0 = no delay drawn yet
    quint32 nLastLaunchTime; // seconds since the epoch
};

// "DelayTime" absent: delayed to the end of the 32-bit clock (and an unusable date's seconds).
constexpr quint32 kDelayAbsent = 4294967295u;

// ---- The rules over parsed numbers ----

// True for a status of an interrupted run: exactly "querying", "downloading" or "downloaded".
bool NeedContinue(const QString& status);

// The settings of Tidewater.dat that the decision uses, as numbers; defaults when absent.
struct ScheduleSettings {
    quint32 timerMinutes = 1;
    bool runWithSystem = true;
    quint32 autoCheckNow = 1;
    quint32 timeRandomRange = 720; // minutes
};

// The end of the cycle, T: last launch + cycle days, in wrapping 32-bit seconds.
quint32 CycleEnd(const CONFIG_INFO& info);
// True when now - last launch exceeds the cycle (both wrapping 32-bit: a future launch is over).
bool CycleOver(const CONFIG_INFO& info, quint32 now);
// The third delay round and later launch without waiting for a delay.
bool ForcedRound(const CONFIG_INFO& info);
// Seconds a delay is drawn over: the whole range in round 1, half of it in round 2, else 0.
quint32 DelaySpan(quint32 delayTimes, quint32 rangeMinutes);
// The drawn moment: now + 1 + draw * span / 2^31 (draw from std::rand, 0 to 2147483647), so
// within now + 1 and now + max(span, 1). 64-bit: it may pass the end of the 32-bit clock.
qint64 DrawnDelay(quint32 now, quint32 span, int draw);
// The "DelayTime" the next check reads after the drawn moment is written: a moment past the
// 32-bit clock does not read as a number and gives 0 (a new draw).
quint32 StoredDelay(qint64 moment);
// True when the start-up missed-delay rule may apply: round 1 or 2 with a delay set.
bool DelayCanBeMissed(const CONFIG_INFO& info);
// The start-up rule: a delay of round 1 or 2 that ran out before now counts as a missed round.
bool MissedDelay(const CONFIG_INFO& info, quint32 now);
// The record as the agent reads it back after counting a missed round: the delay is set to
// 1 (long past) and the round goes up by one.
void CountMissedRound(CONFIG_INFO& info);

// What a check does before any decision.
enum class Branch : quint8 {
    Resume, // an interrupted run: launch now
    Idle,   // nothing (strategy "never", or an interrupted run under "never", with RunWithSystem)
    Exit,   // strategy "never" without RunWithSystem: the agent ends
    Decide, // ask the launch decision
};
Branch ChooseBranch(const CONFIG_INFO& info, bool runWithSystem);

// The launch decision of one check at `now`. When `draws` is set the caller draws a delay now
// (DrawnDelay with DelaySpan(info.nDelayTimes, range) and one std::rand()) and stores it as the
// new "DelayTime"; `launch` is already the answer after that draw.
struct LaunchStep {
    bool cycleOver = false;
    bool forced = false;    // third round or later
    bool autoCheck = false; // AutoCheckNow decided
    bool draws = false;
    bool launch = false;
};
LaunchStep DecideLaunch(const CONFIG_INFO& info, quint32 now, quint32 autoCheckNow);

// Milliseconds the agent's timer is armed with: TimerMinutes * 60000 in 32 bits, as a signed
// int. Negative: the timer is never armed (only the first check runs); 0: checks whenever idle.
int TimerIntervalMs(quint32 timerMinutes);

// ---- What to expect, for an inspector or a simulator ----

enum class Verdict : quint8 {
    Ends,      // the agent ends at its next check
    Never,     // it stays and never launches
    Held,      // the launch is held by an absent "DelayTime" (until the end of the 32-bit clock)
    Resume,    // the next check resumes an interrupted run
    Launch,    // the next check launches
    WaitCycle, // the cycle is not over yet
    WaitDelay, // the cycle is over and the launch waits for a delay, drawn or to be drawn
};
// "ends", "never", "held", "resume", "launch", "wait-cycle", "wait-delay".
const char* VerdictName(Verdict verdict);

// Which rule makes the launch, once the cycle is over.
enum class LaunchPath : quint8 {
    None,      // no launch through the cycle (see the verdict)
    Auto,      // AutoCheckNow: at the first check after the cycle's end
    Forced,    // third round: at the first check after the cycle's end
    DelayDue,  // a drawn delay already past at that check
    DelayWait, // a drawn delay still ahead: at the first check at or after it
    Draw,      // a delay of 1 s to max(span, 1) s is drawn at that check
};

struct Forecast {
    Verdict verdict = Verdict::Never;
    LaunchPath path = LaunchPath::None;
    bool missed = false;  // the start-up rule counted a missed round first
    CONFIG_INFO record{}; // the record the checks see (after the missed round)
    quint32 cycleEnd = 0; // T
    qint64 decideAt = -1; // the check that decides (the first after T), -1 when none comes
    quint32 span = 0;     // Draw: seconds the delay is drawn over
    qint64 earliest = -1; // bounds of the next launch in seconds since the epoch; -1: none
    qint64 latest = -1;
};
// The next launch for an agent whose next check is at `at` (startsNow: an agent starting then,
// which applies the missed-delay rule first), checking every TimerMinutes after that.
// Assumes the settings stay as they are and drawn moments stay within the 32-bit clock.
Forecast Foresee(const CONFIG_INFO& record, const ScheduleSettings& settings, quint32 at,
                 bool startsNow);
// The moment of the first check at or after `moment`, for checks at `first` and then every
// `intervalMs` (see TimerIntervalMs); -1 when no check comes.
qint64 FirstCheckFrom(quint32 first, int intervalMs, qint64 moment);

// ---- Rule runs over texts ----

// Every value a run may ask for, in no particular order.
enum class Need : quint8 {
    None,
    // Tidewater.dat, section "UpdateSetting".
    TimerMinutes,
    RunWithSystem,
    ConfigCycleDefault,
    AutoCheckNow,
    TimeRandomRange,
    // UserInfo.dat.
    Strategy,
    LastLaunchTime,
    LastStatus,
    DelayTime,
    UpdateCycle,
    DelayTimes,
    UpdateCycleAgain, // "UpdateCycle" read again during its repair
    // Not settings.
    Clock, // a reading of the local clock; a run may ask more than once
    Draw,  // one std::rand()
};
constexpr int kNeedCount = int(Need::Draw) + 1;

// Where a setting lives. Valid for the setting needs only (TimerMinutes to UpdateCycleAgain).
struct SettingPlace {
    bool inUserInfo; // else Tidewater.dat
    const char* section;
    const char* key;
};
SettingPlace PlaceOf(Need need);

// What the caller has read so far. Setting texts are stored as found, empty for an absent key
// (the store gives absent and empty alike); the runs apply the defaults.
struct Known {
    void Set(Need need, const QString& text);
    // A clock reading: the runs take readings in the order given (a run takes at most two; more
    // than four are dropped). Pin makes every reading this one.
    void AddClock(const QDateTime& now);
    void Pin(const QDateTime& now);
    void SetDraw(int draw);
    bool Has(Need need) const { return (has >> int(need)) & 1u; }

    QString text[kNeedCount];
    QDateTime clock[4];
    int clocks = 0;
    bool pinned = false;
    int draw = 0;
    quint32 has = 0;
};

// The Tidewater.dat settings as the agent converts the texts known (defaults for the others).
ScheduleSettings SettingsFrom(const Known& known);

// The log lines the rules write. Each has a printf format (NoteFormat) and one argument kind.
enum class Note : quint8 {
    Enter, // "%s: Enter" with the run's name; the lines after it are indented one step more
    Leave, // "%s: Leave"
    StrategyNotCorrect,
    UpdateCycleNotCorrect,
    DelayTimesNotCorrect,
    TimeUsedUp,
    DelayTimesAtLeast3,
    AutoCheckNow,
    DelayTo,
    Missed,
    Resume,
    NeverExit,
    Ready, // takes the updater's path, which the caller knows
    Sleep,
};
enum class Argument : quint8 { None, Text, Int, UInt, UpdaterPath };
const char* NoteFormat(Note note);
// The source line that the log records for the note: one line per message.
int NoteLine(Note note);
Argument ArgumentOf(Note note);

// One effect of a run, in order: a log line, a value written to UserInfo.dat, the updater
// started with "auto", or the agent's end with status 0.
struct Effect {
    enum class Kind : quint8 { Log, Write, Launch, Exit };
    Kind kind = Kind::Log;
    Note note = Note::Enter; // Log
    Need key = Need::None;   // Write: the setting written
    const char* name = "";   // Enter, Leave: the run's name
    qint64 number = 0;       // the value (Write without text, DelayTo, Missed, Sleep, ...)
    QString text;            // Write, StrategyNotCorrect: the text, when not a number
};
// The text of a line's argument: Text notes their text, DelayTo its moment as local
// "yyyy-MM-dd hh:mm:ss" (low 32 bits).
QString ArgumentText(const Effect& effect);
// The line's message as the log shows it between the brackets (formatting on demand only).
QString NoteText(const Effect& effect, const QString& updaterPath = QString());
// The text a Write stores.
QString WrittenText(const Effect& effect);

constexpr int kMaxEffects = 24;
struct Outcome {
    Need need = Need::None; // the run stopped here: supply it and run again (see RunRule)
    CONFIG_INFO info{};     // the record read (every run but LaunchRule)
    bool launch = false;    // LaunchRule: the answer; CheckRule: the updater was started
    bool exits = false;     // CheckRule: the agent ends
    quint32 timerMinutes = 0;
    bool runWithSystem = true;
    int clocksUsed = 0;
    Effect effects[kMaxEffects];
    int effectCount = 0;
};

// Reading the schedule from UserInfo.dat ("ReadConfigInfo"): the six keys, then the repairs
// of a bad strategy, a cycle of 0, a status that is not a run's, an unusable last launch date
// and a round outside 1 to 3, each written back as it is found.
Outcome ReadScheduleRule(const Known& known);
// Whether the check at the clock's next reading launches ("IsTimeToLaunchUpdate"); asks for
// AutoCheckNow once the cycle is over and for TimeRandomRange and a draw only to draw a delay.
Outcome LaunchRule(const CONFIG_INFO& info, const Known& known);
// The start-up missed-delay rule ("CheckMissed"), reading the schedule first.
Outcome MissedRule(const Known& known);
// One check: TimerMinutes, RunWithSystem, the schedule, then resume, "never" or decide, and
// the closing "Sleep" line unless the agent ends.
Outcome CheckRule(const Known& known);

// Runs a rule to its end over a caller that supplies each needed value when asked and carries
// out each effect as it appears; the effects come out once each, in order.
template <class Rule, class Supply, class Carry>
Outcome RunRule(Rule rule, Known& known, Supply supply, Carry carry) {
    int done = 0;
    for (;;) {
        Outcome outcome = rule(known);
        for (; done < outcome.effectCount; ++done)
            carry(outcome.effects[done]);
        if (outcome.need == Need::None)
            return outcome;
        supply(outcome.need, known);
    }
}
