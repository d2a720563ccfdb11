// The schedule, the log and the file layout, on throw-away folders with the clock pinned.
#include "Clock.h"
#include "CommonFunctions.h"
#include "EasyLog.h"
#include "FileLayout.h"
#include "Profile.h"
#include "ZoneScope.h"
#include "ravel.h"

#include "Isolation.h"
#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <unistd.h>

// Readable failure output for byte strings.
void PrintTo(const QByteArray& bytes, std::ostream* out) {
    *out << ::testing::PrintToString(bytes.toStdString());
}

namespace {
const QByteArray kStart = "----------------------Start Log---------------------------------\n";
const QByteArray kStamp = "[2024-03-05 14:02:11]";
const QDateTime kNow(QDate(2024, 3, 5), QTime(14, 2, 11));
const quint32 now = quint32(kNow.toSecsSinceEpoch()), kAbsent = 4294967295u;

QByteArray ReadBytes(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

void WriteBytes(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
}

// A settings file's bytes: the UTF-8 mark, then the text with CR LF line ends.
QByteArray Dat(const QByteArray& text) {
    return "\xEF\xBB\xBF" + QByteArray(text).replace("\n", "\r\n");
}

QByteArray Line(int tabs, const QString& message, const QByteArray& source = "Src/ravel(#)") {
    return "[" + source + "]" + kStamp + QByteArray(tabs, '\t') + "[" + message.toUtf8() + "]-->\n";
}

QByteArray Traced(const char* name, const QByteArray& body, int tabs = 0) {
    return Line(tabs, name + QString(": Enter")) + body + Line(tabs, name + QString(": Leave"));
}

struct Sandbox {
    explicit Sandbox(const char* logSwitch = nullptr) {
        QDir().mkdir(org), QDir().mkdir(data);
        WriteConfigure("DupInfo", "DuplicatePath", dir.path() + "/data", tide); // no separator
        if (logSwitch)
            WriteConfigure("LOG", "LogSwitch", QString(logSwitch), tide);
        std::tie(g_qstrOrgPath, g_qstrOrgDat, g_qstrUserInfoIniPath, g_qstrTidewaterIniPath) =
            std::tuple(org, org + "UpdateInfo.dat", user, tide);
        SetClockForTesting([] { return kNow; });
        g_EazyLog.ResetForTesting();
        g_EazyLog.Init("ravel.log");
    }
    ~Sandbox() {
        g_EazyLog.ResetForTesting();
        SetClockForTesting({});
    }
    void Set(const char* k, const QString& v) const { WriteConfigure("UpdateSetting", k, v, tide); }
    QByteArray Body() const {
        const QString text = QString::fromUtf8(ReadBytes(log));
        EXPECT_TRUE(text.startsWith(kStart)) << text.toStdString();
        return text.mid(kStart.size())
            .replace(QRegularExpression("(?m)^\\[Src/ravel\\(\\d+"), "[Src/ravel(#")
            .toUtf8();
    }

    QTemporaryDir dir;
    const QString org = dir.path() + "/org/", data = dir.path() + "/data/";
    const QString log = data + "log/ravel.log", user = data + "UserInfo.dat";
    const QString tide = org + "Tidewater.dat";
};
} // namespace

TEST(EasyLog, LayoutBannersLimitsAndSwitch) {
    Sandbox box;
    EASYLOG_AT("Common/x", 42, "plain %d %s", 7, "text");
    g_EazyLog.m_nIndent = 2;
    EASYLOG_AT("Src/ravel", 9, "deep");
    g_EazyLog.m_nIndent = -1;
    EASYLOG_AT("Src/ravel", 10, "leave without enter");
    g_EazyLog.m_nIndent = 0;
    EASYLOG_AT(std::string(300, 's').c_str(), 1, "%s", std::string(1023, 'x').c_str());
    EASYLOG_AT("a", 2, "%s", std::string(1022, 'y').c_str());
    EXPECT_EQ(ReadBytes(box.log), kStart + Line(0, "plain 7 text", "Common/x(42)") +
                                      Line(2, "deep", "Src/ravel(9)") +
                                      Line(0, "leave without enter", "Src/ravel(10)") +
                                      Line(0, QString(1022, 'x'), QByteArray(255, 's') + "(1)") +
                                      Line(0, QString(1022, 'y'), "a(2)"));
    {
        CEasyLog log;
        log.Init("own.log");
        log.m_nLine = 5;
        std::strcpy(log.m_szFile, "f");
        log.WriteLogInfo("one");
    }
    CEasyLog().Init("own.log"); // appends
    const QByteArray end = "----------------------End Log-----------------------------------\n";
    EXPECT_EQ(ReadBytes(box.data + "log/own.log"),
              kStart + Line(0, "one", "f(5)") + end + kStart + end);
    for (const char* path : {"log", "log/own.log"}) // rwx for group and others; per-user none
        EXPECT_EQ(QFileInfo(box.data + path).permissions().toInt() & 0x77, kPerUser ? 0 : 0x77)
            << path;
    // The size limit is checked at start only.
    for (const int size : {5242880, 5242881}) {
        g_EazyLog.ResetForTesting();
        WriteBytes(box.log, QByteArray(size, 'o'));
        g_EazyLog.Init("ravel.log");
        EXPECT_EQ(ReadBytes(box.log), QByteArray(size == 5242880 ? size : 0, 'o') + kStart);
    }
    for (const char* off : {"0", "off"}) {
        Sandbox quiet(off);
        EASYLOG_AT("Src/ravel", 3, "dropped");
        EXPECT_TRUE(g_EazyLog.m_bEnable == 0 && g_EazyLog.m_nLine == -1) << off;
        CEasyLog().Init("ravel.log");
        EXPECT_FALSE(QFileInfo::exists(quiet.data + "log")) << off;
    }
}

TEST(FileLayout, ClockFoldersDuplicatePathAndInitFilePath) {
    for (const qint64 outside : {-1LL, 4294967296LL}) // of the 32-bit range
        EXPECT_EQ(ToTimeT(QDateTime::fromSecsSinceEpoch(outside)), kAbsent) << outside;
    EXPECT_EQ(ToTimeT(QDateTime()), kAbsent);

    Sandbox box;
    EXPECT_EQ(GetDuplicatePath(false), box.data + "Brightwell/");
    EXPECT_EQ(GetDuplicatePath(true), box.data + "log/");
    WriteConfigure("DupInfo", "DuplicatePath", "C:\\dup\\", box.tide);
    EXPECT_EQ(GetDuplicatePath(true), "C:\\dup\\log/");
    // Absent: derived from the main component's display name, stored, and made under the shared
    // data root, which opens /usr to everyone: only where the test has /usr to itself. (The
    // per-user agent derives its folder anew each time: FileLayout.DataFolderFrom... and PerUser.*)
    if (Isolated() && !kPerUser) {
        const QString folder = "/usr/local/zq_kt_userdata/ravel_sched/";
        WriteBytes(g_qstrOrgDat, "<root><components><component><main>1</main><displayname>ravel "
                                 "sched</displayname></component></components></root>");
        WriteBytes(box.tide, QByteArray());
        EXPECT_EQ(GetDuplicatePath(false), folder + "Brightwell/");
        EXPECT_EQ(GetConfigure("DupInfo", "DuplicatePath", "", box.tide).toString(), folder);
        QFile::remove(g_qstrOrgDat);
        EXPECT_EQ(GetDuplicatePath(true), folder + "log/");
    }

    const QString org = box.org, exe = org + "Tidewater.app/Contents/MacOS/Tidewater";
    QFile::remove(box.tide);
    EXPECT_EQ(InitFilePath(org, true), 0); // resident by default: nothing is checked
    EXPECT_EQ(g_qstrTidewaterIniPath + g_qstrUpdateInfoDatPath + g_qstrTidewaterExePath,
              org + "Tidewater.dat" + org + "UpdateInfo.dat" + exe);
    box.Set("RunWithSystem", "0");
    EXPECT_EQ(InitFilePath(org, true), 2);
    EXPECT_EQ(InitFilePath(org, false), 1);
    ASSERT_TRUE(QDir().mkpath(org + "Tidewater.app/Contents/MacOS"));
    WriteBytes(exe, "exe");
    WriteBytes(box.user, "<root/>");
    EXPECT_EQ(InitFilePath(org, false), 4);
    EXPECT_EQ(InitFilePath(org, true), 4);
    WriteBytes(org + "UpdateInfo.dat", "<root/>");
    EXPECT_EQ(InitFilePath(org, false), 0);
    EXPECT_EQ(InitFilePath(org, true), 0);
    // The settings file counts as missing only when the reader and the check see different
    // names: the reader stops at a NUL, the check rejects the whole name.
    EXPECT_EQ(InitFilePath(box.tide + QChar(0) + "/", true), 3);
    const QString missing = "ConfigFile<%1> not exist";
    EXPECT_EQ(box.Body(), Line(0, missing.arg(box.user)) +
                              Line(0, "ExeFile<" + exe + "> not exist") +
                              Line(0, missing.arg(org + "UpdateInfo.dat")).repeated(2) +
                              Line(0, missing.arg(box.tide)));
}

namespace {
// Due unless stated otherwise: the one-day cycle ended a second ago.
CONFIG_INFO Due(quint32 delayTimes, quint32 delayTime, qint64 at = now) {
    return {1, 1, delayTimes, 0, delayTime, quint32(at - 86401)};
}
QByteArray Moment(qint64 seconds) {
    return QDateTime::fromSecsSinceEpoch(seconds).toString("yyyy-MM-dd hh:mm:ss").toUtf8();
}
const QByteArray kUsed = Line(0, "Time is used up, ravel will check if delay time is ok");
const QByteArray kAutoNow = Line(0, "AutoCheckNow = 1"), kRound3 = Line(0, "DelayTimes >= 3");
const QByteArray kRepaired =
    Line(1, "UpdateCycle(0) not correct") + Line(1, "DelayTimes not correct");

// UserInfo.dat of a schedule in its first day, with this "DelayInfo" section.
QByteArray UserInfo(const QByteArray& delayInfo) {
    return Dat(R"(<?xml version="1.0" encoding="utf-8"?>
<root>
<UpdateStrategy>
<Strategy>cycle</Strategy>
<UpdateCycle>1</UpdateCycle>
</UpdateStrategy>
<UpdateInfo>
<LastStatus>ready</LastStatus>
</UpdateInfo>
<UpdateRecord>
<LastLaunchTime>2024-01-01 00:00:00</LastLaunchTime>
</UpdateRecord>
<DelayInfo>
)" + delayInfo +
               "</DelayInfo>\n</root>\n");
}
} // namespace

