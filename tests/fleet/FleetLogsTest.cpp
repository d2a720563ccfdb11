// The fleet simulator: the C library's generator, single desktops worked out by hand, jumping
// over idle checks against running every check; collected logs read back (hand-written logs whose
// facts are known), the load they show, time zones, and the settings advisor on small fleets whose
// outcome is worked out by hand; and the tool run as a process.
#include "Advise.h"
#include "CRandom.h"
#include "Charts.h"
#include "Desktop.h"
#include "Figures.h"
#include "Fleet.h"
#include "LogReader.h"
#include "Observe.h"

#include <cstdio>
#include <cstdlib>
#include <gmock/gmock.h>
#include <sys/wait.h>

using ::testing::HasSubstr;

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

std::string Line(const char* moment, const std::string& message, int tabs = 0) {
    return "[Src/ravel(7)][" + std::string(moment) + "]" + std::string(tabs, '\t') + "[" + message +
           "]-->\n";
}

const std::string kStart = "----------------------Start Log---------------------------------\n";
const std::string kEnd = "----------------------End Log-----------------------------------\n";
const std::string kDeploy = "Enter111111111 InitAgent() ...qstrSrcPath=/opt/p/";
const std::string kFirst =
    "Config.xml and UserData.dat file not exist,will create new file=/opt/p/";
const std::string kReady =
    "Time is Ready, Try to Launch(/opt/p/Tidewater.app/Contents/MacOS/Tidewater)";

uint64_t At(int day, int hour, int minute, int second) { // day 0 is Monday 2024-01-01
    return kDayZero + uint64_t(day) * 86400 + hour * 3600 + minute * 60 + second;
}

// Two logins on Monday 8 January and Tuesday: a launch, then a resumed run; a message that runs
// over two lines, a line that is no log line, and a last line cut short.
std::string TwoDays() {
    return kStart + Line("2024-01-08 08:30:00", kDeploy) + Line("2024-01-08 08:30:00", kFirst) +
           kEnd + kStart + Line("2024-01-08 08:30:01", "CheckMissed: Enter") +
           Line("2024-01-08 08:30:01", kReady) + Line("2024-01-08 08:30:01", "Sleep 60 Minutes") +
           Line("2024-01-08 16:30:01", "Sleep 60 Minutes") + kStart +
           Line("2024-01-09 08:10:00", kDeploy) + kEnd + kStart +
           Line("2024-01-09 08:10:01", "LastTime DownLoad broken, Continue now!") +
           "[Src/ravel(117)][2024-01-09 08:10:02][Copy file failed. the file name is:\n"
           "/opt/p/libx.dylib.]-->\n" +
           "a line that is no log line\n" + Line("2024-01-09 17:00:00", "Sleep 60 Minutes") +
           "[Src/ravel(3)][2024-01-09 17:01:00][Sle";
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

std::string Folder(const std::string& name) {
    const std::string dir = testing::TempDir() + name + "-" + std::to_string(getpid());
    std::system(("rm -rf " + dir + " && mkdir -p " + dir).c_str());
    return dir;
}

void Write(const std::string& path, const std::string& text) {
    std::string error;
    std::system(("mkdir -p '" + path.substr(0, path.rfind('/')) + "'").c_str());
    ASSERT_TRUE(WriteTextFile(path, text, error)) << error;
}

} // namespace

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
    const std::string dir = Folder("fleet-picture");
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

TEST(LogReader, LoginsLaunchesAndWhatIsWrongWithTheLog) {
    const DesktopLog log = ReadDesktopLog(TwoDays());
    ASSERT_EQ(log.sessions.size(), 2u);
    EXPECT_EQ(log.sessions[0].login, At(7, 8, 30, 0));
    EXPECT_EQ(log.sessions[0].logout, At(7, 16, 30, 1)) << "the last line before the next login";
    EXPECT_EQ(log.sessions[1].login, At(8, 8, 10, 0));
    EXPECT_EQ(log.sessions[1].logout, At(8, 17, 0, 0));
    ASSERT_EQ(log.launches.size(), 2u);
    EXPECT_EQ(log.launches[0].moment, At(7, 8, 30, 1));
    EXPECT_FALSE(log.launches[0].resumed);
    EXPECT_EQ(log.launches[1].moment, At(8, 8, 10, 1));
    EXPECT_TRUE(log.launches[1].resumed);
    EXPECT_EQ(log.lines, 10u) << "the two-line message counts once";
    EXPECT_EQ(log.malformed, 2u) << "the stray line and the cut one";
    EXPECT_TRUE(log.cut);
    EXPECT_FALSE(log.startsMidHistory) << "it begins with the first deployment";

    // Emptied at 5 MiB: a later login's run comes first.
    const DesktopLog emptied = ReadDesktopLog(kStart + Line("2024-01-09 08:10:00", kDeploy));
    EXPECT_TRUE(emptied.startsMidHistory);
    EXPECT_FALSE(emptied.cut);
    EXPECT_TRUE(emptied.launches.empty());
    const DesktopLog nothing = ReadDesktopLog("");
    EXPECT_EQ(nothing.lines + nothing.malformed + nothing.sessions.size(), 0u);
}

