// What another account can do to the agent of the shared build, on one machine: a first
// account's agent deployed into the default data folder and resident, then a second account
// trying each exposure that docs/reliability.md lists. Every attempt succeeds; each case records
// what it did to the first account's agent.
#include "AgentHarness.h"
#include "Attempts.h"
#include "FileLayout.h"

#include <QDateTime>
#include <cstring>
#include <gmock/gmock.h>
#include <sys/stat.h>

using namespace ::testing;

namespace {

const QString kDataRoot = "/usr/local/zq_kt_userdata/";
const QString kProcessList = "/tmp/RAVEL_tmp";

std::string Str(const QString& text) {
    return text.toStdString();
}

uid_t OwnerOf(const QString& path) {
    struct stat info {};
    return lstat(path.toLocal8Bit().constData(), &info) == 0 ? info.st_uid : uid_t(-1);
}

// The real user id of a running process, -1 when it is gone.
uid_t UserOf(pid_t pid) {
    std::istringstream status(ReadAll("/proc/" + QString::number(pid) + "/status"));
    for (std::string line; std::getline(status, line);)
        if (line.rfind("Uid:", 0) == 0)
            return uid_t(std::stoul(line.substr(4)));
    return uid_t(-1);
}

// The file a process has mapped whose name begins with `name`, as its path; empty when none.
std::string MappedFile(pid_t pid, const std::string& name) {
    std::istringstream maps(ReadAll("/proc/" + QString::number(pid) + "/maps"));
    for (std::string line; std::getline(maps, line);) {
        const size_t path = line.find('/');
        if (path != std::string::npos && line.find("/" + name, path) != std::string::npos)
            return line.substr(path);
    }
    return {};
}

// Alice's agent, in the default data folder that the installer opened to every account, and
// Bob, the other account. The installed folder is Alice's, so that her agent records its data
// folder in Tidewater.dat; the product ships no plug-in.
class SharedExposure : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(OpenToAccounts(Str(place.root)) && MakeHome(alice) && MakeHome(bob))
            << strerror(errno);
        QDir().mkpath(kDataRoot); // as the installer does: install -d -m 0777
        chmod(kDataRoot.toLocal8Bit().constData(), 0777);
        place.LayOutInstalled({}, {}, nullptr);
        QFile::remove(place.inst + "Tidewater.dat");
        WriteSettings(place.inst + "Tidewater.dat", {{"UpdateSetting", {{"TimerMinutes", "600"}}}});
        QDir(place.data).removeRecursively(); // the agent makes it
        ASSERT_TRUE(GiveTree(Str(place.inst), alice)) << strerror(errno);
        place.account = alice;
        ASSERT_EQ(LogIn(), 0) << ReadAll(place.errFile);
        resident = WaitForResident();
        ASSERT_NE(resident, 0);
        ASSERT_EQ(UserOf(resident), alice.uid);
    }
    void TearDown() override {
        if (resident != 0)
            EndProcess(resident);
        EXPECT_THAT(ReadAll(place.errFile), Not(HasSubstr("Sanitizer")));
        QDir(place.data).removeRecursively();
        QDir(bobsFolder).removeRecursively();
        QFile::remove(kProcessList);
    }

    // Alice logs in: her installed copy starts as at every login; its exit status.
    int LogIn() { return place.RunInstalled(); }
    // The resident copy a login handed over to, once it has settled (0 when none).
    pid_t WaitForResident() {
        const size_t before = settledCount;
        const pid_t pid = place.WaitForDuplicate();
        if (pid == 0)
            return 0;
        EXPECT_TRUE(WaitUntil([&] { return (settledCount = Settlings()) > before; }))
            << ReadAll(place.data + "log/ravel.log");
        return pid;
    }
    // The machine restarts: the resident agent ends, and Alice logs in again.
    int Restart() {
        EXPECT_EQ(place.EndResident(resident), 0);
        resident = 0;
        return LogIn();
    }
    // Bob's attempt, made in a process of his: its errno.
    int AsBob(const std::function<int()>& attempt) { return TryAs(bob, attempt); }
    // How often a resident copy has reached its event loop (see AgentPlace::Settled).
    size_t Settlings() const {
        return Count("Leave InitAgent() ...") + Count("load PolicyProbe fail 3");
    }
    size_t Count(const std::string& message) const {
        const std::string log = ReadAll(place.data + "log/ravel.log"),
                          text = "[" + message + "]-->";
        size_t count = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
            ++count;
        return count;
    }

    AgentPlace place{kDataRoot + "Demo_Product/"};
    const Account alice{4242, 4242, Str(place.root + "alice")},
        bob{4343, 4343, Str(place.root + "bob")};
    const std::string data = Str(place.data), dup = Str(place.dup), log = data + "log/ravel.log";
    const QString bobsFolder = "/tmp/bobs-data/";
    pid_t resident = 0;
    size_t settledCount = 0;
};

