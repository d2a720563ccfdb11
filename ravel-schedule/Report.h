// ravel-schedule's facts and findings: what it gathers about one installed product (Gather.cpp,
// with Locate, Probe and LogTail), and what it makes of them (Evaluate, a pure function), which
// Render prints.
#pragma once

#include "Decision.h"

#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>

// Where the agent's files for one installed folder are (see LocateAgentPlaces).
struct AgentFiles {
    QString installed;   // ending with "/"
    QString settings;    // Tidewater.dat
    QString dataFolder;  // from "DupInfo"/"DuplicatePath" or the display name, ending with "/"
    QString userInfo;    // dataFolder + "Brightwell/UserInfo.dat"
    QString log;         // dataFolder + "log/ravel.log"
    bool stored = true;  // the data folder is "DupInfo"/"DuplicatePath" (else made from the name)
    QString displayName; // of the main component, when no data folder is stored
};

// Whether a resident agent runs for the folder, found without connecting to it.
struct AgentProcess {
    qint64 pid = 0;         // a duplicate started with this installed folder; 0 when none
    bool listening = false; // the agent's port is listened on (loopback or any address); per-user:
                            // its socket file is there
    qint64 portPid = 0;     // the process holding the port (the socket), when it can be seen
};

// The lines of the last check in the log.
struct LogTail {
    bool found = false;    // the log could be opened
    qint64 bytes = -1;     // its size; -1 when it could not be opened
    QStringList lastCheck; // from its "ReadConfigInfo: Enter" to its "Sleep" (or end) line
};

// How a settings file reads: as settings, or why the agent falls back to the defaults.
enum class FileState : quint8 { Settings, Missing, Unreadable, NoSettings };

// Everything ravel-schedule reads about one installed product; Evaluate needs nothing else.
struct Facts {
    AgentFiles files;
    QDateTime at; // the moment asked about
    AgentProcess agent;
    LogTail log;
    QString texts[kSettingCount]; // the settings' texts as stored ("" when absent)
    QString logSwitch;            // "LOG"/"LogSwitch" of Tidewater.dat as stored
    FileState settingsFile = FileState::Settings;
    FileState userInfoFile = FileState::Settings;
    // Present files among those the agent checks at start without RunWithSystem.
    bool updaterPresent = true, userInfoPresent = true, settingsPresent = true;
    bool componentsPresent = true;
    // The duplicate folder (UserInfo.dat's) and UserInfo.dat: writable by this account, or absent.
    QString duplicate;
    bool duplicateWritable = true, userInfoWritable = true;
    // Whether the agent, run by this account, could make the data folder it names when none is
    // stored, and the duplicate folder in it (both true when they exist).
    bool dataFolderMakeable = true, duplicateMakeable = true;
    bool bundlePresent = true;    // ravel.app/Contents/MacOS/ravel in the installed folder
    bool refusedAsRoot = false;   // the per-user agent, and this account is root
    QStringList foreignLibraries; // in the duplicate folder, not in the installed folder
};

// Why an agent started now would end before its first check, and what it would print.
struct StartFailure {
    QString reason;
    QStringList messages; // in order, as printed (store messages without their time stamp)
    QString where;        // "standard error" or "the log"
    int status = 255;     // of the copy that fails; -1 when nothing can start it
};

// Everything the tool says.
struct Inspection {
    AgentFiles files;
    QDateTime at;
    quint32 checkAt = 0;          // the check the verdict is for: `at`, or for a running agent the
                                  // first of its checks (by the log) at or after `at`
    QString texts[kSettingCount]; // the settings texts as found
    CONFIG_INFO record{};         // as the agent reads it, after its repairs
    ScheduleSettings settings;
    Forecast forecast;
    AgentProcess agent;
    struct Repair {
        QString section, key, from, to; // from: null when absent
    };
    QList<Repair> repairs;
    QStringList warnings;
    QStringList lastCheck; // the log's lines of the last check; empty when none
    bool logFound = false;
    qint64 logBytes = -1;      // the log's size; -1 when there is none
    bool failsAtStart = false; // an agent started now ends before its first check (no agent runs)
    StartFailure startFailure;
};

// "fails-at-start" when an agent started now would end at start, else the forecast's verdict.
QString VerdictText(const Inspection& inspection);

// Reads everything about the product whose files are `files` (never writes), for the moment `at`.
Facts GatherFacts(const AgentFiles& files, const QDateTime& at, const AgentProcess& agent);

// The findings, from the facts alone: the schedule as the agent reads it and the repairs its next
// reading would write, the check the verdict is for (`at`, or for a running agent the first of its
// checks, timed from the last one in its log, at or after `at`), the forecast for an agent starting
// then (missed-delay rule first) or for the running one, and the warnings.
Inspection Evaluate(const Facts& facts);