TEST(Observe, TheLoadTheLogsShowOnTheServersClock) {
    const std::vector<DesktopLog> logs{
        ReadDesktopLog(TwoDays()), ReadDesktopLog(kStart + Line("2024-01-08 08:31:00", kDeploy))};
    FleetModel model; // login window 08:00-09:10
    const Observation seen = Observe(logs, model, 0);
    EXPECT_EQ(seen.tally.origin, At(7, 0, 0, 0)) << "midnight of the first day seen";
    EXPECT_EQ(seen.tally.perSecond.size(), 2u * 86400) << "Monday and Tuesday";
    EXPECT_EQ(seen.tally.launches, 2u);
    EXPECT_EQ(seen.tally.resumed, 1u);
    EXPECT_EQ(seen.tally.inLoginWindow, 2u);
    EXPECT_EQ(seen.logs, 2u);
    EXPECT_EQ(seen.logins, 3u);
    EXPECT_EQ(seen.neverLaunched, 1u);
    EXPECT_EQ(seen.gaps, std::vector<uint32_t>{86400 - 20 * 60}) << "08:30:01 to 08:10:01";
    // At UTC+01:00 the same launches came an hour earlier on the server's clock.
    const Observation utc = Observe(logs, model, 3600);
    EXPECT_EQ(utc.tally.perSecond[At(7, 7, 30, 1) - utc.tally.origin], 1u);
    EXPECT_EQ(utc.tally.inLoginWindow, 2u) << "the login window is the desktops' own";
}

TEST(Observe, TheToolOnFoldersOfLogs) {
    const std::string dir = Folder("observe");
    Write(dir + "/a/ravel.log", TwoDays());
    Write(dir + "/b/sub/desk-b.log", kStart + Line("2024-01-08 08:31:00", kDeploy));
    Write(dir + "/b/notes.txt", "not a log");
    const ToolRun json = RunTool("observe " + dir + " --json --csv " + dir + "/seen.csv");
    EXPECT_EQ(json.status, 0) << json.output;
    EXPECT_THAT(json.output, HasSubstr("\"launches\":2,"));
    EXPECT_THAT(json.output, HasSubstr("\"logs\":2,\"logins\":3,\"malformed_lines\":2,"
                                       "\"cut_logs\":1,\"logs_emptied_or_removed\":1,"
                                       "\"desktops_without_launch\":1,\"median_gap_s\":85200"));
    std::string csv, error;
    ASSERT_TRUE(ReadTextFile(dir + "/seen.csv", csv, error)) << error;
    EXPECT_THAT(csv, HasSubstr("\n2024-01-08 08:30,1\n"));
    EXPECT_THAT(csv, HasSubstr("\n# observed: 2 desktops\n"));
    const ToolRun text = RunTool("observe " + dir + "/a/ravel.log");
    EXPECT_THAT(text.output, HasSubstr("gap between one desktop's launches: median 85200 s "
                                       "(23 h 40 min)"));

    const struct {
        std::string arguments, message;
        int status;
    } bad[] = {
        {"observe", "observe needs at least one log or folder of logs", 2},
        {"observe " + dir + "/none", "no such file or folder: '" + dir + "/none'", 1},
        {"observe " + dir + "/b/notes.txt/x", "no such file or folder", 1},
        {"observe " + Folder("empty"), "no log found in", 1},
        {"observe " + dir + " --csv " + dir + "/missing/seen.csv",
         "cannot write '" + dir + "/missing/seen.csv'", 1},
        {"observe " + dir + " --cycle 2", "--cycle does not go with observe", 2},
        {"observe " + dir + " --utc-offset 5", "--utc-offset '5' is not an offset", 2},
    };
    for (const auto& row : bad) {
        const ToolRun run = RunTool(row.arguments);
        EXPECT_EQ(run.status, row.status) << row.arguments;
        EXPECT_THAT(run.output, HasSubstr(row.message)) << row.arguments;
    }
    EXPECT_EQ(std::system(("test ! -e " + dir + "/missing").c_str()), 0) << "nothing half-written";
}