TEST_F(SharedExposure, BobWritesIntoAlicesDataFolder) {
    EXPECT_EQ(AsBob([&] { return attempt::Create(data + "from-bob.txt", "Bob's"); }), 0);
    EXPECT_EQ(ReadAll(place.data + "from-bob.txt"), "Bob's");
    EXPECT_EQ(OwnerOf(place.data + "from-bob.txt"), bob.uid);
}

// A genuine copy of the system's Qt stands in for a doctored one: with the run-time path beside
// the bundle, Alice's next resident copy loads Bob's file instead of the system's.
TEST_F(SharedExposure, BobsQtCoreInTheDuplicateFolderIsLoadedByAlicesAgent) {
    const std::string systems = MappedFile(resident, "libQt6Core.so.6");
    ASSERT_THAT(systems, StartsWith("/usr/")) << "the system's Qt";
    EXPECT_EQ(AsBob([&] { return attempt::Copy(systems, dup + "libQt6Core.so.6", 0755); }), 0);

    ASSERT_EQ(Restart(), 0);
    resident = WaitForResident();
    ASSERT_NE(resident, 0);
    EXPECT_EQ(MappedFile(resident, "libQt6Core.so.6"),
              LIBS_BESIDE_BUNDLE ? dup + "libQt6Core.so.6" : systems);
}

TEST_F(SharedExposure, BobsPlugInInTheDuplicateFolderRunsInAlicesAgent) {
    const std::string bobsBuild = bob.home + "/libPolicyProbe.dylib";
    CopyExecutable(POLICY_PROBE_BUILT, QString::fromStdString(bobsBuild));
    ASSERT_TRUE(GiveTree(bobsBuild, bob));
    EXPECT_EQ(AsBob([&] { return attempt::Copy(bobsBuild, dup + "libPolicyProbe.dylib", 0755); }),
              0);

    ASSERT_EQ(Restart(), 0);
    resident = WaitForResident();
    ASSERT_NE(resident, 0);
    EXPECT_EQ(ReadAll(place.dup + "PolicyProbe.trace"),
              "Init in process " + std::to_string(resident) + "\n");
    EXPECT_EQ(OwnerOf(place.dup + "PolicyProbe.trace"), alice.uid) << "written as Alice";
    EXPECT_EQ(Count("Leave InitAgent() ..."), 1u);
}

// Bob marks the last run interrupted: Alice's agent starts the updater, which was not due.
TEST_F(SharedExposure, BobChangesAlicesScheduleInUserInfo) {
    ASSERT_FALSE(QFile::exists(place.inst + "Tidewater.args")) << "not due at the first login";
    const std::string interrupted =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<root>\n"
        "<UpdateStrategy><Strategy>cycle</Strategy><UpdateCycle>7</UpdateCycle></UpdateStrategy>\n"
        "<UpdateRecord><LastLaunchTime>" +
        Str(QDateTime::currentDateTime().toString("yyyy-MM-dd hh:mm:ss")) +
        "</LastLaunchTime></UpdateRecord>\n"
        "<UpdateInfo><LastStatus>downloading</LastStatus></UpdateInfo>\n</root>\n";
    EXPECT_EQ(AsBob([&] { return attempt::Overwrite(dup + "UserInfo.dat", interrupted); }), 0);

    ASSERT_EQ(Restart(), 0);
    resident = WaitForResident();
    ASSERT_TRUE(WaitUntil([&] { return QFile::exists(place.inst + "Tidewater.args"); }));
    EXPECT_EQ(ReadAll(place.inst + "Tidewater.args"), "auto\n");
    EXPECT_EQ(Count("LastTime DownLoad broken, Continue now!"), 1u);
}

TEST_F(SharedExposure, BobReadsAlicesLog) {
    const std::string copy = bob.home + "/alices.log";
    EXPECT_EQ(AsBob([&] { return attempt::Copy(log, copy); }), 0);
    EXPECT_EQ(ReadAll(QString::fromStdString(copy)), ReadAll(QString::fromStdString(log)));
    EXPECT_THAT(ReadAll(QString::fromStdString(copy)),
                HasSubstr("File path is: " + place.duplicateExe));
}

