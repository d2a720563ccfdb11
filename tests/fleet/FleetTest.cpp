// The fleet simulator: the C library's generator, single desktops worked out by hand, jumping
// over idle checks against running every check, and the tool run as a process.
#include "Fleet.h"
#include "CRandom.h"
#include "Charts.h"
#include "Desktop.h"
#include "Figures.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/wait.h>

namespace {

constexpr uint32_t kHour = 3600, kMinute = 60, kDay = kSecondsPerDay;

struct Recorder : LaunchSink {
    void OnLaunch(const Launch& launch) override { launches.push_back(launch); }
    std::vector<Launch> launches;
};

// One desktop logging in and out at fixed seconds of the day.
std::vector<uint32_t> Launches(FleetModel model, uint32_t login, uint32_t logout,
                               DesktopRecord record) {
    model.login = {login, login + 1};
    model.logout = {logout, logout + 1};
    static const SeedDraws draws;
    DesktopStream stream(model.seed, 0);
    Recorder recorder;
    SimulateDesktop(model, draws, stream, record, recorder);
    std::vector<uint32_t> moments;
    for (const Launch& launch : recorder.launches)
        moments.push_back(launch.moment);
    return moments;
}

struct ToolRun {
    int status;
    std::string output;
};

// Runs a shell command; its status and what it wrote to both outputs, or to standard output only
// (`figuresOnly`: a slow run on a busy machine also writes progress lines to standard error).
ToolRun Shell(const std::string& command, bool figuresOnly = false) {
    ToolRun run{-1, {}};
    FILE* pipe = popen((command + (figuresOnly ? " 2>/dev/null" : " 2>&1")).c_str(), "r");
    char buffer[4096];
    for (size_t n; pipe && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        run.output.append(buffer, n);
    if (pipe)
        run.status = WEXITSTATUS(pclose(pipe));
    return run;
}

ToolRun RunTool(const std::string& arguments, bool figuresOnly = false) {
    return Shell("TZ=${FLEET_TZ:-UTC} " RAVEL_FLEET_EXE " " + arguments, figuresOnly);
}

TEST(FleetGenerator, MatchesTheCLibrary) {
    const SeedDraws table;
    for (uint32_t seed : {0u, 1u, 30600u, 86399u}) {
        std::srand(seed);
        CRandom random(seed);
        for (int i = 0; i < 400; ++i) {
            const int expected = std::rand();
            ASSERT_EQ(expected, random.Next()) << "seed " << seed << ", draw " << i;
            ASSERT_EQ(expected, table.Draw(seed, i)) << "table, seed " << seed << ", draw " << i;
        }
    }
}

// Monday 08:30:00 logins, logouts at 17:00:00; the last launch on the Sunday before day 0.
TEST(FleetDesktop, LaunchesAtTheMomentsWorkedOutByHand) {
    const uint32_t login = 8 * kHour + 30 * kMinute, logout = 17 * kHour;
    const uint32_t sunday = kDayZero - kDay + 9 * kHour - 1; // Sunday 08:59:59
    const auto at = [](uint32_t day, uint32_t secondOfDay) {
        return kDayZero + day * kDay + secondOfDay;
    };

    FleetModel autoNow;
    autoNow.days = 8;
    // The cycle ends at 08:59:59 and the check at 09:00:00 is past it; from then on each cycle
    // ends on a check, which is not past it, so the launch creeps a minute a day until the
    // weekend, after which Monday's first check launches at login.
    EXPECT_EQ(
        Launches(autoNow, login, logout, {sunday, 1, 0, false}),
        (std::vector<uint32_t>{at(0, 9 * kHour), at(1, 9 * kHour + 60), at(2, 9 * kHour + 120),
                               at(3, 9 * kHour + 180), at(4, 9 * kHour + 240), at(7, login)}))
        << "AutoCheckNow 1";

    FleetModel delayed = autoNow;
    delayed.days = 1;
    delayed.autoCheckNow = 0;
    delayed.rangeMinutes = 60;
    // The agent seeds with 30600 (08:30:00); the C library's first draw after srand(30600) is
    // 1934148003, so the check at 09:00:00 draws 1934148003 * 3600 / 2^31 + 1 = 3243 s: a delay
    // to 09:54:03, and the check at 09:55:00 launches.
    EXPECT_EQ(Launches(delayed, login, logout, {sunday, 1, 0, false}),
              std::vector<uint32_t>{at(0, 9 * kHour + 55 * kMinute)})
        << "a drawn delay to 09:54:03";

    // Round 1 drawn at 16:51:00 runs past the 17:00:00 logout: Tuesday's start counts it as
    // missed and the check at login launches.
    FleetModel missed = delayed;
    missed.days = 2;
    missed.rangeMinutes = 720;
    const uint32_t lastLaunch = kDayZero - kDay + 16 * kHour + 50 * kMinute;
    // 1934148003 * 43200 / 2^31 + 1 = 38909 s: to 03:39:29 on Tuesday, past the logout.
    EXPECT_EQ(Launches(missed, login, logout, {lastLaunch, 1, 0, false}),
              std::vector<uint32_t>{at(1, login)})
        << "missed round";

    // Round 3 launches at the first check after the end of the cycle, delay or not.
    EXPECT_EQ(Launches(delayed, login, logout, {sunday, 3, 0, false}),
              std::vector<uint32_t>{at(0, 9 * kHour)})
        << "round 3";
    // An interrupted run is resumed at every check until one finishes.
    FleetModel interrupted = delayed;
    interrupted.interruptedShare = 1;
    EXPECT_EQ(Launches(interrupted, logout - 120, logout, {kDayZero, 1, 0, true}),
              (std::vector<uint32_t>{at(0, logout - 120), at(0, logout - 60)}))
        << "resumed";
}

// Jumping from one check that can act to the next gives what every check would give.
TEST(FleetDesktop, JumpingAgreesWithEveryCheck) {
    const SeedDraws draws;
    FleetModel spread;
    spread.autoCheckNow = 0;
    FleetModel shortRange = spread;
    shortRange.rangeMinutes = 240;
    shortRange.timerMinutes = 7;
    shortRange.synced = true;
    FleetModel mixed = spread;
    mixed.cycleDays = 3;
    mixed.alwaysOnShare = 0.3;
    mixed.interruptedShare = 0.2;
    mixed.rangeMinutes = 30;
    for (const FleetModel& model : {FleetModel{}, spread, shortRange, mixed}) {
        for (uint64_t index = 0; index < 300; ++index) {
            Recorder jumping, stepping;
            DesktopStream first(model.seed, index), second(model.seed, index);
            SimulateDesktop(model, draws, first, InitialRecord(model, first), jumping, false);
            SimulateDesktop(model, draws, second, InitialRecord(model, second), stepping, true);
            ASSERT_EQ(jumping.launches.size(), stepping.launches.size())
                << DescribeModel(model) << ", desktop " << index;
            for (size_t i = 0; i < jumping.launches.size(); ++i)
                ASSERT_EQ(jumping.launches[i].moment, stepping.launches[i].moment)
                    << DescribeModel(model) << ", desktop " << index << ", launch " << i;
        }
    }
}

TEST(FleetTool, SameSeedSameFiguresInAnyTimeZone) {
    FleetModel model;
    model.agents = 3000;
    model.autoCheckNow = 0;
    const std::string one = FiguresJson(ComputeFigures(RunFleet(model, 1, {})));
    EXPECT_EQ(one, FiguresJson(ComputeFigures(RunFleet(model, 2, {})))) << "threads";
    model.seed = 2;
    EXPECT_NE(one, FiguresJson(ComputeFigures(RunFleet(model, 2, {})))) << "seed";

    const std::string options = " --agents 3000 --auto-check-now 0 --json";
    const ToolRun utc = RunTool(options, true);
    setenv("FLEET_TZ", "Pacific/Chatham", 1);
    const ToolRun chatham = RunTool(options, true);
    unsetenv("FLEET_TZ");
    EXPECT_EQ(0, utc.status) << utc.output;
    EXPECT_EQ(one, utc.output) << "the tool against the library";
    EXPECT_EQ(utc.output, chatham.output) << "time zone";
}

TEST(FleetTool, WritesATableAndAWellFormedPicture) {
    const std::string dir = testing::TempDir() + "fleet-picture-" + std::to_string(getpid());
    ASSERT_EQ(0, std::system(("mkdir -p " + dir).c_str()));
    const ToolRun spread =
        RunTool("--agents 2000 --days 3 --auto-check-now 0 --csv " + dir + "/spread.csv");
    ASSERT_EQ(0, spread.status) << spread.output;
    const ToolRun plot = RunTool("--agents 2000 --days 3 --svg " + dir + "/fleet.svg --overlay " +
                                 dir + "/spread.csv --overlay-label '<spread & \"wide\">'");
    ASSERT_EQ(0, plot.status) << plot.output;

    std::string csv, svg, error;
    ASSERT_TRUE(ReadTextFile(dir + "/spread.csv", csv, error)) << error;
    Series series;
    ASSERT_TRUE(ParsePerMinuteCsv(csv, series, error)) << error;
    EXPECT_EQ(3u * 1440, series.perMinute.size());
    EXPECT_EQ(kDayZero, series.origin);
    EXPECT_EQ("minute,launches\n2024-01-01 00:00,0\n", csv.substr(0, 35));
    EXPECT_EQ(series.label, "2000 desktops, 3 days; UpdateCycle 1, AutoCheckNow 0, TimeRandomRange "
                            "720, TimerMinutes 1; login 08:00-09:00, logout 17:00-18:00")
        << "the settings, named in the table";
    const ToolRun lint = Shell("xmllint --noout " + dir + "/fleet.svg");
    EXPECT_EQ(0, lint.status) << lint.output;
    ASSERT_TRUE(ReadTextFile(dir + "/fleet.svg", svg, error)) << error;
    EXPECT_NE(std::string::npos, svg.find("&lt;spread &amp; &quot;wide&quot;&gt;")) << svg;
    std::system(("rm -rf " + dir).c_str());
}

// Usage errors end with status 2, an input or output that cannot be used with 1; each names
// the problem.
TEST(FleetTool, RefusesBadOptions) {
    const struct {
        const char* arguments;
        const char* message;
        int status;
    } cases[] = {
        {"--agents 0", "--agents '0' is not a count from 1 to 100000000", 2},
        {"--days", "Missing value after '--days'.", 2},
        {"--timer 35792", "--timer '35792' is not minutes from 1 to 35791", 2},
        {"--auto-check-now 2", "--auto-check-now '2' is not 0 or 1", 2},
        {"--login 09:00-08:00", "--login '09:00-08:00' is not HH:MM-HH:MM", 2},
        {"--logout=+8:00-18:00", "--logout '+8:00-18:00' is not HH:MM-HH:MM", 2},
        {"--login 08:00-18:00", "--logout must start no earlier than the end of --login", 2},
        {"--always-on 1.5", "--always-on '1.5' is not a share from 0 to 1", 2},
        {"--frobnicate", "Unknown option 'frobnicate'.", 2},
        {"extra", "unexpected argument 'extra'", 2},
        {"--overlay /nonexistent/x.csv", "cannot read '/nonexistent/x.csv'", 1},
        {"--agents 5 --svg /nonexistent/x.svg", "cannot write '/nonexistent/x.svg'", 1},
    };
    for (const auto& c : cases) {
        const ToolRun run = RunTool(c.arguments);
        EXPECT_EQ(c.status, run.status) << c.arguments;
        EXPECT_NE(std::string::npos, run.output.find(std::string("ravel-fleet: ") + c.message))
            << c.arguments << "\nexpected: " << c.message << "\nactual: " << run.output;
    }
}

TEST(FleetTool, HelpAndVersion) {
    for (const char* option : {"--help", "-h"}) {
        const ToolRun run = RunTool(option);
        EXPECT_EQ(run.status, 0) << option;
        EXPECT_EQ(run.output.rfind("usage: ravel-fleet [--agents N]", 0), 0u) << run.output;
    }
    const ToolRun version = RunTool("--version");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.output, "ravel-fleet " PROJECT_VERSION "\n");
}

} // namespace
