// Settings that keep an update server's load under limits: every combination of AutoCheckNow,
// TimeRandomRange and TimerMinutes (and of the cycles asked for) simulated, the ones that fit
// ranked by how stale they leave desktops.
#pragma once

#include "Figures.h"
#include "Fleet.h"

#include <string>
#include <vector>

struct Limits {
    uint32_t perMinute = 0;
    uint32_t perSecond = 0; // 0: no limit
};

struct Candidate {
    uint32_t cycleDays, autoCheckNow, rangeMinutes, timerMinutes;
    Figures figures;
    bool fits = false;
};

// The settings tried for each cycle: AutoCheckNow 1 with each timer, and AutoCheckNow 0 with each
// range and each timer.
std::vector<Candidate> SettingsToTry(const std::vector<uint32_t>& cycles);

// True when the figures keep under the limits and some desktop launched.
bool Fits(const Figures& figures, const Limits& limits);

// Orders candidates that fit before the others, then by desktops that never launched, then by the
// median and the 95th percentile wait from a cycle's end to its launch.
bool StalerThan(const Candidate& a, const Candidate& b);

// Simulates `base` with each candidate's settings (`progress` gets candidates done of all) and
// returns them ranked (see StalerThan).
std::vector<Candidate> Advise(const FleetModel& base, const std::vector<uint32_t>& cycles,
                              const Limits& limits, unsigned threads,
                              const std::function<void(size_t, size_t)>& progress);

// The ranking for a person: the best fits, the Tidewater.dat lines of the best and, for
// AutoCheckNow 0, the DelayTime that fresh installs need; or, when nothing fits, why.
std::string AdviceText(const std::vector<Candidate>& ranked, const Limits& limits);
