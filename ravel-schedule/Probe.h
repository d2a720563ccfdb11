// Whether an agent runs, read from the process table and the socket table under /proc; nothing
// connects to the agent (a connection would end it).
#pragma once

#include "Report.h"

// The duplicate started with `installed` as its argument (compared as canonical paths), whether
// the agent's port is listened on, and by which process when that can be seen.
AgentProcess ProbeAgent(const QString& installed);

// The argument (an installed folder) of a process running the agent's executable in the
// duplicate folder `duplicate`; empty when none runs.
QString RunningFrom(const QString& duplicate);
