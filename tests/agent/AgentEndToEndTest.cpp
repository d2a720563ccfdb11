// The built agent as real processes: hand-over, deployment, scheduling, plug-in and exits.
#include "AgentHarness.h"

#include <QDateTime>
#include <gmock/gmock.h>

using namespace ::testing;

namespace {

class AgentEndToEnd : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_THAT(ReadAll(place.errFile), Not(HasSubstr("Sanitizer"))); }
    std::string UpdaterArgs() const { return ReadAll(place.inst + "Tidewater.args"); }

    AgentPlace place;
    const std::string inst = place.inst.toStdString(), updater = place.updater,
                      pluginLine =
                          place.dup.toStdString() + "ravel.app/Contents/MacOS/../../../PolicyProbe";
    const QString now = QDateTime::currentDateTime().toString("yyyy-MM-dd hh:mm:ss");
};

TEST_F(AgentEndToEnd, FirstDeploymentHandsOverAndLaunchesTheDueUpdater) {
    place.LayOutInstalled();
    ASSERT_EQ(place.RunInstalled(), 0);

    for (const auto& [file, bytes] : std::map<QString, std::string>{
             {"ravel.app/Contents/MacOS/ravel", ReadAll(RAVEL_EXE_BUILT)},
             {"libPolicyProbe.dylib", ReadAll(POLICY_PROBE_BUILT)},
             {"libalpha.dylib", "alpha 1"},
             {"LibX.dylib", ""},
             {"libx.so", ""},
             {"Brightwell Data/rules.txt", "rules 1"},
             {"UpdateInfo/info.txt", "info 1"},
             {"Tidewater.dat", ReadAll(place.inst + "Tidewater.dat")}})
        EXPECT_EQ(ReadAll(place.dup + file), bytes) << file.toStdString();

    const pid_t pid = place.WaitForDuplicate();
    ASSERT_NE(pid, 0);
    EXPECT_EQ(CommandLineOf(pid), (std::vector{place.duplicateExe, inst}));
    ASSERT_TRUE(WaitUntil([&] { return !UpdaterArgs().empty() && place.Settled(); }));
    EXPECT_EQ(UpdaterArgs(), "auto\n");
    EXPECT_EQ(place.RunInstalled(), 0); // finds the port taken
    EXPECT_EQ(place.EndResident(pid), 0);

    const QString userInfo = place.dup + "UserInfo.dat";
    EXPECT_EQ(GetConfigure("UpdateInfo", "LastStatus", "", userInfo).toString(), "ready");
    EXPECT_NE(GetConfigure("UpdateRecord", "LastLaunchTime", "", userInfo).toString(),
              "2000-01-01 00:00:00");
    EXPECT_EQ(ReadAll(place.dup + "PolicyProbe.trace"),
              "Init in process " + std::to_string(pid) + "\n");
    EXPECT_TRUE(place.Logged(
        {"Enter111111111 InitAgent() ...qstrSrcPath=" + inst,
         "Config.xml and UserData.dat file not exist,will create new file=" + inst,
         "File path is: " + place.duplicateExe, "CheckMissed: Enter",
         "Time is Ready, Try to Launch(" + updater + ")", "File path is: " + updater,
         "Sleep 600 Minutes", "Enter InitAgent() ...", pluginLine, "Leave InitAgent() ...",
         "QLocalServer listen failed.", "Accept a connection, ravel exit."}));
    EXPECT_THAT(ReadAll(place.data + "log/ravel.log"),
                EndsWith("[Accept a connection, ravel exit.]-->\n"
                         "----------------------End Log-----------------------------------\n"));
}

TEST_F(AgentEndToEnd, LaterRunsRefreshLibrariesButDataOnlyForANewItemValue) {
    place.LayOutInstalled({}, {{"UpdateRecord", {{"LastLaunchTime", now}}}}); // not due
    const auto handOver = [&] {
        QFile::remove(place.data + "log/ravel.log");
        ASSERT_EQ(place.RunInstalled(), 0);
        place.EndResident(place.WaitForDuplicate());
    };
    handOver();
    WriteAll(place.inst + "libalpha.dylib", "alpha 2");
    WriteAll(place.inst + "Brightwell Data/rules.txt", "rules 2");
    WriteAll(place.inst + "UpdateInfo/info.txt", "info 2");
    WriteConfigure("UpdateSetting", "Marker", "changed", place.inst + "Tidewater.dat");

    handOver(); // same "item" value
    EXPECT_EQ(ReadAll(place.dup + "libalpha.dylib"), "alpha 2");
    EXPECT_EQ(ReadAll(place.dup + "Brightwell Data/rules.txt"), "rules 1");

    WriteAll(place.inst + "Brightwell Data/Config.xml", "<item value=\"2\"/>");
    handOver();
    EXPECT_EQ(ReadAll(place.dup + "Brightwell Data/rules.txt"), "rules 2");
    EXPECT_EQ(ReadAll(place.dup + "UpdateInfo/info.txt"), "info 1");
    EXPECT_EQ(GetConfigure("UpdateSetting", "Marker", "", place.dup + "Tidewater.dat").toString(),
              "");
    EXPECT_EQ(UpdaterArgs(), "");
}

