#include "Decision.h"

#include "LogTexts.h"

#include <ctime>

const char kDateFormat[] = "yyyy-MM-dd hh:mm:ss";

namespace {
constexpr quint32 kSecondsPerDay = 86400;

// ---- Dates ----

// Days from 1970-01-01 to the given day of the proleptic Gregorian calendar.
qint64 DaysFromCivil(int year, int month, int day) {
    year -= month <= 2;
    const int era = (year >= 0 ? year : year - 399) / 400;
    const int yearOfEra = year - era * 400;
    const int dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const int dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return qint64(era) * 146097 + dayOfEra - 719468;
}

// The number in text[at, at + count) when every character there is an ASCII digit, else -1.
int DigitsAt(const QString& text, int at, int count) {
    int value = 0;
    for (int i = at; i < at + count; ++i) {
        const char16_t c = text.at(i).unicode();
        if (c < u'0' || c > u'9')
            return -1;
        value = value * 10 + (c - u'0');
    }
    return value;
}

// The local wall-clock reading of a plain "yyyy-MM-dd hh:mm:ss" text with a valid date and time
// in 1971 to 2105, as seconds counted like UTC ones; false for any other text.
bool PlainWallClock(const QString& text, qint64& wall) {
    static const char kShape[] = "dddd-dd-dd dd:dd:dd";
    if (text.size() != 19)
        return false;
    for (int i = 0; i < 19; ++i)
        if (kShape[i] == 'd' ? DigitsAt(text, i, 1) < 0 : text.at(i) != QLatin1Char(kShape[i]))
            return false;
    const int year = DigitsAt(text, 0, 4), month = DigitsAt(text, 5, 2), day = DigitsAt(text, 8, 2);
    const int hour = DigitsAt(text, 11, 2), minute = DigitsAt(text, 14, 2);
    const int second = DigitsAt(text, 17, 2);
    if (year < 1971 || year > 2105 || !QDate::isValid(year, month, day) ||
        !QTime::isValid(hour, minute, second))
        return false;
    wall = DaysFromCivil(year, month, day) * kSecondsPerDay + hour * 3600 + minute * 60 + second;
    return true;
}

// The local time's offset from UTC at the moment `seconds`.
bool OffsetAt(qint64 seconds, long& offset) {
    const time_t moment = time_t(seconds);
    struct tm local;
    if (!localtime_r(&moment, &local))
        return false;
    offset = local.tm_gmtoff;
    return true;
}

// The one moment a wall-clock reading stands for when no change of the local offset lies within
// a day of it; false near a change, where a reading may occur twice or not at all.
bool UnambiguousMoment(qint64 wall, qint64& moment) {
    long before = 0, after = 0, at = 0;
    if (!OffsetAt(wall - kSecondsPerDay, before) || !OffsetAt(wall + kSecondsPerDay, after) ||
        before != after)
        return false;
    moment = wall - before;
    return OffsetAt(moment, at) && at == before;
}

// ---- Reading settings ----

QString ReadText(ScheduleEnv& env, Setting setting) {
    return SettingValue(setting, env.Read(setting)).toString();
}

quint32 ReadUInt(ScheduleEnv& env, Setting setting) {
    return SettingValue(setting, env.Read(setting)).toUInt();
}

bool ReadBool(ScheduleEnv& env, Setting setting) {
    return SettingValue(setting, env.Read(setting)).toBool();
}

// ---- Log lines: each call names its own source line ----

void Note(ScheduleEnv& env, int line, const char* format,
          const LogArgument& argument = LogArgument()) {
    env.Log(line, format, argument);
}

void Enter(ScheduleEnv& env, int line, const char* name) {
    env.Log(line, logtext::kEnter, LogArgument::Text(QLatin1String(name)));
    env.Indent(1);
}

void Leave(ScheduleEnv& env, int line, const char* name) {
    env.Indent(-1);
    env.Log(line, logtext::kLeave, LogArgument::Text(QLatin1String(name)));
}

#define NOTE(env, ...) Note(env, __LINE__, __VA_ARGS__)
#define ENTER(env, name) Enter(env, __LINE__, name)
#define LEAVE(env, name) Leave(env, __LINE__, name)

// ---- The rules ----

// True when now - last launch exceeds the cycle, both wrapping 32-bit: a future launch is over.
bool CycleOver(const CONFIG_INFO& info, quint32 now) {
    return now - info.nLastLaunchTime > info.nUpdateCycle * kSecondsPerDay;
}

// True once the drawn delay's moment has come.
bool DelayPassed(const CONFIG_INFO& info, quint32 now) {
    return now >= info.nDelayTime;
}

// The third delay round and later launch without waiting for a delay.
bool ForcedRound(const CONFIG_INFO& info) {
    return info.nDelayTimes > 2;
}

quint32 StrategyOf(ScheduleEnv& env, const QString& strategy) {
    if (strategy == QLatin1String("never"))
        return 0;
    if (strategy != QLatin1String("cycle")) {
        NOTE(env, logtext::kStrategyNotCorrect, LogArgument::Text(strategy));
        env.Write(Setting::Strategy, QStringLiteral("cycle"));
    }
    return 1;
}

// Only an absent or empty key takes the default; a stored text that reads as 0 stays 0.
quint32 RepairedCycle(ScheduleEnv& env) {
    NOTE(env, logtext::kUpdateCycleNotCorrect, LogArgument::Int(0));
    const QString fallback = ReadText(env, Setting::ConfigCycleDefault);
    const QString stored = env.Read(Setting::UpdateCycle);
    const QString text = stored.isEmpty() ? fallback : stored;
    env.Write(Setting::UpdateCycle, text);
    return text.toUInt(nullptr, 10);
}

// An unusable date (one that reads as the text "0" does) starts the first cycle now.
quint32 LastLaunchOf(ScheduleEnv& env, const QString& text) {
    static const quint32 unusable = DateSeconds(QStringLiteral("0"));
    const quint32 seconds = DateSeconds(text);
    if (seconds != unusable)
        return seconds;
    const QDateTime now = env.Now();
    env.Write(Setting::LastLaunchTime, now.toString(QLatin1String(kDateFormat)));
    return ToTimeT(now);
}

void LaunchUpdater(ScheduleEnv& env) {
    if (env.Launch() == -1)
        NOTE(env, logtext::kLaunchFailed, LogArgument::Text(env.UpdaterPath()));
}
} // namespace

