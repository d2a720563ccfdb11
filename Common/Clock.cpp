#include "Clock.h"

#include <utility>

namespace {
// Empty means the real clock.
std::function<QDateTime()>& PinnedClock() {
    static std::function<QDateTime()> clock;
    return clock;
}
} // namespace

QDateTime CurrentDateTime() {
    const auto& clock = PinnedClock();
    return clock ? clock() : QDateTime::currentDateTime();
}

quint32 ToTimeT(const QDateTime& dateTime) {
    constexpr qint64 kInvalid = 4294967295LL;
    if (!dateTime.isValid())
        return quint32(kInvalid);
    const qint64 seconds = dateTime.toSecsSinceEpoch();
    if (seconds < 0 || seconds > kInvalid)
        return quint32(kInvalid);
    return quint32(seconds);
}

void SetClockForTesting(std::function<QDateTime()> clock) {
    PinnedClock() = std::move(clock);
}
