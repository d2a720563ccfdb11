#include "AgentRules.h"

#include "Decision.h"

namespace {

// The record as the agent reads it back from what the simulated updater keeps valid.
CONFIG_INFO ToInfo(const FleetModel& model, const DesktopRecord& record) {
    CONFIG_INFO info{};
    info.nStrategy = 1;
    info.nUpdateCycle = model.cycleDays;
    info.nDelayTimes = record.delayTimes;
    info.bContinue = record.interrupted ? 1 : 0;
    info.nDelayTime = record.delayTime;
    info.nLastLaunchTime = record.lastLaunch;
    return info;
}

} // namespace

void StartAgent(const FleetModel& model, DesktopRecord& record, uint32_t now) {
    CONFIG_INFO info = ToInfo(model, record);
    if (!MissedDelay(info, now))
        return;
    CountMissedRound(info);
    record.delayTime = info.nDelayTime;
    record.delayTimes = info.nDelayTimes;
}

CheckAction CheckOnce(const FleetModel& model, DesktopRecord& record, uint32_t now,
                      RunDraws& draws) {
    const CONFIG_INFO info = ToInfo(model, record);
    // Strategy "cycle" with RunWithSystem: the agent neither idles nor ends.
    const Branch branch = ChooseBranch(info, true);
    if (branch == Branch::Resume)
        return CheckAction::Resume;
    if (branch != Branch::Decide)
        return CheckAction::None;
    const LaunchStep step = DecideLaunch(info, now, model.autoCheckNow);
    if (step.draws) {
        const qint64 moment =
            DrawnDelay(now, DelaySpan(info.nDelayTimes, model.rangeMinutes), draws.Next());
        record.delayTime = StoredDelay(moment); // as the next reading of "DelayTime" finds it
    }
    return step.launch ? CheckAction::Launch : CheckAction::None;
}

uint32_t NextActionMoment(const FleetModel& model, const DesktopRecord& record, uint32_t now) {
    const CONFIG_INFO info = ToInfo(model, record);
    if (ChooseBranch(info, true) != Branch::Decide)
        return now + 1;
    if (!CycleOver(info, now))
        return CycleEnd(info) + 1; // the end itself is not yet over
    const LaunchStep step = DecideLaunch(info, now, model.autoCheckNow);
    // A drawn delay still ahead: checks before it neither launch nor draw.
    if (!step.launch && !step.draws && info.nDelayTime > now)
        return info.nDelayTime;
    return now + 1;
}
