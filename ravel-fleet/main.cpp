// ravel-fleet: simulates a fleet of desktops running the agent and reports the load the
// updater's launches put on the update server; `observe` reads collected logs and reports the
// load they show; `advise` searches the settings that keep the load under limits.
#include "Advise.h"
#include "Charts.h"
#include "Figures.h"
#include "Fleet.h"
#include "FleetModel.h"
#include "Observe.h"

#include <chrono>
#include <cstdio>
#include <iostream>

namespace {

constexpr unsigned kThreads = 2;
constexpr double kQuietSeconds = 3; // no progress lines for runs shorter than this

int Fail(const std::string& message, int status) {
    std::cerr << "ravel-fleet: " << message << "\n";
    return status;
}

// Progress lines on standard error, only once the run has taken a few seconds.
std::function<void(uint64_t, uint64_t, const char*)> ProgressPrinter() {
    const auto start = std::chrono::steady_clock::now();
    auto last = start;
    return [=](uint64_t done, uint64_t all, const char* what) mutable {
        const auto now = std::chrono::steady_clock::now();
        if (std::chrono::duration<double>(now - start).count() < kQuietSeconds ||
            std::chrono::duration<double>(now - last).count() < 2)
            return;
        last = now;
        std::fprintf(stderr, "ravel-fleet: %llu of %llu %s (%.0f%%)\n",
                     static_cast<unsigned long long>(done), static_cast<unsigned long long>(all),
                     what, 100.0 * double(done) / double(all));
    };
}

bool LoadOverlay(const CommandLine& line, Series& overlay, std::string& error) {
    if (line.overlayPath.empty())
        return true;
    std::string text;
    if (!ReadTextFile(line.overlayPath, text, error))
        return false;
    if (!ParsePerMinuteCsv(text, overlay, error)) {
        error = line.overlayPath + ": " + error;
        return false;
    }
    if (!line.overlayLabel.empty() || overlay.label.empty())
        overlay.label = line.overlayLabel.empty() ? line.overlayPath : line.overlayLabel;
    return true;
}

// Every log found at `paths`, read.
bool ReadLogs(const std::vector<std::string>& paths, std::vector<DesktopLog>& logs,
              std::string& error) {
    std::vector<std::string> files;
    if (!FindLogs(paths, files, error))
        return false;
    for (const std::string& file : files) {
        std::string text;
        if (!ReadTextFile(file, text, error))
            return false;
        logs.push_back(ReadDesktopLog(text));
    }
    return true;
}

// The CSV and the picture of a run's launches per minute, when asked for.
int WriteCharts(const CommandLine& line, const std::string& subtitle, const Series& main) {
    Series overlay;
    std::string error;
    if (!LoadOverlay(line, overlay, error))
        return Fail(error, 1);
    if (!line.csvPath.empty() && !WriteTextFile(line.csvPath, PerMinuteCsv(main), error))
        return Fail(error, 1);
    const std::string title = "Updater launches per minute seen by the update server";
    if (!line.svgPath.empty() &&
        !WriteTextFile(line.svgPath, PerMinuteSvg(title, subtitle, main, overlay), error))
        return Fail(error, 1);
    return 0;
}

int Simulate(CommandLine& line) {
    std::string error;
    std::vector<DesktopLog> logs;
    if (!line.loginsFrom.empty()) {
        if (!ReadLogs(line.loginsFrom, logs, error))
            return Fail(error, 1);
        line.model.sessions = std::make_shared<SessionPool>(PoolOf(logs));
    }
    auto progress = ProgressPrinter();
    const Tally tally = RunFleet(line.model, kThreads, [&](uint64_t done) {
        progress(done, line.model.agents, "desktops simulated");
    });
    const Figures figures = ComputeFigures(tally);
    std::cout << (line.json ? FiguresJson(figures) : FiguresText(line.model, figures));
    const std::string settings = DescribeModel(line.model);
    return WriteCharts(line, settings, {tally.origin, PerMinute(tally), settings});
}

int ObserveLogs(const CommandLine& line) {
    std::vector<DesktopLog> logs;
    std::string error;
    if (!ReadLogs(line.logs, logs, error))
        return Fail(error, 1);
    const Observation seen = Observe(logs, line.model, line.utcOffset);
    std::cout << (line.json ? ObservationJson(seen) : ObservationText(seen, line.model));
    const std::string label = "observed: " + std::to_string(seen.logs) + " desktops";
    return WriteCharts(line, label + (line.inUtc ? " (UTC)" : " (their wall clocks)"),
                       {seen.tally.origin, PerMinute(seen.tally), label});
}

int AdviseSettings(CommandLine& line) {
    std::string error;
    std::vector<DesktopLog> logs;
    if (!line.loginsFrom.empty()) {
        if (!ReadLogs(line.loginsFrom, logs, error))
            return Fail(error, 1);
        line.model.sessions = std::make_shared<SessionPool>(PoolOf(logs));
    }
    if (line.cycles.empty())
        line.cycles = {line.model.cycleDays};
    auto progress = ProgressPrinter();
    const std::vector<Candidate> ranked =
        Advise(line.model, line.cycles, {line.maxPerMinute, line.maxPerSecond}, kThreads,
               [&](size_t done, size_t all) { progress(done, all, "settings simulated"); });
    std::cout << AdviceText(ranked, {line.maxPerMinute, line.maxPerSecond});
    return ranked.empty() || !ranked.front().fits ? 1 : 0;
}

} // namespace

int main(int argc, char* argv[]) {
    CommandLine line;
    std::string error;
    if (!ParseCommandLine(std::vector<std::string>(argv + 1, argv + argc), line, error))
        return Fail(error + " (ravel-fleet --help lists the options)", 2);
    if (line.help) {
        std::cout << UsageText();
        return 0;
    }
    if (line.version) {
        std::cout << "ravel-fleet " RAVEL_VERSION "\n";
        return 0;
    }
    switch (line.mode) {
    case Mode::Observe:
        return ObserveLogs(line);
    case Mode::Advise:
        return AdviseSettings(line);
    case Mode::Simulate:
        break;
    }
    return Simulate(line);
}
