#include "FleetModel.h"

#include <QCommandLineParser>

#include <cerrno>
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

struct ValueOption {
    Setter set;
    const char* expected;
};

const std::map<std::string, ValueOption>& ValueOptions() {
    static const std::map<std::string, ValueOption> options = {
        {"--agents", {Number(&FleetModel::agents, 1, 100000000), "a count from 1 to 100000000"}},
        {"--days", {Number(&FleetModel::days, 1, kMaxDays), "a count of days from 1 to 100"}},
        {"--cycle", {Number(&FleetModel::cycleDays, 1, 3650), "days from 1 to 3650"}},
        {"--auto-check-now", {Number(&FleetModel::autoCheckNow, 0, 1), "0 or 1"}},
        {"--range", {Number(&FleetModel::rangeMinutes, 0, 71582), "minutes from 0 to 71582"}},
        {"--timer",
         {Number(&FleetModel::timerMinutes, 1, kMaxTimerMinutes), "minutes from 1 to 35791"}},
        {"--login", {Window(&FleetModel::login), "HH:MM-HH:MM, the first before the second"}},
        {"--logout", {Window(&FleetModel::logout), "HH:MM-HH:MM, the first before the second"}},
        {"--always-on", {Share(&FleetModel::alwaysOnShare), "a share from 0 to 1"}},
        {"--interrupted", {Share(&FleetModel::interruptedShare), "a share from 0 to 1"}},
        {"--seed", {Number(&FleetModel::seed, 0, UINT64_MAX), "an unsigned integer"}},
        {"--csv", {Text(&CommandLine::csvPath), "a file name"}},
        {"--svg", {Text(&CommandLine::svgPath), "a file name"}},
        {"--overlay", {Text(&CommandLine::overlayPath), "a CSV file written by --csv"}},
        {"--overlay-label", {Text(&CommandLine::overlayLabel), "a text"}},
    };
    return options;
}

// The flags: options without a value.
const std::map<std::string, std::function<void(CommandLine&)>>& Flags() {
    static const std::map<std::string, std::function<void(CommandLine&)>> flags = {
        {"synced", [](CommandLine& line) { line.model.synced = true; }},
        {"unique-seeds", [](CommandLine& line) { line.model.uniqueSeeds = true; }},
        {"json", [](CommandLine& line) { line.json = true; }},
        {"help", [](CommandLine& line) { line.help = true; }},
        {"version", [](CommandLine& line) { line.version = true; }},
    };
    return flags;
}

void Describe(QCommandLineParser& parser) {
    for (const auto& [name, option] : ValueOptions())
        parser.addOption({QString::fromStdString(name.substr(2)), QString(), "value"});
    for (const auto& [name, set] : Flags())
        parser.addOption(name == "help"      ? QCommandLineOption(QStringList{"h", "help"})
                         : name == "version" ? QCommandLineOption(QStringList{"v", "version"})
                                             : QCommandLineOption(QString::fromStdString(name)));
}

// Each value option given, in the order of the table; the last of a repeated one counts.
bool SetValues(const QCommandLineParser& parser, CommandLine& out, std::string& error) {
    for (const auto& [name, option] : ValueOptions()) {
        const QStringList values = parser.values(QString::fromStdString(name.substr(2)));
        if (values.isEmpty())
            continue;
        const std::string value = values.last().toStdString();
        if (!option.set(value, out)) {
            error = name + " '" + value + "' is not " + option.expected;
            return false;
        }
    }
    return true;
}

} // namespace

bool ParseCommandLine(const std::vector<std::string>& args, CommandLine& out, std::string& error) {
    QCommandLineParser parser;
    Describe(parser);
    QStringList arguments{QStringLiteral("ravel-fleet")};
    for (const std::string& arg : args)
        arguments << QString::fromStdString(arg);
    if (!parser.parse(arguments)) {
        error = parser.errorText().toStdString();
        return false;
    }
    if (!parser.positionalArguments().isEmpty()) {
        error = "unexpected argument '" + parser.positionalArguments().first().toStdString() + "'";
        return false;
    }
    for (const auto& [name, set] : Flags())
        if (parser.isSet(QString::fromStdString(name)))
            set(out);
    if (out.help || out.version)
        return true;
    if (!SetValues(parser, out, error))
        return false;
    if (out.model.logout.from < out.model.login.to) {
        error = "--logout must start no earlier than the end of --login";
        return false;
    }
    return true;
}

std::string UsageText() {
    return "usage: ravel-fleet [--agents N] [--days D] [--cycle DAYS] [--auto-check-now 0|1]\n"
           "                   [--range MINUTES] [--timer MINUTES] [--login HH:MM-HH:MM]\n"
           "                   [--logout HH:MM-HH:MM] [--always-on SHARE] [--interrupted SHARE]\n"
           "                   [--synced] [--unique-seeds] [--seed S] [--csv FILE] [--svg FILE]\n"
           "                   [--overlay CSV [--overlay-label TEXT]] [--json]\n"
           "       ravel-fleet --help | --version\n"
           "Simulates N desktops running the agent for D days from Monday 2024-01-01 and reports\n"
           "the launches of the updater an update server would see. Defaults: 10000 desktops,\n"
           "14 days, cycle 1 day, AutoCheckNow 1, TimeRandomRange 720, TimerMinutes 1, login\n"
           "08:00-09:00 and logout 17:00-18:00 on weekdays, no desktop always on, no run\n"
           "interrupted, last launches spread over the cycle before day 0, seed 1.\n"
           "--unique-seeds is a what-if: each agent seeds its generator with a number of its own\n"
           "instead of the seconds since midnight at start-up, as the agent does.\n"
           "Times are local times; the simulation never reads the machine's time zone.\n";
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
