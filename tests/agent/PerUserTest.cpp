// The per-user agent as real processes of a test account: its own data folder, modes that keep
// everything to the account, one agent per account guarded by a socket in the data folder, a
// process test that only counts the agent's executable, and no start as root.
#include "AgentHarness.h"

#include <QDateTime>
#include <QDirIterator>
#include <gmock/gmock.h>
#include <sys/stat.h>

using namespace ::testing;

namespace {

const char kRootRefused[] = "ravel: this is the per-user agent; it does not run as root. Start it "
                            "from the account it serves.\n";
const char kListenFailed[] = "QLocalServer listen failed.";
const char kAccepted[] = "Accept a connection, ravel exit.";
const std::string kDataPathFailed = "Duplicate path is empty or it's not a path.\n";

// Every entry below `folder` (which ends with "/"), by its path relative to it, with its type and
// permission bits as "d700", "f600" or "s600" (a socket).
std::map<std::string, std::string> Modes(const QString& folder) {
    std::map<std::string, std::string> modes;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        struct stat info = {};
        lstat(QFile::encodeName(path).constData(), &info);
        const char type = S_ISDIR(info.st_mode) ? 'd' : S_ISSOCK(info.st_mode) ? 's' : 'f';
        modes[path.mid(folder.size()).toStdString()] =
            type + QString::number(info.st_mode & 07777, 8).toStdString();
    }
    return modes;
}

std::string Mode(const QString& path) {
    struct stat info = {};
    return lstat(QFile::encodeName(path).constData(), &info) == 0
               ? QString::number(info.st_mode & 07777, 8).toStdString()
               : "absent";
}

// Lays out a product whose Tidewater.dat names no data folder: the agent derives it.
void WithoutStoredFolder(AgentPlace& place, const Settings& user = {}) {
    place.LayOutInstalled({}, user);
    WriteConfigure("DupInfo", "DuplicatePath", "", place.inst + "Tidewater.dat");
}

class PerUser : public ::testing::Test {
protected:
    void SetUp() override {
        if (!kPerUser)
            GTEST_SKIP() << "the per-user agent's tests";
    }
    void TearDown() override { EXPECT_THAT(ReadAll(place.errFile), Not(HasSubstr("Sanitizer"))); }
    // One login: the installed copy hands over; the resident copy settles and is ended through
    // its socket.
    void Login() {
        ASSERT_EQ(place.RunInstalled(), 0) << ReadAll(place.errFile);
        EXPECT_EQ(place.EndResident(place.WaitForDuplicate()), 0) << ReadAll(place.errFile);
    }

    AgentPlace place{"~/.local/share/Demo_Product/"}; // the folder the agent derives
};

