// The per-user agent (built in the per-user build only) as real processes of a test account: its
// data folder, modes, socket guard, process test, and no start as root.
#include "AgentHarness.h"

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

// The type and permission bits of `path` as "d700" (a folder), "s600" (a socket) or "f600";
// "absent" when there is nothing.
std::string Mode(const QString& path) {
    struct stat info = {};
    if (lstat(QFile::encodeName(path).constData(), &info) != 0)
        return "absent";
    const char type = S_ISDIR(info.st_mode) ? 'd' : S_ISSOCK(info.st_mode) ? 's' : 'f';
    return type + QString::number(info.st_mode & 07777, 8).toStdString();
}

// Mode of every entry below `folder` (which ends with "/"), by its path relative to it.
std::map<std::string, std::string> Modes(const QString& folder) {
    std::map<std::string, std::string> modes;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        modes[path.mid(folder.size()).toStdString()] = Mode(path);
    }
    return modes;
}

// Lays out a product whose Tidewater.dat names no data folder: the agent derives it.
void WithoutStoredFolder(AgentPlace& place, const Settings& user = {}) {
    place.LayOutInstalled({}, user);
    WriteConfigure("DupInfo", "DuplicatePath", "", place.inst + "Tidewater.dat");
}

class PerUser : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_THAT(ReadAll(place.errFile), Not(HasSubstr("Sanitizer"))); }

    AgentPlace place{"~/.local/share/Demo_Product/"}; // the folder the agent derives
};

// A first deployment into the account's derived data folder, with the umask open wide, then a
// login that launches the stand-in updater, which finds the same folder: every folder the agent
// made is 0700 and every file 0600 (0700 for executables), the home folder it found is left as
// it was, and the installed settings are never written.
TEST_F(PerUser, EverythingItMakesIsTheAccountsAloneAndTheSettingsStayUnwritten) {
    WithoutStoredFolder(place);
    QDir(QString::fromStdString(place.account->home) + "/.local").removeRecursively();
    const QString home = QString::fromStdString(place.account->home) + "/";
    place.GiveToAccount();
    ASSERT_EQ(chmod(QFile::encodeName(home).constData(), 0751), 0);
    const std::string settings = ReadAll(place.inst + "Tidewater.dat");
    const mode_t umaskBefore = umask(0);
    ASSERT_EQ(place.RunInstalled(), 0) << ReadAll(place.errFile);
    EXPECT_EQ(place.EndResident(place.WaitForDuplicate()), 0) << ReadAll(place.errFile);
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
    EXPECT_EQ(Mode(home), "d751") << "the home folder";
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

// Without a home folder to find the data folder in (the rules themselves: FileLayout's tests),
// the start fails as for a data folder that cannot be made, and the settings stay unwritten.
TEST_F(PerUser, NoHomeFolderEndsWith255) {
    const std::string pathEmpty = "MXPSCreatePath: Path is empty.\n",
                      makeFailed = "MXPSCreatePath: Make directory failed.\n";
    // HOME ("": none, and the account has no entry in the user database), DuplicatePath, the
    // end of standard error.
    const std::tuple<const char*, const char*, std::string> rows[] = {
        {"", "", pathEmpty + kDataPathFailed},
        {"", "~/Acme Data", kDataPathFailed},
        {"/nonexistent/alice", "", makeFailed + kDataPathFailed}};
    for (const auto& [home, stored, error] : rows) {
        SCOPED_TRACE(std::string(home) + " " + stored);
        AgentPlace place;
        place.account->home = home;
        place.LayOutInstalled();
        WriteConfigure("DupInfo", "DuplicatePath", stored, place.inst + "Tidewater.dat");
        const std::string settings = ReadAll(place.inst + "Tidewater.dat");
        EXPECT_EQ(place.RunInstalled(), 255);
        EXPECT_THAT(ReadAll(place.errFile), EndsWith(error));
        EXPECT_EQ(ReadAll(place.inst + "Tidewater.dat"), settings);
        EXPECT_FALSE(QFileInfo::exists("/nonexistent")) << "nothing made";
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
    EXPECT_FALSE(ReachSocket({kTestUid + 1, kTestUid + 1, "/"}, place.data)) << "another account";

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
}

// The guard holds whatever was left behind and however long the path: a socket file left by an
// agent that was killed blocks neither the next agent nor lets a second one in; a socket path
// longer than a socket address holds is reached through the folder.
TEST_F(PerUser, TheGuardHoldsAfterAKilledAgentAndForALongPath) {
    for (const QString& folder : {QString(), "~/" + QString(120, 'h') + "/"}) {
        AgentPlace place(folder);
        place.LayOutInstalled();
        if (folder.isEmpty()) {
            const pid_t killed = place.StartDuplicate();
            ASSERT_TRUE(WaitUntil([&] { return place.Settled(); }));
            kill(killed, SIGKILL);
            EXPECT_EQ(place.Reap(killed), -1);
            EXPECT_EQ(Mode(place.data + "ravel.socket"), "s600") << "left behind";
            QFile::remove(place.data + "log/ravel.log");
        } else {
            ASSERT_GT((place.data + "ravel.socket").size(), 108);
        }
        const pid_t pid = place.StartDuplicate();
        ASSERT_TRUE(WaitUntil([&] { return place.Settled(); })) << ReadAll(place.errFile);
        EXPECT_EQ(place.RunInstalled(), 0) << "a second agent";
        EXPECT_EQ(Mode(place.data + "ravel.socket"), "s600");
        EXPECT_EQ(place.EndResident(pid), 0) << "through the socket";
        EXPECT_TRUE(place.Logged({"Leave InitAgent() ...", kListenFailed, kAccepted}));
    }
}

// A process of the account running the agent's executable (here resident for another product's
// data folder) is another agent. (Command lines that merely name it: AgentUnit's tests.)
TEST_F(PerUser, AProcessRunningTheExecutableIsAnotherAgent) {
    place.LayOutInstalled();
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
    EXPECT_TRUE(ReachSocket(*place.account, place.root + "otherdata/"));
    EXPECT_EQ(place.Reap(twin), 0);
}

// Run by root, the agent refuses before it makes or writes anything.
TEST_F(PerUser, RootIsRefusedBeforeAnythingIsMade) {
    WithoutStoredFolder(place);
    place.asAccount = false;
    const QString root = place.root;
    const QString derived = qEnvironmentVariable("HOME") + "/.local/share/Demo_Product";
    ASSERT_FALSE(QFileInfo::exists(derived));
    const std::map<std::string, std::string> before = Modes(root);
    const std::string settings = ReadAll(place.inst + "Tidewater.dat");
    EXPECT_EQ(place.RunInstalled(), 255);
    EXPECT_EQ(ReadAll(place.errFile), kRootRefused);
    std::map<std::string, std::string> after = Modes(root);
    after.erase("stderr.txt"); // made by the test
    EXPECT_EQ(after, before) << "nothing made";
    EXPECT_EQ(ReadAll(place.inst + "Tidewater.dat"), settings);
    EXPECT_FALSE(QFileInfo::exists(derived)) << "root's own data folder";
}

} // namespace
