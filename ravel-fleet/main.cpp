// ravel-fleet: simulates a fleet of desktops running the agent and reports the load the
// updater's launches put on the update server.
#include "Charts.h"
#include "Figures.h"
#include "Fleet.h"
#include "FleetModel.h"

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
Progress ProgressPrinter(uint64_t agents) {
    const auto start = std::chrono::steady_clock::now();
    auto last = start;
    return [=](uint64_t done) mutable {
        const auto now = std::chrono::steady_clock::now();
        if (std::chrono::duration<double>(now - start).count() < kQuietSeconds ||
            std::chrono::duration<double>(now - last).count() < 2)
            return;
        last = now;
        std::fprintf(stderr, "ravel-fleet: %llu of %llu desktops simulated (%.0f%%)\n",
                     static_cast<unsigned long long>(done), static_cast<unsigned long long>(agents),
                     100.0 * double(done) / agents);
    };
}

bool LoadOverlay(const CommandLine& line, Overlay& overlay, std::string& error) {
    if (line.overlayPath.empty())
        return true;
    std::string text;
    if (!ReadTextFile(line.overlayPath, text, error))
        return false;
    if (!ParsePerMinuteCsv(text, overlay.perMinute, error)) {
        error = line.overlayPath + ": " + error;
        return false;
    }
    overlay.label = line.overlayLabel.empty() ? line.overlayPath : line.overlayLabel;
    return true;
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
    Overlay overlay;
    if (!LoadOverlay(line, overlay, error))
        return Fail(error, 1);

    const Tally tally = RunFleet(line.model, kThreads, ProgressPrinter(line.model.agents));
    const Figures figures = ComputeFigures(line.model, tally);
    std::cout << (line.json ? FiguresJson(figures) : FiguresText(line.model, figures));

    const std::vector<uint32_t> perMinute = PerMinute(tally);
    if (!line.csvPath.empty() && !WriteTextFile(line.csvPath, PerMinuteCsv(perMinute), error))
        return Fail(error, 1);
    if (!line.svgPath.empty() &&
        !WriteTextFile(line.svgPath, PerMinuteSvg(line.model, perMinute, overlay), error))
        return Fail(error, 1);
    return 0;
}
