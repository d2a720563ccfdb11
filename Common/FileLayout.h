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

// The folder holding the bundle (three levels above the executable's folder), ending with "/".
QString GetExeDir();
// The home folder + "/Application Data" (no trailing "/"). Unused by the agent.
QString GetUserDirectory();
// The data folder + "log/" (`bLog`) or + "Brightwell/" (the duplicate folder). The data folder
// is "DupInfo"/"DuplicatePath" of g_qstrOrgPath + Tidewater.dat, with a "/" added when missing;
// when the key is empty it is computed with GetCompDataDirectory from the display name in
// g_qstrOrgDat (creating that folder, opened to everyone) and written back to Tidewater.dat.
QString GetDuplicatePath(bool bLog);
