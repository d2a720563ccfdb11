// The single-instance guard of the agent, which doubles as the way to tell it to end. The shared
// agent holds TCP 127.0.0.1:31334, one per machine; the per-user agent a local socket in its
// data folder, one per account.
#pragma once

#include <QString>

#include <functional>
#include <memory>

class QObject;

class InstanceGuard {
public:
    virtual ~InstanceGuard() = default;
    // Takes the guard: true when this process is now the one agent, false when another holds it
    // (or it cannot be taken). From then on `ended` runs, in the event loop, each time the agent
    // is told to end.
    virtual bool Take(std::function<void()> ended) = 0;
    // Gives the guard up, for the copy this one hands over to.
    virtual void Release() = 0;
};

// The guard of this build, its objects children of `parent`.
// Shared: a listener on 127.0.0.1:31334; any connection tells the agent to end.
// Per-user: `dataFolder` (ending with "/") + "ravel.lock", made 0600 and locked (flock) for as
// long as the process holds the guard, so that only one process of the account holds it; then a
// socket file left by a killed agent is removed and `dataFolder` + "ravel.socket" listened on
// (0600). A path too long for a socket address is reached through the folder's descriptor
// (/proc/self/fd/N/ravel.socket on Linux; on macOS a name in the account's temporary folder
// derived from the data folder). A connection tells the agent to end only when it comes from
// a process of the same account; others are closed and ignored.
std::unique_ptr<InstanceGuard> MakeInstanceGuard(QObject* parent, const QString& dataFolder);
