// What an update server sees: the figures of one simulated fleet, and their text and JSON forms.
#pragma once

#include "Fleet.h"
#include "FleetModel.h"

#include <cstdint>
#include <string>
#include <vector>

struct Figures {
    uint64_t launches = 0;
    uint64_t resumed = 0;
    uint32_t peakPerMinute = 0;
    uint32_t peakPerSecond = 0;
    double meanPerActiveMinute = 0; // over the minutes that had any launch
    double peakToMean = 0;
    double loginWindowShare = 0; // launches from the login window's start to 10 minutes past it
    uint32_t medianWait = 0;     // seconds from the end of a cycle to its launch
    uint32_t p95Wait = 0;
    bool hasWaits = false;
    uint64_t neverLaunched = 0; // desktops with no launch in the days
};

// Launches in each minute from the tally's origin.
std::vector<uint32_t> PerMinute(const Tally& tally);

Figures ComputeFigures(const Tally& tally);

// One JSON object on one line, with the keys launches, peak_per_minute, peak_per_second,
// mean_per_active_minute, peak_to_mean, login_window_share, median_wait_s, p95_wait_s (the
// ratios and waits are null when nothing was launched) and never_launched.
std::string FiguresJson(const Figures& figures);

// The figures for a person, one per line, after the settings (but for an observed fleet, which
// has none).
std::string FiguresText(const FleetModel& model, const Figures& figures, bool observed = false);

// Seconds, and for a minute or more also in hours and minutes: "9125 s (2 h 32 min)".
std::string Duration(uint32_t seconds);
