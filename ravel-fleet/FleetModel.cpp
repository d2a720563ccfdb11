#include "FleetModel.h"

#include <QCommandLineParser>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>

namespace {

constexpr uint32_t kMaxDays = 100;           // the per-second counts grow with the days
constexpr uint32_t kMaxTimerMinutes = 35791; // the agent's timer takes milliseconds in an int

bool ParseUnsigned(const std::string& text, uint64_t low, uint64_t high, uint64_t& value) {
    if (text.empty() || text[0] < '0' || text[0] > '9')
        return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long long parsed = std::strtoull(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || parsed < low || parsed > high)
        return false;
    value = parsed;
    return true;
}

bool ParseShare(const std::string& text, double& value) {
    if (text.empty())
        return false;
    char* end = nullptr;
    const double parsed = std::strtod(text.c_str(), &end);
    if (*end != '\0' || !(parsed >= 0.0 && parsed <= 1.0))
        return false;
    value = parsed;
    return true;
}

// "HH:MM"; 24:00 is allowed as the end of a window.
bool ParseClock(const std::string& text, uint32_t& seconds) {
    const auto digit = [&](size_t i) { return unsigned(text[i] - '0'); };
    if (text.size() != 5 || text[2] != ':')
        return false;
    for (size_t i : {0, 1, 3, 4})
        if (digit(i) > 9)
            return false;
    const unsigned hours = digit(0) * 10 + digit(1), minutes = digit(3) * 10 + digit(4);
    if (minutes > 59 || hours > 24 || (hours == 24 && minutes != 0))
        return false;
    seconds = hours * 3600 + minutes * 60;
    return true;
}

bool ParseWindow(const std::string& text, DayWindow& window) {
    const size_t dash = text.find('-');
    return dash != std::string::npos && ParseClock(text.substr(0, dash), window.from) &&
           ParseClock(text.substr(dash + 1), window.to) && window.from < window.to;
}

// "+HH:MM" or "-HH:MM", at most 14 hours: seconds east of UTC.
bool ParseOffset(const std::string& text, int32_t& offset) {
    uint32_t clock = 0;
    if (text.size() != 6 || (text[0] != '+' && text[0] != '-') ||
        !ParseClock(text.substr(1), clock) || clock > 14 * 3600)
        return false;
    offset = text[0] == '-' ? -int32_t(clock) : int32_t(clock);
    return true;
}

std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    size_t from = 0;
    for (size_t at; (at = text.find(separator, from)) != std::string::npos; from = at + 1)
        parts.push_back(text.substr(from, at - from));
    parts.push_back(text.substr(from));
    return parts;
}

// "+01:00=40,-05:00=35,+08:00=25": offsets with the percentage of desktops in each, adding up to
// 100.
bool ParseZones(const std::string& text, std::vector<ZoneShare>& zones) {
    std::vector<ZoneShare> parsed;
    double total = 0;
    for (const std::string& part : Split(text, ',')) {
        const size_t equals = part.find('=');
        ZoneShare zone{0, 0};
        char* end = nullptr;
        if (equals == std::string::npos || !ParseOffset(part.substr(0, equals), zone.offset))
            return false;
        const std::string percent = part.substr(equals + 1);
        zone.share = std::strtod(percent.c_str(), &end) / 100;
        if (percent.empty() || *end != '\0' || !(zone.share > 0))
            return false;
        total += zone.share;
        parsed.push_back(zone);
    }
    if (std::abs(total - 1) > 1e-9)
        return false;
    zones = parsed;
    return true;
}

// "1,2,7": cycles of 1 to 3650 days.
bool ParseCycles(const std::string& text, std::vector<uint32_t>& cycles) {
    std::vector<uint32_t> parsed;
    for (const std::string& part : Split(text, ',')) {
        uint64_t days = 0;
        if (!ParseUnsigned(part, 1, 3650, days))
            return false;
        parsed.push_back(uint32_t(days));
    }
    cycles = parsed;
    return true;
}

using Setter = std::function<bool(const std::string&, CommandLine&)>;

template <typename Field> Setter Number(Field FleetModel::*field, uint64_t low, uint64_t high) {
    return [=](const std::string& text, CommandLine& line) {
        uint64_t value = 0;
        if (!ParseUnsigned(text, low, high, value))
            return false;
        line.model.*field = static_cast<Field>(value);
        return true;
    };
}

Setter Share(double FleetModel::*field) {
    return [=](const std::string& text, CommandLine& line) {
        return ParseShare(text, line.model.*field);
    };
}

