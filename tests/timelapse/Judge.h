// Judging one simulated login from what it left: its part of ravel.log, the inspector's forecasts,
// the session's samples of the resident. Facts in, findings out: nothing here reads a file or the
// clock. Moments are seconds since the epoch; local texts are read in the process's time zone.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

// One check of the resident copy, from its reading of the schedule to its "Sleep N Minutes" line.
struct LogCheck {
    qint64 at = -1;       // when it read the schedule
    quint32 minutes = 0;  // N; 0 for a check the session's end cut off
    qint64 launchAt = -1; // "Time is Ready, Try to Launch(...)" or the resume line: its stamp
    bool resumed = false; // "LastTime DownLoad broken, Continue now!"
    qint64 drawn = -1;    // "Delay to Time (...)": the moment drawn
};

// What a session's part of the log says.
struct SessionLog {
    QList<LogCheck> checks;
    QStringList malformed;    // lines neither a banner nor "[SOURCE(N)][date]<tabs>[TEXT]-->"
    int starts = 0, ends = 0; // banners
    bool unbalanced = false;  // an End banner with no run open
    qint64 earliest = -1, latest = -1; // time stamps
};
// The checks, banners and malformed lines of `text` (lines ended by "\n"); a check the text ends
// in is kept when it launched or drew, with minutes 0. Never fails.
SessionLog ReadSessionLog(const QString& text);
// The moment of the first check that a "Sleep" line closed; -1 when none did.
qint64 FirstCheck(const SessionLog& log);

// "yyyy-MM-dd hh:mm:ss" local time as seconds; -1 for a text that is no such moment.
qint64 Seconds(const QString& text);
// Seconds as local "yyyy-MM-dd hh:mm:ss".
QString LocalText(qint64 seconds);

// The inspector's verdict and window (-1: none foreseen).
struct Forecast {
    QString verdict;
    qint64 checkAt = -1, earliest = -1, latest = -1;
};
// From ravel-schedule --json; an empty verdict when the text is no report.
Forecast ForecastFrom(const QByteArray& json);

// One look at the resident: its resident memory, its open descriptors and the stored last launch.
struct Sample {
    qint64 at = 0, rssKb = 0, fds = 0, lastLaunch = -1;
};

// Everything one login left.
struct DayFacts {
    qint64 login = -1, logout = -1; // the session's moments; logout: when it sent SIGTERM
    int installedStatus = -1;       // the installed copy's exit status
    QString residentEnd;            // "SIGTERM" when the session's end ended it
    QString problem;                // what went wrong in the session itself
    qint64 lastLaunch = -1;         // the stored last launch at login
    int updaterRuns = 0;            // the stand-in updater's runs in the session
    Forecast announced;             // asked at login, before the agent started
    Forecast replayed; // the same question (the same files) for the moment of the first check
    QList<Sample> samples;
    SessionLog log;
};

// What the settings promise.
struct Expectations {
    qint64 interval = 60;    // seconds between checks (TimerMinutes)
    qint64 cycle = 86400;    // seconds of a cycle (UpdateCycle days)
    qint64 rssSlackKb = 64;  // growth of resident memory over a quiet stretch that still is flat
    bool judgeMemory = true; // false where an allocator keeps freed memory on purpose
};

// How late a check may come, in seconds: half an interval. At 600 times real time a loaded machine
// that delays the resident by 250 ms moves a check 150 simulated seconds; the timer keeps its
// grid, so lateness never adds up, and a check an interval late would show as one missing.
qint64 LatenessAllowed(const Expectations& expect);

struct DayFindings {
    QStringList failures;
    qint64 firstCheck = -1;  // the resident's first check
    int checks = 0;          // closed checks
    qint64 latest = 0;       // the most a check came after its time
    QList<qint64> launches;  // moments the updater was started
    QString memory, handles; // resident memory growth and descriptors over the quiet stretch
};
// Every promise of one login judged (docs/reliability.md, the time-lapse soak): a failure's text
// for each one broken, with the moments involved.
DayFindings JudgeDay(const DayFacts& facts, const Expectations& expect);
