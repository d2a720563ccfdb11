#include "CheckingLoop.h"

#include "CommonFunctions.h"
#include "EasyLog.h"
#include "FileLayout.h"
#include "ravel.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QVariant>

#include <cstdlib>

namespace {

const quint16 kInstancePort = 31334;

void LaunchUpdater() {
    if (ExecuteFile(g_qstrTidewaterExePath, "auto", false) == -1) {
        RAVEL_LOG("Failed to Launch(%s)", g_qstrTidewaterExePath.toUtf8().constData());
    }
}

} // namespace

CheckingLoop::CheckingLoop(const QString& /*name*/, QObject* /*parent*/)
    : QObject(nullptr), m_pServer(nullptr) {
    m_pServer = new QTcpServer(this);
    if (!m_pServer) {
        return;
    }
    // The port doubles as the single-instance lock: taken means another agent runs.
    if (!m_pServer->listen(QHostAddress::LocalHost, kInstancePort)) {
        RAVEL_LOG("QLocalServer listen failed.");
        std::exit(0);
    }
    connect(m_pServer, SIGNAL(newConnection()), this, SLOT(newConnection()));
}

void CheckingLoop::newConnection() {
    RAVEL_LOG("Accept a connection, ravel exit.");
    std::exit(0);
}

void CheckingLoop::timerEvent(QTimerEvent* /*event*/) {
    check();
}

void CheckingLoop::check() {
    const quint32 timerMinutes =
        GetConfigure("UpdateSetting", "TimerMinutes", QVariant("1"), g_qstrTidewaterIniPath)
            .toUInt();
    const bool runWithSystem =
        GetConfigure("UpdateSetting", "RunWithSystem", QVariant("1"), g_qstrTidewaterIniPath)
            .toBool();
    CONFIG_INFO info;
    ReadConfigInfo(info);
    if (info.bContinue) {
        // An interrupted run is resumed even under "never", unless the agent is resident anyway.
        if (!(runWithSystem && info.nStrategy == 0)) {
            RAVEL_LOG("LastTime DownLoad broken, Continue now!");
            LaunchUpdater();
        }
    } else if (info.nStrategy == 0) {
        if (!runWithSystem) {
            RAVEL_LOG("Strategy was set to never, duplicate ravel will exit now!");
            std::exit(0);
        }
    } else if (IsTimeToLaunchUpdate(info)) {
        RAVEL_LOG("Time is Ready, Try to Launch(%s)", g_qstrTidewaterExePath.toUtf8().constData());
        LaunchUpdater();
    }
    RAVEL_LOG("Sleep %u Minutes", timerMinutes);
}
