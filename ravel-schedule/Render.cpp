#include "Render.h"

#include "FileLayout.h"
#include "Instance.h"
#include "Profile.h"

#include <QJsonArray>

namespace {
QString Moment(qint64 seconds) {
    return QDateTime::fromSecsSinceEpoch(seconds).toString(QLatin1String(kDateFormat));
}

QString Quoted(const QString& text) {
    return QLatin1Char('"') + text + QLatin1Char('"');
}

// What happens once the cycle is over, at the check that decides.
QString PathText(const Forecast& f, const ScheduleSettings& s, bool over) {
    const quint32 round = f.record.nDelayTimes;
    const QString check =
        over ? QStringLiteral("the next check") : QStringLiteral("the first check after it");
    switch (f.path) {
    case LaunchPath::Auto:
        return QStringLiteral("AutoCheckNow is %1, so it launches at %2")
            .arg(s.autoCheckNow)
            .arg(check);
    case LaunchPath::Forced:
        return QStringLiteral("in delay round %1 it launches at %2").arg(round).arg(check);
    case LaunchPath::DelayDue:
        return QStringLiteral("the drawn delay ran out at %1, so it launches at %2")
            .arg(Moment(f.record.nDelayTime), check);
    case LaunchPath::DelayWait:
        return QStringLiteral("a drawn delay is pending until %1; the launch comes at the first "
                              "check at or after it")
            .arg(Moment(f.record.nDelayTime));
    case LaunchPath::Draw:
        return QStringLiteral("a delay of 1 s to %1 s will be drawn at %2 (round %3), and the "
                              "launch comes at the first check at or after the drawn moment")
            .arg(qMax<quint32>(f.span, 1))
            .arg(check)
            .arg(round);
    case LaunchPath::None:
        break;
    }
    return QStringLiteral("no check comes after it");
}

QString StartFailureReason(const StartFailure& failure) {
    if (failure.status < 0)
        return QStringLiteral("it never starts: ") + failure.reason;
    return QStringLiteral("it ends at start, with status %1, before any check: %2")
        .arg(failure.status)
        .arg(failure.reason);
}

// A cycle that is over because the last launch lies after the check: the reason says so.
QString OverReason(const Inspection& in) {
    const Forecast& f = in.forecast;
    const QString then = PathText(f, in.settings, true);
    if (f.record.nLastLaunchTime > in.checkAt)
        return QStringLiteral("the last launch, %1, lies after the check, and a last launch in the "
                              "future counts as a cycle that is over; %2")
            .arg(Moment(f.record.nLastLaunchTime), then);
    return QStringLiteral("the cycle ended at %1; %2").arg(Moment(f.cycleEnd), then);
}

QString Reason(const Inspection& in) {
    const Forecast& f = in.forecast;
    const QString status = in.texts[int(Setting::LastStatus)];
    const QString end = Moment(f.cycleEnd);
    if (in.failsAtStart)
        return StartFailureReason(in.startFailure);
    switch (f.verdict) {
    case Verdict::Ends:
        return QStringLiteral("the strategy is \"never\" and RunWithSystem is off: the agent ends "
                              "at its next check");
    case Verdict::Never:
        return f.record.bContinue
                   ? QStringLiteral("the interrupted run (LastStatus \"%1\") is not resumed under "
                                    "\"never\" with RunWithSystem: the agent stays and never "
                                    "launches")
                         .arg(status)
                   : QStringLiteral("the strategy is \"never\" with RunWithSystem: the agent stays "
                                    "and never launches");
    case Verdict::Held:
        return QStringLiteral("\"DelayTime\" is absent and reads as the end of the 32-bit clock: "
                              "in delay round %1 the launch is held there (the cycle ends at %2)")
            .arg(f.record.nDelayTimes)
            .arg(end);
    case Verdict::Resume:
        return QStringLiteral("LastStatus \"%1\" is an interrupted run: the next check resumes it")
            .arg(status);
    case Verdict::Launch:
    case Verdict::WaitDelay:
        return OverReason(in);
    case Verdict::WaitCycle:
        return QStringLiteral("the cycle ends at %1; then %2")
            .arg(end, PathText(f, in.settings, false));
    }
    return QString();
}

QString DelayText(quint32 delay) {
    if (delay == 0)
        return QStringLiteral("none drawn (0)");
    if (delay == kDelayAbsent)
        return QStringLiteral("absent (the end of the 32-bit clock)");
    return Moment(delay);
}
// The text report, one section at a time; each line ends with a line break.
class TextReport {
public:
    explicit TextReport(const Inspection& in) : in_(in) {}