Setter Window(DayWindow FleetModel::*field) {
    return [=](const std::string& text, CommandLine& line) {
        return ParseWindow(text, line.model.*field);
    };
}

Setter Text(std::string CommandLine::*field) {
    return [=](const std::string& text, CommandLine& line) {
        line.*field = text;
        return !text.empty();
    };
}

// The modes an option belongs to.
enum : unsigned { kSimulate = 1, kObserve = 2, kAdvise = 4, kModel = kSimulate | kAdvise };

struct ValueOption {
    Setter set;
    const char* expected;
    unsigned modes;
};

Setter Number32(uint32_t CommandLine::*field, uint64_t low, uint64_t high) {
    return [=](const std::string& text, CommandLine& line) {
        uint64_t value = 0;
        return ParseUnsigned(text, low, high, value) && (line.*field = uint32_t(value), true);
    };
}

const std::map<std::string, ValueOption>& ValueOptions() {
    static const std::map<std::string, ValueOption> options = {
        {"--agents",
         {Number(&FleetModel::agents, 1, 100000000), "a count from 1 to 100000000", kModel}},
        {"--days",
         {Number(&FleetModel::days, 1, kMaxDays), "a count of days from 1 to 100", kModel}},
        {"--cycle", {Number(&FleetModel::cycleDays, 1, 3650), "days from 1 to 3650", kModel}},
        {"--auto-check-now", {Number(&FleetModel::autoCheckNow, 0, 1), "0 or 1", kSimulate}},
        {"--range",
         {Number(&FleetModel::rangeMinutes, 0, 71582), "minutes from 0 to 71582", kSimulate}},
        {"--timer",
         {Number(&FleetModel::timerMinutes, 1, kMaxTimerMinutes), "minutes from 1 to 35791",
          kSimulate}},
        {"--login",
         {Window(&FleetModel::login), "HH:MM-HH:MM, the first before the second",
          kModel | kObserve}},
        {"--logout",
         {Window(&FleetModel::logout), "HH:MM-HH:MM, the first before the second", kModel}},
        {"--always-on", {Share(&FleetModel::alwaysOnShare), "a share from 0 to 1", kModel}},
        {"--interrupted", {Share(&FleetModel::interruptedShare), "a share from 0 to 1", kModel}},
        {"--absent", {Share(&FleetModel::absentShare), "a share from 0 to 1", kModel}},
        {"--fresh", {Share(&FleetModel::freshShare), "a share from 0 to 1", kModel}},
        {"--zones",
         {[](const std::string& text, CommandLine& line) {
              return ParseZones(text, line.model.zones);
          },
          "offsets with percentages adding up to 100, as +01:00=40,-05:00=60", kModel}},
        {"--seed", {Number(&FleetModel::seed, 0, UINT64_MAX), "an unsigned integer", kModel}},
        {"--csv", {Text(&CommandLine::csvPath), "a file name", kSimulate | kObserve}},
        {"--svg", {Text(&CommandLine::svgPath), "a file name", kSimulate | kObserve}},
        {"--overlay",
         {Text(&CommandLine::overlayPath), "a CSV file written by --csv", kSimulate | kObserve}},
        {"--overlay-label", {Text(&CommandLine::overlayLabel), "a text", kSimulate | kObserve}},
        {"--utc-offset",
         {[](const std::string& text, CommandLine& line) {
              return ParseOffset(text, line.utcOffset) && (line.inUtc = true);
          },
          "an offset from UTC as +HH:MM or -HH:MM", kObserve}},
        {"--max-per-minute",
         {Number32(&CommandLine::maxPerMinute, 1, UINT32_MAX), "a count from 1", kAdvise}},
        {"--max-per-second",
         {Number32(&CommandLine::maxPerSecond, 1, UINT32_MAX), "a count from 1", kAdvise}},
        {"--cycles",
         {[](const std::string& text, CommandLine& line) { return ParseCycles(text, line.cycles); },
          "days from 1 to 3650, separated by commas", kAdvise}},
    };
    return options;
}

// The flags: options without a value, and the modes they belong to.
struct Flag {
    std::function<void(CommandLine&)> set;
    unsigned modes;
};

const std::map<std::string, Flag>& Flags() {
    static const std::map<std::string, Flag> flags = {
        {"synced", {[](CommandLine& line) { line.model.synced = true; }, kModel}},
        {"unique-seeds", {[](CommandLine& line) { line.model.uniqueSeeds = true; }, kModel}},
        {"json", {[](CommandLine& line) { line.json = true; }, kSimulate | kObserve | kAdvise}},
        {"help", {[](CommandLine& line) { line.help = true; }, kSimulate | kObserve | kAdvise}},
        {"version", {[](CommandLine& line) { line.version = true; }, kSimulate}},
    };
    return flags;
}

