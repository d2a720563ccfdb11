// One simulated desktop over the days: logins, logouts, the agent's checks and the updater.
#pragma once

#include "AgentRules.h"

#include <cstdint>

// The random stream of one desktop (login and logout moments, initial state, interrupted runs):
// fixed by the fleet's seed and the desktop's number, whatever thread runs it.
class DesktopStream {
public:
    DesktopStream(uint64_t seed, uint64_t index);
    uint64_t Next();
    // Uniform in [0, count); 0 when count is 0.
    uint32_t Below(uint32_t count);
    bool Chance(double share);

private:
    uint64_t state_;
};

struct Launch {
    uint32_t moment;
    uint32_t cycleEnd; // "LastLaunchTime" + UpdateCycle days, as the launch found it
    bool resumed;      // an interrupted run started again rather than a scheduled launch
};

class LaunchSink {
public:
    virtual ~LaunchSink() = default;
    virtual void OnLaunch(const Launch& launch) = 0;
};

// The record before day 0: the last launch uniform over the cycle before it, or half a cycle
// before it when the fleet is synced.
DesktopRecord InitialRecord(const FleetModel& model, DesktopStream& stream);

// Runs one desktop from day 0 to the end of the last day and reports every start of the
// updater in time order. `everyCheck` runs every check instead of jumping over those that
// cannot act; both give the same launches.
void SimulateDesktop(const FleetModel& model, const SeedDraws& draws, DesktopStream& stream,
                     DesktopRecord record, LaunchSink& sink, bool everyCheck = false);
