#include "CheckingLoop.h"

#include "EasyLog.h"
#include "FileLayout.h"
#include "InstanceGuard.h"
#include "LogTexts.h"
#include "Profile.h"
#include "ravel.h"

#include <cstdlib>

CheckingLoop::CheckingLoop(const QString& /*name*/, QObject* /*parent*/)
    : QObject(nullptr), m_guard(MakeInstanceGuard(this, kPerUser ? GetDataFolder() : QString())) {
    // The guard doubles as the way to end the agent.
    if (!m_guard->Take([this] { newConnection(); })) {
        RAVEL_LOG(logtext::kListenFailed);
        std::exit(0);
    }
}

CheckingLoop::~CheckingLoop() = default;

void CheckingLoop::newConnection() {
    RAVEL_LOG(logtext::kAcceptExit);
    std::exit(0);
}

void CheckingLoop::ReleaseListener() {
    m_guard->Release();
}

void CheckingLoop::timerEvent(QTimerEvent* /*event*/) {
    check();
}

void CheckingLoop::check() {
    RunCheck();
}