// This account's home as the user database gives it, read from /etc/passwd by hand.
QString HomeFromPasswd() {
    for (const QByteArray& line : ReadBytes("/etc/passwd").split('\n'))
        if (line.split(':').value(2) == QByteArray::number(getuid()))
            return QString::fromUtf8(line.split(':').value(5));
    return QString();
}

// Where the data folder is, from the environment and the stored text. The shared agent keeps a
// stored text as it stands and its data root fixed; the per-user one takes "~/" and its data root
// from the home folder ($HOME when absolute, else the user database) and $XDG_DATA_HOME (when
// absolute).
TEST(FileLayout, DataFolderFromHomeXdgAndStoredText) {
    const QString kUnset; // a null value unsets the variable
    struct Row {
        const char* what;
        QString home, xdg, stored;
        QString shared, perUser; // the data folder
    };
    const auto set = [](const QString& home, const QString& xdg) { // a null value unsets
        home.isNull() ? qunsetenv("HOME") : qputenv("HOME", home.toUtf8());
        xdg.isNull() ? qunsetenv("XDG_DATA_HOME") : qputenv("XDG_DATA_HOME", xdg.toUtf8());
    };
    const QByteArray home = qgetenv("HOME"), xdg = qgetenv("XDG_DATA_HOME");
    const QString root = HomeFromPasswd();
    ASSERT_FALSE(root.isEmpty()) << "this account has no entry in /etc/passwd";
    const QString sharedDefault = "/usr/local/zq_kt_userdata/Acme_Product_2/";
    const Row rows[] = {
        {"no XDG_DATA_HOME", "/h/al", kUnset, "", sharedDefault,
         "/h/al/.local/share/Acme_Product_2/"},
        {"an absolute XDG_DATA_HOME", "/h/al", "/x/data", "", sharedDefault,
         "/x/data/Acme_Product_2/"},
        {"a relative XDG_DATA_HOME is ignored", "/h/al", "x/data", "", sharedDefault,
         "/h/al/.local/share/Acme_Product_2/"},
        {"a relative HOME: the user database", "h/al", kUnset, "", sharedDefault,
         root + "/.local/share/Acme_Product_2/"},
        {"stored, from the home folder", "/h/al", "/x/data", "~/Acme Data", "~/Acme Data/",
         "/h/al/Acme Data/"},
        {"stored, another account's home", "/h/al", kUnset, "~bob/d/", "~bob/d/", "~bob/d/"},
        {"stored, absolute", "/h/al", kUnset, "/srv/acme", "/srv/acme/", "/srv/acme/"},
    };
    QTemporaryDir dir;
    const QString installed = dir.path() + "/";
    WriteBytes(installed + "UpdateInfo.dat",
               "<root><components><component><main>1</main><displayname>Acme Product "
               "2</displayname></component></components></root>");
    for (const Row& row : rows) {
        set(row.home, row.xdg);
        WriteBytes(installed + "Tidewater.dat", "<root><DupInfo><DuplicatePath>" +
                                                    row.stored.toUtf8() +
                                                    "</DuplicatePath></DupInfo></root>");
        const QString expected = kPerUser ? row.perUser : row.shared;
        const AgentPlaces places = LocateAgentPlaces(installed);
        EXPECT_EQ(places.dataFolder, expected) << row.what;
        EXPECT_EQ(places.userInfo, expected + "Brightwell/UserInfo.dat") << row.what;
        EXPECT_EQ(places.socket, kPerUser ? expected + "ravel.socket" : QString()) << row.what;
    }
    set(home.isNull() ? QString() : QString(home), xdg.isNull() ? QString() : QString(xdg));
}

