// The built agent as real processes: hand-over, deployment, scheduling, plug-in and exits.
#include "AgentHarness.h"
#include "Isolation.h"

#include <QDateTime>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <random>
#include <sys/mount.h>
#include <sys/stat.h>

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
    ASSERT_EQ(place.RunInstalled(), 0) << "the installed copy";

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
    ASSERT_NE(pid, 0) << "the resident duplicate";
    EXPECT_EQ(CommandLineOf(pid), (std::vector{place.duplicateExe, inst})) << "its command line";
    ASSERT_TRUE(WaitUntil([&] { return !UpdaterArgs().empty() && place.Settled(); }))
        << "the updater started, the duplicate settled";
    EXPECT_EQ(UpdaterArgs(), "auto\n") << "the updater's arguments";
    EXPECT_EQ(place.RunInstalled(), 0) << "a second installed copy finds the port taken";
    EXPECT_EQ(place.EndResident(pid), 0) << "the resident, through its port";

    const QString userInfo = place.dup + "UserInfo.dat";
    EXPECT_EQ(GetConfigure("UpdateInfo", "LastStatus", "", userInfo).toString(), "ready")
        << "recorded by the updater";
    EXPECT_NE(GetConfigure("UpdateRecord", "LastLaunchTime", "", userInfo).toString(),
              "2000-01-01 00:00:00")
        << "recorded by the updater";
    EXPECT_EQ(ReadAll(place.dup + "PolicyProbe.trace"),
              "Init in process " + std::to_string(pid) + "\n")
        << "the plug-in's trace";
    EXPECT_TRUE(place.Logged(
        {"Enter111111111 InitAgent() ...qstrSrcPath=" + inst,
         "Config.xml and UserData.dat file not exist,will create new file=" + inst,
         "File path is: " + place.duplicateExe, "CheckMissed: Enter",
         "Time is Ready, Try to Launch(" + updater + ")", "File path is: " + updater,
         "Sleep 600 Minutes", "Enter InitAgent() ...", pluginLine, "Leave InitAgent() ...",
         "QLocalServer listen failed.", "Accept a connection, ravel exit."}))
        << "the log";
    EXPECT_THAT(ReadAll(place.data + "log/ravel.log"),
                EndsWith("[Accept a connection, ravel exit.]-->\n"
                         "----------------------End Log-----------------------------------\n"));
}

TEST_F(AgentEndToEnd, LaterRunsRefreshLibrariesButDataOnlyForANewItemValue) {
    place.LayOutInstalled({}, {{"UpdateRecord", {{"LastLaunchTime", now}}}}); // not due
    const auto handOver = [&] {
        QFile::remove(place.data + "log/ravel.log");
        ASSERT_EQ(place.RunInstalled(), 0) << "the installed copy";
        EXPECT_EQ(place.EndResident(place.WaitForDuplicate()), 0) << "the resident";
    };
    handOver();
    WriteAll(place.inst + "libalpha.dylib", "alpha 2");
    WriteAll(place.inst + "Brightwell Data/rules.txt", "rules 2");
    WriteAll(place.inst + "UpdateInfo/info.txt", "info 2");
    WriteConfigure("UpdateSetting", "Marker", "changed", place.inst + "Tidewater.dat");

    handOver(); // same "item" value
    EXPECT_EQ(ReadAll(place.dup + "libalpha.dylib"), "alpha 2") << "a library, same item value";
    EXPECT_EQ(ReadAll(place.dup + "Brightwell Data/rules.txt"), "rules 1") << "same item value";

    WriteAll(place.inst + "Brightwell Data/Config.xml", "<item value=\"2\"/>");
    handOver();
    EXPECT_EQ(ReadAll(place.dup + "Brightwell Data/rules.txt"), "rules 2") << "new item value";
    EXPECT_EQ(ReadAll(place.dup + "UpdateInfo/info.txt"), "info 1") << "never copied again";
    EXPECT_EQ(GetConfigure("UpdateSetting", "Marker", "", place.dup + "Tidewater.dat").toString(),
              "")
        << "the deployed Tidewater.dat is never replaced";
    EXPECT_EQ(UpdaterArgs(), "") << "not due: no updater";
}

