// The clock seam, the folders of the layout and the path set-up.
#include "Clock.h"
#include "CommonFunctions.h"
#include "FileLayout.h"
#include "Sandbox.h"
#include "ravel.h"

#include <QCoreApplication>
#include <QDir>
#include <gtest/gtest.h>
#include <unistd.h>

TEST(Clock, ToTimeTKeepsThe32BitRange) {
    EXPECT_EQ(ToTimeT(QDateTime()), 4294967295u);
    EXPECT_EQ(ToTimeT(QDateTime::fromSecsSinceEpoch(-1)), 4294967295u);
    EXPECT_EQ(ToTimeT(QDateTime::fromSecsSinceEpoch(0)), 0u);
    EXPECT_EQ(ToTimeT(QDateTime::fromSecsSinceEpoch(4294967294LL)), 4294967294u);
    EXPECT_EQ(ToTimeT(QDateTime::fromSecsSinceEpoch(4294967296LL)), 4294967295u);
    SetClockForTesting([] { return QDateTime::fromSecsSinceEpoch(86400); });
    EXPECT_EQ(ToTimeT(CurrentDateTime()), 86400u);
    SetClockForTesting({});
    EXPECT_GT(ToTimeT(CurrentDateTime()), 1700000000u);
}

TEST(FileLayout, FoldersAndConstants) {
    QDir up(QCoreApplication::applicationDirPath());
    ASSERT_TRUE(up.cdUp() && up.cdUp() && up.cdUp());
    EXPECT_EQ(GetExeDir(), up.absolutePath() + "/");
    EXPECT_EQ(GetUserDirectory(), QDir::homePath() + "/Application Data");
    const QString composed = QString(RAVEL_EXE_FILE_NAME) + MAC_APP_PATH + BRIGHTWELL_INFO +
                             BRIGHTWELL_DATA + USER_INFO_DAT + TIDEWATER_DAT + TIDEWATER_EXE +
                             UPDATE_INFO_DAT;
    EXPECT_EQ(composed, "ravel.app/Contents/MacOS/ravel/UpdateInfo/Brightwell DataUserInfo.dat"
                        "Tidewater.datTidewater.app/Contents/MacOS/TidewaterUpdateInfo.dat");
}

TEST(FileLayout, DuplicatePathFromSettingOrDisplayName) {
    Sandbox box;
    EXPECT_EQ(GetDuplicatePath(false), box.Data() + "Brightwell/");
    EXPECT_EQ(GetDuplicatePath(true), box.Data() + "log/");
    WriteConfigure("DupInfo", "DuplicatePath", "C:\\dup\\", box.Tidewater());
    EXPECT_EQ(GetDuplicatePath(true), "C:\\dup\\log/");

    // Absent: derived from the main component's display name and stored. The folder is made
    // beforehand so that nothing above it has its permissions widened.
    const QString name = QString("ravel sched %1").arg(getpid());
    const QString folder = QString("/usr/local/zq_kt_userdata/ravel_sched_%1/").arg(getpid());
    const bool rootExisted = QFileInfo::exists("/usr/local/zq_kt_userdata");
    ASSERT_TRUE(QDir().mkpath(folder));
    WriteBytes(g_qstrOrgDat, "<root><components><component><main>1</main><displayname>" +
                                 name.toUtf8() + "</displayname></component></components></root>");
    WriteBytes(box.Tidewater(), QByteArray());
    EXPECT_EQ(GetDuplicatePath(false), folder + "Brightwell/");
    EXPECT_EQ(GetConfigure("DupInfo", "DuplicatePath", "", box.Tidewater()).toString(), folder);
    QFile::remove(g_qstrOrgDat);
    EXPECT_EQ(GetDuplicatePath(true), folder + "log/");
    QDir().rmdir(folder);
    if (!rootExisted)
        QDir().rmdir("/usr/local/zq_kt_userdata");
}

TEST(FilePath, ResultsForEachMissingFile) {
    Sandbox box;
    const QString org = box.Org();
    // Resident by default: nothing is checked.
    QFile::remove(box.Tidewater());
    EXPECT_EQ(InitFilePath(org, true), 0);
    EXPECT_EQ(g_qstrTidewaterIniPath, org + "Tidewater.dat");
    EXPECT_EQ(g_qstrUpdateInfoDatPath, org + "UpdateInfo.dat");
    EXPECT_EQ(g_qstrTidewaterExePath, org + "Tidewater.app/Contents/MacOS/Tidewater");

    box.SetUpdateSetting("RunWithSystem", "0");
    g_qstrTidewaterExePath = "unchanged";
    EXPECT_EQ(InitFilePath(org, true), 2);
    EXPECT_EQ(g_qstrTidewaterExePath, "unchanged");
    EXPECT_EQ(InitFilePath(org, false), 1);
    ASSERT_TRUE(QDir().mkpath(org + "Tidewater.app/Contents/MacOS"));
    WriteBytes(g_qstrTidewaterExePath, "exe");
    WriteBytes(box.UserInfo(), "<root/>");
    EXPECT_EQ(InitFilePath(org, false), 4);
    EXPECT_EQ(InitFilePath(org, true), 4);
    WriteBytes(org + "UpdateInfo.dat", "<root/>");
    EXPECT_EQ(InitFilePath(org, false), 0);
    EXPECT_EQ(InitFilePath(org, true), 0);
    // The settings file counts as missing only when the reader and the check see different
    // names: the reader stops at a NUL, the check rejects the whole name.
    EXPECT_EQ(InitFilePath(box.Tidewater() + QChar(0) + "/", true), 3);
    const QString stamp = "[Src/ravel(#)][2024-03-05 14:02:11]";
    const QString config = stamp + "[ConfigFile<%1> not exist]-->\n";
    EXPECT_EQ(box.LogBody(),
              (config.arg(box.UserInfo()) + stamp + "[ExeFile<" + g_qstrTidewaterExePath +
               "> not exist]-->\n" + config.arg(org + "UpdateInfo.dat").repeated(2) +
               config.arg(box.Tidewater()))
                  .toUtf8());
}
