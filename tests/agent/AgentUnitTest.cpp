// The agent's building blocks in process: plug-in wrapper, process table, program start, rule file.
#include "AgentHarness.h"

#include "CommonFunctions.h"
#include "EasyLog.h"
#include "FileLayout.h"
#include "JLibrary.h"
#include "PolicyPlugin.h"
#include "ravel.h"

#include <QDir>
#include <QFile>

#include <csignal>
#include <gtest/gtest.h>

namespace {

TEST(JLibrary, MapsANameToTheLibraryFileAndLoadsOnResolve) {
    EXPECT_EQ(JLibrary("dir/sub/PolicyProbe").path(), "dir/sub/libPolicyProbe.dylib");
    EXPECT_EQ(JLibrary("PolicyProbe").path(), "libPolicyProbe.dylib");
    EXPECT_EQ(JLibrary("/abs/PolicyProbe").path(), "/abs/libPolicyProbe.dylib");

    JLibrary never("nowhere/PolicyProbe");
    EXPECT_TRUE(never.unload());
    EXPECT_FALSE(never.isLoaded());
    EXPECT_FALSE(never.load());
    EXPECT_EQ(never.resolve("CreatePlugin"), nullptr);

    const std::string built = POLICY_PROBE_BUILT;
    const std::string folder = built.substr(0, built.rfind('/') + 1);
    JLibrary probe(folder + "PolicyProbe");
    ASSERT_EQ(probe.path(), built);
    EXPECT_NE(probe.resolve("CreatePlugin"), nullptr);
    EXPECT_TRUE(probe.isLoaded());
    EXPECT_EQ(probe.resolve("NoSuchSymbol"), nullptr);
    EXPECT_TRUE(probe.unload());
    EXPECT_FALSE(probe.isLoaded());

    const std::string bare = POLICY_PROBE_WITHOUT_FACTORY;
    JLibrary withoutFactory(bare.substr(0, bare.rfind('/') + 1) + "PolicyProbe");
    EXPECT_TRUE(withoutFactory.load());
    EXPECT_EQ(withoutFactory.resolve("CreatePlugin"), nullptr);
}

class AgentUnit : public ::testing::Test {
protected:
    void SetUp() override {
        g_EazyLog.m_bEnable = 0; // no log file in process
        // Libraries are copied from the installed folder into the duplicate folder on every start.
        g_qstrOrgPath = place.inst;
        WriteSettings(place.inst + "Tidewater.dat", {{"DupInfo", {{"DuplicatePath", place.data}}}});
        QDir().mkpath(place.dup);
    }
    void TearDown() override { g_qstrOrgPath.clear(); }

    AgentPlace place;
};

TEST_F(AgentUnit, ProcessTableCountsOnlyOtherProcessesOfTheWholePath) {
    const std::string name = (place.root + "My Apps/ravel.app/Contents/MacOS/ravel").toStdString();
    EXPECT_FALSE(IsProcessRunning(QString::fromStdString(name)));
    EXPECT_FALSE(QFile::exists("/tmp/RAVEL_tmp"));

    // Only a line holding the whole path counts; this test process is not one of them.
    const auto startAs = [&](const std::string& argv0) {
        const pid_t pid = place.Start("/bin/sleep", {argv0, "300"});
        EXPECT_TRUE(WaitUntil([&] {
            const std::vector<std::string> args = CommandLineOf(pid);
            return !args.empty() && args[0] == argv0;
        }));
        return pid;
    };
    const pid_t other = startAs(name.substr(0, name.size() - 1));
    const pid_t first = startAs(name);
    EXPECT_FALSE(IsProcessRunning(QString::fromStdString(name)));

    const pid_t second = startAs(name);
    EXPECT_TRUE(IsProcessRunning(QString::fromStdString(name)));
    EXPECT_FALSE(QFile::exists("/tmp/RAVEL_tmp"));
    for (const pid_t pid : {other, first, second}) {
        kill(pid, SIGKILL);
        place.Reap(pid);
    }
}

TEST_F(AgentUnit, ExecuteFileKeepsAPathWithBlanksTogetherAndCopiesLibrariesFirst) {
    const QString apps = place.root + "My Apps/";
    const QString updater = apps + "Tidewater.app/Contents/MacOS/Tidewater";
    QDir().mkpath(QFileInfo(updater).path());
    QFile::copy(TIDEWATER_EXE_BUILT, updater);
    WriteSettings(apps + "Tidewater.dat", {{"DupInfo", {{"DuplicatePath", place.data}}}});
    WriteAll(place.inst + "libbeta.dylib", "beta");

    EXPECT_EQ(ExecuteFile(updater, "auto", true), 0);
    EXPECT_EQ(ReadAll(apps + "Tidewater.args"), "auto\n");
    EXPECT_EQ(ReadAll(place.dup + "libbeta.dylib"), "beta");
    EXPECT_EQ(GetConfigure("UpdateInfo", "LastStatus", "", place.dup + "UserInfo.dat").toString(),
              "ready");

    // An empty path starts nothing but still refreshes the libraries.
    WriteAll(place.inst + "libgamma.dylib", "gamma");
    EXPECT_EQ(ExecuteFile("", "auto", true), 0);
    EXPECT_EQ(ReadAll(place.dup + "libgamma.dylib"), "gamma");
    EXPECT_EQ(ReadAll(apps + "Tidewater.args"), "auto\n");
}

TEST_F(AgentUnit, DataIsCopiedAgainOnlyForAnotherItemValue) {
    const QString src = place.root + "src.xml";
    const QString dst = place.root + "dst.xml";
    const auto copies = [&] { return IsCopyFile(src.toStdString(), dst.toStdString()); };
    WriteAll(src, "<?xml version=\"1.0\"?>\r\n<item value=\"2.1\"/>\r\n");
    EXPECT_FALSE(copies()); // no target yet
    WriteAll(dst, "<item value=\"2.1\"><x/></item>");
    EXPECT_FALSE(copies());
    WriteAll(dst, "<item value=\"2.0\"/>");
    EXPECT_TRUE(copies());
    WriteAll(dst, "<items value=\"2.0\"/>");
    EXPECT_FALSE(copies());
    WriteAll(dst, "not xml <");
    EXPECT_FALSE(copies());
}

} // namespace