// A first deployment into the account's derived data folder, with the umask open wide, then a
// login that launches the stand-in updater, which finds the same folder: every folder the agent
// made is 0700 and every file 0600 (0700 for executables), the home folder it found is left as
// it was, and the installed settings are never written.
TEST_F(PerUser, EverythingItMakesIsTheAccountsAloneAndTheSettingsStayUnwritten) {
    WithoutStoredFolder(place);
    QDir(QString::fromStdString(place.account.home) + "/.local").removeRecursively();
    const QString home = QString::fromStdString(place.account.home) + "/";
    place.GiveToAccount();
    ASSERT_EQ(chmod(QFile::encodeName(home).constData(), 0751), 0);
    const std::string settings = ReadAll(place.inst + "Tidewater.dat");
    const mode_t umaskBefore = umask(0);
    Login();
    // A due schedule, written as root: the next resident launches the updater.
    WriteSettings(place.dup + "UserInfo.dat",
                  {{"UpdateRecord", {{"LastLaunchTime", "2000-01-01 00:00:00"}}}});
    ASSERT_EQ(place.RunInstalled(), 0);
    const pid_t resident = place.WaitForDuplicate();
    EXPECT_TRUE(WaitUntil([&] { return QFile::exists(place.inst + "Tidewater.args"); }));
    EXPECT_EQ(place.EndResident(resident), 0);
    umask(umaskBefore);

    EXPECT_NE(GetConfigure("UpdateRecord", "LastLaunchTime", "", place.dup + "UserInfo.dat"),
              "2000-01-01 00:00:00")
        << "recorded by the updater in the derived folder";
    EXPECT_EQ(ReadAll(place.inst + "Tidewater.dat"), settings) << "the installed settings";
    EXPECT_EQ(Mode(home), "751") << "the home folder";
    std::map<std::string, std::string> modes = Modes(home);
    EXPECT_EQ(modes.erase(".local/share/Demo_Product/Brightwell/PolicyProbe.trace"), 1u)
        << "the plug-in's own file";
    const std::string data = ".local/share/Demo_Product/", dup = data + "Brightwell/";
    const std::map<std::string, std::string> expected = {
        {".local", "d700"},
        {".local/share", "d700"},
        {data.substr(0, data.size() - 1), "d700"},
        {data + "ravel.lock", "f600"},
        {data + "ravel.socket", "s600"}, // left by the agent ended last
        {data + "log", "d700"},
        {data + "log/ravel.log", "f600"},
        {dup.substr(0, dup.size() - 1), "d700"},
        {dup + "ravel.app", "d700"},
        {dup + "ravel.app/Contents", "d700"},
        {dup + "ravel.app/Contents/MacOS", "d700"},
        {dup + "ravel.app/Contents/MacOS/ravel", "f700"},
        {dup + "libPolicyProbe.dylib", "f700"},
        {dup + "libalpha.dylib", "f600"},
        {dup + "Brightwell Data", "d700"},
        {dup + "Brightwell Data/Config.xml", "f600"},
        {dup + "Brightwell Data/rules.txt", "f600"},
        {dup + "UpdateInfo", "d700"},
        {dup + "UpdateInfo/info.txt", "f600"},
        {dup + "Tidewater.dat", "f600"},
        {dup + "UserInfo.dat", "f600"},
    };
    EXPECT_EQ(modes, expected);
}

// XDG_DATA_HOME, a stored "~/" folder, and a home folder that is absent or cannot be made.
TEST_F(PerUser, DataFolderFromXdgDataHomeTildeOrNoHome) {
    struct Row {
        const char* what;
        std::string home;     // empty: no HOME, and the account has no entry in the database
        std::string dataHome; // XDG_DATA_HOME; unset when empty
        const char* stored;   // DuplicatePath
        const char* folder;   // the data folder made, in the place; empty when none
        std::string error;    // standard error when the start fails (status 255)
    };
    const std::string makeFailed = "MXPSCreatePath: Make directory failed.\n";
    const Row rows[] = {
        {"XDG_DATA_HOME", "home", "xdg/data", "", "xdg/data/Demo_Product/", ""},
        {"a stored folder in the home folder", "home", "xdg/data", "~/Acme Data", "home/Acme Data/",
         ""},
        {"no home folder, a derived folder", "", "", "", "",
         "MXPSCreatePath: Path is empty.\n" + kDataPathFailed},
        {"no home folder, a stored ~/ folder", "", "", "~/Acme Data", "", kDataPathFailed},
        {"a home folder that cannot be made", "/nonexistent/alice", "", "", "",
         makeFailed + kDataPathFailed},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        AgentPlace place;
        const std::string root = place.root.toStdString();
        place.account.home = row.home.empty() || row.home[0] == '/' ? row.home : root + row.home;
        place.dataHome = row.dataHome.empty() ? "" : root + row.dataHome;
        place.LayOutInstalled();
        WriteConfigure("DupInfo", "DuplicatePath", row.stored, place.inst + "Tidewater.dat");
        const std::string settings = ReadAll(place.inst + "Tidewater.dat");
        const int status = place.RunInstalled();
        EXPECT_EQ(ReadAll(place.inst + "Tidewater.dat"), settings) << "never written";
        if (!row.error.empty()) {
            EXPECT_EQ(status, 255);
            EXPECT_THAT(ReadAll(place.errFile), EndsWith(row.error));
            EXPECT_FALSE(QFileInfo::exists("/nonexistent")) << "nothing made";
            continue;
        }
        ASSERT_EQ(status, 0) << ReadAll(place.errFile);
        const QString folder = place.root + row.folder;
        EXPECT_TRUE(WaitUntil([&] { return QFile::exists(folder + "Brightwell/ravel.app"); }));
        EXPECT_EQ(Mode(folder), "700");
        pid_t pid = 0;
        const std::string resident =
            (folder + "Brightwell/ravel.app/Contents/MacOS/ravel").toStdString();
        ASSERT_TRUE(WaitUntil([&] { return (pid = FindProcess(resident)) != 0; }));
        EXPECT_TRUE(WaitUntil([&] {
            return ReadAll(folder + "log/ravel.log").find("[Leave InitAgent() ...]") !=
                   std::string::npos;
        }));
        EXPECT_TRUE(ReachSocket(place.account, folder)) << "its socket is in that folder";
        EXPECT_EQ(place.Reap(pid), 0);
    }
}