TEST_F(AgentEndToEnd, NeverSchedulingAndAMissingOrFactorylessPlugin) {
    place.LayOutInstalled({{"UpdateSetting", {{"RunWithSystem", "0"}}}},
                          {{"UpdateStrategy", {{"Strategy", "never"}}}}, nullptr);
    EXPECT_EQ(place.Reap(place.StartDuplicate()), 0) << "never, without RunWithSystem";
    EXPECT_TRUE(place.Logged({"Strategy was set to never, duplicate ravel will exit now!"}));
    EXPECT_FALSE(place.Logged({"Sleep 600 Minutes"})) << "no sleep after the exit";
    const auto endsLogging = [&](std::vector<std::string> lines) { // a failed plug-in at the end
        lines.insert(lines.end(), {"Sleep 600 Minutes", "Enter InitAgent() ...", pluginLine,
                                   "load PolicyProbe fail 2", "load PolicyProbe fail 3"});
        EXPECT_TRUE(place.Logged(lines));
        EXPECT_FALSE(place.Logged({"Leave InitAgent() ..."})) << "a failed plug-in";
        EXPECT_FALSE(QFile::exists(place.dup + "PolicyProbe.trace")) << "no plug-in ran";
    };

    // RunWithSystem keeps it; no plug-in is logged and scheduling goes on.
    WriteConfigure("UpdateSetting", "RunWithSystem", "1", place.inst + "Tidewater.dat");
    QFile::remove(place.data + "log/ravel.log");
    EXPECT_EQ(place.EndResident(place.StartDuplicate()), 0) << "never, with RunWithSystem";
    endsLogging({});
    EXPECT_EQ(UpdaterArgs(), "") << "never: no updater";

    // An interrupted download is resumed even without RunWithSystem; a plug-in without a factory.
    WriteConfigure("UpdateSetting", "RunWithSystem", "0", place.inst + "Tidewater.dat");
    WriteConfigure("UpdateRecord", "LastLaunchTime", now, place.dup + "UserInfo.dat");
    WriteConfigure("UpdateInfo", "LastStatus", "downloading", place.dup + "UserInfo.dat");
    QFile::copy(POLICY_PROBE_WITHOUT_FACTORY, place.dup + "libPolicyProbe.dylib");
    QFile::remove(place.data + "log/ravel.log");
    const pid_t pid = place.StartDuplicate();
    ASSERT_TRUE(WaitUntil([&] { return !UpdaterArgs().empty(); })) << "the download resumed";
    EXPECT_EQ(UpdaterArgs(), "auto\n") << "the updater's arguments";
    EXPECT_EQ(place.EndResident(pid), 0) << "the resident";
    endsLogging({"LastTime DownLoad broken, Continue now!", "File path is: " + updater});
}

TEST_F(AgentEndToEnd, AnotherInstanceOrATakenPortEndsTheAgentWithZero) {
    if (kPerUser)
        GTEST_SKIP() << "the shared agent's process test and port; per-user: PerUser.*";
    place.LayOutInstalled();
    const pid_t twin = place.Start("/bin/sleep", {place.installedExe, "300"});
    ASSERT_TRUE(WaitUntil([&] { return FindProcess(place.installedExe) == twin; })) << "the twin";
    EXPECT_EQ(place.RunInstalled(), 0) << "beside a twin";
    EXPECT_TRUE(place.Logged({"There is an Ravel process is running."}));
    EXPECT_FALSE(QFile::exists("/tmp/RAVEL_tmp")) << "the process list is removed";
    kill(twin, SIGKILL);
    place.Reap(twin);

    const int server = UsePort(true);
    ASSERT_GE(server, 0) << "taking the port";
    EXPECT_EQ(place.RunInstalled(), 0) << "with the port taken";
    close(server);
    EXPECT_TRUE(place.Logged({"QLocalServer listen failed."}));
    EXPECT_FALSE(QFile::exists(place.dup + "ravel.app")) << "neither run deployed";
}

