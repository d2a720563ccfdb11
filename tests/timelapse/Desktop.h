// One simulated desktop, run inside private namespaces of its own (tests/isolated.sh): the
// product laid out as its installer leaves it, with the default data root, then each login of the
// scenario under a fast clock, then every login judged.
#pragma once

#include "Scenario.h"

struct DesktopPlan {
    Scenario scenario;
    int days = 2;
    int speed = 600; // simulated seconds per real second
    QString out;  // the desktop's folder, ending with "/": a folder per login, the log, the report
    QString self; // this program, which runs each login as "--session"
};

// Runs the logins one after another (progress on standard error), judges them, prints the report
// (a table of the logins, then every finding) on standard output and its last line, the summary,
// to out + "summary.txt" too. Status 0 when every login passed, 1 otherwise.
int RunDesktop(const DesktopPlan& plan);
