// Collected logs read back (by hand-written logs whose facts are known), the load they show,
// time zones, and the settings advisor on small fleets whose outcome is worked out by hand.
#include "Advise.h"
#include "Charts.h"
#include "LogReader.h"
#include "Observe.h"

#include <cstdio>
#include <gmock/gmock.h>
#include <sys/wait.h>

using ::testing::HasSubstr;

namespace {

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

// Its status and what it wrote to both outputs, or to standard output only (`figuresOnly`: a slow
// run on a busy machine also writes progress lines to standard error).
ToolRun RunTool(const std::string& arguments, bool figuresOnly = false) {
    const char* errors = figuresOnly ? " 2>/dev/null" : " 2>&1";
    FILE* pipe = popen(("TZ=UTC " RAVEL_FLEET_EXE " " + arguments + errors).c_str(), "r");
    ToolRun run{-1, {}};
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        run.output.append(buffer, n);
    run.status = WEXITSTATUS(pclose(pipe));
    return run;
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