// The plug-in's path is logged as the line's format: "%%" shows one "%", and every other "%"
// shows as it stands instead of reading (or, for "%n", writing) an argument that is not there.
TEST(AgentPluginLine, APathWithConversionsIsWrittenAsItStands) {
    AgentPlace place("~/data %n %s%s%s %d%% 100%/"); // in the place's home folder
    place.LayOutInstalled();
    ASSERT_EQ(place.RunInstalled(), 0) << ReadAll(place.errFile);
    EXPECT_EQ(place.EndResident(place.WaitForDuplicate()), 0) << ReadAll(place.errFile);
    EXPECT_TRUE(place.Logged({"Enter InitAgent() ...",
                              place.root.toStdString() + "home/data %n %s%s%s %d% 100%/"
                                                         "Brightwell/ravel.app/Contents/MacOS/"
                                                         "../../../PolicyProbe",
                              "Leave InitAgent() ..."}));
}

TEST_F(AgentEndToEnd, FailedSetUpsEndWith255AndSayWhy) {
    place.LayOutInstalled({{"UpdateSetting", {{"RunWithSystem", "0"}}}});
    QFile::remove(place.inst + "Tidewater.app/Contents/MacOS/Tidewater");
    EXPECT_EQ(place.RunInstalled(), 255) << "no updater";
    EXPECT_TRUE(
        place.Logged({"ExeFile<" + updater + "> not exist", "Original InitFilePath Failed"}));

    place.LayOutInstalled(); // the updater is back; the duplicate folder has no UserInfo.dat
    QFile::remove(place.dup + "UserInfo.dat");
    EXPECT_EQ(place.Reap(place.StartDuplicate()), 255) << "no UserInfo.dat";
    EXPECT_TRUE(place.Logged({"ConfigFile<" + place.dup.toStdString() + "UserInfo.dat> not exist",
                              "Duplicate InitFilePath Failed"}));

    // A file where the deployed bundle needs a folder makes the bundle copy fail.
    QDir(place.dup + "ravel.app/Contents").removeRecursively();
    WriteAll(place.dup + "ravel.app/Contents", "in the way");
    EXPECT_EQ(place.RunInstalled(), 255) << "the bundle copy failing";
    EXPECT_TRUE(place.Logged({"Copy file to Dup failed."}));
    EXPECT_FALSE(place.Logged({"Enter111111111 InitAgent() ...qstrSrcPath=" + inst}))
        << "nothing after the failed bundle copy";
}

// Hostile files and faults: each ends as stated, never by a crash or a hang, and no settings file
// is lost or cut short.
#ifdef __SANITIZE_ADDRESS__
// Read many times over: sized to keep the sanitizer run short.
const size_t kBig = size_t(8) << 20, kLevels = 200000;
#else
const size_t kBig = size_t(50) << 20, kLevels = 1000000;
#endif
const std::string kMark = "\xEF\xBB\xBF", k100KiB(100 << 10, 'x');
const QString kLong = QString::fromStdString(k100KiB);

