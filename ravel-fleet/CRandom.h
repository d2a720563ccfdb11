// The C library's pseudo-random generator (glibc's additive feedback generator behind
// srand/rand), reproduced so that a fleet of agents can be simulated without sharing the
// process-wide generator. The agent seeds it with the seconds since local midnight.
#pragma once

#include <cstdint>
#include <vector>

// One generator stream, as after std::srand(seed): Next() gives what std::rand() would give,
// in the same order (0 to 2147483647).
class CRandom {
public:
    explicit CRandom(uint32_t seed);
    int32_t Next();

private:
    uint32_t state_[34];
    int index_ = 0; // the slot written next: it holds the sum from 31 draws ago
};

// The first few draws after each seed of one day (0 to 86399), computed once; later draws are
// generated on demand. Read-only after construction, so threads may share one.
class SeedDraws {
public:
    static constexpr uint32_t kSeeds = 86400;
    static constexpr int kCached = 4;

    SeedDraws();
    // The draw number `index` (0 = first) after seeding with `seed`, any seed.
    int32_t Draw(uint32_t seed, int index) const;

private:
    std::vector<int32_t> cached_;
};
