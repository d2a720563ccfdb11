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
// The data folder the agent makes when none is stored: "/usr/local/zq_kt_userdata/" +
// `displayName` with every blank made "_" + "/" (an empty name gives the root and a second "/").
QString DefaultDataFolder(QString displayName);
// A folder path as the agent completes one: "/" is added unless it ends with "/" or "\\".
QString WithSeparator(QString path);
// A stored or made data folder as the agent uses it (WithSeparator). A relative text stays
// relative, to the working folder of whoever uses it.
QString DataFolderFrom(const QString& text);

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
};
// Reads Tidewater.dat and, when it stores no data folder, UpdateInfo.dat of `installed`.
AgentPlaces LocateAgentPlaces(const QString& installed);
// True when `folder` is a duplicate folder rather than an installed one: the folder its own copy
// of Tidewater.dat names as the duplicate folder, or a "Brightwell" folder holding ravel.app beside
// a "log" folder. Reads only.
bool IsDuplicateFolder(const QString& folder);

// The folder holding the bundle (three levels above the executable's folder), ending with "/".
QString GetExeDir();
// The home folder + "/Application Data" (no trailing "/"). Unused by the agent.
QString GetUserDirectory();
// The data folder + "log/" (`bLog`) or + "Brightwell/" (the duplicate folder). The data folder
// is StoredDataFolder(g_qstrOrgPath) through DataFolderFrom; when none is stored it is made with
// GetCompDataDirectory from the display name in g_qstrOrgDat (creating that folder, opened to
// everyone) and written back to Tidewater.dat.
QString GetDuplicatePath(bool bLog);
