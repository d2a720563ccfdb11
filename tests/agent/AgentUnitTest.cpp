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
    EXPECT_TRUE(never.unload()) << "unloading a library never loaded";
    EXPECT_EQ((std::vector{never.isLoaded(), never.load(), !!never.resolve("CreatePlugin")}),
              std::vector(3, false))
        << "loaded, load, resolve of a missing library";

    JLibrary probe(FolderOf(POLICY_PROBE_BUILT) + "PolicyProbe");
    ASSERT_EQ(probe.path(), POLICY_PROBE_BUILT);
    EXPECT_NE(probe.resolve("CreatePlugin"), nullptr) << "the factory";
    EXPECT_TRUE(probe.isLoaded()) << "loaded by resolving";
    EXPECT_EQ(probe.resolve("NoSuchSymbol"), nullptr) << "a missing symbol";
    EXPECT_TRUE(probe.unload()) << "unloading";
    EXPECT_FALSE(probe.isLoaded()) << "after unloading";

    JLibrary withoutFactory(FolderOf(POLICY_PROBE_WITHOUT_FACTORY) + "PolicyProbe");
    EXPECT_TRUE(withoutFactory.load()) << "a library without factory loads";
    EXPECT_EQ(withoutFactory.resolve("CreatePlugin"), nullptr) << "and has no factory";
}

TEST(AgentUnit, ProcessTableCountsOnlyOtherProcessesOfTheWholePath) {
    if (kPerUser)
        GTEST_SKIP() << "the shared agent's test; the per-user one: ProcessTableCountsTheAccounts"
                        "ProcessesRunningTheExecutable";
    g_EazyLog.m_bEnable = 0; // no log file in process
    AgentPlace place;
    const QString name = place.root + "My Apps/ravel.app/Contents/MacOS/ravel";
    // Only a line holding the whole path counts; this test process is not one of them.
    for (const auto& [argv0, running] :
         {std::pair{name.chopped(1), false}, {name, false}, {name, true}}) {
        EXPECT_FALSE(IsProcessRunning(name)) << "before starting " << argv0.toStdString();
        const pid_t pid = place.Start("/bin/sleep", {argv0.toStdString(), "300"});
        EXPECT_TRUE(WaitUntil([&] {
            return CommandLineOf(pid) == std::vector{argv0.toStdString(), std::string("300")};
        })) << "started";
        EXPECT_EQ(IsProcessRunning(name), running) << "beside " << argv0.toStdString();
        EXPECT_FALSE(QFile::exists("/tmp/RAVEL_tmp")) << "the process list is removed";
    }
}

// Per-user: processes of this account whose executable is the agent's file count, whatever their
// command line; command lines that merely name the file, and other accounts' processes, do not.
TEST(AgentUnit, ProcessTableCountsTheAccountsProcessesRunningTheExecutable) {
    if (!kPerUser)
        GTEST_SKIP() << "the per-user agent's test";
    g_EazyLog.m_bEnable = 0;
    AgentPlace place;
    const QString name = place.root + "My Apps/ravel.app/Contents/MacOS/ravel";
    CopyExecutable("/bin/sleep", name); // stands in for the agent's executable
    const std::string agent = name.toStdString(), quoted = "\"" + agent + "\"";
    const auto sh = [](std::vector<std::string> words) { // a shell whose command line ends so
        words.insert(words.begin(), {"sh", "-c", "sleep 300; exit"});
        return words;
    };
    struct Row {
        const char* what;
        std::string program;
        std::vector<std::string> argv;
        bool asAccount; // as the test account rather than this process's
        bool counted;
    } const rows[] = {
        {"another program named by the path", "/bin/sleep", {agent, "300"}, false, false},
        {"a su line", "/bin/sh", sh({"su", "-", "alice", "-c", quoted}), false, false},
        {"a runuser line", "/bin/sh", sh({"runuser", "-u", "alice", "--", agent}), false, false},
        {"the executable, as another account", agent, {agent, "300"}, true, false},
        {"the executable, started by another name", agent, {"sleeper", "300"}, false, true},
    };
    EXPECT_FALSE(IsProcessRunning(name)) << "nothing started";
    for (const Row& row : rows) {
        place.asAccount = row.asAccount;
        const pid_t pid = place.Start(row.program, row.argv);
        EXPECT_TRUE(WaitUntil([&] { return CommandLineOf(pid) == row.argv; })) << row.what;
        EXPECT_EQ(IsProcessRunning(name), row.counted) << row.what;
        kill(pid, SIGKILL);
        place.Reap(pid);
    }
    EXPECT_FALSE(QFile::exists("/tmp/RAVEL_tmp")) << "no process list written";
}

TEST(AgentUnit, ExecuteFileCopiesTheLibrariesThenStartsThePathWithBlanksWhole) {
    g_EazyLog.m_bEnable = 0;
    AgentPlace place;
    g_qstrOrgPath = place.inst; // libraries go from here into the duplicate folder
    WriteSettings(place.inst + "Tidewater.dat", {{"DupInfo", {{"DuplicatePath", place.data}}}});
    QDir().mkpath(place.dup);
    // A program in a path with blanks that notes each argument and the library it finds.
    const QString program = place.root + "My Apps/run me";
    WriteAll(program, "#!/bin/sh\nfor a; do echo \"[$a]\"; done >>\"$0.seen\"\ncat \"" +
                          place.dup.toStdString() + "libbeta.dylib\" >>\"$0.seen\"\n");
    QFile::setPermissions(program, QFile::ReadOwner | QFile::ExeOwner);
    // An empty path starts nothing but still refreshes the libraries.
    for (const auto& [library, path] : {std::pair{"beta", program}, {"gamma", QString()}}) {
        WriteAll(place.inst + "lib" + library + ".dylib", library);
        EXPECT_EQ(ExecuteFile(path, "auto", true), 0) << "starting " << library;
        EXPECT_EQ(ReadAll(place.dup + "lib" + library + ".dylib"), library) << "copied " << library;
    }
    EXPECT_EQ(ReadAll(program + ".seen"), "[auto]\nbeta") << "arguments, then the library found";
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
