#include "Judge.h"

#include "LogLine.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <climits>

namespace {
const char kDateTime[] = "yyyy-MM-dd hh:mm:ss";
const QString kReady = "Time is Ready, Try to Launch(";
const QString kResume = "LastTime DownLoad broken, Continue now!";
const QString kDelay = "Delay to Time (";
const QString kSleep = "Sleep ";
const QString kRead = "ReadConfigInfo: Enter";

// Adds one line's meaning to the check it belongs to. A check begins with reading the schedule
// (the last "ReadConfigInfo: Enter" before its "Sleep" line; the start-up rule reads it before)
// and its "Sleep" line closes it.
void Note(SessionLog& log, LogCheck& open, qint64 at, const QString& message) {
    if (message == kRead) {
        open.at = at;
    } else if (message.startsWith(kReady) || message == kResume) {
        open.launchAt = at;
        open.resumed = message == kResume;
    } else if (message.startsWith(kDelay) && message.endsWith(')')) {
        open.drawn = Seconds(message.mid(kDelay.size(), message.size() - kDelay.size() - 1));
    } else if (message.startsWith(kSleep) && message.endsWith(" Minutes")) {
        open.minutes = message.section(' ', 1, 1).toUInt();
        open.at = open.at < 0 ? at : open.at;
        log.checks.append(open);
        open = LogCheck();
    }
}

QString Clock(qint64 seconds) {
    return LocalText(seconds).mid(11);
}

void JudgeRun(const DayFacts& f, QStringList& failures) {
    if (!f.problem.isEmpty())
        failures << f.problem;
    if (f.installedStatus != 0)
        failures
            << QStringLiteral("the installed copy ended with status %1").arg(f.installedStatus);
    if (f.residentEnd != "SIGTERM")
        failures << QStringLiteral("the resident copy did not live until logout (%1)")
                        .arg(f.residentEnd.isEmpty() ? "none started" : f.residentEnd);
}

// Every line well formed and stamped within the session; the installed copy's run opened and
// closed, the resident's opened (SIGTERM ends it without its closing banner).
void JudgeLogForm(const DayFacts& f, QStringList& failures) {
    const SessionLog& log = f.log;
    if (!log.malformed.isEmpty())
        failures << QStringLiteral("%1 malformed log line(s), the first: %2")
                        .arg(log.malformed.size())
                        .arg(log.malformed.first());
    if (log.starts != 2 || log.ends != 1 || log.unbalanced)
        failures << QStringLiteral("banners: %1 Start and %2 End%3, not the installed copy's pair "
                                   "and the resident's Start")
                        .arg(log.starts)
                        .arg(log.ends)
                        .arg(log.unbalanced ? ", an End with no run open" : "");
    if (log.earliest >= 0 && (log.earliest < f.login - 1 || log.latest > f.logout + 2))
        failures << QStringLiteral("log lines stamped %1 to %2, outside the session %3 to %4")
                        .arg(LocalText(log.earliest), LocalText(log.latest), LocalText(f.login),
                             LocalText(f.logout));
}

QList<LogCheck> Closed(const SessionLog& log) {
    QList<LogCheck> closed;
    for (const LogCheck& check : log.checks)
        if (check.minutes > 0)
            closed.append(check);
    return closed;
}

// Checks every interval from the first: none early, none later than allowed, none missing.
void JudgePace(const DayFacts& f, const Expectations& e, DayFindings& out) {
    const QList<LogCheck> checks = Closed(f.log);
    out.checks = int(checks.size());
    if (checks.isEmpty()) {
        out.failures << "the resident logged no check";
        return;
    }
    const qint64 first = out.firstCheck = checks.first().at, allowed = LatenessAllowed(e);
    QStringList off; // checks off their time: the first is told, and how many there were
    for (int k = 0; k < checks.size(); ++k) {
        const qint64 due = first + k * e.interval, late = checks[k].at - due;
        out.latest = std::max(out.latest, late);
        if (checks[k].minutes != quint32(e.interval / 60))
            off << QStringLiteral("check at %1 logged Sleep %2 Minutes")
                       .arg(Clock(checks[k].at))
                       .arg(checks[k].minutes);
        if (late < -2 || late > allowed)
            off << QStringLiteral("check %1 came at %2, %3 s from its time %4 (-2 s to %5 s "
                                  "allowed)")
                       .arg(k + 1)
                       .arg(Clock(checks[k].at))
                       .arg(late)
                       .arg(Clock(due))
                       .arg(allowed);
    }
    if (!off.isEmpty())
        out.failures << off.first() +
                            (off.size() > 1 ? QStringLiteral("; %1 such").arg(off.size()) : "");
    // The last check before logout may come after it when late.
    const qint64 most = (f.logout + 2 - first) / e.interval + 1;
    const qint64 least = std::max<qint64>(1, (f.logout - allowed - first) / e.interval + 1);
    if (checks.size() < least || checks.size() > most)
        out.failures << QStringLiteral("%1 checks from %2 to logout at %3; %4 to %5 expected")
                            .arg(checks.size())
                            .arg(Clock(first), Clock(f.logout))
                            .arg(least)
                            .arg(most);
}

// How much later than the forecast's latest moment the first launch may come: a late check, and
// one interval more when the check that drew the delay came late (its draw then starts later).
qint64 UpperSlack(const SessionLog& log, const Expectations& e, qint64 first) {
    qint64 slack = LatenessAllowed(e);
    int k = 0;
    for (const LogCheck& check : Closed(log)) {
        if (check.drawn >= 0 && check.at - (first + k * e.interval) > 2)
            slack += e.interval;
        ++k;
    }
    return slack;
}

// The first launch inside the window foreseen for the first check; none when it lies past logout.
void JudgeWindow(const DayFacts& f, const Expectations& e, DayFindings& out) {
    const Forecast& w = f.replayed;
    if (w.verdict.isEmpty()) {
        out.failures << "no forecast for the first check";
        return;
    }
    const qint64 low = w.earliest - 2, high = w.latest + UpperSlack(f.log, e, out.firstCheck);
    if (out.launches.isEmpty()) {
        if (w.earliest >= 0 && high < f.logout)
            out.failures << QStringLiteral("no launch, though foreseen by %1").arg(Clock(w.latest));
        return;
    }
    const qint64 launch = out.launches.first();
    if (w.earliest < 0 || launch < low || launch > high)
        out.failures << QStringLiteral("launch at %1 outside the window foreseen for the first "
                                       "check: %2")
                            .arg(LocalText(launch),
                                 w.earliest < 0
                                     ? QStringLiteral("none (%1)").arg(w.verdict)
                                     : LocalText(w.earliest) + " to " + LocalText(w.latest));
}

// Every launch (but a resumed run) strictly after its cycle's end, the stored last launch read
// from the last look before it; and one updater run per launch.
void JudgeCycle(const DayFacts& f, const Expectations& e, DayFindings& out) {
    for (const LogCheck& check : f.log.checks) {
        if (check.launchAt < 0 || check.resumed)
            continue;
        qint64 last = f.lastLaunch;
        for (const Sample& sample : f.samples)
            if (sample.at < check.launchAt && sample.lastLaunch >= 0)
                last = sample.lastLaunch;
        if (last < 0 || check.launchAt <= last + e.cycle)
            out.failures << QStringLiteral("launch at %1 before its cycle is over (last launch %2)")
                                .arg(LocalText(check.launchAt),
                                     last < 0 ? "unknown" : LocalText(last));
    }
    if (f.updaterRuns != out.launches.size())
        out.failures << QStringLiteral("%1 launch(es) logged, %2 updater run(s) recorded")
                            .arg(out.launches.size())
                            .arg(f.updaterRuns);
}

// Resident memory and descriptors over the quiet stretch that begins ten minutes after the first
// check, the last launch and the last draw (each runs code for the first time): its last quarter
// against its first. Judged over 90 minutes or more only.
void JudgeFlat(const DayFacts& f, const Expectations& e, DayFindings& out) {
    qint64 from = out.firstCheck + 600;
    for (const LogCheck& check : f.log.checks)
        if (check.launchAt >= 0 || check.drawn >= 0)
            from = std::max(from, check.at + 600);
    QList<Sample> quiet;
    for (const Sample& sample : f.samples)
        if (sample.at >= from)
            quiet.append(sample);
    if (out.firstCheck < 0 || f.logout - from < 5400 || quiet.size() < 8) {
        out.memory = out.handles = "-";
        return;
    }
    const qint64 end = quiet.last().at, quarter = (end - from) / 4;
    qint64 rss[2] = {0, 0}, fds[2] = {LLONG_MAX, LLONG_MAX}; // first and last quarter
    for (const Sample& sample : quiet) {
        if (sample.at >= from + quarter && sample.at < end - quarter)
            continue;
        const int part = sample.at >= end - quarter;
        rss[part] = std::max(rss[part], sample.rssKb);
        fds[part] = std::min(fds[part], sample.fds);
    }
    out.memory = QStringLiteral("%1%2").arg(rss[1] >= rss[0] ? "+" : "").arg(rss[1] - rss[0]);
    out.handles = QString::number(fds[1]);
    if (e.judgeMemory && rss[1] - rss[0] > e.rssSlackKb)
        out.failures << QStringLiteral("resident memory grew by %1 kB from %2 to %3")
                            .arg(rss[1] - rss[0])
                            .arg(Clock(from), Clock(f.logout));
    if (fds[1] != fds[0])
        out.failures << QStringLiteral("open descriptors went from %1 to %2 between %3 and %4")
                            .arg(fds[0])
                            .arg(fds[1])
                            .arg(Clock(from), Clock(f.logout));
}
} // namespace

