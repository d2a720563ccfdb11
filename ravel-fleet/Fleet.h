// A whole fleet: every desktop simulated, the launches counted per second from day 0.
#pragma once

#include "FleetModel.h"

#include <cstdint>
#include <functional>
#include <vector>

// Counts only: memory grows with the days, never with the number of desktops.
struct Tally {
    // `days` of seconds from `origin` (seconds since 1970, the server's clock).
    explicit Tally(uint32_t days, uint64_t origin = kDayZero);
    void Add(const Tally& other);
    // Counts a launch at `moment` on the server's clock, `local` on the desktop's.
    void Count(uint64_t moment, uint64_t local, const FleetModel& model);

    uint64_t origin;
    std::vector<uint32_t> perSecond; // launches in each second from the origin
    std::vector<uint32_t> waits;     // scheduled launches by seconds from the end of the cycle
    uint64_t launches = 0;           // every start of the updater, resumed runs included
    uint64_t resumed = 0;
    uint64_t inLoginWindow = 0; // launches in the login window, plus ten minutes, local time
    uint64_t outside = 0;       // launches outside the counted days (never for a simulation)
    uint64_t neverLaunched = 0; // desktops that launched nothing
};

// The tally a model's launches go into: its days from day 0, or with time zones a day more on
// either side, on UTC.
Tally TallyFor(const FleetModel& model);

// Called now and then from the calling thread with the number of desktops done so far.
using Progress = std::function<void(uint64_t done)>;

// Simulates every desktop of the model on `threads` threads; the result does not depend on the
// number of threads.
Tally RunFleet(const FleetModel& model, unsigned threads, const Progress& progress);
