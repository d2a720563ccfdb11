// Whether an agent runs, read from the process table and the socket tables under /proc; nothing
// connects to the agent (a connection would end it).
#pragma once

#include "Report.h"

// The duplicate started with `files.installed` as its argument (compared as canonical paths; in
// the per-user build only this account's processes), whether the agent's port is listened on
// (per-user: whether its socket file, InstanceSocket(files.dataFolder), is there), and by which
// process when that can be seen.
AgentProcess ProbeAgent(const AgentFiles& files);

// The argument (an installed folder) of a process running the agent's executable in the
// duplicate folder `duplicate`; empty when none runs.
QString RunningFrom(const QString& duplicate);
