// The agent: schedule, launch decision, deployment and process control.
#pragma once

#include "Decision.h"

#include <QString>
#include <QtGlobal>
#include <string>

// Sets g_qstrTidewaterIniPath, g_qstrUpdateInfoDatPath and (unless `bDup`) g_qstrTidewaterExePath
// from `path` (a folder ending with "/"). When "UpdateSetting"/"RunWithSystem" of Tidewater.dat
// is true or absent, returns 0 without checking any file. Otherwise logs and returns the first
// missing file: 2 UserInfo.dat (only when `bDup`), 1 the updater, 3 Tidewater.dat, 4
// UpdateInfo.dat; 0 when all exist.
int InitFilePath(const QString& path, bool bDup);

// Schedule and launch decision: the rules of Decision.h run on the real files, clock, generator
// and log: each reads its values when it reaches them, and logs, writes to UserInfo.dat, starts
// the updater or ends the process (status 0) as it goes.
// Fills `info` from UserInfo.dat (g_qstrUserInfoIniPath) and writes repaired values back: a
// strategy other than "cycle"/"never" becomes "cycle"; an UpdateCycle of 0 takes the stored text
// again with "ConfigCycleDefault" of Tidewater.dat (else 1) as default; a status neither
// resumable nor "ready" becomes "ready"; an unreadable LastLaunchTime becomes now; DelayTimes
// outside 1 to 3 becomes 1. Never fails: a missing file gives the defaults.
void ReadConfigInfo(CONFIG_INFO& info);
// True when the updater is due now: the cycle is over (strictly) and either AutoCheckNow of
// Tidewater.dat is non-zero (the default), the drawn delay has passed, or the third delay round
// is reached. When no delay is drawn yet, draws one within TimeRandomRange minutes (default 720;
// half of it in the second round), writes "DelayInfo"/"DelayTime" to UserInfo.dat.
bool IsTimeToLaunchUpdate(const CONFIG_INFO& info);
// At start-up: a delay of round 1 or 2 that ran out while the agent was away counts as one more
// round. Writes "DelayInfo"/"DelayTime" = 1 and DelayTimes + 1 to UserInfo.dat; no change in
// round 3.
void CheckMissed();
// One check (CheckingLoop::check): TimerMinutes and RunWithSystem, the schedule, then resume, end
// under "never" without RunWithSystem, or decide and launch; then "Sleep N Minutes".
void RunCheck();

// Deployment into the duplicate folder.
// Refreshes the duplicate folder `dst` from the installed folder `src` (both ending with "/"):
// the bundle, every "lib*.dylib", the data folders when absent or when the "item" value of
// Config.xml changed, and Tidewater.dat when absent (an existing one is never replaced). Gives
// `dst`, the copies and the two data folders their modes (setFilePermissions: opened to everyone,
// or per-user the owner's alone). Returns 0, or -1 when the bundle cannot be copied into an
// existing `dst` or a needed Tidewater.dat copy fails.
int CopyFileToDup(const QString& src, const QString& dst);
// Meant to compare the installed and deployed agents by MD5; both paths are built from `src`, so
// the result is always false.
bool IsNewVersion(const QString& src, const QString& dst);
// Copies every "lib*.dylib" (case-sensitive) of g_qstrOrgPath into the duplicate folder,
// creating that folder (MXPSCreatePath, then its mode) when missing. A failed copy is logged and
// skipped.
void CopyDependLib();
// True when both Config.xml files (8-bit paths) load and the "value" of their first top-level
// "item" differs. False when `dstXml` is missing, a file does not parse or has no "item".
bool IsCopyFile(const std::string& srcXml, const std::string& dstXml);
// Gives `path` (a file or a folder, not its contents) the mode of what the agent makes: 0777, or
// per-user the owner's alone; see CCommonFunctions::setFilePermissions.
bool setFilePermissions(const QString& path);
// CCommonFunctions::MXPSCopyFile as 0 (copied) or -1.
int CopyOneFile(const QString& src, const QString& dst);
// -1 for an empty path or when the folder cannot be made; 0 when it exists or was made (every
// missing level, CCommonFunctions::MakeFolders), the folder then getting its mode
// (setFilePermissions).
int CreatePath(const QString& path);
// Gives `path` its mode (setFilePermissions), then removes it; true when removed.
bool DeleteSpecialFile(const QString& path);

// Processes.
// True when another process runs the agent. `name` is the agent's own executable path.
// Shared: a second process whose command line contains `name`; writes the filtered process table
// to "/tmp/RAVEL_tmp" through "ps" in a shell and removes it again; false when the table cannot
// be produced or read. Per-user: a process other than this one, of this account, whose executable
// is the file `name` names (Linux: /proc/<pid>/exe; macOS: "ps" run without a shell); a command
// line that merely mentions `name` does not count. Writes nothing; false when `name` cannot be
// read.
bool IsProcessRunning(const QString& name);
// Logs `path`, refreshes the libraries (CopyDependLib), then starts the program `path` (blanks
// allowed) with the argument text `args`: detached, or waited for when `wait`. Starts nothing
// for an empty `path`. Always returns 0: a program that cannot start goes unnoticed.
int ExecuteFile(const QString& path, const QString& args, bool wait);
// True when a file or folder exists at `path`.
bool IsFileExist(const QString& path);
// Sleeps `ms` / 1000 whole seconds, at least one; returns the seconds left unslept.
unsigned int ThreadSleep(unsigned int ms);

// The strategy plug-in.
// The library, its factory and the one object stay alive for the whole run.
class JLibrary;
class IPolicyPlugin;
extern JLibrary* hModule;
extern IPolicyPlugin* (*fnCreatePlugin)();
extern IPolicyPlugin* g_pRegister;
// The plug-in object made by "CreatePlugin" of "libPolicyProbe.dylib" beside the bundle (three
// folders above the executable's), loading the library on first use. Null, logged, when the
// library or its factory is missing; the library is then dropped and the next call tries again.
void* GetRegisterInstance();
// Creates the plug-in object once and calls its Init; every failure is logged and ignored.
void InitAgent();
// Unloads and deletes the plug-in library, if any, and clears hModule. The plug-in object is
// not destroyed.
void DropPluginLibrary();

// The whole start-up sequence; the result is the process's exit status. Without an argument
// naming an existing folder: deploys into the duplicate folder, starts the duplicate with the
// installed folder as its argument, and returns 0 (-1 on failure). With one: stays resident
// until told to end through its guard (port 31334, or per-user the socket in the data folder).
// Returns 0 at once when another agent runs. The per-user agent run as root returns -1 at once
// with a message on standard error, having made and written nothing.
int RavelMain(int argc, char* argv[]);
