// The whole-file read under ReadXMLFile, for callers that hold the path as a framework string:
// settings are read at every check, so the path is not taken through a wide string first.
#pragma once

#include <QString>
#include <string>

// As CCommonFunctions::ReadXMLFile(path.toStdWString(), out, unseal): 0 with the UTF-8 text in
// `out`, -1 (and `out` untouched) for an empty path or a file that is missing, no plain file,
// empty, or unmarked without any "<".
int ReadXMLFileAt(const QString& path, std::string& out, bool unseal);

// How a whole-file read of a settings file ended.
enum class SettingsRead {
    Read,   // the text is in `out`
    Absent, // nothing to read: missing, no plain file, empty, not readable by this account
            // (EACCES and the like), or unmarked without any "<"
    Failed, // the file is there but reading it failed for now, three times in a row: EIO,
            // EMFILE, ENFILE, ENOMEM or EAGAIN at its opening, or any error part-way through
            // (EINTR is retried without counting)
};
// ReadXMLFileAt's read, telling a file with nothing to read from one that could not be read now:
// a caller about to replace the file must not take the second for the first.
SettingsRead ReadSettingsFile(const QString& path, std::string& out, bool unseal);