TEST(ReadConfigInfo, RepairsTheFileOrLeavesItUntouched) {
    struct Row {
        const char* what;
        const char* cycleDefault; // "ConfigCycleDefault" in Tidewater.dat; null: absent
        QByteArray before;
        std::vector<quint32> info; // strategy, cycle, round, continue, delay, last launch
        QByteArray after;
        QByteArray log; // inside the trace
    };
    // Not as the store writes it (LF only, indented, keys in another order), so a rewrite shows.
    const QByteArray valid = "\xEF\xBB\xBF"
                             R"(<?xml version="1.0" encoding="utf-8"?>
	<root>
	<DelayInfo>
	<DelayTimes>3</DelayTimes>
	<DelayTime>0</DelayTime>
	</DelayInfo>
	<UpdateInfo>
	<LastStatus>downloaded</LastStatus>
	</UpdateInfo>
	<UpdateRecord>
	<LastLaunchTime>2024-01-02 03:04:05</LastLaunchTime>
	</UpdateRecord>
	<UpdateStrategy>
	<Strategy>never</Strategy>
	<UpdateCycle>30</UpdateCycle>
	</UpdateStrategy>
	</root>
	)";
    const quint32 last = quint32(QDateTime(QDate(2024, 1, 2), QTime(3, 4, 5)).toSecsSinceEpoch());
    const Row rows[] = {
        {"an empty file takes every default, the cycle from ConfigCycleDefault",
         "7",
         "",
         {1, 7, 1, 0, kAbsent, now},
         Dat(R"(<?xml version="1.0" encoding="utf-8"?>
<root>
<UpdateStrategy>
<UpdateCycle>7</UpdateCycle>
</UpdateStrategy>
<UpdateInfo>
<LastStatus>ready</LastStatus>
</UpdateInfo>
<UpdateRecord>
<LastLaunchTime>2024-03-05 14:02:11</LastLaunchTime>
</UpdateRecord>
<DelayInfo>
<DelayTimes>1</DelayTimes>
</DelayInfo>
</root>
)"),
         kRepaired},
        {"\"never\" is kept; without ConfigCycleDefault the cycle is one day",
         nullptr,
         Dat(R"(<?xml version="1.0" encoding="utf-8"?>
<root>
<UpdateStrategy>
<Strategy>never</Strategy>
</UpdateStrategy>
<DelayInfo>
<DelayTime>1700000000</DelayTime>
</DelayInfo>
</root>
)"),
         {0, 1, 1, 0, 1700000000u, now},
         Dat(R"(<?xml version="1.0" encoding="utf-8"?>
<root>
<UpdateStrategy>
<Strategy>never</Strategy>
<UpdateCycle>1</UpdateCycle>
</UpdateStrategy>
<DelayInfo>
<DelayTime>1700000000</DelayTime>
<DelayTimes>1</DelayTimes>
</DelayInfo>
<UpdateInfo>
<LastStatus>ready</LastStatus>
</UpdateInfo>
<UpdateRecord>
<LastLaunchTime>2024-03-05 14:02:11</LastLaunchTime>
</UpdateRecord>
</root>
)"),
         kRepaired},
        {"bad texts are rewritten; a stored cycle that reads as 0 is written back as it is",
         "7",
         Dat(R"(<?xml version="1.0" encoding="utf-8"?>
<root>
<UpdateStrategy>
<Strategy>Never</Strategy>
<UpdateCycle>abc</UpdateCycle>
</UpdateStrategy>
<UpdateRecord>
<LastLaunchTime>2024-02-30 10:00:00</LastLaunchTime>
</UpdateRecord>
<UpdateInfo>
<LastStatus>Ready</LastStatus>
</UpdateInfo>
<DelayInfo>
<DelayTime>12</DelayTime>
<DelayTimes>4</DelayTimes>
</DelayInfo>
</root>
)"),
         {1, 0, 1, 0, 12, now},
         Dat(R"(<?xml version="1.0" encoding="utf-8"?>
<root>
<UpdateStrategy>
<Strategy>cycle</Strategy>
<UpdateCycle>abc</UpdateCycle>
</UpdateStrategy>
<UpdateRecord>
<LastLaunchTime>2024-03-05 14:02:11</LastLaunchTime>
</UpdateRecord>
<UpdateInfo>
<LastStatus>ready</LastStatus>
</UpdateInfo>
<DelayInfo>
<DelayTime>12</DelayTime>
<DelayTimes>1</DelayTimes>
</DelayInfo>
</root>
)"),
         Line(1, "Strategy not correct(Strategy=Never)") + kRepaired},
        {"\"circle\" is rewritten, \"0\" cycle stays, \"querying\" is an interrupted run",
         nullptr,
         Dat(R"(<?xml version="1.0" encoding="utf-8"?>
<root>
<UpdateStrategy>
<Strategy>circle</Strategy>
<UpdateCycle>0</UpdateCycle>
</UpdateStrategy>
<UpdateRecord>
<LastLaunchTime>0</LastLaunchTime>
</UpdateRecord>
<UpdateInfo>
<LastStatus>querying</LastStatus>
</UpdateInfo>
<DelayInfo>
<DelayTime>12</DelayTime>
<DelayTimes>0</DelayTimes>
</DelayInfo>
</root>
)"),
         {1, 0, 1, 1, 12, now},
         Dat(R"(<?xml version="1.0" encoding="utf-8"?>
<root>
<UpdateStrategy>
<Strategy>cycle</Strategy>
<UpdateCycle>0</UpdateCycle>
</UpdateStrategy>
<UpdateRecord>
<LastLaunchTime>2024-03-05 14:02:11</LastLaunchTime>
</UpdateRecord>
<UpdateInfo>
<LastStatus>querying</LastStatus>
</UpdateInfo>
<DelayInfo>
<DelayTime>12</DelayTime>
<DelayTimes>1</DelayTimes>
</DelayInfo>
</root>
)"),
         Line(1, "Strategy not correct(Strategy=circle)") + kRepaired},
        {"a valid file is left byte for byte", "7", valid, {0, 30, 3, 1, 0, last}, valid, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Sandbox box;
        if (row.cycleDefault)
            box.Set("ConfigCycleDefault", row.cycleDefault);
        WriteBytes(box.user, row.before);
        CONFIG_INFO i{9, 9, 9, 9, 9, 9};
        ReadConfigInfo(i);
        EXPECT_EQ(std::vector<quint32>({i.nStrategy, i.nUpdateCycle, i.nDelayTimes, i.bContinue,
                                        i.nDelayTime, i.nLastLaunchTime}),
                  row.info)
            << "record read";
        EXPECT_EQ(ReadBytes(box.user), row.after) << "file after";
        EXPECT_EQ(box.Body(), Traced("ReadConfigInfo", row.log)) << "log";
    }
    // The rows above read querying, downloaded and ready.
    for (const char* status : {"downloading", "Downloading", "", "0"})
        EXPECT_EQ(NeedContinue(status), status[0] == 'd') << status;
}