// ---- Settings ----

SettingPlace PlaceOf(Setting setting) {
    switch (setting) {
    case Setting::TimerMinutes:
        return {false, "UpdateSetting", "TimerMinutes"};
    case Setting::RunWithSystem:
        return {false, "UpdateSetting", "RunWithSystem"};
    case Setting::ConfigCycleDefault:
        return {false, "UpdateSetting", "ConfigCycleDefault"};
    case Setting::AutoCheckNow:
        return {false, "UpdateSetting", "AutoCheckNow"};
    case Setting::TimeRandomRange:
        return {false, "UpdateSetting", "TimeRandomRange"};
    case Setting::Strategy:
        return {true, "UpdateStrategy", "Strategy"};
    case Setting::LastLaunchTime:
        return {true, "UpdateRecord", "LastLaunchTime"};
    case Setting::LastStatus:
        return {true, "UpdateInfo", "LastStatus"};
    case Setting::DelayTime:
        return {true, "DelayInfo", "DelayTime"};
    case Setting::UpdateCycle:
        return {true, "UpdateStrategy", "UpdateCycle"};
    case Setting::DelayTimes:
        return {true, "DelayInfo", "DelayTimes"};
    }
    return {false, "", ""};
}

QVariant SettingValue(Setting setting, const QString& text) {
    if (!text.isEmpty())
        return QVariant(text);
    switch (setting) {
    case Setting::DelayTime:
        return QVariant(-1); // reads as 4294967295, not as "no delay drawn"
    case Setting::Strategy:
        return QVariant(QStringLiteral("cycle"));
    case Setting::LastLaunchTime:
    case Setting::LastStatus:
    case Setting::UpdateCycle:
    case Setting::DelayTimes:
        return QVariant(QStringLiteral("0"));
    case Setting::TimeRandomRange:
        return QVariant(QStringLiteral("720"));
    default:
        return QVariant(QStringLiteral("1"));
    }
}

