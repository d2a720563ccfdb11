// A whole fleet: every desktop simulated, the launches counted per second from day 0.
#pragma once

#include "FleetModel.h"

#include <cstdint>
#include <functional>
#include <vector>

// Counts only: memory grows with the days, never with the number of desktops.
struct Tally {
    explicit Tally(uint32_t days);
    void Add(const Tally& other);

    std::vector<uint32_t> perSecond; // launches in each second from day 0
    std::vector<uint32_t> waits;     // scheduled launches by seconds from the end of the cycle
    uint64_t launches = 0;           // every start of the updater, resumed runs included
    uint64_t resumed = 0;
};

// Called now and then from the calling thread with the number of desktops done so far.
using Progress = std::function<void(uint64_t done)>;

// Simulates every desktop of the model on `threads` threads; the result does not depend on the
// number of threads.
Tally RunFleet(const FleetModel& model, unsigned threads, const Progress& progress);
