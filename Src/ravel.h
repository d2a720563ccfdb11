// The agent: schedule, launch decision, deployment and process control.
#pragma once

#include "Decision.h"

#include <QString>
#include <QtGlobal>
#include <functional>
#include <string>

// File layout: 0 success, 1 updater, 2 UserInfo.dat, 3 Tidewater.dat, 4 UpdateInfo.dat missing.
int InitFilePath(const QString& path, bool bDup);

// Schedule and launch decision: the rules of Decision.h run on the real files, clock and
// generator. CarryOut runs any rule so: it reads each value when asked, and logs, writes to
// UserInfo.dat, starts the updater or ends the process (status 0) as the rule says.
Outcome CarryOut(const std::function<Outcome(const Known&)>& rule);
// Fills info from UserInfo.dat, writing back each repair.
void ReadConfigInfo(CONFIG_INFO& info);
// True when the updater is to be started now; may write a drawn "DelayTime".
bool IsTimeToLaunchUpdate(const CONFIG_INFO& info);
// At start-up: counts a delay of round 1 or 2 that ran out while the agent was away.
void CheckMissed();

// Deployment into the duplicate folder.
int CopyFileToDup(const QString& src, const QString& dst);
bool IsNewVersion(const QString& src, const QString& dst);
void CopyDependLib();
bool IsCopyFile(const std::string& srcXml, const std::string& dstXml);
bool setFilePermissions(const QString& path);
int CopyOneFile(const QString& src, const QString& dst);
int CreatePath(const QString& path);
bool DeleteSpecialFile(const QString& path);

// Processes.
bool IsProcessRunning(const QString& name);
int ExecuteFile(const QString& path, const QString& args, bool wait);
bool IsFileExist(const QString& path);
unsigned int ThreadSleep(unsigned int ms);

// The strategy plug-in.
// The library, its factory and the one object stay alive for the whole run.
class JLibrary;
class IPolicyPlugin;
extern JLibrary* hModule;
extern IPolicyPlugin* (*fnCreatePlugin)();
extern IPolicyPlugin* g_pRegister;
void* GetRegisterInstance();
void InitAgent();

// The whole start-up sequence; main() only forwards to it.
int RavelMain(int argc, char* argv[]);