TEST(CheckMissed, ARunOutDelayOfRound1Or2CountsARound) {
    // "DelayInfo" before; after, when a round is counted (empty: left as it was); the round logged.
    const std::tuple<const char*, QByteArray, QByteArray, const char*> rows[] = {
        {"round 1 ran out", "<DelayTime>1709500000</DelayTime>\n<DelayTimes>1</DelayTimes>\n",
         "<DelayTime>1</DelayTime>\n<DelayTimes>2</DelayTimes>\n", "2"},
        {"round 2 ran out", "<DelayTime>1709500000</DelayTime>\n<DelayTimes>2</DelayTimes>\n",
         "<DelayTime>1</DelayTime>\n<DelayTimes>3</DelayTimes>\n", "3"},
        {"round 3 is never missed",
         "<DelayTime>1709500000</DelayTime>\n<DelayTimes>3</DelayTimes>\n", "", nullptr},
        {"not over yet", "<DelayTime>1709900000</DelayTime>\n<DelayTimes>1</DelayTimes>\n", "",
         nullptr},
        {"none drawn", "<DelayTime>0</DelayTime>\n<DelayTimes>1</DelayTimes>\n", "", nullptr},
        {"DelayTime absent", "<DelayTimes>2</DelayTimes>\n", "", nullptr}};
    for (const auto& [what, before, after, round] : rows) {
        Sandbox box;
        WriteBytes(box.user, UserInfo(before));
        CheckMissed();
        EXPECT_EQ(ReadBytes(box.user), UserInfo(after.isEmpty() ? before : after)) << what;
        const QByteArray missed =
            round ? Line(1, QString("Missed UpdateTime, DelayTimes=") + round) : QByteArray();
        EXPECT_EQ(box.Body(), Traced("CheckMissed", Traced("ReadConfigInfo", "", 1) + missed))
            << what;
    }
}

