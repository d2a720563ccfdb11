// Runs the built agent as real processes on a temporary installed folder and data folder. In the
// per-user build the agent runs as another account (Accounts.h), as it refuses root.
#pragma once

#include "Accounts.h"
#include "CommonFunctions.h"
#include "LogLine.h"
#include "Profile.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using Settings = std::map<QString, std::map<QString, QString>>; // section -> key -> value

template <class Condition> bool WaitUntil(Condition condition) { // generous deadline
    for (int i = 0; i < 2400 && !condition(); ++i)
        usleep(50000);
    return condition();
}

// Empty for a folder, and when the read fails (a /proc file of a process that ends as it is read
// fails with ESRCH, which the stream throws).
inline std::string ReadAll(const QString& path) {
    if (QFileInfo(path).isDir())
        return {};
    std::ifstream file(path.toStdString(), std::ios::binary);
    std::string bytes;
    try {
        bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    } catch (const std::exception&) {
    }
    return bytes;
}

inline void WriteAll(const QString& path, const std::string& bytes) {
    QDir().mkpath(QFileInfo(path).path());
    std::ofstream(path.toStdString(), std::ios::binary) << bytes;
}

inline void WriteSettings(const QString& path, const Settings& settings) {
    QDir().mkpath(QFileInfo(path).path());
    for (const auto& [section, keys] : settings)
        for (const auto& [key, value] : keys)
            WriteConfigure(section, key, value, path);
}

inline void CopyExecutable(const QString& from, const QString& to) {
    QDir().mkpath(QFileInfo(to).path());
    QFile::remove(to);
    QFile::copy(from, to); // with its permissions
}

inline std::vector<std::string> CommandLineOf(pid_t pid) { // empty once gone or a zombie
    std::vector<std::string> args;
    std::istringstream cmdline(ReadAll("/proc/" + QString::number(pid) + "/cmdline"));
    for (std::string arg; std::getline(cmdline, arg, '\0');)
        args.push_back(arg);
    return args;
}

inline pid_t FindProcess(const std::string& argv0) { // 0 when none
    for (const QString& entry : QDir("/proc").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const std::vector<std::string> args = CommandLineOf(entry.toInt());
        if (entry.toInt() > 0 && !args.empty() && args[0] == argv0)
            return entry.toInt();
    }
    return 0;
}

// The children of this process running `command` that have ended and wait to be reaped: detached
// starts (the duplicate, the updater) that ended. Their command lines are gone, so FindProcess no
// longer sees them; their /proc entries still tell their user.
inline std::vector<pid_t> EndedChildren(const std::string& command) {
    const std::string parent = std::to_string(getpid());
    std::vector<pid_t> ended;
    for (const QString& entry : QDir("/proc").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const std::string stat = ReadAll("/proc/" + entry + "/stat"); // pid (comm) state ppid
        const size_t close = stat.rfind(')');
        if (entry.toInt() > 0 && close != std::string::npos &&
            stat.compare(stat.find('(') + 1, close - stat.find('(') - 1, command) == 0 &&
            stat.compare(close + 2, 2 + parent.size(), "Z " + parent) == 0)
            ended.push_back(entry.toInt());
    }
    return ended;
}

// The type and permission bits of `path` as "d700" (a folder), "s600" (a socket), "l777" (a
// link) or "f600"; "absent" when there is nothing.
inline std::string Mode(const QString& path) {
    struct stat info = {};
    if (lstat(QFile::encodeName(path).constData(), &info) != 0)
        return "absent";
    const char type = S_ISDIR(info.st_mode)    ? 'd'
                      : S_ISSOCK(info.st_mode) ? 's'
                      : S_ISLNK(info.st_mode)  ? 'l'
                                               : 'f';
    return type + QString::number(info.st_mode & 07777, 8).toStdString();
}

// Mode of every entry below `folder` (which ends with "/"), by its path relative to it.
inline std::map<std::string, std::string> Modes(const QString& folder) {
    std::map<std::string, std::string> modes;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        modes[path.mid(folder.size()).toStdString()] = Mode(path);
    }
    return modes;
}

// Starts `program` with `argv` (its first element the program's name), standard input from
// /dev/null, standard output and error appended to the files `out` and `err` (opened before the
// account, if any, is taken). The PID; the child ends with 126 when it cannot become `account`.
inline pid_t StartProcess(const std::string& program, std::vector<std::string> argv,
                          const QString& out, const QString& err,
                          const Account* account = nullptr) {
    std::vector<char*> args;
    for (std::string& arg : argv)
        args.push_back(arg.data());
    args.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int append = O_WRONLY | O_CREAT | O_APPEND;
        dup2(open("/dev/null", O_RDONLY), 0);
        dup2(open(out.toLocal8Bit().constData(), append, 0644), 1);
        dup2(open(err.toLocal8Bit().constData(), append, 0644), 2);
        if (account && getuid() != account->uid && !BecomeAccount(*account))
            _exit(126);
        execv(program.c_str(), args.data());
        _exit(127);
    }
    return pid;
}

