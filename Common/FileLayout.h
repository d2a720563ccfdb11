// File names and the folders they live in. The log needs the data folder, so the layout sits
// here, below both the log and the agent.
#pragma once

#include <QString>

extern const char* MAC_APP_PATH;        // "/Contents/MacOS/ravel"
extern const char* RAVEL_EXE_FILE_NAME; // "ravel.app"
extern const char* USER_INFO_DAT;       // "UserInfo.dat"
extern const char* TIDEWATER_DAT;       // "Tidewater.dat"
extern const char* BRIGHTWELL_INFO;     // "/UpdateInfo"
extern const char* BRIGHTWELL_DATA;     // "/Brightwell Data"
extern const char* TIDEWATER_EXE;       // "Tidewater.app/Contents/MacOS/Tidewater"
extern const char* UPDATE_INFO_DAT;     // "UpdateInfo.dat"

extern QString g_qstrOrgPath;           // installed folder, ending with "/"
extern QString g_qstrOrgDat;            // g_qstrOrgPath + "UpdateInfo.dat"
extern QString g_qstrUserInfoIniPath;   // duplicate folder + USER_INFO_DAT
extern QString g_qstrTidewaterIniPath;  // set by InitFilePath
extern QString g_qstrUpdateInfoDatPath; // set by InitFilePath
extern QString g_qstrTidewaterExePath;  // set by InitFilePath

// Names inside the data folder.
extern const char* DUPLICATE_FOLDER; // "Brightwell/": the resident copy and UserInfo.dat
extern const char* LOG_FOLDER;       // "log/"
extern const char* LOG_FILE_NAME;    // "ravel.log"

// ---- Where an installed product's agent keeps its files ----
// One rule for the agent, its tools and the stand-in updater. None of these creates or writes
// anything.

// The text of "DupInfo"/"DuplicatePath" in `installed` + Tidewater.dat; empty when the file,
// the key or its text is missing. `installed` ends with "/".
QString StoredDataFolder(const QString& installed);
// The account's home folder: $HOME when it is an absolute path, else the home of the account's
// entry in the user database; empty when neither names one. No trailing "/".
QString HomeFolder();
// Where the per-user agent keeps its data folders, ending with "/": on Linux $XDG_DATA_HOME when
// it is an absolute path, else the home folder + "/.local/share/"; on macOS the home folder +
// "/Library/Application Support/". Empty without a home folder.
QString UserDataRoot();
// The data folder the agent makes when none is stored: "/usr/local/zq_kt_userdata/" (shared) or
// UserDataRoot() (per-user) + `displayName` with every blank made "_" + "/" (an empty name gives
// the root and a second "/"). Per-user without a home folder: empty.
QString DefaultDataFolder(QString displayName);
// A folder path as the agent completes one: "/" is added unless it ends with "/" or "\\".
QString WithSeparator(QString path);
// A stored or made data folder as the agent uses it (WithSeparator). A relative text stays
// relative, to the working folder of whoever uses it. Per-user only, a text beginning with "~/"
// is taken from the home folder (empty without one); the shared agent keeps it as it stands.
QString DataFolderFrom(const QString& text);
// The per-user agent's single-instance socket and the lock file that guards it, in the data
// folder `dataFolder` (ending with "/"): + "ravel.socket" and + "ravel.lock".
QString InstanceSocket(const QString& dataFolder);
QString InstanceLock(const QString& dataFolder);

// Every place of one installed product, as its agent finds them.
struct AgentPlaces {
    QString installed;   // as given, WithSeparator
    QString settings;    // installed + "Tidewater.dat"
    QString components;  // installed + "UpdateInfo.dat"
    QString displayName; // of the main component, when no data folder is stored
    bool stored = false; // the data folder comes from "DupInfo"/"DuplicatePath"
    QString dataFolder;  // ending with "/" (or "\")
    QString duplicate;   // dataFolder + "Brightwell/"
    QString userInfo;    // duplicate + "UserInfo.dat"
    QString logFolder;   // dataFolder + "log/"
    QString log;         // logFolder + "ravel.log"
    QString socket;      // per-user: InstanceSocket(dataFolder); empty in the shared build
};
// Reads Tidewater.dat and, when it stores no data folder, UpdateInfo.dat of `installed`. Per-user
// without a home folder (no stored folder, or one beginning with "~/"), the data folder and every
// place in it are empty.
AgentPlaces LocateAgentPlaces(const QString& installed);
// True when `folder` is a duplicate folder rather than an installed one: the folder its own copy
// of Tidewater.dat names as the duplicate folder, or a "Brightwell" folder holding ravel.app beside
// a "log" folder. Reads only.
bool IsDuplicateFolder(const QString& folder);

// The folder holding the bundle (three levels above the executable's folder), ending with "/".
QString GetExeDir();
// The home folder + "/Application Data" (no trailing "/"). Unused by the agent.
QString GetUserDirectory();
// The data folder: StoredDataFolder(g_qstrOrgPath) through DataFolderFrom. When none is stored it
// is made with GetCompDataDirectory from the display name in g_qstrOrgDat; the shared agent writes
// it back to Tidewater.dat (opening that file to everyone), the per-user one never writes there.
// Empty when it cannot be named (per-user without a home folder).
QString GetDataFolder();
// GetDataFolder() + "log/" (`bLog`) or + "Brightwell/" (the duplicate folder); empty when the
// data folder is.
QString GetDuplicatePath(bool bLog);