TEST(LaunchDecision, CycleBoundaryAutoCheckNowAndDrawnDelay) {
    // AutoCheckNow (null: absent, which reads as 1), the schedule, the result, the log.
    const std::tuple<const char*, const char*, CONFIG_INFO, bool, QByteArray> cases[] = {
        {"a cycle that ends now", nullptr, {1, 1, 1, 0, 0, now - 86400}, false, ""},
        {"a cycle of 0 days, launched now", nullptr, {1, 0, 1, 0, 0, now}, false, ""},
        {"over by a second", nullptr, Due(1, 0), true, kUsed + kAutoNow},
        {"a launch in the future",
         nullptr,
         {1, 1, 3, 0, 0, now + 1},
         true,
         kUsed + kRound3 + kAutoNow},
        // 49711 days wrap to 63104 seconds in 32 bits.
        {"49711 days, over", nullptr, {1, 49711, 1, 0, 0, now - 63105}, true, kUsed + kAutoNow},
        {"49711 days, not over", nullptr, {1, 49711, 1, 0, 0, now - 63104}, false, ""},
        {"AutoCheckNow 5 past a pending delay", "5", Due(1, now + 100), true, kUsed + kAutoNow},
        {"a delay that is due now", "0", Due(1, now), true, kUsed},
        {"a delay due in a second", "0", Due(2, now + 1), false, kUsed},
        {"round 3, a delay ahead", "0", Due(3, now + 1), true, kUsed + kRound3},
        // An absent key: delayed to the end of the clock unless in the third round.
        {"no DelayTime, round 1", "0", Due(1, kAbsent), false, kUsed},
        {"no DelayTime, round 2", "0", Due(2, kAbsent), false, kUsed},
        {"no DelayTime, round 3", "0", Due(3, kAbsent), true, kUsed + kRound3}};
    for (const auto& [what, autoCheckNow, info, result, log] : cases) {
        Sandbox box;
        if (autoCheckNow)
            box.Set("AutoCheckNow", autoCheckNow);
        EXPECT_EQ(IsTimeToLaunchUpdate(info), result) << what;
        EXPECT_EQ(box.Body(), log) << what;
        EXPECT_FALSE(QFile::exists(box.user)) << what;
    }
    // A delay is drawn over the round's range. The C library's first draw after srand(1) is
    // 1804289383, so the offset is 1804289383 * span / 2^31 + 1 (worked out by hand here):
    // TimeRandomRange (null: absent, 720 minutes), round, the moment, the offset written.
    Sandbox box;
    box.Set("AutoCheckNow", "0");
    const std::tuple<const char*, quint32, qint64, qint64> draws[] = {
        {nullptr, 1, now, 36297},           // span 43200 s
        {"720", 2, now, 18149},             // half the range: 21600 s
        {"1", 2, now, 1},                   // half of one minute is none
        {"1", 1, now, 51},                  // 60 s
        {"720", 3, now, 1},                 // no delay after round 2
        {"720", 0, now, 1},                 // nor for a round out of range
        {"71582789", 1, now, 37},           // 4294967340 s wrap to 44
        {"143165578", 2, now, 37},          // so do half of these
        {"71582788", 1, now, 3608578753LL}, // 4294967280 s
        {"720", 1, 4294967290LL, 36297},    // written past the end of the 32-bit clock
    };
    QByteArray log;
    for (const auto& [range, round, at, offset] : draws) {
        if (range)
            box.Set("TimeRandomRange", range);
        SetClockForTesting([at = at] { return QDateTime::fromSecsSinceEpoch(at); });
        std::srand(1);
        EXPECT_EQ(IsTimeToLaunchUpdate(Due(round, 0, at)), round == 3)
            << "result, range " << (range ? range : "absent") << ", round " << round;
        EXPECT_EQ(GetConfigure("DelayInfo", "DelayTime", "", box.user).toString(),
                  QString::number(at + offset))
            << "DelayTime written, round " << round;
        // The log shows the moment's low 32 bits.
        log += QByteArray(kUsed + (round == 3 ? kRound3 : "") +
                          Line(0, "Delay to Time (" + Moment((at + offset) % 4294967296LL) + ")"))
                   .replace(kStamp, "[" + Moment(at) + "]");
    }
    EXPECT_EQ(box.Body(), log);
}

