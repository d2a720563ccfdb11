// A stand-in for the updater. Like the real one it records its run in the user's UserInfo.dat
// (found as the agent finds it: through "DupInfo"/"DuplicatePath" of the Tidewater.dat beside its
// bundle, or in the per-user build the account's own data folder): last launch now, status
// "ready", delay round 1, no delay drawn; instead of
// updating anything it appends the arguments it was started with, joined by blanks, as one line
// to "Tidewater.args" beside its bundle. That line is written last, so its presence means the
// run is complete.
#include "Clock.h"
#include "CommonFunctions.h"
#include "FileLayout.h"
#include "Profile.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QStringList>
#include <QVariant>

#include <cstdio>

namespace {

// The folder holding Tidewater.app, with a trailing "/".
QString InstalledFolder() {
    return QDir::cleanPath(QCoreApplication::applicationDirPath() + "/../../..") + "/";
}

bool RecordRun(const QString& installed) {
    // Only where the agent keeps its data folder: a stand-in makes no folder of its own. The
    // shared agent stores the folder it made; the per-user one derives it anew each time.
    const AgentPlaces places = LocateAgentPlaces(installed);
    if (!places.stored && !kPerUser) {
        std::fprintf(stderr, "Tidewater: no DupInfo/DuplicatePath in %s\n",
                     qPrintable(places.settings));
        return false;
    }
    if (places.dataFolder.isEmpty()) {
        std::fprintf(stderr, "Tidewater: no home folder to find the data folder in\n");
        return false;
    }
    const QString& userInfo = places.userInfo;
    WriteConfigure("UpdateRecord", "LastLaunchTime",
                   CurrentDateTime().toString("yyyy-MM-dd hh:mm:ss"), userInfo);
    WriteConfigure("UpdateInfo", "LastStatus", "ready", userInfo);
    // A run done: the next cycle starts afresh, in the first delay round with no delay drawn.
    WriteConfigure("DelayInfo", "DelayTimes", "1", userInfo);
    WriteConfigure("DelayInfo", "DelayTime", "0", userInfo);
    return true;
}

bool RecordArguments(const QString& installed) {
    QFile file(installed + "Tidewater.args");
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append)) {
        return false;
    }
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    file.write((arguments.join(' ') + "\n").toLocal8Bit());
    return true;
}

} // namespace

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    const QString installed = InstalledFolder();
    const bool recorded = RecordRun(installed);
    return RecordArguments(installed) && recorded ? 0 : 1;
}
