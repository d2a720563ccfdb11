// The agent as a real process: hand-over, deployment, scheduling, plug-in, exits.
#include "AgentHarness.h"

#include "CommonFunctions.h"

#include <QDateTime>
#include <QFile>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;

namespace {

class AgentEndToEnd : public ::testing::Test {
protected:
    void TearDown() override {
        EXPECT_THAT(place.Errors(), Not(::testing::HasSubstr("Sanitizer")));
    }

    std::string Inst() const { return place.inst.toStdString(); }
    std::string Dup() const { return place.dup.toStdString(); }
    std::string UpdaterPath() const { return Inst() + "Tidewater.app/Contents/MacOS/Tidewater"; }
    std::string PluginPathLine() const {
        return Dup() + "ravel.app/Contents/MacOS/../../../PolicyProbe";
    }
    QString UserInfo(const char* section, const char* key) const {
        return GetConfigure(section, key, QVariant(), place.dup + "UserInfo.dat").toString();
    }
    bool UpdaterRan() const { return QFile::exists(place.inst + "Tidewater.args"); }
    // A resident duplicate has reached the event loop.
    bool Settled() const {
        return place.LogHas("Leave InitAgent() ...") || place.LogHas("load PolicyProbe fail 3");
    }

    AgentPlace place;
};

TEST_F(AgentEndToEnd, FirstDeploymentHandsOverAndLaunchesTheDueUpdater) {
    place.LayOutInstalled();
    place.WriteUserInfo();
    ASSERT_EQ(place.RunInstalled(), 0);

    // Deployed: bundle, lib*.dylib only, data folders, updater settings.
    EXPECT_EQ(ReadAll(place.dup + "ravel.app/Contents/MacOS/ravel"), ReadAll(RAVEL_EXE_BUILT));
    EXPECT_EQ(ReadAll(place.dup + "libPolicyProbe.dylib"), ReadAll(POLICY_PROBE_BUILT));
    EXPECT_EQ(ReadAll(place.dup + "libalpha.dylib"), "alpha 1");
    EXPECT_FALSE(QFile::exists(place.dup + "LibX.dylib"));
    EXPECT_FALSE(QFile::exists(place.dup + "libx.so"));
    EXPECT_EQ(ReadAll(place.dup + "Brightwell Data/rules.txt"), "rules 1");
    EXPECT_EQ(ReadAll(place.dup + "UpdateInfo/info.txt"), "info 1");
    EXPECT_EQ(ReadAll(place.dup + "Tidewater.dat"), ReadAll(place.inst + "Tidewater.dat"));

    // The duplicate runs from the duplicate folder with the installed folder as its argument.
    std::vector<std::string> argv;
    const pid_t pid = place.WaitForDuplicate();
    ASSERT_NE(pid, 0);
    ASSERT_EQ(FindProcess(Dup() + "ravel.app/Contents/MacOS/ravel", &argv), pid);
    EXPECT_THAT(argv, ElementsAre(Dup() + "ravel.app/Contents/MacOS/ravel", Inst()));

    // The cycle is long over: the updater is started with "auto" and records its run.
    ASSERT_TRUE(WaitUntil([&] { return UpdaterRan() && Settled(); }));
    EXPECT_EQ(ReadAll(place.inst + "Tidewater.args"), "auto\n");
    EXPECT_EQ(UserInfo("UpdateInfo", "LastStatus"), "ready");
    EXPECT_NE(UserInfo("UpdateRecord", "LastLaunchTime"), "2000-01-01 00:00:00");
    EXPECT_EQ(ReadAll(place.dup + "PolicyProbe.trace"),
              "Init in process " + std::to_string(pid) + "\n");

    // A second agent finds the port taken and ends quietly.
    EXPECT_EQ(place.RunInstalled(), 0);
    place.EndThroughPort(pid);

    const std::vector<std::string> expected = {
        "Enter111111111 InitAgent() ...qstrSrcPath=" + Inst(),
        "Config.xml and UserData.dat file not exist,will create new file=" + Inst(),
        "File path is: " + Dup() + "ravel.app/Contents/MacOS/ravel",
        "CheckMissed: Enter",
        "Time is Ready, Try to Launch(" + UpdaterPath() + ")",
        "File path is: " + UpdaterPath(),
        "Sleep 600 Minutes",
        "Enter InitAgent() ...",
        PluginPathLine(),
        "Leave InitAgent() ...",
        "QLocalServer listen failed.",
        "Accept a connection, ravel exit."};
    EXPECT_TRUE(LoggedInOrder(place.LogMessages(), expected));
    EXPECT_THAT(place.LogMessages(), Not(Contains(::testing::StartsWith("<malformed>"))));
    EXPECT_THAT(ReadAll(place.data + "log/ravel.log"),
                ::testing::EndsWith("[Accept a connection, ravel exit.]-->\n"
                                    "----------------------End Log-----------------------------------\n"));
}

TEST_F(AgentEndToEnd, LaterRunsRefreshBundleAndLibrariesButDataOnlyForANewItemValue) {
    place.LayOutInstalled();
    const QString now = QDateTime::currentDateTime().toString("yyyy-MM-dd hh:mm:ss");
    place.WriteUserInfo({{"UpdateRecord", {{"LastLaunchTime", now}}},
                         {"UpdateStrategy", {{"UpdateCycle", "30"}}}});
    const auto run = [&] {
        ASSERT_EQ(place.RunInstalled(), 0);
        const pid_t pid = place.WaitForDuplicate();
        ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
        place.EndThroughPort(pid);
        QFile::remove(place.data + "log/ravel.log");
    };
    run();
    WriteAll(place.inst + "libalpha.dylib", "alpha 2");
    WriteAll(place.inst + "Brightwell Data/rules.txt", "rules 2");
    WriteAll(place.inst + "UpdateInfo/info.txt", "info 2");
    WriteConfigure("UpdateSetting", "Marker", "changed", place.inst + "Tidewater.dat");

    run();  // same "item" value
    EXPECT_EQ(ReadAll(place.dup + "libalpha.dylib"), "alpha 2");
    EXPECT_EQ(ReadAll(place.dup + "Brightwell Data/rules.txt"), "rules 1");

    WriteAll(place.inst + "Brightwell Data/Config.xml", "<item value=\"2\"/>");
    run();
    EXPECT_EQ(ReadAll(place.dup + "Brightwell Data/rules.txt"), "rules 2");
    EXPECT_EQ(ReadAll(place.dup + "UpdateInfo/info.txt"), "info 1");
    EXPECT_EQ(GetConfigure("UpdateSetting", "Marker", "kept", place.dup + "Tidewater.dat"), "kept");
    EXPECT_FALSE(UpdaterRan());  // launched just now: not due
}

TEST_F(AgentEndToEnd, InterruptedRunIsResumedEvenUnderNever) {
    place.LayOutInstalled({{"UpdateSetting", {{"RunWithSystem", "0"}}}});
    place.WriteUserInfo({{"UpdateStrategy", {{"Strategy", "never"}}},
                         {"UpdateInfo", {{"LastStatus", "downloading"}}}});
    place.PlaceDuplicateExe();
    const pid_t pid = place.StartDuplicate();
    ASSERT_TRUE(WaitUntil([&] { return UpdaterRan() && Settled(); }));
    EXPECT_EQ(ReadAll(place.inst + "Tidewater.args"), "auto\n");
    place.EndThroughPort(pid);
    EXPECT_EQ(place.Reap(pid), 0);
    const std::vector<std::string> expected = {"LastTime DownLoad broken, Continue now!",
                                               "File path is: " + UpdaterPath(),
                                               "Sleep 600 Minutes"};
    EXPECT_TRUE(LoggedInOrder(place.LogMessages(), expected));
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
    for (const char* plugin : {static_cast<const char*>(nullptr), POLICY_PROBE_WITHOUT_FACTORY}) {
        place.LayOutInstalled({}, nullptr);
        place.WriteUserInfo();
        place.PlaceDuplicateExe();
        QFile::remove(place.dup + "libPolicyProbe.dylib");
        if (plugin) {
            QFile::copy(plugin, place.dup + "libPolicyProbe.dylib");
        }
        QFile::remove(place.data + "log/ravel.log");
        const pid_t pid = place.StartDuplicate();
        ASSERT_TRUE(WaitUntil([&] { return Settled(); })) << (plugin ? plugin : "no plug-in");
        place.EndThroughPort(pid);
        EXPECT_EQ(place.Reap(pid), 0);
        const std::vector<std::string> messages = place.LogMessages();
        const std::vector<std::string> expected = {"Sleep 600 Minutes", "Enter InitAgent() ...",
                                                   PluginPathLine(), "load PolicyProbe fail 2",
                                                   "load PolicyProbe fail 3"};
        EXPECT_TRUE(LoggedInOrder(messages, expected));
        EXPECT_THAT(messages, Not(Contains("Leave InitAgent() ...")));
        EXPECT_FALSE(QFile::exists(place.dup + "PolicyProbe.trace"));
    }
}

TEST_F(AgentEndToEnd, AnotherInstanceOrATakenPortEndsTheAgentWithZero) {
    place.LayOutInstalled();
    const std::string exe = Inst() + "ravel.app/Contents/MacOS/ravel";
    // A process whose command line holds the same executable path.
    const pid_t twin = place.Start("/bin/sleep", {exe, "300"});
    ASSERT_TRUE(WaitUntil([&] { return FindProcess(exe) == twin; }));
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
    EXPECT_FALSE(QFile::exists(place.dup + "ravel.app"));  // neither run deployed anything
}

TEST_F(AgentEndToEnd, FailedSetUpsEndWith255AndSayWhy) {
    place.LayOutInstalled({{"UpdateSetting", {{"RunWithSystem", "0"}}}});
    QFile::remove(place.inst + "Tidewater.app/Contents/MacOS/Tidewater");
    EXPECT_EQ(place.RunInstalled(), 255);
    EXPECT_TRUE(LoggedInOrder(place.LogMessages(), {"ExeFile<" + UpdaterPath() + "> not exist",
                                                    "Original InitFilePath Failed"}));

    place.PlaceDuplicateExe();  // no UserInfo.dat in the duplicate folder
    EXPECT_EQ(place.Reap(place.StartDuplicate()), 255);
    EXPECT_TRUE(LoggedInOrder(place.LogMessages(), {"ConfigFile<" + Dup() + "UserInfo.dat> not exist",
                                                    "Duplicate InitFilePath Failed"}));

    // A file where the deployed bundle needs a folder makes the bundle copy fail.
    place.LayOutInstalled({{"UpdateSetting", {{"RunWithSystem", "1"}}}});
    QFile::remove(place.dup + "ravel.app/Contents/MacOS/ravel");
    QDir(place.dup + "ravel.app/Contents").removeRecursively();
    WriteAll(place.dup + "ravel.app/Contents", "in the way");
    EXPECT_EQ(place.RunInstalled(), 255);
    EXPECT_TRUE(place.LogHas("Copy file to Dup failed."));
    EXPECT_FALSE(place.LogHas("Enter111111111 InitAgent() ...qstrSrcPath=" + Inst()));

    // A data folder that cannot be made: only the debug output can tell.
    WriteAll(place.root + "blocker", "a file");
    WriteConfigure("DupInfo", "DuplicatePath", place.root + "blocker/data",
                   place.inst + "Tidewater.dat");
    EXPECT_EQ(place.RunInstalled(), 255);
    EXPECT_THAT(place.Errors(),
                ::testing::HasSubstr("Duplicate path is empty or it's not a path.\n"));
}

} // namespace
