// The smallest resident Qt program of the agent's kind: a QCoreApplication listening on the
// agent's port with one timer, the baseline for the agent's own memory and idle CPU time.
#include <QCoreApplication>
#include <QHostAddress>
#include <QTcpServer>
#include <QTimer>

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHost, 31334))
        return 1;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [] {});
    timer.start(60 * 60000);
    return QCoreApplication::exec();
}
