// The schedule's rules, written once: reading and repairing the schedule, the start-up missed-delay
// rule, the launch decision and one check. They are straight-line code over ScheduleEnv, a small
// interface through which they read a setting, read the clock, draw a number, write a setting,
// log a line, start the updater and end the process, each at the moment the rule reaches it. The
// agent implements the interface over its files, clock, generator and log (Src/Schedule.cpp);
// ravel-schedule and ravel-fleet over values in memory. Nothing here opens a file by itself.
#pragma once

#include "Clock.h" // ToTimeT

#include <QDateTime>
#include <QString>
#include <QVariant>
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

// ---- Settings ----

// Every setting the rules read or write.
enum class Setting : quint8 {
    // Tidewater.dat, section "UpdateSetting"; never written.
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
};
constexpr int kSettingCount = int(Setting::DelayTimes) + 1;

// Where a setting lives.
struct SettingPlace {
    bool inUserInfo; // else Tidewater.dat
    const char* section;
    const char* key;
};
SettingPlace PlaceOf(Setting setting);
// The value a stored text reads as: the text, or the setting's default when the text is empty
// (the store gives an absent key and an empty text alike). "DelayTime" defaults to the integer -1,
// which converts to 4294967295; the others to texts ("cycle", "0", "720", "1").
QVariant SettingValue(Setting setting, const QString& text);

// ---- Dates ----

// "yyyy-MM-dd hh:mm:ss", local time: how every date is stored.
extern const char kDateFormat[];
// The moment QDateTime::fromString(text, kDateFormat) gives, as ToTimeT seconds, for every text
// and time zone: a repeated local hour reads as its first occurrence, a skipped one as the
// parser places it. Deterministic: conversions made before do not change it.
quint32 DateSeconds(const QString& text);
// `seconds` as local kDateFormat text.
QString DateText(quint32 seconds);

// ---- The environment of the rules ----

// The one argument a log line's format takes, if any.
struct LogArgument {
    // Moment: seconds since the epoch, for "%s" as local DateText (made only when written).
    enum class Kind : quint8 { None, Text, Int, UInt, Moment };
    Kind kind = Kind::None;
    QString text;
    qint64 number = 0;
    static LogArgument Text(const QString& text) { return {Kind::Text, text, 0}; }
    static LogArgument Int(int number) { return {Kind::Int, QString(), number}; }
    static LogArgument UInt(quint32 number) { return {Kind::UInt, QString(), number}; }
    static LogArgument Moment(quint32 seconds) { return {Kind::Moment, QString(), seconds}; }
    // The text a "%s" takes: the text, or the moment's DateText.
    QString Written() const;
};
// The message a format and its argument give: "%s" takes the text, "%d" and "%u" the number.
QString LogMessage(const char* format, const LogArgument& argument);

class ScheduleEnv {
public:
    virtual ~ScheduleEnv() = default;
    // The stored text of a setting; empty when it is absent or empty.
    virtual QString Read(Setting setting) = 0;
    // Stores `text` as the setting's value (UserInfo.dat settings only).
    virtual void Write(Setting setting, const QString& text) = 0;
    // The local date and time now.
    virtual QDateTime Now() = 0;
    // The time now in seconds since the epoch (ToTimeT of Now(), unless cheaper to know).
    virtual quint32 NowSeconds() { return ToTimeT(Now()); }
    // One number from the agent's generator (std::rand: 0 to 2147483647).
    virtual int Draw() = 0;
    // One log line: `format` (a text of Common/LogTexts.h) with `argument`, written by the call at
    // source line `line`.
    virtual void Log(int line, const char* format, const LogArgument& argument) = 0;
    // Raises (+1) or lowers (-1) the indentation of the lines that follow.
    virtual void Indent(int step) = 0;
    // Starts the updater with "auto"; 0, or -1 when the start is known to have failed.
    virtual int Launch() = 0;
    // The updater's path, as the launch lines name it.
    virtual QString UpdaterPath() = 0;
    // Ends the agent with status 0. Returns only where nothing ends (a tool's environment).
    virtual void Exit() = 0;
};

// ---- The rules ----

// True for a status of an interrupted run: exactly "querying", "downloading" or "downloaded".
bool NeedContinue(const QString& status);

// Reading the schedule from UserInfo.dat, traced as "ReadConfigInfo": the six keys, then the
// repairs of a strategy other than "cycle"/"never", a cycle of 0 (only an absent or empty key takes
// "ConfigCycleDefault"), a status neither resumable nor "ready", an unusable last launch (becomes
// now) and a round outside 1 to 3, each logged where it is logged and written back as found.
void ReadConfigInfo(ScheduleEnv& env, CONFIG_INFO& info);

// What one launch decision found.
struct LaunchDecision {
    bool cycleOver = false;
    bool forced = false;    // third round or later
    bool autoCheck = false; // AutoCheckNow decided
    bool drew = false;      // a delay was drawn and stored
    quint32 span = 0;       // drew: the seconds it was drawn over
    bool launch = false;
};
// The launch decision at the clock's reading: once the cycle is over (strictly), AutoCheckNow
// launches; else a drawn delay launches once its moment has come, the third round at once; with
// no delay drawn yet, one is drawn within TimeRandomRange minutes (half of it in round 2) and
// written to "DelayTime". Reads AutoCheckNow only once the cycle is over, and TimeRandomRange and
// the generator only to draw.
LaunchDecision DecideLaunch(ScheduleEnv& env, const CONFIG_INFO& info);
// DecideLaunch's answer.
bool IsTimeToLaunchUpdate(ScheduleEnv& env, const CONFIG_INFO& info);