// ---- Dates ----

// Qt's format parser is the reference, but it costs more than a whole check otherwise does, and
// the file almost always holds a plain text far from any change of the local offset: such a text
// is read directly; anything else, and every text near a change, goes through the parser.
quint32 DateSeconds(const QString& text) {
    qint64 wall = 0, moment = 0;
    if (PlainWallClock(text, wall) && UnambiguousMoment(wall, moment))
        return quint32(moment);
    return ToTimeT(QDateTime::fromString(text, QLatin1String(kDateFormat)));
}

QString DateText(quint32 seconds) {
    return QDateTime::fromSecsSinceEpoch(qint64(seconds)).toString(QLatin1String(kDateFormat));
}

QString LogArgument::Written() const {
    return kind == Kind::Moment ? DateText(quint32(number)) : text;
}

QString LogMessage(const char* format, const LogArgument& argument) {
    switch (argument.kind) {
    case LogArgument::Kind::Text:
    case LogArgument::Kind::Moment:
        return QString::asprintf(format, argument.Written().toUtf8().constData());
    case LogArgument::Kind::Int:
        return QString::asprintf(format, int(argument.number));
    case LogArgument::Kind::UInt:
        return QString::asprintf(format, unsigned(argument.number));
    case LogArgument::Kind::None:
        break;
    }
    return QString::fromUtf8(format);
}

// ---- The rules ----

bool NeedContinue(const QString& status) {
    return status == QLatin1String("querying") || status == QLatin1String("downloading") ||
           status == QLatin1String("downloaded");
}

void ReadConfigInfo(ScheduleEnv& env, CONFIG_INFO& info) {
    ENTER(env, logtext::kReadConfigInfo);
    const QString strategy = ReadText(env, Setting::Strategy);
    const QString lastLaunch = ReadText(env, Setting::LastLaunchTime);
    const QString status = ReadText(env, Setting::LastStatus);
    info.nDelayTime = ReadUInt(env, Setting::DelayTime);
    info.nUpdateCycle = ReadUInt(env, Setting::UpdateCycle);
    info.nDelayTimes = ReadUInt(env, Setting::DelayTimes);
    info.nStrategy = StrategyOf(env, strategy);
    if (info.nUpdateCycle == 0)
        info.nUpdateCycle = RepairedCycle(env);
    info.bContinue = NeedContinue(status) ? 1 : 0;
    if (!info.bContinue && status != QLatin1String("ready"))
        env.Write(Setting::LastStatus, QStringLiteral("ready"));
    info.nLastLaunchTime = LastLaunchOf(env, lastLaunch);
    if (info.nDelayTimes - 1u > 2u) {
        NOTE(env, logtext::kDelayTimesNotCorrect);
        env.Write(Setting::DelayTimes, QStringLiteral("1"));
        info.nDelayTimes = 1;
    }
    LEAVE(env, logtext::kReadConfigInfo);
}

LaunchDecision DecideLaunch(ScheduleEnv& env, const CONFIG_INFO& info) {
    LaunchDecision decision;
    const quint32 now = env.NowSeconds();
    decision.cycleOver = CycleOver(info, now);
    if (!decision.cycleOver)
        return decision;
    NOTE(env, logtext::kTimeUsedUp);
    decision.forced = ForcedRound(info);
    if (decision.forced)
        NOTE(env, logtext::kDelayTimesAtLeast3);
    decision.autoCheck = ReadUInt(env, Setting::AutoCheckNow) != 0;
    if (decision.autoCheck) {
        NOTE(env, logtext::kAutoCheckNow);
        decision.launch = true;
    } else if (info.nDelayTime != 0) {
        decision.launch = DelayPassed(info, now) || decision.forced;
    } else {
        decision.drew = true;
        decision.span = DelaySpan(info.nDelayTimes, ReadUInt(env, Setting::TimeRandomRange));
        const qint64 moment = DrawnDelay(now, decision.span, env.Draw());
        env.Write(Setting::DelayTime, QString::number(moment));
        NOTE(env, logtext::kDelayTo, LogArgument::Moment(quint32(moment)));
        decision.launch = decision.forced;
    }
    return decision;
}