std::string Repeat(const std::string& piece, size_t times) {
    std::string text;
    text.reserve(piece.size() * times);
    while (times--)
        text += piece;
    return text;
}
// Installed settings naming the place's data folder, with `more` inside the root.
std::string Tidewater(const AgentPlace& place, const std::string& more) {
    return kMark + "<root><DupInfo><DuplicatePath>" + place.data.toStdString() +
           "</DuplicatePath></DupInfo>" + more + "</root>\r\n";
}
std::string Utf16Le(const std::string& text) {
    std::string wide = "\xFF\xFE";
    for (const char c : text)
        wide += {c, '\0'};
    return wide;
}
void Copied(const AgentPlace& place, const QString& file) { // the duplicate's copy is whole
    EXPECT_TRUE(ReadAll(place.dup + file) == ReadAll(place.inst + file))
        << "copied whole: " << file.toStdString();
}
QString UserValue(const AgentPlace& place, const char* section, const char* key) {
    return GetConfigure(section, key, "", place.dup + "UserInfo.dat").toString();
}
// Fills the file system holding `folder` to its last byte.
void Fill(const QString& folder) {
    const int fd = open((folder + "filler").toLocal8Bit(), O_WRONLY | O_CREAT, 0644);
    const std::string block(1 << 16, 'f');
    for (size_t size = block.size(); size > 0; size /= 2)
        while (write(fd, block.data(), size) == ssize_t(size)) {
        }
    close(fd);
}
// The resident duplicate killed at a few moments while it saves UserInfo.dat over and over.
void KillDuringSaves(AgentPlace& place) {
    const std::string userInfo = ReadAll(place.dup + "UserInfo.dat");
    for (int round = 1; round <= 5; ++round) {
        const QString log = place.data + "log/ravel.log";
        const qint64 logged = QFileInfo(log).size() + (64 << 10);
        const pid_t pid = place.StartDuplicate();
        EXPECT_TRUE(WaitUntil([&] { return QFileInfo(log).size() > logged; })) << "saving";
        usleep(round * 7919);
        kill(pid, SIGKILL);
        EXPECT_EQ(place.Reap(pid), -1) << "killed in round " << round;
        EXPECT_EQ(ReadAll(place.dup + "UserInfo.dat"), userInfo) << "after round " << round;
    }
}

struct Hostile {
    const char* name;
    std::function<void(AgentPlace&)> arrange; // on the usual layout
    int status;                               // of the installed copy; 0: it hands over
    std::vector<std::string> log;             // in this order
    std::function<void(AgentPlace&)> check;
    const char* dataFolder = ""; // in the temporary folder when empty
    bool mounts = false;
};
void PrintTo(const Hostile& row, std::ostream* out) {
    *out << row.name;
}

const std::vector<std::string> kResident = {"Sleep 600 Minutes", "Leave InitAgent() ..."};

