#include "Figures.h"

#include <algorithm>
#include <cstdio>

namespace {

// The smallest wait that at least `share` of the scheduled launches did not exceed.
uint32_t WaitQuantile(const std::vector<uint32_t>& waits, uint64_t count, double share) {
    const uint64_t rank = std::max<uint64_t>(1, uint64_t(share * double(count) + 0.999999));
    uint64_t seen = 0;
    for (size_t wait = 0; wait < waits.size(); ++wait) {
        seen += waits[wait];
        if (seen >= rank)
            return static_cast<uint32_t>(wait);
    }
    return 0;
}

std::string Number(double value, const char* format) {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

} // namespace

std::vector<uint32_t> PerMinute(const Tally& tally) {
    std::vector<uint32_t> minutes(tally.perSecond.size() / 60);
    for (size_t i = 0; i < tally.perSecond.size(); ++i)
        minutes[i / 60] += tally.perSecond[i];
    return minutes;
}

Figures ComputeFigures(const Tally& tally) {
    Figures figures;
    figures.launches = tally.launches;
    figures.resumed = tally.resumed;
    figures.neverLaunched = tally.neverLaunched;
    if (tally.launches == 0)
        return figures;
    const std::vector<uint32_t> minutes = PerMinute(tally);
    figures.peakPerMinute = *std::max_element(minutes.begin(), minutes.end());
    figures.peakPerSecond = *std::max_element(tally.perSecond.begin(), tally.perSecond.end());
    const auto active = std::count_if(minutes.begin(), minutes.end(), [](uint32_t n) { return n; });
    figures.meanPerActiveMinute = double(tally.launches) / double(active);
    figures.peakToMean = figures.peakPerMinute / figures.meanPerActiveMinute;
    figures.loginWindowShare = double(tally.inLoginWindow) / double(tally.launches);
    const uint64_t scheduled = tally.launches - tally.resumed;
    figures.hasWaits = scheduled > 0;
    if (figures.hasWaits) {
        figures.medianWait = WaitQuantile(tally.waits, scheduled, 0.5);
        figures.p95Wait = WaitQuantile(tally.waits, scheduled, 0.95);
    }
    return figures;
}

std::string FiguresJson(const Figures& f) {
    const bool any = f.launches > 0;
    const auto orNull = [](bool present, const std::string& text) {
        return present ? text : std::string("null");
    };
    return "{\"launches\":" + std::to_string(f.launches) +
           ",\"peak_per_minute\":" + std::to_string(f.peakPerMinute) +
           ",\"peak_per_second\":" + std::to_string(f.peakPerSecond) +
           ",\"mean_per_active_minute\":" + orNull(any, Number(f.meanPerActiveMinute, "%.3f")) +
           ",\"peak_to_mean\":" + orNull(any, Number(f.peakToMean, "%.3f")) +
           ",\"login_window_share\":" + orNull(any, Number(f.loginWindowShare, "%.4f")) +
           ",\"median_wait_s\":" + orNull(f.hasWaits, std::to_string(f.medianWait)) +
           ",\"p95_wait_s\":" + orNull(f.hasWaits, std::to_string(f.p95Wait)) +
           ",\"never_launched\":" + std::to_string(f.neverLaunched) + "}\n";
}

std::string Duration(uint32_t seconds) {
    std::string text = std::to_string(seconds) + " s";
    if (seconds < 60)
        return text;
    const uint32_t hours = seconds / 3600, minutes = seconds / 60 % 60;
    return text + " (" + (hours ? std::to_string(hours) + " h " : std::string()) +
           std::to_string(minutes) + " min)";
}

std::string FiguresText(const FleetModel& model, const Figures& f, bool observed) {
    std::string text = observed ? std::string() : "settings: " + DescribeModel(model) + "\n";
    text += "launches: " + std::to_string(f.launches);
    if (f.resumed > 0)
        text += " (" + std::to_string(f.resumed) + " resumed after an interruption)";
    text += "\n";
    if (f.neverLaunched > 0 && !observed)
        text += "desktops that never launched: " + std::to_string(f.neverLaunched) + "\n";
    if (f.launches == 0)
        return text + (observed ? "no launch in the logs\n" : "no launch in the simulated days\n");
    const std::string window =
        ClockText(model.login.from) + "-" +
        ClockText(std::min(kSecondsPerDay, model.login.to + kLoginWindowSlack));
    text += "peak per minute: " + std::to_string(f.peakPerMinute) + "\n";
    text += "peak per second: " + std::to_string(f.peakPerSecond) + "\n";
    text += "mean per active minute: " + Number(f.meanPerActiveMinute, "%.2f") + "\n";
    text += "peak / mean: " + Number(f.peakToMean, "%.1f") + "\n";
    text += "share in the login window (" + window +
            "): " + Number(100 * f.loginWindowShare, "%.1f") + "%\n";
    if (f.hasWaits)
        text += "wait from the end of the cycle to the launch: median " + Duration(f.medianWait) +
                ", 95th percentile " + Duration(f.p95Wait) + "\n";
    return text;
}