// A check in the hour that repeats when clocks go back, after a launch in its first occurrence:
// the last launch lies 50 minutes back, not 10 minutes ahead, so the cycle is not over, nothing is
// launched, and the check ends with its "Sleep" line, however the C library last guessed.
TEST(Check, TheRepeatedHourReadsAsItsFirstOccurrence) {
    struct Row {
        const char* zone;
        const char* lastLaunch;
        qint64 check; // the second occurrence of 50 minutes later, in UTC seconds
    };
    const Row rows[] = {{"America/New_York", "2024-11-03 01:20:00", 1730614200}, // 01:10 EST
                        {"Europe/Berlin", "2024-10-27 02:20:00", 1729991400}};   // 02:10 CET
    for (const Row& row : rows) {
        for (const int guess : {1, 7}) { // a winter or a summer conversion made before
            SCOPED_TRACE(std::string(row.zone) +
                         (guess == 1 ? ", winter first" : ", summer first"));
            ZoneScope zone(row.zone);
            QDateTime(QDate(2024, guess, 15), QTime(12, 0)).toSecsSinceEpoch();
            Sandbox box;
            WriteConfigure("UpdateStrategy", "UpdateCycle", "1", box.user);
            WriteConfigure("UpdateRecord", "LastLaunchTime", row.lastLaunch, box.user);
            WriteConfigure("UpdateInfo", "LastStatus", "ready", box.user);
            WriteConfigure("DelayInfo", "DelayTimes", "1", box.user);
            const QByteArray before = ReadBytes(box.user);
            SetClockForTesting([at = row.check] { return QDateTime::fromSecsSinceEpoch(at); });
            RunCheck();
            const QByteArray stamp = "[" + Moment(row.check) + "]";
            EXPECT_EQ(box.Body(),
                      QByteArray(Traced("ReadConfigInfo", "") + Line(0, "Sleep 1 Minutes"))
                          .replace(kStamp, stamp));
            EXPECT_EQ(ReadBytes(box.user), before);
        }
    }
}

