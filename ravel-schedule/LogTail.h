// What the agent's log says: its last check, and where its duplicate folder was deployed from.
#pragma once

#include "Report.h"

// The lines of the last check in the log at `path` (its last quarter of a megabyte): from the
// check's "ReadConfigInfo: Enter" line (not indented; the start-up rule's reading is) to its
// "Sleep" line, or its "never" exit. Not found when the log cannot be opened.
LogTail ReadLogTail(const QString& path);

// The installed folder named by the last deployment line of the log at `path`; empty when none.
QString LoggedDeployment(const QString& path);
