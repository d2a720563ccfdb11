// One login under the fast clock. It runs as the child of libfaketime's `faketime` wrapper, whose
// process holds the shared clock for the day, so that every program it starts (the inspector, the
// installed copy, the resident copy, the updater) reads the same simulated time.
#pragma once

#include <QString>

struct SessionPlan {
    QString installed; // the installed folder, ending with "/"
    QString data;      // the data folder, ending with "/"
    QString day;       // the day's folder for what the session leaves, ending with "/"
    qint64 logout = 0; // simulated seconds since the epoch
};

// Asks ravel-schedule for its verdict (day + "schedule.json") and keeps a copy of the settings it
// was asked about (day + "asked/", an installed folder whose data folder is day + "asked/data/"),
// starts the installed copy as a login does, looks at the resident copy every simulated minute
// (day + "samples.txt") until logout, then ends it with SIGTERM as a session's end does and waits
// for it. What happened is in day + "session.txt" (see Record.h). Status 0; 1 when that record
// cannot be written.
int RunSession(const SessionPlan& plan);
