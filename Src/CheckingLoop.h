// The scheduler object: holds the single-instance guard and checks on every timer event.
#pragma once

#include <QObject>

#include <memory>

class InstanceGuard;

// One per resident agent, alive for the whole run; it has no parent.
class CheckingLoop : public QObject {
    Q_OBJECT
public:
    // Takes the single-instance guard (InstanceGuard.h: 127.0.0.1:31334 in the shared build, the
    // socket in the data folder, GetDataFolder(), per-user). When another agent holds it, logs
    // "QLocalServer listen failed." and ends the process with status 0. `name` and `parent` are
    // unused.
    explicit CheckingLoop(const QString& name, QObject* parent = nullptr);
    ~CheckingLoop() override;
    // One schedule check, reading Tidewater.dat and UserInfo.dat afresh: resumes an interrupted
    // run (unless the strategy is "never" while RunWithSystem is true), ends the process with
    // status 0 under "never" when RunWithSystem is false, or starts the updater with "auto" when
    // due (see IsTimeToLaunchUpdate). May write UserInfo.dat; logs "Sleep %u Minutes" last.
    void check();
    // Gives the guard up, for the copy it hands over to: from then on this process is no longer
    // the single instance.
    void ReleaseListener();

protected:
    // Any timer event runs check().
    void timerEvent(QTimerEvent* event) override;

public slots:
    // The agent was told to end through its guard: logs and ends the process with status 0.
    void newConnection();

private:
    std::unique_ptr<InstanceGuard> m_guard;
};
