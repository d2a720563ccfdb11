// Where an installed product's files are, found by the agent's own resolver.
#pragma once

#include "Report.h"

// Fills `files` for the installed folder `folder`, reading only (nothing is made or stored).
// False, with a message in `problem`, when `folder` does not exist or is not a folder, when it is
// the agent's duplicate folder (the message names the installed folder it was deployed from,
// found from its running duplicate or its log), or when it holds neither ravel.app nor
// Tidewater.dat.
bool LocateInstalled(const QString& folder, AgentFiles& files, QString& problem);
