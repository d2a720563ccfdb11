// One desktop's agent as the fleet sees it: its schedule record and what its start-up and its
// checks do to it. Every decision is the agent's own decision core; nothing here re-states a
// rule.
#pragma once

#include "CRandom.h"
#include "FleetModel.h"

#include <cstdint>

// A fresh install's "LastLaunchTime": absent until the agent's first check writes it.
constexpr uint32_t kNeverLaunched = 0;

// What "UserInfo.dat" holds for one desktop; the updater in the simulation keeps it valid.
struct DesktopRecord {
    uint32_t lastLaunch = 0;  // "LastLaunchTime"
    uint32_t delayTimes = 1;  // "DelayTimes"
    uint32_t delayTime = 0;   // "DelayTime"
    bool interrupted = false; // "LastStatus" is "downloading" rather than "ready"
};

// The generator as one agent run sees it: seeded at start-up, then drawn in order.
class RunDraws {
public:
    RunDraws(const SeedDraws& table, uint32_t seed) : table_(table), seed_(seed) {}
    int32_t Next() { return table_.Draw(seed_, used_++); }

private:
    const SeedDraws& table_;
    uint32_t seed_;
    int used_ = 0;
};

enum class CheckAction { None, Launch, Resume };

// The start-up rule for a delay that ran out while the agent was away; may change the record.
void StartAgent(const FleetModel& model, DesktopRecord& record, uint32_t now);

// One check at `now`; a drawn delay is stored in the record. Launch and Resume mean the updater
// is started; the caller then plays the updater's part.
CheckAction CheckOnce(const FleetModel& model, DesktopRecord& record, uint32_t now,
                      RunDraws& draws);

// The earliest moment after `now` at which a check could start the updater or draw a delay;
// checks before it do nothing and change nothing. At least now + 1; may pass the 32-bit clock.
uint64_t NextActionMoment(const FleetModel& model, const DesktopRecord& record, uint32_t now);
