// The decision core's cost per check: over parsed numbers (what a fleet simulator calls), and a
// whole check over the settings texts (what the agent and ravel-schedule run).
#include "Decision.h"

#include <benchmark/benchmark.h>
#include <cstdlib>

namespace {
const quint32 kNow = 1709643731u;

void NumbersPerCheck(benchmark::State& state) {
    CONFIG_INFO info{1, 1, 1, 0, 0, kNow - 86401};
    quint32 now = kNow;
    for (auto _ : state) {
        const LaunchStep step = DecideLaunch(info, now, 0);
        if (step.draws)
            info.nDelayTime = StoredDelay(DrawnDelay(now, DelaySpan(info.nDelayTimes, 720), 12345));
        benchmark::DoNotOptimize(step);
        now += 60;
        if (info.nDelayTime && now > info.nDelayTime)
            info.nDelayTime = 0, now = kNow;
    }
}
BENCHMARK(NumbersPerCheck)->Name("decision-numbers/ravel");

void TextsPerCheck(benchmark::State& state) {
    Known known;
    for (int need = int(Need::TimerMinutes); need <= int(Need::UpdateCycleAgain); ++need)
        known.Set(Need(need), QString());
    known.Set(Need::UpdateCycle, QStringLiteral("1"));
    known.Set(Need::DelayTimes, QStringLiteral("1"));
    known.Set(Need::LastStatus, QStringLiteral("ready"));
    known.Set(Need::LastLaunchTime, QStringLiteral("2024-03-04 14:00:00"));
    known.Pin(QDateTime::fromSecsSinceEpoch(kNow));
    for (auto _ : state)
        benchmark::DoNotOptimize(CheckRule(known));
}
BENCHMARK(TextsPerCheck)->Name("decision-texts/ravel");
} // namespace
