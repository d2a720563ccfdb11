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

// The agent's rules on one desktop: the fleet's settings, the simulated clock and the desktop's
// draws. What the rules write to "DelayInfo" lands in the record as the store reads it back.
class DesktopEnv final : public ScheduleEnv {
public:
    DesktopEnv(const FleetModel& model, DesktopRecord& record, uint32_t now, RunDraws* draws)
        : model_(model), record_(record), now_(now), draws_(draws) {}

    QString Read(Setting setting) override {
        if (setting == Setting::AutoCheckNow)
            return QString::number(model_.autoCheckNow);
        if (setting == Setting::TimeRandomRange)
            return QString::number(model_.rangeMinutes);
        return QString();
    }
    void Write(Setting setting, const QString& text) override {
        const quint32 value = SettingValue(setting, text).toUInt();
        if (setting == Setting::DelayTime)
            record_.delayTime = value;
        else if (setting == Setting::DelayTimes)
            record_.delayTimes = value;
    }
    QDateTime Now() override { return QDateTime::fromSecsSinceEpoch(now_, Qt::UTC); }
    quint32 NowSeconds() override { return now_; }
    int Draw() override { return draws_ ? draws_->Next() : 0; }
    void Log(int, const char*, const LogArgument&) override {}
    void Indent(int) override {}
    int Launch() override { return 0; }
    QString UpdaterPath() override { return QString(); }
    void Exit() override {}

private:
    const FleetModel& model_;
    DesktopRecord& record_;
    const uint32_t now_;
    RunDraws* draws_;
};

} // namespace

void StartAgent(const FleetModel& model, DesktopRecord& record, uint32_t now) {
    CONFIG_INFO info = ToInfo(model, record);
    DesktopEnv env(model, record, now, nullptr);
    CountMissedRound(env, info);
}

CheckAction CheckOnce(const FleetModel& model, DesktopRecord& record, uint32_t now,
                      RunDraws& draws) {
    DesktopEnv env(model, record, now, &draws);
    // Strategy "cycle" with RunWithSystem: the agent neither idles nor ends.
    const CheckOutcome outcome = Act(env, ToInfo(model, record), true);
    if (!outcome.launched)
        return CheckAction::None;
    return outcome.branch == Branch::Resume ? CheckAction::Resume : CheckAction::Launch;
}

uint64_t NextActionMoment(const FleetModel& model, const DesktopRecord& record, uint32_t now) {
    const CONFIG_INFO info = ToInfo(model, record);
    if (ChooseBranch(info, true) != Branch::Decide)
        return uint64_t(now) + 1;
    return uint64_t(NextChange(info, now));
}