const char kLoginsFrom[] = "logins-from"; // repeatable: every value counts

void Describe(QCommandLineParser& parser) {
    for (const auto& [name, option] : ValueOptions())
        parser.addOption({QString::fromStdString(name.substr(2)), QString(), "value"});
    parser.addOption({kLoginsFrom, QString(), "log"});
    for (const auto& [name, flag] : Flags())
        parser.addOption(name == "help"      ? QCommandLineOption(QStringList{"h", "help"})
                         : name == "version" ? QCommandLineOption(QStringList{"v", "version"})
                                             : QCommandLineOption(QString::fromStdString(name)));
}

const char* ModeName(unsigned mode) {
    return mode == kObserve ? "observe" : mode == kAdvise ? "advise" : "a simulation";
}

// Each value option given, in the order of the table; the last of a repeated one counts.
bool SetValues(const QCommandLineParser& parser, unsigned mode, CommandLine& out,
               std::string& error) {
    for (const auto& [name, option] : ValueOptions()) {
        const QStringList values = parser.values(QString::fromStdString(name.substr(2)));
        if (values.isEmpty())
            continue;
        if (!(option.modes & mode)) {
            error = name + " does not go with " + ModeName(mode);
            return false;
        }
        const std::string value = values.last().toStdString();
        if (!option.set(value, out)) {
            error = name + " '" + value + "' is not " + option.expected;
            return false;
        }
    }
    for (const QString& log : parser.values(kLoginsFrom))
        out.loginsFrom.push_back(log.toStdString());
    if (!out.loginsFrom.empty() && !(mode & kModel)) {
        error = "--logins-from does not go with observe";
        return false;
    }
    return true;
}

bool SetFlags(const QCommandLineParser& parser, unsigned mode, CommandLine& out,
              std::string& error) {
    for (const auto& [name, flag] : Flags()) {
        if (!parser.isSet(QString::fromStdString(name)))
            continue;
        if (!(flag.modes & mode)) {
            error = "--" + name + " does not go with " + ModeName(mode);
            return false;
        }
        flag.set(out);
    }
    return true;
}

// The rules across options, once each has been read.
bool CheckTogether(const CommandLine& out, std::string& error) {
    if (out.mode != Mode::Observe && out.model.logout.from < out.model.login.to)
        error = "--logout must start no earlier than the end of --login";
    else if (out.mode == Mode::Advise && out.maxPerMinute == 0)
        error = "advise needs --max-per-minute";
    else if (out.maxPerSecond > out.maxPerMinute && out.maxPerMinute > 0)
        error = "--max-per-second " + std::to_string(out.maxPerSecond) +
                " cannot be more than --max-per-minute " + std::to_string(out.maxPerMinute);
    else if (out.mode == Mode::Observe && out.logs.empty())
        error = "observe needs at least one log or folder of logs";
    return error.empty();
}

} // namespace

int32_t ZoneOffset(const FleetModel& model, uint64_t index) {
    double covered = 0;
    const double place = (double(index) + 0.5) / double(model.agents);
    for (const ZoneShare& zone : model.zones) {
        covered += zone.share;
        if (place < covered)
            return zone.offset;
    }
    return model.zones.empty() ? 0 : model.zones.back().offset;
}

bool ParseCommandLine(const std::vector<std::string>& args, CommandLine& out, std::string& error) {
    QCommandLineParser parser;
    Describe(parser);
    QStringList arguments{QStringLiteral("ravel-fleet")};
    for (const std::string& arg : args)
        arguments << QString::fromStdString(arg);
    unsigned mode = kSimulate;
    if (arguments.size() > 1 && (arguments[1] == "observe" || arguments[1] == "advise")) {
        mode = arguments[1] == "observe" ? kObserve : kAdvise;
        out.mode = mode == kObserve ? Mode::Observe : Mode::Advise;
        arguments.removeAt(1);
    }
    if (!parser.parse(arguments)) {
        error = parser.errorText().toStdString();
        return false;
    }
    for (const QString& positional : parser.positionalArguments()) {
        if (mode != kObserve) {
            error = "unexpected argument '" + positional.toStdString() + "'";
            return false;
        }
        out.logs.push_back(positional.toStdString());
    }
    if (!SetFlags(parser, mode, out, error))
        return false;
    if (out.help || out.version)
        return true;
    return SetValues(parser, mode, out, error) && CheckTogether(out, error);
}