const Hostile kHostile[] = {
    {"Tidewater50MiB",
     [](AgentPlace& p) {
         const std::string pad = "<Pad>" + std::string(1000, 'p') + "</Pad>";
         WriteAll(p.inst + "Tidewater.dat", Tidewater(p, Repeat(pad, kBig / 1011)));
     },
     0,
     {"Sleep 1 Minutes", "Leave InitAgent() ..."},
     nullptr},
    // Shared: replaced whole by the first write; the default data root. Per-user: left as it is,
    // the account's default data folder.
    {"TidewaterOfRandomBytes",
     [](AgentPlace& p) {
         std::mt19937 random(14);
         std::string bytes(1 << 20, '\0');
         for (char& byte : bytes)
             byte = char(random());
         WriteAll(p.inst + "Tidewater.dat", bytes);
     },
     0,
     {"Sleep 1 Minutes", "Leave InitAgent() ..."},
     [](AgentPlace& p) {
         const QVariant written =
             GetConfigure("DupInfo", "DuplicatePath", "", p.inst + "Tidewater.dat");
         EXPECT_EQ(written.toString(), kPerUser ? QString() : p.data)
             << "the data folder written back by the shared agent only";
     },
     kPerUser ? "~/.local/share/Demo_Product/" : "/usr/local/zq_kt_userdata/Demo_Product/"},
    {"TidewaterNestedAMillionLevels",
     [](AgentPlace& p) {
         WriteAll(p.inst + "Tidewater.dat",
                  Tidewater(p, Repeat("<a>", kLevels) + Repeat("</a>", kLevels)));
     },
     0,
     {"Sleep 1 Minutes", "Leave InitAgent() ..."},
     nullptr},
    {"KeyValuesOf100KiB", // logged cut to 1022 bytes, repaired
     [](AgentPlace& p) {
         WriteSettings(p.inst + "Tidewater.dat", {{"UpdateSetting", {{"Note", kLong}}}});
         WriteSettings(p.dup + "UserInfo.dat", {{"UpdateStrategy", {{"Strategy", kLong}}},
                                                {"UpdateInfo", {{"LastStatus", kLong}}}});
     },
     0,
     {("Strategy not correct(Strategy=" + k100KiB).substr(0, 1022), kResident[1]},
     [](AgentPlace& p) {
         EXPECT_EQ(UserValue(p, "UpdateStrategy", "Strategy") + "," +
                       UserValue(p, "UpdateInfo", "LastStatus"),
                   "cycle,ready");
     }},
    {"DataFolderNamedBy100KiB", // cannot be made: no log, only standard error tells
     [](AgentPlace& p) {
         WriteConfigure("DupInfo", "DuplicatePath", p.root + kLong + "/", p.inst + "Tidewater.dat");
     },
     255,
     {},
     [](AgentPlace& p) {
         EXPECT_THAT(ReadAll(p.errFile), HasSubstr("Duplicate path is empty or it's not a path."));
     }},
    {"UserInfoIsAFolder",
     [](AgentPlace& p) {
         QFile::remove(p.dup + "UserInfo.dat");
         WriteAll(p.dup + "UserInfo.dat/inside", "kept");
     },
     0, kResident,
     [](AgentPlace& p) { EXPECT_EQ(ReadAll(p.dup + "UserInfo.dat/inside"), "kept"); }},
    {"UserInfoOfOnlyAByteOrderMark", // read as empty, repaired
     [](AgentPlace& p) { WriteAll(p.dup + "UserInfo.dat", kMark); },
     0,
     {"UpdateCycle(0) not correct", kResident[1]},
     [](AgentPlace& p) {
         EXPECT_EQ(UserValue(p, "UpdateStrategy", "UpdateCycle") + "," +
                       UserValue(p, "UpdateInfo", "LastStatus"),
                   "1,ready");
     }},
    {"TidewaterInUtf16OfOddLength", // the odd byte is dropped
     [](AgentPlace& p) {
         const std::string timer = "<UpdateSetting><TimerMinutes>7</TimerMinutes></UpdateSetting>";
         WriteAll(p.inst + "Tidewater.dat", Utf16Le(Tidewater(p, timer).substr(3)) + "\x01");
     },
     0,
     {"Sleep 7 Minutes", "Leave InitAgent() ..."},
     nullptr},
    {"FileNamesWithANewline",
     [](AgentPlace& p) {
         WriteAll(p.inst + "lib\nline.dylib", "lib");
         WriteAll(p.inst + "Brightwell Data/two\nlines.txt", "data");
     },
     0, kResident,
     [](AgentPlace& p) {
         Copied(p, "lib\nline.dylib");
         Copied(p, "Brightwell Data/two\nlines.txt");
     }},
    {"SymbolicLinkLoops", // a link is copied as a link, never followed
     [](AgentPlace& p) {
         QFile::link("libloop.dylib", p.inst + "libloop.dylib");
         QFile::link("..", p.inst + "Brightwell Data/up");
         QFile::link("ba", p.inst + "Brightwell Data/ab");
         QFile::link("ab", p.inst + "Brightwell Data/ba");
     },
     0, kResident,
     [](AgentPlace& p) {
         struct stat entry = {};
         for (const char* link : {"libloop.dylib", "Brightwell Data/up", "Brightwell Data/ab"})
             EXPECT_TRUE(lstat(p.dup.toLocal8Bit() + link, &entry) != 0 || S_ISLNK(entry.st_mode))
                 << "followed: " << link;
         Copied(p, "Brightwell Data/rules.txt");
     }},
    {"LogOf6MiB", // emptied at the start
     [](AgentPlace& p) { WriteAll(p.data + "log/ravel.log", std::string(6 << 20, 'o')); }, 0,
     kResident,
     [](AgentPlace& p) {
         EXPECT_THAT(ReadAll(p.data + "log/ravel.log"),
                     StartsWith("----------------------Start Log"));
     }},
    {"DataFolderOnAFullFileSystem", // the save fails, the previous file stays and nothing is left
     [](AgentPlace& p) {
         const std::string userInfo = ReadAll(p.dup + "UserInfo.dat");
         ASSERT_EQ(mount("ravel-full", p.dup.toLocal8Bit(), "tmpfs", 0, "size=48m"), 0);
         WriteAll(p.dup + "UserInfo.dat", userInfo);
         ASSERT_EQ(p.RunInstalled(), 0) << "deploying first";
         ASSERT_TRUE(p.UpdaterRan()) << "the due updater, before the file is repaired";
         ASSERT_EQ(p.EndResident(p.WaitForDuplicate()), 0);
         WriteConfigure("UpdateInfo", "LastStatus", "odd", p.dup + "UserInfo.dat"); // repaired
         Fill(p.dup);
     },
     0, kResident,
     [](AgentPlace& p) {
         EXPECT_EQ(UserValue(p, "UpdateInfo", "LastStatus"), "odd");
         const QStringList left = QDir(p.dup).entryList({"UserInfo.dat.*"}, QDir::Files);
         EXPECT_EQ(left.join(",").toStdString(), "") << "temporary files left";
         umount2(p.dup.toLocal8Bit(), MNT_DETACH);
     },
     "", true},
    {"KilledDuringItsSaves", // a cycle of "0" is written back on every check, without pause
     [](AgentPlace& p) {
         WriteConfigure("UpdateSetting", "TimerMinutes", "0", p.inst + "Tidewater.dat");
         WriteSettings(p.dup + "UserInfo.dat",
                       {{"UpdateStrategy", {{"Strategy", "never"}, {"UpdateCycle", "0"}}}});
     },
     0,
     {"UpdateCycle(0) not correct", "Sleep 0 Minutes", "Leave InitAgent() ..."},
     KillDuringSaves},
};

