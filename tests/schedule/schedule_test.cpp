// Reading and repairing the schedule, the launch decision and the missed-delay check.
#include "Clock.h"
#include "CommonFunctions.h"
#include "Sandbox.h"
#include "ravel.h"

#include <QFile>
#include <cstdlib>
#include <gtest/gtest.h>

namespace {
QByteArray Line(int tabs, const QString& message) {
    return "[Src/ravel(#)][2024-03-05 14:02:11]" + QByteArray(tabs, '\t') + "[" + message.toUtf8() +
           "]-->\n";
}

QByteArray Traced(const char* name, const QByteArray& body) {
    return Line(0, QString(name) + ": Enter") + body + Line(0, QString(name) + ": Leave");
}

CONFIG_INFO Read() {
    CONFIG_INFO info{9, 9, 9, 9, 9, 9};
    ReadConfigInfo(info);
    return info;
}

void ExpectInfo(const CONFIG_INFO& info, const CONFIG_INFO& expected) {
    EXPECT_EQ(info.nStrategy, expected.nStrategy);
    EXPECT_EQ(info.nUpdateCycle, expected.nUpdateCycle);
    EXPECT_EQ(info.nDelayTimes, expected.nDelayTimes);
    EXPECT_EQ(info.bContinue, expected.bContinue);
    EXPECT_EQ(info.nDelayTime, expected.nDelayTime);
    EXPECT_EQ(info.nLastLaunchTime, expected.nLastLaunchTime);
}

const quint32 kAbsent = 4294967295u;
} // namespace

TEST(ReadConfigInfo, RepairsAnEmptyFile) {
    Sandbox box;
    WriteBytes(box.UserInfo(), QByteArray());
    box.SetUpdateSetting("ConfigCycleDefault", "7");
    ExpectInfo(Read(), {1, 7, 1, 0, kAbsent, Sandbox::NowSeconds()});
    EXPECT_EQ(ReadBytes(box.UserInfo()),
              SettingsFile({{"UpdateStrategy", {{"UpdateCycle", "7"}}},
                            {"UpdateInfo", {{"LastStatus", "ready"}}},
                            {"UpdateRecord", {{"LastLaunchTime", Sandbox::NowText()}}},
                            {"DelayInfo", {{"DelayTimes", "1"}}}}));
    EXPECT_EQ(box.LogBody(), Traced("ReadConfigInfo", Line(1, "UpdateCycle(0) not correct") +
                                                          Line(1, "DelayTimes not correct")));
}

TEST(ReadConfigInfo, RepairsAPartialFile) {
    Sandbox box;
    WriteBytes(box.UserInfo(), SettingsFile({{"UpdateStrategy", {{"Strategy", "never"}}},
                                             {"DelayInfo", {{"DelayTime", "1700000000"}}}}));
    ExpectInfo(Read(), {0, 1, 1, 0, 1700000000u, Sandbox::NowSeconds()});
    EXPECT_EQ(ReadBytes(box.UserInfo()),
              SettingsFile({{"UpdateStrategy", {{"Strategy", "never"}, {"UpdateCycle", "1"}}},
                            {"DelayInfo", {{"DelayTime", "1700000000"}, {"DelayTimes", "1"}}},
                            {"UpdateInfo", {{"LastStatus", "ready"}}},
                            {"UpdateRecord", {{"LastLaunchTime", Sandbox::NowText()}}}}));
}

TEST(ReadConfigInfo, RepairsInvalidValuesInPlace) {
    Sandbox box;
    const auto file = [](const char* strategy, const char* cycle, const QString& last,
                         const char* status, const char* delayTimes) {
        return SettingsFile({{"UpdateStrategy", {{"Strategy", strategy}, {"UpdateCycle", cycle}}},
                             {"UpdateRecord", {{"LastLaunchTime", last}}},
                             {"UpdateInfo", {{"LastStatus", status}}},
                             {"DelayInfo", {{"DelayTime", "12"}, {"DelayTimes", delayTimes}}}});
    };
    WriteBytes(box.UserInfo(), file("Never", "abc", "2024-02-30 10:00:00", "Ready", "4"));
    ExpectInfo(Read(), {1, 0, 1, 0, 12, Sandbox::NowSeconds()});
    // A stored cycle that reads as 0 is written back as it is.
    EXPECT_EQ(ReadBytes(box.UserInfo()), file("cycle", "abc", Sandbox::NowText(), "ready", "1"));
    EXPECT_EQ(box.LogBody(),
              Traced("ReadConfigInfo", Line(1, "Strategy not correct(Strategy=Never)") +
                                           Line(1, "UpdateCycle(0) not correct") +
                                           Line(1, "DelayTimes not correct")));

    WriteBytes(box.UserInfo(), file("circle", "0", "0", "querying", "0"));
    ExpectInfo(Read(), {1, 0, 1, 1, 12, Sandbox::NowSeconds()});
    EXPECT_EQ(ReadBytes(box.UserInfo()), file("cycle", "0", Sandbox::NowText(), "querying", "1"));
}