    void Files() {
        Line(QStringLiteral("installed folder %1").arg(in_.files.installed));
        Line(QStringLiteral("settings         %1").arg(in_.files.settings));
        Line(QStringLiteral("user schedule    %1").arg(in_.files.userInfo));
        Line(QStringLiteral("log              %1").arg(in_.files.log));
    }
    void Schedule() {
        const CONFIG_INFO& r = in_.record;
        const ScheduleSettings& s = in_.settings;
        const QString& status = in_.texts[int(Setting::LastStatus)];
        Line(QStringLiteral("Schedule as the agent reads it"));
        Row("strategy", r.nStrategy ? QStringLiteral("cycle") : QStringLiteral("never"));
        Row("cycle", QStringLiteral("%1 day(s)").arg(r.nUpdateCycle));
        Row("last launch", Moment(r.nLastLaunchTime));
        Row("status",
            r.bContinue ? QStringLiteral("interrupted (%1)").arg(status) : QStringLiteral("ready"));
        Row("delay round", QString::number(r.nDelayTimes));
        Row("drawn delay", DelayText(r.nDelayTime));
        Row("AutoCheckNow", QString::number(s.autoCheckNow));
        Row("TimeRandomRange", QStringLiteral("%1 minutes").arg(s.timeRandomRange));
        Row("TimerMinutes", QString::number(s.timerMinutes));
        Row("RunWithSystem", s.runWithSystem ? QStringLiteral("yes") : QStringLiteral("no"));
    }
    void Repairs() {
        Line(QStringLiteral("Repairs at the next check"));
        for (const Inspection::Repair& repair : in_.repairs)
            Line(QStringLiteral("  %1/%2: %3 -> %4")
                     .arg(repair.section, repair.key,
                          repair.from.isNull() ? QStringLiteral("absent") : Quoted(repair.from),
                          Quoted(repair.to)));
        if (in_.repairs.isEmpty())
            Line(QStringLiteral("  none"));
    }
    void Verdict() {
        const Forecast& f = in_.forecast;
        Line(QStringLiteral("Verdict: %1").arg(VerdictText(in_)));
        Line((in_.agent.pid ? QStringLiteral("  For the running agent's next check, at %1:")
                            : QStringLiteral("  No agent runs; for one that starts at %1:"))
                 .arg(Moment(in_.checkAt)));
        if (f.missed)
            Line(QStringLiteral("  the delay of round %1 ran out while the agent was away: its "
                                "start counts a missed round (now round %2).")
                     .arg(f.record.nDelayTimes - 1)
                     .arg(f.record.nDelayTimes));
        Line(QStringLiteral("  ") + Reason(in_) + QLatin1Char('.'));
        if (in_.failsAtStart && !in_.startFailure.messages.isEmpty()) {
            Line(QStringLiteral("  It writes to %1:").arg(in_.startFailure.where));
            for (const QString& message : in_.startFailure.messages)
                Line(QStringLiteral("    ") + message);
        }
        if (f.earliest < 0 || in_.failsAtStart)
            Line(QStringLiteral("  Next launch: none foreseen."));
        else if (f.earliest == f.latest)
            Line(QStringLiteral("  Next launch: at %1.").arg(Moment(f.earliest)));
        else
            Line(QStringLiteral("  Next launch: between %1 and %2.")
                     .arg(Moment(f.earliest), Moment(f.latest)));
    }
    void Warnings() {
        Line(QStringLiteral("Warnings"));
        for (const QString& warning : in_.warnings)
            Line(QStringLiteral("  ") + warning);
        if (in_.warnings.isEmpty())
            Line(QStringLiteral("  none"));
    }
    void Agent() {
        const AgentProcess& agent = in_.agent;
        Line(QStringLiteral("Agent: ") +
             (agent.pid ? QStringLiteral("running (PID %1)").arg(agent.pid)
                        : QStringLiteral("not running")) +
             (kPerUser ? QStringLiteral("; socket %1 ").arg(InstanceSocket(in_.files.dataFolder))
                       : QStringLiteral("; 127.0.0.1:%1 ").arg(kAgentPort)) +
             (!agent.listening ? QString::fromLatin1(kPerUser ? "absent" : "free")
              : agent.portPid  ? QStringLiteral("listened on by PID %1").arg(agent.portPid)
              : kPerUser       ? QStringLiteral("present")
                               : QStringLiteral("listened on")));
        Line(!in_.logFound             ? QStringLiteral("Last check: no log")
             : in_.lastCheck.isEmpty() ? QStringLiteral("Last check: none in the log")
                                       : QStringLiteral("Last check in the log:"));
        for (const QString& text : in_.lastCheck)
            Line(QStringLiteral("  ") + text);
    }
    void Line(const QString& text = QString()) { out_ += text + QLatin1Char('\n'); }
    QString Text() const { return out_; }

private:
    void Row(const char* name, const QString& value) {
        Line(QStringLiteral("  %1 %2").arg(QLatin1String(name), -16).arg(value));
    }

