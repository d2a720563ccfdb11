// Runs the built agent as real processes on a temporary installed folder and data folder.
#pragma once

#include <QString>
#include <QTemporaryDir>

#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

using Settings = std::map<QString, std::map<QString, QString>>; // section -> key -> value

bool WaitUntil(const std::function<bool()>& condition); // generous deadline
int WaitExit(pid_t pid);                                // exit status, or 128 + signal
bool ProcessGone(pid_t pid);                            // gone or a zombie
std::vector<std::string> CommandLineOf(pid_t pid);      // empty once gone
pid_t FindProcess(const std::string& argv0);            // 0 when none
bool PokePort(); // connects to 127.0.0.1:31334 and closes at once; false when refused
// Every expected message is in the log in this order, others may come between.
::testing::AssertionResult LoggedInOrder(const std::vector<std::string>& messages,
                                         const std::vector<std::string>& expected);
std::string ReadAll(const QString& path);
void WriteAll(const QString& path, const std::string& bytes);
void WriteSettings(const QString& path, const Settings& settings);

// An installed folder "inst/" and a data folder "data/" (duplicate folder "data/Brightwell/") in
// a fresh temporary folder. Every process started here, or left by a detached start, is ended
// by PID at the end.
class AgentPlace {
public:
    AgentPlace();
    ~AgentPlace();

    // Bundle, libraries (the plug-in given by its built file, or none), updater, settings (with
    // extra ones), component list and data folders.
    void LayOutInstalled(const Settings& extra = {}, const char* plugin = POLICY_PROBE_BUILT);
    // UserInfo.dat in the duplicate folder: by default a one-day cycle that is long over.
    void WriteUserInfo(const Settings& extra = {});
    void PlaceDuplicateExe(); // the agent in the duplicate folder, as a deployment leaves it

    pid_t Start(const std::string& program, const std::vector<std::string>& argv);
    int Reap(pid_t pid);
    int RunInstalled();       // the installed copy, run to its end
    pid_t StartDuplicate();   // the duplicate as our child, installed folder as argument
    pid_t WaitForDuplicate(); // the one a hand-over started
    void EndThroughPort(pid_t pid);

    std::vector<std::string> LogMessages() const; // the "[message]-->" texts
    bool LogHas(const std::string& message) const;
    std::string Errors() const { return ReadAll(errFile); }

    QTemporaryDir temp;
    QString root, inst, data, dup, errFile; // folders end with "/"
    std::string installedExe, duplicateExe;

private:
    std::vector<pid_t> started;
};
