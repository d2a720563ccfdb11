#include "Advise.h"

#include <algorithm>
#include <tuple>

namespace {
const uint32_t kTimers[] = {1, 5, 15, 30, 60};
const uint32_t kRanges[] = {15, 30, 60, 120, 240, 480, 720};
constexpr size_t kShown = 10;

std::string Settings(const Candidate& c) {
    std::string text = "UpdateCycle " + std::to_string(c.cycleDays) + ", AutoCheckNow " +
                       std::to_string(c.autoCheckNow);
    if (c.autoCheckNow == 0)
        text += ", TimeRandomRange " + std::to_string(c.rangeMinutes);
    return text + ", TimerMinutes " + std::to_string(c.timerMinutes);
}

std::string Row(const Candidate& c) {
    const Figures& f = c.figures;
    return "  " + Settings(c) + ": peak " + std::to_string(f.peakPerMinute) + "/min, " +
           std::to_string(f.peakPerSecond) + "/s; wait median " + Duration(f.medianWait) +
           ", 95th percentile " + Duration(f.p95Wait) +
           (f.neverLaunched ? "; " + std::to_string(f.neverLaunched) + " never launched" : "") +
           "\n";
}

std::string Limit(const Limits& limits) {
    return std::to_string(limits.perMinute) + " launches a minute" +
           (limits.perSecond ? " and " + std::to_string(limits.perSecond) + " a second" : "");
}

// The settings files' lines for the best candidate.
std::string Lines(const Candidate& c) {
    std::string text = "Tidewater.dat:\n  <UpdateSetting>\n    <TimerMinutes>" +
                       std::to_string(c.timerMinutes) + "</TimerMinutes>\n    <AutoCheckNow>" +
                       std::to_string(c.autoCheckNow) + "</AutoCheckNow>\n";
    if (c.autoCheckNow == 0)
        text += "    <TimeRandomRange>" + std::to_string(c.rangeMinutes) + "</TimeRandomRange>\n";
    text += "    <ConfigCycleDefault>" + std::to_string(c.cycleDays) +
            "</ConfigCycleDefault>\n  </UpdateSetting>\n";
    text += "UserInfo.dat (\"UpdateStrategy\"/\"UpdateCycle\", or leave it out for the default "
            "above):\n  <UpdateStrategy>\n    <UpdateCycle>" +
            std::to_string(c.cycleDays) + "</UpdateCycle>\n  </UpdateStrategy>\n";
    if (c.autoCheckNow == 0)
        text +=
            "With AutoCheckNow 0, a fresh install's UserInfo.dat needs a DelayTime, or it never "
            "launches:\n  <DelayInfo>\n    <DelayTime>0</DelayTime>\n  </DelayInfo>\n";
    return text;
}
} // namespace

std::vector<Candidate> SettingsToTry(const std::vector<uint32_t>& cycles) {
    std::vector<Candidate> candidates;
    for (const uint32_t cycle : cycles)
        for (const uint32_t timer : kTimers) {
            candidates.push_back({cycle, 1, 0, timer, {}, false});
            for (const uint32_t range : kRanges)
                candidates.push_back({cycle, 0, range, timer, {}, false});
        }
    return candidates;
}

bool Fits(const Figures& f, const Limits& limits) {
    return f.launches > 0 && f.peakPerMinute <= limits.perMinute &&
           (limits.perSecond == 0 || f.peakPerSecond <= limits.perSecond);
}

bool StalerThan(const Candidate& a, const Candidate& b) {
    const auto key = [](const Candidate& c) {
        return std::make_tuple(!c.fits, c.figures.neverLaunched, !c.figures.hasWaits,
                               c.figures.medianWait, c.figures.p95Wait, c.figures.peakPerMinute);
    };
    return key(a) < key(b);
}

std::vector<Candidate> Advise(const FleetModel& base, const std::vector<uint32_t>& cycles,
                              const Limits& limits, unsigned threads,
                              const std::function<void(size_t, size_t)>& progress) {
    std::vector<Candidate> candidates = SettingsToTry(cycles);
    for (size_t i = 0; i < candidates.size(); ++i) {
        Candidate& c = candidates[i];
        FleetModel model = base;
        model.cycleDays = c.cycleDays;
        model.autoCheckNow = c.autoCheckNow;
        model.rangeMinutes = c.autoCheckNow ? base.rangeMinutes : c.rangeMinutes;
        model.timerMinutes = c.timerMinutes;
        c.figures = ComputeFigures(RunFleet(model, threads, {}));
        c.fits = Fits(c.figures, limits);
        if (progress)
            progress(i + 1, candidates.size());
    }
    std::stable_sort(candidates.begin(), candidates.end(), StalerThan);
    return candidates;
}

std::string AdviceText(const std::vector<Candidate>& ranked, const Limits& limits) {
    if (ranked.empty() || !ranked.front().fits) {
        std::string text = "no setting keeps the load under " + Limit(limits) + ".\n";
        // The lowest peak of the settings under which desktops launched at all.
        const auto lowest = std::min_element(ranked.begin(), ranked.end(), [](auto& a, auto& b) {
            return std::make_pair(a.figures.launches == 0, a.figures.peakPerMinute) <
                   std::make_pair(b.figures.launches == 0, b.figures.peakPerMinute);
        });
        if (lowest != ranked.end() && lowest->figures.launches > 0)
            text += "The lowest peak came from:\n" + Row(*lowest);
        return text;
    }
    const size_t fitting =
        size_t(std::count_if(ranked.begin(), ranked.end(), [](auto& c) { return c.fits; }));
    std::string text = std::to_string(fitting) + " of " + std::to_string(ranked.size()) +
                       " settings keep the load under " + Limit(limits) +
                       "; the least stale first:\n";
    for (size_t i = 0; i < std::min(fitting, kShown); ++i)
        text += Row(ranked[i]);
    return text + "\nThe best, " + Settings(ranked.front()) + ":\n" + Lines(ranked.front());
}
