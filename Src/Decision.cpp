#include "Decision.h"

#include "Clock.h"

#include <QVariant>

namespace {
constexpr quint32 kSecondsPerDay = 86400;
const char kDateFormat[] = "yyyy-MM-dd hh:mm:ss";

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

// Qt's format parser dominates a check, and the file almost always holds a plain
// "yyyy-MM-dd hh:mm:ss": such a text with a valid date and time is that local moment, built
// directly. Anything else, and a moment that local time skips, goes through the parser as ever.
QDateTime DateFromText(const QString& text) {
    static const char kShape[] = "dddd-dd-dd dd:dd:dd";
    bool plain = text.size() == 19;
    for (int i = 0; plain && i < 19; ++i)
        plain = kShape[i] == 'd' ? DigitsAt(text, i, 1) >= 0 : text.at(i) == QLatin1Char(kShape[i]);
    if (plain) {
        const QDate date(DigitsAt(text, 0, 4), DigitsAt(text, 5, 2), DigitsAt(text, 8, 2));
        const QTime time(DigitsAt(text, 11, 2), DigitsAt(text, 14, 2), DigitsAt(text, 17, 2));
        if (date.isValid() && time.isValid()) {
            const QDateTime moment(date, time);
            if (moment.isValid() && moment.date() == date && moment.time() == time)
                return moment;
        }
    }
    return QDateTime::fromString(text, QLatin1String(kDateFormat));
}

quint32 ParseDate(const QString& text) {
    return ToTimeT(DateFromText(text));
}

// The value a setting reads as: its text, or its default when absent or empty.
QVariant ValueOf(Need need, const QString& text) {
    if (!text.isEmpty())
        return QVariant(text);
    switch (need) {
    case Need::DelayTime:
        return QVariant(-1); // reads as 4294967295, not as "no delay drawn"
    case Need::Strategy:
        return QVariant(QStringLiteral("cycle"));
    case Need::LastLaunchTime:
    case Need::LastStatus:
    case Need::UpdateCycle:
    case Need::DelayTimes:
        return QVariant(QStringLiteral("0"));
    case Need::TimeRandomRange:
        return QVariant(QStringLiteral("720"));
    default:
        return QVariant(QStringLiteral("1"));
    }
}

// One run of the rules over what is known. Every step returns false once the run has
// stopped for a value it needs; the outcome then names that value.
class Run {
public:
    Run(const Known& known, Outcome& outcome) : known_(known), out_(outcome) {}

    bool Value(Need need, QVariant& value) {
        if (!known_.Has(need))
            return Stop(need);
        value = ValueOf(need, known_.text[int(need)]);
        return true;
    }
    bool Text(Need need, QString& text) {
        QVariant value;
        return Value(need, value) && (text = value.toString(), true);
    }
    bool UInt(Need need, quint32& number) {
        QVariant value;
        return Value(need, value) && (number = value.toUInt(), true);
    }
    bool Now(QDateTime& now) {
        if (known_.pinned)
            now = known_.clock[0];
        else if (out_.clocksUsed < known_.clocks)
            now = known_.clock[out_.clocksUsed];
        else
            return Stop(Need::Clock);
        ++out_.clocksUsed;
        return true;
    }
    bool Now(quint32& now) {
        QDateTime moment;
        return Now(moment) && (now = ToTimeT(moment), true);
    }
    bool Draw(int& draw) {
        if (!known_.Has(Need::Draw))
            return Stop(Need::Draw);
        draw = known_.draw;
        return true;
    }

    Effect& Add(Effect::Kind kind) {
        Q_ASSERT(out_.effectCount < kMaxEffects);
        Effect& effect = out_.effects[out_.effectCount++];
        effect.kind = kind;
        return effect;
    }
    Effect& Log(Note note, qint64 number = 0) {
        Effect& effect = Add(Effect::Kind::Log);
        effect.note = note;
        effect.number = number;
        return effect;
    }
    void Log(Note note, const QString& text) { Log(note).text = text; }
    void Trace(Note note, const char* name) { Log(note).name = name; }
    Effect& Write(Need key) {
        Effect& effect = Add(Effect::Kind::Write);
        effect.key = key;
        return effect;
    }
    void Write(Need key, const QString& text) { Write(key).text = text; }
    void Write(Need key, qint64 number) { Write(key).number = number; }