TEST(ReadConfigInfo, LeavesValidValuesUntouched) {
    Sandbox box;
    // Hand-edited layout: LF only, indented, keys in another order.
    const QByteArray text = "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<root>\n"
                            "\t<DelayInfo>\n\t\t<DelayTimes>3</DelayTimes>\n"
                            "\t\t<DelayTime>0</DelayTime>\n\t</DelayInfo>\n"
                            "\t<UpdateInfo><LastStatus>downloaded</LastStatus></UpdateInfo>\n"
                            "\t<UpdateRecord><LastLaunchTime>2024-01-02 03:04:05</LastLaunchTime>"
                            "</UpdateRecord>\n\t<UpdateStrategy>\n\t\t<Strategy>never</Strategy>\n"
                            "\t\t<UpdateCycle>30</UpdateCycle>\n\t</UpdateStrategy>\n</root>\n";
    WriteBytes(box.UserInfo(), text);
    const quint32 last = quint32(QDateTime(QDate(2024, 1, 2), QTime(3, 4, 5)).toSecsSinceEpoch());
    ExpectInfo(Read(), {0, 30, 3, 1, 0, last});
    EXPECT_EQ(ReadBytes(box.UserInfo()), text);
    EXPECT_EQ(box.LogBody(), Traced("ReadConfigInfo", ""));
    for (const char* status : {"querying", "downloading", "downloaded"})
        EXPECT_TRUE(NeedContinue(status));
    for (const char* status : {"ready", "Downloading", "", "0"})
        EXPECT_FALSE(NeedContinue(status));
}

class LaunchDecision : public ::testing::Test {
protected:
    // Due unless stated otherwise: the one-day cycle ended a second ago.
    CONFIG_INFO Due(quint32 delayTimes, quint32 delayTime) const {
        return {1, 1, delayTimes, 0, delayTime, now - 86401};
    }
    // Draws with a known seed and returns the expected offset, computed independently.
    quint64 DrawWith(unsigned seed, quint64 span) {
        std::srand(seed);
        const quint64 r = quint64(std::rand());
        std::srand(seed);
        return quint64((static_cast<unsigned __int128>(r) * span) >> 31) + 1;
    }
    QString StoredDelay() const {
        return GetConfigure("DelayInfo", "DelayTime", "<none>", box.UserInfo()).toString();
    }
    static QString Moment(qint64 seconds) {
        return QDateTime::fromSecsSinceEpoch(seconds).toString("yyyy-MM-dd hh:mm:ss");
    }

    Sandbox box;
    const quint32 now = Sandbox::NowSeconds();
};

TEST_F(LaunchDecision, CycleBoundaryAndAutoCheckNow) {
    EXPECT_FALSE(IsTimeToLaunchUpdate({1, 1, 1, 0, 0, now - 86400}));
    EXPECT_FALSE(IsTimeToLaunchUpdate({1, 0, 1, 0, 0, now}));
    EXPECT_EQ(box.LogBody(), "");
    EXPECT_TRUE(IsTimeToLaunchUpdate(Due(1, 0)));                // AutoCheckNow absent reads as 1
    EXPECT_TRUE(IsTimeToLaunchUpdate({1, 1, 3, 0, 0, now + 1})); // last launch in the future
    // 49711 days wrap to 63104 seconds in 32 bits.
    EXPECT_TRUE(IsTimeToLaunchUpdate({1, 49711, 1, 0, 0, now - 63105}));
    EXPECT_FALSE(IsTimeToLaunchUpdate({1, 49711, 1, 0, 0, now - 63104}));
    box.SetUpdateSetting("AutoCheckNow", "5");
    EXPECT_TRUE(IsTimeToLaunchUpdate(Due(1, now + 100)));
    const QByteArray used = Line(0, "Time is used up, ravel will check if delay time is ok");
    const QByteArray autoNow = Line(0, "AutoCheckNow = 1");
    EXPECT_EQ(box.LogBody(), used + autoNow + used + Line(0, "DelayTimes >= 3") + autoNow + used +
                                 autoNow + used + autoNow);
    EXPECT_FALSE(QFile::exists(box.UserInfo()));
}

TEST_F(LaunchDecision, DrawnDelayIsWaitedFor) {
    box.SetUpdateSetting("AutoCheckNow", "0");
    EXPECT_TRUE(IsTimeToLaunchUpdate(Due(1, now)));
    EXPECT_FALSE(IsTimeToLaunchUpdate(Due(2, now + 1)));
    EXPECT_TRUE(IsTimeToLaunchUpdate(Due(3, now + 1)));
    // An absent key: delayed to the end of the clock unless in the third round.
    EXPECT_FALSE(IsTimeToLaunchUpdate(Due(1, kAbsent)));
    EXPECT_FALSE(IsTimeToLaunchUpdate(Due(2, kAbsent)));
    EXPECT_TRUE(IsTimeToLaunchUpdate(Due(3, kAbsent)));
    EXPECT_FALSE(QFile::exists(box.UserInfo()));
}

