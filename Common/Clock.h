// The agent's notion of "now". Tests may pin it; the agent always runs on the real clock.
#pragma once

#include <QDateTime>
#include <functional>

// The local date and time now, or what the function given to SetClockForTesting returns.
QDateTime CurrentDateTime();

// Seconds since the epoch as the old 32-bit API gave them: an invalid or out-of-range
// date-time yields 4294967295.
quint32 ToTimeT(const QDateTime& dateTime);

// For tests only: replaces the clock until called again with an empty function.
void SetClockForTesting(std::function<QDateTime()> clock);
