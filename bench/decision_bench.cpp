// The decision core's cost per check: the launch decision over a record in memory (what a fleet
// simulator runs per check), and a whole check over the settings texts (what the agent and
// ravel-schedule run, without their file reads).
#include "Decision.h"

#include <benchmark/benchmark.h>

namespace {
const quint32 kNow = 1709643731u;

// A record of numbers: the settings as texts made once, no log, a fixed draw.
class NumbersEnv final : public MemoryEnv {
public:
    NumbersEnv() {
        keepLines = false;
        draw = 12345;
        texts[int(Setting::AutoCheckNow)] = QStringLiteral("0");
        texts[int(Setting::TimeRandomRange)] = QStringLiteral("720");
    }
};

void NumbersPerCheck(benchmark::State& state) {
    NumbersEnv env;
    CONFIG_INFO info{1, 1, 1, 0, 0, kNow - 86401};
    quint32 now = kNow;
    for (auto _ : state) {
        env.SetClock(now);
        const CheckOutcome outcome = Act(env, info, true);
        if (outcome.decision.drew)
            info.nDelayTime =
                SettingValue(Setting::DelayTime, env.texts[int(Setting::DelayTime)]).toUInt();
        benchmark::DoNotOptimize(outcome);
        now += 60;
        if (outcome.launched)
            info.nDelayTime = 0, now = kNow;
    }
}
BENCHMARK(NumbersPerCheck)->Name("decision-numbers/ravel");

void TextsPerCheck(benchmark::State& state) {
    MemoryEnv env;
    env.keepLines = false;
    env.texts[int(Setting::UpdateCycle)] = QStringLiteral("1");
    env.texts[int(Setting::DelayTimes)] = QStringLiteral("1");
    env.texts[int(Setting::LastStatus)] = QStringLiteral("ready");
    env.texts[int(Setting::LastLaunchTime)] = QStringLiteral("2024-03-04 14:00:00");
    env.SetClock(QDateTime::fromSecsSinceEpoch(kNow));
    for (auto _ : state)
        benchmark::DoNotOptimize(Check(env));
}
BENCHMARK(TextsPerCheck)->Name("decision-texts/ravel");
} // namespace