// Each log line records the line of the call that writes it: the two traced readings of the
// start-up rule sit on different lines, each that of its call in the rules' source.
TEST(Check, LogLinesCarryTheLineOfTheirCall) {
    QFile source(RAVEL_SOURCE_DIR "/Src/Decision.cpp");
    ASSERT_TRUE(source.open(QIODevice::ReadOnly));
    const QStringList code = QString::fromUtf8(source.readAll()).split('\n');
    const auto lineOf = [&code](const char* call) {
        return code.indexOf(QRegularExpression("^\\s*" + QRegularExpression::escape(call))) + 1;
    };
    const int missed = lineOf("ENTER(env, logtext::kCheckMissed);");
    const int read = lineOf("ENTER(env, logtext::kReadConfigInfo);");
    ASSERT_TRUE(missed > 0 && read > 0 && missed != read) << missed << " " << read;
    Sandbox box;
    CheckMissed();
    const QString log = QString::fromUtf8(ReadBytes(box.log));
    EXPECT_TRUE(
        log.contains(QString("[Src/ravel(%1)]%2[CheckMissed: Enter]-->").arg(missed).arg(kStamp)))
        << log.toStdString();
    EXPECT_TRUE(log.contains(
        QString("[Src/ravel(%1)]%2\t[ReadConfigInfo: Enter]-->").arg(read).arg(kStamp)))
        << log.toStdString();
}