// Every desktop in one zone: the same load, only later or earlier on the server's clock.
TEST(Zones, AllDesktopsInOneZoneGiveTheFiguresOfNone) {
    const std::string options = "--agents 3000 --days 7 --auto-check-now 0 --range 240 --json";
    const ToolRun none = RunTool(options, true);
    ASSERT_EQ(none.status, 0) << none.output;
    for (const char* zones : {"+00:00=100", "+05:30=100", "-08:00=100", "+14:00=100"})
        EXPECT_EQ(RunTool(options + " --zones " + zones, true).output, none.output) << zones;
    const ToolRun spread = RunTool(options + " --zones +01:00=40,-05:00=35,+08:00=25", true);
    EXPECT_EQ(spread.status, 0);
    EXPECT_NE(spread.output, none.output) << "three zones spread the peaks";
    for (const char* zones :
         {"+01:00=40,-05:00=35", "+01:00=100,+02:00=10", "+15:00=100", "01:00=100"})
        EXPECT_EQ(RunTool(options + " --zones " + zones).status, 2) << zones;
}

// A hundred desktops whose user logs in at 08:00:10 sharp (a Monday seen in a log), whose cycles
// all end at 12:00:00: for every timer the first check after it comes at 12:00:10, four whole
// hours after login. With AutoCheckNow 1 all hundred launch in that second; with AutoCheckNow 0
// every agent seeded alike (the seconds since midnight, 28810) draws the same delay, so they all
// launch at one check again. Only each agent's own seed (--unique-seeds) spreads them, and then
// only with AutoCheckNow 0.
TEST(Advise, SettingsWorkedOutByHand) {
    const std::string dir = Folder("advise");
    Write(dir + "/monday.log",
          kStart + Line("2024-01-08 08:00:10", kDeploy) + Line("2024-01-08 17:00:10", "Sleep"));
    const std::string fleet = "advise --agents 100 --days 1 --synced --logins-from " + dir +
                              "/monday.log --max-per-minute 50";
    const ToolRun alike = RunTool(fleet);
    EXPECT_EQ(alike.status, 1) << alike.output;
    EXPECT_THAT(alike.output, HasSubstr("no setting keeps the load under 50 launches a minute"));
    EXPECT_THAT(alike.output, HasSubstr(": peak 100/min, 100/s"));

    const ToolRun unique = RunTool(fleet + " --unique-seeds");
    EXPECT_EQ(unique.status, 0) << unique.output;
    EXPECT_THAT(unique.output, HasSubstr("The best, UpdateCycle 1, AutoCheckNow 0,"));
    EXPECT_THAT(unique.output, HasSubstr("<DelayTime>0</DelayTime>")) << "the fresh install's";
    EXPECT_THAT(unique.output, Not(HasSubstr("AutoCheckNow 1,"))) << "no AutoCheckNow 1 fits";

    // The same, in the library: every AutoCheckNow 1 candidate has its peak of 100.
    FleetModel model;
    model.agents = 100;
    model.days = 1;
    model.synced = true;
    model.uniqueSeeds = true;
    model.sessions = std::make_shared<SessionPool>();
    const_cast<SessionPool&>(*model.sessions)
        .byWeekday[0]
        .push_back({8 * 3600 + 10, 17 * 3600 + 10});
    for (const Candidate& c : Advise(model, {1}, {50, 0}, 1, {})) {
        if (c.autoCheckNow == 1) {
            EXPECT_EQ(c.figures.peakPerSecond, 100u) << "TimerMinutes " << c.timerMinutes;
        }
    }
    EXPECT_EQ(RunTool(fleet + " --max-per-second 60").status, 2) << "more a second than a minute";
}
