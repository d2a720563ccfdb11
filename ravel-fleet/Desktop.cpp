#include "Desktop.h"

namespace {

uint64_t SplitMix(uint64_t& state) {
    uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

uint32_t DrawIn(const DayWindow& window, DesktopStream& stream) {
    return window.from + stream.Below(window.to - window.from);
}

// Whether the desktop is used on this weekday, and its login and logout: from the sessions seen
// in logs when there are any (none that weekday: off), else in the windows on weekdays only.
bool DayAtTheDesktop(const FleetModel& model, uint32_t weekday, DesktopStream& stream,
                     Session& session) {
    if (model.absentShare > 0 && stream.Chance(model.absentShare))
        return false;
    if (model.sessions) {
        const std::vector<Session>& seen = model.sessions->byWeekday[weekday];
        if (seen.empty())
            return false;
        session = seen[stream.Below(uint32_t(seen.size()))];
        return true;
    }
    if (weekday >= 5)
        return false;
    session.login = DrawIn(model.login, stream);
    session.logout = DrawIn(model.logout, stream);
    return true;
}

// The updater finishes at once; an interrupted run only leaves its status behind.
void RunUpdater(const FleetModel& model, DesktopRecord& record, uint32_t now,
                DesktopStream& stream) {
    if (model.interruptedShare > 0 && stream.Chance(model.interruptedShare)) {
        record.interrupted = true;
        return;
    }
    record = DesktopRecord{now, 1, 0, false};
}

// The checks of one agent run: one at login, then one every TimerMinutes before logout.
void RunSession(const FleetModel& model, const SeedDraws& table, DesktopRecord& record,
                uint64_t login, uint64_t logout, DesktopStream& stream, LaunchSink& sink,
                bool everyCheck) {
    // The agent seeds the generator with the seconds since local midnight at start-up.
    const uint32_t seed = model.uniqueSeeds ? static_cast<uint32_t>(stream.Next())
                                            : static_cast<uint32_t>(login % kSecondsPerDay);
    RunDraws draws(table, seed);
    if (record.lastLaunch == kNeverLaunched) // a fresh install: the first check starts the cycle
        record.lastLaunch = static_cast<uint32_t>(login);
    StartAgent(model, record, static_cast<uint32_t>(login));
    const uint64_t period = uint64_t(model.timerMinutes) * 60;
    for (uint64_t now = login; now < logout;) {
        const uint32_t cycleEnd = record.lastLaunch + model.cycleDays * kSecondsPerDay;
        const CheckAction action = CheckOnce(model, record, static_cast<uint32_t>(now), draws);
        if (action != CheckAction::None) {
            sink.OnLaunch({static_cast<uint32_t>(now), cycleEnd, action == CheckAction::Resume});
            RunUpdater(model, record, static_cast<uint32_t>(now), stream);
        }
        uint64_t next = now + period;
        if (!everyCheck) {
            const uint64_t moment = NextActionMoment(model, record, static_cast<uint32_t>(now));
            if (moment > next)
                next = login + (moment - login + period - 1) / period * period;
        }
        now = next;
    }
}

} // namespace

DesktopStream::DesktopStream(uint64_t seed, uint64_t index) : state_(seed) {
    state_ = SplitMix(state_) ^ index;
    SplitMix(state_);
}

uint64_t DesktopStream::Next() {
    return SplitMix(state_);
}

uint32_t DesktopStream::Below(uint32_t count) {
    return static_cast<uint32_t>((unsigned __int128)Next() * count >> 64);
}

bool DesktopStream::Chance(double share) {
    return double(Next() >> 11) * 0x1.0p-53 < share;
}

DesktopRecord InitialRecord(const FleetModel& model, DesktopStream& stream) {
    const uint32_t cycle = model.cycleDays * kSecondsPerDay;
    DesktopRecord record;
    if (model.freshShare > 0 && stream.Chance(model.freshShare)) {
        record.lastLaunch = kNeverLaunched;
        record.delayTime = 4294967295u; // "DelayTime" absent
        return record;
    }
    record.lastLaunch =
        model.synced ? kDayZero - cycle / 2 : kDayZero - cycle + stream.Below(cycle);
    return record;
}

void SimulateDesktop(const FleetModel& model, const SeedDraws& draws, DesktopStream& stream,
                     DesktopRecord record, LaunchSink& sink, bool everyCheck) {
    const uint64_t end = uint64_t(kDayZero) + uint64_t(model.days) * kSecondsPerDay;
    if (stream.Chance(model.alwaysOnShare)) {
        const uint64_t login = kDayZero + DrawIn(model.login, stream);
        RunSession(model, draws, record, login, end, stream, sink, everyCheck);
        return;
    }
    for (uint32_t day = 0; day < model.days; ++day) {
        Session session{0, 0};
        if (!DayAtTheDesktop(model, day % 7, stream, session)) // day 0 is a Monday
            continue;
        const uint64_t midnight = kDayZero + uint64_t(day) * kSecondsPerDay;
        RunSession(model, draws, record, midnight + session.login, midnight + session.logout,
                   stream, sink, everyCheck);
    }
}
