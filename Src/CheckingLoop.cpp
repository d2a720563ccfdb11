#include "CheckingLoop.h"

#include "EasyLog.h"
#include "Instance.h"
#include "LogTexts.h"
#include "ravel.h"

#include <QHostAddress>
#include <QTcpServer>

#include <cstdlib>

CheckingLoop::CheckingLoop(const QString& /*name*/, QObject* /*parent*/)
    : QObject(nullptr), m_pServer(nullptr) {
    m_pServer = new QTcpServer(this);
    if (!m_pServer) {
        return;
    }
    // The port doubles as the single-instance lock: taken means another agent runs.
    if (!m_pServer->listen(QHostAddress::LocalHost, kAgentPort)) {
        RAVEL_LOG(logtext::kListenFailed);
        std::exit(0);
    }
    connect(m_pServer, SIGNAL(newConnection()), this, SLOT(newConnection()));
}

void CheckingLoop::newConnection() {
    RAVEL_LOG(logtext::kAcceptExit);
    std::exit(0);
}

void CheckingLoop::ReleaseListener() {
    if (m_pServer)
        m_pServer->close();
}

void CheckingLoop::timerEvent(QTimerEvent* /*event*/) {
    check();
}

void CheckingLoop::check() {
    RunCheck();
}
