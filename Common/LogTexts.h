// Every text the agent writes to its log or its standard error, in one place: the agent formats
// its lines with these, and the tools that read a log back (ravel-schedule, ravel-fleet) look for
// them here. A log line reads "[Src/ravel(LINE)][yyyy-MM-dd hh:mm:ss]", one tab per indentation
// level, "[" + the formatted text + "]-->".
#pragma once

namespace logtext {

// The banners that open and close each run's part of the log.
constexpr char kStartBanner[] = "----------------------Start Log---------------------------------";
constexpr char kEndBanner[] = "----------------------End Log-----------------------------------";
// What follows the message on every line.
constexpr char kLineEnd[] = "]-->";

// The settings store's messages on standard error: the build time, the source and the function,
// each followed by ": ", then the text.
constexpr char kStoreSource[] = "../Common/CommonFunctions";
constexpr char kDisplayNameFailed[] =
    "Get main component display name Failed: XML file's format  is not correct.";
constexpr char kPathEmpty[] = "Path is empty.";
constexpr char kPathFormatWrong[] = "Path format is wrong.";
constexpr char kMakeDirectoryFailed[] = "Make directory failed.";

// Start-up (standard error only: the log is not open yet).
constexpr char kDuplicatePathFailed[] = "Duplicate path is empty or it's not a path.";
// The per-user agent started by root.
constexpr char kRootRefused[] =
    "ravel: this is the per-user agent; it does not run as root. Start it from the account it "
    "serves.";
// Start-up and the single-instance guard.
constexpr char kListenFailed[] = "QLocalServer listen failed.";
constexpr char kAcceptExit[] = "Accept a connection, ravel exit.";
constexpr char kAlreadyRunning[] = "There is an Ravel process is running.";
constexpr char kOriginalInitFailed[] = "Original InitFilePath Failed";
constexpr char kDuplicateInitFailed[] = "Duplicate InitFilePath Failed";
constexpr char kCopyToDupFailed[] = "Copy file to Dup failed.";
constexpr char kExecuteDuplicateFailed[] = "Execute Duplicate %s Failed";
constexpr char kConfigFileMissing[] = "ConfigFile<%s> not exist";
constexpr char kExeFileMissing[] = "ExeFile<%s> not exist";

// Deployment by the installed copy.
constexpr char kDeployFrom[] = "Enter111111111 InitAgent() ...qstrSrcPath=%s";
constexpr char kFirstDataCopy[] =
    "Config.xml and UserData.dat file not exist,will create new file=%s";
constexpr char kLibraryCopyFailed[] = "Copy file failed. the file name is:\n%s.";

// Starting a program (the duplicate or the updater).
constexpr char kFilePath[] = "File path is: %s";

// The strategy plug-in.
constexpr char kPluginPath[] = "lib PolicyProbe path = %s"; // standard error only
constexpr char kPluginFail[] = "load PolicyProbe fail";
constexpr char kPluginFail2[] = "load PolicyProbe fail 2";
constexpr char kPluginFail3[] = "load PolicyProbe fail 3";
constexpr char kPluginEnter[] = "Enter InitAgent() ...";
constexpr char kPluginInitFailed[] = "Init Agent Failed.";
constexpr char kPluginLeave[] = "Leave InitAgent() ...";

// The schedule: reading it, the start-up missed-delay rule, and each check.
constexpr char kEnter[] = "%s: Enter";
constexpr char kLeave[] = "%s: Leave";
constexpr char kReadConfigInfo[] = "ReadConfigInfo";
constexpr char kCheckMissed[] = "CheckMissed";
constexpr char kStrategyNotCorrect[] = "Strategy not correct(Strategy=%s)";
constexpr char kUpdateCycleNotCorrect[] = "UpdateCycle(%d) not correct";
constexpr char kDelayTimesNotCorrect[] = "DelayTimes not correct";
constexpr char kMissed[] = "Missed UpdateTime, DelayTimes=%u";
constexpr char kTimeUsedUp[] = "Time is used up, ravel will check if delay time is ok";
constexpr char kDelayTimesAtLeast3[] = "DelayTimes >= 3";
constexpr char kAutoCheckNow[] = "AutoCheckNow = 1";
constexpr char kDelayTo[] = "Delay to Time (%s)";
constexpr char kResume[] = "LastTime DownLoad broken, Continue now!";
constexpr char kNeverExit[] = "Strategy was set to never, duplicate ravel will exit now!";
constexpr char kReady[] = "Time is Ready, Try to Launch(%s)";
constexpr char kLaunchFailed[] = "Failed to Launch(%s)";
constexpr char kSleep[] = "Sleep %u Minutes";

} // namespace logtext