TEST_F(AgentEndToEnd, NeverSchedulingAndAMissingOrFactorylessPlugin) {
    place.LayOutInstalled({{"UpdateSetting", {{"RunWithSystem", "0"}}}},
                          {{"UpdateStrategy", {{"Strategy", "never"}}}}, nullptr);
    EXPECT_EQ(place.Reap(place.StartDuplicate()), 0);
    EXPECT_TRUE(place.Logged({"Strategy was set to never, duplicate ravel will exit now!"}));
    EXPECT_FALSE(place.Logged({"Sleep 600 Minutes"}));
    const auto endsLogging = [&](std::vector<std::string> lines) { // a failed plug-in at the end
        lines.insert(lines.end(), {"Sleep 600 Minutes", "Enter InitAgent() ...", pluginLine,
                                   "load PolicyProbe fail 2", "load PolicyProbe fail 3"});
        EXPECT_TRUE(place.Logged(lines));
        EXPECT_FALSE(place.Logged({"Leave InitAgent() ..."}));
        EXPECT_FALSE(QFile::exists(place.dup + "PolicyProbe.trace"));
    };

    // RunWithSystem keeps it; no plug-in is logged and scheduling goes on.
    WriteConfigure("UpdateSetting", "RunWithSystem", "1", place.inst + "Tidewater.dat");
    QFile::remove(place.data + "log/ravel.log");
    EXPECT_EQ(place.EndResident(place.StartDuplicate()), 0);
    endsLogging({});
    EXPECT_EQ(UpdaterArgs(), "");

    // An interrupted download is resumed even without RunWithSystem; a plug-in without a factory.
    WriteConfigure("UpdateSetting", "RunWithSystem", "0", place.inst + "Tidewater.dat");
    WriteConfigure("UpdateRecord", "LastLaunchTime", now, place.dup + "UserInfo.dat");
    WriteConfigure("UpdateInfo", "LastStatus", "downloading", place.dup + "UserInfo.dat");
    QFile::copy(POLICY_PROBE_WITHOUT_FACTORY, place.dup + "libPolicyProbe.dylib");
    QFile::remove(place.data + "log/ravel.log");
    const pid_t pid = place.StartDuplicate();
    ASSERT_TRUE(WaitUntil([&] { return !UpdaterArgs().empty(); }));
    EXPECT_EQ(UpdaterArgs(), "auto\n");
    EXPECT_EQ(place.EndResident(pid), 0);
    endsLogging({"LastTime DownLoad broken, Continue now!", "File path is: " + updater});
}

TEST_F(AgentEndToEnd, AnotherInstanceOrATakenPortEndsTheAgentWithZero) {
    place.LayOutInstalled();
    const pid_t twin = place.Start("/bin/sleep", {place.installedExe, "300"});
    ASSERT_TRUE(WaitUntil([&] { return FindProcess(place.installedExe) == twin; }));
    EXPECT_EQ(place.RunInstalled(), 0);
    EXPECT_TRUE(place.Logged({"There is an Ravel process is running."}));
    EXPECT_FALSE(QFile::exists("/tmp/RAVEL_tmp"));
    kill(twin, SIGKILL);
    place.Reap(twin);

    const int server = UsePort(true);
    ASSERT_GE(server, 0);
    EXPECT_EQ(place.RunInstalled(), 0);
    close(server);
    EXPECT_TRUE(place.Logged({"QLocalServer listen failed."}));
    EXPECT_FALSE(QFile::exists(place.dup + "ravel.app")); // neither run deployed
}

TEST_F(AgentEndToEnd, FailedSetUpsEndWith255AndSayWhy) {
    place.LayOutInstalled({{"UpdateSetting", {{"RunWithSystem", "0"}}}});
    QFile::remove(place.inst + "Tidewater.app/Contents/MacOS/Tidewater");
    EXPECT_EQ(place.RunInstalled(), 255);
    EXPECT_TRUE(
        place.Logged({"ExeFile<" + updater + "> not exist", "Original InitFilePath Failed"}));

    place.LayOutInstalled(); // the updater is back; the duplicate folder has no UserInfo.dat
    QFile::remove(place.dup + "UserInfo.dat");
    EXPECT_EQ(place.Reap(place.StartDuplicate()), 255);
    EXPECT_TRUE(place.Logged({"ConfigFile<" + place.dup.toStdString() + "UserInfo.dat> not exist",
                              "Duplicate InitFilePath Failed"}));

    // A file where the deployed bundle needs a folder makes the bundle copy fail.
    QDir(place.dup + "ravel.app/Contents").removeRecursively();
    WriteAll(place.dup + "ravel.app/Contents", "in the way");
    EXPECT_EQ(place.RunInstalled(), 255);
    EXPECT_TRUE(place.Logged({"Copy file to Dup failed."}));
    EXPECT_FALSE(place.Logged({"Enter111111111 InitAgent() ...qstrSrcPath=" + inst}));

    // A data folder that cannot be made: the log cannot be opened, only standard error tells.
    WriteAll(place.root + "blocker", "a file");
    WriteConfigure("DupInfo", "DuplicatePath", place.root + "blocker/data",
                   place.inst + "Tidewater.dat");
    EXPECT_EQ(place.RunInstalled(), 255);
    EXPECT_THAT(ReadAll(place.errFile), HasSubstr("Duplicate path is empty or it's not a path."));
}

} // namespace