    const Inspection& in_;
    QString out_;
};
} // namespace

QString RenderText(const Inspection& in) {
    TextReport report(in);
    report.Files();
    report.Line();
    report.Schedule();
    report.Line();
    report.Repairs();
    report.Line();
    report.Verdict();
    report.Line();
    report.Warnings();
    report.Line();
    report.Agent();
    return report.Text();
}

QJsonObject RenderJson(const Inspection& in) {
    const CONFIG_INFO& r = in.record;
    const ScheduleSettings& s = in.settings;
    const Forecast& f = in.forecast;
    const auto moment = [](qint64 seconds) {
        return seconds < 0 ? QJsonValue(QJsonValue::Null) : QJsonValue(Moment(seconds));
    };
    QJsonArray repairs;
    for (const Inspection::Repair& repair : in.repairs)
        repairs.append(QJsonObject{
            {"section", repair.section},
            {"key", repair.key},
            {"from", repair.from.isNull() ? QJsonValue(QJsonValue::Null) : QJsonValue(repair.from)},
            {"to", repair.to}});
    const QJsonObject schedule{
        {"strategy", r.nStrategy ? "cycle" : "never"},
        {"cycle_days", qint64(r.nUpdateCycle)},
        {"last_launch", Moment(r.nLastLaunchTime)},
        {"status", r.bContinue ? in.texts[int(Setting::LastStatus)] : QStringLiteral("ready")},
        {"interrupted", bool(r.bContinue)},
        {"delay_round", qint64(r.nDelayTimes)},
        {"delay_time", qint64(r.nDelayTime)},
        {"auto_check_now", qint64(s.autoCheckNow)},
        {"time_random_range", qint64(s.timeRandomRange)},
        {"timer_minutes", qint64(s.timerMinutes)},
        {"run_with_system", s.runWithSystem}};
    const bool launches = f.earliest >= 0 && !in.failsAtStart;
    QJsonObject report{
        {"installed", in.files.installed},
        {"user_info", in.files.userInfo},
        {"log", in.files.log},
        {"at", in.at.toString(QLatin1String(kDateFormat))},
        {"check_at", Moment(in.checkAt)},
        {"verdict", VerdictText(in)},
        {"reason", Reason(in)},
        {"cycle_end", Moment(f.cycleEnd)},
        {"earliest", launches ? moment(f.earliest) : QJsonValue(QJsonValue::Null)},
        {"latest", launches ? moment(f.latest) : QJsonValue(QJsonValue::Null)},
        {"missed", f.missed},
        {"schedule", schedule},
        {"repairs", repairs},
        {"warnings", QJsonArray::fromStringList(in.warnings)},
        {"running", in.agent.pid != 0},
        {"pid", in.agent.pid ? QJsonValue(in.agent.pid) : QJsonValue(QJsonValue::Null)},
        {"port_listening", in.agent.listening},
        {"last_check", QJsonArray::fromStringList(in.lastCheck)}};
    if (in.failsAtStart)
        report["start_failure"] = QJsonObject{
            {"messages", QJsonArray::fromStringList(in.startFailure.messages)},
            {"where", in.startFailure.where},
            {"status", in.startFailure.status < 0 ? QJsonValue(QJsonValue::Null)
                                                  : QJsonValue(in.startFailure.status)}};
    return report;
}

