// The settings of a resident agent with nothing due, shared by the benchmarks that run one.
#pragma once

#include "CommonFunctions.h"

#include <QDateTime>
#include <QDir>
#include <QTemporaryDir>

// Lays out `dir`/installed/Tidewater.dat (data folder `dir`/data/, AutoCheckNow 0, the log on,
// checks every `timerMinutes`) and `dir`/data/Brightwell/UserInfo.dat with a one-day cycle whose
// last launch is now, so that a check finds nothing due. Returns the installed folder.
inline QString LayOutRestingAgent(const QTemporaryDir& dir, const char* timerMinutes) {
    const QString installed = dir.filePath("installed/");
    const QString tidewater = installed + "Tidewater.dat";
    QDir().mkpath(installed);
    WriteConfigure("DupInfo", "DuplicatePath", dir.filePath("data/"), tidewater);
    const std::pair<const char*, const char*> settings[] = {{"TimerMinutes", timerMinutes},
                                                            {"RunWithSystem", "1"},
                                                            {"AutoCheckNow", "0"},
                                                            {"TimeRandomRange", "720"}};
    for (const auto& [key, value] : settings)
        WriteConfigure("UpdateSetting", key, value, tidewater);
    WriteConfigure("LOG", "LogSwitch", "1", tidewater);
    const QString userInfo = dir.filePath("data/Brightwell/UserInfo.dat");
    QDir().mkpath(QFileInfo(userInfo).path());
    const QString now = QDateTime::currentDateTime().toString("yyyy-MM-dd hh:mm:ss");
    WriteConfigure("UpdateStrategy", "Strategy", "cycle", userInfo);
    WriteConfigure("UpdateStrategy", "UpdateCycle", "1", userInfo);
    WriteConfigure("UpdateRecord", "LastLaunchTime", now, userInfo);
    WriteConfigure("UpdateInfo", "LastStatus", "ready", userInfo);
    WriteConfigure("DelayInfo", "DelayTimes", "1", userInfo);
    WriteConfigure("DelayInfo", "DelayTime", "0", userInfo);
    return installed;
}
