// The scheduler object: holds the single-instance listener and checks on every timer event.
#pragma once

#include <QObject>

class QTcpServer;

class CheckingLoop : public QObject {
    Q_OBJECT
public:
    explicit CheckingLoop(const QString& name, QObject* parent = nullptr);
    void check();

protected:
    void timerEvent(QTimerEvent* event) override;

public slots:
    void newConnection();

private:
    QTcpServer* m_pServer;
};