bool IsTimeToLaunchUpdate(ScheduleEnv& env, const CONFIG_INFO& info) {
    return DecideLaunch(env, info).launch;
}

bool CountMissedRound(ScheduleEnv& env, CONFIG_INFO& info) {
    if (info.nDelayTimes >= 3 || info.nDelayTime == 0)
        return false;
    if (env.NowSeconds() <= info.nDelayTime)
        return false;
    const quint32 round = info.nDelayTimes + 1;
    env.Write(Setting::DelayTime, QStringLiteral("1"));
    env.Write(Setting::DelayTimes, QString::number(round));
    NOTE(env, logtext::kMissed, LogArgument::UInt(round));
    info.nDelayTime = 1;
    info.nDelayTimes = round;
    return true;
}

void CheckMissed(ScheduleEnv& env) {
    ENTER(env, logtext::kCheckMissed);
    CONFIG_INFO info;
    ReadConfigInfo(env, info);
    CountMissedRound(env, info);
    LEAVE(env, logtext::kCheckMissed);
}

Branch ChooseBranch(const CONFIG_INFO& info, bool runWithSystem) {
    // An interrupted run is resumed even under "never", unless the agent is resident anyway.
    if (info.bContinue)
        return runWithSystem && info.nStrategy == 0 ? Branch::Idle : Branch::Resume;
    if (info.nStrategy == 0)
        return runWithSystem ? Branch::Idle : Branch::Exit;
    return Branch::Decide;
}

CheckOutcome Act(ScheduleEnv& env, const CONFIG_INFO& info, bool runWithSystem) {
    CheckOutcome outcome;
    outcome.runWithSystem = runWithSystem;
    outcome.branch = ChooseBranch(info, runWithSystem);
    switch (outcome.branch) {
    case Branch::Resume:
        NOTE(env, logtext::kResume);
        LaunchUpdater(env);
        outcome.launched = true;
        break;
    case Branch::Exit:
        NOTE(env, logtext::kNeverExit);
        outcome.exited = true;
        env.Exit();
        break;
    case Branch::Idle:
        break;
    case Branch::Decide:
        outcome.decision = DecideLaunch(env, info);
        if (outcome.decision.launch) {
            NOTE(env, logtext::kReady, LogArgument::Text(env.UpdaterPath()));
            LaunchUpdater(env);
            outcome.launched = true;
        }
        break;
    }
    return outcome;
}

CheckOutcome Check(ScheduleEnv& env) {
    const quint32 timerMinutes = ReadUInt(env, Setting::TimerMinutes);
    const bool runWithSystem = ReadBool(env, Setting::RunWithSystem);
    CONFIG_INFO info;
    ReadConfigInfo(env, info);
    CheckOutcome outcome = Act(env, info, runWithSystem);
    outcome.timerMinutes = timerMinutes;
    if (!outcome.exited)
        NOTE(env, logtext::kSleep, LogArgument::UInt(timerMinutes));
    return outcome;
}

qint64 NextChange(const CONFIG_INFO& info, quint32 now) {
    // Not over yet: over from the second after T on (until then now - last <= cycle).
    if (!CycleOver(info, now))
        return qint64(now) + (CycleEnd(info) - now) + 1;
    if (info.nDelayTime != 0 && !DelayPassed(info, now))
        return info.nDelayTime;
    return qint64(now) + 1;
}

// ---- Numbers ----

