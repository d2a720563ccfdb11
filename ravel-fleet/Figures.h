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
};

// Launches in each minute from day 0.
std::vector<uint32_t> PerMinute(const Tally& tally);

Figures ComputeFigures(const FleetModel& model, const Tally& tally);

// One JSON object on one line, with the keys launches, peak_per_minute, peak_per_second,
// mean_per_active_minute, peak_to_mean, login_window_share, median_wait_s, p95_wait_s
// (the ratios and waits are null when nothing was launched).
std::string FiguresJson(const Figures& figures);

// The figures for a person, one per line, after the settings.
std::string FiguresText(const FleetModel& model, const Figures& figures);
