#include "Fleet.h"

#include "Desktop.h"

#include <atomic>
#include <chrono>
#include <future>

namespace {

constexpr uint64_t kChunk = 2048;

class TallySink : public LaunchSink {
public:
    explicit TallySink(Tally& tally) : tally_(tally) {}
    void OnLaunch(const Launch& launch) override {
        ++tally_.launches;
        ++tally_.perSecond[launch.moment - kDayZero];
        if (launch.resumed) {
            ++tally_.resumed;
            return;
        }
        // A cycle ends no earlier than day 0, so every wait fits in the simulated days.
        ++tally_.waits[launch.moment - launch.cycleEnd];
    }

private:
    Tally& tally_;
};

Tally RunShare(const FleetModel& model, const SeedDraws& draws, std::atomic<uint64_t>& next,
               std::atomic<uint64_t>& done) {
    Tally tally(model.days);
    TallySink sink(tally);
    for (;;) {
        const uint64_t first = next.fetch_add(kChunk);
        if (first >= model.agents)
            break;
        const uint64_t last = std::min(model.agents, first + kChunk);
        for (uint64_t index = first; index < last; ++index) {
            DesktopStream stream(model.seed, index);
            const DesktopRecord record = InitialRecord(model, stream);
            SimulateDesktop(model, draws, stream, record, sink);
        }
        done += last - first;
    }
    return tally;
}

} // namespace

Tally::Tally(uint32_t days)
    : perSecond(size_t(days) * kSecondsPerDay), waits(size_t(days) * kSecondsPerDay) {}

void Tally::Add(const Tally& other) {
    for (size_t i = 0; i < perSecond.size(); ++i)
        perSecond[i] += other.perSecond[i];
    for (size_t i = 0; i < waits.size(); ++i)
        waits[i] += other.waits[i];
    launches += other.launches;
    resumed += other.resumed;
}

Tally RunFleet(const FleetModel& model, unsigned threads, const Progress& progress) {
    const SeedDraws draws;
    std::atomic<uint64_t> next{0};
    std::atomic<uint64_t> done{0};
    std::vector<std::future<Tally>> shares;
    for (unsigned i = 0; i < std::max(1u, threads); ++i)
        shares.push_back(std::async(std::launch::async, RunShare, std::cref(model),
                                    std::cref(draws), std::ref(next), std::ref(done)));
    for (auto& share : shares) {
        while (share.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
            if (progress)
                progress(done.load());
        }
    }
    Tally total = shares[0].get();
    for (size_t i = 1; i < shares.size(); ++i)
        total.Add(shares[i].get());
    return total;
}
