// The whole-file read under ReadXMLFile, for callers that hold the path as a framework string:
// settings are read at every check, so the path is not taken through a wide string first.
#pragma once

#include <QString>
#include <string>

// As CCommonFunctions::ReadXMLFile(path.toStdWString(), out, unseal): 0 with the UTF-8 text in
// `out`, -1 (and `out` untouched) for an empty path or a file that is missing, no plain file,
// empty, or unmarked without any "<".
int ReadXMLFileAt(const QString& path, std::string& out, bool unseal);
