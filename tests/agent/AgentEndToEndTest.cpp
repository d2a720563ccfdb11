// The built agent as real processes: hand-over, deployment, scheduling, plug-in and exits.
#include "AgentHarness.h"

#include "CommonFunctions.h"

#include <QDateTime>
#include <QFile>

#include <arpa/inet.h>
#include <csignal>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

class AgentEndToEnd : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_THAT(place.Errors(), Not(HasSubstr("Sanitizer"))); }

    std::string Inst() const { return place.inst.toStdString(); }
    std::string Updater() const { return Inst() + "Tidewater.app/Contents/MacOS/Tidewater"; }
    std::string PluginPathLine() const {
        return place.dup.toStdString() + "ravel.app/Contents/MacOS/../../../PolicyProbe";
    }
    static QString Now() { return QDateTime::currentDateTime().toString("yyyy-MM-dd hh:mm:ss"); }
    bool UpdaterRan() const { return QFile::exists(place.inst + "Tidewater.args"); }
    // A resident duplicate has reached its event loop.
    bool Settled() const {
        return place.LogHas("Leave InitAgent() ...") || place.LogHas("load PolicyProbe fail 3");
    }

    AgentPlace place;
};

TEST_F(AgentEndToEnd, FirstDeploymentHandsOverAndLaunchesTheDueUpdater) {
    place.LayOutInstalled();
    place.WriteUserInfo();
    ASSERT_EQ(place.RunInstalled(), 0);

    EXPECT_EQ(ReadAll(place.dup + "ravel.app/Contents/MacOS/ravel"), ReadAll(RAVEL_EXE_BUILT));
    EXPECT_EQ(ReadAll(place.dup + "libPolicyProbe.dylib"), ReadAll(POLICY_PROBE_BUILT));
    EXPECT_EQ(ReadAll(place.dup + "libalpha.dylib"), "alpha 1");
    EXPECT_FALSE(QFile::exists(place.dup + "LibX.dylib"));
    EXPECT_FALSE(QFile::exists(place.dup + "libx.so"));
    EXPECT_EQ(ReadAll(place.dup + "Brightwell Data/rules.txt"), "rules 1");
    EXPECT_EQ(ReadAll(place.dup + "UpdateInfo/info.txt"), "info 1");
    EXPECT_EQ(ReadAll(place.dup + "Tidewater.dat"), ReadAll(place.inst + "Tidewater.dat"));

    const pid_t pid = place.WaitForDuplicate();
    ASSERT_NE(pid, 0);
    EXPECT_THAT(CommandLineOf(pid), ElementsAre(place.duplicateExe, Inst()));

    ASSERT_TRUE(WaitUntil([&] { return UpdaterRan() && Settled(); }));
    EXPECT_EQ(ReadAll(place.inst + "Tidewater.args"), "auto\n");
    const QString userInfo = place.dup + "UserInfo.dat";
    EXPECT_EQ(GetConfigure("UpdateInfo", "LastStatus", "", userInfo).toString(), "ready");
    EXPECT_NE(GetConfigure("UpdateRecord", "LastLaunchTime", "", userInfo).toString(),
              "2000-01-01 00:00:00");
    EXPECT_EQ(ReadAll(place.dup + "PolicyProbe.trace"),
              "Init in process " + std::to_string(pid) + "\n");

    EXPECT_EQ(place.RunInstalled(), 0); // finds the port taken
    place.EndThroughPort(pid);

    EXPECT_TRUE(LoggedInOrder(
        place.LogMessages(),
        {"Enter111111111 InitAgent() ...qstrSrcPath=" + Inst(),
         "Config.xml and UserData.dat file not exist,will create new file=" + Inst(),
         "File path is: " + place.duplicateExe, "CheckMissed: Enter",
         "Time is Ready, Try to Launch(" + Updater() + ")", "File path is: " + Updater(),
         "Sleep 600 Minutes", "Enter InitAgent() ...", PluginPathLine(), "Leave InitAgent() ...",
         "QLocalServer listen failed.", "Accept a connection, ravel exit."}));
    EXPECT_THAT(place.LogMessages(), Not(Contains(::testing::StartsWith("<malformed>"))));
    EXPECT_THAT(
        ReadAll(place.data + "log/ravel.log"),
        ::testing::EndsWith("[Accept a connection, ravel exit.]-->\n"
                            "----------------------End Log-----------------------------------\n"));
}

