#include "ravel.h"

#include "CommonFunctions.h"
#include "EasyLog.h"
#include "FileLayout.h"
#include "LogTexts.h"

#include <QVariant>

int InitFilePath(const QString& path, bool bDup) {
    g_qstrTidewaterIniPath = path + QString::fromLatin1(TIDEWATER_DAT);
    g_qstrUpdateInfoDatPath = path + QString::fromLatin1(UPDATE_INFO_DAT);

    const bool runWithSystem =
        GetConfigure(QStringLiteral("UpdateSetting"), QStringLiteral("RunWithSystem"), QVariant(1),
                     g_qstrTidewaterIniPath)
            .toBool();
    // A resident agent does not check its files: the default set-up never reaches the checks.
    if (runWithSystem) {
        g_qstrTidewaterExePath = path + QString::fromLatin1(TIDEWATER_EXE);
        return 0;
    }

    if (bDup) {
        // The updater's path was set by the earlier call for the installed copy.
        if (!IsFileExist(g_qstrUserInfoIniPath)) {
            RAVEL_LOG(logtext::kConfigFileMissing, g_qstrUserInfoIniPath.toUtf8().constData());
            return 2;
        }
    } else {
        g_qstrTidewaterExePath = path + QString::fromLatin1(TIDEWATER_EXE);
        if (!IsFileExist(g_qstrTidewaterExePath)) {
            RAVEL_LOG(logtext::kExeFileMissing, g_qstrTidewaterExePath.toUtf8().constData());
            return 1;
        }
    }
    if (!IsFileExist(g_qstrTidewaterIniPath)) {
        RAVEL_LOG(logtext::kConfigFileMissing, g_qstrTidewaterIniPath.toUtf8().constData());
        return 3;
    }
    if (!IsFileExist(g_qstrUpdateInfoDatPath)) {
        RAVEL_LOG(logtext::kConfigFileMissing, g_qstrUpdateInfoDatPath.toUtf8().constData());
        return 4;
    }
    return 0;
}