quint32 CycleEnd(const CONFIG_INFO& info) {
    return info.nLastLaunchTime + info.nUpdateCycle * kSecondsPerDay;
}

quint32 DelaySpan(quint32 delayTimes, quint32 rangeMinutes) {
    if (delayTimes == 1)
        return rangeMinutes * 60u;
    if (delayTimes == 2)
        return (rangeMinutes / 2u) * 60u;
    return 0;
}

qint64 DrawnDelay(quint32 now, quint32 span, int draw) {
    return qint64(now) + qint64(draw) * qint64(quint64(span)) / 2147483648LL + 1;
}

int TimerIntervalMs(quint32 timerMinutes) {
    return static_cast<int>(timerMinutes * 60000u);
}

qint64 FirstCheckFrom(quint32 first, int intervalMs, qint64 moment) {
    if (moment <= qint64(first))
        return first;
    if (intervalMs < 0)
        return -1;
    if (intervalMs == 0)
        return moment;
    const qint64 wait = (moment - qint64(first)) * 1000;
    const qint64 steps = (wait + intervalMs - 1) / intervalMs;
    return qint64(first) + steps * intervalMs / 1000;
}

// ---- Values in memory ----

QString MemoryEnv::Read(Setting setting) {
    return texts[int(setting)];
}

void MemoryEnv::Write(Setting setting, const QString& text) {
    texts[int(setting)] = text;
    writes.append({setting, text});
}

QDateTime MemoryEnv::Now() {
    ++clockReadings;
    if (!clock_.isValid()) // set as seconds: made local only when asked for
        clock_ = QDateTime::fromSecsSinceEpoch(qint64(seconds_));
    return clock_;
}

quint32 MemoryEnv::NowSeconds() {
    ++clockReadings;
    return seconds_;
}

int MemoryEnv::Draw() {
    ++draws;
    return draw;
}

void MemoryEnv::Log(int line, const char* format, const LogArgument& argument) {
    if (keepLines)
        lines.append({line, indent_, LogMessage(format, argument)});
}

void MemoryEnv::Indent(int step) {
    indent_ += step;
}

int MemoryEnv::Launch() {
    ++launches;
    return 0;
}

QString MemoryEnv::UpdaterPath() {
    return updaterPath;
}

void MemoryEnv::Exit() {
    exited = true;
}

void MemoryEnv::SetClock(const QDateTime& now) {
    clock_ = now;
    seconds_ = ToTimeT(now);
}

void MemoryEnv::SetClock(quint32 seconds) {
    clock_ = QDateTime();
    seconds_ = seconds;
}

// ---- What to expect ----

ScheduleSettings SettingsFrom(ScheduleEnv& env) {
    ScheduleSettings settings;
    settings.timerMinutes = ReadUInt(env, Setting::TimerMinutes);
    settings.runWithSystem = ReadBool(env, Setting::RunWithSystem);
    settings.autoCheckNow = ReadUInt(env, Setting::AutoCheckNow);
    settings.timeRandomRange = ReadUInt(env, Setting::TimeRandomRange);
    return settings;
}

const char* VerdictName(Verdict verdict) {
    static const char* const names[] = {"ends",   "never",      "held",      "resume",
                                        "launch", "wait-cycle", "wait-delay"};
    return names[int(verdict)];
}

