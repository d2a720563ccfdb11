// Two accounts, Alice and Bob, on one machine with one installed product, in the build's profile.
// Shared, the agent serves the machine: Bob gets none of his own while Alice's is resident, and
// every exposure that docs/reliability.md lists is his to use (each row records what it did to her
// agent). Per-user, each account's agent is its own: both run side by side, and Bob's attempts
// fail, Alice's files the same afterwards. A file or link in /tmp is his to make in either build;
// the per-user agent never looks there.
#include "AgentHarness.h"
#include "Attempts.h"
#include "FileLayout.h"

#include <QDateTime>
#include <gmock/gmock.h>
#include <set>

using namespace ::testing;

namespace {

const QString kDataRoot = "/usr/local/zq_kt_userdata/", kProcessList = "/tmp/RAVEL_tmp",
              kBobsFolder = "/tmp/bobs-data/";
const char kLongAgo[] = "2000-01-01 00:00:00";

std::string Str(const QString& text) {
    return text.toStdString();
}

// The user a process runs as, running or ended and not yet reaped (its /proc folder is its
// effective user's, who is here its real user too); -2 when it is gone.
uid_t UserOf(pid_t pid) {
    return QFileInfo("/proc/" + QString::number(pid)).ownerId();
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

// Every entry below `folder` (ending with "/"): its mode, then for a file its size and a digest
// of its bytes (short enough to show in a failure).
std::map<std::string, std::string> Snapshot(const QString& folder) {
    std::map<std::string, std::string> entries = Modes(folder);
    for (auto& [path, entry] : entries) {
        const std::string bytes = ReadAll(folder + QString::fromStdString(path));
        entry += " " + std::to_string(bytes.size()) + " #" +
                 std::to_string(std::hash<std::string>()(bytes));
    }
    return entries;
}

// Alice and Bob, each with a place and a home, and one product that Alice installed (so that the
// shared agent records its data folder in its Tidewater.dat, which names none at first): the
// shared agent makes the default data folder, which the installer opened to every account, the
// per-user one its account's own. The product ships no plug-in.
class TwoAccounts : public ::testing::Test {
public:
    void SetUp() override {
        place.account = alice;
        bobs.account = bob;
        ASSERT_TRUE(OpenToAccounts(Str(place.root)) && OpenToAccounts(Str(bobs.root)) &&
                    MakeHome(alice) && MakeHome(bob))
            << strerror(errno);
        QDir().mkpath(kDataRoot); // as the shared installer does: install -d -m 0777
        chmod(kDataRoot.toLocal8Bit().constData(), 0777);
        place.LayOutInstalled({}, {}, nullptr);
        QFile::remove(place.inst + "Tidewater.dat");
        WriteSettings(place.inst + "Tidewater.dat", {{"UpdateSetting", {{"TimerMinutes", "600"}}}});
        chmod((place.inst + "Tidewater.dat").toLocal8Bit().constData(), 0644); // Bob reads it
        // The agent makes its data folder, per-user every folder of it in the home.
        QDir(kPerUser ? QString::fromStdString(alice.home) + "/.local" : place.data)
            .removeRecursively();
        ASSERT_TRUE(GiveTree(Str(place.inst), alice)) << strerror(errno);
    }
    void TearDown() override {
        if (resident != 0)
            EndProcess(resident);
        for (const AgentPlace* each : {&place, &bobs})
            EXPECT_THAT(ReadAll(each->errFile), Not(HasSubstr("Sanitizer")));
        QDir(place.data).removeRecursively();
        QDir(kBobsFolder).removeRecursively();
        QFile::remove(kProcessList);
    }

    // The account of `as` logs in: the installed copy starts as at every login; its exit status.
    int LogIn(AgentPlace& as) {
        return as.Reap(as.Start(place.installedExe, {place.installedExe}));
    }
    // The machine restarts: Alice's resident agent, if any, ends, and she logs in again.
    int Restart() {
        EXPECT_TRUE(resident == 0 || place.EndResident(std::exchange(resident, 0)) == 0);
        return LogIn(place);
    }
    // A restart after which Alice has a new resident agent that has reached its event loop.
    void ToResident() {
        const size_t settled = Settlings();
        ASSERT_EQ(Restart(), 0) << ReadAll(place.errFile);
        ASSERT_NE(resident = place.WaitForDuplicate(), 0);
        ASSERT_TRUE(WaitUntil([&] { return Settlings() > settled; })) << ReadAll(log);
    }
    size_t Settlings() const { // see AgentPlace::Settled
        return Count("Leave InitAgent() ...") + Count("load PolicyProbe fail 3");
    }
    // How often the log in the data folder of `in` (Alice's when none) holds `message`.
    size_t Count(const std::string& message, const AgentPlace* in = nullptr) const {
        return size_t(QString::fromStdString(ReadAll((in ? in : &place)->data + "log/ravel.log"))
                          .count(QString::fromStdString("[" + message + "]-->")));
    }

    AgentPlace place{kPerUser ? QString("~/.local/share/Demo_Product/") // Alice's
                              : kDataRoot + "Demo_Product/"};
    AgentPlace bobs{"~/.local/share/Demo_Product/"};
    const Account alice{4242, 4242, Str(place.root + "home")},
        bob{4343, 4343, Str(bobs.root + "home")};
    const std::string data = Str(place.data), dup = Str(place.dup);
    const QString log = place.data + "log/ravel.log";
    pid_t resident = 0; // Alice's
};

// Both log in while their schedules are due. Shared: Bob's copy finds the port taken, and Alice's
// agent alone launches the machine's updater. Per-user: each agent is resident in its account's
// data folder and launches the updater as its account, which records its run in that account's
// schedule; each is ended by its own account only.
TEST_F(TwoAccounts, BothLogInWithTheirSchedulesDue) {
    for (const AgentPlace* each : {&place, &bobs})
        WriteSettings(each->dup + "UserInfo.dat",
                      {{"UpdateStrategy", {{"Strategy", "cycle"}, {"UpdateCycle", "1"}}},
                       {"UpdateRecord", {{"LastLaunchTime", kLongAgo}}}});
    WriteAll(place.inst + "Tidewater.args", "");
    chmod((place.inst + "Tidewater.args").toLocal8Bit().constData(), 0666); // either appends
    ASSERT_TRUE(GiveTree(data, alice));
    ASSERT_NO_FATAL_FAILURE(ToResident());
    ASSERT_EQ(LogIn(bobs), 0) << ReadAll(bobs.errFile);
    const pid_t bobsResident = kPerUser ? bobs.WaitForDuplicate() : 0;
    const std::multiset<uid_t> users =
        kPerUser ? std::multiset<uid_t>{alice.uid, bob.uid} : std::multiset<uid_t>{alice.uid};
    WaitUntil([&] { return EndedChildren("Tidewater").size() >= users.size(); });
    std::multiset<uid_t> ran; // the users the updater ran as
    for (const pid_t pid : EndedChildren("Tidewater"))
        ran.insert(UserOf(pid));
    EXPECT_EQ(ran, users);
    EXPECT_EQ(ReadAll(place.inst + "Tidewater.args"), kPerUser ? "auto\nauto\n" : "auto\n");
    EXPECT_EQ(UserOf(resident), alice.uid);
    if (!kPerUser) {
        EXPECT_EQ(Count("QLocalServer listen failed."), 1u) << "Bob's copy";
        return;
    }
    ASSERT_NE(bobsResident, 0);
    EXPECT_EQ(UserOf(bobsResident), bob.uid);
    for (const AgentPlace* each : {&place, &bobs})
        EXPECT_NE(GetConfigure("UpdateRecord", "LastLaunchTime", "", each->dup + "UserInfo.dat"),
                  kLongAgo)
            << "the run recorded in " << Str(each->dup);
    EXPECT_FALSE(ReachSocket(bob, place.data)) << "Bob, at Alice's socket";
    EXPECT_FALSE(ReachSocket(alice, bobs.data)) << "Alice, at Bob's socket";
    EXPECT_FALSE(CommandLineOf(resident).empty() || CommandLineOf(bobsResident).empty());
    EXPECT_EQ(place.EndResident(std::exchange(resident, 0)), 0);
    EXPECT_EQ(bobs.EndResident(bobsResident), 0);
    for (const AgentPlace* each : {&place, &bobs})
        EXPECT_EQ(Count("Accept a connection, ravel exit.", each), 1u) << Str(each->data);
}

class Exposure;

// One exposure: Bob's attempt, made as Bob (its errno); in the shared build, what it did to
// Alice's agent (none: a row of the per-user build alone); the errno it ends with per-user.
struct Row {
    const char* name;
    std::function<int(const Exposure&)> attempt;
    std::function<void(Exposure&)> shared;
    int perUser;
};
void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

// Alice's agent resident, as after her first login; a file of hers, and Bob's build of a plug-in.
class Exposure : public TwoAccounts, public WithParamInterface<Row> {
public:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(TwoAccounts::SetUp());
        WriteAll(QString::fromStdString(notes), "Alice's notes");
        CopyExecutable(POLICY_PROBE_BUILT, QString::fromStdString(bobsBuild));
        ASSERT_TRUE(GiveTree(notes, alice) && GiveTree(bobsBuild, bob));
        chmod(notes.c_str(), 0600);
        ASSERT_NO_FATAL_FAILURE(ToResident());
        ASSERT_EQ(UserOf(resident), alice.uid);
        systemsQt = MappedFile(resident, "libQt6Core.so.6");
        ASSERT_TRUE(kPerUser || WithSeparator(StoredDataFolder(place.inst)) == place.data)
            << "the shared agent's first write: " << Str(StoredDataFolder(place.inst));
    }
    // Bob replaces the settings file `file` with one of his holding `settings`.
    int Replace(const std::string& file, const Settings& settings) const {
        const QString his = QString::fromStdString(bob.home) + "/settings.dat";
        WriteSettings(his, settings);
        return attempt::Overwrite(file, ReadAll(his));
    }

    const std::string notes = alice.home + "/notes.txt",
                      bobsBuild = bob.home + "/libPolicyProbe.dylib";
    std::string systemsQt; // the system's Qt, as Alice's agent maps it
};

// Bob's link, to his home, at `path` below Alice's data folder ("" for the folder itself).
std::function<int(const Exposure&)> LinkAt(const QString& path) {
    return [path](const Exposure& t) {
        return attempt::Link(t.bob.home, Str(QDir::cleanPath(t.place.data + path)));
    };
}

std::vector<Row> Rows() {
    std::vector<Row> rows = {
        {"WritesIntoTheDataFolder",
         [](const Exposure& t) { return attempt::Create(t.data + "from-bob.txt", "Bob's"); },
         [](Exposure& t) {
             EXPECT_EQ(ReadAll(t.place.data + "from-bob.txt"), "Bob's");
             EXPECT_EQ(QFileInfo(t.place.data + "from-bob.txt").ownerId(), t.bob.uid);
         },
         EACCES},
        // A genuine copy of the system's Qt stands in for a doctored one: with the run-time path
        // beside the bundle, Alice's next resident copy loads Bob's file instead of the system's.
        {"PlantsQtCoreInTheDuplicateFolder",
         [](const Exposure& t) {
             return attempt::Copy(t.systemsQt, t.dup + "libQt6Core.so.6", 0755);
         },
         [](Exposure& t) {
             ASSERT_THAT(t.systemsQt, StartsWith("/usr/")) << "the system's Qt";
             ASSERT_NO_FATAL_FAILURE(t.ToResident());
             EXPECT_EQ(MappedFile(t.resident, "libQt6Core.so.6"),
                       LIBS_BESIDE_BUNDLE ? t.dup + "libQt6Core.so.6" : t.systemsQt);
         },
         EACCES},
        {"PlantsAPlugInInTheDuplicateFolder",
         [](const Exposure& t) {
             return attempt::Copy(t.bobsBuild, t.dup + "libPolicyProbe.dylib", 0755);
         },
         [](Exposure& t) {
             ASSERT_NO_FATAL_FAILURE(t.ToResident());
             EXPECT_EQ(ReadAll(t.place.dup + "PolicyProbe.trace"),
                       "Init in process " + std::to_string(t.resident) + "\n");
             EXPECT_EQ(QFileInfo(t.place.dup + "PolicyProbe.trace").ownerId(), t.alice.uid)
                 << "as Alice";
             EXPECT_EQ(t.Count("Leave InitAgent() ..."), 1u);
         },
         EACCES},
        // Bob marks the last run, just now, broken off: Alice's agent starts the updater, which
        // was not due.
        {"ChangesTheScheduleInUserInfo",
         [](const Exposure& t) {
             const QString now = QDateTime::currentDateTime().toString("yyyy-MM-dd hh:mm:ss");
             return t.Replace(t.dup + "UserInfo.dat",
                              {{"UpdateStrategy", {{"Strategy", "cycle"}, {"UpdateCycle", "7"}}},
                               {"UpdateRecord", {{"LastLaunchTime", now}}},
                               {"UpdateInfo", {{"LastStatus", "downloading"}}}});
         },
         [](Exposure& t) {
             ASSERT_FALSE(QFile::exists(t.place.inst + "Tidewater.args")) << "not due at first";
             ASSERT_NO_FATAL_FAILURE(t.ToResident());
             ASSERT_TRUE(t.place.UpdaterRan());
             EXPECT_EQ(ReadAll(t.place.inst + "Tidewater.args"), "auto\n");
             EXPECT_EQ(t.Count("LastTime DownLoad broken, Continue now!"), 1u);
         },
         EACCES},
        {"ReadsTheLog",
         [](const Exposure& t) { return attempt::Copy(Str(t.log), t.bob.home + "/a"); },
         [](Exposure& t) {
             const std::string copy = ReadAll(QString::fromStdString(t.bob.home + "/a"));
             EXPECT_EQ(copy, ReadAll(t.log));
             EXPECT_THAT(copy, HasSubstr("File path is: " + t.place.duplicateExe));
         },
         EACCES},
        {"EndsTheAgent",
         [](const Exposure& t) {
             return kPerUser ? attempt::ConnectLocal(t.data + "ravel.socket")
                             : attempt::ConnectTcp(31334);
         },
         [](Exposure& t) {
             EXPECT_EQ(t.place.Reap(std::exchange(t.resident, 0)), 0);
             EXPECT_EQ(t.Count("Accept a connection, ravel exit."), 1u);
         },
         EACCES},
        // Bob's file names Alice's agent twice: at every later start her agent reads a running
        // twin from it, and ends. Her shell cannot write the file, nor her agent remove it (the
        // sticky /tmp).
        {"LeavesAProcessListThatStopsTheAgent",
         [](const Exposure& t) {
             return attempt::Create(Str(kProcessList),
                                    t.place.installedExe + "\n" + t.place.installedExe + "\n");
         },
         [](Exposure& t) {
             for (size_t login = 1; login <= 2; ++login) {
                 EXPECT_EQ(t.Restart(), 0) << "login " << login;
                 EXPECT_EQ(t.Count("There is an Ravel process is running."), login) << login;
             }
             EXPECT_EQ(FindProcess(t.place.duplicateExe), 0) << "no resident agent";
             EXPECT_EQ(ReadAll(kProcessList),
                       t.place.installedExe + "\n" + t.place.installedExe + "\n");
         },
         0},
        // Through Bob's link, Alice's process test writes the process table into a file of hers
        // that Bob cannot even read, unless the kernel refuses to follow another account's link
        // in the sticky /tmp (fs.protected_symlinks, on in Debian's default set-up): then her
        // agent sees no table at all. The link stays either way.
        {"LinksTheProcessListToAFileOfAlices",
         [](const Exposure& t) { return attempt::Link(t.notes, Str(kProcessList)); },
         [](Exposure& t) {
             ASSERT_NO_FATAL_FAILURE(t.ToResident()) << "the hand-over went on";
             EXPECT_EQ(QFileInfo(kProcessList).symLinkTarget(), QString::fromStdString(t.notes));
             if (ReadAll("/proc/sys/fs/protected_symlinks") == "0\n")
                 EXPECT_THAT(ReadAll(QString::fromStdString(t.notes)),
                             HasSubstr("/ravel.app/Contents/MacOS/ravel"));
             else
                 EXPECT_EQ(ReadAll(QString::fromStdString(t.notes)), "Alice's notes");
         },
         0},
        // Once Alice's agent has recorded its data folder, the installed Tidewater.dat is open to
        // every account: Bob names a folder of his, and Alice's next resident copy runs there.
        {"MovesTheDataFolderThroughTidewaterDat",
         [](const Exposure& t) {
             const int made = attempt::MakeOpenFolder(Str(kBobsFolder));
             return made != 0 ? made
                              : t.Replace(Str(t.place.inst + "Tidewater.dat"),
                                          {{"UpdateSetting", {{"TimerMinutes", "600"}}},
                                           {"DupInfo", {{"DuplicatePath", kBobsFolder}}}});
         },
         [](Exposure& t) {
             ASSERT_EQ(t.Restart(), 0);
             const std::string exe = Str(kBobsFolder) + "Brightwell/ravel.app/Contents/MacOS/ravel";
             pid_t moved = 0;
             ASSERT_TRUE(WaitUntil([&] { return (moved = FindProcess(exe)) != 0; }))
                 << ReadAll(t.place.errFile);
             EXPECT_EQ(UserOf(moved), t.alice.uid) << "Alice's agent, in Bob's folder";
             EXPECT_EQ(QFileInfo(kBobsFolder).ownerId(), t.bob.uid);
             EXPECT_TRUE(EndProcess(moved));
         },
         EACCES},
        // Links where the per-user agent keeps its own (the shared one has no lock or socket,
        // and its folders are open to any change, as the rows above show).
        {"LinksAtTheDataFolder", LinkAt(""), nullptr, EACCES},
        {"LinksAtTheDuplicateFolder", LinkAt("Brightwell"), nullptr, EACCES},
        {"LinksAtTheLog", LinkAt("log/ravel.log"), nullptr, EACCES},
        {"LinksAtTheLock", LinkAt("ravel.lock"), nullptr, EACCES},
        {"LinksAtTheSocket", LinkAt("ravel.socket"), nullptr, EACCES},
    };
    rows.erase(std::remove_if(rows.begin(), rows.end(),
                              [](const Row& row) { return !kPerUser && !row.shared; }),
               rows.end());
    return rows;
}

// Bob's attempt. Shared: it succeeds, with its effect on Alice's agent. Per-user: it fails with
// the row's errno (or succeeds in /tmp, where the agent no longer looks), her agent stays, and
// after its next start her files are what they were, byte for byte and mode for mode, but for
// her log, which has only grown by that start's lines.
TEST_P(Exposure, AgainstAlicesAgent) {
    const Row& row = GetParam();
    const QString home = QString::fromStdString(alice.home) + "/";
    const std::map<std::string, std::string> before = Snapshot(home);
    const std::string logBefore = ReadAll(log);
    EXPECT_EQ(TryAs(bob, [&] { return row.attempt(*this); }), kPerUser ? row.perUser : 0);
    if (!kPerUser)
        return row.shared(*this);
    EXPECT_FALSE(CommandLineOf(resident).empty()) << "Alice's agent stays";
    ASSERT_NO_FATAL_FAILURE(ToResident());
    std::map<std::string, std::string> after = Snapshot(home);
    const std::string logEntry = Str(log.mid(home.size()));
    EXPECT_THAT(ReadAll(log), StartsWith(logBefore)) << "only grown";
    after[logEntry] = before.at(logEntry);
    EXPECT_EQ(after, before) << "Alice's files";
    EXPECT_EQ(Count("There is an Ravel process is running."), 0u);
}

INSTANTIATE_TEST_SUITE_P(Bob, Exposure, ValuesIn(Rows()),
                         [](const TestParamInfo<Row>& row) { return std::string(row.param.name); });

} // namespace
