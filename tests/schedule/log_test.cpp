// The log file: line layout, banners, limits and the start-up switch, on real files.
#include "EasyLog.h"
#include "Sandbox.h"

#include <QDir>
#include <QFileInfo>
#include <gtest/gtest.h>
#include <string>

namespace {
const QByteArray kStamp = "[2024-03-05 14:02:11]";
const QByteArray kEnd = "----------------------End Log-----------------------------------\n";

QByteArray LogFile(const Sandbox& box) {
    return ReadBytes(box.LogPath());
}
} // namespace

TEST(EasyLog, LineLayoutIndentationAndLimits) {
    Sandbox box;
    EASYLOG_AT("Common/x", 42, "plain %d %s", 7, "text");
    g_EazyLog.m_nIndent = 2;
    EASYLOG_AT("Src/ravel", 9, "deep");
    g_EazyLog.m_nIndent = -1;
    EASYLOG_AT("Src/ravel", 10, "leave without enter");
    g_EazyLog.m_nIndent = 0;
    const std::string longSource(300, 's');
    EASYLOG_AT(longSource.c_str(), 1, "%s", std::string(1023, 'x').c_str());
    EASYLOG_AT("a", 2, "%s", std::string(1022, 'y').c_str());
    EXPECT_EQ(LogFile(box), StartBanner() + "[Common/x(42)]" + kStamp + "[plain 7 text]-->\n" +
                                "[Src/ravel(9)]" + kStamp + "\t\t[deep]-->\n" + "[Src/ravel(10)]" +
                                kStamp + "[leave without enter]-->\n" + "[" + QByteArray(255, 's') +
                                "(1)]" + kStamp + "[" + QByteArray(1022, 'x') + "]-->\n" +
                                "[a(2)]" + kStamp + "[" + QByteArray(1022, 'y') + "]-->\n");
}

TEST(EasyLog, BannersOpenPermissionsAndAppendAcrossStarts) {
    Sandbox box;
    {
        CEasyLog log;
        log.Init("own.log");
        log.m_nLine = 5;
        std::strcpy(log.m_szFile, "f");
        log.WriteLogInfo("one");
    }
    CEasyLog second;
    std::strcpy(second.m_szFile, "stale");
    second.m_nLine = 5;
    second.Init("own.log");
    const QByteArray line = "[f(5)]" + kStamp + "[one]-->\n";
    EXPECT_EQ(ReadBytes(box.Data() + "log/own.log"), StartBanner() + line + kEnd + StartBanner());
    // Init clears the source, the line stays.
    EXPECT_STREQ(second.m_szFile, "");
    EXPECT_EQ(second.m_nLine, 5);
    const auto all = QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther |
                     QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ExeGroup;
    EXPECT_EQ(QFileInfo(box.Data() + "log").permissions() & all, all);
    EXPECT_EQ(QFileInfo(box.Data() + "log/own.log").permissions() & all, all);
}

TEST(EasyLog, SizeLimitIsCheckedAtStart) {
    Sandbox box;
    for (const qint64 size : {qint64(5242880), qint64(5242881)}) {
        g_EazyLog.ResetForTesting();
        WriteBytes(box.LogPath(), QByteArray(size, 'o'));
        g_EazyLog.Init("ravel.log");
        const QByteArray kept = size == 5242880 ? QByteArray(size, 'o') : QByteArray();
        EXPECT_EQ(LogFile(box), kept + StartBanner()) << size;
    }
}

TEST(EasyLog, SwitchedOffOrFolderMissing) {
    for (const char* off : {"0", "off"}) {
        Sandbox box(off);
        EXPECT_EQ(g_EazyLog.m_bEnable, 0);
        EASYLOG_AT("Src/ravel", 3, "dropped");
        EXPECT_EQ(g_EazyLog.m_nLine, -1);
        {
            CEasyLog local;
            local.Init("ravel.log");
        }
        EXPECT_FALSE(QFileInfo::exists(box.Data() + "log")) << off;
    }
    // Only one level is created: a data folder that is gone leaves everything as it was.
    Sandbox box("1");
    EXPECT_EQ(g_EazyLog.m_bEnable, 1);
    QDir(box.Data()).removeRecursively();
    g_EazyLog.ResetForTesting();
    g_EazyLog.Init("ravel.log");
    EASYLOG_AT("Src/ravel", 3, "nowhere");
    EXPECT_FALSE(QFileInfo::exists(box.Data()));
}