// A second agent of the account finds the guard taken; another account cannot reach the socket,
// and root's connection is closed without ending the agent; the account's own ends it.
TEST_F(PerUser, OneAgentPerAccountEndedOnlyThroughItsOwnSocket) {
    place.LayOutInstalled();
    const pid_t pid = place.StartDuplicate();
    ASSERT_TRUE(WaitUntil([&] { return place.Settled(); })) << ReadAll(place.errFile);
    EXPECT_EQ(place.RunInstalled(), 0) << "a second agent of the account";
    EXPECT_EQ(place.Reap(place.StartDuplicate()), 0) << "a second resident of the account";
    EXPECT_FALSE(ReachSocket({kTestUid + 1, "/"}, place.data)) << "another account";

    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s",
                  (place.data + "ravel.socket").toLocal8Bit().constData());
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << "root";
    char byte;
    EXPECT_EQ(recv(fd, &byte, 1, 0), 0) << "closed by the agent";
    close(fd);
    EXPECT_FALSE(CommandLineOf(pid).empty()) << "the agent after root's connection";

    EXPECT_EQ(place.EndResident(pid), 0) << "through its own socket";
    const std::string log = ReadAll(place.data + "log/ravel.log");
    EXPECT_EQ(QString::fromStdString(log).count(kListenFailed), 2) << log;
    EXPECT_EQ(QString::fromStdString(log).count(kAccepted), 1) << log;
    EXPECT_THAT(log,
                EndsWith(std::string("[") + kAccepted + "]-->\n" +
                         "----------------------End Log-----------------------------------\n"));
}

// An agent killed leaves its socket file behind: the next one starts all the same, and is still
// the only one.
TEST_F(PerUser, ASocketLeftByAKilledAgentNeitherBlocksNorDoubles) {
    place.LayOutInstalled();
    const pid_t killed = place.StartDuplicate();
    ASSERT_TRUE(WaitUntil([&] { return place.Settled(); }));
    kill(killed, SIGKILL);
    EXPECT_EQ(place.Reap(killed), -1);
    ASSERT_EQ(Mode(place.data + "ravel.socket"), "600") << "left behind";

    QFile::remove(place.data + "log/ravel.log");
    const pid_t next = place.StartDuplicate();
    ASSERT_TRUE(WaitUntil([&] { return place.Settled(); })) << ReadAll(place.errFile);
    EXPECT_EQ(place.RunInstalled(), 0) << "beside the new one";
    EXPECT_TRUE(place.Logged({"Leave InitAgent() ...", kListenFailed}));
    EXPECT_EQ(place.EndResident(next), 0);
}