    bool ReadSchedule(CONFIG_INFO& info);
    bool Launch(const CONFIG_INFO& info, bool& launch);
    bool Missed();
    bool Check();

private:
    bool Stop(Need need) {
        out_.need = need;
        return false;
    }
    bool RepairStrategy(const QString& strategy, quint32& result);
    bool RepairCycle(quint32& cycle);
    bool RepairLastLaunch(const QString& text, quint32& result);

    const Known& known_;
    Outcome& out_;
};

bool Run::RepairStrategy(const QString& strategy, quint32& result) {
    result = strategy == QLatin1String("never") ? 0 : 1;
    if (result == 1 && strategy != QLatin1String("cycle")) {
        Log(Note::StrategyNotCorrect, strategy);
        Write(Need::Strategy, QStringLiteral("cycle"));
    }
    return true;
}

// Only an absent or empty key takes the default; a stored text that reads as 0 stays 0.
bool Run::RepairCycle(quint32& cycle) {
    if (cycle != 0)
        return true;
    Log(Note::UpdateCycleNotCorrect, 0);
    QString fallback;
    if (!Text(Need::ConfigCycleDefault, fallback))
        return false;
    if (!known_.Has(Need::UpdateCycleAgain))
        return Stop(Need::UpdateCycleAgain);
    const QString stored = known_.text[int(Need::UpdateCycleAgain)];
    const QString text = stored.isEmpty() ? fallback : stored;
    Write(Need::UpdateCycle, text);
    cycle = text.toUInt(nullptr, 10);
    return true;
}

// An unusable date starts the first cycle now.
bool Run::RepairLastLaunch(const QString& text, quint32& result) {
    static const quint32 unusable = ParseDate(QStringLiteral("0"));
    result = ParseDate(text);
    if (result != unusable)
        return true;
    QDateTime now;
    if (!Now(now))
        return false;
    Write(Need::LastLaunchTime, now.toString(QLatin1String(kDateFormat)));
    result = ToTimeT(now);
    return true;
}

bool Run::ReadSchedule(CONFIG_INFO& info) {
    Trace(Note::Enter, "ReadConfigInfo");
    QString strategy, lastLaunch, status;
    if (!Text(Need::Strategy, strategy) || !Text(Need::LastLaunchTime, lastLaunch) ||
        !Text(Need::LastStatus, status) || !UInt(Need::DelayTime, info.nDelayTime) ||
        !UInt(Need::UpdateCycle, info.nUpdateCycle) || !UInt(Need::DelayTimes, info.nDelayTimes))
        return false;
    if (!RepairStrategy(strategy, info.nStrategy) || !RepairCycle(info.nUpdateCycle))
        return false;
    info.bContinue = NeedContinue(status) ? 1 : 0;
    if (!info.bContinue && status != QLatin1String("ready"))
        Write(Need::LastStatus, QStringLiteral("ready"));
    if (!RepairLastLaunch(lastLaunch, info.nLastLaunchTime))
        return false;
    if (info.nDelayTimes - 1u > 2u) {
        Log(Note::DelayTimesNotCorrect);
        Write(Need::DelayTimes, QStringLiteral("1"));
        info.nDelayTimes = 1;
    }
    Trace(Note::Leave, "ReadConfigInfo");
    return true;
}

bool Run::Launch(const CONFIG_INFO& info, bool& launch) {
    quint32 now = 0;
    launch = false;
    if (!Now(now))
        return false;
    if (!CycleOver(info, now))
        return true;
    Log(Note::TimeUsedUp);
    if (ForcedRound(info))
        Log(Note::DelayTimesAtLeast3);
    quint32 autoCheckNow = 0;
    if (!UInt(Need::AutoCheckNow, autoCheckNow))
        return false;
    const LaunchStep step = DecideLaunch(info, now, autoCheckNow);
    if (step.autoCheck)
        Log(Note::AutoCheckNow);
    if (step.draws) {
        quint32 range = 0;
        int draw = 0;
        if (!UInt(Need::TimeRandomRange, range) || !Draw(draw))
            return false;
        const qint64 moment = DrawnDelay(now, DelaySpan(info.nDelayTimes, range), draw);
        Write(Need::DelayTime, moment);
        Log(Note::DelayTo, moment);
    }
    launch = step.launch;
    return true;
}

// A delay that ran out while the agent was away counts as one more round, already past.
bool Run::Missed() {
    Trace(Note::Enter, "CheckMissed");
    CONFIG_INFO& info = out_.info;
    if (!ReadSchedule(info))
        return false;
    if (DelayCanBeMissed(info)) {
        quint32 now = 0;
        if (!Now(now))
            return false;
        if (MissedDelay(info, now)) {
            Write(Need::DelayTime, QStringLiteral("1"));
            Write(Need::DelayTimes, qint64(info.nDelayTimes) + 1);
            Log(Note::Missed, qint64(info.nDelayTimes) + 1);
        }
    }
    Trace(Note::Leave, "CheckMissed");
    return true;
}

bool Run::Check() {
    QVariant runWithSystem;
    if (!UInt(Need::TimerMinutes, out_.timerMinutes) || !Value(Need::RunWithSystem, runWithSystem))
        return false;
    out_.runWithSystem = runWithSystem.toBool();
    CONFIG_INFO& info = out_.info;
    if (!ReadSchedule(info))
        return false;
    switch (ChooseBranch(info, out_.runWithSystem)) {
    case Branch::Resume:
        Log(Note::Resume);
        Add(Effect::Kind::Launch);
        out_.launch = true;
        break;
    case Branch::Exit:
        Log(Note::NeverExit);
        Add(Effect::Kind::Exit);
        out_.exits = true;
        return true;
    case Branch::Idle:
        break;
    case Branch::Decide:
        if (!Launch(info, out_.launch))
            return false;
        if (out_.launch) {
            Log(Note::Ready);
            Add(Effect::Kind::Launch);
        }
        break;
    }
    Log(Note::Sleep, out_.timerMinutes);
    return true;
}

// The check at `at` when the cycle is over there (checks continue every intervalMs).
void ForeseeOverCycle(Forecast& f, const ScheduleSettings& s, quint32 first, int intervalMs,
                      qint64 at) {
    const CONFIG_INFO& r = f.record;
    f.decideAt = at;
    if (s.autoCheckNow != 0 || ForcedRound(r)) {
        f.path = s.autoCheckNow != 0 ? LaunchPath::Auto : LaunchPath::Forced;
        f.earliest = f.latest = at;
    } else if (r.nDelayTime <= at) {
        f.path = r.nDelayTime != 0 ? LaunchPath::DelayDue : LaunchPath::Draw;
        f.earliest = f.latest = at;
    } else {
        f.path = LaunchPath::DelayWait;
        f.earliest = f.latest = FirstCheckFrom(first, intervalMs, r.nDelayTime);
    }
    if (f.path == LaunchPath::Draw) {
        f.span = DelaySpan(r.nDelayTimes, s.timeRandomRange);
        f.earliest = FirstCheckFrom(first, intervalMs, at + 1);
        f.latest = FirstCheckFrom(first, intervalMs, at + qMax<qint64>(f.span, 1));
    }
}
} // namespace

