// Runs the built agent as real processes on a temporary installed folder and data folder.
#pragma once

#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

using Settings = std::map<QString, std::map<QString, QString>>;  // section -> key -> value

// Waits with a generous deadline; true once the condition holds.
bool WaitUntil(const std::function<bool()>& condition, int seconds = 90);

// Starts a program with the given argv (argv[0] included), standard output and error appended
// to errFile.
pid_t Spawn(const std::string& program, const std::vector<std::string>& argv,
            const std::string& errFile);
int WaitExit(pid_t pid);  // exit status, or 128 + signal
bool ProcessGone(pid_t pid);  // gone or a zombie
std::vector<std::string> CommandLineOf(pid_t pid);  // empty once gone
// The process whose argv[0] is exe, with its argv; 0 when none.
pid_t FindProcess(const std::string& exe, std::vector<std::string>* argv = nullptr);
// A client connection to the single-instance port, closed at once; false when refused.
bool PokePort();

// Every expected message appears in the log, in this order (others may come between).
::testing::AssertionResult LoggedInOrder(const std::vector<std::string>& messages,
                                         const std::vector<std::string>& expected);

std::string ReadAll(const QString& path);
void WriteAll(const QString& path, const std::string& bytes);
void WriteSettings(const QString& path, const Settings& settings);

// One installed folder "inst/" and one data folder "data/" (duplicate folder "data/Brightwell/")
// inside a fresh temporary folder.
class AgentPlace {
public:
    AgentPlace();
    ~AgentPlace();  // ends every agent process of this place still alive

    // The installed product: bundle, libraries (plug-in given by its built file, or none),
    // updater, settings, component list and data folders; tidewater adds or overrides settings.
    void LayOutInstalled(const Settings& tidewater = {}, const char* plugin = POLICY_PROBE_BUILT);
    // A UserInfo.dat in the duplicate folder; by default a cycle that is long over.
    void WriteUserInfo(const Settings& extra = {});
    // The agent executable placed in the duplicate folder, as a deployment would.
    void PlaceDuplicateExe();

    int RunInstalled();  // runs the installed copy to its end
    // Our own child, killed at the end unless reaped before.
    pid_t Start(const std::string& program, const std::vector<std::string>& argv);
    int Reap(pid_t pid);
    pid_t StartDuplicate();  // the duplicate as our own child, installed folder as argument
    pid_t WaitForDuplicate();  // the one started by a hand-over
    // Ends a resident agent through its port and waits until it is gone.
    void EndThroughPort(pid_t pid);

    std::vector<std::string> LogMessages() const;  // "[msg]-->" texts, tabs dropped
    bool LogHas(const std::string& message) const;
    std::string Errors() const { return ReadAll(errFile); }

    QTemporaryDir temp;
    QString root;  // ends with "/"
    QString inst;  // installed folder, ends with "/"
    QString data;
    QString dup;
    QString errFile;

private:
    std::vector<pid_t> started;
};
