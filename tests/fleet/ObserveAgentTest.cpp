// ravel-fleet observe on logs the real agent wrote: four desktops, one with two logins, one that
// never launched, one whose log was emptied at 5 MiB, and one copied while a line was written.
// What the tool finds is what the runs did.
#include "AgentHarness.h"
#include "Isolation.h"

#include <QDateTime>
#include <QProcess>
#include <gmock/gmock.h>

using ::testing::HasSubstr;

namespace {
const QString kOld = "2000-01-01 00:00:00"; // a cycle long over

int Launches(const AgentPlace& place) { // the stand-in updater's runs
    return QString::fromStdString(ReadAll(place.inst + "Tidewater.args")).count('\n');
}

// One login: the installed copy hands over, the resident copy checks once (and launches when
// due), and once the updater has run `launchesBy` times in all the session ends through the port.
void Login(AgentPlace& place, int launchesBy) {
    ASSERT_EQ(place.RunInstalled(), 0) << ReadAll(place.errFile);
    const pid_t resident = place.WaitForDuplicate();
    EXPECT_TRUE(WaitUntil([&] { return Launches(place) >= launchesBy; }));
    EXPECT_EQ(place.EndResident(resident), 0);
}

void Keep(const AgentPlace& place, const QString& folder, const std::string& extra = "") {
    WriteAll(folder + "/ravel.log", ReadAll(place.data + "log/ravel.log") + extra);
}
} // namespace

TEST(ObserveTheAgent, TheLaunchesAndLoginsTheRunsMade) {
    RAVEL_REQUIRE_ISOLATION();
    QTemporaryDir collected;
    const QString logs = collected.path() + "/logs";
    int launches = 0;
    {
        AgentPlace a; // due: launches at its first login, and not at its second
        a.LayOutInstalled({}, {{"UpdateRecord", {{"LastLaunchTime", kOld}}}});
        Login(a, 1);
        Login(a, 1);
        launches += Launches(a);
        EXPECT_EQ(Launches(a), 1);
        Keep(a, logs + "/a");
    }
    {
        AgentPlace b; // launched just now: nothing due
        b.LayOutInstalled(
            {},
            {{"UpdateRecord",
              {{"LastLaunchTime", QDateTime::currentDateTime().toString("yyyy-MM-dd hh:mm:ss")}}}});
        Login(b, 0);
        EXPECT_EQ(Launches(b), 0);
        Keep(b, logs + "/b");
        Keep(b, logs + "/d", "[Src/ravel(7)][2026-"); // copied while a line was written
    }
    {
        AgentPlace c; // its log grows past 5 MiB: emptied at the next login, which launches
        c.LayOutInstalled(
            {},
            {{"UpdateRecord",
              {{"LastLaunchTime", QDateTime::currentDateTime().toString("yyyy-MM-dd hh:mm:ss")}}}});
        Login(c, 0);
        WriteAll(c.data + "log/ravel.log",
                 ReadAll(c.data + "log/ravel.log") + std::string(5 << 20, '#') + "\n");
        WriteConfigure("UpdateRecord", "LastLaunchTime", kOld, c.dup + "UserInfo.dat");
        Login(c, 1);
        EXPECT_EQ(Launches(c), 1);
        launches += Launches(c);
        Keep(c, logs + "/c");
    }
    QProcess fleet;
    fleet.start(RAVEL_FLEET_EXE, {"observe", logs, "--json"});
    ASSERT_TRUE(fleet.waitForFinished(60000));
    const std::string json = fleet.readAllStandardOutput().toStdString();
    EXPECT_EQ(fleet.exitCode(), 0) << fleet.readAllStandardError().toStdString();
    EXPECT_THAT(json, HasSubstr("{\"launches\":" + std::to_string(launches) + ","));
    // Logins seen: a's two, b's, c's second (its first went with the emptied log) and d's.
    EXPECT_THAT(json, HasSubstr("\"logs\":4,\"logins\":5,\"malformed_lines\":1,\"cut_logs\":1,"
                                "\"logs_emptied_or_removed\":1,\"desktops_without_launch\":2,"));
}
