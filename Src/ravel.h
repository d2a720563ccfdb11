// The agent: schedule, launch decision, deployment and process control.
#pragma once

#include <QString>
#include <QtGlobal>
#include <string>

// The schedule record, filled afresh from UserInfo.dat on every check.
struct CONFIG_INFO {
    quint32 nStrategy;       // 1 cycle, 0 never
    quint32 nUpdateCycle;    // days
    quint32 nDelayTimes;     // delay round, 1 to 3 after reading
    quint32 bContinue;       // an interrupted run is to be resumed
    quint32 nDelayTime;      // seconds since the epoch; 0 = no delay drawn yet
    quint32 nLastLaunchTime; // seconds since the epoch
};

// File layout: 0 success, 1 updater, 2 UserInfo.dat, 3 Tidewater.dat, 4 UpdateInfo.dat missing.
int InitFilePath(const QString& path, bool bDup);

// Schedule and launch decision.
void ReadConfigInfo(CONFIG_INFO& info);
bool IsTimeToLaunchUpdate(const CONFIG_INFO& info);
void CheckMissed();
bool NeedContinue(const QString& status);

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
void DropPluginLibrary();

// The whole start-up sequence; main() only forwards to it.
int RavelMain(int argc, char* argv[]);
