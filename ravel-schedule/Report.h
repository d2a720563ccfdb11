// ravel-schedule's work: find an installed product's settings as the agent does, read them
// without changing anything, and say when the next launch comes and why.
#pragma once

#include "Decision.h"

#include <QDateTime>
#include <QJsonObject>
#include <QString>
#include <QStringList>

// Where the agent's files for one installed folder are.
struct AgentFiles {
    QString installed;  // ending with "/"
    QString settings;   // Tidewater.dat
    QString dataFolder; // from "DupInfo"/"DuplicatePath" or the display name, ending with "/"
    QString userInfo;   // dataFolder + "Brightwell/UserInfo.dat"
    QString log;        // dataFolder + "log/ravel.log"
};

// Finds the files as the agent would, reading only: nothing is created or stored. Returns
// false with a message when `folder` does not exist or holds neither ravel.app nor
// Tidewater.dat.
bool FindAgentFiles(const QString& folder, AgentFiles& files, QString& problem);

// Whether a resident agent runs for the folder, found without connecting to it.
struct AgentProcess {
    qint64 pid = 0;         // a duplicate started with this installed folder; 0 when none
    bool listening = false; // 127.0.0.1:31334 (or any address) is listened on
    qint64 portPid = 0;     // the process holding the port, when it can be seen; 0 otherwise
};
// Reads /proc only.
AgentProcess FindAgentProcess(const QString& installed);

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
};
// Reads the files (never writes) and evaluates for an agent starting at `at`, or for a running
// agent's first check at or after `at` (timed from its last logged check when there is one).
Inspection Inspect(const AgentFiles& files, const QDateTime& at, const AgentProcess& agent);

QString RenderText(const Inspection& inspection);
QJsonObject RenderJson(const Inspection& inspection);