namespace {
// A label value with backslash, double quote and line feed escaped.
QString LabelValue(QString text) {
    return text.replace(QLatin1Char('\\'), QLatin1String("\\\\"))
        .replace(QLatin1Char('"'), QLatin1String("\\\""))
        .replace(QLatin1Char('\n'), QLatin1String("\\n"));
}

class Exposition {
public:
    explicit Exposition(const QString& installed)
        : label_(QStringLiteral("installed=\"%1\"").arg(LabelValue(installed))) {}

    // One gauge with one sample, or none when `value` is negative and `optional`.
    void Gauge(const char* name, const char* help, qint64 value, bool optional = false) {
        if (optional && value < 0)
            return;
        Header(name, help);
        Sample(name, QString(), value);
    }
    void Header(const char* name, const char* help) {
        out_ += QStringLiteral("# HELP %1 %2\n# TYPE %1 gauge\n")
                    .arg(QLatin1String(name), QLatin1String(help));
    }
    void Sample(const char* name, const QString& labels, qint64 value) {
        out_ += QStringLiteral("%1{%2%3} %4\n").arg(QLatin1String(name), label_, labels).arg(value);
    }
    QString Text() const { return out_; }

private:
    const QString label_;
    QString out_;
};
} // namespace

QString RenderPrometheus(const Inspection& in) {
    const Forecast& f = in.forecast;
    Exposition e(in.files.installed);
    e.Gauge("ravel_agent_running", "Whether a resident agent runs for the installed folder.",
            in.agent.pid != 0);
    e.Gauge("ravel_last_launch_timestamp_seconds",
            "The updater's last launch, as the agent reads it.", in.record.nLastLaunchTime);
    e.Gauge("ravel_cycle_end_timestamp_seconds", "The end of the update cycle.", f.cycleEnd);
    const bool launches = f.earliest >= 0 && !in.failsAtStart;
    e.Gauge("ravel_next_launch_earliest_timestamp_seconds",
            "The earliest moment of the next launch; absent when none is foreseen.",
            launches ? f.earliest : -1, true);
    e.Gauge("ravel_next_launch_latest_timestamp_seconds",
            "The latest moment of the next launch; absent when none is foreseen.",
            launches ? f.latest : -1, true);
    e.Gauge("ravel_delay_round", "The delay round the schedule is in (1 to 3).",
            in.record.nDelayTimes);
    e.Gauge("ravel_interrupted_run", "Whether the last updater run was interrupted.",
            in.record.bContinue != 0);
    e.Header("ravel_verdict", "The verdict for the next check: 1 for the current one.");
    QStringList verdicts;
    for (int verdict = 0; verdict <= int(Verdict::WaitDelay); ++verdict)
        verdicts << QLatin1String(VerdictName(Verdict(verdict)));
    for (const QString& verdict : verdicts << QStringLiteral("fails-at-start"))
        e.Sample("ravel_verdict", QStringLiteral(",verdict=\"%1\"").arg(verdict),
                 verdict == VerdictText(in));
    e.Gauge("ravel_repairs_pending", "Settings values the next check repairs.", in.repairs.size());
    e.Gauge("ravel_warnings", "Warnings about settings and files.", in.warnings.size());
    e.Gauge("ravel_log_bytes", "The size of the agent's log; absent without a log.", in.logBytes,
            true);
    return e.Text();
}
