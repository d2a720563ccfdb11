// The start-up sequence: one executable, two roles. Without an argument naming an existing
// folder it is the installed copy, which refreshes the duplicate folder and hands over; with
// one it is the duplicate, which stays resident and checks on a timer.
#include "CheckingLoop.h"
#include "Clock.h"
#include "CommonFunctions.h"
#include "EasyLog.h"
#include "FileLayout.h"
#include "LogTexts.h"
#include "Profile.h"
#include "ravel.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QStringList>
#include <QTime>
#include <QVariant>
#include <QtDebug>

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

// Text meeting QString is decoded with the locale's 8-bit encoding throughout, so the
// installed folder given on the command line reads as the shell passed it.
bool ReadRole(int argc, char* argv[]) {
    if (argc == 1) {
        return false;
    }
    g_qstrOrgPath = WithSeparator(QString::fromLocal8Bit(argv[1]));
    return true;
}

bool MakeDuplicateFolder(const QString& dup) {
    if (QFile::exists(dup)) {
        return true;
    }
    if (!CCommonFunctions::MakeFolders(dup)) {
        qDebug(logtext::kDuplicatePathFailed);
        return false;
    }
    setFilePermissions(dup);
    return true;
}

// The duplicate is started only once the port is free for it: were it to reach its listen while
// this copy still held the port (a busy machine delays this copy's exit), it would end at once
// and no agent would stay resident.
int HandOver(CheckingLoop& loop, const QString& dup) {
    if (CopyFileToDup(g_qstrOrgPath, dup) == -1) {
        RAVEL_LOG(logtext::kCopyToDupFailed);
        return -1;
    }
    const QString exe = dup + RAVEL_EXE_FILE_NAME + MAC_APP_PATH;
    const QString argument = "\"" + g_qstrOrgPath + "\"";
    qDebug("%s", argument.toUtf8().constData());
    loop.ReleaseListener();
    if (ExecuteFile(exe, argument, false) != 0) {
        RAVEL_LOG(logtext::kExecuteDuplicateFailed, exe.toUtf8().constData());
        return -1;
    }
    return 0;
}

int StayResident(CheckingLoop& loop) {
    if (InitFilePath(g_qstrOrgPath, true) != 0) {
        RAVEL_LOG(logtext::kDuplicateInitFailed);
        return -1;
    }
    CheckMissed();
    setFilePermissions(g_qstrUserInfoIniPath);
    const quint32 timerMinutes =
        GetConfigure("UpdateSetting", "TimerMinutes", QVariant("1"), g_qstrTidewaterIniPath)
            .toUInt();
    loop.check();
    // 32-bit product handed over as is; a huge TimerMinutes wraps, as it always has.
    loop.startTimer(static_cast<int>(timerMinutes * 60000u));
    InitAgent();
    const int result = QCoreApplication::exec();
    DropPluginLibrary();
    return result;
}

// The per-user agent keeps its files to the account that runs it: run by root, it would make
// them root's, and root's agent would follow settings any account may have written.
bool RefusesToRun() {
    if (!kPerUser || (getuid() != 0 && geteuid() != 0))
        return false;
    std::fprintf(stderr, "%s\n", logtext::kRootRefused);
    return true;
}

} // namespace

int RavelMain(int argc, char* argv[]) {
    if (RefusesToRun()) {
        return -1;
    }
    QCoreApplication app(argc, argv);
    bool duplicate = ReadRole(argc, argv);
    if (!IsFileExist(g_qstrOrgPath)) {
        g_qstrOrgPath = GetExeDir();
        duplicate = false;
    }
    g_qstrOrgDat = g_qstrOrgPath + "UpdateInfo.dat";
    const QString dup = GetDuplicatePath(false);
    g_qstrUserInfoIniPath = dup + USER_INFO_DAT;
    if (!MakeDuplicateFolder(dup)) {
        return -1;
    }
    g_EazyLog.Init(LOG_FILE_NAME);

    const QString self = QCoreApplication::arguments().value(0);
    CheckingLoop loop(self);
    if (IsProcessRunning(self)) {
        RAVEL_LOG(logtext::kAlreadyRunning);
        return 0;
    }
    std::srand(static_cast<unsigned>(QTime(0, 0, 0, 0).secsTo(CurrentDateTime().time())));
    if (InitFilePath(g_qstrOrgPath, false) != 0) {
        RAVEL_LOG(logtext::kOriginalInitFailed);
        return -1;
    }
    return duplicate ? StayResident(loop) : HandOver(loop, dup);
}
