// The agent's building blocks in process: plug-in wrapper, process table, program start, rule file.
#include "AgentHarness.h"

#include "EasyLog.h"
#include "FileLayout.h"
#include "JLibrary.h"
#include "ravel.h"

namespace {

std::string FolderOf(const std::string& file) {
    return file.substr(0, file.rfind('/') + 1);
}

TEST(JLibrary, MapsANameToTheLibraryFileAndLoadsOnResolve) {
    for (const std::string folder : {"dir/sub/", "", "/abs/"})
        EXPECT_EQ(JLibrary(folder + "PolicyProbe").path(), folder + "libPolicyProbe.dylib");

    JLibrary never("nowhere/PolicyProbe");
    EXPECT_TRUE(never.unload());
    EXPECT_FALSE(never.isLoaded() || never.load() || never.resolve("CreatePlugin"));

    JLibrary probe(FolderOf(POLICY_PROBE_BUILT) + "PolicyProbe");
    ASSERT_EQ(probe.path(), POLICY_PROBE_BUILT);
    EXPECT_NE(probe.resolve("CreatePlugin"), nullptr);
    EXPECT_TRUE(probe.isLoaded());
    EXPECT_EQ(probe.resolve("NoSuchSymbol"), nullptr);
    EXPECT_TRUE(probe.unload());
    EXPECT_FALSE(probe.isLoaded());

    JLibrary withoutFactory(FolderOf(POLICY_PROBE_WITHOUT_FACTORY) + "PolicyProbe");
    EXPECT_TRUE(withoutFactory.load());
    EXPECT_EQ(withoutFactory.resolve("CreatePlugin"), nullptr);
}

TEST(AgentUnit, ProcessTableCountsOnlyOtherProcessesOfTheWholePath) {
    g_EazyLog.m_bEnable = 0; // no log file in process
    AgentPlace place;
    const QString name = place.root + "My Apps/ravel.app/Contents/MacOS/ravel";
    // Only a line holding the whole path counts; this test process is not one of them.
    for (const auto& [argv0, running] :
         {std::pair{name.chopped(1), false}, {name, false}, {name, true}}) {
        EXPECT_FALSE(IsProcessRunning(name));
        const pid_t pid = place.Start("/bin/sleep", {argv0.toStdString(), "300"});
        EXPECT_TRUE(WaitUntil([&] {
            return CommandLineOf(pid) == std::vector{argv0.toStdString(), std::string("300")};
        }));
        EXPECT_EQ(IsProcessRunning(name), running) << argv0.toStdString();
        EXPECT_FALSE(QFile::exists("/tmp/RAVEL_tmp"));
    }
}

TEST(AgentUnit, ExecuteFileKeepsAPathWithBlanksTogetherAndCopiesLibrariesFirst) {
    g_EazyLog.m_bEnable = 0;
    AgentPlace place;
    // Libraries are copied from the installed folder into the duplicate folder on every start.
    g_qstrOrgPath = place.inst;
    WriteSettings(place.inst + "Tidewater.dat", {{"DupInfo", {{"DuplicatePath", place.data}}}});
    QDir().mkpath(place.dup);
    const QString apps = place.root + "My Apps/";
    CopyExecutable(TIDEWATER_EXE_BUILT, apps + "Tidewater.app/Contents/MacOS/Tidewater");
    WriteSettings(apps + "Tidewater.dat", {{"DupInfo", {{"DuplicatePath", place.data}}}});
    // An empty path starts nothing but still refreshes the libraries.
    for (const auto& [library, updater] :
         {std::pair{"beta", apps + "Tidewater.app/Contents/MacOS/Tidewater"}, {"gamma", ""}}) {
        WriteAll(place.inst + "lib" + library + ".dylib", library);
        EXPECT_EQ(ExecuteFile(updater, "auto", true), 0);
        EXPECT_EQ(ReadAll(place.dup + "lib" + library + ".dylib"), library);
        EXPECT_EQ(ReadAll(apps + "Tidewater.args"), "auto\n");
    }
    EXPECT_EQ(GetConfigure("UpdateInfo", "LastStatus", "", place.dup + "UserInfo.dat").toString(),
              "ready");
    g_qstrOrgPath.clear();
}

TEST(AgentUnit, DataIsCopiedAgainOnlyForAnotherItemValue) {
    AgentPlace place;
    const QString src = place.root + "src.xml", dst = place.root + "dst.xml";
    WriteAll(src, "<?xml version=\"1.0\"?>\r\n<item value=\"2.1\"/>\r\n");
    // No target yet, the same value, another value, another element, no XML.
    for (const auto& [target, copies] : {std::pair<const char*, bool>{nullptr, false},
                                         {"<item value=\"2.1\"><x/></item>", false},
                                         {"<item value=\"2.0\"/>", true},
                                         {"<items value=\"2.0\"/>", false},
                                         {"not xml <", false}}) {
        if (target)
            WriteAll(dst, target);
        EXPECT_EQ(IsCopyFile(src.toStdString(), dst.toStdString()), copies)
            << (target ? target : "");
    }
}

} // namespace