// A data folder whose socket path is longer than a socket address holds: the guard works all
// the same, the socket file in the data folder.
TEST_F(PerUser, ALongDataFolderPathKeepsAWorkingGuard) {
    AgentPlace place("~/" + QString(120, 'h') + "/");
    ASSERT_GT((place.data + "ravel.socket").size(), 108);
    place.LayOutInstalled();
    ASSERT_EQ(place.RunInstalled(), 0) << ReadAll(place.errFile);
    const pid_t pid = place.WaitForDuplicate();
    ASSERT_TRUE(WaitUntil([&] { return place.Settled(); })) << ReadAll(place.errFile);
    EXPECT_EQ(place.RunInstalled(), 0) << "a second agent";
    EXPECT_TRUE(place.Logged({kListenFailed}));
    EXPECT_EQ(Mode(place.data + "ravel.socket"), "600");
    EXPECT_EQ(place.EndResident(pid), 0) << "through the socket";
    EXPECT_TRUE(place.Logged({kAccepted}));
}

// Processes of the account whose command line merely names the agent are not agents; a process
// running the agent's executable (here resident for another product's data folder) is.
TEST_F(PerUser, OnlyProcessesRunningTheExecutableCountAsAnotherAgent) {
    place.LayOutInstalled();
    const std::string quoted = "\"" + place.installedExe + "\"";
    const pid_t su =
        place.Start("/bin/sh", {"sh", "-c", "sleep 300; exit", "su", "-", "alice", "-c", quoted});
    const pid_t runuser = place.Start("/bin/sh", {"sh", "-c", "sleep 300; exit", "runuser", "-u",
                                                  "alice", "--", place.installedExe});
    ASSERT_TRUE(
        WaitUntil([&] { return !CommandLineOf(su).empty() && !CommandLineOf(runuser).empty(); }));
    ASSERT_EQ(place.RunInstalled(), 0);
    EXPECT_EQ(place.EndResident(place.WaitForDuplicate()), 0);
    EXPECT_FALSE(place.Logged({"There is an Ravel process is running."}));

    // The installed executable resident for another product: same file, same account.
    const QString other = place.root + "other/";
    WriteSettings(other + "Tidewater.dat",
                  {{"DupInfo", {{"DuplicatePath", place.root + "otherdata/"}}},
                   {"UpdateSetting", {{"TimerMinutes", "600"}}}});
    const pid_t twin = place.Start(place.installedExe, {place.installedExe, other.toStdString()});
    ASSERT_TRUE(WaitUntil([&] {
        return ReadAll(place.root + "otherdata/log/ravel.log").find("[Leave InitAgent() ...]") !=
               std::string::npos;
    })) << ReadAll(place.errFile);
    QFile::remove(place.data + "log/ravel.log");
    EXPECT_EQ(place.RunInstalled(), 0) << "beside the twin";
    EXPECT_TRUE(place.Logged({"There is an Ravel process is running."}));
    EXPECT_TRUE(ReachSocket(place.account, place.root + "otherdata/"));
    EXPECT_EQ(place.Reap(twin), 0);
}

// Run by root, the agent refuses before it makes or writes anything.
TEST_F(PerUser, RootIsRefusedBeforeAnythingIsMade) {
    WithoutStoredFolder(place);
    place.asAccount = false;
    const QString root = place.root;
    const QString derived = qEnvironmentVariable("HOME") + "/.local/share/Demo_Product";
    ASSERT_FALSE(QFileInfo::exists(derived));
    std::map<std::string, std::string> before = Modes(root);
    before.erase("stderr.txt");
    const std::string settings = ReadAll(place.inst + "Tidewater.dat");
    EXPECT_EQ(place.RunInstalled(), 255);
    EXPECT_EQ(ReadAll(place.errFile), kRootRefused);
    std::map<std::string, std::string> after = Modes(root);
    after.erase("stderr.txt");
    EXPECT_EQ(after, before) << "nothing made";
    EXPECT_EQ(ReadAll(place.inst + "Tidewater.dat"), settings);
    EXPECT_FALSE(QFileInfo::exists(derived)) << "root's own data folder";
}

} // namespace