namespace {
// The rules' environment for a forecast: the settings as texts, no log.
MemoryEnv ForecastEnv(const ScheduleSettings& settings, int draw) {
    MemoryEnv env;
    env.keepLines = false;
    env.draw = draw;
    env.texts[int(Setting::AutoCheckNow)] = QString::number(settings.autoCheckNow);
    env.texts[int(Setting::TimeRandomRange)] = QString::number(settings.timeRandomRange);
    return env;
}

// One launch decision at `at` on a copy of the record; the record then holds the "DelayTime" the
// next check reads back.
LaunchDecision DecideAt(MemoryEnv& env, CONFIG_INFO& record, quint32 at) {
    env.SetClock(at);
    const LaunchDecision decision = DecideLaunch(env, record);
    if (decision.drew)
        record.nDelayTime = ReadUInt(env, Setting::DelayTime);
    return decision;
}

LaunchPath PathOf(const LaunchDecision& decision) {
    if (decision.autoCheck)
        return LaunchPath::Auto;
    if (decision.forced)
        return LaunchPath::Forced;
    if (decision.drew)
        return LaunchPath::Draw;
    return decision.launch ? LaunchPath::DelayDue : LaunchPath::DelayWait;
}

// The moment of the check that launches, from the deciding check on, for checks at `first` and
// every `intervalMs` after it; -1 when none comes within the 32-bit clock.
qint64 LaunchMoment(const ScheduleSettings& settings, CONFIG_INFO record, quint32 first,
                    int intervalMs, qint64 decideAt, int draw) {
    MemoryEnv env = ForecastEnv(settings, draw);
    for (qint64 at = decideAt; at >= 0 && at <= qint64(kDelayAbsent);) {
        if (DecideAt(env, record, quint32(at)).launch)
            return at;
        at = FirstCheckFrom(first, intervalMs, qMax(NextChange(record, quint32(at)), at + 1));
    }
    return -1;
}

// True when the decision, once the cycle is over, waits for an absent "DelayTime": the end of the
// 32-bit clock, which never comes.
bool HeldByAbsentDelay(const ScheduleSettings& settings, const CONFIG_INFO& record, quint32 at) {
    const qint64 over = CycleOver(record, at) ? qint64(at) : NextChange(record, at);
    if (over > qint64(kDelayAbsent) || record.nDelayTime != kDelayAbsent)
        return false;
    MemoryEnv env = ForecastEnv(settings, 0);
    CONFIG_INFO copy = record;
    return PathOf(DecideAt(env, copy, quint32(over))) == LaunchPath::DelayWait;
}
} // namespace

Forecast Foresee(const CONFIG_INFO& record, const ScheduleSettings& settings, quint32 at,
                 bool startsNow) {
    Forecast f;
    f.record = record;
    if (startsNow) {
        MemoryEnv env = ForecastEnv(settings, 0);
        env.SetClock(at);
        f.missed = CountMissedRound(env, f.record);
    }
    const CONFIG_INFO& r = f.record;
    f.cycleEnd = CycleEnd(r);
    switch (ChooseBranch(r, settings.runWithSystem)) {
    case Branch::Resume:
        f.verdict = Verdict::Resume;
        f.decideAt = f.earliest = f.latest = at;
        return f;
    case Branch::Idle:
        f.verdict = Verdict::Never;
        return f;
    case Branch::Exit:
        f.verdict = Verdict::Ends;
        return f;
    case Branch::Decide:
        break;
    }
    if (HeldByAbsentDelay(settings, r, at)) {
        f.verdict = Verdict::Held;
        return f;
    }
    const int interval = TimerIntervalMs(settings.timerMinutes);
    const bool over = CycleOver(r, at);
    const qint64 decideAt = over ? qint64(at) : FirstCheckFrom(at, interval, NextChange(r, at));
    if (decideAt >= 0 && decideAt <= qint64(kDelayAbsent)) {
        f.decideAt = decideAt;
        MemoryEnv env = ForecastEnv(settings, 0);
        CONFIG_INFO copy = r;
        const LaunchDecision decision = DecideAt(env, copy, quint32(decideAt));
        f.path = PathOf(decision);
        f.span = decision.span;
        f.earliest = LaunchMoment(settings, r, at, interval, decideAt, 0);
        f.latest = LaunchMoment(settings, r, at, interval, decideAt, 2147483647);
    }
    if (!over)
        f.verdict = Verdict::WaitCycle;
    else
        f.verdict = f.earliest == at ? Verdict::Launch : Verdict::WaitDelay;
    if (f.earliest < 0 || f.latest < 0)
        f.earliest = f.latest = -1;
    return f;
}
