// What one desktop's ravel.log tells: when its user logged in and out, when the updater was
// launched, and what is wrong with the log itself. Text in, facts out: nothing here reads a file.
#pragma once

#include "FleetModel.h"

#include <cstdint>
#include <string>
#include <vector>

struct LogLaunch {
    uint64_t moment; // the desktop's wall clock, as seconds read as UTC
    bool resumed;    // an interrupted run started again, rather than a due launch
};

// A login: the installed copy's run, and the last line of the resident copy it handed over to.
struct LogSession {
    uint64_t login;
    uint64_t logout; // the last line logged before the next login or the log's end
};

struct DesktopLog {
    std::vector<LogSession> sessions;
    std::vector<LogLaunch> launches;
    uint64_t lines = 0;     // well-formed log lines
    uint64_t malformed = 0; // lines that are neither a log line nor a banner
    bool cut = false;       // the last line has no line end: the log was copied while written
    // The log does not begin with the agent's first deployment: it was emptied at 5 MiB (or
    // removed) since, so the desktop's earlier history is lost.
    bool startsMidHistory = false;
};

// Reads a log as the agent writes it: banners, and lines "[SOURCE(LINE)][yyyy-MM-dd hh:mm:ss]",
// tabs, "[MESSAGE]-->" (a message may run over several lines). Never fails: what it cannot read
// is counted.
DesktopLog ReadDesktopLog(const std::string& text);

// The sessions of these logs, by weekday and time of day, for simulated desktops to draw from.
// A session that runs past midnight ends at midnight.
SessionPool PoolOf(const std::vector<DesktopLog>& logs);