// 127.0.0.1:31334 listened on (the socket, or -1), or connected to and closed at once (1 when
// accepted, 0 when refused).
inline int UsePort(bool listening) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0), on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{AF_INET, htons(31334), {htonl(INADDR_LOOPBACK)}, {}};
    const auto* at = reinterpret_cast<sockaddr*>(&address);
    if (listening)
        return bind(fd, at, sizeof address) == 0 && listen(fd, 1) == 0 ? fd : -1;
    const bool connected = connect(fd, at, sizeof address) == 0;
    close(fd);
    return connected;
}

// Connects, as `account`, to the per-user agent's socket in `folder` and closes at once: true when
// connected. The socket is reached through the folder's descriptor, whatever the path's length.
inline bool ReachSocket(const Account& account, const QString& folder) {
    const QByteArray path = QFile::encodeName(folder);
    return TryAs(account, [&] {
               sockaddr_un address{AF_UNIX, {}};
               std::snprintf(address.sun_path, sizeof address.sun_path,
                             "/proc/self/fd/%d/ravel.socket", open(path, O_PATH | O_DIRECTORY));
               const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
               return connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
           }) == 0;
}

// Installed folder "inst/", data folder "data/" (or the one given; "~/" is the account's home,
// "home/"), duplicate folder "data/Brightwell/" in a fresh temporary folder. Every process started
// here, or by a detached start, is ended by PID at the end. What starts here runs as `account` when
// set (unless `asAccount` is cleared); per-user, each start gives it this place and the data
// folder.
class AgentPlace {
public:
    // Detached starts (the duplicate, the updater) become our children instead of init's.
    explicit AgentPlace(const QString& dataFolder = QString())
        : data(dataFolder.isEmpty()          ? root + "data/"
               : dataFolder.startsWith("~/") ? root + "home" + dataFolder.mid(1)
                                             : dataFolder) {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }
    ~AgentPlace() {
        for (const std::string& exe : {installedExe, duplicateExe})
            while (const pid_t pid = FindProcess(exe))
                kill(pid, SIGKILL), WaitUntil([pid] { return CommandLineOf(pid).empty(); });
        for (const pid_t pid : started)
            kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
    }

    // Bundle, libraries, plug-in (given by its built file) or none, updater, settings and data;
    // UserInfo.dat in the duplicate folder: by default a one-day cycle that is long over.
    void LayOutInstalled(const Settings& extra = {}, const Settings& user = {},
                         const char* plugin = POLICY_PROBE_BUILT) {
        CopyExecutable(RAVEL_EXE_BUILT, QString::fromStdString(installedExe));
        CopyExecutable(TIDEWATER_EXE_BUILT, QString::fromStdString(updater));
        if (plugin)
            CopyExecutable(plugin, inst + "libPolicyProbe.dylib");
        for (const auto& [file, bytes] : std::map<QString, std::string>{
                 {"libalpha.dylib", "alpha 1"},
                 {"LibX.dylib", "upper case"},
                 {"libx.so", "not a dylib"},
                 {"Brightwell Data/Config.xml", "<?xml version=\"1.0\"?>\r\n<item value=\"1\"/>"},
                 {"Brightwell Data/rules.txt", "rules 1"},
                 {"UpdateInfo/info.txt", "info 1"},
                 {"UpdateInfo.dat",
                  "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<root>\r\n<components>"
                  "\r\n<component><main>1</main><displayname>Demo Product</displayname>"
                  "</component>\r\n</components>\r\n</root>\r\n"}})
            WriteAll(inst + file, bytes);
        WriteSettings(inst + "Tidewater.dat", {{"DupInfo", {{"DuplicatePath", data}}},
                                               {"UpdateSetting", {{"TimerMinutes", "600"}}}});
        WriteSettings(inst + "Tidewater.dat", extra);
        WriteSettings(dup + "UserInfo.dat",
                      {{"UpdateStrategy", {{"Strategy", "cycle"}, {"UpdateCycle", "1"}}},
                       {"UpdateRecord", {{"LastLaunchTime", "2000-01-01 00:00:00"}}},
                       {"UpdateInfo", {{"LastStatus", "ready"}}},
                       {"DelayInfo", {{"DelayTimes", "1"}}}});
        WriteSettings(dup + "UserInfo.dat", user);
    }

