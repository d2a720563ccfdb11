// The load a fleet really made: collected logs read together into the figures a simulation
// gives, with what the logs themselves lack.
#pragma once

#include "Fleet.h"
#include "LogReader.h"

#include <string>
#include <vector>

struct Observation {
    Tally tally{1};    // launches on the server's clock, from the first observed day
    uint64_t logs = 0; // desktops
    uint64_t logins = 0;
    uint64_t malformedLines = 0;
    uint64_t cutLogs = 0;        // copied while written: the last line is incomplete
    uint64_t midHistoryLogs = 0; // emptied at 5 MiB (or removed) since the first deployment
    uint64_t neverLaunched = 0;  // desktops whose log shows no launch
    std::vector<uint32_t> gaps;  // seconds between one desktop's launches, in order
};

// The files to read: each path given that is a file, and the *.log files in each folder given
// and below it. False, with a message, for a path that does not exist, a folder that cannot be
// read, or when no log is found at all.
bool FindLogs(const std::vector<std::string>& paths, std::vector<std::string>& files,
              std::string& error);

// The logs read together. Their times are the desktops' wall clocks; `utcOffset` (seconds east
// of UTC) moves them to the server's clock. `model` gives the login window.
Observation Observe(const std::vector<DesktopLog>& logs, const FleetModel& model,
                    int32_t utcOffset);

// The observation for a person and as one JSON object (after the figures' own keys).
std::string ObservationText(const Observation& observation, const FleetModel& model);
std::string ObservationJson(const Observation& observation);