std::string UsageText() {
    return "usage: ravel-fleet [--agents N] [--days D] [--cycle DAYS] [--auto-check-now 0|1]\n"
           "                   [--range MINUTES] [--timer MINUTES] [--login HH:MM-HH:MM]\n"
           "                   [--logout HH:MM-HH:MM] [--always-on SHARE] [--interrupted SHARE]\n"
           "                   [--absent SHARE] [--fresh SHARE] [--zones OFFSET=PERCENT,...]\n"
           "                   [--logins-from LOG|FOLDER ...] [--synced] [--unique-seeds] [--seed "
           "S]\n"
           "                   [--csv FILE] [--svg FILE] [--overlay CSV [--overlay-label TEXT]]\n"
           "                   [--json]\n"
           "       ravel-fleet observe LOG|FOLDER... [--login HH:MM-HH:MM] [--utc-offset +HH:MM]\n"
           "                   [--csv FILE] [--svg FILE] [--overlay CSV [--overlay-label TEXT]]\n"
           "                   [--json]\n"
           "       ravel-fleet advise --max-per-minute N [--max-per-second M] [--cycles 1,2,7]\n"
           "                   [the simulation's options but --auto-check-now, --range, --timer]\n"
           "       ravel-fleet --help | --version\n"
           "Simulates N desktops running the agent for D days from Monday 2024-01-01 and reports\n"
           "the launches of the updater an update server would see. Defaults: 10000 desktops,\n"
           "14 days, cycle 1 day, AutoCheckNow 1, TimeRandomRange 720, TimerMinutes 1, login\n"
           "08:00-09:00 and logout 17:00-18:00 on weekdays, no desktop always on, no run\n"
           "interrupted, last launches spread over the cycle before day 0, seed 1.\n"
           "--absent: the chance that a desktop stays off on a weekday. --fresh: the share of\n"
           "desktops as a fresh install leaves them (no LastLaunchTime, no DelayTime: with\n"
           "AutoCheckNow 0 they never launch). --zones: desktops spread over UTC offsets, the\n"
           "load then counted in UTC. --logins-from: each desktop's login and logout drawn, by\n"
           "weekday, from those the logs show (folders are searched for *.log files).\n"
           "--unique-seeds is a what-if: each agent seeds its generator with a number of its own\n"
           "instead of the seconds since midnight at start-up, as the agent does.\n"
           "Times are local times; the simulation never reads the machine's time zone.\n"
           "observe reads collected ravel.log files (one per desktop; folders are searched for\n"
           "*.log files) and reports the launches and logins they show, with the same figures.\n"
           "The logs' times are the desktops' wall clocks, taken as one zone; --utc-offset names\n"
           "it, and the load is then counted in UTC.\n"
           "advise simulates every combination of AutoCheckNow (1, 0), TimeRandomRange and\n"
           "TimerMinutes (and each of --cycles) and ranks those that keep the peaks under the\n"
           "limits by how long desktops wait after a cycle's end; status 1 when none does.\n";
}

std::string ClockText(uint32_t secondsOfDay) {
    char text[16];
    if (secondsOfDay % 60 == 0)
        std::snprintf(text, sizeof text, "%02u:%02u", secondsOfDay / 3600, secondsOfDay / 60 % 60);
    else
        std::snprintf(text, sizeof text, "%02u:%02u:%02u", secondsOfDay / 3600,
                      secondsOfDay / 60 % 60, secondsOfDay % 60);
    return text;
}

std::string DescribeModel(const FleetModel& model) {
    std::string text = std::to_string(model.agents) + " desktops, " + std::to_string(model.days) +
                       " days; UpdateCycle " + std::to_string(model.cycleDays) + ", AutoCheckNow " +
                       std::to_string(model.autoCheckNow) + ", TimeRandomRange " +
                       std::to_string(model.rangeMinutes) + ", TimerMinutes " +
                       std::to_string(model.timerMinutes) + "; login " +
                       ClockText(model.login.from) + "-" + ClockText(model.login.to) + ", logout " +
                       ClockText(model.logout.from) + "-" + ClockText(model.logout.to);
    char share[32];
    if (model.alwaysOnShare > 0) {
        std::snprintf(share, sizeof share, "%g", model.alwaysOnShare);
        text += std::string(", always on ") + share;
    }
    if (model.interruptedShare > 0) {
        std::snprintf(share, sizeof share, "%g", model.interruptedShare);
        text += std::string(", interrupted ") + share;
    }
    if (model.synced)
        text += ", synced";
    if (model.uniqueSeeds)
        text += ", unique seeds";
    return text;
}