TEST_F(SharedExposure, BobEndsAlicesAgentThroughThePort) {
    EXPECT_EQ(AsBob([] { return attempt::ConnectTcp(31334); }), 0);
    EXPECT_EQ(place.Reap(resident), 0);
    resident = 0;
    EXPECT_EQ(Count("Accept a connection, ravel exit."), 1u);
}

// Bob's file names Alice's agent twice: at every later start her agent reads a running twin
// from it, and ends. Her shell cannot write the file, nor her agent remove it (the sticky /tmp).
TEST_F(SharedExposure, BobsProcessListStopsAlicesAgentAtEveryStart) {
    const std::string twins = place.installedExe + "\n" + place.installedExe + "\n";
    EXPECT_EQ(AsBob([&] { return attempt::Create(Str(kProcessList), twins); }), 0);

    for (int login = 1; login <= 2; ++login) {
        EXPECT_EQ(login == 1 ? Restart() : LogIn(), 0) << "login " << login;
        EXPECT_EQ(Count("There is an Ravel process is running."), size_t(login))
            << "login " << login;
    }
    EXPECT_EQ(FindProcess(place.duplicateExe), 0) << "no resident agent";
    EXPECT_EQ(ReadAll(kProcessList), twins);
}

// Through Bob's link, Alice's process test writes the process table into a file of hers that
// Bob cannot even read, unless the kernel refuses to follow another account's link in the
// sticky /tmp (fs.protected_symlinks, on in Debian's default set-up): then her agent sees no
// table at all. The link stays either way.
TEST_F(SharedExposure, BobsLinkAtTheProcessListPointsAlicesAgentAtHerOwnFile) {
    const std::string notes = alice.home + "/notes.txt";
    WriteAll(QString::fromStdString(notes), "Alice's notes");
    ASSERT_TRUE(GiveTree(notes, alice));
    chmod(notes.c_str(), 0600);
    EXPECT_EQ(AsBob([&] { return attempt::Link(notes, Str(kProcessList)); }), 0);

    ASSERT_EQ(Restart(), 0);
    resident = WaitForResident();
    EXPECT_NE(resident, 0) << "the hand-over went on";
    EXPECT_EQ(QFileInfo(kProcessList).symLinkTarget(), QString::fromStdString(notes));
    const bool followed = ReadAll("/proc/sys/fs/protected_symlinks") == "0\n";
    if (followed)
        EXPECT_THAT(ReadAll(QString::fromStdString(notes)),
                    HasSubstr("/ravel.app/Contents/MacOS/ravel"));
    else
        EXPECT_EQ(ReadAll(QString::fromStdString(notes)), "Alice's notes");
}

// Once Alice's agent has recorded its data folder, the installed Tidewater.dat is open to every
// account: Bob names a folder of his, and Alice's next resident copy runs from there.
TEST_F(SharedExposure, BobMovesAlicesDataFolderThroughTidewaterDat) {
    const QString settings = place.inst + "Tidewater.dat";
    ASSERT_EQ(WithSeparator(StoredDataFolder(place.inst)), place.data) << "the agent's first write";
    ASSERT_EQ(AsBob([&] { return attempt::MakeOpenFolder(Str(bobsFolder)); }), 0);
    const std::string moved = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<root>\n"
                              "<UpdateSetting><TimerMinutes>600</TimerMinutes></UpdateSetting>\n"
                              "<DupInfo><DuplicatePath>" +
                              Str(bobsFolder) + "</DuplicatePath></DupInfo>\n</root>\n";
    EXPECT_EQ(AsBob([&] { return attempt::Overwrite(Str(settings), moved); }), 0);

    ASSERT_EQ(Restart(), 0);
    const std::string exe = Str(bobsFolder) + "Brightwell/ravel.app/Contents/MacOS/ravel";
    pid_t movedResident = 0;
    ASSERT_TRUE(WaitUntil([&] { return (movedResident = FindProcess(exe)) != 0; }))
        << ReadAll(place.errFile);
    EXPECT_EQ(UserOf(movedResident), alice.uid) << "Alice's agent, in Bob's folder";
    EXPECT_EQ(OwnerOf(bobsFolder), bob.uid);
    EXPECT_TRUE(EndProcess(movedResident));
}

} // namespace
