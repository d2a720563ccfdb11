// The schedule, the log and the file layout, on throw-away folders with the clock pinned.
#include "Clock.h"
#include "CommonFunctions.h"
#include "EasyLog.h"
#include "FileLayout.h"
#include "ravel.h"

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

// A settings file as the store writes it (BOM, one element a CR LF line) from "Sect/k=v,k=v;...".
QByteArray Xml(QString layout) {
    layout.replace("NOW", "2024-03-05 14:02:11");
    layout.replace(QRegularExpression("([^;/]+)/([^;]*);?"), "<\\1>\r\n\\2</\\1>\r\n");
    layout.replace(QRegularExpression("([^<>\n,=]+)=([^,<]*),?"), "<\\1>\\2</\\1>\r\n");
    return "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<root>\r\n" +
           layout.toUtf8() + "</root>\r\n";
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
    for (const char* path : {"log", "log/own.log"}) // rwx for group and others
        EXPECT_EQ(QFileInfo(box.data + path).permissions().toInt() & 0x77, 0x77) << path;
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
    // data root, which opens /usr to everyone: only where the test has /usr to itself.
    if (qEnvironmentVariableIsSet("RAVEL_TEST_ISOLATED")) {
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
} // namespace

TEST(ReadConfigInfo, RepairsTheFileOrLeavesItUntouchedAndCheckMissedCountsARound) {
    // ConfigCycleDefault (null: absent); file before; info read; file after; log inside the trace.
    const auto check = [](const char* cycle, const QByteArray& before, std::vector<quint32> info,
                          const QByteArray& after, const QByteArray& log) {
        Sandbox box;
        if (cycle)
            box.Set("ConfigCycleDefault", cycle);
        WriteBytes(box.user, before);
        CONFIG_INFO i{9, 9, 9, 9, 9, 9};
        ReadConfigInfo(i);
        EXPECT_EQ(info, decltype(info)({i.nStrategy, i.nUpdateCycle, i.nDelayTimes, i.bContinue,
                                        i.nDelayTime, i.nLastLaunchTime}));
        EXPECT_EQ(ReadBytes(box.user), after);
        EXPECT_EQ(box.Body(), Traced("ReadConfigInfo", log));
    };
    const QString all = "UpdateStrategy/Strategy=%1,UpdateCycle=%2;UpdateRecord/LastLaunchTime=%3;"
                        "UpdateInfo/LastStatus=%4;DelayInfo/DelayTime=12,DelayTimes=%5";
    const auto repaired = Line(1, "UpdateCycle(0) not correct") + Line(1, "DelayTimes not correct");
    check("7", "", {1, 7, 1, 0, kAbsent, now},
          Xml("UpdateStrategy/UpdateCycle=7;UpdateInfo/LastStatus=ready;UpdateRecord/"
              "LastLaunchTime=NOW;DelayInfo/DelayTimes=1"),
          repaired);
    check(nullptr, Xml("UpdateStrategy/Strategy=never;DelayInfo/DelayTime=1700000000"),
          {0, 1, 1, 0, 1700000000u, now},
          Xml("UpdateStrategy/Strategy=never,UpdateCycle=1;DelayInfo/DelayTime=1700000000,"
              "DelayTimes=1;UpdateInfo/LastStatus=ready;UpdateRecord/LastLaunchTime=NOW"),
          repaired);
    // A stored cycle that reads as 0 is written back as it is.
    check("7", Xml(all.arg("Never", "abc", "2024-02-30 10:00:00", "Ready", "4")),
          {1, 0, 1, 0, 12, now}, Xml(all.arg("cycle", "abc", "NOW", "ready", "1")),
          Line(1, "Strategy not correct(Strategy=Never)") + repaired);
    check(nullptr, Xml(all.arg("circle", "0", "0", "querying", "0")), {1, 0, 1, 1, 12, now},
          Xml(all.arg("cycle", "0", "NOW", "querying", "1")),
          Line(1, "Strategy not correct(Strategy=circle)") + repaired);
    // Not as the store writes it (LF only, indented, keys in another order), so a rewrite shows.
    const QByteArray valid =
        Xml("DelayInfo/DelayTimes=3,DelayTime=0;UpdateInfo/LastStatus=downloaded;UpdateRecord/"
            "LastLaunchTime=2024-01-02 03:04:05;UpdateStrategy/Strategy=never,UpdateCycle=30")
            .replace("\r\n", "\n\t");
    const quint32 last = quint32(QDateTime(QDate(2024, 1, 2), QTime(3, 4, 5)).toSecsSinceEpoch());
    check("7", valid, {0, 30, 3, 1, 0, last}, valid, "");
    // The rows above read querying, downloaded and ready.
    for (const char* status : {"downloading", "Downloading", "", "0"})
        EXPECT_EQ(NeedContinue(status), status[0] == 'd') << status;

    const QString file = "UpdateStrategy/Strategy=cycle,UpdateCycle=1;UpdateInfo/LastStatus=ready;"
                         "UpdateRecord/LastLaunchTime=2024-01-01 00:00:00;DelayInfo/";
    const QString past = QString::number(now - 1), round = "DelayTime=%1,DelayTimes=%2";
    // The delay keys before, and after when a run-out delay in round 1 or 2 is missed. Kept:
    // the third round, a delay not yet over, none drawn, or the key absent.
    const std::pair<QString, QString> cases[] = {{round.arg(past, "1"), round.arg("1", "2")},
                                                 {round.arg(past, "2"), round.arg("1", "3")},
                                                 {round.arg(past, "3"), ""},
                                                 {round.arg(now).arg(1), ""},
                                                 {round.arg(0).arg(1), ""},
                                                 {"DelayTimes=2", ""}};
    for (const auto& [before, after] : cases) {
        Sandbox box;
        WriteBytes(box.user, Xml(file + before));
        CheckMissed();
        EXPECT_EQ(ReadBytes(box.user), Xml(file + (after.isEmpty() ? before : after)));
        const QByteArray missed = Line(1, "Missed UpdateTime, DelayTimes=" + after.right(1));
        EXPECT_EQ(box.Body(), Traced("CheckMissed", Traced("ReadConfigInfo", "", 1) +
                                                        (after.isEmpty() ? "" : missed)));
    }
}

TEST(LaunchDecision, CycleBoundaryAutoCheckNowAndDrawnDelay) {
    // AutoCheckNow (null: absent, which reads as 1), the schedule, the result, the log.
    const std::tuple<const char*, CONFIG_INFO, bool, QByteArray> cases[] = {
        {nullptr, {1, 1, 1, 0, 0, now - 86400}, false, ""},
        {nullptr, {1, 0, 1, 0, 0, now}, false, ""},
        {nullptr, Due(1, 0), true, kUsed + kAutoNow},
        {nullptr, {1, 1, 3, 0, 0, now + 1}, true, kUsed + kRound3 + kAutoNow}, // future launch
        // 49711 days wrap to 63104 seconds in 32 bits.
        {nullptr, {1, 49711, 1, 0, 0, now - 63105}, true, kUsed + kAutoNow},
        {nullptr, {1, 49711, 1, 0, 0, now - 63104}, false, ""},
        {"5", Due(1, now + 100), true, kUsed + kAutoNow},
        {"0", Due(1, now), true, kUsed},
        {"0", Due(2, now + 1), false, kUsed},
        {"0", Due(3, now + 1), true, kUsed + kRound3},
        // An absent key: delayed to the end of the clock unless in the third round.
        {"0", Due(1, kAbsent), false, kUsed},
        {"0", Due(2, kAbsent), false, kUsed},
        {"0", Due(3, kAbsent), true, kUsed + kRound3}};
    for (const auto& [autoCheckNow, info, result, log] : cases) {
        Sandbox box;
        if (autoCheckNow)
            box.Set("AutoCheckNow", autoCheckNow);
        EXPECT_EQ(IsTimeToLaunchUpdate(info), result) << info.nDelayTimes;
        EXPECT_EQ(box.Body(), log) << info.nDelayTimes;
        EXPECT_FALSE(QFile::exists(box.user));
    }
    // A delay is drawn over the round's range: TimeRandomRange (null: absent, 720 minutes),
    // round, span in seconds. The last row's delays pass the end of the 32-bit clock.
    Sandbox box;
    box.Set("AutoCheckNow", "0");
    const std::tuple<const char*, quint32, quint64> draws[] = {
        {nullptr, 1, 43200}, {"720", 2, 21600},    {"1", 2, 0},
        {"1", 1, 60},        {"720", 3, 0},        {"720", 0, 0},
        {"71582789", 1, 44}, {"143165578", 2, 44}, {"71582788", 1, 4294967280u},
        {"720", 1, 43200}};
    QByteArray log;
    for (const auto& row : draws) {
        const auto& [range, round, span] = row;
        const qint64 at = &row == std::end(draws) - 1 ? 4294967290LL : now;
        if (range)
            box.Set("TimeRandomRange", range);
        SetClockForTesting([at] { return QDateTime::fromSecsSinceEpoch(at); });
        for (const unsigned seed : {1u, 7u, 20240305u}) {
            // The expected draw, computed independently, then the same seed for the agent.
            std::srand(seed);
            const quint64 offset = (static_cast<unsigned __int128>(std::rand()) * span >> 31) + 1;
            std::srand(seed);
            ASSERT_LE(offset, std::max<quint64>(span, 1));
            EXPECT_EQ(IsTimeToLaunchUpdate(Due(round, 0, at)), round == 3) << round;
            EXPECT_EQ(GetConfigure("DelayInfo", "DelayTime", "", box.user).toString(),
                      QString::number(at + offset))
                << seed;
            log +=
                QByteArray(kUsed + (round == 3 ? kRound3 : "") +
                           Line(0, "Delay to Time (" + Moment((at + offset) % 4294967296u) + ")"))
                    .replace(kStamp, "[" + Moment(at) + "]");
        }
    }
    EXPECT_EQ(box.Body(), log);
}