TEST_F(AgentEndToEnd, LaterRunsRefreshLibrariesButDataOnlyForANewItemValue) {
    place.LayOutInstalled();
    place.WriteUserInfo({{"UpdateRecord", {{"LastLaunchTime", Now()}}}}); // not due
    const auto handOver = [&] {
        ASSERT_EQ(place.RunInstalled(), 0);
        const pid_t pid = place.WaitForDuplicate();
        ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
        place.EndThroughPort(pid);
        QFile::remove(place.data + "log/ravel.log");
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
    EXPECT_FALSE(UpdaterRan());
}

TEST_F(AgentEndToEnd, InterruptedRunIsResumedEvenUnderNever) {
    place.LayOutInstalled({{"UpdateSetting", {{"RunWithSystem", "0"}}}});
    place.WriteUserInfo({{"UpdateStrategy", {{"Strategy", "never"}}},
                         {"UpdateRecord", {{"LastLaunchTime", Now()}}},
                         {"UpdateInfo", {{"LastStatus", "downloading"}}}});
    place.PlaceDuplicateExe();
    const pid_t pid = place.StartDuplicate();
    ASSERT_TRUE(WaitUntil([&] { return UpdaterRan() && Settled(); }));
    EXPECT_EQ(ReadAll(place.inst + "Tidewater.args"), "auto\n");
    place.EndThroughPort(pid);
    EXPECT_EQ(place.Reap(pid), 0);
    EXPECT_TRUE(
        LoggedInOrder(place.LogMessages(), {"LastTime DownLoad broken, Continue now!",
                                            "File path is: " + Updater(), "Sleep 600 Minutes"}));
}

TEST_F(AgentEndToEnd, NeverEndsTheDuplicateOnlyWithoutRunWithSystem) {
    place.LayOutInstalled({{"UpdateSetting", {{"RunWithSystem", "0"}}}});
    place.WriteUserInfo({{"UpdateStrategy", {{"Strategy", "never"}}}});
    place.PlaceDuplicateExe();
    EXPECT_EQ(place.Reap(place.StartDuplicate()), 0);
    EXPECT_TRUE(place.LogHas("Strategy was set to never, duplicate ravel will exit now!"));
    EXPECT_FALSE(place.LogHas("Sleep 600 Minutes"));

    WriteConfigure("UpdateSetting", "RunWithSystem", "1", place.inst + "Tidewater.dat");
    const pid_t pid = place.StartDuplicate();
    ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_TRUE(place.LogHas("Sleep 600 Minutes"));
    place.EndThroughPort(pid);
    EXPECT_EQ(place.Reap(pid), 0);
    EXPECT_FALSE(UpdaterRan());
}

TEST_F(AgentEndToEnd, MissingOrFactorylessPluginIsLoggedAndSchedulingGoesOn) {
    place.LayOutInstalled({}, nullptr);
    place.WriteUserInfo({{"UpdateRecord", {{"LastLaunchTime", Now()}}}});
    place.PlaceDuplicateExe();
    for (const char* plugin : {static_cast<const char*>(nullptr), POLICY_PROBE_WITHOUT_FACTORY}) {
        if (plugin) {
            QFile::copy(plugin, place.dup + "libPolicyProbe.dylib");
        }
        QFile::remove(place.data + "log/ravel.log");
        const pid_t pid = place.StartDuplicate();
        ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
        place.EndThroughPort(pid);
        EXPECT_EQ(place.Reap(pid), 0);
        EXPECT_TRUE(LoggedInOrder(place.LogMessages(),
                                  {"Sleep 600 Minutes", "Enter InitAgent() ...", PluginPathLine(),
                                   "load PolicyProbe fail 2", "load PolicyProbe fail 3"}));
        EXPECT_FALSE(place.LogHas("Leave InitAgent() ..."));
        EXPECT_FALSE(QFile::exists(place.dup + "PolicyProbe.trace"));
    }
}

TEST_F(AgentEndToEnd, AnotherInstanceOrATakenPortEndsTheAgentWithZero) {
    place.LayOutInstalled();
    const pid_t twin = place.Start("/bin/sleep", {place.installedExe, "300"});
    ASSERT_TRUE(WaitUntil([&] { return FindProcess(place.installedExe) == twin; }));
    EXPECT_EQ(place.RunInstalled(), 0);
    EXPECT_TRUE(place.LogHas("There is an Ravel process is running."));
    EXPECT_FALSE(QFile::exists("/tmp/RAVEL_tmp"));
    kill(twin, SIGKILL);
    place.Reap(twin);

    const int server = socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(server, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(31334);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(server, 1), 0);
    EXPECT_EQ(place.RunInstalled(), 0);
    close(server);
    EXPECT_TRUE(place.LogHas("QLocalServer listen failed."));
    EXPECT_FALSE(QFile::exists(place.dup + "ravel.app")); // neither run deployed
}

TEST_F(AgentEndToEnd, FailedSetUpsEndWith255AndSayWhy) {
    place.LayOutInstalled({{"UpdateSetting", {{"RunWithSystem", "0"}}}});
    QFile::remove(place.inst + "Tidewater.app/Contents/MacOS/Tidewater");
    EXPECT_EQ(place.RunInstalled(), 255);
    EXPECT_TRUE(LoggedInOrder(place.LogMessages(), {"ExeFile<" + Updater() + "> not exist",
                                                    "Original InitFilePath Failed"}));

    place.LayOutInstalled(); // the updater is back; the duplicate folder has no UserInfo.dat
    place.PlaceDuplicateExe();
    EXPECT_EQ(place.Reap(place.StartDuplicate()), 255);
    EXPECT_TRUE(LoggedInOrder(place.LogMessages(),
                              {"ConfigFile<" + place.dup.toStdString() + "UserInfo.dat> not exist",
                               "Duplicate InitFilePath Failed"}));

    // A file where the deployed bundle needs a folder makes the bundle copy fail.
    QDir(place.dup + "ravel.app/Contents").removeRecursively();
    WriteAll(place.dup + "ravel.app/Contents", "in the way");
    EXPECT_EQ(place.RunInstalled(), 255);
    EXPECT_TRUE(place.LogHas("Copy file to Dup failed."));
    EXPECT_FALSE(place.LogHas("Enter111111111 InitAgent() ...qstrSrcPath=" + Inst()));

    // A data folder that cannot be made: the log cannot be opened, only standard error tells.
    WriteAll(place.root + "blocker", "a file");
    WriteConfigure("DupInfo", "DuplicatePath", place.root + "blocker/data",
                   place.inst + "Tidewater.dat");
    EXPECT_EQ(place.RunInstalled(), 255);
    EXPECT_THAT(place.Errors(), HasSubstr("Duplicate path is empty or it's not a path.\n"));
}

} // namespace