class AgentHostile : public ::testing::TestWithParam<Hostile> {};

TEST_P(AgentHostile, EndsAsStatedAndKeepsEverySettingsFile) {
    const Hostile& row = GetParam();
    if (row.mounts || *row.dataFolder)
        RAVEL_REQUIRE_ISOLATION();
    AgentPlace place(row.dataFolder);
    place.LayOutInstalled();
    row.arrange(place);
    std::map<QString, std::string> before; // every settings file as arranged
    for (const QString& file : {place.inst + "Tidewater.dat", place.dup + "UserInfo.dat"})
        before[file] = ReadAll(file);
    ASSERT_EQ(place.RunInstalled(), row.status) << "the installed copy\n" << ReadAll(place.errFile);
    if (row.status == 0) {
        const pid_t pid = place.WaitForDuplicate();
        ASSERT_NE(pid, 0) << "no resident duplicate\n" << ReadAll(place.errFile);
        EXPECT_EQ(place.EndResident(pid), 0) << "the resident";
    }
    EXPECT_TRUE(place.Logged(row.log)) << "the log";
    EXPECT_THAT(ReadAll(place.errFile), Not(HasSubstr("Sanitizer")));
    for (const auto& [file, bytes] : before) { // as it was, or rewritten whole
        const std::string now = ReadAll(file);
        EXPECT_TRUE(now == bytes || Value(now, EndsWith("</root>\r\n")))
            << file.toStdString() << " cut short: " << now.size() << " bytes\n"
            << now;
    }
    if (QFile::exists(place.dup + "Tidewater.dat"))
        Copied(place, "Tidewater.dat");
    if (row.check)
        row.check(place);
}

INSTANTIATE_TEST_SUITE_P(Files, AgentHostile, ValuesIn(kHostile),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
