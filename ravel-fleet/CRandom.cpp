#include "CRandom.h"

#include <cstddef>

namespace {
constexpr int kDegree = 31;
constexpr int kSeparation = 3;
constexpr int kDiscarded = 10 * kDegree; // the C library drops these after seeding
} // namespace

CRandom::CRandom(uint32_t seed) {
    // Lehmer's 16807 multiplier fills the table; a zero seed would leave it all zero.
    int32_t word = seed == 0 ? 1 : static_cast<int32_t>(seed);
    uint32_t table[kDegree];
    table[0] = static_cast<uint32_t>(word);
    for (int i = 1; i < kDegree; ++i) {
        const int32_t hi = word / 127773;
        const int32_t lo = word % 127773;
        word = 16807 * lo - 2836 * hi;
        if (word < 0)
            word += 2147483647;
        table[i] = static_cast<uint32_t>(word);
    }
    for (int i = 0; i < kDegree; ++i)
        state_[i] = table[i];
    index_ = kSeparation; // the C library starts its front pointer three words in
    for (int i = 0; i < kDiscarded; ++i)
        Next();
}

int32_t CRandom::Next() {
    // state_ is a ring of the last 31 sums: r[i] = r[i-31] + r[i-3].
    const int behind =
        index_ >= kSeparation ? index_ - kSeparation : index_ + kDegree - kSeparation;
    state_[index_] += state_[behind];
    const uint32_t value = state_[index_];
    if (++index_ == kDegree)
        index_ = 0;
    return static_cast<int32_t>(value >> 1);
}

SeedDraws::SeedDraws() : cached_(std::size_t(kSeeds) * kCached) {
    for (uint32_t seed = 0; seed < kSeeds; ++seed) {
        CRandom random(seed);
        for (int i = 0; i < kCached; ++i)
            cached_[std::size_t(seed) * kCached + i] = random.Next();
    }
}

int32_t SeedDraws::Draw(uint32_t seed, int index) const {
    if (seed < kSeeds && index < kCached)
        return cached_[std::size_t(seed) * kCached + index];
    CRandom random(seed);
    for (int i = 0; i < index; ++i)
        random.Next();
    return random.Next();
}