TEST_F(LaunchDecision, DelayIsDrawnOverTheRoundsRange) {
    box.SetUpdateSetting("AutoCheckNow", "0");
    struct Case {
        const char* range; // null: absent, 720 minutes
        quint32 delayTimes;
        quint64 span;
        bool result;
    };
    const Case cases[] = {
        {nullptr, 1, 43200, false},
        {"720", 2, 21600, false},
        {"1", 2, 0, false},
        {"1", 1, 60, false},
        {"720", 3, 0, true},
        {"720", 0, 0, false},
        {"71582789", 1, 44, false},
        {"143165578", 2, 44, false},
        {"71582788", 1, 4294967280u, false},
    };
    QByteArray log;
    for (const Case& c : cases) {
        if (c.range)
            box.SetUpdateSetting("TimeRandomRange", c.range);
        for (const unsigned seed : {1u, 7u, 20240305u}) {
            const quint64 offset = DrawWith(seed, c.span);
            ASSERT_GE(offset, 1u);
            ASSERT_LE(offset, std::max<quint64>(c.span, 1));
            EXPECT_EQ(IsTimeToLaunchUpdate(Due(c.delayTimes, 0)), c.result) << c.delayTimes;
            EXPECT_EQ(StoredDelay(), QString::number(now + offset)) << c.range << " " << seed;
            log += Line(0, "Time is used up, ravel will check if delay time is ok");
            if (c.delayTimes == 3)
                log += Line(0, "DelayTimes >= 3");
            log += Line(0, "Delay to Time (" + Moment((now + offset) % 4294967296u) + ")");
        }
    }
    EXPECT_EQ(box.LogBody(), log);
}

TEST_F(LaunchDecision, DelayPastTheEndOfThe32BitClock) {
    box.SetUpdateSetting("AutoCheckNow", "0");
    const qint64 late = 4294967290LL;
    SetClockForTesting([late] { return QDateTime::fromSecsSinceEpoch(late); });
    const quint64 offset = DrawWith(7, 43200);
    ASSERT_GT(offset, 6u);
    EXPECT_FALSE(IsTimeToLaunchUpdate({1, 1, 1, 0, 0, quint32(late - 86401)}));
    EXPECT_EQ(StoredDelay(), QString::number(late + qint64(offset)));
    EXPECT_TRUE(ReadBytes(box.LogPath())
                    .endsWith("[Delay to Time (" + Moment(late + offset - 4294967296LL).toUtf8() +
                              ")]-->\n"));
}

TEST(CheckMissed, CountsARunOutDelayAsOneMoreRound) {
    Sandbox box;
    const auto file = [](const QString& delayTime, const char* delayTimes) {
        Keys delay{{"DelayTimes", delayTimes}};
        if (!delayTime.isNull())
            delay.insert(delay.begin(), {"DelayTime", delayTime});
        return SettingsFile({{"UpdateStrategy", {{"Strategy", "cycle"}, {"UpdateCycle", "1"}}},
                             {"UpdateRecord", {{"LastLaunchTime", "2024-01-01 00:00:00"}}},
                             {"UpdateInfo", {{"LastStatus", "ready"}}},
                             {"DelayInfo", delay}});
    };
    const QString past = QString::number(Sandbox::NowSeconds() - 1);
    const QString now = QString::number(Sandbox::NowSeconds());
    WriteBytes(box.UserInfo(), file(past, "1"));
    CheckMissed();
    EXPECT_EQ(ReadBytes(box.UserInfo()), file("1", "2"));
    WriteBytes(box.UserInfo(), file(past, "2"));
    CheckMissed();
    EXPECT_EQ(ReadBytes(box.UserInfo()), file("1", "3"));
    const QByteArray read = Line(1, "ReadConfigInfo: Enter") + Line(1, "ReadConfigInfo: Leave");
    const QByteArray missed = read + Line(1, "Missed UpdateTime, DelayTimes=%1");
    EXPECT_EQ(box.LogBody(), Traced("CheckMissed", missed).replace("%1", "2") +
                                 Traced("CheckMissed", missed).replace("%1", "3"));

    // Nothing missed: third round, delay not yet over, none drawn, or the key absent.
    const std::pair<QString, const char*> kept[] = {
        {past, "3"}, {now, "1"}, {"0", "1"}, {QString(), "2"}};
    for (const auto& [delayTime, delayTimes] : kept) {
        WriteBytes(box.UserInfo(), file(delayTime, delayTimes));
        CheckMissed();
        EXPECT_EQ(ReadBytes(box.UserInfo()), file(delayTime, delayTimes))
            << delayTime.toStdString();
    }
}