bool NeedContinue(const QString& status) {
    return status == QLatin1String("querying") || status == QLatin1String("downloading") ||
           status == QLatin1String("downloaded");
}

quint32 CycleEnd(const CONFIG_INFO& info) {
    return info.nLastLaunchTime + info.nUpdateCycle * kSecondsPerDay;
}

bool CycleOver(const CONFIG_INFO& info, quint32 now) {
    return now - info.nLastLaunchTime > info.nUpdateCycle * kSecondsPerDay;
}

bool ForcedRound(const CONFIG_INFO& info) {
    return info.nDelayTimes > 2;
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

quint32 StoredDelay(qint64 moment) {
    return moment > qint64(kDelayAbsent) ? 0 : quint32(moment);
}

bool DelayCanBeMissed(const CONFIG_INFO& info) {
    return info.nDelayTimes < 3 && info.nDelayTime != 0;
}

bool MissedDelay(const CONFIG_INFO& info, quint32 now) {
    return DelayCanBeMissed(info) && now > info.nDelayTime;
}

void CountMissedRound(CONFIG_INFO& info) {
    info.nDelayTime = 1;
    ++info.nDelayTimes;
}

Branch ChooseBranch(const CONFIG_INFO& info, bool runWithSystem) {
    // An interrupted run is resumed even under "never", unless the agent is resident anyway.
    if (info.bContinue)
        return runWithSystem && info.nStrategy == 0 ? Branch::Idle : Branch::Resume;
    if (info.nStrategy == 0)
        return runWithSystem ? Branch::Idle : Branch::Exit;
    return Branch::Decide;
}

LaunchStep DecideLaunch(const CONFIG_INFO& info, quint32 now, quint32 autoCheckNow) {
    LaunchStep step;
    step.cycleOver = CycleOver(info, now);
    if (!step.cycleOver)
        return step;
    step.forced = ForcedRound(info);
    step.autoCheck = autoCheckNow != 0;
    if (step.autoCheck)
        step.launch = true;
    else if (info.nDelayTime != 0)
        step.launch = now >= info.nDelayTime || step.forced;
    else
        step.draws = true, step.launch = step.forced;
    return step;
}

int TimerIntervalMs(quint32 timerMinutes) {
    return static_cast<int>(timerMinutes * 60000u);
}

const char* VerdictName(Verdict verdict) {
    static const char* const names[] = {"ends",   "never",      "held",      "resume",
                                        "launch", "wait-cycle", "wait-delay"};
    return names[int(verdict)];
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

Forecast Foresee(const CONFIG_INFO& record, const ScheduleSettings& settings, quint32 at,
                 bool startsNow) {
    Forecast f;
    f.record = record;
    f.missed = startsNow && MissedDelay(record, at);
    if (f.missed)
        CountMissedRound(f.record);
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
    const int interval = TimerIntervalMs(settings.timerMinutes);
    const bool over = CycleOver(r, at);
    // Not over yet: the cycle is over from T + 1 on (until then now - last <= cycle).
    const qint64 decideAt =
        over ? qint64(at) : FirstCheckFrom(at, interval, qint64(at) + (f.cycleEnd - at) + 1);
    if (settings.autoCheckNow == 0 && !ForcedRound(r) && r.nDelayTime == kDelayAbsent) {
        f.verdict = Verdict::Held;
        return f;
    }
    if (decideAt >= 0 && decideAt <= qint64(kDelayAbsent))
        ForeseeOverCycle(f, settings, at, interval, decideAt);
    if (!over)
        f.verdict = Verdict::WaitCycle;
    else
        f.verdict = f.earliest == at ? Verdict::Launch : Verdict::WaitDelay;
    if (f.earliest > qint64(kDelayAbsent) || f.latest > qint64(kDelayAbsent) || f.latest < 0)
        f.earliest = f.latest = -1;
    return f;
}

SettingPlace PlaceOf(Need need) {
    switch (need) {
    case Need::TimerMinutes:
        return {false, "UpdateSetting", "TimerMinutes"};
    case Need::RunWithSystem:
        return {false, "UpdateSetting", "RunWithSystem"};
    case Need::ConfigCycleDefault:
        return {false, "UpdateSetting", "ConfigCycleDefault"};
    case Need::AutoCheckNow:
        return {false, "UpdateSetting", "AutoCheckNow"};
    case Need::TimeRandomRange:
        return {false, "UpdateSetting", "TimeRandomRange"};
    case Need::Strategy:
        return {true, "UpdateStrategy", "Strategy"};
    case Need::LastLaunchTime:
        return {true, "UpdateRecord", "LastLaunchTime"};
    case Need::LastStatus:
        return {true, "UpdateInfo", "LastStatus"};
    case Need::DelayTime:
        return {true, "DelayInfo", "DelayTime"};
    case Need::DelayTimes:
        return {true, "DelayInfo", "DelayTimes"};
    default: // UpdateCycle, UpdateCycleAgain
        return {true, "UpdateStrategy", "UpdateCycle"};
    }
}

void Known::Set(Need need, const QString& value) {
    text[int(need)] = value;
    has |= 1u << int(need);
}

void Known::AddClock(const QDateTime& now) {
    if (clocks < int(sizeof clock / sizeof clock[0]))
        clock[clocks++] = now;
}

void Known::Pin(const QDateTime& now) {
    clock[0] = now;
    clocks = 1;
    pinned = true;
}

void Known::SetDraw(int value) {
    draw = value;
    has |= 1u << int(Need::Draw);
}

ScheduleSettings SettingsFrom(const Known& known) {
    const auto value = [&known](Need need) { return ValueOf(need, known.text[int(need)]); };
    ScheduleSettings settings;
    settings.timerMinutes = value(Need::TimerMinutes).toUInt();
    settings.runWithSystem = value(Need::RunWithSystem).toBool();
    settings.autoCheckNow = value(Need::AutoCheckNow).toUInt();
    settings.timeRandomRange = value(Need::TimeRandomRange).toUInt();
    return settings;
}

// Each format stands on a line of its own below: that line is the position logged with it.
constexpr int kFirstFormatLine = __LINE__ + 3;
const char* NoteFormat(Note note) {
    static const char* const formats[] = {
        "%s: Enter",
        "%s: Leave",
        "Strategy not correct(Strategy=%s)",
        "UpdateCycle(%d) not correct",
        "DelayTimes not correct",
        "Time is used up, ravel will check if delay time is ok",
        "DelayTimes >= 3",
        "AutoCheckNow = 1",
        "Delay to Time (%s)",
        "Missed UpdateTime, DelayTimes=%u",
        "LastTime DownLoad broken, Continue now!",
        "Strategy was set to never, duplicate ravel will exit now!",
        "Time is Ready, Try to Launch(%s)",
        "Sleep %u Minutes",
    };
    return formats[int(note)];
}

int NoteLine(Note note) {
    return kFirstFormatLine + int(note);
}

Argument ArgumentOf(Note note) {
    switch (note) {
    case Note::Enter:
    case Note::Leave:
    case Note::StrategyNotCorrect:
    case Note::DelayTo:
        return Argument::Text;
    case Note::UpdateCycleNotCorrect:
        return Argument::Int;
    case Note::Missed:
    case Note::Sleep:
        return Argument::UInt;
    case Note::Ready:
        return Argument::UpdaterPath;
    default:
        return Argument::None;
    }
}

QString ArgumentText(const Effect& effect) {
    if (effect.note == Note::Enter || effect.note == Note::Leave)
        return QString::fromLatin1(effect.name);
    if (effect.note == Note::DelayTo)
        return QDateTime::fromSecsSinceEpoch(qint64(quint32(effect.number)))
            .toString(QLatin1String(kDateFormat));
    return effect.text;
}

QString NoteText(const Effect& effect, const QString& updaterPath) {
    // Every format has at most one conversion, of two characters.
    QString text = QString::fromLatin1(NoteFormat(effect.note));
    const int at = text.indexOf(QLatin1Char('%'));
    switch (ArgumentOf(effect.note)) {
    case Argument::Text:
        return text.replace(at, 2, ArgumentText(effect));
    case Argument::Int:
        return text.replace(at, 2, QString::number(int(effect.number)));
    case Argument::UInt:
        return text.replace(at, 2, QString::number(quint32(effect.number)));
    case Argument::UpdaterPath:
        return text.replace(at, 2, updaterPath);
    case Argument::None:
        break;
    }
    return text;
}

QString WrittenText(const Effect& effect) {
    return effect.text.isNull() ? QString::number(effect.number) : effect.text;
}

Outcome ReadScheduleRule(const Known& known) {
    Outcome outcome;
    Run(known, outcome).ReadSchedule(outcome.info);
    return outcome;
}

Outcome LaunchRule(const CONFIG_INFO& info, const Known& known) {
    Outcome outcome;
    outcome.info = info;
    Run(known, outcome).Launch(info, outcome.launch);
    return outcome;
}

Outcome MissedRule(const Known& known) {
    Outcome outcome;
    Run(known, outcome).Missed();
    return outcome;
}

Outcome CheckRule(const Known& known) {
    Outcome outcome;
    Run(known, outcome).Check();
    return outcome;
}
