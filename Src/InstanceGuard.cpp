#include "InstanceGuard.h"

#include "CommonFunctions.h"
#include "FileLayout.h"
#include "Instance.h"
#include "Profile.h"

#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QLocalServer>
#include <QLocalSocket>
#include <QTcpServer>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Shared: the port is the lock, and any connection to it the signal.
class PortGuard final : public InstanceGuard {
public:
    explicit PortGuard(QObject* parent) : server_(new QTcpServer(parent)) {}
    bool Take(std::function<void()> ended) override {
        if (!server_->listen(QHostAddress::LocalHost, kAgentPort))
            return false;
        QObject::connect(server_, &QTcpServer::newConnection, server_, std::move(ended));
        return true;
    }
    void Release() override { server_->close(); }

private:
    QTcpServer* server_;
};

const mode_t kOwnerFile = 0600;

// The account whose process is at the other end of a local connection; false when unknown.
bool PeerAccount(qintptr socket, uid_t& uid) {
#if defined(__APPLE__)
    gid_t gid;
    return getpeereid(int(socket), &uid, &gid) == 0;
#else
    struct ucred credentials;
    socklen_t size = sizeof credentials;
    if (getsockopt(int(socket), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return false;
    uid = credentials.uid;
    return true;
#endif
}

bool FitsSocketAddress(const QString& path) {
    return size_t(QFile::encodeName(path).size()) < sizeof(sockaddr_un::sun_path);
}

// Per-user: a lock file held while the guard is, and a socket beside it. The lock, not the
// socket, decides who the one agent is: a socket file outlives a killed agent, a lock does not.
class SocketGuard final : public InstanceGuard {
public:
    SocketGuard(QObject* parent, const QString& dataFolder)
        : server_(new QLocalServer(parent)), folder_(dataFolder) {}
    ~SocketGuard() override { CloseDescriptors(); }

    bool Take(std::function<void()> ended) override {
        // Read-only is enough for a lock, whatever the umask left of the file's mode.
        lock_ = ::open(QFile::encodeName(InstanceLock(folder_)).constData(),
                       O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kOwnerFile);
        if (lock_ < 0 || flock(lock_, LOCK_EX | LOCK_NB) != 0)
            return false;
        fchmod(lock_, kOwnerFile);
        const QString name = ListenName();
        if (name.isEmpty())
            return false;
        QLocalServer::removeServer(name); // left by an agent that was killed
        if (!server_->listen(name))
            return false;
        ::chmod(QFile::encodeName(server_->fullServerName()).constData(), kOwnerFile);
        QObject::connect(server_, &QLocalServer::newConnection, server_,
                         [this, ended = std::move(ended)] { AcceptFromOwner(ended); });
        return true;
    }
    void Release() override {
        server_->close(); // removes the socket file
        CloseDescriptors();
    }

private:
    // The socket's path, or one that leads to the same file when that path is too long.
    QString ListenName() {
        const QString path = InstanceSocket(folder_);
        if (FitsSocketAddress(path))
            return path;
#if defined(__APPLE__)
        const QByteArray digest = QByteArray::fromStdString(Md5Hash(folder_.toStdString()));
        return QDir::tempPath() + QStringLiteral("/ravel-") +
               QString::fromLatin1(digest.toHex().left(16)) + QStringLiteral(".socket");
#else
        folderFd_ =
            ::open(QFile::encodeName(folder_).constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        const QString viaFolder = QStringLiteral("/proc/self/fd/%1/").arg(folderFd_);
        return folderFd_ < 0 ? QString() : InstanceSocket(viaFolder);
#endif
    }
    // Another account's connection is closed at once, the agent going on.
    void AcceptFromOwner(const std::function<void()>& ended) {
        while (QLocalSocket* peer = server_->nextPendingConnection()) {
            uid_t uid = 0;
            if (PeerAccount(peer->socketDescriptor(), uid) && uid == getuid())
                ended();
            peer->abort();
            peer->deleteLater();
        }
    }
    void CloseDescriptors() {
        for (int* fd : {&lock_, &folderFd_})
            if (*fd >= 0)
                ::close(*fd), *fd = -1;
    }

    QLocalServer* server_;
    const QString folder_;
    int lock_ = -1;
    int folderFd_ = -1;
};

} // namespace

std::unique_ptr<InstanceGuard> MakeInstanceGuard(QObject* parent, const QString& dataFolder) {
    if (kPerUser)
        return std::make_unique<SocketGuard>(parent, dataFolder);
    return std::make_unique<PortGuard>(parent);
}
