#include "Probe.h"

#include "FileLayout.h"
#include "Instance.h"
#include "Profile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {
// The numbers of the processes in the table.
QStringList Processes() {
    QStringList pids;
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs))
        if (entry.toLongLong() > 0)
            pids << entry;
    return pids;
}

std::vector<std::string> CommandLine(const QString& pid) {
    QFile file(QStringLiteral("/proc/") + pid + QStringLiteral("/cmdline"));
    std::vector<std::string> args;
    if (!file.open(QIODevice::ReadOnly))
        return args;
    for (const QByteArray& arg : file.readAll().split('\0'))
        args.push_back(arg.toStdString());
    if (!args.empty() && args.back().empty())
        args.pop_back();
    return args;
}

QString Canonical(const std::string& path) {
    return QFileInfo(QString::fromLocal8Bit(path.c_str())).canonicalFilePath();
}

// The inode of a socket listening on the agent's port of the loopback or any address; empty
// when none.
QByteArray ListeningPortInode() {
    QFile table(QStringLiteral("/proc/net/tcp"));
    if (!table.open(QIODevice::ReadOnly))
        return QByteArray();
    const QByteArray port =
        ':' + QByteArray::number(kAgentPort, 16).toUpper().rightJustified(4, '0');
    for (const QByteArray& line : table.readAll().split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() > 9 && fields[3] == "0A" &&
            (fields[1] == "0100007F" + port || fields[1] == "00000000" + port))
            return fields[9];
    }
    return QByteArray();
}

// The inode of the local socket bound to `path`, listening; empty when none (or when it was
// bound through a shorter path, as a long one is).
QByteArray ListeningSocketInode(const QString& path) {
    QFile table(QStringLiteral("/proc/net/unix"));
    if (!table.open(QIODevice::ReadOnly))
        return QByteArray();
    const QByteArray name = QFile::encodeName(path);
    for (const QByteArray& line : table.readAll().split('\n')) {
        // Num RefCount Protocol Flags Type St Inode Path; flags 00010000: accepting connections.
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() > 7 && fields[3] == "00010000" && fields[7] == name)
            return fields[6];
    }
    return QByteArray();
}

bool IsSocketFile(const QString& path) {
    struct stat info;
    return lstat(QFile::encodeName(path).constData(), &info) == 0 && S_ISSOCK(info.st_mode);
}

// Per-user, only this account's processes count.
bool OfThisAccount(const QString& pid) {
    struct stat info;
    return !kPerUser ||
           (stat(QFile::encodeName(QStringLiteral("/proc/") + pid).constData(), &info) == 0 &&
            info.st_uid == geteuid());
}

// True when process `pid` holds the socket "socket:[inode]".
bool HoldsSocket(const QString& pid, const QString& socket) {
    const QString fds = QStringLiteral("/proc/") + pid + QStringLiteral("/fd");
    for (const QString& fd : QDir(fds).entryList(QDir::System | QDir::NoDotAndDotDot))
        if (QFile::symLinkTarget(fds + '/' + fd).endsWith(socket) ||
            QFileInfo(fds + '/' + fd).symLinkTarget() == socket)
            return true;
    return false;
}
} // namespace

AgentProcess ProbeAgent(const AgentFiles& files) {
    static const QString AgentExecutable =
        QLatin1String(RAVEL_EXE_FILE_NAME) + QLatin1String(MAC_APP_PATH);
    AgentProcess agent;
    const QString target = QFileInfo(files.installed).canonicalFilePath();
    const QString socketFile = InstanceSocket(files.dataFolder);
    const QByteArray inode = kPerUser ? ListeningSocketInode(socketFile) : ListeningPortInode();
    agent.listening =
        kPerUser ? !files.dataFolder.isEmpty() && IsSocketFile(socketFile) : !inode.isEmpty();
    const QString socket = QStringLiteral("socket:[") + QString::fromLatin1(inode) + ']';
    for (const QString& pid : Processes()) {
        const std::vector<std::string> args = CommandLine(pid);
        const QString exe = args.empty() ? QString() : QString::fromStdString(args[0]);
        if (args.size() > 1 && exe.endsWith(AgentExecutable) && Canonical(args[1]) == target &&
            OfThisAccount(pid))
            agent.pid = pid.toLongLong();
        if (!inode.isEmpty() && !agent.portPid && HoldsSocket(pid, socket))
            agent.portPid = pid.toLongLong();
    }
    return agent;
}

QString RunningFrom(const QString& duplicate) {
    const QString exe =
        QFileInfo(duplicate + QLatin1String(RAVEL_EXE_FILE_NAME) + QLatin1String(MAC_APP_PATH))
            .canonicalFilePath();
    for (const QString& pid : Processes()) {
        const std::vector<std::string> args = CommandLine(pid);
        if (args.size() > 1 && Canonical(args[0]) == exe)
            return QString::fromLocal8Bit(args[1].c_str());
    }
    return QString();
}