// The start-up missed-delay rule on a record read: a delay of round 1 or 2 that ran out while the
// agent was away counts as one more round: "DelayTime" 1 (long past) and the round + 1 are written
// and logged, and `info` is updated alike. Reads the clock only for a round 1 or 2 with a delay.
// True when a round was counted.
bool CountMissedRound(ScheduleEnv& env, CONFIG_INFO& info);
// "CheckMissed": the schedule read, then CountMissedRound, traced.
void CheckMissed(ScheduleEnv& env);

// What a check does with the record once read.
enum class Branch : quint8 {
    Resume, // an interrupted run: launch now
    Idle,   // nothing (strategy "never", or an interrupted run under "never", with RunWithSystem)
    Exit,   // strategy "never" without RunWithSystem: the agent ends
    Decide, // ask the launch decision
};
Branch ChooseBranch(const CONFIG_INFO& info, bool runWithSystem);

// What a check did.
struct CheckOutcome {
    Branch branch = Branch::Decide;
    LaunchDecision decision; // Decide only
    bool launched = false;   // the updater was started
    bool exited = false;     // the agent ended (or would have)
    quint32 timerMinutes = 0;
    bool runWithSystem = true;
};
// Everything a check does after reading the record: resume, idle, end, or decide and launch.
CheckOutcome Act(ScheduleEnv& env, const CONFIG_INFO& info, bool runWithSystem);
// One check of the agent ("check()"): TimerMinutes and RunWithSystem, the schedule, Act, then the
// closing "Sleep" line unless the agent ends.
CheckOutcome Check(ScheduleEnv& env);

// The earliest moment after a check at `now` (which did not launch) at which a check could act
// differently: the first second after the cycle's end, or the drawn delay's moment; now + 1
// otherwise. May lie past the 32-bit clock.
qint64 NextChange(const CONFIG_INFO& info, quint32 now);

// ---- Numbers the rules use ----

// The end of the cycle, T: last launch + cycle days, in wrapping 32-bit seconds.
quint32 CycleEnd(const CONFIG_INFO& info);
// Seconds a delay is drawn over: the whole range in round 1, half of it in round 2, else 0.
quint32 DelaySpan(quint32 delayTimes, quint32 rangeMinutes);
// The drawn moment: now + 1 + draw * span / 2^31, so within now + 1 and now + max(span, 1).
// 64-bit: it may pass the end of the 32-bit clock (it is stored as such, and read back as the
// store's conversion reads it).
qint64 DrawnDelay(quint32 now, quint32 span, int draw);
// Milliseconds the agent's timer is armed with: TimerMinutes * 60000 in 32 bits, as a signed
// int. Negative: the timer is never armed (only the first check runs); 0: checks whenever idle.
int TimerIntervalMs(quint32 timerMinutes);
// The moment of the first check at or after `moment`, for checks at `first` and then every
// `intervalMs` (see TimerIntervalMs); -1 when no check comes.
qint64 FirstCheckFrom(quint32 first, int intervalMs, qint64 moment);

// ---- Values in memory ----

// The rules' environment over settings texts in memory, a fixed clock and a fixed draw: what the
// tools run the rules on. Writes change the texts; log lines are kept when `keepLines` is set.
class MemoryEnv : public ScheduleEnv {
public:
    struct Line {
        int line;
        int indent;
        QString message;
    };
    struct Written {
        Setting setting;
        QString text;
    };

    QString Read(Setting setting) override;
    void Write(Setting setting, const QString& text) override;
    QDateTime Now() override;
    quint32 NowSeconds() override;
    int Draw() override;
    void Log(int line, const char* format, const LogArgument& argument) override;
    void Indent(int step) override;
    int Launch() override;
    QString UpdaterPath() override;
    void Exit() override;

    // Sets the clock (a local date-time, or seconds since the epoch).
    void SetClock(const QDateTime& now);
    void SetClock(quint32 seconds);

    QString texts[kSettingCount];
    int draw = 0;
    bool keepLines = true;
    QList<Line> lines;
    QList<Written> writes;
    int launches = 0;
    int clockReadings = 0;
    int draws = 0;
    bool exited = false;
    QString updaterPath;

private:
    QDateTime clock_;
    quint32 seconds_ = 0;
    int indent_ = 0;
};

// ---- What to expect, for an inspector or a simulator ----

// The Tidewater.dat settings the checks use, as the agent converts them.
struct ScheduleSettings {
    quint32 timerMinutes = 1;
    bool runWithSystem = true;
    quint32 autoCheckNow = 1;
    quint32 timeRandomRange = 720; // minutes
};
ScheduleSettings SettingsFrom(ScheduleEnv& env);

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
// which applies the missed-delay rule first), checking every TimerMinutes after that, found by
// running the rules themselves at those checks with the smallest and the largest draw. Assumes the
// settings stay as they are.
Forecast Foresee(const CONFIG_INFO& record, const ScheduleSettings& settings, quint32 at,
                 bool startsNow);
