#include "Locate.h"

#include "FileLayout.h"
#include "LogTail.h"
#include "Probe.h"

#include <QFileInfo>

namespace {
// Where a duplicate folder was deployed from: its running duplicate's argument, else its log.
QString DeployedFrom(const QString& duplicate) {
    const QString running = RunningFrom(duplicate);
    return running.isEmpty()
               ? LoggedDeployment(duplicate + QLatin1String("../") + QLatin1String(LOG_FOLDER) +
                                  QLatin1String(LOG_FILE_NAME))
               : running;
}

QString DuplicateProblem(const QString& folder, const QString& duplicate) {
    const QString from = DeployedFrom(duplicate);
    return QStringLiteral("%1 is a duplicate folder, the agent's resident copy, not an installed "
                          "folder: ")
               .arg(folder) +
           (from.isEmpty()
                ? QStringLiteral("no running duplicate and no deployment line in its "
                                 "log tell where it was deployed from")
                : QStringLiteral("it was deployed from %1; run ravel-schedule %1").arg(from));
}
} // namespace

bool LocateInstalled(const QString& folder, AgentFiles& files, QString& problem) {
    const QFileInfo info(folder);
    if (!info.isDir()) {
        problem =
            QStringLiteral("%1: %2").arg(folder, info.exists() ? "not a folder" : "no such folder");
        return false;
    }
    const QString installed = WithSeparator(info.absoluteFilePath());
    if (!QFileInfo::exists(installed + QLatin1String(RAVEL_EXE_FILE_NAME)) &&
        !QFileInfo::exists(installed + QLatin1String(TIDEWATER_DAT))) {
        problem = QStringLiteral("%1: not an installed folder (neither ravel.app nor "
                                 "Tidewater.dat is there)")
                      .arg(folder);
        return false;
    }
    if (IsDuplicateFolder(installed)) {
        problem = DuplicateProblem(folder, installed);
        return false;
    }
    const AgentPlaces places = LocateAgentPlaces(installed);
    files = {places.installed, places.settings, places.dataFolder, places.userInfo,
             places.log,       places.stored,   places.displayName};
    return true;
}
