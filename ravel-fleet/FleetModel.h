// The fleet to simulate: how many desktops, when they are on, and the schedule settings they
// share; and the command line that fills it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Simulated time is local time kept as seconds since 1970-01-01 00:00:00 read as UTC, so the
// result never depends on the machine's time zone. Day 0 is Monday 2024-01-01.
constexpr uint32_t kDayZero = 1704067200;
constexpr uint32_t kSecondsPerDay = 86400;
// A launch counts as in the login window up to this many seconds after the window's end.
constexpr uint32_t kLoginWindowSlack = 600;

// Seconds since midnight, from inclusive to exclusive.
struct DayWindow {
    uint32_t from;
    uint32_t to;
};

// One day at a desktop as collected logs show it: login and logout, in seconds since midnight.
struct Session {
    uint32_t login;
    uint32_t logout;
};

// Sessions by weekday (0 is Monday), drawn from for simulated desktops instead of the windows.
struct SessionPool {
    std::vector<Session> byWeekday[7];
};

// A share of the desktops in one time zone: `offset` seconds east of UTC.
struct ZoneShare {
    int32_t offset;
    double share; // 0 to 1; the shares of a model add up to 1
};

struct FleetModel {
    uint64_t agents = 10000;
    uint32_t days = 14;
    // The schedule settings ("UpdateCycle", "AutoCheckNow", "TimeRandomRange", "TimerMinutes").
    uint32_t cycleDays = 1;
    uint32_t autoCheckNow = 1;
    uint32_t rangeMinutes = 720;
    uint32_t timerMinutes = 1;
    DayWindow login{8 * 3600, 9 * 3600};
    DayWindow logout{17 * 3600, 18 * 3600};
    double alwaysOnShare = 0;    // desktops logged in on day 0 and never switched off
    double interruptedShare = 0; // updater runs that end "downloading", to be resumed
    bool synced = false;         // every last launch half a cycle before day 0
    // What-if: each agent seeds its generator with a number of its own instead of the seconds
    // since midnight, so desktops starting in the same second no longer draw alike.
    bool uniqueSeeds = false;
    uint64_t seed = 1;
    // Desktops spread over time zones: each runs in its local time and the server's load is
    // counted in UTC. Empty: one zone, and the load in its local time.
    std::vector<ZoneShare> zones;
    double absentShare = 0; // the chance that a desktop stays off on a weekday
    // Desktops as a fresh install leaves them: no "LastLaunchTime" (the first check starts the
    // cycle) and no "DelayTime" (read as the end of the 32-bit clock).
    double freshShare = 0;
    std::shared_ptr<const SessionPool> sessions; // logins and logouts from logs, when given
};

// The zone of desktop `index` of `agents`: the shares in order, each given its part of the
// desktops by number. 0 without zones.
int32_t ZoneOffset(const FleetModel& model, uint64_t index);

enum class Mode { Simulate, Observe, Advise };

struct CommandLine {
    Mode mode = Mode::Simulate;
    FleetModel model;
    std::vector<std::string> loginsFrom; // logs to draw logins and logouts from
    // observe: the logs (files, and folders searched for *.log files) and their zone.
    std::vector<std::string> logs;
    int32_t utcOffset = 0;
    bool inUtc = false;
    // advise: the limits on the server's load, and the cycles to try (the model's alone if none).
    uint32_t maxPerMinute = 0;
    uint32_t maxPerSecond = 0;
    std::vector<uint32_t> cycles;
    std::string csvPath;
    std::string svgPath;
    std::string overlayPath;  // a CSV of another run, drawn beside this one
    std::string overlayLabel; // its legend; the file name when empty
    bool json = false;
    bool help = false;
    bool version = false;
};

// Fills `out` from the arguments after the program name ("--name value" or "--name=value";
// the last of a repeated option counts). Returns false with a one-line reason in `error` on an
// unknown option, a missing or malformed value, a value out of range or an argument that is no
// option. With --help or --version (-h, -v) nothing else is checked.
bool ParseCommandLine(const std::vector<std::string>& args, CommandLine& out, std::string& error);

// The usage text printed by --help and after a bad option.
std::string UsageText();

// A one-line summary of the settings, for titles and reports.
std::string DescribeModel(const FleetModel& model);

// "HH:MM" or "HH:MM:SS" for seconds since midnight.
std::string ClockText(uint32_t secondsOfDay);
