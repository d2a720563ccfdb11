#include "Fleet.h"

#include "Desktop.h"

#include <atomic>
#include <chrono>
#include <future>

namespace {

constexpr uint64_t kChunk = 2048;

// One desktop's launches into the tally, moved to the server's clock by its zone's offset.
class TallySink : public LaunchSink {
public:
    TallySink(Tally& tally, const FleetModel& model) : tally_(tally), model_(model) {}
    void Start(int32_t offset) { offset_ = offset, launched_ = false; }
    void Finish() { tally_.neverLaunched += !launched_; }
    void OnLaunch(const Launch& launch) override {
        launched_ = true;
        tally_.Count(int64_t(launch.moment) - offset_, launch.moment, model_);
        if (launch.resumed) {
            ++tally_.resumed;
            return;
        }
        // A cycle ends no earlier than day 0, so every wait fits in the simulated days.
        ++tally_.waits[launch.moment - launch.cycleEnd];
    }

private:
    Tally& tally_;
    const FleetModel& model_;
    int32_t offset_ = 0;
    bool launched_ = false;
};

Tally RunShare(const FleetModel& model, const SeedDraws& draws, std::atomic<uint64_t>& next,
               std::atomic<uint64_t>& done) {
    Tally tally = TallyFor(model);
    TallySink sink(tally, model);
    for (;;) {
        const uint64_t first = next.fetch_add(kChunk);
        if (first >= model.agents)
            break;
        const uint64_t last = std::min(model.agents, first + kChunk);
        for (uint64_t index = first; index < last; ++index) {
            DesktopStream stream(model.seed, index);
            const DesktopRecord record = InitialRecord(model, stream);
            sink.Start(ZoneOffset(model, index));
            SimulateDesktop(model, draws, stream, record, sink);
            sink.Finish();
        }
        done += last - first;
    }
    return tally;
}

} // namespace

Tally::Tally(uint32_t days, uint64_t origin_)
    : origin(origin_), perSecond(size_t(days) * kSecondsPerDay),
      waits(size_t(days) * kSecondsPerDay) {}

Tally TallyFor(const FleetModel& model) {
    if (model.zones.empty())
        return Tally(model.days);
    return Tally(model.days + 2, kDayZero - kSecondsPerDay);
}

void Tally::Count(uint64_t moment, uint64_t local, const FleetModel& model) {
    ++launches;
    if (moment < origin || moment - origin >= perSecond.size())
        ++outside;
    else
        ++perSecond[moment - origin];
    const uint64_t second = local % kSecondsPerDay; // day 0 starts at midnight
    inLoginWindow +=
        second >= model.login.from &&
        second < std::min<uint64_t>(kSecondsPerDay, model.login.to + kLoginWindowSlack);
}

void Tally::Add(const Tally& other) {
    for (size_t i = 0; i < perSecond.size(); ++i)
        perSecond[i] += other.perSecond[i];
    for (size_t i = 0; i < waits.size(); ++i)
        waits[i] += other.waits[i];
    launches += other.launches;
    resumed += other.resumed;
    inLoginWindow += other.inLoginWindow;
    outside += other.outside;
    neverLaunched += other.neverLaunched;
}

Tally RunFleet(const FleetModel& model, unsigned threads, const Progress& progress) {
    static const SeedDraws draws; // the same for every run: made once
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