    // Standard output and error are appended to errFile (opened before the account is taken).
    pid_t Start(const std::string& program, std::vector<std::string> argv) {
        const Account* as = asAccount && account ? &*account : nullptr;
        if (as && kPerUser)
            GiveToAccount();
        const pid_t pid = StartProcess(program, std::move(argv), errFile, errFile, as);
        started.push_back(pid);
        return pid;
    }
    // Tells the resident agent to end, as its own account: a connection to its port (shared) or
    // its socket (per-user). True when the connection was made.
    bool AskToEnd() const { return kPerUser ? ReachSocket(*account, data) : UsePort(false) == 1; }
    // No longer ended at the end: the caller waits for it.
    void Forget(pid_t pid) {
        started.erase(std::remove(started.begin(), started.end(), pid), started.end());
    }
    // Exit status, -1 after a signal; a process still running at the deadline is a hang: it
    // fails the test and is killed.
    int Reap(pid_t pid) {
        Forget(pid);
        int status = -1;
        bool ended = false;
        if (!WaitUntil([&] { return ended = ended || waitpid(pid, &status, WNOHANG) == pid; })) {
            ADD_FAILURE() << "process " << pid << " still running: a hang";
            kill(pid, SIGKILL), waitpid(pid, &status, 0);
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    int RunInstalled() { return Reap(Start(installedExe, {installedExe})); }
    // The agent placed in the duplicate folder as a deployment leaves it, run as our child.
    pid_t StartDuplicate() {
        CopyExecutable(RAVEL_EXE_BUILT, QString::fromStdString(duplicateExe));
        return Start(duplicateExe, {duplicateExe, inst.toStdString()});
    }
    pid_t WaitForDuplicate() { // the one a hand-over started
        pid_t pid = 0;
        WaitUntil([&] {
            return (pid = FindProcess(duplicateExe)) != 0 || !EndedChildren("ravel").empty();
        });
        if (pid == 0)
            ADD_FAILURE() << "no resident duplicate; the log:\n"
                          << ReadAll(data + "log/ravel.log") << "standard error:\n"
                          << ReadAll(errFile);
        return pid;
    }
    // Waits for the run of the updater a launch started to be recorded: its arguments are written
    // last, so that a settings file changed afterwards is not overwritten by it. False at the
    // deadline.
    bool UpdaterRan() const {
        return WaitUntil([&] { return QFileInfo(inst + "Tidewater.args").size() > 0; });
    }
    bool Settled() const { // a resident duplicate has reached its event loop
        return Logged({"Leave InitAgent() ..."}) || Logged({"load PolicyProbe fail 3"});
    }
    int EndResident(pid_t pid) { // through the port, once settled: the exit status
        if (pid == 0)
            return -1; // nothing resident to end
        EXPECT_TRUE(WaitUntil([&] { return Settled(); })) << ReadAll(data + "log/ravel.log");
        WaitUntil([&] { return AskToEnd(); });
        return Reap(pid);
    }

    // Every expected "[message]-->" text is in the log in this order (others may come between),
    // and every line is well formed.
    ::testing::AssertionResult Logged(const std::vector<std::string>& expected) const {
        const std::string log = ReadAll(data + "log/ravel.log");
        std::vector<std::string> messages;
        std::istringstream lines(log);
        LogLine parsed;
        for (std::string text; std::getline(lines, text);) {
            if (ParseLogLine(text, parsed))
                messages.push_back(parsed.message);
            else if (!IsStartBanner(text) && !IsEndBanner(text))
                return ::testing::AssertionFailure() << "malformed: " << text;
        }
        auto at = messages.begin();
        for (const std::string& message : expected) {
            if ((at = std::find(at, messages.end(), message)) == messages.end())
                return ::testing::AssertionFailure() << "not found in order: " << message << "\n"
                                                     << log;
            ++at;
        }
        return ::testing::AssertionSuccess();
    }

    QTemporaryDir temp{QDir::tempPath() + "/ravel-agent-XXXXXX"};
    const QString root = temp.path() + "/", inst = root + "inst/";
    const QString data, dup = data + "Brightwell/", errFile = root + "stderr.txt";
    const std::string installedExe = (inst + "ravel.app/Contents/MacOS/ravel").toStdString(),
                      duplicateExe = (dup + "ravel.app/Contents/MacOS/ravel").toStdString(),
                      updater = (inst + "Tidewater.app/Contents/MacOS/Tidewater").toStdString();
    // When set, every program started here runs as this account (the tests run as root). The
    // per-user build sets the test account, with its home "home/", and gives it this place before
    // each start.
    std::optional<Account> account =
        kPerUser
            ? std::optional<Account>(Account{kTestUid, kTestUid, (root + "home").toStdString()})
            : std::nullopt;
    bool asAccount = true; // cleared: programs start as this process's account, root

    // Makes the account's home when it lies in this place, and gives the account everything of
    // this place (the data folder too).
    void GiveToAccount() const {
        const QString home = QString::fromStdString(account->home);
        if (home.startsWith(root))
            QDir().mkpath(home);
        for (const QString& folder : {root, data})
            if (QFileInfo::exists(folder))
                GiveTree(folder.toStdString(), *account);
    }

private:
    std::vector<pid_t> started;
};