qint64 Seconds(const QString& text) {
    const QDateTime moment = QDateTime::fromString(text, kDateTime);
    return moment.isValid() ? moment.toSecsSinceEpoch() : -1;
}

QString LocalText(qint64 seconds) {
    return QDateTime::fromSecsSinceEpoch(seconds).toString(kDateTime);
}

SessionLog ReadSessionLog(const QString& text) {
    SessionLog log;
    LogCheck open;
    int running = 0;
    for (const QString& line : text.split('\n', Qt::SkipEmptyParts)) {
        const std::string bytes = line.toStdString();
        LogLine parsed;
        if (IsStartBanner(bytes)) {
            ++log.starts, ++running;
        } else if (IsEndBanner(bytes)) {
            ++log.ends;
            log.unbalanced |= --running < 0;
        } else if (!ParseLogLine(bytes, parsed) || Seconds(parsed.stamp.c_str()) < 0) {
            log.malformed << line;
        } else {
            const qint64 at = Seconds(parsed.stamp.c_str());
            log.earliest = log.earliest < 0 ? at : std::min(log.earliest, at);
            log.latest = std::max(log.latest, at);
            Note(log, open, at, QString::fromStdString(parsed.message));
        }
    }
    if (open.launchAt >= 0 || open.drawn >= 0)
        log.checks.append(open); // cut off by the session's end
    return log;
}

Forecast ForecastFrom(const QByteArray& json) {
    const QJsonObject report = QJsonDocument::fromJson(json).object();
    const auto moment = [&](const char* key) {
        return report[key].isString() ? Seconds(report[key].toString()) : -1;
    };
    return {report["verdict"].toString(), moment("check_at"), moment("earliest"), moment("latest")};
}

qint64 FirstCheck(const SessionLog& log) {
    const QList<LogCheck> checks = Closed(log);
    return checks.isEmpty() ? -1 : checks.first().at;
}

qint64 LatenessAllowed(const Expectations& expect) {
    return expect.interval / 2;
}

DayFindings JudgeDay(const DayFacts& facts, const Expectations& expect) {
    DayFindings out;
    for (const LogCheck& check : facts.log.checks)
        if (check.launchAt >= 0)
            out.launches.append(check.launchAt);
    JudgeRun(facts, out.failures);
    JudgeLogForm(facts, out.failures);
    JudgePace(facts, expect, out);
    if (out.firstCheck >= 0)
        JudgeWindow(facts, expect, out);
    JudgeCycle(facts, expect, out);
    JudgeFlat(facts, expect, out);
    return out;
}
